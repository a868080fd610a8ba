#include "client/orientation.h"

#include <libexif/exif-data.h>

#include <memory>

namespace facezoo {

int orientationOf(std::string_view exif) {
  constexpr int kUpright = 1, kMost = 8;
  const std::unique_ptr<ExifData, void (*)(ExifData*)> data(
      exif_data_new_from_data(reinterpret_cast<const unsigned char*>(exif.data()),
                              static_cast<unsigned>(exif.size())),
      exif_data_unref);
  if (data == nullptr) return kUpright;
  const ExifEntry* entry = exif_content_get_entry(data->ifd[EXIF_IFD_0], EXIF_TAG_ORIENTATION);
  if (entry == nullptr || entry->format != EXIF_FORMAT_SHORT || entry->size < 2) return kUpright;
  const int tag = exif_get_short(entry->data, exif_data_get_byte_order(data.get()));
  return tag < kUpright || tag > kMost ? kUpright : tag;
}

}  // namespace facezoo

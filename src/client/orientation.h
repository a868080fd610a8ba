/// @file
#pragma once

#include <string_view>

namespace facezoo {

/// The value of the orientation tag, 1 to 8, which says how to turn a picture upright.
/// @param exif an Exif segment from its identifier on
/// @return 1, which is upright, if the segment is broken or does not say
int orientationOf(std::string_view exif);

/// Where a picture, as it was stored, holds the pixels of the upright one.
struct Orientation {
  explicit Orientation(int tag)
      : transposed(tag >= 5),
        fromRight(tag == 2 || tag == 3 || tag == 7 || tag == 8),
        fromBottom(tag == 3 || tag == 4 || tag == 6 || tag == 7) {}

  bool transposed;  ///< a row of the upright picture is a stored column
  bool fromRight, fromBottom;
};

}  // namespace facezoo

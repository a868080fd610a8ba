#include "client/loading.h"

#include "client/failure.h"
#include "client/file_kind.h"
#include "client/files.h"
#include "client/weight_document.h"
#include "facezoo/listener.h"

namespace facezoo {

namespace {

class WeightCheck : public Listener {
 public:
  WeightCheck(const KnownNetwork& known, const std::string& path, const std::string& prefix,
              std::string* line)
      : network_(*known.table), path_(path), prefix_(prefix), line_(line) {}
  void onLine(const char* line) noexcept override {
    if (line_ != nullptr) *line_ = line;
  }
  void onDocument(const msgpack::v1::object& root) override {
    try {
      requireWeights(WeightDocument(root, path_), path_, network_, prefix_);
    } catch (const Failure&) {
      expectWeightFile(path_, network_.name);  // others are MessagePack, too, by chance
      throw;
    }
  }

 private:
  const NetworkTable& network_;
  const std::string& path_;
  const std::string& prefix_;
  std::string* const line_;
};

}  // namespace

std::unique_ptr<Network> makeCheckedNetwork(const KnownNetwork& known,
                                            const std::string& weightFile, int maxBatch,
                                            const std::string& prefix, std::string* line) {
  requireRegularFile(weightFile);
  const auto diagnose = [&] {
    expectWeightFile(weightFile, known.table->name);
    requireWeights(WeightDocument(weightFile), weightFile, *known.table, prefix);
  };
  const WeightCheck check(known, weightFile, prefix, line);
  try {
    return known.make(weightFile, maxBatch, prefix);
  } catch (NetworkError) {  // of a file that cannot be read
    diagnose();
    throw;
  } catch (const msgpack::v1::unpack_error&) {
    diagnose();
    throw;
  }
}

}  // namespace facezoo

#include "sinks.h"

#include "failure.h"
#include "landmarks.h"
#include "npy_file.h"
#include "rows.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <map>

namespace fs = std::filesystem;

namespace {

using facezoo::NetworkTable;
using facezoo::OutputGroup;

std::string formatOf(const RunOptions& options) {
  return options.format.empty() ? "table" : options.format;
}

std::size_t widest(const std::vector<std::string>& texts) {
  std::size_t width = 0;
  for (const std::string& text : texts) width = std::max(width, widthOf(text));
  return width;
}

/// Prints a line for each picture.
class Lines : public Sink {
 public:
  Lines(const RunOptions& options, const NetworkTable& table,
        const std::vector<std::string>& pictures)
      : groups_(options.features.empty() ? table.outputs : facezoo::View<OutputGroup>{nullptr, 0}),
        norm_(options.norm),
        rows_(formatOf(options), columns(widest(pictures))) {}

  void take(const std::string& picture, const Batch& batch, int index) override {
    nlohmann::ordered_json row = {{"image", picture}};
    const float* value = batch.values(index);
    for (const OutputGroup& group : groups_) {
      if (group.count == 1) {
        row[group.name] = *value;
      } else {
        row[group.name] = std::vector<float>(value, value + group.count);
      }
      value += group.count;
    }
    if (norm_) row["norm"] = batch.norm(index);
    rows_.print(row);
  }

 private:
  std::vector<Column> columns(std::size_t pictureWidth) const {
    constexpr std::size_t kNumber = 10;
    std::vector<Column> columns = {{"image", pictureWidth}};
    for (const OutputGroup& group : groups_)
      columns.push_back({group.name, kNumber, Column::kResult});
    if (norm_) columns.push_back({"norm", kNumber, Column::kResult});
    return columns;
  }

  facezoo::View<OutputGroup> groups_;  ///< none if they go to a file
  bool norm_;
  Rows rows_;
};

/// Writes a row of a NumPy array for each picture.
class Array : public Sink {
 public:
  Array(const std::string& path, const NetworkTable& table) : file_(path, table.outputCount()) {}

  void take(const std::string&, const Batch& batch, int index) override {
    file_.add(batch.values(index));
  }
  void finish() override {
    if (file_.rows() > 0) file_.keep();
  }

 private:
  NpyFile file_;
};

/// Writes each picture with its landmarks.
class Drawings : public Sink {
 public:
  Drawings(const RunOptions& options, const NetworkTable& table,
           const std::vector<std::string>& pictures)
      : reading_{options.layout == "xyxy", options.scale}, geometry_(table) {
    std::error_code error;
    std::map<std::string, std::string> pictureOf;
    for (const std::string& picture : pictures) {
      const fs::path drawing = fs::path(options.drawings) / fs::path(picture).stem().concat(".png");
      const auto [known, isNew] = pictureOf.emplace(drawing.string(), picture);
      if (!isNew && known->second != picture) {
        throw Failure(drawing.string() + ": would be drawn from both " + known->second + " and " +
                      picture);
      }
      if (fs::equivalent(drawing, picture, error))
        throw Failure(drawing.string() + ": is a picture to be read, and would be replaced");
      drawingOf_.emplace(picture, drawing.string());
    }
    fs::create_directories(options.drawings, error);
    if (error) throw Failure(options.drawings + ": cannot be made: " + error.message());
  }

  void take(const std::string& picture, const Batch& batch, int index) override {
    const int outside =
        drawLandmarks(picture, batch.values(index), reading_, geometry_, drawingOf_.at(picture));
    if (outside > 0) {
      warn(picture + ": " + std::to_string(outside) +
           " of 68 landmarks lie outside the picture: do --layout and --scale fit the weights?");
    }
  }

 private:
  LandmarkReading reading_;
  facezoo::InputGeometry geometry_;
  std::map<std::string, std::string> drawingOf_;
};

/// Prints the cosine similarity of two pictures' descriptors.
class Comparison : public Sink {
 public:
  Comparison(const RunOptions& options, const std::vector<std::string>& pictures)
      : rows_(formatOf(options), {{"image", widest({pictures[0]})},
                                  {"other", widest({pictures[1]})},
                                  {"cosine", 10, Column::kResult}}) {}

  void take(const std::string& picture, const Batch& batch, int index) override {
    const float* const results = batch.values(index);
    pictures_.push_back(picture);
    descriptors_.emplace_back(results, results + batch.valueCount());
  }
  void finish() override {
    const double product = dot(0, 1);
    const double lengths = std::sqrt(dot(0, 0)) * std::sqrt(dot(1, 1));
    rows_.print({{"image", pictures_[0]}, {"other", pictures_[1]}, {"cosine", product / lengths}});
  }

 private:
  double dot(std::size_t a, std::size_t b) const {
    double sum = 0;
    for (std::size_t i = 0; i < descriptors_[a].size(); ++i)
      sum += static_cast<double>(descriptors_[a][i]) * descriptors_[b][i];
    return sum;
  }

  Rows rows_;
  std::vector<std::string> pictures_;
  std::vector<std::vector<float>> descriptors_;
};

}  // namespace

bool printsLines(const RunOptions& options) {
  return options.compared.empty() && (options.features.empty() || !options.format.empty());
}

std::vector<std::unique_ptr<Sink>> sinksFor(const RunOptions& options, const NetworkTable& table,
                                            const std::vector<std::string>& pictures) {
  std::vector<std::unique_ptr<Sink>> sinks;
  if (!options.compared.empty()) sinks.emplace_back(new Comparison(options, pictures));
  if (!options.features.empty()) sinks.emplace_back(new Array(options.features, table));
  if (!options.drawings.empty()) sinks.emplace_back(new Drawings(options, table, pictures));
  if (printsLines(options)) sinks.emplace_back(new Lines(options, table, pictures));
  return sinks;
}

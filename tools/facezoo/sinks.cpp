#include "sinks.h"

#include "client/failure.h"
#include "json_text.h"
#include "landmarks.h"
#include "match.h"
#include "messages.h"
#include "npy_file.h"
#include "rows.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <functional>
#include <map>
#include <numeric>

using namespace facezoo;

namespace fs = std::filesystem;

namespace {

std::size_t widest(const std::vector<std::string>& texts) {
  std::size_t width = 0;
  for (const std::string& text : texts) width = std::max(width, widthOf(text));
  return width;
}

/// Prints the results of each picture, a line each.
class Lines : public Sink {
 public:
  Lines(const RunOptions& options, const NetworkTable& table,
        const std::vector<std::string>& pictures, ResultFiles& files)
      : groups_(options.features.empty() ? table.outputs : View<OutputGroup>{nullptr, 0}),
        norm_(options.norm),
        rows_(formatOf(options), columns(widest(pictures)), linesOf(options, files),
              !files.earlier().empty()) {}

  void take(const Result& result) override {
    nlohmann::ordered_json row = {{"image", result.picture}};
    const float* value = result.values();
    for (const OutputGroup& group : groups_) {
      if (group.count == 1) {
        row[group.name] = *value;
      } else {
        row[group.name] = std::vector<float>(value, value + group.count);
      }
      value += group.count;
    }
    if (norm_) row["norm"] = result.norm();
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

  View<OutputGroup> groups_;  ///< none if they go to a file
  bool norm_;
  Rows rows_;
};

/// Writes the results of each picture as a row of a NumPy array, and its name to the file of names.
class Array : public Sink {
 public:
  Array(const RunOptions& options, const NetworkTable& table, ResultFiles& files)
      : files_(files),
        names_(resultPaths(options).size() - 2),
        array_(names_ + 1),
        rows_(files.earlier().size()),
        columns_(table.outputCount()) {
    if (rows_ == 0) files.stream(array_) << npyHeader(rows_, columns_);
  }

  void take(const Result& result) override {
    files_.stream(names_) << toJsonString(result.picture) << '\n';
    files_.stream(array_).write(reinterpret_cast<const char*>(result.values()),
                                static_cast<std::streamsize>(columns_ * sizeof(float)));
    ++rows_;
  }
  void finish() override { files_.replaceStart(array_, npyHeader(rows_, columns_)); }

 private:
  ResultFiles& files_;
  std::size_t names_, array_, rows_, columns_;
};

/// Warns at the end if there were results that are not finite, as weights or pictures do not fit
/// then.
class FiniteCheck : public Sink {
 public:
  explicit FiniteCheck(bool norm) : norm_(norm) {}

  void take(const Result& result) override {
    const float* const values = result.values();
    const auto isFinite = [](float value) { return std::isfinite(value); };
    if (std::all_of(values, values + result.batch.valueCount(), isFinite) &&
        (!norm_ || isFinite(result.norm())))
      return;
    if (count_++ == 0) first_ = result.picture;
  }
  void finish() override {
    if (count_ == 0) return;
    warn(first_ + ": expected finite results, found NaN or infinity" +
         (count_ > 1 ? ", as for " + std::to_string(count_) + " pictures in all" : ""));
  }

 private:
  bool norm_;
  std::size_t count_ = 0;
  std::string first_;
};

/// Writes each picture with its landmarks, in the same subfolders as it was found in.
class Drawings : public Sink {
 public:
  Drawings(const RunOptions& options, const NetworkTable& table,
           const std::vector<std::string>& pictures,
           const std::map<std::string, std::string>& places, Outputs& outputs, bool replaces,
           PictureLimits& limits)
      : reading_{options.layout == "xyxy", options.scale},
        orient_(readingOf(options).orient),
        geometry_(table),
        limits_(limits) {
    std::map<std::string, std::string> pictureOf;
    for (const std::string& picture : pictures) {
      const auto known = places.find(picture);
      const fs::path place =
          known == places.end() ? fs::path(picture).filename() : fs::path(known->second);
      const fs::path drawing = (fs::path(options.drawings) / place).replace_extension(".png");
      const auto [other, isNew] = pictureOf.emplace(drawing.string(), picture);
      if (!isNew && other->second != picture) {
        throw Failure(drawing.string() + ": would be drawn from both " + other->second + " and " +
                      picture);
      }
    }
    for (const auto& [drawing, picture] : pictureOf) {
      drawingOf_.emplace(picture, outputs.claim(drawing, replaces));
      requireInside(drawing, options.drawings);
    }
    for (const auto& [drawing, picture] : pictureOf) {
      const fs::path folder = fs::path(drawing).parent_path();
      std::error_code error;
      fs::create_directories(folder, error);
      if (error) throw Failure(folder.string() + ": cannot be made: " + error.message());
    }
  }

  void take(const Result& result) override {
    OutputPlace& drawing = drawingOf_.at(result.picture);
    Picture picture = result.whole
                          ? *std::move(result.whole)
                          : readPicture(result.picture, geometry_.channels, orient_, limits_);
    const int outside = drawLandmarks(picture, result.values(), reading_, geometry_, drawing);
    drawing.own();
    if (outside > 0) {
      warn(result.picture + ": " + std::to_string(outside) +
           " of 68 landmarks lie outside the picture: do --layout and --scale fit the weights?");
    }
  }

 private:
  /// @throws Failure if a link leads `drawing` out of `directory`
  static void requireInside(const fs::path& drawing, const fs::path& directory) {
    std::error_code error;
    const fs::path way =
        fs::weakly_canonical(fs::absolute(drawing, error), error)
            .lexically_relative(fs::weakly_canonical(fs::absolute(directory, error), error));
    if (error || way.empty() || *way.begin() == "..")
      throw Failure(drawing.string() + ": lies outside of " + directory.string());
  }

  LandmarkReading reading_;
  bool orient_;
  InputGeometry geometry_;
  PictureLimits& limits_;
  std::map<std::string, OutputPlace> drawingOf_;
};

/// Prints the cosine similarities of pictures' descriptors: of more than two, a square in a table
/// and otherwise each pair once.
class Comparison : public Sink {
 public:
  Comparison(const RunOptions& options, const std::vector<std::string>& pictures,
             ResultFiles& files)
      : isSquare_(pictures.size() > 2 && formatOf(options) == "table"),
        rows_(formatOf(options), columns(pictures), linesOf(options, files)) {}

  void take(const Result& result) override {
    pictures_.push_back(result.picture);
    descriptors_.emplace_back(result.values(), result.values() + result.batch.valueCount());
  }
  void finish() override {
    for (std::size_t i = 0; i < pictures_.size(); ++i) {
      nlohmann::ordered_json square = {{"#", i + 1}, {"image", pictures_[i]}};
      for (std::size_t j = isSquare_ ? 0 : i + 1; j < pictures_.size(); ++j) {
        if (isSquare_) {
          square[std::to_string(j + 1)] = cosine(i, j);
        } else {
          rows_.print({{"image", pictures_[i]}, {"other", pictures_[j]}, {"cosine", cosine(i, j)}});
        }
      }
      if (isSquare_) rows_.print(square);
    }
  }

 private:
  std::vector<Column> columns(const std::vector<std::string>& pictures) const {
    constexpr std::size_t kCosine = 10;
    if (!isSquare_) {
      return {{"image", widest({pictures[0]})},
              {"other", widest({pictures[1]})},
              {"cosine", kCosine, Column::kResult}};
    }
    std::vector<Column> columns = {{"#", std::to_string(pictures.size()).size(), 0},
                                   {"image", widest(pictures)}};
    for (std::size_t i = 1; i <= pictures.size(); ++i)
      columns.push_back({std::to_string(i), kCosine, Column::kResult});
    return columns;
  }
  double cosine(std::size_t a, std::size_t b) const {
    return dot(a, b) / (std::sqrt(dot(a, a)) * std::sqrt(dot(b, b)));
  }
  double dot(std::size_t a, std::size_t b) const {
    return std::inner_product(descriptors_[a].begin(), descriptors_[a].end(),
                              descriptors_[b].begin(), 0.0, std::plus<>(),
                              std::multiplies<double>());
  }

  bool isSquare_;
  Rows rows_;
  std::vector<std::string> pictures_;
  std::vector<std::vector<float>> descriptors_;
};

}  // namespace

std::vector<std::string> resultPaths(const RunOptions& options) {
  std::vector<std::string> paths;
  if (!options.output.empty()) paths.push_back(options.output);
  if (!options.features.empty()) {
    paths.push_back(namesFileOf(options.features));
    paths.push_back(options.features);
  }
  return paths;
}

std::ostream& linesOf(const RunOptions& options, ResultFiles& files) {
  return options.output.empty() ? std::cout : files.stream(0);
}

bool printsLines(const RunOptions& options) {
  return options.compared.empty() && options.gallery.empty() &&
         (options.features.empty() || !options.format.empty() || !options.output.empty());
}

std::vector<std::unique_ptr<Sink>> sinksFor(const RunOptions& options, const NetworkTable& table,
                                            const std::vector<std::string>& pictures,
                                            const std::map<std::string, std::string>& places,
                                            Outputs& outputs, ResultFiles& files,
                                            PictureLimits& limits) {
  std::vector<std::unique_ptr<Sink>> sinks;
  if (!options.compared.empty()) sinks.emplace_back(new Comparison(options, pictures, files));
  if (!options.gallery.empty()) sinks.push_back(neighbours(options, table, files));
  if (!options.features.empty()) sinks.emplace_back(new Array(options, table, files));
  if (!options.drawings.empty())
    sinks.emplace_back(new Drawings(options, table, pictures, places, outputs,
                                    options.force || files.continues(), limits));
  if (printsLines(options)) sinks.emplace_back(new Lines(options, table, pictures, files));
  sinks.emplace_back(new FiniteCheck(options.norm));
  return sinks;
}

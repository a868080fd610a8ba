/// @file
/// Where the results of `facezoo run` and `facezoo match` go.
#pragma once

#include "client/batch.h"
#include "client/images.h"
#include "network_table.h"
#include "result_files.h"

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// What `facezoo run` was asked for.
struct RunOptions {
  std::string network, weights, prefix, format, output, features, list, drawings, layout, gallery,
      channels;
  int batch = 8, threads = 0, nearest = 1, maxPixels = facezoo::PictureLimits::kDefaultPixels;
  float scale = 1;
  bool norm = false, strict = false, resume = false, force = false, null = false, noOrient = false;
  std::vector<std::string> images, compared;
};

/// How `options` have pictures read.
inline facezoo::PictureReading readingOf(const RunOptions& options) {
  return {!options.noOrient, options.channels == "bgr"};
}

/// What a network gave for one picture.
struct Result {
  const std::string& picture;  ///< its path
  std::optional<facezoo::Picture>&
      whole;                    ///< as it was decoded, if it was kept; a sink may take it
  const facezoo::Batch& batch;  ///< that it was part of
  int index;                    ///< in the batch

  const float* values() const { return batch.values(index); }
  float norm() const { return batch.norm(index); }
};

inline std::string formatOf(const RunOptions& options) {
  return options.format.empty() ? "table" : options.format;
}

/// What becomes of the results of a run.
class Sink {
 public:
  Sink() = default;
  Sink(const Sink&) = delete;
  Sink& operator=(const Sink&) = delete;
  virtual ~Sink() = default;
  virtual void take(const Result& result) = 0;
  /// After the last picture.
  virtual void finish() {}
};

/// The files that `options` ask for.
std::vector<std::string> resultPaths(const RunOptions& options);

/// Where lines are printed: to standard output, or to the first of the files.
std::ostream& linesOf(const RunOptions& options, ResultFiles& files);

/// Whether a line with the results of each picture is printed.
bool printsLines(const RunOptions& options);

/// A sink for each kind of output that `options` ask for.
/// @param places as in `FoundPictures`
/// @throws Failure if one cannot be written
std::vector<std::unique_ptr<Sink>> sinksFor(const RunOptions& options,
                                            const facezoo::NetworkTable& table,
                                            const std::vector<std::string>& pictures,
                                            const std::map<std::string, std::string>& places,
                                            facezoo::Outputs& outputs, ResultFiles& files,
                                            facezoo::PictureLimits& limits);

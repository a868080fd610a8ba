/// @file
/// The files that a run writes its results to.
#pragma once

#include "client/files.h"

#include <cstddef>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

/// All of a run's files, which appear complete or not at all.
class ResultFiles {
 public:
  ResultFiles() = default;
  ResultFiles(const ResultFiles&) = delete;
  ResultFiles& operator=(const ResultFiles&) = delete;
  virtual ~ResultFiles() = default;

  /// Where to append to a file, by its place among the paths.
  virtual std::ostream& stream(std::size_t file) = 0;
  /// Whether an earlier run began them.
  bool continues() const { return continues_; }
  /// The pictures whose results the files hold from an earlier run.
  const std::vector<std::string>& earlier() const { return earlier_; }
  /// The results of these pictures have been given to the streams. @throws Failure
  virtual void add(const std::vector<std::string>& pictures) = 0;
  /// Overwrites the first bytes of a file, after which nothing is added. @throws Failure
  virtual void replaceStart(std::size_t file, const std::string& bytes) = 0;
  /// Gives all files their names, in the order of the paths. @throws Failure
  virtual void keep() = 0;

 protected:
  bool continues_ = false;
  std::vector<std::string> earlier_;
};

/// Files that are lost if the run is stopped.
/// @param replaces whether they may take the places of others
/// @throws Failure
std::unique_ptr<ResultFiles> wholeFiles(const std::vector<std::string>& paths,
                                        facezoo::Outputs& outputs, bool replaces);

/// Files that a later run goes on with if this one is stopped, even by a loss of power, which costs
/// the results of the last half second. Until they are complete they stand beside their places as
/// PATH.partial, with a journal beside the last path, PATH.journal: its first line is `run`, the
/// others say which pictures a batch had and where each file ended after it, and the last one that
/// the files are complete. The journal stays: where the same run is started again, it adds what the
/// complete files lack, which may be nothing, and does not touch them before it has something.
/// @param run what must be the same for a run to go on with the files of another: a line of JSON
/// @throws Failure if there are files of another run, or one that is going on
std::unique_ptr<ResultFiles> resumableFiles(const std::vector<std::string>& paths,
                                            facezoo::Outputs& outputs, const std::string& run);

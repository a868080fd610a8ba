#include "result_files.h"

#include "client/batch.h"
#include "client/failure.h"
#include "json_text.h"

#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <iterator>
#include <sstream>
#include <string_view>
#include <system_error>

using namespace facezoo;

namespace fs = std::filesystem;

namespace {

class WholeFiles : public ResultFiles {
 public:
  WholeFiles(const std::vector<std::string>& paths, Outputs& outputs, bool replaces) {
    for (const std::string& path : paths)
      files_.push_back(std::make_unique<NewFile>(outputs.claim(path, replaces)));
  }
  std::ostream& stream(std::size_t file) override { return files_[file]->stream(); }
  bool continues() const override { return false; }
  const std::vector<std::string>& earlier() const override { return none_; }
  void add(const std::vector<std::string>& /*pictures*/) override {}
  void replaceStart(std::size_t file, const std::string& bytes) override {
    stream(file).seekp(0).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  }
  void keep() override {
    for (const auto& file : files_) file->close();  // what fails leaves none of them
    for (const auto& file : files_) file->keep();
  }

 private:
  std::vector<std::unique_ptr<NewFile>> files_;
  const std::vector<std::string> none_;
};

/// A file that is there while it grows. What is added is on the disk after `write`.
class GrowingFile {
 public:
  explicit GrowingFile(const std::string& path) : path_(path) {
    file_ = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (file_ < 0) refuse();
  }
  GrowingFile(const GrowingFile&) = delete;
  GrowingFile& operator=(const GrowingFile&) = delete;
  ~GrowingFile() { close(file_); }

  const std::string& path() const { return path_; }
  bool lock() const { return flock(file_, LOCK_EX | LOCK_NB) == 0; }
  std::uintmax_t size() const { return fs::file_size(path_); }
  void cut(std::uintmax_t size) {
    if (ftruncate(file_, static_cast<off_t>(size)) != 0) refuse();
    end_ = size;
  }
  std::uintmax_t end() const { return end_; }

  void append(std::string_view bytes) {
    write(bytes, end_);
    end_ += bytes.size();
  }
  void write(std::string_view bytes, std::uintmax_t at) const {
    while (!bytes.empty()) {
      const ssize_t count = pwrite(file_, bytes.data(), bytes.size(), static_cast<off_t>(at));
      if (count < 0 && errno == EINTR) continue;
      if (count < 0) refuse();
      bytes.remove_prefix(count);
      at += count;
    }
    if (fdatasync(file_) != 0) refuse();
  }

 private:
  [[noreturn]] void refuse() const {
    throw Failure(path_ + ": cannot be written: " + std::generic_category().message(errno));
  }

  std::string path_;
  int file_;
  std::uintmax_t end_ = 0;
};

class PartialFiles : public ResultFiles {
 public:
  PartialFiles(const std::vector<std::string>& paths, Outputs& outputs, const std::string& run)
      : streams_(paths.size()) {
    // What is lost is decided below, not by the places.
    for (const std::string& path : paths) {
      paths_.push_back(outputs.claim(path, true).path());
      outputs.claim(partialOf(paths_.back()), true);
    }
    for (std::ostringstream& stream : streams_) stream.exceptions(std::ios::badbit);
    const std::string journal = outputs.claim(paths_.back() + ".journal", true).path();
    std::vector<Batch> batches;
    const bool isBegun = fs::exists(journal);
    if (isBegun) {
      lockJournal(journal);
      batches = readJournal(run);
      if (complete_) {
        finish();
        batches.clear();
        complete_ = false;
      }
    }
    for (const std::string& path : paths_) {
      requireNone(path);
      if (!isBegun) requireNone(partialOf(path));
    }
    lockJournal(journal);
    for (const std::string& path : paths_)
      files_.push_back(std::make_unique<GrowingFile>(partialOf(path)));
    goOn(batches, run);
  }
  PartialFiles(const PartialFiles&) = delete;
  PartialFiles& operator=(const PartialFiles&) = delete;
  /// Leaves no files that hold nothing.
  ~PartialFiles() override {
    if (hasRows_ || complete_) return;
    for (const auto& file : files_) unlink(file->path().c_str());
    unlink(journal_->path().c_str());
  }

  std::ostream& stream(std::size_t file) override { return streams_[file]; }
  bool continues() const override { return continues_; }
  const std::vector<std::string>& earlier() const override { return earlier_; }

  void add(const std::vector<std::string>& pictures) override {
    for (const std::string& picture : pictures) lines_ += toJsonString(picture) + '\n';
    // No value of JSON, which may crash where it lacks memory.
    for (std::size_t i = 0; i < files_.size(); ++i) {
      lines_ += i == 0 ? '[' : ',';
      lines_ += std::to_string(files_[i]->end() + static_cast<std::uintmax_t>(streams_[i].tellp()));
    }
    lines_ += "]\n";
    constexpr double kMostLost = 500;
    if (sinceWritten_.milliseconds() >= kMostLost) write();
  }

  void replaceStart(std::size_t file, const std::string& bytes) override {
    write();
    files_[file]->write(bytes, 0);
  }

  void keep() override {
    lines_ += kComplete;
    write();
    complete_ = true;
    finish();
  }

 private:
  struct Batch {
    std::vector<std::string> pictures;
    std::vector<std::uintmax_t> ends;  ///< of the files
    std::size_t journalEnd;
  };

  static constexpr const char* kComplete = "true\n";

  static std::string partialOf(const std::string& path) { return path + ".partial"; }

  static void requireNone(const std::string& path) {
    if (!fs::exists(path)) return;
    throw Failure(path + ": expected no such file, or one that a stopped run left; " +
                  "remove it to begin anew");
  }

  void lockJournal(const std::string& path) {
    if (!journal_) journal_ = std::make_unique<GrowingFile>(path);
    if (!journal_->lock()) throw Failure(paths_.back() + ": another run is writing it");
  }

  // The journal tells of nothing that is not on the disk.
  void write() {
    for (std::size_t i = 0; i < files_.size(); ++i) {
      files_[i]->append(streams_[i].str());
      streams_[i].str("");
    }
    journal_->append(lines_);
    hasRows_ = hasRows_ || !lines_.empty();
    lines_.clear();
    sinceWritten_ = Timer();
  }

  /// A run that was stopped here is finished by the next one.
  void finish() {
    std::error_code error;
    for (const std::string& path : paths_) {
      if (!fs::exists(partialOf(path), error)) continue;
      requireNone(path);  // another may have come meanwhile
      fs::rename(partialOf(path), path, error);
      if (error) throw Failure(path + ": cannot be written: " + error.message());
    }
    fs::remove(journal_->path(), error);
    journal_.reset();
  }

  template <class Read>
  auto readAt(std::size_t line, const Read& read) const {
    try {
      return read();
    } catch (const Failure& failure) {
      throw Failure(journal_->path() + ": line " + std::to_string(line) + ": " + failure.what());
    }
  }

  std::vector<Batch> readJournal(const std::string& run) {
    const facezoo::FileBytes bytes = readFile(journal_->path());
    const std::string_view text(bytes.data.get(), bytes.size);
    std::vector<Batch> batches;
    std::vector<std::string> pictures;
    std::string firstLine;
    // A last line without an end is one that a loss of power tore.
    std::size_t number = 1;
    for (std::size_t at = 0, end; (end = text.find('\n', at)) != text.npos;
         at = end + 1, ++number) {
      const std::string line(text.substr(at, end - at));
      if (number == 1) {
        firstLine = line;
      } else if (line[0] == '"') {
        pictures.push_back(readAt(number, [&] { return fromJsonString(line); }));
      } else if (line + '\n' == kComplete) {
        complete_ = true;
      } else {
        auto ends = readAt(number, [&] { return readEnds(line); });
        batches.push_back({std::move(pictures), std::move(ends), end + 1});
        pictures.clear();
      }
    }
    // No line at all, or half of the first, is what such a loss leaves of the beginning.
    continues_ = number > 1 ? firstLine == run : run.compare(0, text.size(), text) == 0;
    if (!continues_) refuseOther(run, firstLine);
    return batches;
  }

  std::vector<std::uintmax_t> readEnds(const std::string& line) const {
    const nlohmann::json ends = nlohmann::json::parse(line, nullptr, false);
    if (!ends.is_array() || ends.size() != paths_.size() ||
        !std::all_of(ends.begin(), ends.end(),
                     [](const nlohmann::json& end) { return end.is_number_unsigned(); }))
      throw Failure("expected a picture, or where each file ended");
    return ends;
  }

  [[noreturn]] void refuseOther(const std::string& run, const std::string& foundRun) const {
    const auto expected = nlohmann::ordered_json::parse(run);
    const auto found = nlohmann::ordered_json::parse(foundRun, nullptr, false);
    std::string difference = "a first line that describes this one";
    for (const auto& [name, value] : expected.items())
      if (found.is_object() && found.value(name, nlohmann::ordered_json()) != value)
        difference = name + " " + value.dump() + ", found " +
                     found.value(name, nlohmann::ordered_json()).dump();
    throw Failure(journal_->path() + ": is of another run: expected " + difference);
  }

  void goOn(std::vector<Batch>& batches, const std::string& run) {
    std::vector<std::uintmax_t> ends(files_.size());
    std::size_t journalEnd = 0;
    for (Batch& batch : batches) {
      bool isThere = true;
      for (std::size_t i = 0; i < files_.size(); ++i)
        isThere = isThere && batch.ends[i] >= ends[i] && batch.ends[i] <= files_[i]->size();
      if (!isThere) break;
      ends = batch.ends;
      journalEnd = batch.journalEnd;
      hasRows_ = true;
      std::move(batch.pictures.begin(), batch.pictures.end(), std::back_inserter(earlier_));
    }
    for (std::size_t i = 0; i < files_.size(); ++i) files_[i]->cut(ends[i]);
    journal_->cut(journalEnd);
    if (journalEnd == 0) journal_->append(run + "\n");
  }

  std::vector<std::string> paths_, earlier_;
  std::unique_ptr<GrowingFile> journal_;
  std::vector<std::unique_ptr<GrowingFile>> files_;
  std::vector<std::ostringstream> streams_;
  std::string lines_;
  Timer sinceWritten_;
  bool hasRows_ = false, complete_ = false, continues_ = false;
};

}  // namespace

std::unique_ptr<ResultFiles> wholeFiles(const std::vector<std::string>& paths, Outputs& outputs,
                                        bool replaces) {
  return std::make_unique<WholeFiles>(paths, outputs, replaces);
}

std::unique_ptr<ResultFiles> resumableFiles(const std::vector<std::string>& paths, Outputs& outputs,
                                            const std::string& run) {
  return std::make_unique<PartialFiles>(paths, outputs, run);
}

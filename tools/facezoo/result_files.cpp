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
  void add(const std::vector<std::string>& /*pictures*/) override {}
  void replaceStart(std::size_t file, const std::string& bytes) override {
    stream(file).seekp(0).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  }
  void keep() override {
    for (const auto& file : files_) file->close();  // if one fails, none appears
    for (const auto& file : files_) file->keep();
  }

 private:
  std::vector<std::unique_ptr<NewFile>> files_;
};

/// A file that stands under its name while it grows. All that is written is on the disk when the
/// call returns.
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
  [[noreturn]] void refuse() const { throwSystemFailure(path_ + ": cannot be written"); }

  std::string path_;
  int file_;
  std::uintmax_t end_ = 0;
};

class ResumableFiles : public ResultFiles {
 public:
  ResumableFiles(const std::vector<std::string>& paths, Outputs& outputs, const std::string& run)
      : streams_(paths.size()) {
    // Whether a file may be replaced is decided below, not by the places.
    for (const std::string& path : paths) {
      paths_.push_back(outputs.claim(path, true).path());
      outputs.claim(partialOf(paths_.back()), true);
    }
    for (std::ostringstream& stream : streams_) stream.exceptions(std::ios::badbit);
    const std::string journal = outputs.claim(paths_.back() + ".journal", true).path();
    std::vector<Checkpoint> checkpoints;
    if (fs::exists(journal)) {
      openJournal(journal);
      checkpoints = readJournal(run);
      if (isFinished_) giveNames();
      // Whoever has removed all of them wants to begin anew.
      isFinished_ = isFinished_ && std::any_of(paths_.begin(), paths_.end(), isThere);
      if (isFinished_) requireUnchanged(checkpoints);
    }
    if (!isFinished_) {
      for (const std::string& path : paths_) {
        requireNone(path);
        if (!journal_) requireNone(partialOf(path));
      }
      if (!journal_) openJournal(journal);
      openPartials();
    }
    takeEarlier(checkpoints);
    if (isFinished_) return;
    cutToLast();
    if (!hasRows_) journal_->append(run + "\n");
  }
  ResumableFiles(const ResumableFiles&) = delete;
  ResumableFiles& operator=(const ResumableFiles&) = delete;
  /// Leaves no files that hold nothing.
  ~ResumableFiles() override {
    if (hasRows_) return;
    for (const auto& file : files_) unlink(file->path().c_str());
    unlink(journal_->path().c_str());
  }

  std::ostream& stream(std::size_t file) override { return streams_[file]; }

  void add(const std::vector<std::string>& pictures) override {
    if (isFinished_) reopen();
    for (const std::string& picture : pictures) lines_ += toJsonString(picture) + '\n';
    // Not a value of the JSON library, whose destructor may end the process where memory is short.
    for (std::size_t i = 0; i < files_.size(); ++i) {
      lines_ += i == 0 ? '[' : ',';
      lines_ += std::to_string(files_[i]->end() + static_cast<std::uintmax_t>(streams_[i].tellp()));
    }
    lines_ += "]\n";
    constexpr double kMostLost = 500;
    if (sinceWritten_.milliseconds() >= kMostLost) write();
  }

  void replaceStart(std::size_t file, const std::string& bytes) override {
    if (isFinished_) return;
    write();
    files_[file]->write(bytes, 0);
  }

  void keep() override {
    if (isFinished_) return;
    lines_ += kFinished;
    write();
    giveNames();
  }

 private:
  /// How far a run was after a batch.
  struct Checkpoint {
    std::vector<std::string> pictures;  ///< of the batch
    std::vector<std::uintmax_t> ends;   ///< of the files
    std::size_t journalEnd = 0;
  };

  static constexpr const char* kFinished = "true\n";

  static std::string partialOf(const std::string& path) { return path + ".partial"; }
  static bool isThere(const std::string& path) { return fs::exists(path); }

  static void requireNone(const std::string& path) {
    if (!isThere(path)) return;
    throw Failure(path + ": expected no such file, or one that a stopped run left; " +
                  "remove it to begin anew");
  }

  static void rename(const std::string& from, const std::string& to) {
    std::error_code error;
    fs::rename(from, to, error);
    if (error) throw Failure(to + ": cannot be written: " + error.message());
  }

  void openJournal(const std::string& path) {
    journal_ = std::make_unique<GrowingFile>(path);
    if (!journal_->lock()) throw Failure(paths_.back() + ": another run is writing it");
  }

  void openPartials() {
    for (const std::string& path : paths_)
      files_.push_back(std::make_unique<GrowingFile>(partialOf(path)));
  }

  /// Writes the results first: the journal tells of nothing that is not on the disk.
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

  /// Where a run is stopped meanwhile, the next one gives the names that are left.
  void giveNames() {
    for (const std::string& path : paths_) {
      if (!isThere(partialOf(path))) continue;
      requireNone(path);  // a file may have appeared there meanwhile
      rename(partialOf(path), path);
    }
  }

  /// Lets the files of a finished run grow again, as there are results to add. The journal says
  /// until the end that they are finished, so that a run that finds it gives them their names back.
  void reopen() {
    for (const std::string& path : paths_) rename(path, partialOf(path));
    openPartials();
    cutToLast();
    isFinished_ = false;
  }

  template <class Read>
  auto readAt(std::size_t line, const Read& read) const {
    try {
      return read();
    } catch (const Failure& failure) {
      throw Failure(journal_->path() + ": line " + std::to_string(line) + ": " + failure.what());
    }
  }

  std::vector<Checkpoint> readJournal(const std::string& run) {
    const FileBytes bytes = readFile(journal_->path());
    const std::string_view text(bytes.data.get(), bytes.size);
    std::vector<Checkpoint> checkpoints;
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
      } else if (line + '\n' == kFinished) {
        isFinished_ = true;
      } else {
        auto ends = readAt(number, [&] { return readEnds(line); });
        checkpoints.push_back({std::move(pictures), std::move(ends), end + 1});
        pictures.clear();
      }
    }
    // No line at all, or half of the first, is what such a loss leaves of the beginning.
    continues_ = number > 1 ? firstLine == run : run.compare(0, text.size(), text) == 0;
    if (!continues_) refuseOther(run, firstLine);
    return checkpoints;
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

  /// What wrote to a file later than the run wrote its last line is something else.
  void requireUnchanged(const std::vector<Checkpoint>& checkpoints) const {
    const auto finished = fs::last_write_time(journal_->path());
    for (std::size_t i = 0; i < paths_.size(); ++i) {
      if (!checkpoints.empty() && isThere(paths_[i]) &&
          fs::file_size(paths_[i]) == checkpoints.back().ends[i] &&
          fs::last_write_time(paths_[i]) <= finished)
        continue;
      throw Failure(paths_[i] + ": expected the file that the run of " + journal_->path() +
                    " finished, found " + (isThere(paths_[i]) ? "another" : "none") +
                    "; remove all of its files to begin anew");
    }
  }

  /// Takes over what the files hold, up to the first checkpoint of which they lack something.
  void takeEarlier(std::vector<Checkpoint>& checkpoints) {
    last_.ends.resize(paths_.size());
    for (Checkpoint& checkpoint : checkpoints) {
      for (std::size_t i = 0; i < files_.size(); ++i)
        if (checkpoint.ends[i] < last_.ends[i] || checkpoint.ends[i] > files_[i]->size()) return;
      std::move(checkpoint.pictures.begin(), checkpoint.pictures.end(),
                std::back_inserter(earlier_));
      last_ = {{}, std::move(checkpoint.ends), checkpoint.journalEnd};
      hasRows_ = true;
    }
  }

  void cutToLast() {
    for (std::size_t i = 0; i < files_.size(); ++i) files_[i]->cut(last_.ends[i]);
    journal_->cut(last_.journalEnd);
  }

  std::vector<std::string> paths_;
  std::unique_ptr<GrowingFile> journal_;
  std::vector<std::unique_ptr<GrowingFile>> files_;  ///< none while the run is finished
  std::vector<std::ostringstream> streams_;
  std::string lines_;     ///< of the journal, to be written
  Checkpoint last_ = {};  ///< of an earlier run
  Timer sinceWritten_;
  bool hasRows_ = false;
  bool isFinished_ = false;  ///< an earlier run has finished, and nothing was added since
};

}  // namespace

std::unique_ptr<ResultFiles> wholeFiles(const std::vector<std::string>& paths, Outputs& outputs,
                                        bool replaces) {
  return std::make_unique<WholeFiles>(paths, outputs, replaces);
}

std::unique_ptr<ResultFiles> resumableFiles(const std::vector<std::string>& paths, Outputs& outputs,
                                            const std::string& run) {
  return std::make_unique<ResumableFiles>(paths, outputs, run);
}

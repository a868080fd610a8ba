#include "pictures.h"

#include "client/failure.h"
#include "client/files.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <set>
#include <sstream>
#include <string_view>
#include <system_error>
#include <utility>

using namespace facezoo;

namespace fs = std::filesystem;

namespace {

bool looksLikePicture(const fs::path& path) {
  std::string extension = path.extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return extension == ".png" || extension == ".jpg" || extension == ".jpeg";
}

/// The number of names and, in parentheses, as many of them as a readable line holds.
std::string countAndNames(std::vector<std::string> names) {
  constexpr std::size_t kMost = 5, kLength = 200;
  std::sort(names.begin(), names.end());
  std::string line = std::to_string(names.size()) + " (";
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (i == kMost || (i > 0 && line.size() + names[i].size() > kLength)) return line + ", ...)";
    line += (i > 0 ? ", " : "") + names[i];
  }
  return line + ")";
}

std::string readStandardInput() {
  std::string text;
  char piece[1 << 14];
  while (const std::size_t count = std::fread(piece, 1, sizeof piece, stdin))
    text.append(piece, count);
  if (std::ferror(stdin) == 0) return text;
  throwSystemFailure("standard input: cannot be read");
}

class DirectorySearch {
 public:
  DirectorySearch(std::string directory, FoundPictures& found)
      : directory_(std::move(directory)), found_(found) {
    const std::size_t before = found_.paths.size(), faultsBefore = found_.faults.size();
    // Links to folders come last, so that a folder which is also reached without them goes by its
    // own name.
    for (links_.push_back(""); !links_.empty(); links_.pop_front()) enter(links_.front());
    std::sort(found_.paths.begin() + static_cast<std::ptrdiff_t>(before), found_.paths.end());
    if (found_.paths.size() == before && found_.faults.size() == faultsBefore) {
      remark("expected PNG or JPEG files, found none" +
             (otherFiles_.empty() ? "" : " among " + countAndNames(otherFiles_)));
    } else if (!otherFiles_.empty()) {
      remark("left out, as not PNG or JPEG by name: " + countAndNames(otherFiles_));
    }
    if (!emptyFolders_.empty()) remark("folders without files: " + countAndNames(emptyFolders_));
  }

 private:
  /// Searches the folder at `place` within the directory. @return whether there is any file in it
  bool enter(const fs::path& place) {
    const fs::path folder = place.empty() ? fs::path(directory_) : directory_ / place;
    struct stat status = {};
    // A folder that stat fails on is reported below, where it cannot be opened.
    if (stat(folder.c_str(), &status) == 0 &&
        !enteredFolders_.emplace(status.st_dev, status.st_ino).second)
      return true;
    std::error_code error;
    std::vector<fs::directory_entry> entries;
    fs::directory_iterator entry(folder, error);
    for (const fs::directory_iterator end; !error && entry != end; entry.increment(error))
      entries.push_back(*entry);
    if (error) found_.faults.push_back(folder.string() + ": cannot be read: " + error.message());
    bool holdsFiles = static_cast<bool>(error);
    const std::size_t emptyFoldersBefore = emptyFolders_.size();
    for (const fs::directory_entry& each : entries) {
      const fs::path inside = place / each.path().filename();
      if (!each.is_directory(error)) {
        take(each.path(), inside);
        holdsFiles = true;
      } else if (each.is_symlink(error)) {
        links_.push_back(inside);
        holdsFiles = true;
      } else {
        holdsFiles = enter(inside) || holdsFiles;
      }
    }
    if (!holdsFiles && !place.empty()) {
      emptyFolders_.resize(emptyFoldersBefore);  // the empty folders inside go without saying
      emptyFolders_.push_back(place.string());
    }
    return holdsFiles;
  }

  void take(const fs::path& path, const fs::path& place) {
    if (looksLikePicture(path)) {
      found_.paths.push_back(path.string());
      found_.places.emplace(path.string(), place.string());
    } else {
      otherFiles_.push_back(place.string());
    }
  }

  void remark(const std::string& line) { found_.remarks.push_back(directory_ + ": " + line); }

  const std::string directory_;
  FoundPictures& found_;
  std::deque<fs::path> links_;  ///< to folders, not yet followed
  std::set<std::pair<dev_t, ino_t>> enteredFolders_;
  std::vector<std::string> otherFiles_, emptyFolders_;
};

}  // namespace

FoundPictures findPictures(const std::vector<std::string>& paths) {
  FoundPictures found;
  for (const std::string& path : paths) {
    std::error_code error;
    if (fs::is_directory(path, error)) {
      const DirectorySearch search(path, found);
    } else {
      found.paths.push_back(path);
    }
  }
  if (found.paths.empty())
    throw Failure(found.faults.empty() ? found.remarks.front() : found.faults.front());
  return found;
}

std::vector<std::string> readList(const std::string& path, char separator) {
  const std::string name = path == "-" ? "standard input" : path;
  std::string text;
  if (path == "-") {
    text = readStandardInput();
  } else {
    const FileBytes bytes = readFile(path);
    text.assign(bytes.data.get(), bytes.size);
  }
  const bool isText = separator != '\0';
  if (isText && text.find('\0') != std::string::npos) {
    const bool isUtf16 = text.rfind("\xFF\xFE", 0) == 0 || text.rfind("\xFE\xFF", 0) == 0;
    throw Failure(name + (isUtf16 ? ": expected a text in UTF-8, found one in UTF-16"
                                  : ": expected one picture a line, found a null character; "
                                    "does --null help?"));
  }
  constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
  if (text.rfind(kByteOrderMark, 0) == 0) text.erase(0, kByteOrderMark.size());
  std::vector<std::string> lines;
  std::istringstream stream(text);
  stream.exceptions(std::ios::badbit);  // else a lack of memory would end the list
  for (std::string line; std::getline(stream, line, separator);) {
    if (isText && !line.empty() && line.back() == '\r') line.pop_back();
    if (!line.empty()) lines.push_back(line);
  }
  if (lines.empty()) throw Failure(name + ": expected one picture a line, found none");
  return lines;
}

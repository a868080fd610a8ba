#include "pictures.h"

#include "failure.h"
#include "files.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <sstream>
#include <system_error>

namespace fs = std::filesystem;

namespace {

bool looksLikePicture(const fs::path& path) {
  std::string extension = path.extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return extension == ".png" || extension == ".jpg" || extension == ".jpeg";
}

std::vector<std::string> picturesIn(const std::string& directory) {
  std::vector<std::string> found;
  std::error_code error;
  fs::recursive_directory_iterator entry(directory, error);
  for (const fs::recursive_directory_iterator end; !error && entry != end; entry.increment(error))
    if (std::error_code ignored; looksLikePicture(entry->path()) && !entry->is_directory(ignored))
      found.push_back(entry->path().string());
  if (error) throw Failure(directory + ": cannot be read: " + error.message());
  if (found.empty()) throw Failure(directory + ": expected PNG or JPEG files, found none");
  std::sort(found.begin(), found.end());
  return found;
}

}  // namespace

std::vector<std::string> findPictures(const std::vector<std::string>& paths) {
  std::vector<std::string> pictures;
  for (const std::string& path : paths) {
    std::error_code error;
    if (fs::is_directory(path, error)) {
      for (std::string& picture : picturesIn(path)) pictures.push_back(std::move(picture));
    } else {
      pictures.push_back(path);
    }
  }
  return pictures;
}

std::vector<std::string> readList(const std::string& path) {
  std::string text;
  if (path == "-") {
    text.assign(std::istreambuf_iterator<char>(std::cin), {});
  } else {
    const facezoo::FileBytes bytes = readFile(path);
    text.assign(bytes.data.get(), bytes.size);
  }
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (!line.empty()) lines.push_back(line);
  }
  if (lines.empty()) throw Failure(path + ": expected one picture a line, found none");
  return lines;
}

/// @file
#pragma once

#include <map>
#include <string>
#include <vector>

struct FoundPictures {
  std::vector<std::string> paths;
  /// For pictures that a directory was searched for, the path within it: "below/a.jpg" for
  /// "faces/below/a.jpg", of directory "faces".
  std::map<std::string, std::string> places;
  std::vector<std::string> faults;   ///< a line for each folder that cannot be read
  std::vector<std::string> remarks;  ///< lines about what directories hold besides pictures
};

/// The pictures that `paths` name: a file stands for itself, a directory for the PNG and JPEG files
/// in it and below, sorted by name. Links to folders are followed, but no folder of a directory is
/// read twice. @throws Failure if there are none
FoundPictures findPictures(const std::vector<std::string>& paths);

/// The lines of a text file, or of standard input if `path` is "-"; empty ones are left out.
/// @param separator what ends a line: a line feed, or the null character
/// @throws Failure
std::vector<std::string> readList(const std::string& path, char separator);

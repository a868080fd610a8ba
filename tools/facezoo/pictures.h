/// @file
#pragma once

#include <string>
#include <vector>

/// The pictures that `paths` name: a file is itself, a directory stands for the PNG and JPEG files
/// in it and below, by name. @throws Failure if a directory holds none or cannot be read
std::vector<std::string> findPictures(const std::vector<std::string>& paths);

/// The lines of a text file, or of standard input if `path` is "-"; empty ones are left out.
/// @throws Failure
std::vector<std::string> readList(const std::string& path);

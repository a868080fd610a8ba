/// @file
#pragma once

#include "network_table.h"

#include <cstddef>
#include <string>
#include <vector>

/// Prints results on standard output, one line for each picture or pair of pictures: a table, lines
/// of JSON or CSV.
class Report {
 public:
  /// A column of text before the results.
  struct Label {
    const char* name;
    std::size_t width;  ///< in a table
  };

  /// The names `--format` knows.
  static const std::vector<std::string>& formats();
  /// Columns that the widest of `texts` takes.
  static std::size_t widest(const std::vector<std::string>& texts);

  Report(std::string format, std::vector<Label> labels, std::vector<facezoo::OutputGroup> groups);

  /// @param values of all groups, one after the other
  void line(const std::vector<std::string>& labels, const std::vector<float>& values);

 private:
  void head();
  void json(const std::vector<std::string>& labels, const std::vector<float>& values) const;
  void row(const std::vector<std::string>& cells) const;
  std::string number(float value) const;
  int shown(const facezoo::OutputGroup& group) const;

  bool begun_ = false;
  std::string format_;
  std::vector<Label> labels_;
  std::vector<facezoo::OutputGroup> groups_;
  std::vector<std::size_t> widths_;
};

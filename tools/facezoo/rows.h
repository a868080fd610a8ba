/// @file
#pragma once

#include <nlohmann/json.hpp>

#include <cstddef>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

/// The names that `--format` knows.
inline const std::vector<std::string> rowFormats = {"table", "json", "csv"};

/// A field that a table shows. Text stands on the left of its column, numbers on the right; the
/// first values of an array have a column each.
struct Column {
  static constexpr int kText = -1;
  static constexpr int kResult = -2;  ///< of a network: six digits, whatever the size

  std::string name;
  std::size_t width;
  int decimals = kText;
};

/// Text that is wider stands whole in a table, but the other rows are not made as wide.
inline constexpr std::size_t widestColumn = 60;

/// Characters of a UTF-8 text, which is the width it takes.
std::size_t widthOf(std::string_view text);

/// `text` and the blanks that make it `width` characters, or `widestColumn` of them.
std::string padded(const std::string& text, std::size_t width, bool onLeft = true);

/// Prints objects that have the same fields, each as it comes: as a table of some of the fields, or
/// all of them as CSV or as lines of JSON. Text may hold any bytes, which CSV has as they are and
/// JSON as `toJsonString` puts them. What is no finite number is nan, inf or -inf, and in JSON
/// "NaN", "Infinity" or "-Infinity".
class Rows {
 public:
  /// @param format one of `rowFormats`
  /// @param headed whether `out` has rows from before
  Rows(std::string format, std::vector<Column> columns, std::ostream& out = std::cout,
       bool headed = false)
      : format_(std::move(format)), columns_(std::move(columns)), out_(out), headed_(headed) {}

  void print(const nlohmann::ordered_json& row);

 private:
  void printTable(const nlohmann::ordered_json& row);
  void printCsv(const nlohmann::ordered_json& row);

  std::string format_;
  std::vector<Column> columns_;
  std::ostream& out_;
  bool headed_;
};

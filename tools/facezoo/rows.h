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

/// A field that a table shows. Text is aligned to the left of its column, numbers to the right;
/// each of an array's first values has a column of its own.
struct Column {
  static constexpr int kText = -1;
  static constexpr int kResult = -2;  ///< a network's result: six digits, whatever its size

  std::string name;
  std::size_t width;
  int decimals = kText;
};

/// No column of a table is wider. Text that is longer is printed whole, and shifts the rest of its
/// row only.
inline constexpr std::size_t widestColumn = 60;

/// The number of characters of a UTF-8 text, which is its width.
std::size_t widthOf(std::string_view text);

/// `text` with blanks on one side, to the width of a column, which is `widestColumn` at most.
std::string padded(const std::string& text, std::size_t width, bool onLeft = true);

/// Prints objects that have the same fields, each at once: some of the fields as a table, or all of
/// them as CSV or as lines of JSON. Text may hold any bytes, which CSV has as they are and JSON as
/// `toJsonString` makes them. Numbers that are not finite are nan, inf or -inf, and in JSON "NaN",
/// "Infinity" or "-Infinity".
class Rows {
 public:
  /// @param format one of `rowFormats`
  /// @param headed whether `out` has a header from before
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

/// @file
#pragma once

#include <nlohmann/json.hpp>

#include <string>
#include <utility>
#include <vector>

/// A field that a table shows. Text stands on the left of its column, numbers on the right.
struct Column {
  static constexpr int kText = -1;

  std::string name;
  int width;
  int decimals = kText;
};

/// Prints objects that have the same fields, each as it comes: as a table of some of the fields, or
/// all of them as CSV or as lines of JSON.
class Rows {
 public:
  /// @param format "table", "csv" or "json"
  Rows(std::string format, std::vector<Column> columns)
      : format_(std::move(format)), columns_(std::move(columns)) {}

  void print(const nlohmann::ordered_json& row);

 private:
  std::string format_;
  std::vector<Column> columns_;
  bool headed_ = false;
};

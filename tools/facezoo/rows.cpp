#include "rows.h"

#include "json_text.h"
#include "messages.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace {

using Json = nlohmann::ordered_json;

std::string dump(const Json& value) {
  if (value.is_string()) return toJsonString(value.get<std::string>());
  if (value.is_number_float() && !std::isfinite(value.get<double>())) {
    if (std::isnan(value.get<double>())) return R"("NaN")";
    return value.get<double>() < 0 ? R"("-Infinity")" : R"("Infinity")";
  }
  if (!value.is_structured()) return value.dump();
  std::string items;
  for (const auto& [name, item] : value.items()) {
    if (!items.empty()) items += ',';
    if (value.is_object()) items += toJsonString(name) + ':';
    items += dump(item);
  }
  return value.is_object() ? '{' + items + '}' : '[' + items + ']';
}

std::string format(const char* pattern, int decimals, double value) {
  if (std::isnan(value)) return "nan";  // whatever its sign
  char text[64];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  std::snprintf(text, sizeof text, pattern, decimals, value);
#pragma GCC diagnostic pop
  return text;
}

std::string csvCell(const Json& value) {
  constexpr int kExact = 9;  // digits that tell any two 32-bit floats apart
  if (value.is_number_float()) return format("%.*g", kExact, value);
  std::string text = value.is_string() ? value.get<std::string>() : dump(value);
  if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
  std::string quoted = "\"";
  for (const char c : text) quoted += c == '"' ? "\"\"" : std::string(1, c);
  return quoted + "\"";
}

std::string tableCell(const Column& column, const Json& value) {
  if (value.is_string()) return printable(value.get<std::string>());
  if (!value.is_number()) return dump(value);
  if (column.decimals != Column::kResult)
    return format("%.*f", std::max(column.decimals, 0), value);
  constexpr int kDigits = 6;
  return format(std::abs(value.get<double>()) < 100 ? "%.*f" : "%.*g", kDigits, value);
}

struct Cell {
  std::string text;
  std::size_t width;
  bool onLeft;
};

void printAligned(const std::vector<Cell>& cells, std::ostream& out) {
  std::string line;
  for (const auto& [text, width, onLeft] : cells) {
    if (&text != &cells.front().text) line += "  ";
    line += padded(text, width, onLeft);
  }
  out << line.substr(0, line.find_last_not_of(' ') + 1) << '\n';
}

/// Calls visit(name, value) for every number and text of `row`.
template <class Visit>
void forEachValue(const Json& row, const Visit& visit) {
  for (const auto& [name, value] : row.items()) {
    if (!value.is_array()) visit(name, value);
    for (std::size_t i = 0; value.is_array() && i < value.size(); ++i)
      visit(name + "_" + std::to_string(i), value[i]);
  }
}

}  // namespace

std::size_t widthOf(std::string_view text) {
  return std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; });
}

std::string padded(const std::string& text, std::size_t width, bool onLeft) {
  const std::size_t most = std::min(width, widestColumn);
  const std::string blanks(most - std::min(most, widthOf(text)), ' ');
  return onLeft ? text + blanks : blanks + text;
}

void Rows::print(const Json& row) {
  if (format_ == "json") {
    out_ << dump(row) << '\n';
  } else if (format_ == "csv") {
    printCsv(row);
  } else {
    printTable(row);
  }
  headed_ = true;
}

void Rows::printCsv(const Json& row) {
  std::string names, cells;
  forEachValue(row, [&](const std::string& name, const Json& value) {
    names.append(names.empty() ? "" : ",").append(csvCell(name));
    cells.append(cells.empty() ? "" : ",").append(csvCell(value));
  });
  if (!headed_) out_ << names << '\n';
  out_ << cells << '\n';
}

void Rows::printTable(const Json& row) {
  // Of a long array only the first values are shown.
  constexpr std::size_t kMost = 8, kFirst = 4;
  std::vector<Cell> names, cells;
  for (const Column& column : columns_) {
    const bool onLeft = column.decimals == Column::kText;
    const auto add = [&](const std::string& name, const std::string& text) {
      const std::size_t width = std::max(column.width, widthOf(name));
      names.push_back({name, width, onLeft});
      cells.push_back({text, width, onLeft});
    };
    const Json& value = row.at(column.name);
    if (!value.is_array()) {
      add(column.name, tableCell(column, value));
      continue;
    }
    const std::size_t shown = value.size() > kMost ? kFirst : value.size();
    for (std::size_t i = 0; i < shown; ++i)
      add(column.name + "_" + std::to_string(i), tableCell(column, value[i]));
    if (shown < value.size()) {
      names.push_back({"...", 3, true});
      cells.push_back(names.back());
    }
  }
  if (!headed_) printAligned(names, out_);
  printAligned(cells, out_);
}

#include "rows.h"

#include "files.h"

#include <algorithm>
#include <cstdio>

namespace {

using Json = nlohmann::ordered_json;

std::string dump(const Json& value) {
  return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string csvCell(const Json& value) {
  std::string text = value.is_string() ? value.get<std::string>() : dump(value);
  if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
  std::string quoted = "\"";
  for (const char c : text) quoted += c == '"' ? "\"\"" : std::string(1, c);
  return quoted + "\"";
}

std::string tableCell(const Column& column, const Json& value) {
  if (value.is_string()) return printable(value.get<std::string>());
  if (!value.is_number()) return dump(value);
  char text[32];
  std::snprintf(text, sizeof text, "%.*f", std::max(column.decimals, 0), value.get<double>());
  return text;
}

void printCsv(const std::vector<std::string>& cells) {
  for (std::size_t i = 0; i < cells.size(); ++i)
    std::printf("%s%s", i == 0 ? "" : ",", cells[i].c_str());
  std::printf("\n");
}

void printAligned(const std::vector<Column>& columns, const std::vector<std::string>& cells) {
  std::string line;
  for (std::size_t i = 0; i < cells.size(); ++i) {
    const std::size_t width = columns[i].width;
    const std::string blanks(width - std::min(width, cells[i].size()), ' ');
    if (i > 0) line += "  ";
    line += columns[i].decimals == Column::kText ? cells[i] + blanks : blanks + cells[i];
  }
  std::printf("%s\n", line.substr(0, line.find_last_not_of(' ') + 1).c_str());
}

}  // namespace

void Rows::print(const Json& row) {
  std::vector<std::string> names, cells;
  if (format_ == "json") {
    std::puts(dump(row).c_str());
  } else if (format_ == "csv") {
    for (const auto& [name, value] : row.items()) {
      names.push_back(csvCell(name));
      cells.push_back(csvCell(value));
    }
    if (!headed_) printCsv(names);
    printCsv(cells);
  } else {
    for (const Column& column : columns_) {
      names.push_back(column.name);
      cells.push_back(tableCell(column, row.at(column.name)));
    }
    if (!headed_) printAligned(columns_, names);
    printAligned(columns_, cells);
  }
  headed_ = true;
  std::fflush(stdout);
}

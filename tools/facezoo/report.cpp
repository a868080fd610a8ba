#include "report.h"

#include "failure.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <utility>

namespace {

/// Characters of a UTF-8 text.
std::size_t columns(const std::string& text) {
  return std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; });
}

std::string quoted(const std::string& text) {
  if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
  std::string result = "\"";
  for (const char c : text) result += c == '"' ? "\"\"" : std::string(1, c);
  return result + "\"";
}

}  // namespace

const std::vector<std::string>& Report::formats() {
  static const std::vector<std::string> names = {"table", "json", "csv"};
  return names;
}

std::size_t Report::widest(const std::vector<std::string>& texts) {
  std::size_t width = 0;
  for (const std::string& text : texts) width = std::max(width, columns(text));
  return width;
}

Report::Report(std::string format, std::vector<Label> labels,
               std::vector<facezoo::OutputGroup> groups)
    : format_(std::move(format)), labels_(std::move(labels)), groups_(std::move(groups)) {}

void Report::line(const std::vector<std::string>& labels, const std::vector<float>& values) {
  if (!std::exchange(begun_, true)) head();
  if (format_ == "json") return json(labels, values);
  std::vector<std::string> cells = labels;
  const float* value = values.data();
  for (const facezoo::OutputGroup& group : groups_) {
    for (int i = 0; i < shown(group); ++i) cells.push_back(number(value[i]));
    if (shown(group) < group.count) cells.emplace_back("...");
    value += group.count;
  }
  row(cells);
}

void Report::head() {
  if (format_ == "json") return;
  std::vector<std::string> names;
  for (const Label& label : labels_) {
    names.emplace_back(label.name);
    widths_.push_back(std::max(label.width, names.back().size()));
  }
  for (const facezoo::OutputGroup& group : groups_) {
    const bool single = group.count == 1;
    for (int i = 0; i < shown(group); ++i)
      names.push_back(group.name + (single ? "" : "_" + std::to_string(i)));
    if (shown(group) < group.count) names.emplace_back("...");
  }
  constexpr std::size_t kNumber = 10;
  for (std::size_t i = labels_.size(); i < names.size(); ++i)
    widths_.push_back(names[i] == "..." ? 3 : std::max(kNumber, columns(names[i])));
  row(names);
}

void Report::json(const std::vector<std::string>& labels, const std::vector<float>& values) const {
  nlohmann::ordered_json object;
  for (std::size_t i = 0; i < labels.size(); ++i) object[labels_[i].name] = labels[i];
  const float* value = values.data();
  for (const facezoo::OutputGroup& group : groups_) {
    if (group.count == 1) {
      object[group.name] = *value;
    } else {
      object[group.name] = std::vector<float>(value, value + group.count);
    }
    value += group.count;
  }
  std::puts(object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
}

void Report::row(const std::vector<std::string>& cells) const {
  const bool csv = format_ == "csv";
  for (std::size_t i = 0; i < cells.size(); ++i) {
    const bool label = i < labels_.size();
    const std::string text = !label ? cells[i] : csv ? quoted(cells[i]) : printable(cells[i]);
    const int padding =
        csv ? 0 : static_cast<int>(widths_[i] - std::min(widths_[i], columns(text)));
    std::printf("%s%*s%s%*s",
                i == 0 ? ""
                : csv  ? ","
                       : "  ",
                label ? 0 : padding, "", text.c_str(), label ? padding : 0, "");
  }
  std::printf("\n");
}

std::string Report::number(float value) const {
  char text[32];
  const bool csv = format_ == "csv";
  std::snprintf(text, sizeof text, csv ? "%.9g" : std::abs(value) < 100 ? "%.6f" : "%.6g", value);
  return text;
}

/// How many of its values a line holds. A table of hundreds of columns serves nobody.
int Report::shown(const facezoo::OutputGroup& group) const {
  constexpr int kMost = 8;
  constexpr int kFirst = 4;
  return format_ == "table" && group.count > kMost ? kFirst : group.count;
}

// `afehal-tool limits [FILE]`: the tables of the embedded test-limits text or
// of a limits file, each with its shape and the smallest and largest value
// the library reads from it; for a file, first the line and field of the
// first thing that would make it unsafe to ship.
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "chip/inspect/test_limits.h"
#include "tools/tool.h"

namespace tool {

namespace {

constexpr int kExitOk = 0;
constexpr int kExitIoError = 1;
constexpr int kExitRejected = 2;

constexpr size_t kFieldsPerLine = 34;
constexpr size_t kMaxLimitsFile = 4u << 20;

// The labels the inspection looks up.
constexpr std::string_view kRequiredLabels[] = {
    "MS_RAW_ITO_DATA_MIN",
    "MS_RAW_ITO_DATA_MAX",
    "MS_RAW_DATA_EACH_MIN",
    "MS_RAW_DATA_EACH_MAX",
    "MS_RAW_NOISE_DATA_DELTA",
    "MS_TOUCH_LOWPOWER_TOTAL_CX_MAX",
    "SS_TOUCH_ACTIVE_TOTAL_IX_FORCE_MAX",
    "SS_TOUCH_ACTIVE_TOTAL_IX_SENSE_MAX",
    "SS_DETECT_TOTAL_IX_FORCE_MAX",
    "SS_DETECT_TOTAL_IX_SENSE_MAX",
};

struct table_entry {
  std::string label;
  size_t line = 0; // of the label line, from 1
  size_t offset = 0;
  long rows = 0;
  long cols = 0;
};

struct check_result {
  std::vector<table_entry> tables;
  std::string problem; // empty: the file is fit to ship
};

bool is_integer(std::string_view field) {
  if (!field.empty() && (field[0] == '-' || field[0] == '+')) {
    field.remove_prefix(1);
  }
  return !field.empty() &&
         std::all_of(field.begin(), field.end(), [](char ch) { return ch >= '0' && ch <= '9'; });
}

bool is_label(std::string_view field) {
  return field.size() > 1 && field[0] == '*' &&
         std::all_of(field.begin() + 1, field.end(), [](char ch) {
           return (ch >= 'A' && ch <= 'Z') || (ch >= 'a' && ch <= 'z') ||
                  (ch >= '0' && ch <= '9') || ch == '_';
         });
}

std::vector<std::string_view> fields_of(std::string_view line) {
  std::vector<std::string_view> out;
  size_t start = 0;
  for (size_t at; (at = line.find(',', start)) != std::string_view::npos; start = at + 1) {
    out.push_back(line.substr(start, at - start));
  }
  out.push_back(line.substr(start));
  return out;
}

std::string where(size_t line, size_t field) {
  return "line " + std::to_string(line) + ", field " + std::to_string(field) + ": ";
}

// The first problem of a label line, or "".
std::string label_line_problem(const std::vector<std::string_view> &f, size_t line,
                               table_entry &entry) {
  if (!is_label(f[0])) {
    return where(line, 1) + "expected a label \"*NAME\", found \"" + std::string(f[0]) + "\"";
  }
  entry.label = std::string(f[0].substr(1));
  for (size_t i : {1u, 2u}) {
    if (!is_integer(f[i]) || std::stol(std::string(f[i])) <= 0 ||
        std::stol(std::string(f[i])) > 65535) {
      return where(line, i + 1) + "the " + (i == 1 ? "row" : "column") + " count of " +
             entry.label + " must be a number from 1 to 65535, found \"" + std::string(f[i]) + "\"";
    }
  }
  entry.rows = std::stol(std::string(f[1]));
  entry.cols = std::stol(std::string(f[2]));
  if (entry.cols > static_cast<long>(kFieldsPerLine)) {
    return where(line, 3) + entry.label + " declares more columns than a line has fields";
  }
  for (size_t i = 3; i < f.size(); ++i) {
    if (!f[i].empty()) {
      return where(line, i + 1) + "expected an empty field after the shape";
    }
  }
  return "";
}

std::string data_line_problem(const std::vector<std::string_view> &f, size_t line,
                              const table_entry &table, long row) {
  for (size_t i = 0; i < f.size(); ++i) {
    const bool value = static_cast<long>(i) < table.cols;
    if (value && !is_integer(f[i])) {
      return where(line, i + 1) + "row " + std::to_string(row) + " of " + table.label +
             ": expected an integer, found \"" + std::string(f[i]) + "\"";
    }
    if (!value && !f[i].empty()) {
      return where(line, i + 1) + "row " + std::to_string(row) + " of " + table.label +
             " holds more than its " + std::to_string(table.cols) + " values";
    }
  }
  return "";
}

// Walks the lines: label lines, rows of values, nothing else.
check_result check_structure(std::string_view text) {
  check_result result;
  size_t line = 0;
  long rows_left = 0;
  size_t pos = 0;
  while (pos < text.size()) {
    ++line;
    const size_t end = text.find("\r\n", pos);
    const size_t lf = text.find('\n', pos);
    if (end == std::string_view::npos || lf < end + 1) {
      result.problem = "line " + std::to_string(line) + ": does not end in CR LF";
      return result;
    }
    const std::vector<std::string_view> f = fields_of(text.substr(pos, end - pos));
    if (f.size() != kFieldsPerLine) {
      result.problem = where(line, std::min(f.size(), kFieldsPerLine + 1)) +
                       std::to_string(f.size()) + " fields on the line, expected 34";
      return result;
    }
    if (rows_left == 0) {
      table_entry entry{"", line, pos, 0, 0};
      result.problem = label_line_problem(f, line, entry);
      rows_left = entry.rows;
      result.tables.push_back(entry);
    } else {
      const table_entry &table = result.tables.back();
      result.problem = data_line_problem(f, line, table, table.rows - rows_left + 1);
      --rows_left;
    }
    if (!result.problem.empty()) {
      return result;
    }
    pos = end + 2;
  }
  if (rows_left > 0) {
    const table_entry &table = result.tables.back();
    result.problem = "line " + std::to_string(line + 1) + ": the text ends " +
                     std::to_string(rows_left) + " rows before the end of " + table.label;
  }
  return result;
}

// The library finds a label at the first occurrence of its text: it must be
// its own label line. The inspection's labels must be there.
std::string search_problem(std::string_view text, const std::vector<table_entry> &tables) {
  for (const table_entry &t : tables) {
    const size_t first = text.find(t.label);
    if (first != t.offset + 1) {
      const size_t line = 1 + std::count(text.begin(), text.begin() + first, '\n');
      return where(t.line, 1) + "a search for " + t.label + " stops first at line " +
             std::to_string(line) + ", inside another field";
    }
  }
  for (std::string_view label : kRequiredLabels) {
    if (std::none_of(tables.begin(), tables.end(),
                     [&](const table_entry &t) { return t.label == label; })) {
      return "label " + std::string(label) + " is missing; the inspection reads it";
    }
  }
  return "";
}

bool read_file(const std::string &path, std::vector<char> &out) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "afehal-tool: cannot open %s\n", path.c_str());
    return false;
  }
  out.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  if (out.size() > kMaxLimitsFile) {
    std::fprintf(stderr, "afehal-tool: %s is %zu bytes, too large for a limits file\n",
                 path.c_str(), out.size());
    return false;
  }
  return true;
}

// Reads each table with the library's own search and prints what it got.
bool list_tables(const std::vector<char> &text, const std::vector<table_entry> &tables) {
  std::printf("%-42s %9s %8s %8s\n", "label", "shape", "min", "max");
  bool all_read = true;
  for (const table_entry &t : tables) {
    test_limit_data record = new_test_limit_data();
    const uint32_t r = parse_limits_file(text.data(), static_cast<uint32_t>(text.size()),
                                         t.label.c_str(), &record);
    if (r != TEST_LIMIT_OK) {
      std::printf("%-42s the library cannot read it (result %u)\n", t.label.c_str(), r);
      all_read = false;
    } else {
      const int32_t *begin = record.data;
      const int32_t *end = record.data + size_t{record.rows} * record.cols;
      const std::string shape = std::to_string(record.rows) + " x " + std::to_string(record.cols);
      std::printf("%-42s %9s %8d %8d\n", t.label.c_str(), shape.c_str(),
                  *std::min_element(begin, end), *std::max_element(begin, end));
    }
    clean_test_limit_data(&record);
  }
  return all_read;
}

} // namespace

int run_limits(const limits_options &options) {
  std::vector<char> text;
  if (options.file.empty()) {
    text.assign(limit_file_data, limit_file_data + limit_file_size);
    std::printf("embedded limits text: %zu bytes\n", text.size());
  } else {
    if (!read_file(options.file, text)) {
      return kExitIoError;
    }
    std::printf("%s: %zu bytes\n", options.file.c_str(), text.size());
  }
  const std::string_view view(text.data(), text.size());
  check_result checked = check_structure(view);
  if (checked.problem.empty()) {
    checked.problem = search_problem(view, checked.tables);
  }
  if (!checked.problem.empty()) {
    std::printf("rejected: %s\n", checked.problem.c_str());
    return kExitRejected;
  }
  std::printf("%zu tables, every line CR LF with 34 fields\n\n", checked.tables.size());
  return list_tables(text, checked.tables) ? kExitOk : kExitRejected;
}

} // namespace tool

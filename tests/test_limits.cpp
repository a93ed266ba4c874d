// The test-limits text and its search: the embedded tables read back as the
// file lays them out, the field rules, every bad-format path, and reads that
// stay inside the text's length.
#include <cstring>
#include <string>
#include <vector>

#include "chip/inspect/test_limits.h"
#include "support/fixture.h"

namespace {

using Limits = SimTest;
using values = std::vector<int32_t>;

// The text in a block of exactly its length, so that a read past the end
// is caught by the address sanitizer.
std::vector<char> exact_copy(const std::string &text) {
  return std::vector<char>(text.begin(), text.end());
}

const std::string kEmbedded(limit_file_data, limit_file_size);

std::vector<std::string> split(const std::string &text, const std::string &sep) {
  std::vector<std::string> out;
  size_t start = 0;
  for (size_t at; (at = text.find(sep, start)) != std::string::npos; start = at + sep.size()) {
    out.push_back(text.substr(start, at - start));
  }
  out.push_back(text.substr(start));
  return out;
}

// An independent reading of one table: the label line, then the first cols
// fields of each of the next rows lines.
struct expected_table {
  std::string label;
  int rows = 0;
  int cols = 0;
  values data;
};

std::vector<expected_table> tables_of(const std::string &text) {
  std::vector<expected_table> out;
  const std::vector<std::string> lines = split(text, "\r\n");
  for (size_t i = 0; i < lines.size(); ++i) {
    if (!lines[i].empty() && lines[i][0] == '*') {
      const std::vector<std::string> head = split(lines[i], ",");
      expected_table t{head[0].substr(1), std::stoi(head[1]), std::stoi(head[2]), {}};
      for (int r = 1; r <= t.rows; ++r) {
        const std::vector<std::string> fields = split(lines[i + r], ",");
        for (int c = 0; c < t.cols; ++c) {
          t.data.push_back(std::stoi(fields[c]));
        }
      }
      out.push_back(t);
    }
  }
  return out;
}

uint32_t search(const std::vector<char> &text, const char *label, test_limit_data *record) {
  return search_test_limit_entry(label, text.data(), static_cast<uint32_t>(text.size()), record);
}

values values_of(const test_limit_data &record) {
  return values(record.data, record.data + record.rows * record.cols);
}

// The shipped file: 335 CR LF lines of 34 fields, 41 tables; every table,
// searched by its label in the limits copy (no terminating NUL), comes back
// with its shape and its values in file order.
TEST_F(Limits, EveryEmbeddedTableReadsBackAsTheFileHoldsIt) {
  ASSERT_EQ(limit_file_size, 38541u);
  ASSERT_EQ(kEmbedded.substr(kEmbedded.size() - 2), "\r\n");
  const auto lines = split(kEmbedded.substr(0, kEmbedded.size() - 2), "\r\n");
  EXPECT_EQ(lines.size(), 335u);
  for (size_t i = 0; i < lines.size(); ++i) {
    ASSERT_EQ(std::count(lines[i].begin(), lines[i].end(), ','), 33) << "line " << i + 1;
    ASSERT_EQ(lines[i].find('\n'), std::string::npos) << "line " << i + 1;
  }
  const std::vector<expected_table> tables = tables_of(kEmbedded);
  ASSERT_EQ(tables.size(), 41u);
  EXPECT_EQ(tables.front().label + tables.back().label, "VERSIONSS_DETECT_TOTAL_IX_SENSE_MAX");
  const std::vector<char> copy = exact_copy(kEmbedded);
  test_limit_data record = new_test_limit_data();
  for (const expected_table &t : tables) {
    SCOPED_TRACE(t.label);
    ASSERT_EQ(parse_limits_file(copy.data(), static_cast<uint32_t>(copy.size()), t.label.c_str(),
                                &record),
              0u);
    EXPECT_EQ(std::tie(record.rows, record.cols), std::tie(t.rows, t.cols));
    EXPECT_EQ(values_of(record), t.data);
    EXPECT_STREQ(record.label, t.label.c_str());
  }
  clean_test_limit_data(&record);
  EXPECT_EQ(record.data, nullptr);
  EXPECT_TRUE(android_errors().empty());
}

TEST_F(Limits, DocumentedTablesOfTheShippedFile) {
  const std::vector<char> copy = exact_copy(kEmbedded);
  const struct {
    const char *label;
    uint16_t rows, cols;
    int32_t lowest, highest;
  } cases[] = {
      {"VERSION", 1, 1, 8, 8},
      {"FORCE_LENGTH", 1, 1, 16, 16},
      {"SENSE_LENGTH", 1, 1, 34, 34},
      {"MS_RAW_DATA_MIN_MAX", 1, 2, 1000, 15000},
      {"MS_RAW_DATA_EACH_MIN", 16, 34, -30000, -30000},
      {"MS_RAW_ITO_DATA_MIN", 16, 34, 500, 2504},
      {"MS_RAW_ITO_DATA_MAX", 16, 34, 3277, 4500},
      {"MS_RAW_ITO_DATA_ADJ_HORIZONTAL", 16, 33, 1500, 2000},
      {"MS_RAW_ITO_DATA_ADJ_VERTICAL", 15, 34, 1500, 2000},
      {"MS_RAW_NOISE_DATA_DELTA", 16, 34, 150, 150},
      {"SS_TOUCH_ACTIVE_TOTAL_IX_FORCE_MAX", 16, 1, 30000, 30000},
      {"SS_DETECT_TOTAL_IX_SENSE_MAX", 1, 34, 30000, 30000},
      // A tail of a label finds that label's table.
      {"RAW_ITO_DATA_ADJ_VERTICAL", 15, 34, 1500, 2000},
  };
  test_limit_data record = new_test_limit_data();
  for (const auto &d : cases) {
    SCOPED_TRACE(d.label);
    ASSERT_EQ(search(copy, d.label, &record), 0u);
    EXPECT_EQ(std::tie(record.rows, record.cols), std::tie(d.rows, d.cols));
    const values v = values_of(record);
    EXPECT_EQ(*std::min_element(v.begin(), v.end()), d.lowest);
    EXPECT_EQ(*std::max_element(v.begin(), v.end()), d.highest);
  }
  // MS_RAW_DATA_MIN_MAX in order; three ITO minima written in three digits.
  ASSERT_EQ(search(copy, "MS_RAW_DATA_MIN_MAX", &record), 0u);
  EXPECT_EQ(values_of(record), (values{1000, 15000}));
  ASSERT_EQ(search(copy, "MS_RAW_ITO_DATA_MIN", &record), 0u);
  const values ito = values_of(record);
  EXPECT_EQ(std::count_if(ito.begin(), ito.end(), [](int32_t v) { return v < 1000; }), 3);

  // A missing label is reported twice and leaves the record alone.
  int32_t *held = record.data;
  EXPECT_EQ(parse_limits_file(copy.data(), static_cast<uint32_t>(copy.size()),
                              "MS_RAW_ITO_DATA_TYPO", &record),
            1u);
  EXPECT_TRUE(logged_error("search_test_limit_entry", "Test limit MS_RAW_ITO_DATA_TYPO not found"));
  EXPECT_TRUE(logged_error("parse_limits_file", "Couldnt find the test limit\n"));
  EXPECT_EQ(record.data, held);
  EXPECT_EQ(record.data[0], ito[0]);

  // A bad row count leaves the record as it was; a bad column count comes
  // after the old values were freed, and the record then holds none.
  EXPECT_EQ(search(exact_copy("*T,1x,1,\r\n5,\r\n"), "T", &record), 1u);
  EXPECT_TRUE(logged_error("Test limits label T row entry bad format"));
  EXPECT_EQ(std::tie(record.data, record.cols), std::make_tuple(held, 34));
  EXPECT_EQ(search(exact_copy("*T,1,y,\r\n5,\r\n"), "T", &record), 1u);
  EXPECT_TRUE(logged_error("Test limits label T column entry bad format"));
  EXPECT_EQ(std::tie(record.data, record.rows), std::make_tuple(nullptr, 1));

  // Without memory for the values: 0x80 and no values.
  sim::fail_allocation(1);
  EXPECT_EQ(search(copy, "MS_RAW_NOISE_DATA_DELTA", &record), 0x80u);
  sim::fail_allocation(0);
  EXPECT_TRUE(logged_error("Error allocating memory for test limit data"));
  EXPECT_EQ(record.data, nullptr);

  // A table that ends short of its frame must be caught before the checks.
  EXPECT_FALSE(test_limit_covers(&record, 1, 1));
  ASSERT_EQ(search(copy, "MS_RAW_ITO_DATA_ADJ_HORIZONTAL", &record), 0u);
  EXPECT_TRUE(test_limit_covers(&record, 16, 33));
  EXPECT_FALSE(test_limit_covers(&record, 16, 34));
  clean_test_limit_data(&record);
}

// Small texts: the first occurrence of the label anywhere, value fields with
// their signs and bad formats, a text that ends early or at a NUL.
TEST_F(Limits, SearchesOfSmallTexts) {
  const std::string nul = std::string("*A,1,1,\r\n1,\r\n") + '\0' + "*B,1,1,\r\n2,\r\n";
  const struct {
    std::string text;
    const char *label;
    uint32_t result;
    values read; // the record's values afterwards
    const char *message;
  } cases[] = {
      {"*AB_LONG,1,1,,\r\n5,,\r\n*LONG,1,1,,\r\n7,,\r\n", "LONG", 0, {5}, nullptr},
      {"*T,1,2,,\r\n3,+7,\r\n", "T", 0, {3, 7}, nullptr},
      {"*T,1,2,,\r\n3,-30000,\r\n", "T", 0, {3, -30000}, nullptr},
      {"*T,1,2,,\r\n3,1-2,\r\n", "T", 0, {3, 1}, nullptr},
      {"*T,1,2,,\r\n3,-,\r\n", "T", 0, {3, 0}, nullptr},
      {"*T,1,2,,\r\n3,12a,\r\n", "T", 1, {3, 0}, "Test limits label T data bad format"},
      // A last value without its delimiter is cut short: it does not count.
      {"*T,1,2,,\r\n5,6", "T", 1, {5, 0}, "Test limits label T data bad format"},
      {"*T,1,2,,\r\n5,6,", "T", 0, {5, 6}, nullptr},
      // A label at the very start of the text.
      {"T,1,1,\r\n4,\r\n", "T", 0, {4}, nullptr},
      // A shape the rest of the text cannot hold, and a label at the very end.
      {"*T,100,100,\r\n1,\r\n", "T", 1, {}, "Test limits label T data bad format"},
      {"*T,1,", "T", 1, {}, "Test limits label T column entry bad format"},
      // A NUL inside the given length ends the text, like its end.
      {nul, "B", 1, {}, "Test limit B not found"},
      {nul, "A", 0, {1}, nullptr},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.text);
    clear_log();
    test_limit_data record = new_test_limit_data();
    EXPECT_EQ(search(exact_copy(c.text), c.label, &record), c.result);
    EXPECT_EQ(record.data ? values_of(record) : values{}, c.read);
    EXPECT_EQ(count_logged_starting(1, ""), c.message ? 1 : 0);
    if (c.message) {
      EXPECT_TRUE(logged_error(c.message));
    }
    clean_test_limit_data(&record);
    EXPECT_EQ(record.data, nullptr);
  }

  // The text ends inside a table: the search stops at the end of the text.
  const std::vector<char> cut =
      exact_copy(kEmbedded.substr(0, kEmbedded.find("*MS_RAW_DATA_EACH_MAX") + 2000));
  test_limit_data record = new_test_limit_data();
  EXPECT_EQ(search(cut, "MS_RAW_DATA_EACH_MAX", &record), 1u);
  EXPECT_TRUE(logged_error("Test limits label MS_RAW_DATA_EACH_MAX data bad format"));
  clean_test_limit_data(&record);
}

TEST_F(Limits, SplitFieldsDropBlanksAndStarsAndStopAtTheEnd) {
  const std::string text = "* A b,,-1\r\n";
  char token[TEST_LIMIT_TOKEN_SIZE];
  std::vector<std::string> fields;
  for (const char *at = text.data();
       (at = split_test_limits_string(token, at, text.data() + text.size())) != nullptr;) {
    fields.emplace_back(token);
  }
  // CR LF gives the empty field between the two.
  EXPECT_EQ(fields, (std::vector<std::string>{"Ab", "", "-1", ""}));

  const std::string nul("7,8\0"
                        "9,",
                        5);
  EXPECT_NE(split_test_limits_string(token, nul.data(), nul.data() + nul.size()), nullptr);
  EXPECT_EQ(split_test_limits_string(token, nul.data() + 2, nul.data() + nul.size()), nullptr);
  EXPECT_STREQ(token, "8");

  // A field longer than the token keeps its first 99 characters.
  const std::string longer = std::string(150, '9') + ",";
  const char *end = longer.data() + longer.size();
  EXPECT_EQ(split_test_limits_string(token, longer.data(), end), end);
  EXPECT_EQ(std::strlen(token), TEST_LIMIT_TOKEN_SIZE - 1);

  // The empty field, and values beyond 32 bits clamped.
  EXPECT_EQ(is_string_number(""), 1u);
  EXPECT_EQ(is_string_number("1.5"), 0u);
  EXPECT_EQ(test_limit_value("99999999999"), INT32_MAX);
  EXPECT_EQ(test_limit_value("-99999999999"), INT32_MIN);
}

} // namespace

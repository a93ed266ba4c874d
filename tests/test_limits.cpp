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

// The text in a block of exactly its length, so that a read past the end
// is caught by the address sanitizer.
std::vector<char> exact_copy(const std::string &text) {
  return std::vector<char>(text.begin(), text.end());
}

std::string embedded_text() {
  return std::string(limit_file_data, limit_file_size);
}

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
  std::vector<int32_t> values;
};

std::vector<expected_table> tables_of(const std::string &text) {
  std::vector<expected_table> out;
  const std::vector<std::string> lines = split(text, "\r\n");
  for (size_t i = 0; i < lines.size(); ++i) {
    if (lines[i].empty() || lines[i][0] != '*') {
      continue;
    }
    const std::vector<std::string> head = split(lines[i], ",");
    expected_table t{head[0].substr(1), std::stoi(head[1]), std::stoi(head[2]), {}};
    for (int r = 1; r <= t.rows; ++r) {
      const std::vector<std::string> fields = split(lines[i + r], ",");
      for (int c = 0; c < t.cols; ++c) {
        t.values.push_back(std::stoi(fields[c]));
      }
    }
    out.push_back(t);
  }
  return out;
}

uint32_t search(const std::vector<char> &text, const char *label, test_limit_data *record) {
  return search_test_limit_entry(label, text.data(), static_cast<uint32_t>(text.size()), record);
}

std::vector<int32_t> values_of(const test_limit_data &record) {
  return std::vector<int32_t>(record.data, record.data + record.rows * record.cols);
}

TEST_F(Limits, EmbeddedTextIsTheDocumentedFileOfCrLfLinesOf34Fields) {
  const std::string text = embedded_text();
  ASSERT_EQ(limit_file_size, 38541u);
  ASSERT_EQ(text.substr(text.size() - 2), "\r\n");
  const std::vector<std::string> lines = split(text.substr(0, text.size() - 2), "\r\n");
  EXPECT_EQ(lines.size(), 335u);
  for (size_t i = 0; i < lines.size(); ++i) {
    ASSERT_EQ(std::count(lines[i].begin(), lines[i].end(), ','), 33) << "line " << i + 1;
    ASSERT_EQ(lines[i].find('\n'), std::string::npos) << "line " << i + 1;
  }
  const std::vector<expected_table> tables = tables_of(text);
  ASSERT_EQ(tables.size(), 41u);
  EXPECT_EQ(tables.front().label, "VERSION");
  EXPECT_EQ(tables.back().label, "SS_DETECT_TOTAL_IX_SENSE_MAX");
}

// Every table of the shipped file, searched by its label in the limits copy
// (no terminating NUL), comes back with its shape and its values in file
// order: signs kept, values taken across line breaks and padding.
TEST_F(Limits, EveryEmbeddedTableReadsBackAsTheFileHoldsIt) {
  const std::vector<char> copy = exact_copy(embedded_text());
  test_limit_data record = new_test_limit_data();
  for (const expected_table &t : tables_of(embedded_text())) {
    SCOPED_TRACE(t.label);
    ASSERT_EQ(parse_limits_file(copy.data(), static_cast<uint32_t>(copy.size()), t.label.c_str(),
                                &record),
              0u);
    EXPECT_EQ(record.rows, t.rows);
    EXPECT_EQ(record.cols, t.cols);
    EXPECT_EQ(values_of(record), t.values);
    EXPECT_STREQ(record.label, t.label.c_str());
  }
  clean_test_limit_data(&record);
  EXPECT_EQ(record.data, nullptr);
  EXPECT_TRUE(android_errors().empty());
}

TEST_F(Limits, DocumentedTablesOfTheShippedFile) {
  const std::vector<char> copy = exact_copy(embedded_text());
  struct documented {
    const char *label;
    uint16_t rows, cols;
    int32_t lowest, highest;
  };
  const documented cases[] = {
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
  };
  test_limit_data record = new_test_limit_data();
  for (const documented &d : cases) {
    SCOPED_TRACE(d.label);
    ASSERT_EQ(search(copy, d.label, &record), 0u);
    EXPECT_EQ(record.rows, d.rows);
    EXPECT_EQ(record.cols, d.cols);
    const std::vector<int32_t> v = values_of(record);
    EXPECT_EQ(*std::min_element(v.begin(), v.end()), d.lowest);
    EXPECT_EQ(*std::max_element(v.begin(), v.end()), d.highest);
  }
  // MS_RAW_DATA_MIN_MAX in order; three ITO minima written in three digits.
  ASSERT_EQ(search(copy, "MS_RAW_DATA_MIN_MAX", &record), 0u);
  EXPECT_EQ(values_of(record), (std::vector<int32_t>{1000, 15000}));
  ASSERT_EQ(search(copy, "MS_RAW_ITO_DATA_MIN", &record), 0u);
  const std::vector<int32_t> ito = values_of(record);
  EXPECT_EQ(std::count_if(ito.begin(), ito.end(), [](int32_t v) { return v < 1000; }), 3);
  clean_test_limit_data(&record);
}

// The label is found as plain text, the first occurrence anywhere.
TEST_F(Limits, LabelInsideALongerLabelIsFoundThere) {
  const std::vector<char> text = exact_copy("*AB_LONG,1,1,,\r\n5,,\r\n*LONG,1,1,,\r\n7,,\r\n");
  test_limit_data record = new_test_limit_data();
  ASSERT_EQ(search(text, "LONG", &record), 0u);
  EXPECT_EQ(values_of(record), std::vector<int32_t>{5});
  // In the shipped file a tail of a label finds that label's table.
  const std::vector<char> copy = exact_copy(embedded_text());
  ASSERT_EQ(search(copy, "RAW_ITO_DATA_ADJ_VERTICAL", &record), 0u);
  EXPECT_EQ(record.rows, 15);
  EXPECT_EQ(record.cols, 34);
  clean_test_limit_data(&record);
}

TEST_F(Limits, MissingLabelIsReportedTwiceAndLeavesTheRecordAlone) {
  const std::vector<char> copy = exact_copy(embedded_text());
  test_limit_data record = new_test_limit_data();
  ASSERT_EQ(search(copy, "VERSION", &record), 0u);
  int32_t *held = record.data;
  EXPECT_EQ(parse_limits_file(copy.data(), static_cast<uint32_t>(copy.size()),
                              "MS_RAW_ITO_DATA_TYPO", &record),
            1u);
  EXPECT_TRUE(logged_error("search_test_limit_entry", "Test limit MS_RAW_ITO_DATA_TYPO not found"));
  EXPECT_TRUE(logged_error("parse_limits_file", "Couldnt find the test limit\n"));
  EXPECT_EQ(record.data, held);
  EXPECT_EQ(record.data[0], 8);
  clean_test_limit_data(&record);
}

// Value fields: the format check, the conversion and what stays in the
// record.
TEST_F(Limits, ValueFieldsSignsAndBadFormat) {
  struct field_case {
    const char *value;
    uint32_t result;
    int32_t read;
  };
  const field_case cases[] = {
      {"+7", 0, 7}, {"-30000", 0, -30000}, {"1-2", 0, 1}, {"-", 0, 0}, {"12a", 1, 0},
  };
  for (const field_case &f : cases) {
    SCOPED_TRACE(f.value);
    clear_log();
    const std::vector<char> text = exact_copy(std::string("*T,1,2,,\r\n3,") + f.value + ",\r\n");
    test_limit_data record = new_test_limit_data();
    EXPECT_EQ(search(text, "T", &record), f.result);
    ASSERT_NE(record.data, nullptr);
    EXPECT_EQ(record.data[0], 3);
    EXPECT_EQ(record.data[1], f.read);
    EXPECT_EQ(logged_error("Test limits label T data bad format"), f.result == 1);
    clean_test_limit_data(&record);
    EXPECT_EQ(record.data, nullptr);
  }
}

// A bad row count leaves the record as it was; a bad column count comes
// after the old values were freed, and the record then holds none.
TEST_F(Limits, BadShapeFields) {
  const std::vector<char> copy = exact_copy(embedded_text());
  test_limit_data record = new_test_limit_data();
  ASSERT_EQ(search(copy, "MS_RAW_DATA_MIN_MAX", &record), 0u);
  int32_t *held = record.data;

  EXPECT_EQ(search(exact_copy("*T,1x,1,\r\n5,\r\n"), "T", &record), 1u);
  EXPECT_TRUE(logged_error("Test limits label T row entry bad format"));
  EXPECT_EQ(record.data, held);
  EXPECT_EQ(record.cols, 2);

  EXPECT_EQ(search(exact_copy("*T,1,y,\r\n5,\r\n"), "T", &record), 1u);
  EXPECT_TRUE(logged_error("Test limits label T column entry bad format"));
  EXPECT_EQ(record.data, nullptr);
  EXPECT_EQ(record.rows, 1);
}

// The text ends inside a table: the search stops at the end of the text and
// reports the table as malformed.
TEST_F(Limits, TextCutOffInsideATableIsNotReadPastItsEnd) {
  const std::string text = embedded_text();
  const size_t table = text.find("*MS_RAW_DATA_EACH_MAX");
  const std::vector<char> cut = exact_copy(text.substr(0, table + 2000));
  test_limit_data record = new_test_limit_data();
  EXPECT_EQ(search(cut, "MS_RAW_DATA_EACH_MAX", &record), 1u);
  EXPECT_TRUE(logged_error("Test limits label MS_RAW_DATA_EACH_MAX data bad format"));
  clean_test_limit_data(&record);

  // A last value without its delimiter is cut short: it does not count.
  clear_log();
  EXPECT_EQ(search(exact_copy("*T,1,2,,\r\n5,6"), "T", &record), 1u);
  EXPECT_TRUE(logged_error("Test limits label T data bad format"));
  clean_test_limit_data(&record);
  EXPECT_EQ(search(exact_copy("*T,1,2,,\r\n5,6,"), "T", &record), 0u);
  EXPECT_EQ(values_of(record), (std::vector<int32_t>{5, 6}));
  clean_test_limit_data(&record);

  // A shape the rest of the text cannot hold, and a label at the very end.
  clear_log();
  EXPECT_EQ(search(exact_copy("*T,100,100,\r\n1,\r\n"), "T", &record), 1u);
  EXPECT_TRUE(logged_error("Test limits label T data bad format"));
  EXPECT_EQ(record.data, nullptr);
  EXPECT_EQ(search(exact_copy("*T,1,"), "T", &record), 1u);
  EXPECT_TRUE(logged_error("Test limits label T column entry bad format"));
}

// A NUL inside the given length ends the text, like its end.
TEST_F(Limits, NulInsideTheLengthEndsTheText) {
  const std::string text = std::string("*A,1,1,\r\n1,\r\n") + '\0' + "*B,1,1,\r\n2,\r\n";
  test_limit_data record = new_test_limit_data();
  EXPECT_EQ(search(exact_copy(text), "B", &record), 1u);
  EXPECT_TRUE(logged_error("Test limit B not found"));
  EXPECT_EQ(search(exact_copy(text), "A", &record), 0u);
  clean_test_limit_data(&record);
}

TEST_F(Limits, AllocationFailureGives128) {
  const std::vector<char> copy = exact_copy(embedded_text());
  test_limit_data record = new_test_limit_data();
  sim::fail_allocation(1);
  EXPECT_EQ(search(copy, "MS_RAW_NOISE_DATA_DELTA", &record), 0x80u);
  sim::fail_allocation(0);
  EXPECT_TRUE(logged_error("Error allocating memory for test limit data"));
  EXPECT_EQ(record.data, nullptr);
}

TEST_F(Limits, SplitFieldsDropBlanksAndStarsAndStopAtTheEnd) {
  const std::string text = "* A b,,-1\r\n";
  const char *end = text.data() + text.size();
  char token[TEST_LIMIT_TOKEN_SIZE];
  std::vector<std::string> fields;
  const char *cursor = text.data();
  while ((cursor = split_test_limits_string(token, cursor, end)) != nullptr) {
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
  const std::string long_field = std::string(150, '9') + ",";
  EXPECT_EQ(
      split_test_limits_string(token, long_field.data(), long_field.data() + long_field.size()),
      long_field.data() + long_field.size());
  EXPECT_EQ(std::strlen(token), TEST_LIMIT_TOKEN_SIZE - 1);
}

// What the value fields above do not reach: the empty field and the
// clamping of values beyond 32 bits.
TEST_F(Limits, NumberFieldEdges) {
  EXPECT_EQ(is_string_number(""), 1u);
  EXPECT_EQ(is_string_number("1.5"), 0u);
  EXPECT_EQ(test_limit_value("99999999999"), INT32_MAX);
  EXPECT_EQ(test_limit_value("-99999999999"), INT32_MIN);
}

// A table that ends short of its frame must be caught before the checks.
TEST_F(Limits, CoverageOfAFrameBySomeTable) {
  const std::vector<char> copy = exact_copy(embedded_text());
  test_limit_data record = new_test_limit_data();
  EXPECT_FALSE(test_limit_covers(&record, 1, 1));
  ASSERT_EQ(search(copy, "MS_RAW_ITO_DATA_ADJ_HORIZONTAL", &record), 0u);
  EXPECT_TRUE(test_limit_covers(&record, 16, 33));
  EXPECT_FALSE(test_limit_covers(&record, 16, 34));
  clean_test_limit_data(&record);
}

} // namespace

// Search of the labelled tables in the test-limits text.
#include "chip/inspect/test_limits.h"

#include <climits>
#include <cstring>

#include "platform/heap.h"
#include "platform/log.h"

namespace {

constexpr const char *kSearchTag = "search_test_limit_entry";

bool is_number_char(char ch) {
  return (ch >= '0' && ch <= '9') || ch == '-' || ch == '+';
}

bool starts_like_value(const char *token) {
  return is_number_char(token[0]);
}

// Length of the text as the search sees it: size bytes, or up to a NUL.
size_t text_length(const char *text, uint32_t size) {
  const void *nul = std::memchr(text, '\0', size);
  return nul != nullptr ? static_cast<size_t>(static_cast<const char *>(nul) - text) : size;
}

// First occurrence of label in [text, text + length), or NULL.
const char *find_label(const char *text, size_t length, const char *label) {
  const size_t label_len = std::strlen(label);
  if (label_len > length) {
    return nullptr;
  }
  for (size_t at = 0; at + label_len <= length; ++at) {
    if (std::memcmp(text + at, label, label_len) == 0) {
      return text + at;
    }
  }
  return nullptr;
}

// The fields of one table, read in order up to the end of the text.
struct field_reader {
  const char *pos;
  const char *end;
  char token[TEST_LIMIT_TOKEN_SIZE];

  // Reads the next field into token; false when the text ended first.
  bool next() {
    if (pos == nullptr) {
      token[0] = '\0';
      return false;
    }
    pos = split_test_limits_string(token, pos, end);
    return pos != nullptr;
  }
};

void copy_label(test_limit_data *record, const char *label) {
  std::strncpy(record->label, label, TEST_LIMIT_LABEL_SIZE - 1);
  record->label[TEST_LIMIT_LABEL_SIZE - 1] = '\0';
}

// Reads a row or column count; false (logged) when the field is missing or
// not a number.
bool read_count(field_reader &reader, const char *label, const char *what, uint16_t *count) {
  if (!reader.next() || is_string_number(reader.token) == 0) {
    log_error(kSearchTag, "Test limits label %s %s entry bad format", label, what);
    return false;
  }
  *count = static_cast<uint16_t>(test_limit_value(reader.token));
  return true;
}

uint32_t data_bad_format(const char *label) {
  log_error(kSearchTag, "Test limits label %s data bad format", label);
  return TEST_LIMIT_ERR_FORMAT;
}

// Reads count values into record->data, skipping the empty fields of the
// padding and the line ends.
uint32_t read_values(field_reader &reader, const char *label, size_t count, int32_t *values) {
  bool have = reader.next(); // the first padding field of the label line
  for (size_t i = 0; i < count; ++i) {
    while (have && !starts_like_value(reader.token)) {
      have = reader.next();
    }
    // A field cut short by the end of the text is no value: the table ends.
    if (!have || is_string_number(reader.token) == 0) {
      return data_bad_format(label);
    }
    values[i] = test_limit_value(reader.token);
    have = reader.next();
  }
  return TEST_LIMIT_OK;
}

} // namespace

test_limit_data new_test_limit_data() {
  return test_limit_data{};
}

void clean_test_limit_data(test_limit_data *record) {
  if (record != nullptr && record->data != nullptr) {
    heap_free(record->data);
    record->data = nullptr;
  }
}

uint32_t search_test_limit_entry(const char *label, const char *text, uint32_t size,
                                 test_limit_data *record) {
  if (label == nullptr || text == nullptr || record == nullptr) {
    log_error(kSearchTag, "Test limit %s not found", label != nullptr ? label : "(null)");
    return TEST_LIMIT_ERR_FORMAT;
  }
  const size_t length = text_length(text, size);
  const char *found = find_label(text, length, label);
  if (found == nullptr) {
    log_error(kSearchTag, "Test limit %s not found", label);
    return TEST_LIMIT_ERR_FORMAT;
  }
  field_reader reader{found, text + length, {}};
  reader.next(); // the label itself

  uint16_t rows = 0;
  if (!read_count(reader, label, "row", &rows)) {
    return TEST_LIMIT_ERR_FORMAT;
  }
  clean_test_limit_data(record);
  record->rows = rows;
  if (!read_count(reader, label, "column", &record->cols)) {
    return TEST_LIMIT_ERR_FORMAT;
  }

  const size_t count = size_t{record->rows} * record->cols;
  // Every value takes a digit and a delimiter: a shape the rest of the text
  // cannot hold is refused before it is allocated.
  const size_t left = reader.pos != nullptr ? static_cast<size_t>(reader.end - reader.pos) : 0;
  if (count > left / 2) {
    return data_bad_format(label);
  }
  const size_t bytes = (count > 0 ? count : 1) * sizeof(int32_t);
  record->data = static_cast<int32_t *>(heap_alloc(bytes));
  if (record->data == nullptr) {
    log_error(kSearchTag, "Error allocating memory for test limit data");
    return TEST_LIMIT_ERR_MEMORY;
  }
  std::memset(record->data, 0, bytes);

  const uint32_t result = read_values(reader, label, count, record->data);
  if (result != TEST_LIMIT_OK) {
    return result;
  }
  copy_label(record, label);
  return TEST_LIMIT_OK;
}

uint32_t parse_limits_file(const char *text, uint32_t size, const char *label,
                           test_limit_data *record) {
  const uint32_t result = search_test_limit_entry(label, text, size, record);
  if (result != TEST_LIMIT_OK) {
    log_error(__func__, "Couldnt find the test limit\n");
  }
  return result;
}

const char *split_test_limits_string(char *token, const char *cursor, const char *end) {
  size_t kept = 0;
  for (; cursor < end && *cursor != '\0'; ++cursor) {
    const char ch = *cursor;
    if (ch == ',' || ch == '\r' || ch == '\n') {
      token[kept] = '\0';
      return cursor + 1;
    }
    if (ch == ' ' || ch == '*') {
      continue;
    }
    if (kept < TEST_LIMIT_TOKEN_SIZE - 1) {
      token[kept++] = ch;
    }
  }
  token[kept] = '\0';
  return nullptr;
}

uint32_t is_string_number(const char *token) {
  for (const char *p = token; *p != '\0'; ++p) {
    if (!is_number_char(*p)) {
      return 0;
    }
  }
  return 1;
}

int32_t test_limit_value(const char *token) {
  const char *p = token;
  bool negative = false;
  if (*p == '+' || *p == '-') {
    negative = *p == '-';
    ++p;
  }
  int64_t magnitude = 0;
  for (; *p >= '0' && *p <= '9'; ++p) {
    magnitude = magnitude * 10 + (*p - '0');
    if (magnitude > int64_t{INT32_MAX} + 1) {
      magnitude = int64_t{INT32_MAX} + 1;
    }
  }
  const int64_t value = negative ? -magnitude : magnitude;
  return static_cast<int32_t>(value > INT32_MAX ? INT32_MAX : value);
}

bool test_limit_covers(const test_limit_data *record, uint32_t rows, uint32_t cols) {
  return record != nullptr && record->data != nullptr &&
         uint64_t{record->rows} * record->cols >= uint64_t{rows} * cols;
}

// The factory test limits: a comma-separated text of labelled tables carried
// inside the library, and the search that fills a record with one table.
//
// Text grammar: lines end in CR LF and hold 34 fields. A table is a label
// line "*LABEL,rows,cols,..." followed by rows lines of cols signed decimal
// integers, padded with empty fields. Values are taken in order whatever the
// line breaks: the search skips every field that does not start with a
// digit or a sign.
//
// Every read is bounded by the length the caller gives: the limits copy the
// inspection works on carries no terminating NUL. A NUL inside that length
// also ends the text.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/export.h"

// The embedded limits text (no terminating NUL) and its length in bytes.
AFEHAL_EXPORT const char limit_file_data[];
extern const uint32_t limit_file_size;

// Results of the search.
constexpr uint32_t TEST_LIMIT_OK = 0;
constexpr uint32_t TEST_LIMIT_ERR_FORMAT = 1; // label missing or a field in bad format
constexpr uint32_t TEST_LIMIT_ERR_MEMORY = 0x80;

constexpr size_t TEST_LIMIT_LABEL_SIZE = 256; // the longest label has 41 characters
constexpr size_t TEST_LIMIT_TOKEN_SIZE = 100; // a field keeps at most 99 characters

// One table of the limits text.
struct test_limit_data {
  int32_t *data; // rows x cols values, row-major in file order; owned; or NULL
  uint16_t rows;
  uint16_t cols;
  char label[TEST_LIMIT_LABEL_SIZE]; // the label searched for, once found
};

// A record holding no table.
test_limit_data new_test_limit_data();
// Frees the record's values, if any, and leaves it holding none.
void clean_test_limit_data(test_limit_data *record);

// Fills record with the table labelled label (given without the leading
// "*"). The label is found as the first occurrence of its text anywhere in
// the first size bytes of text, so a label contained in a longer one that
// comes first is found there. Any table the record held is freed once the
// row count has been read, so a record can be reused label after label.
// Returns 0 found, 1 not found or a field in bad format (a table that ends
// before its rows x cols values is one), 128 the values could not be
// allocated. After a bad value field the values read so far stay in the
// record for clean_test_limit_data.
uint32_t search_test_limit_entry(const char *label, const char *text, uint32_t size,
                                 test_limit_data *record);
// The same search; a failure is also reported as "Couldnt find the test
// limit".
uint32_t parse_limits_file(const char *text, uint32_t size, const char *label,
                           test_limit_data *record);

// Copies the field that starts at cursor into token (at most 99 characters
// kept, blanks and "*" dropped) and returns the position just past its
// delimiter: a comma, CR or LF, so CR LF yields an empty field between the
// two. Returns NULL when the text ends (at end or at a NUL) before a
// delimiter; token then holds what was read, terminated.
const char *split_test_limits_string(char *token, const char *cursor, const char *end);

// 1 when every character of token is a digit, "-" or "+" (the empty token
// included), else 0.
uint32_t is_string_number(const char *token);

// The decimal value of a field as the C library's decimal conversion reads
// it: an optional sign, then digits up to the first other character ("1-2"
// is 1, "+7" is 7, "" is 0). Values beyond 32 bits are clamped.
int32_t test_limit_value(const char *token);

// The record holds a table with at least rows x cols values: the checks
// index the limits with the frame's own dimensions, so a shorter table read
// from a malformed file must be refused before they run.
bool test_limit_covers(const test_limit_data *record, uint32_t rows, uint32_t cols);

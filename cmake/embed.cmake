# Data files compiled into the library. Each file becomes a C++ source in the
# build tree that defines one constant byte array and a constant holding its
# length; AFEHAL_EMBEDDED_SOURCES lists those sources for the library target.
#
# This file has two roles:
#  - included by the top-level CMakeLists.txt, it declares the generation
#    rules (afehal_embed below);
#  - run by the build in script mode (cmake -P), it checks and converts one
#    file. The conversion therefore always follows the file on disk, and
#    dropping in another file of a different length needs no code change.
#
# A file embedded with CHECK fw_image must carry a well-formed firmware image
# header: the build refuses an image whose signature or format version is
# wrong, whose section lengths run past its end, or that is too short to hold
# the flash geometry bytes. The library checks the same rules at run time in
# fw_image_check (chip/firmware/fw_image.cpp), for images that come from
# outside the build.
#
# A file embedded with CHECK limits must be a test-limits text whose tables
# the inspection can read: only the characters of its grammar, CR LF line
# ends, and for each label the inspection looks up, a label line
# "*LABEL,rows,cols" found where the library's search finds it (the first
# occurrence of the label's text) followed by rows lines of cols integers.

# Run with cmake -P there is no project to set the policies: keep empty list
# elements (the empty fields of the limits text) as the configure step does.
if(CMAKE_SCRIPT_MODE_FILE)
  cmake_policy(VERSION 3.25)
endif()

# ---- Firmware image header rules -------------------------------------------

# Little-endian unsigned value of `width` bytes at byte `offset` of `hex` (the
# file as lower-case hex digits), in decimal.
function(_afehal_hex_le hex offset width out)
  set(digits "")
  math(EXPR last "${width} - 1")
  foreach(i RANGE ${last})
    math(EXPR pos "(${offset} + ${i}) * 2")
    string(SUBSTRING "${hex}" ${pos} 2 byte)
    set(digits "${byte}${digits}")
  endforeach()
  math(EXPR value "0x${digits}" OUTPUT_FORMAT DECIMAL)
  set(${out} ${value} PARENT_SCOPE)
endfunction()

# Sets `out` to an empty string when `hex` (a whole image, `size` bytes) is
# acceptable, otherwise to the reason it is not.
function(afehal_fw_image_problem hex size out)
  set(header_size 64)
  set(geometry_end 284) # geometry bytes at offsets 280 to 283
  if(size LESS header_size)
    set(${out} "image of ${size} bytes is shorter than its ${header_size}-byte header" PARENT_SCOPE)
    return()
  endif()
  _afehal_hex_le("${hex}" 0 4 signature)
  if(NOT signature EQUAL 2857740885) # 0xAA55AA55, bytes 55 AA 55 AA
    math(EXPR shown "${signature}" OUTPUT_FORMAT HEXADECIMAL)
    set(${out} "wrong signature ${shown}, expected 0xaa55aa55" PARENT_SCOPE)
    return()
  endif()
  _afehal_hex_le("${hex}" 4 4 format_version)
  if(NOT format_version EQUAL 1)
    set(${out} "wrong format version ${format_version}, expected 1" PARENT_SCOPE)
    return()
  endif()
  _afehal_hex_le("${hex}" 44 4 code_length)
  _afehal_hex_le("${hex}" 48 4 config_length)
  _afehal_hex_le("${hex}" 52 4 cx_length)
  set(offset ${header_size})
  foreach(section code config cx)
    math(EXPR end "${offset} + ${${section}_length}")
    if(end GREATER size)
      set(${out} "${section} section of ${${section}_length} bytes at offset ${offset} runs past the end of the ${size}-byte image" PARENT_SCOPE)
      return()
    endif()
    set(offset ${end})
  endforeach()
  if(size LESS geometry_end)
    set(${out} "flash geometry bytes at offsets 280-283 lie past the end of the ${size}-byte image" PARENT_SCOPE)
    return()
  endif()
  set(${out} "" PARENT_SCOPE)
endfunction()

# ---- Test-limits rules ------------------------------------------------------

# The labels the inspection tests read.
set(AFEHAL_LIMITS_REQUIRED_LABELS
  MS_RAW_ITO_DATA_MIN MS_RAW_ITO_DATA_MAX MS_RAW_DATA_EACH_MIN MS_RAW_DATA_EACH_MAX
  MS_RAW_NOISE_DATA_DELTA MS_TOUCH_LOWPOWER_TOTAL_CX_MAX SS_TOUCH_ACTIVE_TOTAL_IX_FORCE_MAX
  SS_TOUCH_ACTIVE_TOTAL_IX_SENSE_MAX SS_DETECT_TOTAL_IX_FORCE_MAX SS_DETECT_TOTAL_IX_SENSE_MAX)

# Line number (from 1) of character `pos` of `text`.
function(_afehal_line_of text pos out)
  string(SUBSTRING "${text}" 0 ${pos} before)
  string(REGEX MATCHALL "\n" breaks "${before}")
  list(LENGTH breaks n)
  math(EXPR line "${n} + 1")
  set(${out} ${line} PARENT_SCOPE)
endfunction()

# Sets `out` to "" when the table of `label` is where the search finds it
# and holds the values its label line declares, else to the reason.
function(_afehal_limits_table_problem text label out)
  string(FIND "${text}" "${label}" pos)
  if(pos EQUAL -1)
    set(${out} "label ${label} is missing" PARENT_SCOPE)
    return()
  endif()
  _afehal_line_of("${text}" ${pos} line)
  # The search takes the first occurrence of the text: it must be the label
  # field itself, "*LABEL," at the start of a line.
  math(EXPR star "${pos} - 1")
  set(before_star "\n")
  if(star GREATER 0)
    math(EXPR at "${star} - 1")
    string(SUBSTRING "${text}" ${at} 1 before_star)
  endif()
  string(LENGTH "${label}" label_len)
  math(EXPR after "${pos} + ${label_len}")
  string(SUBSTRING "${text}" ${after} 1 next_char)
  set(star_char "")
  if(star GREATER_EQUAL 0)
    string(SUBSTRING "${text}" ${star} 1 star_char)
  endif()
  if(NOT star_char STREQUAL "*" OR NOT before_star STREQUAL "\n" OR NOT next_char STREQUAL ",")
    set(${out} "the first occurrence of ${label} (line ${line}) is not its label line *${label}" PARENT_SCOPE)
    return()
  endif()
  string(SUBSTRING "${text}" ${star} -1 rest)
  string(REPLACE "\n" ";" lines "${rest}")
  list(GET lines 0 label_line)
  string(REGEX MATCH "^\\*${label},([0-9]+),([0-9]+)(,*)$" shape "${label_line}")
  if(NOT shape OR CMAKE_MATCH_1 EQUAL 0 OR CMAKE_MATCH_2 EQUAL 0)
    set(${out} "label ${label} (line ${line}) declares no rows,cols shape" PARENT_SCOPE)
    return()
  endif()
  set(rows ${CMAKE_MATCH_1})
  set(cols ${CMAKE_MATCH_2})
  set(value "[ ]*[-+]?[0-9]+[ ]*")
  math(EXPR more "${cols} - 1")
  string(REPEAT ",${value}" ${more} others)
  list(LENGTH lines available)
  foreach(row RANGE 1 ${rows})
    math(EXPR row_line "${line} + ${row}")
    if(row GREATER_EQUAL available)
      set(${out} "table ${label} (${rows} x ${cols}) ends at line ${row_line}, before its row ${row}" PARENT_SCOPE)
      return()
    endif()
    list(GET lines ${row} data_line)
    if(NOT data_line MATCHES "^${value}${others}(,[ ]*)*$")
      set(${out} "table ${label} (${rows} x ${cols}): line ${row_line} does not hold ${cols} integers" PARENT_SCOPE)
      return()
    endif()
  endforeach()
  set(${out} "" PARENT_SCOPE)
endfunction()

# Number of CR LF pairs in `hex` (a file as lower-case hex digits). Counted
# on the hex text: in a file of ASCII bytes "0d0a" cannot straddle two bytes.
function(afehal_count_crlf hex out)
  string(REGEX MATCHALL "0d0a" pairs "${hex}")
  list(LENGTH pairs n)
  set(${out} ${n} PARENT_SCOPE)
endfunction()

# Sets `out` to "" when a limits text is acceptable, else to the reason.
# `text` is the file as CMake reads it (without its CRs, cut at a NUL),
# `size` its length on disk and `crlf` its number of CR LF pairs.
function(afehal_limits_problem text size crlf out)
  string(REGEX MATCH "[^\n*,+ 0-9A-Za-z_-]" stray "${text}")
  if(NOT stray STREQUAL "")
    string(FIND "${text}" "${stray}" at)
    _afehal_line_of("${text}" ${at} line)
    set(${out} "line ${line} holds a character outside the limits grammar" PARENT_SCOPE)
    return()
  endif()
  string(LENGTH "${text}" length)
  string(REGEX MATCHALL "\n" breaks "${text}")
  list(LENGTH breaks lines)
  if(lines GREATER crlf)
    math(EXPR bare "${lines} - ${crlf}")
    set(${out} "${bare} of the ${lines} lines do not end in CR LF" PARENT_SCOPE)
    return()
  endif()
  math(EXPR expected "${length} + ${crlf}")
  if(NOT size EQUAL expected OR NOT text MATCHES "\n$")
    set(${out} "the text holds a NUL byte, a CR outside a line end or an unended last line" PARENT_SCOPE)
    return()
  endif()
  foreach(label ${AFEHAL_LIMITS_REQUIRED_LABELS})
    _afehal_limits_table_problem("${text}" ${label} problem)
    if(problem)
      set(${out} "${problem}" PARENT_SCOPE)
      return()
    endif()
  endforeach()
  set(${out} "" PARENT_SCOPE)
endfunction()

# Damages `text` as the self-test `what` says (the limits text of data/).
function(_afehal_limits_corrupt text what out)
  if(what STREQUAL "missing_label")
    string(REPLACE "*MS_RAW_NOISE_DATA_DELTA," "*MS_RAW_NOISE_DELTA," text "${text}")
  elseif(what STREQUAL "short_table")
    # The last row of the ITO maxima goes: the next label follows too soon.
    string(FIND "${text}" "*MS_RAW_ITO_DATA_ADJ_HORIZONTAL," next)
    string(SUBSTRING "${text}" 0 ${next} head)
    string(SUBSTRING "${text}" ${next} -1 tail)
    string(REGEX REPLACE "\n[^\n]*\n$" "\n" head "${head}")
    set(text "${head}${tail}")
  elseif(what STREQUAL "bad_value")
    string(FIND "${text}" "*MS_RAW_NOISE_DATA_DELTA," at)
    string(SUBSTRING "${text}" 0 ${at} head)
    string(SUBSTRING "${text}" ${at} -1 tail)
    string(REGEX REPLACE "\n150," "\n15a," tail "${tail}")
    set(text "${head}${tail}")
  elseif(what STREQUAL "label_inside_longer")
    string(REPLACE "*VERSION," "*SS_DETECT_TOTAL_IX_SENSE_MAX_V," text "${text}")
  elseif(what STREQUAL "lf_only")
    # Handled by the caller: the CRs are not in the text CMake reads.
  else()
    message(FATAL_ERROR "embed self-test: unknown corruption '${what}'")
  endif()
  set(${out} "${text}" PARENT_SCOPE)
endfunction()

# ---- Script mode: check and convert one file --------------------------------
#
#   -DINPUT=file -DOUTPUT=source -DSYMBOL=name -DSIZE_SYMBOL=name
#   [-DELEMENT_TYPE=uint8_t] [-DSIZE_TYPE=uint32_t] [-DEXPORT=ON]
#   [-DCHECK=fw_image|limits]
#
# Self-test of the image rules (run by ctest): -DINPUT=image -DCORRUPT=what
# damages an in-memory copy of a good image and succeeds only when the rules
# refuse it; the reason is printed for the test to match. With -DCHECK=limits
# the same is done to a limits text.

if(CMAKE_SCRIPT_MODE_FILE)
  if(NOT DEFINED INPUT OR NOT EXISTS "${INPUT}")
    message(FATAL_ERROR "embed: no input file '${INPUT}'")
  endif()
  file(READ "${INPUT}" hex HEX)
  string(LENGTH "${hex}" digits)
  math(EXPR size "${digits} / 2")

  if(DEFINED CORRUPT AND CHECK STREQUAL "limits")
    file(READ "${INPUT}" text)
    afehal_count_crlf("${hex}" crlf)
    afehal_limits_problem("${text}" ${size} ${crlf} problem)
    if(problem)
      message(FATAL_ERROR "embed self-test: the unmodified limits text is already refused: ${problem}")
    endif()
    _afehal_limits_corrupt("${text}" ${CORRUPT} text)
    # Every line of the damaged text keeps its CR LF, unless the damage is
    # to lose them.
    string(REGEX MATCHALL "\n" breaks "${text}")
    list(LENGTH breaks crlf)
    if(CORRUPT STREQUAL "lf_only")
      set(crlf 0)
    endif()
    string(LENGTH "${text}" length)
    math(EXPR size "${length} + ${crlf}")
    afehal_limits_problem("${text}" ${size} ${crlf} problem)
    if(NOT problem)
      message(FATAL_ERROR "embed self-test: limits text with ${CORRUPT} was accepted")
    endif()
    message(STATUS "refused: ${problem}")
    return()
  endif()

  if(DEFINED CORRUPT)
    afehal_fw_image_problem("${hex}" ${size} problem)
    if(problem)
      message(FATAL_ERROR "embed self-test: the unmodified image is already refused: ${problem}")
    endif()
    # Each case rewrites whole bytes of the hex text (2 digits per byte).
    if(CORRUPT STREQUAL "swapped_signature")
      string(SUBSTRING "${hex}" 8 -1 rest)
      set(hex "aa55aa55${rest}")
    elseif(CORRUPT STREQUAL "format_version_2")
      string(SUBSTRING "${hex}" 0 8 head)
      string(SUBSTRING "${hex}" 16 -1 rest)
      set(hex "${head}02000000${rest}")
    elseif(CORRUPT STREQUAL "cx_past_end")
      # cx length (offset 52) grown by the 4 trailing bytes plus one.
      _afehal_hex_le("${hex}" 52 4 cx_length)
      _afehal_hex_le("${hex}" 44 4 code_length)
      _afehal_hex_le("${hex}" 48 4 config_length)
      math(EXPR grown "${size} - 64 - ${code_length} - ${config_length} + 1")
      math(EXPR b0 "${grown} & 255" OUTPUT_FORMAT HEXADECIMAL)
      math(EXPR b1 "(${grown} >> 8) & 255" OUTPUT_FORMAT HEXADECIMAL)
      math(EXPR b2 "(${grown} >> 16) & 255" OUTPUT_FORMAT HEXADECIMAL)
      set(bytes "")
      foreach(b ${b0} ${b1} ${b2})
        string(REGEX REPLACE "^0x" "" b "${b}")
        string(LENGTH "${b}" n)
        if(n EQUAL 1)
          set(b "0${b}")
        endif()
        string(APPEND bytes "${b}")
      endforeach()
      string(SUBSTRING "${hex}" 0 104 head)
      string(SUBSTRING "${hex}" 112 -1 rest)
      set(hex "${head}${bytes}00${rest}")
    elseif(CORRUPT STREQUAL "code_length_max")
      # A code length of 0xFFFFFFFF must not wrap around.
      string(SUBSTRING "${hex}" 0 88 head)
      string(SUBSTRING "${hex}" 96 -1 rest)
      set(hex "${head}ffffffff${rest}")
    elseif(CORRUPT STREQUAL "truncated")
      # Cut the image one byte before the end of its cx section.
      _afehal_hex_le("${hex}" 44 4 code_length)
      _afehal_hex_le("${hex}" 48 4 config_length)
      _afehal_hex_le("${hex}" 52 4 cx_length)
      math(EXPR keep "(64 + ${code_length} + ${config_length} + ${cx_length} - 1) * 2")
      string(SUBSTRING "${hex}" 0 ${keep} hex)
    elseif(CORRUPT STREQUAL "short_header")
      string(SUBSTRING "${hex}" 0 126 hex)
    elseif(CORRUPT STREQUAL "no_geometry")
      # Header only, with all section lengths zero: too short for the
      # geometry bytes.
      string(SUBSTRING "${hex}" 0 88 head)
      string(SUBSTRING "${hex}" 112 16 tail)
      set(hex "${head}000000000000000000000000${tail}")
    else()
      message(FATAL_ERROR "embed self-test: unknown corruption '${CORRUPT}'")
    endif()
    string(LENGTH "${hex}" digits)
    math(EXPR size "${digits} / 2")
    afehal_fw_image_problem("${hex}" ${size} problem)
    if(NOT problem)
      message(FATAL_ERROR "embed self-test: image with ${CORRUPT} was accepted")
    endif()
    message(STATUS "refused: ${problem}")
    return()
  endif()

  if(CHECK STREQUAL "fw_image")
    afehal_fw_image_problem("${hex}" ${size} problem)
    if(problem)
      message(FATAL_ERROR "refusing firmware image ${INPUT}: ${problem}")
    endif()
  elseif(CHECK STREQUAL "limits")
    file(READ "${INPUT}" text)
    afehal_count_crlf("${hex}" crlf)
    afehal_limits_problem("${text}" ${size} ${crlf} problem)
    if(problem)
      message(FATAL_ERROR "refusing test-limits text ${INPUT}: ${problem}")
    endif()
  elseif(DEFINED CHECK AND NOT CHECK STREQUAL "")
    message(FATAL_ERROR "embed: unknown check '${CHECK}'")
  endif()
  if(size EQUAL 0)
    message(FATAL_ERROR "embed: ${INPUT} is empty")
  endif()

  if(NOT DEFINED ELEMENT_TYPE)
    set(ELEMENT_TYPE uint8_t)
  endif()
  if(NOT DEFINED SIZE_TYPE)
    set(SIZE_TYPE uint32_t)
  endif()
  set(linkage "extern \"C\" ")
  if(EXPORT)
    set(linkage "extern \"C\" __attribute__((visibility(\"default\"))) ")
  endif()

  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," body "${hex}")
  string(REPEAT "0x..," 16 sixteen) # CMake regexes have no {n}
  string(REGEX REPLACE "(${sixteen})" "\\1\n" body "${body}")
  get_filename_component(input_name "${INPUT}" NAME)
  file(WRITE "${OUTPUT}.tmp"
    "// Generated at build time from ${input_name} by embed.cmake; do not edit.\n"
    "#include <cstdint>\n\n"
    "${linkage}const ${ELEMENT_TYPE} ${SYMBOL}[${size}] = {\n${body}};\n\n"
    "extern const ${SIZE_TYPE} ${SIZE_SYMBOL};\n"
    "const ${SIZE_TYPE} ${SIZE_SYMBOL} = ${size};\n")
  file(RENAME "${OUTPUT}.tmp" "${OUTPUT}")
  return()
endif()

# ---- Configure mode ---------------------------------------------------------

set(AFEHAL_EMBEDDED_SOURCES "")
set(AFEHAL_EMBED_DIR ${CMAKE_BINARY_DIR}/embedded)
file(MAKE_DIRECTORY ${AFEHAL_EMBED_DIR})

# afehal_embed(FILE path SYMBOL name SIZE_SYMBOL name
#              [ELEMENT_TYPE type] [SIZE_TYPE type] [EXPORT] [CHECK fw_image|limits])
# Generates <build>/embedded/<SYMBOL>.cpp from path at build time and appends
# it to AFEHAL_EMBEDDED_SOURCES. EXPORT gives the array C linkage and default
# visibility; the size constant stays internal to the library.
function(afehal_embed)
  cmake_parse_arguments(E "EXPORT" "FILE;SYMBOL;SIZE_SYMBOL;ELEMENT_TYPE;SIZE_TYPE;CHECK" "" ${ARGN})
  if(NOT E_ELEMENT_TYPE)
    set(E_ELEMENT_TYPE uint8_t)
  endif()
  if(NOT E_SIZE_TYPE)
    set(E_SIZE_TYPE uint32_t)
  endif()
  set(output ${AFEHAL_EMBED_DIR}/${E_SYMBOL}.cpp)
  add_custom_command(
    OUTPUT ${output}
    COMMAND ${CMAKE_COMMAND} -DINPUT=${E_FILE} -DOUTPUT=${output} -DSYMBOL=${E_SYMBOL}
            -DSIZE_SYMBOL=${E_SIZE_SYMBOL} -DELEMENT_TYPE=${E_ELEMENT_TYPE}
            -DSIZE_TYPE=${E_SIZE_TYPE} -DEXPORT=${E_EXPORT} -DCHECK=${E_CHECK}
            -P ${CMAKE_CURRENT_FUNCTION_LIST_FILE}
    DEPENDS ${E_FILE} ${CMAKE_CURRENT_FUNCTION_LIST_FILE}
    COMMENT "Embedding ${E_FILE} as ${E_SYMBOL}"
    VERBATIM)
  set(AFEHAL_EMBEDDED_SOURCES ${AFEHAL_EMBEDDED_SOURCES} ${output} PARENT_SCOPE)
endfunction()

# The IC firmware image, myArray.
set(AFEHAL_FIRMWARE_IMAGE ${CMAKE_CURRENT_SOURCE_DIR}/data/firmware_image.bin
    CACHE FILEPATH "Firmware image compiled into the library as myArray")
afehal_embed(FILE ${AFEHAL_FIRMWARE_IMAGE} SYMBOL myArray SIZE_SYMBOL myArray_size
             EXPORT CHECK fw_image)

# The image rules of the build step, each checked against a damaged copy of
# the image (ctest -R fw_image_build_check).
if(AFEHAL_TESTS)
  function(_afehal_fw_image_build_check what reason)
    add_test(NAME fw_image_build_check.${what}
      COMMAND ${CMAKE_COMMAND} -DINPUT=${AFEHAL_FIRMWARE_IMAGE} -DCORRUPT=${what}
              -P ${CMAKE_CURRENT_FUNCTION_LIST_FILE})
    set_tests_properties(fw_image_build_check.${what} PROPERTIES
      PASS_REGULAR_EXPRESSION "refused: [^\n]*${reason}" LABELS unit)
  endfunction()
  _afehal_fw_image_build_check(swapped_signature "wrong signature 0x55aa55aa")
  _afehal_fw_image_build_check(format_version_2 "wrong format version 2")
  _afehal_fw_image_build_check(cx_past_end "cx section of [0-9]+ bytes at offset [0-9]+ runs past")
  _afehal_fw_image_build_check(code_length_max "code section of 4294967295 bytes")
  _afehal_fw_image_build_check(truncated "cx section of [0-9]+ bytes at offset [0-9]+ runs past")
  _afehal_fw_image_build_check(short_header "shorter than its 64-byte header")
  _afehal_fw_image_build_check(no_geometry "geometry bytes at offsets 280-283")
endif()

# The factory test limits, limit_file_data: a text, so an array of char.
set(AFEHAL_TEST_LIMITS ${CMAKE_CURRENT_SOURCE_DIR}/data/test_limits.csv
    CACHE FILEPATH "Test-limits text compiled into the library as limit_file_data")
afehal_embed(FILE ${AFEHAL_TEST_LIMITS} SYMBOL limit_file_data SIZE_SYMBOL limit_file_size
             ELEMENT_TYPE char EXPORT CHECK limits)

# The limits rules of the build step, each checked against a damaged copy
# of the text (ctest -R limits_build_check).
if(AFEHAL_TESTS)
  function(_afehal_limits_build_check what reason)
    add_test(NAME limits_build_check.${what}
      COMMAND ${CMAKE_COMMAND} -DINPUT=${AFEHAL_TEST_LIMITS} -DCHECK=limits -DCORRUPT=${what}
              -P ${CMAKE_CURRENT_FUNCTION_LIST_FILE})
    set_tests_properties(limits_build_check.${what} PROPERTIES
      PASS_REGULAR_EXPRESSION "refused: [^\n]*${reason}" LABELS unit)
  endfunction()
  _afehal_limits_build_check(missing_label "label MS_RAW_NOISE_DATA_DELTA is missing")
  _afehal_limits_build_check(short_table "table MS_RAW_ITO_DATA_MAX \\(16 x 34\\): line [0-9]+ does not hold 34")
  _afehal_limits_build_check(bad_value "table MS_RAW_NOISE_DATA_DELTA \\(16 x 34\\): line [0-9]+ does not")
  _afehal_limits_build_check(label_inside_longer "first occurrence of SS_DETECT_TOTAL_IX_SENSE_MAX \\(line 1\\)")
  _afehal_limits_build_check(lf_only "335 of the 335 lines do not end in CR LF")
endif()

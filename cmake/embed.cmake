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

# ---- Script mode: check and convert one file --------------------------------
#
#   -DINPUT=file -DOUTPUT=source -DSYMBOL=name -DSIZE_SYMBOL=name
#   [-DELEMENT_TYPE=uint8_t] [-DSIZE_TYPE=uint32_t] [-DEXPORT=ON] [-DCHECK=fw_image]
#
# Self-test of the image rules (run by ctest): -DINPUT=image -DCORRUPT=what
# damages an in-memory copy of a good image and succeeds only when the rules
# refuse it; the reason is printed for the test to match.

if(CMAKE_SCRIPT_MODE_FILE)
  if(NOT DEFINED INPUT OR NOT EXISTS "${INPUT}")
    message(FATAL_ERROR "embed: no input file '${INPUT}'")
  endif()
  file(READ "${INPUT}" hex HEX)
  string(LENGTH "${hex}" digits)
  math(EXPR size "${digits} / 2")

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
#              [ELEMENT_TYPE type] [SIZE_TYPE type] [EXPORT] [CHECK fw_image])
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

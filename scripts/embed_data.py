#!/usr/bin/env python3
"""Writes a data file as a C++ source defining one constant byte array and a
constant holding its length, for the Android.bp build of libafehal.

The output is the same source that cmake/embed.cmake generates for the CMake
build (scripts/check-android-bp.py compares the two), so both builds embed the
same bytes under the same symbols:

    embed_data.py --symbol myArray --size-symbol myArray_size \\
                  --element-type uint8_t data/firmware_image.bin myArray.cpp

The array has C linkage and default visibility; the size constant stays
internal to the library. The CMake build also refuses a malformed image or
limits text at build time; the library checks both again at run time.
"""
import argparse
import os
import sys


def render(data: bytes, name: str, symbol: str, size_symbol: str, element_type: str,
           size_type: str) -> str:
    # A line break after every sixteenth byte; a short last line has none.
    body = ""
    for start in range(0, len(data), 16):
        chunk = data[start:start + 16]
        body += "".join(f"0x{b:02x}," for b in chunk) + ("\n" if len(chunk) == 16 else "")
    linkage = 'extern "C" __attribute__((visibility("default"))) '
    return (f"// Generated at build time from {name} by embed.cmake; do not edit.\n"
            "#include <cstdint>\n\n"
            f"{linkage}const {element_type} {symbol}[{len(data)}] = {{\n{body}}};\n\n"
            f"extern const {size_type} {size_symbol};\n"
            f"const {size_type} {size_symbol} = {len(data)};\n")


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--symbol", required=True)
    parser.add_argument("--size-symbol", required=True)
    parser.add_argument("--element-type", default="uint8_t")
    parser.add_argument("--size-type", default="uint32_t")
    parser.add_argument("input")
    parser.add_argument("output")
    args = parser.parse_args()
    with open(args.input, "rb") as f:
        data = f.read()
    if not data:
        print(f"embed_data: {args.input} is empty", file=sys.stderr)
        return 1
    text = render(data, os.path.basename(args.input), args.symbol, args.size_symbol,
                  args.element_type, args.size_type)
    with open(args.output, "w", encoding="ascii") as f:
        f.write(text)
    return 0


if __name__ == "__main__":
    sys.exit(main())

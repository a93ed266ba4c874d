#!/usr/bin/env python3
"""Builds the stand-in IC firmware image that the library embeds as myArray.

The image has the real header layout (signature, format version, chip id,
versions, external release, section lengths) and three sections laid back to
back: code, config and cx. Their contents are deterministic filler behind a
small header of their own, which the simulated IC reads its versions from
once the section has been programmed into its flash:

  code    "CODE", u16 fw_ver, u16 svn_rev
  config  "CNFG", u16 cfg_ver, u16 cfg_id, u8 afe_ver_cfg
  cx      "CXDT", ..., u16 cx version at bytes 20-21

The flash geometry (pages of code, unused gap, cx and config) sits at image
offsets 280-283, i.e. bytes 216-219 of the code section. Four unread bytes
follow the cx section.

Usage: gen_firmware_image.py [--output FILE] [--check]
  --check  compare FILE with a fresh build instead of writing it.

Standard library only; the output is byte-for-byte reproducible.
"""

import argparse
import pathlib
import struct
import sys

SIGNATURE = 0xAA55AA55
FORMAT_VERSION = 1
CHIP_ID = b"6H"
HEADER_RESERVED_10_15 = bytes([0x00, 0x00, 0x60, 0x35, 0x00, 0x00])
FW_VERSION = 0x0084
SVN_REVISION = 0x0000
CONFIG_ID = 0x00B9
CONFIG_VERSION = 0x0051
AFE_VERSION_CFG = 0x01
CX_VERSION = 0x0011
EXTERNAL_RELEASE = bytes([0x51, 0x00, 0x21, 0x00, 0x00, 0x00, 0x00, 0x00])

CODE_LENGTH = 99_076
CONFIG_LENGTH = 3_380
CX_LENGTH = 1_516
TRAILER_LENGTH = 4

HEADER_SIZE = 64
GEOMETRY_OFFSET = 280  # image offset of the four page counts
GEOMETRY = bytes([0x1C, 0x01, 0x02, 0x01])  # code 28, gap 1, cx 2, config 1
CX_VERSION_OFFSET = 20  # inside the cx section

IMAGE_SIZE = HEADER_SIZE + CODE_LENGTH + CONFIG_LENGTH + CX_LENGTH + TRAILER_LENGTH
assert IMAGE_SIZE == 104_040


def filler(length: int, seed: int) -> bytearray:
    """Deterministic pseudo-random bytes (xorshift32) standing in for the
    IC's own program and data, which the host treats as opaque."""
    out = bytearray(length)
    state = seed & 0xFFFFFFFF or 1
    for i in range(length):
        state ^= (state << 13) & 0xFFFFFFFF
        state ^= state >> 17
        state ^= (state << 5) & 0xFFFFFFFF
        out[i] = state & 0xFF
    return out


def header() -> bytes:
    h = bytearray(HEADER_SIZE)
    struct.pack_into("<II", h, 0, SIGNATURE, FORMAT_VERSION)
    h[8:10] = CHIP_ID
    h[10:16] = HEADER_RESERVED_10_15
    struct.pack_into("<H", h, 16, FW_VERSION)
    struct.pack_into("<H", h, 20, CONFIG_ID)
    struct.pack_into("<H", h, 24, CONFIG_VERSION)
    h[36:44] = EXTERNAL_RELEASE
    struct.pack_into("<III", h, 44, CODE_LENGTH, CONFIG_LENGTH, CX_LENGTH)
    return bytes(h)


def code_section() -> bytes:
    s = filler(CODE_LENGTH, 0xC0DE0084)
    s[0:4] = b"CODE"
    struct.pack_into("<HH", s, 4, FW_VERSION, SVN_REVISION)
    geometry_at = GEOMETRY_OFFSET - HEADER_SIZE
    s[geometry_at:geometry_at + 4] = GEOMETRY
    return bytes(s)


def config_section() -> bytes:
    s = filler(CONFIG_LENGTH, 0xC0F90051)
    s[0:4] = b"CNFG"
    struct.pack_into("<HHB", s, 4, CONFIG_VERSION, CONFIG_ID, AFE_VERSION_CFG)
    return bytes(s)


def cx_section() -> bytes:
    s = filler(CX_LENGTH, 0xC0C50011)
    s[0:4] = b"CXDT"
    struct.pack_into("<H", s, CX_VERSION_OFFSET, CX_VERSION)
    return bytes(s)


def build() -> bytes:
    image = header() + code_section() + config_section() + cx_section() + bytes(TRAILER_LENGTH)
    assert len(image) == IMAGE_SIZE
    return image


def main() -> int:
    default = pathlib.Path(__file__).resolve().parent.parent / "data" / "firmware_image.bin"
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--output", type=pathlib.Path, default=default)
    parser.add_argument("--check", action="store_true")
    args = parser.parse_args()

    image = build()
    if args.check:
        if not args.output.exists() or args.output.read_bytes() != image:
            print(f"{args.output} differs from a fresh build", file=sys.stderr)
            return 1
        print(f"{args.output}: up to date ({len(image)} bytes)")
        return 0
    args.output.parent.mkdir(parents=True, exist_ok=True)
    args.output.write_bytes(image)
    print(f"wrote {args.output} ({len(image)} bytes)")
    return 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""Builds the panel's test-limits text that the library embeds as limit_file_data.

The text is a sequence of labelled tables, one CSV line per row, CR LF line
ends, and exactly 34 fields (33 commas) on every line:

  *LABEL,rows,cols,,,...        the label line
  v,v,v,...,,,                  rows lines of cols signed integers

The scalars, the bounds, the weights, the noise deltas and the compensation
tables have fixed values. The per-node ITO limits and the adjacency limits are
panel tuning data; this script lays them out as smooth gradients over the 16 x
34 panel:

  ITO minimum   500 at the corner of force 0 / sense 0, a narrow low-gain dip
                there, rising to 2504 at the far corner
  ITO maximum   3277 at the corner of force 0 / sense 0, rising to 4500 at the
                far corner
  adjacency     2000 for pairs of nodes on the panel's border, 1500 inside

Each extreme is reached at least once. The text comes to 38,541 bytes: with
every ITO limit written in four digits it would be 38,544, so the dip leaves
exactly three ITO minima below 1000. The script checks all of this before it
writes anything.

Usage: gen_limits.py [--output FILE] [--check]
  --check  compare FILE with a fresh build instead of writing it.

Standard library only; the output is byte-for-byte reproducible.
"""

import argparse
import math
import pathlib
import sys

FORCE = 16
SENSE = 34
FIELDS = 34
EXPECTED_SIZE = 38541

ITO_MIN_LOW, ITO_MIN_HIGH = 500, 2504
ITO_MAX_LOW, ITO_MAX_HIGH = 3277, 4500
ADJ_INNER, ADJ_BORDER = 1500, 2000
# Width of the low-gain dip around node (0, 0), in nodes.
ITO_DIP_WIDTH = 1.0


def grid(rows, cols, value):
    return [[value(r, c) for c in range(cols)] for r in range(rows)]


def const(rows, cols, value):
    return grid(rows, cols, lambda r, c: value)


def corner_gradient(r, c):
    """0 at node (0, 0), 1 at node (15, 33), smooth in between."""
    return (r / (FORCE - 1) + c / (SENSE - 1)) / 2


def ito_min(r, c):
    base = 1000 + (ITO_MIN_HIGH - 1000) * corner_gradient(r, c)
    dip = (1000 - ITO_MIN_LOW) * math.exp(-(r * r + c * c) / (ITO_DIP_WIDTH**2))
    return round(base - dip)


def ito_max(r, c):
    return round(ITO_MAX_LOW + (ITO_MAX_HIGH - ITO_MAX_LOW) * corner_gradient(r, c))


def adj_horizontal(r, c):
    # Pair (c, c + 1) of row r.
    border = r in (0, FORCE - 1) or c in (0, SENSE - 2)
    return ADJ_BORDER if border else ADJ_INNER


def adj_vertical(r, c):
    # Pair (r, r + 1) of column c.
    border = r in (0, FORCE - 2) or c in (0, SENSE - 1)
    return ADJ_BORDER if border else ADJ_INNER


def tables():
    scalars = [
        ("VERSION", 8),
        ("FORCE_LENGTH", FORCE),
        ("SENSE_LENGTH", SENSE),
        ("KEY_LENGTH", 0),
        ("SSKEY_LENGTH", 0),
        ("EN_LP_TIMER_CALIBRATION", 0),
        ("EN_MUTUAL_AUTOTUNE", 1),
        ("EN_SELF_AUTOTUNE", 1),
        ("EN_SAVE_CX", 0),
        ("CX1_W", 8),
        ("CX2_W", 1),
        ("IX1_FORCE_W", 2),
        ("IX2_FORCE_W", 1),
        ("IX1_SENSE_W", 2),
        ("IX2_SENSE_W", 1),
    ]
    out = [(label, [[value]]) for label, value in scalars]
    out += [
        ("MS_RAW_DATA_MIN_MAX", [[1000, 15000]]),
        ("MS_RAW_DATA_EACH_MIN", const(FORCE, SENSE, -30000)),
        ("MS_RAW_DATA_EACH_MAX", const(FORCE, SENSE, 30000)),
        ("MS_RAW_ITO_DATA_MIN", grid(FORCE, SENSE, ito_min)),
        ("MS_RAW_ITO_DATA_MAX", grid(FORCE, SENSE, ito_max)),
        ("MS_RAW_ITO_DATA_ADJ_HORIZONTAL", grid(FORCE, SENSE - 1, adj_horizontal)),
        ("MS_RAW_ITO_DATA_ADJ_VERTICAL", grid(FORCE - 1, SENSE, adj_vertical)),
        ("MS_RAW_NOISE_DATA_DELTA", const(FORCE, SENSE, 150)),
        ("MS_TOUCH_LOWPOWER_TOTAL_CX_MIN", const(FORCE, SENSE, 0)),
        ("MS_TOUCH_LOWPOWER_TOTAL_CX_MAX", const(FORCE, SENSE, 30000)),
        ("MS_TOUCH_LOWPOWER_TOTAL_CX_ADJ_HORIZONTAL", const(FORCE, SENSE - 1, 30000)),
        ("MS_TOUCH_LOWPOWER_TOTAL_CX_ADJ_VERTICAL", const(FORCE - 1, SENSE, 30000)),
    ]
    for side, shape in (("FORCE", (FORCE, 1)), ("SENSE", (1, SENSE))):
        out += [
            (f"SS_RAW_DATA_{side}_MIN_MAX", [[1000, 15000]]),
            (f"SS_RAW_DATA_{side}_EACH_MIN", const(*shape, -30000)),
            (f"SS_RAW_DATA_{side}_EACH_MAX", const(*shape, 30000)),
            (f"SS_TOUCH_ACTIVE_TOTAL_IX_{side}_MIN", const(*shape, 0)),
            (f"SS_TOUCH_ACTIVE_TOTAL_IX_{side}_MAX", const(*shape, 30000)),
            (f"SS_DETECT_TOTAL_IX_{side}_MIN", const(*shape, 0)),
            (f"SS_DETECT_TOTAL_IX_{side}_MAX", const(*shape, 30000)),
        ]
    return out


def line(fields):
    if len(fields) > FIELDS:
        raise ValueError(f"{len(fields)} fields on one line")
    return ",".join(fields + [""] * (FIELDS - len(fields))) + "\r\n"


def render(table_list):
    parts = []
    for label, rows in table_list:
        parts.append(line([f"*{label}", str(len(rows)), str(len(rows[0]))]))
        parts += [line([str(v) for v in row]) for row in rows]
    return "".join(parts).encode("ascii")


def check(table_list, text):
    problems = []
    if len(table_list) != 41:
        problems.append(f"{len(table_list)} tables, expected 41")
    by_label = dict(table_list)
    for label, low, high in (
        ("MS_RAW_ITO_DATA_MIN", ITO_MIN_LOW, ITO_MIN_HIGH),
        ("MS_RAW_ITO_DATA_MAX", ITO_MAX_LOW, ITO_MAX_HIGH),
        ("MS_RAW_ITO_DATA_ADJ_HORIZONTAL", ADJ_INNER, ADJ_BORDER),
        ("MS_RAW_ITO_DATA_ADJ_VERTICAL", ADJ_INNER, ADJ_BORDER),
    ):
        values = [v for row in by_label[label] for v in row]
        if min(values) != low or max(values) != high:
            problems.append(f"{label} spans {min(values)}..{max(values)}, expected {low}..{high}")
    short = sum(1 for row in by_label["MS_RAW_ITO_DATA_MIN"] for v in row if v < 1000)
    if short != 3:
        problems.append(f"{short} three-digit ITO minima, expected 3")
    if len(text) != EXPECTED_SIZE:
        problems.append(f"{len(text)} bytes, expected {EXPECTED_SIZE}")
    for number, row in enumerate(text.split(b"\r\n")[:-1], start=1):
        if row.count(b",") != FIELDS - 1:
            problems.append(f"line {number} has {row.count(b',') + 1} fields")
    return problems


def main():
    here = pathlib.Path(__file__).resolve().parent
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--output", type=pathlib.Path, default=here.parent / "data" / "test_limits.csv")
    parser.add_argument("--check", action="store_true")
    args = parser.parse_args()

    table_list = tables()
    text = render(table_list)
    problems = check(table_list, text)
    if problems:
        for p in problems:
            print(f"gen_limits: {p}", file=sys.stderr)
        return 1
    if args.check:
        if args.output.read_bytes() != text:
            print(f"gen_limits: {args.output} differs from a fresh build", file=sys.stderr)
            return 1
        print(f"{args.output}: up to date ({len(text)} bytes)")
        return 0
    args.output.write_bytes(text)
    print(f"wrote {args.output} ({len(text)} bytes)")
    return 0


if __name__ == "__main__":
    sys.exit(main())

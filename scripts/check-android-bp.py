#!/usr/bin/env python3
"""Checks that Android.bp builds the same libafehal as CMake.

    check-android-bp.py BUILD_DIR [--android-bp FILE]

BUILD_DIR is a configured CMake build: its afehal-build-manifest.txt lists
the library's sources, embedded data files, definitions, warnings, C++
standard and visibility, and its embedded/ directory holds the sources CMake
generated from the data files (compared byte for byte with what
scripts/embed_data.py, the Android.bp generator, writes). Prints every
difference and exits with 1 when there is one.
"""
import argparse
import os
import re
import subprocess
import sys
import tempfile

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def strip_comments(text):
    return re.sub(r"//[^\n]*", "", text)


def modules(text):
    """(type, body) of each top-level module of a Blueprint file."""
    found = []
    for match in re.finditer(r"(\w+)\s*\{", text):
        if text[:match.start()].count("{") != text[:match.start()].count("}"):
            continue
        depth, i = 0, match.end() - 1
        while True:
            depth += {"{": 1, "}": -1}.get(text[i], 0)
            if depth == 0:
                break
            i += 1
        found.append((match.group(1), text[match.end():i]))
    return found


def prop_list(body, name):
    match = re.search(r"\b" + name + r"\s*:\s*\[(.*?)\]", body, re.S)
    return re.findall(r'"([^"]*)"', match.group(1)) if match else []


def prop_str(body, name):
    match = re.search(r"\b" + name + r'\s*:\s*"([^"]*)"', body)
    return match.group(1) if match else None


def prop_bool(body, name):
    match = re.search(r"\b" + name + r"\s*:\s*(true|false)", body)
    return match and match.group(1) == "true"


def read_manifest(path):
    manifest = {}
    with open(path, encoding="utf-8") as f:
        for line in f:
            key, _, value = line.strip().partition(" ")
            manifest.setdefault(key, []).append(value)
    return manifest


def differences(a_name, a, b_name, b):
    out = []
    for item in sorted(set(a) - set(b)):
        out.append(f"{item}: in {a_name}, not in {b_name}")
    for item in sorted(set(b) - set(a)):
        out.append(f"{item}: in {b_name}, not in {a_name}")
    return out


def genrule_problem(body, tools, build_dir):
    """Runs a genrule's command as Soong would, with scripts/embed_data.py as
    its tool, and compares its output with the source CMake generated. Returns
    the problem, or None."""
    srcs, outs = prop_list(body, "srcs"), prop_list(body, "out")
    if len(srcs) != 1 or len(outs) != 1:
        return "one data file in, one source out"
    if not prop_bool(body, "vendor_available"):
        return "a vendor library needs vendor_available: true"
    # The command's string pieces joined; it must start with its tool.
    pieces = re.search(r'cmd\s*:\s*((?:"[^"]*"\s*\+?\s*)+)', body)
    cmd = "".join(re.findall(r'"([^"]*)"', pieces.group(1))) if pieces else ""
    tool = re.match(r"\$\(location (\w+)\)\s*", cmd)
    if not tool or tool.group(1) not in prop_list(body, "tools"):
        return "its command must start with its tool"
    if tools.get(tool.group(1)) != "scripts/embed_data.py":
        return f"tool {tool.group(1)} is not the python_binary_host of scripts/embed_data.py"
    with tempfile.TemporaryDirectory() as tmp:
        generated = os.path.join(tmp, outs[0])
        given = {"$(in)": os.path.join(ROOT, srcs[0]), "$(out)": generated}
        args = [given.get(a, a) for a in cmd[tool.end():].split()]
        subprocess.run([sys.executable, os.path.join(ROOT, "scripts/embed_data.py")] + args,
                       check=True)
        cmake_copy = os.path.join(build_dir, "embedded", outs[0])
        if not os.path.exists(cmake_copy):
            return f"CMake generates no {outs[0]}"
        with open(generated, "rb") as a, open(cmake_copy, "rb") as b:
            if a.read() != b.read():
                return f"{outs[0]} differs from CMake's"
    return None


def check_genrules(bp_modules, library, manifest, build_dir):
    """The library's generated sources embed the same files, into the same
    sources as CMake's."""
    problems = []
    genrules = {prop_str(body, "name"): body for kind, body in bp_modules if kind == "genrule"}
    tools = {prop_str(body, "name"): prop_str(body, "main")
             for kind, body in bp_modules if kind == "python_binary_host"}
    embedded = []
    for gen in prop_list(library, "generated_sources"):
        body = genrules.get(gen)
        if body is None:
            problems.append(f"generated source {gen}: no genrule of that name")
            continue
        embedded += prop_list(body, "srcs")
        problem = genrule_problem(body, tools, build_dir)
        if problem:
            problems.append(f"genrule {gen}: {problem}")
    problems += differences("Android.bp genrules", embedded, "CMake embedded data",
                            manifest.get("data", []))
    return problems


def check_flags(library, manifest):
    problems = []
    cflags = prop_list(library, "cflags")
    cmake_flags = manifest.get("warning", []) + ["-D" + d for d in manifest.get("define", [])]
    if manifest.get("visibility") == ["hidden"]:
        cmake_flags.append("-fvisibility=hidden")
    problems += differences("Android.bp cflags", cflags, "CMake", cmake_flags)
    std = manifest.get("std", [""])[0]
    if prop_str(library, "cpp_std") != std:
        problems.append(f"cpp_std is {prop_str(library, 'cpp_std')}, CMake builds {std}")
    if prop_list(library, "shared_libs") != ["liblog"]:
        problems.append("shared_libs must be exactly liblog")
    if not prop_bool(library, "vendor"):
        problems.append("libafehal must be a vendor library (vendor: true)")
    return problems


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("build_dir")
    parser.add_argument("--android-bp", default=os.path.join(ROOT, "Android.bp"))
    args = parser.parse_args()
    manifest = read_manifest(os.path.join(args.build_dir, "afehal-build-manifest.txt"))
    with open(args.android_bp, encoding="utf-8") as f:
        bp_modules = modules(strip_comments(f.read()))
    libraries = [body for kind, body in bp_modules
                 if kind == "cc_library_shared" and prop_str(body, "name") == "libafehal"]
    if len(libraries) != 1:
        print(f"{args.android_bp}: no cc_library_shared named libafehal")
        return 1
    library = libraries[0]
    problems = differences("Android.bp srcs", prop_list(library, "srcs"), "CMake sources",
                           manifest.get("source", []))
    problems += check_genrules(bp_modules, library, manifest, args.build_dir)
    problems += check_flags(library, manifest)
    for problem in problems:
        print(f"Android.bp and CMake differ: {problem}")
    if problems:
        return 1
    print(f"Android.bp and CMake agree: {len(manifest.get('source', []))} sources, "
          f"{len(manifest.get('data', []))} embedded data files, the same flags")
    return 0


if __name__ == "__main__":
    sys.exit(main())

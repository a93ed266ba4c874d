#!/usr/bin/env python3
"""Mutation runner for the library's own sources.

Copies the repository into a scratch directory, builds it once, then applies
one small fault at a time (a flipped operator, a literal off by one, a
constant return, a deleted call), rebuilds incrementally and runs the unit
tests. A mutant the tests notice is "killed"; one they miss "survived"; one
that does not compile is "stillborn". The working tree is only ever read.

Usage: scripts/mutants.py [--sample N | --all | --only ID] [--files GLOB]
       [--tests REGEX] [--list] [--json FILE] ...   (see --help)
"""

from __future__ import annotations

import argparse
import dataclasses
import fcntl
import fnmatch
import io
import json
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import tarfile
import time
from pathlib import Path

REPO = Path(__file__).resolve().parent.parent
SOURCE_GLOBS = ("platform/*.cpp", "afe/*.cpp", "chip/**/*.cpp")
EQUIVALENT_FILE = "tests/mutants-equivalent.txt"
FATES = ("killed", "survived", "stillborn", "timeout-build", "equivalent")


class RunnerError(Exception):
    """The runner itself cannot go on (as opposed to a mutant's fate)."""


class Interrupted(Exception):
    """SIGTERM, turned into an exception so every restore in flight runs."""


# ---------------------------------------------------------------------------
# Lexing: just enough C++ to find operators, literals and statements while
# never looking inside comments, strings or preprocessor lines.

OPERATORS = sorted(
    """<<= >>= <=> ->* ... -> ++ -- << >> <= >= == != && || += -= *= /= %= &= |= ^= ::
       .* < > + - * / % & | ^ ! ~ = ? : ; , . ( ) [ ] { }""".split(),
    key=len,
    reverse=True,
)
IDENT_RE = re.compile(r"[A-Za-z_][A-Za-z_0-9]*")
NUMBER_RE = re.compile(r"(?:0[xX][0-9A-Fa-f']+|0[bB][01']+|\.?[0-9][0-9A-Za-z_'.]*(?:[eEpP][+-][0-9]+)?)")
RAW_STRING_RE = re.compile(r'(?:u8|[uUL])?R"([^()\\ ]{0,16})\(')


@dataclasses.dataclass
class Token:
    kind: str  # "op", "id", "num", "str", "chr"
    text: str
    start: int  # offset in the file
    end: int


def _skip_preprocessor(src: str, i: int) -> int:
    """Returns the offset just past a directive, following continuations."""
    n = len(src)
    while i < n:
        if src.startswith("/*", i):  # a comment may hide the line end
            close = src.find("*/", i + 2)
            i = n if close < 0 else close + 2
            continue
        if src.startswith("//", i):
            nl = src.find("\n", i)
            return n if nl < 0 else nl
        c = src[i]
        if c == "\\" and src.startswith("\n", i + 1):
            i += 2
            continue
        if c == "\n":
            return i
        i += 1
    return n


def _skip_quoted(src: str, i: int, quote: str) -> int:
    n = len(src)
    i += 1
    while i < n and src[i] != quote:
        i += 2 if src[i] == "\\" else 1
    return min(i + 1, n)


def tokenize(src: str) -> list[Token]:
    tokens: list[Token] = []
    i, n = 0, len(src)
    line_start = True  # only whitespace seen since the last newline
    while i < n:
        c = src[i]
        if c == "\n":
            line_start = True
            i += 1
            continue
        if c in " \t\r\f\v":
            i += 1
            continue
        if src.startswith("//", i):
            nl = src.find("\n", i)
            i = n if nl < 0 else nl
            continue
        if src.startswith("/*", i):
            close = src.find("*/", i + 2)
            i = n if close < 0 else close + 2
            continue
        if c == "#" and line_start:
            i = _skip_preprocessor(src, i)
            continue
        line_start = False
        raw = RAW_STRING_RE.match(src, i)
        if raw:
            close = src.find(")" + raw.group(1) + '"', raw.end())
            end = n if close < 0 else close + len(raw.group(1)) + 2
            tokens.append(Token("str", src[i:end], i, end))
            i = end
            continue
        m = re.match(r'(?:u8|[uUL])?(["\'])', src[i:i + 3])
        if m:
            end = _skip_quoted(src, i + m.start(1), m.group(1))
            kind = "str" if m.group(1) == '"' else "chr"
            tokens.append(Token(kind, src[i:end], i, end))
            i = end
            continue
        m = IDENT_RE.match(src, i)
        if m:
            tokens.append(Token("id", m.group(), i, m.end()))
            i = m.end()
            continue
        m = NUMBER_RE.match(src, i)
        if m and (c.isdigit() or (c == "." and i + 1 < n and src[i + 1].isdigit())):
            tokens.append(Token("num", m.group(), i, m.end()))
            i = m.end()
            continue
        for op in OPERATORS:
            if src.startswith(op, i):
                tokens.append(Token("op", op, i, i + len(op)))
                i += len(op)
                break
        else:
            i += 1  # a stray character (e.g. '@' or '$'): ignore it
    return tokens


# ---------------------------------------------------------------------------
# Mutation sites.


@dataclasses.dataclass
class Site:
    file: str
    line: int
    col: int
    op: str
    repl: str
    start: int  # span of the file text to replace
    end: int
    new_text: str

    @property
    def id(self) -> str:
        return f"{self.file}:{self.line}:{self.col}:{self.op}:{self.repl}"

    def sort_key(self) -> tuple:
        return (self.file, self.line, self.col, self.op, self.repl)


BINARY_SWAPS = {
    "<": ["<="], "<=": ["<"], ">": [">="], ">=": [">"], "==": ["!="], "!=": ["=="],
    "+": ["-"], "-": ["+"], "*": ["/"], "/": ["*"],
    "+=": ["-="], "-=": ["+="], "*=": ["/="], "/=": ["*="],
    "<<": [">>"], ">>": ["<<"], "<<=": [">>="], ">>=": ["<<="],
    "&&": ["||"], "||": ["&&"],
}
KEYWORDS = set(
    """alignas alignof auto bool break case catch char class const constexpr consteval constinit
    continue co_await co_return decltype default delete do double else enum explicit extern
    false float for goto if inline int long mutable namespace new noexcept nullptr operator
    private protected public register return short signed sizeof static static_assert
    static_cast dynamic_cast reinterpret_cast const_cast struct switch template this throw
    true try typedef typename union unsigned using virtual void volatile while""".split()
)
CONTROL_HEADERS = {"if", "for", "while", "switch", "catch", "do", "else", "try"}


def _spaced(src: str, tok: Token) -> bool:
    """A binary operator as the formatter writes it: whitespace on both sides.

    The sources are clang-formatted, which writes `a < b` but `array<int, 3>`,
    `T *p`, `-x` and `T &&r`, so the spacing tells binary operators apart from
    template brackets, declarators and unary operators.
    """
    before = src[tok.start - 1] if tok.start > 0 else "\n"
    after = src[tok.end] if tok.end < len(src) else "\n"
    return before.isspace() and after.isspace()


def _static_assert_spans(tokens: list[Token]) -> list[tuple[int, int]]:
    spans = []
    for k, tok in enumerate(tokens):
        if tok.kind == "id" and tok.text == "static_assert":
            j = k
            while j < len(tokens) and tokens[j].text != ";":
                j += 1
            spans.append((tok.start, tokens[min(j, len(tokens) - 1)].end))
    return spans


def _literal_replacements(text: str) -> list[str]:
    m = re.fullmatch(r"(0[xX])([0-9A-Fa-f]+)([uUlL]*)|([0-9]+)([uUlL]*)", text)
    if not m:
        return []  # floats, binary, digit separators, user-defined suffixes
    if m.group(1):
        prefix, digits, suffix = m.group(1), m.group(2), m.group(3)
        value = int(digits, 16)
        upper = any(ch in "ABCDEF" for ch in digits) or not any(ch in "abcdef" for ch in digits)

        def fmt(v: int) -> str:
            d = f"{v:0{len(digits)}X}" if upper else f"{v:0{len(digits)}x}"
            return prefix + d + suffix
    else:
        digits, suffix = m.group(4), m.group(5)
        if len(digits) > 1 and digits.startswith("0"):
            return []  # octal: rare enough not to bother
        value = int(digits)

        def fmt(v: int) -> str:
            return str(v) + suffix
    out = [fmt(value + 1)]
    if value > 0:
        out.append(fmt(value - 1))
    return out


def _enclosing_return_type(tokens: list[Token], k: int) -> str:
    """Classifies the function a `return` at token k belongs to.

    Returns "void", "bool", "lambda" or "other". Walks back over brace blocks
    to the nearest one whose header is a function (not if/for/while...).
    """
    depth = 0
    j = k - 1
    while j >= 0:
        t = tokens[j].text
        if t == "}":
            depth += 1
        elif t == "{":
            if depth > 0:
                depth -= 1
            else:
                kind = _block_kind(tokens, j)
                if kind != "block":
                    return kind
        j -= 1
    return "other"


def _block_kind(tokens: list[Token], brace: int) -> str:
    """What opens the block at `brace`: "block" for a statement block, or the
    return kind of a function or lambda body."""
    j = brace - 1
    # Skip trailing qualifiers between ')' and '{' (const, noexcept, -> T).
    header_end = j
    while j >= 0 and tokens[j].text not in (")", ";", "{", "}"):
        j -= 1
    if j < 0 or tokens[j].text != ")":
        return "block"  # namespace, struct, initializer, else/do/try body
    trailing = [t.text for t in tokens[j + 1:header_end + 1]]
    depth = 0
    while j >= 0:
        if tokens[j].text == ")":
            depth += 1
        elif tokens[j].text == "(":
            depth -= 1
            if depth == 0:
                break
        j -= 1
    if j <= 0:
        return "block"
    name = tokens[j - 1]
    if name.text in CONTROL_HEADERS:
        return "block"
    if name.text == "]":
        return "lambda" if "->" not in trailing else _kind_of(trailing[trailing.index("->") + 1:])
    if name.kind != "id":
        return "block"
    if "->" in trailing:
        return _kind_of(trailing[trailing.index("->") + 1:])
    # Return type: the tokens before the (possibly qualified) name back to the
    # previous declaration boundary.
    i = j - 2
    while i >= 0 and tokens[i].text == "::":
        i -= 2
    ret = []
    while i >= 0 and tokens[i].text not in (";", "{", "}", ")", ":"):
        ret.append(tokens[i].text)
        i -= 1
    return _kind_of(list(reversed(ret)))


def _kind_of(type_tokens: list[str]) -> str:
    words = [t for t in type_tokens if t not in ("static", "inline", "constexpr", "extern", "const")]
    if words == ["void"]:
        return "void"
    if words == ["bool"]:
        return "bool"
    return "other"


def _return_sites(tokens: list[Token], k: int, constants: dict[str, int]) -> tuple[int, int, str, str] | None:
    """For `return X;` at token k: (start, end, X, replacement) or None."""
    j, depth = k + 1, 0
    while j < len(tokens):
        t = tokens[j].text
        if t in "([{":
            depth += 1
        elif t in ")]}":
            depth -= 1
        elif t == ";" and depth == 0:
            break
        j += 1
    if j >= len(tokens) or j == k + 1:
        return None  # `return;`
    expr = [tokens[i].text for i in range(k + 1, j)]
    if expr in (["true"], ["false"], ["nullptr"]):
        return None  # the literal mutations cover these
    kind = _enclosing_return_type(tokens, k)
    if kind == "void":
        return None
    if kind == "bool":
        repl = "false"
    else:
        # Returning 0 in place of something that is already 0 changes nothing.
        zero = len(expr) == 1 and (_literal_value(expr[0]) == 0 or constants.get(expr[0]) == 0)
        repl = "1" if zero else "0"
    return tokens[k + 1].start, tokens[j - 1].end, " ".join(expr), repl


CONSTANT_RE = re.compile(
    r"^\s*(?:#define\s+([A-Za-z_]\w*)\s+\(?|(?:(?:static|inline|constexpr|const)\s+)+[\w:]+\s+"
    r"([A-Za-z_]\w*)\s*=\s*|([A-Z_][A-Z0-9_]*)\s*=\s*)(0[xX][0-9A-Fa-f]+|[0-9]+)[uUlL]*\b",
    re.M)


def _literal_value(text: str) -> int | None:
    m = re.fullmatch(r"(0[xX][0-9A-Fa-f]+|[0-9]+)[uUlL]*", text)
    return int(m.group(1), 0) if m and not re.fullmatch(r"0[0-9]+", m.group(1)) else None


def read_constants(read, files: list[str]) -> dict[str, int]:
    """Named integer constants (enumerators, constexpr, #define) with their
    values, so a constant return can be replaced by a different value."""
    found: dict[str, int] = {}
    for f in files:
        if not f.endswith((".h", ".cpp")) or f.startswith(("sim/", "tests/", "tools/", "bench/")):
            continue
        for m in CONSTANT_RE.finditer(read(f)):
            name = m.group(1) or m.group(2) or m.group(3)
            found[name] = int(m.group(4), 0) if not re.fullmatch(r"0[0-9]+", m.group(4)) else -1
    return found


def _call_statement_end(tokens: list[Token], k: int) -> int | None:
    """If tokens[k] starts a statement `a.b->c(...);` returns the index of ';'."""
    if k > 0 and tokens[k - 1].text not in (";", "{", "}", ")", "else", ":"):
        return None
    if k > 0 and tokens[k - 1].text == ")":
        return None  # `if (x) f();` or a cast; too easy to mistake
    if k > 0 and tokens[k - 1].text == ":" and (k < 2 or tokens[k - 2].text in ("?",)):
        return None
    j = k
    while True:
        if tokens[j].kind != "id" or tokens[j].text in KEYWORDS:
            return None
        if j + 1 < len(tokens) and tokens[j + 1].text in ("::", ".", "->"):
            j += 2
            if j >= len(tokens):
                return None
            continue
        break
    j += 1
    if j >= len(tokens) or tokens[j].text != "(":
        return None
    depth = 0
    while j < len(tokens):
        if tokens[j].text == "(":
            depth += 1
        elif tokens[j].text == ")":
            depth -= 1
            if depth == 0:
                break
        elif tokens[j].text in (";", "{", "}"):
            return None  # a lambda argument or something stranger
        j += 1
    if j + 1 < len(tokens) and tokens[j + 1].text == ";":
        return j + 1
    return None


def find_sites(path: str, src: str, constants: dict[str, int]) -> list[Site]:
    tokens = tokenize(src)
    skip = _static_assert_spans(tokens)
    line_starts = [0] + [m.end() for m in re.finditer("\n", src)]

    def position(offset: int) -> tuple[int, int]:
        lo, hi = 0, len(line_starts) - 1
        while lo < hi:
            mid = (lo + hi + 1) // 2
            if line_starts[mid] <= offset:
                lo = mid
            else:
                hi = mid - 1
        return lo + 1, offset - line_starts[lo] + 1

    sites: list[Site] = []

    def add(op: str, repl: str, start: int, end: int, new_text: str, at: int | None = None) -> None:
        line, col = position(start if at is None else at)
        sites.append(Site(path, line, col, op, repl, start, end, new_text))

    for k, tok in enumerate(tokens):
        if any(a <= tok.start < b for a, b in skip):
            continue
        if tok.kind == "op" and tok.text in BINARY_SWAPS and _spaced(src, tok):
            for repl in BINARY_SWAPS[tok.text]:
                add(tok.text, repl, tok.start, tok.end, repl)
        elif tok.kind == "num":
            for repl in _literal_replacements(tok.text):
                add(tok.text, repl, tok.start, tok.end, repl)
        elif tok.kind == "id" and tok.text in ("true", "false"):
            repl = "false" if tok.text == "true" else "true"
            add(tok.text, repl, tok.start, tok.end, repl)
        elif tok.kind == "id" and tok.text == "return":
            found = _return_sites(tokens, k, constants)
            if found:
                start, end, _, repl = found
                add("return", repl, start, end, repl, at=tok.start)
        elif tok.kind == "id":
            end = _call_statement_end(tokens, k)
            if end is not None:
                add("call", "deleted", tok.start, tokens[end].end, "{}")
    return sites


def line_of(src: str, offset: int) -> str:
    start = src.rfind("\n", 0, offset) + 1
    end = src.find("\n", offset)
    return src[start:len(src) if end < 0 else end].strip()


# ---------------------------------------------------------------------------
# Processes: each child runs in its own session so a time-out or Ctrl-C can
# end it together with everything it started (compilers, test programs).


def run(cmd: list[str], cwd: Path | None = None, timeout: float | None = None) -> tuple[int | None, str]:
    """Runs cmd; returns (exit code or None on time-out, combined output)."""
    proc = subprocess.Popen(cmd, cwd=cwd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                            text=True, errors="replace", start_new_session=True)
    try:
        out, _ = proc.communicate(timeout=timeout)
        return proc.returncode, out
    except subprocess.TimeoutExpired:
        _kill_group(proc)
        out, _ = proc.communicate()
        return None, out
    except BaseException:
        _kill_group(proc)
        proc.communicate()
        raise


def _kill_group(proc: subprocess.Popen) -> None:
    try:
        os.killpg(proc.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass


def tail(text: str, lines: int = 30) -> str:
    return "\n".join(text.rstrip().splitlines()[-lines:])


# ---------------------------------------------------------------------------
# The scratch copy and its build.


class Tree:
    """The sources to measure: the working tree as it is (tracked files plus
    untracked ones that are not ignored), or a commit."""

    def __init__(self, repo: Path, rev: str | None):
        self.repo, self.rev = repo, rev
        self.contents: dict[str, tuple[bytes, int]] = {}
        if rev:
            self._read_commit(rev)
            self.files = sorted(self.contents)
        else:
            code, out = run(["git", "-C", str(repo), "ls-files", "-z", "-co", "--exclude-standard"])
            if code != 0:
                raise RunnerError(f"git ls-files failed in {repo}:\n{tail(out)}")
            self.files = sorted({f for f in out.split("\0") if f and (repo / f).is_file()})

    def _read_commit(self, rev: str) -> None:
        proc = subprocess.run(["git", "-C", str(self.repo), "archive", "--format=tar", rev],
                              capture_output=True)
        if proc.returncode != 0:
            raise RunnerError(f"git archive {rev} failed: {proc.stderr.decode().strip()}")
        with tarfile.open(fileobj=io.BytesIO(proc.stdout)) as tar:
            for member in tar.getmembers():
                if member.isfile():
                    data = tar.extractfile(member).read()
                    self.contents[member.name] = (data, member.mode)

    def read(self, f: str) -> bytes:
        if self.rev:
            return self.contents[f][0]
        return (self.repo / f).read_bytes()

    def text(self, f: str) -> str:
        return self.read(f).decode(errors="replace")

    def copy_mode(self, f: str, dst: Path) -> None:
        if self.rev:
            os.chmod(dst, self.contents[f][1] & 0o777)
        else:
            shutil.copymode(self.repo / f, dst)


def library_sources(files: list[str], globs: list[str] | None) -> list[str]:
    chosen = []
    for f in files:
        if not any(_glob_match(f, g) for g in SOURCE_GLOBS):
            continue
        if globs and not any(fnmatch.fnmatch(f, g) for g in globs):
            continue
        chosen.append(f)
    return chosen


def _glob_match(path: str, pattern: str) -> bool:
    if "**" in pattern:
        prefix = pattern.split("**")[0]
        return path.startswith(prefix) and path.endswith(pattern.rsplit("*", 1)[1])
    return fnmatch.fnmatch(path, pattern) and path.count("/") == pattern.count("/")


def sync_tree(tree: Tree, dest: Path) -> int:
    """Makes dest a copy of the listed files; rewrites only what differs, so
    an earlier build there stays incremental (and a file left mutated by a
    killed run is put right). Returns the number of files written."""
    written = 0
    wanted = set(tree.files)
    for f in tree.files:
        dst = dest / f
        data = tree.read(f)
        if dst.is_file() and dst.read_bytes() == data:
            continue
        dst.parent.mkdir(parents=True, exist_ok=True)
        dst.write_bytes(data)  # a fresh mtime, so the build notices
        tree.copy_mode(f, dst)
        written += 1
    for path in sorted(dest.rglob("*"), reverse=True):
        rel = path.relative_to(dest).as_posix()
        if path.is_file() and rel not in wanted:
            path.unlink()
        elif path.is_dir() and not any(path.iterdir()):
            path.rmdir()
    return written


@dataclasses.dataclass
class Build:
    src: Path
    build: Path
    targets: list[str]  # empty: everything
    ctest_args: list[str]
    jobs: int
    build_timeout: float
    test_timeout: float
    per_test_timeout: float

    def compile(self) -> tuple[int | None, str]:
        cmd = ["cmake", "--build", str(self.build), "-j", str(self.jobs)]
        if self.targets:
            cmd += ["--target", *self.targets]
        return run(cmd, timeout=self.build_timeout)

    def test(self) -> tuple[int | None, str]:
        cmd = ["ctest", "--test-dir", str(self.build), "-LE", "thread", "--stop-on-failure",
               "-j", str(self.jobs), "--timeout", str(int(self.per_test_timeout)),
               "--output-on-failure", "--no-tests=error", *self.ctest_args]
        return run(cmd, timeout=self.test_timeout)


def configure(args: argparse.Namespace, src: Path, build: Path) -> None:
    cmd = ["cmake", "-S", str(src), "-B", str(build), "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug",
           f"-DAFEHAL_SANITIZE={args.sanitize or ''}", "-DAFEHAL_BENCH=OFF", "-DAFEHAL_TOOLS=OFF",
           "-DAFEHAL_TESTS=ON"]
    if not args.no_lld and shutil.which("ld.lld"):
        # Every mutant relinks each test program; lld makes that cheap.
        cmd += ["-DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=lld", "-DCMAKE_SHARED_LINKER_FLAGS=-fuse-ld=lld"]
    cmd += args.cmake_arg
    code, out = run(cmd, timeout=args.build_timeout)
    if code != 0:
        raise RunnerError(f"configuring the scratch build failed:\n{tail(out)}")


def test_programs(src: Path) -> list[str]:
    return sorted(p.stem for p in (src / "tests").glob("test_*.cpp"))


def select_tests(build: Path, programs: list[str]) -> list[str]:
    """ctest arguments that run exactly the unit tests of the built programs."""
    code, out = run(["ctest", "--test-dir", str(build), "-LE", "thread", "--show-only=json-v1"])
    if code != 0:
        raise RunnerError(f"ctest could not list the tests:\n{tail(out)}")
    names = []
    for test in json.loads(out).get("tests", []):
        command = test.get("command") or []
        if command and Path(command[0]).name in programs:
            names.append(test["name"])
    if not names:
        raise RunnerError(f"no tests found in {', '.join(programs)}")
    # ctest's regular expressions escape a metacharacter with a backslash.
    escaped = [re.sub(r"([\\^$.|?*+()\[\]{}])", r"\\\1", n) for n in names]
    return ["-R", "^(" + "|".join(escaped) + ")$"]


def failing_tests(output: str) -> list[str]:
    found = re.findall(r"^\s*\d+ - (\S+) \((Failed|Timeout|SEGFAULT|Subprocess aborted|[^)]*)\)",
                       output, re.M)
    return [f"{name} ({why})" for name, why in found]


# ---------------------------------------------------------------------------
# Equivalent mutants.


def read_equivalent(tree: Tree, name: str) -> dict[str, str]:
    known: dict[str, str] = {}
    if name not in tree.files:
        return known
    for raw in tree.text(name).splitlines():
        line = raw.strip()
        if not line or line.startswith("#"):
            continue
        ident, _, reason = line.partition("#")
        known[ident.strip()] = reason.strip()
    return known


# ---------------------------------------------------------------------------
# Running mutants.


@dataclasses.dataclass
class Result:
    id: str
    file: str
    line: int
    col: int
    op: str
    repl: str
    fate: str
    detail: str
    original_line: str
    mutated_line: str
    build_seconds: float = 0.0
    test_seconds: float = 0.0


class Mutation:
    """Applies a site to the scratch copy and always puts the file back."""

    def __init__(self, src_root: Path, site: Site):
        self.path = src_root / site.file
        self.site = site
        self.original = self.path.read_text()

    def mutated_text(self) -> str:
        s = self.site
        return self.original[:s.start] + s.new_text + self.original[s.end:]

    def __enter__(self) -> str:
        text = self.mutated_text()
        self.path.write_text(text)
        return line_of(text, self.site.start)

    def __exit__(self, *exc) -> None:
        self.path.write_text(self.original)
        # A fresh mtime even if the write raced the build's own timestamps.
        now = time.time()
        os.utime(self.path, (now, now))


def run_mutant(build: Build, site: Site, original_line: str) -> Result:
    mutation = Mutation(build.src, site)
    with mutation as mutated_line:
        t0 = time.monotonic()
        code, out = build.compile()
        t1 = time.monotonic()
        result = Result(site.id, site.file, site.line, site.col, site.op, site.repl, "", "",
                        original_line, mutated_line, build_seconds=t1 - t0)
        if code is None:
            result.fate, result.detail = "timeout-build", f"build took over {build.build_timeout:.0f} s"
            return result
        if code != 0:
            errors = [l for l in out.splitlines() if "error" in l]
            result.fate, result.detail = "stillborn", (errors[0] if errors else tail(out, 1))[:200]
            return result
        code, out = build.test()
        result.test_seconds = time.monotonic() - t1
    if code is None:
        result.fate, result.detail = "killed", f"tests took over {build.test_timeout:.0f} s"
    elif code != 0:
        failed = failing_tests(out)
        result.fate, result.detail = "killed", ", ".join(failed[:3]) or tail(out, 1)
    else:
        result.fate = "survived"
    return result


def format_line(index: int, total: int, r: Result) -> str:
    where = f"{r.file}:{r.line}:{r.col}"
    op = f"{r.op} -> {r.repl}" if r.op != "call" else "call deleted"
    shown = r.mutated_line if r.op != "call" else r.original_line
    return f"[{index}/{total}] {r.fate:<14}{where} {op}    | {shown}"


def summarise(results: list[Result], elapsed: float) -> dict:
    counts = {fate: sum(1 for r in results if r.fate == fate) for fate in FATES}
    scored = counts["killed"] + counts["survived"]
    score = 100.0 * counts["killed"] / scored if scored else None
    print()
    print("Fates: " + ", ".join(f"{fate} {n}" for fate, n in counts.items()))
    if score is None:
        print("Score: no mutant was scored")
    else:
        print(f"Score: {counts['killed']} / {scored} killed = {score:.1f}%")
    survivors = [r for r in results if r.fate == "survived"]
    if survivors:
        print("Survivors:")
        for r in survivors:
            print(f"  {r.id}")
            print(f"      was: {r.original_line}")
            print(f"      now: {r.mutated_line if r.op != 'call' else '(call deleted)'}")
    print(f"Elapsed: {_duration(elapsed)}")
    return {"counts": counts, "score_percent": score, "elapsed_seconds": round(elapsed, 1)}


def _duration(seconds: float) -> str:
    m, s = divmod(int(seconds), 60)
    h, m = divmod(m, 60)
    return f"{h}h{m:02d}m{s:02d}s" if h else f"{m}m{s:02d}s"


# ---------------------------------------------------------------------------
# Main.


def parse_args(argv: list[str]) -> argparse.Namespace:
    p = argparse.ArgumentParser(
        description="Mutation testing of the library sources against the unit tests.")
    pick = p.add_mutually_exclusive_group()
    pick.add_argument("--sample", type=int, metavar="N",
                      help="run N sites chosen uniformly at random (default 100; --list: all)")
    pick.add_argument("--all", action="store_true", help="run every site")
    pick.add_argument("--only", action="append", metavar="ID", default=[],
                      help="run just this mutant (repeatable), e.g. afe/state.cpp:40:12:==:!=")
    p.add_argument("--seed", type=int, default=1, help="sampling seed (default 1)")
    p.add_argument("--files", action="append", metavar="GLOB", default=[],
                   help="restrict to library files matching GLOB, e.g. 'chip/ops/*' (repeatable)")
    p.add_argument("--list", action="store_true", help="print the chosen sites and exit")
    p.add_argument("--tests", metavar="REGEX",
                   help="build and run only the test programs whose name matches REGEX "
                        "(e.g. 'freq_rate|frame_parse'); default: the whole unit suite")
    p.add_argument("--workdir", type=Path, default=Path("/tmp/afehal-mutants"),
                   help="scratch directory for the copy and its build (default /tmp/afehal-mutants)")
    p.add_argument("--rev", metavar="COMMIT",
                   help="measure this commit instead of the working tree (e.g. HEAD)")
    p.add_argument("--repo", type=Path, default=REPO, help=argparse.SUPPRESS)
    p.add_argument("--sanitize", default="", metavar="LIST",
                   help="AFEHAL_SANITIZE for the scratch build, e.g. address,undefined (default none)")
    p.add_argument("--no-lld", action="store_true", help="link with the default linker")
    p.add_argument("--cmake-arg", action="append", default=[], metavar="ARG",
                   help="extra argument for configuring the scratch build (repeatable)")
    p.add_argument("--jobs", type=int, default=os.cpu_count() or 1,
                   help="parallel build and test jobs (default: number of CPUs)")
    p.add_argument("--build-timeout", type=float, default=300.0, metavar="S",
                   help="limit for one incremental build (default 300 s)")
    p.add_argument("--test-timeout", type=float, default=120.0, metavar="S",
                   help="limit for one run of the tests (default 120 s)")
    p.add_argument("--per-test-timeout", type=float, default=30.0, metavar="S",
                   help="ctest's limit for a single test (default 30 s)")
    p.add_argument("--json", type=Path, metavar="FILE", help="write the full results to FILE")
    args = p.parse_args(argv)
    if args.sample is not None and args.sample <= 0:
        p.error("--sample needs a positive count")
    return args


def choose_sites(args: argparse.Namespace, sites: list[Site]) -> list[Site]:
    if args.only:
        by_id = {s.id: s for s in sites}
        missing = [i for i in args.only if i not in by_id]
        if missing:
            hints = []
            for ident in missing:
                prefix = ":".join(ident.split(":")[:2]) + ":"
                hints += [s.id for s in sites if s.id.startswith(prefix)]
            msg = "no such mutation site: " + ", ".join(missing)
            if hints:
                msg += "\nsites on that line:\n  " + "\n  ".join(hints)
            raise RunnerError(msg)
        return [by_id[i] for i in args.only]
    if args.all or (args.list and args.sample is None):
        return sites
    n = args.sample if args.sample is not None else 100
    chosen = random.Random(args.seed).sample(sites, min(n, len(sites)))
    # Grouping by file means consecutive mutants recompile the same object.
    return sorted(chosen, key=Site.sort_key)


def collect_sites(tree: Tree, files: list[str]) -> tuple[list[Site], dict[str, str]]:
    constants = read_constants(tree.text, tree.files)
    sites, texts = [], {}
    for f in files:
        texts[f] = tree.text(f)
        sites += find_sites(f, texts[f], constants)
    return sorted(sites, key=Site.sort_key), texts


def prepare_build(args: argparse.Namespace, src: Path, build_dir: Path) -> Build:
    programs = test_programs(src)
    if args.tests:
        pattern = re.compile(args.tests)
        programs = [p for p in programs if pattern.search(p)]
        if not programs:
            raise RunnerError(f"--tests {args.tests!r} matches no test program in tests/")
    else:
        programs = []
    return Build(src, build_dir, programs, [], args.jobs, args.build_timeout, args.test_timeout,
                 args.per_test_timeout)


def _buildable_hint(build: Build) -> str:
    """After a failed full build: which test programs do not compile, and a
    --tests expression for the ones that do."""
    cmd = ["cmake", "--build", str(build.build), "-j", str(build.jobs)]
    if build.targets:
        cmd += ["--target", *build.targets]
    cmd += ["--", "-k", "0"]
    _, out = run(cmd, timeout=build.build_timeout)
    if re.search(r"^FAILED: (?!.*tests/CMakeFiles/test_\w+\.dir/)", out, re.M):
        return ("\n\nThe library or the simulator itself does not build; if the working tree is "
                "in the middle of a change, --rev HEAD measures the last commit instead.")
    broken = sorted(set(re.findall(r"^FAILED: .*?tests/CMakeFiles/(test_\w+)\.dir/", out, re.M)))
    if not broken:
        return ""
    candidates = build.targets or test_programs(build.src)
    good = [p for p in candidates if p not in broken and p != "test_threads"]
    if not good:
        return f"\n\nNo test program builds ({', '.join(broken)})."
    return (f"\n\nTest programs that do not build: {', '.join(broken)}.\n"
            f"To measure with the others: --tests '^({'|'.join(good)})$'")


def baseline(build: Build, args: argparse.Namespace) -> None:
    what = ", ".join(build.targets) if build.targets else "everything"
    print(f"Building the unmutated copy ({what}) ...", flush=True)
    t0 = time.monotonic()
    code, out = build.compile()
    if code != 0:
        state = "timed out" if code is None else "failed"
        hint = "" if code is None else _buildable_hint(build)
        raise RunnerError(f"the unmutated build {state}:\n{tail(out)}{hint}")
    if build.targets:
        build.ctest_args = select_tests(build.build, build.targets)
    t1 = time.monotonic()
    code, out = build.test()
    t2 = time.monotonic()
    if code != 0:
        why = "timed out" if code is None else "fails: " + ", ".join(failing_tests(out))
        raise RunnerError(f"the unmutated test suite {why}; fix it before measuring mutants:\n"
                          f"{tail(out)}")
    print(f"Unmutated suite passes (build {t1 - t0:.0f} s, tests {t2 - t1:.1f} s).", flush=True)


def main(argv: list[str]) -> int:
    args = parse_args(argv)
    repo = args.repo.resolve()
    started = time.monotonic()
    tree = Tree(repo, args.rev)
    sources = library_sources(tree.files, args.files)
    if not sources:
        raise RunnerError("no library source matches --files")

    if args.list:
        sites, texts = collect_sites(tree, sources)
        equivalent = read_equivalent(tree, EQUIVALENT_FILE)
        for s in choose_sites(args, sites):
            mark = "  [equivalent]" if s.id in equivalent else ""
            print(f"{s.id}\t{line_of(texts[s.file], s.start)}{mark}")
        return 0

    workdir = args.workdir.resolve()
    if workdir == repo or repo in workdir.parents:
        raise RunnerError("--workdir must be outside the repository")
    workdir.mkdir(parents=True, exist_ok=True)
    lock = open(workdir / "lock", "w")
    try:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        raise RunnerError(f"another mutation run is using {workdir}") from None

    src, build_dir = workdir / "src", workdir / "build"
    src.mkdir(exist_ok=True)
    what = f"commit {args.rev}" if args.rev else "the working tree"
    print(f"Copying {what} to {src} ({sync_tree(tree, src)} files changed).", flush=True)
    sites, texts = collect_sites(tree, sources)
    chosen = choose_sites(args, sites)
    equivalent = read_equivalent(tree, EQUIVALENT_FILE)
    stale = sorted(set(equivalent) - {s.id for s in sites})
    for ident in stale:
        if any(fnmatch.fnmatch(ident.split(":")[0], g) for g in (args.files or ["*"])):
            print(f"note: {EQUIVALENT_FILE} lists {ident}, which is no longer a site")
    print(f"{len(sites)} sites in {len(sources)} files; running {len(chosen)}.", flush=True)

    configure(args, src, build_dir)
    build = prepare_build(args, src, build_dir)
    baseline(build, args)

    results: list[Result] = []
    interrupted = False
    try:
        for n, site in enumerate(chosen, 1):
            original_line = line_of(texts[site.file], site.start)
            if site.id in equivalent:
                mutated = line_of(Mutation(src, site).mutated_text(), site.start)
                r = Result(site.id, site.file, site.line, site.col, site.op, site.repl,
                           "equivalent", equivalent[site.id], original_line, mutated)
            else:
                r = run_mutant(build, site, original_line)
            results.append(r)
            print(format_line(n, len(chosen), r), flush=True)
    except (KeyboardInterrupt, Interrupted):
        print(f"\nInterrupted after {len(results)} of {len(chosen)} mutants; "
              "the scratch copy is restored.", flush=True)
        interrupted = True

    summary = summarise(results, time.monotonic() - started)
    if args.json:
        payload = {
            "seed": args.seed, "sample": args.sample, "all": args.all, "only": args.only,
            "rev": args.rev, "files": args.files, "tests": args.tests, "sanitize": args.sanitize,
            "sites_total": len(sites), "chosen": len(chosen), **summary,
            "results": [dataclasses.asdict(r) for r in results],
        }
        args.json.write_text(json.dumps(payload, indent=2) + "\n")
        print(f"Results written to {args.json}")
    return 130 if interrupted else 0


def _on_sigterm(signum, frame):  # noqa: ARG001
    raise Interrupted()


if __name__ == "__main__":
    signal.signal(signal.SIGTERM, _on_sigterm)
    try:
        sys.exit(main(sys.argv[1:]))
    except RunnerError as e:
        print(f"mutants.py: {e}", file=sys.stderr)
        sys.exit(2)
    except (KeyboardInterrupt, Interrupted):
        print("mutants.py: interrupted", file=sys.stderr)
        sys.exit(130)

#!/usr/bin/env python3
"""Counts code lines of the tree, without blank and comment lines: all, and those of the tests.

    scripts/code_lines.py [--files]

Whatever only tests run counts as tests, in every language. Fails when their share is LIMIT or more.
"""
import ast
import io
import pathlib
import re
import subprocess
import sys
import tokenize

LIMIT = 0.30
# Run by tests alone, though neither their folder nor their name says so.
ONLY_TESTS = {"scripts/sync_check.py"}
TEST_PATH = re.compile(
    r"(^|/)(tests?|__tests__|fuzz)/|(^|[/_.-])tests?\.[a-z]+$|(^|/)(test_[^/]*|conftest)\.py$")
C_LIKE = {"c", "h", "cpp", "hpp", "js", "mjs", "cjs", "ts", "css"}
HASH_LIKE = {"sh", "cmake", "yml", "yaml"}


def c_lines(text):
    """Lines left when comments are gone; texts may hold what looks like one."""
    pattern = r'"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])*\'|//[^\n]*|/\*.*?\*/'

    def kept(match):
        piece = match.group()
        return piece if piece[0] != "/" else "\n" * piece.count("\n")
    return sum(1 for line in re.sub(pattern, kept, text, flags=re.S).split("\n") if line.strip())


def hash_lines(text):
    return sum(1 for line in text.split("\n") if line.strip() and not line.lstrip().startswith("#"))


def python_lines(text):
    """Lines with a token, but not those of texts that stand alone."""
    layout = {tokenize.COMMENT, tokenize.NL, tokenize.NEWLINE, tokenize.INDENT, tokenize.DEDENT,
              tokenize.ENDMARKER}
    lines = set()
    for token in tokenize.generate_tokens(io.StringIO(text).readline):
        if token.type not in layout:
            lines.update(range(token.start[0], token.end[0] + 1))
    for node in ast.walk(ast.parse(text)):
        if isinstance(node, ast.Expr) and isinstance(node.value, ast.Constant):
            lines.difference_update(range(node.lineno, node.end_lineno + 1))
    return len(lines)


def counter_of(path, text):
    kind = path.suffix.lstrip(".")
    first = text.split("\n", 1)[0]
    if kind in C_LIKE:
        return c_lines
    if kind in ("py", "pyi") or re.match(r"#!.*python", first):
        return python_lines
    if kind in HASH_LIKE or path.name == "CMakeLists.txt" or re.match(r"#!.*sh$", first):
        return hash_lines
    if kind == "html":
        return lambda html: c_lines(re.sub(r"<!--.*?-->", "", html, flags=re.S))
    return None


def main():
    names = subprocess.run(["git", "ls-files", "-z"], check=True, capture_output=True).stdout
    counts = {}
    for name in filter(None, names.decode().split("\0")):
        path = pathlib.Path(name)
        if path.is_symlink():
            continue
        try:
            text = path.read_text()
        except (UnicodeDecodeError, FileNotFoundError):
            continue
        counter = counter_of(path, text)
        if counter:
            counts[name] = counter(text)
    tests = {name for name in counts if name in ONLY_TESTS or
             TEST_PATH.search(name) and not name.startswith("scripts/")}
    if "--files" in sys.argv[1:]:
        for name in sorted(counts, key=counts.get):
            print(f"{counts[name]:6} {'tests' if name in tests else '     '} {name}")
    of_tests, everything = sum(counts[name] for name in tests), sum(counts.values())
    share = of_tests / everything
    print(f"code lines: {everything}, of tests: {of_tests}, share {share:.1%}")
    return f"tests are {LIMIT:.0%} of the code or more" if share >= LIMIT else 0


if __name__ == "__main__":
    sys.exit(main())

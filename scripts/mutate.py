#!/usr/bin/env python3
"""Measures what the tests notice: changes one thing in src/ at a time and runs what covers it.

    scripts/mutate.py make COUNT DIR [SEED]   writes COUNT mutants as patches, spread by size
    scripts/mutate.py run DIR RESULTS BUILD [TSAN_BUILD]
                                              builds and tests each in this tree, which it restores

A mutant changes an operator, a comparison or a constant, or drops a statement. Locks and
notifications are also judged by clang's thread-safety analysis and by the tests under TSan. RESULTS
gets a line per mutant; those that it has are not run again.
"""
import os
import pathlib
import random
import re
import subprocess
import sys

SWAPS = {" < ": " <= ", " > ": " >= ", " <= ": " < ", " >= ": " > ", " == ": " != ", " != ": " == ",
         " + ": " - ", " - ": " + ", " * ": " / ", " / ": " * ", " && ": " || ", " || ": " && ",
         "true": "false", "false": "true", "std::min": "std::max", "std::max": "std::min"}
OPERATOR = re.compile("|".join(re.escape(word) for word in SWAPS))
NUMBER = re.compile(r"(?<![\w.\"'<])\d+(?![\w.\"'>])")
STATEMENT = re.compile(r"^\s+[\w.>\-:\[\]()*]+(\(.*\)|\s[-+*|&]?=\s.*|\+\+);$|^\s+(\+\+|--)\S+;$")
LOCK = re.compile(r"^\s+(const )?(MutexLock|std::lock_guard|std::scoped_lock) \w+\(|notify\w+\(\)")
# Test programs by the beginning of the path, those that are likeliest to notice first.
COVER = {
    "src/a2x/": "a2x_test a2x_process_test engines_test stream_fuzz",
    "src/audio/": "audio_test",
    "src/bundle/": "bundle_test context_test",
    "src/capi/zorv_image": "image_test context_test",
    "src/capi/": "context_test arguments_test renderer_test common_test paste_test telemetry_test",
    "src/common/": "common_test bundle_test fca_test renderer_test a2x_test",
    "src/info/": "doctor_test common_test",
    "src/motion/": "motion_parts_test motion_test engines_test telemetry_test stream_fuzz",
    "src/paste/": "paste_test context_test renderer_test",
    "src/render/gridsample/rewrite": "gridsample_rewrite_test gridsample_test",
    "src/render/int8conv/fold": "int8conv_fold_test",
    "src/render/onnx_": "gridsample_rewrite_test int8conv_fold_test",
    "src/render/gridsample/": "gridsample_test gridsample_rewrite_test",
    "src/render/int8conv/": "int8conv_test renderer_test",
    "src/render/": "renderer_test gridsample_test int8conv_test gridsample_rewrite_test context_test",
    "src/stream/": "fca_test stream_test",
    "src/telemetry/": "telemetry_test",
    "src/utt/": "utt_test utt_calls_fuzz",
}
TIMEOUT = 120  # seconds per program: what hangs is noticed


def mutants_of(path):
    """(line number, new line) of all that could be changed in a file."""
    found, before = [], "{"
    for number, line in enumerate(path.read_text().split("\n")):
        code = line.split("//")[0].rstrip()
        begins = before.endswith((";", "{", "}", ":"))
        before = code or before
        if begins and (LOCK.search(code) or STATEMENT.match(code)):
            found.append((number, ""))
        if code.lstrip().startswith(("#", "*", "static_assert")) or '"' in code:
            continue
        for match in OPERATOR.finditer(code):
            found.append((number, line[:match.start()] + SWAPS[match.group()] + line[match.end():]))
        for match in NUMBER.finditer(code):
            more = str(int(match.group()) + 1)
            found.append((number, line[:match.start()] + more + line[match.end():]))
    return found


def patch_of(path, number, new):
    lines = path.read_text().split("\n")
    lines[number] = new
    return subprocess.run(["diff", "-u", f"--label=a/{path}", f"--label=b/{path}", str(path), "-"],
                          input="\n".join(lines), capture_output=True, text=True).stdout


def make(count, folder, seed):
    pick = random.Random(seed)
    sources = [path for path in sorted(pathlib.Path("src").rglob("*")) if path.suffix in (".cpp", ".h")]
    sizes = [len(path.read_text().split("\n")) for path in sources]
    made = set()
    while len(made) < count:
        path = pick.choices(sources, sizes)[0]
        options = mutants_of(path)
        if not options:
            continue
        number, new = pick.choice(options)
        if (path, number) in made:
            continue
        made.add((path, number))
        name = f"{len(made):03}-{path.stem}-{number + 1}.patch"
        (folder / name).write_text(patch_of(path, number, new))


def quiet(command, **more):
    return subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, **more).returncode


def fails(program, build):
    """How the program fails with the tree as it is; nothing when it passes or is not there."""
    if not list(pathlib.Path().glob(f"*/{program}.cpp")):
        return None
    if quiet(["cmake", "--build", str(build), "--target", program]):
        return f"the compiler, for {program}"
    command = [str(build / "bin" / program)]
    if program.endswith("_fuzz"):
        command += [f"fuzz/seeds/{program}", f"{build}/fuzz/seeds/{program}"]
    else:
        command += ["--gtest_fail_fast", "--gtest_brief=1"]
    try:
        return f"{program} in {build.name}" if quiet(command, timeout=TIMEOUT) else None
    except subprocess.TimeoutExpired:
        return f"{program} in {build.name}, without end"


def judge(path, dropped, builds):
    """What becomes of the change that is applied to the tree right now."""
    if LOCK.search(dropped):
        cache = (builds[0] / "CMakeCache.txt").read_text()
        runtime = re.search(r"ONNXRUNTIME_INCLUDE\S*:\w+=(\S+)", cache, re.I).group(1)
        if quiet(["clang++", "-std=c++20", "-fsyntax-only", "-Wthread-safety", "-Wthread-safety-beta",
                  "-Werror", "-Iinclude", "-Isrc", "-I" + runtime, str(path)]):
            return "killed by clang's analysis"
    else:
        builds = builds[:1]
    programs = next(programs for start, programs in COVER.items() if str(path).startswith(start))
    for build in builds:
        for program in programs.split():
            killer = fails(program, build)
            if killer:
                return f"killed by {killer}"
    return f"SURVIVED {programs}"


def run(folder, results, builds):
    done = results.read_text() if results.exists() else ""
    for patch in sorted(folder.glob("*.patch")):
        if f"{patch.name}:" in done:
            continue
        text = patch.read_text()
        path = pathlib.Path(re.search(r"^\+\+\+ b/(\S+)", text, re.M).group(1))
        if not path.exists():  # moved meanwhile
            path = next(pathlib.Path("src").rglob(path.name), path)
        dropped = "".join(re.findall(r"^-(?!--)(.*)", text, re.M))
        if not path.exists() or quiet(["patch", "-s", "-F3", "--no-backup-if-mismatch", "-r", "-", str(path), str(patch)]):
            verdict = "does not apply any more"
        else:
            verdict = judge(path, dropped, builds)
        quiet(["git", "checkout", "--", str(path)])
        with results.open("a") as file:
            file.write(f"{patch.name}: {verdict}\n")


def main():
    os.chdir(pathlib.Path(__file__).resolve().parent.parent)
    if sys.argv[1] == "make":
        folder = pathlib.Path(sys.argv[3])
        folder.mkdir(parents=True, exist_ok=True)
        make(int(sys.argv[2]), folder, int(sys.argv[4]) if len(sys.argv) > 4 else 1)
    else:
        builds = [pathlib.Path(build).resolve() for build in sys.argv[4:6]]
        run(pathlib.Path(sys.argv[2]), pathlib.Path(sys.argv[3]), builds)


if __name__ == "__main__":
    main()

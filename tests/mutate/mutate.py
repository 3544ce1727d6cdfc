#!/usr/bin/env python3
"""Plants the faults of faults.txt in a copy of the sources, one at a time, and says which of them no test notices.

usage: mutate.py [--check] [--survivors] [--score] [--table FILE] [--into FOLDER] [REGEX]

Faults whose line or path fits REGEX; all without. FOLDER (build/mutate) has the copy, the builds and results.json; an
interrupted run of the same sources goes on where it stopped. --check only holds the table against the sources: every
fault has its place, every source file has a fault. --survivors keeps what the last run noticed, and runs the others
again. --score only shows what there is so far, --table writes it into a page. Ends with 1 when the table is wrong or
too few faults are noticed."""
import argparse
import concurrent.futures
import contextlib
import dataclasses
import hashlib
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import threading
import time

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parents[1]
TABLE = HERE / "faults.txt"
SOURCES = ("src", "platform", "tools")  # what include/ declares is held by the tests of the interface
JOBS = int(os.environ.get("KELRT_MUTATE_JOBS", os.cpu_count() or 1))
LEAST = {"library": 97, "simulator": 90, "tool": 90, "models": 90}  # percent

# How each build is configured. Only the first has the tool, and is fit for what all targets share.
BUILDS = {
    "sse2": ["-DKELRT_X86=sse2"],
    "avx2": ["-DKELRT_X86=avx2", "-DKELRT_BUILD_TOOLS=OFF"],
    "avx512": ["-DKELRT_X86=avx512-emulated", "-DKELRT_BUILD_TOOLS=OFF"],
    "portable": ["-DKELRT_LANES=portable", "-DKELRT_BUILD_TOOLS=OFF"],
    "armhf": ["--toolchain", "cmake/toolchains/armhf.cmake", "-DKELRT_BUILD_TOOLS=OFF"],
}
# The tests that may notice a fault of each part, by name, with the targets that they run where these are called
# otherwise. What the library does its own tests have to notice.
KERNELS = {"runtime_test": "", "operators_test": "", "formats_test": "", "test_math": "", "internals_test": "",
           "faults_test": "", "math_sweep": "kelrt_sweep"}
TESTS = {
    "library": KERNELS | {"simulator_test": "", "truncation_test": "", "catalogue_test": ""},
    "simulator": {"simulator_test": "", "truncation_test": "", "runtime_test": "", "internals_test": "",
                  "kelrt_test": "kelrt", "recorder_test": "recorded_driver kelrt"},
    "tool": {"npy_test": "", "catalogue_test": "", "records_test": "", "check_test": "kelrt", "kelrt_test": "kelrt",
             "recorder_test": "recorded_driver kelrt"},
    "models": {"job_test": "kelrt digits", "onnx_test": "kelrt digits"},
}
# Which of them come first, by the file that has the fault: the first row that fits.
FIRST = [
    ("^platform", "simulator_test truncation_test"),
    ("hw32|copyFormat|copy_bytes", "formats_test runtime_test"),
    ("/math/", "test_math math_sweep operators_test"),
    ("/operators/", "operators_test runtime_test"),
    ("/util/|emory|cpu_mem|operator_call.cpp", "internals_test runtime_test"),
    ("^src", "runtime_test internals_test"),
    ("tools/onnx", "job_test"),
    ("tools/npy", "npy_test kelrt_test"),
    ("tools/record|kelrt/re(cord|play)|dump|compare", "records_test recorder_test"),
    ("kelrt/(audit|check|oddities|refusals|warnings|finding)", "check_test catalogue_test"),
    ("kelrt/operators", "catalogue_test check_test kelrt_test"),
    ("tools", "kelrt_test check_test"),
]
# Several faults compiled at once are behind a switch, which the environment sets.
SWITCH = """#pragma once
#include <stdlib.h>
inline const int kelrt_fault = getenv("KELRT_FAULT") ? atoi(getenv("KELRT_FAULT")) : -1;
"""

ROW = re.compile(r"(?P<switched>\? )?(?:@(?P<build>\w+) )?(?:#(?P<nth>\d+) )?"
                 r"(?P<old>.+?) => (?P<new>.*?) ?## (?P<why>.+)")


def fail(what: str) -> None:
    sys.exit(f"mutate: {what}")


@dataclasses.dataclass
class Fault:
    path: str
    line: int
    text: str
    switched: bool
    build: str
    nth: int | None
    old: str
    new: str
    why: str

    @property
    def cannot_show(self) -> bool:
        return self.why.startswith("cannot show: ")

    @property
    def key(self) -> str:
        return f"{self.path}: {self.text}"

    @property
    def part(self) -> str:
        return next(part for top, part in {"src": "library", "platform": "simulator", "tools/onnx": "models",
                                           "tools": "tool"}.items() if self.path.startswith(top + "/"))

    @property
    def folder(self) -> str:
        parts = self.path.removeprefix("src/drivers/nna/").split("/")[:-1]
        return "/".join(parts[-2:])

    def place(self, source: str) -> tuple[int, int]:
        """Where it goes; a blank of the row is any white space of the source."""
        pattern = r"\s+".join(map(re.escape, self.old.split()))
        found = [match.span() for match in re.finditer(pattern, source)]
        if not found or (self.nth or 0) > len(found) or (self.nth is None and len(found) > 1):
            raise ValueError(f"{self.path} has {len(found)} places for it")
        return found[(self.nth or 1) - 1]


def read_table() -> list[Fault]:
    """The faults; files in which nothing can break have none, and say so."""
    faults, wrong, path, build, files = [], [], "", "sse2", {}
    for number, line in enumerate(TABLE.read_text().splitlines(), 1):
        if not line or line.startswith("//"):
            continue
        if line.startswith("["):
            head, _, reason = line[1:].partition("]")
            path, _, build = head.partition(" @")
            build = build or "sse2"
            if not (ROOT / path).is_file() or build not in BUILDS:
                fail(f"{TABLE.name}:{number}: there is no {head}")
            files[path] = files.get(path, False) or bool(reason.strip())
            continue
        match = ROW.fullmatch(line)
        if not match:
            fail(f"{TABLE.name}:{number}: a row is [? ][@BUILD ][#NTH ]OLD => NEW ## WHY")
        row = match.groupdict()
        fault = Fault(path, number, line, bool(row["switched"]), row["build"] or build, row["nth"] and int(row["nth"]),
                      row["old"], row["new"], row["why"])
        files[path] = True
        try:
            fault.place((ROOT / path).read_text())
        except ValueError as error:
            wrong.append(f"{TABLE.name}:{number}: {error}: {fault.old}")
        faults.append(fault)
    sources = {str(path.relative_to(ROOT)) for top in SOURCES for path in (ROOT / top).rglob("*")
               if path.suffix in (".cpp", ".h", ".py") or path.name == "kelrt-onnx"}
    wrong += [f"{TABLE.name}: no fault in {path}" for path in sorted(sources - {p for p, has in files.items() if has})]
    if wrong:
        fail("the table does not fit the sources:\n" + "\n".join(wrong))
    return faults


class Tree:
    """A copy of the sources with faults in it. What stays equal keeps its time, so that little is compiled anew."""

    def __init__(self, folder: pathlib.Path) -> None:
        self.folder, digest = folder, hashlib.sha256()
        self.files: dict[str, pathlib.Path] = {}
        self.planted: dict[str, str] = {}
        for top, folders, names in os.walk(ROOT):
            folders[:] = sorted(name for name in folders if name not in (".git", "__pycache__") and
                                not (name.startswith("build") and top == str(ROOT)))
            self.files |= {str(path.relative_to(ROOT)): path for path in (pathlib.Path(top, name) for name in names)}
        for name, path in sorted(self.files.items()):
            if not name.startswith("docs/") and HERE not in path.parents:
                digest.update(name.encode() + path.read_bytes())
        self.digest = digest.hexdigest()

    def fill(self, planted: dict[str, str]) -> None:
        """All files, some of them with faults that a switch turns on."""
        self.planted = planted
        for path in self.folder.rglob("*"):
            if path.is_file() and str(path.relative_to(self.folder)) not in self.files:
                path.unlink()
        for name, path in self.files.items():
            self.write(name, planted[name].encode() if name in planted else path.read_bytes())
            shutil.copymode(path, self.folder / name)
        self.write("switch.h", SWITCH.encode())

    def write(self, name: str, contents: bytes) -> None:
        path = self.folder / name
        if not path.exists() or path.read_bytes() != contents:
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_bytes(contents)

    @contextlib.contextmanager
    def with_fault(self, fault: Fault):
        source = self.files[fault.path].read_text()
        begin, end = fault.place(source)
        self.write(fault.path, (source[:begin] + fault.new + source[end:]).encode())
        yield
        self.write(fault.path, self.planted.get(fault.path, source).encode())

    def switched(self, faults: list[Fault]) -> tuple[dict[str, str], list[Fault]]:
        """Files with these faults behind a switch, and which these are: not those that lie over another."""
        texts, planted = {}, []
        for path in dict.fromkeys(fault.path for fault in faults):
            source, places = self.files[path].read_text(), []
            for fault in (fault for fault in faults if fault.path == path):
                begin, end = fault.place(source)
                if all(end <= b or e <= begin for b, e, _ in places):
                    places.append((begin, end, fault))
            for begin, end, fault in sorted(places, key=lambda place: place[0], reverse=True):
                source = source[:begin] + self.choice(fault, source[begin:end]) + source[end:]
            texts[path] = f'#include "{self.folder}/switch.h"\n#line 1\n{source}'
            planted += [fault for _, _, fault in places]
        return texts, planted

    @staticmethod
    def choice(fault: Fault, old: str) -> str:
        if old.endswith(";"):
            return f"{{ if (kelrt_fault == {fault.line}) {{ {fault.new} }} else {{ {old} }} }}"
        return f"(kelrt_fault == {fault.line} ? ({fault.new}) : ({old}))"


class Build:
    def __init__(self, tree: Tree, folder: pathlib.Path, name: str, tests: dict[str, str]) -> None:
        self.folder, self.tests, self.seconds = folder / name, tests, {}
        launcher = ["-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"] if shutil.which("ccache") else []
        # Not CMAKE_CXX_FLAGS, where the toolchain's -mfpu=neon stands.
        options = ["-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release", "-DCMAKE_CXX_FLAGS_RELEASE=-O1 -DNDEBUG -w",
                   *launcher, *BUILDS[name]]
        done = run(["cmake", "-S", ".", "-B", str(self.folder), *options], tree.folder)
        if done.returncode:
            fail(f"cannot configure {name}:\n{done.stdout}")

    def make(self, tests: list[str]) -> str:
        """What went wrong, or nothing."""
        targets = sorted({target for test in tests for target in (self.tests[test] or test).split()})
        done = run(["cmake", "--build", str(self.folder), "-j", str(JOBS), "--target", *targets, "--", "-k", "0"])
        return "" if done.returncode == 0 else done.stdout

    def failing(self, tests: list[str], fault: int = -1) -> str:
        """The first test that fails."""
        limit = max(60, 10 * sum(self.seconds.get(test, 60) for test in tests))
        done = run(["ctest", "--test-dir", str(self.folder), "-R", f"^({'|'.join(tests)})$", "--stop-on-failure",
                    "--timeout", str(int(limit))], KELRT_FAULT=str(fault), GTEST_FAIL_FAST="1")
        match = re.search(r"FAILED:\n\s*\d+ - (\S+) \((.*)\)", done.stdout)
        if done.returncode and not match:
            fail(f"ctest went wrong:\n{done.stdout}")
        return f"{match[1]} ({match[2]})" if match else ""

    def order(self, fault: Fault) -> list[list[str]]:
        """The most likely tests by themselves, then all others of its part together."""
        first = next(tests for pattern, tests in FIRST if re.search(pattern, fault.path)).split()
        own = [test for test in TESTS[fault.part] if test in self.tests]
        last = [test for test in ("truncation_test",) if test in own and test not in first]
        others = [test for test in own if test not in [*first, *last]]
        return [group for group in ([test for test in [name] if test in own] for name in first) if group] + \
            [group for group in (others, last) if group]


RUNNING: set[int] = set()


def stop(*_: object) -> None:
    for group in RUNNING:
        os.killpg(group, signal.SIGKILL)
    os._exit(1)


def run(command: list[str], cwd: pathlib.Path | None = None, **environment: str) -> subprocess.CompletedProcess:
    """With all that it has started, a hanging test too, gone in the end."""
    process = subprocess.Popen(command, cwd=cwd, env=os.environ | environment, text=True, errors="replace",
                               start_new_session=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    RUNNING.add(process.pid)
    output = process.communicate()[0]
    RUNNING.discard(process.pid)
    with contextlib.suppress(ProcessLookupError):
        os.killpg(process.pid, signal.SIGKILL)
    return subprocess.CompletedProcess(command, process.returncode, output)


class Run:
    def __init__(self, folder: pathlib.Path, faults: list[Fault], wanted: list[Fault], survivors: bool) -> None:
        self.folder, self.faults, self.wanted = folder, faults, wanted
        self.lock, self.one_file = threading.Lock(), threading.Lock()
        folder.mkdir(parents=True, exist_ok=True)
        self.tree = Tree(folder / "tree")
        self.file = folder / "results.json"
        self.results, self.baselines = {}, {}
        self.earlier: set[str] = set()  # noticed before the sources last changed, and kept by --survivors
        if self.file.exists():
            last = json.loads(self.file.read_text())
            same, earlier = last["sources"] == self.tree.digest, set(last.get("earlier", []))
            if same:
                self.baselines = last["seconds"]
            keys = {fault.key for fault in faults}
            self.results = {key: what for key, what in last["results"].items() if key in keys and
                            (what if survivors else same and key not in earlier)}
            self.earlier = {key for key in self.results if survivors and (not same or key in earlier)}
        self.todo = [fault for fault in wanted if fault.key not in self.results and not fault.cannot_show]

    def go(self) -> None:
        for name in BUILDS:
            todo = [fault for fault in self.todo if fault.build == name]
            if todo:
                self.of_build(name, todo)

    def of_build(self, name: str, todo: list[Fault]) -> None:
        texts, switched = self.tree.switched([f for f in self.faults if f.build == name and f.switched])
        self.tree.fill(texts)
        say(f"building {name}, {len(switched)} faults behind a switch")
        tests = KERNELS if name != "sse2" else {
            test: target for part in {fault.part for fault in todo} for test, target in TESTS[part].items()}
        build = Build(self.tree, self.folder, name, tests)
        if wrong := build.make(list(tests)):
            fail(f"{name} does not compile with the faults marked '?':\n{errors(wrong)}")
        build.seconds = self.baselines.setdefault(name, {})
        for test in tests:
            if test not in build.seconds:
                start = time.monotonic()
                if wrong := build.failing([test]):
                    fail(f"without a fault: {wrong}")
                build.seconds[test] = time.monotonic() - start
                self.save()
        with concurrent.futures.ThreadPoolExecutor(JOBS) as pool:
            list(pool.map(lambda fault: self.try_out(build, fault, fault.line), [f for f in switched if f in todo]))
        for fault in [fault for fault in todo if fault not in switched]:
            with self.tree.with_fault(fault):
                self.try_out(build, fault, -1)

    def try_out(self, build: Build, fault: Fault, switch: int) -> None:
        start, noticed = time.monotonic(), ""
        for tests in build.order(fault):
            if wrong := switch < 0 and build.make(tests):
                fail(f"{TABLE.name}:{fault.line}: it does not compile:\n{errors(wrong)}")
            with self.one_file if "truncation_test" in tests else contextlib.nullcontext():  # which writes one file
                if noticed := build.failing(tests, switch):
                    break
        with self.lock:
            self.results[fault.key] = noticed
            self.save()
        done = sum(f.key in self.results for f in self.todo)
        seconds = time.monotonic() - start
        say(f"{done} of {len(self.todo)}: {noticed or 'NOT NOTICED'}, {seconds:.0f} s: "
            f"{fault.path.split('/')[-1]}: {fault.text}")

    def save(self) -> None:
        contents = {"sources": self.tree.digest, "seconds": self.baselines, "results": self.results,
                    "earlier": sorted(self.earlier)}
        self.file.write_text(json.dumps(contents, indent=1))

    def score(self) -> tuple[str, bool]:
        """The table by folder, and whether it is enough."""
        rows, parts = {}, {}
        for fault in sorted(self.wanted, key=lambda f: (list(LEAST).index(f.part), f.folder)):
            result = self.results.get(fault.key)
            column = 3 if fault.cannot_show else 2 if result is None else 1 if result == "" else 0
            for row in (rows.setdefault((fault.part, fault.folder), [0] * 4), parts.setdefault(fault.part, [0] * 4)):
                row[column] += 1
        lines = ["| part | folder | noticed | not noticed | | not run | cannot show |",
                 "|---|---|---:|---:|---:|---:|---:|"]
        for (part, folder), row in [*rows.items(), *(((part, "**all**"), row) for part, row in parts.items())]:
            share = f"{percent(row):.1f} %" if row[0] + row[1] else ""
            lines.append(f"| {part} | {folder} | {row[0]} | {row[1]} | {share} | {row[2]} | {row[3]} |")
        if self.earlier:
            lines += ["", f"{len(self.earlier)} of them were noticed before sources or tests last changed."]
        return "\n".join(lines), all(not row[2] and percent(row) >= LEAST[part] for part, row in parts.items())


def percent(row: list[int]) -> float:
    return 100 * row[0] / max(row[0] + row[1], 1)


def errors(output: str) -> str:
    found = [line for line in output.splitlines() if "error" in line]
    return "\n".join(found[:20]) or output[-2000:]


def say(what: str) -> None:
    print(f"{time.strftime('%H:%M:%S')} {what}", flush=True)


def main() -> int:
    parser = argparse.ArgumentParser(usage=__doc__.split("usage: ")[1].splitlines()[0])
    parser.add_argument("--check", action="store_true")
    parser.add_argument("--survivors", action="store_true")
    parser.add_argument("--score", action="store_true")
    parser.add_argument("--table", type=pathlib.Path)
    parser.add_argument("--into", type=pathlib.Path, default=ROOT / "build" / "mutate")
    parser.add_argument("regex", nargs="?", default="")
    options = parser.parse_args()
    for ending in (signal.SIGINT, signal.SIGTERM):
        signal.signal(ending, stop)
    faults = read_table()
    if options.check:
        print(f"{len(faults)} faults have their places; {sum(fault.cannot_show for fault in faults)} cannot show")
        return 0
    wanted = [fault for fault in faults if re.search(options.regex, fault.key)]
    if not wanted:
        fail(f"no fault fits '{options.regex}'")
    run = Run(options.into.resolve(), faults, wanted, options.survivors)
    if not options.score:
        run.go()
    table, enough = run.score()
    print(table)
    for fault in wanted:
        if run.results.get(fault.key) == "":
            print(f"not noticed: {TABLE.name}:{fault.line}: {fault.key}")
    if options.table and wanted == faults:
        begin, end = "<!-- written by ./dev mutate -->\n", "<!-- end -->"
        before, _, rest = options.table.read_text().partition(begin)
        options.table.write_text(f"{before}{begin}{table}\n{end}{rest.partition(end)[2]}")
    return 0 if enough else 1


if __name__ == "__main__":
    sys.exit(main())

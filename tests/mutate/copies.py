"""Copies of the tree in which faults are made: building there, and running tests where a fault can do no harm."""

import hashlib
import json
import os
import re
import shutil
import subprocess
import time
from pathlib import Path

# A fault may turn kill(child) into kill(-1), or fill memory or disk: therefore own process numbers, a small /tmp, limits, and
# nothing but the copy that can be written. The test is not process 1, which no signal ends.
SHIELD = """
mount --bind "$1" "$2" && mount -t tmpfs -o size=512m tmpfs /tmp && cd "$2" || exit 120
mount -o remount,bind,ro / 2>/dev/null
ulimit -c 0; ulimit -f 1000000; ulimit -v 8000000
limit=$3; shift 3
timeout -s KILL "$limit" "$@"
exit $?
"""
PLACED = 'mount --bind "$1" "$2" && cd "$2" && shift 2 && exec "$@"'
UNSHARE = ["setpriv", "--pdeathsig", "KILL", "unshare", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc",
           *([] if os.geteuid() == 0 else ["--user", "--map-root-user"])]
CONFIGURE = ["cmake", "-G", "Ninja", "-DCELMUX_PLATFORM=bundled", "-DCELMUX_SHARED=ON",
             "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON"]
# `a || b && c` without brackets is what a fault makes, no fault of ours.
NO_ERRORS = "-Wno-error=parentheses"


class Failed(Exception):
    pass


def synchronise(tree, place):
    """Makes `place` hold the files that git would take from `tree`, and leaves alone what is the same, so that little is built."""
    listed = subprocess.run(["git", "-C", tree, "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
                            stdout=subprocess.PIPE, check=True).stdout.decode().split("\0")
    wanted = {name for name in listed if name and (tree / name).is_file()}
    for name in wanted:
        source, target = tree / name, place / name
        content = source.read_bytes()
        if not target.is_file() or target.read_bytes() != content:
            target.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(source, target)
    for folder, folders, names in os.walk(place):
        if Path(folder) == place:
            folders[:] = [name for name in folders if name not in ("build", "reach")]
        for name in names:
            path = Path(folder) / name
            if str(path.relative_to(place)) not in wanted:
                path.unlink()


class Test:
    """One test program: its name, how long it takes without a fault, and how long it may take."""

    def __init__(self, name, command):
        self.name, self.command = name, command
        self.seconds = 0.0
        self.left_out = []

    @property
    def limit(self):
        return 10 + 5 * self.seconds


class Outcome:
    """How a test program ended: ok, failed or time-out, and the test in it that did not pass."""

    def __init__(self, status, seconds, limit, output):
        self.seconds = seconds
        self.output = output
        failed = re.findall(r"^\[  FAILED  \] (\w[\w/]*\.[\w/]+)", output, re.MULTILINE)
        begun = re.findall(r"^\[ RUN      \] ([\w/.]+)", output, re.MULTILINE)
        self.how = "ok" if status == 0 else "time-out" if seconds >= limit else "failed"
        names = failed or begun[-1:] or ["(before the first test)"]
        self.tests = [] if status == 0 else list(dict.fromkeys(names))


class Copy:
    """A folder that looks like `place` to whatever runs in it; so a copy of a build goes on where the first one stands."""

    def __init__(self, folder, place):
        self.folder, self.place = folder, place

    def run(self, *command, check=True):
        done = subprocess.run(
            [*UNSHARE, "sh", "-c", PLACED, "sh", self.folder, self.place, *command], stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL, encoding="utf-8", errors="replace")
        if check and done.returncode != 0:
            raise Failed(f"{' '.join(map(str, command))}:\n{done.stdout[-4000:]}")
        return done

    def build(self, *targets, check=True, folder="build"):
        return self.run("ninja", "-j", "2", "-C", folder, *targets, check=check).returncode == 0

    def test(self, test, to_the_end=False, libraries=()):
        environment = dict(os.environ, GTEST_COLOR="no", GTEST_FAIL_FAST=str(int(not to_the_end)))
        if test.left_out:
            environment["GTEST_FILTER"] = "-" + ":".join(test.left_out)
        if libraries:
            environment["LD_LIBRARY_PATH"] = ":".join(libraries)
        begin = time.monotonic()
        with open(self.folder / "build" / "output", "w+b") as output:
            status = subprocess.run(
                [*UNSHARE, "sh", "-c", SHIELD, "sh", self.folder, self.place, str(test.limit), *test.command], stdout=output,
                stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL, env=environment).returncode
            seconds = time.monotonic() - begin
            output.seek(0)
            text = output.read(10_000_000).decode(errors="replace")
        if status == 120:
            raise Failed(f"no place of its own for a test: {text}")
        return Outcome(status, seconds, test.limit, text)

    def objects(self):
        """For each source that is built its object file."""
        built = {}
        for entry in json.loads((self.folder / "build" / "compile_commands.json").read_text()):
            output = re.search(r" -o (\S+)", entry["command"]).group(1)
            if (self.folder / "build" / output).exists():
                built[os.path.relpath(entry["file"], self.place)] = output
        return built

    def object_digest(self, output):
        return hashlib.sha256((self.folder / "build" / output).read_bytes()).digest()


def find_tests(copy):
    listed = json.loads(copy.run("sh", "-c", "cd build && ctest --show-only=json-v1").stdout)
    tests = []
    for entry in listed["tests"]:
        labels = [p["value"] for p in entry["properties"] if p["name"] == "LABELS"]
        if labels and {"unit", "contract"} & set(labels[0]):
            tests.append((entry["name"], entry))
    return [Test(name, entry.get("command") or [str(copy.place / "build" / "tests" / name)]) for name, entry in tests]


def configure(copy, folder, build_type, flags=""):
    copy.run(*CONFIGURE, f"-DCMAKE_BUILD_TYPE={build_type}", f"-DCMAKE_CXX_FLAGS={NO_ERRORS} {flags}", "-S", ".", "-B", folder)


def time_tests(copy, tests, longest):
    """Runs each test without a fault: it must pass. Single tests that take longer than `longest` seconds are left out from now on."""
    for test in tests:
        test.seconds = 100
        outcome = copy.test(test)
        if outcome.how != "ok":
            raise Failed(f"{test.name} fails without a fault:\n{outcome.output[-3000:]}")
        times = re.findall(r"^\[       OK \] ([\w/.]+).*\((\d+) ms\)$", outcome.output, re.MULTILINE)
        slow = {name: int(ms) / 1000 for name, ms in times if int(ms) > 1000 * longest}
        test.left_out = sorted(slow)
        test.seconds = outcome.seconds - sum(slow.values())


def find_reach(copy, tests):
    """Which tests run which lines: {path: {line: names of tests}}, from a build of the libraries that counts. A line without an
    entry has no code of its own; of a program that a test starts nothing is known."""
    configure(copy, "reach", "Debug", "--coverage -fprofile-update=atomic")
    build = copy.folder / "build"
    libraries = [str(path.relative_to(build)) for path in build.rglob("*.so")]
    copy.build(*libraries, folder="reach")
    folders = sorted({str(copy.place / "reach" / os.path.dirname(path)) for path in libraries})
    reach = {}
    for test in tests:
        for counts in (copy.folder / "reach").rglob("*.gcda"):
            counts.unlink()
        slower = Test(test.name, test.command)
        slower.seconds, slower.left_out = 10 * test.seconds, test.left_out
        if copy.test(slower, libraries=folders).how == "time-out":
            raise Failed(f"{test.name} takes too long when its lines are counted")
        counted = [str(path.relative_to(copy.folder)) for path in (copy.folder / "reach").rglob("*.gcda")]
        if counted:
            note_lines(copy, reach, test.name, copy.run("gcov", "--json-format", "--stdout", *counted).stdout)
    add_children(copy, reach, {test.name for test in tests if forks(copy, test)})
    return reach


def forks(copy, test):
    objects = (copy.folder / "build" / "tests" / "CMakeFiles" / f"{test.name}.dir").rglob("*.o")
    return any(b"\0fork\0" in path.read_bytes() for path in objects)


def add_children(copy, reach, forking):
    """A child that is killed, or ends by _exit(), takes what it has counted with it. Where one may have been, whoever runs a line
    of a file is taken to run them all."""
    for path, lines in reach.items():
        source = copy.folder / path
        everyone = set().union(*lines.values())
        if not (source.is_file() and "fork(" in source.read_text()):
            everyone &= forking
        for users in lines.values():
            users |= everyone


def note_lines(copy, reach, name, report):
    for text in report.splitlines():
        if not text.startswith("{"):
            continue
        for file in json.loads(text)["files"]:
            path = os.path.relpath(copy.place / file["file"], copy.place)
            lines = reach.setdefault(path, {})
            for line in file["lines"]:
                users = lines.setdefault(line["line_number"], set())
                if line["count"]:
                    users.add(name)

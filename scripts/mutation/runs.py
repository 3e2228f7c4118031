"""Building the mutants in a copy of the checkout, and running the tests against them."""

import concurrent.futures
import json
import os
import re
import shutil
import signal
import subprocess
import tempfile
import threading
import time
from dataclasses import dataclass, field
from pathlib import Path

from mutation.mutants import schema_text


class Failure(Exception):
    """What stops a run, in one sentence or with the tool's output after it."""


# Building ------------------------------------------------------------------------------------

ERROR_AT = re.compile(r"^(/[^:\n]+):(\d+):\d+:\s+(?:error:|required from)", re.M)
FAILED = re.compile(r"^FAILED: (\S+)", re.M)


class Build:
    """A copy of the checkout (source/) and its build (build/), both in one folder of their own."""

    def __init__(self, root, folder, jobs):
        self.root, self.folder, self.jobs = root, folder, jobs
        self.tree, self.binary = folder / "source", folder / "build"

    def sync(self, replaced):
        """Makes the copy match the checkout, with `replaced` (path: text) in place; unchanged
        files keep their times, so that only what changed is built again."""
        present = set()
        for directory, folders, files in os.walk(self.root):
            here = Path(directory)
            if here == self.root:
                folders[:] = [f for f in folders if f != ".git" and (here / f).resolve() !=
                              self.folder and not f.startswith(("build", "out"))]
            folders[:] = [f for f in folders if f != "__pycache__"]
            for name in files:
                relative = (here / name).relative_to(self.root)
                present.add(relative)
                self._put(here / name, self.tree / relative, replaced.get(str(relative)))
        for directory, _, files in os.walk(self.tree):
            for name in files:
                copy = Path(directory) / name
                if copy.relative_to(self.tree) not in present:
                    copy.unlink()

    @staticmethod
    def _put(original, copy, text):
        content = text.encode() if text is not None else original.read_bytes()
        if copy.is_file() and not copy.is_symlink() and copy.read_bytes() == content:
            return
        copy.parent.mkdir(parents=True, exist_ok=True)
        if copy.is_symlink():
            copy.unlink()
        copy.write_bytes(content)
        shutil.copymode(original, copy)

    def configure(self):
        if (self.binary / "build.ninja").exists():
            return
        presets = json.loads((self.root / "CMakePresets.json").read_text())
        preset = next(p for p in presets["configurePresets"] if p["name"] == "default")
        settings = dict(preset.get("cacheVariables", {}), CORVELSTOW_BUILD_BENCH="OFF")
        command = ["cmake", "-S", str(self.tree), "-B", str(self.binary),
                   "-G", preset.get("generator", "Ninja")]
        command += [f"-D{name}={value}" for name, value in settings.items()]
        result = subprocess.run(command, capture_output=True, text=True)
        if result.returncode != 0:
            raise Failure(f"Could not configure {self.binary}:\n{result.stdout}{result.stderr}")

    def objects(self):
        """Each compiled source (relative to the checkout) and the object that it builds."""
        entries = json.loads((self.binary / "compile_commands.json").read_text())
        found = {}
        for entry in entries:
            source = Path(entry["file"]).resolve()
            output = entry.get("output") or re.search(r"-o (\S+)", entry["command"]).group(1)
            if source.is_relative_to(self.tree.resolve()):
                found.setdefault(str(source.relative_to(self.tree.resolve())), []).append(output)
        return found

    def ninja(self, targets=()):
        result = subprocess.run(["ninja", "-C", str(self.binary), "-k", "0", f"-j{self.jobs}",
                                 *targets], capture_output=True, text=True)
        return result.returncode == 0, result.stdout + result.stderr


def compile_mutants(build, sources, selection, refill):
    """Builds every mutant of the selection into the copy, dropping those that do not compile."""
    build.sync({})
    build.configure()
    objects = build.objects()
    for path in sources:
        if path not in objects:
            raise Failure(f"{path} is not compiled on its own: only source files can be mutated.")
    for _ in range(20):
        write_schemata(build, sources, selection)
        targets = [o for path in sources if selection.taken[path] for o in objects[path]]
        ok, output = build.ninja(targets)
        if ok:
            ok, output = build.ninja()  # everything else: the library, the command, the tests
            if not ok:
                raise Failure(f"The build failed:\n{output[-4000:]}")
            return
        failed = set(FAILED.findall(output))
        errors = {}
        for file, line in ERROR_AT.findall(output):
            errors.setdefault(Path(file).resolve(), set()).add(int(line))
        for path in sources:
            if not failed.intersection(objects[path]):
                continue
            lines = errors.get((build.tree / path).resolve(), set())
            guilty = [m for m in selection.taken[path]
                      if any(m.line <= line <= m.last_line for line in lines)]
            if not guilty:
                guilty = find_guilty(build, sources[path], selection.taken[path], objects[path])
            if not guilty:
                raise Failure(f"{path} does not compile, even without mutants:\n{output}")
            selection.drop(path, guilty, refill)
    raise Failure("The mutants still do not compile after 20 rounds of leaving some out.")


def find_guilty(build, source, mutants, objects):
    """The mutants that do not compile, found by halves, when no error names their lines."""
    def compiles(some):
        path = build.tree / source.path
        path.write_text(schema_text(source, some, path))
        return build.ninja(objects)[0]

    def search(some):
        if compiles(some):
            return []
        if len(some) == 1:
            return some
        half = len(some) // 2
        return search(some[:half]) + search(some[half:])

    return search(list(mutants)) if compiles([]) else []


def write_schemata(build, sources, selection):
    replaced = {}
    for path, source in sources.items():
        compiled = build.tree / path
        replaced[path] = schema_text(source, selection.taken[path], compiled)
    build.sync(replaced)


# Running the tests ---------------------------------------------------------------------------

@dataclass
class Test:
    """A test as ctest runs it, and what its run without a mutant showed."""
    name: str
    command: list
    directory: str
    environment: dict
    passed: bool = False
    seconds: float = 0.0
    reached: set = field(default_factory=set)


def list_tests(build, pattern):
    result = subprocess.run(["ctest", "--test-dir", str(build.binary), "--show-only=json-v1"],
                            capture_output=True, text=True)
    if result.returncode != 0:
        raise Failure(f"ctest could not list the tests:\n{result.stderr}")
    tests = []
    for entry in json.loads(result.stdout)["tests"]:
        if "command" not in entry or (pattern and not re.search(pattern, entry["name"])):
            continue
        properties = {p["name"]: p["value"] for p in entry.get("properties", [])}
        environment = dict(v.split("=", 1) for v in properties.get("ENVIRONMENT", []))
        tests.append(Test(entry["name"], entry["command"],
                          properties.get("WORKING_DIRECTORY", str(build.binary)), environment))
    return tests


class Stopped(Exception):
    """Raised to a test about to start once the run is interrupted."""


class Runner:
    """Runs tests, each in a process group of its own, so that a timeout or an interruption ends
    whatever the test started too, and with a TMPDIR of its own, where a test killed by a mutant
    leaves its temporary folders: they go with it."""

    def __init__(self):
        self.running, self.lock, self.stopped = set(), threading.Lock(), False
        self.scratch = tempfile.TemporaryDirectory(prefix="corvelstow-mutate-")
        self.temporary = Path(self.scratch.name) / "tmp"
        self.temporary.mkdir()

    def run(self, test, extra, timeout):
        """"passed", "failed" or "timed out", and the seconds it took."""
        environment = {k: v for k, v in os.environ.items() if not k.startswith("CORVELSTOW_MUTANT")}
        environment.update(test.environment, TMPDIR=str(self.temporary), **extra)
        started = time.monotonic()
        with self.lock:
            if self.stopped:
                raise Stopped()
            process = subprocess.Popen(test.command, cwd=test.directory, env=environment,
                                       stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                       stderr=subprocess.DEVNULL, start_new_session=True)
            self.running.add(process)
        try:
            process.wait(timeout)
            outcome = "passed" if process.returncode == 0 else "failed"
        except subprocess.TimeoutExpired:
            outcome = "timed out"
        finally:
            self._end(process)
        return outcome, time.monotonic() - started

    def _end(self, process):
        try:
            os.killpg(process.pid, signal.SIGKILL)  # and whatever it left running
        except ProcessLookupError:
            pass
        process.wait()
        with self.lock:
            self.running.discard(process)

    def stop(self):
        with self.lock:
            self.stopped, running = True, list(self.running)
        for process in running:
            self._end(process)

    def __enter__(self):
        return self

    def __exit__(self, *exception):
        self.scratch.cleanup()

    def in_parallel(self, jobs, work, items, done=lambda item, result: None):
        """Calls work(item) for every item, `jobs` at once, and done(item, result) as each one
        finishes; an interruption ends the tests under way and leaves the rest."""
        pool = concurrent.futures.ThreadPoolExecutor(jobs)
        futures = {pool.submit(work, item): item for item in items}
        try:
            for future in concurrent.futures.as_completed(futures):
                done(futures[future], future.result())
        except BaseException:
            self.stop()
            raise
        finally:
            pool.shutdown(cancel_futures=True)


def trace_tests(tests, runner, jobs, timeout):
    """Runs every test once without a mutant, noting the mutants each one reaches."""
    records = Path(runner.scratch.name) / "reached"
    records.mkdir()

    def trace(index):
        test, record = tests[index], records / str(index)
        outcome, test.seconds = runner.run(test, {"CORVELSTOW_MUTANT_TRACE": str(record)},
                                           timeout)
        test.passed = outcome == "passed"
        if record.exists():
            test.reached = {int(line) for line in record.read_text().split()}

    runner.in_parallel(jobs, trace, range(len(tests)))


def try_mutant(mutant, tests, runner, factor, floor):
    """Runs the tests that reach the mutant, fastest first, until one of them fails."""
    for test in sorted(tests, key=lambda t: t.seconds):
        limit = max(floor, factor * test.seconds)
        outcome, _ = runner.run(test, {"CORVELSTOW_MUTANT": str(mutant.id)}, limit)
        if outcome != "passed":
            mutant.test = test.name
            return "killed" if outcome == "failed" else "timed out"
    return "survived"

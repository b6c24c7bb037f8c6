"""Mutation testing: a fixed list of mutants of the C++ and the Python, each run against a test directory.

    python tools/mutants.py                          # every mutant against tests/
    python tools/mutants.py --tests /path/to/tests   # the same mutants against other tests
    python tools/mutants.py --only cooldown-float-ge,run-reached-ge   # rerun some
    python tools/mutants.py --list                   # the mutants, checked against the sources
    python tools/mutants.py --all-failures --json kills.json   # every test that kills each mutant

The checkout's tracked files are copied to a private tree (--workdir, kept between runs so that
the native build is incremental; one run at a time uses it); the tests directory given replaces its
tests/. Each mutant is applied there alone, the module is rebuilt by the tree's tools/dev-build.sh
(incrementally, one build tree for all mutants) and the tests run with `pytest -x` under a timeout, one mutant at a time. A mutant is
killed when the run fails or times out, survives when it passes, and is excluded when it no longer
matches the sources or does not compile.
"""
from __future__ import annotations

import argparse
import fcntl
import json
import os
import shlex
import shutil
import signal
import subprocess
import sys
import time
from dataclasses import asdict, dataclass
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
NATIVE, PY = "native/health/", "src/ordanis_veltrane/"


@dataclass(frozen=True)
class Mutant:
    path: str  # relative to the checkout
    original: str  # occurs exactly once in the file
    replacement: str
    label: str


def m(path: str, original: str, replacement: str, label: str) -> Mutant:
    return Mutant((NATIVE if path.endswith((".cpp", ".hpp")) else PY) + path, original, replacement, label)


MUTANTS = [
    # The four hot operations.
    m("tracker.cpp", "if (PyFloat_CheckExact(limit)) return elapsed >= PyFloat_AS_DOUBLE(limit);",
      "if (PyFloat_CheckExact(limit)) return elapsed > PyFloat_AS_DOUBLE(limit);", "cooldown-float-ge"),
    m("tracker.cpp", "if (!(v == -1 && PyErr_Occurred())) return run >= v;",
      "if (!(v == -1 && PyErr_Occurred())) return run > v;", "run-reached-ge"),
    m("tracker.cpp", "if (overflow != 0) return overflow < 0;", "if (overflow != 0) return overflow > 0;",
      "run-reached-huge-limit"),
    m("tracker.cpp", "        s->consecutive_errors = 0;\n        s->has_disabled_at = false;\n        if (wall_clock",
      "        s->consecutive_errors = 0;\n        if (wall_clock", "success-keeps-disabled"),
    m("tracker.cpp", "increment(&s->error_count) < 0 ||\n            increment(&s->consecutive_errors) < 0",
      "increment(&s->error_count) < 0", "error-no-run"),
    m("tracker.cpp", "return Ref(PyUnicode_Substring(error, 0, kMaxMessage));",
      "return Ref(PyUnicode_Substring(error, 0, kMaxMessage - 1));", "message-cut-499"),
    m("tracker.cpp",
      "        s->consecutive_errors = 0;\n        s->has_disabled_at = false;\n        s->updated_at = now;",
      "        s->has_disabled_at = false;\n        s->updated_at = now;", "reenable-keeps-run"),
    m("tracker.cpp", "    if (mark_dirty(self, name) < 0) return nullptr;\n    return Py_NewRef(st->not_disabled);",
      "    return Py_NewRef(st->not_disabled);", "reenable-unmarked"),
    m("tracker.cpp", "PyTuple_GET_ITEM(kwnames, 0) == st->s_alias_hit &&\n        PyTuple_GET_ITEM(kwnames, 1)",
      "PyTuple_GET_ITEM(kwnames, 1) == st->s_alias_hit &&\n        PyTuple_GET_ITEM(kwnames, 0)",
      "record-call-keywords-swapped"),
    m("tracker.cpp", "        ObjectLock fields(self);\n        if (refuse_ready() < 0) return -1;\n",
      "        ObjectLock fields(self);\n", "init-twice-overwrites"),
    # The lock hold and re-entry refusal.
    m("lock.hpp", "if (held[i].tracker == t || held[i].lock == lock) return true;",
      "if (held[i].tracker == t || (false && held[i].lock == lock)) return true;", "shared-lock-not-held"),
    m("lock.hpp", "if (thread_holds.count > 0 && refuse_current() < 0) return -1;",
      "if (thread_holds.count > 1 && refuse_current() < 0) return -1;", "first-reentry-allowed"),
    m("lock.hpp", "        PyObject* r = release_(empty_tuple_);\n        thread_holds.pop(owner_);",
      "        PyObject* r = release_(empty_tuple_);", "release-keeps-hold"),
    m("lock.hpp", "        if (held_) release_after_error();", "", "error-keeps-lock"),
    m("lock.hpp", "        if (r == nullptr) {\n            thread_holds.pop(owner_);\n",
      "        if (r == nullptr) {\n", "failed-acquire-keeps-hold"),
    # Loading and pruning.
    m("history.cpp", "        if (spec.get() == Py_None) {\n            Ref param",
      "        if (spec.get() != Py_None) {\n            Ref param", "prune-known-tools"),
    m("history.cpp", "if (!PyErr_ExceptionMatches(PyExc_Exception)) return 0;",
      "if (!PyErr_ExceptionMatches(PyExc_BaseException)) return 0;", "load-swallows-interrupt"),
    m("history.cpp", "        self->usage_dirty.set(dropped);", "        self->usage_dirty.set(false);",
      "pruned-usage-unmarked"),
    m("history.cpp", "        Ref usage_key(PyTuple_Pack(4, tool.get(), action.get(), outcome.get(),",
      "        Ref usage_key(PyTuple_Pack(4, tool.get(), outcome.get(), action.get(),", "reader-key-swapped"),
    # Flush and mark restore.
    m("history.cpp", "    if (!PyErr_ExceptionMatches(PyExc_Exception)) return;  // interrupts pass through\n", "",
      "restore-on-interrupt"),
    m("history.cpp", "    if (!done) {\n        restore_marks(self, [&] { return add_all(self, names.get()); });\n",
      "    if (!done) {\n", "failed-health-write-drops-marks"),
    m("history.cpp", "        if (PyList_Sort(names.get()) < 0) return nullptr;\n", "", "flush-unsorted"),
    m("history.cpp", "    if (!done) {\n        restore_marks(self, set_mark);\n", "    if (!done) {\n",
      "failed-usage-write-drops-mark"),
    m("history.cpp", "            PyErr_Clear();\n            status = -1;",
      "            PyErr_Clear();\n            return -1;", "restore-stops-at-first-failure"),
    m("history.cpp", "PyTuple_Pack(6, name, calls_obj.get(), errors_obj.get(), last.get(),",
      "PyTuple_Pack(6, name, errors_obj.get(), calls_obj.get(), last.get(),", "health-row-counts-swapped"),
    m("history.cpp", "        r.total_ms = round_half_even(total, 3);", "        r.total_ms = total;",
      "document-unrounded"),
    # A shared tracker's change-set and the merged totals it takes in.
    m("changes.cpp", "} else if ((s->events & kSucceeded) && !s->has_disabled_at && s->synced_has_disabled) {",
      "} else if (!s->has_disabled_at && s->synced_has_disabled) {", "cooldown-enable-shared"),
    m("changes.cpp", "        if (news && !pending) {", "        if (news) {", "merged-disable-over-local-one"),
    m("changes.cpp", "    u->synced_calls = u->calls;\n", "", "usage-increment-sent-twice"),
    # The usage document writer and fast reader.
    m("document.cpp", "unit(0xdc00 | (v & 0x3ff));", "unit(0xdc00 | ((v >> 10) & 0x3ff));", "writer-low-surrogate"),
    m("document.cpp", "fraction % 100 == 0 ? 2 : fraction % 10 == 0 ? 3 : 4;", "fraction % 100 == 0 ? 2 : 4;",
      "writer-total-trailing-zero"),
    m("document.cpp", "            if (std::signbit(v)) *out++ = '-';\n", "", "writer-total-sign"),
    m("document.cpp", "if (json.get() == st->json_module && dumps.get() == st->json_dumps) {",
      "if (json.get() == st->json_module) {", "writer-ignores-replaced-dumps"),
    m("document.cpp", "    if (s.literal(\"true\", 4)) {\n        row->alias_hit = true;",
      "    if (s.literal(\"true\", 4)) {\n        row->alias_hit = false;", "reader-alias-true-false"),
    m("document.cpp", "return s.p == s.end ? 1 : general_reader();", "return 1;", "reader-trailing-text"),
    # The summary: sorts and averages.
    m("summary.cpp", "const int before = less(items[j], items[i]);", "const int before = less(items[i], items[j]);",
      "sort-reversed"),
    m("summary.cpp", "        return c > 0 ? 1 : 0;\n    });", "        return c < 0 ? 1 : 0;\n    });",
      "tools-least-errors-first"),
    m("summary.cpp", "        if (c == 0 && compare(a.outcome.get(), b.outcome.get(), &c) < 0) return -1;\n", "",
      "rows-ignore-outcome"),
    m("summary.cpp", ": action == Py_None         ? Ref::borrow(st->none_str)",
      ": action == Py_None         ? Ref::borrow(st->empty_str)", "null-action-sorts-empty"),
    m("summary.cpp", "return Ref(PyFloat_FromDouble(round_half_even(mean, 2)));",
      "return Ref(PyFloat_FromDouble(mean));", "average-unrounded"),
    # Time conversion.
    m("records.cpp", "    if (micros >= 1e6) {", "    if (micros > 1e6) {", "time-micros-carry"),
    m("records.cpp", "    } else if (micros < 0) {", "    } else if (micros <= 0) {", "time-negative-borrow"),
    m("records.cpp", "|| whole > static_cast<double>(kMaxSeconds)) {",
      "|| whole >= static_cast<double>(kMaxSeconds)) {", "time-last-second"),
    m("records.cpp", "hour > 23 || minute > 59", "hour > 24 || minute > 59", "parse-hour-24"),
    m("records.cpp", "return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;", "return y % 4 == 0;",
      "parse-leap-century"),
    # Records, the registry test and the reports.
    m("records.cpp", "    if (spec.get() == Py_None) return 0;\n    if (action == Py_None) return 1;",
      "    if (!PyObject_IsTrue(spec.get())) return 0;\n    if (action == Py_None) return 1;", "known-by-truth"),
    m("reports.cpp", "PyObject* counted = has_os ? os_threads.get() : python_total.get();",
      "PyObject* counted = has_os ? python_total.get() : os_threads.get();", "census-counts-swapped"),
    m("reports.cpp", "PyObject_RichCompareBool(counted, budget, Py_GT)",
      "PyObject_RichCompareBool(counted, budget, Py_GE)", "census-at-budget-warns"),
    m("support.cpp", "if (frac == 0.5 && error > 0) {", "if (frac == 0.5 && error >= 0) {", "round-half-up"),
    m("support.cpp", "            if (out[found] != nullptr) {", "            if (false) {", "args-given-twice"),

    # The repository stand-in.
    m("repository.py",
      "                self._depth = depth + 1\n                if depth == 0:\n"
      "                    self._roll_back_open()\n",
      "                self._depth = depth + 1\n", "repo-no-rollback-before"),
    m("repository.py",
      "                self._depth = depth\n                if depth == 0:\n                    self._roll_back_open()",
      "                self._depth = depth", "repo-no-rollback-after"),
    m("repository.py", "        for _ in range(3):", "        for _ in range(1):", "repo-rollback-once"),
    m("repository.py", "                conn.execute(f\"ROLLBACK TO {savepoint}\")\n", "", "repo-release-keeps-rows"),
    m("repository.py", "            savepoint = f\"rows{self._depth}\"", "            savepoint = \"rows\"",
      "repo-one-savepoint-name"),
    m("repository.py", "                self._depth = depth\n", "                pass\n", "repo-depth-not-restored"),
    # The tool-call pipeline and the SDK guard.
    m("tool_pipeline.py", "return found.name, found.name, found.name != raw", "return found.name, found.name, True",
      "pipeline-alias-always"),
    m("tool_pipeline.py",
      "            tracker.record_call(tool, action, \"disabled\", alias_hit=alias_hit, duration_ms=None)\n", "",
      "pipeline-refusal-uncounted"),
    m("tool_pipeline.py", "outcome = \"ok\" if error is None else", "outcome = \"error\" if error is None else",
      "pipeline-outcome-swapped"),
    m("tool_pipeline.py", "str(exc) or type(exc).__name__, type(exc).__qualname__", "type(exc).__name__, type(exc).__qualname__",
      "pipeline-message-type-only"),
    m("mcp_guard.py", "if isinstance(result, CallToolResult) and result.is_error:", "if False:",
      "guard-error-result-ok"),
    m("tool_pipeline.py", "            if self._sessions == 0:\n                await self._start()",
      "            if True:\n                await self._start()", "pipeline-tracker-per-session"),
    m("tool_pipeline.py", "            await anyio.to_thread.run_sync(handle.close, limiter=self._limiter)",
      "            pass", "pipeline-no-final-flush"),
    m("tool_pipeline.py", "            health.TOOLS = self.registry\n", "", "pipeline-registry-not-installed"),
    m("tool_pipeline.py", "            if not self._sync_soon and anyio.current_time() < due:",
      "            if True:", "pipeline-never-syncs"),
    m("tool_pipeline.py", "            if len(seen) >= self.max_actions:", "            if len(seen) > self.max_actions:",
      "pipeline-action-bound-off-by-one"),
    m("tool_pipeline.py", "            return OTHER_ACTION, raw, False", "            return raw, raw, False",
      "pipeline-unresolved-action-kept"),
    m("tool_pipeline.py", "        if error is None or client:", "        if error is None:", "pipeline-client-error-counts"),
    m("tool_pipeline.py", "                self.runtime.sync_soon()\n", "                pass\n", "pipeline-disable-waits-for-period"),
    # The metrics.
    m("tool_handlers/health_view.py", "(entry[1] * entry[0] + avg_ms * calls) / both", "(entry[1] + avg_ms) / 2",
      "metrics-mean-unweighted"),
    m("tool_handlers/health_view.py", "round(max(0.0, now - since), 3)", "round(max(0.0, since - now), 3)",
      "metrics-disabled-for-sign"),
    m("tool_handlers/health_view.py", "text.encode(\"utf-8\", \"backslashreplace\")",
      "text.encode(\"utf-8\", \"replace\")", "metrics-surrogate-replaced"),
    m("tool_handlers/health_view.py",
      "            if action is None:\n                action = \"\"\n            elif",
      "            if", "metrics-null-action-none"),
    m("tool_handlers/health_metrics.py", "families.cooldown.add_metric((), float(tracker.cooldown_s))",
      "families.cooldown.add_metric((), float(tracker.limits.disable_after_errors))", "metrics-cooldown-is-limit"),
    m("tool_handlers/health_view.py", "            seen.calls += figures.calls",
      "            seen.calls = figures.calls", "metrics-merge-replaces-calls"),
    m("tool_handlers/health_metrics.py", "        if \"os\" in report:\n            families.os_threads",
      "        if True:\n            families.os_threads", "metrics-os-always"),
    # The demo's thread budget and the registry.
    m("demo.py", "return workers + 3 + (2 if metrics else 0)", "return workers + 2 + (2 if metrics else 0)",
      "demo-budget-short"),
    m("tool_registry.py", "            by_name[spec.name] = spec\n", "", "registry-synonyms-only"),
    m("tool_registry.py", "(ActionSpec(\"text\", (\"grep\",)), ActionSpec(\"symbol\", (\"sym\",))",
      "(ActionSpec(\"text\"), ActionSpec(\"symbol\", (\"sym\",))", "registry-grep-missing"),
]


@dataclass
class Outcome:
    label: str
    path: str
    result: str  # killed, survived or excluded
    seconds: float
    detail: str
    failures: list[str]  # the failed tests (the first one only, unless every failure was asked for)


def problem(mutant: Mutant, text: str) -> str | None:
    """Why the mutant cannot be applied to `text`, or None."""
    found = text.count(mutant.original)
    return None if found == 1 else f"the original text occurs {found} times"


def tracked_files() -> list[str]:
    done = subprocess.run(["git", "ls-files", "-z"], cwd=ROOT, capture_output=True, check=True)
    return [p for p in done.stdout.decode().split("\0") if p and (ROOT / p).is_file()]


def sync_tree(work: Path, tests: Path) -> None:
    """Copies the checkout's tracked files into `work` (only those that differ, so that the build stays
    incremental), and `tests` as its tests/."""
    for rel in tracked_files():
        if rel.startswith("tests/"):
            continue
        source, dest = ROOT / rel, work / rel
        data = source.read_bytes()
        if not dest.is_file() or dest.read_bytes() != data:
            dest.parent.mkdir(parents=True, exist_ok=True)
            dest.write_bytes(data)
    shutil.rmtree(work / "tests", ignore_errors=True)
    shutil.copytree(tests, work / "tests", ignore=shutil.ignore_patterns("__pycache__", ".hypothesis"))


def build(work: Path, jobs: int) -> subprocess.CompletedProcess[str]:
    """Builds the module in the private tree with its own tools/dev-build.sh (incremental, one build tree for all
    mutants), which puts it beside the tree's Python sources."""
    env = {**os.environ, "PYTHON": sys.executable, "CMAKE_BUILD_PARALLEL_LEVEL": str(jobs)}
    return subprocess.run(["bash", str(work / "tools" / "dev-build.sh")], env=env, capture_output=True, text=True)


def run_tests(work: Path, timeout: float, extra: list[str]) -> tuple[str, float, str, list[str]]:
    """("passed" | "failed" | "timeout", seconds, the first failure's line, the failed tests)."""
    shutil.rmtree(work / ".hypothesis", ignore_errors=True)  # no example found for one mutant helps the next
    env = {**os.environ, "PYTHONPATH": str(work / "src"), "PYTHONDONTWRITEBYTECODE": "1"}
    command = [sys.executable, "-m", "pytest", "-q", "-p", "no:cacheprovider", "--hypothesis-seed=0", *extra, "tests"]
    started = time.monotonic()
    child = subprocess.Popen(command, cwd=work, env=env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                             start_new_session=True)
    try:
        output, _ = child.communicate(timeout=timeout)
    except BaseException as stop:  # the timeout, or an interrupt of this tool
        os.killpg(child.pid, signal.SIGKILL)  # the run and whatever it started
        child.communicate()
        if not isinstance(stop, subprocess.TimeoutExpired):
            raise
        return "timeout", time.monotonic() - started, f"no answer in {timeout:.0f} s", []
    seconds = time.monotonic() - started
    lines = output.splitlines()
    failed = [line for line in lines if line.startswith(("FAILED tests/", "ERROR tests/"))]  # the short summary
    first = failed[0] if failed else lines[-1] if lines else ""
    tests = [line.split()[1] for line in failed]
    return ("passed" if child.returncode == 0 else "failed"), seconds, first[:300], tests


def run_mutant(mutant: Mutant, work: Path, timeout: float, jobs: int, extra: list[str]) -> Outcome:
    target = work / mutant.path
    original = target.read_text()
    why = problem(mutant, original)
    if why is not None:
        return Outcome(mutant.label, mutant.path, "excluded", 0.0, why, [])
    started = time.monotonic()
    try:
        target.write_text(original.replace(mutant.original, mutant.replacement))
        built = build(work, jobs)
        if built.returncode != 0:
            error = next((line for line in built.stdout.splitlines() if "error:" in line), "build failed")
            return Outcome(mutant.label, mutant.path, "excluded", time.monotonic() - started,
                           "does not compile: " + error.strip()[:200], [])
        verdict, seconds, detail, failures = run_tests(work, timeout, extra)
    finally:
        target.write_text(original)
    result = "survived" if verdict == "passed" else "killed"
    return Outcome(mutant.label, mutant.path, result, time.monotonic() - started,
                   detail if verdict != "timeout" else "timeout: " + detail, failures)


def main(argv: list[str] | None = None) -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--tests", type=Path, default=ROOT / "tests",
                        help="the tests directory to run (default tests/)")
    parser.add_argument("--only", default="", help="comma-separated labels of the mutants to run")
    parser.add_argument("--workdir", type=Path, default=Path("/tmp/health-mutants"),
                        help="the private tree, kept between runs (default /tmp/health-mutants)")
    parser.add_argument("--timeout", type=float, default=None,
                        help="seconds per mutant's test run (default: 4 x the unmutated run, at least 300)")
    parser.add_argument("--jobs", type=int, default=1, help="build jobs (default 1)")
    parser.add_argument("--all-failures", action="store_true",
                        help="run every test of each mutant (no -x) and record all that fail: which tests kill what")
    parser.add_argument("--pytest-args", default="", help="more pytest arguments, e.g. \"-k 'not fuzz'\"")
    parser.add_argument("--json", type=Path, default=None, help="also write the outcomes to this file")
    parser.add_argument("--list", action="store_true", help="list the mutants and check them against the sources")
    args = parser.parse_args(argv)

    wanted = {label for label in args.only.split(",") if label}
    labels = [mutant.label for mutant in MUTANTS]
    if len(set(labels)) != len(labels) or wanted - set(labels):
        parser.error(f"unknown or duplicate labels: {sorted(wanted - set(labels)) or labels}")
    mutants = [mutant for mutant in MUTANTS if not wanted or mutant.label in wanted]
    if args.list:
        for mutant in mutants:
            why = problem(mutant, (ROOT / mutant.path).read_text())
            print(f"{mutant.label:34} {mutant.path:48} {why or 'ok'}")
        return 0
    tests = args.tests.resolve()
    if not (tests / "conftest.py").is_file():
        parser.error(f"{tests} holds no conftest.py: not a tests directory of this project")

    work = args.workdir.resolve()
    work.mkdir(parents=True, exist_ok=True)
    lock = open(work / ".lock", "w")  # held, and so locked, until this run ends
    try:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        parser.error(f"another run uses {work}: wait for it, or give another --workdir")
    sync_tree(work, tests)
    built = build(work, args.jobs)
    if built.returncode != 0:
        print(built.stdout + built.stderr, file=sys.stderr)
        return 2
    extra = ([] if args.all_failures else ["-x"]) + shlex.split(args.pytest_args)
    verdict, baseline, detail, _ = run_tests(work, 3600, extra)
    print(f"unmutated: {verdict} in {baseline:.0f} s ({tests})", flush=True)
    if verdict != "passed":
        print(detail, file=sys.stderr)
        return 2
    timeout = args.timeout or max(300.0, 4 * baseline)

    outcomes: list[Outcome] = []
    for n, mutant in enumerate(mutants, 1):
        outcome = run_mutant(mutant, work, timeout, args.jobs, extra)
        outcomes.append(outcome)
        print(f"[{n}/{len(mutants)}] {outcome.result:8} {outcome.label:34} {Path(outcome.path).name:20}"
              f" {outcome.seconds:5.0f} s  {outcome.detail}", flush=True)
    build(work, args.jobs)  # the unmutated module again
    counts = {kind: sum(o.result == kind for o in outcomes) for kind in ("killed", "survived", "excluded")}
    print(f"\n{counts['killed']} killed, {counts['survived']} survived, {counts['excluded']} excluded"
          f" of {len(outcomes)} mutants ({tests})")
    for outcome in outcomes:
        if outcome.result != "killed":
            print(f"  {outcome.result}: {outcome.label} ({outcome.path}) {outcome.detail}")
    if args.json is not None:
        args.json.write_text(json.dumps({"tests": str(tests), "baseline_s": round(baseline, 1), "counts": counts,
                                         "mutants": [asdict(o) for o in outcomes]}, indent=1))
    return 0


if __name__ == "__main__":
    sys.exit(main())

"""Stress run of the tool-health tracker.

Worker threads make mixed calls (is_disabled, record_success, record_error,
record_call) over a few hundred tools and usage keys while one thread flushes,
one reads the health summary and one keeps replacing the module's TOOLS and
is_slow_call with equivalent fresh objects. Each worker keeps its own tallies;
afterwards every counter must equal the tallies, the database must equal memory
after a final flush, a tracker reloaded from it must hold the same counts, and no
statement may have run while its caller held the tracker's lock.

    PYTHONPATH=src python benchmarks/stress.py            # 8 threads, 1,000,000 calls
    PYTHONPATH=src python benchmarks/stress.py --calls 200000 --seed 7

tests/test_stress.py runs a short version of the same `run`.
"""
from __future__ import annotations

import argparse
import importlib.util
import json
import random
import sqlite3
import sys
import tempfile
import threading
import time
import traceback
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any, Callable

if importlib.util.find_spec("ordanis_veltrane") is None:
    sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "src"))

from ordanis_veltrane.config import ToolsConfig  # noqa: E402
from ordanis_veltrane.repository import Repository  # noqa: E402
from ordanis_veltrane.tool_handlers import health  # noqa: E402
from ordanis_veltrane.tool_registry import ActionSpec, ToolRegistry, ToolSpec  # noqa: E402

OUTCOMES = ("success", "error", "timeout", "refused")
# How long the lock probe waits: a holder on another thread only holds it for a
# few field updates, so a probe that times out means the calling thread holds it.
LOCK_PROBE_S = 5.0


def tool_names(count: int) -> list[str]:
    """`count` tool names; every seventh has a character outside ASCII so that the
    document's escapes are on the path."""
    return [f"tool-{i:03d}" + ("-ü✓" if i % 7 == 0 else "") for i in range(count)]


def actions_of(index: int) -> tuple[str, ...]:
    return () if index % 3 == 0 else tuple(f"act{j}" for j in range(index % 4 + 1))


def make_registry(names: list[str]) -> ToolRegistry:
    registry = ToolRegistry()
    for index, name in enumerate(names):
        registry.register(ToolSpec(name, [ActionSpec(a) for a in actions_of(index)]))
    return registry


def make_slow_predicate() -> Callable[[str, Any], bool]:
    """A fresh function object each time, equivalent to every other one."""

    def is_slow_call(tool_name: str, action: Any) -> bool:
        return action == "act1"

    return is_slow_call


class WallClock:
    """`time.time` behind a Python-level call, so that threads can switch while the
    tracker holds its lock and reads the clock."""

    def time(self) -> float:
        return time.time()


class StressDb:
    """The repository's database, checking on every statement that the calling
    thread does not hold the tracker's lock (a non-reentrant lock held by the caller
    cannot be taken again: the probe times out)."""

    def __init__(self, inner: Any) -> None:
        self.inner = inner
        self.tracker: Any = None
        self.statements = 0
        self.violations: list[str] = []

    def _probe(self, op: str) -> None:
        self.statements += 1
        if self.tracker is None:
            return
        lock = self.tracker._lock
        if lock.acquire(timeout=LOCK_PROBE_S):
            lock.release()
        else:
            self.violations.append(f"{op} ran under the tracker's lock:\n{''.join(traceback.format_stack())}")

    def fetchall(self, sql: str) -> Any:
        self._probe("fetchall")
        return self.inner.fetchall(sql)

    def fetchone(self, sql: str, params: Any) -> Any:
        self._probe("fetchone")
        return self.inner.fetchone(sql, params)

    def execute(self, sql: str, params: Any) -> Any:
        self._probe("execute")
        return self.inner.execute(sql, params)

    def executemany(self, sql: str, rows: Any) -> Any:
        self._probe("executemany")
        return self.inner.executemany(sql, rows)


class Repo:
    def __init__(self, db: Any) -> None:
        self.db = db


@dataclass
class Tally:
    """What one worker did."""

    calls: int = 0
    successes: dict[str, int] = field(default_factory=dict)
    errors: dict[str, int] = field(default_factory=dict)
    usage: dict[tuple[Any, ...], list[Any]] = field(default_factory=dict)  # key -> [calls, timed, total]
    disabled_answers: int = 0
    messages: set[str] = field(default_factory=set)


@dataclass
class Report:
    calls: int
    threads: int
    seconds: float
    flushes: int
    rows_written: int
    summaries: int
    replacements: int
    statements: int
    problems: list[str]

    @property
    def ops_per_s(self) -> float:
        return self.calls / self.seconds if self.seconds else 0.0

    def __str__(self) -> str:
        return (
            f"{self.calls} calls on {self.threads} threads in {self.seconds:.2f} s "
            f"({self.ops_per_s:,.0f} calls/s); {self.flushes} flushes writing {self.rows_written} rows, "
            f"{self.summaries} summaries, {self.replacements} replacements of TOOLS and is_slow_call, "
            f"{self.statements} statements; problems: {len(self.problems)}"
        )


def usage_keys(names: list[str], count: int, seed: int) -> list[tuple[Any, ...]]:
    """`count` distinct usage keys over `names`, shared by all workers so that they
    collide on the same records."""
    rng = random.Random(seed)
    keys: dict[tuple[Any, ...], None] = {}
    for _ in range(count * 4):
        index = rng.randrange(len(names))
        actions = actions_of(index)
        action = rng.choice(actions) if actions and rng.random() < 0.9 else None
        keys[(names[index], action, rng.choice(OUTCOMES), rng.random() < 0.2)] = None
        if len(keys) == count:
            break
    return list(keys)


def _worker(tracker: Any, names: list[str], keys: list[tuple[Any, ...]], calls: int, seed: int,
            start: threading.Barrier, overlapped: threading.Event) -> Tally:
    rng = random.Random(seed)
    tally = Tally()
    messages = [f"failure {i}" for i in range(4)] + ["x" * 600, ""]
    start.wait()
    for i in range(calls):
        if i == calls // 2:
            # Halfway, until the background threads have had their turn: without the GIL
            # the workers could otherwise finish before any flush or summary ran among them.
            overlapped.wait(30)
        r = rng.random()
        name = names[rng.randrange(len(names))]
        if r < 0.25:
            disabled, message = tracker.is_disabled(name)
            if disabled:
                tally.disabled_answers += 1
                if message is not None:
                    tally.messages.add(message)
        elif r < 0.5:
            tracker.record_success(name)
            tally.successes[name] = tally.successes.get(name, 0) + 1
        elif r < 0.65:
            message = rng.choice(messages)
            tracker.record_error(name, message)
            tally.errors[name] = tally.errors.get(name, 0) + 1
        else:
            key = rng.choice(keys)
            # Quarter milliseconds add up exactly in any order, so the sums compare exactly.
            duration = None if rng.random() < 0.2 else rng.randrange(400) / 4
            tracker.record_call(key[0], key[1], key[2], alias_hit=key[3], duration_ms=duration)
            counts = tally.usage.setdefault(key, [0, 0, 0.0])
            counts[0] += 1
            if duration is not None:
                counts[1] += 1
                counts[2] += duration
        tally.calls += 1
    return tally


def _check_summary(summary: list[dict[str, Any]], previous: dict[str, tuple[int, int]], slow: Callable[..., Any]) -> list[str]:
    problems = []
    for record in summary:
        name, calls, errors = record["tool_name"], record["call_count"], record["error_count"]
        if errors > calls:
            problems.append(f"summary: {name!r} has {errors} errors in {calls} calls")
        before = previous.get(name, (0, 0))
        if calls < before[0] or errors < before[1]:
            problems.append(f"summary: counts of {name!r} went back from {before} to {(calls, errors)}")
        previous[name] = (calls, errors)
        counts = [row["calls"] for row in record["usage"]]
        if counts != sorted(counts, reverse=True):
            problems.append(f"summary: usage rows of {name!r} not sorted by calls: {counts}")
        for row in record["usage"]:
            if row["slow"] is not slow(name, row["action"]):
                problems.append(f"summary: slow flag of {name!r}/{row['action']!r} is {row['slow']!r}")
    return problems


def _background(name: str, stop: threading.Event, step: Callable[[], None], problems: list[str],
                count: list[int]) -> Callable[[], int]:

    def loop() -> None:
        try:
            while not stop.is_set():
                step()
                count[0] += 1
        except BaseException:
            problems.append(f"{name} thread failed:\n{traceback.format_exc()}")

    thread = threading.Thread(target=loop, name=f"stress-{name}", daemon=True)
    thread.start()

    def join() -> int:
        thread.join(60)
        if thread.is_alive():
            problems.append(f"{name} thread did not stop")
        return count[0]

    return join


def run(
    db_path: str | Path,
    *,
    calls: int = 1_000_000,
    threads: int = 8,
    tools: int = 300,
    seed: int = 1,
    switch_interval: float | None = 0.001,
    python_clock: bool = False,
    pause_s: float = 0.005,
) -> Report:
    """Runs the stress against a fresh database at `db_path` and checks the result;
    the module's TOOLS, is_slow_call and time are restored afterwards.

    `switch_interval` (sys.setswitchinterval, None: leave it) is shorter than the
    interpreter's 5 ms so that the background threads get their turns among eight
    busy workers; smaller values give more interleavings and fewer calls per second.
    `pause_s` is the background threads' pause between two rounds (flush, summary,
    replacement). The summary holds the tracker's lock for a pass over the usage
    counts per tool, with a Python predicate call per row: without a pause it would
    hold the lock most of the time and the workers would queue behind it.
    `python_clock` reads the time through Python code, so that threads also switch
    while a recording call holds the lock."""
    names = tool_names(tools)
    problems: list[str] = []
    saved = {attr: getattr(health, attr) for attr in ("TOOLS", "is_slow_call", "time")}
    saved_interval = sys.getswitchinterval()
    repository = Repository(db_path)
    try:
        # Replaced as the host would replace them: attributes of the module.
        setattr(health, "TOOLS", make_registry(names))
        setattr(health, "is_slow_call", make_slow_predicate())
        if python_clock:
            setattr(health, "time", WallClock())
        if switch_interval is not None:
            sys.setswitchinterval(switch_interval)
        db = StressDb(repository.db)
        # A short cooldown so that tools are disabled and enabled again during the run.
        tracker = health.ToolHealthTracker(Repo(db), ToolsConfig(disable_after_errors=3, disable_cooldown_s=0.02))
        db.tracker = tracker

        stop = threading.Event()
        flushed = [0, 0]

        def flush_step() -> None:
            if tracker.has_unsaved_changes:
                flushed[0] += 1
                flushed[1] += tracker.flush()
            time.sleep(pause_s)

        previous: dict[str, tuple[int, int]] = {}

        def summary_step() -> None:
            problems.extend(_check_summary(tracker.get_health_summary(), previous, make_slow_predicate()))
            time.sleep(pause_s)

        replace_rng = random.Random(seed)

        def replace_step() -> None:
            setattr(health, "TOOLS", make_registry(names))
            setattr(health, "is_slow_call", make_slow_predicate())
            index = replace_rng.randrange(len(names))
            if not health._known(names[index], None):
                problems.append(f"_known lost {names[index]!r} while TOOLS was replaced")
            time.sleep(pause_s / 2)

        rounds = [[0], [0], [0]]
        joins = [
            _background("flush", stop, flush_step, problems, rounds[0]),
            _background("summary", stop, summary_step, problems, rounds[1]),
            _background("replace", stop, replace_step, problems, rounds[2]),
        ]
        overlapped = threading.Event()
        keys = usage_keys(names, tools, seed)
        start = threading.Barrier(threads + 1)
        tallies: list[Tally | None] = [None] * threads

        def work(i: int) -> None:
            try:
                tallies[i] = _worker(tracker, names, keys, calls // threads + (i < calls % threads), seed * 1000 + i,
                                     start, overlapped)
            except BaseException:
                problems.append(f"worker {i} failed:\n{traceback.format_exc()}")

        workers = [threading.Thread(target=work, args=(i,), name=f"stress-worker-{i}") for i in range(threads)]
        for worker in workers:
            worker.start()
        start.wait()
        began = time.perf_counter()
        # Released once every background thread has run a round since the workers began and a
        # flush has written something, all while the workers were recording.
        baseline = [r[0] for r in rounds]
        deadline = began + 30
        while time.perf_counter() < deadline and not (
                flushed[0] > 0 and all(r[0] > b for r, b in zip(rounds, baseline))):
            time.sleep(0.0005)
        overlapped.set()
        for worker in workers:
            worker.join()
        seconds = time.perf_counter() - began
        stop.set()
        _, summaries, replacements = (join() for join in joins)
        sys.setswitchinterval(saved_interval)

        done = [t for t in tallies if t is not None]
        try:
            while tracker.has_unsaved_changes:
                flushed[0] += 1
                flushed[1] += tracker.flush()
            problems.extend(verify(tracker, done, repository.db.path, names))
        except Exception:
            problems.append(f"final flush or check failed:\n{traceback.format_exc()}")
        problems.extend(db.violations)
        return Report(
            calls=sum(t.calls for t in done),
            threads=threads,
            seconds=seconds,
            flushes=flushed[0],
            rows_written=flushed[1],
            summaries=summaries,
            replacements=replacements,
            statements=db.statements,
            problems=problems,
        )
    finally:
        sys.setswitchinterval(saved_interval)
        for attr, value in saved.items():
            setattr(health, attr, value)
        repository.close()


def verify(tracker: Any, tallies: list[Tally], db_path: str, names: list[str]) -> list[str]:
    """Memory against the tallies, the database against memory, and a reloaded
    tracker against the database."""
    problems: list[str] = []
    successes: dict[str, int] = {}
    errors: dict[str, int] = {}
    usage: dict[tuple[Any, ...], list[Any]] = {}
    messages = {m[:500] for m in [f"failure {i}" for i in range(4)] + ["x" * 600, ""]}
    for tally in tallies:
        for name, n in tally.successes.items():
            successes[name] = successes.get(name, 0) + n
        for name, n in tally.errors.items():
            errors[name] = errors.get(name, 0) + n
        for key, (c, t, ms) in tally.usage.items():
            counts = usage.setdefault(key, [0, 0, 0.0])
            counts[0] += c
            counts[1] += t
            counts[2] += ms
        if not tally.messages <= messages:
            problems.append(f"is_disabled answered unknown messages {tally.messages - messages!r}")

    state = dict(tracker._state)
    reported = set(successes) | set(errors)
    if set(state) != reported:
        problems.append(f"tools in memory {sorted(set(state) ^ reported)!r} differ from the tools reported")
    for name in reported:
        record = state.get(name)
        want = (successes.get(name, 0) + errors.get(name, 0), errors.get(name, 0))
        got = None if record is None else (record.call_count, record.error_count)
        if got != want:
            problems.append(f"{name!r}: (call_count, error_count) is {got}, the threads made {want}")
        elif record is not None and record.last_error is not None and record.last_error not in messages:
            problems.append(f"{name!r}: last_error {record.last_error!r} was never reported")
    memory_usage = {key: [u.calls, u.timed_calls, u.total_ms] for key, u in tracker._usage.items()}
    if memory_usage != usage:
        diff = [
            (key, memory_usage.get(key), usage.get(key))
            for key in set(memory_usage) | set(usage)
            if memory_usage.get(key) != usage.get(key)
        ]
        problems.append(f"usage counts differ from the threads' tallies (key, memory, tallies): {diff[:5]!r}")

    # The database after the final flush, read with a connection of its own.
    conn = sqlite3.connect(db_path)
    try:
        rows = {r[0]: tuple(r[1:]) for r in conn.execute("SELECT * FROM tool_health")}
        doc_row = conn.execute("SELECT value FROM schema_info WHERE key = ?", ("tool_usage",)).fetchone()
    finally:
        conn.close()
    want_rows = {
        name: (r.call_count, r.error_count, r.last_error, health._sqlite_time(r.disabled_at), health._sqlite_time(r.updated_at))
        for name, r in state.items()
    }
    if rows != want_rows:
        bad = [n for n in set(rows) | set(want_rows) if rows.get(n) != want_rows.get(n)]
        problems.append(f"tool_health differs from memory for {len(bad)} tools, e.g. {[(n, rows.get(n), want_rows.get(n)) for n in bad[:3]]!r}")
    document = json.loads(doc_row[0]) if doc_row else []
    want_document = [
        {"tool": k[0], "action": k[1], "outcome": k[2], "alias_hit": k[3], "calls": u.calls,
         "timed_calls": u.timed_calls, "total_ms": round(u.total_ms, 3)}
        for k, u in tracker._usage.items()
    ]
    if document != want_document:
        problems.append("the usage document differs from memory")

    # A tracker seeded from that database holds the same counts.
    repository = Repository(db_path)
    try:
        reloaded = health.ToolHealthTracker(repository)
        seeded = {n: (r.call_count, r.error_count, r.last_error) for n, r in reloaded._state.items()}
        if seeded != {n: (r.call_count, r.error_count, r.last_error) for n, r in state.items()}:
            problems.append("a reloaded tracker's health counts differ from the flushed ones")
        seeded_usage = [(k, u.calls, u.timed_calls, u.total_ms) for k, u in reloaded._usage.items()]
        if seeded_usage != [(k, u.calls, u.timed_calls, round(u.total_ms, 3)) for k, u in tracker._usage.items()]:
            problems.append("a reloaded tracker's usage counts differ from the flushed ones")
        if reloaded.has_unsaved_changes:
            problems.append("a reloaded tracker has unsaved changes")
    finally:
        repository.close()
    return problems


def main(argv: list[str] | None = None) -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--calls", type=int, default=1_000_000, help="calls made by all workers together")
    parser.add_argument("--threads", type=int, default=8)
    parser.add_argument("--tools", type=int, default=300)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--switch-interval", type=float, default=0.001,
                        help="sys.setswitchinterval during the run (smaller: more interleavings)")
    parser.add_argument("--python-clock", action="store_true", help="read the time through Python code")
    parser.add_argument("--pause", type=float, default=0.005, help="pause of the background threads, seconds")
    args = parser.parse_args(argv)
    with tempfile.TemporaryDirectory() as tmp:
        report = run(Path(tmp) / "stress.db", calls=args.calls, threads=args.threads, tools=args.tools,
                     seed=args.seed, switch_interval=args.switch_interval, python_clock=args.python_clock,
                     pause_s=args.pause)
    print(report)
    for problem in report.problems[:20]:
        print("PROBLEM:", problem, file=sys.stderr)
    return 1 if report.problems else 0


if __name__ == "__main__":
    sys.exit(main())

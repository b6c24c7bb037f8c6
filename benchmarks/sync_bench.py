"""What sharing tool health costs: a sync, the time a disable takes to reach the other processes,
and the hot path with sharing on against off.

    PYTHONPATH=src python benchmarks/sync_bench.py            # SQLite and a throwaway PostgreSQL
    PYTHONPATH=src python benchmarks/sync_bench.py --quick    # fewer rounds
    PYTHONPATH=src python benchmarks/sync_bench.py --only sync --stores sqlite

1. sync: a tracker with 1,000 tools and 10,000 usage keys; each round changes 10% of them (100
   tools, 1,000 keys) and times one sync; also a sync with nothing to send. On PostgreSQL the
   round trips of one sync are counted from libpq's protocol trace (a client message followed by
   a server answer is one round trip).
2. propagation: 8 processes on one store, each syncing every --period seconds (random phases);
   one disables a tool by errors, then enables it by a success; the other 7 poll is_disabled
   every 2 ms and report when they see the change. The changing process syncs as the tool-call
   pipeline's runtime does: every period, and within SYNC_SOON_S of a disable. p50/p99 over every
   (disable, process) pair; the enables, which wait for the period, separately.
3. hotpath: instructions per call of the four hot operations (callgrind, the tool of
   tools/hotpath_instructions.py) on a plain tracker and on a shared one; and wall-clock time of
   the operations with a sync running every 10 ms on another thread against none.
"""
from __future__ import annotations

import argparse
import importlib.util
import json
import os
import queue
import random
import statistics
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path
from typing import Any, Iterator

ROOT = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tests"))

from ordanis_veltrane import sharing  # noqa: E402
from ordanis_veltrane.config import ToolsConfig  # noqa: E402
from ordanis_veltrane.tool_handlers import health  # noqa: E402
from ordanis_veltrane.tool_registry import ActionSpec, ToolRegistry, ToolSpec  # noqa: E402

TOOLS, ACTIONS = 1000, 10


def big_registry() -> ToolRegistry:
    return ToolRegistry({f"t{i:03d}": ToolSpec(f"t{i:03d}", [ActionSpec(f"a{j}") for j in range(ACTIONS)])
                         for i in range(TOOLS)})


def pct(values: list[float], q: float) -> float:
    values = sorted(values)
    return values[min(len(values) - 1, int(round(q * (len(values) - 1))))]


def count_round_trips(trace: str) -> int:
    """F lines are messages the client sent, B lines the server's; each run of F lines answered by B is one trip."""
    trips, last = 0, ""
    for line in trace.splitlines():
        side = line[:1]
        if side == "B" and last == "F":
            trips += 1
        if side in "FB":
            last = side
    return trips


def bench_sync(target: str, rounds: int) -> dict[str, Any]:
    health.TOOLS = big_registry()
    handle = sharing.open_health(target, ToolsConfig())
    assert isinstance(handle, sharing.SharedHealth)
    t = handle.tracker
    names = [f"t{i:03d}" for i in range(TOOLS)]
    for name in names:
        t.record_success(name)
        for j in range(ACTIONS):
            t.record_call(name, f"a{j}", "ok", alias_hit=False, duration_ms=1.0)
    handle.sync()
    rng = random.Random(1)
    times, cpu_times, idle, trips, traced = [], [], [], [], []
    pg = isinstance(handle.store, sharing.PostgresStore)
    for r in range(rounds):
        for name in rng.sample(names, TOOLS // 10):
            t.record_success(name)
            for j in range(ACTIONS):
                t.record_call(name, f"a{j}", "ok", alias_hit=False, duration_ms=1.0)
        trace_file = None
        if pg and r == rounds - 1:
            from psycopg import pq

            store = handle.store
            assert isinstance(store, sharing.PostgresStore) and store._conn is not None
            trace_file = tempfile.TemporaryFile("w+")
            store._conn.pgconn.trace(trace_file.fileno())
            store._conn.pgconn.set_trace_flags(pq.Trace.SUPPRESS_TIMESTAMPS)
        before = getattr(handle.store, "round_trips", 0)
        start, cpu = time.perf_counter(), time.thread_time()
        sent = handle.sync()
        times.append((time.perf_counter() - start) * 1000)
        cpu_times.append((time.thread_time() - cpu) * 1000)
        assert sent == TOOLS // 10 + TOOLS * ACTIONS // 10, sent
        trips.append(getattr(handle.store, "round_trips", 0) - before)
        if trace_file is not None:
            store = handle.store
            assert isinstance(store, sharing.PostgresStore) and store._conn is not None
            store._conn.pgconn.untrace()
            trace_file.seek(0)
            traced.append(count_round_trips(trace_file.read()))
        start = time.perf_counter()
        handle.sync()
        idle.append((time.perf_counter() - start) * 1000)
    handle.close()
    plain_ms = plain_flush_baseline(rounds)
    result: dict[str, Any] = {
        "store": handle.store.description, "tools": TOOLS, "usage_keys": TOOLS * ACTIONS, "changed": "10%",
        "sync_ms_p50": round(statistics.median(times), 2), "sync_ms_p90": round(pct(times, 0.9), 2),
        # CPU time of the syncing thread (SQLite works on it; PostgreSQL's server work is not in it)
        "sync_cpu_ms_p50": round(statistics.median(cpu_times), 2),
        "idle_sync_ms_p50": round(statistics.median(idle), 2),
        "plain_flush_ms_p50": round(plain_ms, 2), "sync_over_plain_flush": round(statistics.median(times) / plain_ms, 2)}
    if pg:
        result["round_trips_counted_by_code"] = max(trips)
        result["round_trips_in_protocol_trace"] = traced[-1] if traced else None
    return result


def plain_flush_baseline(rounds: int) -> float:
    """The baseline of the same run: a plain tracker's flush of the same state and change to its SQLite file."""
    from ordanis_veltrane.repository import Repository

    health.TOOLS = big_registry()
    repo = Repository(Path(tempfile.mkdtemp()) / "plain.db")
    t = health.ToolHealthTracker(repo, ToolsConfig())
    names = [f"t{i:03d}" for i in range(TOOLS)]
    rng = random.Random(1)
    times = []
    for r in range(rounds + 1):
        for name in names if r == 0 else rng.sample(names, TOOLS // 10):
            t.record_success(name)
            for j in range(ACTIONS):
                t.record_call(name, f"a{j}", "ok", alias_hit=False, duration_ms=1.0)
        start = time.perf_counter()
        t.flush()
        if r:
            times.append((time.perf_counter() - start) * 1000)
    repo.close()
    return statistics.median(times)


WATCHER = r"""
import sys, threading, time, random
from ordanis_veltrane import sharing
from ordanis_veltrane.config import ToolsConfig
target, period = sys.argv[1], float(sys.argv[2])
handle = sharing.open_health(target, ToolsConfig(disable_after_errors=3, disable_cooldown_s=3600))
def syncing():
    time.sleep(random.random() * period)
    while True:
        handle.sync()
        time.sleep(period)
threading.Thread(target=syncing, daemon=True).start()
print("ready", flush=True)
state = False
while True:
    now = handle.tracker.is_disabled("run_tests")[0]
    if now != state:
        state = now
        print(f"{int(now)} {time.time()!r}", flush=True)
    time.sleep(0.002)
"""


from ordanis_veltrane.tool_pipeline import SYNC_SOON_S  # noqa: E402


def bench_propagation(target: str, period: float, changes: int, env: dict[str, str]) -> dict[str, Any]:
    from ordanis_veltrane.tool_registry import TOOLS as default_registry

    health.TOOLS = default_registry
    handle = sharing.open_health(target, ToolsConfig(disable_after_errors=3, disable_cooldown_s=3600))
    handle.tracker.record_success("run_tests")  # the tool exists, enabled, everywhere
    handle.sync()
    watchers = [subprocess.Popen([sys.executable, "-c", WATCHER, target, str(period)], env=env,
                                 stdout=subprocess.PIPE, text=True) for _ in range(7)]
    events: queue.Queue[tuple[int, str]] = queue.Queue()

    def read(i: int, proc: subprocess.Popen[str]) -> None:
        assert proc.stdout is not None
        for line in proc.stdout:
            events.put((i, line.strip()))

    for i, proc in enumerate(watchers):
        threading.Thread(target=read, args=(i, proc), daemon=True).start()
    stop, soon = threading.Event(), threading.Event()

    def syncing() -> None:
        # As the tool-call pipeline's runtime does: every period, and within SYNC_SOON_S of a disable.
        due = time.monotonic() + period
        while not stop.wait(min(SYNC_SOON_S, max(0.0, due - time.monotonic()))):
            if soon.is_set() or time.monotonic() >= due:
                soon.clear()
                due = time.monotonic() + period
                handle.sync()

    syncer = threading.Thread(target=syncing)
    syncer.start()
    delays: list[float] = []  # disables
    enables: list[float] = []
    try:
        ready = 0
        while ready < len(watchers):
            if events.get(timeout=60)[1] == "ready":
                ready += 1
        for n in range(changes):
            want = 1 if n % 2 == 0 else 0
            if want:
                for _ in range(3):
                    handle.tracker.record_error("run_tests", "backend down")
                soon.set()
            else:
                handle.tracker.record_success("run_tests")
            changed_at = time.time()
            seen: set[int] = set()
            while len(seen) < len(watchers):
                i, line = events.get(timeout=period * 5 + 30)
                state, _, at = line.partition(" ")
                if state == str(want) and i not in seen:
                    seen.add(i)
                    (delays if want else enables).append(float(at) - changed_at)
            time.sleep(random.random() * period)
    finally:
        stop.set()
        syncer.join()
        for proc in watchers:
            proc.kill()
            proc.wait()
        handle.close()
    return {"store": handle.store.description, "processes": 8, "sync_period_s": period,
            "samples": len(delays), "p50_s": round(pct(delays, 0.5), 3), "p99_s": round(pct(delays, 0.99), 3),
            "max_s": round(max(delays), 3), "target_s": period + 1.0,
            "enable_p50_s": round(pct(enables, 0.5), 3), "enable_p99_s": round(pct(enables, 0.99), 3)}


def load_hotpath_tool() -> Any:
    spec = importlib.util.spec_from_file_location("hotpath_instructions", ROOT / "tools" / "hotpath_instructions.py")
    assert spec is not None and spec.loader is not None
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module


def bench_hotpath(calls: int) -> dict[str, Any]:
    tool = load_hotpath_tool()
    plain_body: str = tool.BODY
    shared_body = plain_body.replace(
        "t = ToolHealthTracker(Repository(path), ToolsConfig(disable_after_errors=10**9))",
        "from ordanis_veltrane import sharing\n"
        "h = sharing.open_health(path, ToolsConfig(disable_after_errors=10**9))\nt = h.tracker")
    assert shared_body != plain_body
    result: dict[str, Any] = {}
    if subprocess.run(["which", "valgrind"], capture_output=True).returncode == 0:
        per_call: dict[str, dict[str, int]] = {}
        for mode, body in (("off", plain_body), ("on", shared_body)):
            with tempfile.NamedTemporaryFile("w", suffix=".py", delete=False) as f:
                f.write(body)
            try:
                per_call[mode] = {op: round((tool.instructions(f.name, op, calls) - tool.instructions(f.name, op, 0))
                                            / calls) for op in tool.OPS}
            finally:
                os.unlink(f.name)
        result["instructions_per_call"] = {op: {"off": per_call["off"][op], "on": per_call["on"][op],
                                                "ratio": round(per_call["on"][op] / per_call["off"][op], 4)}
                                           for op in tool.OPS}
    result["wall_clock"] = wall_clock_hotpath()
    return result


def wall_clock_hotpath(turns: int = 5, n: int = 100_000) -> dict[str, Any]:
    """The four operations in a loop, sharing off (a plain tracker, nothing else running) against on
    (a shared tracker whose sync runs every 10 ms on another thread), in alternating turns."""
    from ordanis_veltrane.repository import Repository
    from ordanis_veltrane.tool_registry import TOOLS as default_registry

    health.TOOLS = default_registry
    tmp = Path(tempfile.mkdtemp())
    limits = ToolsConfig(disable_after_errors=10**9)
    plain = health.ToolHealthTracker(Repository(tmp / "plain.db"), limits)
    shared = sharing.open_health(str(tmp / "shared.db"), limits)

    def loop(t: health.ToolHealthTracker) -> float:
        start = time.perf_counter()
        for _ in range(n):
            t.is_disabled("search")
            t.record_success("search")
            t.record_call("search", "text", "ok", alias_hit=False, duration_ms=1.5)
        return (time.perf_counter() - start) / n * 1e9

    off, on = [], []
    for _ in range(turns):
        off.append(loop(plain))
        stop = threading.Event()

        def syncing() -> None:
            while not stop.wait(0.01):
                shared.sync()

        syncer = threading.Thread(target=syncing)
        syncer.start()
        on.append(loop(shared.tracker))
        stop.set()
        syncer.join()
    shared.close()
    return {"ns_per_call_of_the_three_ops_off": round(min(off)), "on_with_sync_every_10ms": round(min(on)),
            "ratio_best_of_turns": round(min(on) / min(off), 3)}


def stores(names: list[str]) -> Iterator[str]:
    if "sqlite" in names:
        yield str(Path(tempfile.mkdtemp()) / "shared.db")
    if "postgres" in names:
        from pgcluster import PgCluster

        cluster = PgCluster()
        cluster.start()
        try:
            yield cluster.url
        finally:
            cluster.remove()


def child_env() -> dict[str, str]:
    return {**os.environ, "PYTHONPATH": os.pathsep.join([str(Path(sharing.__file__).parents[1]), *sys.path])}


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--only", choices=["sync", "propagation", "hotpath"], action="append")
    parser.add_argument("--stores", nargs="+", default=["sqlite", "postgres"], choices=["sqlite", "postgres"])
    parser.add_argument("--period", type=float, default=1.0, help="sync period of the propagation test (s)")
    parser.add_argument("--json", action="store_true")
    args = parser.parse_args()
    parts = args.only or ["sync", "propagation", "hotpath"]
    report: dict[str, Any] = {}
    for target in stores(args.stores):
        kind = "postgres" if sharing.is_postgres_url(target) else "sqlite"
        if "sync" in parts:
            report[f"sync/{kind}"] = bench_sync(target, 5 if args.quick else 20)
            print(json.dumps({f"sync/{kind}": report[f"sync/{kind}"]}), flush=True)
        if "propagation" in parts:
            fresh = target if kind == "postgres" else str(Path(tempfile.mkdtemp()) / "p.db")
            report[f"propagation/{kind}"] = bench_propagation(fresh, args.period, 4 if args.quick else 20, child_env())
            print(json.dumps({f"propagation/{kind}": report[f"propagation/{kind}"]}), flush=True)
    if "hotpath" in parts:
        report["hotpath"] = bench_hotpath(5_000 if args.quick else 50_000)
        print(json.dumps({"hotpath": report["hotpath"]}), flush=True)
    if args.json:
        print(json.dumps(report, indent=2))


if __name__ == "__main__":
    main()

"""A fleet of processes sharing tool health through one PostgreSQL, and what one sync costs.

    PYTHONPATH=src python benchmarks/fleet_bench.py --fleet 16:1,64:1,200:5 --duration 30
    PYTHONPATH=src python benchmarks/fleet_bench.py --fleet 64:1 --duration 20 --pgbouncer
    PYTHONPATH=src python benchmarks/fleet_bench.py --per-sync          # WAL, bytes, lock hold, memory
    PYTHONPATH=src python benchmarks/fleet_bench.py --quick             # a smoke run of both

fleet: N light processes (a tracker and its syncs, no MCP) on a throwaway PostgreSQL that holds
10,000 usage keys (1,000 tools x 10 actions). Each process loads them at start, then every period
(at its own random phase) records 100 calls of random keys and syncs. Reported per (N, period):
syncs done / due (a sync is due every period; one that starts a period late counts as missed),
sync p50 / p99, WAL bytes per sync (pg_current_wal_lsn), rows sent and pulled per sync, the
client's CPU per sync (process time), the rows the server read and wrote per sync
(pg_stat_user_tables, which lags the run's end by about half a second), the most backends
seen waiting on a lock and the most connections (pg_stat_activity, sampled every 0.25 s), and the
store's totals against every call the processes made and the store acknowledged (exact: 0 lost,
0 double; a process whose last sync failed says how many calls it closed with unacknowledged).
Every process closes at the end of the run, after every periodic sync: the longest close is
reported apart, and whether the usage document then holds the store's totals (document_exact; a
write cut by the 6 s exchange watchdog leaves it to the next writer, document_wanted_left rows).
FLEET_DEBUG=1 shows the workers' debug log (a document write that failed, among others).

per-sync: in one process, against the same server and a SQLite file:
- a one-key sync at 10,000 keys: WAL bytes (PostgreSQL's LSN; the SQLite -wal file's growth) and
  the bytes the client sent (libpq's protocol trace);
- 100 changed keys at 50,000 keys: how long the tracker's lock is held per sync (the change-set
  taken and the merged totals applied, each one hold), and the worst record_call of a thread that
  records while another syncs in a loop (sys.setswitchinterval(0.0005)), against none syncing;
- memory per usage key (tracemalloc) of a plain tracker and of a shared one.

The machine may be shared and small: the figures are counts and same-run ratios where they can
be; timings are what this run saw.
"""
from __future__ import annotations

import argparse
import gc
import json
import os
import random
import statistics
import subprocess
import sys
import tempfile
import threading
import time
import tracemalloc
from pathlib import Path
from typing import Any

ROOT = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tests"))

from ordanis_veltrane import sharing  # noqa: E402
from ordanis_veltrane.config import ToolsConfig  # noqa: E402
from ordanis_veltrane.repository import Repository  # noqa: E402
from ordanis_veltrane.tool_handlers import health  # noqa: E402
from ordanis_veltrane.tool_registry import ActionSpec, ToolRegistry, ToolSpec  # noqa: E402

ACTIONS = 10
CHANGED = 100
LIMITS = ToolsConfig(disable_after_errors=10**9)


def registry(tools: int) -> ToolRegistry:
    return ToolRegistry({f"t{i:04d}": ToolSpec(f"t{i:04d}", [ActionSpec(f"a{j}") for j in range(ACTIONS)])
                         for i in range(tools)})


def pct(values: list[float], q: float) -> float:
    if not values:
        return float("nan")
    values = sorted(values)
    return values[min(len(values) - 1, int(round(q * (len(values) - 1))))]


def record(t: health.ToolHealthTracker, tools: int, n: int, rng: random.Random) -> None:
    for _ in range(n):
        tool = f"t{rng.randrange(tools):04d}"
        t.record_success(tool)
        t.record_call(tool, f"a{rng.randrange(ACTIONS)}", "ok", alias_hit=False, duration_ms=1.0)


# ---------------------------------------------------------------- fleet


def worker(url: str, period: float, duration: float, seed: int, hold: bool) -> None:
    import logging
    logging.basicConfig(level=logging.DEBUG if os.environ.get("FLEET_DEBUG") else logging.WARNING)
    health.TOOLS = registry(1000)
    rng = random.Random(seed)
    handle = sharing.open_health(url, LIMITS, hold_connection=hold)
    assert isinstance(handle, sharing.SharedHealth)
    loaded = len(handle.tracker._usage)
    pulled = [0]
    exchange = handle.store.exchange

    def counted(pid: str, batches: Any) -> sharing.Pulled:
        got = exchange(pid, batches)
        pulled[0] += len(got.tools) + len(got.usage)
        return got

    handle.store.exchange = counted  # type: ignore[method-assign]
    print("ready", flush=True)
    start_at = float(sys.stdin.readline())  # once every process has started and loaded the store
    next_at = start_at + rng.uniform(0, period)
    end = start_at + duration
    calls = due = done = rows = 0
    times: list[float] = []
    cpu = 0.0
    while next_at < end:
        delay = next_at - time.time()
        if delay > 0:
            time.sleep(delay)
        due += 1
        if time.time() - next_at > period:  # this period's sync never started: missed
            next_at += period
            continue
        record(handle.tracker, 1000, CHANGED, rng)
        calls += CHANGED
        started, cpu_started = time.perf_counter(), time.process_time()
        sent = handle.sync()
        times.append(time.perf_counter() - started)
        cpu += time.process_time() - cpu_started
        if handle.connected:
            done += 1
            rows += sent
        next_at += period
    # Every process closes at the end of the run, when no periodic sync is due anywhere: the closes
    # (each a last sync and, where due, the usage document) are timed apart from the periodic syncs.
    time.sleep(max(0.0, end - time.time()))
    closing = time.perf_counter()
    handle.close()
    closed = time.perf_counter() - closing
    print(json.dumps({"close": closed, "calls": calls, "due": due, "done": done, "rows": rows, "times": times, "loaded": loaded, "cpu": cpu, "pulled": pulled[0],
                      "acknowledged": handle.synced_usage_calls, "acknowledged_health": handle.synced_calls}),
          flush=True)


def seed_store(url: str) -> int:
    """10,000 usage keys in the store, one call each."""
    health.TOOLS = registry(1000)
    handle = sharing.open_health(url, LIMITS)
    t = handle.tracker
    for i in range(1000):
        for j in range(ACTIONS):
            t.record_success(f"t{i:04d}")
            t.record_call(f"t{i:04d}", f"a{j}", "ok", alias_hit=False, duration_ms=1.0)
    handle.close()
    return 1000 * ACTIONS


def server_cpu_s(cluster: Any) -> float:
    """CPU seconds the server's processes (the postmaster's children) have used so far."""
    postmaster = int((cluster.data / "postmaster.pid").read_text().split()[0])
    total = 0
    for pid in os.listdir("/proc"):
        try:
            with open(f"/proc/{pid}/stat") as f:
                fields = f.read().rsplit(")", 1)[1].split()
        except (OSError, IndexError):
            continue
        if pid.isdigit() and int(fields[1]) == postmaster:
            total += int(fields[11]) + int(fields[12])
    return total / os.sysconf("SC_CLK_TCK")


# Rows the server read (sequential and index scans) and wrote in the store's tables.
TUPLES = ("SELECT coalesce(sum(seq_tup_read + coalesce(idx_tup_fetch, 0)), 0)::bigint, "
          "coalesce(sum(n_tup_ins + n_tup_upd), 0)::bigint FROM pg_stat_user_tables")


def run_fleet(cluster: Any, n: int, period: float, duration: float, bouncer: Any | None) -> dict[str, Any]:
    import psycopg

    name = f"fleet_{n}_{int(period * 1000)}_{os.getpid()}"
    with psycopg.connect(cluster.url, autocommit=True) as admin:
        admin.execute(f"CREATE DATABASE {name}")
    direct = cluster.url.rsplit("/", 1)[0] + "/" + name
    url = bouncer.url(direct) if bouncer is not None else direct
    seeded = seed_store(direct)
    # The workers import the package this script imported (an installed one, or src/ on PYTHONPATH).
    package_home = str(Path(sharing.__file__).resolve().parents[2])
    env = {**os.environ, "PYTHONPATH": os.pathsep.join([package_home, os.environ.get("PYTHONPATH", "")])}
    procs = [subprocess.Popen([sys.executable, __file__, "--worker", url, str(period), str(duration),
                               str(i), "0" if bouncer is not None else "1"],
                              stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, env=env) for i in range(n)]
    for p in procs:
        assert p.stdout is not None and p.stdout.readline().strip() == "ready", "a worker did not start"
    start_at = time.time() + 1
    for p in procs:
        assert p.stdin is not None
        p.stdin.write(f"{start_at}\n")
        p.stdin.flush()
    waits: list[int] = []
    conns: list[int] = []
    with psycopg.connect(direct, autocommit=True) as mon:
        while time.time() < start_at:
            time.sleep(0.05)
        lsn0 = mon.execute("SELECT pg_current_wal_lsn()").fetchone()[0]  # type: ignore[index]
        tuples0 = mon.execute(TUPLES).fetchone()
        cpu0 = server_cpu_s(cluster)
        while time.time() < start_at + duration:
            row = mon.execute(
                "SELECT count(*) FILTER (WHERE wait_event_type = 'Lock'), count(*) FROM pg_stat_activity "
                "WHERE datname = current_database() AND pid <> pg_backend_pid()").fetchone()
            assert row is not None
            waits.append(int(row[0]))
            conns.append(int(row[1]))
            time.sleep(0.25)
        server_cpu = server_cpu_s(cluster) - cpu0
        wal = mon.execute("SELECT pg_current_wal_lsn() - %s::pg_lsn", (lsn0,)).fetchone()[0]  # type: ignore[index]
        time.sleep(0.6)  # the statistics collector's delay
        tuples1 = mon.execute(TUPLES).fetchone()
    assert tuples0 is not None and tuples1 is not None
    results = []
    for p in procs:
        assert p.stdin is not None
        p.stdin.close()
        out = p.stdout.read() if p.stdout is not None else ""
        p.wait(timeout=600)
        lines = [line for line in out.splitlines() if line.startswith("{")]
        results.append(json.loads(lines[-1]) if p.returncode == 0 and lines else None)
    with psycopg.connect(direct, autocommit=True) as mon:
        usage_total = mon.execute("SELECT (SELECT sum(calls) FROM sv_usage) + "  # and the increments not folded
                                  "(SELECT coalesce(sum(calls), 0) FROM sv_usage_delta)").fetchone()[0]  # type: ignore[index]
        health_total = mon.execute("SELECT (SELECT sum(call_count) FROM sv_health) + (SELECT coalesce(sum(calls), "
                                   "0) FROM sv_health_delta)").fetchone()[0]  # type: ignore[index]
        # The usage document a plain tracker reads, once the last process has closed.
        document = mon.execute("SELECT value FROM schema_info WHERE key = 'tool_usage'").fetchone()
        wanted_left = mon.execute("SELECT count(*) FROM sv_doc_wanted").fetchone()[0]  # type: ignore[index]
    document_calls = sum(row["calls"] for row in json.loads(document[0])) if document else 0
    good = [r for r in results if r is not None]
    made = seeded + sum(r["calls"] for r in good)
    acked = seeded + sum(r["acknowledged"] for r in good)  # what the store told each process it holds
    acked_health = seeded + sum(r["acknowledged_health"] for r in good)
    times = [t for r in good for t in r["times"]]
    done = sum(r["done"] for r in good)
    return {
        "processes": n, "period_s": period, "seconds": duration, "via": "pgbouncer" if bouncer else "direct",
        "workers_failed": len(results) - len(good),
        "keys_loaded_min": min((r["loaded"] for r in good), default=0),
        "syncs_done": done, "syncs_due": sum(r["due"] for r in good),
        "sync_p50_ms": round(pct(times, 0.5) * 1000, 1), "sync_p99_ms": round(pct(times, 0.99) * 1000, 1),
        "sync_max_ms": round(max(times, default=0) * 1000, 1),
        "close_max_ms": round(max((r["close"] for r in good), default=0) * 1000, 1),
        "wal_bytes_per_sync": round(int(wal) / max(done, 1)),
        "rows_sent_per_sync": round(sum(r["rows"] for r in good) / max(done, 1), 1),
        "rows_pulled_per_sync": round(sum(r["pulled"] for r in good) / max(done, 1), 1),
        "client_cpu_ms_per_sync": round(sum(r["cpu"] for r in good) * 1000 / max(done, 1), 2),
        "server_cpu_ms_per_sync": round(server_cpu * 1000 / max(done, 1), 2),
        "server_rows_read_per_sync": round((tuples1[0] - tuples0[0]) / max(done, 1), 1),
        "server_rows_written_per_sync": round((tuples1[1] - tuples0[1]) / max(done, 1), 1),
        "lock_waits_max": max(waits, default=0), "lock_waits_mean": round(statistics.fmean(waits or [0]), 2),
        "connections_max": max(conns, default=0),
        "calls_made": made, "calls_acknowledged": acked, "usage_calls_stored": int(usage_total),
        "health_calls_stored": int(health_total),
        "lost": max(acked - int(usage_total), 0), "double": max(int(usage_total) - acked, 0),
        "health_exact": int(health_total) == acked_health, "document_exact": document_calls == int(usage_total),
        "document_calls": document_calls, "document_wanted_left": int(wanted_left), "unacknowledged_at_close": made - acked,
    }


# ---------------------------------------------------------------- per sync


def traced_bytes_sent(store: sharing.PostgresStore, work: Any) -> int:
    """Bytes of the client's messages while ``work`` runs (libpq's trace: "F <length> ..." lines)."""
    from psycopg import pq

    assert store._conn is not None
    with tempfile.TemporaryFile("w+") as f:
        store._conn.pgconn.trace(f.fileno())
        store._conn.pgconn.set_trace_flags(pq.Trace.SUPPRESS_TIMESTAMPS)
        work()
        store._conn.pgconn.untrace()
        f.seek(0)
        return sum(int(line.split()[1]) for line in f if line.startswith("F\t") or line.startswith("F "))


def one_key_syncs(target: str, rounds: int) -> dict[str, Any]:
    health.TOOLS = registry(1000)
    seed_store(target)
    handle = sharing.open_health(target, LIMITS)
    assert isinstance(handle, sharing.SharedHealth)
    t = handle.tracker
    store = handle.store
    if isinstance(store, sharing.PostgresStore):
        import psycopg

        store.mirror_every_s = 1e9
        store._mirror.every_s = store._mirror.next_at = 1e18  # the document is written apart: not in this count
        with psycopg.connect(target, autocommit=True) as mon:
            lsn0 = mon.execute("SELECT pg_current_wal_lsn()").fetchone()[0]  # type: ignore[index]
            sent = []
            for i in range(rounds):
                t.record_call("t0001", "a1", "ok", alias_hit=False, duration_ms=1.0)
                sent.append(traced_bytes_sent(store, handle.sync))
            wal = mon.execute("SELECT pg_current_wal_lsn() - %s::pg_lsn", (lsn0,)).fetchone()[0]  # type: ignore[index]
        handle.close()
        return {"store": "postgresql", "keys": 10000, "wal_bytes_per_sync": round(int(wal) / rounds),
                "bytes_sent_per_sync": round(statistics.fmean(sent))}
    assert isinstance(store, sharing.SqliteStore)
    store._mirror.every_s = store._mirror.next_at = 1e18
    handle.sync()
    wal_path = Path(target + "-wal")
    growth = []
    for i in range(rounds):
        before = wal_path.stat().st_size
        t.record_call("t0001", "a1", "ok", alias_hit=False, duration_ms=1.0)
        handle.sync()
        after = wal_path.stat().st_size
        if after > before:
            growth.append(after - before)
    handle.close()
    return {"store": "sqlite", "keys": 10000, "wal_bytes_per_sync_max": max(growth, default=0),
            "wal_bytes_per_sync_median": statistics.median(growth) if growth else 0,
            "note": "frames appended past the end of the -wal file; a sync that reused space counts 0"}


class TimedLock:
    """The tracker's lock, timing each hold."""

    def __init__(self) -> None:
        self.inner = threading.Lock()
        self.holds: list[float] = []
        self.since = 0.0

    def acquire(self) -> bool:
        self.inner.acquire()
        self.since = time.perf_counter()
        return True

    def release(self) -> None:
        self.holds.append(time.perf_counter() - self.since)
        self.inner.release()


def lock_hold(path: str, rounds: int) -> dict[str, Any]:
    health.TOOLS = registry(5000)
    handle = sharing.open_health(path, LIMITS)
    assert isinstance(handle, sharing.SharedHealth)
    t = handle.tracker
    for i in range(5000):
        for j in range(ACTIONS):
            t.record_call(f"t{i:04d}", f"a{j}", "ok", alias_hit=False, duration_ms=1.0)
    handle.sync()
    rng = random.Random(1)
    holds: list[float] = []
    cpu_holds: list[float] = []  # the same holds in the thread's CPU time: what a loaded machine does not inflate

    class Timed:
        """The tracker, with the two operations that sync under its lock timed: each is one hold."""

        def __getattr__(self, name: str) -> Any:
            return getattr(t, name)

        def _take_changes(self, *args: Any) -> Any:
            s, c = time.perf_counter(), time.thread_time()
            r = t._take_changes(*args)
            holds.append(time.perf_counter() - s)
            cpu_holds.append(time.thread_time() - c)
            return r

        def _apply_changes(self, *args: Any) -> None:
            s, c = time.perf_counter(), time.thread_time()
            t._apply_changes(*args)
            holds.append(time.perf_counter() - s)
            cpu_holds.append(time.thread_time() - c)

    handle.tracker = Timed()  # type: ignore[assignment]
    for _ in range(rounds):
        for _ in range(CHANGED):
            t.record_call(f"t{rng.randrange(5000):04d}", f"a{rng.randrange(ACTIONS)}", "ok", alias_hit=False,
                          duration_ms=1.0)
        handle.sync()
    handle.tracker = t

    longest_c_call = [0.0, ""]

    def leaf_c_calls(frame: Any, event: str, arg: Any, stack: list[list[Any]] = []) -> None:
        """Times each C call that runs no Python code inside (thread CPU): the stretches in which the
        syncing thread may keep the GIL from the recording thread."""
        if event in ("c_call", "call"):
            for entry in stack:
                entry[1] = False
            if event == "c_call":
                stack.append([time.thread_time(), True])
        elif event in ("c_return", "c_exception") and stack:
            started, leaf = stack.pop()
            took = time.thread_time() - started
            if leaf and took > longest_c_call[0]:
                longest_c_call[:] = [took, getattr(arg, "__qualname__", str(arg))]

    def worst_call(syncing: bool, seconds: float = 2.0) -> float:
        stop = threading.Event()

        def syncer() -> None:
            r = random.Random(2)
            sys.setprofile(leaf_c_calls)
            while not stop.is_set():
                for _ in range(CHANGED):
                    t.record_call(f"t{r.randrange(5000):04d}", "a0", "ok", alias_hit=False, duration_ms=1.0)
                handle.sync()

        th = threading.Thread(target=syncer)
        if syncing:
            th.start()
        worst, end = 0.0, time.perf_counter() + seconds
        r = random.Random(3)
        while time.perf_counter() < end:
            s = time.perf_counter()
            t.record_call(f"t{r.randrange(5000):04d}", "a1", "ok", alias_hit=False, duration_ms=1.0)
            worst = max(worst, time.perf_counter() - s)
        stop.set()
        if syncing:
            th.join()
        return worst

    old = sys.getswitchinterval()
    sys.setswitchinterval(0.0005)
    try:
        quiet = worst_call(False)
        busy = worst_call(True)
    finally:
        sys.setswitchinterval(old)
    handle.close()
    return {"keys": 50000, "changed_per_sync": CHANGED, "lock_hold_p50_ms": round(pct(holds, 0.5) * 1000, 3),
            "lock_hold_max_ms": round(max(holds) * 1000, 3),
            "lock_hold_thread_cpu_p50_ms": round(pct(cpu_holds, 0.5) * 1000, 3),
            "lock_hold_thread_cpu_p99_ms": round(pct(cpu_holds, 0.99) * 1000, 3),
            "lock_hold_thread_cpu_max_ms": round(max(cpu_holds) * 1000, 3),
            "longest_gil_holding_call_in_sync_thread_ms": round(longest_c_call[0] * 1000, 3),
            "longest_gil_holding_call": longest_c_call[1],
            "worst_record_call_ms_while_syncing": round(busy * 1000, 2),
            "worst_record_call_ms_without_syncs": round(quiet * 1000, 2)}


def memory_per_key(path: str, keys: int = 50000) -> dict[str, Any]:
    tools = keys // ACTIONS
    health.TOOLS = registry(tools)
    names = [(f"t{i:04d}", f"a{j}") for i in range(tools) for j in range(ACTIONS)]

    def fill(t: health.ToolHealthTracker) -> None:
        for tool, action in names:
            t.record_call(tool, action, "ok", alias_hit=False, duration_ms=1.0)

    with tempfile.TemporaryDirectory() as d:
        repo = Repository(Path(d) / "plain.db")
        plain = health.ToolHealthTracker(repo, LIMITS)
        gc.collect()
        tracemalloc.start()
        base = tracemalloc.get_traced_memory()[0]
        fill(plain)
        gc.collect()
        plain_bytes = tracemalloc.get_traced_memory()[0] - base
        tracemalloc.stop()
        repo.close()
    shared = sharing.open_health(path, LIMITS)
    assert isinstance(shared, sharing.SharedHealth)
    gc.collect()
    tracemalloc.start()
    base = tracemalloc.get_traced_memory()[0]
    fill(shared.tracker)
    shared.sync()
    for _ in range(3):  # the syncs after: what stays
        shared.sync()
    gc.collect()  # the last exchange's rows, in a cycle until the collector runs
    shared_bytes = tracemalloc.get_traced_memory()[0] - base
    tracemalloc.stop()
    shared.close()
    return {"keys": keys, "plain_bytes_per_key": round(plain_bytes / keys),
            "shared_bytes_per_key": round(shared_bytes / keys), "ratio": round(shared_bytes / plain_bytes, 2)}


def per_sync(cluster: Any, quick: bool) -> dict[str, Any]:
    import psycopg

    rounds = 20 if quick else 100
    with psycopg.connect(cluster.url, autocommit=True) as admin:
        admin.execute("CREATE DATABASE per_sync")
    out: dict[str, Any] = {}
    out["one_key_postgresql"] = one_key_syncs(cluster.url.rsplit("/", 1)[0] + "/per_sync", rounds)
    with tempfile.TemporaryDirectory() as d:
        out["one_key_sqlite"] = one_key_syncs(str(Path(d) / "one.db"), rounds)
        out["lock_50k_sqlite"] = lock_hold(str(Path(d) / "lock.db"), rounds)
        # (sqlite3 lets go of the GIL while a statement runs: its execute shows up as a long call here.)
        with psycopg.connect(cluster.url, autocommit=True) as admin:
            admin.execute("CREATE DATABASE lock_hold")
        out["lock_50k_postgresql"] = lock_hold(cluster.url.rsplit("/", 1)[0] + "/lock_hold", rounds)
        out["memory"] = memory_per_key(str(Path(d) / "mem.db"), 10000 if quick else 50000)
    return out


def main() -> None:
    if len(sys.argv) > 1 and sys.argv[1] == "--worker":
        url, period, duration, seed, hold = sys.argv[2:7]
        worker(url, float(period), float(duration), int(seed), hold == "1")
        return
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--fleet", default="", help="N:period pairs, e.g. 16:1,64:1,200:5")
    ap.add_argument("--duration", type=float, default=30.0)
    ap.add_argument("--pgbouncer", action="store_true", help="the processes reach the server through PgBouncer")
    ap.add_argument("--per-sync", action="store_true")
    ap.add_argument("--quick", action="store_true", help="a smoke run: 8 processes for 5 s, and the per-sync figures")
    ap.add_argument("--check", action="store_true", help="exit 1 unless every fleet's store totals are exact")
    args = ap.parse_args()
    from pgcluster import PgBouncer, PgCluster

    runs = [(int(n), float(p)) for n, p in (item.split(":") for item in args.fleet.split(",") if item)]
    if args.quick:
        runs, args.duration, args.per_sync = runs or [(8, 1.0)], min(args.duration, 5.0), True
    cluster = PgCluster()
    bouncer = None
    try:
        cluster.start(max_connections=max([n for n, _ in runs] + [80]) + 20, extra="-c shared_buffers=256MB")
        if args.pgbouncer:
            bouncer = PgBouncer(cluster)
        exact = True
        for n, period in runs:
            result = run_fleet(cluster, n, period, args.duration, bouncer)
            exact = exact and result["lost"] == result["double"] == result["workers_failed"] == 0 and \
                result["health_exact"]
            print(json.dumps(result), flush=True)
        if args.per_sync:
            print(json.dumps(per_sync(cluster, args.quick)), flush=True)
    finally:
        if bouncer is not None:
            bouncer.stop()
        cluster.remove()
    if args.check and not exact:
        sys.exit(1)


if __name__ == "__main__":
    main()

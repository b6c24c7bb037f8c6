"""Soak test of shared tool health: many processes on one store, killed and restarted at random.

    PYTHONPATH=src python benchmarks/soak_shared.py                 # 8 processes x 4 threads, 60 s per store
    PYTHONPATH=src python benchmarks/soak_shared.py --quick         # 10 s per store
    PYTHONPATH=src python benchmarks/soak_shared.py --stores sqlite --duration 120 --processes 4
    PYTHONPATH=src python benchmarks/soak_shared.py --quick --stores pgbouncer

For each store (a SQLite file, then a throwaway PostgreSQL server), N worker processes with M
threads each record tool calls as fast as a 1 ms pause per call lets them and sync every
--period seconds. Every --kill-every seconds on average one worker is killed with SIGKILL and a
new one started in its place; with PostgreSQL the server is stopped in the middle of the run for
--outage seconds and started again. At the end the survivors are stopped with SIGTERM (their
last sync runs) and the store is checked against the workers' logs.

Each worker appends to its own log, fsync'd: before an exchange, every batch it is about to
send (sequence, calls, usage calls); after an acknowledged one, its running totals. The store's
ledger holds each process's last applied sequence, so what the store must hold is exact: the
sum, over every process, of its logged batches up to that sequence. The report prints

- lost: expected - stored, when positive (should be 0);
- double: stored - expected, when positive (should be 0);
- unsynced at kill: what killed workers had recorded (logged every 0.1 s) but not synced: what they lose;
- for the workers stopped gracefully, recorded - synced (should be 0).
"""
from __future__ import annotations

import argparse
import json
import os
import random
import signal
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path
from typing import Any, Iterator

ROOT = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tests"))

TOOLS = [("search", "text"), ("search", "symbol"), ("read_file", None), ("list_files", None), ("git", "log"),
         ("git", "diff"), ("index", "status"), ("run_tests", "unit")]


# ---------------------------------------------------------------- the worker


def worker(target: str, log_path: str, threads: int, period: float, seed: int) -> None:
    from ordanis_veltrane import sharing
    from ordanis_veltrane.config import ToolsConfig

    handle = sharing.open_health(target, ToolsConfig(disable_after_errors=5, disable_cooldown_s=2.0))
    assert isinstance(handle, sharing.SharedHealth)
    log = open(log_path, "a", buffering=1)

    log_lock = threading.Lock()

    def write(record: dict[str, Any], sync: bool = True) -> None:
        with log_lock:
            log.write(json.dumps(record) + "\n")
            log.flush()
            if sync:
                os.fsync(log.fileno())

    recorded = [[0, 0] for _ in range(threads)]  # per thread: call_count increments, usage calls

    def totals() -> tuple[int, int]:
        return sum(r[0] for r in recorded), sum(r[1] for r in recorded)

    def before(h: sharing.SharedHealth) -> None:
        calls, usage = totals()
        write({"batches": [[b.seq, sum(c.calls for c in b.tools.values()), sum(int(u[0]) for u in b.usage.values())]
                           for b in h.pending], "recorded": [calls, usage]})

    def after(h: sharing.SharedHealth) -> None:
        write({"synced": [h.synced_calls, h.synced_usage_calls]})

    handle.before_exchange, handle.on_synced = before, after
    write({"process_id": handle.process_id, "pid": os.getpid()})
    stop = threading.Event()
    tracker = handle.tracker

    def calls(index: int) -> None:
        rng = random.Random(seed * 100 + index)
        mine = recorded[index]
        while not stop.is_set():
            tool, action = rng.choice(TOOLS)
            if tracker.is_disabled(tool)[0]:
                tracker.record_call(tool, action, "disabled", alias_hit=False, duration_ms=None)
                mine[1] += 1
            else:
                if rng.random() < (0.3 if tool == "run_tests" else 0.01):
                    tracker.record_error(tool, f"failure in {tool}")
                    outcome = "error"
                else:
                    tracker.record_success(tool)
                    outcome = "ok"
                mine[0] += 1
                tracker.record_call(tool, action, outcome, alias_hit=False, duration_ms=rng.random())
                mine[1] += 1
            time.sleep(0.001)

    def syncing() -> None:
        while not stop.wait(period):
            handle.sync()

    def counting() -> None:  # what has been recorded, for the figure of what a kill loses
        while not stop.wait(0.1):
            write({"recorded": list(totals())}, sync=False)

    workers = [threading.Thread(target=calls, args=(i,)) for i in range(threads)]
    syncer = threading.Thread(target=syncing)
    counter = threading.Thread(target=counting, daemon=True)
    counter.start()
    for t in (*workers, syncer):
        t.start()
    signal.signal(signal.SIGTERM, lambda *_: stop.set())
    while not stop.wait(0.2):
        pass
    for t in (*workers, syncer):
        t.join()
    handle.close()
    calls_done, usage_done = totals()
    write({"final": True, "recorded": [calls_done, usage_done], "synced": [handle.synced_calls,
                                                                          handle.synced_usage_calls]})


# ---------------------------------------------------------------- the parent


def read_log(path: Path) -> dict[str, Any]:
    info: dict[str, Any] = {"batches": {}, "recorded": [0, 0], "synced": [0, 0], "final": None}
    if not path.exists():
        return info  # killed before it had opened its log: it never sent anything
    for line in path.read_text().splitlines():
        try:
            record = json.loads(line)
        except ValueError:
            continue  # a line the kill cut short: its exchange never started
        if "process_id" in record:
            info["process_id"] = record["process_id"]
        if "batches" in record:
            for seq, calls, usage in record["batches"]:
                info["batches"][seq] = (calls, usage)  # the last content logged for a sequence is what was sent
        if "recorded" in record:
            info["recorded"] = record["recorded"]
        if "synced" in record:
            info["synced"] = record["synced"]
        if record.get("final"):
            info["final"] = record
    return info


def store_state(target: str) -> tuple[dict[str, int], int, int, int, int]:
    """Ledger (process id -> last applied sequence), sum of call_count in sv_health and in tool_health,
    sum of usage calls in sv_usage and in the usage document."""
    queries = ["SELECT process_id, last_seq FROM sv_process", "SELECT coalesce(sum(call_count), 0) FROM sv_health",
               "SELECT coalesce(sum(call_count), 0) FROM tool_health", "SELECT coalesce(sum(calls), 0) FROM sv_usage",
               "SELECT value FROM schema_info WHERE key = 'tool_usage'"]
    if target.startswith("postgresql://"):
        import psycopg

        queries[3] = ("SELECT (SELECT coalesce(sum(calls), 0) FROM sv_usage) + "  # and the increments not folded yet
                      "(SELECT coalesce(sum(calls), 0) FROM sv_usage_delta)")
        queries[1] = ("SELECT (SELECT coalesce(sum(call_count), 0) FROM sv_health) + "
                      "(SELECT coalesce(sum(calls), 0) FROM sv_health_delta)")
        with psycopg.connect(target) as conn:
            results = [conn.execute(q).fetchall() for q in queries]
    else:
        import sqlite3

        conn2 = sqlite3.connect(target)
        results = [conn2.execute(q).fetchall() for q in queries]
        conn2.close()
    document = json.loads(results[4][0][0]) if results[4] else []
    return ({r[0]: int(r[1]) for r in results[0]}, int(results[1][0][0]), int(results[2][0][0]),
            int(results[3][0][0]), sum(int(row["calls"]) for row in document))


def soak(target: str, args: argparse.Namespace, cluster: Any, workdir: Path) -> dict[str, Any]:
    import ordanis_veltrane

    env = {**os.environ, "PYTHONPATH": os.pathsep.join([str(Path(ordanis_veltrane.__file__).parents[1]), *sys.path])}
    rng = random.Random(args.seed)
    serial = 0
    logs: list[Path] = []
    killed: list[Path] = []

    def start() -> tuple[subprocess.Popen[bytes], Path]:
        nonlocal serial
        serial += 1
        log = workdir / f"worker-{serial}.log"
        logs.append(log)
        proc = subprocess.Popen([sys.executable, __file__, "--worker", target, str(log), str(args.threads),
                                 str(args.period), str(serial)], env=env)
        return proc, log

    procs = [start() for _ in range(args.processes)]
    began = time.monotonic()
    outage_at = began + args.duration / 2 if cluster is not None else None
    outage_done = cluster is None
    next_kill = began + rng.expovariate(1 / args.kill_every)
    while time.monotonic() - began < args.duration:
        time.sleep(0.05)
        now = time.monotonic()
        if now >= next_kill:
            i = rng.randrange(len(procs))
            proc, log = procs[i]
            proc.send_signal(signal.SIGKILL)
            proc.wait()
            killed.append(log)
            procs[i] = start()
            next_kill = now + rng.expovariate(1 / args.kill_every)
        if not outage_done and outage_at is not None and now >= outage_at:
            print(f"  stopping the PostgreSQL server for {args.outage:g} s", flush=True)
            cluster.stop()
            time.sleep(args.outage)
            cluster.start()
            outage_done = True
    for proc, _ in procs:
        proc.send_signal(signal.SIGTERM)
    for proc, _ in procs:
        if proc.wait(timeout=120) != 0:
            raise SystemExit(f"a worker ended with {proc.returncode}")
    ledger, stored_calls, mirror_calls, stored_usage, document_usage = store_state(target)
    expected_calls = expected_usage = 0
    unsynced_at_kill = [0, 0]
    graceful_gap = [0, 0]
    for log in logs:
        info = read_log(log)
        applied = ledger.get(info.get("process_id", ""), 0)
        for seq, (calls, usage) in info["batches"].items():
            if seq <= applied:
                expected_calls += calls
                expected_usage += usage
        if log in killed:
            unsynced_at_kill[0] += max(info["recorded"][0] - info["synced"][0], 0)
            unsynced_at_kill[1] += max(info["recorded"][1] - info["synced"][1], 0)
        elif info["final"] is not None:
            graceful_gap[0] += info["final"]["recorded"][0] - info["final"]["synced"][0]
            graceful_gap[1] += info["final"]["recorded"][1] - info["final"]["synced"][1]
    return {
        "store": "postgresql" if cluster is not None else "sqlite", "seconds": args.duration,
        "processes": args.processes, "threads": args.threads, "started": serial, "killed": len(killed),
        "calls_stored": stored_calls, "usage_calls_stored": stored_usage,
        "calls_per_s": round(stored_calls / args.duration),
        "lost": [max(expected_calls - stored_calls, 0), max(expected_usage - stored_usage, 0)],
        "double": [max(stored_calls - expected_calls, 0), max(stored_usage - expected_usage, 0)],
        "mirror_matches": mirror_calls == stored_calls and document_usage == stored_usage,
        "unsynced_at_kill": unsynced_at_kill,
        "graceful_recorded_minus_synced": graceful_gap,
    }


def stores(names: list[str]) -> Iterator[tuple[str, Any]]:
    if "sqlite" in names:
        yield str(Path(tempfile.mkdtemp(prefix="soak-")) / "shared.db"), None
    for name in ("postgres", "pgbouncer"):
        if name not in names:
            continue
        from pgcluster import PgBouncer, PgCluster

        cluster = PgCluster()
        cluster.start()
        bouncer = PgBouncer(cluster) if name == "pgbouncer" else None
        try:
            yield (cluster.url if bouncer is None else bouncer.url(cluster.url)), cluster
        finally:
            if bouncer is not None:
                bouncer.stop()
            cluster.remove()


def main() -> None:
    if len(sys.argv) > 1 and sys.argv[1] == "--worker":
        target, log, threads, period, seed = sys.argv[2:7]
        worker(target, log, int(threads), float(period), int(seed))
        return
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--processes", type=int, default=8)
    parser.add_argument("--threads", type=int, default=4)
    parser.add_argument("--duration", type=float, default=60.0, help="seconds per store")
    parser.add_argument("--quick", action="store_true", help="10 s per store")
    parser.add_argument("--period", type=float, default=0.5, help="seconds between syncs of a worker")
    parser.add_argument("--kill-every", type=float, default=3.0, help="mean seconds between two kills")
    parser.add_argument("--outage", type=float, default=3.0, help="seconds the PostgreSQL server is down")
    parser.add_argument("--stores", nargs="+", default=["sqlite", "postgres"],
                        choices=["sqlite", "postgres", "pgbouncer"],
                        help="pgbouncer: PostgreSQL reached through PgBouncer in transaction-pooling mode")
    parser.add_argument("--seed", type=int, default=1)
    args = parser.parse_args()
    if args.quick:
        args.duration = 10.0
    failed = False
    for target, cluster in stores(args.stores):
        with tempfile.TemporaryDirectory(prefix="soak-logs-") as workdir:
            result = soak(target, args, cluster, Path(workdir))
        print(json.dumps(result), flush=True)
        failed |= result["lost"] != [0, 0] or result["double"] != [0, 0] or not result["mirror_matches"] \
            or result["graceful_recorded_minus_synced"] != [0, 0]
    if failed:
        raise SystemExit("the store does not hold exactly what the workers synced")


if __name__ == "__main__":
    main()

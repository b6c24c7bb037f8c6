"""Tool calls on several threads while another thread syncs the tracker with a shared SQLite store,
for ThreadSanitizer (tools/tsan.sh runs it on the free-threaded build) and as a check of exactness:
after the last sync the store must hold every call made, per tool and per usage key.

    PYTHONPATH=src python benchmarks/sync_race.py --threads 4 --calls 20000
"""

from __future__ import annotations

import argparse
import json
import sqlite3
import sys
import tempfile
import threading
from pathlib import Path

from ordanis_veltrane import sharing
from ordanis_veltrane.config import ToolsConfig
from ordanis_veltrane.tool_handlers import health
from ordanis_veltrane.tool_registry import ActionSpec, ToolRegistry, ToolSpec

TOOLS = [f"tool{i}" for i in range(8)]
ACTIONS = [None, "read", "write", "list"]


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--threads", type=int, default=4)
    parser.add_argument("--calls", type=int, default=20_000, help="calls per thread")
    args = parser.parse_args()
    health.TOOLS = ToolRegistry({name: ToolSpec(name, [ActionSpec(a) for a in ACTIONS[1:] if a]) for name in TOOLS})
    with tempfile.TemporaryDirectory() as tmp:
        target = str(Path(tmp) / "health.db")
        # A high threshold: no tool is disabled, so every call is counted.
        handle = sharing.open_health(target, ToolsConfig(disable_after_errors=10**9, disable_cooldown_s=60))
        tracker = handle.tracker
        done = threading.Event()

        def calls(seed: int) -> None:
            for i in range(args.calls):
                tool = TOOLS[(seed + i) % len(TOOLS)]
                ok = i % 7 != 0
                if ok:
                    tracker.record_success(tool)
                else:
                    tracker.record_error(tool, f"error {i}")
                tracker.record_call(tool, ACTIONS[i % len(ACTIONS)], "ok" if ok else "error",
                                    alias_hit=i % 5 == 0, duration_ms=0.5)

        def syncing() -> None:
            while not done.is_set():
                handle.sync()

        syncer = threading.Thread(target=syncing)
        syncer.start()
        workers = [threading.Thread(target=calls, args=(n,)) for n in range(args.threads)]
        for w in workers:
            w.start()
        for w in workers:
            w.join()
        done.set()
        syncer.join()
        handle.close()
        with sqlite3.connect(target) as conn:
            stored_calls, stored_errors = conn.execute(
                "SELECT SUM(call_count), SUM(error_count) FROM tool_health").fetchone()
            document = conn.execute("SELECT value FROM schema_info WHERE key = 'tool_usage'").fetchone()
        usage_calls = sum(row["calls"] for row in json.loads(document[0])) if document else 0
    made = args.threads * args.calls
    errors = args.threads * len(range(0, args.calls, 7))
    print(f"calls made {made}, stored {stored_calls}, in the usage document {usage_calls}; "
          f"errors made {errors}, stored {stored_errors}")
    if (stored_calls, usage_calls, stored_errors) != (made, made, errors):
        sys.exit("the store does not hold every call exactly once")


if __name__ == "__main__":
    main()

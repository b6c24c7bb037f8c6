#!/usr/bin/env python3
"""The ``status`` answer under a flood of distinct actions: the plain answer against the bounded one.

    PYTHONPATH=src python benchmarks/status_bench.py [--keys 10000,100000] [--repeats 5] [--json]

For each number of distinct usage keys (one tool, a fresh action per call, as a hostile client
makes them), in one run over one tracker on a real SQLite file:

- old: ``get_health_summary()`` + the thread census report + ``json.dumps`` of the answer, as the
  ``status`` tool answered until now;
- new: ``build_status(tracker, budget)`` + ``json.dumps`` of its answer;
- the MCP SDK's own serialization of each answer (``pydantic_core.to_json(..., indent=2)``, which
  the SDK runs on the event loop, where it delays every other message), when pydantic is there;
- ``flush()`` of the tracker: the first, which writes every key, and one after a single new call;
- with the ``mcp`` extra, the answer through a real server (``ToolGuard`` on ``MCPServer``, the
  SDK's in-memory ``Client``): the ``status`` tool the guard registers today (the summary on the
  event loop) against one that runs ``build_status`` on a worker thread, each called while the
  client pings the server every millisecond; the figure is the longest ping round trip, the
  stall a hostile ``status`` call causes every other message of the connection.

Each time is the best of ``--repeats``; sizes are bytes of the JSON text. Ratios are old / new.
"""
from __future__ import annotations

import argparse
import gc
import json
import os
import sys
import tempfile
import time
import warnings
from typing import Any, Callable

from ordanis_veltrane.repository import Repository
from ordanis_veltrane.status_answer import build_status
from ordanis_veltrane.tool_handlers import health

BUDGET = 48


class _OpenRegistry:
    """Every tool and action is known: the flood's keys survive a reload."""

    class _Spec:
        def action(self, name: str) -> str:
            return name

    def get(self, name: str) -> _Spec:
        return self._Spec()


def _best(fn: Callable[[], Any], repeats: int) -> tuple[float, Any]:
    best, result = float("inf"), None
    for _ in range(repeats):
        gc.collect()
        start = time.perf_counter()
        result = fn()
        best = min(best, time.perf_counter() - start)
    return best, result


def _old(tracker: health.ToolHealthTracker) -> str:
    answer = {"tool_health": tracker.get_health_summary(),
              "threads": health.thread_census_report(BUDGET, health.thread_census())}
    return json.dumps(answer)


def _new(tracker: health.ToolHealthTracker) -> str:
    return json.dumps(build_status(tracker, BUDGET))


def measure(keys: int, repeats: int, directory: str) -> dict[str, Any]:
    repo = Repository(os.path.join(directory, f"flood-{keys}.db"))
    try:
        tracker = health.ToolHealthTracker(repo, None)
        for i in range(keys):
            tracker.record_call("search", f"flood-{i:07d}", "ok", alias_hit=False, duration_ms=1.25)
        tracker.record_call("git", "log", "ok", alias_hit=False, duration_ms=3.0)
        start = time.perf_counter()
        tracker.flush()
        first_flush = time.perf_counter() - start

        def one_more_flush() -> int:
            tracker.record_call("git", "log", "ok", alias_hit=False, duration_ms=3.0)
            return tracker.flush()

        flush_s, _ = _best(one_more_flush, repeats)
        old_s, old_text = _best(lambda: _old(tracker), repeats)
        new_s, new_text = _best(lambda: _new(tracker), repeats)
        figures: dict[str, Any] = {
            "keys": keys,
            "old_s": old_s, "new_s": new_s, "time_ratio": old_s / new_s,
            "old_bytes": len(old_text.encode()), "new_bytes": len(new_text.encode()),
            "size_ratio": len(old_text) / len(new_text),
            "first_flush_s": first_flush, "flush_s": flush_s,
        }
        try:
            import pydantic_core
        except ImportError:
            return figures
        old_answer, new_answer = json.loads(old_text), json.loads(new_text)
        sdk_old, sdk_old_text = _best(lambda: pydantic_core.to_json(old_answer, indent=2), repeats)
        sdk_new, sdk_new_text = _best(lambda: pydantic_core.to_json(new_answer, indent=2), repeats)
        figures.update(sdk_old_s=sdk_old, sdk_new_s=sdk_new, sdk_ratio=sdk_old / sdk_new,
                       sdk_old_bytes=len(sdk_old_text), sdk_new_bytes=len(sdk_new_text))
        return figures
    finally:
        repo.close()


async def _pings_behind(client: Any, tool: str) -> tuple[float, float, int]:
    """Calls `tool` while pinging; answers the call's time, the longest ping and the answer's text size."""
    import anyio

    done, longest, figures = False, 0.0, {"call_s": 0.0, "bytes": 0.0}

    async def call() -> None:
        nonlocal done
        start = time.perf_counter()
        result = await client.call_tool(tool, {})
        figures["call_s"] = time.perf_counter() - start
        figures["bytes"] = float(sum(len(block.text.encode()) for block in result.content if hasattr(block, "text")))
        done = True

    async with anyio.create_task_group() as tg:
        tg.start_soon(call)
        while not done:
            start = time.perf_counter()
            await client.send_ping()
            longest = max(longest, time.perf_counter() - start)
            await anyio.sleep(0.001)
    return figures["call_s"], longest, int(figures["bytes"])


def measure_mcp(keys: int, repeats: int, directory: str) -> dict[str, Any] | None:
    try:
        import anyio
        import anyio.to_thread
        from mcp import Client
        from mcp.server.mcpserver import MCPServer

        from ordanis_veltrane.mcp_guard import ToolGuard
    except ImportError:
        return None
    guard = ToolGuard(os.path.join(directory, f"mcp-{keys}.db"), flush_interval=None)
    server: MCPServer[Any] = MCPServer("status-bench", lifespan=guard.lifespan)
    guard.add_status_tools(server)

    async def status_bounded() -> dict[str, Any]:
        """The status answer, bounded, built on a worker thread."""
        tracker = guard.tracker
        assert tracker is not None
        return await anyio.to_thread.run_sync(build_status, tracker, guard.thread_budget)

    guard.add_tool(server, status_bounded)

    async def run() -> dict[str, Any]:
        async with Client(server, mode="legacy") as client:
            tracker = guard.tracker
            assert tracker is not None
            for i in range(keys):
                tracker.record_call("search", f"flood-{i:07d}", "ok", alias_hit=False, duration_ms=1.25)
            out: dict[str, Any] = {"keys": keys}
            for name, tool in (("old", "status"), ("new", "status_bounded")):
                runs = [await _pings_behind(client, tool) for _ in range(repeats)]
                out[f"{name}_call_s"] = min(r[0] for r in runs)
                out[f"{name}_ping_s"] = min(r[1] for r in runs)
                out[f"{name}_text_bytes"] = runs[-1][2]
            out["ping_ratio"] = out["old_ping_s"] / out["new_ping_s"]
            out["call_ratio"] = out["old_call_s"] / out["new_call_s"]
            return out

    with warnings.catch_warnings():  # ping is deprecated for new protocol versions; the legacy mode has it
        warnings.simplefilter("ignore")
        return anyio.run(run)


def main(argv: list[str] | None = None) -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--keys", default="10000,100000", help="numbers of distinct usage keys (default 10000,100000)")
    parser.add_argument("--repeats", type=int, default=5, help="repeats of each timing; the best counts (default 5)")
    parser.add_argument("--json", action="store_true", help="print the figures as JSON")
    parser.add_argument("--no-mcp", action="store_true", help="skip the calls through a real MCP server")
    args = parser.parse_args(argv)
    keys = [int(n) for n in args.keys.split(",")]
    with tempfile.TemporaryDirectory() as directory:
        through_mcp = [] if args.no_mcp else [m for m in (measure_mcp(n, args.repeats, directory) for n in keys) if m]
        health.TOOLS = _OpenRegistry()
        results = [measure(n, args.repeats, directory) for n in keys]
    if args.json:
        print(json.dumps({"direct": results, "mcp": through_mcp}, indent=2))
        return 0
    print(f"status answer, CPython {sys.version.split()[0]}, best of {args.repeats}")
    for r in results:
        print(f"{r['keys']:>7} keys  build+json  old {r['old_s'] * 1e3:8.1f} ms {r['old_bytes'] / 1e6:7.2f} MB"
              f"   new {r['new_s'] * 1e3:8.1f} ms {r['new_bytes'] / 1e6:7.2f} MB"
              f"   ratio time {r['time_ratio']:5.2f}x size {r['size_ratio']:6.1f}x")
        if "sdk_old_s" in r:
            print(f"{'':>7}       SDK to_json old {r['sdk_old_s'] * 1e3:8.1f} ms {r['sdk_old_bytes'] / 1e6:7.2f} MB"
                  f"   new {r['sdk_new_s'] * 1e3:8.1f} ms {r['sdk_new_bytes'] / 1e6:7.2f} MB"
                  f"   ratio time {r['sdk_ratio']:5.2f}x")
        print(f"{'':>7}       flush: first (every key) {r['first_flush_s'] * 1e3:8.1f} ms,"
              f" after one call {r['flush_s'] * 1e3:8.1f} ms")
    for m in through_mcp:
        print(f"{m['keys']:>7} keys  MCP status  old {m['old_call_s'] * 1e3:8.1f} ms, longest ping"
              f" {m['old_ping_s'] * 1e3:7.1f} ms, {m['old_text_bytes'] / 1e6:6.2f} MB"
              f"   new {m['new_call_s'] * 1e3:8.1f} ms, longest ping {m['new_ping_s'] * 1e3:7.1f} ms,"
              f" {m['new_text_bytes'] / 1e6:6.2f} MB   ratio call {m['call_ratio']:5.2f}x ping {m['ping_ratio']:5.1f}x")
    return 0


if __name__ == "__main__":
    sys.exit(main())

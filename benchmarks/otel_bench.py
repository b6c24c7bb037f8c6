#!/usr/bin/env python3
"""What OpenTelemetry adds to a guarded tool call, three ways in one run.

    python benchmarks/otel_bench.py [--json] [--quick]

The same tools behind three ``ToolGuard``s that differ only in their call observers:

- ``none``: no observer (a host without opentelemetry);
- ``api``: ``otel.default_observer()`` with the OpenTelemetry API alone, no SDK provider
  installed: the observer looks at the API's global providers and returns;
- ``sdk``: an ``OtelObserver`` on an SDK ``MeterProvider`` with an in-memory reader (the
  histogram is recorded; the health instruments are read only at collection, which this
  benchmark does not time).

1. A tool call over the MCP SDK's in-memory transport (``Client(server, mode="legacy")``) to a
   sync and an async tool, the three guards taking turns so that a busy moment on the machine
   hits them all alike.
2. The guard's wrapper called directly (no transport), the three guards in turns: the guard's
   own work per call, and what each observer adds to it.
3. ``call_finished`` alone in a tight loop: with the API alone, with the SDK's histogram, and
   with the SDK's histogram and a recording span current (its tool-health attributes set),
   against a bare function of the same signature; and, per call, what the next collection
   then does on the reader's thread: the SDK's ``record`` of each queued measurement.

Every figure is the best of several repeats (time.perf_counter_ns). The global providers are
never set, so the ``api`` observer stays a no-op for the whole run.
"""
from __future__ import annotations

import argparse
import gc
import json
import math
import platform
import sys
import tempfile
import time
from pathlib import Path
from typing import Any, Callable

try:
    from ordanis_veltrane.tool_handlers import health
except ImportError:  # run from a checkout without installing: use the in-place build
    sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "src"))
    from ordanis_veltrane.tool_handlers import health

import anyio
from mcp import Client
from mcp.server.mcpserver import MCPServer
from opentelemetry.sdk.metrics import MeterProvider
from opentelemetry.sdk.metrics.export import InMemoryMetricReader
from opentelemetry.sdk.trace import TracerProvider

from ordanis_veltrane import otel
from ordanis_veltrane.config import ToolsConfig
from ordanis_veltrane.mcp_guard import ToolGuard
from ordanis_veltrane.tool_pipeline import CallObserver, CallReport
from ordanis_veltrane.repository import Repository
from ordanis_veltrane.tool_registry import ActionSpec
from ordanis_veltrane.utils.timing import get_timing_collector

ns = time.perf_counter_ns
WAYS = ("none", "api", "sdk")
SDK_TARGET_NS = 10_000  # what the SDK may add to a call


def lookup(key: str, action: str = "text") -> str:
    return key


async def lookup_async(key: str, action: str = "text") -> str:
    return key


def drain(observer: CallObserver) -> None:
    """Hands the queued measurements to the SDK, as a collection would (outside the timed loops)."""
    if isinstance(observer, otel.OtelObserver):
        observer.record_pending()


def observers_of(way: str, reader: InMemoryMetricReader) -> list[CallObserver]:
    if way == "none":
        return []
    if way == "api":
        observer = otel.default_observer()
        assert observer is not None
        return [observer]
    return [otel.OtelObserver(MeterProvider(metric_readers=[reader]))]


def bench_calls(quick: bool, workdir: Path) -> dict[str, Any]:
    calls, repeat, direct_calls = (200, 3, 5_000) if quick else (500, 7, 10_000)  # below the queue's limit
    reader = InMemoryMetricReader()
    guards, servers, repos = {}, {}, []
    for way in WAYS:
        repo = Repository(workdir / f"{way}.db")
        repos.append(repo)
        guards[way] = ToolGuard(repo, ToolsConfig(), flush_interval=None, observers=observers_of(way, reader))
        servers[way] = MCPServer(way, lifespan=guards[way].lifespan)
        for fn in (lookup, lookup_async):
            guards[way].add_tool(servers[way], fn, actions=[ActionSpec("text", ("grep",))])
    args = {"key": "k", "action": "grep"}  # a synonym: the guard resolves it on every call
    per_call: dict[tuple[str, str], float] = {}
    direct: dict[tuple[str, str], float] = {}

    async def run() -> None:
        async with Client(servers["none"], mode="legacy") as c0, Client(servers["api"], mode="legacy") as c1, \
                Client(servers["sdk"], mode="legacy") as c2:
            clients = dict(zip(WAYS, (c0, c1, c2)))
            for turn in range(repeat):
                for tool in ("lookup", "lookup_async"):
                    for way in WAYS[turn % 3:] + WAYS[:turn % 3]:  # each way goes first in some turns
                        client = clients[way]
                        t0 = ns()
                        for _ in range(calls):
                            await client.call_tool(tool, args)
                        took = (ns() - t0) / calls
                        per_call[way, tool] = min(per_call.get((way, tool), math.inf), took)
                        for observer in guards[way].pipeline.observers:
                            drain(observer)
            wrapped: dict[tuple[str, str], Callable[..., Any]] = {}
            for way, guard in guards.items():
                wrapped[way, "lookup"] = guard._guarded("lookup", lookup)
                wrapped[way, "lookup_async"] = guard._guarded("lookup", lookup_async)
            for _ in range(repeat):
                for (way, tool), fn in wrapped.items():
                    t0 = ns()
                    for _ in range(direct_calls):
                        result = fn(key="k", action="grep")
                        if tool == "lookup_async":
                            await result
                    direct[way, tool] = min(direct.get((way, tool), math.inf), (ns() - t0) / direct_calls)
                    for observer in guards[way].pipeline.observers:
                        drain(observer)

    saved_tools = health.TOOLS
    try:
        anyio.run(run)
    finally:
        health.TOOLS = saved_tools
        get_timing_collector().reset()
        for repo in repos:
            repo.close()
    recorded = reader.get_metrics_data()
    assert recorded is not None and recorded.resource_metrics, "the sdk guard recorded nothing"
    out: dict[str, Any] = {"calls": calls}
    for tool, kind in (("lookup", "sync"), ("lookup_async", "async")):
        base, base_direct = per_call["none", tool], direct["none", tool]
        out[kind] = {
            way: {"call_ns": round(per_call[way, tool]), "call_added_ns": round(per_call[way, tool] - base),
                  "call_ratio": round(per_call[way, tool] / base, 4), "wrapper_ns": round(direct[way, tool]),
                  "wrapper_added_ns": round(direct[way, tool] - base_direct)}
            for way in WAYS
        }
    return out


def bench_observer(quick: bool, workdir: Path) -> dict[str, Any]:
    number, repeat = (5_000, 3) if quick else (otel.PENDING_LIMIT - 1, 7)  # below the queue's limit
    saved_tools = health.TOOLS
    health.TOOLS = type("Open", (), {"get": lambda self, name: self, "action": lambda self, a: a})()
    repo = Repository(workdir / "observer.db")
    try:
        tracker = health.ToolHealthTracker(repo, ToolsConfig())
        tracker.record_success("lookup")
        tracker.record_call("lookup", "text", "ok", alias_hit=True, duration_ms=0.1)
        report = CallReport("lookup", "text", True, "ok", 0.0001, None, None, tracker)
        api = otel.default_observer()
        assert api is not None
        sdk = otel.OtelObserver(MeterProvider(metric_readers=[InMemoryMetricReader()]), spans=True)
        tracer = TracerProvider().get_tracer("bench")

        def bare(report: CallReport) -> None:
            pass

        drained = math.inf

        def loop(fn: Callable[[CallReport], None]) -> float:
            nonlocal drained
            best = math.inf
            for _ in range(repeat):
                t0 = ns()
                for _ in range(number):
                    fn(report)
                best = min(best, (ns() - t0) / number)
                if sdk._pending:
                    t0 = ns()
                    sdk.record_pending()
                    drained = min(drained, (ns() - t0) / number)
            return best

        gc_was = gc.isenabled()
        gc.disable()
        try:
            figures = {"bare": loop(bare), "api": loop(api.call_finished), "sdk": loop(sdk.call_finished)}
            with tracer.start_as_current_span("tools/call lookup") as span:
                assert span.is_recording()
                figures["sdk_span"] = loop(sdk.call_finished)
        finally:
            if gc_was:
                gc.enable()
    finally:
        health.TOOLS = saved_tools
        repo.close()
    return {"number": number, "collection_per_call": round(drained, 1), **{k: round(v, 1) for k, v in figures.items()},
            **{f"{k}_own": round(v - figures["bare"], 1) for k, v in figures.items() if k != "bare"}}


def main(argv: list[str] | None = None) -> int:
    parser = argparse.ArgumentParser(description="What OpenTelemetry adds to a guarded tool call.")
    parser.add_argument("--json", action="store_true", help="print the figures as JSON")
    parser.add_argument("--quick", action="store_true", help="fewer repeats")
    args = parser.parse_args(argv)
    started = time.perf_counter()
    with tempfile.TemporaryDirectory(prefix="otel-bench-") as tmp:
        results: dict[str, Any] = {"python": platform.python_version(), "platform": platform.platform()}
        results["calls"] = bench_calls(args.quick, Path(tmp))
        results["observer"] = bench_observer(args.quick, Path(tmp))
    results["seconds"] = round(time.perf_counter() - started, 2)
    sdk_added = max(results["calls"][k]["sdk"]["wrapper_added_ns"] for k in ("sync", "async"))
    results["sdk_within_target"] = sdk_added <= SDK_TARGET_NS
    if args.json:
        print(json.dumps(results, indent=2))
        return 0
    print(f"OpenTelemetry on a guarded tool call: Python {results['python']} on {results['platform']}"
          f"{' (quick run)' if args.quick else ''}")
    for kind in ("sync", "async"):
        rows = results["calls"][kind]
        for way in WAYS:
            r = rows[way]
            print(f"  {kind:5} {way:4}  call over the in-memory transport {r['call_ns'] / 1000:7.1f} us "
                  f"({r['call_ratio'] - 1:+.1%} against none)   guard wrapper alone {r['wrapper_ns'] / 1000:5.2f} us "
                  f"({r['wrapper_added_ns'] / 1000:+.2f} us)")
    o = results["observer"]
    print(f"  call_finished alone: api {o['api_own']:.0f} ns, sdk {o['sdk_own'] / 1000:.2f} us, "
          f"sdk with a recording span {o['sdk_span_own'] / 1000:.2f} us (a bare call {o['bare']:.0f} ns); "
          f"later, at the collection, {o['collection_per_call'] / 1000:.2f} us per call on the reader's thread")
    verdict = "within" if results["sdk_within_target"] else "OVER"
    print(f"  the sdk adds at most {sdk_added / 1000:.2f} us to the guard's wrapper: {verdict} the "
          f"{SDK_TARGET_NS / 1000:.0f} us aimed at; total time {results['seconds']:.1f} s")
    return 0


if __name__ == "__main__":
    sys.exit(main())

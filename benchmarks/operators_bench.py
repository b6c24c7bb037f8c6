#!/usr/bin/env python3
"""What operators' decisions and hidden tools cost a tool call, in one run.

    python benchmarks/operators_bench.py [--json] [--quick]

The pipeline's own work per call (``begin`` then ``succeeded``, no transport) on a shared SQLite
store, in four pipelines that take turns, so that a busy moment on the machine hits them alike:

- ``plain``: no decisions, ``hide_disabled`` off (the baseline);
- ``hide``: ``hide_disabled`` on (nothing disabled: the call path checks one flag);
- ``decided``: 50 operator decisions in force for other tools (the call looks its tool up);
- ``decided+hide``: both.

Then, alone: the poll that each process runs after each sync (``DecisionStore.current`` with 50
decisions, on SQLite) and ``hidden_tools()`` with 200 tools, 20 of them disabled. Every figure is
the best of several repeats (time.perf_counter_ns); ratios are against ``plain`` in the same run.
"""
from __future__ import annotations

import argparse
import contextlib
import io
import json
import sys
import tempfile
import time
from pathlib import Path
from typing import Any

import anyio

from ordanis_veltrane.health_cli import main as health_main
from ordanis_veltrane.sharing.operators import DecisionStore
from ordanis_veltrane.tool_handlers import health
from ordanis_veltrane.tool_pipeline import ToolPipeline


def per_call_ns(pipeline: ToolPipeline, calls: int) -> float:
    begin = pipeline.begin
    started = time.perf_counter_ns()
    for _ in range(calls):
        begin("search", None).succeeded()
    return (time.perf_counter_ns() - started) / calls


def run(quick: bool, workdir: Path) -> dict[str, Any]:
    db = workdir / "bench.db"
    repeats, calls = (5, 2000) if quick else (15, 10000)
    ways = {"plain": {}, "hide": {"hide_disabled": True}, "decided": {}, "decided+hide": {"hide_disabled": True}}
    pipelines = {name: ToolPipeline(db, flush_interval=None, observers=[], **kw) for name, kw in ways.items()}
    for pipeline in pipelines.values():
        for tool in ("search", *(f"tool{i}" for i in range(200))):
            pipeline.tools.add(tool, None)
    best: dict[str, float] = {}
    figures: dict[str, Any] = {}

    async def measure() -> None:
        async with pipelines["plain"].runtime.running():
            # Decisions written by the command as an operator would, read by every pipeline's poll.
            with contextlib.redirect_stdout(io.StringIO()), contextlib.redirect_stderr(io.StringIO()):
                for i in range(50):
                    health_main(["--db", str(db), "disable", f"tool{i}", "--reason", "bench", "--by", "bench"])
            async with pipelines["hide"].runtime.running(), pipelines["decided"].runtime.running(), \
                    pipelines["decided+hide"].runtime.running():
                pipelines["plain"].operator_disabled = {}
                pipelines["hide"].operator_disabled = {}
                assert len(pipelines["decided"].operator_disabled) == 50
                for _ in range(repeats):
                    for name, pipeline in pipelines.items():
                        ns = per_call_ns(pipeline, calls)
                        best[name] = min(best.get(name, ns), ns)
                tracker = pipelines["decided+hide"].runtime.running_tracker()
                for i in range(180, 200):
                    for _ in range(tracker.limits.disable_after_errors):
                        tracker.record_error(f"tool{i}", "down")
                hidden = pipelines["decided+hide"].hidden_tools()
                assert len(hidden) == 70, len(hidden)
                hidden_ns = min(_timed(pipelines["decided+hide"].hidden_tools, 200) for _ in range(repeats))
                store = DecisionStore(db)
                poll_ns = min(_timed(store.current, 50) for _ in range(repeats))
                store.close()
                figures["hidden_tools_us"] = round(hidden_ns / 1000, 2)
                figures["poll_us"] = round(poll_ns / 1000, 1)

    anyio.run(measure)
    figures["per_call_ns"] = {name: round(ns) for name, ns in best.items()}
    figures["ratio_to_plain"] = {name: round(ns / best["plain"], 3) for name, ns in best.items()}
    return figures


def _timed(fn: Any, n: int) -> float:
    started = time.perf_counter_ns()
    for _ in range(n):
        fn()
    return (time.perf_counter_ns() - started) / n


def main(argv: list[str] | None = None) -> int:
    parser = argparse.ArgumentParser(description="What operators' decisions and hidden tools cost a tool call.")
    parser.add_argument("--json", action="store_true", help="print the figures as JSON")
    parser.add_argument("--quick", action="store_true", help="fewer repeats")
    args = parser.parse_args(argv)
    saved = health.TOOLS
    try:
        with tempfile.TemporaryDirectory() as tmp:
            figures = run(args.quick, Path(tmp))
    finally:
        health.TOOLS = saved
    if args.json:
        print(json.dumps(figures, indent=2))
    else:
        for name, ns in figures["per_call_ns"].items():
            print(f"{name:>14}: {ns:>7} ns per call  x{figures['ratio_to_plain'][name]:.3f}")
        print(f"hidden_tools() with 200 tools, 70 hidden: {figures['hidden_tools_us']} us")
        print(f"the decisions poll (SQLite, 50 decisions): {figures['poll_us']} us")
    return 0


if __name__ == "__main__":
    sys.exit(main())

"""What the proxy adds to a tool call, measured in one run against the same call made directly.

Over stdio, with the official SDK's client, one call (``get_current_time``) of mcp-server-time:

- ``direct``: to the server itself;
- ``health proxy``: through ``python -m ordanis_veltrane.mcp_proxy``;
- ``fastmcp proxy``: through FastMCP's own proxy (``create_proxy``), where FastMCP is installed.

The CPU time per call of the process the client starts (the server; or the proxy, without its downstream) is
measured too (Linux): unlike the latencies, the machine's other work hardly moves it.

Sessions of the variants alternate (a new random order each round, so that none always follows another); each
session makes ``--warmup`` calls, then times ``--calls`` calls one by one. A variant's p50 and p99 are those of its
best session (the one least disturbed by the other work on the machine) and the median over its sessions; each
ratio to ``direct`` is given for both.

    python benchmarks/proxy_bench.py [--sessions 5] [--calls 300] [--json]
"""
from __future__ import annotations

import argparse
import json
import os
import random
import statistics
import sys
import tempfile
import time
from contextlib import AsyncExitStack
from pathlib import Path

import anyio

TIME = [sys.executable, "-m", "mcp_server_time"]
ARGS = {"timezone": "UTC"}


def child_env() -> dict[str, str]:
    import ordanis_veltrane

    src = str(Path(ordanis_veltrane.__file__).resolve().parents[1])  # the package under test, installed or in place
    return {**os.environ, "PYTHONPATH": os.pathsep.join([src, *filter(None, [os.environ.get("PYTHONPATH")])])}


def serve_fastmcp_proxy() -> None:
    """The baseline: FastMCP's own proxy of the same server."""
    from fastmcp.client.transports import StdioTransport
    from fastmcp.server import create_proxy

    create_proxy(StdioTransport(TIME[0], TIME[1:], env=dict(os.environ), keep_alive=True),
                 name="baseline").run(show_banner=False)


def children_cpu() -> float:
    """CPU seconds (user and system) of this process's child processes so far (Linux; 0 elsewhere)."""
    total, ticks = 0.0, os.sysconf("SC_CLK_TCK") if hasattr(os, "sysconf") else 100
    for proc in Path("/proc").glob("[0-9]*"):
        try:
            fields = (proc / "stat").read_text().rsplit(")", 1)[1].split()
        except OSError:
            continue
        if int(fields[1]) == os.getpid():
            total += (int(fields[11]) + int(fields[12])) / ticks
    return total


async def session(command: list[str], warmup: int, calls: int, cpu: list[float]) -> list[float]:
    """Seconds per call of one new session; appends to ``cpu`` the CPU seconds per call of the process started."""
    from mcp import ClientSession, StdioServerParameters, stdio_client

    params = StdioServerParameters(command=command[0], args=command[1:], env=child_env())
    async with AsyncExitStack() as stack:
        read, write = await stack.enter_async_context(stdio_client(params, errlog=open(os.devnull, "w")))
        client = await stack.enter_async_context(ClientSession(read, write))
        await client.initialize()
        times = []
        for n in range(warmup + calls):
            if n == warmup:
                used = children_cpu()
            start = time.perf_counter()
            result = await client.call_tool("get_current_time", ARGS)
            if n >= warmup:
                times.append(time.perf_counter() - start)
            assert not result.is_error, result
        cpu.append((children_cpu() - used) / calls)
        return times


def quantile(samples: list[float], q: float) -> float:
    ordered = sorted(samples)
    return ordered[min(len(ordered) - 1, int(q * len(ordered)))]


async def measure(sessions: int, warmup: int, calls: int) -> tuple[dict[str, list[list[float]]],
                                                                 dict[str, list[float]]]:
    db = Path(tempfile.mkdtemp(prefix="proxy-bench-")) / "health.db"
    variants = {
        "direct": TIME,
        # A generous wait at initialize: a loaded machine may start the server slowly.
        "health proxy": [sys.executable, "-m", "ordanis_veltrane.mcp_proxy", "--db", str(db), "--init-timeout", "60",
                         "--", *TIME],
    }
    try:
        import fastmcp  # noqa: F401

        variants["fastmcp proxy"] = [sys.executable, __file__, "--serve-baseline"]
    except ImportError:
        pass
    samples: dict[str, list[list[float]]] = {name: [] for name in variants}
    cpu: dict[str, list[float]] = {name: [] for name in variants}
    names, order = list(variants), random.Random(1)
    for _ in range(sessions):
        order.shuffle(names)
        for name in names:
            samples[name].append(await session(variants[name], warmup, calls, cpu[name]))
    return samples, cpu


def main() -> None:
    parser = argparse.ArgumentParser(description=(__doc__ or "").splitlines()[0])
    parser.add_argument("--sessions", "--rounds", type=int, default=5, help="sessions per variant (default 5)")
    parser.add_argument("--calls", "--batch", type=int, default=300, help="timed calls per session (default 300)")
    parser.add_argument("--warmup", type=int, default=20)
    parser.add_argument("--json", action="store_true")
    parser.add_argument("--serve-baseline", action="store_true", help=argparse.SUPPRESS)
    args = parser.parse_args()
    if args.serve_baseline:
        serve_fastmcp_proxy()
        return
    samples, cpu = anyio.run(measure, args.sessions, args.warmup, args.calls)
    figures: dict[str, dict[str, float]] = {}
    for name, runs in samples.items():
        p50s, p99s = [quantile(r, 0.5) for r in runs], [quantile(r, 0.99) for r in runs]
        figures[name] = {"p50 best": min(p50s), "p50 median": statistics.median(p50s),
                         "p99 best": min(p99s), "p99 median": statistics.median(p99s),
                         "cpu median": statistics.median(cpu[name])}
    ratios = {name: {k: v / figures["direct"][k] for k, v in f.items() if k != "cpu median"}
              for name, f in figures.items() if name != "direct"}
    if args.json:
        print(json.dumps({"us_per_call": {n: {k: v * 1e6 for k, v in f.items()} for n, f in figures.items()},
                          "ratio_to_direct": ratios}, indent=2))
        return
    print(f"{args.sessions} sessions of {args.calls} calls per variant, alternating; microseconds per call")
    print(f"  {'':16s} {'p50 best':>10s} {'p50 median':>11s} {'p99 best':>10s} {'p99 median':>11s} "
          f"{'CPU of the process started':>27s}")
    for name, f in figures.items():
        print(f"  {name:16s} {f['p50 best'] * 1e6:10.0f} {f['p50 median'] * 1e6:11.0f} "
              f"{f['p99 best'] * 1e6:10.0f} {f['p99 median'] * 1e6:11.0f} {f['cpu median'] * 1e6:27.0f}")
    for name, r in ratios.items():
        print(f"  {name + ' / direct':30s} p50 {r['p50 best']:.3f} (median {r['p50 median']:.3f}), "
              f"p99 {r['p99 best']:.3f} (median {r['p99 median']:.3f})")


if __name__ == "__main__":
    main()

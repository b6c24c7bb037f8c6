"""What tool health costs in front of an MCP server, measured in one run against baselines.

Over stdio, with the official SDK's client, one call (``get_current_time``) of mcp-server-time:

- ``direct``: to the server itself;
- ``fastmcp proxy``: through FastMCP's proxy (``create_proxy``) with a middleware that only passes the call on;
- ``health proxy``: through ``python -m ordanis_veltrane.mcp_proxy``.

In one process, with FastMCP's in-memory client, one call of a trivial tool of a FastMCP server with and without
``ToolHealthMiddleware``.

The variants run in turns, in a new random order each round, each round timing a batch of calls per variant; the figure of a
variant is its best round (the least disturbed by the other work on the machine). Each ratio is given twice: of
the best rounds, and as the median of the ratios of the same rounds, which a drift in the machine's load moves
less.

    python benchmarks/proxy_bench.py [--rounds 30] [--batch 20] [--json]
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
from typing import Any, Awaitable, Callable

import anyio

TIME = [sys.executable, "-m", "mcp_server_time"]
ARGS = {"timezone": "UTC"}


def child_env() -> dict[str, str]:
    import ordanis_veltrane

    src = str(Path(ordanis_veltrane.__file__).resolve().parents[1])  # the package under test, installed or in place
    return {**os.environ, "PYTHONPATH": os.pathsep.join([src, *filter(None, [os.environ.get("PYTHONPATH")])])}


def serve_fastmcp_proxy() -> None:
    """The baseline proxy: FastMCP's own, with a middleware that passes every call on."""
    from fastmcp.client.transports import StdioTransport
    from fastmcp.server import create_proxy
    from fastmcp.server.middleware import Middleware

    class PassThrough(Middleware):
        async def on_call_tool(self, context: Any, call_next: Any) -> Any:
            return await call_next(context)

    proxy = create_proxy(StdioTransport(TIME[0], TIME[1:], env=dict(os.environ), keep_alive=True),
                         name="baseline", middleware=[PassThrough()])
    proxy.run(show_banner=False)


async def stdio_session(stack: AsyncExitStack, command: list[str]) -> Callable[[], Awaitable[Any]]:
    from mcp import ClientSession, StdioServerParameters, stdio_client

    params = StdioServerParameters(command=command[0], args=command[1:], env=child_env())
    read, write = await stack.enter_async_context(stdio_client(params, errlog=open(os.devnull, "w")))
    session = await stack.enter_async_context(ClientSession(read, write))
    await session.initialize()

    async def call() -> Any:
        result = await session.call_tool("get_current_time", ARGS)
        assert not result.is_error, result
        return result

    return call


async def in_process(stack: AsyncExitStack, db: Path | None) -> Callable[[], Awaitable[Any]]:
    from fastmcp import Client, FastMCP

    from ordanis_veltrane.fastmcp_health import ToolHealthMiddleware

    health = ToolHealthMiddleware(db, flush_interval=5.0) if db is not None else None
    server: FastMCP[Any] = FastMCP("bench", lifespan=health.lifespan if health else None,
                                   middleware=[health] if health else [])

    @server.tool
    def now(timezone: str) -> str:
        return f"12:00 in {timezone}"

    client = await stack.enter_async_context(Client(server))

    async def call() -> Any:
        return await client.call_tool("now", ARGS)

    return call


async def measure(rounds: int, batch: int) -> dict[str, list[float]]:
    tmp = Path(tempfile.mkdtemp(prefix="proxy-bench-"))
    async with AsyncExitStack() as stack:
        variants = {
            "direct": await stdio_session(stack, TIME),
            "fastmcp proxy": await stdio_session(stack, [sys.executable, __file__, "--serve-baseline"]),
            "health proxy": await stdio_session(stack, [sys.executable, "-m", "ordanis_veltrane.mcp_proxy", "--db",
                                                        str(tmp / "health.db"), "--", *TIME]),
            "in-process": await in_process(stack, None),
            "in-process + middleware": await in_process(stack, tmp / "inproc.db"),
        }
        for call in variants.values():  # warm up: connections, caches, the downstream's first answers
            for _ in range(batch):
                await call()
        times: dict[str, list[float]] = {name: [] for name in variants}
        names, order = list(variants), random.Random(1)
        for _ in range(rounds):
            order.shuffle(names)  # no variant always runs right after another (caches warmed by its neighbour)
            for name in names:
                call = variants[name]
                start = time.perf_counter()
                for _ in range(batch):
                    await call()
                times[name].append((time.perf_counter() - start) / batch)
        return times


async def own_work(db: Path, calls: int = 2000, repeats: int = 7) -> tuple[float, float]:
    """The middleware's own work: ``on_call_tool`` around a handler that answers at once, against a middleware
    that only passes the call on (seconds per call, best of the repeats)."""
    from fastmcp import FastMCP
    from fastmcp.server.middleware import Middleware, MiddlewareContext
    from fastmcp.tools.base import ToolResult
    from mcp.types import CallToolRequestParams

    from ordanis_veltrane.fastmcp_health import ToolHealthMiddleware

    server: FastMCP[Any] = FastMCP("bench")

    @server.tool
    def now(timezone: str) -> str:
        return timezone

    health, plain = ToolHealthMiddleware(db, flush_interval=None, call_timeout=60), Middleware()
    context: Any = MiddlewareContext(message=CallToolRequestParams(name="now", arguments=dict(ARGS)),
                                     method="tools/call")
    answer = ToolResult(content="12:00")

    async def call_next(_: Any) -> ToolResult:
        return answer

    best = {"health": float("inf"), "plain": float("inf")}
    async with health.running(server):
        for _ in range(repeats):
            for name, mw in (("health", health), ("plain", plain)):
                start = time.perf_counter()
                for _ in range(calls):
                    await mw.on_call_tool(context, call_next)  # type: ignore[arg-type]
                best[name] = min(best[name], (time.perf_counter() - start) / calls)
    return best["health"], best["plain"]


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--rounds", type=int, default=30)
    parser.add_argument("--batch", type=int, default=20)
    parser.add_argument("--json", action="store_true")
    parser.add_argument("--serve-baseline", action="store_true", help=argparse.SUPPRESS)
    args = parser.parse_args()
    if args.serve_baseline:
        serve_fastmcp_proxy()
        return
    times = anyio.run(measure, args.rounds, args.batch)
    best = {name: min(samples) for name, samples in times.items()}
    best["middleware's own work"], best["pass-through middleware"] = anyio.run(
        own_work, Path(tempfile.mkdtemp(prefix="proxy-bench-")) / "own.db")

    def ratio(name: str, base: str) -> tuple[float, float]:
        """Of the best rounds, and the median of the ratios of the same rounds (robust to drifts in load)."""
        return best[name] / best[base], statistics.median(a / b for a, b in zip(times[name], times[base]))

    ratios = {"health proxy / fastmcp proxy": ratio("health proxy", "fastmcp proxy"),
              "fastmcp proxy / direct": ratio("fastmcp proxy", "direct"),
              "middleware / in-process": ratio("in-process + middleware", "in-process")}
    if args.json:
        print(json.dumps({"us_per_call": {k: v * 1e6 for k, v in best.items()},
                          "ratios": {k: {"best": b, "median": m} for k, (b, m) in ratios.items()}}, indent=2))
        return
    print(f"best of {args.rounds} rounds of {args.batch} calls, microseconds per call")
    for name, seconds in best.items():
        print(f"  {name:26s} {seconds * 1e6:9.1f}")
    print("ratios: of the best rounds; median of the same rounds' ratios")
    for name, (of_best, median) in ratios.items():
        print(f"  {name:30s} {of_best:6.3f} ({(of_best - 1) * 100:+5.1f}%)  {median:6.3f} ({(median - 1) * 100:+5.1f}%)")


if __name__ == "__main__":
    main()

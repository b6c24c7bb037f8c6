"""A hostile client against the example server (or the proxy): many calls, each with a fresh ``action``,
then calls to made-up tool names, some of them 10,000 characters long or holding a NUL.

    python benchmarks/hostile_client.py                 # 20,000 calls, 300 made-up names
    python benchmarks/hostile_client.py --calls 2000 --json
    python benchmarks/hostile_client.py --server proxy  # the proxy in front of mcp-server-time

Drives ``python -m ordanis_veltrane.mcp_server`` (or ``python -m ordanis_veltrane.mcp_proxy`` in
front of ``mcp-server-time``) over stdio with the official SDK's client and reports what such a
client costs the server: its resident memory before and after, the size of the ``status`` and
``get_tool_performance_stats`` answers and of the usage document in the file, the rows of
``tool_health``, how long a ping sent right behind a ``status`` call waits, and whether every call
was counted. The bounds aimed at: at most 10 MB of growth, both answers under 256 KB, the ping
within 50 ms, the document under 512 KB, and the made-up names leaving at most one row (the
``(unknown)`` bucket, where the server counts them at all: the SDK refuses a call to a tool it
does not have before the guard sees it; the proxy counts every one of them in the bucket).
"""
from __future__ import annotations

import argparse
import importlib.util
import json
import os
import sqlite3
import sys
import tempfile
import time
from pathlib import Path
from typing import Any

if importlib.util.find_spec("ordanis_veltrane") is None:  # a checkout: the in-place build
    sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "src"))

import anyio
import ordanis_veltrane
from mcp import ClientSession, StdioServerParameters, stdio_client
from mcp.types import TextContent

try:
    from mcp.shared.exceptions import MCPError as RPC_ERRORS  # the SDK's name since 2.0
except ImportError:  # older SDKs
    from mcp.shared.exceptions import McpError as RPC_ERRORS  # type: ignore[attr-defined,no-redef]


def _server_pid() -> int:
    """The example server this process started (a child whose command line names it)."""
    me = os.getpid()
    for entry in Path("/proc").iterdir():
        if not entry.name.isdigit():
            continue
        try:
            ppid = int((entry / "stat").read_text().rsplit(")", 1)[1].split()[1])
            cmdline = (entry / "cmdline").read_bytes()
        except (OSError, IndexError, ValueError):
            continue
        if ppid == me and b"ordanis_veltrane.mcp_" in cmdline:
            return int(entry.name)
    raise RuntimeError("the server process was not found")


def _rss_mb(pid: int) -> float:
    for line in Path(f"/proc/{pid}/status").read_text().splitlines():
        if line.startswith("VmRSS:"):
            return int(line.split()[1]) / 1024
    raise RuntimeError("no VmRSS")


def _made_up(i: int) -> str:
    """The i-th made-up tool name: every 50th is 10,000 characters long, the one after it holds a NUL."""
    if i % 50 == 0:
        return f"{i:05d}" + "x" * 9995
    if i % 50 == 1:
        return f"made\x00up-{i}"
    return f"made-up-{i}"


async def _run(db: Path, calls: int, action_length: int, made_up: int, server: str) -> dict[str, Any]:
    # The package this script imports (installed, or the in-place build under src/) serves as well.
    env = {**os.environ, "PYTHONPATH": os.pathsep.join([str(Path(ordanis_veltrane.__file__).parents[1]), *sys.path])}
    if server == "proxy":
        # A generous wait at initialize: a loaded machine may start the downstream slowly.
        args = ["-m", "ordanis_veltrane.mcp_proxy", "--db", str(db), "--flush-interval", "1", "--init-timeout", "60",
                "--",
                sys.executable, "-m", "mcp_server_time"]
        tool, arguments = "get_current_time", lambda i: {"timezone": "UTC"}
    else:
        args = ["-m", "ordanis_veltrane.mcp_server", "--db", str(db), "--flush-interval", "1"]
        tool = "search"
        arguments = lambda i: {"query": "q", "action": f"{i:08d}-" + "a" * (action_length - 9)}  # noqa: E731
    params = StdioServerParameters(command=sys.executable, env=env, args=args)
    out: dict[str, Any] = {"server": server, "calls": calls, "made_up_calls": made_up}
    async with stdio_client(params, errlog=sys.stderr) as (read, write), ClientSession(read, write) as session:
        await session.initialize()
        await session.call_tool(tool, arguments(-1) if server == "proxy" else {"query": "warm", "action": "text"})
        pid = _server_pid()
        before = _rss_mb(pid)
        started = time.perf_counter()
        for i in range(calls):
            await session.call_tool(tool, arguments(i))
        out["calls_per_s"] = round(calls / (time.perf_counter() - started))
        refused = 0
        for i in range(made_up):
            try:
                refused += bool((await session.call_tool(_made_up(i), {})).is_error)
            except RPC_ERRORS:  # a downstream behind the proxy may answer an unknown tool with a JSON-RPC error
                refused += 1
        out["made_up_refused"] = refused
        await anyio.sleep(1.5)  # one periodic sync after the last call
        out["rss_before_mb"], out["rss_after_mb"] = round(before, 1), round(_rss_mb(pid), 1)

        waits: list[float] = []
        sizes: list[int] = []

        async def status() -> None:
            result = await session.call_tool("status", {})
            block = result.content[0]
            assert isinstance(block, TextContent)
            sizes.append(len(block.text.encode()))
            out["status"] = json.loads(block.text)

        for _ in range(5):
            async with anyio.create_task_group() as tg:
                tg.start_soon(status)
                await anyio.sleep(0)  # the status request goes out first
                t0 = time.perf_counter()
                await session.send_ping()
                waits.append((time.perf_counter() - t0) * 1000)
        out["status_bytes"] = max(sizes)
        stats = (await session.call_tool("get_tool_performance_stats", {})).content[0]
        assert isinstance(stats, TextContent)
        out["perf_stats_bytes"] = len(stats.text.encode())
        out["ping_behind_status_ms"] = round(max(waits), 1)
        found = next(t for t in out.pop("status")["tool_health"] if t["tool_name"] == tool)
        out["tool_call_count"] = found["call_count"]
    with sqlite3.connect(db) as conn:
        (doc,) = conn.execute("SELECT value FROM schema_info WHERE key = 'tool_usage'").fetchone()
        names = [row[0] for row in conn.execute("SELECT tool_name FROM tool_health")]
        unknown = conn.execute("SELECT call_count FROM tool_health WHERE tool_name = '(unknown)'").fetchone()
    out["usage_document_bytes"] = len(doc.encode())
    counted = sum(u["calls"] for u in json.loads(doc) if u["tool"] == tool)
    out["counted"] = counted
    out["tool_health_rows"] = len(names)
    out["longest_stored_name"] = max(map(len, names))
    out["unknown_bucket_calls"] = unknown[0] if unknown else 0
    expected_rows = {"proxy": {tool, "(unknown)"}, "example": {tool}}[server]
    out["made_up_rows_bounded"] = (set(names) - {"status", "get_tool_performance_stats"} == expected_rows
                                   and out["unknown_bucket_calls"] == (made_up if server == "proxy" else 0))
    out["every_call_counted"] = counted == calls + 1 and out["tool_call_count"] == calls + 1
    out["growth_mb"] = round(out["rss_after_mb"] - out["rss_before_mb"], 1)
    bounded = (out["every_call_counted"] and out["made_up_rows_bounded"] and out["status_bytes"] < 256 * 1024
               and out["perf_stats_bytes"] < 256 * 1024 and out["usage_document_bytes"] < 512 * 1024
               and out["made_up_refused"] == made_up)
    out["pass"] = bool(bounded and out["growth_mb"] <= 10 and out["ping_behind_status_ms"] <= 50)
    # The exit status says whether the calls were counted and the sizes bounded; the times are figures
    # of this run on this machine.
    out["bounded"] = bool(bounded)
    return out


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--calls", type=int, default=20_000)
    parser.add_argument("--action-length", type=int, default=50)
    parser.add_argument("--made-up", type=int, default=300, help="calls to made-up tool names")
    parser.add_argument("--server", choices=("example", "proxy"), default="example")
    parser.add_argument("--json", action="store_true")
    args = parser.parse_args()
    with tempfile.TemporaryDirectory() as tmp:
        out = anyio.run(_run, Path(tmp) / "repo.db", args.calls, args.action_length, args.made_up, args.server)
    if args.json:
        print(json.dumps(out))
    else:
        for key, value in out.items():
            print(f"{key:24} {value}")
    return 0 if out["bounded"] else 1


if __name__ == "__main__":
    sys.exit(main())

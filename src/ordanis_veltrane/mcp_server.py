"""An example MCP server over stdio with tool health in front of every tool.

Run ``python -m ordanis_veltrane.mcp_server --db PATH`` (needs the ``mcp`` extra). It serves
the stand-in registry's tools with their actions and synonyms (``search``, ``read_file``,
``list_files``, ``git``, ``index``, ``run_tests``; their handlers only describe what the
daemon would do), ``status`` and ``get_tool_performance_stats``, and ``always_fails``, which
raises on every call so that the disabling can be watched: after ``--disable-after`` errors
the client is told that the tool is disabled, with its last error, until ``--cooldown``
seconds have passed. The health history is kept in the SQLite file ``--db`` across restarts.
"""
from __future__ import annotations

import argparse
import itertools
import sys
from contextlib import asynccontextmanager
from typing import TYPE_CHECKING, AsyncIterator, Sequence

import anyio
from mcp.server.mcpserver import MCPServer

from ordanis_veltrane.cli import add_health_arguments, health_limits, health_thread_budget, serve_stdio, start_metrics
from ordanis_veltrane.mcp_guard import ToolGuard
from ordanis_veltrane.tool_registry import TOOLS, ActionSpec

if TYPE_CHECKING:
    from ordanis_veltrane.tool_handlers.health_metrics import MetricsServer


def _actions(tool: str) -> tuple[ActionSpec, ...]:
    spec = TOOLS.get(tool)
    return spec.actions if spec is not None else ()


def build_server(
    guard: ToolGuard, metrics: MetricsServer | None = None, stopped: anyio.Event | None = None
) -> MCPServer[ToolGuard]:
    """The example server: the stand-in tools, the status tools and ``always_fails``, all behind ``guard``.
    ``stopped`` is set once the guard has written its last changes at shutdown."""

    @asynccontextmanager
    async def lifespan(app: MCPServer[ToolGuard]) -> AsyncIterator[ToolGuard]:
        try:
            async with guard.running():
                if metrics is not None:
                    metrics.collector.tracker = guard.tracker
                try:
                    yield guard
                finally:
                    if metrics is not None:
                        metrics.collector.tracker = None
        finally:
            if stopped is not None:
                stopped.set()

    server: MCPServer[ToolGuard] = MCPServer(
        "ordanis-veltrane-example",
        instructions="Stand-in code tools with tool health: a tool that keeps failing is disabled for a while.",
        lifespan=lifespan,
    )

    @guard.tool(server, actions=_actions("search"))
    async def search(query: str, action: str = "text") -> str:
        """Search the repository: action text (synonym grep), symbol (sym) or semantic."""
        return f"{action} search for {query!r}: no matches in the stand-in index"

    @guard.tool(server)
    def read_file(path: str) -> str:
        """Read a file of the repository."""
        return f"(the stand-in repository has no file {path!r})"

    @guard.tool(server)
    def list_files(directory: str = ".") -> list[str]:
        """List the files of a directory of the repository."""
        return [f"{directory.rstrip('/')}/README.md", f"{directory.rstrip('/')}/src"]

    @guard.tool(server, actions=_actions("git"))
    def git(action: str = "log", ref: str = "HEAD") -> str:
        """Git history: action log, blame or diff (synonym changes)."""
        return f"git {action} {ref}: nothing in the stand-in repository"

    @guard.tool(server, actions=_actions("index"))
    async def index(action: str = "status") -> str:
        """The repository index: action status or rebuild (synonym reindex)."""
        return "index is up to date" if action == "status" else "index rebuild scheduled"

    @guard.tool(server, actions=_actions("run_tests"))
    def run_tests(action: str = "unit", pattern: str = "") -> str:
        """Run the repository's tests: action unit or integration."""
        return f"{action} tests matching {pattern!r}: 0 run"

    attempts = itertools.count(1)

    @guard.tool(server)
    def always_fails() -> str:
        """Fails on every call, to show a tool being disabled and enabled again."""
        raise RuntimeError(f"the backend is unreachable (attempt {next(attempts)})")

    guard.add_status_tools(server)
    return server


async def serve(guard: ToolGuard, metrics: MetricsServer | None = None) -> None:
    """Serves over stdio until stdin closes or SIGTERM/SIGINT; the final flush runs either way."""
    stopped = anyio.Event()
    server = build_server(guard, metrics, stopped)
    # Cancelling ends the calls in flight and the lifespan, whose final flush is shielded; the exit waits for it.
    await serve_stdio(server.run_stdio_async, stopped.wait)


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(prog="veltrane-example-server", description=__doc__.splitlines()[0])
    add_health_arguments(parser)
    return parser


def main(argv: Sequence[str] | None = None) -> int:
    parser = _parser()
    args = parser.parse_args(argv)
    # One budget for the status tool and the metrics: the threads this process starts.
    budget = health_thread_budget(args)
    guard = ToolGuard(args.db, health_limits(args), flush_interval=args.flush_interval or None, thread_budget=budget,
                      hide_disabled=args.hide_disabled, status_tools=args.status_tools)
    metrics = start_metrics(parser, args, budget)
    try:
        anyio.run(serve, guard, metrics)
    finally:
        if metrics is not None:
            metrics.close()
    return 0


if __name__ == "__main__":
    sys.exit(main())

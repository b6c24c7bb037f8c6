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
import math
import os
import signal
import sys
from contextlib import asynccontextmanager
from pathlib import Path
from typing import TYPE_CHECKING, AsyncIterator, Callable, Sequence

import anyio
from mcp.server.mcpserver import MCPServer

from ordanis_veltrane.config import ToolsConfig
from ordanis_veltrane.mcp_guard import ToolGuard
from ordanis_veltrane.status_answer import thread_budget
from ordanis_veltrane.tool_registry import TOOLS, ActionSpec

# Scrapes served at once by --metrics-port (the endpoint's default).
METRICS_CONNECTIONS = 8

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
    async with anyio.create_task_group() as tg:
        if sys.platform != "win32":

            async def stop_on_signal() -> None:
                with anyio.open_signal_receiver(signal.SIGTERM, signal.SIGINT) as signals:
                    async for _ in signals:
                        break
                # Cancelling ends the calls in flight and the lifespan, whose final flush is shielded. The
                # thread that reads stdin cannot be cancelled and would hold the exit until stdin closes,
                # so the process leaves as soon as the flush is done.
                tg.cancel_scope.cancel()
                with anyio.CancelScope(shield=True), anyio.move_on_after(30):
                    await stopped.wait()
                sys.stderr.flush()
                os._exit(0)

            tg.start_soon(stop_on_signal)
        await server.run_stdio_async()
        tg.cancel_scope.cancel()


def _database(text: str) -> str | Path:
    """--db: a postgresql:// URL as given, or a path; either is checked before anything is created."""
    from ordanis_veltrane.sharing import check_target, is_postgres_url

    try:
        check_target(text)
    except ValueError as exc:
        raise argparse.ArgumentTypeError(str(exc)) from None
    return text if is_postgres_url(text) else Path(text)


def _parser() -> argparse.ArgumentParser:
    def at_least(low: float, kind: Callable[[str], float], high: float = math.inf) -> Callable[[str], float]:
        def parse(text: str) -> float:
            value = kind(text)
            if not low <= value <= high:
                bounds = f"at least {low:g}" if high == math.inf else f"from {low:g} to {high:g}"
                raise argparse.ArgumentTypeError(f"must be {bounds}")
            return value

        parse.__name__ = kind.__name__  # argparse names it in "invalid int value"
        return parse

    parser = argparse.ArgumentParser(prog="python -m ordanis_veltrane.mcp_server", description=__doc__.splitlines()[0])
    parser.add_argument("--db", type=_database, required=True, metavar="PATH|URL",
                        help="the SQLite file (created if missing) or a postgresql:// URL that the tool health "
                             "is kept in and shared through with every server using it")
    parser.add_argument("--disable-after", type=at_least(1, int), metavar="N",
                        help=f"errors in a row that disable a tool (default {ToolsConfig.disable_after_errors})")
    parser.add_argument("--cooldown", type=at_least(0, float), metavar="SECONDS",
                        help=f"how long a tool stays disabled (default {ToolsConfig.disable_cooldown_s:g})")
    parser.add_argument("--flush-interval", type=at_least(0, float), default=5.0, metavar="S",
                        help="seconds between writes of the health to --db; 0: only at shutdown (default 5)")
    parser.add_argument("--metrics-port", type=at_least(0, int, 65535), metavar="N",
                        help="serve Prometheus metrics on 127.0.0.1:N (0 picks a free port; needs the metrics extra)")
    return parser


def main(argv: Sequence[str] | None = None) -> int:
    parser = _parser()
    args = parser.parse_args(argv)
    limits = ToolsConfig()
    if args.disable_after is not None:
        limits.disable_after_errors = int(args.disable_after)
    if args.cooldown is not None:
        limits.disable_cooldown_s = args.cooldown
    # One budget for the status tool and the metrics: the threads this process starts.
    budget = thread_budget(metrics=args.metrics_port is not None, max_connections=METRICS_CONNECTIONS)
    guard = ToolGuard(args.db, limits, flush_interval=args.flush_interval or None, thread_budget=budget)

    metrics: MetricsServer | None = None
    if args.metrics_port is not None:
        try:
            from ordanis_veltrane.tool_handlers.health_metrics import serve_metrics

            metrics = serve_metrics(None, int(args.metrics_port), thread_budget=budget,
                                    max_connections=METRICS_CONNECTIONS)
        except (ImportError, OSError) as exc:
            parser.error(f"cannot serve metrics: {exc}")
        # stdout carries the protocol; everything else goes to stderr.
        print(f"serving tool health metrics at {metrics.url}", file=sys.stderr, flush=True)
    try:
        anyio.run(serve, guard, metrics)
    finally:
        if metrics is not None:
            metrics.close()
    return 0


if __name__ == "__main__":
    sys.exit(main())

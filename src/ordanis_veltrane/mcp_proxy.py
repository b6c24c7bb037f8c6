"""Tool health in front of any MCP server: a stdio proxy over FastMCP's own.

Run ``python -m ordanis_veltrane.mcp_proxy --db PATH|URL [flags] -- COMMAND [ARGS...]`` (or
``-- https://host/mcp``). It serves over stdio every tool, resource and prompt of the downstream
server (started as COMMAND, or reached at the URL), with tool health in front of each tool: an
error (a raised one or an ``isError`` result) counts against the tool, and after ``--disable-after``
errors the client is told that the tool is disabled, with its last error, until ``--cooldown``
seconds have passed. It adds ``status`` and ``get_tool_performance_stats`` (as ``health_status``
and ``health_get_tool_performance_stats`` where the downstream has tools of those names). Each
request to the downstream has ``--call-timeout`` seconds; a downstream that does not start, dies
or stops answering is an error of the tool called, never a hang. Needs the ``fastmcp`` extra.
"""
from __future__ import annotations

import argparse
import logging
import os
import sys
from contextlib import asynccontextmanager
from typing import TYPE_CHECKING, Any, AsyncIterator, Sequence

import anyio

from ordanis_veltrane.cli import (
    add_health_arguments, at_least, health_limits, health_thread_budget, serve_stdio, start_metrics,
)
from ordanis_veltrane.fastmcp_health import ToolHealthMiddleware

try:
    from fastmcp import FastMCP
    from fastmcp.client.transports import ClientTransport, StdioTransport
    from fastmcp.exceptions import NotFoundError, ToolError
    from fastmcp.server import create_proxy
    from fastmcp.server.middleware import CallNext, Middleware, MiddlewareContext
    from fastmcp.server.providers import Provider
    from fastmcp.server.providers.proxy import ProxyMetadataMiddleware
    from mcp.shared.exceptions import MCPError
    from mcp.types import INTERNAL_ERROR
except ImportError as _missing:  # pragma: no cover - exercised where FastMCP is missing
    raise ImportError(
        "ordanis_veltrane.mcp_proxy needs FastMCP 4: install the 'fastmcp' extra "
        "(pip install 'ordanis-veltrane-health[fastmcp]', or pip install '.[fastmcp]' from a checkout)"
    ) from _missing

if TYPE_CHECKING:
    from ordanis_veltrane.tool_handlers.health_metrics import MetricsServer

__all__ = ["DEFAULT_CALL_TIMEOUT", "build_proxy", "downstream", "main", "serve"]

logger: logging.Logger = logging.getLogger(__name__)

DEFAULT_CALL_TIMEOUT = 60.0


class DownstreamErrors(Middleware):
    """Says plainly that the downstream server failed, and bounds every request other than a tool call
    (the health middleware, outside this one, bounds and counts those).

    A tool call that cannot reach the downstream (it did not start, or it died) becomes an error
    result of the tool, rather than "unknown tool" or a protocol error that reads as if the
    client's own connection had closed. A listing falls back to the proxy's own tools meanwhile.
    """

    def __init__(self, provider: Provider, seconds: float | None) -> None:
        self.provider = provider
        self.seconds = seconds

    async def _unreachable(self) -> BaseException | None:
        """The downstream's failure, where it cannot list its tools now."""
        try:
            with anyio.fail_after(self.seconds):
                await self.provider.list_tools()
        except Exception as exc:
            return exc
        return None

    async def on_call_tool(self, context: MiddlewareContext[Any], call_next: CallNext[Any, Any]) -> Any:
        try:
            return await call_next(context)
        except NotFoundError:
            failure = await self._unreachable()
            if failure is None:
                raise
            raise ToolError(f"the downstream server failed: {failure}") from failure
        except (MCPError, RuntimeError, OSError) as exc:
            raise ToolError(f"the downstream server failed: {exc}") from exc

    async def on_request(self, context: MiddlewareContext[Any], call_next: CallNext[Any, Any]) -> Any:
        if context.method == "tools/call" or self.seconds is None:
            return await call_next(context)
        with anyio.move_on_after(self.seconds) as deadline:
            return await call_next(context)
        assert deadline.cancelled_caught
        raise MCPError(code=INTERNAL_ERROR,
                       message=f"the downstream server did not answer {context.method} within {self.seconds:g} s")


class _Downstream(StdioTransport):
    """A command over stdio, kept running between calls and started again after it dies.

    Starting it is shielded from cancellation and bounded by ``start_timeout``: a start cut short
    would leave the kept-alive connection half made, and every later call would fail on it.
    """

    def __init__(self, command: str, args: list[str], start_timeout: float | None) -> None:
        super().__init__(command, args, env=dict(os.environ), keep_alive=True)
        self.start_timeout = start_timeout

    async def connect(self, **options: Any) -> Any:
        # Its failures are raised as the transport errors FastMCP's proxy expects of a backend it cannot reach, so
        # that it still answers the client's initialize (without the downstream's metadata).
        with anyio.CancelScope(shield=True):
            with anyio.move_on_after(self.start_timeout if self.start_timeout is not None else float("inf")) as start:
                try:
                    return await super().connect(**options)
                except OSError as exc:
                    raise anyio.BrokenResourceError(
                        f"the downstream server {self.command!r} could not be started: {exc}") from exc
            await self.disconnect()  # type: ignore[no-untyped-call]
        assert start.cancelled_caught
        raise TimeoutError(f"the downstream server {self.command!r} did not start within {self.start_timeout:g} s")


def downstream(command: Sequence[str], start_timeout: float | None = DEFAULT_CALL_TIMEOUT) -> ClientTransport | str:
    """The downstream server: an ``http(s)://`` URL, or a command run over stdio, with this process's
    environment, kept running between calls and started again after it dies."""
    if len(command) == 1 and command[0].startswith(("http://", "https://")):
        return command[0]
    return _Downstream(command[0], list(command[1:]), start_timeout)


def build_proxy(
    target: ClientTransport | str,
    health: ToolHealthMiddleware,
    *,
    metrics: MetricsServer | None = None,
    name: str = "ordanis-veltrane-proxy",
) -> FastMCP[Any]:
    """FastMCP's proxy of ``target`` with ``health`` in front of every tool and the status tools."""

    @asynccontextmanager
    async def lifespan(server: FastMCP[Any]) -> AsyncIterator[dict[str, Any]]:
        async with health.running(server) as tracker:
            if metrics is not None:
                metrics.collector.tracker = tracker
            try:
                yield {}
            finally:
                if metrics is not None:
                    metrics.collector.tracker = None
                if isinstance(target, ClientTransport):
                    with anyio.CancelScope(shield=True), anyio.move_on_after(10):
                        await target.close()  # type: ignore[no-untyped-call]

    proxy = create_proxy(target, name=name, lifespan=lifespan, middleware=[health])
    provider = next(m.provider for m in proxy.middleware if isinstance(m, ProxyMetadataMiddleware))
    proxy.middleware.insert(1, DownstreamErrors(provider, health.call_timeout))
    health.add_status_tools(proxy)
    return proxy


async def serve(proxy: FastMCP[Any], health: ToolHealthMiddleware) -> None:
    """Serves over stdio until stdin closes or SIGTERM/SIGINT; the health is written either way."""
    async def write_health() -> None:
        # FastMCP holds the lifespan open until stdin closes: the health is written here, not by the lifespan.
        try:
            await health.flush()
        except Exception as exc:
            logger.error("Could not write the tool health at exit: %s", exc)

    await serve_stdio(lambda: proxy.run_stdio_async(show_banner=False), write_health)


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(
        prog="python -m ordanis_veltrane.mcp_proxy", description=__doc__.splitlines()[0],
        usage="%(prog)s --db PATH|URL [options] -- COMMAND [ARGS...] | URL")
    add_health_arguments(parser)
    parser.add_argument("--call-timeout", type=at_least(0, float), default=DEFAULT_CALL_TIMEOUT, metavar="S",
                        help=f"seconds each request to the downstream may take; 0: no limit "
                             f"(default {DEFAULT_CALL_TIMEOUT:g})")
    parser.add_argument("downstream", nargs=argparse.REMAINDER, help="the downstream server's command, or its URL")
    return parser


def main(argv: Sequence[str] | None = None) -> int:
    parser = _parser()
    args = parser.parse_args(argv)
    command = list(args.downstream)
    if command[:1] == ["--"]:
        command = command[1:]
    if not command:
        parser.error("give the downstream server after --: a command and its arguments, or its URL")
    budget = health_thread_budget(args)
    health = ToolHealthMiddleware(args.db, health_limits(args), thread_budget=budget,
                                  flush_interval=args.flush_interval or None,
                                  call_timeout=args.call_timeout or None)
    metrics = start_metrics(parser, args, budget)

    async def run() -> None:
        await serve(build_proxy(downstream(command, args.call_timeout or None), health, metrics=metrics), health)

    try:
        anyio.run(run)
    finally:
        if metrics is not None:
            metrics.close()
    return 0


if __name__ == "__main__":
    sys.exit(main())

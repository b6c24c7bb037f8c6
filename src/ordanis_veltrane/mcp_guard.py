"""Tool health in front of the tools of an MCP server built with the official ``mcp`` SDK (2.x).

``ToolGuard`` registers tool functions on an ``MCPServer`` through a wrapper that runs the
tool-call pipeline (``ordanis_veltrane.tool_pipeline``) around each call: a disabled tool is
refused with an error result that gives its last error; a raised error or an error result is
recorded against the tool (unless it is the client's fault) and its text reaches the client;
every call is counted by action, outcome and synonym use, with the handler's time.

The guarded tools are the registry the tracker prunes against. The tracker lives while the
server's lifespan (``lifespan=guard.lifespan``) runs: it is opened on a worker thread at start,
flushed (or, on a shared store, synced) on a worker thread every ``flush_interval`` seconds and
once more at shutdown.

Needs the ``mcp`` extra: ``pip install '.[mcp]'``.
"""
from __future__ import annotations

import functools
import inspect
import logging
import os
import weakref
from contextlib import AbstractAsyncContextManager, asynccontextmanager
from typing import Any, AsyncIterator, Callable, Iterable, Sequence, TypeVar

try:
    from mcp.server.lowlevel.server import NotificationOptions
    from mcp.server.mcpserver import MCPServer
    from mcp.server.mcpserver.exceptions import ToolError
    from mcp.server.subscriptions import ToolsListChanged
    from mcp.shared.exceptions import MCPError
    from mcp.types import CallToolResult, ListToolsResult, TextContent
except ImportError as _missing:  # pragma: no cover - exercised where the SDK is missing
    raise ImportError(
        "ordanis_veltrane.mcp_guard needs the official MCP SDK: install the 'mcp' extra "
        "(pip install 'ordanis-veltrane-health[mcp]', or pip install '.[mcp]' from a checkout)"
    ) from _missing

from ordanis_veltrane.config import ToolsConfig
from ordanis_veltrane.repository import Repository
from ordanis_veltrane.tool_handlers import health
from ordanis_veltrane.tool_pipeline import (
    DEFAULT_MAX_ACTIONS, ActionSpec, CallObserver, PipelineTools, ToolCall, ToolPipeline, ToolRefused,
    ToolsChangedNotifier, make_limits,
)

__all__ = ["DEFAULT_THREAD_BUDGET", "ActionSpec", "GuardedTools", "ToolGuard", "ToolsConfig"]

logger: logging.Logger = logging.getLogger(__name__)

F = TypeVar("F", bound=Callable[..., Any])

# anyio's default pool of 40 worker threads, the main thread and a few of the runtime's own.
DEFAULT_THREAD_BUDGET = 48

GuardedTools = PipelineTools  # the registry a guard installs as health.TOOLS


def _is_async(fn: Callable[..., Any]) -> bool:
    while isinstance(fn, functools.partial):
        fn = fn.func
    return inspect.iscoroutinefunction(fn) or inspect.iscoroutinefunction(getattr(fn, "__call__", None))


def _error_text(result: CallToolResult) -> str:
    text = "\n".join(block.text for block in result.content if isinstance(block, TextContent))
    return text or "the tool returned an error result"


class _BusTarget:
    """A server's subscription bus, told like a connection."""

    def __init__(self, bus: Any) -> None:
        self.bus = bus

    async def send_tool_list_changed(self) -> None:
        await self.bus.publish(ToolsListChanged())


class ToolGuard:
    """A ``ToolHealthTracker`` in front of the tools registered through it.

    ``repository`` is a ``Repository`` of the host's (a plain tracker over it; the caller closes
    it), or the path of a SQLite file or a ``postgresql://`` URL: a store that every process
    serving the same tools shares (see the README). ``limits`` is the ``ToolsConfig``.
    ``flush_interval`` is the seconds between flushes (syncs) while the server runs (``None``:
    only at shutdown). ``thread_budget`` is the budget of the ``status`` tool's thread census.
    ``client_errors`` (exception types) and ``is_client_error`` (a predicate) name the failures
    that are the client's fault: they reach the client but never count towards disabling.
    ``max_actions`` bounds the distinct actions counted for a tool that declares none.
    ``observers`` are told of every finished call (default: OpenTelemetry's, where installed).
    ``disable_after_errors`` and ``cooldown_s`` override those of ``limits`` (or the defaults).
    ``hide_disabled`` leaves a disabled tool out of ``tools/list`` and sends the clients that listed
    the tools ``notifications/tools/list_changed`` when a tool goes or comes back. ``status_tools=False``
    makes ``add_status_tools`` register nothing.
    """

    def __init__(
        self,
        repository: Repository | str | os.PathLike[str],
        limits: ToolsConfig | None = None,
        *,
        flush_interval: float | None = 5.0,
        thread_budget: int = DEFAULT_THREAD_BUDGET,
        client_errors: Sequence[type[BaseException]] = (),
        is_client_error: Callable[[BaseException], bool] | None = None,
        max_actions: int = DEFAULT_MAX_ACTIONS,
        observers: Iterable[CallObserver] | None = None,
        disable_after_errors: int | None = None,
        cooldown_s: float | None = None,
        hide_disabled: bool = False,
        status_tools: bool = True,
    ) -> None:
        self.repository = repository
        self.pipeline = ToolPipeline(
            repository, make_limits(limits, disable_after_errors=disable_after_errors, cooldown_s=cooldown_s),
            flush_interval=flush_interval, thread_budget=thread_budget,
            client_errors=client_errors, is_client_error=is_client_error, max_actions=max_actions,
            observers=observers, hide_disabled=hide_disabled, status_tools=status_tools)
        self.limits: ToolsConfig = self.pipeline.runtime.limits
        self.registry: PipelineTools = self.pipeline.tools
        self._servers: weakref.WeakSet[MCPServer[Any]] = weakref.WeakSet()
        # The sessions that listed the tools, with their event loops: they are told when the list changes.
        self.notifier = ToolsChangedNotifier()
        self._buses: list[_BusTarget] = []
        self.pipeline.add_tools_changed_listener(self.notifier.notify)

    @property
    def tracker(self) -> health.ToolHealthTracker | None:
        """The live tracker; ``None`` while the server is not running."""
        return self.pipeline.tracker

    @property
    def flush_interval(self) -> float | None:
        return self.pipeline.runtime.flush_interval

    @property
    def thread_budget(self) -> int:
        return self.pipeline.thread_budget

    # ------------------------------------------------------------ registration

    def tool(
        self,
        server: MCPServer[Any],
        name: str | None = None,
        *,
        actions: Iterable[ActionSpec | str] | None = None,
        **options: Any,
    ) -> Callable[[F], F]:
        """Decorator: ``server.tool(name, **options)`` with the guard in front of the function."""

        def decorator(fn: F) -> F:
            self.add_tool(server, fn, name, actions=actions, **options)
            return fn

        return decorator

    def add_tool(
        self,
        server: MCPServer[Any],
        fn: Callable[..., Any],
        name: str | None = None,
        *,
        actions: Iterable[ActionSpec | str] | None = None,
        **options: Any,
    ) -> None:
        """Registers ``fn`` on ``server`` behind the guard.

        ``actions`` are the values the function's ``action`` argument may take, with their
        synonyms; the handler is given the action's own name when it was called by a
        synonym, and an action that does not resolve is counted under ``(other)``. Without
        ``actions`` every value counts as an action of the tool, up to ``max_actions``.
        """
        tool_name = name or fn.__name__
        self.registry.add(tool_name, actions)
        server.add_tool(self._guarded(tool_name, fn), name=tool_name, **options)
        if self.pipeline.hide_disabled and server not in self._servers:
            self._servers.add(server)
            self._filter_tools_list(server)

    def remove_tool(self, server: MCPServer[Any], name: str) -> None:
        """Removes the tool from the server and from the registry: its history goes at the next start."""
        server.remove_tool(name)
        self.registry.remove(name)

    def add_status_tools(self, server: MCPServer[Any]) -> None:
        """Registers the ``status`` and ``get_tool_performance_stats`` tools, guarded like the others
        (none where the guard was made with ``status_tools=False``)."""
        pipeline = self.pipeline
        if not pipeline.status_tools:
            return

        async def status() -> dict[str, Any]:
            """Tool health (calls, errors, disabled tools, usage per action) and the thread census."""
            return await pipeline.status()

        async def get_tool_performance_stats() -> dict[str, Any]:
            """Per-tool timing statistics: count, mean, p95, min, max and errors."""
            return await pipeline.performance_stats()

        self.add_tool(server, status)
        self.add_tool(server, get_tool_performance_stats)

    # ------------------------------------------------------------ what the model sees

    def _filter_tools_list(self, server: MCPServer[Any]) -> None:
        """Wraps the server's ``tools/list`` so that it leaves out the hidden tools and remembers the
        session that asked, and has the server announce that its tool list may change."""
        low = server._lowlevel_server
        entry = low.get_request_handler("tools/list")
        if entry is None:  # pragma: no cover - every MCPServer serves tools/list
            raise RuntimeError("the server has no tools/list handler to filter")
        inner = entry.handler
        pipeline, remember = self.pipeline, self.notifier.remember
        # Clients of the stateless protocol hear of changes through subscriptions/listen, fed by the server's bus.
        bus = _BusTarget(server._subscriptions)
        self._buses.append(bus)

        async def list_tools(ctx: Any, params: Any) -> Any:
            remember(ctx.session)
            remember(bus)
            result: Any = await inner(ctx, params)
            hidden = pipeline.hidden_tools()
            if hidden and isinstance(result, ListToolsResult):
                result = result.model_copy(update={"tools": [t for t in result.tools if t.name not in hidden]})
            return result

        low.add_request_handler("tools/list", entry.params_type, list_tools)
        create = low.create_initialization_options

        def with_tools_changed(notification_options: Any = None, *args: Any, **kwargs: Any) -> Any:
            options = notification_options or NotificationOptions()
            options.tools_changed = True
            return create(options, *args, **kwargs)

        low.create_initialization_options = with_tools_changed  # type: ignore[method-assign]

    # ------------------------------------------------------------ the call path

    def _begin(self, tool: str, kwargs: dict[str, Any] | None) -> ToolCall:
        try:
            return self.pipeline.begin(tool, kwargs)
        except ToolRefused as refused:
            raise ToolError(str(refused)) from None

    @staticmethod
    def _answered(call: ToolCall, result: Any) -> Any:
        if isinstance(result, CallToolResult) and result.is_error:
            call.failed(_error_text(result))
        else:
            call.succeeded()
        return result

    @staticmethod
    def _failed(tool: str, call: ToolCall, exc: Exception) -> Exception:
        """Records a raised error; answers what to raise so that the client sees its message."""
        call.raised(exc)
        if isinstance(exc, (ToolError, MCPError)):
            return exc
        # The SDK would show the client a bare "Error executing tool"; this text reaches it instead.
        logger.warning("Tool %r raised %s", tool, type(exc).__name__, exc_info=exc)
        return ToolError(str(exc) or type(exc).__name__)

    def _guarded(self, tool: str, fn: Callable[..., Any]) -> Callable[..., Any]:
        takes_action = "action" in inspect.signature(fn).parameters
        begin, answered, failed = self._begin, self._answered, self._failed

        if _is_async(fn):

            @functools.wraps(fn)
            async def guarded_async(*args: Any, **kwargs: Any) -> Any:
                call = begin(tool, kwargs if takes_action else None)
                try:
                    result = await fn(*args, **kwargs)
                except Exception as exc:
                    failure = failed(tool, call, exc)
                    if failure is exc:
                        raise
                    raise failure from exc
                except BaseException:
                    call.cancelled()
                    raise
                return answered(call, result)

            return guarded_async

        @functools.wraps(fn)
        def guarded(*args: Any, **kwargs: Any) -> Any:
            call = begin(tool, kwargs if takes_action else None)
            try:
                result = fn(*args, **kwargs)
            except Exception as exc:
                failure = failed(tool, call, exc)
                if failure is exc:
                    raise
                raise failure from exc
            except BaseException:
                call.cancelled()
                raise
            return answered(call, result)

        return guarded

    # ------------------------------------------------------------ lifecycle

    def lifespan(self, server: MCPServer[Any]) -> AbstractAsyncContextManager[ToolGuard]:
        """For ``MCPServer(..., lifespan=guard.lifespan)``."""
        return self.running()

    @asynccontextmanager
    async def running(self) -> AsyncIterator[ToolGuard]:
        """Keeps the tracker while it is entered (for a lifespan of your own).

        The SDK enters the lifespan once per connection: the first entry opens the tracker, the
        last exit flushes it and lets it go. Each entry runs a periodic flusher.
        """
        async with self.pipeline.runtime.running():
            yield self

    async def flush(self) -> int:
        """Writes what changed, on a worker thread; answers the rows written (0 when nothing changed)."""
        return await self.pipeline.runtime.flush()

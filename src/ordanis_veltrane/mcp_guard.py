"""Tool health in front of the tools of an MCP server built with the official ``mcp`` SDK (2.x).

``ToolGuard`` registers tool functions on an ``MCPServer`` through a wrapper that runs the
tool pipeline around each call:

1. ``is_disabled(tool)``: a disabled tool is refused with an error result that says so and
   gives its last error; the handler does not run and the call is counted with outcome
   ``"disabled"`` and no duration;
2. the handler runs (a sync one on a worker thread, as the SDK runs it);
3. ``record_success``, or ``record_error`` with the message when the handler raised or
   returned an error result (the client sees that message); then ``record_call`` with the
   action, the outcome, ``alias_hit`` and the handler's time, which also goes to the timing
   collector;
4. the call observers (``observers=``; by default the OpenTelemetry one of
   ``ordanis_veltrane.otel`` where ``opentelemetry`` is installed) get a report of the call.

The guarded tools are the registry the tracker prunes against: the guard installs it as
``health.TOOLS`` just before it constructs the tracker. The tracker lives while the server's
lifespan (``lifespan=guard.lifespan``) runs: it is constructed on a worker thread at start,
flushed on a worker thread every ``flush_interval`` seconds and once more at shutdown.

Needs the ``mcp`` extra: ``pip install '.[mcp]'``.
"""
from __future__ import annotations

import functools
import inspect
import logging
import os
import threading
import time
from contextlib import AbstractAsyncContextManager, asynccontextmanager
from typing import Any, AsyncIterator, Callable, Iterable, NamedTuple, Protocol, TypeVar, cast

try:
    import anyio
    import anyio.to_thread
    from mcp.server.mcpserver import MCPServer
    from mcp.server.mcpserver.exceptions import ToolError
    from mcp.shared.exceptions import MCPError
    from mcp.types import CallToolResult, TextContent
except ImportError as _missing:  # pragma: no cover - exercised where the SDK is missing
    raise ImportError(
        "ordanis_veltrane.mcp_guard needs the official MCP SDK: install the 'mcp' extra "
        "(pip install 'ordanis-veltrane-health[mcp]', or pip install '.[mcp]' from a checkout)"
    ) from _missing

from ordanis_veltrane.config import ToolsConfig
from ordanis_veltrane.repository import Repository
from ordanis_veltrane.tool_handlers import health
from ordanis_veltrane.tool_registry import ActionSpec, ToolSpec

__all__ = ["DEFAULT_THREAD_BUDGET", "CallObserver", "CallReport", "GuardedTools", "ToolGuard", "default_observers"]

logger: logging.Logger = logging.getLogger(__name__)

F = TypeVar("F", bound=Callable[..., Any])

# anyio's default pool of 40 worker threads, the main thread and a few of the runtime's own.
DEFAULT_THREAD_BUDGET = 48

# Installing the registry and constructing the tracker go together: another guard must not
# swap health.TOOLS in between.
_OPEN_LOCK = threading.Lock()


class OpenTool:
    """A tool that declares no actions: whatever action it is given is one of its own."""

    def __init__(self, name: str) -> None:
        self.name = name

    def action(self, name: str) -> ActionSpec | None:
        return ActionSpec(name)


class GuardedTools:
    """The guarded tools by name: the registry a guard installs as ``health.TOOLS``."""

    def __init__(self) -> None:
        self.specs: dict[str, ToolSpec | OpenTool] = {}

    def get(self, name: str) -> ToolSpec | OpenTool | None:
        return self.specs.get(name)

    def __contains__(self, name: object) -> bool:
        return name in self.specs


class _TimingRecorder(Protocol):
    def record(self, tool_name: str, duration_ms: float, error: bool = False) -> None: ...


class _Call(NamedTuple):
    tracker: health.ToolHealthTracker
    action: str | None
    alias_hit: bool


class CallReport(NamedTuple):
    """A finished call, as the call observers read it."""

    tool: str
    action: str | None
    alias_hit: bool
    outcome: str  # "ok" | "error" | "disabled" | "cancelled"
    duration_s: float
    error_type: str | None  # "tool_error" for an error result, the exception's type, "tool_disabled", "cancelled"
    error_message: str | None
    tracker: health.ToolHealthTracker


class CallObserver(Protocol):
    """Told of every finished call, on the thread the call ran on; must be cheap and must not raise."""

    def call_finished(self, report: CallReport) -> None: ...


def default_observers() -> list[CallObserver]:
    """The observers of a guard given none: the OpenTelemetry one where ``opentelemetry`` is installed."""
    try:
        from ordanis_veltrane import otel
    except ImportError:
        return []
    observer = otel.default_observer()
    return [] if observer is None else [observer]


def _is_async(fn: Callable[..., Any]) -> bool:
    while isinstance(fn, functools.partial):
        fn = fn.func
    return inspect.iscoroutinefunction(fn) or inspect.iscoroutinefunction(getattr(fn, "__call__", None))


def _error_text(result: CallToolResult) -> str:
    text = "\n".join(block.text for block in result.content if isinstance(block, TextContent))
    return text or "the tool returned an error result"


class ToolGuard:
    """A ``ToolHealthTracker`` in front of the tools registered through it.

    ``repository`` is a ``Repository`` (the caller closes it) or the path of its SQLite file
    (opened and closed by the guard). ``limits`` is the ``ToolsConfig``. ``flush_interval``
    is the seconds between flushes while the server runs (``None``: only at shutdown).
    ``thread_budget`` is the budget of the ``status`` tool's thread census.
    """

    def __init__(
        self,
        repository: Repository | str | os.PathLike[str],
        limits: ToolsConfig | None = None,
        *,
        flush_interval: float | None = 5.0,
        thread_budget: int = DEFAULT_THREAD_BUDGET,
        observers: Iterable[CallObserver] | None = None,
    ) -> None:
        self.repository = repository
        self.limits: ToolsConfig = limits if limits is not None else ToolsConfig()
        self.flush_interval = flush_interval
        self.thread_budget = thread_budget
        self.observers: list[CallObserver] = default_observers() if observers is None else list(observers)
        self.registry: GuardedTools = GuardedTools()
        self._tracker: health.ToolHealthTracker | None = None
        self._repo: Repository | None = None
        self._sessions = 0
        self._session_lock: anyio.Lock | None = None
        self._flush_limiter: anyio.CapacityLimiter | None = None

    @property
    def tracker(self) -> health.ToolHealthTracker | None:
        """The live tracker; ``None`` while the server is not running."""
        return self._tracker

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
        synonym. Without ``actions`` every value counts as an action of the tool.
        """
        tool_name = name or fn.__name__
        spec: ToolSpec | OpenTool
        if actions is None:
            spec = OpenTool(tool_name)
        else:
            spec = ToolSpec(tool_name, [a if isinstance(a, ActionSpec) else ActionSpec(a) for a in actions])
        self.registry.specs[tool_name] = spec
        server.add_tool(self._guarded(tool_name, spec, fn), name=tool_name, **options)

    def remove_tool(self, server: MCPServer[Any], name: str) -> None:
        """Removes the tool from the server and from the registry: its history goes at the next start."""
        server.remove_tool(name)
        self.registry.specs.pop(name, None)

    def add_status_tools(self, server: MCPServer[Any]) -> None:
        """Registers the ``status`` and ``get_tool_performance_stats`` tools, guarded like the others."""

        async def status() -> dict[str, Any]:
            """Tool health (calls, errors, disabled tools, usage per action) and the thread census."""
            tracker = self._running()
            census = await anyio.to_thread.run_sync(health.thread_census)
            return {
                "tool_health": tracker.get_health_summary(),
                "threads": health.thread_census_report(self.thread_budget, census),
            }

        async def get_tool_performance_stats() -> dict[str, Any]:
            """Per-tool timing statistics: count, mean, p95, min, max and errors."""
            # The collector sorts every duration it has kept, which grows with the calls served.
            return await anyio.to_thread.run_sync(health.handle_get_tool_performance_stats)

        self.add_tool(server, status)
        self.add_tool(server, get_tool_performance_stats)

    # ------------------------------------------------------------ the call path

    def _running(self) -> health.ToolHealthTracker:
        tracker = self._tracker
        if tracker is None:
            raise RuntimeError("tool health is not running: serve the server with lifespan=guard.lifespan")
        return tracker

    def _notify(self, tool: str, call: _Call, outcome: str, duration_s: float, error_type: str | None,
                error_message: str | None) -> None:
        report = CallReport(tool, call.action, call.alias_hit, outcome, duration_s, error_type, error_message,
                             call.tracker)
        for observer in self.observers:
            try:
                observer.call_finished(report)
            except Exception:
                logger.exception("A call observer failed")

    def _begin(self, tool: str, spec: ToolSpec | OpenTool, kwargs: dict[str, Any] | None) -> _Call:
        begun = time.perf_counter()
        tracker = self._running()
        action: str | None = None
        alias_hit = False
        if kwargs is not None and isinstance(kwargs.get("action"), str):
            action = kwargs["action"]
            found = spec.action(action)
            if found is not None and found.name != action:
                action, alias_hit = found.name, True
                kwargs["action"] = action
        disabled, last_error = tracker.is_disabled(tool)
        if disabled:
            tracker.record_call(tool, action, "disabled", alias_hit=alias_hit, duration_ms=None)
            if self.observers:
                self._notify(tool, _Call(tracker, action, alias_hit), "disabled", time.perf_counter() - begun,
                             "tool_disabled", last_error)
            raise ToolError(f"Tool {tool!r} is disabled after repeated errors; last error: {last_error}")
        return _Call(tracker, action, alias_hit)

    def _finish(self, tool: str, call: _Call, started: float, error: str | None, error_type: str | None = None) -> None:
        duration_ms = (time.perf_counter() - started) * 1000.0
        if error is None:
            call.tracker.record_success(tool)
        else:
            call.tracker.record_error(tool, error)
        outcome = "ok" if error is None else "error"
        call.tracker.record_call(tool, call.action, outcome, alias_hit=call.alias_hit, duration_ms=duration_ms)
        cast(_TimingRecorder, health.get_timing_collector()).record(tool, duration_ms, error=error is not None)
        if self.observers:
            self._notify(tool, call, outcome, duration_ms / 1000.0, error_type, error)

    def _answered(self, tool: str, call: _Call, started: float, result: Any) -> Any:
        error = _error_text(result) if isinstance(result, CallToolResult) and result.is_error else None
        self._finish(tool, call, started, error, None if error is None else "tool_error")
        return result

    def _failed(self, tool: str, call: _Call, started: float, exc: Exception) -> Exception:
        """Records a raised error; answers what to raise so that the client sees its message."""
        message = str(exc) or type(exc).__name__
        self._finish(tool, call, started, message, type(exc).__qualname__)
        if isinstance(exc, (ToolError, MCPError)):
            return exc
        # The SDK would show the client a bare "Error executing tool"; this text reaches it instead.
        logger.warning("Tool %r raised %s", tool, type(exc).__name__, exc_info=exc)
        return ToolError(message)

    def _cancelled(self, tool: str, call: _Call, started: float) -> None:
        # The handler gave no answer: counted without a duration, and not as an error.
        call.tracker.record_call(tool, call.action, "cancelled", alias_hit=call.alias_hit, duration_ms=None)
        if self.observers:
            self._notify(tool, call, "cancelled", time.perf_counter() - started, "cancelled", None)

    def _guarded(self, tool: str, spec: ToolSpec | OpenTool, fn: Callable[..., Any]) -> Callable[..., Any]:
        takes_action = "action" in inspect.signature(fn).parameters

        if _is_async(fn):

            @functools.wraps(fn)
            async def guarded_async(*args: Any, **kwargs: Any) -> Any:
                call = self._begin(tool, spec, kwargs if takes_action else None)
                started = time.perf_counter()
                try:
                    result = await fn(*args, **kwargs)
                except Exception as exc:
                    failure = self._failed(tool, call, started, exc)
                    if failure is exc:
                        raise
                    raise failure from exc
                except BaseException:
                    self._cancelled(tool, call, started)
                    raise
                return self._answered(tool, call, started, result)

            return guarded_async

        @functools.wraps(fn)
        def guarded(*args: Any, **kwargs: Any) -> Any:
            call = self._begin(tool, spec, kwargs if takes_action else None)
            started = time.perf_counter()
            try:
                result = fn(*args, **kwargs)
            except Exception as exc:
                failure = self._failed(tool, call, started, exc)
                if failure is exc:
                    raise
                raise failure from exc
            except BaseException:
                self._cancelled(tool, call, started)
                raise
            return self._answered(tool, call, started, result)

        return guarded

    # ------------------------------------------------------------ lifecycle

    def lifespan(self, server: MCPServer[Any]) -> AbstractAsyncContextManager[ToolGuard]:
        """For ``MCPServer(..., lifespan=guard.lifespan)``."""
        return self.running()

    @asynccontextmanager
    async def running(self) -> AsyncIterator[ToolGuard]:
        """Keeps the tracker while it is entered (for a lifespan of your own).

        The SDK enters the lifespan once per connection: the first entry constructs the
        tracker, the last exit flushes it and lets it go. Each entry runs a periodic flusher.
        """
        if self._session_lock is None:
            self._session_lock = anyio.Lock()
        async with self._session_lock:
            if self._sessions == 0:
                await self._start()
            self._sessions += 1
        try:
            async with anyio.create_task_group() as flushers:
                if self.flush_interval is not None and self.flush_interval > 0:
                    flushers.start_soon(self._flush_periodically, self.flush_interval)
                try:
                    yield self
                finally:
                    flushers.cancel_scope.cancel()
        finally:
            with anyio.CancelScope(shield=True):
                async with self._session_lock:
                    self._sessions -= 1
                    if self._sessions == 0:
                        await self._stop()

    async def flush(self) -> int:
        """Writes what changed, on a worker thread; answers the rows written (0 when nothing changed)."""
        tracker, limiter = self._running(), self._flush_limiter
        if not tracker.has_unsaved_changes:
            return 0
        return await anyio.to_thread.run_sync(tracker.flush, limiter=limiter)

    async def _flush_periodically(self, interval: float) -> None:
        while True:
            await anyio.sleep(interval)
            try:
                await self.flush()
            except Exception as exc:  # the changes stay marked; the next flush writes them
                logger.warning("Could not flush the tool health: %s", exc)

    def _open(self) -> tuple[health.ToolHealthTracker, Repository | None]:
        """Runs on a worker thread: opens the file when given a path, installs the registry and
        constructs the tracker (it reads the history and prunes the tools the registry lacks)."""
        opened: Repository | None = None
        if isinstance(self.repository, (str, os.PathLike)):
            repo = opened = Repository(os.fspath(self.repository))
        else:
            repo = self.repository
        try:
            with _OPEN_LOCK:
                health.TOOLS = self.registry
                return health.ToolHealthTracker(repo, self.limits), opened
        except BaseException:
            if opened is not None:
                opened.close()
            raise

    async def _start(self) -> None:
        self._flush_limiter = anyio.CapacityLimiter(1)
        self._tracker, self._repo = await anyio.to_thread.run_sync(self._open, limiter=self._flush_limiter)

    async def _stop(self) -> None:
        tracker, repo = self._tracker, self._repo
        self._tracker = self._repo = None
        try:
            if tracker is not None and tracker.has_unsaved_changes:
                await anyio.to_thread.run_sync(tracker.flush, limiter=self._flush_limiter)
        except Exception:
            logger.exception("Could not write the tool health at shutdown")
        finally:
            if repo is not None:
                await anyio.to_thread.run_sync(repo.close, limiter=self._flush_limiter)

"""The tool-call pipeline that every MCP adapter runs: the SDK guard, the FastMCP middleware and the proxy.

One call, whatever the adapter:

1. ``begin``: the action is resolved (a synonym to its action, an action that does not resolve, or
   one past the per-tool bound, to the bucket ``OTHER_ACTION``); a tool an operator disabled is
   refused with the operator's reason; then ``is_disabled(tool)``; a disabled tool is counted with
   outcome ``"disabled"`` and refused with ``ToolRefused``, whose text gives the last error;
2. the adapter runs the handler;
3. ``succeeded``, ``failed`` (an error result or a raised error) or ``cancelled``: ``record_success``
   or ``record_error``, then ``record_call`` with the action, the outcome, ``alias_hit`` and the
   handler's time, which also goes to the timing collector; then every call observer.

A failure that is the client's fault (``client_errors``/``is_client_error``) is not held against
the tool: it is recorded as a success of the tool, counted with outcome ``"client_error"``, and the
client still sees the error. The classification looks at the raised error and at every error in its
``__cause__`` chain, so that a framework that wraps the tool's own exception (FastMCP's ``ToolError``)
hides nothing.

A client chooses the tool names it calls, so only the names the server lists are counted under their
own name: a call to any other name is counted under the one bucket ``UNKNOWN_TOOL``, and a listed name
that no store can hold (longer than ``MAX_TOOL_NAME_LENGTH``, a NUL, a lone surrogate) under a bounded
form of it (``counted_tool_name``).

Operators' decisions (``veltrane-health disable``/``enable``, kept in a shared store) are read after
each sync, on the syncing worker thread. An operator's disable holds until it is lifted or ends,
whatever the tool's cooldown or successes; an enable newer than a disable by errors also resets
that tool's record here (under the tracker's lock, marked so that the next sync shares it).

With ``hide_disabled``, ``hidden_tools()`` names the disabled tools an adapter leaves out of
``tools/list``; the listeners added with ``add_tools_changed_listener`` are told when that set
changes (a disable at once; a cooldown that ends or another process's change at the next sync).

``HealthRuntime`` keeps the tracker's life: it installs the adapter's registry as
``health.TOOLS``, opens the tracker on a worker thread, syncs it every ``flush_interval`` seconds
on one worker thread at a time and closes it at shutdown. Nothing here blocks the event loop.
"""
from __future__ import annotations

import asyncio
import functools
import hashlib
import logging
import os
import threading
import time
import weakref
from contextlib import asynccontextmanager
from dataclasses import dataclass
from typing import Any, AsyncIterator, Callable, Iterable, Protocol, Sequence, Union

import anyio
import anyio.to_thread

from ordanis_veltrane.config import ToolsConfig
from ordanis_veltrane.repository import Repository
from ordanis_veltrane.sharing import HealthHandle, open_health
from ordanis_veltrane.sharing import check_target as check_store_target
from ordanis_veltrane.sharing.operators import Decision
from ordanis_veltrane.sharing.targets import redact_url
from ordanis_veltrane.tool_handlers import health
from ordanis_veltrane.tool_handlers.health_view import ServedCounts, serve_counts
from ordanis_veltrane.tool_registry import ActionSpec, ToolSpec

__all__ = [
    "DEFAULT_MAX_ACTIONS", "MAX_ACTION_LENGTH", "MAX_TOOL_NAME_LENGTH", "OTHER_ACTION", "UNKNOWN_TOOL",
    "ActionSpec", "CallObserver", "CallReport", "HealthHandle", "HealthRuntime", "OpenTool", "PipelineTools",
    "ToolCall", "ToolPipeline", "ToolRefused", "ToolsConfig", "ToolsChangedNotifier", "counted_tool_name",
    "default_observers", "make_limits",
]

logger: logging.Logger = logging.getLogger(__name__)

# The usage bucket of an action that does not resolve, or that comes past the per-tool bound. The
# registry answers it as an action of every tool, so the counts under it survive a restart.
OTHER_ACTION = "(other)"
# Longer action text is never stored: it is counted under OTHER_ACTION.
MAX_ACTION_LENGTH = 64
# Distinct actions counted per tool that declares none; the rest go to OTHER_ACTION.
DEFAULT_MAX_ACTIONS = 32
# The one name under which calls to tools the server does not list are counted.
UNKNOWN_TOOL = "(unknown)"
# Longer tool names are counted under a bounded form (counted_tool_name).
MAX_TOOL_NAME_LENGTH = 64

_OTHER = ActionSpec(OTHER_ACTION)
Target = Union[Repository, str, "os.PathLike[str]"]

# How soon the periodic syncer notices that a sync was asked for.
SYNC_SOON_S = 0.25

# Installing the registry and constructing the tracker go together: another runtime must not swap
# health.TOOLS in between.
_OPEN_LOCK = threading.Lock()


class _TimingRecorder(Protocol):
    def record(self, tool_name: str, duration_ms: float, error: bool = False) -> None: ...


# ---------------------------------------------------------------- names


def storable_text(text: str) -> bool:
    """Whether every store can hold `text`: no NUL, and nothing UTF-8 cannot carry (a lone surrogate)."""
    if "\x00" in text:
        return False
    if text.isascii():
        return True
    try:
        text.encode("utf-8")
    except UnicodeEncodeError:
        return False
    return True


def counted_tool_name(name: str) -> str:
    """The name a listed tool is counted and stored under: its own when a store can hold it and it has
    at most ``MAX_TOOL_NAME_LENGTH`` characters; otherwise its first characters, with the ones no store
    can hold replaced by U+FFFD, then ``~`` and 8 hex digits of a hash of the whole name, so that two
    tools never share a record and every process counts a tool under the same name."""
    if len(name) <= MAX_TOOL_NAME_LENGTH and storable_text(name):
        return name
    digest = hashlib.sha256(name.encode("utf-8", "surrogatepass")).hexdigest()[:8]
    head = "".join(c if c != "\x00" and not "\ud800" <= c <= "\udfff" else "\ufffd"
                   for c in name[:MAX_TOOL_NAME_LENGTH - 9])
    return f"{head}~{digest}"


# ---------------------------------------------------------------- the registry


class OpenTool:
    """A tool that declares no actions: whatever action it is given is one of its own."""

    def __init__(self, name: str) -> None:
        self.name = name

    def action(self, name: str) -> ActionSpec | None:
        return ActionSpec(name)


class _DeclaredTool:
    """A tool with declared actions, as the tracker sees it: its actions, their synonyms and the bucket."""

    def __init__(self, spec: ToolSpec) -> None:
        self.name = spec.name
        self.spec = spec

    def action(self, name: str) -> ActionSpec | None:
        found = self.spec.action(name)
        if found is None and name == OTHER_ACTION:
            return _OTHER
        return found


class PipelineTools:
    """The tools an adapter serves, by name: the registry the runtime installs as ``health.TOOLS``."""

    def __init__(self) -> None:
        self.specs: dict[str, ToolSpec | OpenTool] = {}
        # listed name -> the name it is counted under (itself, unless it is too long or unstorable)
        self.counted: dict[str, str] = {}
        # by counted name: what the tracker sees
        self._seen: dict[str, _DeclaredTool | OpenTool] = {UNKNOWN_TOOL: OpenTool(UNKNOWN_TOOL)}
        # Set while the adapter could not read its tool list: every tool then answers as an open
        # one, so that opening the tracker prunes no history.
        self.keep_unknown = False

    def add(self, name: str, actions: Iterable[ActionSpec | str] | None) -> ToolSpec | OpenTool:
        spec: ToolSpec | OpenTool
        if actions is None:
            spec = OpenTool(name)
        else:
            spec = ToolSpec(name, [a if isinstance(a, ActionSpec) else ActionSpec(a) for a in actions])
        counted = counted_tool_name(name)
        self.specs[name] = spec
        self.counted[name] = counted
        self._seen[counted] = spec if isinstance(spec, OpenTool) else _DeclaredTool(spec)
        return spec

    def remove(self, name: str) -> None:
        self.specs.pop(name, None)
        counted = self.counted.pop(name, None)
        if counted is not None and counted != UNKNOWN_TOOL:
            self._seen.pop(counted, None)

    def get(self, name: str) -> _DeclaredTool | OpenTool | None:
        found = self._seen.get(name)
        if found is None and self.keep_unknown:
            return OpenTool(name)
        return found

    def __contains__(self, name: object) -> bool:
        return name in self.specs

    def __iter__(self) -> Any:
        return iter(list(self.specs))

    def __len__(self) -> int:
        return len(self.specs)


# ---------------------------------------------------------------- observers


@dataclass
class CallReport:
    """One finished call, as the observers see it."""

    tool: str
    action: str | None
    alias_hit: bool
    outcome: str  # "ok" | "error" | "client_error" | "disabled" | "cancelled"
    duration_s: float
    error_type: str | None  # None; "tool_error"; the exception's type; "tool_disabled"; "cancelled"
    error_message: str | None
    tracker: health.ToolHealthTracker


class CallObserver(Protocol):
    def call_finished(self, report: CallReport) -> None: ...


def _always() -> bool:
    return True


def default_observers() -> list[CallObserver]:
    """The observers an adapter uses when its host names none: OpenTelemetry's, where its API is installed."""
    try:
        import opentelemetry  # noqa: F401
    except ImportError:
        return []
    try:
        from ordanis_veltrane.otel import default_observer
    except ImportError:
        return []
    observer = default_observer()
    return [] if observer is None else [observer]


def make_limits(limits: ToolsConfig | None = None, *, disable_after_errors: int | None = None,
                cooldown_s: float | None = None) -> ToolsConfig:
    """The ``ToolsConfig`` to use: ``limits`` itself where no flat keyword overrides it (the tracker reads
    it at each use, so a host may change it while serving), else a new one; the caller's is never changed."""
    if limits is not None and not all(hasattr(limits, a) for a in ("disable_after_errors", "disable_cooldown_s")):
        raise TypeError(f"limits must be a ToolsConfig, not {type(limits).__name__}")
    if disable_after_errors is not None and (isinstance(disable_after_errors, bool)
                                             or not isinstance(disable_after_errors, int) or disable_after_errors < 1):
        raise ValueError(f"disable_after_errors must be a whole number of at least 1, not {disable_after_errors!r}")
    if cooldown_s is not None and (isinstance(cooldown_s, bool) or not isinstance(cooldown_s, (int, float))
                                   or not 0 <= cooldown_s < float("inf")):
        raise ValueError(f"cooldown_s must be a number of seconds of at least 0, not {cooldown_s!r}")
    base = limits if limits is not None else ToolsConfig()
    if disable_after_errors is None and cooldown_s is None:
        return base
    return ToolsConfig(base.disable_after_errors if disable_after_errors is None else disable_after_errors,
                       base.disable_cooldown_s if cooldown_s is None else float(cooldown_s))


# ---------------------------------------------------------------- the health handle


def open_handle(target: Target, limits: ToolsConfig) -> HealthHandle:
    """A ``Repository`` is the host's own: a plain tracker over it. A path or a URL is a store that
    every process serving the same tools shares."""
    return open_health(target, limits)


def check_target(target: Target) -> None:
    """Fails now, with a clear message, where a path or URL cannot be a store; creates nothing."""
    if not isinstance(target, Repository):
        check_store_target(target)


# ---------------------------------------------------------------- the runtime


class HealthRuntime:
    """The tracker's life: opened at the first ``running()`` entry, synced while entered, closed at the last exit."""

    def __init__(
        self,
        target: Target,
        limits: ToolsConfig | None = None,
        *,
        registry: Any,
        flush_interval: float | None = 5.0,
        opener: Callable[[Target, ToolsConfig], HealthHandle] = open_handle,
    ) -> None:
        self.target = target
        self.limits: ToolsConfig = limits if limits is not None else ToolsConfig()
        self.registry = registry
        self.flush_interval = flush_interval
        self._opener = opener
        self.handle: HealthHandle | None = None
        self.tracker: health.ToolHealthTracker | None = None
        self._sessions = 0
        self._session_lock: anyio.Lock | None = None
        self._limiter: anyio.CapacityLimiter | None = None
        self.started: list[Callable[[health.ToolHealthTracker], None]] = []
        # Run on the syncing worker thread after each sync (and once after opening): each one's failure
        # is logged and leaves the others running.
        self.after_sync: list[Callable[[], None]] = []
        self.closed: list[Callable[[], None]] = []  # run on the closing worker thread, after the last sync
        self._sync_soon = False

    def running_tracker(self) -> health.ToolHealthTracker:
        tracker = self.tracker
        if tracker is None:
            raise RuntimeError("tool health is not running: serve the server with the guard's lifespan")
        return tracker

    @asynccontextmanager
    async def running(self) -> AsyncIterator[health.ToolHealthTracker]:
        """Keeps the tracker while entered; overlapping entries (one per connection) share it."""
        if self._session_lock is None:
            self._session_lock = anyio.Lock()
        async with self._session_lock:
            if self._sessions == 0:
                await self._start()
            self._sessions += 1
        try:
            async with anyio.create_task_group() as syncers:
                if self.flush_interval is not None and self.flush_interval > 0:
                    syncers.start_soon(self._sync_periodically, self.flush_interval)
                try:
                    yield self.running_tracker()
                finally:
                    syncers.cancel_scope.cancel()
        finally:
            with anyio.CancelScope(shield=True):
                async with self._session_lock:
                    self._sessions -= 1
                    if self._sessions == 0:
                        await self._stop()

    async def flush(self) -> int:
        """Writes what changed (shared: exchanges it with the store) on a worker thread; answers the rows written."""
        handle = self.handle
        if handle is None:
            self.running_tracker()
            return 0
        return await anyio.to_thread.run_sync(self._sync_then_hooks, handle, limiter=self._limiter)

    def _sync_then_hooks(self, handle: HealthHandle) -> int:
        try:
            return handle.sync()
        finally:
            self._run_after_sync()

    def _run_after_sync(self) -> None:
        for hook in self.after_sync:
            try:
                hook()
            except Exception:
                logger.exception("A tool health hook failed after a sync")

    def sync_soon(self) -> None:
        """Asks for a sync within ``SYNC_SOON_S`` rather than at the end of the period (a tool was just
        disabled: on a shared store the other processes learn it one period sooner). Any thread."""
        self._sync_soon = True

    async def _sync_periodically(self, interval: float) -> None:
        due = anyio.current_time() + interval
        while True:
            await anyio.sleep(max(0.0, min(SYNC_SOON_S, due - anyio.current_time())))
            if not self._sync_soon and anyio.current_time() < due:
                continue
            self._sync_soon = False
            due = anyio.current_time() + interval
            try:
                await self.flush()
            except Exception as exc:  # the changes stay marked; the next sync writes them
                logger.warning("Could not flush the tool health: %s", redact_url(exc))

    def _open(self) -> HealthHandle:
        with _OPEN_LOCK:
            health.TOOLS = self.registry
            handle = self._opener(self.target, self.limits)
        self.handle, self.tracker = handle, handle.tracker
        self._run_after_sync()  # the hooks see the first sync's state before the first call
        return handle

    async def _start(self) -> None:
        self._limiter = anyio.CapacityLimiter(1)
        handle = await anyio.to_thread.run_sync(self._open, limiter=self._limiter)
        self.handle, self.tracker = handle, handle.tracker
        for hook in self.started:
            hook(handle.tracker)

    async def _stop(self) -> None:
        handle = self.handle
        self.handle = self.tracker = None
        if handle is None:
            return
        try:
            await anyio.to_thread.run_sync(self._close, handle, limiter=self._limiter)
        except Exception as exc:  # the text only: a password in it is masked, as nowhere in a traceback
            logger.error("Could not write the tool health at shutdown: %s", redact_url(exc))

    def _close(self, handle: HealthHandle) -> None:
        try:
            handle.close()
        finally:
            for hook in self.closed:
                try:
                    hook()
                except Exception:
                    logger.exception("A tool health hook failed at shutdown")


# ---------------------------------------------------------------- one call


class ToolRefused(Exception):
    """The tool is disabled: the call was counted and its handler must not run."""


class ToolCall:
    """A call under way: what ``begin`` resolved, and when the handler started."""

    __slots__ = ("pipeline", "tracker", "tool", "action", "alias_hit", "started")

    def __init__(self, pipeline: ToolPipeline, tracker: health.ToolHealthTracker, tool: str, action: str | None,
                 alias_hit: bool, started: float) -> None:
        self.pipeline = pipeline
        self.tracker = tracker
        self.tool = tool
        self.action = action
        self.alias_hit = alias_hit
        self.started = started

    def succeeded(self) -> None:
        self.pipeline._finish(self, None, None, False)

    def failed(self, message: str, error_type: str = "tool_error", *, client: bool = False) -> None:
        """The handler answered an error result (``tool_error``), or raised (its type's name); ``client``
        says the failure is the client's fault (bad input), which is never held against the tool."""
        self.pipeline._finish(self, message, error_type, client)

    def raised(self, exc: BaseException) -> bool:
        """Records a raised error; answers whether it was the client's fault."""
        client = self.pipeline.is_client_error(exc)
        self.pipeline._finish(self, str(exc) or type(exc).__name__, type(exc).__qualname__, client)
        return client

    def cancelled(self) -> None:
        # The handler gave no answer: counted without a duration, and neither a success nor an error.
        pipeline = self.pipeline
        self.tracker.record_call(self.tool, self.action, "cancelled", alias_hit=self.alias_hit, duration_ms=None)
        pipeline.served.add(self.tool, self.action, "cancelled", self.alias_hit)
        if pipeline.observers:
            pipeline._report(self, "cancelled", time.perf_counter() - self.started, "cancelled", None)


class ToolPipeline:
    """Tool health in front of a server's tools; adapters call ``begin`` and then one of the call's endings."""

    def __init__(
        self,
        target: Target,
        limits: ToolsConfig | None = None,
        *,
        flush_interval: float | None = 5.0,
        thread_budget: int = 48,
        client_errors: Sequence[type[BaseException]] = (),
        is_client_error: Callable[[BaseException], bool] | None = None,
        max_actions: int = DEFAULT_MAX_ACTIONS,
        observers: Iterable[CallObserver] | None = None,
        opener: Callable[[Target, ToolsConfig], HealthHandle] = open_handle,
        hide_disabled: bool = False,
        status_tools: bool = True,
    ) -> None:
        if max_actions < 0:
            raise ValueError(f"max_actions must be at least 0, not {max_actions}")
        if not isinstance(target, Repository):
            check_target(target)
        self.tools = PipelineTools()
        self.runtime = HealthRuntime(target, limits, registry=self.tools, flush_interval=flush_interval, opener=opener)
        self.runtime.started.append(self._seed_actions)
        # The calls this process served, for its metrics (a shared tracker counts every process's).
        self.served = ServedCounts()
        self.runtime.started.append(lambda tracker: serve_counts(tracker, self.served))
        self.thread_budget = thread_budget
        self.client_errors = tuple(client_errors)
        self._client_predicate = is_client_error
        self.max_actions = max_actions
        self.observers: list[CallObserver] = list(default_observers() if observers is None else observers)
        # An observer may say, cheaply, that a report would change nothing (`active()`): then none is built.
        self._observed = [(o, getattr(o, "active", _always)) for o in self.observers]
        self._actions_seen: dict[str, set[str]] = {}
        self._actions_lock = threading.Lock()
        self._init_visibility(hide_disabled, status_tools)
        self._init_operators(target)

    @property
    def tracker(self) -> health.ToolHealthTracker | None:
        return self.runtime.tracker

    # -- classification

    def is_client_error(self, exc: BaseException) -> bool:
        """Whether `exc`, or an error in its ``__cause__`` chain (the tool's own, where a framework wrapped
        it), is one that ``client_errors`` or ``is_client_error`` name as the client's fault."""
        types, predicate = self.client_errors, self._client_predicate
        seen: list[BaseException] = []
        link: BaseException | None = exc
        while link is not None and len(seen) < 16 and not any(link is s for s in seen):
            if types and isinstance(link, types):
                return True
            if predicate is not None and predicate(link):
                return True
            seen.append(link)
            link = link.__cause__
        return False

    def _seed_actions(self, tracker: health.ToolHealthTracker) -> None:
        """The actions already counted (loaded history) count against the per-tool bound."""
        lock = tracker._lock
        lock.acquire()
        try:
            keys = list(tracker._usage)
        finally:
            lock.release()
        seen: dict[str, set[str]] = {}
        for key in keys:
            tool, action = key[0], key[1]
            if (isinstance(action, str) and action != OTHER_ACTION and tool != UNKNOWN_TOOL
                    and isinstance(self.tools._seen.get(tool), OpenTool)):
                seen.setdefault(tool, set()).add(action)
        with self._actions_lock:
            self._actions_seen = seen

    def _open_action(self, tool: str, action: str) -> str:
        seen = self._actions_seen.get(tool)
        if seen is not None and action in seen:
            return action
        if len(action) > MAX_ACTION_LENGTH or not storable_text(action):
            return OTHER_ACTION
        with self._actions_lock:
            seen = self._actions_seen.setdefault(tool, set())
            if action in seen:
                return action
            if len(seen) >= self.max_actions:
                return OTHER_ACTION
            seen.add(action)
            return action

    def resolve_action(self, tool: str, raw: Any) -> tuple[str | None, str | None, bool]:
        """(action counted, action the handler gets, alias_hit) for the value a client sent as ``action``."""
        if not isinstance(raw, str):
            return None, raw, False
        spec = self.tools.specs.get(tool)
        if spec is None:
            return None, raw, False  # a tool the server does not list: its actions are not counted
        if isinstance(spec, OpenTool):
            return self._open_action(self.tools.counted.get(tool, tool), raw), raw, False
        found = spec.action(raw)
        if found is None:
            return OTHER_ACTION, raw, False
        return found.name, found.name, found.name != raw

    # -- one call

    def begin(self, tool: str, arguments: dict[str, Any] | None) -> ToolCall:
        """Resolves the action (rewriting a synonym in ``arguments``) and refuses a disabled tool. A tool
        the registry does not list is counted under ``UNKNOWN_TOOL`` (see ``_unlisted``); a listed one
        under its counted name."""
        tracker = self.runtime.running_tracker()
        listed = tool
        counted = self.tools.counted.get(listed)
        tool = counted if counted is not None else self._unlisted(tracker, listed)
        action: str | None = None
        alias_hit = False
        if arguments is not None and "action" in arguments:
            action, handler_action, alias_hit = self.resolve_action(listed, arguments["action"])
            if alias_hit:
                arguments["action"] = handler_action
        started = time.perf_counter()
        if self.operator_disabled:
            decision = self.operator_disabled.get(tool)
            if decision is not None and decision.active(time.time()):
                self._refuse(tracker, tool, action, alias_hit, started, decision.reason, decision.refusal(tool))
        disabled, last_error = tracker.is_disabled(tool)
        if disabled:
            self._refuse(tracker, tool, action, alias_hit, started, last_error,
                         f"Tool {tool!r} is disabled after repeated errors; last error: {last_error}")
        return ToolCall(self, tracker, tool, action, alias_hit, time.perf_counter())

    def _refuse(self, tracker: health.ToolHealthTracker, tool: str, action: str | None, alias_hit: bool,
                started: float, cause: str | None, message: str) -> None:
        tracker.record_call(tool, action, "disabled", alias_hit=alias_hit, duration_ms=None)
        self.served.add(tool, action, "disabled", alias_hit)
        if self.observers:
            call = ToolCall(self, tracker, tool, action, alias_hit, started)
            self._report(call, "disabled", time.perf_counter() - started, "tool_disabled", cause)
        raise ToolRefused(message)

    def _unlisted(self, tracker: health.ToolHealthTracker, name: str) -> str:
        """The name a call to a tool the registry does not list is counted under: the bucket, unless the
        adapter could not read its tool list and the history knows the tool (a downstream that is down)."""
        if self.tools.keep_unknown:
            counted = counted_tool_name(name)
            if counted in tracker._state:
                return counted
        return UNKNOWN_TOOL

    def _finish(self, call: ToolCall, error: str | None, error_type: str | None, client: bool) -> None:
        elapsed = time.perf_counter() - call.started
        duration_ms = elapsed * 1000.0
        tracker, tool = call.tracker, call.tool
        if error is None or client:
            tracker.record_success(tool)
        else:
            tracker.record_error(tool, error)
            state = tracker._state.get(tool)
            if state is not None and state.disabled_at is not None:
                self.runtime.sync_soon()
                if self.hide_disabled:
                    self.check_tools_changed()
        outcome = "ok" if error is None else "client_error" if client else "error"
        tracker.record_call(tool, call.action, outcome, alias_hit=call.alias_hit, duration_ms=duration_ms)
        self.served.add(tool, call.action, outcome, call.alias_hit)
        collector: _TimingRecorder = health.get_timing_collector()  # type: ignore[assignment]
        collector.record(tool, duration_ms, error=error is not None)
        if self.observers:
            self._report(call, outcome, elapsed, error_type, error)

    def _report(self, call: ToolCall, outcome: str, elapsed: float, error_type: str | None,
                message: str | None) -> None:
        report: CallReport | None = None
        for observer, active in self._observed:
            try:
                if not active():
                    continue
                if report is None:
                    report = CallReport(call.tool, call.action, call.alias_hit, outcome, elapsed, error_type,
                                        message, call.tracker)
                observer.call_finished(report)
            except Exception:
                logger.exception("A tool-call observer failed")

    # -- the status tools

    async def status(self) -> dict[str, Any]:
        """The ``status`` answer, built and bounded on a worker thread."""
        tracker = self.runtime.running_tracker()
        from ordanis_veltrane.status_answer import build_status

        return await anyio.to_thread.run_sync(build_status, tracker, self.thread_budget)

    async def performance_stats(self) -> dict[str, Any]:
        """The ``get_tool_performance_stats`` answer, bounded like ``status``, on a worker thread."""
        self.runtime.running_tracker()
        from ordanis_veltrane.status_answer import bound_performance_stats

        def answer() -> dict[str, Any]:
            return bound_performance_stats(health.handle_get_tool_performance_stats())

        return await anyio.to_thread.run_sync(answer)

    # -- what the model sees: tools left out of tools/list, and the listeners told when that changes

    def _init_visibility(self, hide_disabled: bool, status_tools: bool) -> None:
        self.hide_disabled = bool(hide_disabled)
        self.status_tools = bool(status_tools)
        self._listeners: list[Callable[[], None]] = []
        self._hidden_lock = threading.Lock()
        self._hidden: frozenset[str] = frozenset()
        # A cooldown that runs out, or a change another process made, shows at the next sync.
        self.runtime.after_sync.append(self._after_sync)

    def hidden_tools(self) -> frozenset[str]:
        """The tools to leave out of ``tools/list`` now: every disabled one where ``hide_disabled`` is
        set (by its errors, within its cooldown, or by an operator); otherwise none."""
        if not self.hide_disabled:
            return frozenset()
        now = time.time()
        hidden = {tool for tool, decision in self.operator_disabled.items() if decision.active(now)}
        tracker = self.runtime.tracker
        if tracker is not None:
            cooldown = tracker.cooldown_s
            lock = tracker._lock
            lock.acquire()
            try:
                for name, record in tracker._state.items():
                    disabled_at = record.disabled_at
                    if disabled_at is not None and now - disabled_at < cooldown:
                        hidden.add(name)
            finally:
                lock.release()
        return frozenset(hidden)

    def add_tools_changed_listener(self, callback: Callable[[], None]) -> None:
        """``callback()`` runs whenever ``hidden_tools()`` changes: a tool disabled, or back after its
        cooldown, a success or an operator's decision. It runs on any thread, never under a lock, and
        must not block (an adapter schedules its notification on its event loop)."""
        self._listeners.append(callback)

    def check_tools_changed(self) -> bool:
        """Compares ``hidden_tools()`` with what it was at the last check; tells the listeners when it
        changed and answers whether it did."""
        hidden = self.hidden_tools()
        with self._hidden_lock:
            if hidden == self._hidden:
                return False
            self._hidden = hidden
        for listener in list(self._listeners):
            try:
                listener()
            except Exception:
                logger.exception("A tools-changed listener failed")
        return True

    def _after_sync(self) -> None:
        self._poll_operators()
        if self.hide_disabled:
            self.check_tools_changed()

    # -- operators' decisions, read from a shared store after each sync

    def _init_operators(self, target: Target) -> None:
        from ordanis_veltrane.sharing.operators import DecisionStore

        # The latest decision of each tool, and the disables among them (possibly ended: see ``active``).
        self.operator_decisions: dict[str, Decision] = {}
        self.operator_disabled: dict[str, Decision] = {}
        # A host's own Repository is nobody else's: no operator can reach it.
        self._decisions = None if isinstance(target, Repository) else DecisionStore(target, borrow=self._on_store)
        self._decisions_failing = False
        self.runtime.closed.append(self._close_operators)

    def _on_store(self, work: Callable[[Any], Any]) -> Any:
        """The decisions are read on the sync's own connection where the store is PostgreSQL."""
        run = getattr(self.runtime.handle, "run_on_store", None)
        if run is None:
            raise LookupError("no shared handle open")
        return run(work)

    def _poll_operators(self) -> None:
        store = self._decisions
        if store is None:
            return
        try:
            decisions = store.current(local_clock=True)
        except Exception as exc:  # the decisions known stay in force until the store answers again
            if not self._decisions_failing:
                self._decisions_failing = True
                logger.warning("Could not read the operators' decisions from %s: %s", store.description, exc)
            return
        if self._decisions_failing:
            self._decisions_failing = False
            logger.warning("The operators' decisions can be read from %s again", store.description)
        self.operator_decisions = decisions
        self.operator_disabled = {tool: d for tool, d in decisions.items() if d.decision == "disable"}
        enables = {tool: d.at for tool, d in decisions.items() if d.decision == "enable"}
        if enables:
            self._reset_disabled(enables)

    def _reset_disabled(self, enabled_at: dict[str, float]) -> None:
        """An operator's enable clears a disable by errors that is older than it: the record is reset
        here and marked, and the sync carries the enable (stamped now, so it is the newest) to the store."""
        tracker = self.runtime.tracker
        if tracker is None:
            return
        now = time.time()
        lock = tracker._lock
        lock.acquire()
        try:
            for tool, at in enabled_at.items():
                record = tracker._state.get(tool)
                if record is not None and record.disabled_at is not None and record.disabled_at <= at:
                    record.disabled_at = None
                    record.consecutive_errors = 0
                    record.updated_at = max(now, record.updated_at)
                    tracker._dirty.add(tool)
        finally:
            lock.release()

    def _close_operators(self) -> None:
        if self._decisions is not None:
            self._decisions.close()


class ToolsChangedNotifier:
    """The client connections that listed the tools, each with its event loop; ``notify()``, from any
    thread, schedules ``notifications/tools/list_changed`` to each live one. A connection that has
    gone is forgotten. Register ``notify`` with ``ToolPipeline.add_tools_changed_listener``."""

    def __init__(self) -> None:
        self._targets: dict[int, tuple[weakref.ref[Any], asyncio.AbstractEventLoop]] = {}
        self._lock = threading.Lock()

    def remember(self, session: Any) -> None:
        """On the event loop, while serving ``tools/list``: ``session`` has ``send_tool_list_changed()``.
        The SDK's session object lives for one request; the connection under it lasts with the client."""
        target = getattr(session, "_connection", session)
        key = id(target)
        with self._lock:
            known = self._targets.get(key)
            if known is None or known[0]() is not target:
                if len(self._targets) >= 64:  # connections that have gone since the last change
                    self._targets = {k: v for k, v in self._targets.items() if v[0]() is not None}
                self._targets[key] = (weakref.ref(target), asyncio.get_running_loop())

    def notify(self) -> None:
        with self._lock:
            targets = list(self._targets.items())
        for key, (ref, loop) in targets:
            target = ref()
            try:
                if target is None or loop.is_closed():
                    raise RuntimeError("the connection has gone")
                future = asyncio.run_coroutine_threadsafe(target.send_tool_list_changed(), loop)
            except RuntimeError:
                self._forget(key)
                continue
            future.add_done_callback(functools.partial(self._sent, key))

    def _sent(self, key: int, future: Any) -> None:
        if future.cancelled() or future.exception() is not None:
            logger.debug("Could not send tools/list_changed: %r", None if future.cancelled() else future.exception())
            self._forget(key)

    def _forget(self, key: int) -> None:
        with self._lock:
            self._targets.pop(key, None)

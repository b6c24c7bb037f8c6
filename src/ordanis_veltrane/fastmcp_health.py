"""Tool health for a FastMCP (4.x) server: a middleware that runs every tool call through the tool-call pipeline.

``ToolHealthMiddleware`` sits in the server's middleware chain, so every tool the server serves
passes through it: its own, those of mounted servers and those of a proxied server. A disabled
tool is refused with an error that gives its last error; a raised error or an ``isError`` result
is recorded against the tool and reaches the client unchanged; FastMCP's own rejection of the
arguments (and a call to a tool that does not exist) is the client's fault and never counts
against the tool. ``client_errors``/``is_client_error`` see the tool's own exception: FastMCP
wraps it in a ``ToolError`` whose ``__cause__`` it is, and the whole chain is looked at. A call
to a name the server does not list is counted under the one bucket ``(unknown)``.

``mcp.add_middleware(ToolHealthMiddleware(db="health.db", disable_after_errors=3, cooldown_s=60))``
is enough: the tracker starts with the server's first message and lives until the server's event
loop ends. Served with ``FastMCP(..., lifespan=health.lifespan)`` instead, it lives with the
server's lifespan. Either way, at start the middleware reads the server's tool list (mounted and
proxied tools included) into the registry the tracker prunes against, adds the status tools
(unless ``status_tools=False``), then opens the tracker on a worker thread; it is synced every
``flush_interval`` seconds and closed at shutdown.

Needs the ``fastmcp`` extra: ``pip install '.[fastmcp]'``.
"""
from __future__ import annotations

import asyncio
import logging
import os
from contextlib import asynccontextmanager
from typing import Any, AsyncIterator, Callable, Iterable, Sequence

import anyio

try:
    import pydantic
    from fastmcp import FastMCP
    from fastmcp.exceptions import NotFoundError, ToolError, ValidationError
    from fastmcp.server.lifespan import ContextManagerLifespan
    from fastmcp.server.middleware import CallNext, Middleware, MiddlewareContext
    from fastmcp.server.middleware.tool_injection import ToolInjectionMiddleware
    from fastmcp.tools.base import Tool, ToolResult
    from mcp.types import TextContent
except ImportError as _missing:  # pragma: no cover - exercised where FastMCP is missing
    raise ImportError(
        "ordanis_veltrane.fastmcp_health needs FastMCP 4: install the 'fastmcp' extra "
        "(pip install 'ordanis-veltrane-health[fastmcp]', or pip install '.[fastmcp]' from a checkout)"
    ) from _missing

from ordanis_veltrane.config import ToolsConfig
from ordanis_veltrane.repository import Repository
from ordanis_veltrane.tool_handlers import health
from ordanis_veltrane.tool_pipeline import (
    DEFAULT_MAX_ACTIONS, CallObserver, ToolPipeline, ToolRefused, ToolsChangedNotifier, make_limits,
)

__all__ = ["CLIENT_ERRORS", "STATUS_TOOLS", "ToolHealthMiddleware", "ToolsConfig", "declared_actions"]

logger: logging.Logger = logging.getLogger(__name__)

# FastMCP's own rejections of a call: arguments that fail the tool's schema, a tool that does not exist.
CLIENT_ERRORS: tuple[type[BaseException], ...] = (ValidationError, pydantic.ValidationError, NotFoundError)
STATUS_TOOLS = ("status", "get_tool_performance_stats")


def declared_actions(parameters: dict[str, Any]) -> tuple[bool, list[str] | None]:
    """(whether the tool takes ``action``, its actions): the ``enum`` of the ``action`` parameter's
    JSON schema (also under one level of ``anyOf``); ``None`` where it has none (an open tool)."""
    properties = parameters.get("properties")
    schema = properties.get("action") if isinstance(properties, dict) else None
    if not isinstance(schema, dict):
        return False, None
    for candidate in [schema, *(s for s in schema.get("anyOf", ()) if isinstance(s, dict))]:
        enum = candidate.get("enum")
        if isinstance(enum, list) and enum and all(isinstance(v, str) for v in enum):
            return True, list(enum)
    return True, None


def _error_text(result: ToolResult) -> str:
    text = "\n".join(block.text for block in result.content if isinstance(block, TextContent))
    return text or "the tool returned an error result"


class ToolHealthMiddleware(Middleware):
    """A ``ToolHealthTracker`` in front of every tool of the FastMCP server it is added to.

    ``db`` is a ``Repository`` of the host's, or the path of a SQLite file or a ``postgresql://``
    URL (a store that every process serving the same tools shares). ``limits`` is the
    ``ToolsConfig``. ``client_errors``/``is_client_error`` name further failures that are the
    client's fault (FastMCP's argument validation and unknown tools always are). ``call_timeout``
    (seconds) bounds each call: a call that takes longer is ended and recorded as an error of
    the tool. ``disable_after_errors`` and ``cooldown_s`` override those of ``limits`` (or the
    defaults). ``hide_disabled`` leaves a disabled tool out of ``tools/list`` and sends the clients
    that listed the tools ``notifications/tools/list_changed`` when a tool goes or comes back.
    ``status_tools=False`` serves no status tools. ``mcp.add_middleware(middleware)`` alone is
    enough; ``lifespan=middleware.lifespan`` (composable with ``|``) ties the tracker to the lifespan.
    A ``db`` that cannot be a store fails here, before the server starts.
    """

    def __init__(
        self,
        db: Repository | str | os.PathLike[str] | None = None,
        limits: ToolsConfig | None = None,
        *,
        flush_interval: float | None = 5.0,
        thread_budget: int = 48,
        client_errors: Sequence[type[BaseException]] = (),
        is_client_error: Callable[[BaseException], bool] | None = None,
        max_actions: int = DEFAULT_MAX_ACTIONS,
        observers: Iterable[CallObserver] | None = None,
        call_timeout: float | None = None,
        disable_after_errors: int | None = None,
        cooldown_s: float | None = None,
        hide_disabled: bool = False,
        status_tools: bool = True,
    ) -> None:
        if db is None:
            raise TypeError("ToolHealthMiddleware needs db=: the path of a SQLite file (created if missing) or a "
                            "postgresql:// URL where the tool health is kept, "
                            "e.g. ToolHealthMiddleware(db='health.db')")
        if call_timeout is not None and not call_timeout > 0:
            raise ValueError(f"call_timeout must be a number of seconds above 0, not {call_timeout!r}")
        self.pipeline = ToolPipeline(
            db, make_limits(limits, disable_after_errors=disable_after_errors, cooldown_s=cooldown_s),
            flush_interval=flush_interval, thread_budget=thread_budget,
            client_errors=(*CLIENT_ERRORS, *client_errors), is_client_error=is_client_error,
            max_actions=max_actions, observers=observers, hide_disabled=hide_disabled, status_tools=status_tools)
        self.call_timeout = call_timeout
        self._start_lock: asyncio.Lock | None = None
        self._holder: asyncio.Task[None] | None = None
        self.notifier = ToolsChangedNotifier()
        self.pipeline.add_tools_changed_listener(self.notifier.notify)
        self.lifespan = ContextManagerLifespan(self._lifespan)
        self.status_tool_names: dict[str, str] = {}  # status tool -> the name it is served under
        self._status_servers: list[tuple[FastMCP[Any], str]] = []
        self._takes_action: set[str] = set()
        self._server: FastMCP[Any] | None = None

    @property
    def tracker(self) -> health.ToolHealthTracker | None:
        """The live tracker; ``None`` while the server is not running."""
        return self.pipeline.tracker

    # ------------------------------------------------------------ status tools

    def add_status_tools(self, server: FastMCP[Any], *, collision_prefix: str = "health_") -> None:
        """Serves ``status`` and ``get_tool_performance_stats`` on ``server`` from its next start.

        They never shadow a tool of the server: where the server (or a server it mounts or
        proxies) has a tool of that name at start, they are served as ``collision_prefix + name``.
        Without a call, they are served on the server the middleware starts with; with
        ``status_tools=False``, nowhere.
        """
        if self.pipeline.status_tools:
            self._status_servers.append((server, collision_prefix))

    def _install_status_tools(self, server: FastMCP[Any], prefix: str, taken: set[str]) -> list[str]:
        pipeline, added = self.pipeline, []

        async def status() -> dict[str, Any]:
            """Tool health (calls, errors, disabled tools, usage per action) and the thread census."""
            return await pipeline.status()

        async def get_tool_performance_stats() -> dict[str, Any]:
            """Per-tool timing statistics: count, mean, p95, min, max and errors."""
            return await pipeline.performance_stats()

        injected = []
        for fn in (status, get_tool_performance_stats):
            name = self.status_tool_names.get(fn.__name__)
            if name is None:  # decided once, at the first start
                name = fn.__name__ if fn.__name__ not in taken else prefix + fn.__name__
                self.status_tool_names[fn.__name__] = name
                injected.append(Tool.from_function(fn, name=name))
            added.append(name)
        if injected:
            # Injected, not registered: they answer even while a provider of the server (a proxied
            # server that is down) cannot be reached.
            server.add_middleware(ToolInjectionMiddleware(injected))
        return added

    # ------------------------------------------------------------ lifecycle

    async def _read_tools(self, server: FastMCP[Any]) -> None:
        """Fills the registry from the server's tool list; where the list cannot be read (a proxied
        server that does not start), it prunes nothing this time."""
        registry = self.pipeline.tools
        strategy = server.provider_error_strategy
        server.provider_error_strategy = "raise"  # a provider that fails must not read as one without tools
        try:
            with anyio.fail_after(self.call_timeout):
                tools = list(await server.list_tools(run_middleware=False))
        except Exception as exc:
            logger.warning("Could not read the tool list of %r, so no tool history is pruned: %s", server.name, exc)
            registry.keep_unknown = True
            tools = []
        else:
            registry.keep_unknown = False
        finally:
            server.provider_error_strategy = strategy
        taken = {tool.name for tool in tools}
        for name in list(registry):
            registry.remove(name)
        self._takes_action.clear()
        for tool in tools:
            takes_action, actions = declared_actions(tool.parameters)
            registry.add(tool.name, actions)
            if takes_action:
                self._takes_action.add(tool.name)
        if self.pipeline.status_tools and not self._status_servers:
            self._status_servers.append((server, "health_"))
        for status_server, prefix in self._status_servers:
            for name in self._install_status_tools(status_server, prefix, taken - set(self.status_tool_names.values())):
                registry.add(name, None)

    @asynccontextmanager
    async def _lifespan(self, server: FastMCP[Any]) -> AsyncIterator[dict[str, Any]]:
        # FastMCP closes the lifespans inside a cancel scope of its own, so a lifespan must hold no task
        # group across its yield: the runtime (and its periodic syncer) lives in a task of its own.
        self._server = server
        if self.pipeline.runtime.tracker is None:
            await self._read_tools(server)
        ready, stop = anyio.Event(), anyio.Event()

        async def hold() -> None:
            try:
                async with self.pipeline.runtime.running():
                    ready.set()
                    await stop.wait()
            finally:
                ready.set()

        holder = asyncio.get_running_loop().create_task(hold())
        try:
            await ready.wait()
            if holder.done():
                holder.result()  # opening failed: its error
            yield {}
        finally:
            stop.set()
            with anyio.CancelScope(shield=True):
                await asyncio.wait({holder})
    @asynccontextmanager
    async def running(self, server: FastMCP[Any]) -> AsyncIterator[health.ToolHealthTracker]:
        """Keeps the tracker while entered, for a lifespan of your own."""
        async with self._lifespan(server):
            yield self.pipeline.runtime.running_tracker()

    async def flush(self) -> int:
        """Writes what changed, on a worker thread; answers the rows written."""
        return await self.pipeline.runtime.flush()

    # ------------------------------------------------------------ started by the first message

    async def on_message(self, context: MiddlewareContext[Any], call_next: CallNext[Any, Any]) -> Any:
        if self.pipeline.runtime.tracker is None and self._holder is None:
            await self._start_with(context)
        return await call_next(context)

    async def _start_with(self, context: MiddlewareContext[Any]) -> None:
        """Added with ``add_middleware`` alone: the first message starts the tracker, in a task that
        holds it until the event loop ends (the last sync runs then)."""
        fastmcp_context = context.fastmcp_context
        if fastmcp_context is None:
            return
        server = fastmcp_context.fastmcp
        if self._start_lock is None:
            self._start_lock = asyncio.Lock()
        async with self._start_lock:
            if self.pipeline.runtime.tracker is not None or self._holder is not None:
                return
            ready = anyio.Event()

            async def hold() -> None:
                try:
                    await self._read_tools(server)
                    async with self.pipeline.runtime.running():
                        ready.set()
                        await anyio.sleep_forever()
                finally:
                    ready.set()

            holder = asyncio.get_running_loop().create_task(hold())
            self._holder = holder
            await ready.wait()
            if holder.done():
                self._holder = None
                holder.result()  # opening failed: its error

    # ------------------------------------------------------------ what the model sees

    async def on_list_tools(self, context: MiddlewareContext[Any], call_next: CallNext[Any, Any]) -> Any:
        tools = await call_next(context)
        if not self.pipeline.hide_disabled:
            return tools
        if context.fastmcp_context is not None:
            try:
                session = context.fastmcp_context.session
            except RuntimeError:
                session = None
            if session is not None:
                self.notifier.remember(session)
        hidden = self.pipeline.hidden_tools()
        return [tool for tool in tools if tool.name not in hidden] if hidden else tools

    # ------------------------------------------------------------ the call path

    async def _learn(self, context: MiddlewareContext[Any], name: str) -> None:
        """A name missing from the registry: the server may have added the tool since it started (or its
        list could not be read then). If it has it now, it joins the registry; if not, the call is counted
        under the unknown-tools bucket."""
        fastmcp_context = context.fastmcp_context
        server = fastmcp_context.fastmcp if fastmcp_context is not None else self._server
        if server is None:
            return
        try:
            with anyio.fail_after(self.call_timeout):
                found = await server.get_tool(name)
        except Exception:  # a provider that cannot answer now: the call goes to the bucket
            return
        if found is None or found.name != name:
            return
        takes_action, actions = declared_actions(found.parameters)
        self.pipeline.tools.add(name, actions)
        if takes_action:
            self._takes_action.add(name)

    async def on_call_tool(
        self,
        context: MiddlewareContext[Any],
        call_next: CallNext[Any, ToolResult],
    ) -> ToolResult:
        message = context.message
        tool: str = message.name
        if tool not in self.pipeline.tools.counted:
            await self._learn(context, tool)
        arguments = message.arguments if tool in self._takes_action else None
        try:
            call = self.pipeline.begin(tool, arguments)
        except ToolRefused as refused:
            raise ToolError(str(refused)) from None
        timeout = self.call_timeout
        try:
            if timeout is None:
                result = await call_next(context)
            else:
                with anyio.move_on_after(timeout) as deadline:
                    result = await call_next(context)
        except Exception as exc:
            call.raised(exc)
            raise
        except BaseException:
            call.cancelled()
            raise
        if timeout is not None and deadline.cancelled_caught:
            text = f"Tool {tool!r} did not answer within {timeout:g} s"
            call.failed(text, "TimeoutError")
            raise ToolError(text)
        if result.is_error:
            call.failed(_error_text(result))
        else:
            call.succeeded()
        return result

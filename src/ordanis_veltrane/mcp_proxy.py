"""Tool health in front of any MCP server: a stdio proxy that relays every JSON-RPC message as it is.

Run ``python -m ordanis_veltrane.mcp_proxy --db PATH|URL [flags] -- COMMAND [ARGS...]`` (or
``-- https://host/mcp`` with ``--header NAME:VALUE``). Every message between the client and the
downstream server passes unchanged, in both directions: requests, responses, notifications and the
downstream's own requests to the client (sampling, elicitation, roots, ping). The proxy looks only at
what tool health needs:

- a ``tools/call`` request runs through the tool-call pipeline; a disabled tool is answered by the
  proxy and never reaches the downstream;
- the answer to it: an ``isError`` result or a JSON-RPC error counts against the tool, unless it is
  the client's fault (``--client-error REGEX`` on the result's text, or "invalid params");
- ``notifications/cancelled`` from the client ends the call as cancelled;
- ``tools/list`` answers gain ``status`` and ``get_tool_performance_stats`` (under a name no
  downstream tool has), and teach the proxy which tools and actions exist;
- a call of a status tool is answered by the proxy, even while the downstream is down.

The downstream starts at the client's ``initialize``. One that dies starts again at the next request,
with the client's ``initialize`` and ``notifications/initialized`` replayed; the requests it left
unanswered are answered with an error. Each request has ``--call-timeout`` seconds; a call that takes
longer is answered with an error and cancelled downstream. Only the official ``mcp`` SDK's HTTP client
library is needed, and only for a URL.
"""
from __future__ import annotations

import argparse
import asyncio
import contextlib
import json
import logging
import re
import sys
import time
from typing import TYPE_CHECKING, Any, Sequence

import anyio

from ordanis_veltrane.cli import (
    add_health_arguments, at_least, health_limits, health_thread_budget, serve_stdio, start_metrics,
)
from ordanis_veltrane.mcp_proxy_transports import (
    DOWNSTREAM_ERROR, PROTOCOL_VERSION_META, ClientOut, DownstreamUnavailable, HttpDownstream, StdioDownstream,
    LoopDoor, dump, parse, read_client, rpc_error,
)
from ordanis_veltrane.sharing.targets import redact_url
from ordanis_veltrane.tool_pipeline import ToolCall, ToolPipeline, ToolRefused

if TYPE_CHECKING:
    from ordanis_veltrane.tool_handlers.health_metrics import MetricsServer

__all__ = [
    "DEFAULT_CALL_TIMEOUT", "DEFAULT_INIT_TIMEOUT", "STATUS_TOOLS", "Relay", "declared_actions", "main",
]

logger: logging.Logger = logging.getLogger(__name__)

DEFAULT_CALL_TIMEOUT = 60.0
# How long the client's initialize (and a request while the downstream starts) waits for the downstream
# before the proxy answers for itself.
DEFAULT_INIT_TIMEOUT = 2.0
STATUS_TOOLS = ("status", "get_tool_performance_stats")
STATUS_PREFIX = "health_"
# How much of an error result's text is matched and kept.
ERROR_TEXT_CHARS = 4096
# The ids of the proxy's own requests to the downstream.
OWN_ID_PREFIX = "ordanis-veltrane-proxy-"

INVALID_PARAMS = -32602
INTERNAL_ERROR = -32603
PARSE_ERROR = -32700

STATUS_DESCRIPTIONS = {
    "status": "Tool health (calls, errors, disabled tools, usage per action) and the thread census.",
    "get_tool_performance_stats": "Per-tool timing statistics: count, mean, p95, min, max and errors.",
}


def declared_actions(schema: Any) -> tuple[bool, list[str] | None]:
    """(whether the tool takes ``action``, its actions): the ``enum`` of the ``action`` property of its
    input schema (also under one level of ``anyOf``); ``None`` where it has none (an open tool)."""
    properties = schema.get("properties") if isinstance(schema, dict) else None
    action = properties.get("action") if isinstance(properties, dict) else None
    if not isinstance(action, dict):
        return False, None
    for candidate in [action, *(s for s in action.get("anyOf", ()) if isinstance(s, dict))]:
        enum = candidate.get("enum")
        if isinstance(enum, list) and enum and all(isinstance(v, str) for v in enum):
            return True, list(enum)
    return True, None


def _error_text(result: Any) -> str:
    content = result.get("content") if isinstance(result, dict) else None
    texts = [block["text"] for block in content if isinstance(block, dict) and isinstance(block.get("text"), str)] \
        if isinstance(content, list) else []
    return "\n".join(texts)[:ERROR_TEXT_CHARS] or "the tool returned an error result"


def _tool_result(request_id: Any, text: str, error: bool, stateless: bool) -> bytes:
    result: dict[str, Any] = {"content": [{"type": "text", "text": text}], "isError": error}
    if stateless:
        result["resultType"] = "complete"
    return dump({"jsonrpc": "2.0", "id": request_id, "result": result})


# ---------------------------------------------------------------- the relay


class _Pending:
    """A request of the client's that the downstream has not answered yet."""

    __slots__ = ("method", "call", "tool", "deadline", "list_page")

    def __init__(self, method: str, call: ToolCall | None = None, tool: str | None = None,
                 list_page: bool = False) -> None:
        self.method = method
        self.call = call
        self.tool = tool
        self.deadline: float | None = None  # time.monotonic() past which it is answered with an error
        self.list_page = list_page  # a tools/list answer to rewrite; True for the first page



def _pending_request(method: str, params: Any) -> _Pending:
    """What is remembered of a request sent downstream; the first page of tools/list gets the status tools."""
    if method != "tools/list":
        return _Pending(method)
    entry = _Pending(method, list_page=True)
    if not (isinstance(params, dict) and params.get("cursor")):
        entry.tool = ""
    return entry

class Relay:
    """Relays one client's session to one downstream, with tool health in front of its tools."""

    def __init__(
        self,
        pipeline: ToolPipeline,
        downstream: Sequence[str],
        *,
        headers: dict[str, str] | None = None,
        call_timeout: float | None = DEFAULT_CALL_TIMEOUT,
        init_timeout: float = DEFAULT_INIT_TIMEOUT,
        client_errors: Sequence[str] = (),
        status_tools: bool = True,
        hide_disabled: bool = False,
        metrics: MetricsServer | None = None,
    ) -> None:
        self.pipeline = pipeline
        self.call_timeout = call_timeout
        self.init_timeout = init_timeout
        self.client_errors = [re.compile(p) for p in client_errors]
        self.status_tools = status_tools
        self.hide_disabled = hide_disabled
        self.metrics = metrics
        self.out: ClientOut  # opened by run()
        if len(downstream) == 1 and downstream[0].startswith(("http://", "https://")):
            self.downstream: StdioDownstream | HttpDownstream = HttpDownstream(
                downstream[0], dict(headers or {}), self._from_downstream, self._downstream_gone, self._fail_pending,
                call_timeout)
        else:
            self.downstream = StdioDownstream(downstream, self._from_downstream, self._downstream_gone)
        self.pending: dict[Any, _Pending] = {}
        self.own: dict[str, asyncio.Future[Any]] = {}
        self._own_ids = 0
        self.ready = False  # the downstream answered initialize
        self._ready_event: asyncio.Event | None = None
        self._handshake_id: Any = None
        self._meta: Any = None  # the _meta of the client's last request
        self.stateless = False  # the client stamps each request with its protocol version
        self._start_lock: asyncio.Lock | None = None
        self._initialize: dict[str, Any] | None = None  # the client's, replayed at every start
        self._initialized: bytes | None = None
        self._answered_initialize = False
        self._watchdog: asyncio.TimerHandle | None = None
        self.names: dict[str, str] = {name: name for name in STATUS_TOOLS} if status_tools else {}
        self._by_served: dict[str, str] = {name: name for name in self.names}
        self.downstream_tools: set[str] = set()
        self.takes_action: set[str] = set()
        self.registry_settled = anyio.Event()
        self.tracker_ready = anyio.Event()
        self._stop = anyio.Event()
        self.running = False
        self.finished = anyio.Event()  # the session is over: answered, downstream stopped, health written
        self._tg: Any = None
        self._loop: asyncio.AbstractEventLoop | None = None
        self._door: LoopDoor | None = None

    # ------------------------------------------------------------ running

    async def run(self) -> None:
        """Relays until the client closes stdin (or the task is cancelled: SIGTERM)."""
        self.running = True
        self._loop = asyncio.get_running_loop()
        self._door = LoopDoor()
        self._ready_event = asyncio.Event()
        self._start_lock = asyncio.Lock()
        self.out = ClientOut()
        if self.hide_disabled:
            self.pipeline.add_tools_changed_listener(self._hidden_changed)
        try:
            async with anyio.create_task_group() as tg:
                self._tg = tg
                tg.start_soon(self._hold_health)
                if self.call_timeout is not None:
                    tg.start_soon(self._expire)
                try:
                    await read_client(self._door, self._client_line)
                finally:
                    with anyio.CancelScope(shield=True):
                        await self._shutdown("the proxy is shutting down")
                    self._stop.set()
                    self.registry_settled.set()
        finally:
            if self.metrics is not None:
                self.metrics.collector.tracker = None
            self.finished.set()

    async def _hold_health(self) -> None:
        """Opens the tracker once the downstream's tools are known (or cannot be), holds it until the end."""
        await self.registry_settled.wait()
        if self._stop.is_set():
            return
        async with self.pipeline.runtime.running() as tracker:
            if self.metrics is not None:
                self.metrics.collector.tracker = tracker
            self.tracker_ready.set()
            await self._stop.wait()

    def _settle(self, known: bool) -> None:
        if not self.registry_settled.is_set():
            self.pipeline.tools.keep_unknown = not known
            self.registry_settled.set()

    async def _shutdown(self, why: str) -> None:
        for key in list(self.pending):
            self._fail_pending(key, why)
        for waiter in self.own.values():
            if not waiter.done():
                waiter.set_exception(DownstreamUnavailable(why))
                waiter.exception()
        await self.downstream.close()

    # ------------------------------------------------------------ from the client

    def _client_line(self, line: bytes) -> None:
        """On the thread that reads the client: relays a message at once when the session is under way (the
        downstream ready, health running); anything else takes the slower path on the event loop, which this
        thread waits for (the client's next message waits behind it)."""
        if not (self.ready and self.downstream.alive and self.tracker_ready.is_set()):
            return self._slow_client(line)
        try:
            message = parse(line)
        except ValueError:
            return self._slow_client(line)
        if not isinstance(message, dict):
            return self._slow_client(line)
        method = message.get("method")
        if method is None:  # the client's answer to a request of the downstream
            return self.downstream.send(line)
        request_id = message.get("id")
        if request_id is None:
            if method == "notifications/initialized":
                return self._slow_client(line)
            if method == "notifications/cancelled":
                self._cancelled(message)
            return self.downstream.send(line)
        if method == "initialize":
            return self._slow_client(line)
        params = message.get("params")
        if isinstance(params, dict) and "_meta" in params:
            self._meta = params["_meta"]
            self.stateless = isinstance(self._meta, dict) and PROTOCOL_VERSION_META in self._meta
        if method == "tools/call":
            if not isinstance(params, dict) or not isinstance(params.get("name"), str) \
                    or params["name"] in self._by_served:
                return self._slow_client(line)
            return self._call_tool_now(request_id, message, line, params)
        self._track(request_id, _pending_request(method, params))
        return self.downstream.send(line)

    def _slow_client(self, line: bytes) -> None:
        assert self._door is not None
        self._door.run(lambda: self._from_client(line))

    def _cancelled(self, message: dict[str, Any]) -> None:
        params = message.get("params")
        key = params.get("requestId") if isinstance(params, dict) else None
        entry = self.pending.pop(key, None) if key is not None else None
        if entry is not None and entry.call is not None:
            entry.call.cancelled()

    def _call_tool_now(self, request_id: Any, message: dict[str, Any], line: bytes,
                       params: dict[str, Any]) -> None:
        """A call of a downstream tool, health running and the downstream ready: begun and sent at once."""
        tool: str = params["name"]
        begun = self._begin_call(request_id, message, line, params, tool)
        if begun is None:
            return None
        call, line = begun
        self._track(request_id, _Pending("tools/call", call, tool))
        return self.downstream.send(line)

    def _begin_call(self, request_id: Any, message: dict[str, Any], line: bytes, params: dict[str, Any],
                    tool: str) -> tuple[ToolCall, bytes] | None:
        """The call begun in the pipeline and the line to send (re-encoded where a synonym was rewritten),
        or None when the tool is refused (answered here)."""
        arguments = params.get("arguments")
        if not isinstance(arguments, dict) or tool not in self.takes_action:
            arguments = None  # only a tool with an action parameter is counted by action
        action = arguments.get("action") if arguments is not None else None
        try:
            call = self.pipeline.begin(tool, arguments)
        except ToolRefused as refused:
            self.out.write(self._tool_error(request_id, str(refused)))
            return None
        if arguments is not None and arguments.get("action") != action:  # a synonym: the tool gets its action
            line = dump(message)
        return call, line

    async def _from_client(self, line: bytes) -> None:
        try:
            await self._from_client_unguarded(line)
        except Exception:  # a fault of the relay's own must not end the session
            logger.exception("Could not relay a message of the client's: %r", line[:200])

    async def _from_client_unguarded(self, line: bytes) -> None:
        try:
            message = parse(line)
        except ValueError as exc:
            self.out.write(rpc_error(None, PARSE_ERROR, f"Parse error: {exc}"))
            return
        if not isinstance(message, dict):  # a batch: passed on as it is
            if await self._ensure_quietly():
                self.downstream.send(line)
            return
        method = message.get("method")
        if method is None:  # the client's answer to a request of the downstream
            if self.downstream.alive:
                self.downstream.send(line)
            return
        request_id = message.get("id")
        if request_id is None:
            await self._client_notification(method, message, line)
            return
        params = message.get("params")
        if isinstance(params, dict) and "_meta" in params:
            self._meta = params["_meta"]
            self.stateless = isinstance(self._meta, dict) and PROTOCOL_VERSION_META in self._meta
        if method == "tools/call":
            await self._call_tool(request_id, message, line)
        elif method == "initialize":
            await self._client_initialize(request_id, message, line)
        else:
            await self._client_request(request_id, method, message, line)

    async def _client_notification(self, method: str, message: dict[str, Any], line: bytes) -> None:
        if method == "notifications/cancelled":
            self._cancelled(message)
        elif method == "notifications/initialized":
            self._initialized = line
            if self.downstream.alive:
                self.downstream.send(line)
                self._list_own_soon()
            return
        if self.downstream.alive:
            self.downstream.send(line)

    async def _client_request(self, request_id: Any, method: str, message: dict[str, Any], line: bytes) -> None:
        try:
            await self._ensure()
        except DownstreamUnavailable as down:
            answer: dict[str, Any] | None = None
            if method == "ping":
                answer = {}
            elif method == "tools/list" and not (message.get("params") or {}).get("cursor"):
                answer = {"tools": self._status_listing()}
            if answer is not None:
                if self.stateless:
                    answer["resultType"] = "complete"
                self.out.write(dump({"jsonrpc": "2.0", "id": request_id, "result": answer}))
            else:
                self.out.write(rpc_error(request_id, DOWNSTREAM_ERROR, str(down)))
            return
        self._track(request_id, _pending_request(method, message.get("params")))
        self.downstream.send(line)

    async def _client_initialize(self, request_id: Any, message: dict[str, Any], line: bytes) -> None:
        params = message.get("params")
        self._initialize = params if isinstance(params, dict) else {}
        self._answered_initialize = False
        self.pending[request_id] = _Pending("initialize")
        failure: str | None = None
        try:
            await self._start(request_id, line)
        except DownstreamUnavailable as down:
            failure = str(down)
        if not self._answered_initialize:
            # The downstream could not start or did not answer in time: the proxy answers for itself, so that
            # its status tools serve; the client is told to list the tools again once the downstream is there.
            self.pending.pop(request_id, None)
            logger.warning("Answering initialize without the downstream: %s", failure or "no answer yet")
            version = self._initialize.get("protocolVersion")
            self.out.write(dump({"jsonrpc": "2.0", "id": request_id, "result": {
                "protocolVersion": version if isinstance(version, str) else "2025-06-18",
                "capabilities": {"tools": {"listChanged": True}},
                "serverInfo": {"name": "ordanis-veltrane-proxy", "version": "0.1.0"}}}))
            self._answered_initialize = True
            self._settle(False)

    async def _call_tool(self, request_id: Any, message: dict[str, Any], line: bytes) -> None:
        params = message.get("params")
        if not isinstance(params, dict) or not isinstance(params.get("name"), str):
            self.out.write(rpc_error(request_id, INVALID_PARAMS, "tools/call needs params with a tool name"))
            return
        tool: str = params["name"]
        status = self._by_served.get(tool)
        if status is not None:
            self._tg.start_soon(self._answer_status, request_id, tool, status)
            return
        if not self.tracker_ready.is_set():
            with anyio.move_on_after(self.init_timeout + 5):
                await self.tracker_ready.wait()
            if not self.tracker_ready.is_set():
                self.out.write(self._tool_error(request_id, "tool health is not running yet: try again"))
                return
        begun = self._begin_call(request_id, message, line, params, tool)
        if begun is None:
            return
        call, line = begun
        try:
            await self._ensure()
        except DownstreamUnavailable as down:
            call.failed(str(down), "DownstreamUnavailable")
            self.out.write(self._tool_error(request_id, str(down)))
            return
        self._track(request_id, _Pending("tools/call", call, tool))
        self.downstream.send(line)

    def _tool_error(self, request_id: Any, text: str) -> bytes:
        return _tool_result(request_id, text, True, self.stateless)

    def _track(self, request_id: Any, entry: _Pending) -> None:
        if self.call_timeout is not None:
            entry.deadline = time.monotonic() + self.call_timeout
        self.pending[request_id] = entry

    async def _expire(self) -> None:
        """Answers the requests that have waited longer than ``call_timeout`` (to within a tenth of it, half a
        second at most). A timer per request would cost the event loop a wake-up per message."""
        assert self.call_timeout is not None
        period = min(0.5, self.call_timeout / 10)
        while not self._stop.is_set():
            with anyio.move_on_after(period):
                await self._stop.wait()
            now = time.monotonic()
            for key, entry in list(self.pending.items()):
                if entry.deadline is not None and entry.deadline <= now:
                    self._timed_out(key)

    def _timed_out(self, request_id: Any) -> None:
        entry = self.pending.pop(request_id, None)
        if entry is None:  # answered meanwhile
            return
        seconds = f"{self.call_timeout:g}"
        if entry.call is not None:
            text = f"Tool {entry.tool!r} did not answer within {seconds} s"
            entry.call.failed(text, "TimeoutError")
            self.out.write(self._tool_error(request_id, text))
        else:
            self.out.write(rpc_error(request_id, DOWNSTREAM_ERROR,
                                      f"the downstream server did not answer {entry.method} within {seconds} s"))
        self.downstream.send(dump({"jsonrpc": "2.0", "method": "notifications/cancelled", "params": {
            "requestId": request_id, "reason": f"no answer within {seconds} s"}}))

    def _fail_pending(self, key: Any, why: str) -> None:
        entry = self.pending.pop(key, None)
        if entry is None:
            return
        if entry.method == "initialize":
            return  # answered by the proxy itself
        if entry.call is not None:
            entry.call.failed(why, "DownstreamUnavailable")
            self.out.write(self._tool_error(key, why))
        else:
            self.out.write(rpc_error(key, DOWNSTREAM_ERROR, why))

    # ------------------------------------------------------------ the status tools

    def _status_listing(self) -> list[dict[str, Any]]:
        return [{"name": served, "description": STATUS_DESCRIPTIONS[name],
                 "inputSchema": {"type": "object", "properties": {}}} for name, served in self.names.items()]

    def _name_status_tools(self, downstream_names: set[str]) -> None:
        """Each status tool under its own name, or the first of health_NAME, health_health_NAME, ... that no
        downstream tool (and no other status tool) has."""
        if not self.status_tools:
            return
        names: dict[str, str] = {}
        for name in STATUS_TOOLS:
            served = name
            while served in downstream_names or served in names.values():
                served = STATUS_PREFIX + served
            names[name] = served
        self.names = names
        self._by_served = {served: name for name, served in names.items()}

    async def _answer_status(self, request_id: Any, served: str, name: str) -> None:
        try:
            with anyio.fail_after(self.init_timeout + 5):
                await self.tracker_ready.wait()
            call = self.pipeline.begin(served, None)
        except (TimeoutError, ToolRefused) as exc:
            self.out.write(self._tool_error(request_id, str(exc) or "tool health is not running yet: try again"))
            return
        try:
            answer = await (self.pipeline.status() if name == "status" else self.pipeline.performance_stats())
            text = json.dumps(answer)
        except Exception as exc:
            call.raised(exc)
            self.out.write(self._tool_error(request_id, str(exc) or type(exc).__name__))
            return
        except BaseException:
            call.cancelled()
            raise
        call.succeeded()
        self.out.write(_tool_result(request_id, text, False, self.stateless))

    # ------------------------------------------------------------ the downstream's life

    async def _ensure_quietly(self) -> bool:
        try:
            await self._ensure()
        except DownstreamUnavailable:
            return False
        return True

    async def _ensure(self) -> None:
        """Returns once the downstream has answered initialize (starting it again if it is gone), or raises
        ``DownstreamUnavailable`` after ``init_timeout`` at most."""
        if self.ready:
            return
        if not self.downstream.alive:
            assert self._start_lock is not None
            async with self._start_lock:
                if not self.downstream.alive and self._initialize is None:
                    # No initialize handshake (a client that stamps each request with its version): the
                    # downstream takes requests as soon as it runs.
                    await self.downstream.start()
                    self._mark_ready()
                    self._list_own_soon()
                elif not self.downstream.alive:
                    self._own_ids += 1
                    own = f"{OWN_ID_PREFIX}{self._own_ids}"
                    await self._start(own, dump({"jsonrpc": "2.0", "id": own, "method": "initialize",
                                                  "params": self._initialize}))
                    if self.ready and self._initialized is not None:
                        self.downstream.send(self._initialized)
                        self._list_own_soon()
        if not self.ready:
            assert self._ready_event is not None
            with contextlib.suppress(asyncio.TimeoutError):
                await asyncio.wait_for(self._ready_event.wait(), self.init_timeout)
        if not self.ready:
            raise DownstreamUnavailable(f"the downstream server has not answered initialize "
                                        f"(waited {self.init_timeout:g} s)")

    async def _start(self, handshake_id: Any, initialize: bytes) -> None:
        """Starts the downstream and sends it ``initialize``; waits ``init_timeout`` at most for the answer
        (which keeps being awaited: a downstream still silent after the call timeout is stopped)."""
        assert self._ready_event is not None and self._loop is not None
        self.ready = False
        self._ready_event.clear()
        self._handshake_id = handshake_id
        handshake = self._handshake = self._loop.create_future()
        if self.downstream.alive:
            self.downstream.kill()  # started for a request without a handshake, or still silent
        await self.downstream.start()
        self.downstream.send(initialize)
        if self._watchdog is not None:
            self._watchdog.cancel()
        if self.call_timeout is not None:
            self._watchdog = self._loop.call_later(max(self.call_timeout, self.init_timeout), self._stop_silent)
        try:
            answer = await asyncio.wait_for(asyncio.shield(handshake), self.init_timeout)
        except asyncio.TimeoutError:
            raise DownstreamUnavailable(
                f"the downstream server did not answer initialize within {self.init_timeout:g} s") from None
        if not self.ready:
            error = answer.get("error") if isinstance(answer, dict) else None
            text = error.get("message") if isinstance(error, dict) else error
            raise DownstreamUnavailable(f"the downstream server refused initialize: {text}")

    _handshake: asyncio.Future[Any] | None = None

    def _stop_silent(self) -> None:
        if not self.ready and self.downstream.alive:
            logger.warning("The downstream server has not answered initialize: it is stopped, and started again "
                           "at the next request")
            self.downstream.kill()

    def _downstream_gone(self, why: str) -> None:
        self._last_exit = why
        self.ready = False
        if self._ready_event is not None:
            self._ready_event.clear()
        if not self._stop.is_set():
            logger.warning("%s; it is started again at the next request", why)
        for key in list(self.pending):
            self._fail_pending(key, f"{why} before answering")
        for waiter in [*self.own.values(), self._handshake]:
            if waiter is not None and not waiter.done():
                waiter.set_exception(DownstreamUnavailable(why))
                waiter.exception()  # retrieved: nobody may be waiting any more
        self.own.clear()
        if not self.registry_settled.is_set() and self._initialize is not None:
            self._settle(False)

    def _mark_ready(self) -> None:
        assert self._ready_event is not None
        self.ready = True
        self._ready_event.set()
        if self._watchdog is not None:
            self._watchdog.cancel()
            self._watchdog = None
        if isinstance(self.downstream, HttpDownstream):
            self.downstream.listen()

    def _list_own_soon(self) -> None:
        """Lists the downstream's tools for the proxy itself: the registry, and the status tools' names. Any
        thread."""
        if self._tg is not None and self._door is not None:
            self._door.soon(self._tg.start_soon, self._list_own)

    async def _list_own(self) -> None:
        assert self._loop is not None
        tools: list[Any] = []
        cursor: Any = None
        try:
            for _ in range(1000):
                self._own_ids += 1
                own = f"{OWN_ID_PREFIX}{self._own_ids}"
                waiter = self.own[own] = self._loop.create_future()
                params: dict[str, Any] = {} if cursor is None else {"cursor": cursor}
                if self._initialize is None and self._meta is not None:
                    params["_meta"] = self._meta  # the client's stamp: version and capabilities
                self.downstream.send(dump({"jsonrpc": "2.0", "id": own, "method": "tools/list", "params": params}))
                with anyio.fail_after(self.call_timeout or None):
                    answer = await waiter
                result = answer.get("result") if isinstance(answer, dict) else None
                if not isinstance(result, dict) or not isinstance(result.get("tools"), list):
                    raise DownstreamUnavailable(f"tools/list answered {str(answer)[:200]}")
                tools.extend(result["tools"])
                cursor = result.get("nextCursor")
                if not cursor:
                    break
        except (DownstreamUnavailable, TimeoutError) as exc:
            logger.warning("Could not list the downstream's tools: %s", exc or "no answer")
            self._settle(False)
            return
        self._learn(tools, complete=True)
        if self._answered_initialize and not self._handshake_forwarded:
            # The proxy answered initialize alone: the client learns of the tools now.
            self._handshake_forwarded = True
            self.out.write(dump({"jsonrpc": "2.0", "method": "notifications/tools/list_changed"}))

    _handshake_forwarded = False

    def _learn(self, tools: list[Any], complete: bool) -> None:
        """The registry from a tools/list answer (its pages, when ``complete``)."""
        registry = self.pipeline.tools
        names: set[str] = set()
        takes_action: set[str] = set()
        specs: list[tuple[str, list[str] | None]] = []
        for tool in tools:
            if not isinstance(tool, dict) or not isinstance(tool.get("name"), str):
                continue
            name = tool["name"]
            takes, actions = declared_actions(tool.get("inputSchema"))
            names.add(name)
            if takes:
                takes_action.add(name)
            specs.append((name, actions))
        if complete:
            for old in list(registry):
                registry.remove(old)
            self.downstream_tools = names
            self.takes_action = takes_action
        else:
            self.downstream_tools |= names
            self.takes_action |= takes_action
        for name, actions in specs:
            registry.add(name, actions)
        self._name_status_tools(self.downstream_tools)
        for served in self.names.values():
            registry.add(served, None)
        self._settle(True)

    # ------------------------------------------------------------ from the downstream

    def _from_downstream(self, line: bytes) -> None:
        """On the thread that reads the downstream (on the event loop for an HTTP one): its notifications and
        requests, and the answers to the client's requests, are written on at once; the answers the proxy itself
        awaits (``initialize``, its own requests, a ``tools/list`` to rewrite) are handled on the event loop,
        which this thread waits for."""
        try:
            message = parse(line)
        except ValueError as exc:
            logger.error("The downstream server sent a line that is not JSON (%s): %r", exc, line[:200])
            return
        try:
            if isinstance(message, dict):
                if "method" in message:  # the downstream's own request or notification
                    if message["method"] == "notifications/tools/list_changed" and self.ready:
                        self._list_own_soon()
                else:
                    key = message.get("id")
                    entry = self.pending.get(key)
                    if key == self._handshake_id or isinstance(key, str) and key.startswith(OWN_ID_PREFIX) \
                            or entry is not None and (entry.list_page or entry.method == "initialize"):
                        assert self._door is not None
                        self._door.run(lambda: self._from_downstream_slow(line, message))
                        return
                    if entry is None or self.pending.pop(key, None) is not entry:
                        return  # answered already (timed out, cancelled) or never asked
                    if entry.call is not None:
                        self._finish_call(entry.call, message)
        except Exception:  # a fault of the relay's own must not end the session
            logger.exception("Could not relay a message of the downstream's: %r", line[:200])
        self.out.write(line if line.endswith(b"\n") else line + b"\n")

    def _from_downstream_slow(self, line: bytes, message: dict[str, Any]) -> None:
        key = message.get("id")
        if key is not None and key == self._handshake_id and self._handshake is not None:
            if "result" in message:
                self._mark_ready()
            if not self._handshake.done():
                self._handshake.set_result(message)
        if isinstance(key, str) and key.startswith(OWN_ID_PREFIX):
            waiter = self.own.pop(key, None)
            if waiter is not None and not waiter.done():
                waiter.set_result(message)
            return
        entry = self.pending.pop(key, None)
        if entry is None:
            return  # answered already (timed out, cancelled) or never asked
        if entry.call is not None:
            self._finish_call(entry.call, message)
        elif entry.list_page:
            line = self._rewrite_listing(message, first=entry.tool == "") or line
        elif entry.method == "initialize":
            self._answered_initialize = True
            self._handshake_forwarded = True
        self.out.write(line if line.endswith(b"\n") else line + b"\n")

    def _finish_call(self, call: ToolCall, message: dict[str, Any]) -> None:
        result = message.get("result")
        if isinstance(result, dict):
            if result.get("isError") is True:
                text = _error_text(result)
                call.failed(text, "tool_error", client=any(p.search(text) for p in self.client_errors))
            else:
                call.succeeded()
            return
        error = message.get("error")
        code = error.get("code") if isinstance(error, dict) else None
        text = str(error.get("message") if isinstance(error, dict) else error)[:ERROR_TEXT_CHARS]
        call.failed(text, "jsonrpc_error", client=code == INVALID_PARAMS)

    def _rewrite_listing(self, message: dict[str, Any], first: bool) -> bytes | None:
        result = message.get("result")
        if not isinstance(result, dict) or not isinstance(result.get("tools"), list):
            return None
        tools = result["tools"]
        complete = first and not result.get("nextCursor")
        self._learn(tools, complete=complete)
        if self.hide_disabled:
            hidden = self._hidden_now()
            if hidden:
                result["tools"] = tools = [t for t in tools if not (isinstance(t, dict) and t.get("name") in hidden)]
        if first and self.status_tools:
            tools.extend(self._status_listing())
        return dump(message)

    # ------------------------------------------------------------ hidden tools

    def _hidden_now(self) -> frozenset[str]:
        return self.pipeline.hidden_tools()

    def _hidden_changed(self, *_: Any) -> None:
        """From any thread: the client is told to list the tools again."""
        self.out.write(dump({"jsonrpc": "2.0", "method": "notifications/tools/list_changed"}))


# ---------------------------------------------------------------- the command


def _header(text: str) -> tuple[str, str]:
    name, sep, value = text.partition(":")
    if not sep or not name.strip():
        raise argparse.ArgumentTypeError(f"a header is NAME:VALUE, not {text!r}")
    return name.strip(), value.strip()


def _regex(text: str) -> str:
    try:
        re.compile(text)
    except re.error as exc:
        raise argparse.ArgumentTypeError(f"not a regular expression: {exc}") from None
    return text


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(
        prog="python -m ordanis_veltrane.mcp_proxy", description=(__doc__ or "").splitlines()[0],
        usage="%(prog)s --db PATH|URL [options] -- COMMAND [ARGS...] | URL")
    add_health_arguments(parser)
    parser.add_argument("--call-timeout", type=at_least(0, float), default=DEFAULT_CALL_TIMEOUT, metavar="S",
                        help=f"seconds each request to the downstream may take; 0: no limit "
                             f"(default {DEFAULT_CALL_TIMEOUT:g})")
    parser.add_argument("--init-timeout", type=at_least(0.1, float), default=DEFAULT_INIT_TIMEOUT, metavar="S",
                        help="seconds the client's initialize waits for the downstream before the proxy answers "
                             f"it alone (default {DEFAULT_INIT_TIMEOUT:g})")
    parser.add_argument("--header", type=_header, action="append", default=[], metavar="NAME:VALUE",
                        help="an HTTP header sent to a URL downstream (repeatable), e.g. 'Authorization: Bearer T'")
    parser.add_argument("--client-error", type=_regex, action="append", default=[], metavar="REGEX",
                        help="an error result whose text matches is the client's fault and never counts against "
                             "the tool (repeatable)")
    parser.add_argument("downstream", nargs=argparse.REMAINDER, help="the downstream server's command, or its URL")
    return parser


def _pipeline(args: argparse.Namespace, budget: int) -> ToolPipeline:
    return ToolPipeline(args.db, health_limits(args), flush_interval=args.flush_interval or None,
                        thread_budget=budget, hide_disabled=args.hide_disabled, status_tools=args.status_tools)


def main(argv: Sequence[str] | None = None) -> int:
    parser = _parser()
    args = parser.parse_args(argv)
    command = list(args.downstream)
    if command[:1] == ["--"]:
        command = command[1:]
    if not command:
        parser.error("give the downstream server after --: a command and its arguments, or its URL")
    if args.header and not command[0].startswith(("http://", "https://")):
        parser.error("--header is for a URL downstream")
    logging.basicConfig(level=logging.WARNING, format="ordanis_veltrane.mcp_proxy: %(message)s", stream=sys.stderr)
    budget = health_thread_budget(args)
    pipeline = _pipeline(args, budget)
    metrics = start_metrics(parser, args, budget)
    relay = Relay(pipeline, command, headers=dict(args.header), call_timeout=args.call_timeout or None,
                  init_timeout=args.init_timeout, client_errors=args.client_error,
                  status_tools=args.status_tools, hide_disabled=args.hide_disabled, metrics=metrics)

    async def write_health() -> None:
        if relay.running:  # SIGTERM: the relay answers what is pending and stops the downstream first
            await relay.finished.wait()
        if pipeline.runtime.handle is not None:
            try:
                await pipeline.runtime.flush()
            except Exception as exc:
                logger.error("Could not write the tool health at exit: %s", redact_url(exc))

    try:
        anyio.run(serve_stdio, relay.run, write_health)
    finally:
        if metrics is not None:
            metrics.close()
    return 0


if __name__ == "__main__":
    sys.exit(main())

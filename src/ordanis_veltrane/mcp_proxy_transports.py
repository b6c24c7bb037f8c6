"""The two sides of the proxy's relay: the client on the proxy's stdin and stdout, and the downstream server as a
child process (JSON-RPC lines on pipes) or at a streamable-HTTP URL. Each hands on whole messages as bytes."""
from __future__ import annotations

import asyncio
import base64
import collections
import contextlib
import json
import logging
import os
import re
import sys
from typing import Any, Awaitable, Callable, Sequence

import anyio
import anyio.to_thread

__all__ = ["DOWNSTREAM_ERROR", "PROTOCOL_VERSION_META", "ClientOut", "DownstreamUnavailable", "HttpDownstream",
           "LineFeed", "StdioDownstream", "dump", "feed_client", "rpc_error"]

logger: logging.Logger = logging.getLogger("ordanis_veltrane.mcp_proxy")

# A message may be this long (one line of JSON); a longer one from the downstream ends it.
MAX_MESSAGE_BYTES = 512 * 1024 * 1024
# Writes wait for the reader once this much is queued.
HIGH_WATER = 16 * 1024 * 1024
# The downstream is unreachable, did not answer in time, or left the request unanswered.
DOWNSTREAM_ERROR = -32001
# Takes one whole message; returns None when done with it, or what to await before the next one.
LineHandler = Callable[[bytes], "Awaitable[None] | None"]


def dump(message: Any) -> bytes:
    """One line of JSON (escaped to ASCII: text with lone surrogates, which a client may send, encodes too)."""
    return json.dumps(message, separators=(",", ":")).encode() + b"\n"


def rpc_error(request_id: Any, code: int, text: str) -> bytes:
    return dump({"jsonrpc": "2.0", "id": request_id, "error": {"code": code, "message": text}})


class DownstreamUnavailable(Exception):
    """The downstream cannot take a request now; the text says why."""


# ---------------------------------------------------------------- the client's side


class ClientOut:
    """The proxy's stdout: lines written in the order they are given, never interleaved."""

    def __init__(self) -> None:
        self._transport: asyncio.WriteTransport | None = None
        self._protocol: Any = None
        self._closed = False

    async def open(self) -> None:
        loop = asyncio.get_running_loop()
        try:
            pipe = os.fdopen(os.dup(sys.stdout.fileno()), "wb", buffering=0)
            self._transport, self._protocol = await loop.connect_write_pipe(asyncio.streams.FlowControlMixin, pipe)
        except (OSError, ValueError, AttributeError):  # a regular file: plain blocking writes
            self._transport = None

    def write(self, data: bytes) -> None:
        if self._closed:
            return
        if self._transport is None:
            try:
                sys.stdout.buffer.write(data)
                sys.stdout.buffer.flush()
            except (OSError, ValueError):
                self._closed = True
            return
        if self._transport.is_closing():
            self._closed = True
            return
        self._transport.write(data)

    async def flush(self, seconds: float = 5.0) -> None:
        """Waits until what was written has left (the process may exit right after)."""
        transport = self._transport
        with anyio.move_on_after(seconds):
            while transport is not None and not transport.is_closing() and transport.get_write_buffer_size():
                await anyio.sleep(0.01)

    def drain(self) -> Awaitable[None] | None:
        """What to await before writing more, when the client reads slower than the proxy writes; else None."""
        transport = self._transport
        if transport is not None and not transport.is_closing() and transport.get_write_buffer_size() > HIGH_WATER:
            return self._drain()
        return None

    async def _drain(self) -> None:
        with contextlib.suppress(ConnectionError):
            await self._protocol._drain_helper()


class LineFeed(asyncio.Protocol):
    """Splits what arrives on a pipe into lines and hands each to ``handle``, in order, from the event loop's
    own callback: no task and no wake-up per message. ``handle`` deals with a line at once and returns None, or
    returns an awaitable to finish it (a slow path, or waiting for the far side to drain); reading then pauses
    and the lines behind it wait until that is done, so the order holds and a flood cannot pile up in memory."""

    def __init__(self, handle: LineHandler, what: str) -> None:
        self.handle, self.what = handle, what
        self.transport: Any = None
        self.done: asyncio.Future[str] = asyncio.get_running_loop().create_future()  # why it ended ("" at EOF)
        self._buffer = bytearray()
        self._lines: collections.deque[bytes] = collections.deque()
        self._busy: asyncio.Task[None] | None = None
        self._paused = False
        self._ended: str | None = None

    def connection_made(self, transport: asyncio.BaseTransport) -> None:
        self.transport = transport

    def data_received(self, data: bytes) -> None:
        if self._ended is not None:
            return
        buffer = self._buffer
        buffer += data
        if b"\n" in data:
            start, lines = 0, self._lines
            while True:
                end = buffer.find(b"\n", start)
                if end < 0:
                    break
                if end > start:
                    lines.append(bytes(buffer[start:end + 1]))
                start = end + 1
            del buffer[:start]
        if len(buffer) > MAX_MESSAGE_BYTES:
            self._buffer = bytearray()
            self._lines.clear()
            self._end(f"sent a message longer than {MAX_MESSAGE_BYTES} bytes")
            return
        self._pump()

    def eof_received(self) -> bool:
        self._at_end()
        return False

    def connection_lost(self, exc: Exception | None) -> None:
        self._at_end()

    def _at_end(self) -> None:
        if self._ended is None and not self.done.done():
            if self._buffer.strip():
                self._lines.append(bytes(self._buffer))
            self._buffer = bytearray()
            self._ended = ""
            self._pump()

    def _end(self, why: str) -> None:
        self._ended = why
        if not self.done.done():
            self.done.set_result(why)

    def _pump(self) -> None:
        lines = self._lines
        while lines and self._busy is None:
            line = lines.popleft()
            try:
                waiting = self.handle(line)
            except Exception:  # a fault of the relay's own must not end the session
                logger.exception("Could not relay a message of the %s's: %r", self.what, line[:200])
                continue
            if waiting is not None:
                self._busy = asyncio.get_running_loop().create_task(self._finish(waiting))
        if self._busy is not None:
            self._pause()
        elif self._paused:
            self._paused = False
            with contextlib.suppress(Exception):
                self.transport.resume_reading()
        if self._busy is None and not lines and self._ended == "" and not self.done.done():
            self.done.set_result("")

    def _pause(self) -> None:
        if not self._paused and self._ended is None and self.transport is not None:
            self._paused = True
            with contextlib.suppress(Exception):
                self.transport.pause_reading()

    async def _finish(self, waiting: Awaitable[None]) -> None:
        try:
            await waiting
        except Exception:
            logger.exception("Could not relay a message of the %s's", self.what)
        finally:
            self._busy = None
            if not self.done.done():
                self._pump()

    def cancel(self) -> None:
        if self._busy is not None:
            self._busy.cancel()


async def feed_client(handle: LineHandler) -> Awaitable[str]:
    """Hands each line of the proxy's stdin to ``handle``; returns what to await for its end."""
    loop = asyncio.get_running_loop()
    feed = LineFeed(handle, "client")
    try:
        pipe = os.fdopen(os.dup(sys.stdin.fileno()), "rb", buffering=0)
        await loop.connect_read_pipe(lambda: feed, pipe)
    except (OSError, ValueError, AttributeError):  # a regular file: read on a worker thread
        stdin = sys.stdin.buffer

        async def from_thread() -> str:
            while True:
                line = await anyio.to_thread.run_sync(stdin.readline)
                if not line:
                    return ""
                if line.strip():
                    try:
                        waiting = handle(line)
                        if waiting is not None:
                            await waiting
                    except Exception:
                        logger.exception("Could not relay a message of the client's: %r", line[:200])

        return from_thread()

    async def until_end() -> str:
        try:
            why = await asyncio.shield(feed.done)
        except asyncio.CancelledError:
            feed.cancel()
            raise
        if why:
            logger.error("The client %s: the proxy stops", why)
        return why

    return until_end()


# ---------------------------------------------------------------- downstreams



class _ChildProtocol(asyncio.subprocess.SubprocessStreamProtocol):
    """The child's stdout goes to a ``LineFeed`` rather than a stream reader; its stdin stays a stream writer."""

    def __init__(self, feed: LineFeed, loop: asyncio.AbstractEventLoop) -> None:
        super().__init__(limit=2 ** 16, loop=loop)
        self.feed = feed

    def pipe_data_received(self, fd: int, data: bytes | str) -> None:
        if fd == 1:
            self.feed.data_received(data if isinstance(data, bytes) else data.encode())
        else:
            super().pipe_data_received(fd, data)

    def pipe_connection_lost(self, fd: int, exc: Exception | None) -> None:
        if fd == 1:
            self.feed.connection_lost(exc)
        super().pipe_connection_lost(fd, exc)


class StdioDownstream:
    """The downstream as a child process: JSON-RPC lines on its stdin and stdout, its stderr is the proxy's."""

    def __init__(self, command: Sequence[str], on_line: LineHandler, on_exit: Callable[[str], None]) -> None:
        self.command = list(command)
        self.on_line, self.on_exit = on_line, on_exit
        self.proc: asyncio.subprocess.Process | None = None
        self._reader: asyncio.Task[None] | None = None
        self._feed: LineFeed | None = None

    @property
    def alive(self) -> bool:
        return self.proc is not None

    async def start(self) -> None:
        loop = asyncio.get_running_loop()
        feed = LineFeed(self.on_line, "downstream server")
        try:
            transport, protocol = await loop.subprocess_exec(
                lambda: _ChildProtocol(feed, loop), *self.command, stdin=asyncio.subprocess.PIPE,
                stdout=asyncio.subprocess.PIPE, stderr=None)
        except (OSError, ValueError) as exc:
            raise DownstreamUnavailable(f"the downstream server {self.command[0]!r} could not be started: {exc}") \
                from None
        feed.transport = transport.get_pipe_transport(1)
        self.proc = asyncio.subprocess.Process(transport, protocol, loop)
        self._feed = feed
        self._reader = loop.create_task(self._read(self.proc, feed))

    async def _read(self, proc: asyncio.subprocess.Process, feed: LineFeed) -> None:
        why = ""
        try:
            why = await asyncio.shield(feed.done)
        except asyncio.CancelledError:
            feed.cancel()
            raise
        current = self.proc is proc
        if current:
            self.proc = None
        if proc.returncode is None:
            if why:
                with contextlib.suppress(ProcessLookupError):
                    proc.kill()
            with contextlib.suppress(asyncio.TimeoutError):
                await asyncio.wait_for(proc.wait(), 5)
        if current:  # one stopped on purpose (kill, close) is not reported
            self.on_exit(f"the downstream server {why or 'exited'} (exit code {proc.returncode})")

    def send(self, data: bytes) -> Awaitable[None] | None:
        proc = self.proc
        if proc is None or proc.stdin is None or proc.stdin.is_closing():
            return None
        proc.stdin.write(data)
        if proc.stdin.transport.get_write_buffer_size() > HIGH_WATER:
            return self._drain(proc.stdin)
        return None

    @staticmethod
    async def _drain(stdin: asyncio.StreamWriter) -> None:
        with contextlib.suppress(ConnectionError):
            await stdin.drain()

    def kill(self) -> None:
        proc, self.proc = self.proc, None
        if proc is not None and proc.returncode is None:
            with contextlib.suppress(ProcessLookupError):
                proc.kill()

    async def close(self) -> None:
        """Closes its stdin, then SIGTERM after 2 s, SIGKILL after 2 more."""
        proc, self.proc = self.proc, None
        if proc is None:
            return
        if proc.stdin is not None:
            proc.stdin.close()
        for stop in (None, proc.terminate, proc.kill):
            if stop is not None:
                with contextlib.suppress(ProcessLookupError):
                    stop()
            with contextlib.suppress(asyncio.TimeoutError):
                await asyncio.wait_for(asyncio.shield(proc.wait()), 2)
                break
        if self._reader is not None:
            with contextlib.suppress(asyncio.TimeoutError, asyncio.CancelledError):
                await asyncio.wait_for(asyncio.shield(self._reader), 2)


# The params member that a request of the stateless protocol repeats in the Mcp-Name header.
NAME_BEARING = {"tools/call": "name", "prompts/get": "name", "resources/read": "uri"}
PROTOCOL_VERSION_META = "io.modelcontextprotocol/protocolVersion"
_HEADER_SAFE = re.compile(r"[\x20-\x7E]*")
_BASE64_WRAPPED = re.compile(r"=\?base64\?.*\?=")


def _header_value(value: str) -> str:
    if _HEADER_SAFE.fullmatch(value) and value == value.strip() and not _BASE64_WRAPPED.fullmatch(value):
        return value
    return f"=?base64?{base64.b64encode(value.encode()).decode('ascii')}?="


def _answers(raw: bytes, request_id: Any) -> bool:
    try:
        message = json.loads(raw)
    except ValueError:
        return False
    return isinstance(message, dict) and message.get("id") == request_id and "error" in message


def _routing_headers(message: dict[str, Any]) -> dict[str, str]:
    """A request stamped with its protocol version in ``_meta`` (the stateless protocol) repeats the version,
    its method and the name it acts on as headers, which a client over stdio cannot send."""
    params = message.get("params")
    meta = params.get("_meta") if isinstance(params, dict) else None
    version = meta.get(PROTOCOL_VERSION_META) if isinstance(meta, dict) else None
    method = message.get("method")
    if not isinstance(version, str) or not isinstance(method, str):
        return {}
    headers = {"mcp-protocol-version": version, "mcp-method": method}
    name = params.get(NAME_BEARING.get(method, ""))  # type: ignore[union-attr]
    if isinstance(name, str):
        headers["mcp-name"] = _header_value(name)
    return headers


class HttpDownstream:
    """The downstream at a streamable-HTTP URL: each message POSTed; the answers, as JSON or as a stream of
    events, and the messages of the session's own event stream are handed on as lines."""

    def __init__(self, url: str, headers: dict[str, str], on_line: LineHandler, on_exit: Callable[[str], None],
                 on_failed: Callable[[Any, str], None],
                 timeout: float | None) -> None:
        self.url, self.headers = url, headers
        self.on_line, self.on_exit, self.on_failed = on_line, on_exit, on_failed
        self.timeout = timeout
        self.client: Any = None
        self.session_id: str | None = None
        self.protocol_version: str | None = None
        self.alive = False
        self._tasks: set[asyncio.Task[None]] = set()
        self._listening = False

    async def start(self) -> None:
        try:
            import httpx2 as httpx
        except ImportError:  # pragma: no cover - the SDK brings it
            raise DownstreamUnavailable("a URL downstream needs the 'mcp' extra (its HTTP client)") from None
        if self.client is None:
            self.client = httpx.AsyncClient(timeout=httpx.Timeout(30.0, read=None), follow_redirects=True)
        for task in list(self._tasks):
            task.cancel()
        self.session_id = self.protocol_version = None
        self._listening = False
        self.alive = True

    async def _hand_on(self, data: bytes) -> None:
        waiting = self.on_line(data)
        if waiting is not None:
            await waiting

    def _headers(self) -> dict[str, str]:
        headers = {"content-type": "application/json", "accept": "application/json, text/event-stream",
                   **self.headers}
        if self.session_id is not None:
            headers["mcp-session-id"] = self.session_id
        if self.protocol_version is not None:
            headers["mcp-protocol-version"] = self.protocol_version
        return headers

    def send(self, data: bytes) -> None:
        if not self.alive:
            return
        task = asyncio.get_running_loop().create_task(self._post(data))
        self._tasks.add(task)
        task.add_done_callback(self._tasks.discard)

    async def _post(self, data: bytes) -> None:
        import httpx2 as httpx

        request_id, method = None, None
        headers = self._headers()
        try:
            message = json.loads(data)
            if isinstance(message, dict):
                request_id, method = message.get("id"), message.get("method")
                headers.update(_routing_headers(message))
        except ValueError:
            pass
        is_request = request_id is not None and method is not None
        try:
            async with self.client.stream("POST", self.url, content=data, headers=headers) as response:
                session = response.headers.get("mcp-session-id")
                if session:
                    self.session_id = session
                if response.status_code == 404 and self.session_id is not None and method != "initialize":
                    self.alive = False
                    self.on_exit("the downstream server ended the session (HTTP 404)")
                    return
                if response.status_code >= 400:
                    raw = await response.aread()
                    if is_request and _answers(raw, request_id):  # a JSON-RPC error of the server's: as it is
                        await self._hand_on(raw)
                        return
                    body = raw.decode(errors="replace")[:300]
                    if method == "initialize":
                        self.alive = False
                        self.on_exit(f"the downstream server answered initialize with HTTP {response.status_code}: "
                                     f"{body}")
                    elif is_request:
                        self.on_failed(request_id, f"the downstream server answered HTTP {response.status_code}: "
                                                   f"{body}")
                    return
                kind = response.headers.get("content-type", "").partition(";")[0].strip().lower()
                if kind == "text/event-stream":
                    async for event in httpx.EventSource(response, max_event_size=None):
                        if event.data:
                            await self._received(event.data.encode(), method == "initialize")
                elif kind == "application/json":
                    await self._received(await response.aread(), method == "initialize")
        except httpx.HTTPError as exc:
            if method == "initialize":
                self.alive = False
                self.on_exit(f"the downstream server could not be reached: {exc!r}")
            elif is_request:
                self.on_failed(request_id, f"the downstream server could not be reached: {exc!r}")

    async def _received(self, data: bytes, initializing: bool) -> None:
        if initializing and self.protocol_version is None:
            with contextlib.suppress(ValueError, AttributeError):
                version = json.loads(data).get("result", {}).get("protocolVersion")
                if isinstance(version, str):
                    self.protocol_version = version
        if data.strip():
            await self._hand_on(data)

    def listen(self) -> None:
        """Opens the session's own event stream (messages not tied to a request), once per session."""
        if self._listening or not self.alive:
            return
        self._listening = True
        task = asyncio.get_running_loop().create_task(self._listen())
        self._tasks.add(task)
        task.add_done_callback(self._tasks.discard)

    async def _listen(self) -> None:
        import httpx2 as httpx

        headers = {k: v for k, v in self._headers().items() if k != "content-type"}
        headers["accept"] = "text/event-stream"
        for _ in range(3):
            try:
                async with self.client.stream("GET", self.url, headers=headers) as response:
                    if response.status_code >= 400:
                        return  # the server has no such stream (405) or refuses it
                    async for event in httpx.EventSource(response, max_event_size=None):
                        if event.data:
                            await self._hand_on(event.data.encode())
            except httpx.HTTPError:
                pass
            if not self.alive:
                return
            await asyncio.sleep(1)

    def kill(self) -> None:
        self.alive = False

    async def close(self) -> None:
        self.alive = False
        for task in list(self._tasks):
            task.cancel()
        if self.client is not None:
            if self.session_id is not None:
                with contextlib.suppress(Exception):
                    with anyio.move_on_after(2):
                        await self.client.delete(self.url, headers=self._headers())
            await self.client.aclose()
            self.client = None

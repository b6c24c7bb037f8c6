"""The two sides of the proxy's relay: the client on the proxy's stdin and stdout, and the downstream server as a
child process (JSON-RPC lines on pipes) or at a streamable-HTTP URL. Each hands on whole messages as bytes."""
from __future__ import annotations

import asyncio
import base64
import concurrent.futures
import contextlib
import contextvars
import json
import logging
import os
import re
import select
import subprocess
import sys
import threading
from typing import Any, Awaitable, Callable, Sequence

import anyio
import anyio.to_thread

__all__ = ["DOWNSTREAM_ERROR", "PROTOCOL_VERSION_META", "ByteSink", "ClientOut", "DownstreamUnavailable",
           "HttpDownstream", "LineReader", "LoopDoor", "StdioDownstream", "dump", "parse", "read_client", "rpc_error"]

logger: logging.Logger = logging.getLogger("ordanis_veltrane.mcp_proxy")

# A message may be this long (one line of JSON); a longer one from the downstream ends it.
MAX_MESSAGE_BYTES = 512 * 1024 * 1024
# The downstream is unreachable, did not answer in time, or left the request unanswered.
DOWNSTREAM_ERROR = -32001
# Takes one whole message (on the thread that read it, or on the loop for an HTTP downstream).
LineHandler = Callable[[bytes], None]


# The C scanner that json.loads runs after its Python preliminaries.
_scan: Callable[[str, int], tuple[Any, int]] = json.JSONDecoder().scan_once  # type: ignore[attr-defined]


def parse(line: bytes) -> Any:
    """``json.loads`` of one message, without its preliminaries (guessing the encoding, matching whitespace) in the
    usual case of a line that is UTF-8 and starts with its value; anything else, and every error, is json.loads's."""
    try:
        text = line.decode()
        value, end = _scan(text, 0)
    except (StopIteration, ValueError):
        return json.loads(line)
    if end != len(text) and text[end:].strip(" \t\n\r"):
        return json.loads(line)  # raises: extra data after the value
    return value


def dump(message: Any) -> bytes:
    """One line of JSON (escaped to ASCII: text with lone surrogates, which a client may send, encodes too)."""
    return json.dumps(message, separators=(",", ":")).encode() + b"\n"


def rpc_error(request_id: Any, code: int, text: str) -> bytes:
    return dump({"jsonrpc": "2.0", "id": request_id, "error": {"code": code, "message": text}})


class DownstreamUnavailable(Exception):
    """The downstream cannot take a request now; the text says why."""


# ---------------------------------------------------------------- pipes, on threads of their own
#
# Over stdio the relay's messages never touch the event loop: a thread per side reads its pipe with plain blocking
# reads and hands each line to the relay on that thread, which writes it on at once with a plain blocking write.
# A message then costs one read and one write, and no wake-up of the loop or hand-off between threads. A blocking
# write is the backpressure: while the far side does not read, the thread that writes to it stops reading its own
# side, so a flood cannot pile up in memory and the order of messages holds.


class ByteSink:
    """A pipe (or file) that any thread writes whole messages to: in the order given, never interleaved."""

    def __init__(self, fd: int, owned: bool = False) -> None:
        self.fd, self.owned = fd, owned
        self.closed = False
        self._lock = threading.Lock()
        self._close_after = False

    def write(self, data: bytes) -> bool:
        """Writes all of ``data`` (waiting while the reader is behind); False once the pipe is closed or broken."""
        with self._lock:
            if self.closed:
                return False
            try:
                written = os.write(self.fd, data)
                if written < len(data):
                    self._write_rest(memoryview(data)[written:])
            except BlockingIOError:  # a descriptor someone made non-blocking
                self._write_rest(memoryview(data))
            except (OSError, ValueError):
                self._shut()
                return False
            if self._close_after:
                self._shut()
        return True

    def _write_rest(self, view: memoryview) -> None:
        while view:
            try:
                view = view[os.write(self.fd, view):]
            except BlockingIOError:
                select.select([], [self.fd], [])

    def _shut(self) -> None:
        self.closed = True
        if self.owned:
            self.owned = False
            with contextlib.suppress(OSError):
                os.close(self.fd)

    def close(self, wait: float = 2.0) -> None:
        """No more writes; an owned descriptor is closed (after a write under way, at most ``wait`` s later)."""
        if self._lock.acquire(timeout=wait):
            try:
                self._shut()
            finally:
                self._lock.release()
        else:  # a write to a reader that does not read: closed once it ends
            self._close_after = True


class LineReader:
    """Reads a pipe on a thread of its own and hands each line (a whole message) to ``handle``, in order, on that
    thread; then ``on_end`` with why it ended ("" at the end of the pipe)."""

    CHUNK = 64 * 1024  # below the size from which malloc maps (and unmaps) memory for every read

    def __init__(self, fd: int, handle: LineHandler, what: str, on_end: Callable[[str], None],
                 owned: bool = False) -> None:
        self.fd, self.handle, self.what, self.on_end, self.owned = fd, handle, what, on_end, owned
        self.finished = threading.Event()
        self.thread = threading.Thread(target=self._run, name=f"ordanis-veltrane-proxy {what}", daemon=True)

    def start(self) -> None:
        self.thread.start()

    def _hand_on(self, line: bytes) -> None:
        try:
            self.handle(line)
        except Exception:  # a fault of the relay's own must not end the session
            self._failed(line)

    def _failed(self, line: bytes) -> None:
        logger.exception("Could not relay a message of the %s's: %r", self.what, line[:200])

    def _run(self) -> None:
        why, fd, handle, buffer = "", self.fd, self.handle, bytearray()
        try:
            while True:
                data = os.read(fd, self.CHUNK)
                if not data:
                    break
                if buffer:  # the rest of a message begun in an earlier read
                    buffer += data
                    if b"\n" not in data:
                        if len(buffer) > MAX_MESSAGE_BYTES:
                            why = f"sent a message longer than {MAX_MESSAGE_BYTES} bytes"
                            break
                        continue
                    data = bytes(buffer)
                    buffer.clear()
                end = data.find(b"\n")
                if end == len(data) - 1:  # the usual case: one whole message
                    if end:
                        try:
                            handle(data)
                        except Exception:  # a fault of the relay's own must not end the session
                            self._failed(data)
                    continue
                start = 0
                while end >= 0:
                    if end > start:
                        self._hand_on(data[start:end + 1])
                    start = end + 1
                    end = data.find(b"\n", start)
                buffer += data[start:]
                if len(buffer) > MAX_MESSAGE_BYTES:
                    why = f"sent a message longer than {MAX_MESSAGE_BYTES} bytes"
                    break
        except OSError as exc:
            why = f"could not be read ({exc})"
        finally:
            if not why and buffer.strip():
                self._hand_on(bytes(buffer))
            if self.owned:
                with contextlib.suppress(OSError):
                    os.close(fd)
            try:
                self.on_end(why)
            finally:
                self.finished.set()


class LoopDoor:
    """The running event loop, as other threads reach it. What they hand it runs in the loop's own context (the
    one it was opened in), where anyio and the libraries on it know which loop they run on."""

    def __init__(self) -> None:
        self.loop = asyncio.get_running_loop()
        self.context = contextvars.copy_context()

    def here(self) -> bool:
        try:
            return asyncio.get_running_loop() is self.loop
        except RuntimeError:
            return False

    def soon(self, callback: Callable[..., object], *args: Any) -> None:
        """Runs ``callback(*args)`` on the loop soon; nothing once the loop is closed (the proxy is ending)."""
        with contextlib.suppress(RuntimeError):
            self.loop.call_soon_threadsafe(callback, *args, context=self.context)

    def run(self, work: Callable[[], Awaitable[None] | None]) -> None:
        """Runs ``work`` on the loop, and then what it returns to await, and waits until that is done: the calling
        thread's next message waits for it, which keeps the order. On the loop's own thread: runs it there, and
        what it returns to await in a task."""
        if self.here():
            waiting = work()
            if waiting is not None:
                self.loop.create_task(_awaited(waiting))
            return
        done: concurrent.futures.Future[None] = concurrent.futures.Future()

        def start() -> None:
            try:
                waiting = work()
            except BaseException as exc:
                done.set_exception(exc)
                return
            if waiting is None:
                done.set_result(None)
                return
            task = self.loop.create_task(_awaited(waiting))
            task.add_done_callback(lambda t: done.cancel() if t.cancelled() else done.set_result(None))

        try:
            self.loop.call_soon_threadsafe(start, context=self.context)
        except RuntimeError:  # the loop is closed: the proxy is ending
            return
        with contextlib.suppress(concurrent.futures.CancelledError):
            done.result()


async def _awaited(waiting: Awaitable[None]) -> None:
    await waiting


def _fileno(stream: Any, default: int) -> int:
    try:
        return int(stream.fileno())
    except (AttributeError, OSError, ValueError):  # replaced by an object without a descriptor
        return default


class ClientOut(ByteSink):
    """The proxy's stdout."""

    def __init__(self) -> None:
        super().__init__(_fileno(sys.stdout, 1))


def read_client(door: LoopDoor, handle: LineHandler) -> Awaitable[str]:
    """Hands each line of the proxy's stdin to ``handle`` on a thread of its own; returns what to await for its
    end (why it ended: "" at the end of stdin)."""
    ended: asyncio.Future[str] = door.loop.create_future()

    def end(why: str) -> None:
        if not ended.done():
            ended.set_result(why)

    LineReader(_fileno(sys.stdin, 0), handle, "client", lambda why: door.soon(end, why)).start()

    async def until_end() -> str:
        why = await ended
        if why:
            logger.error("The client %s: the proxy stops", why)
        return why

    return until_end()


# ---------------------------------------------------------------- downstreams


class StdioDownstream:
    """The downstream as a child process: JSON-RPC lines on its stdin and stdout, its stderr is the proxy's. Its
    stdout is read on a thread of its own; any thread may send."""

    def __init__(self, command: Sequence[str], on_line: LineHandler, on_exit: Callable[[str], None]) -> None:
        self.command = list(command)
        self.on_line, self.on_exit = on_line, on_exit
        self.proc: subprocess.Popen[bytes] | None = None
        self._sink: ByteSink | None = None
        self._reader: LineReader | None = None

    @property
    def alive(self) -> bool:
        return self.proc is not None

    async def start(self) -> None:
        door = LoopDoor()
        to_child, from_child = os.pipe(), os.pipe()  # not inherited: the child gets its ends as stdin and stdout
        try:
            proc = subprocess.Popen(self.command, stdin=to_child[0], stdout=from_child[1], stderr=None)
        except (OSError, ValueError, subprocess.SubprocessError) as exc:
            for fd in (*to_child, *from_child):
                os.close(fd)
            raise DownstreamUnavailable(f"the downstream server {self.command[0]!r} could not be started: {exc}") \
                from None
        os.close(to_child[0])
        os.close(from_child[1])
        self.proc, self._sink = proc, ByteSink(to_child[1], owned=True)
        sink = self._sink
        self._reader = LineReader(from_child[0], self.on_line, "downstream server",
                                  lambda why: self._ended(door, proc, sink, why), owned=True)
        self._reader.start()

    def _ended(self, door: LoopDoor, proc: subprocess.Popen[bytes], sink: ByteSink, why: str) -> None:
        """On the reader's thread, at the end of the child's stdout: the child is waited for (killed if it broke
        the protocol), then reported gone on the loop, unless it was stopped on purpose."""
        if why and proc.poll() is None:
            with contextlib.suppress(ProcessLookupError):
                proc.kill()
        with contextlib.suppress(subprocess.TimeoutExpired):
            proc.wait(5)
        sink.close(wait=0.5)

        def report() -> None:
            if self.proc is proc:
                self.proc = self._sink = None
                self.on_exit(f"the downstream server {why or 'exited'} (exit code {proc.returncode})")

        door.soon(report)

    def send(self, data: bytes) -> None:
        sink = self._sink
        if sink is not None:
            sink.write(data)

    def kill(self) -> None:
        proc, sink, self.proc, self._sink = self.proc, self._sink, None, None
        if proc is not None and proc.poll() is None:
            with contextlib.suppress(ProcessLookupError):
                proc.kill()
        if sink is not None:
            sink.close(wait=0.5)

    async def close(self) -> None:
        """Closes its stdin, then SIGTERM after 2 s, SIGKILL after 2 more."""
        proc, sink, self.proc, self._sink = self.proc, self._sink, None, None
        if proc is None:
            return
        if sink is not None:
            await anyio.to_thread.run_sync(sink.close)
        for stop in (None, proc.terminate, proc.kill):
            if stop is not None:
                with contextlib.suppress(ProcessLookupError):
                    stop()
            if await self._exited(proc, 2):
                break
        reader = self._reader
        if reader is not None:  # the lines it still had are handed on before the proxy writes its last
            for _ in range(200):
                if reader.finished.is_set():
                    break
                await asyncio.sleep(0.01)

    @staticmethod
    async def _exited(proc: subprocess.Popen[bytes], seconds: float) -> bool:
        for _ in range(int(seconds / 0.01)):
            if proc.poll() is not None:
                return True
            await asyncio.sleep(0.01)
        return proc.poll() is not None


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
        self._door: LoopDoor | None = None

    async def start(self) -> None:
        try:
            import httpx2 as httpx
        except ImportError:  # pragma: no cover - the SDK brings it
            raise DownstreamUnavailable("a URL downstream needs the 'mcp' extra (its HTTP client)") from None
        self._door = LoopDoor()
        if self.client is None:
            self.client = httpx.AsyncClient(timeout=httpx.Timeout(30.0, read=None), follow_redirects=True)
        for task in list(self._tasks):
            task.cancel()
        self.session_id = self.protocol_version = None
        self._listening = False
        self.alive = True

    async def _hand_on(self, data: bytes) -> None:
        self.on_line(data)

    def _headers(self) -> dict[str, str]:
        headers = {"content-type": "application/json", "accept": "application/json, text/event-stream",
                   **self.headers}
        if self.session_id is not None:
            headers["mcp-session-id"] = self.session_id
        if self.protocol_version is not None:
            headers["mcp-protocol-version"] = self.protocol_version
        return headers

    def send(self, data: bytes) -> None:
        """From any thread: the message is POSTed by a task of the event loop."""
        door = self._door
        if not self.alive or door is None:
            return
        if door.here():
            self._post_soon(data)
        else:
            door.soon(self._post_soon, data)

    def _post_soon(self, data: bytes) -> None:
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

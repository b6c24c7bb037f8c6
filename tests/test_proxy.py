"""The proxy as a relay, driven over stdio by the official SDK's client and by FastMCP's: every feature of a test
downstream passes as it does direct (over stdio and over streamable HTTP with a bearer token), mcp-server-time and
mcp-server-git from PyPI behind it, and the faults: a downstream killed mid-call or gone, one that never starts or
never answers, a call past its time limit, a flood of log messages, a 50 MB result, malformed JSON, SIGTERM."""

import json
import os
import signal
import socket
import subprocess
import sys
import time
from contextlib import asynccontextmanager
from pathlib import Path
from types import SimpleNamespace
from typing import Any, AsyncIterator

import pytest

pytest.importorskip("mcp")
pytestmark = pytest.mark.skipif(sys.platform == "win32", reason="POSIX signals and /proc")

import anyio  # noqa: E402
from mcp import ClientSession, StdioServerParameters, stdio_client  # noqa: E402
from mcp import types as mt  # noqa: E402

from conftest import child_env  # noqa: E402
from test_mcp import REFUSED, health_of, stored, text  # noqa: E402

HERE = Path(__file__).parent
# The downstream servers are not under test: a sanitizer runtime preloaded into the tests stays out of them.
CLEAN_ENV = ["env", "-u", "LD_PRELOAD", "-u", "PYTHONMALLOC"] if os.environ.get("LD_PRELOAD") else []
FEATURES = [*CLEAN_ENV, sys.executable, str(HERE / "proxy_downstream.py")]
RAW = [*CLEAN_ENV, sys.executable, str(HERE / "raw_downstream.py")]
TIME = [*CLEAN_ENV, sys.executable, "-m", "mcp_server_time"]
# Slow starts on a loaded machine: the feature tests wait for the downstream rather than answer without it.
PATIENT = ("--init-timeout", "60")
TOKEN = "Authorization: Bearer s3cret"


def proxy(db: Path, downstream: list[str], *flags: str) -> list[str]:
    return [sys.executable, "-m", "ordanis_veltrane.mcp_proxy", "--db", str(db), "--flush-interval", "0", *flags,
            "--", *downstream]


def seen() -> SimpleNamespace:
    """What a client was sent besides answers: progress, log lines, list_changed notices."""
    return SimpleNamespace(progress=[], logs=[], changed=0)


@asynccontextmanager
async def sdk(command: list[str], log: Path, got: SimpleNamespace | None = None) -> AsyncIterator[ClientSession]:
    got = got or seen()

    async def sampling(context: Any, params: mt.CreateMessageRequestParams) -> mt.CreateMessageResult:
        return mt.CreateMessageResult(role="assistant", content=mt.TextContent(type="text", text="hi"), model="m")

    async def elicitation(context: Any, params: Any) -> mt.ElicitResult:
        return mt.ElicitResult(action="accept", content={"ok": True})

    async def logging(params: mt.LoggingMessageNotificationParams) -> None:
        got.logs.append(params.data)

    async def messages(message: Any) -> None:
        got.changed += isinstance(message, mt.ToolListChangedNotification)

    params = StdioServerParameters(command=command[0], args=command[1:], env=child_env())
    with open(log, "a") as errlog:
        async with stdio_client(params, errlog=errlog) as (read, write), ClientSession(
                read, write, sampling_callback=sampling, elicitation_callback=elicitation, logging_callback=logging,
                message_handler=messages) as session:
            await session.initialize()
            yield session


async def features(call: Any, tools: Any, resource: Any, prompt: Any, got: SimpleNamespace, asked: list[str],
                   notice_within: float) -> dict[str, Any]:
    """What a client observes of every feature of the test downstream, whichever client it is."""
    observed: dict[str, Any] = {"tools": await tools()}
    observed["progress"] = await call("progress"), got.progress
    observed["log"] = await call("log", {"count": 2}), got.logs
    observed["calls"] = [await call(name) for name in asked]
    observed["added"] = await call("add_tool")
    with anyio.move_on_after(notice_within):
        while not got.changed:
            await anyio.sleep(0.05)
    observed["changed"], observed["added tools"] = bool(got.changed), await tools()
    observed["resource"] = await resource("test://greeting")
    observed["prompt"] = await prompt("ask", {"topic": "tides"})
    return observed


async def sdk_features(session: ClientSession, got: SimpleNamespace) -> dict[str, Any]:
    async def progress(value: float, total: float | None, message: str | None) -> None:
        got.progress.append((value, total, message))

    async def call(name: str, arguments: dict[str, Any] | None = None) -> str:
        return text(await session.call_tool(name, arguments or {}, progress_callback=progress))

    async def tools() -> list[str]:
        return sorted(t.name for t in (await session.list_tools()).tools)

    with anyio.move_on_after(1):
        await call("sleep", {"seconds": 30})  # cancelled: the session goes on
    after_cancel = await call("sleep", {"seconds": 0})
    observed = await features(call, tools, session.read_resource, session.get_prompt, got,
                              ["elicit", "sample", "ping_client", "status", "health_status"], 10)
    return {**observed, "after cancel": after_cancel, "resource": observed["resource"].contents[0].text,
            "prompt": observed["prompt"].messages[0].content.text}


async def fastmcp_features(command: list[str], log: Path, mode: str) -> dict[str, Any]:
    from fastmcp import Client
    from fastmcp.client.transports import StdioTransport

    got = seen()

    async def on_log(message: Any) -> None:
        got.logs.append(message.data)

    async def on_progress(value: float, total: float | None, message: str | None) -> None:
        got.progress.append((value, total, message))

    async def on_message(message: Any) -> None:
        got.changed += isinstance(message, mt.ToolListChangedNotification)

    async def elicit(message: str, kind: Any, params: Any, context: Any) -> Any:
        return kind(ok=True)

    client = Client(StdioTransport(command[0], command[1:], env=child_env(), keep_alive=False, log_file=log),
                    sampling_handler=lambda messages, params, context: "hi", log_handler=on_log,
                    elicitation_handler=elicit, progress_handler=on_progress, message_handler=on_message, mode=mode)
    async with client:
        async def call(name: str, arguments: dict[str, Any] | None = None) -> str:
            try:  # FastMCP's client negotiates the stateless protocol: no requests from the server, direct or not
                return text(await client.call_tool(name, arguments or {}, raise_on_error=False))
            except Exception as exc:
                return f"raised {exc}"

        async def tools() -> list[str]:
            return sorted(t.name for t in await client.list_tools())

        # The stateless protocol has no list_changed notice.
        observed = await features(call, tools, client.read_resource, client.get_prompt, got,
                                  ["elicit", "sample", "ping_client", "health_status"], 10 if mode == "legacy" else 1)
    return {**observed, "resource": observed["resource"][0].text, "prompt": observed["prompt"].messages[0].content.text}


class HttpServer:
    """The test downstream over streamable HTTP, refusing requests without its bearer token; stopped and started
    again, it has lost every session it had."""

    def __init__(self, log: Path) -> None:
        with socket.socket() as s:
            s.bind(("127.0.0.1", 0))
            self.port, self.log = int(s.getsockname()[1]), log
        self.url = f"http://127.0.0.1:{self.port}/mcp"
        self.start()

    def start(self) -> None:
        with open(self.log, "a") as errlog:
            self.server = subprocess.Popen([*FEATURES, "--http", str(self.port), "--token", "s3cret"], stderr=errlog)
        deadline = time.monotonic() + 60
        while socket.socket().connect_ex(("127.0.0.1", self.port)) != 0:
            assert self.server.poll() is None and time.monotonic() < deadline, self.log.read_text()
            time.sleep(0.1)

    def stop(self) -> None:
        self.server.terminate()
        self.server.wait(10)


@pytest.fixture
def http_server(tmp_path: Path) -> Any:
    server = HttpServer(tmp_path / "server.log")
    yield server
    server.stop()


async def goes_away(session: ClientSession, server: HttpServer | None) -> list[str]:
    """The stdio downstream killed mid-call, or the HTTP one unreachable and then restarted without the session:
    the call that meets it is answered with the reason, and the next starts it again (initialize replayed)."""
    if server is None:
        failed = [await session.call_tool("die", {})]
    else:
        server.stop()
        failed = [await session.call_tool("progress", {})]
        server.start()
        failed.append(await session.call_tool("progress", {}))
    assert all(r.is_error for r in failed)
    return [text(r) for r in failed] + [text(await session.call_tool("progress", {}))]


@pytest.mark.parametrize("client", ["sdk", "fastmcp", "fastmcp-legacy"])
def test_every_feature_passes_as_it_does_direct_then_the_downstream_goes_away(
        tmp_path: Path, client: str, http_server: HttpServer) -> None:
    if client != "sdk":
        pytest.importorskip("fastmcp")
    db, log = tmp_path / "health.db", tmp_path / "proxy.log"
    routes = {"stdio": proxy(db, FEATURES, *PATIENT), "http": proxy(db, [http_server.url], *PATIENT, "--header", TOKEN)}

    async def run(command: list[str]) -> dict[str, Any]:
        if client != "sdk":
            return await fastmcp_features(command, log, "legacy" if client.endswith("legacy") else "auto")
        got = seen()
        async with sdk(command, log, got) as session:
            observed = await sdk_features(session, got)
            if command is not FEATURES:
                observed["gone"] = await goes_away(session, http_server if command is routes["http"] else None)
                status = health_of(await session.call_tool("health_health_status", {}))
                observed["sleep outcomes"] = sorted(u["outcome"] for u in status["sleep"]["usage"])
                observed["errors"] = status["progress"]["error_count"], status["die"]["error_count"]
        return observed

    direct = anyio.run(run, FEATURES)
    status_tools = {"health_health_status", "get_tool_performance_stats"}  # the downstream keeps its own
    for route, command in routes.items():
        proxied = anyio.run(run, command)
        for key in ("tools", "added tools"):
            assert status_tools <= set(proxied[key]), route
            proxied[key] = sorted(set(proxied[key]) - status_tools)
        if client == "sdk":
            assert proxied.pop("sleep outcomes") == ["cancelled", "ok"], route
            gone = proxied.pop("gone")
            assert proxied.pop("errors") == ((route == "http") * 2, 1), route  # the store is shared: die's stays
            assert gone[-1] == "done" and ("exited (exit code 3) before answering" in gone[0] if route == "stdio" else
                                           "could not be reached" in gone[0] and "(HTTP 404)" in gone[1]), gone
        assert proxied == direct, route
    if client != "fastmcp":  # FastMCP's client negotiates the stateless protocol: the server asks nothing of it
        assert direct["calls"][:3] == ["accept True", "sampled hi", "pinged"] and len(direct["log"][1]) == 2
        assert direct["changed"]
    assert "added" in direct["added tools"] and direct["resource"] == "hello resource"

    async def refused() -> None:  # without the token: the proxy answers for itself, and says why
        async with sdk(proxy(db, [http_server.url]), log) as session:
            failed = await session.call_tool("progress", {})
            assert failed.is_error and "HTTP 401" in text(failed), text(failed)

    anyio.run(refused)


def test_time_and_git_servers_errors_client_errors_refusal_and_status(tmp_path: Path) -> None:
    """mcp-server-time through the SDK's client: a bad time zone is the client's (--client-error) and never
    disables; other errors do, the refusal gives the last one, and --hide-disabled leaves the tool out of the list.
    mcp-server-git on the same store through FastMCP's client."""
    pytest.importorskip("mcp_server_time")
    pytest.importorskip("mcp_server_git")
    pytest.importorskip("fastmcp")
    from fastmcp import Client
    from fastmcp.client.transports import StdioTransport

    repo, db, log = tmp_path / "repo", tmp_path / "health.db", tmp_path / "proxy.log"
    subprocess.run(["git", "init", "-q", str(repo)], check=True)
    git = [*CLEAN_ENV, sys.executable, "-m", "mcp_server_git", "--repository", str(repo)]
    flags = (*PATIENT, "--disable-after", "2", "--cooldown", "60")

    async def scenario() -> None:
        async with sdk(proxy(db, TIME, *flags, "--client-error", "Invalid timezone", "--hide-disabled"),
                       log) as session:
            names = {t.name for t in (await session.list_tools()).tools}
            assert names == {"get_current_time", "convert_time", "status", "get_tool_performance_stats"}
            bad_zone = [await session.call_tool("get_current_time", {"timezone": "Bad/X"}) for _ in range(3)]
            assert all(r.is_error and "Invalid timezone" in text(r) for r in bad_zone)
            ok = await session.call_tool("get_current_time", {"timezone": "Europe/Paris"})
            assert json.loads(text(ok))["timezone"] == "Europe/Paris"
            # Missing arguments are not the client's by any regex given: they disable.
            seen = [await session.call_tool("convert_time", {}) for _ in range(3)]
            assert [r.is_error for r in seen] == [True] * 3 and text(seen[2]).startswith(
                "Tool 'convert_time' " + REFUSED)
            status = health_of(await session.call_tool("status", {}))
            assert (status["get_current_time"]["disabled"], status["convert_time"]["disabled"]) == (False, True)
            # --hide-disabled: the disabled tool leaves the list (the client is told where the pipeline says so).
            assert "convert_time" not in {t.name for t in (await session.list_tools()).tools}
            assert {u["outcome"]: u["calls"] for u in status["get_current_time"]["usage"]} == {
                "client_error": 3, "ok": 1}
        async with Client(StdioTransport(sys.executable, proxy(db, git, *flags)[1:], env=child_env(),
                                         keep_alive=False, log_file=log)) as client:
            outside = await client.call_tool("git_status", {"repo_path": str(tmp_path)}, raise_on_error=False)
            status = health_of(await client.call_tool("status", {}))
        assert outside.is_error and status["git_status"]["last_error"] == text(outside)

    anyio.run(scenario)
    assert stored(db)[0]["convert_time"][:2] == (2, 2)


@pytest.mark.parametrize("downstream", [["/no/such/mcp-server"], [*RAW, "silent"]], ids=["never starts", "silent"])
def test_a_downstream_that_never_starts_or_never_answers(tmp_path: Path, downstream: list[str]) -> None:
    """initialize and the status tools answer within seconds; a tool call fails with a clear error."""
    db, log = tmp_path / "health.db", tmp_path / "proxy.log"

    async def scenario() -> None:
        start = time.monotonic()
        async with sdk(proxy(db, downstream, "--init-timeout", "1"), log) as session:
            names = {t.name for t in (await session.list_tools()).tools}
            failed = await session.call_tool("echo", {})
            status = health_of(await session.call_tool("status", {}))
        assert names == {"status", "get_tool_performance_stats"}
        assert failed.is_error and "the downstream server" in text(failed), text(failed)
        # Nothing lists "echo" and no history knows it: the call counts in the unknown-tools bucket.
        assert status["(unknown)"]["error_count"] == 1 and "echo" not in status
        assert time.monotonic() - start < 20

    anyio.run(scenario)


def test_a_call_past_the_call_timeout_is_answered_and_cancelled_downstream(tmp_path: Path) -> None:
    got = seen()

    async def scenario() -> None:
        command = proxy(tmp_path / "health.db", RAW, *PATIENT, "--call-timeout", "1")
        async with sdk(command, tmp_path / "proxy.log", got) as session:
            late = await session.call_tool("hang", {})
            assert late.is_error and text(late) == "Tool 'hang' did not answer within 1 s", text(late)
            with anyio.fail_after(10):
                while not got.logs:
                    await anyio.sleep(0.05)
            assert text(await session.call_tool("echo", {})) == "{}"  # the session goes on

    anyio.run(scenario)
    assert len(got.logs) == 1 and got.logs[0].startswith("cancelled "), got.logs


def test_floods_big_results_malformed_json_invalid_params_then_sigterm(tmp_path: Path) -> None:
    """A raw client and a raw downstream: 100,000 log messages and a 50 MB result pass; a line of garbage from
    either side is a clear error and the proxy goes on; "invalid params" is the client's fault; SIGTERM answers
    the pending call, writes the health and stops the downstream."""
    db, log = tmp_path / "health.db", tmp_path / "proxy.log"
    with open(log, "w") as errlog:
        server = subprocess.Popen(proxy(db, RAW, "--init-timeout", "30"), stdin=subprocess.PIPE,
                                  stdout=subprocess.PIPE, stderr=errlog, env=child_env())
    assert server.stdin is not None and server.stdout is not None
    ids = iter(range(1, 100))

    def send(message: dict[str, Any] | bytes) -> None:
        assert server.stdin is not None
        server.stdin.write(message if isinstance(message, bytes) else json.dumps({"jsonrpc": "2.0", **message}).encode()
                           + b"\n")
        server.stdin.flush()

    def call(name: str, read: bool = True) -> Any:
        send({"id": next(ids), "method": "tools/call", "params": {"name": name, "arguments": {"x": 1}}})
        return json.loads(server.stdout.readline()) if read else None  # type: ignore[union-attr]

    try:
        hello = {"protocolVersion": "2025-06-18", "capabilities": {}, "clientInfo": {"name": "t", "version": "1"}}
        send({"id": next(ids), "method": "initialize", "params": hello})
        assert json.loads(server.stdout.readline())["result"]["serverInfo"]["name"] == "raw"
        send({"method": "notifications/initialized"})
        send(b"not json at all\n")  # the client's garbage: a parse error
        assert json.loads(server.stdout.readline())["error"]["code"] == -32700
        call("flood", read=False)
        lines = [server.stdout.readline() for _ in range(100_001)]
        assert sum(b'"notifications/message"' in line for line in lines) == 100_000 and b"flooded" in lines[-1]
        assert len(call("big")["result"]["content"][0]["text"]) == 50 * 1024 * 1024
        assert call("garbage")["result"]["content"][0]["text"] == '{"x": 1}'  # its garbage line was left out
        assert call("invalid")["error"]["code"] == -32602
        status = json.loads(call("status")["result"]["content"][0]["text"])
        usage = {t["tool_name"]: t for t in status["tool_health"]}
        call("hang", read=False)
        time.sleep(0.5)
        (raw,) = [int(p.name) for p in Path("/proc").glob("[0-9]*")
                  if f"\nPPid:\t{server.pid}\n" in (p / "status").read_text()]
        server.send_signal(signal.SIGTERM)
        answer = json.loads(server.stdout.readline())
        assert "shutting down" in answer["result"]["content"][0]["text"]
        assert server.wait(20) == 0
    finally:
        server.kill()
    assert [u["outcome"] for u in usage["invalid"]["usage"]] == ["client_error"]
    assert not Path(f"/proc/{raw}").exists() or "zombie" in Path(f"/proc/{raw}/status").read_text()
    assert {tool: row[:2] for tool, row in stored(db)[0].items() if tool in ("flood", "big", "hang")} == {
        "flood": (1, 0), "big": (1, 0), "hang": (1, 1)}
    assert "not JSON" in log.read_text()

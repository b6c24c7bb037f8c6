"""The proxy in front of MCP servers from PyPI (mcp-server-time, mcp-server-git), driven over stdio by the official
SDK's client and by FastMCP's: pass-through, errors and refusals, status, the history across restarts, a downstream
that stops answering, dies or never starts, and SIGTERM."""

import json
import os
import signal
import subprocess
import sys
from contextlib import asynccontextmanager
from pathlib import Path
from typing import Any, AsyncIterator

import pytest

pytest.importorskip("fastmcp")
pytest.importorskip("mcp_server_time")
pytestmark = pytest.mark.skipif(sys.platform == "win32", reason="POSIX signals and /proc")

import anyio  # noqa: E402
from fastmcp import Client  # noqa: E402
from fastmcp.client.transports import StdioTransport  # noqa: E402
from mcp import ClientSession, StdioServerParameters, stdio_client  # noqa: E402

from conftest import child_env  # noqa: E402
from test_mcp import REFUSED, stored  # noqa: E402

TIME = [sys.executable, "-m", "mcp_server_time"]


def proxy_args(db: Path, downstream: list[str], *flags: str) -> list[str]:
    return ["-m", "ordanis_veltrane.mcp_proxy", "--db", str(db), "--flush-interval", "0", *flags, "--", *downstream]


@asynccontextmanager
async def sdk_session(db: Path, downstream: list[str], *flags: str) -> AsyncIterator[ClientSession]:
    params = StdioServerParameters(command=sys.executable, args=proxy_args(db, downstream, *flags), env=child_env())
    with open(db.parent / "proxy.log", "a") as errlog:
        async with stdio_client(params, errlog=errlog) as (read, write), ClientSession(read, write) as session:
            await session.initialize()
            yield session


def fastmcp_client(db: Path, downstream: list[str]) -> Client[Any]:
    return Client(StdioTransport(sys.executable, proxy_args(db, downstream), env=child_env(), keep_alive=False,
                                 log_file=db.parent / "proxy.log"))


def text(result: Any) -> str:
    return str(result.content[0].text)


def health_of(result: Any) -> dict[str, Any]:
    return {t["tool_name"]: t for t in json.loads(text(result))["tool_health"]}


def downstream_of(db: Path, module: str) -> list[int]:
    """The pids of `python -m module` started by the proxy that keeps its health in `db`."""
    found = []
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            cmdline = Path(f"/proc/{pid}/cmdline").read_bytes().split(b"\0")
            parent = Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()[1]
            if cmdline[1:3] == [b"-m", module.encode()] and str(db).encode() in Path(
                    f"/proc/{parent}/cmdline").read_bytes():
                found.append(int(pid))
        except (OSError, IndexError):
            continue
    return found


def test_time_server_through_the_sdk_client_errors_refusal_status_and_a_restart(tmp_path: Path) -> None:
    db = tmp_path / "health.db"

    async def scenario() -> None:
        async with sdk_session(db, TIME, "--disable-after", "2", "--cooldown", "60") as session:
            names = {t.name for t in (await session.list_tools()).tools}
            assert {"get_current_time", "convert_time", "status", "get_tool_performance_stats"} <= names
            ok = await session.call_tool("get_current_time", {"timezone": "Europe/Paris"})
            assert not ok.is_error and json.loads(text(ok))["timezone"] == "Europe/Paris"
            seen = [await session.call_tool("get_current_time", {"timezone": z}) for z in ("Bad/X", "Bad/Y", "UTC")]
            assert [r.is_error for r in seen] == [True] * 3 and "Bad/X" in text(seen[0])
            assert text(seen[2]).startswith("Tool 'get_current_time' " + REFUSED) and "Bad/Y" in text(seen[2])
            status = health_of(await session.call_tool("status", {}))
            assert status["get_current_time"]["disabled"] and status["get_current_time"]["error_count"] == 2
            assert (await session.list_prompts()).prompts == [] and (await session.list_resources()).resources == []
        async with sdk_session(db, TIME, "--disable-after", "2", "--cooldown", "60") as session:
            again = await session.call_tool("get_current_time", {"timezone": "UTC"})
            assert again.is_error and REFUSED in text(again) and "Bad/Y" in text(again)

    anyio.run(scenario)
    assert stored(db)[0]["get_current_time"][:2] == (3, 2)


def test_git_server_through_the_fastmcp_client_leaves_out_the_tools_of_the_previous_downstream(tmp_path: Path) -> None:
    pytest.importorskip("mcp_server_git")
    repo, db = tmp_path / "repo", tmp_path / "health.db"
    repo.mkdir()
    for cmd in (["init", "-q"], ["-c", "user.name=t", "-c", "user.email=t@e", "commit", "-q", "--allow-empty", "-m",
                                 "first"]):
        subprocess.run(["git", *cmd], cwd=repo, check=True)
    git = [sys.executable, "-m", "mcp_server_git", "--repository", str(repo)]

    async def scenario() -> None:
        async with fastmcp_client(db, TIME) as client:
            assert not (await client.call_tool("get_current_time", {"timezone": "UTC"})).is_error
        async with fastmcp_client(db, git) as client:
            assert {"git_status", "git_log", "status"} <= {t.name for t in await client.list_tools()}
            log = await client.call_tool("git_log", {"repo_path": str(repo)})
            assert "first" in text(log)
            outside = await client.call_tool("git_status", {"repo_path": str(tmp_path)}, raise_on_error=False)
            assert outside.is_error
            status = health_of(await client.call_tool("status", {}))
        assert "get_current_time" not in status
        assert (status["git_log"]["error_count"], status["git_status"]["error_count"]) == (0, 1)
        assert status["git_status"]["last_error"] == text(outside)

    anyio.run(scenario)
    assert stored(db)[0]["get_current_time"][:2] == (1, 0)  # kept in the store for a proxy that still serves it


def test_a_downstream_that_stops_answering_dies_or_never_starts_is_an_error_of_the_tool(tmp_path: Path) -> None:
    db = tmp_path / "health.db"

    async def scenario() -> None:
        async with sdk_session(db, TIME, "--call-timeout", "3") as session:
            assert not (await session.call_tool("get_current_time", {"timezone": "UTC"})).is_error
            (pid,) = downstream_of(db, "mcp_server_time")
            os.kill(pid, signal.SIGSTOP)
            with anyio.fail_after(20):
                hung = await session.call_tool("get_current_time", {"timezone": "UTC"})
                assert hung.is_error and "did not answer within 3 s" in text(hung)

                async def kill_soon() -> None:
                    await anyio.sleep(0.5)
                    os.kill(pid, signal.SIGKILL)

                async with anyio.create_task_group() as tg:
                    tg.start_soon(kill_soon)
                    died = await session.call_tool("get_current_time", {"timezone": "UTC"})
                assert died.is_error and "Connection closed" in text(died), text(died)
                # The next call starts it again (on a loaded machine that may take longer than one call may).
                restarts = [await session.call_tool("get_current_time", {"timezone": "UTC"})]
                while restarts[-1].is_error and len(restarts) < 3:
                    restarts.append(await session.call_tool("get_current_time", {"timezone": "UTC"}))
            assert not restarts[-1].is_error and downstream_of(db, "mcp_server_time") not in ([], [pid])
            status = health_of(await session.call_tool("status", {}))["get_current_time"]
            assert (status["call_count"], status["error_count"]) == (3 + len(restarts), 1 + len(restarts))
        # A downstream that does not start (it exits at once; there is no such command): the proxy still answers,
        # the call is an error of the tool, and no history is pruned.
        for attempt, command in enumerate(([sys.executable, "-m", "no_such_mcp_server"], ["/no/such/mcp-server"])):
            async with sdk_session(db, command, "--call-timeout", "10") as session:
                with anyio.fail_after(30):
                    tools = {t.name for t in (await session.list_tools()).tools}
                    failed = await session.call_tool("get_current_time", {"timezone": "UTC"})
                assert tools == {"status", "get_tool_performance_stats"}
                assert failed.is_error and text(failed).startswith("the downstream server failed")
                status = health_of(await session.call_tool("status", {}))["get_current_time"]
                assert (status["call_count"], status["error_count"], status["last_error"]) == (
                    4 + len(restarts) + attempt, 2 + len(restarts) + attempt, text(failed))

    anyio.run(scenario)


def test_sigterm_writes_the_health_before_the_proxy_exits(tmp_path: Path) -> None:
    db = tmp_path / "health.db"
    proxy = subprocess.Popen([sys.executable, *proxy_args(db, TIME)], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                             stderr=subprocess.DEVNULL, text=True, env=child_env())
    assert proxy.stdin is not None and proxy.stdout is not None
    try:
        hello = {"protocolVersion": "2025-06-18", "capabilities": {}, "clientInfo": {"name": "t", "version": "1"}}
        call = {"name": "get_current_time", "arguments": {"timezone": "Bad/Zone"}}
        for message in ({"id": 1, "method": "initialize", "params": hello}, {"method": "notifications/initialized"},
                        {"id": 2, "method": "tools/call", "params": call}):
            proxy.stdin.write(json.dumps({"jsonrpc": "2.0", **message}) + "\n")
            proxy.stdin.flush()
            assert "id" not in message or json.loads(proxy.stdout.readline())["id"] == message["id"]
        proxy.send_signal(signal.SIGTERM)
        assert proxy.wait(20) == 0
    finally:
        proxy.kill()
    assert stored(db)[0]["get_current_time"][:2] == (1, 1)

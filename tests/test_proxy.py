"""The proxy in front of MCP servers from PyPI (mcp-server-time, mcp-server-git), driven over stdio by the official
SDK's client and by FastMCP's: pass-through, errors and refusals, status, the history across restarts, SIGTERM,
and a downstream that stops answering, dies or never starts."""

import json
import os
import signal
import subprocess
import sys
import threading
from contextlib import AbstractAsyncContextManager
from pathlib import Path

import pytest

pytest.importorskip("fastmcp")
pytest.importorskip("mcp_server_time")
pytestmark = pytest.mark.skipif(sys.platform == "win32", reason="POSIX signals and /proc")

import anyio  # noqa: E402
from fastmcp import Client  # noqa: E402
from fastmcp.client.transports import StdioTransport  # noqa: E402
from mcp import ClientSession  # noqa: E402

from conftest import child_env  # noqa: E402
from test_mcp import REFUSED, health_of, stdio, stored, terminate_after_calls, text  # noqa: E402

# The downstream servers are not under test: a sanitizer runtime preloaded into the tests stays out of them (it
# would make a restarted one slower to start than a call may take).
CLEAN_ENV = ["env", "-u", "LD_PRELOAD", "-u", "PYTHONMALLOC"] if os.environ.get("LD_PRELOAD") else []
TIME = [*CLEAN_ENV, sys.executable, "-m", "mcp_server_time"]


def proxy_args(db: Path, downstream: list[str], *flags: str) -> list[str]:
    return ["-m", "ordanis_veltrane.mcp_proxy", "--db", str(db), "--flush-interval", "0", *flags, "--", *downstream]


def sdk_session(db: Path, downstream: list[str], *flags: str) -> AbstractAsyncContextManager[ClientSession]:
    return stdio(proxy_args(db, downstream, *flags), db.parent / "proxy.log")


def downstream_of(db: Path, module: str) -> list[int]:
    """The pids of `python -m module` started by the proxy that keeps its health in `db`."""
    found = []
    for proc in Path("/proc").glob("[0-9]*"):
        try:
            parent = (proc / "stat").read_text().rsplit(")", 1)[1].split()[1]
            if (proc / "cmdline").read_bytes().split(b"\0")[1:3] == [b"-m", module.encode()] and str(db).encode() in (
                    Path("/proc", parent, "cmdline").read_bytes()):
                found.append(int(proc.name))
        except (OSError, IndexError):
            continue
    return found


def test_time_and_git_servers_errors_refusal_status_history_and_sigterm(tmp_path: Path) -> None:
    """mcp-server-time through the SDK's client: errors, then the refusal with the last one. mcp-server-git on the
    same store through FastMCP's client: an isError result is an error, the tools of the other downstream are left
    out of the answers. mcp-server-time again: still refused, and SIGTERM writes what it counted."""
    pytest.importorskip("mcp_server_git")
    repo, db = tmp_path / "repo", tmp_path / "health.db"
    subprocess.run(["git", "init", "-q", str(repo)], check=True)
    subprocess.run(["git", "-C", str(repo), "-c", "user.name=t", "-c", "user.email=t@e", "commit", "-q",
                    "--allow-empty", "-m", "first"], check=True)
    git = [*CLEAN_ENV, sys.executable, "-m", "mcp_server_git", "--repository", str(repo)]
    flags = ("--disable-after", "2", "--cooldown", "60")

    async def scenario() -> None:
        async with sdk_session(db, TIME, *flags) as session:
            names = {t.name for t in (await session.list_tools()).tools}
            assert {"get_current_time", "convert_time", "status", "get_tool_performance_stats"} <= names
            ok = await session.call_tool("get_current_time", {"timezone": "Europe/Paris"})
            assert not ok.is_error and json.loads(text(ok))["timezone"] == "Europe/Paris"
            seen = [await session.call_tool("get_current_time", {"timezone": z}) for z in ("Bad/X", "Bad/Y", "UTC")]
            assert [r.is_error for r in seen] == [True] * 3 and "Bad/X" in text(seen[0])
            assert text(seen[2]).startswith("Tool 'get_current_time' " + REFUSED) and "Bad/Y" in text(seen[2])
            assert health_of(await session.call_tool("status", {}))["get_current_time"]["disabled"]
            assert (await session.list_prompts()).prompts == [] and (await session.list_resources()).resources == []
        transport = StdioTransport(sys.executable, proxy_args(db, git, *flags), env=child_env(), keep_alive=False,
                                   log_file=db.parent / "proxy.log")
        async with Client(transport) as client:
            outside = await client.call_tool("git_status", {"repo_path": str(tmp_path)}, raise_on_error=False)
            status = health_of(await client.call_tool("status", {}))
        assert outside.is_error and "get_current_time" not in status
        assert (status["git_status"]["error_count"], status["git_status"]["last_error"]) == (1, text(outside))

    anyio.run(scenario)
    # Kept in the store for a proxy that still serves it: this one refuses the call, passes on another, and writes
    # both when SIGTERM comes while its downstream runs.
    convert = {"source_timezone": "Bad/Zone", "time": "12:00", "target_timezone": "UTC"}
    terminate_after_calls(proxy_args(db, TIME, *flags), {"name": "get_current_time", "arguments": {"timezone": "UTC"}},
                          {"name": "convert_time", "arguments": convert})
    rows, counts = stored(db)
    assert rows["get_current_time"][:2] == (3, 2) and "Bad/Y" in rows["get_current_time"][2]
    assert rows["convert_time"][:2] == (1, 1)
    assert counts[("get_current_time", None, "disabled", False)] == 2


def test_a_downstream_that_stops_answering_dies_or_never_starts_is_an_error_of_the_tool(tmp_path: Path) -> None:
    db = tmp_path / "health.db"

    async def scenario() -> None:
        # Errors enough to disable the tool are allowed for: a slow machine may need several calls to restart it.
        async with sdk_session(db, TIME, "--call-timeout", "3", "--disable-after", "20") as session:
            assert not (await session.call_tool("get_current_time", {"timezone": "UTC"})).is_error
            (pid,) = downstream_of(db, "mcp_server_time")
            os.kill(pid, signal.SIGSTOP)
            with anyio.fail_after(60):
                hung = await session.call_tool("get_current_time", {"timezone": "UTC"})
                assert hung.is_error and "did not answer within 3 s" in text(hung)
                threading.Timer(0.5, os.kill, (pid, signal.SIGKILL)).start()  # while the next call waits
                died = await session.call_tool("get_current_time", {"timezone": "UTC"})
                assert died.is_error and "Connection closed" in text(died), text(died)
                # The next call starts it again (on a loaded machine that may take longer than one call may).
                restarts = [await session.call_tool("get_current_time", {"timezone": "UTC"})]
                while restarts[-1].is_error and len(restarts) < 8:
                    restarts.append(await session.call_tool("get_current_time", {"timezone": "UTC"}))
            assert not restarts[-1].is_error and downstream_of(db, "mcp_server_time") not in ([], [pid])
        # A downstream that does not start (it exits at once; there is no such command): the proxy still answers,
        # the call is an error of the tool, and the history (every call above counted) stays.
        for attempt, command in enumerate(([sys.executable, "-m", "no_such_mcp_server"], ["/no/such/mcp-server"])):
            async with sdk_session(db, command, "--call-timeout", "10", "--disable-after", "20") as session:
                with anyio.fail_after(30):
                    tools = {t.name for t in (await session.list_tools()).tools}
                    failed = await session.call_tool("get_current_time", {"timezone": "UTC"})
                assert tools == {"status", "get_tool_performance_stats"}
                assert failed.is_error and text(failed).startswith("the downstream server failed")
                status = health_of(await session.call_tool("status", {}))["get_current_time"]
                assert (status["call_count"], status["error_count"], status["last_error"]) == (
                    4 + len(restarts) + attempt, 2 + len(restarts) + attempt, text(failed))

    anyio.run(scenario)

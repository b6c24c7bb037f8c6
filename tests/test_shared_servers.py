"""Three example servers, each a process of its own driven by the SDK's client over stdio, on one SQLite file and on
one PostgreSQL: every call is kept, a disable reaches the other two, and a PostgreSQL stopped and started again while
they serve loses nothing."""

import json
import sqlite3
import subprocess
import sys
from contextlib import AsyncExitStack
from pathlib import Path
from typing import Any

import pytest

pytest.importorskip("mcp")

import anyio  # noqa: E402
from conftest import child_env  # noqa: E402
from mcp import ClientSession, StdioServerParameters, stdio_client  # noqa: E402
from mcp.types import TextContent  # noqa: E402
from pgcluster import pg_bouncer, pg_bouncer_url, pg_cluster, pg_url  # noqa: E402, F401 - fixtures

REFUSED = "is disabled after repeated errors; last error: the backend is unreachable (attempt 3)"


def stored(target: str) -> tuple[dict[str, tuple[int, int]], dict[tuple[str, str], int]]:
    """Calls and errors by tool, and usage calls by (tool, outcome), as a plain reader of the store sees them."""
    if target.startswith("postgresql://"):
        import psycopg

        with psycopg.connect(target.partition("?")[0]) as conn:
            rows = conn.execute("SELECT tool_name, call_count, error_count FROM tool_health").fetchall()
            (doc,) = conn.execute("SELECT value FROM schema_info WHERE key = 'tool_usage'").fetchone() or ("[]",)
    else:
        with sqlite3.connect(target) as conn2:
            rows = conn2.execute("SELECT tool_name, call_count, error_count FROM tool_health").fetchall()
            (doc,) = conn2.execute("SELECT value FROM schema_info WHERE key = 'tool_usage'").fetchone()
    usage: dict[tuple[str, str], int] = {}
    for row in json.loads(doc):
        usage[row["tool"], row["outcome"]] = usage.get((row["tool"], row["outcome"]), 0) + row["calls"]
    return {r[0]: (r[1], r[2]) for r in rows}, usage


def bouncer_clients(port: int) -> int:
    """Established connections to PgBouncer's port (its side of each), from the kernel's table."""
    with open("/proc/net/tcp") as f:
        return sum(1 for line in f.readlines()[1:]
                   if int(line.split()[1].split(":")[1], 16) == port and line.split()[3] == "01")


@pytest.mark.parametrize("store", ["sqlite", "postgres", "pgbouncer"])
def test_three_servers_keep_every_call_and_share_a_disable(store: str, tmp_path: Path,
                                                           request: pytest.FixtureRequest) -> None:
    cluster: Any = None
    if store == "sqlite":
        target = str(tmp_path / "shared.db")
    elif store == "postgres":
        target = request.getfixturevalue("pg_url")
        cluster = request.getfixturevalue("pg_cluster")
    else:  # through a pooler in transaction mode, connecting for each sync only: the URL says so
        target = request.getfixturevalue("pg_bouncer_url") + "?connect_timeout=5&hold_connection=false"
    args = ["-m", "ordanis_veltrane.mcp_server", "--db", target, "--flush-interval", "0.2", "--disable-after", "3",
            "--cooldown", "600"]

    async def scenario() -> None:
        async with AsyncExitStack() as stack:
            log = stack.enter_context(open(tmp_path / "servers.log", "a"))
            sessions: list[ClientSession] = []
            for _ in range(3):
                params = StdioServerParameters(command=sys.executable, args=args, env=child_env())
                read, write = await stack.enter_async_context(stdio_client(params, errlog=log))
                session = await stack.enter_async_context(ClientSession(read, write))
                await session.initialize()
                sessions.append(session)

            async def searches(session: ClientSession) -> None:
                for _ in range(20):
                    assert not (await session.call_tool("search", {"query": "q", "action": "grep"})).is_error

            async def round_of_searches() -> None:
                async with anyio.create_task_group() as tg:
                    for session in sessions:
                        tg.start_soon(searches, session)

            await round_of_searches()
            if cluster is not None:  # the store goes away while the servers serve, and comes back
                await anyio.to_thread.run_sync(cluster.stop)
                await round_of_searches()
                await anyio.sleep(0.5)  # syncs fail meanwhile
                await anyio.to_thread.run_sync(cluster.start)
            await round_of_searches()
            if store == "pgbouncer":  # between their syncs (every 0.2 s), the servers hold no connection
                port = request.getfixturevalue("pg_bouncer").port
                seen = []
                for _ in range(40):
                    seen.append(bouncer_clients(port))
                    await anyio.sleep(0.05)
                assert min(seen) == 0, seen

            for _ in range(3):
                await sessions[0].call_tool("always_fails", {})
            with anyio.fail_after(10):  # the other two learn the disable at their next sync
                for session in sessions[1:]:
                    while True:
                        status = await session.call_tool("status", {})
                        assert isinstance(status.content[0], TextContent)
                        tools = {t["tool_name"]: t for t in json.loads(status.content[0].text)["tool_health"]}
                        if tools.get("always_fails", {}).get("disabled"):
                            break
                        await anyio.sleep(0.1)
            for session in sessions:
                refused = await session.call_tool("always_fails", {})
                assert refused.is_error and isinstance(refused.content[0], TextContent)
                assert REFUSED in refused.content[0].text
        # The clients closed stdin: each server synced once more and exited.

    anyio.run(scenario)
    rows, usage = stored(target)
    searches = 3 * 20 * (3 if cluster is not None else 2)
    assert rows["search"] == (searches, 0) and usage["search", "ok"] == searches
    assert rows["always_fails"] == (3, 3) and usage["always_fails", "error"] == 3
    assert usage["always_fails", "disabled"] == 3
    if cluster is not None:
        assert "reachable again" in (tmp_path / "servers.log").read_text()
    if store == "pgbouncer":  # the operators' command takes the same URL
        operators = subprocess.run([sys.executable, "-m", "ordanis_veltrane.health_cli", "--db", target, "status"],
                                   capture_output=True, text=True, env=child_env(), timeout=60)
        assert operators.returncode == 0 and "always_fails" in operators.stdout, operators.stderr

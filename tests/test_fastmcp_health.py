"""The health middleware in a FastMCP server, called through FastMCP's in-memory client: the server's own tools,
a mounted server's, FastMCP's argument validation, the status tools beside a tool of the same name, the time
limit, and the history across a restart with a tool gone."""

import itertools
from pathlib import Path
from typing import Any, Literal

import pytest

pytest.importorskip("fastmcp")

import anyio  # noqa: E402
from fastmcp import Client, FastMCP  # noqa: E402
from fastmcp.tools.base import Tool, ToolResult  # noqa: E402
from mcp.types import TextContent  # noqa: E402

from ordanis_veltrane.config import ToolsConfig  # noqa: E402
from ordanis_veltrane.fastmcp_health import ToolHealthMiddleware, declared_actions  # noqa: E402
from test_mcp import REFUSED, health_of, restore, stored, text  # noqa: E402,F401 (restore is autouse)


def make_server(db: Path, mount: bool = True) -> tuple[FastMCP[Any], ToolHealthMiddleware]:
    """A server with a `status` tool of its own, `search` (actions from a Literal), a slow tool and one that answers
    an error result; a mounted server whose `flaky` tool raises (disabled after 2 errors)."""
    mw = ToolHealthMiddleware(db, ToolsConfig(disable_after_errors=2, disable_cooldown_s=60), flush_interval=None,
                              call_timeout=0.5)
    server: FastMCP[Any] = FastMCP("main", lifespan=mw.lifespan, middleware=[mw])
    runs = itertools.count(1)

    @server.tool
    def status() -> str:
        return "the server's own status"

    @server.tool
    def search(query: str, action: Literal["text", "symbol"] = "text") -> str:
        return f"{action}:{query}"

    @server.tool
    async def slow() -> str:
        await anyio.sleep(30)
        return "late"

    @server.tool
    def refuses() -> ToolResult:
        return ToolResult(content=[TextContent(type="text", text="quota exceeded")], is_error=True)

    if mount:
        child: FastMCP[Any] = FastMCP("child")

        @child.tool
        def flaky() -> str:
            raise RuntimeError(f"backend down {next(runs)}")

        server.mount(child, namespace="child")
    mw.add_status_tools(server)
    return server, mw


async def calls(server: FastMCP[Any], *batch: tuple[str, dict[str, Any]]) -> tuple[list[Any], dict[str, Any]]:
    async with Client(server) as client:
        seen = [await client.call_tool(name, args, raise_on_error=False) for name, args in batch]
        return seen, health_of(await client.call_tool("health_status", {}))


def test_every_tool_is_tracked_validation_is_the_clients_fault_and_history_survives_a_restart(tmp_path: Path) -> None:
    db = tmp_path / "health.db"
    server, mw = make_server(db)
    seen, status = anyio.run(calls, server, *[("child_flaky", {})] * 3, ("search", {"query": "q", "action": "symbol"}),
                             ("search", {"query": "q", "action": "grep"}), ("search", {}), ("status", {}),
                             ("refuses", {}), ("slow", {}))
    assert [(r.is_error, m in text(r)) for r, m in zip(seen[:3], ("down 1", "down 2", REFUSED + "Error calling tool"))
            ] == [(True, True)] * 3, seen
    assert "backend down 2" in text(seen[2]) and text(seen[3]) == "symbol:q"
    assert seen[4].is_error and seen[5].is_error and text(seen[6]) == "the server's own status"
    assert text(seen[7]) == "quota exceeded" and "did not answer within 0.5 s" in text(seen[8])
    assert mw.status_tool_names == {"status": "health_status",
                                    "get_tool_performance_stats": "get_tool_performance_stats"}
    usage = {(u["action"], u["outcome"]): u["calls"] for u in status["search"]["usage"]}
    assert usage == {("symbol", "ok"): 1, ("(other)", "client_error"): 1, (None, "client_error"): 1}
    assert (status["search"]["error_count"], status["child_flaky"]["disabled"]) == (0, True) and mw.tracker is None
    assert status["refuses"]["last_error"] == "quota exceeded" and status["slow"]["error_count"] == 1
    assert declared_actions({"properties": {"action": {"anyOf": [{"enum": ["a"]}, {"type": "null"}]}}}) == (True, ["a"])

    # Restarted without the mounted server: its tool leaves the answers, but the shared store keeps its history
    # for the servers that still mount it; the others' history stays.
    seen, status = anyio.run(calls, make_server(db, mount=False)[0], ("search", {"query": "q"}))
    assert "child_flaky" not in status and stored(db)[0]["child_flaky"][:2] == (2, 2)
    assert status["search"]["call_count"] == 4


def test_client_errors_are_seen_through_toolerror_and_unlisted_names_leave_one_bucket(tmp_path: Path) -> None:
    """FastMCP wraps a tool's exception in ToolError: `client_errors` and `is_client_error` still see it, so bad
    input never disables the tool. Made-up names (a NUL, 10,000 characters) are counted under one bucket; a tool
    the server adds while it runs, and listed names no store can hold, are counted under their own bounded names."""
    db = tmp_path / "health.db"
    mw = ToolHealthMiddleware(db, ToolsConfig(disable_after_errors=2, disable_cooldown_s=60), flush_interval=None,
                              client_errors=(ValueError,), is_client_error=lambda e: isinstance(e, KeyError))
    server: FastMCP[Any] = FastMCP("main", lifespan=mw.lifespan, middleware=[mw])
    long_name, nul_name = "t" * 100, "nul\x00tool"

    @server.tool
    def picky(n: int) -> int:
        raise (ValueError if n < 0 else KeyError if n == 0 else RuntimeError)(f"bad n {n}")

    for name in (long_name, nul_name):
        server.add_tool(Tool.from_function(lambda: "ok", name=name))
    mw.add_status_tools(server)
    made_up = [f"made-up-{i}" for i in range(40)] + ["x" * 10_000, "ev\x00il"]

    async def run() -> dict[str, Any]:
        async with Client(server) as client:
            for n in (-1, 0) * 3:
                assert (await client.call_tool("picky", {"n": n}, raise_on_error=False)).is_error
            for name in made_up + [long_name, nul_name]:
                await client.call_tool(name, {}, raise_on_error=False)
            server.add_tool(Tool.from_function(lambda: "late", name="late"))
            assert text(await client.call_tool("late", {})) == "late"
            return health_of(await client.call_tool("status", {}))

    status = anyio.run(run)
    assert (status["picky"]["error_count"], status["picky"]["disabled"]) == (0, False)
    assert {(u["outcome"], u["calls"]) for u in status["picky"]["usage"]} == {("client_error", 6)}
    rows, usage = stored(db)
    bounded = {n for n in rows if n.startswith(("ttt", "nul"))}
    assert rows["(unknown)"][:2] == (len(made_up), 0) and rows["late"][:2] == (1, 0)
    assert len(rows) == 6 and len(bounded) == 2 and all(len(n) <= 64 and "\x00" not in n for n in bounded)
    assert {k for k in usage if k[0] == "(unknown)"} == {("(unknown)", None, "client_error", False)}

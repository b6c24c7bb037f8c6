"""What the model sees and what operators decide: disabled tools leave tools/list with list_changed sent (the SDK's
guard and the FastMCP middleware added with add_middleware alone, with its keyword configuration), and operators'
decisions against bad input and plain files. The console scripts: test_packaging."""

import sqlite3
from pathlib import Path
from typing import Any

import pytest

pytest.importorskip("mcp")

import anyio  # noqa: E402
from mcp import Client  # noqa: E402
from mcp.server.mcpserver import MCPServer  # noqa: E402

from ordanis_veltrane.mcp_guard import ToolGuard, ToolsConfig  # noqa: E402
from ordanis_veltrane.sharing.operators import DecisionStore  # noqa: E402
from test_mcp import restore  # noqa: E402,F401 (autouse)


def names(tools: Any) -> list[str]:
    return sorted(t.name for t in getattr(tools, "tools", tools))


def bad() -> str:
    raise RuntimeError("backend down")


def good() -> str:
    return "ok"


@pytest.mark.parametrize("adapter", ["guard-legacy", "guard-stateless", "fastmcp"])
def test_a_disabled_tool_leaves_tools_list_and_the_client_is_told_both_ways(adapter: str, tmp_path: Path) -> None:
    """Disabled after 2 errors for 1 s, `bad` leaves tools/list with list_changed sent, and comes back, told again,
    at the sync after its cooldown. The FastMCP middleware is added with add_middleware alone, its limits given as
    keywords; the guard serves no status tools."""
    options: dict[str, Any] = dict(disable_after_errors=2, cooldown_s=1.0, hide_disabled=True, flush_interval=0.2)
    heard: list[str] = []

    async def on_message(message: Any) -> None:
        heard.append(getattr(getattr(message, "root", message), "method", repr(message)))

    if adapter == "fastmcp":
        fastmcp = pytest.importorskip("fastmcp")
        from ordanis_veltrane.fastmcp_health import ToolHealthMiddleware

        refused = [({}, TypeError, "needs db="), ({"db": tmp_path / "no" / "h.db"}, ValueError, "does not exist"),
                   ({"db": tmp_path / "h.db", "disable_after_errors": 0}, ValueError, "disable_after_errors")]
        for kwargs, error, match in refused:
            with pytest.raises(error, match=match):
                ToolHealthMiddleware(**kwargs)
        limits = ToolsConfig(disable_after_errors=5)
        assert ToolHealthMiddleware(db=tmp_path / "h.db", limits=limits).pipeline.runtime.limits is limits
        server: Any = fastmcp.FastMCP("t")
        for fn in (bad, good):
            server.tool(fn)
        server.add_middleware(ToolHealthMiddleware(db=str(tmp_path / "h.db"), **options))
        listed, client = ["bad", "get_tool_performance_stats", "good", "status"], fastmcp.Client(
            server, mode="legacy", message_handler=on_message)
    else:
        guard = ToolGuard(tmp_path / "h.db", status_tools=False, **options)
        server = MCPServer("t", lifespan=guard.lifespan)
        for fn in (bad, good):
            guard.tool(server)(fn)
        guard.add_status_tools(server)  # status_tools=False: none
        listed = ["bad", "good"]
        client = Client(server, mode="legacy", message_handler=on_message) if adapter == "guard-legacy" else None

    async def wait_for(count: int) -> None:
        with anyio.fail_after(3):  # a disable is told at once; the cooldown's end at the next sync
            while len(heard) < count:
                await anyio.sleep(0.02)

    async def steps(client: Any) -> None:
        assert names(await client.list_tools()) == listed
        answers = [await client.call_tool(tool, {}, **({"raise_on_error": False} if adapter == "fastmcp" else {}))
                   for tool in ("bad", "bad", "bad", "good")]
        assert [a.is_error for a in answers] == [True, True, True, False]
        assert "disabled after repeated errors" in answers[2].content[0].text
        await wait_for(1)
        assert names(await client.list_tools()) == [n for n in listed if n != "bad"]
        await wait_for(2)
        assert names(await client.list_tools()) == listed

    async def scenario() -> None:
        if client is not None:
            async with client:
                await steps(client)
            return
        async with Client(server) as stateless, anyio.create_task_group() as tg:
            await stateless.list_tools()
            async with stateless.listen(tools_list_changed=True) as events:

                async def hear() -> None:
                    async for event in events:
                        heard.append("notifications/tools/list_changed")

                tg.start_soon(hear)
                await steps(stateless)
                tg.cancel_scope.cancel()

    anyio.run(scenario)
    assert heard == ["notifications/tools/list_changed"] * 2
    with sqlite3.connect(tmp_path / "h.db") as conn:  # written when the server's loop ended
        assert dict(conn.execute("SELECT tool_name, call_count FROM tool_health")) == {"bad": 2, "good": 1}


def test_decision_store_bad_input_and_plain_files(tmp_path: Path) -> None:
    with pytest.raises(Exception, match="no tool health database"):
        DecisionStore(tmp_path / "none.db").kind()
    (tmp_path / "junk.db").write_bytes(b"not a database at all, " * 100)
    with pytest.raises(Exception, match="cannot read"):
        DecisionStore(tmp_path / "junk.db").kind()
    store = DecisionStore(tmp_path / "h.db")
    sqlite3.connect(tmp_path / "h.db").close()
    assert store.kind() == "empty" and store.current() == {} and store.history() == []
    weird = "t\u00e9st'; DROP TABLE x; --\x00"
    d = store.record(weird, "disable", "r" * 5000, "me", 30.0)
    assert store.current()[weird] == d and len(d.reason or "") == 1000 and d.until == pytest.approx(d.at + 30)
    assert d.active(d.at + 29) and not d.active(d.at + 31)
    store.close()

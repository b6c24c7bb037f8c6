"""What the model sees and what operators decide: disabled tools leave tools/list with list_changed sent (the SDK's
guard and the FastMCP middleware added with add_middleware alone), operators' decisions through real stores, and
the keyword configuration. The console scripts: test_packaging."""

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


@pytest.mark.parametrize("mode", ["legacy", "stateless"])
def test_guard_hides_a_disabled_tool_and_tells_the_client_both_ways(mode: str, tmp_path: Path) -> None:
    guard = ToolGuard(tmp_path / "h.db", disable_after_errors=2, cooldown_s=1.0, hide_disabled=True,
                      flush_interval=0.2, status_tools=False)
    server: MCPServer[Any] = MCPServer("t", lifespan=guard.lifespan)

    @guard.tool(server)
    def bad() -> str:
        raise RuntimeError("backend down")

    @guard.tool(server)
    def good() -> str:
        return "ok"

    guard.add_status_tools(server)  # status_tools=False: none
    heard: list[str] = []

    async def on_message(message: Any) -> None:
        heard.append(getattr(message, "method", repr(message)))

    async def wait_for(count: int) -> None:
        with anyio.fail_after(3):  # a disable is told at once; the cooldown's end at the next sync
            while len(heard) < count:
                await anyio.sleep(0.02)

    async def steps(client: Any) -> None:
        assert names(await client.list_tools()) == ["bad", "good"]
        for _ in range(2):
            assert (await client.call_tool("bad", {})).is_error
        await wait_for(1)
        assert names(await client.list_tools()) == ["good"]
        await wait_for(2)
        assert names(await client.list_tools()) == ["bad", "good"]

    async def scenario() -> None:
        if mode == "legacy":
            async with Client(server, mode="legacy", message_handler=on_message) as client:
                await steps(client)
            return
        async with Client(server) as client, anyio.create_task_group() as tg:
            await client.list_tools()
            async with client.listen(tools_list_changed=True) as events:

                async def hear() -> None:
                    async for event in events:
                        heard.append("notifications/tools/list_changed")

                tg.start_soon(hear)
                await steps(client)
                tg.cancel_scope.cancel()

    anyio.run(scenario)
    assert heard == ["notifications/tools/list_changed"] * 2


def test_fastmcp_middleware_from_add_middleware_alone_with_keyword_limits(tmp_path: Path) -> None:
    fastmcp = pytest.importorskip("fastmcp")
    from ordanis_veltrane.fastmcp_health import ToolHealthMiddleware

    with pytest.raises(TypeError, match="needs db="):
        ToolHealthMiddleware()
    with pytest.raises(ValueError, match="disable_after_errors"):
        ToolHealthMiddleware(db=tmp_path / "h.db", disable_after_errors=0)
    with pytest.raises(ValueError, match="does not exist"):
        ToolHealthMiddleware(db=tmp_path / "missing" / "h.db")
    limits = ToolsConfig(disable_after_errors=5)
    assert ToolHealthMiddleware(db=tmp_path / "h.db", limits=limits).pipeline.runtime.limits is limits

    mcp = fastmcp.FastMCP("t")

    @mcp.tool
    def bad() -> str:
        raise RuntimeError("backend down")

    @mcp.tool
    def good() -> str:
        return "ok"

    mw = ToolHealthMiddleware(db=str(tmp_path / "h.db"), disable_after_errors=2, cooldown_s=60, hide_disabled=True,
                              flush_interval=0.2)
    mcp.add_middleware(mw)
    heard: list[Any] = []

    async def on_message(message: Any) -> None:
        heard.append(message)

    async def scenario() -> list[Any]:
        async with fastmcp.Client(mcp, mode="legacy", message_handler=on_message) as client:
            assert names(await client.list_tools()) == ["bad", "get_tool_performance_stats", "good", "status"]
            answers = [await client.call_tool("bad", {}, raise_on_error=False) for _ in range(3)]
            assert not (await client.call_tool("good", {})).is_error
            with anyio.fail_after(2):
                while not heard:
                    await anyio.sleep(0.02)
            assert "bad" not in names(await client.list_tools())
            return answers

    answers = anyio.run(scenario)
    assert [a.is_error for a in answers] == [True] * 3
    assert "disabled after repeated errors" in answers[2].content[0].text
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

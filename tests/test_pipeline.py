"""The tool-call pipeline under clients that cannot be trusted, through the SDK's own client: bounded usage keys
with every call counted, failures that are the client's fault, and what call observers are told."""

import json
import sqlite3
from pathlib import Path
from typing import Any, Iterator

import pytest

pytest.importorskip("mcp")

import anyio  # noqa: E402
from mcp import Client  # noqa: E402
from mcp.server.mcpserver import MCPServer  # noqa: E402

from ordanis_veltrane.config import ToolsConfig  # noqa: E402
from ordanis_veltrane.mcp_guard import ToolGuard  # noqa: E402
from ordanis_veltrane.repository import Repository  # noqa: E402
from ordanis_veltrane.tool_handlers import health  # noqa: E402
from ordanis_veltrane.tool_pipeline import MAX_ACTION_LENGTH, OTHER_ACTION, CallReport  # noqa: E402
from ordanis_veltrane.tool_registry import ActionSpec  # noqa: E402
from ordanis_veltrane.utils.timing import get_timing_collector  # noqa: E402


@pytest.fixture(autouse=True)
def restore(monkeypatch: pytest.MonkeyPatch) -> Iterator[None]:
    monkeypatch.setattr(health, "TOOLS", health.TOOLS)
    get_timing_collector().reset()
    yield
    get_timing_collector().reset()


class Reports:
    def __init__(self) -> None:
        self.seen: list[CallReport] = []

    def call_finished(self, report: CallReport) -> None:
        self.seen.append(report)


def make_server(repo: Repository, **options: Any) -> tuple[MCPServer[Any], ToolGuard]:
    guard = ToolGuard(repo, ToolsConfig(disable_after_errors=2, disable_cooldown_s=60), flush_interval=None,
                      **options)
    server: MCPServer[Any] = MCPServer("test", lifespan=guard.lifespan)

    def search(query: str, action: str = "text") -> str:
        return f"{action}:{query}"

    def anything(action: str = "") -> str:
        return action

    def picky(n: int) -> int:
        if n < 0:
            raise ValueError(f"n must not be negative, got {n}")
        if n == 0:
            raise RuntimeError("backend down")
        return n

    guard.add_tool(server, search, actions=[ActionSpec("text", ("grep",)), "symbol"])
    guard.add_tool(server, anything)
    guard.add_tool(server, picky)
    guard.add_status_tools(server)
    return server, guard


def calls_of(tmp_path: Path, *calls: tuple[str, dict[str, Any]], **options: Any) -> list[Any]:
    repo = Repository(tmp_path / "repo.db")
    server, _ = make_server(repo, **options)

    async def run() -> list[Any]:
        async with Client(server, mode="legacy") as client:
            return [await client.call_tool(tool, args) for tool, args in calls]

    try:
        return anyio.run(run)
    finally:
        repo.close()


def stored(db: Path) -> tuple[dict[str, tuple[int, int]], dict[tuple[Any, ...], int], str]:
    with sqlite3.connect(db) as conn:
        rows = {r[0]: (r[1], r[2]) for r in conn.execute("SELECT tool_name, call_count, error_count FROM tool_health")}
        (doc,) = conn.execute("SELECT value FROM schema_info WHERE key = 'tool_usage'").fetchone()
    usage = {(u["tool"], u["action"], u["outcome"], u["alias_hit"]): u["calls"] for u in json.loads(doc)}
    return rows, usage, doc


def test_usage_keys_are_bounded_every_call_is_counted_and_the_bucket_survives_a_restart(tmp_path: Path) -> None:
    """Fresh actions of a tool with declared ones go to the bucket; a tool without declared ones keeps `max_actions`
    of them; text past the length bound is never stored. After a restart the bucket and the kept actions stay, and
    the kept ones still fill the bound."""
    huge = "x" * 100_000
    first = ([("search", {"query": "q", "action": f"fresh-{i}"}) for i in range(40)]
             + [("search", {"query": "q", "action": "grep"}), ("search", {"query": "q", "action": huge})]
             + [("anything", {"action": f"a{i % 5}"}) for i in range(20)] + [("anything", {"action": huge})])
    answers = calls_of(tmp_path, *first, max_actions=3)
    assert answers[0].content[0].text == "fresh-0:q"  # the handler still gets what the client sent
    rows, usage, doc = stored(tmp_path / "repo.db")
    assert usage == {("search", OTHER_ACTION, "ok", False): 41, ("search", "text", "ok", True): 1,
                     ("anything", "a0", "ok", False): 4, ("anything", "a1", "ok", False): 4,
                     ("anything", "a2", "ok", False): 4, ("anything", OTHER_ACTION, "ok", False): 9}
    assert rows == {"search": (42, 0), "anything": (21, 0)}
    assert len(doc) < 2_000 and all(len(str(k[1])) <= MAX_ACTION_LENGTH for k in usage)

    calls_of(tmp_path, ("anything", {"action": "a9"}), ("anything", {"action": "a1"}),
             ("search", {"query": "q", "action": "nope"}), max_actions=3)
    _, usage, _ = stored(tmp_path / "repo.db")
    assert (usage[("anything", OTHER_ACTION, "ok", False)], usage[("anything", "a1", "ok", False)]) == (10, 5)
    assert usage[("search", OTHER_ACTION, "ok", False)] == 42


def test_client_errors_never_disable_a_tool_and_the_sdks_validation_is_not_counted(tmp_path: Path) -> None:
    """A failure named as the client's reaches the client, counts as the tool's success with outcome
    `client_error` and never disables it; arguments the SDK rejects never reach the pipeline. Other errors
    disable as before. Observers hear of each call with its error type."""
    reports = Reports()
    calls = ([("picky", {"n": -1})] * 4 + [("picky", {"n": "not a number"}), ("picky", {})]
             + [("picky", {"n": 0})] * 3 + [("picky", {"n": 5})])
    answers = calls_of(tmp_path, *calls, client_errors=(ValueError,), observers=[reports])
    assert [a.is_error for a in answers] == [True] * 9 + [True]
    assert "n must not be negative, got -1" in answers[0].content[0].text
    assert "is disabled after repeated errors; last error: backend down" in answers[-1].content[0].text
    rows, usage, _ = stored(tmp_path / "repo.db")
    assert rows == {"picky": (6, 2)}
    assert usage == {("picky", None, "client_error", False): 4, ("picky", None, "error", False): 2,
                     ("picky", None, "disabled", False): 2}
    assert [(r.outcome, r.error_type) for r in reports.seen] == (
        [("client_error", "ValueError")] * 4 + [("error", "RuntimeError")] * 2 + [("disabled", "tool_disabled")] * 2)
    assert reports.seen[-1].error_message == "backend down" and reports.seen[0].tracker is not None


def test_a_predicate_decides_and_a_failing_observer_changes_nothing(tmp_path: Path) -> None:
    class Broken:
        def call_finished(self, report: CallReport) -> None:
            raise RuntimeError("observer bug")

    reports = Reports()
    answers = calls_of(tmp_path, *[("picky", {"n": -1})] * 3,
                       is_client_error=lambda exc: "negative" in str(exc), observers=[Broken(), reports])
    assert all(a.is_error for a in answers) and len(reports.seen) == 3
    assert stored(tmp_path / "repo.db")[0] == {"picky": (3, 0)}


def test_a_disable_is_synced_at_once_not_at_the_end_of_the_period(tmp_path: Path) -> None:
    """With an hour between syncs, the disable still reaches the store within a moment (other processes sharing
    it learn it a period sooner); the calls before it wait for the period."""
    db = tmp_path / "shared.db"
    guard = ToolGuard(db, ToolsConfig(disable_after_errors=2, disable_cooldown_s=60), flush_interval=3600)
    server: MCPServer[Any] = MCPServer("test", lifespan=guard.lifespan)

    def picky(n: int) -> int:
        raise RuntimeError("backend down")

    guard.add_tool(server, picky)

    def disabled_at() -> Any:
        with sqlite3.connect(db) as conn:
            row = conn.execute("SELECT disabled_at FROM tool_health WHERE tool_name = 'picky'").fetchone()
        return row and row[0]

    async def run() -> None:
        async with Client(server, mode="legacy") as client:
            await client.call_tool("picky", {"n": 1})
            await anyio.sleep(0.6)
            assert not disabled_at()
            await client.call_tool("picky", {"n": 1})
            with anyio.fail_after(5):
                while not disabled_at():
                    await anyio.sleep(0.05)

    anyio.run(run)

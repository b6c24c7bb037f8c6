"""The tool-call pipeline under clients that cannot be trusted, through the SDK's own client: bounded usage keys
with every call counted, failures that are the client's fault, what call observers are told, and the early sync
of a disable."""

import json
import sqlite3
from pathlib import Path
from typing import Any

import pytest

pytest.importorskip("mcp")

import anyio  # noqa: E402
from mcp import Client  # noqa: E402

from ordanis_veltrane.tool_pipeline import OTHER_ACTION, CallReport  # noqa: E402
from ordanis_veltrane.utils.timing import get_timing_collector  # noqa: E402
from test_mcp import REFUSED, make_server, restore, session, stored, text  # noqa: E402,F401 (restore is autouse)


class Reports(list[CallReport]):  # an observer that keeps what it is told
    call_finished = list.append


class Broken:  # an observer that fails
    def call_finished(self, report: CallReport) -> None:
        raise RuntimeError("observer bug")


def calls_of(db: Path, *calls: tuple[str, dict[str, Any]], **options: Any) -> list[Any]:
    """The answers of the calls through the test server on `db` (disabled after 2 errors for 60 s)."""
    return anyio.run(session, make_server(db, cooldown=60, **options)[0], *calls)


def test_usage_keys_are_bounded_every_call_is_counted_and_the_bucket_survives_a_restart(tmp_path: Path) -> None:
    """Fresh actions of a tool with declared ones go to the bucket; a tool without declared ones keeps `max_actions`
    of them, never one past the length bound nor one a store cannot hold. Made-up tool names leave nothing. After
    a restart the bucket and the kept actions stay, and the kept ones still fill the bound."""
    db, huge = tmp_path / "repo.db", "x" * 100_000
    first = ([("ok_async", {"action": huge}), ("ok_async", {"action": "ev\x00il"})]
             + [("ok_async", {"action": f"a{i % 5}"}) for i in range(20)]
             + [("ok", {"action": f"fresh-{i}"}) for i in range(40)]
             + [("ok", {"action": "grep"}), ("ok", {"action": huge})]
             + [(f"made-up-{i}", {}) for i in range(20)] + [("y" * 10_000, {})])  # never reach a guard
    answers = calls_of(db, *first, max_actions=3)
    assert text(answers[22]) == "fresh-0"  # the handler still gets what the client sent
    rows, usage = stored(db)
    assert usage == {("ok", OTHER_ACTION, "ok", False): 41, ("ok", "text", "ok", True): 1,
                     ("ok_async", "a0", "ok", False): 4, ("ok_async", "a1", "ok", False): 4,
                     ("ok_async", "a2", "ok", False): 4, ("ok_async", OTHER_ACTION, "ok", False): 10}
    assert rows == {"ok": (42, 0, None), "ok_async": (22, 0, None)}

    calls_of(db, ("ok_async", {"action": "a9"}), ("ok_async", {"action": "a1"}), ("ok", {"action": "nope"}),
             max_actions=3)
    usage = stored(db)[1]
    assert (usage[("ok_async", OTHER_ACTION, "ok", False)], usage[("ok_async", "a1", "ok", False)]) == (11, 5)
    assert usage[("ok", OTHER_ACTION, "ok", False)] == 42


def test_client_errors_never_disable_a_tool_validation_is_not_counted_and_observers_hear_of_every_call(
        tmp_path: Path) -> None:
    """A failure named as the client's (by type or by a predicate) reaches the client, counts as the tool's success
    with outcome `client_error` and never disables it; arguments the SDK rejects never reach the pipeline. Other
    errors disable as before. Observers hear of each call with its error type; one that fails changes nothing."""
    reports = Reports()
    calls = ([("picky", {"n": -1}), ("picky", {"n": 1})] * 2 + [("picky", {"n": "not a number"}), ("picky", {})]
             + [("picky", {"n": 0})] * 3 + [("picky", {"n": 5})])
    answers = calls_of(tmp_path / "repo.db", *calls, client_errors=(ValueError,), observers=[Broken(), reports],
                       is_client_error=lambda exc: "no such" in str(exc))
    assert [a.is_error for a in answers] == [True] * 10
    assert "n must not be negative, got -1" in text(answers[0]) and REFUSED + "backend down" in text(answers[-1])
    assert stored(tmp_path / "repo.db") == ({"picky": (6, 2, "backend down")}, {
        ("picky", None, "client_error", False): 4, ("picky", None, "error", False): 2,
        ("picky", None, "disabled", False): 2})
    assert [(r.outcome, r.error_type) for r in reports] == (
        [("client_error", "ValueError"), ("client_error", "LookupError")] * 2 + [("error", "RuntimeError")] * 2
        + [("disabled", "tool_disabled")] * 2)
    assert reports[-1].error_message == "backend down" and reports[0].tracker is not None


def test_a_disable_is_synced_at_once_not_at_the_end_of_the_period(tmp_path: Path) -> None:
    """With an hour between syncs, the disable still reaches the store within a moment (other processes sharing
    it learn it a period sooner); the calls before it wait for the period."""
    db = tmp_path / "shared.db"
    server = make_server(db, cooldown=60, flush_interval=3600)[0]

    def disabled_at() -> Any:
        with sqlite3.connect(db) as conn:
            row = conn.execute("SELECT disabled_at FROM tool_health WHERE tool_name = 'picky'").fetchone()
        return None if row is None else row[0]

    async def run() -> None:
        async with Client(server, mode="legacy") as client:
            await client.call_tool("picky", {"n": 0})
            await anyio.sleep(0.6)
            assert not disabled_at()
            await client.call_tool("picky", {"n": 0})
            with anyio.fail_after(5):
                while not disabled_at():
                    await anyio.sleep(0.05)

    anyio.run(run)


def test_the_performance_stats_answer_is_the_collectors_when_small_and_bounded_when_not(tmp_path: Path) -> None:
    """Exactly the collector's answer while it fits; 256 KB at most once a host's collector holds thousands of
    long names, keeping the most called tools and saying what was left out."""
    collector, server = get_timing_collector(), make_server(tmp_path / "repo.db")[0]
    small = json.loads(text(anyio.run(session, server, ("ok", {}), ("get_tool_performance_stats", {}))[1]))
    assert small == {"tools": [{**s, "name": "ok"} for s in small["tools"]]} and len(small["tools"]) == 1
    for i in range(6000):
        collector.record(f"{i:05d}-" + "n" * 100, 1.0 + i % 7, error=i % 5 == 0)
        if i % 1000 == 0:
            collector.record(f"{i:05d}-" + "n" * 100, 2.0)
    answer = text(anyio.run(session, server, ("get_tool_performance_stats", {}))[0])
    stats = json.loads(answer)
    assert len(answer.encode()) <= 256 * 1024 and stats["truncated"]["tools_left_out"] == 6002 - len(stats["tools"])
    names = [t["name"] for t in stats["tools"] if t["name"][0].isdigit()]
    assert {f"{i:05d}-" + "n" * 100 for i in range(0, 6000, 1000)} <= set(names) and names == sorted(names)

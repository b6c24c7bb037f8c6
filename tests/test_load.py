"""Seeding a tracker from the stored history: restarts through a real SQLite file,
removed tools and actions, unreadable history and the reader's conversions."""
from __future__ import annotations

import calendar
import json
import logging
import sqlite3
import types
from typing import Any

import pytest

from conftest import HostToolState, HostUsage, make_registry
from ordanis_veltrane.config import ToolsConfig
from ordanis_veltrane.tool_handlers import health

SELECT_HEALTH = (
    "SELECT tool_name, call_count, error_count, last_error, disabled_at, updated_at FROM tool_health"
)
DELETE_HEALTH = "DELETE FROM tool_health WHERE tool_name = ?"
SELECT_USAGE = "SELECT value FROM schema_info WHERE key = ?"
INSERT_HEALTH = "INSERT INTO tool_health VALUES (?, ?, ?, ?, ?, ?)"
STORE_USAGE = "INSERT OR REPLACE INTO schema_info (key, value) VALUES ('tool_usage', ?)"
LOGGER = "ordanis_veltrane.tool_handlers.health"
HEALTH_MSG = "Could not read the tool health history: %s"
USAGE_MSG = "Could not read the tool usage counts: %s"
NOW = 1_700_000_000.0
NOW_TEXT = "2023-11-14 22:13:20"


class Interrupt(BaseException):
    pass


class FakeDb:
    """Answers fixed rows; keeps every call."""

    def __init__(self, rows: Any = (), usage: Any = None) -> None:
        self.rows, self.usage = list(rows), usage
        self.calls: list[tuple[Any, ...]] = []

    def fetchall(self, sql: str) -> Any:
        self.calls.append(("fetchall", sql))
        return self.rows

    def fetchone(self, sql: str, params: Any) -> Any:
        self.calls.append(("fetchone", sql, tuple(params)))
        return self.usage

    def execute(self, sql: str, params: Any) -> None:
        self.calls.append(("execute", sql, tuple(params)))

    def executemany(self, sql: str, rows: Any) -> None:
        self.calls.append(("executemany", sql, [tuple(r) for r in rows]))


def build(db: Any, limits: Any = None) -> Any:
    return health.ToolHealthTracker(types.SimpleNamespace(db=db), limits)


def row(tool: Any, action: Any = None, outcome: Any = "ok", alias_hit: Any = False,
        calls: Any = 1, timed_calls: Any = 1, total_ms: Any = 1.0) -> dict[str, Any]:
    return {"tool": tool, "action": action, "outcome": outcome, "alias_hit": alias_hit,
            "calls": calls, "timed_calls": timed_calls, "total_ms": total_ms}


def warnings_of(caplog: pytest.LogCaptureFixture) -> list[logging.LogRecord]:
    return [r for r in caplog.records if r.name == LOGGER]


def usage_state(tracker: Any) -> list[tuple[Any, int, int, float]]:
    return [(k, u.calls, u.timed_calls, u.total_ms) for k, u in tracker._usage.items()]


def test_restart_round_trip(clock, repo, monkeypatch) -> None:
    monkeypatch.setattr(health, "TOOLS", make_registry(
        {"a": (), "b": (), "ünï😀": ("ação",), "search": ("text", "symbol")}))
    limits = ToolsConfig(disable_after_errors=2, disable_cooldown_s=60)
    first = build(repo.db, limits)
    first.record_success("a")
    first.record_error("a", "é" * 600)
    first.record_success("a")
    first.record_error("b", "x")
    first.record_error("b", "")  # disables b
    first.record_success("ünï😀")
    first.record_error("search", "nope")
    for tool, action, alias, ms in [("ünï😀", "ação", True, 1.23456), ("search", "text", False, None),
                                    ("search", None, False, 2.5), ("ünï😀", "ação", True, 1.0),
                                    ("search", "symbol", True, 0.0)]:
        first.record_call(tool, action, "ok", alias_hit=alias, duration_ms=ms)
    assert first.flush() == 4 + 4

    clock.advance(30)
    second = build(repo.db, limits)
    stored_order = [r[0] for r in repo.db.fetchall(SELECT_HEALTH)]
    assert list(second._state) == stored_order
    for name, old in first._state.items():
        assert second._state[name] == health._ToolState(
            call_count=old.call_count, error_count=old.error_count, last_error=old.last_error,
            disabled_at=old.disabled_at, updated_at=old.updated_at, consecutive_errors=0)
    assert second._state["a"].last_error == "é" * 500
    assert second._dirty == set() and not second.has_unsaved_changes
    assert usage_state(second) == [(k, u.calls, u.timed_calls, round(u.total_ms, 3))
                                   for k, u in first._usage.items()]
    assert second._usage[("ünï😀", "ação", "ok", True)].total_ms == 2.235
    # b was disabled before the restart: it stays so until its cooldown, its run restarted.
    assert second.is_disabled("b") == (True, "")
    second.record_error("b", "again")  # run 1 < 2: disabled_at stays
    assert second._state["b"].disabled_at == NOW
    clock.advance(29)
    assert second.is_disabled("b") == (True, "again")
    clock.advance(1)
    assert second.is_disabled("b") == (False, None)
    second.record_error("b", "1")
    assert second.is_disabled("b") == (False, None)


def test_removed_tools_deleted_and_not_seeded(clock, registry, recording, make_tracker, repo) -> None:
    repo.db.executemany(INSERT_HEALTH, [
        ("gone1", 1, 0, None, None, NOW_TEXT), ("a", 2, 1, "e", None, NOW_TEXT),
        ("gone2", 3, 3, "x", NOW_TEXT, NOW_TEXT), ("b", 4, 0, None, None, NOW_TEXT)])
    read_order = [r[0] for r in repo.db.fetchall(SELECT_HEALTH)]
    tracker = make_tracker()
    assert recording.ops() == ["fetchall", "executemany", "fetchone"]
    assert recording.calls[0].args == (SELECT_HEALTH,)
    sql, rows = recording.calls[1].args
    assert sql == DELETE_HEALTH
    assert [tuple(r) for r in rows] == [(n,) for n in read_order if n.startswith("gone")]
    sql, params = recording.calls[2].args
    assert sql == SELECT_USAGE and tuple(params) == ("tool_usage",)
    assert list(tracker._state) == [n for n in read_order if not n.startswith("gone")]
    assert sorted(r[0] for r in repo.db.fetchall(SELECT_HEALTH)) == ["a", "b"]
    assert not tracker.has_unsaved_changes and tracker._dirty == set()
    assert recording.lock_violations == 0


def test_empty_history_reads_only(registry, recording, make_tracker) -> None:
    tracker = make_tracker()
    assert recording.ops() == ["fetchall", "fetchone"]
    assert tracker._state == {} and list(tracker._usage) == []
    assert not tracker.has_unsaved_changes


@pytest.mark.parametrize("op, message", [
    ("fetchall", HEALTH_MSG), ("executemany", HEALTH_MSG), ("fetchone", USAGE_MSG)])
def test_unreadable_history_warns(clock, registry, recording, make_tracker, repo, caplog, op, message) -> None:
    repo.db.executemany(INSERT_HEALTH, [("a", 2, 1, "e", None, NOW_TEXT), ("gone", 1, 0, None, None, NOW_TEXT)])
    repo.db.execute(STORE_USAGE, (json.dumps([row("a")]),))
    error = sqlite3.OperationalError("no such table")
    recording.fail[op] = error
    with caplog.at_level(logging.WARNING, logger=LOGGER):
        tracker = make_tracker()
    (record,) = warnings_of(caplog)
    assert record.levelno == logging.WARNING
    assert record.msg == message and record.args == (error,) and record.args[0] is error
    assert tracker._dirty == set() and not tracker.has_unsaved_changes
    if message == USAGE_MSG:
        assert list(tracker._state) == ["a"] and list(tracker._usage) == []
        return
    # Nothing seeded, even when only the delete failed; the usage part went on.
    assert tracker._state == {}
    assert usage_state(tracker) == [(("a", None, "ok", False), 1, 1, 1.0)]
    # The next flush writes a fresh row for what changed since.
    del recording.fail[op]
    tracker.record_success("a")
    tracker.flush()
    assert ("a", 1, 0, None, None, NOW_TEXT) in repo.db.fetchall(SELECT_HEALTH)


@pytest.mark.parametrize("op", ["fetchall", "fetchone"])
def test_interrupt_while_loading_propagates(registry, recording, make_tracker, caplog, op) -> None:
    recording.fail[op] = Interrupt()
    with pytest.raises(Interrupt):
        make_tracker()
    assert warnings_of(caplog) == []


def _without(member: str) -> str:
    bad = row("b")
    del bad[member]
    return json.dumps([row("a"), bad])


UNREADABLE = {
    "not json": "not json",
    "truncated": '[{"tool": "a"',
    "object": json.dumps({"tool": "a"}),
    "empty object": "{}",
    "string": '"[]"',
    "null": "null",
    "number": "5",
    "number element": "[1]",
    "string element": '["a"]',
    "null element": json.dumps([row("a"), None]),
    "array element": json.dumps([["a", None, "ok", False, 1, 1, 1.0]]),
    **{f"missing {m}": _without(m) for m in
       ("tool", "action", "outcome", "alias_hit", "calls", "timed_calls", "total_ms")},
    "calls text": json.dumps([row("a", calls="x")]),
    "calls null": json.dumps([row("a", calls=None)]),
    "calls fraction text": json.dumps([row("a", timed_calls="1.5")]),
    "calls list": json.dumps([row("a", calls=[1])]),
    "calls too big": json.dumps([row("a", calls=2**70)]),
    "total text": json.dumps([row("a", total_ms="fast")]),
    "total null": json.dumps([row("a", total_ms=None)]),
    "third row lacks timed_calls": json.dumps(
        [row("a"), row("b"), {k: v for k, v in row("c").items() if k != "timed_calls"}]),
}


@pytest.mark.parametrize("text", UNREADABLE.values(), ids=UNREADABLE.keys())
def test_unreadable_usage_document(clock, registry, recording, make_tracker, repo, caplog, text) -> None:
    repo.db.executemany(INSERT_HEALTH, [("a", 2, 1, "e", None, NOW_TEXT)])
    repo.db.execute(STORE_USAGE, (text,))
    with caplog.at_level(logging.WARNING, logger=LOGGER):
        tracker = make_tracker()
    (record,) = warnings_of(caplog)
    assert record.levelno == logging.WARNING and record.msg == USAGE_MSG
    assert len(record.args) == 1 and isinstance(record.args[0], Exception)
    assert list(tracker._usage) == [] and tracker._usage_dirty is False
    assert list(tracker._state) == ["a"]
    assert not tracker.has_unsaved_changes
    start = len(recording.calls)
    assert tracker.flush() == 0 and len(recording.calls) == start
    assert repo.db.fetchone(SELECT_USAGE, ("tool_usage",)) == (text,)
    tracker.record_call("c", None, "ok", alias_hit=False, duration_ms=None)
    assert tracker.flush() == 1
    assert json.loads(repo.db.fetchone(SELECT_USAGE, ("tool_usage",))[0]) == [
        row("c", timed_calls=0, total_ms=0.0)]


@pytest.mark.parametrize("usage", [None, (None,), (b"[1, 2]",), (5,), (2.5,)])
def test_missing_or_non_text_document_reads_as_empty(registry, caplog, usage) -> None:
    with caplog.at_level(logging.WARNING, logger=LOGGER):
        tracker = build(FakeDb(usage=usage))
    assert warnings_of(caplog) == []
    assert list(tracker._usage) == [] and tracker._usage_dirty is False


def test_reader_conversions(monkeypatch) -> None:
    monkeypatch.setattr(health, "TOOLS", make_registry({"7": (), "search": ("text",), "a": ()}))
    doc = [
        row(7, None, 5, 0, "12", 3.9, "1.5"),
        row("search", "text", "ok", "yes", 2.9, "0", 4),
        row("search", "text", "ok", None, -3.9, 1, -0.5),
        row("a", None, "ok", "", 0, 0, 0),
        row("a", None, "err", [1], 1, 1, "1e3"),
    ]
    tracker = build(FakeDb(usage=(json.dumps(doc),)))
    assert usage_state(tracker) == [
        (("7", None, "5", False), 12, 3, 1.5),
        (("search", "text", "ok", True), 2, 0, 4.0),
        (("search", "text", "ok", False), -3, 1, -0.5),
        (("a", None, "ok", False), 0, 0, 0.0),
        (("a", None, "err", True), 1, 1, 1000.0),
    ]
    for key, usage in tracker._usage.items():
        assert type(key) is tuple and len(key) == 4
        assert type(key[0]) is str and type(key[2]) is str and type(key[3]) is bool
        assert type(usage.calls) is int and type(usage.timed_calls) is int
        assert type(usage.total_ms) is float
    assert tracker._usage_dirty is False


def test_duplicate_keys_keep_first_place(registry) -> None:
    doc = [row("a", calls=1), row("b", calls=2), row("a", alias_hit=0, calls=3, total_ms=9.5),
           row("a", alias_hit=True, calls=4)]
    tracker = build(FakeDb(usage=(json.dumps(doc),)))
    assert usage_state(tracker) == [
        (("a", None, "ok", False), 3, 1, 9.5),
        (("b", None, "ok", False), 2, 1, 1.0),
        (("a", None, "ok", True), 4, 1, 1.0),
    ]
    assert tracker._usage_dirty is False


def test_removed_tools_and_actions_dropped(registry, recording, make_tracker, repo) -> None:
    doc = [row("gone"), row("search", "text", calls=2), row("search", "gone"), row("a"),
           row("a", ""), row("search", None, calls=3), row("git", "log", alias_hit=True),
           row("gone", "text"), row("search", "symbol", total_ms=1.23449)]
    repo.db.execute(STORE_USAGE, (json.dumps(doc),))
    tracker = make_tracker()
    kept = [doc[i] for i in (1, 3, 5, 6, 8)]
    assert [k for k in tracker._usage] == [
        (r["tool"], r["action"], r["outcome"], r["alias_hit"]) for r in kept]
    assert tracker._usage_dirty is True and tracker.has_unsaved_changes and tracker._dirty == set()
    start = len(recording.calls)
    assert tracker.flush() == 5
    assert recording.ops()[start:] == ["execute"]
    kept[4]["total_ms"] = 1.234
    assert json.loads(repo.db.fetchone(SELECT_USAGE, ("tool_usage",))[0]) == kept
    # A document of removed tools only is written again as an empty array.
    health.TOOLS.remove("search")
    health.TOOLS.remove("a")
    health.TOOLS.remove("git")
    again = make_tracker()
    assert list(again._usage) == [] and again._usage_dirty is True
    assert again.flush() == 0
    assert repo.db.fetchone(SELECT_USAGE, ("tool_usage",)) == ("[]",)


GOOD = "2024-03-05 14:07:09"
GOOD_EPOCH = float(calendar.timegm((2024, 3, 5, 14, 7, 9)))


@pytest.mark.parametrize("disabled, updated, disabled_at, updated_at", [
    (None, None, None, 0.0),
    ("", "", None, 0.0),
    ("garbage", "2024-03-05T14:07:09", None, 0.0),
    ("2024-02-30 00:00:00", "2024-03-05 14:07:09.5", None, 0.0),
    (GOOD, GOOD, GOOD_EPOCH, GOOD_EPOCH),
    (None, "2024-3-5 14:7:9", None, GOOD_EPOCH),
])
def test_seeded_timestamps_and_nulls(registry, disabled, updated, disabled_at, updated_at) -> None:
    rows = [("a", None, None, None, disabled, updated), ("b", "12", 3, "", None, GOOD)]
    tracker = build(FakeDb(rows=rows))
    assert tracker._state["a"] == health._ToolState(
        call_count=0, error_count=0, last_error=None, disabled_at=disabled_at, updated_at=updated_at)
    b = tracker._state["b"]
    assert (b.call_count, b.error_count, b.last_error, b.consecutive_errors) == (12, 3, "", 0)
    assert type(tracker._state["a"].updated_at) is float
    assert tracker._dirty == set()


def test_seeded_disabled_tool_without_message(clock, registry) -> None:
    rows = [("a", 5, 5, None, NOW_TEXT, NOW_TEXT)]
    tracker = build(FakeDb(rows=rows), ToolsConfig(disable_after_errors=3, disable_cooldown_s=10))
    assert tracker.is_disabled("a") == (True, None)
    clock.advance(10)
    assert tracker.is_disabled("a") == (False, None)


def test_late_bound_records_and_helpers(clock, registry, repo, monkeypatch) -> None:
    """Records, time conversion and _known are taken from the module as it is now."""
    State, Usage = HostToolState, HostUsage

    repo.db.executemany(INSERT_HEALTH, [("search", 1, 0, None, "x", "y")])
    repo.db.execute(STORE_USAGE, (json.dumps([row("search", "text"), row("search", "symbol")]),))
    monkeypatch.setattr(health, "_ToolState", State)
    monkeypatch.setattr(health, "_Usage", Usage)
    monkeypatch.setattr(health, "_epoch", lambda text: {"x": 5.0, "y": 6.0}.get(text))
    monkeypatch.setattr(health, "_sqlite_time", lambda e: None if e is None else f"T{e}")
    monkeypatch.setattr(health, "_known", lambda tool, action: action == "text")
    tracker = build(repo.db)
    assert tracker._state == {"search": State(1, 0, None, 5.0, 6.0)}
    assert usage_state(tracker) == [(("search", "text", "ok", False), 1, 1, 1.0)]
    assert tracker._usage_dirty is True
    tracker.record_error("search", "e")
    tracker.record_call("search", "text", "ok", alias_hit=False, duration_ms=2.0)
    assert type(tracker._usage[("search", "text", "ok", False)]) is Usage
    assert tracker.flush() == 2
    assert repo.db.fetchall(SELECT_HEALTH) == [("search", 2, 1, "e", "T5.0", f"T{NOW}")]
    (record,) = tracker.get_health_summary()
    assert (record["disabled_at"], record["updated_at"], record["usage"][0]["avg_ms"]) == ("T5.0", f"T{NOW}", 1.5)

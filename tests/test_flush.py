"""Flushing: statements, parameter rows, the usage document, failed writes, and no statement under the lock."""

import json
import sqlite3
import threading
import types
from typing import Any

import pytest
from hypothesis import example, given, settings
from hypothesis import strategies as st

from conftest import MEMBERS, NOW_TEXT, SELECT_HEALTH, SELECT_USAGE, WRITE_USAGE, MemDb, tracker_over
from ordanis_veltrane.config import ToolsConfig
from ordanis_veltrane.tool_handlers import health

UPSERT_HEALTH = (
    "INSERT INTO tool_health (tool_name, call_count, error_count, last_error, disabled_at, updated_at)\n"
    "                    VALUES (?, ?, ?, ?, ?, ?)\n"
    "                    ON CONFLICT(tool_name) DO UPDATE SET\n"
    "                        call_count = excluded.call_count,\n"
    "                        error_count = excluded.error_count,\n"
    "                        last_error = excluded.last_error,\n"
    "                        disabled_at = excluded.disabled_at,\n"
    "                        updated_at = excluded.updated_at"
)


Interrupt = type("Interrupt", (BaseException,), {})  # stands in for KeyboardInterrupt: not an ordinary error


def expected_doc(rows: list[tuple[Any, ...]]) -> str:  # the usage document as the stdlib lays out the same rows
    return json.dumps([dict(zip(MEMBERS, (*r[:6], round(r[6], 3)))) for r in rows], separators=(",", ":"))


def doc_of_memory(tracker: Any) -> str:
    return expected_doc([(*k, u.calls, u.timed_calls, u.total_ms) for k, u in tracker._usage.items()])


def test_flush_writes_sorted_rows_and_document(clock, recording, make_tracker, repo) -> None:
    assert len(UPSERT_HEALTH) == 493
    tracker = make_tracker(ToolsConfig(disable_after_errors=1, disable_cooldown_s=60))
    start = len(recording.calls)
    assert not tracker.has_unsaved_changes and tracker.flush() == 0 and len(recording.calls) == start
    tracker._dirty.add("ghost")  # marked without a record: passed over, no statement
    assert tracker.has_unsaved_changes and tracker.flush() == 0 and len(recording.calls) == start
    tracker._usage_dirty = True  # an empty map is written as "[]", and counts 0
    assert tracker.flush() == 0 and recording.calls[start:] == [("execute", (WRITE_USAGE, ("tool_usage", "[]")))]
    start += 1
    clock.now += 0.75
    tracker.record_error("c", "boom")
    names = ["b", "B", "é", "\U0001f600", "\ufb00", "a\x00", ""]  # sorted by code point, not by UTF-16 unit
    for name in names:
        tracker.record_success(name)
    for key in [("a", None, "ok", False), ("c", "x", "error", True), ("a", None, "ok", True), ("é", "", "ok", False),
                ("c", "x", "error", False)]:
        tracker.record_call(*key[:3], alias_hit=key[3], duration_ms=1.5)
    assert tracker.has_unsaved_changes and tracker.flush() == 8 + 5
    (op1, (sql1, rows)), (op2, (sql2, params)) = recording.calls[start:]
    assert (op1, sql1, op2, sql2) == ("executemany", UPSERT_HEALTH, "execute", WRITE_USAGE)
    assert [tuple(r) for r in rows] == sorted([(n, 1, 0, None, None, NOW_TEXT) for n in names]
                                              + [("c", 1, 1, "boom", NOW_TEXT, NOW_TEXT)])
    assert tuple(params) == ("tool_usage", doc_of_memory(tracker))
    assert not tracker.has_unsaved_changes and tracker._dirty == set() and tracker._usage_dirty is False
    assert sorted(repo.db.fetchall(SELECT_HEALTH)) == [tuple(r) for r in rows]
    tracker.record_success("c")  # re-enabled: its disabled_at is written as NULL
    assert tracker.flush() == 1 and recording.ops()[start + 2:] == ["executemany"] and recording.lock_violations == 0
    assert ("c", 2, 1, "boom", None, NOW_TEXT) in repo.db.fetchall(SELECT_HEALTH)
    tracker.record_call("z", None, "ok", alias_hit=False, duration_ms=None)  # usage only: the document alone
    assert tracker.flush() == 6 and recording.ops()[start + 3:] == ["execute"]


@pytest.mark.parametrize(("op", "error"), [("executemany", sqlite3.OperationalError("database is locked")),
                                           ("execute", ValueError("disk full")), ("executemany", Interrupt()),
                                           ("execute", Interrupt())])
def test_failed_write(clock, recording, make_tracker, repo, op: str, error: BaseException) -> None:
    """The same error reaches the caller; an ordinary one puts the marks back and the next flush writes the newest
    values, an interrupt puts nothing back (test_restarts checks failed writes against a model)."""
    tracker = make_tracker()
    tracker.record_error("b", "first")
    tracker.record_call("b", None, "ok", alias_hit=False, duration_ms=2.0)
    recording.fail[op], start = error, len(recording.calls)
    assert pytest.raises(type(error), tracker.flush).value is error and not tracker._lock.locked()
    health_failed, ordinary = op == "executemany", isinstance(error, Exception)
    assert recording.ops()[start:] == ["executemany"] + ([] if health_failed else ["execute"])
    assert tracker._dirty == ({"b"} if health_failed and ordinary else set()) and recording.lock_violations == 0
    assert tracker._usage_dirty is (ordinary or health_failed)  # an interrupted health write never reached usage
    del recording.fail[op]
    clock.advance(5)
    tracker.record_success("b")
    assert tracker.flush() == 1 + (ordinary or health_failed) and not tracker.has_unsaved_changes
    assert repo.db.fetchall(SELECT_HEALTH) == [("b", 2, 1, "first", None, "2023-11-14 22:13:25")]


names = st.text(st.one_of(st.characters(), st.characters(categories=["Cs"])), max_size=6)
counts = st.integers(0, 2**63 - 1)


@settings(max_examples=100, deadline=None)
@given(st.lists(st.tuples(names, st.one_of(st.none(), names), names, st.booleans(), counts, counts,
                          st.floats(allow_nan=False, allow_infinity=False)), max_size=10))
@example([(f"t{i}", None, "ok", False, 2, 1, t) for i, t in enumerate((12.34567, 0.0, 1500.0, 0.0625, 1e16, 1e300))])
def test_document_matches_json_oracle(rows: list[tuple[Any, ...]]) -> None:
    """The document is json.dumps of the rows with total_ms rounded to 3 places; memory keeps the exact sums."""
    tracker = tracker_over(db := MemDb())
    for *key, calls, timed, total in rows:
        tracker._usage[tuple(key)] = health._Usage(calls, timed, total)
    tracker._usage_dirty, totals = True, [u.total_ms for u in tracker._usage.values()]
    assert tracker.flush() == len(tracker._usage) and [u.total_ms for u in tracker._usage.values()] == totals
    assert db.written == [("execute", WRITE_USAGE, ("tool_usage", doc_of_memory(tracker)))] and db.one[0].isascii()


def test_replaced_json_dumps_is_used(clock, recording, make_tracker, monkeypatch) -> None:
    tracker = make_tracker()
    tracker.record_call("a", "x", "ok", alias_hit=True, duration_ms=1.23456)
    tracker.record_call("é", None, "error", alias_hit=False, duration_ms=None)
    seen: list[tuple[Any, Any]] = []
    monkeypatch.setattr(health, "json", types.SimpleNamespace(
        dumps=lambda *args, **kwargs: seen.append((args, kwargs)) or "CUSTOM-DOC", loads=json.loads))
    assert tracker.flush() == 2 and tuple(recording.calls[-1][1][1]) == ("tool_usage", "CUSTOM-DOC")
    ((args, kwargs),) = seen
    assert json.dumps(*args, **kwargs) == doc_of_memory(tracker)


@pytest.mark.parametrize("key", [(frozenset({"x"}), None, "ok", False), ("a", None, object(), True)])
def test_unserialisable_usage_key_restores_the_mark(clock, recording, make_tracker, repo, key) -> None:
    tracker = make_tracker()
    tracker.record_success("a")
    tracker.record_call("a", None, "ok", alias_hit=False, duration_ms=1.0)
    tracker.record_call(*key[:3], alias_hit=key[3], duration_ms=1.0)
    pytest.raises(TypeError, tracker.flush)
    assert tracker._usage_dirty is True and tracker._dirty == set() and not tracker._lock.locked()
    assert repo.db.fetchall(SELECT_HEALTH) == [("a", 1, 0, None, None, NOW_TEXT)]
    assert repo.db.fetchone(SELECT_USAGE, ("tool_usage",)) is None


def test_no_statement_under_the_lock(clock, recording, make_tracker, repo, registry, monkeypatch) -> None:
    """Neither loading nor flushing holds the tracker's lock over a statement (the lock is caught as it is made)."""
    repo.db.executemany(UPSERT_HEALTH, [("a", 1, 0, None, None, NOW_TEXT), ("gone", 1, 1, "x", None, NOW_TEXT)])
    repo.db.execute(WRITE_USAGE, ("tool_usage", expected_doc([("gone", None, "ok", False, 1, 1, 1.0)])))
    locks, violations, enter = [], [], recording._enter
    lock_maker = types.SimpleNamespace(Lock=lambda: locks.append(threading.Lock()) or locks[-1])
    monkeypatch.setattr(health, "threading", lock_maker)
    recording._enter = lambda op, *args: violations.extend(op for lock in locks if lock.locked()) or enter(op, *args)
    tracker = make_tracker()
    assert tracker._lock is locks[-1] and recording.ops() == ["fetchall", "executemany", "fetchone"]
    tracker.record_error("a", "e")
    tracker.record_call("a", None, "ok", alias_hit=False, duration_ms=1.0)
    recording.fail["execute"] = ValueError("disk full")
    pytest.raises(ValueError, tracker.flush)
    del recording.fail["execute"]
    assert tracker.flush() == 1 and violations == [] and recording.lock_violations == 0


class Columns:  # a column list that is not a str: formatted at every use, never cached
    def __init__(self, text: str) -> None:
        self.text, self.formats = text, 0

    def __format__(self, spec: str) -> str:
        self.formats += 1
        return self.text


def test_health_statements_follow_the_column_list(clock, registry, monkeypatch) -> None:
    """Both statements naming the health columns are composed from the module's current _TOOL_HEALTH_COLUMNS."""
    spaced = "tool_name,call_count ,error_count,last_error,disabled_at,updated_at"
    seen: list[str] = []
    db = MemDb(rows=[("a", 1, 0, None, None, NOW_TEXT)])
    db.fetchall = lambda sql: seen.append(sql) or db.rows  # type: ignore[method-assign]
    db.executemany = lambda sql, rows: seen.append(sql)  # type: ignore[method-assign]
    columns = Columns(spaced)
    for value in (spaced, columns, health._TOOL_HEALTH_COLUMNS, spaced):
        monkeypatch.setattr(health, "_TOOL_HEALTH_COLUMNS", value)
        tracker = tracker_over(db)
        tracker.record_success("a")
        tracker.flush()
        text = value.text if isinstance(value, Columns) else value
        assert seen[-2:] == [f"SELECT {text} FROM tool_health", UPSERT_HEALTH.replace(
            "tool_name, call_count, error_count, last_error, disabled_at, updated_at", text)]
    assert columns.formats == 2  # once for each statement: a non-str value is not cached

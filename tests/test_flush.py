"""Flushing: the statements, the parameter rows, the usage document's layout, failed
writes that keep their marks, and the lock staying off the database."""
from __future__ import annotations

import json
import sqlite3
import threading
import types
from typing import Any

import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

from ordanis_veltrane.config import ToolsConfig
from ordanis_veltrane.tool_handlers import health

SELECT_HEALTH = (
    "SELECT tool_name, call_count, error_count, last_error, disabled_at, updated_at FROM tool_health"
)
DELETE_HEALTH = "DELETE FROM tool_health WHERE tool_name = ?"
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
SELECT_USAGE = "SELECT value FROM schema_info WHERE key = ?"
WRITE_USAGE = "INSERT OR REPLACE INTO schema_info (key, value) VALUES (?, ?)"

NOW = 1_700_000_000.0
NOW_TEXT = "2023-11-14 22:13:20"


class Interrupt(BaseException):
    """Stands in for KeyboardInterrupt: not an ordinary error."""


class NullDb:
    """An empty database that keeps what is written to it."""

    def __init__(self) -> None:
        self.calls: list[tuple[Any, ...]] = []

    def fetchall(self, sql: str) -> list[Any]:
        return []

    def fetchone(self, sql: str, params: Any) -> None:
        return None

    def execute(self, sql: str, params: Any) -> None:
        self.calls.append(("execute", sql, tuple(params)))

    def executemany(self, sql: str, rows: Any) -> None:
        self.calls.append(("executemany", sql, [tuple(r) for r in rows]))


def null_tracker() -> tuple[Any, NullDb]:
    db = NullDb()
    return health.ToolHealthTracker(types.SimpleNamespace(db=db)), db


def expected_doc(rows: list[tuple[Any, Any, Any, bool, int, int, float]]) -> str:
    """The usage document as the stdlib lays the same rows out."""
    members = ("tool", "action", "outcome", "alias_hit", "calls", "timed_calls", "total_ms")
    objs = [dict(zip(members, (*r[:6], round(r[6], 3)))) for r in rows]
    return json.dumps(objs, separators=(",", ":"))


def doc_of_memory(tracker: Any) -> str:
    return expected_doc([(*k, u.calls, u.timed_calls, u.total_ms) for k, u in tracker._usage.items()])


def new_calls(recording: Any, since: int) -> list[Any]:
    return recording.calls[since:]


def test_statement_texts() -> None:
    assert len(UPSERT_HEALTH) == 493
    assert UPSERT_HEALTH.startswith("INSERT INTO tool_health (" + health._TOOL_HEALTH_COLUMNS + ")\n")
    assert SELECT_HEALTH == "SELECT " + health._TOOL_HEALTH_COLUMNS + " FROM tool_health"
    assert health.TOOL_USAGE_KEY == "tool_usage"


def test_flush_writes_sorted_rows_and_document(clock, recording, make_tracker, repo) -> None:
    tracker = make_tracker(ToolsConfig(disable_after_errors=1, disable_cooldown_s=60))
    start = len(recording.calls)
    clock.now = NOW + 0.75
    tracker.record_error("c", "boom")
    tracker.record_success("a")
    for key in [("a", None, "ok", False), ("c", "x", "error", True), ("a", None, "ok", True),
                ("é", "", "ok", False), ("c", "x", "error", False)]:
        tracker.record_call(*key[:3], alias_hit=key[3], duration_ms=1.5)
    assert tracker.has_unsaved_changes
    assert tracker.flush() == 7
    calls = new_calls(recording, start)
    assert [c.op for c in calls] == ["executemany", "execute"]
    sql, rows = calls[0].args
    assert sql == UPSERT_HEALTH
    assert [tuple(r) for r in rows] == [
        ("a", 1, 0, None, None, NOW_TEXT),
        ("c", 1, 1, "boom", NOW_TEXT, NOW_TEXT),
    ]
    sql, params = calls[1].args
    assert sql == WRITE_USAGE
    assert tuple(params) == ("tool_usage", doc_of_memory(tracker))
    assert not tracker.has_unsaved_changes
    assert repo.db.fetchall(SELECT_HEALTH) == [tuple(r) for r in rows]
    # Nothing changed since: no statement at all.
    assert tracker.flush() == 0
    assert len(recording.calls) == start + 2
    # A re-enabled tool has its disabled_at set to NULL by the next write.
    tracker.record_success("c")
    assert tracker.flush() == 1
    assert ("c", 2, 1, "boom", None, NOW_TEXT) in repo.db.fetchall(SELECT_HEALTH)


def test_names_sorted_by_code_point(clock, recording, make_tracker) -> None:
    tracker = make_tracker()
    names = ["b", "B", "é", "\U0001f600", "\ufb00", "a", "Z", "a\x00", ""]
    for name in names:
        tracker.record_success(name)
    tracker._dirty.add("ghost")  # marked without a record: passed over, then forgotten
    assert tracker.flush() == len(names)
    (call,) = recording.calls[-1:]
    assert [r[0] for r in call.args[1]] == sorted(names)
    assert all(len(r) == 6 for r in call.args[1])
    assert not tracker.has_unsaved_changes and not tracker._dirty


@pytest.mark.parametrize("setup, result, ops, doc", [
    ("nothing", 0, [], None),
    ("ghost", 0, [], None),
    ("usage", 2, ["execute"], None),
    ("empty_flag", 0, ["execute"], "[]"),
])
def test_flush_partial(clock, recording, make_tracker, setup, result, ops, doc) -> None:
    tracker = make_tracker()
    start = len(recording.calls)
    assert not tracker.has_unsaved_changes
    if setup == "ghost":
        tracker._dirty.add("ghost")
        assert tracker.has_unsaved_changes
    elif setup == "usage":
        tracker.record_call("a", None, "ok", alias_hit=False, duration_ms=None)
        tracker.record_call("b", "x", "ok", alias_hit=False, duration_ms=0.0)
        doc = doc_of_memory(tracker)
    elif setup == "empty_flag":
        tracker._usage_dirty = True
        assert tracker.has_unsaved_changes
    assert tracker.flush() == result
    calls = new_calls(recording, start)
    assert [c.op for c in calls] == ops
    if doc is not None:
        assert calls[0].args[0] == WRITE_USAGE
        assert tuple(calls[0].args[1]) == ("tool_usage", doc)
    assert not tracker.has_unsaved_changes


def test_health_write_fails_then_retries_with_newest_values(clock, recording, make_tracker, repo) -> None:
    tracker = make_tracker()
    tracker.record_success("b")
    tracker.record_error("a", "first")
    tracker.record_call("a", None, "ok", alias_hit=False, duration_ms=2.0)
    tracker._dirty.add("ghost")
    error = sqlite3.OperationalError("database is locked")
    recording.fail["executemany"] = error
    start = len(recording.calls)
    with pytest.raises(sqlite3.OperationalError) as info:
        tracker.flush()
    assert info.value is error
    assert [c.op for c in new_calls(recording, start)] == ["executemany"]  # usage not written
    assert tracker.has_unsaved_changes
    assert tracker._dirty == {"a", "b", "ghost"}
    assert tracker._usage_dirty is True
    # Newer values by the time of the retry.
    clock.advance(5)
    tracker.record_success("a")
    del recording.fail["executemany"]
    assert tracker.flush() == 3
    assert repo.db.fetchall(SELECT_HEALTH) == [
        ("a", 2, 1, "first", None, "2023-11-14 22:13:25"),
        ("b", 1, 0, None, None, NOW_TEXT),
    ]
    assert not tracker.has_unsaved_changes


def test_usage_write_fails_after_health_succeeded(clock, recording, make_tracker, repo) -> None:
    tracker = make_tracker()
    tracker.record_success("a")
    tracker.record_call("a", None, "ok", alias_hit=False, duration_ms=2.0)
    error = ValueError("disk full")
    recording.fail["execute"] = error
    with pytest.raises(ValueError) as info:
        tracker.flush()
    assert info.value is error
    assert repo.db.fetchall(SELECT_HEALTH) == [("a", 1, 0, None, None, NOW_TEXT)]
    assert tracker._dirty == set() and tracker._usage_dirty is True
    del recording.fail["execute"]
    start = len(recording.calls)
    assert tracker.flush() == 1
    assert [c.op for c in new_calls(recording, start)] == ["execute"]
    assert repo.db.fetchone(SELECT_USAGE, ("tool_usage",)) == (doc_of_memory(tracker),)


@pytest.mark.parametrize("op", ["executemany", "execute"])
def test_interrupt_does_not_restore_marks(clock, recording, make_tracker, op) -> None:
    tracker = make_tracker()
    tracker.record_success("a")
    tracker.record_call("a", None, "ok", alias_hit=False, duration_ms=None)
    interrupt = Interrupt()
    recording.fail[op] = interrupt
    with pytest.raises(Interrupt) as info:
        tracker.flush()
    assert info.value is interrupt
    assert tracker._dirty == set()
    # An interrupted health write never reached the usage part, which stays marked.
    assert tracker._usage_dirty is (op == "executemany")
    assert not tracker._lock.locked()


@pytest.mark.parametrize("total, text", [
    (12.34567, "12.346"), (0.0, "0.0"), (1500, "1500.0"), (0.0625, "0.062"), (0.1875, "0.188"),
    (2.0004999, "2.0"), (0.0004, "0.0"), (9999999999999998.0, "9999999999999998.0"),
    (1e16, "1e+16"), (1.2345e20, "1.2345e+20"), (1e300, "1e+300"), (123456.78949999, "123456.789"),
])
def test_total_ms_layout(clock, recording, make_tracker, total, text) -> None:
    tracker = make_tracker()
    tracker.record_call("a", None, "ok", alias_hit=False, duration_ms=float(total))
    tracker.record_call("a", None, "ok", alias_hit=False, duration_ms=None)
    tracker.flush()
    doc = recording.calls[-1].args[1][1]
    assert doc == '[{"tool":"a","action":null,"outcome":"ok","alias_hit":false,' \
                  '"calls":2,"timed_calls":1,"total_ms":' + text + "}]"
    assert tracker._usage[("a", None, "ok", False)].total_ms == float(total)  # memory unrounded


def test_strings_escaped_to_ascii(clock, recording, make_tracker) -> None:
    tracker = make_tracker()
    names = ['q"b\\s/', "é\u2028", "\U0001f600", "\x00\x1f\x7f\x80", "\n\r\t\b\f"]
    for i, name in enumerate(names):
        tracker.record_call(name, name if i % 2 else None, "out" + name, alias_hit=bool(i % 2),
                            duration_ms=float(i))
    tracker.flush()
    doc = recording.calls[-1].args[1][1]
    assert doc == doc_of_memory(tracker)
    assert doc.isascii() and "\n" not in doc and " " not in doc
    for piece in ['q\\"b\\\\s/', "\\u00e9\\u2028", "\\ud83d\\ude00", "\\u0000\\u001f\\u007f\\u0080",
                  "\\n\\r\\t\\b\\f"]:
        assert piece in doc
    assert [(*k,) for k in tracker._usage] == [
        (r["tool"], r["action"], r["outcome"], r["alias_hit"]) for r in json.loads(doc)
    ]


names = st.text(st.characters(blacklist_categories=("Cs",)), max_size=6)
durations = st.one_of(st.none(), st.floats(-1e6, 1e22, allow_nan=False))


@settings(max_examples=60, deadline=None, suppress_health_check=[HealthCheck.too_slow])
@given(st.lists(st.tuples(names, st.one_of(st.none(), names), names, st.booleans(), durations),
                max_size=12))
def test_document_matches_json_oracle(calls: list[Any]) -> None:
    tracker, db = null_tracker()
    expected: dict[tuple[Any, ...], list[Any]] = {}
    for tool, action, outcome, alias, duration in calls:
        tracker.record_call(tool, action, outcome, alias_hit=alias, duration_ms=duration)
        counts = expected.setdefault((tool, action, outcome, alias), [0, 0, 0.0])
        counts[0] += 1
        if duration is not None:
            counts[1] += 1
            counts[2] += duration
    assert tracker.flush() == (len(expected) if calls else 0)
    if calls:
        (call,) = db.calls
        assert call == ("execute", WRITE_USAGE,
                        ("tool_usage", expected_doc([(*k, *v) for k, v in expected.items()])))


@settings(max_examples=80, deadline=None)
@given(st.floats(allow_nan=False, allow_infinity=False), st.integers(0, 2**63 - 1))
def test_total_ms_rounding_oracle(total: float, calls: int) -> None:
    tracker, db = null_tracker()
    tracker._usage[("t", None, "ok", True)] = health._Usage(calls, calls, total)
    tracker._usage_dirty = True
    assert tracker.flush() == 1
    assert db.calls[0][2][1] == expected_doc([("t", None, "ok", True, calls, calls, total)])


def test_replaced_json_dumps_is_used(clock, recording, make_tracker, monkeypatch) -> None:
    tracker = make_tracker()
    tracker.record_call("a", "x", "ok", alias_hit=True, duration_ms=1.23456)
    tracker.record_call("é", None, "error", alias_hit=False, duration_ms=None)
    seen: list[tuple[Any, Any]] = []

    def dumps(*args: Any, **kwargs: Any) -> str:
        seen.append((args, kwargs))
        return "CUSTOM-DOC"

    monkeypatch.setattr(health, "json", types.SimpleNamespace(dumps=dumps, loads=json.loads))
    assert tracker.flush() == 2
    assert len(seen) == 1
    assert tuple(recording.calls[-1].args[1]) == ("tool_usage", "CUSTOM-DOC")
    args, kwargs = seen[0]
    assert json.dumps(*args, **kwargs) == doc_of_memory(tracker)


@pytest.mark.parametrize("key", [
    (frozenset({"x"}), None, "ok", False),
    ("a", b"bytes", "ok", False),
    ("a", None, object(), True),
])
def test_unserialisable_usage_key_restores_flag(clock, recording, make_tracker, key, repo) -> None:
    tracker = make_tracker()
    tracker.record_success("a")
    tracker.record_call("a", None, "ok", alias_hit=False, duration_ms=1.0)
    tracker.record_call(*key[:3], alias_hit=key[3], duration_ms=1.0)
    with pytest.raises(TypeError):
        tracker.flush()
    assert tracker._usage_dirty is True and tracker._dirty == set()
    assert repo.db.fetchall(SELECT_HEALTH) == [("a", 1, 0, None, None, NOW_TEXT)]
    assert repo.db.fetchone(SELECT_USAGE, ("tool_usage",)) is None
    assert not tracker._lock.locked()


class _LockMaker:
    """Stands in for `threading` on the module, keeping every lock it makes."""

    def __init__(self) -> None:
        self.locks: list[Any] = []

    def Lock(self) -> Any:  # noqa: N802 - mirrors threading.Lock
        lock = threading.Lock()
        self.locks.append(lock)
        return lock

    def __getattr__(self, name: str) -> Any:
        return getattr(threading, name)


def test_no_statement_under_the_lock(clock, recording, make_tracker, repo, registry, monkeypatch) -> None:
    repo.db.executemany(UPSERT_HEALTH, [("a", 1, 0, None, None, NOW_TEXT), ("gone", 1, 1, "x", None, NOW_TEXT)])
    repo.db.execute(WRITE_USAGE, ("tool_usage", expected_doc([("gone", None, "ok", False, 1, 1, 1.0)])))
    maker = _LockMaker()
    monkeypatch.setattr(health, "threading", maker)
    violations: list[str] = []
    enter = recording._enter

    def checked_enter(op: str, *args: Any) -> None:
        if any(lock.locked() for lock in maker.locks):
            violations.append(op)
        enter(op, *args)

    recording._enter = checked_enter
    tracker = make_tracker()
    assert maker.locks and tracker._lock is maker.locks[-1], "the tracker's lock was not made by threading.Lock"
    assert recording.ops() == ["fetchall", "executemany", "fetchone"]
    tracker.record_error("a", "e")
    tracker.record_call("a", None, "ok", alias_hit=False, duration_ms=1.0)
    recording.fail["execute"] = ValueError("x")
    with pytest.raises(ValueError):
        tracker.flush()
    del recording.fail["execute"]
    tracker.record_success("b")
    assert tracker.flush() == 2
    assert violations == [] and recording.lock_violations == 0


class BlockingDb:
    """Holds the first executemany until told to go on."""

    def __init__(self, inner: Any) -> None:
        self.inner = inner
        self.entered, self.go = threading.Event(), threading.Event()
        self.blocked = False

    def __getattr__(self, name: str) -> Any:
        return getattr(self.inner, name)

    def executemany(self, sql: str, rows: Any) -> Any:
        if not self.blocked:
            self.blocked = True
            self.entered.set()
            assert self.go.wait(10)
        return self.inner.executemany(sql, rows)


def test_changes_during_a_write_go_to_the_next_flush(clock, recording, make_tracker, repo) -> None:
    db = BlockingDb(recording)
    tracker = make_tracker(db=db)
    recording.tracker = tracker
    tracker.record_success("a")
    tracker.record_call("a", None, "ok", alias_hit=False, duration_ms=1.0)
    results: list[int] = []
    flusher = threading.Thread(target=lambda: results.append(tracker.flush()), daemon=True)
    flusher.start()
    assert db.entered.wait(10)
    # The write is in progress: recording must not wait for it.
    recorder = threading.Thread(target=lambda: (
        tracker.record_success("b"), tracker.record_success("a"),
        tracker.record_call("a", None, "ok", alias_hit=False, duration_ms=2.0)), daemon=True)
    recorder.start()
    recorder.join(5)
    assert not recorder.is_alive(), "recording waited for the database"
    db.go.set()
    flusher.join(10)
    # The usage copy was taken after the second call had been counted.
    assert results == [2]
    assert repo.db.fetchone(SELECT_USAGE, ("tool_usage",)) == (
        expected_doc([("a", None, "ok", False, 2, 2, 3.0)]),)
    assert tracker._dirty == {"a", "b"} and tracker._usage_dirty is False
    assert tracker.flush() == 2
    assert repo.db.fetchall(SELECT_HEALTH) == [
        ("a", 2, 0, None, None, NOW_TEXT), ("b", 1, 0, None, None, NOW_TEXT)]
    assert recording.lock_violations == 0

"""The SQLite mirror: seeding a tracker from stored history (removed tools, odd rows, unreadable history), flushing
(statements, parameter rows, the usage document, failed writes) and no statement under the lock. Interrupted writes
and a reload after them: test_restarts."""

import calendar
import json
import logging
import sqlite3
import types
from typing import Any

import pytest
from hypothesis import example, given, settings
from hypothesis import strategies as st

from conftest import (MEMBERS, NOW, NOW_TEXT, SELECT_HEALTH, SELECT_USAGE, WRITE_USAGE, MemDb, make_registry,
                      tracker_over)
from ordanis_veltrane.config import ToolsConfig
from ordanis_veltrane.tool_handlers import health

COLUMNS = "tool_name, call_count, error_count, last_error, disabled_at, updated_at"
UPSERT_HEALTH = (f"INSERT INTO tool_health ({COLUMNS})\n{' ' * 20}VALUES (?, ?, ?, ?, ?, ?)\n{' ' * 20}ON CONFLICT"
                 "(tool_name) DO UPDATE SET\n" + ",\n".join(
                     f"{' ' * 24}{c} = excluded.{c}" for c in COLUMNS.split(", ")[1:]))
INSERT_HEALTH = "INSERT INTO tool_health VALUES (?, ?, ?, ?, ?, ?)"
HEALTH_MSG, USAGE_MSG = "Could not read the tool health history: %s", "Could not read the tool usage counts: %s"
Interrupt = type("Interrupt", (BaseException,), {})  # stands in for KeyboardInterrupt: not an ordinary error


def row(tool, action=None, outcome="ok", alias_hit=False, calls=1, timed_calls=1, total_ms=1.0) -> dict[str, Any]:
    return dict(zip(MEMBERS, (tool, action, outcome, alias_hit, calls, timed_calls, total_ms)))


def usage_state(tracker: Any) -> list[tuple[Any, int, int, float]]:
    return [(k, u.calls, u.timed_calls, u.total_ms) for k, u in tracker._usage.items()]


def doc_of_memory(tracker: Any) -> str:  # the usage document as the stdlib lays out the same rows
    return json.dumps([dict(zip(MEMBERS, (*k, u.calls, u.timed_calls, round(u.total_ms, 3))))
                       for k, u in tracker._usage.items()], separators=(",", ":"))


def warnings_of(caplog: pytest.LogCaptureFixture) -> list[logging.LogRecord]:
    return [r for r in caplog.records if r.name == health.__name__]


@pytest.mark.parametrize(("op", "error", "message"), [
    ("", None, None), ("fetchall", sqlite3.OperationalError("no such table"), HEALTH_MSG),
    ("executemany", ValueError("x"), HEALTH_MSG), ("fetchone", sqlite3.OperationalError("no such table"), USAGE_MSG),
    ("fetchall", KeyboardInterrupt(), None), ("fetchone", KeyboardInterrupt(), None),
])
def test_load(clock, registry, recording, make_tracker, repo, caplog, op, error, message) -> None:
    """Rows of removed tools are deleted, the others seeded in the order read; usage counts of removed tools are
    dropped and the document marked. A failed read warns and seeds nothing of its part (no health rows either when
    only the delete failed); an interrupt is neither caught nor logged."""
    repo.db.executemany(INSERT_HEALTH, [("gone1", 1, 0, None, None, NOW_TEXT), ("a", 2, 1, "e", None, NOW_TEXT),
                                        ("gone2", 3, 3, "x", NOW_TEXT, NOW_TEXT), ("b", 4, 0, None, None, NOW_TEXT)])
    repo.db.execute(WRITE_USAGE, ("tool_usage", json.dumps([row("a"), row("gone")])))  # pruned, so marked
    read_order, recording.fail[op] = [r[0] for r in repo.db.fetchall(SELECT_HEALTH)], error
    with caplog.at_level(logging.WARNING, logger=health.__name__):
        if isinstance(error, KeyboardInterrupt):
            pytest.raises(KeyboardInterrupt, make_tracker)
            assert warnings_of(caplog) == []
            return
        tracker = make_tracker()
    assert [(r.levelno, r.msg, r.args) for r in warnings_of(caplog)] == ([(logging.WARNING, message, (error,))]
                                                                          if op else [])
    assert list(tracker._state) == ([] if message == HEALTH_MSG else [n for n in read_order if n in ("a", "b")])
    assert usage_state(tracker) == ([] if message == USAGE_MSG else [(("a", None, "ok", False), 1, 1, 1.0)])
    assert tracker._dirty == set() and tracker._usage_dirty is (message != USAGE_MSG) and recording.lock_violations == 0
    if not op:
        assert recording.calls == [("fetchall", (SELECT_HEALTH,)),
                                   ("executemany", ("DELETE FROM tool_health WHERE tool_name = ?",
                                                    [(n,) for n in read_order if n.startswith("gone")])),
                                   ("fetchone", (SELECT_USAGE, ("tool_usage",)))]
        assert sorted(r[0] for r in repo.db.fetchall(SELECT_HEALTH)) == ["a", "b"]
        recording.calls.clear()
        make_tracker()  # only known tools left: nothing to delete
        assert recording.ops() == ["fetchall", "fetchone"]


UNREADABLE = ["not json", "null", "[null]", *map(json.dumps, (
    {"tool": "a"}, [["a", None, "ok", False, 1, 1, 1.0]], [{k: v for k, v in row("a").items() if k != "action"}],
    [row("a", calls="x")], [row("a", calls=2**70)], [row("a", total_ms=None)], [row("a"), row("b"), {"tool": "c"}])),
    '[{"tool":"a","action":null,"outcome":"ok","alias_hit":false,"calls":1,"timed_calls":1,"total_ms":1.0}] x',
    "[" * 100_000 + "]" * 100_000]  # nested too deep for any recursive reader


@pytest.mark.parametrize(("one", "warns"), [*[((text,), True) for text in UNREADABLE],
                                           *[(one, False) for one in (None, (None,), (b"[1, 2]",), (5,))]])
def test_unreadable_or_missing_usage_document(registry, caplog, one, warns: bool) -> None:
    """One warning for an unreadable document, none for a missing one; nothing written until a call is counted."""
    with caplog.at_level(logging.WARNING, logger=health.__name__):
        tracker = tracker_over(db := MemDb(one=one))
    assert [(r.msg, len(r.args), isinstance(r.args[0], Exception)) for r in warnings_of(caplog)] == [
        (USAGE_MSG, 1, True)] * warns
    assert list(tracker._usage) == [] and tracker._usage_dirty is False and not tracker.has_unsaved_changes
    assert tracker.flush() == 0 and db.written == []
    tracker.record_call("c", None, "ok", alias_hit=False, duration_ms=None)
    assert tracker.flush() == 1 and json.loads(db.one[0]) == [row("c", timed_calls=0, total_ms=0.0)]


def test_reader_conversions_and_duplicates(monkeypatch) -> None:
    monkeypatch.setattr(health, "TOOLS", make_registry({"7": (), "search": ("text",), "a": ()}))
    doc = [row(7, None, 5, 0, "12", 3.9, "1.5"), row("search", "text", "ok", "yes", 2.9, "0", 4),
           row("search", "text", "ok", None, -3.9, 1, -0.5), row("a", None, "err", [1], 1, 1, "1e3"),
           row("a", None, "ok", "", 0, 0, 0), row("a", None, "ok", 0, 5, 5, 9.5)]  # a duplicate keeps first place
    tracker = tracker_over(MemDb(one=(json.dumps(doc),)))
    assert usage_state(tracker) == [
        (("7", None, "5", False), 12, 3, 1.5), (("search", "text", "ok", True), 2, 0, 4.0),
        (("search", "text", "ok", False), -3, 1, -0.5), (("a", None, "err", True), 1, 1, 1000.0),
        (("a", None, "ok", False), 5, 5, 9.5)]
    assert all([type(x) for x in (k[0], k[2], k[3], u.calls, u.timed_calls, u.total_ms)]
               == [str, str, bool, int, int, float] for k, u in tracker._usage.items())
    assert tracker._usage_dirty is False


texts = st.text(st.characters(codec="ascii"), max_size=5)
actions = st.one_of(st.none(), texts, st.integers(-5, 12), st.floats(-5, 5, allow_nan=False))  # numbers stay numbers
rows = st.builds(row, texts, actions, texts, st.booleans(), st.integers(-2**63, 2**63 - 1),
                 st.integers(-2**70, 2**70), st.floats(allow_nan=False))


@settings(max_examples=150, deadline=None)
@given(doc=st.lists(rows, max_size=8), layout=st.sampled_from(["compact", "spaced", "indented", "reordered"]),
       cut=st.integers(0, 40))
def test_native_reader_agrees_with_json_loads(doc, layout, cut) -> None:
    """Whatever the layout, and for a text cut short, the seeded usage is what json.loads and the reader rules give."""
    if layout == "reordered":
        doc = [dict(reversed(r.items())) for r in doc]
    text = json.dumps(doc, **{"compact": {"separators": (",", ":")}, "spaced": {}, "indented": {"indent": 1},
                              "reordered": {"separators": (",", ":")}}[layout])
    text = text[:len(text) - cut] if cut < 20 else text  # most documents whole, some cut short

    def seeded(mp: pytest.MonkeyPatch) -> tuple[list[Any], list[str]]:
        warnings: list[str] = []
        mp.setattr(health.logger, "warning", lambda msg, error: warnings.append(type(error).__name__))
        return usage_state(tracker_over(MemDb(one=(text,)))), warnings

    with pytest.MonkeyPatch.context() as mp:
        mp.setattr(health, "TOOLS", types.SimpleNamespace(get=lambda tool: types.SimpleNamespace(action=bool)))
        native = seeded(mp)
        mp.setattr(health, "json", types.SimpleNamespace(loads=json.loads, dumps=json.dumps))
        assert native == seeded(mp)


def test_seeded_rows(clock, monkeypatch) -> None:
    """Counts read as integers (NULL as 0), a timestamp that does not read as absent (updated_at as 0.0); a tool
    seeded disabled, with a NULL message, stays disabled for the cooldown."""
    good, S = float(calendar.timegm((2024, 3, 5, 14, 7, 9))), health._ToolState
    stamps = [(None, None), ("", ""), ("garbage", "2024-03-05T14:07:09"),
              ("2024-02-30 00:00:00", "2024-03-05 14:07:09.5"), ("2024-03-05 14:07:09", "2024-3-5 14:7:9")]
    monkeypatch.setattr(health, "TOOLS", make_registry({f"t{i}": () for i in range(6)}))
    rows = [(f"t{i}", "12", None, "", *stamp) for i, stamp in enumerate(stamps)]
    rows.append(("t5", 5, 5, None, NOW_TEXT, NOW_TEXT))
    tracker = tracker_over(MemDb(rows=rows), ToolsConfig(disable_after_errors=3, disable_cooldown_s=10))
    assert list(tracker._state.values()) == [S(12, 0, "")] * 4 + [S(12, 0, "", good, good), S(5, 5, None, NOW, NOW)]
    assert all(type(r.updated_at) is float for r in tracker._state.values()) and tracker._dirty == set()
    assert tracker.is_disabled("t5") == (True, None)
    clock.advance(10)
    assert tracker.is_disabled("t5") == (False, None)


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
    assert tracker.has_unsaved_changes and tracker.flush() == 6 and recording.ops()[start + 3:] == ["execute"]


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
@example([(f"t{i}", None, "ok", False, 2, 1, t) for i, t in enumerate(
    (12.34567, 0.0, 1500.0, 0.0625, 1e16, 1e300, -2.5, 1.25))] + [("\n\\\"\x7f😀", "\ud800", "", True, 1, 1, 0.0)])
def test_document_matches_json_oracle(rows: list[tuple[Any, ...]]) -> None:
    """The document is json.dumps of the rows with total_ms rounded to 3 places; memory keeps the exact sums."""
    tracker = tracker_over(db := MemDb())
    for *key, calls, timed, total in rows:
        tracker._usage[tuple(key)] = health._Usage(calls, timed, total)
    tracker._usage_dirty, totals = True, [u.total_ms for u in tracker._usage.values()]
    assert tracker.flush() == len(tracker._usage) and [u.total_ms for u in tracker._usage.values()] == totals
    assert db.written == [("execute", WRITE_USAGE, ("tool_usage", doc_of_memory(tracker)))] and db.one[0].isascii()


@pytest.mark.parametrize("key", [(frozenset({"x"}), None, "ok", False), ("a", None, object(), True), "module", "dumps"])
def test_replaced_dumps_or_unserialisable_key(clock, recording, make_tracker, repo, monkeypatch, key) -> None:
    """A replaced json module, or json.dumps, is given the rows; a key JSON cannot write fails the flush and keeps
    the mark."""
    tracker = make_tracker()
    tracker.record_success("a")
    tracker.record_call("a", "x", "ok", alias_hit=True, duration_ms=1.23456)
    tracker.record_call("é", None, "error", alias_hit=False, duration_ms=None)
    if isinstance(key, str):
        seen, dumps, expected = [], json.dumps, doc_of_memory(tracker)
        fake = lambda *args, **kwargs: seen.append(dumps(*args, **kwargs)) or "CUSTOM-DOC"  # noqa: E731
        monkeypatch.setattr(*(json, "dumps", fake) if key == "dumps" else (health, "json", types.SimpleNamespace(
            dumps=fake, loads=json.loads)))
        assert tracker.flush() == 3 and tuple(recording.calls[-1][1][1]) == ("tool_usage", "CUSTOM-DOC")
        assert seen == [expected]
        return
    tracker.record_call(*key[:3], alias_hit=key[3], duration_ms=1.0)
    pytest.raises(TypeError, tracker.flush)
    assert tracker._usage_dirty is True and tracker._dirty == set() and not tracker._lock.locked()
    assert repo.db.fetchall(SELECT_HEALTH) == [("a", 1, 0, None, None, NOW_TEXT)]
    assert repo.db.fetchone(SELECT_USAGE, ("tool_usage",)) is None

"""Seeding a tracker from stored history (test_restarts covers the round trip): removed tools, unreadable history."""

import calendar
import json
import logging
import sqlite3
import types
from typing import Any

import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

from conftest import MEMBERS, NOW_TEXT, SELECT_HEALTH, SELECT_USAGE, MemDb, make_registry, tracker_over
from ordanis_veltrane.config import ToolsConfig
from ordanis_veltrane.tool_handlers import health

INSERT_HEALTH = "INSERT INTO tool_health VALUES (?, ?, ?, ?, ?, ?)"
STORE_USAGE = "INSERT OR REPLACE INTO schema_info (key, value) VALUES ('tool_usage', ?)"
HEALTH_MSG, USAGE_MSG = "Could not read the tool health history: %s", "Could not read the tool usage counts: %s"


def row(tool, action=None, outcome="ok", alias_hit=False, calls=1, timed_calls=1, total_ms=1.0) -> dict[str, Any]:
    return dict(zip(MEMBERS, (tool, action, outcome, alias_hit, calls, timed_calls, total_ms)))


def without(member: str, tool: str = "a") -> dict[str, Any]:
    return {k: v for k, v in row(tool).items() if k != member}


def warnings_of(caplog: pytest.LogCaptureFixture) -> list[logging.LogRecord]:
    return [r for r in caplog.records if r.name == health.__name__]


def usage_state(tracker: Any) -> list[tuple[Any, int, int, float]]:
    return [(k, u.calls, u.timed_calls, u.total_ms) for k, u in tracker._usage.items()]


def test_removed_tools_deleted_and_not_seeded(clock, registry, recording, make_tracker, repo) -> None:
    repo.db.executemany(INSERT_HEALTH, [("gone1", 1, 0, None, None, NOW_TEXT), ("a", 2, 1, "e", None, NOW_TEXT),
                                        ("gone2", 3, 3, "x", NOW_TEXT, NOW_TEXT), ("b", 4, 0, None, None, NOW_TEXT)])
    read_order = [r[0] for r in repo.db.fetchall(SELECT_HEALTH)]
    tracker = make_tracker()
    assert recording.calls == [("fetchall", (SELECT_HEALTH,)),
                               ("executemany", ("DELETE FROM tool_health WHERE tool_name = ?",
                                                [(n,) for n in read_order if n.startswith("gone")])),
                               ("fetchone", (SELECT_USAGE, ("tool_usage",)))]
    assert list(tracker._state) == [n for n in read_order if not n.startswith("gone")]
    assert sorted(r[0] for r in repo.db.fetchall(SELECT_HEALTH)) == ["a", "b"] and not tracker.has_unsaved_changes
    recording.calls.clear()
    make_tracker()  # only known tools left: nothing to delete
    assert recording.ops() == ["fetchall", "fetchone"]


@pytest.mark.parametrize(("op", "error", "message"), [
    ("fetchall", sqlite3.OperationalError("no such table"), HEALTH_MSG), ("executemany", ValueError("x"), HEALTH_MSG),
    ("fetchone", sqlite3.OperationalError("no such table"), USAGE_MSG), ("fetchall", KeyboardInterrupt(), None),
    ("fetchone", KeyboardInterrupt(), None),
])
def test_unreadable_history_warns(clock, registry, recording, make_tracker, repo, caplog, op, error, message) -> None:
    repo.db.executemany(INSERT_HEALTH, [("a", 2, 1, "e", None, NOW_TEXT), ("gone", 1, 0, None, None, NOW_TEXT)])
    repo.db.execute(STORE_USAGE, (json.dumps([row("a")]),))
    recording.fail[op] = error
    if message is None:  # an interrupt is no ordinary error: not caught, not logged
        pytest.raises(type(error), make_tracker)
        assert warnings_of(caplog) == []
        return
    with caplog.at_level(logging.WARNING, logger=health.__name__):
        tracker = make_tracker()
    (record,) = warnings_of(caplog)
    assert (record.levelno, record.msg, record.args) == (logging.WARNING, message, (error,)) and record.args[0] is error
    assert not tracker.has_unsaved_changes
    if message == USAGE_MSG:
        assert list(tracker._state) == ["a"] and list(tracker._usage) == []
    else:  # nothing seeded, even when only the delete failed; the usage part went on
        assert tracker._state == {} and usage_state(tracker) == [(("a", None, "ok", False), 1, 1, 1.0)]


UNREADABLE = ["not json", "null", "[null]", *map(json.dumps, (
    {"tool": "a"}, [["a", None, "ok", False, 1, 1, 1.0]], [without("action")], [row("a", calls="x")],
    [row("a", calls=2**70)], [row("a", total_ms=None)], [row("a"), row("b"), without("timed_calls", "c")]))]


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
rows = st.builds(row, texts, st.one_of(st.none(), texts), texts, st.booleans(), st.integers(-2**63, 2**63 - 1),
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
        tracker = tracker_over(MemDb(one=(text,)))
        return usage_state(tracker), warnings

    with pytest.MonkeyPatch.context() as mp:
        mp.setattr(health, "TOOLS", types.SimpleNamespace(get=lambda tool: types.SimpleNamespace(action=bool)))
        native = seeded(mp)
        mp.setattr(health, "json", types.SimpleNamespace(loads=json.loads, dumps=json.dumps))
        assert native == seeded(mp)


def test_removed_tools_and_actions_dropped(registry, recording, make_tracker, repo) -> None:
    doc = [row("gone"), row("search", "text", calls=2), row("search", "gone"), row("a"), row("a", ""),
           row("search", None, calls=3), row("git", "log", alias_hit=True), row("search", "symbol", total_ms=1.23449)]
    repo.db.execute(STORE_USAGE, (json.dumps(doc),))
    tracker = make_tracker()
    kept = [doc[i] for i in (1, 3, 5, 6, 7)]
    assert list(tracker._usage) == [(r["tool"], r["action"], r["outcome"], r["alias_hit"]) for r in kept]
    assert tracker._usage_dirty is True and tracker.has_unsaved_changes and tracker._dirty == set()
    start = len(recording.calls)
    assert tracker.flush() == 5 and recording.ops()[start:] == ["execute"]
    kept[4]["total_ms"] = 1.234
    assert json.loads(repo.db.fetchone(SELECT_USAGE, ("tool_usage",))[0]) == kept
    registry.specs.clear()
    again = make_tracker()  # a document of removed tools only is written again as an empty array
    assert list(again._usage) == [] and again._usage_dirty is True and again.flush() == 0
    assert repo.db.fetchone(SELECT_USAGE, ("tool_usage",)) == ("[]",)


GOOD, GOOD_EPOCH = "2024-03-05 14:07:09", float(calendar.timegm((2024, 3, 5, 14, 7, 9)))


@pytest.mark.parametrize(("disabled", "updated", "disabled_at", "updated_at"), [
    (None, None, None, 0.0), ("", "", None, 0.0), ("garbage", "2024-03-05T14:07:09", None, 0.0),
    ("2024-02-30 00:00:00", "2024-03-05 14:07:09.5", None, 0.0), (GOOD, GOOD, GOOD_EPOCH, GOOD_EPOCH),
    (None, "2024-3-5 14:7:9", None, GOOD_EPOCH),
])
def test_seeded_rows(clock, registry, disabled, updated, disabled_at, updated_at) -> None:
    rows = [("a", None, None, None, disabled, updated), ("b", "12", 3, "", None, GOOD),
            ("c", 5, 5, None, NOW_TEXT, NOW_TEXT)]
    tracker = tracker_over(MemDb(rows=rows), ToolsConfig(disable_after_errors=3, disable_cooldown_s=10))
    assert tracker._state["a"] == health._ToolState(0, 0, None, disabled_at, updated_at, 0)
    assert type(tracker._state["a"].updated_at) is float and tracker._dirty == set()
    assert tracker._state["b"] == health._ToolState(12, 3, "", None, GOOD_EPOCH, 0)
    assert tracker.is_disabled("c") == (True, None)  # seeded disabled with a NULL message
    clock.advance(10)
    assert tracker.is_disabled("c") == (False, None)

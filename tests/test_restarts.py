"""Fault injection across restarts: over many record/flush/restart cycles, every
database statement may fail, either before it runs or after it has run (the commit
happened, then the error came). A model of the tracker and of the database follows
each step; after every flush and every restart the tracker's memory and the SQLite
file must equal the model. So nothing that was flushed is lost, a failed flush is
written again by a later one, and a write repeated after an ambiguous failure counts
nothing twice (the rows hold totals, not increments)."""
from __future__ import annotations

import json
import math
import random
from collections import Counter
from dataclasses import astuple
from datetime import datetime, timezone
from typing import Any

import pytest

from conftest import HostToolState as Rec
from ordanis_veltrane.config import ToolsConfig
from ordanis_veltrane.repository import Repository
from ordanis_veltrane.tool_handlers import health
from ordanis_veltrane.tool_registry import ActionSpec, ToolRegistry, ToolSpec

LIMIT, COOLDOWN = 3, 30.0
TOOLS = {"a": (), "b": (), "c": (), "search": ("text", "symbol")}
REMOVED = "gone"  # recorded and flushed, but not in the registry: deleted at each load
OUTCOMES = ("success", "error")
SELECT_HEALTH = "SELECT tool_name, call_count, error_count, last_error, disabled_at, updated_at FROM tool_health"


class DbError(Exception):
    pass


class FaultyDb:
    """The real database; each statement fails with probability `rate` before it runs
    and, for writes, with the same probability after it has run."""

    def __init__(self, inner: Any, rng: random.Random, rate: float) -> None:
        self.inner, self.rng, self.rate = inner, rng, rate
        self.log: list[tuple[str, tuple[Any, ...], str]] = []

    def _run(self, op: str, args: tuple[Any, ...], write: bool) -> Any:
        draw = self.rng.random()
        fate = "before" if draw < self.rate else "after" if write and draw < 2 * self.rate else "ok"
        self.log.append((op, args, fate))
        if fate == "before":
            raise DbError(f"{op} failed")
        result = getattr(self.inner, op)(*args)
        if fate == "after":
            raise DbError(f"{op} failed after it ran")
        return result

    def fetchall(self, sql: str) -> Any:
        return self._run("fetchall", (sql,), False)

    def fetchone(self, sql: str, params: Any) -> Any:
        return self._run("fetchone", (sql, params), False)

    def execute(self, sql: str, params: Any) -> Any:
        return self._run("execute", (sql, tuple(params)), True)

    def executemany(self, sql: str, rows: Any) -> Any:
        return self._run("executemany", (sql, [tuple(r) for r in rows]), True)


class Repo:
    def __init__(self, db: Any) -> None:
        self.db = db


def stamp(epoch: float | None) -> str | None:
    return None if epoch is None else datetime.fromtimestamp(math.floor(epoch), timezone.utc).strftime("%Y-%m-%d %H:%M:%S")


def unstamp(text: str | None) -> float | None:
    if text is None:
        return None
    return datetime.strptime(text, "%Y-%m-%d %H:%M:%S").replace(tzinfo=timezone.utc).timestamp()


def known(tool: str, action: str | None) -> bool:
    return tool in TOOLS and (action is None or action in TOOLS[tool])


class Model:
    """What the tracker and the database must hold."""

    def __init__(self) -> None:
        self.health: dict[str, Rec] = {}
        self.dirty: set[str] = set()
        self.usage: dict[tuple[Any, ...], list[Any]] = {}
        self.usage_dirty = False
        self.db_health: dict[str, tuple[Any, ...]] = {}
        self.db_doc: list[dict[str, Any]] | None = None
        self.recorded: Counter[str] = Counter()  # every success and error ever reported

    def success(self, name: str, now: float) -> None:
        r = self.health.setdefault(name, Rec())
        r.call_count += 1
        r.consecutive_errors, r.disabled_at, r.updated_at = 0, None, now
        self.dirty.add(name)
        self.recorded[name] += 1

    def error(self, name: str, message: str, now: float) -> None:
        r = self.health.setdefault(name, Rec())
        r.call_count += 1
        r.error_count += 1
        r.consecutive_errors += 1
        r.last_error, r.updated_at = message[:500], now
        if r.consecutive_errors >= LIMIT:
            r.disabled_at = now
        self.dirty.add(name)
        self.recorded[name] += 1

    def is_disabled(self, name: str, now: float) -> tuple[bool, Any]:
        r = self.health.get(name)
        if r is None or r.disabled_at is None:
            return False, None
        if now - r.disabled_at >= COOLDOWN:
            r.consecutive_errors, r.disabled_at, r.updated_at = 0, None, now
            self.dirty.add(name)
            return False, None
        return True, r.last_error

    def call(self, key: tuple[Any, ...], duration: float | None) -> None:
        u = self.usage.setdefault(key, [0, 0, 0.0])
        u[0] += 1
        if duration is not None:
            u[1] += 1
            u[2] += duration
        self.usage_dirty = True

    def health_rows(self) -> list[tuple[Any, ...]]:
        return [(n, r.call_count, r.error_count, r.last_error, stamp(r.disabled_at), stamp(r.updated_at))
                for n in sorted(self.dirty) if (r := self.health.get(n)) is not None]

    def document(self) -> list[dict[str, Any]]:
        return [{"tool": k[0], "action": k[1], "outcome": k[2], "alias_hit": k[3], "calls": u[0], "timed_calls": u[1],
                 "total_ms": round(u[2], 3)} for k, u in self.usage.items()]


def flush(tracker: Any, db: FaultyDb, model: Model) -> None:
    """Flushes, and moves the model along the statements the flush ran and their fates."""
    mark = len(db.log)
    try:
        written, error = tracker.flush(), None
    except DbError as e:
        written, error = None, e
    log = iter(db.log[mark:])
    failed, expected = False, 0
    rows = model.health_rows()
    if rows:
        op, args, fate = next(log)
        assert op == "executemany" and args[1] == rows, "the flush wrote other health rows than memory holds"
        if fate != "before":
            model.db_health.update({r[0]: r[1:] for r in rows})
        failed = fate != "ok"
        expected += len(rows)
    if not failed:
        model.dirty.clear()
        if model.usage_dirty:
            op, args, fate = next(log)
            document = json.loads(args[1][1])
            assert op == "execute" and document == model.document(), "the flush wrote another usage document"
            if fate != "before":
                model.db_doc = document
            failed = fate != "ok"
            model.usage_dirty = failed
            expected += len(document)
    assert next(log, None) is None, "the flush ran a statement it had no reason to run"
    assert (error is not None) == failed
    assert failed or written == expected


def restart(db: FaultyDb, model: Model) -> Any:
    """A new tracker over the same database; the model seeds itself the same way."""
    mark = len(db.log)
    tracker = health.ToolHealthTracker(Repo(db), ToolsConfig(disable_after_errors=LIMIT, disable_cooldown_s=COOLDOWN))
    log = iter(db.log[mark:])
    model.health, model.dirty, model.usage, model.usage_dirty = {}, set(), {}, False
    op, _, fate = next(log)
    assert op == "fetchall"
    if fate == "ok":
        removed = sorted(n for n in model.db_health if n not in TOOLS)
        if removed:
            op, args, fate = next(log)
            assert op == "executemany" and sorted(r[0] for r in args[1]) == removed
            if fate != "before":
                for name in removed:
                    del model.db_health[name]
        if fate == "ok":  # the read and the delete both succeeded: the rows seed the map
            model.health = {n: Rec(cc, ec, le, unstamp(da), unstamp(ua) or 0.0)
                            for n, (cc, ec, le, da, ua) in model.db_health.items() if n in TOOLS}
    op, _, fate = next(log)
    assert op == "fetchone"
    if fate == "ok" and model.db_doc is not None:
        loaded: dict[tuple[Any, ...], list[Any]] = {}
        for row in model.db_doc:
            loaded[(row["tool"], row["action"], row["outcome"], row["alias_hit"])] = [
                row["calls"], row["timed_calls"], float(row["total_ms"])]
        model.usage = {k: v for k, v in loaded.items() if known(k[0], k[1])}
        model.usage_dirty = len(model.usage) < len(loaded)
    assert next(log, None) is None
    return tracker


def check(tracker: Any, db: FaultyDb, model: Model) -> None:
    assert {n: (r.call_count, r.error_count, r.last_error, r.disabled_at, r.updated_at, r.consecutive_errors)
            for n, r in tracker._state.items()} == {n: astuple(r) for n, r in model.health.items()}
    assert set(tracker._dirty) == model.dirty
    assert [(k, u.calls, u.timed_calls, u.total_ms) for k, u in tracker._usage.items()] == [
        (k, *v) for k, v in model.usage.items()]
    assert tracker._usage_dirty == model.usage_dirty
    assert tracker.has_unsaved_changes == (bool(model.dirty) or model.usage_dirty)
    stored = {r[0]: tuple(r[1:]) for r in db.inner.fetchall(SELECT_HEALTH)}
    assert stored == model.db_health, "tool_health differs from what the successful writes put there"
    doc = db.inner.fetchone("SELECT value FROM schema_info WHERE key = ?", ("tool_usage",))
    assert (None if doc is None else json.loads(doc[0])) == model.db_doc
    for name, row in stored.items():  # a row never holds more calls than were reported
        assert row[0] <= model.recorded[name]


def act(tracker: Any, model: Model, rng: random.Random, clock: Any) -> None:
    names = [*TOOLS, REMOVED]
    for _ in range(rng.randrange(1, 12)):
        clock.advance(rng.choice([0.0, 0.25, 1.5, 12.75, 31.0]))
        name, r = rng.choice(names), rng.random()
        if r < 0.3:
            tracker.record_success(name)
            model.success(name, clock.now)
        elif r < 0.55:
            message = rng.choice(["timeout", "", "é" * 501, "bad input"])
            tracker.record_error(name, message)
            model.error(name, message, clock.now)
        elif r < 0.75:
            assert tracker.is_disabled(name) == model.is_disabled(name, clock.now)
        else:
            tool = rng.choice([*TOOLS, REMOVED])
            action = rng.choice([None, *TOOLS.get(tool, ()), "old"]) if tool == "search" else None
            key = (tool, action, rng.choice(OUTCOMES), rng.random() < 0.3)
            duration = rng.choice([None, 0.0, 0.125, 2.5, 1000.375])  # sums stay exact
            tracker.record_call(*key[:3], alias_hit=key[3], duration_ms=duration)
            model.call(key, duration)


@pytest.mark.parametrize("seed", [1, 2, 3])
def test_nothing_flushed_is_lost(tmp_path: Any, monkeypatch: pytest.MonkeyPatch, clock: Any, seed: int) -> None:
    registry = ToolRegistry()
    for name, actions in TOOLS.items():
        registry.register(ToolSpec(name, [ActionSpec(a) for a in actions]))
    monkeypatch.setattr(health, "TOOLS", registry)
    rng = random.Random(seed)
    repository = Repository(tmp_path / "restarts.db")
    try:
        db = FaultyDb(repository.db, rng, rate=0.2)
        model = Model()
        tracker = restart(db, model)
        restarts = 0
        for _ in range(120):
            act(tracker, model, rng, clock)
            for _ in range(rng.randrange(0, 3)):
                flush(tracker, db, model)
                check(tracker, db, model)
            if rng.random() < 0.35:
                tracker = restart(db, model)
                restarts += 1
                check(tracker, db, model)
        # At last without faults: everything in memory reaches the file and comes back.
        db.rate = 0.0
        flush(tracker, db, model)
        tracker = restart(db, model)
        check(tracker, db, model)
        assert restarts > 20 and {fate for *_, fate in db.log} == {"ok", "before", "after"}
    finally:
        repository.close()

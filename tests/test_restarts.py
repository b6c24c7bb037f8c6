"""Fault injection across restarts: a model of tracker and database follows every statement, failed or not."""

import json
import random
from dataclasses import astuple
from datetime import datetime, timezone
from typing import Any

import pytest

from conftest import MEMBERS, SELECT_HEALTH, SELECT_USAGE, DbError, HostToolState as Rec, make_registry, tracker_over
from ordanis_veltrane.config import ToolsConfig
from ordanis_veltrane.repository import Repository
from ordanis_veltrane.tool_handlers import health

LIMIT, COOLDOWN, STAMP = 3, 30.0, "%Y-%m-%d %H:%M:%S"
TOOLS = {"a": (), "b": (), "ü😀": (), "search": ("text", "symbol")}
REMOVED = "gone"  # recorded and flushed, but not in the registry: deleted at each load


class FaultyDb:
    """The real database; a statement fails with probability `rate` before it runs, a write as often after it."""

    def __init__(self, inner: Any, rng: random.Random, rate: float) -> None:
        self.inner, self.rng, self.rate, self.log = inner, rng, rate, []

    def _run(self, op: str, *args: Any) -> Any:
        draw = self.rng.random()
        fate = "before" if draw < self.rate else "after" if op.startswith("exec") and draw < 2 * self.rate else "ok"
        self.log.append((op, args, fate))
        if fate == "before":
            raise DbError(op)
        result = getattr(self.inner, op)(*args)
        if fate == "after":
            raise DbError(op + " after it ran")
        return result

    def __getattr__(self, op: str) -> Any:  # fetchall, fetchone, execute, executemany
        return lambda *args: self._run(op, *args)


def stamp(epoch: float | None) -> str | None:
    return None if epoch is None else datetime.fromtimestamp(epoch // 1, timezone.utc).strftime(STAMP)


def unstamp(text: str | None) -> float | None:
    return None if text is None else datetime.strptime(text, STAMP).replace(tzinfo=timezone.utc).timestamp()


class Model:  # what the tracker and the database must hold

    def __init__(self) -> None:
        self.health, self.dirty, self.usage, self.usage_dirty = {}, set(), {}, False
        self.db_health, self.db_doc = {}, None

    def report(self, name: str, now: float, message: str | None = None) -> None:
        r = self.health.setdefault(name, Rec())
        r.call_count, r.updated_at = r.call_count + 1, now
        if message is None:
            r.consecutive_errors, r.disabled_at = 0, None
        else:
            r.error_count, r.consecutive_errors = r.error_count + 1, r.consecutive_errors + 1
            r.last_error = message[:500]
            r.disabled_at = now if r.consecutive_errors >= LIMIT else r.disabled_at
        self.dirty.add(name)

    def is_disabled(self, name: str, now: float) -> tuple[bool, Any]:
        r = self.health.get(name)
        if r is None or r.disabled_at is None:
            return False, None
        if now - r.disabled_at < COOLDOWN:
            return True, r.last_error
        r.consecutive_errors, r.disabled_at, r.updated_at = 0, None, now
        self.dirty.add(name)
        return False, None


def flush(tracker: Any, db: FaultyDb, model: Model) -> None:
    """Flushes, and moves the model along the statements the flush ran and their fates."""
    mark, written = len(db.log), None
    try:
        written = tracker.flush()
    except DbError:
        pass
    log, fate, expected = iter(db.log[mark:]), "ok", 0
    rows = [(n, r.call_count, r.error_count, r.last_error, stamp(r.disabled_at), stamp(r.updated_at))
            for n in sorted(model.dirty) if (r := model.health.get(n)) is not None]
    if rows:
        op, args, fate = next(log)
        assert (op, args[1]) == ("executemany", rows), "the flush wrote other health rows than memory holds"
        model.db_health.update({r[0]: r[1:] for r in rows} if fate != "before" else {})
        expected = len(rows)
    if fate == "ok":
        model.dirty.clear()
        if model.usage_dirty:
            document = [dict(zip(MEMBERS, (*k, u[0], u[1], round(u[2], 3)))) for k, u in model.usage.items()]
            op, args, fate = next(log)
            assert (op, json.loads(args[1][1])) == ("execute", document), "the flush wrote another usage document"
            model.db_doc = document if fate != "before" else model.db_doc
            model.usage_dirty, expected = fate != "ok", expected + len(document)
    assert next(log, None) is None, "the flush ran a statement it had no reason to run"
    assert written == (expected if fate == "ok" else None)


def restart(db: FaultyDb, model: Model) -> Any:
    """A new tracker over the same database; the model seeds itself the same way."""
    mark = len(db.log)
    tracker = tracker_over(db, ToolsConfig(disable_after_errors=LIMIT, disable_cooldown_s=COOLDOWN))
    log, removed = iter(db.log[mark:]), sorted(n for n in model.db_health if n not in TOOLS)
    model.health, model.dirty, model.usage, model.usage_dirty = {}, set(), {}, False
    op, _, fate = next(log)
    assert op == "fetchall"
    if fate == "ok" and removed:
        op, args, fate = next(log)
        assert (op, sorted(r[0] for r in args[1])) == ("executemany", removed)
        model.db_health = {n: v for n, v in model.db_health.items() if n in TOOLS or fate == "before"}
    if fate == "ok":  # the read and the delete both succeeded: the rows seed the map
        model.health = {n: Rec(cc, ec, le, unstamp(da), unstamp(ua) or 0.0)
                        for n, (cc, ec, le, da, ua) in model.db_health.items() if n in TOOLS}
    op, _, fate = next(log)
    assert op == "fetchone"
    if fate == "ok" and model.db_doc is not None:
        loaded = {tuple(r[m] for m in MEMBERS[:4]): [r["calls"], r["timed_calls"], float(r["total_ms"])]
                  for r in model.db_doc}
        model.usage = {k: v for k, v in loaded.items() if k[0] in TOOLS and (k[1] is None or k[1] in TOOLS[k[0]])}
        model.usage_dirty = len(model.usage) < len(loaded)
    assert next(log, None) is None
    return tracker


def check(tracker: Any, db: FaultyDb, model: Model) -> None:
    assert {n: (r.call_count, r.error_count, r.last_error, r.disabled_at, r.updated_at, r.consecutive_errors)
            for n, r in tracker._state.items()} == {n: astuple(r) for n, r in model.health.items()}
    assert set(tracker._dirty) == model.dirty and tracker._usage_dirty == model.usage_dirty
    assert [(k, u.calls, u.timed_calls, u.total_ms) for k, u in tracker._usage.items()] == [
        (k, *v) for k, v in model.usage.items()]
    assert tracker.has_unsaved_changes == (bool(model.dirty) or model.usage_dirty)
    stored = {r[0]: tuple(r[1:]) for r in db.inner.fetchall(SELECT_HEALTH)}
    assert stored == model.db_health, "tool_health differs from what the successful writes put there"
    doc = db.inner.fetchone(SELECT_USAGE, ("tool_usage",))
    assert (None if doc is None else json.loads(doc[0])) == model.db_doc


def act(tracker: Any, model: Model, rng: random.Random, clock: Any) -> None:
    for _ in range(rng.randrange(1, 12)):
        clock.advance(rng.choice([0.0, 0.25, 1.5, 12.75, 31.0]))
        name, r = rng.choice([*TOOLS, REMOVED]), rng.random()
        if r < 0.55:
            message = None if r < 0.3 else rng.choice(["timeout", "", "é" * 501, "bad input"])
            tracker.record_success(name) if message is None else tracker.record_error(name, message)
            model.report(name, clock.now, message)
        elif r < 0.75:
            assert tracker.is_disabled(name) == model.is_disabled(name, clock.now)
        else:
            action = rng.choice([None, "text", "symbol", "old"]) if name == "search" else None
            key, duration = (name, action, rng.choice(["success", "error"]), rng.random() < 0.3), rng.choice(
                [None, 0.0, 0.125, 2.5, 1000.375])  # sums stay exact
            tracker.record_call(*key[:3], alias_hit=key[3], duration_ms=duration)
            u = model.usage.setdefault(key, [0, 0, 0.0])
            u[:] = u[0] + 1, u[1] + (duration is not None), u[2] + (duration or 0.0)
            model.usage_dirty = True


@pytest.mark.parametrize("seed", [1, 2, 3])
def test_nothing_flushed_is_lost(repo: Any, monkeypatch: pytest.MonkeyPatch, clock: Any, seed: int) -> None:
    monkeypatch.setattr(health, "TOOLS", make_registry(TOOLS))
    rng, model = random.Random(seed), Model()
    db = FaultyDb(repo.db, rng, rate=0.2)
    tracker, restarts = restart(db, model), 0
    for _ in range(120):
        act(tracker, model, rng, clock)
        for _ in range(rng.randrange(0, 3)):
            flush(tracker, db, model)
            check(tracker, db, model)
        if rng.random() < 0.35:
            tracker, restarts = restart(db, model), restarts + 1
            check(tracker, db, model)
    db.rate = 0.0  # at last without faults: everything in memory reaches the file and comes back
    for _ in range(LIMIT):  # a tool disabled before the restart stays disabled until its cooldown, its run at 0
        tracker.record_error("ü😀", "é" * 600)
        model.report("ü😀", clock.now, "é" * 600)
    flush(tracker, db, model)
    check(tracker := restart(db, model), db, model)
    assert tracker.is_disabled("ü😀") == (True, "é" * 500) and tracker._state["ü😀"].consecutive_errors == 0
    clock.advance(COOLDOWN)
    assert tracker.is_disabled("ü😀") == (False, None)
    assert restarts > 20 and {fate for *_, fate in db.log} == {"ok", "before", "after"}


class Interrupt(BaseException):  # an asynchronous exception such as KeyboardInterrupt, which pytest would act on
    pass


def rows_then(rows: Any, exc: type[BaseException]) -> Any:
    yield from rows[:1]
    raise exc()


class Trap:
    """Wraps a connection: its n-th call raises as `plan[n]` says, (b)efore it runs, (a)fter it, or from inside
    executemany after one of its (r)ows."""

    def __init__(self, conn: Any, plan: dict[int, tuple[str, type[BaseException]]]) -> None:
        self.conn, self.plan, self.calls = conn, plan, 0

    def __getattr__(self, name: str) -> Any:  # execute, executemany, rollback; in_transaction is read through
        method = getattr(self.conn, name)
        if not callable(method):
            return method

        def call(*args: Any) -> Any:
            when, exc = self.plan.get(self.calls, ("", Interrupt))
            self.calls += 1
            if when == "b":
                raise exc()
            result = method(args[0], rows_then(args[1], exc)) if when == "r" else method(*args)
            if when == "a":
                raise exc()
            return result
        return call


def state(t: Any) -> Any:
    return ({n: (r.call_count, r.error_count, r.last_error, r.disabled_at, r.updated_at) for n, r in t._state.items()},
            {k: (u.calls, u.timed_calls, u.total_ms) for k, u in t._usage.items()})


# A flush's connection calls: 0 SAVEPOINT, 1 executemany, 2 RELEASE, 3 the usage document. The calls after the
# fault (the rollbacks, if any) are interrupted too; four in a row leave the rollback to the next call.
@pytest.mark.parametrize("exc", [Interrupt, MemoryError])
@pytest.mark.parametrize("step, faults", [(0, "bba"), (0, "aba"), (1, "bba"), (1, "rba"), (1, "aba"), (2, "bba"),
                                          (2, "aba"), (3, "bba"), (3, "aba"), (2, "bbbbb")])
def test_interrupted_write_rolls_back(repo: Any, registry: Any, clock: Any, exc: Any, step: int, faults: str) -> None:
    tracker, conn = health.ToolHealthTracker(repo), repo.db._conn
    for name in ("a", "b", "c"):
        tracker.record_error(name, "boom")
        tracker.record_call(name, None, "error", alias_hit=False, duration_ms=2.5)
    taken, repo.db._conn = set(tracker._dirty), Trap(conn, {step + i: (w, exc) for i, w in enumerate(faults)})
    with pytest.raises(exc):
        try:
            tracker.flush()
        finally:
            repo.db._conn = conn
    assert conn.in_transaction == (len(faults) > 4)
    if exc is Interrupt:  # an interrupt leaves the marks to the caller
        tracker._dirty.update(taken)
        tracker._usage_dirty = True
    assert tracker._usage_dirty and (step == 3 or tracker._dirty == taken)  # the usage write comes last
    clock.advance(1.0)
    tracker.record_success("a")
    tracker.record_call("search", "text", "ok", alias_hit=True, duration_ms=0.125)
    rows = len(tracker._dirty) + 4
    assert tracker.flush() == rows and not tracker.has_unsaved_changes
    again = Repository(repo.db_path)  # another connection sees only what was committed
    assert state(health.ToolHealthTracker(again)) == state(tracker)
    again.close()


def test_nested_write_fails_alone(repo: Any) -> None:
    db, conn, insert = repo.db, repo.db._conn, "INSERT INTO schema_info (key) VALUES (?)"

    def rows() -> Any:  # a finalizer's writes from inside the outer one: two fail, one succeeds
        yield ("outer1",)
        with pytest.raises(MemoryError):
            db.executemany(insert, rows_then([("failed",), ("never",)], MemoryError))
        db._conn = Trap(conn, {0: ("a", MemoryError)})  # fails once its savepoint is open
        with pytest.raises(MemoryError):
            db.executemany(insert, [("never",)])
        db._conn = conn
        db.executemany(insert, [("nested",)])
        yield ("outer2",)
    db.executemany(insert, rows())
    again = Repository(repo.db_path)
    assert sorted(again.db.fetchall("SELECT key FROM schema_info")) == [("nested",), ("outer1",), ("outer2",)]
    assert not db._conn.in_transaction
    again.close()

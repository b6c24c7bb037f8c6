"""Fault injection across restarts: the repository stand-in, whose writes are interrupted at every step of a flush,
stays usable and loses nothing committed; a tracker reloaded through another connection equals memory. Failed
statements before and after they commit, with counts checked after a reload: test_reentrancy's fuzzer (counting)."""

from typing import Any

import pytest

from ordanis_veltrane.repository import Repository
from ordanis_veltrane.tool_handlers import health


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

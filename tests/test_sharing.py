"""Tool health shared through a real SQLite file and a real PostgreSQL server started by the tests."""
from __future__ import annotations

import json
import logging
import sqlite3
import subprocess
import sys
import threading
import time
from pathlib import Path
from typing import Any, Callable, Iterator

import pytest
from conftest import FakeClock, child_env, make_registry
from pgcluster import PgCluster, pg_cluster, pg_url  # noqa: F401 - fixtures

from ordanis_veltrane import sharing
from ordanis_veltrane.config import ToolsConfig
from ordanis_veltrane.repository import Repository
from ordanis_veltrane.tool_handlers import health

LIMITS = ToolsConfig(disable_after_errors=3, disable_cooldown_s=60)


@pytest.fixture(params=["sqlite", "postgres"])
def target(request: pytest.FixtureRequest, tmp_path: Path, registry: Any) -> str:
    if request.param == "sqlite":
        return str(tmp_path / "shared.db")
    url: str = request.getfixturevalue("pg_url")
    return url


@pytest.fixture
def open_handle(target: str) -> Iterator[Callable[..., sharing.SharedHealth]]:
    handles: list[sharing.SharedHealth] = []

    def make(limits: ToolsConfig = LIMITS) -> sharing.SharedHealth:
        handle = sharing.open_health(target, limits)
        assert isinstance(handle, sharing.SharedHealth)
        handles.append(handle)
        return handle

    yield make
    for handle in handles:
        handle.close()


def stored(target: str) -> tuple[dict[str, tuple[Any, ...]], list[dict[str, Any]]]:
    """The mirror a plain reader sees: tool_health rows by name, and the usage document's rows."""
    if sharing.is_postgres_url(target):
        import psycopg

        with psycopg.connect(target) as conn:
            rows = conn.execute("SELECT * FROM tool_health").fetchall()
            doc = conn.execute("SELECT value FROM schema_info WHERE key = 'tool_usage'").fetchone()
    else:
        conn2 = sqlite3.connect(target)
        rows = conn2.execute("SELECT * FROM tool_health").fetchall()
        doc = conn2.execute("SELECT value FROM schema_info WHERE key = 'tool_usage'").fetchone()
        conn2.close()
    return {r[0]: tuple(r[1:]) for r in rows}, json.loads(doc[0]) if doc else []


def usage_calls(document: list[dict[str, Any]], tool: str) -> int:
    return sum(row["calls"] for row in document if row["tool"] == tool)


def call(tracker: health.ToolHealthTracker, tool: str = "a", ok: bool = True) -> None:
    if ok:
        tracker.record_success(tool)
    else:
        tracker.record_error(tool, "boom")
    tracker.record_call(tool, None, "ok" if ok else "error", alias_hit=False, duration_ms=1.0)


def test_two_trackers_keep_every_call_while_syncing(open_handle: Callable[..., sharing.SharedHealth],
                                                    target: str) -> None:
    handles = [open_handle(), open_handle()]
    stop = threading.Event()

    def syncer(handle: sharing.SharedHealth) -> None:
        while not stop.is_set():
            handle.sync()

    def caller(handle: sharing.SharedHealth) -> None:
        for i in range(3000):
            call(handle.tracker, "ab"[i % 2])

    syncers = [threading.Thread(target=syncer, args=(h,)) for h in handles]
    callers = [threading.Thread(target=caller, args=(h,)) for h in handles for _ in range(2)]
    for t in syncers + callers:
        t.start()
    for t in callers:
        t.join()
    stop.set()
    for t in syncers:
        t.join()
    for _ in range(2):
        for h in handles:
            h.sync()
    for h in handles:
        assert h.tracker._state["a"].call_count == h.tracker._state["b"].call_count == 6000
        assert h.tracker._usage[("a", None, "ok", False)].calls == 6000
        assert h.tracker._usage[("a", None, "ok", False)].total_ms == pytest.approx(6000.0)
        assert not h.tracker.has_unsaved_changes
    rows, document = stored(target)
    assert rows["a"][0] == rows["b"][0] == 6000
    assert usage_calls(document, "a") == usage_calls(document, "b") == 6000


CHILD = """
import sys
from ordanis_veltrane import sharing
from ordanis_veltrane.config import ToolsConfig
handle = sharing.open_health(sys.argv[1], ToolsConfig())
for i in range(int(sys.argv[2])):
    handle.tracker.record_success("search")
    handle.tracker.record_call("search", "text", "ok", alias_hit=False, duration_ms=0.5)
    if i % 100 == 0:
        handle.sync()
handle.close()
"""


def test_two_processes_keep_every_call(target: str) -> None:
    children = [subprocess.Popen([sys.executable, "-c", CHILD, target, "1500"], env=child_env())
                for _ in range(2)]
    assert [c.wait(timeout=120) for c in children] == [0, 0]
    rows, document = stored(target)
    assert rows["search"][0] == 3000
    assert usage_calls(document, "search") == 3000


def test_a_disable_is_shared_and_a_success_enables_everywhere(open_handle: Callable[..., sharing.SharedHealth],
                                                              target: str) -> None:
    a, b = open_handle(), open_handle()
    for _ in range(2):
        call(b.tracker, "git", ok=False)  # b's run of errors stays b's
    for _ in range(3):
        call(a.tracker, "git", ok=False)
    assert a.tracker.is_disabled("git")[0] and not b.tracker.is_disabled("git")[0]
    a.sync()
    b.sync()
    assert b.tracker.is_disabled("git") == (True, "boom")
    assert b.tracker._state["git"].error_count == 5
    assert stored(target)[0]["git"][3] is not None  # disabled_at in the mirror

    b.tracker.record_success("git")  # the host lets one through: enabled here at once
    b.sync()
    a.sync()
    assert a.tracker.is_disabled("git") == (False, None)
    assert a.tracker._state["git"].consecutive_errors == 0  # re-enabled elsewhere: a new run
    call(a.tracker, "git", ok=False)
    assert a.tracker.is_disabled("git") == (False, None)
    assert stored(target)[0]["git"][3] is None


def test_a_fast_clock_cannot_pin_a_tool_disabled(open_handle: Callable[..., sharing.SharedHealth],
                                                 monkeypatch: pytest.MonkeyPatch) -> None:
    a, b = open_handle(), open_handle()
    monkeypatch.setattr(health, "time", FakeClock(time.time() + 3600))  # a's clock runs an hour ahead
    for _ in range(3):
        call(a.tracker, "git", ok=False)
    monkeypatch.setattr(health, "time", time)
    a.sync()
    b.sync()
    disabled_at = b.tracker._state["git"].disabled_at
    assert disabled_at is not None and disabled_at <= time.time()  # clamped to the store's clock
    time.sleep(0.05)
    b.tracker.record_success("git")  # later than the clamped disable: it wins
    b.sync()
    a.sync()
    assert a.tracker._state["git"].disabled_at is None


class AckLost:
    """A real store whose first exchange commits and then fails, as if the answer never came."""

    def __init__(self, store: sharing.Store) -> None:
        self.store, self.description, self.lost = store, store.description, 0

    def exchange(self, pid: str, batches: Any, seen: int) -> sharing.Pulled:
        pulled = self.store.exchange(pid, batches, seen)
        if batches and not self.lost:
            self.lost += 1
            raise ConnectionError("connection lost after the commit")
        return pulled

    def close(self) -> None:
        self.store.close()


def test_a_lost_acknowledgement_is_not_applied_twice(target: str, caplog: pytest.LogCaptureFixture) -> None:
    store = sharing.PostgresStore(target) if sharing.is_postgres_url(target) else sharing.SqliteStore(target)
    handle = sharing.SharedHealth(AckLost(store), LIMITS)
    try:
        for _ in range(7):
            call(handle.tracker)
        assert handle.sync() == 0 and handle.pending and handle.pending[0].maybe_applied
        for _ in range(5):
            call(handle.tracker)  # these go into a new batch: the first may have landed
        assert handle.sync() == 4 and not handle.pending
        handle.sync()
        assert handle.tracker._state["a"].call_count == 12
        rows, document = stored(target)
        assert rows["a"][0] == 12 and usage_calls(document, "a") == 12
        assert handle.synced_calls == 12
    finally:
        handle.close()


def test_sqlite_locked_then_free_loses_nothing_and_logs_once(tmp_path: Path, registry: Any,
                                                             caplog: pytest.LogCaptureFixture) -> None:
    path = str(tmp_path / "shared.db")
    handle = sharing.SharedHealth(sharing.SqliteStore(path, busy_timeout_s=0.05), LIMITS)
    other = handle
    try:
        handle.sync()
        blocker = sqlite3.connect(path, isolation_level=None)
        blocker.execute("BEGIN EXCLUSIVE")
        for round_ in range(3):
            for _ in range(10):
                call(handle.tracker)
            assert handle.sync() == 0
            assert handle.tracker.has_unsaved_changes  # a tool call never saw the lock
        blocker.execute("ROLLBACK")
        blocker.close()
        assert handle.sync() == 2
        assert stored(path)[0]["a"][0] == 30 and usage_calls(stored(path)[1], "a") == 30
        other = sharing.SharedHealth(sharing.SqliteStore(path), LIMITS)
        other.sync()
        assert other.tracker._state["a"].call_count == 30
    finally:
        handle.close()
        other.close()
    messages = [r.getMessage() for r in caplog.records if r.name == "ordanis_veltrane.sharing"]
    assert sum("Could not reach" in m for m in messages) == 1, messages
    assert sum("reachable again" in m for m in messages) == 1, messages


def test_postgres_down_then_back(pg_cluster: PgCluster, pg_url: str, registry: Any,  # noqa: F811
                                 caplog: pytest.LogCaptureFixture) -> None:
    a = sharing.open_health(pg_url, LIMITS)
    try:
        call(a.tracker)
        a.sync()
        pg_cluster.stop()
        b = sharing.open_health(pg_url, LIMITS)  # unreachable at start: serves from local state
        try:
            for _ in range(5):
                call(a.tracker)
                call(b.tracker)
                a.sync()
                b.sync()
            assert b.tracker._state["a"].call_count == 5
            pg_cluster.start()
            for h in (a, b, a, b):
                h.sync()
            assert a.tracker._state["a"].call_count == b.tracker._state["a"].call_count == 11
        finally:
            b.close()
    finally:
        a.close()
    assert stored(pg_url)[0]["a"][0] == 11
    messages = [r.getMessage() for r in caplog.records if r.name == "ordanis_veltrane.sharing"]
    assert sum("Could not reach" in m for m in messages) == 2, messages  # once per process
    assert sum("reachable again" in m for m in messages) == 2, messages


def test_a_name_no_store_can_hold_stays_local_and_blocks_nothing(
        open_handle: Callable[..., sharing.SharedHealth], target: str, caplog: pytest.LogCaptureFixture) -> None:
    handle = open_handle()
    bad = "bad\udc80"  # a lone surrogate: neither SQLite nor PostgreSQL text can carry it
    call(handle.tracker, bad)
    handle.tracker.record_call("a", "\udc80", "ok", alias_hit=False, duration_ms=1.0)
    handle.tracker.record_error("a", "message \udc80")
    handle.sync()
    assert handle.connected and not any("Could not reach" in r.getMessage() for r in caplog.records)
    rows, document = stored(target)
    assert bad not in rows and rows["a"] == (1, 1, "message \\udc80") + rows["a"][3:]
    assert handle.tracker._state[bad].call_count == 1


def test_joining_lowers_nothing(open_handle: Callable[..., sharing.SharedHealth], target: str) -> None:
    a = open_handle()
    for _ in range(5):
        call(a.tracker)
    call(a.tracker, "search", ok=False)
    a.sync()
    before = stored(target)
    joined = open_handle()
    joined.sync()
    a.sync()
    assert stored(target) == before
    assert joined.tracker._state["a"].call_count == a.tracker._state["a"].call_count == 5
    assert joined.tracker._state["search"].last_error == "boom"


def test_a_file_kept_by_a_plain_tracker_seeds_the_shared_history(tmp_path: Path, registry: Any) -> None:
    path = tmp_path / "plain.db"
    repo = Repository(path)
    plain = health.ToolHealthTracker(repo, LIMITS)
    for _ in range(4):
        call(plain)
    plain.flush()
    repo.close()
    handle = sharing.open_health(path, LIMITS)
    assert isinstance(handle, sharing.SharedHealth)
    call(handle.tracker)
    handle.close()
    rows, document = stored(str(path))
    assert rows["a"][0] == 5 and usage_calls(document, "a") == 5


def test_a_plain_tracker_reads_the_shared_mirror_as_its_own(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    """The rows and the usage document are laid out byte for byte as a plain flush lays them out."""
    monkeypatch.setattr(health, "TOOLS", make_registry({"search": ("text", "symbol"), "\u00e9t\u00e9 \"x\"": ()}))
    path = str(tmp_path / "shared.db")
    a, b = sharing.open_health(path, LIMITS), sharing.open_health(path, LIMITS)
    for handle, ms in ((a, 1.23456), (b, 1500.0)):
        handle.tracker.record_call("search", "symbol", "ok", alias_hit=True, duration_ms=ms)
        handle.tracker.record_call("\u00e9t\u00e9 \"x\"", None, "error", alias_hit=False, duration_ms=None)
        handle.tracker.record_error("\u00e9t\u00e9 \"x\"", "bad \u00e9")
        handle.tracker.record_call("search", "text", "ok", alias_hit=False, duration_ms=0.0)
        handle.sync()
    a.close()
    b.close()
    rows, shared_document = stored(path)
    repo = Repository(path)
    plain = health.ToolHealthTracker(repo, LIMITS)
    assert plain._usage[("search", "symbol", "ok", True)] == health._Usage(2, 2, 1501.235)
    assert plain._state["\u00e9t\u00e9 \"x\""].error_count == 2
    written = repo.db.fetchone("SELECT value FROM schema_info WHERE key = ?", ["tool_usage"])
    plain._usage_dirty = True
    plain._dirty.update(plain._state)
    plain.flush()
    assert repo.db.fetchone("SELECT value FROM schema_info WHERE key = ?", ["tool_usage"]) == written
    assert stored(path)[0] == rows
    repo.close()


def test_a_tool_unknown_to_one_process_keeps_its_shared_history(target: str, monkeypatch: pytest.MonkeyPatch,
                                                                 open_handle: Callable[..., sharing.SharedHealth]
                                                                 ) -> None:
    old = open_handle()
    call(old.tracker, "b")
    old.sync()
    monkeypatch.setattr(health, "TOOLS", make_registry({"a": ()}))  # a newer build without "b"
    new = open_handle()
    call(new.tracker, "a")
    new.sync()
    assert "b" not in new.tracker._state and all(k[0] != "b" for k in new.tracker._usage)
    assert "b" not in {row["tool_name"] for row in new.tracker.get_health_summary()}
    call(old.tracker, "b")
    old.sync()
    new.sync()
    rows, document = stored(target)
    assert rows["b"][0] == 2 and usage_calls(document, "b") == 2 and rows["a"][0] == 1


@pytest.mark.parametrize("bad", [
    "postgresql://host:notaport/db", "postgres://", "postgresql://[::1/db", "mysql://host/db",
    "{tmp}/missing/dir/h.db", "{tmp}", "{tmp}/garbage.db", ""])
def test_a_bad_target_fails_clearly_and_creates_nothing(tmp_path: Path, bad: str, registry: Any) -> None:
    (tmp_path / "garbage.db").write_bytes(b"this is not a database" * 100)
    before = sorted(tmp_path.rglob("*"))
    target = bad.format(tmp=tmp_path)
    with pytest.raises(ValueError, match=r"(?i)postgresql|sqlite|database|url"):
        sharing.check_target(target)
    with pytest.raises(ValueError):
        sharing.open_health(target, LIMITS)
    assert sorted(tmp_path.rglob("*")) == before


def test_checking_a_good_target_creates_nothing(tmp_path: Path) -> None:
    wal = sqlite3.connect(tmp_path / "wal.db")
    wal.execute("PRAGMA journal_mode=WAL")
    wal.execute("CREATE TABLE t (x)")
    wal.close()
    before = sorted(tmp_path.iterdir())
    for good in ("wal.db", "new.db"):
        sharing.check_target(tmp_path / good)
    sharing.check_target("postgresql://user@db.internal:5432/tools?sslmode=require")
    assert sorted(tmp_path.iterdir()) == before


def test_plain_mode_is_the_plain_tracker(repo: Repository, registry: Any) -> None:
    handle = sharing.open_health(repo, LIMITS)
    assert type(handle.tracker) is health.ToolHealthTracker and handle.tracker._repo is repo
    call(handle.tracker)
    assert handle.sync() == 2
    handle.close()
    assert repo.db.fetchall("SELECT call_count FROM tool_health") == [(1,)]


@pytest.mark.parametrize("bad", ["postgresql://h:x/db", "/nonexistent/dir/h.db"])
def test_the_example_server_refuses_a_bad_db_before_it_starts(bad: str, capsys: pytest.CaptureFixture[str]) -> None:
    pytest.importorskip("mcp")
    from ordanis_veltrane import mcp_server

    with pytest.raises(SystemExit):
        mcp_server.main(["--db", bad])
    assert "argument --db:" in capsys.readouterr().err


def test_changes_whose_marks_were_cleared_are_sent_by_a_later_full_scan(
        open_handle: Callable[..., sharing.SharedHealth], target: str, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(sharing, "FULL_SCAN_EVERY", 3)
    handle = open_handle()  # its first sync copies every record
    call(handle.tracker)
    handle.tracker.flush()  # a stray flush clears the marks the sync relies on
    handle.sync()
    handle.sync()
    assert "a" not in stored(target)[0]
    handle.sync()
    rows, document = stored(target)
    assert rows["a"][0] == 1 and usage_calls(document, "a") == 1

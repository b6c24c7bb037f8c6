"""Tool health shared through a real SQLite file and a real PostgreSQL server started by the tests."""
from __future__ import annotations

import contextlib
import importlib.util
import json
import os
import shutil
import sqlite3
import subprocess
import sys
import threading
import time
from pathlib import Path
from typing import Any, Callable, Iterator

import pytest
from conftest import FakeClock, child_env, make_registry
from pgcluster import pg_bouncer, pg_bouncer_url, pg_cluster, pg_url  # noqa: F401 - fixtures

from ordanis_veltrane import sharing
from ordanis_veltrane.sharing import stores
from ordanis_veltrane.config import ToolsConfig
from ordanis_veltrane.repository import Repository
from ordanis_veltrane.tool_handlers import health

LIMITS = ToolsConfig(disable_after_errors=3, disable_cooldown_s=60)
Open = Callable[..., sharing.SharedHealth]


@pytest.fixture(params=["sqlite", "postgres", "pgbouncer"])
def target(request: pytest.FixtureRequest, tmp_path: Path, registry: Any) -> str:
    """A SQLite file, a PostgreSQL database, or one reached through PgBouncer in transaction-pooling mode."""
    if request.param == "sqlite":
        return str(tmp_path / "shared.db")
    if request.param == "postgres":
        return str(request.getfixturevalue("pg_url"))
    POOLED.add(url := str(request.getfixturevalue("pg_bouncer_url")))
    return url


POOLED: set[str] = set()  # through PgBouncer: no connection is held between syncs


def new_store(target: str, totals_every_s: float = 0) -> sharing.Store:
    """The target's store, writing the plain tables and (PostgreSQL) reading every total at every sync;
    a SQLite one gives up on a locked file at once."""
    if sharing.is_postgres_url(target):
        return sharing.PostgresStore(target, mirror_every_s=0, hold_connection=target not in POOLED,
                                     totals_every_s=totals_every_s)
    return sharing.SqliteStore(target, 0.05, mirror_every_s=0)


@pytest.fixture
def open_handle(target: str) -> Iterator[Open]:
    handles: list[sharing.SharedHealth] = []

    def make(totals_every_s: float = 0) -> sharing.SharedHealth:
        handles.append(sharing.SharedHealth(new_store(target, totals_every_s), LIMITS))
        handles[-1].sync()
        return handles[-1]

    yield make
    for handle in handles:
        handle.close()


def stored(target: str) -> tuple[dict[str, tuple[Any, ...]], list[dict[str, Any]]]:
    """What a plain reader sees: the tool_health rows by name, and the rows of the usage document."""
    if sharing.is_postgres_url(target):
        import psycopg

        conn: Any = psycopg.connect(target)
    else:
        conn = sqlite3.connect(target)
    with contextlib.closing(conn):
        rows = conn.execute("SELECT * FROM tool_health").fetchall()
        doc = conn.execute("SELECT value FROM schema_info WHERE key = 'tool_usage'").fetchone()
    return {r[0]: tuple(r[1:]) for r in rows}, json.loads(doc[0]) if doc else []


def totals(target: str, tool: str) -> tuple[int, int]:
    """The tool's call count in tool_health, and its calls summed over the usage document."""
    rows, document = stored(target)
    return rows[tool][0], sum(row["calls"] for row in document if row["tool"] == tool)


def call(tracker: health.ToolHealthTracker, tool: str = "a", ok: bool = True) -> None:
    if ok:
        tracker.record_success(tool)
    else:
        tracker.record_error(tool, "boom")
    tracker.record_call(tool, None, "ok" if ok else "error", alias_hit=False, duration_ms=1.0)


CHILD = """
import sys
from ordanis_veltrane import sharing
handle = sharing.open_health(sys.argv[1], None)
for i in range(1500):
    handle.tracker.record_success("search")
    handle.tracker.record_call("search", "text", "ok", alias_hit=False, duration_ms=0.5)
    if i % 100 == 0:
        handle.sync()
handle.close()
"""


def test_processes_and_threads_keep_every_call_while_syncing(open_handle: Open, target: str,
                                                             monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(sharing, "TAKE_SLICE", 1)  # a change-set taken, and totals taken in, one record per hold
    monkeypatch.setattr(sharing, "APPLY_SLICE", 1)
    children = [subprocess.Popen([sys.executable, "-c", CHILD, target], env=child_env()) for _ in range(2)]
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
    assert [c.wait(timeout=120) for c in children] == [0, 0]
    for h in handles + handles:
        h.sync()
    for h in handles:
        assert h.tracker._state["a"].call_count == h.tracker._state["b"].call_count == 6000
        assert h.tracker._state["search"].call_count == 3000
        usage = h.tracker._usage[("a", None, "ok", False)]
        assert usage.calls == 6000 and usage.total_ms == pytest.approx(6000.0)
    assert totals(target, "a") == totals(target, "b") == (6000, 6000)
    assert totals(target, "search") == (3000, 3000)


def test_a_disable_is_shared_and_a_success_enables_everywhere(open_handle: Open, target: str,
                                                              monkeypatch: pytest.MonkeyPatch) -> None:
    # Between their reads of every total (PostgreSQL: a minute here), a disable and an enable still reach
    # the others at their next sync, written by this release or (stamped by the store) by an older one.
    a, b = open_handle(60), open_handle(60)
    for _ in range(2):
        call(b.tracker, "git", ok=False)  # b's run of errors stays b's
    monkeypatch.setattr(health, "time", FakeClock(time.time() + 3600))  # a's clock runs an hour ahead
    for _ in range(3):
        call(a.tracker, "git", ok=False)
    monkeypatch.setattr(health, "time", time)
    a.sync()
    b.sync()
    assert b.tracker.is_disabled("git") == (True, "boom") and b.tracker._state["git"].error_count == 5
    assert b.tracker._state["git"].disabled_at <= time.time()  # clamped to the store's clock
    assert stored(target)[0]["git"][3] is not None  # disabled_at in the mirror
    b.tracker.record_success("git")  # later than the clamped disable: enabled here at once, and everywhere
    b.sync()
    a.sync()
    assert a.tracker.is_disabled("git") == (False, None)
    call(a.tracker, "git", ok=False)  # re-enabled elsewhere: a new run of errors starts here too
    assert a.tracker.is_disabled("git") == (False, None)
    assert stored(target)[0]["git"][3] is None
    if sharing.is_postgres_url(target):  # a writer of a release that knows nothing of the registers' stamp
        import psycopg

        with psycopg.connect(target, autocommit=True) as conn:
            conn.execute("UPDATE sv_health SET disabled_at = extract(epoch FROM now()), dis_seq = dis_seq + 1, "
                         "txid = txid_current() WHERE tool = 'git'")
        b.sync()
        assert b.tracker.is_disabled("git")[0]


@pytest.mark.parametrize("commits", [True, False], ids=["after-commit", "before-commit"])
def test_a_lost_exchange_is_applied_once(target: str, commits: bool, monkeypatch: pytest.MonkeyPatch) -> None:
    store = new_store(target)
    real_exchange, lost = store.exchange, []

    def exchange(pid: str, batches: list[sharing.Batch]) -> sharing.Pulled:
        if batches and not lost:  # fails after the commit (the answer never came) or before it
            lost.append(True)
            for batch in batches:
                batch.maybe_applied = True
            if commits:
                real_exchange(pid, batches)
            raise ConnectionError("connection lost")
        return real_exchange(pid, batches)

    monkeypatch.setattr(store, "exchange", exchange)
    handle = sharing.SharedHealth(store, LIMITS)
    for _ in range(7):
        call(handle.tracker)
    assert handle.sync() == 0 and lost
    for _ in range(5):
        call(handle.tracker)  # these go into a new batch: the first may have landed
    handle.sync()
    handle.close()
    assert handle.tracker._state["a"].call_count == handle.synced_calls == 12 and not handle.pending
    assert totals(target, "a") == (12, 12)


def test_joining_lowers_nothing_and_keeps_the_history_of_tools_it_does_not_know(
        open_handle: Open, target: str, monkeypatch: pytest.MonkeyPatch) -> None:
    old = open_handle()
    for _ in range(5):
        call(old.tracker)
    call(old.tracker, "search", ok=False)
    call(old.tracker, "b")
    bad = "bad\udc80"  # a lone surrogate: no store's text can carry it; stored as U+FFFD, it blocks nothing else
    call(old.tracker, bad)
    old.tracker.record_call("search", "\udc80", "ok", alias_hit=False, duration_ms=1.0)
    old.tracker.record_error("c", "message \udc80")
    old.sync()
    before = stored(target)
    assert old.connected and before[0]["bad\ufffd"][:2] == (1, 0) and before[0]["c"][:3] == (1, 1, "message \ufffd")
    monkeypatch.setattr(health, "TOOLS", make_registry({"a": (), "search": ()}))  # a newer build without "b"
    new = open_handle()
    old.sync()
    assert stored(target) == before
    assert new.tracker._state["a"].call_count == old.tracker._state["a"].call_count == 5
    assert new.tracker._state["search"].last_error == "boom"
    assert "b" not in new.tracker._state and all(key[0] != "b" for key in new.tracker._usage)
    assert old.tracker._state[bad].call_count == 1
    call(new.tracker, "a")
    call(old.tracker, "b")
    new.sync()
    old.sync()
    assert totals(target, "b") == (2, 2) and totals(target, "a") == (6, 6)


def test_a_plain_file_seeds_the_shared_history_and_reads_its_mirror_as_its_own(
        tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    """The shared store starts from what a plain tracker wrote, and lays out the rows and the usage
    document byte for byte as a plain flush lays them out."""
    odd = "\u00e9t\u00e9 \"x\""
    monkeypatch.setattr(health, "TOOLS", make_registry({"search": ("text", "symbol"), odd: ()}))
    path = str(tmp_path / "shared.db")
    repo = Repository(path)
    plain = health.ToolHealthTracker(repo, LIMITS)
    plain.record_success("search")
    plain.record_call("search", "symbol", "ok", alias_hit=True, duration_ms=0.5)
    plain.flush()
    repo.close()
    a, b = sharing.open_health(path, LIMITS), sharing.open_health(path, LIMITS)
    for handle, ms in ((a, 1.23456), (b, 1500.0)):
        handle.tracker.record_call("search", "symbol", "ok", alias_hit=True, duration_ms=ms)
        handle.tracker.record_call(odd, None, "error", alias_hit=False, duration_ms=None)
        handle.tracker.record_error(odd, "bad \u00e9")
        call(handle.tracker, "search")
        handle.sync()
    a.close()
    b.close()
    rows = stored(path)[0]
    repo = Repository(path)
    plain = health.ToolHealthTracker(repo, LIMITS)
    assert plain._usage[("search", "symbol", "ok", True)] == health._Usage(3, 3, 1501.735)
    assert plain._state["search"].call_count == 3 and plain._state[odd].error_count == 2
    written = repo.db.fetchone("SELECT value FROM schema_info WHERE key = ?", ["tool_usage"])
    plain._usage_dirty = True
    plain._dirty.update(plain._state)
    plain.flush()
    assert repo.db.fetchone("SELECT value FROM schema_info WHERE key = ?", ["tool_usage"]) == written
    assert stored(path)[0] == rows
    repo.close()


@pytest.mark.parametrize("text, good", [
    ("postgresql://host:notaport/db", False), ("postgres://", True), ("postgresql://[::1/db", False),
    ("mysql://host/db", False), ("{tmp}/missing/dir/h.db", False), ("{tmp}", False), ("{tmp}/garbage.db", False),
    ("", False), ("{tmp}/wal.db", True), ("{tmp}/new.db", True),
    ("postgresql://user@db.internal:5432/tools?sslmode=require", True),
    ("postgresql://db/tools?hold_connection=false&sslmode=require", True), ("postgresql://db/t?hold_connection=2", False)])
def test_checking_a_target_creates_nothing_and_refuses_a_bad_one(tmp_path: Path, text: str, good: bool, registry: Any,
                                                                 capsys: pytest.CaptureFixture[str]) -> None:
    (tmp_path / "garbage.db").write_bytes(b"this is not a database" * 100)
    wal = sqlite3.connect(tmp_path / "wal.db")  # opening a WAL database would create its side files
    wal.execute("PRAGMA journal_mode=WAL")
    wal.execute("CREATE TABLE t (x)")
    wal.close()
    before = sorted(tmp_path.rglob("*"))
    target = text.format(tmp=tmp_path)
    if good and sharing.is_postgres_url(target):
        try:
            import psycopg  # noqa: F401
        except ImportError:  # without the driver a PostgreSQL URL is refused at start, with that reason
            good = False
    if good:
        sharing.check_target(target)
    else:
        with pytest.raises(ValueError, match=r"(?i)postgresql|sqlite|database|url"):
            sharing.check_target(target)
        with pytest.raises(ValueError):
            sharing.open_health(target, LIMITS)
        if importlib.util.find_spec("mcp") is not None:  # the example server refuses it before it starts
            from ordanis_veltrane import mcp_server

            with pytest.raises(SystemExit):
                mcp_server.main(["--db", target])
            assert "argument --db:" in capsys.readouterr().err
    assert sorted(tmp_path.rglob("*")) == before


SKEWED = """
import sys
from ordanis_veltrane import sharing
from ordanis_veltrane.config import ToolsConfig
from ordanis_veltrane.tool_handlers import health
from ordanis_veltrane.tool_registry import ToolRegistry, ToolSpec
health.TOOLS = ToolRegistry({name: ToolSpec(name, []) for name in "ab"})
handle = sharing.open_health(sys.argv[1], ToolsConfig(disable_after_errors=3, disable_cooldown_s=60))
t = handle.tracker
assert t._state["a"].disabled_at is not None
# A clock ahead has seen the cooldown run out: here only. One behind waits for its whole cooldown.
assert t.is_disabled("a")[0] is sys.argv[2].startswith("-")
for _ in range(3):
    t.record_error("b", "down")
handle.close()
"""


@pytest.mark.parametrize("skew", ["+1d", "+365d", "-1d"])
def test_a_skewed_clock_neither_enables_nor_pins_a_tool_for_the_others(
        open_handle: Open, target: str, clock: Any, skew: str) -> None:
    if "libasan" in os.environ.get("LD_PRELOAD", ""):
        pytest.skip("libfaketime and a preloaded sanitizer runtime hang together")
    if shutil.which("faketime") is None:
        pytest.skip("faketime is not installed (Debian: apt-get install faketime)")
    clock.now = time.time()
    a = open_handle()
    for _ in range(3):
        call(a.tracker, "a", ok=False)
    a.sync()
    subprocess.run(["faketime", "-f", skew, sys.executable, "-c", SKEWED, target, skew], env=child_env(), check=True,
                   timeout=120)
    a.sync()
    assert a.tracker.is_disabled("a")[0] and stored(target)[0]["a"][3] is not None
    # b was disabled by the skewed process: from now (PostgreSQL: the server's clock) for a cooldown at most; on
    # SQLite, with no clock but the writers', a disable from a clock behind lands with its cooldown already over.
    if skew == "-1d" and not sharing.is_postgres_url(target):
        assert a.tracker.is_disabled("b") == (False, None)
    else:
        assert a.tracker.is_disabled("b")[0] and abs(a.tracker._state["b"].disabled_at - time.time()) < 30
    b = open_handle()
    clock.advance(61)
    for h in (a, b):
        assert h.tracker.is_disabled("b") == (False, None) and h.tracker.is_disabled("a") == (False, None)
    call(a.tracker, "a")  # a success enables for everyone
    a.sync()
    b.sync()
    assert b.tracker._state["a"].disabled_at is None and stored(target)[0]["a"][3] is None


def test_a_store_down_or_broken_loses_nothing(open_handle: Open, target: str, request: pytest.FixtureRequest,
                                             caplog: pytest.LogCaptureFixture) -> None:
    """Down (PostgreSQL stopped, the SQLite file locked), then its tables emptied, then dropped, then (SQLite)
    the file deleted: the next sync carries on, every change made meanwhile reaches the store, and each
    process logs the outage once when it starts and once when it ends."""
    a = open_handle()
    call(a.tracker)
    a.sync()
    if sharing.is_postgres_url(target):
        cluster = request.getfixturevalue("pg_cluster")
        cluster.stop()
        back = cluster.start
    else:
        blocker = sqlite3.connect(target, isolation_level=None)
        blocker.execute("BEGIN EXCLUSIVE")
        back = blocker.close
    b = open_handle()  # opened during the outage (PostgreSQL: unreachable at start): it serves from local state
    for _ in range(5):
        call(a.tracker)
        call(b.tracker)
        assert a.sync() == b.sync() == 0
    back()
    deadline = time.monotonic() + 20  # PgBouncer lets its clients in again a moment after the server is back
    while not (a.sync() + b.sync() and a.connected and b.connected) and time.monotonic() < deadline:
        time.sleep(0.2)
    for h in (a, b, a, b):
        h.sync()
    assert a.tracker._state["a"].call_count == b.tracker._state["a"].call_count == 11
    assert totals(target, "a") == (11, 11)
    messages = [r.getMessage() for r in caplog.records if r.name == "ordanis_veltrane.sharing"]
    assert sum("Could not reach" in m for m in messages) == 2, messages
    assert sum("reachable again" in m for m in messages) == 2, messages
    for damage, tool in (("TRUNCATE", "b"), ("DROP", "c"), ("DELETE", "search")):
        if sharing.is_postgres_url(target):
            if damage == "DELETE":
                continue
            import psycopg

            with psycopg.connect(target, autocommit=True) as conn:
                tables = "sv_meta, sv_process, sv_health, sv_usage, tool_health, schema_info"
                conn.execute(f"TRUNCATE {tables}" if damage == "TRUNCATE" else f"DROP TABLE {tables}")
        elif damage == "DELETE":
            for side in ("", "-wal", "-shm"):
                Path(target + side).unlink(missing_ok=True)
        else:
            with sqlite3.connect(target) as conn2:
                for table in ("sv_meta", "sv_process", "sv_health", "sv_usage", "tool_health", "schema_info"):
                    conn2.execute(f"DELETE FROM {table}" if damage == "TRUNCATE" else f"DROP TABLE {table}")
        call(a.tracker, tool)  # made while the store is broken: kept, and written once it is repaired
        a.sync()
        call(a.tracker, tool)
        a.sync()
        assert a.connected and stored(target)[0][tool][0] == 2, damage
        b = open_handle()
        call(a.tracker, tool, ok=False)
        a.sync()
        b.sync()
        assert b.tracker._state[tool].call_count == a.tracker._state[tool].call_count == 3
    replaced = any("deleted or replaced" in r.getMessage() for r in caplog.records)
    assert replaced is not sharing.is_postgres_url(target)


def _parent_pid(proc: Path) -> int | None:
    try:  # the fields after the command's closing parenthesis: state, then the parent's pid
        return int((proc / "stat").read_text().rsplit(")", 1)[1].split()[1])
    except (OSError, IndexError, ValueError):
        return None


def test_a_frozen_server_costs_a_sync_seconds_and_one_log_line(pg_cluster: Any, pg_url: str, registry: Any,
                                                               caplog: pytest.LogCaptureFixture) -> None:
    import signal

    handle = sharing.SharedHealth(sharing.PostgresStore(pg_url, exchange_timeout_s=1.5), LIMITS)
    handle.sync()
    postmaster = int((pg_cluster.data / "postmaster.pid").read_text().split()[0])
    # The server's processes, from /proc: a tool such as pgrep hangs under a preloaded sanitizer runtime.
    children = [int(d.name) for d in Path("/proc").iterdir() if d.name.isdigit() and _parent_pid(d) == postmaster]
    frozen = [postmaster, *children]
    try:
        for pid in frozen:
            os.kill(pid, signal.SIGSTOP)
        for _ in range(3):
            call(handle.tracker)
            started = time.monotonic()
            assert handle.sync() == 0 and time.monotonic() - started < 5
    finally:
        for pid in frozen:
            os.kill(pid, signal.SIGCONT)
    handle.sync()
    assert handle.connected
    handle.close()
    assert totals(pg_url, "a") == (3, 3)
    noise = [r.getMessage() for r in caplog.records if r.levelname == "WARNING"]
    assert len(noise) == 2 and "Could not reach" in noise[0] and "reachable again" in noise[1], noise



@pytest.mark.parametrize("url", ["pg_url", "pg_bouncer_url"])
def test_closing_processes_never_queue_behind_a_document_write_and_leave_it_exact(
        url: str, request: pytest.FixtureRequest, registry: Any, monkeypatch: pytest.MonkeyPatch) -> None:
    target = str(request.getfixturevalue(url))
    monkeypatch.setattr(sharing, "SMALL_STORE_KEYS", 0)  # the document is written by the writer and the closes alone
    handles = [sharing.SharedHealth(sharing.PostgresStore(target, mirror_every_s=3600, hold_connection=url == "pg_url"),
                                    LIMITS) for _ in range(6)]
    for handle in handles:
        handle.sync()
        for _ in range(5):
            call(handle.tracker)
    handles[0].sync()
    writing, release = threading.Event(), threading.Event()
    document = stores.usage_document

    def paused(rows: Any) -> str:  # the writer holds the writers' lock until the others have closed
        if threading.current_thread().name == "writer" and not release.is_set():
            writing.set()
            release.wait(30)
        return document(rows)

    monkeypatch.setattr(stores, "usage_document", paused)
    writer = threading.Thread(target=handles[0].store.write_mirror, args=(True,), name="writer")
    writer.start()
    assert writing.wait(30)
    closers = [threading.Thread(target=h.close) for h in handles[1:]]
    for t in closers:
        t.start()
    for t in closers:
        t.join(20)
    assert not any(t.is_alive() for t in closers)  # none waited for the writer
    release.set()
    writer.join(30)
    assert totals(target, "a") == (30, 30)  # the writer wrote again for the closes that asked
    handles[0].close()

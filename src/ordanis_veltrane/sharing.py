"""Tool health shared by many processes, on one machine (a SQLite file) or many (PostgreSQL).

A plain ``ToolHealthTracker`` writes absolute values when it flushes, so when several processes
keep one file the last writer wins. Here every process keeps its tracker in memory as before and
a sync, run on the flush thread, exchanges changes with a shared store:

1. Under the tracker's lock it copies each record's counts and health and each usage key's counts
   (a snapshot), and clears the change marks.
2. The increments (snapshot minus what the store already has from this process) go into a batch
   numbered by a per-process sequence. A batch that may have reached the store is never changed
   again: it is re-sent as it is until the store acknowledges it.
3. One transaction applies the batches the store has not seen yet (a ledger row per process holds
   the last sequence applied, advanced in the same transaction), merges them into the shared
   totals, rewrites the rows of ``tool_health`` and the ``tool_usage`` document of ``schema_info``
   that changed, and reads back every total that changed since this process's last sync.
4. Under the lock again, each count in memory moves by (merged total - snapshot), so the calls
   recorded meanwhile are kept, and tools and usage keys new to this process are inserted when
   the registry knows them.

Merge rules: counts are sums over every process. ``disabled_at`` and ``last_error`` are two
last-writer-wins registers ordered by (time of the change, process id, sequence); the store clamps
every time to its own clock first, so a process whose clock runs ahead can neither pin a tool
disabled nor win every later tie. ``updated_at`` is the latest change's time. ``consecutive_errors``
stays per process; a tool re-enabled elsewhere starts a new run here too. Nothing is ever deleted
from the store: a process whose registry lacks a tool only leaves it out of its own memory.

The hot path never touches the store; a store that is down, slow or locked leaves the batches
waiting for the next sync, logged once per outage.
"""
from __future__ import annotations

import functools
import json
import logging
import operator
import os
import socket
import sqlite3
import threading
import time
import uuid
from dataclasses import dataclass, field
from pathlib import Path
from typing import TYPE_CHECKING, Any, Callable, Protocol, Sequence, Union
from urllib.parse import urlsplit

from ordanis_veltrane.config import ToolsConfig
from ordanis_veltrane.repository import SCHEMA, Repository
from ordanis_veltrane.tool_handlers import health

if TYPE_CHECKING:
    import psycopg

__all__ = ["HealthHandle", "PlainHealth", "SharedHealth", "check_target", "open_health", "is_postgres_url"]

logger: logging.Logger = logging.getLogger(__name__)

Target = Union[Repository, str, "os.PathLike[str]"]
UsageKey = tuple[str, Union[str, None], str, bool]
# A record as copied under the lock: call_count, error_count, last_error, disabled_at, updated_at.
ToolSnap = tuple[int, int, Any, Union[float, None], float]
UsageSnap = tuple[int, int, float]

_TOOL_FIELDS: Callable[[Any], ToolSnap] = operator.attrgetter(
    "call_count", "error_count", "last_error", "disabled_at", "updated_at")
_USAGE_FIELDS: Callable[[Any], UsageSnap] = operator.attrgetter("calls", "timed_calls", "total_ms")
_ZERO_TOOL: ToolSnap = (0, 0, None, None, 0.0)
_ZERO_USAGE: UsageSnap = (0, 0, 0.0)
_NO_STAMP = -1e308  # the order key of a register nobody has written
SQLITE_BUSY_TIMEOUT_S = 2.0
FULL_SCAN_EVERY = 64  # syncs between two copies of every record, whatever the change marks say
PG_CONNECT_TIMEOUT_S = 3


class HealthHandle(Protocol):
    tracker: health.ToolHealthTracker

    def sync(self) -> int: ...

    def close(self) -> None: ...


# ---------------------------------------------------------------- targets


def is_postgres_url(target: object) -> bool:
    return isinstance(target, str) and target.lower().startswith(("postgresql://", "postgres://"))


def check_target(target: str | os.PathLike[str]) -> None:
    """Raises ``ValueError`` with a clear message when ``target`` is neither a well-formed
    ``postgresql://`` URL nor the path of a SQLite file that can be opened; creates nothing."""
    if is_postgres_url(target):
        text = str(target)
        try:
            parts = urlsplit(text)
            parts.port  # noqa: B018 - raises for a port that is not a number
        except ValueError as exc:
            raise ValueError(f"malformed PostgreSQL URL {text!r}: {exc}") from None
        if not parts.hostname and "host=" not in parts.query:
            raise ValueError(f"malformed PostgreSQL URL {text!r}: no host")
        try:
            from psycopg.conninfo import conninfo_to_dict
        except ImportError as exc:
            raise ValueError(f"{text!r} needs psycopg: install the 'postgres' extra ({exc})") from None
        try:
            conninfo_to_dict(text)
        except Exception as exc:
            raise ValueError(f"malformed PostgreSQL URL {text!r}: {exc}") from None
        return
    text = os.fspath(target)
    if isinstance(text, bytes) or not text:
        raise ValueError(f"not a database path or URL: {target!r}")
    if "://" in text:
        raise ValueError(f"unsupported database URL {text!r}: use postgresql://... or a SQLite file path")
    path = Path(text)
    if path.exists():
        if not path.is_file():
            raise ValueError(f"cannot open {text!r} as a SQLite database: it is not a file")
        if not os.access(path, os.R_OK | os.W_OK):
            raise ValueError(f"cannot open {text!r} as a SQLite database: no read and write permission")
        # The header, not a connection: opening a database in WAL mode would create its side files.
        try:
            with open(path, "rb") as f:
                header = f.read(16)
        except OSError as exc:
            raise ValueError(f"cannot open {text!r} as a SQLite database: {exc.strerror}") from None
        if header and header != b"SQLite format 3\x00":
            raise ValueError(f"cannot open {text!r} as a SQLite database: the file is not a database")
        return
    parent = path.parent
    if not parent.is_dir():
        raise ValueError(f"cannot create the SQLite database {text!r}: directory {str(parent)!r} does not exist")
    if not os.access(parent, os.W_OK | os.X_OK):
        raise ValueError(f"cannot create the SQLite database {text!r}: directory {str(parent)!r} is not writable")


def open_health(target: Target, limits: ToolsConfig | None) -> HealthHandle:
    """A plain tracker over a ``Repository``, or a shared one over a SQLite path or a PostgreSQL URL.

    Blocking; the registry must already be installed as ``health.TOOLS``. In shared mode the first
    sync runs here: a store that cannot be reached is logged and the tracker starts from local state.
    """
    if isinstance(target, Repository):
        return PlainHealth(health.ToolHealthTracker(target, limits))
    check_target(target)
    store: Store = PostgresStore(str(target)) if is_postgres_url(target) else SqliteStore(os.fspath(target))
    handle = SharedHealth(store, limits)
    handle.sync()
    return handle


class PlainHealth:
    """The single-process tracker: ``sync`` is ``flush``."""

    def __init__(self, tracker: health.ToolHealthTracker) -> None:
        self.tracker = tracker

    def sync(self) -> int:
        return self.tracker.flush() if self.tracker.has_unsaved_changes else 0

    def close(self) -> None:
        try:
            self.sync()
        except Exception:
            logger.exception("Could not write the tool health at shutdown")


# ---------------------------------------------------------------- batches


@dataclass
class ToolChange:
    """What one process changed of one tool between two snapshots."""

    calls: int = 0
    errors: int = 0
    updated_at: float = 0.0
    err_ts: float | None = None  # last_error was written at this time (None: not written)
    last_error: Any = None
    err_seq: int = 0
    dis_ts: float | None = None  # the disabled register was written at this time (None: not written)
    disabled_at: float | None = None
    dis_seq: int = 0

    def absorb(self, later: ToolChange) -> None:
        self.calls += later.calls
        self.errors += later.errors
        self.updated_at = max(self.updated_at, later.updated_at)
        if later.err_ts is not None:
            self.err_ts, self.last_error, self.err_seq = later.err_ts, later.last_error, later.err_seq
        if later.dis_ts is not None:
            self.dis_ts, self.disabled_at, self.dis_seq = later.dis_ts, later.disabled_at, later.dis_seq


@dataclass
class Batch:
    """Increments numbered by the process's sequence. Once ``maybe_applied`` (the commit was under
    way when the exchange failed) it is re-sent unchanged; before that, later increments join it."""

    seq: int
    tools: dict[str, ToolChange] = field(default_factory=dict)
    usage: dict[UsageKey, list[float]] = field(default_factory=dict)
    maybe_applied: bool = False

    def absorb(self, tools: dict[str, ToolChange], usage: dict[UsageKey, list[float]]) -> None:
        for name, change in tools.items():
            change.err_seq = change.dis_seq = self.seq
            mine = self.tools.get(name)
            if mine is None:
                self.tools[name] = change
            else:
                mine.absorb(change)
        for key, counts in usage.items():
            have = self.usage.get(key)
            if have is None:
                self.usage[key] = counts
            else:
                for i in range(3):
                    have[i] += counts[i]

    @property
    def rows(self) -> int:
        return len(self.tools) + len(self.usage)


@dataclass
class Combined:
    """The batches a store has not applied yet, summed, with every time clamped to the store's clock."""

    last_seq: int
    tools: dict[str, ToolChange]
    usage: dict[UsageKey, list[float]]


def combine(batches: Sequence[Batch], applied_seq: int, store_now: float) -> Combined:
    tools: dict[str, ToolChange] = {}
    usage: dict[UsageKey, list[float]] = {}
    last = applied_seq
    for batch in batches:
        if batch.seq <= applied_seq:
            continue  # applied by an exchange whose acknowledgement was lost
        last = max(last, batch.seq)
        for name, change in batch.tools.items():
            mine = tools.get(name)
            if mine is None:
                tools[name] = ToolChange(**change.__dict__)
            else:
                mine.absorb(change)
        for key, counts in batch.usage.items():
            have = usage.get(key)
            if have is None:
                usage[key] = list(counts)
            else:
                for i in range(3):
                    have[i] += counts[i]
    for change in tools.values():
        change.updated_at = min(change.updated_at, store_now)
        if change.err_ts is not None:
            change.err_ts = min(change.err_ts, store_now)
        if change.dis_ts is not None:
            change.dis_ts = min(change.dis_ts, store_now)
            if change.disabled_at is not None:
                change.disabled_at = min(change.disabled_at, store_now)
    return Combined(last, tools, usage)


@dataclass
class Pulled:
    """Merged totals that changed since a version: health rows (tool, calls, errors, last_error,
    disabled_at, updated_at) and usage rows (key, calls, timed_calls, total_ms)."""

    version: int
    tools: list[tuple[str, int, int, Any, float | None, float]]
    usage: list[tuple[UsageKey, int, int, float]]


def storable(text: object) -> bool:
    """Whether a name can go to a store: text that UTF-8 can carry (a lone surrogate cannot)."""
    if type(text) is not str:
        return False
    try:
        text.encode("utf-8")
    except UnicodeEncodeError:
        return False
    return True


def storable_message(message: Any) -> str | None:
    if message is None or storable(message):
        return message  # type: ignore[no-any-return]
    return str(message).encode("utf-8", "backslashreplace").decode("utf-8")


@functools.lru_cache(maxsize=1 << 16)
def usage_key_text(key: UsageKey) -> str | None:
    """The store's primary key of a usage key: its JSON, ASCII only, so that every process and every
    Python version makes the same text of it. None for a key no store can hold (it stays local)."""
    tool, action, outcome, alias_hit = key
    if not (storable(tool) and storable(outcome) and type(alias_hit) is bool
            and (action is None or storable(action))):
        return None
    return json.dumps(key, separators=(",", ":"))


def document_prefix(tool: str, action: str | None, outcome: str, alias_hit: bool) -> str:
    """The unchanging head of a usage document row, laid out as the tracker's flush lays it out."""
    dump = json.dumps
    return (f'{{"tool":{dump(tool)},"action":{dump(action)},"outcome":{dump(outcome)},'
            f'"alias_hit":{"true" if alias_hit else "false"},')


def document_row(prefix: str, calls: int, timed_calls: int, total_ms: float) -> str:
    return f'{prefix}"calls":{calls},"timed_calls":{timed_calls},"total_ms":{round(total_ms, 3)!r}}}'


def health_params(pid: str, version: int, name: str, c: ToolChange) -> tuple[Any, ...]:
    err = c.err_ts is not None
    dis = c.dis_ts is not None
    return (name, c.calls, c.errors,
            c.last_error if err else None, c.err_ts if err else _NO_STAMP, pid if err else "", c.err_seq if err else 0,
            c.disabled_at if dis else None, c.dis_ts if dis else _NO_STAMP, pid if dis else "", c.dis_seq if dis else 0,
            c.updated_at, version)


def usage_params(version: int, combined: Combined) -> list[tuple[Any, ...]]:
    rows = []
    for key, (calls, timed, total) in combined.usage.items():
        text = usage_key_text(key)
        if text is not None:
            rows.append((text, key[0], key[1], key[2], key[3], int(calls), int(timed), float(total), version))
    return rows


def _register(column: str) -> str:
    """The SET clauses of one last-writer-wins register: taken when the incoming order key is greater."""
    newer = (f"(excluded.{column}_ts, excluded.{column}_pid, excluded.{column}_seq) > "
             f"(sv_health.{column}_ts, sv_health.{column}_pid, sv_health.{column}_seq)")
    value = "last_error" if column == "err" else "disabled_at"
    return ",\n".join(f"{c} = CASE WHEN {newer} THEN excluded.{c} ELSE sv_health.{c} END"
                      for c in (value, f"{column}_ts", f"{column}_pid", f"{column}_seq"))


def merge_health_sql(placeholders: str, greatest: str) -> str:
    """The upsert that merges one tool's increments: sums, and the two registers by their order key."""
    return f"""INSERT INTO sv_health (tool, call_count, error_count, last_error, err_ts, err_pid, err_seq,
                       disabled_at, dis_ts, dis_pid, dis_seq, updated_at, version)
{placeholders}
ON CONFLICT (tool) DO UPDATE SET
call_count = sv_health.call_count + excluded.call_count,
error_count = sv_health.error_count + excluded.error_count,
{_register("err")},
{_register("dis")},
updated_at = {greatest}(sv_health.updated_at, excluded.updated_at),
version = excluded.version"""


def merge_usage_sql(placeholders: str) -> str:
    return f"""INSERT INTO sv_usage (ukey, tool, action, outcome, alias_hit, calls, timed_calls, total_ms, version)
{placeholders}
ON CONFLICT (ukey) DO UPDATE SET
calls = sv_usage.calls + excluded.calls,
timed_calls = sv_usage.timed_calls + excluded.timed_calls,
total_ms = sv_usage.total_ms + excluded.total_ms,
version = excluded.version"""


class Store(Protocol):
    """A shared store: ``exchange`` applies the batches it has not seen from ``pid`` and answers
    the totals changed since ``seen`` (all of it in one transaction); ``close`` lets go of it."""

    description: str

    def exchange(self, pid: str, batches: Sequence[Batch], seen: int) -> Pulled: ...

    def close(self) -> None: ...


def _parse_usage_document(text: Any) -> list[tuple[UsageKey, int, int, float]]:
    """The rows of a usage document a plain tracker wrote, for seeding a new shared store."""
    rows: dict[UsageKey, tuple[UsageKey, int, int, float]] = {}
    if not isinstance(text, str):
        return []
    try:
        for item in json.loads(text):
            key = (str(item["tool"]), item["action"], str(item["outcome"]), bool(item["alias_hit"]))
            # a later row with the same key replaces the earlier one, as the tracker reads it
            rows[key] = (key, int(item["calls"]), int(item["timed_calls"]), float(item["total_ms"]))
    except Exception as exc:
        logger.warning("Could not read the tool usage counts to seed the shared store: %s", exc)
        return []
    return list(rows.values())


class UsageMirror:
    """The store's whole usage table as of ``version``, kept by the store object between exchanges:
    the counts and the laid-out document row of every usage key, in the table's order. Holding the
    store's write lock, an exchange reads the rows that changed since (``PULL``: other processes'
    work), adds its own increments, and lays out again only the rows that changed: the document is
    written without reading the whole table."""

    PULL = ("SELECT ukey, tool, action, outcome, alias_hit, calls, timed_calls, total_ms, version FROM sv_usage "
            "WHERE version > {p} ORDER BY {order}")

    def __init__(self) -> None:
        self.version = 0
        self.counts: dict[str, tuple[int, int, float]] = {}
        self.prefix: dict[str, str] = {}
        self.rows: dict[str, str] = {}

    def merge(
        self, pulled: Sequence[Sequence[Any]], written: Combined, seen: int
    ) -> tuple[list[tuple[UsageKey, int, int, float]], dict[str, tuple[int, int, float]], dict[str, str]]:
        """From the rows read before this exchange's writes and its increments: the merged rows the
        handle must take in (those changed by others since ``seen``), and the new counts and layout."""
        fresh: dict[str, tuple[UsageKey, tuple[int, int, float]]] = {}
        usage: list[tuple[UsageKey, int, int, float]] = []
        increments = {usage_key_text(key): (key, counts) for key, counts in written.usage.items()}
        for r in pulled:
            key: UsageKey = (r[1], r[2], r[3], bool(r[4]))
            values = (int(r[5]), int(r[6]), float(r[7]))
            mine = increments.pop(r[0], None)
            if mine is not None:
                values = (values[0] + int(mine[1][0]), values[1] + int(mine[1][1]), values[2] + float(mine[1][2]))
            fresh[r[0]] = (key, values)
            if r[8] > seen:
                usage.append((key, *values))
        for ukey, (key, (calls, timed, total)) in increments.items():  # rows only this process changed
            if ukey is None:
                continue
            old = self.counts.get(ukey, _ZERO_USAGE)
            fresh[ukey] = (key, (old[0] + int(calls), old[1] + int(timed), old[2] + float(total)))
        counts, rows, prefixes = self.counts.copy(), self.rows.copy(), self.prefix
        for ukey, (key, new) in fresh.items():  # new keys go to the end, in the table's order
            prefix = prefixes.get(ukey)
            if prefix is None:
                prefix = prefixes[ukey] = document_prefix(*key)
            counts[ukey] = new
            rows[ukey] = document_row(prefix, *new)
        return usage, counts, rows

    def document(self, rows: dict[str, str]) -> str:
        return "[" + ",".join(rows.values()) + "]"

    def commit(self, version: int, counts: dict[str, tuple[int, int, float]], rows: dict[str, str]) -> None:
        self.version, self.counts, self.rows = version, counts, rows


# ---------------------------------------------------------------- SQLite


SQLITE_TABLES = (
    """CREATE TABLE IF NOT EXISTS sv_meta (id INTEGER PRIMARY KEY CHECK (id = 1), version INTEGER NOT NULL)""",
    """CREATE TABLE IF NOT EXISTS sv_process (
        process_id TEXT PRIMARY KEY, last_seq INTEGER NOT NULL, started_at REAL, synced_at REAL)""",
    """CREATE TABLE IF NOT EXISTS sv_health (
        tool TEXT PRIMARY KEY, call_count INTEGER NOT NULL, error_count INTEGER NOT NULL,
        last_error TEXT, err_ts REAL NOT NULL, err_pid TEXT NOT NULL, err_seq INTEGER NOT NULL,
        disabled_at REAL, dis_ts REAL NOT NULL, dis_pid TEXT NOT NULL, dis_seq INTEGER NOT NULL,
        updated_at REAL NOT NULL, version INTEGER NOT NULL)""",
    """CREATE INDEX IF NOT EXISTS sv_health_version ON sv_health (version)""",
    """CREATE TABLE IF NOT EXISTS sv_usage (
        ukey TEXT PRIMARY KEY, tool TEXT NOT NULL, action TEXT, outcome TEXT NOT NULL, alias_hit INTEGER NOT NULL,
        calls INTEGER NOT NULL, timed_calls INTEGER NOT NULL, total_ms REAL NOT NULL, version INTEGER NOT NULL)""",
    """CREATE INDEX IF NOT EXISTS sv_usage_version ON sv_usage (version)""",
)

WRITE_HEALTH = """INSERT INTO tool_health (tool_name, call_count, error_count, last_error, disabled_at, updated_at)
VALUES (?, ?, ?, ?, ?, ?)
ON CONFLICT(tool_name) DO UPDATE SET call_count = excluded.call_count, error_count = excluded.error_count,
last_error = excluded.last_error, disabled_at = excluded.disabled_at, updated_at = excluded.updated_at"""


def _seed_rows_from_mirror(
    health_rows: Sequence[Sequence[Any]], now: float
) -> list[tuple[Any, ...]]:
    rows = []
    for name, calls, errors, last_error, disabled_at, updated_at in health_rows:
        updated = health._epoch(updated_at) or 0.0
        disabled = health._epoch(disabled_at)
        rows.append((str(name), int(calls or 0), int(errors or 0), last_error,
                     updated if last_error is not None else _NO_STAMP, "", 0,
                     disabled, updated if disabled is not None else _NO_STAMP, "", 0, min(updated, now), 1))
    return rows


class SqliteStore:
    """Many processes on one machine share a SQLite file. The syncing thread alone waits for the
    file's write lock (busy timeout); a lock not had in time fails the exchange, which the next
    sync retries."""

    def __init__(self, path: str, busy_timeout_s: float = SQLITE_BUSY_TIMEOUT_S) -> None:
        self.path = path
        self.description = f"SQLite file {path}"
        self.busy_timeout_s = busy_timeout_s
        self._conn: sqlite3.Connection | None = None
        self._mirror = UsageMirror()

    def _connect(self) -> sqlite3.Connection:
        conn = sqlite3.connect(self.path, timeout=self.busy_timeout_s, isolation_level=None, check_same_thread=False)
        try:
            conn.execute(f"PRAGMA busy_timeout={int(self.busy_timeout_s * 1000)}")
            if conn.execute("PRAGMA journal_mode").fetchone()[0] != "wal":
                conn.execute("PRAGMA journal_mode=WAL")
            conn.execute("PRAGMA synchronous=NORMAL")
            self._create(conn)
        except BaseException:
            conn.close()
            raise
        return conn

    def _create(self, conn: sqlite3.Connection) -> None:
        if conn.execute("SELECT 1 FROM sqlite_master WHERE name = 'sv_meta'").fetchone() is not None:
            return
        conn.execute("BEGIN IMMEDIATE")
        try:
            if conn.execute("SELECT 1 FROM sqlite_master WHERE name = 'sv_meta'").fetchone() is None:
                for statement in (*SCHEMA, *SQLITE_TABLES):
                    conn.execute(statement)
                # A file a plain tracker kept: its totals are where the shared history starts.
                mirror = conn.execute("SELECT tool_name, call_count, error_count, last_error, disabled_at, updated_at "
                                      "FROM tool_health").fetchall()
                conn.executemany(merge_health_sql("VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)", "max"),
                                 _seed_rows_from_mirror(mirror, time.time()))
                doc = conn.execute("SELECT value FROM schema_info WHERE key = ?", (health.TOOL_USAGE_KEY,)).fetchone()
                usage = [(usage_key_text(k), *k, c, t, ms, 1) for k, c, t, ms in
                         _parse_usage_document(doc[0] if doc else None)]
                conn.executemany(merge_usage_sql("VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)"),
                                 [row for row in usage if row[0] is not None])
                conn.execute("INSERT INTO sv_meta (id, version) VALUES (1, 1)")
            conn.execute("COMMIT")
        except BaseException:
            if conn.in_transaction:
                conn.rollback()
            raise

    def exchange(self, pid: str, batches: Sequence[Batch], seen: int) -> Pulled:
        if self._conn is None:
            self._conn = self._connect()
        conn = self._conn
        try:
            conn.execute("BEGIN IMMEDIATE" if batches else "BEGIN")
            version = int(conn.execute("SELECT version FROM sv_meta WHERE id = 1").fetchone()[0])
            mirror = self._mirror
            since = min(seen, mirror.version)
            # Read under the write lock, before this exchange's own writes: only other processes' work.
            pulled = conn.execute(UsageMirror.PULL.format(p="?", order="rowid"), (since,)).fetchall()
            combined = Combined(0, {}, {})
            if batches:
                row = conn.execute("SELECT last_seq FROM sv_process WHERE process_id = ?", (pid,)).fetchone()
                now = time.time()
                combined = combine(batches, int(row[0]) if row else 0, now)
                if combined.tools or combined.usage:
                    version += 1
                    conn.execute("UPDATE sv_meta SET version = ? WHERE id = 1", (version,))
                    conn.executemany(merge_health_sql("VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)", "max"),
                                     [health_params(pid, version, n, c) for n, c in combined.tools.items()])
                    conn.executemany(merge_usage_sql("VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)"),
                                     usage_params(version, combined))
                conn.execute("INSERT INTO sv_process (process_id, last_seq, started_at, synced_at) VALUES (?, ?, ?, ?) "
                             "ON CONFLICT (process_id) DO UPDATE SET last_seq = excluded.last_seq, "
                             "synced_at = excluded.synced_at", (pid, combined.last_seq, now, now))
            tools = [(r[0], int(r[1]), int(r[2]), r[3], r[4], float(r[5]), int(r[6])) for r in conn.execute(
                "SELECT tool, call_count, error_count, last_error, disabled_at, updated_at, version "
                "FROM sv_health WHERE version > ?", (seen,))]
            usage, counts, rows = mirror.merge(pulled, combined, seen)
            if combined.tools:
                conn.executemany(WRITE_HEALTH, [
                    (name, calls, errors, err, health._sqlite_time(dis), health._sqlite_time(upd))
                    for name, calls, errors, err, dis, upd, v in tools if v == version])
            if combined.usage:
                conn.execute("INSERT OR REPLACE INTO schema_info (key, value) VALUES (?, ?)",
                             (health.TOOL_USAGE_KEY, mirror.document(rows)))
            for batch in batches:
                batch.maybe_applied = True
            conn.execute("COMMIT")
        except BaseException:
            self._abandon()
            raise
        mirror.commit(version, counts, rows)
        return Pulled(version, [t[:6] for t in tools], usage)

    def _abandon(self) -> None:
        conn, self._conn = self._conn, None
        if conn is not None:
            try:
                conn.close()  # rolls back whatever was open
            except Exception:
                pass

    def close(self) -> None:
        self._abandon()


# ---------------------------------------------------------------- PostgreSQL


PG_TABLES = (
    """CREATE TABLE IF NOT EXISTS tool_health (
        tool_name TEXT PRIMARY KEY, call_count BIGINT NOT NULL DEFAULT 0, error_count BIGINT NOT NULL DEFAULT 0,
        last_error TEXT, disabled_at TEXT, updated_at TEXT)""",
    """CREATE TABLE IF NOT EXISTS schema_info (key TEXT PRIMARY KEY, value TEXT)""",
    """CREATE TABLE IF NOT EXISTS sv_meta (id INTEGER PRIMARY KEY CHECK (id = 1), version BIGINT NOT NULL)""",
    """CREATE TABLE IF NOT EXISTS sv_process (
        process_id TEXT PRIMARY KEY, last_seq BIGINT NOT NULL, started_at DOUBLE PRECISION,
        synced_at DOUBLE PRECISION)""",
    """CREATE TABLE IF NOT EXISTS sv_health (
        tool TEXT PRIMARY KEY, call_count BIGINT NOT NULL, error_count BIGINT NOT NULL,
        last_error TEXT, err_ts DOUBLE PRECISION NOT NULL, err_pid TEXT COLLATE "C" NOT NULL, err_seq BIGINT NOT NULL,
        disabled_at DOUBLE PRECISION, dis_ts DOUBLE PRECISION NOT NULL, dis_pid TEXT COLLATE "C" NOT NULL,
        dis_seq BIGINT NOT NULL, updated_at DOUBLE PRECISION NOT NULL, version BIGINT NOT NULL)""",
    """CREATE INDEX IF NOT EXISTS sv_health_version ON sv_health (version)""",
    """CREATE TABLE IF NOT EXISTS sv_usage (
        ukey TEXT PRIMARY KEY, tool TEXT NOT NULL, action TEXT, outcome TEXT NOT NULL, alias_hit BOOLEAN NOT NULL,
        calls BIGINT NOT NULL, timed_calls BIGINT NOT NULL, total_ms DOUBLE PRECISION NOT NULL,
        version BIGINT NOT NULL, ord BIGINT GENERATED BY DEFAULT AS IDENTITY)""",
    """CREATE INDEX IF NOT EXISTS sv_usage_version ON sv_usage (version)""",
)

_PG_TIME = "to_char(to_timestamp({0}) AT TIME ZONE 'UTC', 'YYYY-MM-DD HH24:MI:SS')"

PG_MERGE_HEALTH = merge_health_sql(
    "SELECT * FROM unnest(%s::text[], %s::bigint[], %s::bigint[], %s::text[], %s::float8[], %s::text[], %s::bigint[],"
    " %s::float8[], %s::float8[], %s::text[], %s::bigint[], %s::float8[], %s::bigint[])", "GREATEST")
PG_MERGE_USAGE = merge_usage_sql(
    "SELECT * FROM unnest(%s::text[], %s::text[], %s::text[], %s::text[], %s::boolean[], %s::bigint[], %s::bigint[],"
    " %s::float8[], %s::bigint[])")
PG_MIRROR = f"""INSERT INTO tool_health (tool_name, call_count, error_count, last_error, disabled_at, updated_at)
SELECT tool, call_count, error_count, last_error, {_PG_TIME.format("disabled_at")}, {_PG_TIME.format("updated_at")}
FROM sv_health WHERE version = %s
ON CONFLICT (tool_name) DO UPDATE SET call_count = excluded.call_count, error_count = excluded.error_count,
last_error = excluded.last_error, disabled_at = excluded.disabled_at, updated_at = excluded.updated_at"""
PG_PULL_HEALTH = ("SELECT tool, call_count, error_count, last_error, disabled_at, updated_at FROM sv_health "
                  "WHERE version > %s")


def _columns(rows: Sequence[Sequence[Any]], width: int) -> list[list[Any]]:
    return [[row[i] for row in rows] for i in range(width)]


class PostgresStore:
    """Processes on many machines share a PostgreSQL database (psycopg 3, the ``postgres`` extra).

    A sync with changes takes two round trips: the first locks the store's version counter (so
    that versions follow commit order) and reads the process's last applied sequence, the
    server's clock and the usage rows other processes changed; the second, one pipeline, merges
    every row through arrays, advances the ledger, rewrites the changed ``tool_health`` rows and
    the usage document, reads back the changed health rows and commits. A sync without changes
    is one round trip.
    """

    def __init__(self, url: str, connect_timeout_s: int = PG_CONNECT_TIMEOUT_S) -> None:
        try:
            import psycopg  # noqa: F401
        except ImportError as exc:  # pragma: no cover - exercised where psycopg is missing
            raise ImportError(
                "a postgresql:// target needs psycopg 3: install the 'postgres' extra "
                "(pip install 'ordanis-veltrane-health[postgres]')") from exc
        self.url = url
        parts = urlsplit(url)
        self.description = f"PostgreSQL {parts.hostname or ''}:{parts.port or 5432}{parts.path}"
        self.connect_timeout_s = connect_timeout_s
        self._conn: psycopg.Connection[tuple[Any, ...]] | None = None
        self._mirror = UsageMirror()
        self.round_trips = 0  # counted by the code that waits for the server: for the benchmark

    def _connect(self) -> psycopg.Connection[tuple[Any, ...]]:
        import psycopg

        conn = psycopg.connect(self.url, autocommit=True, connect_timeout=self.connect_timeout_s,
                               application_name="ordanis_veltrane.sharing")
        try:
            with conn.transaction():
                conn.execute("SELECT pg_advisory_xact_lock(7412093411)")  # one creator at a time
                exists = conn.execute("SELECT to_regclass('sv_meta') IS NOT NULL").fetchone()
                if not (exists and exists[0]):
                    for statement in PG_TABLES:
                        conn.execute(statement)
                    with conn.cursor() as cur:
                        cur.execute("SELECT tool_name, call_count, error_count, last_error, disabled_at, updated_at "
                                    "FROM tool_health")
                        rows = _seed_rows_from_mirror(cur.fetchall(), time.time())
                        if rows:
                            cur.execute(PG_MERGE_HEALTH, _columns(rows, 13))
                        cur.execute("SELECT value FROM schema_info WHERE key = %s", (health.TOOL_USAGE_KEY,))
                        doc = cur.fetchone()
                        usage = [(usage_key_text(k), *k, c, t, ms, 1) for k, c, t, ms in
                                 _parse_usage_document(doc[0] if doc else None)]
                        usage = [row for row in usage if row[0] is not None]
                        if usage:
                            cur.execute(PG_MERGE_USAGE, _columns(usage, 9))
                    conn.execute("INSERT INTO sv_meta (id, version) VALUES (1, 1)")
        except BaseException:
            conn.close()
            raise
        return conn

    def exchange(self, pid: str, batches: Sequence[Batch], seen: int) -> Pulled:
        if self._conn is None:
            self._conn = self._connect()
        conn = self._conn
        try:
            mirror = self._mirror
            since = min(seen, mirror.version)
            pull_usage = UsageMirror.PULL.format(p="%s", order="ord")
            if not batches:
                with conn.pipeline():
                    conn.execute("BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY")
                    v = conn.execute("SELECT version FROM sv_meta WHERE id = 1")
                    h = conn.execute(PG_PULL_HEALTH, (seen,))
                    u = conn.execute(pull_usage, (since,))
                    conn.execute("COMMIT")
                self.round_trips += 1
                row = v.fetchone()
                version = int(row[0]) if row else seen
                usage, counts, rows = mirror.merge(u.fetchall(), Combined(0, {}, {}), seen)
                mirror.commit(version, counts, rows)
                return Pulled(version, self._health_rows(h.fetchall()), usage)
            # Round trip 1: the version counter's row lock makes this the only writer until it commits
            # (so versions follow commit order); the ledger, the server's clock, and the usage rows
            # other processes changed since this one's mirror.
            with conn.pipeline():
                conn.execute("BEGIN")
                m = conn.execute("UPDATE sv_meta SET version = version + 1 WHERE id = 1 "
                                 "RETURNING version, extract(epoch FROM clock_timestamp())::float8")
                p = conn.execute("SELECT last_seq FROM sv_process WHERE process_id = %s", (pid,))
                u = conn.execute(pull_usage, (since,))
            self.round_trips += 1
            meta, led = m.fetchone(), p.fetchone()
            assert meta is not None
            version, now = int(meta[0]), float(meta[1])
            combined = combine(batches, int(led[0]) if led else 0, now)
            usage, counts, rows = mirror.merge(u.fetchall(), combined, seen)
            # Round trip 2: every write, through arrays whatever the number of rows, and the commit.
            with conn.pipeline():
                if combined.tools:
                    conn.execute(PG_MERGE_HEALTH, _columns(
                        [health_params(pid, version, n, c) for n, c in combined.tools.items()], 13))
                params = usage_params(version, combined)
                if params:
                    conn.execute(PG_MERGE_USAGE, _columns(params, 9))
                conn.execute("INSERT INTO sv_process (process_id, last_seq, started_at, synced_at) "
                             "VALUES (%s, %s, %s, %s) ON CONFLICT (process_id) DO UPDATE SET "
                             "last_seq = excluded.last_seq, synced_at = excluded.synced_at",
                             (pid, combined.last_seq, now, now))
                if combined.tools:
                    conn.execute(PG_MIRROR, (version,))
                if combined.usage:
                    conn.execute("INSERT INTO schema_info (key, value) VALUES (%s, %s) "
                                 "ON CONFLICT (key) DO UPDATE SET value = excluded.value",
                                 (health.TOOL_USAGE_KEY, mirror.document(rows)))
                h = conn.execute(PG_PULL_HEALTH, (seen,))
                for batch in batches:
                    batch.maybe_applied = True
                conn.execute("COMMIT")
            self.round_trips += 1
            mirror.commit(version, counts, rows)
            return Pulled(version, self._health_rows(h.fetchall()), usage)
        except BaseException:
            self._abandon()
            raise

    @staticmethod
    def _health_rows(rows: list[tuple[Any, ...]]) -> list[tuple[str, int, int, Any, float | None, float]]:
        return [(r[0], int(r[1]), int(r[2]), r[3], r[4], float(r[5])) for r in rows]

    def _abandon(self) -> None:
        conn, self._conn = self._conn, None
        if conn is not None:
            try:
                conn.close()
            except Exception:
                pass

    def close(self) -> None:
        self._abandon()


# ---------------------------------------------------------------- the shared tracker


def new_process_id() -> str:
    return f"{socket.gethostname()}/{os.getpid()}/{uuid.uuid4().hex[:12]}"


class SharedHealth:
    """A tracker whose counts and health are shared through a store.

    The tracker is built over a private in-memory repository, so its constructor prunes nothing
    shared; the first sync seeds it from the store with the tools and actions the registry
    (``health.TOOLS``) knows. ``sync`` runs on one thread at a time (it blocks on the store);
    ``close`` makes a last sync and lets go of the store.
    """

    def __init__(self, store: Store, limits: ToolsConfig | None, process_id: str | None = None) -> None:
        self._private = Repository(":memory:")
        self.tracker: health.ToolHealthTracker = health.ToolHealthTracker(self._private, limits)
        self.store = store
        self.process_id = process_id or new_process_id()
        self.seq = 0
        self.pending: list[Batch] = []
        self._acc_tools: dict[str, ToolSnap] = {}
        self._acc_usage: dict[UsageKey, UsageSnap] = {}
        self.seen = 0
        self.synced_calls = 0  # call_count increments the store has acknowledged from this process
        self.synced_usage_calls = 0  # and usage calls
        # Hooks for audits (the soak test's logs): before each exchange, with the batches about to be
        # sent (``pending``), and after each acknowledged one.
        self.before_exchange: Callable[[SharedHealth], None] | None = None
        self.on_synced: Callable[[SharedHealth], None] | None = None
        self._syncs = 0
        self._sync_lock = threading.Lock()
        self._outage_since: float | None = None
        self._closed = False

    @property
    def connected(self) -> bool:
        return self._outage_since is None

    def sync(self) -> int:
        """Sends this process's increments and takes in everyone's; answers the rows sent.
        Never raises for a store that cannot be reached: the increments wait for the next sync."""
        with self._sync_lock:
            if self._closed:
                return 0
            return self._sync()

    def close(self) -> None:
        with self._sync_lock:
            if self._closed:
                return
            try:
                self._sync()
                if self.pending:
                    logger.warning("Closing with %d tool health change(s) the %s has not acknowledged",
                                   sum(b.rows for b in self.pending), self.store.description)
            finally:
                self._closed = True
                self.store.close()
                self._private.close()

    def _snapshot(self) -> tuple[dict[str, ToolSnap], dict[UsageKey, UsageSnap] | None, set[str]]:
        """Copies, under the lock, the records the change marks name (every record now and then, in case
        something else cleared a mark) and the usage counts when any changed; clears the marks. A record
        left out equals what the store last gave this process, so its increments are nil."""
        full = self._syncs % FULL_SCAN_EVERY == 0
        self._syncs += 1
        t = self.tracker
        t._lock.acquire()
        try:
            state = t._state
            dirty = set(t._dirty)
            # attrgetter and zip keep the copying loops in C: the lock is held for as short as can be.
            if full:
                tools: dict[str, ToolSnap] = dict(zip(state.keys(), map(_TOOL_FIELDS, state.values())))
            else:
                tools = {name: _TOOL_FIELDS(state[name]) for name in dirty if name in state}
            usage: dict[UsageKey, UsageSnap] | None = None
            if full or t._usage_dirty:
                usage = dict(zip(t._usage.keys(), map(_USAGE_FIELDS, t._usage.values())))
            t._dirty.clear()
            t._usage_dirty = False
        finally:
            t._lock.release()
        return tools, usage, dirty

    def _increments(
        self, tools: dict[str, ToolSnap], usage: dict[UsageKey, UsageSnap] | None
    ) -> tuple[dict[str, ToolChange], dict[UsageKey, list[float]]]:
        changes: dict[str, ToolChange] = {}
        for name, cur in tools.items():
            acc = self._acc_tools.get(name, _ZERO_TOOL)
            if cur == acc or not storable(name):
                continue  # unchanged, or a name no store can hold: it stays in this process
            change = ToolChange(calls=max(cur[0] - acc[0], 0), errors=max(cur[1] - acc[1], 0), updated_at=cur[4])
            if cur[1] > acc[1] or cur[2] != acc[2]:
                change.err_ts, change.last_error = cur[4], storable_message(cur[2])
            if cur[3] != acc[3]:
                # A disable is stamped with its own time; an enable with the record's last change.
                change.dis_ts, change.disabled_at = (cur[3] if cur[3] is not None else cur[4]), cur[3]
            changes[name] = change
            self._acc_tools[name] = cur
        counts: dict[UsageKey, list[float]] = {}
        if usage is None:
            return changes, counts
        accounted = self._acc_usage
        get = accounted.get
        for key in [key for key, ucur in usage.items() if get(key) != ucur]:
            ucur, uacc = usage[key], get(key, _ZERO_USAGE)
            if usage_key_text(key) is not None:
                counts[key] = [max(ucur[0] - uacc[0], 0), max(ucur[1] - uacc[1], 0), ucur[2] - uacc[2]]
                accounted[key] = ucur
        return changes, counts

    def _sync(self) -> int:
        tools, usage, dirty = self._snapshot()
        changes, counts = self._increments(tools, usage)
        if changes or counts:
            last = self.pending[-1] if self.pending else None
            if last is None or last.maybe_applied:
                self.seq += 1
                last = Batch(self.seq)
                self.pending.append(last)
            last.absorb(changes, counts)
        try:
            if self.before_exchange is not None and self.pending:
                self.before_exchange(self)
            pulled = self.store.exchange(self.process_id, self.pending, self.seen)
        except Exception as exc:
            self._failed(exc, dirty)
            return 0
        sent = sum(batch.rows for batch in self.pending)
        for batch in self.pending:
            self.synced_calls += sum(c.calls for c in batch.tools.values())
            self.synced_usage_calls += sum(int(c[0]) for c in batch.usage.values())
        self.pending.clear()
        if self._outage_since is not None:
            logger.warning("The %s is reachable again after %.0f s; the tool health changes kept meanwhile are "
                           "written", self.store.description, time.monotonic() - self._outage_since)
            self._outage_since = None
        self._take_in(pulled, tools, usage)
        if self.on_synced is not None:
            self.on_synced(self)
        return sent

    def _failed(self, exc: Exception, dirty: set[str]) -> None:
        names = {name for batch in self.pending for name in batch.tools} | dirty
        t = self.tracker
        t._lock.acquire()
        try:
            t._dirty.update(names)
            if any(batch.usage for batch in self.pending):
                t._usage_dirty = True
        finally:
            t._lock.release()
        if self._outage_since is None:
            self._outage_since = time.monotonic()
            logger.warning("Could not reach the %s: %s; tool health changes are kept in memory and written "
                           "once it is back", self.store.description, exc)
        else:
            logger.debug("The %s is still unreachable: %s", self.store.description, exc)

    def _take_in(
        self, pulled: Pulled, tools: dict[str, ToolSnap], usage: dict[UsageKey, UsageSnap] | None
    ) -> None:
        """Moves every count in memory by (merged - snapshot) and takes the merged health, except
        where this process changed it after the snapshot; inserts what the registry knows. A record
        the snapshot left out stood at what the store last gave (its accounted value)."""
        registry, acc_tools, acc_usage = health.TOOLS, self._acc_tools, self._acc_usage
        new_tools = {row[0] for row in pulled.tools
                     if row[0] not in tools and row[0] not in acc_tools and registry.get(row[0]) is not None}
        new_keys = {row[0] for row in pulled.usage
                    if (usage is None or row[0] not in usage) and row[0] not in acc_usage
                    and health._known(row[0][0], row[0][1])}
        if usage is None:
            usage = acc_usage
        t = self.tracker
        t._lock.acquire()
        try:
            state = t._state
            for name, calls, errors, last_error, disabled_at, updated_at in pulled.tools:
                merged: ToolSnap = (calls, errors, last_error, disabled_at, updated_at)
                base = tools.get(name) or acc_tools.get(name)
                rec = state.get(name)
                if rec is None:
                    if name in new_tools:
                        state[name] = health._ToolState(call_count=calls, error_count=errors, last_error=last_error,
                                                        disabled_at=disabled_at, updated_at=updated_at)
                        self._acc_tools[name] = merged
                    continue
                if base is None:
                    base = _ZERO_TOOL
                rec.call_count += calls - base[0]
                rec.error_count += errors - base[1]
                if rec.error_count - errors <= 0 and rec.last_error == base[2]:
                    rec.last_error = last_error  # no error here since the snapshot
                if rec.disabled_at == base[3]:  # no disable or enable here since the snapshot
                    if rec.disabled_at is not None and disabled_at is None:
                        rec.consecutive_errors = 0  # re-enabled elsewhere: a new run starts
                    rec.disabled_at = disabled_at
                if rec.updated_at == base[4]:
                    rec.updated_at = updated_at  # else a change here since the snapshot: newer than the store's
                self._acc_tools[name] = merged
            usage_map = t._usage
            for key, ucalls, timed, total in pulled.usage:
                umerged: UsageSnap = (ucalls, timed, total)
                ubase = usage.get(key) or acc_usage.get(key)
                u = usage_map.get(key)
                if u is None:
                    if key in new_keys:
                        usage_map[key] = health._Usage(ucalls, timed, total)
                        self._acc_usage[key] = umerged
                    continue
                if ubase is None:
                    ubase = _ZERO_USAGE
                u.calls += ucalls - ubase[0]
                u.timed_calls += timed - ubase[1]
                u.total_ms += total - ubase[2]
                self._acc_usage[key] = umerged
        finally:
            t._lock.release()
        # Last: should anything above fail, the next sync takes these rows in again (harmlessly).
        self.seen = max(self.seen, pulled.version)

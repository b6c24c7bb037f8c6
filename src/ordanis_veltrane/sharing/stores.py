"""The shared stores: a SQLite file for the processes of one machine, PostgreSQL for many machines.

Each applies a process's batches of increments at most once (a ledger row per process holds the
last sequence applied, advanced in the same transaction), merges them into the shared totals
(``sv_health``, ``sv_usage``) and answers the totals changed since the process's cursor, all in
one transaction. What one sync writes is proportional to what changed: the changed rows, the
ledger row, and the ``tool_health`` rows of the tools that changed.

The ``tool_usage`` document of ``schema_info``, which a plain tracker reads, holds every usage
key, so it is written apart from the syncs: by one process at a time, at most every
``MIRROR_EVERY_S`` seconds while counts change, and by each process as it closes.

Exactly once: a batch is applied in the transaction that advances the process's ledger row past
its sequence, so a batch whose acknowledgement was lost is recognised by its sequence and skipped
when it is sent again (the process re-sends it unchanged, ``Batch.maybe_applied``).
"""
from __future__ import annotations

import json
import logging
import os
import socket
import sqlite3
import threading
import time
from typing import TYPE_CHECKING, Any, Callable, Protocol, Sequence, TypeVar

from ordanis_veltrane.repository import SCHEMA
from ordanis_veltrane.sharing.batches import Batch, Combined, Pulled, ToolChange, UsageKey, combine, usage_key_text
from ordanis_veltrane.sharing.batches import clean_key, clean_message, clean_name
from ordanis_veltrane.sharing.targets import HOLD_CONNECTION, redact_url, store_options
from ordanis_veltrane.tool_handlers import health

if TYPE_CHECKING:
    import psycopg

logger: logging.Logger = logging.getLogger("ordanis_veltrane.sharing")

_NO_STAMP = -1e308  # the stamp of a register nobody has written
SQLITE_BUSY_TIMEOUT_S = 2.0
PG_CONNECT_TIMEOUT_S = 3
PG_STATEMENT_TIMEOUT_MS = 5000
# A server that accepts the connection and then answers nothing (stopped, not down) costs a sync
# at most this long: the connection is cut from the client's side.
PG_EXCHANGE_TIMEOUT_S = 6.0
MIRROR_EVERY_S = 30.0
# How often a PostgreSQL sync also reads back the counts the other processes changed (every usage
# row and every tool's counts); the other syncs read only the tools whose health registers changed.
TOTALS_EVERY_S = 30.0
# How often a PostgreSQL process looks whether the usage increments are due to be folded into the
# totals (sv_usage_delta into sv_usage), and how old the last fold must be for one to run.
FOLD_EVERY_S = 2.0
# A writer whose clock is further than this from the store's has its times moved onto the store's.
SKEW_TOLERANCE_S = 2.0
_T = TypeVar("_T")


def document_prefix(tool: str, action: str | None, outcome: str, alias_hit: bool) -> str:
    """The unchanging head of a usage document row, laid out as the tracker's flush lays it out."""
    dump = json.dumps
    return (f'{{"tool":{dump(tool)},"action":{dump(action)},"outcome":{dump(outcome)},'
            f'"alias_hit":{"true" if alias_hit else "false"},')


def usage_document(rows: Sequence[Sequence[Any]]) -> str:
    """The usage document of (tool, action, outcome, alias_hit, calls, timed_calls, total_ms) rows."""
    return "[" + ",".join(
        f'{document_prefix(r[0], r[1], r[2], bool(r[3]))}"calls":{int(r[4])},"timed_calls":{int(r[5])},'
        f'"total_ms":{round(float(r[6]), 3)!r}}}' for r in rows) + "]"


def shift(t: float, skew: float, now: float) -> float:
    """A time a writer stamped, on the store's clock: moved by the writer's skew when it is more
    than ``SKEW_TOLERANCE_S`` off the store's clock, and never ahead of the store's clock."""
    return min(t + skew if abs(skew) > SKEW_TOLERANCE_S else t, now)


def health_params(pid: str, version: int, now: float, skew: float, name: str, c: ToolChange) -> tuple[Any, ...]:
    """One merge row. ``err_seq`` and ``dis_seq`` of the row carry what the change does to the two
    registers (1: last_error written; 1: disabled, 2: enabled); times are on the store's clock."""
    err, dis = c.err, c.dis_op
    disabled_at = shift(c.disabled_at, skew, now) if dis == 1 and c.disabled_at is not None else None
    return (name, c.calls, c.errors, c.last_error if err else None, now if err else _NO_STAMP,
            pid if err else "", 1 if err else 0, disabled_at, now if dis else _NO_STAMP, pid if dis else "",
            dis, shift(c.updated_at, skew, now), version)


def usage_params(version: int, combined: Combined) -> list[tuple[Any, ...]]:
    return [(usage_key_text(key), key[0], key[1], key[2], key[3], int(calls), int(timed), float(total), version)
            for key, (calls, timed, total) in combined.usage.items()]


HEALTH_COLUMNS = ("tool, call_count, error_count, last_error, err_ts, err_pid, err_seq, disabled_at, dis_ts, "
                  "dis_pid, dis_seq, updated_at, version")
USAGE_COLUMNS = "ukey, tool, action, outcome, alias_hit, calls, timed_calls, total_ms, version"


def merge_health_sql(rows: str, greatest: str, extra: str = "") -> str:
    """Counts are summed; a register is overwritten by the change that carries it, so the last
    change applied wins (each row's updates follow commit order: the row lock orders them)."""
    def register(flag: str, columns: tuple[str, ...]) -> str:
        return ",\n".join(f"{c} = CASE WHEN excluded.{flag} > 0 THEN excluded.{c} ELSE sv_health.{c} END"
                           for c in columns)
    return f"""INSERT INTO sv_health ({HEALTH_COLUMNS}{extra and ', ' + extra})
{rows}
ON CONFLICT (tool) DO UPDATE SET
call_count = sv_health.call_count + excluded.call_count,
error_count = sv_health.error_count + excluded.error_count,
{register("err_seq", ("last_error", "err_ts", "err_pid"))},
err_seq = sv_health.err_seq + excluded.err_seq,
disabled_at = CASE excluded.dis_seq WHEN 1 THEN excluded.disabled_at WHEN 2 THEN NULL ELSE sv_health.disabled_at END,
dis_ts = CASE WHEN excluded.dis_seq > 0 THEN excluded.dis_ts ELSE sv_health.dis_ts END,
dis_pid = CASE WHEN excluded.dis_seq > 0 THEN excluded.dis_pid ELSE sv_health.dis_pid END,
dis_seq = sv_health.dis_seq + CASE WHEN excluded.dis_seq > 0 THEN 1 ELSE 0 END,
updated_at = {greatest}(sv_health.updated_at, excluded.updated_at),
version = excluded.version{extra and ', ' + extra + ' = excluded.' + extra}"""


def merge_usage_sql(rows: str, extra: str = "") -> str:
    return f"""INSERT INTO sv_usage ({USAGE_COLUMNS}{extra and ', ' + extra})
{rows}
ON CONFLICT (ukey) DO UPDATE SET
calls = sv_usage.calls + excluded.calls,
timed_calls = sv_usage.timed_calls + excluded.timed_calls,
total_ms = sv_usage.total_ms + excluded.total_ms,
version = excluded.version{extra and ', ' + extra + ' = excluded.' + extra}"""


class Store(Protocol):
    """A shared store: ``exchange`` applies the batches it has not seen from ``pid`` and answers
    the totals changed since this store object's last exchange (all in one transaction);
    ``write_mirror`` writes the usage document when due (``force``: whenever it is behind);
    ``close`` lets go of it."""

    description: str

    def exchange(self, pid: str, batches: Sequence[Batch]) -> Pulled: ...

    def write_mirror(self, force: bool = False) -> bool: ...

    def close(self) -> None: ...


def _parse_usage_document(text: Any) -> list[tuple[UsageKey, int, int, float]]:
    """The rows of a usage document a plain tracker wrote, for seeding a new shared store."""
    rows: dict[UsageKey, tuple[UsageKey, int, int, float]] = {}
    if not isinstance(text, str):
        return []
    try:
        for item in json.loads(text):
            key = clean_key((str(item["tool"]), item["action"], str(item["outcome"]), bool(item["alias_hit"])))
            # a later row with the same key replaces the earlier one, as the tracker reads it
            rows[key] = (key, int(item["calls"]), int(item["timed_calls"]), float(item["total_ms"]))
    except Exception as exc:
        logger.warning("Could not read the tool usage counts to seed the shared store: %s", exc)
        return []
    return list(rows.values())


def _seed_rows_from_mirror(health_rows: Sequence[Sequence[Any]], now: float) -> list[tuple[Any, ...]]:
    rows: dict[str, tuple[Any, ...]] = {}
    for name, calls, errors, last_error, disabled_at, updated_at in health_rows:
        updated = min(health._epoch(updated_at) or 0.0, now)
        disabled = health._epoch(disabled_at)
        rows[clean_name(name)] = (
            clean_name(name), int(calls or 0), int(errors or 0), clean_message(last_error),
            updated if last_error is not None else _NO_STAMP, "", 0,
            None if disabled is None else min(disabled, now), updated if disabled is not None else _NO_STAMP, "",
            0, updated, 1)
    return list(rows.values())


class _MirrorClock:
    """When this process next looks whether the usage document is due (a local timer, so that the
    processes of a fleet do not all ask the store at every sync)."""

    def __init__(self, every_s: float) -> None:
        self.every_s = every_s
        self.next_at = time.monotonic() + every_s * 0.5

    def due(self) -> bool:
        if time.monotonic() < self.next_at:
            return False
        self.next_at = time.monotonic() + self.every_s
        return True


# ---------------------------------------------------------------- SQLite


SQLITE_TABLES = (
    """CREATE TABLE IF NOT EXISTS sv_meta (id INTEGER PRIMARY KEY CHECK (id = 1), version INTEGER NOT NULL,
        doc_version INTEGER NOT NULL DEFAULT 0, doc_at REAL NOT NULL DEFAULT 0)""",
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
_SQLITE_NEEDED = ("sv_meta", "sv_process", "sv_health", "sv_usage", "tool_health", "schema_info")

_SQLITE_TIME = "strftime('%Y-%m-%d %H:%M:%S', {0}, 'unixepoch')"
SQLITE_MIRROR_HEALTH = f"""INSERT INTO tool_health (tool_name, call_count, error_count, last_error, disabled_at, updated_at)
SELECT tool, call_count, error_count, last_error, {_SQLITE_TIME.format("disabled_at")}, {_SQLITE_TIME.format("updated_at")}
FROM sv_health WHERE {{where}}
ON CONFLICT(tool_name) DO UPDATE SET call_count = excluded.call_count, error_count = excluded.error_count,
last_error = excluded.last_error, disabled_at = excluded.disabled_at, updated_at = excluded.updated_at"""
_USAGE_ROWS = "SELECT tool, action, outcome, alias_hit, calls, timed_calls, total_ms FROM sv_usage ORDER BY {order}"


class SqliteStore:
    """Many processes on one machine share a SQLite file. The syncing thread alone waits for the
    file's write lock (busy timeout); a lock not had in time fails the exchange, which the next
    sync retries. The file's identity (device and inode) is checked at every exchange: a file
    deleted or replaced under the process is opened again, with a warning."""

    def __init__(self, path: str, busy_timeout_s: float = SQLITE_BUSY_TIMEOUT_S,
                 mirror_every_s: float = MIRROR_EVERY_S) -> None:
        self.path = path
        self.description = f"SQLite file {path}"
        self.busy_timeout_s = busy_timeout_s
        self._conn: sqlite3.Connection | None = None
        self._identity: tuple[int, int] | None = None
        self.seen = 0  # the store's version this process has taken in
        self._mirror = _MirrorClock(mirror_every_s)
        self.mirror_every_s = mirror_every_s

    def _connect(self) -> sqlite3.Connection:
        conn = sqlite3.connect(self.path, timeout=self.busy_timeout_s, isolation_level=None, check_same_thread=False)
        try:
            conn.execute(f"PRAGMA busy_timeout={int(self.busy_timeout_s * 1000)}")
            if conn.execute("PRAGMA journal_mode").fetchone()[0] != "wal":
                conn.execute("PRAGMA journal_mode=WAL")
            conn.execute("PRAGMA synchronous=NORMAL")
            self._create(conn)
            st = os.stat(self.path)
        except BaseException:
            conn.close()
            raise
        identity = (st.st_dev, st.st_ino)
        if self._identity is not None and identity != self._identity:
            self.seen = 0  # another file: its versions start again
        self._identity = identity
        return conn

    def _create(self, conn: sqlite3.Connection) -> None:
        def missing() -> bool:
            have = {r[0] for r in conn.execute("SELECT name FROM sqlite_master WHERE type = 'table'")}
            return not set(_SQLITE_NEEDED) <= have

        if not missing():
            columns = {r[1] for r in conn.execute("PRAGMA table_info(sv_meta)")}
            if "doc_version" in columns:
                if conn.execute("SELECT 1 FROM sv_meta").fetchone() is not None:
                    return
        conn.execute("BEGIN IMMEDIATE")
        try:
            fresh = conn.execute("SELECT 1 FROM sqlite_master WHERE name = 'sv_health'").fetchone() is None
            for statement in (*SCHEMA, *SQLITE_TABLES):
                conn.execute(statement)
            columns = {r[1] for r in conn.execute("PRAGMA table_info(sv_meta)")}
            for column, kind in (("doc_version", "INTEGER"), ("doc_at", "REAL")):
                if column not in columns:  # a store made before the document was written apart
                    conn.execute(f"ALTER TABLE sv_meta ADD COLUMN {column} {kind} NOT NULL DEFAULT 0")
            if fresh:
                # A file a plain tracker kept: its totals are where the shared history starts.
                mirror = conn.execute("SELECT tool_name, call_count, error_count, last_error, disabled_at, updated_at "
                                      "FROM tool_health").fetchall()
                conn.executemany(merge_health_sql("VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)", "max"),
                                 _seed_rows_from_mirror(mirror, time.time()))
                doc = conn.execute("SELECT value FROM schema_info WHERE key = ?", (health.TOOL_USAGE_KEY,)).fetchone()
                conn.executemany(merge_usage_sql("VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)"),
                                 [(usage_key_text(k), *k, c, t, ms, 1)
                                  for k, c, t, ms in _parse_usage_document(doc[0] if doc else None)])
            conn.execute("INSERT OR IGNORE INTO sv_meta (id, version) "
                         "VALUES (1, (SELECT coalesce(max(version), 0) + 1 FROM sv_usage))")
            conn.execute("COMMIT")
        except BaseException:
            if conn.in_transaction:
                conn.rollback()
            raise

    def _open(self) -> sqlite3.Connection:
        if self._conn is not None:
            try:
                st = os.stat(self.path)
                replaced = (st.st_dev, st.st_ino) != self._identity
            except FileNotFoundError:
                replaced = True
            if replaced:
                logger.warning("The %s was deleted or replaced under this process; opening it again",
                               self.description)
                self._abandon()
        if self._conn is None:
            self._conn = self._connect()
        return self._conn

    def _run(self, work: Callable[[sqlite3.Connection], _T]) -> _T:
        """``work`` in a connection; a store whose tables went missing is made again and tried once more."""
        for attempt in (0, 1):
            conn = self._open()
            try:
                return work(conn)
            except sqlite3.OperationalError as exc:
                self._abandon()
                if attempt or "no such table" not in str(exc):
                    raise
                logger.warning("The %s lost its tables (%s); making them again", self.description, exc)
            except BaseException:
                self._abandon()
                raise
        raise AssertionError("unreachable")

    def exchange(self, pid: str, batches: Sequence[Batch]) -> Pulled:
        return self._run(lambda conn: self._exchange(conn, pid, batches))

    def _exchange(self, conn: sqlite3.Connection, pid: str, batches: Sequence[Batch]) -> Pulled:
        conn.execute("BEGIN IMMEDIATE" if batches else "BEGIN")
        row = conn.execute("SELECT version FROM sv_meta WHERE id = 1").fetchone()
        version = int(row[0]) if row else 0
        if batches:
            row = conn.execute("SELECT last_seq FROM sv_process WHERE process_id = ?", (pid,)).fetchone()
            now, skew = time.time(), 0.0  # no clock but the writers': a reader takes a time ahead as its present
            combined = combine(batches, int(row[0]) if row else 0)
            if combined.tools or combined.usage:
                version += 1
                conn.execute("INSERT INTO sv_meta (id, version) VALUES (1, ?) "
                             "ON CONFLICT (id) DO UPDATE SET version = excluded.version", (version,))
                conn.executemany(merge_health_sql("VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)", "max"),
                                 [health_params(pid, version, now, skew, n, c) for n, c in sorted(combined.tools.items())])
                conn.executemany(merge_usage_sql("VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)"),
                                 usage_params(version, combined))
                if combined.tools:
                    conn.execute(SQLITE_MIRROR_HEALTH.format(where="version = ?"), (version,))
            conn.execute("INSERT INTO sv_process (process_id, last_seq, started_at, synced_at) VALUES (?, ?, ?, ?) "
                         "ON CONFLICT (process_id) DO UPDATE SET last_seq = excluded.last_seq, "
                         "synced_at = excluded.synced_at", (pid, combined.last_seq, now, now))
        seen = self.seen if version >= self.seen else 0  # a version behind ours: the store was emptied
        tools = conn.execute("SELECT tool, call_count, error_count, last_error, disabled_at, updated_at "
                             "FROM sv_health WHERE version > ?", (seen,)).fetchall()
        usage = conn.execute("SELECT tool, action, outcome, alias_hit, calls, timed_calls, total_ms FROM sv_usage "
                             "WHERE version > ?", (seen,)).fetchall()
        for batch in batches:
            batch.maybe_applied = True
        conn.execute("COMMIT")
        self.seen = version
        return Pulled(tools, usage)

    def write_mirror(self, force: bool = False) -> bool:
        """The usage document (and every tool_health row) when the store has changed since it was
        last written, and it was written ``mirror_every_s`` ago or more (``force``: whenever)."""
        if not force and not self._mirror.due():
            return False
        return self._run(lambda conn: self._write_mirror(conn, force))

    def _write_mirror(self, conn: sqlite3.Connection, force: bool) -> bool:
        conn.execute("BEGIN IMMEDIATE")
        try:
            row = conn.execute("SELECT version, doc_version, doc_at FROM sv_meta WHERE id = 1").fetchone()
            now = time.time()
            # A time ahead of this clock counts as long ago: a fast clock cannot stop the writes.
            if row is None or row[1] >= row[0] or not (force or not 0 <= now - row[2] < self.mirror_every_s):
                conn.execute("COMMIT")
                return False
            conn.execute("INSERT OR REPLACE INTO schema_info (key, value) VALUES (?, ?)",
                         (health.TOOL_USAGE_KEY, usage_document(conn.execute(_USAGE_ROWS.format(order="rowid")))))
            conn.execute(SQLITE_MIRROR_HEALTH.format(where="version > ?"), (row[1],))
            conn.execute("UPDATE sv_meta SET doc_version = ?, doc_at = ? WHERE id = 1", (row[0], now))
            conn.execute("COMMIT")
            return True
        except BaseException:
            if conn.in_transaction:
                conn.rollback()
            raise

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
    """ALTER TABLE sv_meta ADD COLUMN IF NOT EXISTS doc_xmin BIGINT NOT NULL DEFAULT 0""",
    """ALTER TABLE sv_meta ADD COLUMN IF NOT EXISTS doc_at DOUBLE PRECISION NOT NULL DEFAULT 0""",
    """CREATE TABLE IF NOT EXISTS sv_process (
        process_id TEXT PRIMARY KEY, last_seq BIGINT NOT NULL, started_at DOUBLE PRECISION,
        synced_at DOUBLE PRECISION)""",
    """CREATE TABLE IF NOT EXISTS sv_health (
        tool TEXT PRIMARY KEY, call_count BIGINT NOT NULL, error_count BIGINT NOT NULL,
        last_error TEXT, err_ts DOUBLE PRECISION NOT NULL, err_pid TEXT COLLATE "C" NOT NULL, err_seq BIGINT NOT NULL,
        disabled_at DOUBLE PRECISION, dis_ts DOUBLE PRECISION NOT NULL, dis_pid TEXT COLLATE "C" NOT NULL,
        dis_seq BIGINT NOT NULL, updated_at DOUBLE PRECISION NOT NULL, version BIGINT NOT NULL)""",
    """ALTER TABLE sv_health ADD COLUMN IF NOT EXISTS txid BIGINT NOT NULL DEFAULT 0""",
    """CREATE INDEX IF NOT EXISTS sv_health_txid ON sv_health (txid)""",
    # rtxid: the transaction that last wrote a tool's registers (last_error, disabled_at), stamped by
    # a trigger so that the writes of every release are stamped, and read at every sync.
    """ALTER TABLE sv_health ADD COLUMN IF NOT EXISTS rtxid BIGINT NOT NULL DEFAULT 0""",
    """CREATE INDEX IF NOT EXISTS sv_health_rtxid ON sv_health (rtxid)""",
    """CREATE OR REPLACE FUNCTION sv_health_stamp_registers() RETURNS trigger LANGUAGE plpgsql AS $$
BEGIN
    IF TG_OP = 'INSERT' OR NEW.err_seq IS DISTINCT FROM OLD.err_seq OR NEW.dis_seq IS DISTINCT FROM OLD.dis_seq
            OR NEW.disabled_at IS DISTINCT FROM OLD.disabled_at THEN
        NEW.rtxid := txid_current();
    END IF;
    RETURN NEW;
END $$""",
    """DROP TRIGGER IF EXISTS sv_health_registers ON sv_health""",
    """CREATE TRIGGER sv_health_registers BEFORE INSERT OR UPDATE ON sv_health
        FOR EACH ROW EXECUTE FUNCTION sv_health_stamp_registers()""",
    """CREATE TABLE IF NOT EXISTS sv_usage (
        ukey TEXT PRIMARY KEY, tool TEXT NOT NULL, action TEXT, outcome TEXT NOT NULL, alias_hit BOOLEAN NOT NULL,
        calls BIGINT NOT NULL, timed_calls BIGINT NOT NULL, total_ms DOUBLE PRECISION NOT NULL,
        version BIGINT NOT NULL, ord BIGINT GENERATED BY DEFAULT AS IDENTITY)""",
    """ALTER TABLE sv_usage ADD COLUMN IF NOT EXISTS txid BIGINT NOT NULL DEFAULT 0""",
    """CREATE INDEX IF NOT EXISTS sv_usage_txid ON sv_usage (txid)""",
    # A sync appends its usage increments here, locking no row that another sync writes; one process
    # at a time folds them into sv_usage (PG_FOLD_USAGE). A total is sv_usage's row plus its increments.
    """CREATE TABLE IF NOT EXISTS sv_usage_delta (
        ukey TEXT NOT NULL, tool TEXT NOT NULL, action TEXT, outcome TEXT NOT NULL, alias_hit BOOLEAN NOT NULL,
        calls BIGINT NOT NULL, timed_calls BIGINT NOT NULL, total_ms DOUBLE PRECISION NOT NULL)""",
    """ALTER TABLE sv_meta ADD COLUMN IF NOT EXISTS fold_at DOUBLE PRECISION NOT NULL DEFAULT 0""",
    # The same for the counts of the tools whose registers a sync leaves alone (most of them).
    """CREATE TABLE IF NOT EXISTS sv_health_delta (
        tool TEXT NOT NULL, calls BIGINT NOT NULL, errors BIGINT NOT NULL, updated_at DOUBLE PRECISION NOT NULL)""",
    """CREATE INDEX IF NOT EXISTS sv_health_delta_tool ON sv_health_delta (tool)""",
    """DROP INDEX IF EXISTS sv_health_version""",  # the version column is no longer read: not worth indexing
    """DROP INDEX IF EXISTS sv_usage_version""",
    # A process that could not write the usage document at once leaves a row here for the writer
    # that holds it (see PostgresStore.write_mirror).
    """CREATE TABLE IF NOT EXISTS sv_doc_wanted (wanted_at DOUBLE PRECISION NOT NULL)""",
    """INSERT INTO sv_meta (id, version) VALUES (1, 1) ON CONFLICT (id) DO NOTHING""",
)
# The document writers' lock: a transaction-level advisory lock, tried and never waited for
# (released at commit or rollback, so nothing stays on a connection a pooler hands on).
PG_DOC_LOCK = 7412093412
# How many times in a row one call writes the document while others keep asking for it. Closing
# processes are finite, so the rounds end; the bound only keeps a fleet that never stops restarting
# from holding one close forever. Fewer would leave the document short when a whole fleet closes at
# once: the last closers' rows would find their writer gone.
MIRROR_ROUNDS = 100

_PG_NOW = "extract(epoch FROM clock_timestamp())::float8"
_PG_TIME = "to_char(to_timestamp({0}) AT TIME ZONE 'UTC', 'YYYY-MM-DD HH24:MI:SS')"

# Every time is moved onto the server's clock (see shift); txid_current() stamps each row with the writing
# transaction (see PostgresStore for how the stamps are read).
_PG_SHIFT = ("LEAST({0} + CASE WHEN abs(" + _PG_NOW + " - w.wnow) > " + str(SKEW_TOLERANCE_S) + " THEN "
             + _PG_NOW + " - w.wnow ELSE 0 END, " + _PG_NOW + ")")
PG_MERGE_HEALTH = merge_health_sql(
    f"""SELECT tool, calls, errors, last_error, CASE WHEN err > 0 THEN {_PG_NOW} ELSE {_NO_STAMP} END,
    w.pid, err, CASE WHEN dis = 1 THEN {_PG_SHIFT.format("disabled_at")} END,
    CASE WHEN dis > 0 THEN {_PG_NOW} ELSE {_NO_STAMP} END, w.pid, dis, {_PG_SHIFT.format("updated_at")}, 0,
    txid_current()
FROM unnest(%b::text[], %b::bigint[], %b::bigint[], %b::text[], %b::int[], %b::int[], %b::float8[], %b::float8[])
    AS u(tool, calls, errors, last_error, err, dis, disabled_at, updated_at),
    (SELECT %b::text AS pid, %b::float8 AS wnow) w""", "GREATEST", "txid")
PG_APPEND_HEALTH = f"""INSERT INTO sv_health_delta SELECT tool, calls, errors, {_PG_SHIFT.format("updated_at")}
FROM unnest(%b::text[], %b::bigint[], %b::bigint[], %b::float8[]) AS u(tool, calls, errors, updated_at),
    (SELECT %b::float8 AS wnow) w"""
PG_FOLD_HEALTH = merge_health_sql(
    f"SELECT tool, sum(calls), sum(errors), NULL, {_NO_STAMP}, '', 0, NULL::float8, {_NO_STAMP}, '', 0, "
    "max(updated_at), 0, txid_current() FROM moved GROUP BY tool ORDER BY tool", "GREATEST", "txid").replace(
    "INSERT INTO", "WITH moved AS (DELETE FROM sv_health_delta RETURNING *) INSERT INTO", 1)
PG_APPEND_USAGE = ("INSERT INTO sv_usage_delta SELECT * FROM unnest(%b::text[], %b::text[], %b::text[], %b::text[], "
                   "%b::boolean[], %b::bigint[], %b::bigint[], %b::float8[])")
# Every increment this transaction sees moves into the totals, once: the rows it deletes are the
# rows it adds; a fold running at the same time waits for this one and finds them gone.
PG_FOLD_USAGE = merge_usage_sql(
    "SELECT ukey, min(tool), min(action), min(outcome), bool_or(alias_hit), sum(calls), sum(timed_calls), "
    "sum(total_ms), 0, txid_current() FROM moved GROUP BY ukey ORDER BY ukey", "txid").replace(
    "INSERT INTO", "WITH moved AS (DELETE FROM sv_usage_delta RETURNING *) INSERT INTO", 1)
PG_MERGE_USAGE = merge_usage_sql(
    "SELECT *, 0, txid_current() FROM unnest(%b::text[], %b::text[], %b::text[], %b::text[], %b::boolean[], "
    "%b::bigint[], %b::bigint[], %b::float8[])", "txid")
PG_MIRROR_HEALTH = f"""INSERT INTO tool_health (tool_name, call_count, error_count, last_error, disabled_at, updated_at)
SELECT tool, call_count, error_count, last_error, {_PG_TIME.format("disabled_at")}, {_PG_TIME.format("updated_at")}
FROM sv_health WHERE {{where}}
ON CONFLICT (tool_name) DO UPDATE SET call_count = excluded.call_count, error_count = excluded.error_count,
last_error = excluded.last_error, disabled_at = excluded.disabled_at, updated_at = excluded.updated_at"""
# Every transaction's settings: the statement timeout, and no JIT compilation, which costs more than
# these small statements take (tens of ms, once the planner overestimates a join). Local to the
# transaction, so that nothing stays on a connection a pooler hands to another client.
PG_TX_SETTINGS = (f"SELECT set_config('statement_timeout', '{PG_STATEMENT_TIMEOUT_MS}', true), "
                  "set_config('jit', 'off', true)")
# The next cursor: the xmin of a snapshot taken before the reads (see PostgresStore).
PG_CURSOR = "SELECT txid_snapshot_xmin(txid_current_snapshot())"
_HEALTH_DELTAS = ("SELECT tool, sum(calls)::bigint AS calls, sum(errors)::bigint AS errors, "
                  "max(updated_at) AS updated_at FROM sv_health_delta {where} GROUP BY tool")
PG_PULL_HEALTH = f"""SELECT tool, coalesce(h.call_count, 0) + coalesce(d.calls, 0), coalesce(h.error_count, 0) +
    coalesce(d.errors, 0), h.last_error, h.disabled_at, GREATEST(h.updated_at, d.updated_at)
FROM sv_health h FULL JOIN ({_HEALTH_DELTAS.format(where="")}) d USING (tool)
WHERE h.txid >= %s::bigint OR d.tool IS NOT NULL"""
PG_PULL_REGISTERS = f"""SELECT tool, h.call_count + coalesce(d.calls, 0), h.error_count + coalesce(d.errors, 0),
    h.last_error, h.disabled_at, GREATEST(h.updated_at, d.updated_at)
FROM sv_health h LEFT JOIN LATERAL ({_HEALTH_DELTAS.format(where="WHERE tool = h.tool")}) d USING (tool)
WHERE h.rtxid >= %s::bigint"""
# The totals of the keys folded since the cursor or with increments not folded yet (one statement,
# one snapshot: a fold is seen whole or not at all).
PG_PULL_USAGE = """SELECT coalesce(u.tool, d.tool), coalesce(u.action, d.action), coalesce(u.outcome, d.outcome),
    coalesce(u.alias_hit, d.alias_hit), coalesce(u.calls, 0) + coalesce(d.calls, 0),
    coalesce(u.timed_calls, 0) + coalesce(d.timed_calls, 0), coalesce(u.total_ms, 0) + coalesce(d.total_ms, 0)
FROM sv_usage u FULL JOIN (
    SELECT ukey, min(tool) AS tool, min(action) AS action, min(outcome) AS outcome, bool_or(alias_hit) AS alias_hit,
        sum(calls)::bigint AS calls, sum(timed_calls)::bigint AS timed_calls, sum(total_ms) AS total_ms
    FROM sv_usage_delta GROUP BY ukey) d USING (ukey)
WHERE u.txid >= %s::bigint OR d.ukey IS NOT NULL"""
PG_LEDGER = ("INSERT INTO sv_process (process_id, last_seq, started_at, synced_at) VALUES (%s, %s, {now}, {now}) "
             "ON CONFLICT (process_id) DO UPDATE SET last_seq = excluded.last_seq, synced_at = excluded.synced_at"
             ).format(now=_PG_NOW)


def _columns(rows: Sequence[Sequence[Any]], width: int) -> list[list[Any]]:
    return [[row[i] for row in rows] for i in range(width)]


class _PipelineNoise(logging.Filter):
    """psycopg logs "error ignored terminating Pipeline" at every failed exchange; the store logs
    one line per outage instead."""

    def filter(self, record: logging.LogRecord) -> bool:
        return "error ignored terminating" not in record.getMessage()


_noise_filter_installed = False


class PostgresStore:
    """Processes on many machines share a PostgreSQL database (psycopg 3, the ``postgres`` extra).

    No lock is held across round trips and no row is written by every sync. Each write stamps its
    rows with its transaction id (``txid_current()``); a process reads the rows stamped at or after
    its cursor, and takes as its next cursor the xmin of a snapshot taken just before those reads.
    Why this misses nothing: a change that a read did not see belongs to a transaction that had
    not committed when the read's snapshot was taken, so it was running at the earlier snapshot
    (its id is at least that snapshot's xmin), or started after it, or had no id yet (its id is at
    least that snapshot's xmax); either way the next read, of ids >= that xmin, sees it once it has
    committed. A row read twice is harmless: what is read is a total, and taking a total in twice
    moves nothing. A row rewritten since carries the newer stamp and the newer total.

    What a sync reads: the tools whose registers (``last_error``, ``disabled_at``) were written
    since its registers cursor, stamped ``rtxid`` by a trigger, at every sync; and every row whose
    counts changed since its cursor (the others' usage counts, most of the map in a busy fleet),
    only every ``totals_every_s`` seconds or when ``totals_wanted`` is set. Both reads hand back
    totals, so a read late or twice loses and doubles nothing: the counts shown here lag the
    shared totals by at most ``totals_every_s`` plus a period, and a disable reaches every
    process at its next sync.

    A sync is one round trip (a pipeline: the ledger, the merges and the commit, then the reads,
    each in a snapshot of its own, with no row locked). Only
    when a batch may already have been applied (its acknowledgement lost) does it first read the
    ledger row, which no other process writes. The pooler-friendly settings: no prepared statements,
    the statement timeout set per transaction, at most one connection, held between syncs unless
    ``hold_connection`` is false (or the URL says ``hold_connection=false``).
    """

    def __init__(self, url: str, connect_timeout_s: int = PG_CONNECT_TIMEOUT_S, *, hold_connection: bool | None = None,
                 mirror_every_s: float = MIRROR_EVERY_S, exchange_timeout_s: float = PG_EXCHANGE_TIMEOUT_S,
                 totals_every_s: float = TOTALS_EVERY_S) -> None:
        try:
            import psycopg  # noqa: F401
        except ImportError as exc:  # pragma: no cover - exercised where psycopg is missing
            raise ImportError(
                "a postgresql:// target needs psycopg 3: install the 'postgres' extra "
                "(pip install 'ordanis-veltrane-health[postgres]')") from exc
        global _noise_filter_installed
        if not _noise_filter_installed:
            logging.getLogger("psycopg").addFilter(_PipelineNoise())
            _noise_filter_installed = True
        self.description = f"PostgreSQL {redact_url(url)}"
        # hold_connection: the argument, else the URL's parameter of that name (removed here), else held.
        self.url, options = store_options(url)
        self.connect_timeout_s = connect_timeout_s
        self.hold_connection = options.get(HOLD_CONNECTION, True) if hold_connection is None else hold_connection
        self.exchange_timeout_s = exchange_timeout_s
        self.mirror_every_s = mirror_every_s
        self._conn: psycopg.Connection[tuple[Any, ...]] | None = None
        self._cursor = 0  # rows stamped before it have all been read
        self._registers_cursor = 0  # tools whose registers were written before it have all been read
        self.totals_every_s = totals_every_s
        self._totals_at = -float("inf")  # when the counts were last read (monotonic)
        self.totals_wanted = False  # set to read the counts at the next sync, whatever the time
        self._mirror = _MirrorClock(mirror_every_s)
        self._fold = _MirrorClock(FOLD_EVERY_S)
        self.round_trips = 0  # counted by the code that waits for the server: for the benchmark
        self.connects = 0

    def _connect(self) -> psycopg.Connection[tuple[Any, ...]]:
        import psycopg

        conn = psycopg.connect(self.url, autocommit=True, connect_timeout=self.connect_timeout_s,
                               application_name="ordanis_veltrane.sharing", prepare_threshold=None,
                               keepalives=1, keepalives_idle=5, keepalives_interval=2, keepalives_count=2)
        self.connects += 1
        watchdog = threading.Timer(self.exchange_timeout_s, _cut, (conn,))
        watchdog.daemon = True
        watchdog.start()
        try:
            with conn.transaction():
                conn.execute(PG_TX_SETTINGS)
                present = conn.execute(
                    "SELECT to_regclass('sv_meta') IS NOT NULL AND to_regclass('sv_usage') IS NOT NULL AND "
                    "to_regclass('sv_health') IS NOT NULL AND to_regclass('sv_process') IS NOT NULL AND "
                    "EXISTS (SELECT FROM pg_attribute WHERE attrelid = to_regclass('sv_usage') AND attname = 'txid') "
                    "AND EXISTS (SELECT FROM pg_attribute WHERE attrelid = to_regclass('sv_health') AND attname = 'rtxid') "
                    "AND to_regclass('sv_usage_delta') IS NOT NULL AND to_regclass('sv_health_delta') IS NOT NULL "
                    "AND to_regclass('sv_doc_wanted') IS NOT NULL"
                ).fetchone()
                if present and present[0]:
                    present = conn.execute("SELECT EXISTS (SELECT FROM sv_meta)").fetchone()
                if not (present and present[0]):
                    self._create(conn)
        except BaseException:
            conn.close()
            raise
        finally:
            watchdog.cancel()
        return conn

    def _create(self, conn: psycopg.Connection[tuple[Any, ...]]) -> None:
        conn.execute("SELECT pg_advisory_xact_lock(7412093411)")  # one creator at a time
        fresh = conn.execute("SELECT to_regclass('sv_health') IS NULL").fetchone()
        for statement in PG_TABLES:
            conn.execute(statement)
        if not (fresh and fresh[0]):
            return
        # A database a plain tracker's tables were copied into: its totals are where the history starts.
        with conn.cursor() as cur:
            cur.execute("SELECT tool_name, call_count, error_count, last_error, disabled_at, updated_at "
                        "FROM tool_health")
            rows = _seed_rows_from_mirror(cur.fetchall(), time.time())
            if rows:
                cur.executemany(merge_health_sql("VALUES (%s, %s, %s, %s, %s, %s, %s, %s, %s, %s, %s, %s, %s)",
                                                 "GREATEST"), rows)
            cur.execute("SELECT value FROM schema_info WHERE key = %s", (health.TOOL_USAGE_KEY,))
            doc = cur.fetchone()
            usage = [(usage_key_text(k), *k, c, t, ms, 1) for k, c, t, ms in
                     _parse_usage_document(doc[0] if doc else None)]
            if usage:
                cur.execute(PG_MERGE_USAGE, _columns(usage, 8))

    def run(self, work: Callable[[psycopg.Connection[tuple[Any, ...]]], _T]) -> _T:
        """``work`` on this store's connection (autocommit), as every exchange runs: connected if
        needed, cut from this side should the server stop answering, let go afterwards unless the
        connection is held; a store whose tables went missing is made again and tried once more."""
        import psycopg

        for attempt in (0, 1):
            if self._conn is None:
                self._conn = self._connect()
            conn = self._conn
            watchdog = threading.Timer(self.exchange_timeout_s, _cut, (conn,))
            watchdog.daemon = True
            watchdog.start()
            try:
                result = work(conn)
            except psycopg.errors.UndefinedTable as exc:
                self._abandon()
                if attempt:
                    raise
                logger.warning("The %s lost its tables (%s); making them again", self.description, exc)
                continue
            except BaseException:
                self._abandon()
                raise
            finally:
                watchdog.cancel()
            if not self.hold_connection:
                self._abandon()
            return result
        raise AssertionError("unreachable")

    def exchange(self, pid: str, batches: Sequence[Batch]) -> Pulled:
        def work(conn: psycopg.Connection[tuple[Any, ...]]) -> Pulled:
            pulled = self._exchange(conn, pid, batches)
            if self._fold.due():
                try:
                    self._fold_increments(conn, FOLD_EVERY_S)
                except Exception as exc:  # the increments wait for the next fold: nothing is lost
                    logger.debug("Could not fold the increments of the %s: %s", self.description, redact_url(exc))
                    self._abandon()
            return pulled

        return self.run(work)

    def _fold_increments(self, conn: psycopg.Connection[tuple[Any, ...]], every_s: float) -> bool:
        """Moves the appended increments into the totals when the last fold is ``every_s`` old (a time
        ahead counts as long ago), unless another process is folding them; in its own transaction."""
        with conn.transaction():
            conn.execute(PG_TX_SETTINGS)
            # Skipped while another process folds, or writes the plain tables (which folds too).
            due = conn.execute(f"SELECT NOT {_PG_NOW} - fold_at BETWEEN 0 AND %s FROM sv_meta WHERE id = 1 "
                               "FOR UPDATE SKIP LOCKED", (every_s,)).fetchone()
            if not (due and due[0]):
                return False
            conn.execute(PG_FOLD_USAGE)
            conn.execute(PG_FOLD_HEALTH)
            conn.execute(f"UPDATE sv_meta SET fold_at = {_PG_NOW} WHERE id = 1")
        self.round_trips += 1
        return True

    def _exchange(self, conn: psycopg.Connection[tuple[Any, ...]], pid: str, batches: Sequence[Batch]) -> Pulled:
        if any(batch.maybe_applied for batch in batches):
            # The ledger row says which of them the store already has; only this process writes it.
            with conn.pipeline():
                conn.execute("BEGIN")
                conn.execute(PG_TX_SETTINGS)
                p = conn.execute("SELECT last_seq FROM sv_process WHERE process_id = %s FOR UPDATE", (pid,))
            self.round_trips += 1
            led = p.fetchone()
            applied = int(led[0]) if led else 0
        else:
            applied = -1  # none of them can have been applied: none was ever part of a commit
        with conn.pipeline():
            if applied < 0:
                conn.execute("BEGIN" if batches else "BEGIN READ ONLY")
                conn.execute(PG_TX_SETTINGS)
            if batches:
                combined = combine(batches, max(applied, 0))
                # Rows in key order: two processes that change the same rows lock them in the same
                # order, so they wait for each other for a moment at most and never deadlock. The
                # health rows, which every process changes, come last: their locks are held the least.
                conn.execute(PG_LEDGER, (pid, combined.last_seq))
                if combined.usage:
                    conn.execute(PG_APPEND_USAGE, _columns([row[:8] for row in usage_params(0, combined)], 8))
                # A tool whose registers changed here is merged into its row; the others' counts are appended.
                registers = sorted((n, c.calls, c.errors, c.last_error if c.err else None, int(c.err), c.dis_op,
                                    c.disabled_at, c.updated_at)
                                   for n, c in combined.tools.items() if c.err or c.dis_op)
                counts = [(n, c.calls, c.errors, c.updated_at) for n, c in combined.tools.items()
                          if not (c.err or c.dis_op)]
                if counts:
                    conn.execute(PG_APPEND_HEALTH, [*_columns(counts, 4), time.time()])
                if registers:
                    conn.execute(PG_MERGE_HEALTH, [*_columns(registers, 8), pid, time.time()])
            for batch in batches:
                batch.maybe_applied = True
            conn.execute("COMMIT")
            # Read after the commit, with no row locked: any snapshot will do (see the class's comment);
            # here one snapshot for the cursor and the reads.
            # The counts the others changed are read every totals_every_s; the registers at every sync.
            totals = self.totals_wanted or time.monotonic() - self._totals_at >= self.totals_every_s
            conn.execute("BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY")
            conn.execute(PG_TX_SETTINGS)
            x = conn.execute(PG_CURSOR)
            if totals:
                h = conn.execute(PG_PULL_HEALTH, (self._cursor,))
                u = conn.execute(PG_PULL_USAGE, (self._cursor,))
            else:
                h = conn.execute(PG_PULL_REGISTERS, (self._registers_cursor,))
            conn.execute("COMMIT")
        self.round_trips += 1
        cursor = x.fetchone()
        assert cursor is not None
        pulled = Pulled(h.fetchall(), u.fetchall() if totals else [])
        self._registers_cursor = int(cursor[0])
        if totals:
            self._cursor = int(cursor[0])
            self._totals_at = time.monotonic()
            self.totals_wanted = False
        return pulled

    def write_mirror(self, force: bool = False) -> bool:
        """The usage document of ``schema_info`` and the ``tool_health`` rows, for a reader that reads
        the tables a plain tracker keeps: when something changed since they were last written, at
        most every ``mirror_every_s`` seconds (``force``: whenever, as a process closes). Never waits
        for another process writing them.

        A forced write that finds the writers' lock held commits a row in ``sv_doc_wanted`` and tries
        once more; a forced write that held the lock looks, once committed, for such rows and writes
        again while some are left (``MIRROR_ROUNDS`` writes at most). Why no batch is left out once
        the last process has closed: a closing process P commits its last batch B first. If P takes
        the lock, its reads come after B's commit. If not, P commits a wanted row F and tries again;
        if that fails, a writer W holds the lock at that moment, after F's commit. W forced: W looks
        after its own commit, so later than F, and finds F, or finds it deleted by a writer that
        saw it: a writer deletes the rows its statement sees, before its reads (each statement of a
        read-committed transaction reads a snapshot of its own, taken after the lock is held), so
        that writer's reads include B; a delete not committed yet leaves F visible. W finding F
        writes again or, should the lock be held again, leaves it to that holder, in its own place.
        W periodic (not forced, as a live process syncs: it never writes twice, so that no sync
        pays for the closes): W's process is alive, and its own close, later than W, commits and
        writes as P did. A writer that has written MIRROR_ROUNDS times in a row, each time finding
        new wanted rows, leaves them to the next writer."""
        if not force:
            return self._mirror.due() and self.run(lambda conn: self._write_mirror(conn, False))[1]
        wrote = asked = False
        for _ in range(MIRROR_ROUNDS):
            held, written, left = self.run(lambda conn: self._forced_round(conn, asked))
            wrote = wrote or written
            if not (held and left):
                return wrote
            asked = True  # a wanted row is there already: a holder will see it
        return wrote

    def _forced_round(self, conn: psycopg.Connection[tuple[Any, ...]], asked: bool) -> tuple[bool, bool, bool]:
        """(whether it held the lock, whether it wrote, whether wanted rows were left after its commit)."""
        held, written = self._write_mirror(conn, True)
        if not held and not asked:
            conn.execute(f"INSERT INTO sv_doc_wanted VALUES ({_PG_NOW})")  # committed: the connection autocommits
            held, written = self._write_mirror(conn, True)
        return held, written, held and bool(_one(conn, "SELECT EXISTS (SELECT FROM sv_doc_wanted)"))

    def _write_mirror(self, conn: psycopg.Connection[tuple[Any, ...]], force: bool) -> tuple[bool, bool]:
        """One try: (whether it held the writers' lock, whether it wrote)."""
        with conn.transaction():
            # Read committed whatever the server's default: each read below sees what committed before it.
            conn.execute("SET TRANSACTION ISOLATION LEVEL READ COMMITTED")
            conn.execute(PG_TX_SETTINGS)
            conn.execute("INSERT INTO sv_meta (id, version) VALUES (1, 1) ON CONFLICT (id) DO NOTHING")  # emptied?
            # Not due (written less than mirror_every_s ago, by anyone): the lock is left alone.
            if not (force or _one(conn, f"SELECT NOT {_PG_NOW} - doc_at BETWEEN 0 AND %s FROM sv_meta WHERE id = 1",
                                  (self.mirror_every_s,))):
                return False, False
            if not _one(conn, "SELECT pg_try_advisory_xact_lock(%s)", (PG_DOC_LOCK,)):
                return False, False
            # The meta row serializes with a fold (short, and it never writes the document).
            row = conn.execute(
                f"SELECT doc_xmin, doc_at, {_PG_NOW}, txid_snapshot_xmin(txid_current_snapshot()) FROM sv_meta "
                f"WHERE id = 1 FOR UPDATE").fetchone()
            if row is None:
                return True, False
            doc_xmin, doc_at, now, xmin = int(row[0]), float(row[1]), float(row[2]), int(row[3])
            if not force and 0 <= now - doc_at < self.mirror_every_s:
                return True, False
            # From here on it writes (or finds nothing changed): the statements after this delete,
            # the fold first, read what the deleted rows' processes had committed.
            conn.execute("DELETE FROM sv_doc_wanted")
            conn.execute(PG_FOLD_USAGE)  # the tables hold every increment committed so far
            conn.execute(PG_FOLD_HEALTH)
            changed = conn.execute("SELECT EXISTS (SELECT FROM sv_usage WHERE txid >= %s::bigint) OR "
                                   "EXISTS (SELECT FROM sv_health WHERE txid >= %s::bigint)", (doc_xmin, doc_xmin)).fetchone()
            if not (changed and changed[0]):
                return True, False
            conn.execute(PG_MIRROR_HEALTH.format(where="txid >= %s::bigint"), (doc_xmin,))
            with conn.cursor() as cur:
                cur.execute(_USAGE_ROWS.format(order="ord"))
                document = usage_document(cur.fetchall())
            conn.execute("INSERT INTO schema_info (key, value) VALUES (%s, %s) "
                         "ON CONFLICT (key) DO UPDATE SET value = excluded.value", (health.TOOL_USAGE_KEY, document))
            conn.execute("UPDATE sv_meta SET doc_xmin = %s, doc_at = %s WHERE id = 1", (xmin, now))
        self.round_trips += 1
        return True, True

    def _abandon(self) -> None:
        conn, self._conn = self._conn, None
        close_quietly(conn)

    def close(self) -> None:
        self._abandon()


def _one(conn: psycopg.Connection[tuple[Any, ...]], sql: str, params: Sequence[Any] = ()) -> Any:
    """The first column of the first row a query answers (None for no row)."""
    row = conn.execute(sql, params).fetchone()
    return row[0] if row else None


def close_quietly(conn: Any) -> None:
    """Closes a connection that may be broken already; a failure to close it changes nothing."""
    if conn is not None:
        try:
            conn.close()
        except Exception:
            pass


def _cut(conn: psycopg.Connection[tuple[Any, ...]]) -> None:
    """Shuts the connection's socket down, so that a call waiting for a server that stopped
    answering fails now instead of after the kernel's TCP timeouts."""
    try:
        fd = conn.pgconn.socket
        with socket.socket(fileno=os.dup(fd)) as s:
            s.shutdown(socket.SHUT_RDWR)
    except Exception:
        pass

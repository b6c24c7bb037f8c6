"""The shared stores: a SQLite file for the processes of one machine, PostgreSQL for many machines.

Each applies a process's batches of increments at most once (a ledger row per process holds the
last sequence applied, advanced in the same transaction), merges them into the shared totals,
rewrites the mirror tables that a plain tracker keeps, and answers the totals changed since a
version, all of it in one transaction.
"""
from __future__ import annotations

import json
import logging
import sqlite3
import time
from typing import TYPE_CHECKING, Any, Protocol, Sequence
from urllib.parse import urlsplit

from ordanis_veltrane.repository import SCHEMA
from ordanis_veltrane.sharing.batches import Batch, Combined, Pulled, ToolChange, UsageKey, combine, usage_key_text
from ordanis_veltrane.tool_handlers import health

if TYPE_CHECKING:
    import psycopg

logger: logging.Logger = logging.getLogger("ordanis_veltrane.sharing")

_ZERO_USAGE = (0, 0, 0.0)
_NO_STAMP = -1e308  # the order key of a register nobody has written
SQLITE_BUSY_TIMEOUT_S = 2.0
PG_CONNECT_TIMEOUT_S = 3


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


"""Operators' decisions about tools, kept in a shared store next to the shared health, and the readers of that
health for the command line.

A decision is a row of ``operator_decisions``: a tool, ``disable`` (with an end, or none) or ``enable``, the
operator's reason, who took it and when. The latest decision of a tool is the one in force. Every process
that serves from the store reads the latest decisions after each of its syncs (one small query) and its
pipeline applies them: a tool an operator disabled is refused, with the operator's reason, until an
``enable`` or the end of the decision; an ``enable`` newer than a disable by errors also clears that disable.

The table is independent of the tables the shared health keeps, and only the command line writes it; a
store without the table has no decisions. Everything here uses the standard library, except a
``postgresql://`` target, which imports psycopg when it connects. The few statements that read the shared
health (``read_tools``, ``read_usage``) are the only places that know its tables' layout.
"""
from __future__ import annotations

import json
import os
import sqlite3
import time
from dataclasses import asdict, dataclass, replace
from datetime import datetime, timezone
from pathlib import Path
from typing import Any, Callable, Sequence

__all__ = ["DECISIONS_TABLE", "Decision", "DecisionStore", "StoreError", "ToolTotals", "UsageRow", "format_time"]

DECISIONS_TABLE = "operator_decisions"
DISABLE, ENABLE = "disable", "enable"
MAX_REASON = 1000  # characters of a reason kept; longer text is cut
CONNECT_TIMEOUT_S = 3

_SQLITE_DDL = (
    f"""CREATE TABLE IF NOT EXISTS {DECISIONS_TABLE} (
        id INTEGER PRIMARY KEY AUTOINCREMENT, tool TEXT NOT NULL,
        decision TEXT NOT NULL CHECK (decision IN ('disable', 'enable')), reason TEXT, decided_by TEXT NOT NULL,
        decided_at REAL NOT NULL, until_at REAL)""",
    f"CREATE INDEX IF NOT EXISTS {DECISIONS_TABLE}_tool ON {DECISIONS_TABLE} (tool, id)",
)
_PG_DDL = (
    f"""CREATE TABLE IF NOT EXISTS {DECISIONS_TABLE} (
        id BIGINT GENERATED ALWAYS AS IDENTITY PRIMARY KEY, tool TEXT NOT NULL,
        decision TEXT NOT NULL CHECK (decision IN ('disable', 'enable')), reason TEXT, decided_by TEXT NOT NULL,
        decided_at DOUBLE PRECISION NOT NULL, until_at DOUBLE PRECISION)""",
    f"CREATE INDEX IF NOT EXISTS {DECISIONS_TABLE}_tool ON {DECISIONS_TABLE} (tool, id)",
)
_COLUMNS = "id, tool, decision, reason, decided_by, decided_at, until_at"
_LATEST = (f"SELECT {_COLUMNS} FROM {DECISIONS_TABLE} d WHERE id = "
           f"(SELECT max(id) FROM {DECISIONS_TABLE} e WHERE e.tool = d.tool) ORDER BY tool")


class StoreError(Exception):
    """The store cannot answer or cannot take a decision; the message says why, for a person to read."""


def format_time(epoch: float | None) -> str:
    """UTC, to the second: ``2026-11-25 20:31:07 UTC``; ``-`` for none."""
    if epoch is None:
        return "-"
    return datetime.fromtimestamp(epoch, timezone.utc).strftime("%Y-%m-%d %H:%M:%S UTC")


@dataclass(frozen=True)
class Decision:
    id: int
    tool: str
    decision: str  # "disable" | "enable"
    reason: str | None
    by: str
    at: float
    until: float | None

    def active(self, now: float) -> bool:
        """A disable in force at ``now`` (an enable never is)."""
        return self.decision == DISABLE and (self.until is None or now < self.until)

    def refusal(self, tool: str) -> str:
        """What a client is told when a call is refused under this decision."""
        until = f", until {format_time(self.until)}" if self.until is not None else ""
        return f"Tool {tool!r} is disabled by an operator: {self.reason or 'no reason given'} (by {self.by}{until})"

    def as_dict(self) -> dict[str, Any]:
        return asdict(self)


@dataclass(frozen=True)
class ToolTotals:
    tool: str
    calls: int
    errors: int
    last_error: str | None
    disabled_at: float | None
    updated_at: float | None


@dataclass(frozen=True)
class UsageRow:
    action: str | None
    outcome: str
    alias_hit: bool
    calls: int
    timed_calls: int
    total_ms: float


def _decision(row: Sequence[Any]) -> Decision:
    return Decision(int(row[0]), str(row[1]), str(row[2]), row[3], str(row[4]), float(row[5]),
                    None if row[6] is None else float(row[6]))


def _epoch_text(text: Any) -> float | None:
    """A time a plain tracker stored (UTC text), in epoch seconds; ``None`` where it is none or unreadable."""
    if not isinstance(text, str) or not text:
        return None
    try:
        return datetime.strptime(text, "%Y-%m-%d %H:%M:%S").replace(tzinfo=timezone.utc).timestamp()
    except ValueError:
        return None


class DecisionStore:
    """One connection to a store (a SQLite file or a ``postgresql://`` URL), opened at first use and
    opened again after a failure. Not for use from two threads at once.

    ``read_only`` opens a SQLite file without ever writing it (the command line's ``status`` on a
    file a plain tracker keeps). ``borrow``, for a PostgreSQL store, runs a function on a connection
    someone else holds (a server's sync connection, so that the process holds one connection for
    both); where it raises ``LookupError`` (no such connection now) the store's own is used."""

    def __init__(self, target: str | os.PathLike[str], *, read_only: bool = False,
                 borrow: Callable[[Callable[[Any], Any]], Any] | None = None) -> None:
        from ordanis_veltrane.sharing.targets import is_postgres_url, redact_url, store_options

        self.target = target
        self.is_postgres = is_postgres_url(target)
        self.read_only = read_only
        self.description = redact_url(target) if self.is_postgres else os.fspath(target)
        self._conn: Any = None
        self._borrow = borrow if self.is_postgres else None
        # The URL without the parameters this package reads itself, which libpq refuses; a URL's
        # hold_connection=false lets the connection go after each reading of the decisions.
        self.hold_connection = True
        self._url, self._bad_url = os.fspath(target), ""
        if self.is_postgres:
            try:
                self._url, options = store_options(str(target))
                self.hold_connection = options.get("hold_connection", True)
            except ValueError as exc:
                self._bad_url = str(exc)  # refused with its reason when it connects

    # -- the connection

    def _connect(self) -> Any:
        if self.is_postgres:
            try:
                import psycopg
            except ImportError:
                raise StoreError("a postgresql:// store needs psycopg: pip install 'ordanis-veltrane-health[postgres]'")
            if self._bad_url:
                raise StoreError(self._bad_url)
            try:
                return psycopg.connect(self._url, autocommit=True, connect_timeout=CONNECT_TIMEOUT_S,
                                       application_name="ordanis_veltrane.operators")
            except psycopg.Error as exc:
                raise StoreError(f"cannot connect to {self.description}: {_first_line(exc)}") from None
        path = Path(os.fspath(self.target))
        if not path.is_file():
            raise StoreError(f"no tool health database at {str(path)!r}")
        try:
            if self.read_only:
                conn = sqlite3.connect(path.resolve().as_uri() + "?mode=ro", uri=True, timeout=2.0,
                                       isolation_level=None, check_same_thread=False)
            else:
                conn = sqlite3.connect(path, timeout=2.0, isolation_level=None, check_same_thread=False)
            conn.execute("PRAGMA busy_timeout=2000")
            conn.execute("SELECT count(*) FROM sqlite_master").fetchone()
        except sqlite3.Error as exc:
            raise StoreError(f"cannot read {str(path)!r} as a SQLite database: {exc}") from None
        return conn

    def _query(self, sql: str, params: Sequence[Any] = (), fetch: bool = True) -> list[tuple[Any, ...]]:
        if self.is_postgres:
            sql = sql.replace("?", "%s")
        if self._borrow is not None:
            try:
                found, missing = self._borrow(lambda conn: _borrowed_query(conn, sql, params, fetch))
            except LookupError:
                pass
            else:
                self.close()  # one opened while there was nothing to borrow is not needed any more
                if missing is not None:
                    raise _MissingTable(missing)
                return list(found)
        if self._conn is None:
            self._conn = self._connect()
        try:
            cursor = self._conn.execute(sql, params)
            return list(cursor.fetchall()) if fetch else []
        except Exception as exc:
            if not _missing_table(exc):
                self.close()  # a broken connection is opened again at the next use
            raise

    def close(self) -> None:
        from ordanis_veltrane.sharing.stores import close_quietly

        conn, self._conn = self._conn, None
        close_quietly(conn)

    def _has_table(self, name: str) -> bool:
        if self.is_postgres:
            return bool(self._query("SELECT to_regclass(?::text) IS NOT NULL", (name,))[0][0])
        return bool(self._query("SELECT count(*) FROM sqlite_master WHERE type = 'table' AND name = ?", (name,))[0][0])

    # -- what kind of store

    def kind(self) -> str:
        """``shared`` (processes share their health here), ``plain`` (a single tracker's file) or ``empty``."""
        try:
            if self._has_table("sv_meta"):
                return "shared"
            return "plain" if self._has_table("tool_health") else "empty"
        except StoreError:
            raise
        except Exception as exc:
            raise StoreError(f"cannot read {self.description}: {_first_line(exc)}") from None

    # -- decisions

    def current(self, *, local_clock: bool = False) -> dict[str, Decision]:
        """The latest decision of every tool that has one. Raises where the store cannot be read; a store
        without decisions answers none.

        Decisions are timed by the store's clock (PostgreSQL's, on another machine); ``local_clock``
        moves their times onto this machine's clock, measured by the same query, so that a process
        whose clock is off still ends a decision on time and compares it with its own records."""
        sql = _LATEST
        if self.is_postgres:
            sql = _LATEST.replace(" FROM ", ", extract(epoch FROM clock_timestamp())::float8 FROM ", 1)
        try:
            sent = time.time()
            rows = self._query(sql)
            now = (sent + time.time()) / 2
        except Exception as exc:
            if _missing_table(exc):
                return {}
            raise
        finally:
            if not self.hold_connection:
                self.close()
        decisions = {row[1]: _decision(row) for row in rows}
        if local_clock and self.is_postgres and rows:
            offset = float(rows[0][7]) - now  # the store's clock minus this machine's
            if abs(offset) > 0.5:
                decisions = {tool: replace(d, at=d.at - offset, until=None if d.until is None else d.until - offset)
                             for tool, d in decisions.items()}
        return decisions

    def history(self, tool: str | None = None, limit: int = 10) -> list[Decision]:
        """The last ``limit`` decisions (of ``tool``), newest first."""
        where, params = ("WHERE tool = ? ", [tool]) if tool is not None else ("", [])
        try:
            rows = self._query(f"SELECT {_COLUMNS} FROM {DECISIONS_TABLE} {where}ORDER BY id DESC LIMIT ?",
                               [*params, int(limit)])
        except Exception as exc:
            if _missing_table(exc):
                return []
            raise
        return [_decision(row) for row in rows]

    def record(self, tool: str, decision: str, reason: str | None, by: str, duration_s: float | None) -> Decision:
        """Writes a decision, timed by the store's clock where it has one (PostgreSQL), else this machine's."""
        if decision not in (DISABLE, ENABLE):
            raise ValueError(f"a decision is 'disable' or 'enable', not {decision!r}")
        if self.read_only:
            raise StoreError("this store was opened read-only")
        reason = reason[:MAX_REASON] if reason else None
        if self.is_postgres:
            self._query("SELECT pg_advisory_lock(7412093412)")  # one creator of the table at a time
            try:
                for statement in _PG_DDL:
                    self._query(statement, fetch=False)
            finally:
                self._query("SELECT pg_advisory_unlock(7412093412)")
            row = self._query(
                f"INSERT INTO {DECISIONS_TABLE} (tool, decision, reason, decided_by, decided_at, until_at) "
                "SELECT ?, ?, ?, ?, now_s, now_s + ?::float8 FROM "
                f"(SELECT extract(epoch FROM clock_timestamp())::float8 AS now_s) t RETURNING {_COLUMNS}", (tool, decision, reason, by, duration_s))[0]
            return _decision(row)
        conn = self._conn if self._conn is not None else self._connect()
        self._conn = conn
        try:
            conn.execute("BEGIN IMMEDIATE")
            for statement in _SQLITE_DDL:
                conn.execute(statement)
            now = time.time()
            cur = conn.execute(
                f"INSERT INTO {DECISIONS_TABLE} (tool, decision, reason, decided_by, decided_at, until_at) "
                "VALUES (?, ?, ?, ?, ?, ?)", (tool, decision, reason, by, now,
                                              None if duration_s is None else now + duration_s))
            row = conn.execute(f"SELECT {_COLUMNS} FROM {DECISIONS_TABLE} WHERE id = ?", (cur.lastrowid,)).fetchone()
            conn.execute("COMMIT")
        except sqlite3.Error as exc:
            self.close()
            raise StoreError(f"cannot write the decision to {self.description}: {exc}") from None
        return _decision(row)

    # -- the health, as the shared store (or a plain tracker's file) holds it

    def read_tools(self, kind: str) -> list[ToolTotals]:
        """Every tool's totals: the shared totals of every process, or the rows of a plain tracker's file."""
        if kind == "shared":
            if self.is_postgres and self._has_table("sv_health_delta"):  # with the increments not folded yet
                from ordanis_veltrane.sharing.stores import PG_PULL_HEALTH

                rows = self._query(f"SELECT * FROM ({PG_PULL_HEALTH.replace('%s', '0')}) t ORDER BY 1")
            else:
                rows = self._query("SELECT tool, call_count, error_count, last_error, disabled_at, updated_at "
                                   "FROM sv_health ORDER BY tool")
            return [ToolTotals(str(r[0]), int(r[1]), int(r[2]), r[3], None if r[4] is None else float(r[4]),
                               None if r[5] is None else float(r[5])) for r in rows]
        if kind == "plain":
            rows = self._query("SELECT tool_name, call_count, error_count, last_error, disabled_at, updated_at "
                               "FROM tool_health ORDER BY tool_name")
            return [ToolTotals(str(r[0]), int(r[1] or 0), int(r[2] or 0), r[3], _epoch_text(r[4]), _epoch_text(r[5]))
                    for r in rows]
        return []

    def read_usage(self, kind: str, tool: str) -> list[UsageRow]:
        """One tool's usage counts by (action, outcome, synonym used)."""
        if kind == "shared":
            if self.is_postgres and self._has_table("sv_usage_delta"):  # with the increments not folded yet
                rows = self._query(
                    "SELECT action, outcome, alias_hit, sum(calls) AS calls, sum(timed_calls), sum(total_ms) FROM "
                    "(SELECT ukey, action, outcome, alias_hit, calls, timed_calls, total_ms FROM sv_usage "
                    "WHERE tool = ? UNION ALL SELECT ukey, action, outcome, alias_hit, calls, timed_calls, total_ms "
                    "FROM sv_usage_delta WHERE tool = ?) r GROUP BY ukey, action, outcome, alias_hit "
                    "ORDER BY calls DESC", (tool, tool))
            else:
                rows = self._query("SELECT action, outcome, alias_hit, calls, timed_calls, total_ms FROM sv_usage "
                                   "WHERE tool = ? ORDER BY calls DESC", (tool,))
            return [UsageRow(r[0], str(r[1]), bool(r[2]), int(r[3]), int(r[4]), float(r[5])) for r in rows]
        if kind != "plain":
            return []
        found = self._query("SELECT value FROM schema_info WHERE key = 'tool_usage'")
        try:
            items = json.loads(found[0][0]) if found and found[0][0] else []
            usage = [UsageRow(i["action"], str(i["outcome"]), bool(i["alias_hit"]), int(i["calls"]),
                              int(i["timed_calls"]), float(i["total_ms"])) for i in items if i.get("tool") == tool]
        except (ValueError, TypeError, KeyError, AttributeError) as exc:
            raise StoreError(f"the usage counts in {self.description} cannot be read: {exc}") from None
        return sorted(usage, key=lambda u: -u.calls)


class _MissingTable(Exception):
    """A table not there, read on a borrowed connection."""


def _borrowed_query(conn: Any, sql: str, params: Sequence[Any],
                    fetch: bool) -> tuple[list[tuple[Any, ...]], str | None]:
    """The rows, or the text of a missing table's error: answered, not raised, so that the connection's
    owner neither takes it for its own tables gone missing nor lets the connection go for it."""
    import psycopg

    try:
        cursor = conn.execute(sql, params)  # an autocommit connection: one statement, one transaction
        return (list(cursor.fetchall()) if fetch else []), None
    except psycopg.errors.UndefinedTable as exc:
        return [], str(exc)


def _missing_table(exc: BaseException) -> bool:
    text = str(exc)
    return "no such table" in text or (DECISIONS_TABLE in text and "does not exist" in text)


def _first_line(exc: BaseException) -> str:
    from ordanis_veltrane.sharing.targets import redact_url

    return redact_url(str(exc).strip().splitlines()[0] if str(exc).strip() else type(exc).__name__)

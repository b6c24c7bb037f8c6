"""A repository handle whose ``db`` wraps the repository's SQLite database."""
from __future__ import annotations

import sqlite3
import threading
from pathlib import Path
from typing import Any, Sequence

SCHEMA = (
    """CREATE TABLE IF NOT EXISTS tool_health (
        tool_name TEXT PRIMARY KEY,
        call_count INTEGER NOT NULL DEFAULT 0,
        error_count INTEGER NOT NULL DEFAULT 0,
        last_error TEXT,
        disabled_at TEXT,
        updated_at TEXT
    )""",
    """CREATE TABLE IF NOT EXISTS schema_info (
        key TEXT PRIMARY KEY,
        value TEXT
    )""",
)


class Database:
    """One SQLite connection shared by the daemon's threads, serialised by a lock.

    Every ``execute``/``executemany`` is its own committed transaction. The lock is
    re-entrant: code that the collector runs inside a statement (a finalizer) may use
    the database from the same thread without waiting for itself.
    """

    def __init__(self, path: str | Path) -> None:
        self.path = str(path)
        self._lock = threading.RLock()
        self._conn = sqlite3.connect(self.path, check_same_thread=False, isolation_level=None)
        self._conn.execute("PRAGMA journal_mode=WAL")
        self._conn.execute("PRAGMA busy_timeout=5000")
        for statement in SCHEMA:
            self._conn.execute(statement)

    def fetchall(self, sql: str) -> list[tuple[Any, ...]]:
        with self._lock:
            return self._conn.execute(sql).fetchall()

    def fetchone(self, sql: str, params: Sequence[Any]) -> tuple[Any, ...] | None:
        with self._lock:
            row: tuple[Any, ...] | None = self._conn.execute(sql, params).fetchone()
            return row

    def execute(self, sql: str, params: Sequence[Any]) -> None:
        with self._lock:
            self._conn.execute(sql, params)

    def executemany(self, sql: str, rows: Sequence[Sequence[Any]]) -> None:
        # All rows in one transaction: in autocommit mode each row would commit alone.
        with self._lock:
            self._conn.execute("BEGIN")
            try:
                self._conn.executemany(sql, rows)
            except BaseException:
                self._conn.execute("ROLLBACK")
                raise
            self._conn.execute("COMMIT")

    def close(self) -> None:
        with self._lock:
            self._conn.close()


class Repository:
    """The handle of one indexed repository; the health component uses only ``db``."""

    def __init__(self, db_path: str | Path) -> None:
        self.db_path = Path(db_path)
        self.db = Database(self.db_path)

    def close(self) -> None:
        self.db.close()

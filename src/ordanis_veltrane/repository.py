"""A repository handle whose ``db`` wraps the repository's SQLite database."""
from __future__ import annotations

import sqlite3
import threading
from pathlib import Path
from typing import Any, Callable, Sequence, TypeVar

_T = TypeVar("_T")

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

    A call leaves the connection outside a transaction however it ends, even when an
    interrupt or a ``MemoryError`` lands between two of its statements or inside the
    rollback: a transaction left open would make every later write fail.
    """

    def __init__(self, path: str | Path) -> None:
        self.path: str = str(path)
        self._lock = threading.RLock()
        self._depth = 0  # calls under way on the thread that holds the lock
        self._conn = sqlite3.connect(self.path, check_same_thread=False, isolation_level=None)
        self._conn.execute("PRAGMA journal_mode=WAL")
        self._conn.execute("PRAGMA busy_timeout=5000")
        for statement in SCHEMA:
            self._conn.execute(statement)

    def _run(self, work: Callable[[sqlite3.Connection], _T]) -> _T:
        """Runs ``work`` under the lock. The outermost call rolls back any transaction left open, before and
        after; a nested call (a finalizer's) runs inside the transaction of the call it interrupted."""
        with self._lock:
            depth = self._depth
            try:
                self._depth = depth + 1
                if depth == 0:
                    self._roll_back_open()
                return work(self._conn)
            finally:
                self._depth = depth
                if depth == 0:
                    self._roll_back_open()

    def _roll_back_open(self) -> None:
        # The rollback may be interrupted too: try again, then raise what interrupted it.
        failure: BaseException | None = None
        for _ in range(3):
            try:
                if self._conn.in_transaction:
                    self._conn.rollback()
                break
            except BaseException as exc:
                failure = failure or exc
        if failure is not None:
            raise failure

    def fetchall(self, sql: str) -> list[tuple[Any, ...]]:
        return self._run(lambda conn: conn.execute(sql).fetchall())

    def fetchone(self, sql: str, params: Sequence[Any]) -> tuple[Any, ...] | None:
        def read(conn: sqlite3.Connection) -> tuple[Any, ...] | None:
            row: tuple[Any, ...] | None = conn.execute(sql, params).fetchone()
            return row
        return self._run(read)

    def execute(self, sql: str, params: Sequence[Any]) -> None:
        self._run(lambda conn: conn.execute(sql, params))

    def executemany(self, sql: str, rows: Sequence[Sequence[Any]]) -> None:
        # All rows in one transaction: in autocommit mode each row would commit alone. A savepoint
        # rather than BEGIN, so that a nested write fails alone inside the transaction around it;
        # named by depth, so that releasing the outer one also ends a nested one an interrupt left open.
        def write(conn: sqlite3.Connection) -> None:
            savepoint = f"rows{self._depth}"
            conn.execute(f"SAVEPOINT {savepoint}")
            try:
                conn.executemany(sql, rows)
            except BaseException:
                conn.execute(f"ROLLBACK TO {savepoint}")
                conn.execute(f"RELEASE {savepoint}")
                raise
            conn.execute(f"RELEASE {savepoint}")
        self._run(write)

    def close(self) -> None:
        with self._lock:
            self._conn.close()


class Repository:
    """The handle of one indexed repository; the health component uses only ``db``."""

    def __init__(self, db_path: str | Path) -> None:
        self.db_path: Path = Path(db_path)
        self.db: Database = Database(self.db_path)

    def close(self) -> None:
        self.db.close()

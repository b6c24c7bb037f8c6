"""Tool health shared by many processes, on one machine (a SQLite file) or many (PostgreSQL).

A plain ``ToolHealthTracker`` writes absolute values when it flushes, so when several processes
keep one file the last writer wins. Here every process keeps its tracker in memory as before and
a sync, run on the flush thread, exchanges changes with a shared store:

1. Under one hold of the tracker's lock, ``_take_changes`` hands over what changed since the last
   sync as increments (the tools in ``_dirty``, the usage keys marked one by one) and clears the
   marks: work proportional to the changes, never to the size of the maps. Each record remembers
   natively what the store last acknowledged, so no copy of the maps is kept here.
2. The increments, made storable first (``batches.clean_key``), go into a batch numbered by a
   per-process sequence. A batch that may have reached the store is never changed again: it is
   re-sent as it is until the store acknowledges it.
3. One transaction applies the batches the store has not seen yet (a ledger row per process holds
   the last sequence applied, advanced in the same transaction), merges them into the shared
   totals and reads back every total changed since this process's last sync.
4. Under the lock again, ``_apply_changes`` moves each record by (merged total - what the store
   last acknowledged), so the calls recorded meanwhile are kept; tools and usage keys new to this
   process are inserted when the registry knows them.

Merge rules: counts are sums over every process. ``last_error`` and ``disabled_at`` are registers
that a change overwrites only when it carries them, in the order the store applies the changes:
an error carries ``last_error``; a run of errors that disables carries the disable; a success
while the store holds the tool disabled carries the enable. An enable because the cooldown ran out
stays in the process that saw it run out: every process computes the cooldown itself from the
shared ``disabled_at``, so no clock can end it for the others. Every time a process reads from the
store that lies ahead of its own clock is taken as its present (PostgreSQL also clamps every time
it stores to the server's clock). ``updated_at`` is the latest change's time. ``consecutive_errors``
stays per process; a tool re-enabled elsewhere starts a new run here too. Nothing is ever deleted
from the store: a process whose registry lacks a tool only leaves it out of its own memory.

The hot path never touches the store; a store that is down, slow or locked leaves the batches
waiting for the next sync, logged once per outage.
"""
from __future__ import annotations

import atexit
import logging
import os
import socket
import threading
import time
import uuid
import weakref
from typing import Any, Callable, Protocol, Union

from ordanis_veltrane.config import ToolsConfig
from ordanis_veltrane.repository import Repository
from ordanis_veltrane.sharing.batches import Batch, Pulled, changes_from
from ordanis_veltrane.sharing.stores import PostgresStore, SqliteStore, Store
from ordanis_veltrane.sharing.targets import check_target, is_postgres_url, redact_url
from ordanis_veltrane.tool_handlers import health

__all__ = [
    "Batch", "HealthHandle", "PlainHealth", "PostgresStore", "Pulled", "SharedHealth", "SqliteStore", "Store",
    "check_target", "is_postgres_url", "open_health", "redact_url",
]

logger: logging.Logger = logging.getLogger(__name__)

Target = Union[Repository, str, "os.PathLike[str]"]
# Up to this many usage keys, the usage document is rewritten at every sync that sent something.
SMALL_STORE_KEYS = 1000
# Merged rows taken in, and changed records taken, per hold of the tracker's lock: 32 keeps a
# hold near 0.1 ms at 50k keys, and a call made meanwhile waits about that long at most.
APPLY_SLICE = 32
TAKE_SLICE = 32


class HealthHandle(Protocol):
    tracker: health.ToolHealthTracker

    def sync(self) -> int: ...

    def close(self) -> None: ...


# ---------------------------------------------------------------- targets


def open_health(target: Target, limits: ToolsConfig | None, *, hold_connection: bool | None = None) -> HealthHandle:
    """A plain tracker over a ``Repository``, or a shared one over a SQLite path or a PostgreSQL URL.

    Blocking; the registry must already be installed as ``health.TOOLS``. In shared mode the first
    sync runs here: a store that cannot be reached is logged and the tracker starts from local state.
    ``hold_connection=False``, or ``hold_connection=false`` in the URL's query (which ``--db`` takes),
    connects to PostgreSQL for each sync instead of holding a connection; the argument wins over the URL.
    """
    if isinstance(target, Repository):
        return PlainHealth(health.ToolHealthTracker(target, limits))
    check_target(target)
    store: Store = (PostgresStore(str(target), hold_connection=hold_connection) if is_postgres_url(target)
                    else SqliteStore(os.fspath(target)))
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

def new_process_id() -> str:
    return f"{socket.gethostname()}/{os.getpid()}/{uuid.uuid4().hex[:12]}"


class SharedHealth:
    """A tracker whose counts and health are shared through a store.

    The tracker is built over a private in-memory repository, so its constructor prunes nothing
    shared; the first sync seeds it from the store with the tools and actions the registry
    (``health.TOOLS``) knows. ``sync`` runs on one thread at a time (it blocks on the store);
    ``close`` makes a last sync, writes the store's mirror for plain readers and lets go of it.
    """

    def __init__(self, store: Store, limits: ToolsConfig | None, process_id: str | None = None) -> None:
        self._private = Repository(":memory:")
        self.tracker: health.ToolHealthTracker = health.ToolHealthTracker(self._private, limits)
        self.tracker._take_changes()  # from now on every usage key is marked as it changes
        self.store = store
        self.process_id = process_id or new_process_id()
        self.seq = 0
        self.pending: list[Batch] = []
        self.synced_calls = 0  # call_count increments the store has acknowledged from this process
        self.synced_usage_calls = 0  # and usage calls
        # Hooks for audits (the soak test's logs): before each exchange, with the batches about to be
        # sent (``pending``), and after each acknowledged one.
        self.before_exchange: Callable[[SharedHealth], None] | None = None
        self.on_synced: Callable[[SharedHealth], None] | None = None
        self._sync_lock = threading.Lock()
        self._outage_since: float | None = None
        self._closed = False
        _open_handles.add(self)

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

    def run_on_store(self, work: Callable[[Any], Any]) -> Any:
        """``work(connection)`` on the PostgreSQL store's own connection, between two syncs, so that a
        process reads anything else it needs from the store without a second connection. Raises
        ``LookupError`` where there is none to share (SQLite, or the handle closed)."""
        with self._sync_lock:
            if self._closed or not isinstance(self.store, PostgresStore):
                raise LookupError("no PostgreSQL connection to share")
            return self.store.run(work)

    def close(self) -> None:
        with self._sync_lock:
            if self._closed:
                return
            try:
                self._sync()
                if self.pending:
                    logger.warning("Closing with %d tool health change(s) the %s has not acknowledged",
                                   sum(b.rows for b in self.pending), self.store.description)
                elif self._outage_since is None:
                    self._write_mirror(force=True)
            finally:
                self._closed = True
                self.store.close()
                self._private.close()

    def _take_changes(self) -> tuple[list[Any], list[Any]]:
        """The tracker's change-set, ``TAKE_SLICE`` marks per hold of its lock (each record is taken
        whole in one hold; the calls recorded between two holds wait for one slice at most). The
        marks that keep coming while it takes are left for the next sync, so it ends."""
        tools, usage, left = self.tracker._take_changes(TAKE_SLICE)
        for _ in range(left // TAKE_SLICE + 1):
            if not left:
                break
            more_tools, more_usage, left = self.tracker._take_changes(TAKE_SLICE)
            tools += more_tools
            usage += more_usage
        return tools, usage

    def _sync(self) -> int:
        tools, usage = changes_from(self._take_changes())
        if tools or usage:
            last = self.pending[-1] if self.pending else None
            if last is None or last.maybe_applied:
                self.seq += 1
                last = Batch(self.seq)
                self.pending.append(last)
            last.absorb(tools, usage)
        try:
            if self.before_exchange is not None and self.pending:
                self.before_exchange(self)
            pulled = self.store.exchange(self.process_id, self.pending)
        except Exception as exc:
            self._failed(exc)
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
        self._take_in(pulled)
        if self.on_synced is not None:
            self.on_synced(self)
        # A small store's plain tables are kept current at every sync that sent something (a host
        # may end with a last sync and no close); a large one's at most every mirror period.
        self._write_mirror(force=bool(sent) and len(self.tracker._usage) <= SMALL_STORE_KEYS)
        return sent

    def _write_mirror(self, force: bool) -> None:
        try:
            self.store.write_mirror(force)
        except Exception as exc:
            logger.debug("Could not write the plain tables of the %s: %s", self.store.description, redact_url(exc))

    def _failed(self, exc: Exception) -> None:
        if self._outage_since is None:
            self._outage_since = time.monotonic()
            logger.warning("Could not reach the %s: %s; tool health changes are kept in memory and written "
                           "once it is back", self.store.description, redact_url(exc) or type(exc).__name__)
        else:
            logger.debug("The %s is still unreachable: %s", self.store.description, redact_url(exc))

    def _take_in(self, pulled: Pulled) -> None:
        """Moves each record to the merged totals, under the tracker's lock; a tool or usage key this
        process has not seen is inserted when the registry knows it. In slices of ``APPLY_SLICE`` rows,
        each one hold of the lock: the calls recorded meanwhile wait for one slice at most, and so does
        every other thread for the GIL. Each row moves its record on its own, so a slice at a time
        takes in the same totals."""
        now = health.time.time()  # the tracker's own clock
        tools, usage = pulled.tools, pulled.usage
        for i in range(0, len(tools), APPLY_SLICE):
            self.tracker._apply_changes(tools[i:i + APPLY_SLICE], [], now)
        for i in range(0, len(usage), APPLY_SLICE):
            self.tracker._apply_changes([], usage[i:i + APPLY_SLICE], now)


# Handles not closed yet: a host that ends with a last sync instead of close() still leaves the
# plain tables up to date when the interpreter exits.
_open_handles: "weakref.WeakSet[SharedHealth]" = weakref.WeakSet()


@atexit.register
def _write_mirrors_at_exit() -> None:
    for handle in list(_open_handles):
        with handle._sync_lock:
            if not handle._closed and not handle.pending and handle._outage_since is None:
                handle._write_mirror(force=True)

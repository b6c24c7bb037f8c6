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

import logging
import operator
import os
import socket
import threading
import time
import uuid
from typing import Any, Callable, Protocol, Union

from ordanis_veltrane.config import ToolsConfig
from ordanis_veltrane.repository import Repository
from ordanis_veltrane.sharing.batches import (
    Batch,
    Pulled,
    ToolChange,
    UsageKey,
    storable,
    storable_message,
    usage_key_text,
)
from ordanis_veltrane.sharing.stores import PostgresStore, SqliteStore, Store
from ordanis_veltrane.sharing.targets import check_target, is_postgres_url, redact_url
from ordanis_veltrane.tool_handlers import health

__all__ = [
    "Batch", "HealthHandle", "PlainHealth", "PostgresStore", "Pulled", "SharedHealth", "SqliteStore", "Store",
    "check_target", "is_postgres_url", "open_health", "redact_url",
]

logger: logging.Logger = logging.getLogger(__name__)

Target = Union[Repository, str, "os.PathLike[str]"]
# A record as copied under the lock: call_count, error_count, last_error, disabled_at, updated_at.
ToolSnap = tuple[int, int, Any, Union[float, None], float]
UsageSnap = tuple[int, int, float]

_TOOL_FIELDS: Callable[[Any], ToolSnap] = operator.attrgetter(
    "call_count", "error_count", "last_error", "disabled_at", "updated_at")
_USAGE_FIELDS: Callable[[Any], UsageSnap] = operator.attrgetter("calls", "timed_calls", "total_ms")
_ZERO_TOOL: ToolSnap = (0, 0, None, None, 0.0)
_ZERO_USAGE: UsageSnap = (0, 0, 0.0)
FULL_SCAN_EVERY = 64  # syncs between two copies of every record, whatever the change marks say



class HealthHandle(Protocol):
    tracker: health.ToolHealthTracker

    def sync(self) -> int: ...

    def close(self) -> None: ...


# ---------------------------------------------------------------- targets


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

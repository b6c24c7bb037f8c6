"""Shared fixtures: a real SQLite repository, a controllable clock, a test registry,
and a database wrapper that records every statement and checks the tracker's lock."""
from __future__ import annotations

import threading
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any, Callable, Iterator

import pytest

from ordanis_veltrane.config import ToolsConfig
from ordanis_veltrane.repository import Repository
from ordanis_veltrane.tool_handlers import health
from ordanis_veltrane.tool_registry import ActionSpec, ToolRegistry, ToolSpec


@dataclass
class HostToolState:
    """A host's own record type, put in place of `health._ToolState`."""

    call_count: int = 0
    error_count: int = 0
    last_error: Any = None
    disabled_at: Any = None
    updated_at: float = 0.0
    consecutive_errors: int = 0


@dataclass
class HostUsage:
    """A host's own record type, put in place of `health._Usage`."""

    calls: int = 0
    timed_calls: int = 0
    total_ms: float = 0.0


class FakeClock:
    """Stands in for the `time` module on `health`: `time()` answers `now`."""

    def __init__(self, now: float = 1_700_000_000.0) -> None:
        self.now = now
        self.reads = 0

    def time(self) -> float:
        self.reads += 1
        return self.now

    def advance(self, seconds: float) -> None:
        self.now += seconds


@pytest.fixture
def clock(monkeypatch: pytest.MonkeyPatch) -> FakeClock:
    fake = FakeClock()
    monkeypatch.setattr(health, "time", fake)
    return fake


def make_registry(tools: dict[str, tuple[str, ...]]) -> ToolRegistry:
    registry = ToolRegistry()
    for name, actions in tools.items():
        registry.register(ToolSpec(name, [ActionSpec(a) for a in actions]))
    return registry


@pytest.fixture
def registry(monkeypatch: pytest.MonkeyPatch) -> ToolRegistry:
    """A registry of tools a..e and search(text, symbol), installed as health.TOOLS."""
    reg = make_registry(
        {"a": (), "b": (), "c": (), "d": (), "e": (), "search": ("text", "symbol"), "git": ("log",)}
    )
    monkeypatch.setattr(health, "TOOLS", reg)
    return reg


@pytest.fixture
def repo(tmp_path: Path) -> Iterator[Repository]:
    repository = Repository(tmp_path / "repo.db")
    yield repository
    repository.close()


@dataclass
class Call:
    op: str
    args: tuple[Any, ...]


@dataclass
class RecordingDb:
    """Wraps a real database: records each call, can be told to fail, and fails
    the test if a statement runs while the tracker's lock is held."""

    inner: Any
    calls: list[Call] = field(default_factory=list)
    fail: dict[str, BaseException] = field(default_factory=dict)
    tracker: Any = None
    lock_violations: int = 0

    def _enter(self, op: str, *args: Any) -> None:
        if self.tracker is not None and self.tracker._lock.locked():
            self.lock_violations += 1
        self.calls.append(Call(op, args))
        error = self.fail.get(op)
        if error is not None:
            raise error

    def fetchall(self, sql: str) -> Any:
        self._enter("fetchall", sql)
        return self.inner.fetchall(sql)

    def fetchone(self, sql: str, params: Any) -> Any:
        self._enter("fetchone", sql, params)
        return self.inner.fetchone(sql, params)

    def execute(self, sql: str, params: Any) -> Any:
        self._enter("execute", sql, params)
        return self.inner.execute(sql, params)

    def executemany(self, sql: str, rows: Any) -> Any:
        rows = list(rows)
        self._enter("executemany", sql, rows)
        return self.inner.executemany(sql, rows)

    def ops(self) -> list[str]:
        return [c.op for c in self.calls]


class RecordingRepo:
    def __init__(self, db: Any) -> None:
        self.db = db


@pytest.fixture
def recording(repo: Repository) -> RecordingDb:
    return RecordingDb(repo.db)


@pytest.fixture
def make_tracker(recording: RecordingDb) -> Callable[..., Any]:
    """Builds a tracker over the recording database; the database then watches its lock."""

    def build(limits: ToolsConfig | None = None, db: Any = None) -> Any:
        target = recording if db is None else db
        tracker = health.ToolHealthTracker(RecordingRepo(target), limits)
        if isinstance(target, RecordingDb):
            target.tracker = tracker
        return tracker

    return build


def hold_lock_in_thread(lock: Any) -> tuple[threading.Event, threading.Event, threading.Thread]:
    """Starts a thread that takes `lock` and keeps it until `release` is set."""
    held, release = threading.Event(), threading.Event()

    def run() -> None:
        with lock:
            held.set()
            release.wait(10)

    thread = threading.Thread(target=run, daemon=True)
    thread.start()
    assert held.wait(10)
    return held, release, thread

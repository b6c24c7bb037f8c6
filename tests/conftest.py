"""Shared fixtures: a real SQLite repository, a fake clock, a test registry and fake databases."""

import contextlib
import os
import shutil
import sys
import threading
import types
from dataclasses import make_dataclass
from pathlib import Path
from typing import Any, AsyncIterator, Callable, Iterator, NoReturn

import pytest

from ordanis_veltrane.repository import Repository
from ordanis_veltrane.tool_handlers import health
from ordanis_veltrane.tool_registry import ActionSpec, ToolRegistry, ToolSpec

SELECT_HEALTH = "SELECT tool_name, call_count, error_count, last_error, disabled_at, updated_at FROM tool_health"
SELECT_USAGE = "SELECT value FROM schema_info WHERE key = ?"
WRITE_USAGE = "INSERT OR REPLACE INTO schema_info (key, value) VALUES (?, ?)"
NOW, NOW_TEXT = 1_700_000_000.0, "2023-11-14 22:13:20"
FIELDS = ("call_count", "error_count", "last_error", "disabled_at", "updated_at", "consecutive_errors")  # _ToolState
MEMBERS = ("tool", "action", "outcome", "alias_hit", "calls", "timed_calls", "total_ms")  # of a usage document row

# A host's own record types, put in place of health._ToolState and health._Usage.
HostToolState = make_dataclass("HostToolState", [
    ("call_count", int, 0), ("error_count", int, 0), ("last_error", Any, None), ("disabled_at", Any, None),
    ("updated_at", float, 0.0), ("consecutive_errors", int, 0)])
HostUsage = make_dataclass("HostUsage", [("calls", int, 0), ("timed_calls", int, 0), ("total_ms", float, 0.0)])
DbError = type("DbError", (Exception,), {})


def throw(error: BaseException) -> NoReturn:  # raise, as an expression
    raise error


def child_env() -> dict[str, str]:
    """The environment as it is (a sanitizer preload included), with the package under test first."""
    return {**os.environ, "PYTHONPATH": os.pathsep.join([str(Path(health.__file__).parents[2]), *sys.path])}


def need(program: str) -> str:
    """The program's path; the test skips where it is not installed."""
    path = shutil.which(program, path=os.pathsep.join([str(Path(sys.executable).parent), os.environ.get("PATH", "")]))
    return path if path is not None else pytest.skip(f"{program} is not installed")


@contextlib.asynccontextmanager
async def stdio_session(args: list[str], log: Any, command: str = sys.executable, env: dict[str, str] | None = None,
                        cwd: Path | None = None) -> AsyncIterator[Any]:
    """The SDK's ClientSession, initialized, with the MCP server `command *args` over stdio; its stderr goes to
    `log`, a path (appended to) or an open file."""
    from mcp import ClientSession, StdioServerParameters, stdio_client

    params = StdioServerParameters(command=command, args=args, env=child_env() if env is None else env, cwd=cwd)
    with open(log, "a") if isinstance(log, (str, Path)) else contextlib.nullcontext(log) as errlog:
        async with stdio_client(params, errlog=errlog) as (read, write), ClientSession(read, write) as session:
            await session.initialize()
            yield session


class FakeClock:  # stands in for the `time` module on `health`; counts its reads
    def __init__(self, now: Any = NOW) -> None:
        self.now, self.reads = now, 0

    def time(self) -> Any:
        self.reads += 1
        return self.now

    def advance(self, seconds: float) -> None:
        self.now += seconds


class HostLock:
    """A host lock around a real one, whose acquire and release are Python methods; `strike`, when `site` names
    one of them, runs once from inside it (once the lock is taken, or before it is let go)."""
    site, acquired, strike = "", 0, print

    def __init__(self) -> None:
        self.inner = threading.Lock()
        self.locked = self.inner.locked

    def acquire(self) -> bool:
        self.inner.acquire()
        HostLock.acquired += 1
        self.run_strike("acquire")
        return True

    def release(self) -> None:
        try:
            self.run_strike("release")
        finally:
            self.inner.release()

    @staticmethod
    def run_strike(site: str) -> None:
        if HostLock.site == site:
            HostLock.site = ""
            HostLock.strike()


class MemDb:
    """An in-memory database: `one` is the raw fetchone answer, writes are kept in `written` (unless `keep`
    is false), execute stores its document as the next `one`, and the operations in `fail` raise a fresh DbError."""

    def __init__(self, rows: Any = (), one: Any = None, keep: bool = True, fail: Any = ()) -> None:
        self.rows, self.one, self.keep, self.written, self.fail = rows, one, keep, [], set(fail)

    def __getattr__(self, op: str) -> Callable[..., Any]:  # fetchall, fetchone, execute, executemany
        def run(sql: str, params: Any = None) -> Any:
            if op in self.fail:
                raise DbError(op)
            if op.startswith("exec") and self.keep:
                self.written.append((op, sql, tuple(params) if op == "execute" else [tuple(r) for r in params]))
            self.one = (params[1],) if op == "execute" else self.one
            return self.rows if op == "fetchall" else self.one if op == "fetchone" else None
        return run


class RecordingDb:
    """Wraps a real database: records each call as (op, args), raises what `fail` names, and counts
    statements run while the tracker's lock, or one of `locks`, is held."""

    def __init__(self, inner: Any) -> None:
        self.inner, self.calls, self.fail, self.tracker, self.lock_violations = inner, [], {}, None, 0
        self.locks: list[Any] = []

    def __getattr__(self, op: str) -> Callable[..., Any]:  # fetchall, fetchone, execute, executemany
        return lambda *args: self._enter(op, *args)

    def _enter(self, op: str, *args: Any) -> Any:
        held = [*self.locks, self.tracker._lock] if self.tracker is not None else self.locks
        self.lock_violations += any(lock.locked() for lock in held)
        self.calls.append((op, args))
        if op in self.fail:
            raise self.fail[op]
        return getattr(self.inner, op)(*args)

    def ops(self) -> list[str]:
        return [op for op, _ in self.calls]


def patched(fn: Callable[[], Any], **replacements: Any) -> Any:  # calls fn with module attributes replaced
    saved = {name: getattr(health, name) for name in replacements}
    vars(health).update(replacements)
    try:
        return fn()
    finally:
        vars(health).update(saved)


def tracker_over(db: Any, limits: Any = None) -> Any:
    return health.ToolHealthTracker(types.SimpleNamespace(db=db), limits)


def make_registry(tools: dict[str, tuple[str, ...]]) -> ToolRegistry:
    return ToolRegistry({name: ToolSpec(name, [ActionSpec(a) for a in actions]) for name, actions in tools.items()})


@pytest.fixture
def clock(monkeypatch: pytest.MonkeyPatch) -> FakeClock:
    monkeypatch.setattr(health, "time", FakeClock())
    return health.time


@pytest.fixture
def registry(monkeypatch: pytest.MonkeyPatch) -> ToolRegistry:
    monkeypatch.setattr(health, "TOOLS", make_registry({"a": (), "b": (), "c": (), "search": ("text", "symbol"),
                                                       "git": ("log",)}))
    return health.TOOLS


@pytest.fixture
def repo(tmp_path: Path) -> Iterator[Repository]:
    repository = Repository(tmp_path / "repo.db")
    yield repository
    repository.close()


@pytest.fixture
def recording(repo: Repository) -> RecordingDb:
    return RecordingDb(repo.db)


@pytest.fixture
def make_tracker(recording: RecordingDb, monkeypatch: pytest.MonkeyPatch) -> Callable[..., Any]:
    """Builds a tracker over `recording`, which watches every lock the module makes, from construction on."""
    monkeypatch.setattr(health, "threading", types.SimpleNamespace(
        Lock=lambda: recording.locks.append(threading.Lock()) or recording.locks[-1]))
    return lambda limits=None: setattr(recording, "tracker", tracker_over(recording, limits)) or recording.tracker

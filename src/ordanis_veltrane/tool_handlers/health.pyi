"""Tool health tracking, the performance stats of the tools, and the process's thread census.

Type stubs of the native module ``ordanis_veltrane.tool_handlers.health``.
"""

import json as json
import logging as logging
import threading as threading
import time as time
from collections.abc import Callable, Iterable, Mapping
from dataclasses import Field, dataclass as dataclass
from datetime import datetime as datetime, timezone as timezone
from typing import TYPE_CHECKING as TYPE_CHECKING, Any as Any, ClassVar, Protocol, overload, type_check_only

from typing_extensions import Self, disjoint_base

from ordanis_veltrane.config import ToolsConfig as ToolsConfig
from ordanis_veltrane.utils.process import ThreadCensus as ThreadCensus

# The daemon services below are read from the module at each use and may be replaced
# (``health.TOOLS = my_registry``); their types say what the module asks of them.

@type_check_only
class _ToolSpec(Protocol):
    """A tool in the registry: ``action(name)`` gives one of its actions, or None when it has none by that name."""

    def action(self, name: str, /) -> object: ...

@type_check_only
class _ToolRegistry(Protocol):
    """The daemon's tool registry: ``get(name)`` gives the tool's spec, or None for a tool it does not know."""

    def get(self, name: str, /) -> _ToolSpec | None: ...

@type_check_only
class _StatsEntry(Protocol):
    """One tool's timing stats; read by key: name, count, avg_ms, p95_ms, min_ms, max_ms, errors."""

    def __getitem__(self, key: str, /) -> Any: ...

@type_check_only
class _TimingCollector(Protocol):
    """The daemon's timing collector."""

    def get_all_stats(self) -> Iterable[_StatsEntry]: ...

@type_check_only
class _Census(Protocol):
    """A census of the process's threads: the OS count (None where unknown), Python's count, its threads by prefix."""

    @property
    def os_threads(self) -> int | None: ...
    @property
    def python_total(self) -> int: ...
    @property
    def python_threads(self) -> Mapping[str, int]: ...

TOOLS: _ToolRegistry
is_slow_call: Callable[[str, str | None], bool]
get_timing_collector: Callable[[], _TimingCollector]
thread_census: Callable[[], _Census]

@type_check_only
class _Database(Protocol):
    """What the tracker uses of the daemon's database object."""

    def fetchall(self, sql: str, /) -> Any: ...
    def fetchone(self, sql: str, params: Any, /) -> Any: ...
    def execute(self, sql: str, params: Any, /) -> Any: ...
    def executemany(self, sql: str, rows: Any, /) -> Any: ...

@type_check_only
class _HasDb(Protocol):
    """A repository handle: the daemon's ``Repository``, or anything with such a ``db``."""

    @property
    def db(self) -> _Database: ...

@type_check_only
class _Lock(Protocol):
    """The tracker's lock: a threading.Lock, or any object with these two methods."""

    def acquire(self) -> Any: ...
    def release(self) -> Any: ...

logger: logging.Logger

_SQLITE_TIMESTAMP: str
_TOOL_HEALTH_COLUMNS: str
TOOL_USAGE_KEY: str

# (tool, action, outcome, alias_hit)
_UsageKey = tuple[str, str | None, str, bool]

@overload
def _sqlite_time(epoch: None, /) -> None: ...
@overload
def _sqlite_time(epoch: float, /) -> str: ...
def _epoch(text: str | None, /) -> float | None: ...
def _known(tool: str, action: str | None) -> bool: ...

@disjoint_base
class _ToolState:
    call_count: int
    error_count: int
    last_error: Any
    disabled_at: float | None
    updated_at: float
    consecutive_errors: int
    __hash__: ClassVar[None]  # type: ignore[assignment]
    # Described as the dataclass it stands for: dataclasses.fields, asdict and replace work on it.
    __dataclass_fields__: ClassVar[dict[str, Field[Any]]]
    __dataclass_params__: ClassVar[Any]
    __match_args__ = ("call_count", "error_count", "last_error", "disabled_at", "updated_at", "consecutive_errors")
    def __init__(
        self,
        call_count: int = 0,
        error_count: int = 0,
        last_error: Any = None,
        disabled_at: float | None = None,
        updated_at: float = 0.0,
        consecutive_errors: int = 0,
    ) -> None: ...
    def __eq__(self, value: object, /) -> bool: ...
    def __reduce__(self) -> tuple[type[Self], tuple[int, int, Any, float | None, float, int]]: ...

@disjoint_base
class _Usage:
    calls: int
    timed_calls: int
    total_ms: float
    __hash__: ClassVar[None]  # type: ignore[assignment]
    __dataclass_fields__: ClassVar[dict[str, Field[Any]]]
    __dataclass_params__: ClassVar[Any]
    __match_args__ = ("calls", "timed_calls", "total_ms")
    def __init__(self, calls: int = 0, timed_calls: int = 0, total_ms: float = 0.0) -> None: ...
    def __eq__(self, value: object, /) -> bool: ...
    def __reduce__(self) -> tuple[type[Self], tuple[int, int, float]]: ...

@disjoint_base
class ToolHealthTracker:
    """Per-tool health and usage counts in memory, mirrored in the repository database."""

    _repo: _HasDb
    _limits: ToolsConfig
    _lock: _Lock
    _state: dict[str, _ToolState]
    _dirty: set[str]
    _usage: dict[_UsageKey, _Usage]
    _usage_dirty: bool
    def __init__(self, repository: _HasDb, limits: ToolsConfig | None = None) -> None: ...
    @property
    def limits(self) -> ToolsConfig: ...
    @property
    def cooldown_s(self) -> float: ...
    @property
    def has_unsaved_changes(self) -> bool: ...
    def is_disabled(self, tool_name: str) -> tuple[bool, str | None]: ...
    def record_success(self, tool_name: str) -> None: ...
    def record_error(self, tool_name: str, error: str | None) -> None: ...
    def record_call(
        self,
        tool_name: str,
        action: str | None,
        outcome: str,
        *,
        alias_hit: bool,
        duration_ms: float | None,
    ) -> None: ...
    def flush(self) -> int: ...
    def _flush_health(self) -> int: ...
    def _flush_usage(self) -> int: ...
    def _load(self) -> None: ...
    def _load_usage(self) -> None: ...
    def get_health_summary(self) -> list[dict[str, Any]]: ...
    def _usage_rows(self, tool_name: str) -> list[dict[str, Any]]: ...
    @overload
    def _take_changes(
        self,
    ) -> tuple[list[tuple[str, int, int, bool, Any, int, float | None, float]],
               list[tuple[_UsageKey, int, int, float]]]: ...
    @overload
    def _take_changes(
        self, limit: int, /,
    ) -> tuple[list[tuple[str, int, int, bool, Any, int, float | None, float]],
               list[tuple[_UsageKey, int, int, float]], int]: ...
    def _apply_changes(
        self,
        tools: list[tuple[str, int, int, Any, float | None, float]],
        usage: list[tuple[str, str | None, str, bool, int, int, float]],
        now: float,
        /,
    ) -> None: ...

def handle_get_tool_performance_stats() -> dict[str, Any]: ...
def thread_census_report(budget: int, census: _Census | None = None) -> dict[str, Any]: ...

"""The increments one process sends to a shared store, and what the store answers."""
from __future__ import annotations

import functools
import json
from dataclasses import dataclass, field
from typing import Any, Sequence, Union

UsageKey = tuple[str, Union[str, None], str, bool]


@dataclass
class ToolChange:
    """What one process changed of one tool between two snapshots."""

    calls: int = 0
    errors: int = 0
    updated_at: float = 0.0
    err_ts: float | None = None  # last_error was written at this time (None: not written)
    last_error: Any = None
    err_seq: int = 0
    dis_ts: float | None = None  # the disabled register was written at this time (None: not written)
    disabled_at: float | None = None
    dis_seq: int = 0

    def absorb(self, later: ToolChange) -> None:
        self.calls += later.calls
        self.errors += later.errors
        self.updated_at = max(self.updated_at, later.updated_at)
        if later.err_ts is not None:
            self.err_ts, self.last_error, self.err_seq = later.err_ts, later.last_error, later.err_seq
        if later.dis_ts is not None:
            self.dis_ts, self.disabled_at, self.dis_seq = later.dis_ts, later.disabled_at, later.dis_seq


@dataclass
class Batch:
    """Increments numbered by the process's sequence. Once ``maybe_applied`` (the commit was under
    way when the exchange failed) it is re-sent unchanged; before that, later increments join it."""

    seq: int
    tools: dict[str, ToolChange] = field(default_factory=dict)
    usage: dict[UsageKey, list[float]] = field(default_factory=dict)
    maybe_applied: bool = False

    def absorb(self, tools: dict[str, ToolChange], usage: dict[UsageKey, list[float]]) -> None:
        for name, change in tools.items():
            change.err_seq = change.dis_seq = self.seq
            mine = self.tools.get(name)
            if mine is None:
                self.tools[name] = change
            else:
                mine.absorb(change)
        for key, counts in usage.items():
            have = self.usage.get(key)
            if have is None:
                self.usage[key] = counts
            else:
                for i in range(3):
                    have[i] += counts[i]

    @property
    def rows(self) -> int:
        return len(self.tools) + len(self.usage)


@dataclass
class Combined:
    """The batches a store has not applied yet, summed, with every time clamped to the store's clock."""

    last_seq: int
    tools: dict[str, ToolChange]
    usage: dict[UsageKey, list[float]]


def combine(batches: Sequence[Batch], applied_seq: int, store_now: float) -> Combined:
    tools: dict[str, ToolChange] = {}
    usage: dict[UsageKey, list[float]] = {}
    last = applied_seq
    for batch in batches:
        if batch.seq <= applied_seq:
            continue  # applied by an exchange whose acknowledgement was lost
        last = max(last, batch.seq)
        for name, change in batch.tools.items():
            mine = tools.get(name)
            if mine is None:
                tools[name] = ToolChange(**change.__dict__)
            else:
                mine.absorb(change)
        for key, counts in batch.usage.items():
            have = usage.get(key)
            if have is None:
                usage[key] = list(counts)
            else:
                for i in range(3):
                    have[i] += counts[i]
    for change in tools.values():
        change.updated_at = min(change.updated_at, store_now)
        if change.err_ts is not None:
            change.err_ts = min(change.err_ts, store_now)
        if change.dis_ts is not None:
            change.dis_ts = min(change.dis_ts, store_now)
            if change.disabled_at is not None:
                change.disabled_at = min(change.disabled_at, store_now)
    return Combined(last, tools, usage)


@dataclass
class Pulled:
    """Merged totals that changed since a version: health rows (tool, calls, errors, last_error,
    disabled_at, updated_at) and usage rows (key, calls, timed_calls, total_ms)."""

    version: int
    tools: list[tuple[str, int, int, Any, float | None, float]]
    usage: list[tuple[UsageKey, int, int, float]]


def storable(text: object) -> bool:
    """Whether a name can go to a store: text that UTF-8 can carry (a lone surrogate cannot)."""
    if type(text) is not str:
        return False
    try:
        text.encode("utf-8")
    except UnicodeEncodeError:
        return False
    return True


def storable_message(message: Any) -> str | None:
    if message is None or storable(message):
        return message  # type: ignore[no-any-return]
    return str(message).encode("utf-8", "backslashreplace").decode("utf-8")


@functools.lru_cache(maxsize=1 << 16)
def usage_key_text(key: UsageKey) -> str | None:
    """The store's primary key of a usage key: its JSON, ASCII only, so that every process and every
    Python version makes the same text of it. None for a key no store can hold (it stays local)."""
    tool, action, outcome, alias_hit = key
    if not (storable(tool) and storable(outcome) and type(alias_hit) is bool
            and (action is None or storable(action))):
        return None
    return json.dumps(key, separators=(",", ":"))


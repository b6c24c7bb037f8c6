"""The increments one process sends to a shared store, and what the store answers.

Everything a batch holds has already been made storable (``clean_key`` and ``clean_text``): a
batch is formed from clean values and never changed once it may have reached the store, so a
store never refuses a record for its text, and a batch re-sent after a failure is the same batch.
"""
from __future__ import annotations

import json
import logging
import re
from dataclasses import dataclass, field
from typing import Any, Sequence, Union

UsageKey = tuple[str, Union[str, None], str, bool]

logger: logging.Logger = logging.getLogger("ordanis_veltrane.sharing")

# Names longer than this are stored under OTHER_NAME, as the pipeline stores long actions.
MAX_NAME_LENGTH = 64
OTHER_NAME = "(other)"
# Error messages are kept to their first 500 characters, as the tracker keeps them.
MAX_MESSAGE_LENGTH = 500
# What no store can hold: NUL (PostgreSQL text) and lone surrogates (UTF-8). Both stores get the
# same replacement, U+FFFD.
_UNSTORABLE = re.compile("[\x00\ud800-\udfff]")
REPLACEMENT = "\ufffd"


def clean_text(text: str) -> str:
    return _UNSTORABLE.sub(REPLACEMENT, text) if _UNSTORABLE.search(text) else text


def clean_name(name: object) -> str:
    text = clean_text(name if type(name) is str else str(name))
    return text if len(text) <= MAX_NAME_LENGTH else OTHER_NAME


def clean_message(message: Any) -> str | None:
    if message is None:
        return None
    return clean_text(message if type(message) is str else str(message))[:MAX_MESSAGE_LENGTH]


def clean_key(key: UsageKey) -> UsageKey:
    tool, action, outcome, alias_hit = key
    return (clean_name(tool), None if action is None else clean_name(action), clean_name(outcome),
            bool(alias_hit))


def storable(text: object) -> bool:
    """Whether a name goes to a store as it is (the other names go as their clean form)."""
    return type(text) is str and len(text) <= MAX_NAME_LENGTH and _UNSTORABLE.search(text) is None


def usage_key_text(key: UsageKey) -> str:
    """The store's primary key of a (clean) usage key: its JSON, ASCII only, so that every process
    and every Python version makes the same text of it."""
    return json.dumps(key, separators=(",", ":"))


@dataclass
class ToolChange:
    """What one process changed of one tool between two change-sets."""

    calls: int = 0
    errors: int = 0
    updated_at: float = 0.0
    err: bool = False  # last_error was written here
    last_error: Any = None
    dis_op: int = 0  # 0: the disabled register untouched; 1: disabled here at disabled_at; 2: enabled here
    disabled_at: float | None = None

    def absorb(self, later: ToolChange) -> None:
        self.calls += later.calls
        self.errors += later.errors
        self.updated_at = max(self.updated_at, later.updated_at)
        if later.err:
            self.err, self.last_error = True, later.last_error
        if later.dis_op:
            self.dis_op, self.disabled_at = later.dis_op, later.disabled_at


@dataclass
class Batch:
    """Increments numbered by the process's sequence. Once ``maybe_applied`` (a commit was under
    way when the exchange failed) it is re-sent unchanged; before that, later increments join it."""

    seq: int
    tools: dict[str, ToolChange] = field(default_factory=dict)
    usage: dict[UsageKey, list[float]] = field(default_factory=dict)
    maybe_applied: bool = False

    def absorb(self, tools: dict[str, ToolChange], usage: dict[UsageKey, list[float]]) -> None:
        for name, change in tools.items():
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


def changes_from(
    taken: tuple[list[tuple[str, int, int, bool, Any, int, float | None, float]],
                 list[tuple[UsageKey, int, int, float]]],
) -> tuple[dict[str, ToolChange], dict[UsageKey, list[float]]]:
    """The tracker's change-set as clean increments, records of one clean name summed."""
    tools: dict[str, ToolChange] = {}
    for name, calls, errors, err, last_error, dis_op, disabled_at, updated_at in taken[0]:
        change = ToolChange(calls, errors, updated_at, err, clean_message(last_error) if err else None,
                            dis_op, disabled_at)
        cname = name if storable(name) else clean_name(name)
        have = tools.get(cname)
        if have is None:
            tools[cname] = change
        else:
            have.absorb(change)
    usage: dict[UsageKey, list[float]] = {}
    for key, calls, timed, total in taken[1]:
        ckey = key if (storable(key[0]) and (key[1] is None or storable(key[1])) and storable(key[2])
                       and type(key[3]) is bool) else clean_key(key)
        have_u = usage.get(ckey)
        if have_u is None:
            usage[ckey] = [calls, timed, total]
        else:
            have_u[0] += calls
            have_u[1] += timed
            have_u[2] += total
    return tools, usage


@dataclass
class Combined:
    """The batches a store has not applied yet, summed."""

    last_seq: int
    tools: dict[str, ToolChange]
    usage: dict[UsageKey, list[float]]


def combine(batches: Sequence[Batch], applied_seq: int) -> Combined:
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
    return Combined(last, tools, usage)


@dataclass
class Pulled:
    """Merged totals that changed since the process's cursor, as the store reads them: health rows
    (tool, calls, errors, last_error, disabled_at, updated_at) and usage rows (tool, action,
    outcome, alias_hit, calls, timed_calls, total_ms), for the tracker's ``_apply_changes``."""

    tools: list[tuple[str, int, int, Any, Union[float, None], float]]
    usage: list[tuple[str, Union[str, None], str, Any, int, int, float]]

"""The health and usage records, and the registry test for usage keys."""
from __future__ import annotations

import gc
import weakref
from typing import Any

import pytest

from ordanis_veltrane.tool_handlers import health
from ordanis_veltrane.tool_registry import ToolRegistry

STATE_FIELDS = ("call_count", "error_count", "last_error", "disabled_at", "updated_at", "consecutive_errors")
USAGE_FIELDS = ("calls", "timed_calls", "total_ms")
I64_MAX, I64_MIN = 2**63 - 1, -(2**63)


def fields(record: Any, names: tuple[str, ...]) -> tuple[Any, ...]:
    return tuple(getattr(record, n) for n in names)


def test_defaults() -> None:
    state, usage = health._ToolState(), health._Usage()
    assert fields(state, STATE_FIELDS) == (0, 0, None, None, 0.0, 0)
    assert type(state.updated_at) is float
    assert fields(usage, USAGE_FIELDS) == (0, 0, 0.0)
    assert type(usage.total_ms) is float


@pytest.mark.parametrize(
    ("cls", "names", "values"),
    [
        (health._ToolState, STATE_FIELDS, (1, 2, "boom", 3.5, 4.25, 5)),
        (health._Usage, USAGE_FIELDS, (7, 6, 12.5)),
    ],
)
def test_construction_by_position_name_and_mixed(cls: type, names: tuple[str, ...], values: tuple) -> None:
    by_position = cls(*values)
    by_name = cls(**dict(zip(names, values)))
    mixed = cls(values[0], **dict(zip(names[1:], values[1:])))
    partial = cls(**{names[1]: values[1]})
    for record in (by_position, by_name, mixed):
        assert fields(record, names) == values
    assert by_position == by_name == mixed
    assert getattr(partial, names[1]) == values[1] and getattr(partial, names[0]) == 0


@pytest.mark.parametrize(
    "make",
    [
        lambda: health._ToolState(1, 2, None, None, 0.0, 0, 7),
        lambda: health._ToolState(nope=1),
        lambda: health._ToolState(1, call_count=2),
        lambda: health._Usage(1, 2, 3.0, 4),
        lambda: health._Usage(count=1),
        lambda: health._Usage(1, calls=1),
    ],
    ids=["state-too-many", "state-unknown-kw", "state-twice", "usage-too-many", "usage-unknown-kw", "usage-twice"],
)
def test_bad_construction_raises_type_error(make: Any) -> None:
    with pytest.raises(TypeError):
        make()


@pytest.mark.parametrize(
    ("record", "text"),
    [
        (
            health._ToolState(),
            "_ToolState(call_count=0, error_count=0, last_error=None, disabled_at=None, updated_at=0.0, consecutive_errors=0)",
        ),
        (
            health._ToolState(3, 1, "it's \"bad\"\n", 1700000000.5, 1700000001.0, 1),
            "_ToolState(call_count=3, error_count=1, last_error='it\\'s \"bad\"\\n', disabled_at=1700000000.5, "
            "updated_at=1700000001.0, consecutive_errors=1)",
        ),
        (health._ToolState(last_error=["x"]), "_ToolState(call_count=0, error_count=0, last_error=['x'], "
         "disabled_at=None, updated_at=0.0, consecutive_errors=0)"),
        (health._Usage(), "_Usage(calls=0, timed_calls=0, total_ms=0.0)"),
        (health._Usage(2, 1, 0.1 + 0.2), "_Usage(calls=2, timed_calls=1, total_ms=0.30000000000000004)"),
        (health._Usage(-1, 0, 1e16), "_Usage(calls=-1, timed_calls=0, total_ms=1e+16)"),
        (health._ToolState(disabled_at=-0.0, updated_at=1e-07), "_ToolState(call_count=0, error_count=0, "
         "last_error=None, disabled_at=-0.0, updated_at=1e-07, consecutive_errors=0)"),
    ],
)
def test_repr_like_a_dataclass(record: Any, text: str) -> None:
    assert repr(record) == text


@pytest.mark.parametrize(("cls", "names"), [(health._ToolState, STATE_FIELDS), (health._Usage, USAGE_FIELDS)])
def test_equality_is_field_wise_and_records_are_unhashable(cls: type, names: tuple[str, ...]) -> None:
    base = cls()
    assert base == cls() and not (base != cls())
    changed_values = {"last_error": "x", "disabled_at": 1.0, "updated_at": 1.0, "total_ms": 1.0}
    for name in names:
        other = cls(**{name: changed_values.get(name, 1)})
        assert other != base and not (other == base)
    assert base != tuple(getattr(base, n) for n in names)
    assert health._ToolState() != health._Usage()
    with pytest.raises(TypeError):
        hash(base)
    with pytest.raises(TypeError):
        {base}  # noqa: B018
    with pytest.raises(TypeError):
        base < cls()  # noqa: B015


def test_repr_of_a_self_reference() -> None:
    state = health._ToolState()
    state.last_error = state
    assert repr(state) == (
        "_ToolState(call_count=0, error_count=0, last_error=..., disabled_at=None, updated_at=0.0, consecutive_errors=0)"
    )


def test_cycle_through_last_error_is_collected() -> None:
    collected = []

    class Marker:
        pass

    marker = Marker()
    marker.state = health._ToolState(last_error=marker)
    weakref.finalize(marker, collected.append, True)
    del marker
    gc.collect()
    assert collected == [True]


@pytest.mark.parametrize(
    ("cls", "name"),
    [(health._ToolState, n) for n in ("call_count", "error_count", "consecutive_errors")]
    + [(health._Usage, n) for n in ("calls", "timed_calls")],
)
def test_counts_are_64_bit(cls: type, name: str) -> None:
    record = cls(**{name: I64_MAX})
    assert getattr(record, name) == I64_MAX
    setattr(record, name, I64_MIN)
    assert getattr(record, name) == I64_MIN
    for bad in (I64_MAX + 1, I64_MIN - 1, 2**100):
        with pytest.raises(OverflowError):
            setattr(record, name, bad)
        with pytest.raises(OverflowError):
            cls(**{name: bad})
    assert getattr(record, name) == I64_MIN
    with pytest.raises(TypeError):
        setattr(record, name, "1")
    assert getattr(record, name) == I64_MIN


def test_records_are_mutable() -> None:
    state = health._ToolState()
    marker = object()
    state.call_count, state.error_count, state.consecutive_errors = 5, 4, 3
    state.last_error = marker
    state.disabled_at = 12.5
    state.updated_at = 13.25
    assert fields(state, STATE_FIELDS) == (5, 4, marker, 12.5, 13.25, 3)
    assert state.last_error is marker
    state.disabled_at = None
    state.last_error = None
    assert state.disabled_at is None and state.last_error is None
    state.call_count += 1
    assert state.call_count == 6

    usage = health._Usage()
    usage.calls += 2
    usage.timed_calls += 1
    usage.total_ms += 1.5
    assert fields(usage, USAGE_FIELDS) == (2, 1, 1.5)


class FalsySpec:
    """A tool spec that is false in a boolean test; it is still a spec."""

    def __bool__(self) -> bool:
        return False

    def action(self, name: str) -> Any:
        return 0 if name == "zero" else None


class Exploding:
    def __init__(self, where: str) -> None:
        self.where = where

    def get(self, name: str) -> Any:
        if self.where == "get":
            raise RuntimeError("registry down")
        return self

    def action(self, name: str) -> Any:
        raise ValueError("action lookup failed")


@pytest.mark.parametrize(
    ("tool", "action", "known"),
    [
        ("nope", None, False),
        ("nope", "text", False),
        ("nope", "", False),
        ("A", None, False),
        ("a", None, True),
        ("search", None, True),
        ("search", "text", True),
        ("search", "symbol", True),
        ("git", "log", True),
        ("search", "", False),
        ("search", "Text", False),
        ("search", "grep", False),
        ("a", "text", False),
        ("a", "", False),
    ],
)
def test_known(registry: ToolRegistry, tool: str, action: str | None, known: bool) -> None:
    assert health._known(tool, action) is known


def test_known_tests_for_absence_not_truth(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(health, "TOOLS", {"falsy": FalsySpec()})
    assert health._known("falsy", None) is True
    assert health._known("falsy", "zero") is True
    assert health._known("falsy", "other") is False
    assert health._known("missing", None) is False


@pytest.mark.parametrize(("where", "error"), [("get", RuntimeError), ("action", ValueError)])
def test_known_lets_registry_errors_through(monkeypatch: pytest.MonkeyPatch, where: str, error: type) -> None:
    monkeypatch.setattr(health, "TOOLS", Exploding(where))
    with pytest.raises(error):
        health._known("a", "x")

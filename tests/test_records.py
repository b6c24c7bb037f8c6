"""The health and usage records, and the registry test for usage keys."""

import copy
import dataclasses
import gc
import pickle
import weakref
from typing import Any

import pytest

from ordanis_veltrane.tool_handlers import health

STATE = (health._ToolState, ("call_count", "error_count", "last_error", "disabled_at", "updated_at",
                             "consecutive_errors"), (1, 2, "boom", 3.5, 4.25, 5))
USAGE = (health._Usage, ("calls", "timed_calls", "total_ms"), (7, 6, 12.5))


def fields(record: Any, names: tuple[str, ...]) -> tuple[Any, ...]:
    return tuple(getattr(record, n) for n in names)


@pytest.mark.parametrize(("cls", "names", "values"), [STATE, USAGE])
def test_records_behave_as_their_dataclass(cls: type, names: tuple[str, ...], values: tuple) -> None:
    twin = dataclasses.make_dataclass(cls.__name__, [(n, Any, d) for n, d in zip(names, fields(cls(), names))])
    record, expected = cls(*values), twin(*values)
    assert dataclasses.is_dataclass(record) and dataclasses.is_dataclass(cls)
    assert [(f.name, f.default) for f in dataclasses.fields(record)] == [(f.name, f.default)
                                                                           for f in dataclasses.fields(expected)]
    assert dataclasses.asdict(record) == dataclasses.asdict(expected) and cls.__match_args__ == names
    changed = dataclasses.replace(record, **{names[-1]: 9})
    assert type(changed) is cls and fields(changed, names) == (*values[:-1], 9) and fields(record, names) == values
    copies = [copy.copy(record), copy.deepcopy(record)] + [pickle.loads(pickle.dumps(record, p)) for p in (0, 2, 5)]
    assert all(type(c) is cls and c == record and c is not record for c in copies)
    match record:
        case cls(first, second):  # type: ignore[misc]
            assert (first, second) == values[:2]
    with pytest.raises(TypeError):
        hash(record)


@pytest.mark.parametrize(("cls", "names", "values"), [STATE, USAGE])
def test_construction_defaults_and_equality(cls: type, names: tuple[str, ...], values: tuple) -> None:
    fresh = cls()
    assert fields(fresh, names) == ((0, 0, None, None, 0.0, 0) if cls is health._ToolState else (0, 0, 0.0))
    assert all(type(v) is float for n, v in zip(names, fields(fresh, names)) if n in ("updated_at", "total_ms"))
    by_position, by_name = cls(*values), cls(**dict(zip(names, values)))
    mixed = cls(values[0], **dict(zip(names[1:], values[1:])))
    assert fields(by_position, names) == values and by_position == by_name == mixed
    for args, kwargs in (((*values, 0), {}), ((), {"bogus": 1}), (values[:1], {names[0]: 1})):  # bad arguments
        pytest.raises(TypeError, lambda: cls(*args, **kwargs))
    for name, value in zip(names, values):  # == is field-wise
        assert cls(**{name: value}) != fresh and not (cls(**{name: value}) == fresh)
    assert fresh == cls() and fresh != fields(fresh, names) and health._ToolState() != health._Usage()
    pytest.raises(TypeError, hash, fresh)


@pytest.mark.parametrize(("record", "text"), [
    (health._ToolState(), "_ToolState(call_count=0, error_count=0, last_error=None, disabled_at=None, "
     "updated_at=0.0, consecutive_errors=0)"),
    (health._ToolState(3, 1, "it's \"bad\"\n", 1700000000.5, -0.0, 1), "_ToolState(call_count=3, error_count=1, "
     "last_error='it\\'s \"bad\"\\n', disabled_at=1700000000.5, updated_at=-0.0, consecutive_errors=1)"),
    (health._Usage(2, 1, 0.1 + 0.2), "_Usage(calls=2, timed_calls=1, total_ms=0.30000000000000004)"),
    (health._Usage(-1, 0, 1e16), "_Usage(calls=-1, timed_calls=0, total_ms=1e+16)"),
])
def test_repr_like_a_dataclass(record: Any, text: str) -> None:
    assert repr(record) == text


def test_self_reference_repr_and_collection() -> None:
    state = health._ToolState()
    state.last_error = state
    assert repr(state) == ("_ToolState(call_count=0, error_count=0, last_error=..., disabled_at=None, "
                           "updated_at=0.0, consecutive_errors=0)")
    marker, collected = type("Marker", (), {})(), []
    marker.state = health._ToolState(last_error=marker)  # a cycle through last_error is collected
    weakref.finalize(marker, collected.append, True)
    del marker
    gc.collect()
    assert collected == [True]


@pytest.mark.parametrize(("cls", "name"), [(health._ToolState, "call_count"), (health._ToolState, "error_count"),
                                           (health._ToolState, "consecutive_errors"), (health._Usage, "calls"),
                                           (health._Usage, "timed_calls")])
def test_counts_are_64_bit(cls: type, name: str) -> None:
    record = cls(**{name: 2**63 - 1})
    assert getattr(record, name) == 2**63 - 1
    setattr(record, name, -(2**63))
    for bad, error in ((2**63, OverflowError), (-(2**63) - 1, OverflowError), ("1", TypeError)):
        pytest.raises(error, setattr, record, name, bad)
        pytest.raises(error, lambda: cls(**{name: bad}))
    assert getattr(record, name) == -(2**63)


@pytest.mark.parametrize(("tool", "action", "known"), [
    ("nope", None, False), ("nope", "text", False), ("A", None, False), ("a", None, True), ("search", "text", True),
    ("git", "log", True), ("search", "", False), ("search", "Text", False), ("a", "text", False), ("a", "", False),
    ("falsy", None, True), ("falsy", "zero", True), ("falsy", "other", False),  # absence, not truth
])
def test_known(registry: Any, tool: str, action: str | None, known: bool) -> None:
    registry.specs["falsy"] = type("FalsySpec", (), {"__bool__": lambda self: False,
                                                     "action": lambda self, name: 0 if name == "zero" else None})()
    assert health._known(tool, action) is known

"""The health and usage records, the registry test for usage keys, and the conversion between epoch seconds and
the stored UTC timestamp text."""

import calendar
import copy
import dataclasses
import gc
import math
import pickle
import weakref
from datetime import datetime, timezone
from fractions import Fraction
from typing import Any

import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

from conftest import FIELDS
from ordanis_veltrane.tool_handlers import health

STATE = (health._ToolState, FIELDS, (0, 0, None, None, 0.0, 0))
USAGE = (health._Usage, ("calls", "timed_calls", "total_ms"), (0, 0, 0.0))


def values_of(record: Any, names: tuple[str, ...]) -> tuple[Any, ...]:
    return tuple(getattr(record, n) for n in names)


@pytest.mark.parametrize(("cls", "names", "defaults", "values"), [
    (*STATE, (1, 2, "boom", 3.5, 4.25, 5)), (*STATE, (3, 1, "it's \"bad\"\n", 1700000000.5, -0.0, 1)),
    (*USAGE, (7, 6, 12.5)), (*USAGE, (2, 1, 0.1 + 0.2)), (*USAGE, (-1, 0, 1e16))])
def test_records_behave_as_their_dataclass(cls: type, names: tuple[str, ...], defaults: tuple, values: tuple) -> None:
    """Defaults, construction, ==, repr, dataclasses' functions, copies, pickling and matching, as the dataclass
    with the same fields; unhashable; 64-bit counts."""
    twin = dataclasses.make_dataclass(cls.__name__, [(n, Any, d) for n, d in zip(names, defaults)])
    record, fresh = cls(*values), cls()
    assert values_of(fresh, names) == defaults and repr(fresh) == repr(twin()) and repr(record) == repr(twin(*values))
    assert all(type(v) is float for n, v in zip(names, values_of(fresh, names)) if n in ("updated_at", "total_ms"))
    assert record == cls(**dict(zip(names, values))) == cls(values[0], **dict(zip(names[1:], values[1:])))
    for args, kwargs in (((*values, 0), {}), ((), {"bogus": 1}), (values[:1], {names[0]: 1})):  # bad arguments
        pytest.raises(TypeError, lambda: cls(*args, **kwargs))
    for name, value in zip(names, values):  # == is field-wise
        assert (cls(**{name: value}) != fresh) is (value != getattr(fresh, name)) is not (cls(**{name: value}) == fresh)
    assert fresh != defaults and health._ToolState() != health._Usage()
    assert dataclasses.is_dataclass(record) and dataclasses.is_dataclass(cls) and cls.__match_args__ == names
    assert [(f.name, f.default) for f in dataclasses.fields(record)] == [(f.name, f.default)
                                                                           for f in dataclasses.fields(twin)]
    assert dataclasses.asdict(record) == dataclasses.asdict(twin(*values))
    changed = dataclasses.replace(record, **{names[-1]: 9})
    assert type(changed) is cls and values_of(changed, names) == (*values[:-1], 9)
    assert values_of(record, names) == values
    copies = [copy.copy(record), copy.deepcopy(record)] + [pickle.loads(pickle.dumps(record, p)) for p in (0, 2, 5)]
    assert all(type(c) is cls and c == record and c is not record for c in copies)
    match record:
        case cls(first, second):  # type: ignore[misc]
            assert (first, second) == values[:2]
    pytest.raises(TypeError, hash, record)
    for name in (n for n, d in zip(names, defaults) if type(d) is int):  # counts are 64-bit: no wrapping, no coercion
        setattr(fresh, name, -(2**63))
        for bad, error in ((2**63, OverflowError), (-(2**63) - 1, OverflowError), ("1", TypeError)):
            pytest.raises(error, setattr, fresh, name, bad)
            pytest.raises(error, lambda: cls(**{name: bad}))
        assert getattr(fresh, name) == -(2**63) and getattr(cls(**{name: 2**63 - 1}), name) == 2**63 - 1


def test_self_reference_repr_and_collection() -> None:
    state = health._ToolState()
    state.last_error = state
    assert repr(state) == repr(health._ToolState()).replace("last_error=None", "last_error=...")
    marker, collected = type("Marker", (), {})(), []
    marker.state = health._ToolState(last_error=marker)  # a cycle through last_error is collected
    weakref.finalize(marker, collected.append, True)
    del marker
    gc.collect()
    assert collected == [True]


@pytest.mark.parametrize(("tool", "action", "known"), [
    ("nope", None, False), ("nope", "text", False), ("A", None, False), ("a", None, True), ("search", "text", True),
    ("git", "log", True), ("search", "", False), ("search", "Text", False), ("a", "text", False), ("a", "", False),
    ("falsy", None, True), ("falsy", "zero", True), ("falsy", "other", False),  # absence, not truth
])
def test_known(registry: Any, tool: str, action: str | None, known: bool) -> None:
    registry.specs["falsy"] = type("FalsySpec", (), {"__bool__": lambda self: False,
                                                     "action": lambda self, name: 0 if name == "zero" else None})()
    assert health._known(tool, action) is known


FIRST, END = -62135596800.0, 253402300800.0  # 0001-01-01 and 10000-01-01 00:00:00 UTC


def utc(text: str) -> float:
    return float(calendar.timegm(datetime.strptime(text, "%Y-%m-%d %H:%M:%S").timetuple()))


@pytest.mark.parametrize(("epoch", "text"), [
    (None, None), (0, "1970-01-01 00:00:00"), (-0.0, "1970-01-01 00:00:00"), (-1.5, "1969-12-31 23:59:58"),
    (-0.0000004, "1970-01-01 00:00:00"), (-0.0000006, "1969-12-31 23:59:59"), (1.9999996, "1970-01-01 00:00:02"),
    (1.9999994, "1970-01-01 00:00:01"), (END - 1, "9999-12-31 23:59:59"), (FIRST, "0001-01-01 00:00:00"),
    *[(bad, (ValueError, OverflowError)) for bad in (END, FIRST - 0.5, 1e20, 10**30, math.nan, math.inf, -math.inf)],
])
def test_sqlite_time(epoch: float | None, text: Any) -> None:
    if isinstance(text, tuple):  # outside the calendar
        pytest.raises(text, health._sqlite_time, epoch)
    else:
        assert health._sqlite_time(epoch) == text


@pytest.mark.parametrize(("text", "epoch"), [
    (None, None), ("", None), (0, None), (0.0, None), ("2024-03-05 \t\n14:07:09", utc("2024-03-05 14:07:09")),
    ("1900-02-28 1:2:3", utc("1900-02-28 01:02:03")), ("1900-02-29 00:00:00", None), ("2000-02-29 0:0:0", 951782400.0),
    *[(bad, None) for bad in ("2024-03-05T14:07:09", " 2024-3-5 14:07:09", "+2024-3-5 1:2:3", "2024-03-05 1:2:3\x00",
                              "2024-03-05 24:00:00", "2100-02-29 00:00:00")],
    *[(not_text, TypeError) for not_text in (1, 1.5, b"2024-03-05 14:07:09", ["2024-03-05 14:07:09"])],
])
def test_epoch(text: object, epoch: Any) -> None:
    if epoch is TypeError:
        pytest.raises(TypeError, health._epoch, text)
    else:
        got = health._epoch(text)
        assert got is None if epoch is None else (type(got) is float and got == epoch)


@settings(max_examples=300, deadline=None)
@given(st.floats(min_value=FIRST, max_value=END, exclude_max=True, allow_nan=False))
def test_round_trip_and_datetime_oracle(t: float) -> None:
    moment = datetime.fromtimestamp(t, timezone.utc)  # %Y does not pad years before 1000 everywhere
    text = health._sqlite_time(t)
    assert text == f"{moment.year:04d}-{moment:%m-%d %H:%M:%S}"
    back = health._epoch(text)  # the fraction dropped: microsecond rounding, then toward the past
    assert type(back) is float and back == round(Fraction(t) * 1_000_000) // 1_000_000

"""Conversion between epoch seconds and the stored UTC timestamp text."""

import calendar
import math
import re
from datetime import datetime, timezone
from fractions import Fraction
from typing import Any

import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

from ordanis_veltrane.tool_handlers import health

FIRST, END = -62135596800.0, 253402300800.0  # 0001-01-01 and 10000-01-01 00:00:00 UTC


def utc(text: str) -> float:
    return float(calendar.timegm(datetime.strptime(text, "%Y-%m-%d %H:%M:%S").timetuple()))


T = utc("2024-03-05 14:07:09")


@pytest.mark.parametrize(("epoch", "text"), [
    (None, None), (0.0, "1970-01-01 00:00:00"), (0, "1970-01-01 00:00:00"), (-0.0, "1970-01-01 00:00:00"),
    (-1.5, "1969-12-31 23:59:58"), (-0.0000004, "1970-01-01 00:00:00"), (-0.0000006, "1969-12-31 23:59:59"),
    (1.9999996, "1970-01-01 00:00:02"), (1.9999994, "1970-01-01 00:00:01"),
    (T + 0.9, "2024-03-05 14:07:09"), (END - 1, "9999-12-31 23:59:59"),
    (FIRST, "0001-01-01 00:00:00"), (utc("0999-06-01 03:04:05"), "0999-06-01 03:04:05"),
    *[(bad, (ValueError, OverflowError)) for bad in (END, FIRST - 0.5, 1e20, 10**30, math.nan, math.inf, -math.inf)],
])
def test_sqlite_time(epoch: float | None, text: Any) -> None:
    if isinstance(text, tuple):  # outside the calendar
        pytest.raises(text, health._sqlite_time, epoch)
    else:
        assert health._sqlite_time(epoch) == text


@pytest.mark.parametrize(("text", "epoch"), [
    (None, None), ("", None), (0, None), (0.0, None),
    ("2024-03-05 14:07:09", T), ("2024-03-05  14:07:09", T), ("2024-03-05 \t\n14:07:09", T),
    ("2024-3-5 1:2:3", utc("2024-03-05 01:02:03")),
    ("1969-12-31 23:59:59", -1.0), ("2000-02-29 12:00:00", utc("2000-02-29 12:00:00")),
    ("0001-01-01 00:00:00", FIRST), ("9999-12-31 23:59:59", END - 1),
    *[(bad, None) for bad in (  # the strict reader below covers the rest
        "2024-03-05T14:07:09", "2024-03-05 14:07:09.123", " 2024-03-05 14:07:09", "2024-03-05 14:07:09 ",
        "24-03-05 14:07:09", "2024-02-30 00:00:00", "2024-03-05 24:00:00", "2024-03-05 23:59:60",
        "0000-01-01 00:00:00", "2024-03-05 14:07:09\x00", "+2024-03-05 14:07:09", "2024-03- 5 14:07:09")],
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


def oracle_epoch(text: str) -> float | None:
    match = re.fullmatch(r"(\d{4})-(\d{1,2})-(\d{1,2})\s+(\d{1,2}):(\d{1,2}):(\d{1,2})", text, re.ASCII)
    try:
        moment = datetime(*map(int, match.groups()), tzinfo=timezone.utc)  # type: ignore[union-attr]
    except (AttributeError, ValueError):
        return None
    return float(calendar.timegm(moment.utctimetuple()))


def field(lo: int, hi: int) -> st.SearchStrategy[str]:
    return st.builds(lambda n, pad: f"{n:02d}" if pad else str(n), st.integers(lo, hi), st.booleans())


near_timestamps = st.builds(
    lambda *parts: "".join(parts),
    st.one_of(st.integers(0, 9999).map(lambda y: f"{y:04d}"), st.integers(0, 99999).map(str)),
    st.sampled_from(["-", "/", ""]), field(0, 13), st.just("-"), field(0, 32), st.text(" \t\n", max_size=3),
    field(0, 25), st.sampled_from([":", "."]), field(0, 61), st.just(":"), field(0, 61),
    st.sampled_from(["", "", "", " ", "0", "Z"]),
)


@settings(max_examples=400, deadline=None)
@given(st.one_of(near_timestamps, st.text("0123456789-: \tx.", max_size=24)))
def test_epoch_agrees_with_a_strict_reader(text: str) -> None:
    assert health._epoch(text) == oracle_epoch(text)

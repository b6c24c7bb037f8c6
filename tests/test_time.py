"""Conversion between epoch seconds and the stored UTC timestamp text."""
from __future__ import annotations

import calendar
import math
import re
from datetime import datetime, timezone
from fractions import Fraction

import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

from ordanis_veltrane.tool_handlers import health

FIRST = -62135596800.0  # 0001-01-01 00:00:00 UTC
END = 253402300800.0  # 10000-01-01 00:00:00 UTC, the first instant past the calendar


def utc(text: str) -> float:
    return float(calendar.timegm(datetime.strptime(text, "%Y-%m-%d %H:%M:%S").timetuple()))


def floor_to_second(t: float) -> int:
    """Exact rounding to the microsecond (ties to even), then the whole second toward the past."""
    micro = round(Fraction(t) * 1_000_000)
    return micro // 1_000_000


@pytest.mark.parametrize(
    ("epoch", "text"),
    [
        (None, None),
        (0.0, "1970-01-01 00:00:00"),
        (0, "1970-01-01 00:00:00"),
        (-0.0, "1970-01-01 00:00:00"),
        (-1.5, "1969-12-31 23:59:58"),
        (-0.0000004, "1970-01-01 00:00:00"),
        (-0.0000006, "1969-12-31 23:59:59"),
        (1.9999996, "1970-01-01 00:00:02"),
        (1.9999994, "1970-01-01 00:00:01"),
        (utc("2024-03-05 14:07:09") + 0.9, "2024-03-05 14:07:09"),
        (utc("2024-02-29 23:59:59") + 0.5, "2024-02-29 23:59:59"),
        (1_700_000_000, "2023-11-14 22:13:20"),
        (END - 1, "9999-12-31 23:59:59"),
        (FIRST, "0001-01-01 00:00:00"),
        (utc("0999-06-01 03:04:05"), "0999-06-01 03:04:05"),
    ],
)
def test_sqlite_time(epoch: float | None, text: str | None) -> None:
    assert health._sqlite_time(epoch) == text


@pytest.mark.parametrize(
    "epoch", [END, END + 0.5, FIRST - 1, FIRST - 0.5, 1e20, -1e20, 10**30, math.nan, math.inf, -math.inf]
)
def test_sqlite_time_outside_the_calendar_raises(epoch: float) -> None:
    with pytest.raises((ValueError, OverflowError)):
        health._sqlite_time(epoch)


@pytest.mark.parametrize(
    ("text", "epoch"),
    [
        (None, None),
        ("", None),
        (0, None),
        (0.0, None),
        ("2024-03-05 14:07:09", utc("2024-03-05 14:07:09")),
        ("2024-3-5 1:2:3", utc("2024-03-05 01:02:03")),
        ("2024-03-05  14:07:09", utc("2024-03-05 14:07:09")),
        ("2024-03-05\t14:07:09", utc("2024-03-05 14:07:09")),
        ("2024-03-05 \n 14:07:09", utc("2024-03-05 14:07:09")),
        ("1970-01-01 00:00:00", 0.0),
        ("1969-12-31 23:59:59", -1.0),
        ("2024-02-29 00:00:00", utc("2024-02-29 00:00:00")),
        ("2000-02-29 12:00:00", utc("2000-02-29 12:00:00")),
        ("0001-01-01 00:00:00", FIRST),
        ("9999-12-31 23:59:59", END - 1),
        ("2024-12-31 23:59:59", utc("2024-12-31 23:59:59")),
        # unreadable text
        ("2024-03-05T14:07:09", None),
        ("2024-03-05 14:07:09.123", None),
        (" 2024-03-05 14:07:09", None),
        ("2024-03-05 14:07:09 ", None),
        ("2024-03-0514:07:09", None),
        ("24-03-05 14:07:09", None),
        ("12024-03-05 14:07:09", None),
        ("2024-003-05 14:07:09", None),
        ("2024-03-05 14:07:009", None),
        ("2024-03-05 14:07", None),
        ("2024-03-05", None),
        ("2024/03/05 14:07:09", None),
        ("2024-02-30 00:00:00", None),
        ("2023-02-29 00:00:00", None),
        ("1900-02-29 00:00:00", None),
        ("2024-04-31 00:00:00", None),
        ("2024-13-01 00:00:00", None),
        ("2024-00-10 00:00:00", None),
        ("2024-03-00 00:00:00", None),
        ("2024-03-05 24:00:00", None),
        ("2024-03-05 14:60:00", None),
        ("2024-03-05 23:59:60", None),
        ("0000-01-01 00:00:00", None),
        ("-024-03-05 14:07:09", None),
        ("2024-03-05 14:07:09Z", None),
        ("garbage", None),
        (" ", None),
        ("2024-03-05 14:07:09\x00", None),
        ("2024-03-05\x0014:07:09", None),
        ("2024-+3-05 14:07:09", None),
        ("2024-03--5 14:07:09", None),
        ("2024-03- 5 14:07:09", None),
        ("2024-03-05 +4:07:09", None),
        ("2024-03-05 14: 7:09", None),
        ("+2024-03-05 14:07:09", None),
    ],
)
def test_epoch(text: object, epoch: float | None) -> None:
    got = health._epoch(text)
    if epoch is None:
        assert got is None
    else:
        assert type(got) is float and got == epoch


@pytest.mark.parametrize("value", [1, -3, 1.5, 1709647629.0, b"2024-03-05 14:07:09", b"x", ["2024-03-05 14:07:09"]])
def test_epoch_of_a_value_that_is_not_text_raises(value: object) -> None:
    with pytest.raises(TypeError):
        health._epoch(value)


valid_instants = st.floats(min_value=FIRST, max_value=END, exclude_max=True, allow_nan=False)


@settings(max_examples=300, deadline=None)
@given(valid_instants)
def test_round_trip_drops_the_fraction(t: float) -> None:
    back = health._epoch(health._sqlite_time(t))
    assert type(back) is float
    assert back == floor_to_second(t)


@settings(max_examples=300, deadline=None)
@given(valid_instants)
def test_sqlite_time_agrees_with_datetime(t: float) -> None:
    moment = datetime.fromtimestamp(t, timezone.utc)
    # strftime's %Y does not pad years before 1000 on every platform; the stored text always has four digits.
    expected = f"{moment.year:04d}-{moment:%m-%d %H:%M:%S}"
    assert health._sqlite_time(t) == expected


@settings(max_examples=200, deadline=None)
@given(st.integers(min_value=int(FIRST), max_value=int(END) - 1))
def test_epoch_reads_back_every_whole_second(t: int) -> None:
    text = health._sqlite_time(float(t))
    assert health._epoch(text) == float(t)
    assert len(text) == 19


def oracle_epoch(text: str) -> float | None:
    match = re.fullmatch(r"(\d{4})-(\d{1,2})-(\d{1,2})\s+(\d{1,2}):(\d{1,2}):(\d{1,2})", text, re.ASCII)
    if match is None:
        return None
    try:
        moment = datetime(*map(int, match.groups()), tzinfo=timezone.utc)
    except ValueError:
        return None
    return float(calendar.timegm(moment.utctimetuple()))


def field(lo: int, hi: int) -> st.SearchStrategy[str]:
    return st.builds(lambda n, pad: f"{n:02d}" if pad else str(n), st.integers(lo, hi), st.booleans())


near_timestamps = st.builds(
    lambda *parts: "".join(parts),
    st.one_of(st.integers(0, 9999).map(lambda y: f"{y:04d}"), st.integers(0, 99999).map(str)),
    st.sampled_from(["-", "/", ""]), field(0, 13), st.just("-"), field(0, 32),
    st.text(" \t\n", min_size=0, max_size=3),
    field(0, 25), st.sampled_from([":", "."]), field(0, 61), st.just(":"), field(0, 61),
    st.sampled_from(["", "", "", " ", "0", "Z"]),
)


@settings(max_examples=400, deadline=None)
@given(st.one_of(near_timestamps, st.text("0123456789-: \tx.", max_size=24)))
def test_epoch_agrees_with_a_strict_reader(text: str) -> None:
    assert health._epoch(text) == oracle_epoch(text)

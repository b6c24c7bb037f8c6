"""The two status reports: tool performance stats from the timing collector, and the
thread census measured against the pools' budget."""
from __future__ import annotations

import types
from collections.abc import Mapping
from typing import Any, Iterator

import pytest

from ordanis_veltrane.tool_handlers import health
from ordanis_veltrane.utils.process import ThreadCensus

STAT_KEYS = ["name", "count", "avg_ms", "p95_ms", "min_ms", "max_ms", "errors"]
WARNING_TAIL = (" its pools allow: threads are piling up. A thread that ran the local embedding model"
                " keeps a team of torch threads, as many as VELTRANE_EMBED_THREADS allows"
                " (0 leaves torch's own size).")


class Entry(Mapping):
    """A stats entry that records which keys were looked up."""

    def __init__(self, values: dict[str, Any], lookups: list[str]) -> None:
        self.values, self.lookups = values, lookups

    def __getitem__(self, key: str) -> Any:
        self.lookups.append(key)
        return self.values[key]

    def __iter__(self) -> Iterator[str]:
        return iter(self.values)

    def __len__(self) -> int:
        return len(self.values)


class Collector:
    def __init__(self, entries: Any) -> None:
        self.entries, self.walks = entries, 0

    def get_all_stats(self) -> Any:
        self.walks += 1
        return self.entries


@pytest.fixture
def collectors(monkeypatch: pytest.MonkeyPatch) -> list[Any]:
    """Installs a `get_timing_collector` that hands out the collectors put in the list,
    the last one each time, and counts its calls in `collectors[0].asked`."""
    box: list[Any] = []
    asked = types.SimpleNamespace(n=0)

    def get_timing_collector() -> Any:
        asked.n += 1
        return box[-1]

    monkeypatch.setattr(health, "get_timing_collector", get_timing_collector)
    box.append(asked)
    return box


def stats(name: str, **extra: Any) -> dict[str, Any]:
    values = {"errors": 1, "max_ms": 9.5, "min_ms": 0.25, "p95_ms": 9.0, "avg_ms": 12.3456, "count": 3,
              "name": name}
    values.update(extra)
    return values


def test_performance_stats(collectors) -> None:
    lookups: list[str] = []
    big = 2**80
    first = Collector([Entry(stats("a", extra="x", zzz=1), lookups), stats("a", count=0, avg_ms=big),
                       stats("b", avg_ms=None)])
    collectors.append(first)
    answer = health.handle_get_tool_performance_stats()
    assert list(answer) == ["tools"]
    assert [list(r) for r in answer["tools"]] == [STAT_KEYS] * 3
    assert answer["tools"][0] == {k: stats("a")[k] for k in STAT_KEYS}
    assert answer["tools"][1]["count"] == 0 and answer["tools"][1]["avg_ms"] is big
    assert answer["tools"][2]["name"] == "b" and answer["tools"][2]["avg_ms"] is None
    assert lookups == STAT_KEYS
    assert first.walks == 1 and collectors[0].n == 1
    # Asked afresh on every call: a new collector changes the next answer.
    collectors.append(Collector([]))
    assert health.handle_get_tool_performance_stats() == {"tools": []}
    assert collectors[0].n == 2 and first.walks == 1
    # Any iterable will do, and it is walked once.
    collectors.append(Collector(iter([stats("x"), stats("y")])))
    assert [r["name"] for r in health.handle_get_tool_performance_stats()["tools"]] == ["x", "y"]


@pytest.mark.parametrize("missing, first_missing", [
    (["name"], "name"), (["errors", "avg_ms"], "avg_ms"), (["max_ms", "p95_ms"], "p95_ms"),
])
def test_performance_stats_missing_key(collectors, missing, first_missing) -> None:
    bad = {k: v for k, v in stats("b").items() if k not in missing}
    collectors.append(Collector([stats("a"), bad]))
    with pytest.raises(KeyError) as info:
        health.handle_get_tool_performance_stats()
    assert info.value.args == (first_missing,)


def test_performance_stats_errors_propagate(monkeypatch) -> None:
    error = RuntimeError("collector down")

    def broken() -> Any:
        raise error

    monkeypatch.setattr(health, "get_timing_collector", broken)
    with pytest.raises(RuntimeError) as info:
        health.handle_get_tool_performance_stats()
    assert info.value is error
    monkeypatch.setattr(health, "get_timing_collector", lambda: Collector(5))
    with pytest.raises(TypeError):
        health.handle_get_tool_performance_stats()


def warning(counted: int, budget: int) -> str:
    return f"The process holds {counted} threads, more than the {budget}" + WARNING_TAIL


@pytest.mark.parametrize("os_threads, total, budget, keys, counted", [
    (None, 12, 10, ["python", "python_by_name", "budget", "warning"], 12),
    (None, 10, 10, ["python", "python_by_name", "budget"], None),
    (None, 11, 10, ["python", "python_by_name", "budget", "warning"], 11),
    (30, 50, 40, ["os", "python", "python_by_name", "budget"], None),
    (45, 20, 40, ["os", "python", "python_by_name", "budget", "warning"], 45),
    (57, 3, 40, ["os", "python", "python_by_name", "budget", "warning"], 57),
    (0, 99, 0, ["os", "python", "python_by_name", "budget"], None),
    (-3, 1, -5, ["os", "python", "python_by_name", "budget", "warning"], -3),
])
def test_thread_census_report(os_threads, total, budget, keys, counted) -> None:
    by_name = {"MainThread": 1, "ThreadPoolExecutor": total - 1, "": 0}
    census = ThreadCensus(os_threads, total, by_name)
    report = health.thread_census_report(budget, census)
    assert list(report) == keys
    expected = {"python": total, "python_by_name": by_name, "budget": budget}
    if os_threads is not None:
        expected["os"] = os_threads
    if counted is not None:
        expected["warning"] = warning(counted, budget)
    assert report == expected
    assert list(report["python_by_name"]) == list(by_name) and report["python_by_name"] is not by_name
    by_name["late"] = 1
    assert "late" not in report["python_by_name"]
    assert census.python_threads is by_name and census.os_threads == os_threads  # untouched


def test_warning_text_in_full() -> None:
    report = health.thread_census_report(40, ThreadCensus(57, 3, {}))
    assert report["warning"] == (
        "The process holds 57 threads, more than the 40 its pools allow: threads are piling up. "
        "A thread that ran the local embedding model keeps a team of torch threads, as many as "
        "VELTRANE_EMBED_THREADS allows (0 leaves torch's own size).")
    assert report["python_by_name"] == {}


def test_census_taken_only_when_absent(monkeypatch) -> None:
    taken: list[ThreadCensus] = []

    def thread_census() -> ThreadCensus:
        taken.append(ThreadCensus(None, 7, {"MainThread": 7}))
        return taken[-1]

    monkeypatch.setattr(health, "thread_census", thread_census)
    assert health.thread_census_report(5) == {
        "python": 7, "python_by_name": {"MainThread": 7}, "budget": 5, "warning": warning(7, 5)}
    assert len(taken) == 1
    assert health.thread_census_report(budget=8, census=None)["budget"] == 8
    assert len(taken) == 2
    given = types.SimpleNamespace(os_threads=None, python_total=0, python_threads={})
    assert health.thread_census_report(budget=0, census=given) == {
        "python": 0, "python_by_name": {}, "budget": 0}
    assert len(taken) == 2


@pytest.mark.parametrize("fields", [
    {"python_total": 1, "python_threads": {}},
    {"os_threads": 1, "python_threads": {}},
    {"os_threads": 1, "python_total": 1},
])
def test_census_missing_field(fields) -> None:
    with pytest.raises(AttributeError):
        health.thread_census_report(10, types.SimpleNamespace(**fields))

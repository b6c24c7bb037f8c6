"""The two status reports: tool performance stats from the timing collector, and the thread census."""

import types
from typing import Any

import pytest

from ordanis_veltrane.tool_handlers import health
from ordanis_veltrane.utils.process import ThreadCensus

STAT_KEYS = ["name", "count", "avg_ms", "p95_ms", "min_ms", "max_ms", "errors"]


def stats(name: str, **extra: Any) -> dict[str, Any]:
    return {"errors": 1, "max_ms": 9.5, "min_ms": 0.25, "p95_ms": 9.0, "avg_ms": 12.3456, "count": 3, "name": name,
            **extra}


def install(monkeypatch: pytest.MonkeyPatch, *answers: Any) -> list[int]:
    """Each call of `get_timing_collector` hands out a collector of the next answer; counts the calls."""
    asked, collectors = [], iter(types.SimpleNamespace(get_all_stats=lambda a=a: a) for a in answers)
    monkeypatch.setattr(health, "get_timing_collector", lambda: asked.append(1) or next(collectors))
    return asked


def test_performance_stats(monkeypatch) -> None:
    value = object()  # values come through as they are
    asked = install(monkeypatch, [stats("a", extra="x", zzz=1), stats("a", count=0, avg_ms=value), stats("b")], [],
                    iter([stats("x")]), *[[stats("a"), {k: v for k, v in stats("b").items() if k not in missing}]
                                          for missing in (["name"], ["errors", "avg_ms"])])
    answer = health.handle_get_tool_performance_stats()
    assert list(answer) == ["tools"] and [list(r) for r in answer["tools"]] == [STAT_KEYS] * 3
    assert answer["tools"] == [{k: s[k] for k in STAT_KEYS} for s in (stats("a"), stats("a", count=0, avg_ms=value),
                                                                       stats("b"))]
    assert health.handle_get_tool_performance_stats() == {"tools": []}  # asked afresh every time
    assert [r["name"] for r in health.handle_get_tool_performance_stats()["tools"]] == ["x"] and len(asked) == 3
    for first_missing in ("name", "avg_ms"):  # a KeyError names the first missing key
        assert pytest.raises(KeyError, health.handle_get_tool_performance_stats).value.args == (first_missing,)


def warning(counted: int, budget: int) -> str:
    return (f"The process holds {counted} threads, more than the {budget} its pools allow: threads are piling up. "
            "A thread that ran the local embedding model keeps a team of torch threads, as many as "
            "VELTRANE_EMBED_THREADS allows (0 leaves torch's own size).")


@pytest.mark.parametrize(("os_threads", "total", "budget", "counted"), [
    (None, 12, 10, 12), (None, 10, 10, None), (None, 11, 10, 11), (30, 50, 40, None), (45, 20, 40, 45),
    (0, 99, 0, None), (-3, 1, -5, -3),
])
def test_thread_census_report(os_threads: Any, total: int, budget: int, counted: int | None) -> None:
    by_name = {"MainThread": 1, "ThreadPoolExecutor": total - 1, "": 0}
    census = ThreadCensus(os_threads, total, by_name)
    report = health.thread_census_report(budget, census)
    expected = {**({} if os_threads is None else {"os": os_threads}), "python": total, "python_by_name": by_name,
                "budget": budget, **({} if counted is None else {"warning": warning(counted, budget)})}
    assert report == expected and list(report) == list(expected)
    assert list(report["python_by_name"]) == list(by_name) and report["python_by_name"] is not by_name
    by_name["late"] = 1
    assert "late" not in report["python_by_name"] and census.python_threads is by_name


def test_census_given_or_taken(monkeypatch) -> None:
    taken: list[int] = []
    monkeypatch.setattr(health, "thread_census", lambda: taken.append(1) or ThreadCensus(None, 7, {"MainThread": 7}))
    assert health.thread_census_report(5) == {"python": 7, "python_by_name": {"MainThread": 7}, "budget": 5,
                                              "warning": warning(7, 5)}
    assert health.thread_census_report(budget=8, census=None)["budget"] == 8 and len(taken) == 2
    given = types.SimpleNamespace(os_threads=None, python_total=0, python_threads={})
    assert health.thread_census_report(budget=0, census=given) == {"python": 0, "python_by_name": {}, "budget": 0}
    assert len(taken) == 2

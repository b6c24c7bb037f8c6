"""Prometheus metrics of tool health: the exposition against the summary (hostile names, a flush waiting on the
database), in both formats and over HTTP, and the per-process counts under threads (the demo's endpoint across its
restart: test_demo; two servers on one store, each counting what it served: test_dashboard)."""

import threading
import types
import urllib.request
from typing import Any

import pytest

pytest.importorskip("prometheus_client")

from prometheus_client import CollectorRegistry, generate_latest, parser  # noqa: E402
from prometheus_client.openmetrics import exposition as om_exposition, parser as om_parser  # noqa: E402

from conftest import NOW, RecordingDb, tracker_over  # noqa: E402
from ordanis_veltrane.config import ToolsConfig  # noqa: E402
from ordanis_veltrane.tool_handlers import health, health_metrics  # noqa: E402
from ordanis_veltrane.utils.process import ThreadCensus  # noqa: E402

Series = dict[str, dict[frozenset[tuple[str, str]], float]]
FORMATS = {"text": (generate_latest, parser.text_string_to_metric_families),
           "openmetrics": (om_exposition.generate_latest, om_parser.text_string_to_metric_families)}
HOSTILE = ['quo"te', "back\\slash", "new\nline", "\\n not a newline", "ünïcødé 名前 🚀", "",
           'all\\"\n"\\ at once', "trailing\\", "tab\tand\rreturn"]


def parse(text: str, fmt: str = "text") -> Series:
    """Sample name -> label set -> value; a label set seen twice in one name fails."""
    series: Series = {}
    for sample in (s for family in FORMATS[fmt][1](text) for s in family.samples):
        labels = frozenset(sample.labels.items())
        assert labels not in series.setdefault(sample.name, {}), f"duplicate series {sample.name}{dict(labels)}"
        series[sample.name][labels] = sample.value
    return series


def fetch(url: str) -> Series:
    with urllib.request.urlopen(url, timeout=10) as answer:
        return parse(answer.read().decode("utf-8"))


def tool_of(series: Series, name: str) -> dict[str, float]:
    return {dict(labels)["tool"]: value for labels, value in series.get(name, {}).items()}


def usage_of(series: Series, name: str) -> dict[tuple[str, ...], float]:
    return {tuple(dict(k)[n] for n in ("tool", "action", "outcome", "alias_hit")): v for k, v in series[name].items()}


@pytest.mark.parametrize("fmt, os_threads, prefix", [("text", 7, "veltrane_tool_"), ("openmetrics", None, "hx_")])
def test_exposition_equals_summary_while_a_flush_waits(repo: Any, clock: Any, monkeypatch: pytest.MonkeyPatch,
                                                       fmt: str, os_threads: int | None, prefix: str) -> None:
    db, lock, acquired, waited = RecordingDb(repo.db), threading.Lock(), [], []
    entered, release, enter = threading.Event(), threading.Event(), db._enter

    def blocking(op: str, *args: Any) -> Any:  # executemany waits (at most 30 s) for `release`
        if op == "executemany":
            entered.set()
            waited.append(release.wait(30))  # False: something waited for this statement
        return enter(op, *args)

    db._enter = blocking  # type: ignore[method-assign]
    tracker = tracker_over(db, ToolsConfig(disable_after_errors=2, disable_cooldown_s=30.5))
    tracker._lock = types.SimpleNamespace(acquire=lambda: acquired.append(1) or lock.acquire(), release=lock.release)
    for _ in range(3):
        tracker.record_error("git", "fatal: bad revision")  # disabled at NOW
    clock.advance(5)
    for name in ["search", "search", *HOSTILE]:  # hostile text passes through unchanged
        tracker.record_success(name)
    for args in [("search", "text", "ok", False, 1.0), ("search", "text", "ok", False, 2.5),
                 ("search", "symbol", "ok", True, None), ("git", None, "error", False, 0.125),
                 ("usage_only", "x", "timeout", True, None), *((n, n, n, True, 2.0) for n in HOSTILE)]:
        tracker.record_call(*args[:3], alias_hit=args[3], duration_ms=args[4])
    census = ThreadCensus(os_threads, 5, {"agent-worker": 3, "MainThread": 1, 'odd "name"': 1})
    monkeypatch.setattr(health, "thread_census", lambda: census)
    collector = health_metrics.HealthCollector(tracker, 4, prefix=prefix, clock=lambda: NOW + 42.5)
    registry = CollectorRegistry()
    registry.register(collector)
    scrape = lambda: parse(FORMATS[fmt][0](registry).decode("utf-8"), fmt)  # noqa: E731
    (flusher := threading.Thread(target=tracker.flush)).start()
    assert entered.wait(10)
    before = (len(db.calls), len(acquired) + 1)
    series = scrape()  # while the flush waits on its statement: one summary, no statement
    assert (len(db.calls), len(acquired)) == before
    release.set()
    flusher.join()
    assert waited == [True]

    records = {r["tool_name"]: r for r in tracker.get_health_summary()}
    for metric, key in [("calls_total", "call_count"), ("errors_total", "error_count"), ("disabled", "disabled")]:
        assert tool_of(series, prefix + metric) == {n: float(r[key]) for n, r in records.items()}
    assert tool_of(series, prefix + "disabled_for_seconds") == {"git": 42.5}
    rows = {(n, u["action"] or "", u["outcome"], str(u["alias_hit"]).lower()): u
            for n, r in records.items() for u in r["usage"]}
    assert usage_of(series, prefix + "usage_calls_total") == {k: u["calls"] for k, u in rows.items()}
    assert usage_of(series, prefix + "usage_handler_mean_seconds") == {
        k: pytest.approx(u["avg_ms"] / 1000, rel=1e-12) for k, u in rows.items() if u["avg_ms"] is not None}
    single = {name: next(iter(values.values())) for name, values in series.items() if len(values) == 1}
    assert [single.get(prefix + n) for n in ("disable_after_errors", "disable_cooldown_seconds", "os_threads",
                                             "python_threads", "thread_budget")] == [2, 30.5, os_threads, 5, 4]
    assert {dict(k)["name_prefix"]: v for k, v in series[prefix + "python_threads_by_name"].items()} \
        == census.python_threads

    # Names that are not text, or text UTF-8 cannot carry, still give one well-formed series each;
    # rows whose labels come out equal (1 and "1", an action None and "") are merged.
    for odd in (1, "1", "lone \ud800 surrogate after é"):
        tracker.record_error(odd, "boom")
    for action, ms in [(None, 1.0), ("", 4.0), ("", None)]:
        tracker.record_call("m", action, "ok", alias_hit=False, duration_ms=ms)
    again = scrape()
    assert tool_of(again, prefix + "calls_total") \
        == {**tool_of(series, prefix + "calls_total"), "1": 2.0, "lone \\ud800 surrogate after é": 1.0, "m": 0.0}
    assert usage_of(again, prefix + "usage_calls_total") \
        == {**usage_of(series, prefix + "usage_calls_total"), ("m", "", "ok", "false"): 3.0}
    # the merged mean is weighted by calls: (1 call x 1 ms + 2 calls x 4 ms) / 3
    assert usage_of(again, prefix + "usage_handler_mean_seconds")[("m", "", "ok", "false")] \
        == pytest.approx(0.003, rel=1e-12)
    with health_metrics.serve_metrics(tracker, 0, thread_budget=4, prefix=prefix) as server:  # the same over HTTP
        assert tool_of(fetch(server.url), prefix + "calls_total") == tool_of(again, prefix + "calls_total")
    pytest.raises(OSError, urllib.request.urlopen, server.url, timeout=2)  # closed with its block


def test_served_counts_lose_nothing_to_threads_that_count_while_a_scrape_reads_or_that_end() -> None:
    from ordanis_veltrane.tool_handlers.health_view import ServedCounts

    served, start, stop, seen = ServedCounts(), threading.Barrier(9), threading.Event(), [0]

    def count(k: int) -> None:
        start.wait()
        for i in range(20_000):
            served.add(f"t{k % 2}", None, "ok" if i % 4 else "error", False)

    def scrape() -> None:  # every snapshot at least the one before
        start.wait()
        while not stop.is_set():
            seen.append(sum(served.snapshot().values()))

    for round_ in range(2):  # the second round's threads are new ones: the first's maps were folded
        workers = [threading.Thread(target=count, args=(k,)) for k in range(8)]
        reader = threading.Thread(target=scrape)
        for t in [*workers, reader]:
            t.start()
        for t in workers:
            t.join()
        stop.set()
        reader.join()
        stop.clear()
        start.reset()
        total = 80_000 * (round_ + 1)
        expected = {(f"t{k}", None, outcome, False): total * share // 4
                    for k in (0, 1) for outcome, share in (("ok", 3), ("error", 1))}
        assert seen == sorted(seen) and served.snapshot() == expected
        assert served._threads == []  # the ended threads' maps are folded

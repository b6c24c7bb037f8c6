"""Prometheus metrics of tool health: the exposition against the summary, hostile names, a live
HTTP endpoint under load, a scrape while a flush waits on the database, and the demo's endpoint."""

import json
import os
import socket
import subprocess
import sys
import threading
import types
import urllib.request
from typing import Any, Callable

import pytest

pytest.importorskip("prometheus_client")

from prometheus_client import CollectorRegistry, generate_latest  # noqa: E402
from prometheus_client.openmetrics import exposition as om_exposition, parser as om_parser  # noqa: E402
from prometheus_client.parser import text_string_to_metric_families  # noqa: E402

from conftest import NOW, RecordingDb, tracker_over  # noqa: E402
from ordanis_veltrane.config import ToolsConfig  # noqa: E402
from ordanis_veltrane.tool_handlers import health, health_metrics  # noqa: E402
from ordanis_veltrane.utils.process import ThreadCensus  # noqa: E402

Series = dict[str, dict[frozenset[tuple[str, str]], float]]
FORMATS: dict[str, tuple[Callable[[Any], bytes], Callable[[str], Any]]] = {
    "text": (generate_latest, text_string_to_metric_families),
    "openmetrics": (om_exposition.generate_latest, om_parser.text_string_to_metric_families),
}


def parse(text: str, fmt: str = "text") -> Series:
    """Sample name -> label set -> value; a label set seen twice in one name fails."""
    series: Series = {}
    for family in FORMATS[fmt][1](text):
        for sample in family.samples:
            by_labels = series.setdefault(sample.name, {})
            labels = frozenset(sample.labels.items())
            assert labels not in by_labels, f"duplicate series {sample.name}{dict(labels)}"
            by_labels[labels] = sample.value
    return series


def scrape(collector: health_metrics.HealthCollector, fmt: str = "text") -> Series:
    registry = CollectorRegistry()
    registry.register(collector)
    return parse(FORMATS[fmt][0](registry).decode("utf-8"), fmt)


def tool_of(series: Series, name: str) -> dict[str, float]:
    return {dict(labels)["tool"]: value for labels, value in series.get(name, {}).items()}


def usage_of(series: Series, name: str) -> dict[tuple[str, ...], float]:
    return {tuple(dict(k)[n] for n in ("tool", "action", "outcome", "alias_hit")): v for k, v in series[name].items()}


def test_health_never_imports_it_and_the_module_names_the_extra() -> None:
    code = (
        "import sys\n"
        "from ordanis_veltrane.tool_handlers import health\n"
        "assert 'prometheus_client' not in sys.modules\n"
        "class Block:\n"
        "    def find_spec(self, name, path=None, target=None):\n"
        "        if name.split('.')[0] == 'prometheus_client': raise ImportError(name)\n"
        "sys.meta_path.insert(0, Block())\n"
        "try:\n"
        "    from ordanis_veltrane.tool_handlers import health_metrics\n"
        "except ImportError as exc:\n"
        "    print(exc)\n"
    )
    env = dict(os.environ, PYTHONPATH=os.pathsep.join(sys.path))
    done = subprocess.run([sys.executable, "-c", code], env=env, capture_output=True, text=True, timeout=60)
    assert done.returncode == 0, done.stderr
    assert "prometheus_client" in done.stdout and "[metrics]" in done.stdout


@pytest.mark.parametrize("fmt, os_threads, prefix", [("text", 7, "veltrane_tool_"), ("openmetrics", None, "hx_")])
def test_exposition_equals_summary(repo: Any, clock: Any, monkeypatch: pytest.MonkeyPatch, fmt: str,
                                   os_threads: int | None, prefix: str) -> None:
    tracker = health.ToolHealthTracker(repo, ToolsConfig(disable_after_errors=2, disable_cooldown_s=30.5))
    tracker.record_success("search")
    for _ in range(3):
        tracker.record_error("git", "fatal: bad revision")  # disabled at NOW
    clock.advance(5)
    tracker.record_success("search")
    for args in [("search", "text", "ok", False, 1.0), ("search", "text", "ok", False, 2.5),
                 ("search", "symbol", "ok", True, None), ("git", None, "error", False, 0.125),
                 ("usage_only", "x", "timeout", True, None)]:
        tracker.record_call(*args[:3], alias_hit=args[3], duration_ms=args[4])
    census = ThreadCensus(os_threads, 5, {"agent-worker": 3, "MainThread": 1, 'odd "name"': 1})
    monkeypatch.setattr(health, "thread_census", lambda: census)
    series = scrape(health_metrics.HealthCollector(tracker, 4, prefix=prefix, clock=lambda: NOW + 42.5), fmt)

    summary = tracker.get_health_summary()
    records = {r["tool_name"]: r for r in summary}
    assert tool_of(series, prefix + "calls_total") == {n: r["call_count"] for n, r in records.items()}
    assert tool_of(series, prefix + "errors_total") == {n: r["error_count"] for n, r in records.items()}
    assert tool_of(series, prefix + "disabled") == {n: float(r["disabled"]) for n, r in records.items()}
    assert tool_of(series, prefix + "disabled_for_seconds") == {"git": 42.5}
    rows = [(n, u["action"] or "", u["outcome"], str(u["alias_hit"]).lower(), u) for n, r in records.items()
            for u in r["usage"]]
    assert usage_of(series, prefix + "usage_calls_total") == {k[:4]: k[4]["calls"] for k in rows}
    assert usage_of(series, prefix + "usage_handler_mean_seconds") == {
        k[:4]: pytest.approx(k[4]["avg_ms"] / 1000, rel=1e-12) for k in rows if k[4]["avg_ms"] is not None}
    single = {name: next(iter(values.values())) for name, values in series.items() if len(values) == 1}
    assert single[prefix + "disable_after_errors"] == 2 and single[prefix + "disable_cooldown_seconds"] == 30.5
    report = health.thread_census_report(4, census)
    assert (single.get(prefix + "os_threads"), single[prefix + "python_threads"], single[prefix + "thread_budget"]) \
        == (report.get("os"), report["python"], report["budget"])
    assert {dict(k)["name_prefix"]: v for k, v in series[prefix + "python_threads_by_name"].items()} \
        == report["python_by_name"]


HOSTILE = ['quo"te', "back\\slash", "new\nline", "\\n not a newline", "ünïcødé 名前 🚀", "",
           'all\\"\n"\\ at once', "trailing\\", "tab\tand\rreturn"]


def test_hostile_names_pass_through_unchanged() -> None:
    tracker = tracker_over(types.SimpleNamespace(fetchall=lambda sql: [], fetchone=lambda sql, p: None))
    for name in HOSTILE:
        tracker.record_success(name)
        tracker.record_call(name, name, name, alias_hit=True, duration_ms=2.0)
    # Values that are not text, or text UTF-8 cannot carry, still give one well-formed series each;
    # rows whose labels come out equal (1 and "1", an action None and "") are merged.
    tracker.record_error(1, "boom")
    tracker.record_error("1", "boom")
    tracker.record_error("lone \ud800 surrogate after é", "boom")
    tracker.record_call("m", None, "ok", alias_hit=False, duration_ms=1.0)
    tracker.record_call("m", "", "ok", alias_hit=False, duration_ms=4.0)
    tracker.record_call("m", "", "ok", alias_hit=False, duration_ms=None)
    for fmt in FORMATS:
        series = scrape(health_metrics.HealthCollector(tracker), fmt)
        calls = tool_of(series, "veltrane_tool_calls_total")
        assert calls == {**dict.fromkeys(HOSTILE, 1.0), "1": 2.0, "lone \\ud800 surrogate after é": 1.0, "m": 0.0}
        usage = usage_of(series, "veltrane_tool_usage_calls_total")
        assert usage == {**{(n, n, n, "true"): 1.0 for n in HOSTILE}, ("m", "", "ok", "false"): 3.0}
        mean = usage_of(series, "veltrane_tool_usage_handler_mean_seconds")
        assert 0.001 <= mean[("m", "", "ok", "false")] <= 0.004


def test_http_scrape_while_threads_record(repo: Any) -> None:
    tracker = health.ToolHealthTracker(repo)
    tools, n_workers, stop = ["t0", "t1", "t2"], 4, threading.Event()
    tallies = [dict.fromkeys(tools, 0) for _ in range(n_workers)]

    def worker(mine: dict[str, int]) -> None:
        i = 0
        while not stop.is_set():
            tool = tools[i % len(tools)]
            tracker.record_success(tool)
            tracker.record_call(tool, "a", "ok", alias_hit=i % 2 == 0, duration_ms=0.5)
            mine[tool] += 1
            i += 1

    with health_metrics.serve_metrics(tracker, 0, thread_budget=1000) as server:
        assert server.address == "127.0.0.1" and server.port > 0
        threads = [threading.Thread(target=worker, args=(t,)) for t in tallies]
        for t in threads:
            t.start()
        try:
            previous: dict[str, float] = {}
            for _ in range(15):
                with urllib.request.urlopen(server.url, timeout=10) as answer:
                    series = parse(answer.read().decode("utf-8"))
                calls = tool_of(series, "veltrane_tool_calls_total")
                usage = usage_of(series, "veltrane_tool_usage_calls_total")
                for tool in calls:  # one summary per scrape: a tool's counts come from one instant
                    assert 0 <= calls[tool] - usage.get((tool, "a", "ok", "false"), 0) \
                        - usage.get((tool, "a", "ok", "true"), 0) <= n_workers
                    assert calls[tool] >= previous.get(tool, 0)  # counters never go back
                previous = calls
                assert series["veltrane_tool_thread_budget"]
        finally:
            stop.set()
            for t in threads:
                t.join()
        with urllib.request.urlopen(server.url, timeout=10) as answer:
            final = tool_of(parse(answer.read().decode("utf-8")), "veltrane_tool_calls_total")
        assert final == {tool: sum(t[tool] for t in tallies) for tool in tools}
        # The daemon rebuilds its tracker: the endpoint follows; without one only threads are served.
        other = health.ToolHealthTracker(repo)
        other.record_error("fresh", "boom")
        server.collector.tracker = other
        with urllib.request.urlopen(server.url, timeout=10) as answer:
            assert tool_of(parse(answer.read().decode("utf-8")), "veltrane_tool_errors_total") == {"fresh": 1}
        server.collector.tracker = None
        with urllib.request.urlopen(server.url, timeout=10) as answer:
            assert {name.rsplit("_", 1)[-1] for name in parse(answer.read().decode("utf-8"))} \
                <= {"threads", "budget", "name"}
    with pytest.raises(OSError), socket.create_connection(("127.0.0.1", server.port), timeout=2):
        pass


def test_scrape_does_not_wait_for_a_blocked_flush(repo: Any) -> None:
    entered, release = threading.Event(), threading.Event()

    class BlockingDb(RecordingDb):
        def _enter(self, op: str, *args: Any) -> Any:
            if op == "executemany":
                entered.set()
                release.wait(30)
            return super()._enter(op, *args)

    class CountingTracker(health.ToolHealthTracker):
        summaries = 0

        def get_health_summary(self) -> list[dict[str, Any]]:
            CountingTracker.summaries += 1
            return super().get_health_summary()

    db = BlockingDb(repo.db)
    tracker = CountingTracker(types.SimpleNamespace(db=db))
    tracker.record_error("search", "index is busy")
    flusher = threading.Thread(target=tracker.flush)
    flusher.start()
    try:
        assert entered.wait(10)
        tracker.record_success("search")  # the flush holds no lock while its statement waits
        calls_before = len(db.calls)
        result: list[Series] = []
        scraper = threading.Thread(target=lambda: result.append(scrape(health_metrics.HealthCollector(tracker, 50))))
        scraper.start()
        scraper.join(10)
        assert result, "the scrape waited for the database"
        assert tool_of(result[0], "veltrane_tool_calls_total") == {"search": 2}
        assert len(db.calls) == calls_before and CountingTracker.summaries == 1
    finally:
        release.set()
        flusher.join()
    assert db.ops() == ["fetchall", "fetchone", "executemany"] and tracker.has_unsaved_changes


def test_demo_endpoint_follows_the_restarted_tracker(tmp_path: Any, monkeypatch: pytest.MonkeyPatch,
                                                     capsys: pytest.CaptureFixture[str]) -> None:
    from ordanis_veltrane import demo

    scrapes: list[dict[str, float]] = []
    serve = health_metrics.serve_metrics

    def serve_and_watch(*args: Any, **kwargs: Any) -> health_metrics.MetricsServer:
        server = serve(*args, **kwargs)

        def watch() -> None:  # a Prometheus server scraping every 5 ms while the session runs
            while True:
                try:
                    with urllib.request.urlopen(server.url, timeout=10) as answer:
                        text = answer.read().decode("utf-8")
                except OSError:
                    return
                scrapes.append(tool_of(parse(text), "veltrane_tool_calls_total"))
                threading.Event().wait(0.005)

        threading.Thread(target=watch, daemon=True).start()
        return server

    monkeypatch.setattr(health_metrics, "serve_metrics", serve_and_watch)
    assert demo.main(["--json", "--calls", "400", "--threads", "2", "--db", str(tmp_path / "d.db"),
                      "--metrics-port", "0"]) == 0
    answer = json.loads(capsys.readouterr().out)
    removed, worst = demo.REMOVED_TOOL, answer["health_summary"][0]
    last_with = max(i for i, s in enumerate(scrapes) if removed in s)  # the first tracker was served
    assert any(scrapes[last_with + 1:]) and not any(removed in s for s in scrapes[last_with:][1:])  # then the new one
    excerpt = parse("\n".join(answer["metrics"]["excerpt"]) + "\n")
    assert tool_of(excerpt, "veltrane_tool_calls_total") == {worst["tool_name"]: worst["call_count"]}
    assert answer["metrics"]["url"].startswith("http://127.0.0.1:")

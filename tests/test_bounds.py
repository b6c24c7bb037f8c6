"""Bounds against a hostile client: the timing collector's memory, the status answer's size, the metrics
endpoint's threads, and the thread budget they report."""

import json
import math
import random
import socket
import threading
import time
import tracemalloc
import urllib.error
import urllib.request
from typing import Any

import pytest

from ordanis_veltrane.repository import Repository
from ordanis_veltrane.status_answer import answer_size, build_status, thread_budget
from ordanis_veltrane.tool_handlers import health
from ordanis_veltrane.utils.process import ThreadCensus
from ordanis_veltrane.utils.timing import TimingCollector


def exact_stats(durations: dict[str, list[float]], errors: dict[str, int]) -> list[dict[str, Any]]:
    """What a collector that keeps every duration answers."""
    out = []
    for name, values in durations.items():
        ordered = sorted(values)
        out.append({"name": name, "count": len(values), "avg_ms": round(sum(values) / len(values), 3),
                    "p95_ms": round(ordered[max(0, math.ceil(0.95 * len(values)) - 1)], 3),
                    "min_ms": round(ordered[0], 3), "max_ms": round(ordered[-1], 3), "errors": errors.get(name, 0)})
    return out


class TestTimingCollector:
    @pytest.mark.parametrize("count", [1, 2, 19, 20, 21, 255, 256])
    def test_exact_while_the_reservoir_holds_every_duration(self, count: int) -> None:
        collector, rng = TimingCollector(256, seed=1), random.Random(count)
        durations: dict[str, list[float]] = {"a": [], "b": []}
        errors = {"a": 0, "b": 0}
        for i in range(count):
            name, value, failed = "ab"[i % 2], rng.expovariate(0.1), rng.random() < 0.2
            collector.record(name, value, error=failed)
            durations[name].append(value)
            errors[name] += failed
        assert collector.get_all_stats() == exact_stats({k: v for k, v in durations.items() if v}, errors)

    def test_a_million_durations_in_bounded_memory_and_a_uniform_sample(self) -> None:
        # Rising durations: a reservoir that kept the first (or the last) values would answer far from 950000.
        collector = TimingCollector(4096, seed=7)
        for i in range(900_000):
            collector.record("t", float(i), error=i % 10 == 0)
        tracemalloc.start()  # traced over the last 100,000 only: tracing every allocation is slow
        try:
            before = tracemalloc.get_traced_memory()[0]
            for i in range(900_000, 1_000_000):
                collector.record("t", float(i), error=i % 10 == 0)
            grown = tracemalloc.get_traced_memory()[0] - before
        finally:
            tracemalloc.stop()
        assert grown < 16 * 1024  # every duration kept would be 100,000 floats: over 3 MB
        (stats,) = collector.get_all_stats()
        assert stats | {"p95_ms": 0} == {"name": "t", "count": 1_000_000, "avg_ms": 499_999.5, "p95_ms": 0,
                                         "min_ms": 0.0, "max_ms": 999_999.0, "errors": 100_000}
        assert stats["p95_ms"] == pytest.approx(950_000, abs=15_000)  # 4 standard errors of a 4096 sample

    def test_threads_recording_at_once_are_all_counted(self) -> None:
        collector, threads, per_thread = TimingCollector(64, seed=3), 8, 20_000
        start = threading.Barrier(threads)

        def work(k: int) -> None:
            start.wait()
            for i in range(per_thread):
                collector.record(f"tool{k % 2}", float(i % 100 + k), error=i % 4 == 0)

        pool = [threading.Thread(target=work, args=(k,)) for k in range(threads)]
        for thread in pool:
            thread.start()
        for thread in pool:
            thread.join()
        stats = {s["name"]: s for s in collector.get_all_stats()}
        for name, ks in (("tool0", (0, 2, 4, 6)), ("tool1", (1, 3, 5, 7))):
            total = sum(float(i % 100 + k) for k in ks for i in range(per_thread))
            assert (stats[name]["count"], stats[name]["errors"]) == (4 * per_thread, per_thread)
            assert stats[name]["avg_ms"] == round(total / (4 * per_thread), 3)
            assert (stats[name]["min_ms"], stats[name]["max_ms"]) == (float(ks[0]), float(99 + ks[-1]))


CENSUS = ThreadCensus(50, 45, {"MainThread": 1, "AnyIO worker thread": 44})


@pytest.fixture
def fixed_census(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(health, "thread_census", lambda: CENSUS)


@pytest.fixture
def tracker(repo: Repository) -> health.ToolHealthTracker:
    return health.ToolHealthTracker(repo, None)


@pytest.mark.usefixtures("fixed_census")
class TestStatusAnswer:
    def test_a_small_tracker_answers_exactly_the_plain_answer(self, tracker: Any) -> None:
        for action in ("text", "sym", 'q"uote\n', "ünï 🚀"):
            tracker.record_call("search", action, "ok", alias_hit=False, duration_ms=1.0)
        tracker.record_error("git", "boom")
        plain = {"tool_health": tracker.get_health_summary(), "threads": health.thread_census_report(48, CENSUS)}
        answer = build_status(tracker, 48)
        assert answer == plain and json.dumps(answer) == json.dumps(plain)  # key order too: no key added
        assert answer_size(plain) == len(json.dumps(plain, indent=2))
        assert build_status(tracker, 48, max_bytes=answer_size(plain)) == plain  # the bound is inclusive

    def test_a_hostile_tracker_stays_under_the_bound_with_its_totals(self, tracker: Any) -> None:
        for i in range(100_000):
            tracker.record_call("search", f"act-{i}", "ok", alias_hit=False, duration_ms=1.0)
        for action in ("x" * 10_000_000, "\x00\"é🚀" * 300, "é" * 5000):  # cut, and escaped up to 12 bytes a char
            for _ in range(3):
                tracker.record_call("search", action, "ok", alias_hit=True, duration_ms=None)
        for _ in range(4):
            tracker.record_error("git", "E" * 100_000)
            tracker.record_call("git", "log", "error", alias_hit=False, duration_ms=2.0)
        summary = tracker.get_health_summary()
        answer = build_status(tracker, 48)
        assert answer_size(answer) == len(json.dumps(answer, indent=2)) <= 256 * 1024
        assert len(json.dumps(answer, ensure_ascii=False).encode()) <= 256 * 1024
        note = answer["truncated"]
        assert note["max_bytes"] == 256 * 1024 and note["tools_left_out"] == 0 and note["texts_cut"] == 3
        assert answer["threads"] == health.thread_census_report(48, CENSUS)
        assert [(r["tool_name"], r["call_count"], r["error_count"]) for r in answer["tool_health"]] \
            == [(r["tool_name"], r["call_count"], r["error_count"]) for r in summary]
        shown = {r["tool_name"]: r for r in answer["tool_health"]}
        assert shown["git"]["usage"] == [r for r in summary if r["tool_name"] == "git"][0]["usage"]
        search, full = shown["search"], [r for r in summary if r["tool_name"] == "search"][0]["usage"]
        kept, left = search["usage"], search["usage_left_out"]
        assert 0 < len(kept) and len(kept) + left["rows"] == len(full) == 100_003
        assert sum(r["calls"] for r in kept) + left["calls"] == sum(r["calls"] for r in full)
        assert note["usage_rows_left_out"] == left["rows"] and note["tools_with_usage_left_out"] == 1
        assert "x" * 1024 + "... [9998976 more characters]" in [r["action"] for r in kept[:3]]  # 3 calls: the top
        assert [r["calls"] for r in kept] == [r["calls"] for r in full[:len(kept)]]  # the top rows, in order

    def test_tools_are_left_out_last_first_when_their_records_alone_do_not_fit(self, tracker: Any) -> None:
        for n in range(1, 41):
            for _ in range(n):
                tracker.record_error(f"tool{n}", "boom")
        answer = build_status(tracker, 48, max_bytes=4000)
        assert answer_size(answer) <= 4000
        shown, note = [r["tool_name"] for r in answer["tool_health"]], answer["truncated"]
        assert shown == [f"tool{n}" for n in range(40, 40 - len(shown), -1)] and 0 < len(shown) < 40
        assert note["tools_left_out"] == 40 - len(shown)
        assert note["errors_of_tools_left_out"] == note["calls_of_tools_left_out"] == sum(range(41 - len(shown)))


def test_thread_budget_counts_what_the_process_starts() -> None:
    anyio = pytest.importorskip("anyio")
    import anyio.to_thread

    assert thread_budget(metrics=False, max_connections=8) == 48  # anyio's 40 workers: the budget of old
    assert thread_budget(metrics=True, max_connections=8, extra=2) == 48 + 1 + 8 + 2

    async def resized() -> int:
        anyio.to_thread.current_default_thread_limiter().total_tokens = 10
        return thread_budget(metrics=False, max_connections=0)

    assert anyio.run(resized) == 18  # the running loop's limiter, as the host set it


class TestMetricsEndpoint:
    @pytest.fixture
    def metrics(self) -> Any:
        return pytest.importorskip("ordanis_veltrane.tool_handlers.health_metrics")

    def test_idle_connections_hold_no_more_threads_than_allowed(self, metrics: Any) -> None:
        before = threading.active_count()
        with metrics.serve_metrics(None, 0, thread_budget=57, max_connections=4, timeout=2.0) as server:
            idle = [socket.create_connection(("127.0.0.1", server.port), timeout=30) for _ in range(50)]
            try:
                assert threading.active_count() - before <= 1 + 4
                # Beyond the 4 allowed: refused at once; the 4 themselves are dropped after the timeout.
                replies = [s.recv(100) for s in idle]
                assert all(r == b"" or r.startswith(b"HTTP/1.0 503 ") for r in replies)
                assert replies[:4] == [b""] * 4 and len([r for r in replies if r]) >= 40
                deadline, answered = time.monotonic() + 30, None
                while answered is None and time.monotonic() < deadline:  # once the idle ones time out
                    try:
                        answered = urllib.request.urlopen(server.url, timeout=10).read().decode()
                    except urllib.error.HTTPError as refused:
                        assert refused.code == 503
                        time.sleep(0.1)
                assert answered is not None and "veltrane_tool_thread_budget 57.0" in answered
                assert threading.active_count() - before <= 1 + 4
            finally:
                for s in idle:
                    s.close()
        assert threading.active_count() == before

    def test_a_client_that_trickles_its_request_is_dropped(self, metrics: Any) -> None:
        request = b"GET /metrics HTTP/1.0\r\n" + b"X-Slow: " + b"y" * 200 + b"\r\n\r\n"
        with metrics.serve_metrics(None, 0, max_connections=2, timeout=0.5) as server:
            with socket.create_connection(("127.0.0.1", server.port), timeout=30) as slow:
                sent = 0
                try:  # one byte every 50 ms: each well within the timeout, the whole request not
                    while sent < len(request):
                        slow.send(request[sent:sent + 1])
                        sent += 1
                        time.sleep(0.05)
                    assert False, "the server waited for the whole trickled request"
                except OSError:
                    pass
                assert sent < len(request)

    def test_a_client_that_does_not_read_the_answer_is_dropped(self, metrics: Any) -> None:
        from prometheus_client import CollectorRegistry
        from prometheus_client.core import GaugeMetricFamily

        class Big:  # an answer of about 12 MB: more than the socket buffers hold
            def collect(self) -> Any:
                family = GaugeMetricFamily("big", "A large answer.", labels=["k"])
                for i in range(100_000):
                    family.add_metric((f"{i:0100d}",), i)
                yield family

        registry = CollectorRegistry()
        registry.register(Big())
        with metrics.serve_metrics(None, 0, registry=registry, max_connections=1, timeout=0.5) as server:
            with socket.socket() as stuck:
                stuck.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
                stuck.connect(("127.0.0.1", server.port))
                stuck.sendall(b"GET /metrics HTTP/1.0\r\n\r\n")  # and never reads: the one slot is held
                deadline, status = time.monotonic() + 60, None
                while status is None and time.monotonic() < deadline:
                    try:
                        with urllib.request.urlopen(server.url, timeout=30) as answer:
                            status = answer.status
                    except urllib.error.HTTPError as refused:
                        assert refused.code == 503
                        time.sleep(0.1)
                assert status == 200  # the slot came free: the stuck client was dropped

    def test_close_breaks_off_a_connection_in_progress(self, metrics: Any) -> None:
        server = metrics.serve_metrics(None, 0, max_connections=1, timeout=600)
        with socket.create_connection(("127.0.0.1", server.port)) as idle:
            idle.send(b"GET /met")
            time.sleep(0.2)
            closer = threading.Thread(target=server.close)
            closer.start()
            closer.join(30)
            assert not closer.is_alive()

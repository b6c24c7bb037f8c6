"""OpenTelemetry for tool calls and tool health: the observer against the SDK's in-memory reader and span
exporter, the API's global providers installed after start (this file run as a script, a process of its own),
the zero-code run of the example server under opentelemetry-instrument, and the error-ratio query of the docs."""

import gc
import json
import re
import socket
import subprocess
import sys
import threading
import urllib.request
from pathlib import Path
from typing import Any

import pytest

pytest.importorskip("opentelemetry.sdk")

from opentelemetry.sdk.metrics import MeterProvider  # noqa: E402
from opentelemetry.sdk.metrics.export import InMemoryMetricReader  # noqa: E402
from opentelemetry.sdk.trace import TracerProvider  # noqa: E402
from opentelemetry.sdk.trace.export import SimpleSpanProcessor  # noqa: E402
from opentelemetry.sdk.trace.export.in_memory_span_exporter import InMemorySpanExporter  # noqa: E402

from conftest import child_env, need, stdio_session  # noqa: E402
from ordanis_veltrane import otel  # noqa: E402
from ordanis_veltrane.config import ToolsConfig  # noqa: E402
from ordanis_veltrane.repository import Repository  # noqa: E402
from ordanis_veltrane.tool_handlers import health  # noqa: E402
from ordanis_veltrane.tool_pipeline import CallReport  # noqa: E402

ROOT = Path(__file__).resolve().parent.parent
DURATION = "mcp.server.operation.duration"


def collect(reader: InMemoryMetricReader) -> dict[str, dict[frozenset[tuple[str, Any]], Any]]:
    """Instrument name -> attribute set -> data point (empty before anything was measured)."""
    data = reader.get_metrics_data()
    return {m.name: {frozenset(p.attributes.items()): p for p in m.data.data_points}
            for rm in (data.resource_metrics if data else ()) for sm in rm.scope_metrics for m in sm.metrics}


def call(tracker: Any, tool: str, outcome: str, error_type: str | None = None, action: str | None = None,
         alias_hit: bool = False) -> CallReport:
    """Records a call as the pipeline does and answers its report."""
    if outcome == "ok":
        tracker.record_success(tool)
    elif outcome in ("error", "client_error"):
        tracker.record_error(tool, f"{error_type} happened")
    tracker.record_call(tool, action, outcome, alias_hit=alias_hit, duration_ms=None if outcome == "disabled" else 2.0)
    return CallReport(tool, action, alias_hit, outcome, 0.002, error_type, None, tracker)


def test_calls_spans_and_health_from_one_walk_as_prometheus_reads_them(tmp_path: Path,
                                                                     monkeypatch: pytest.MonkeyPatch) -> None:
    repo = Repository(str(tmp_path / "repo.db"))  # the tracker is held by this test alone: see the end
    tracker = health.ToolHealthTracker(repo, ToolsConfig(disable_after_errors=2, disable_cooldown_s=600))
    health_metrics = pytest.importorskip("ordanis_veltrane.tool_handlers.health_metrics")
    walks = []

    def counted_walk(*args: Any) -> Any:
        walks.append(1)  # not the arguments: they hold the tracker
        return health_metrics.read_health(*args)

    monkeypatch.setattr(otel, "read_health", counted_walk)
    reader, spans, tracer_provider = InMemoryMetricReader(), InMemorySpanExporter(), TracerProvider()
    tracer_provider.add_span_processor(SimpleSpanProcessor(spans))
    observer = otel.OtelObserver(MeterProvider(metric_readers=[reader]), spans=True)
    assert collect(reader) == {}  # no call, so no tracker yet: no health series either
    quoted, bad = 'quo"te ünï 名', "lone \udc80 surrogate"
    reports = [call(tracker, "search", "ok", action="text", alias_hit=True),
               call(tracker, "git", "error", "tool_error"), call(tracker, "git", "error", "RuntimeError"),
               call(tracker, "git", "disabled"), call(tracker, quoted, "client_error", "ValidationError"),
               call(tracker, quoted, "cancelled"), call(tracker, bad, "error")]  # no type: the fallbacks
    for report in reports:
        with tracer_provider.get_tracer("app").start_as_current_span(f"tools/call {report.tool}"):
            observer.call_finished(report)
    observer.call_finished(reports[0])  # no span: nothing to annotate, nothing started
    got = collect(reader)
    assert len(walks) == 1  # four instruments, one walk

    counts = {(dict(k)["gen_ai.tool.name"], dict(k).get("error.type")): p.count for k, p in got[DURATION].items()}
    assert counts == {("search", None): 2, ("git", "tool_error"): 1, ("git", "RuntimeError"): 1,
                      ("git", "tool_disabled"): 1, (quoted, "ValidationError"): 1, (quoted, "cancelled"): 1,
                      ("lone \\udc80 surrogate", "_OTHER"): 1}
    assert all(dict(k)["mcp.method.name"] == "tools/call" and dict(k)["gen_ai.operation.name"] == "execute_tool"
               for k in got[DURATION])
    finished = spans.get_finished_spans()
    assert len(finished) == len(reports)  # the observer's only effect on tracing: attributes and events
    # Recorded later, at the collection, and still pointing at the call's span.
    assert {e.span_id for p in got[DURATION].values() for e in p.exemplars} == {s.context.span_id for s in finished}
    assert dict(finished[0].attributes or {}) == {
        "veltrane.tool.action": "text", "veltrane.tool.consecutive_errors": 0, "veltrane.tool.disabled": False}
    (refused,) = [s for s in finished if s.events]
    assert dict(refused.attributes or {}) == {"veltrane.tool.consecutive_errors": 2, "veltrane.tool.disabled": True}
    assert [(e.name, dict(e.attributes or {})) for e in refused.events] == [
        ("veltrane.tool.refused", {"gen_ai.tool.name": "git", "error.type": "tool_disabled"})]

    samples = {(s.name, tuple(sorted(s.labels.items()))): s.value
               for family in health_metrics.HealthCollector(tracker).collect() for s in family.samples}
    for name, prom in (("calls", "calls_total"), ("errors", "errors_total"), ("disabled", "disabled")):
        ours = {dict(k)["gen_ai.tool.name"]: p.value for k, p in got[f"veltrane.tool.health.{name}"].items()}
        theirs = {dict(k)["tool"]: v for (n, k), v in samples.items() if n == f"veltrane_tool_{prom}"}
        assert ours == theirs and len(ours) == 4, name
    ours_usage = {(a["gen_ai.tool.name"], a.get("veltrane.tool.action", ""), a["veltrane.tool.outcome"],
                   str(a["veltrane.tool.alias_hit"]).lower()): p.value
                  for a, p in ((dict(k), p) for k, p in got["veltrane.tool.health.usage"].items())}
    theirs_usage = {(d["tool"], d["action"], d["outcome"], d["alias_hit"]): v
                    for (n, k), v in samples.items() if n == "veltrane_tool_usage_calls_total" for d in [dict(k)]}
    assert ours_usage == theirs_usage and len(ours_usage) == 6
    collect(reader)
    assert len(walks) == 2  # a new walk at each collection

    # Behind an adapter the counters are the calls this process served; disabled stays the tracker's (the fleet's).
    from ordanis_veltrane.tool_handlers.health_view import ServedCounts, serve_counts

    serve_counts(tracker, served := ServedCounts())
    served.add("search", "text", "ok", True)
    got = collect(reader)
    assert {dict(k)["gen_ai.tool.name"]: p.value for k, p in got["veltrane.tool.health.calls"].items()} \
        == {"search": 1, "git": 0, quoted: 0, bad.encode("utf-8", "backslashreplace").decode(): 0}
    assert {dict(k)["gen_ai.tool.name"]: p.value for k, p in got["veltrane.tool.health.disabled"].items()}["git"] == 1

    # Calls on threads of their own while collecting: measurements wait for a collection, up to a limit past
    # which the calls record their own; none is lost.
    monkeypatch.setattr(otel, "PENDING_LIMIT", 50)
    start = threading.Barrier(len(reports) + 1)

    def worker(report: CallReport) -> None:
        start.wait()
        for _ in range(500):  # a call that raises ends the loop: the count below comes out short
            observer.call_finished(report)

    threads = [threading.Thread(target=worker, args=(r,)) for r in reports]
    for t in threads:
        t.start()
    start.wait()
    while any(t.is_alive() for t in threads):
        collect(reader)
    assert sum(p.count for p in collect(reader)[DURATION].values()) == len(reports) * 501 + 1

    del tracker, reports, report  # held weakly: once the host lets it go, its series go
    gc.collect()
    assert "veltrane.tool.health.calls" not in collect(reader)
    repo.close()


def provider_set_later(db: str) -> None:
    """Run as a script by the test below, in a process of its own (the API's global providers can be set once
    per process): the example server called through the SDK's in-memory client, first with no SDK installed,
    then with an SDK meter and tracer provider installed as globals."""
    import anyio
    from mcp import Client
    from mcp.types import CallToolResult, TextContent
    from opentelemetry import metrics, trace

    from ordanis_veltrane.mcp_guard import ToolGuard
    from ordanis_veltrane.mcp_server import build_server

    guard = ToolGuard(db, ToolsConfig(disable_after_errors=3, disable_cooldown_s=600), flush_interval=None)
    server = build_server(guard)

    @guard.tool(server)
    def answers_error() -> CallToolResult:  # a failure answered, not raised
        return CallToolResult(content=[TextContent(type="text", text="quota exceeded")], is_error=True)

    observer = otel.default_observer()
    assert observer is not None and guard.pipeline.observers == [observer]
    reader, spans, tracer_provider = InMemoryMetricReader(), InMemorySpanExporter(), TracerProvider()
    tracer_provider.add_span_processor(SimpleSpanProcessor(spans))

    async def run() -> None:
        async with Client(server, mode="legacy") as client:
            await client.call_tool("search", {"query": "before", "action": "grep"})  # no SDK yet: not recorded
            assert observer._histogram is None and not observer._spans
            metrics.set_meter_provider(MeterProvider(metric_readers=[reader]))
            trace.set_tracer_provider(tracer_provider)
            await client.call_tool("search", {"query": "after", "action": "grep"})
            await client.call_tool("answers_error", {})
            for _ in range(4):  # three errors disable it; the fourth call is refused
                await client.call_tool("always_fails", {})

    anyio.run(run)
    points = list(collect(reader)[DURATION].values())
    counts = {(p.attributes["gen_ai.tool.name"], p.attributes.get("error.type")): p.count for p in points}
    assert counts == {("search", None): 1, ("answers_error", "tool_error"): 1, ("always_fails", "RuntimeError"): 3,
                      ("always_fails", "tool_disabled"): 1}, counts
    assert all(tuple(p.explicit_bounds) == otel.DURATION_BUCKETS for p in points)
    served = [s for s in spans.get_finished_spans() if s.name.startswith("tools/call ")]
    assert len(served) == 6, served  # one server span per call: the SDK's, annotated
    failing = [(s.attributes["veltrane.tool.consecutive_errors"], s.attributes["veltrane.tool.disabled"])
               for s in served if s.name == "tools/call always_fails"]
    assert failing == [(1, False), (2, False), (3, True), (3, True)], failing
    events = [e for s in served for e in s.events]
    assert [e.name for e in events] == ["veltrane.tool.refused"], events
    assert events[0].attributes["veltrane.tool.last_error"] == "the backend is unreachable (attempt 3)"


def test_without_an_sdk_nothing_is_recorded_and_a_provider_set_later_is_followed(tmp_path: Path) -> None:
    pytest.importorskip("mcp")
    done = subprocess.run([sys.executable, __file__, str(tmp_path / "repo.db")], env=child_env(),
                          capture_output=True, text=True, timeout=120)
    assert done.returncode == 0, done.stderr


def test_zero_code_under_opentelemetry_instrument_scrapes_clean(tmp_path: Path) -> None:
    """Needs the observers wired into the example server's calls (the guard reports to them)."""
    pytest.importorskip("mcp")
    pytest.importorskip("opentelemetry.exporter.prometheus")
    instrument = need("opentelemetry-instrument")  # opentelemetry-distro
    import anyio

    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        port = s.getsockname()[1]
    env = {**child_env(), "OTEL_METRICS_EXPORTER": "prometheus", "OTEL_TRACES_EXPORTER": "none",
           "OTEL_LOGS_EXPORTER": "none", "OTEL_EXPORTER_PROMETHEUS_HOST": "127.0.0.1",
           "OTEL_EXPORTER_PROMETHEUS_PORT": str(port)}
    server = [sys.executable, "-m", "ordanis_veltrane.mcp_server", "--db", str(tmp_path / "repo.db"),
              "--disable-after", "2"]

    async def scenario() -> str:
        async with stdio_session(server, tmp_path / "server.log", command=instrument, env=env) as session:
            await session.call_tool("search", {"query": "q", "action": "grep"})
            for _ in range(3):
                await session.call_tool("always_fails", {})
            with urllib.request.urlopen(f"http://127.0.0.1:{port}/metrics", timeout=10) as answer:
                return str(answer.read().decode("utf-8"))

    scrape = anyio.run(scenario)
    counts = {(tool, error): float(value) for error, tool, value in re.findall(
        r'^mcp_server_operation_duration_seconds_count\{error_type="([^"]*)",gen_ai_operation_name="execute_tool",'
        r'gen_ai_tool_name="(\w+)",mcp_method_name="tools/call",[^}]*\} (\S+)$', scrape, re.M)}
    assert counts == {("search", ""): 1.0, ("always_fails", "RuntimeError"): 2.0,
                      ("always_fails", "tool_disabled"): 1.0}, scrape
    assert re.search(r'^veltrane_tool_health_disabled\{gen_ai_tool_name="always_fails",[^}]*\} 1\.0$', scrape, re.M)
    assert re.search(r'^veltrane_tool_health_usage_total\{gen_ai_tool_name="search",[^}]*'
                     r'veltrane_tool_action="text",veltrane_tool_alias_hit="true",veltrane_tool_outcome="ok"\} 1\.0$',
                     scrape, re.M)
    check = subprocess.run([need("promtool"), "check", "metrics"], input=scrape, capture_output=True, text=True,
                           timeout=60)
    assert check.returncode == 0, check.stdout + check.stderr


def test_readme_error_ratio_query_with_promtool(tmp_path: Path) -> None:
    promtool, page = need("promtool"), ROOT / "docs" / "operators.md"
    if not page.is_file():
        pytest.skip("runs from a checkout, next to docs/")
    section = page.read_text().split("## OpenTelemetry\n", 1)[1].split("\n## ", 1)[0]
    (query,) = re.findall(r"```promql\n(.*?)```", section, re.S)
    inputs = [{"series": f'mcp_server_operation_duration_seconds_count{{gen_ai_tool_name="{tool}",'
                         f'mcp_method_name="tools/call",error_type="{error}",job="mcp"}}', "values": f"0+{rate}x20"}
              for tool, error, rate in (("git", "", 10), ("git", "tool_error", 5), ("git", "RuntimeError", 5),
                                        ("git", "tool_disabled", 100), ("git", "cancelled", 7), ("search", "", 30),
                                        ("fetch", "RuntimeError", 4), ("gone", "tool_disabled", 9))]
    expected = [{"labels": f'{{gen_ai_tool_name="{tool}"}}', "value": value}  # "gone", only refused: no ratio
                for tool, value in (("git", 0.5), ("search", 0), ("fetch", 1))]
    tests = {"tests": [{"interval": "1m", "input_series": inputs,
                        "promql_expr_test": [{"expr": query, "eval_time": "10m", "exp_samples": expected}]}]}
    (tmp_path / "query.test.yml").write_text(json.dumps(tests))  # YAML reads JSON
    done = subprocess.run([promtool, "test", "rules", str(tmp_path / "query.test.yml")], capture_output=True,
                          text=True, timeout=60)
    assert done.returncode == 0, done.stdout + done.stderr


if __name__ == "__main__":
    provider_set_later(sys.argv[1])

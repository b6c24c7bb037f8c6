"""OpenTelemetry for tool calls and tool health: the observer against the SDK's in-memory reader and span
exporter, the API's global providers installed after start (a process of its own), the zero-code run of the
example server under opentelemetry-instrument with the Prometheus exporter, and the README's PromQL."""

import gc
import json
import os
import re
import shutil
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

from conftest import child_env  # noqa: E402
from ordanis_veltrane import otel  # noqa: E402
from ordanis_veltrane.config import ToolsConfig  # noqa: E402
from ordanis_veltrane.repository import Repository  # noqa: E402
from ordanis_veltrane.tool_handlers import health  # noqa: E402
from ordanis_veltrane.tool_pipeline import CallReport  # noqa: E402

ROOT = Path(__file__).resolve().parent.parent
DURATION = "mcp.server.operation.duration"


@pytest.fixture
def tracker(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Any:
    """A tracker over a real SQLite file, every tool known; held by the test alone (the fixture keeps none)."""
    every_tool = type("Open", (), {"get": lambda self, name: self, "action": lambda self, action: action})()
    monkeypatch.setattr(health, "TOOLS", every_tool)
    repo = Repository(str(tmp_path / "repo.db"))
    made = [health.ToolHealthTracker(repo, ToolsConfig(disable_after_errors=2, disable_cooldown_s=600))]
    yield made
    repo.close()


def collect(reader: InMemoryMetricReader) -> dict[str, dict[frozenset[tuple[str, Any]], Any]]:
    """Instrument name -> attribute set -> value (a histogram's: its count)."""
    out: dict[str, dict[frozenset[tuple[str, Any]], Any]] = {}
    data = reader.get_metrics_data()  # None before anything was measured
    for metric in (m for rm in (data.resource_metrics if data else ()) for sm in rm.scope_metrics for m in sm.metrics):
        for point in metric.data.data_points:
            value = point.count if hasattr(point, "count") else point.value
            out.setdefault(metric.name, {})[frozenset(point.attributes.items())] = value
    return out


def call(tracker: Any, tool: str, outcome: str, error_type: str | None = None, action: str | None = None,
         alias_hit: bool = False) -> CallReport:
    """Records a call as the pipeline does and answers its report."""
    if outcome == "ok":
        tracker.record_success(tool)
    elif outcome in ("error", "client_error"):
        tracker.record_error(tool, f"{error_type} happened")
    tracker.record_call(tool, action, outcome, alias_hit=alias_hit, duration_ms=None if outcome == "disabled" else 2.0)
    return CallReport(tool, action, alias_hit, outcome, 0.002, error_type, None, tracker)


def test_duration_attributes_per_outcome_and_spans_annotated_never_started(tracker: Any) -> None:
    tracker = tracker.pop()
    reader, spans = InMemoryMetricReader(), InMemorySpanExporter()
    tracer_provider = TracerProvider()
    tracer_provider.add_span_processor(SimpleSpanProcessor(spans))
    observer = otel.OtelObserver(MeterProvider(metric_readers=[reader]), spans=True)
    tracer = tracer_provider.get_tracer("app")
    bad = "lone \udc80 surrogate"
    reports = [call(tracker, "search", "ok", action="text", alias_hit=True),
               call(tracker, "git", "error", "tool_error"), call(tracker, "git", "error", "RuntimeError"),
               call(tracker, "git", "disabled", "tool_disabled"),
               call(tracker, "fetch", "client_error", "ValidationError"),
               call(tracker, "fetch", "cancelled", "cancelled"),
               call(tracker, bad, "error")]  # no type given: the conventions' fallback
    for report in reports:
        with tracer.start_as_current_span(f"tools/call {report.tool}"):
            observer.call_finished(report)
    observer.call_finished(reports[0])  # no span: nothing to annotate, nothing started

    data = reader.get_metrics_data()
    assert data is not None
    exemplars = {e.span_id for m in data.resource_metrics[0].scope_metrics[0].metrics if m.name == DURATION
                 for p in m.data.data_points for e in p.exemplars}
    counts = {(dict(k)["gen_ai.tool.name"], dict(k).get("error.type")): v for k, v in collect(reader)[DURATION].items()}
    assert counts == {("search", None): 2, ("git", "tool_error"): 1, ("git", "RuntimeError"): 1,
                      ("git", "tool_disabled"): 1, ("fetch", "ValidationError"): 1, ("fetch", "cancelled"): 1,
                      ("lone \\udc80 surrogate", "_OTHER"): 1}
    assert all(dict(k)["mcp.method.name"] == "tools/call" and dict(k)["gen_ai.operation.name"] == "execute_tool"
               for k in collect(reader)[DURATION])
    finished = spans.get_finished_spans()
    assert len(finished) == len(reports)  # the observer's only effect on tracing: attributes and events
    assert exemplars == {s.context.span_id for s in finished}  # recorded later, still pointing at the call's span
    by_name = {s.name: s for s in finished}
    assert dict(by_name["tools/call search"].attributes or {}) == {
        "veltrane.tool.action": "text", "veltrane.tool.consecutive_errors": 0, "veltrane.tool.disabled": False}
    refused = [s for s in finished if s.events]
    assert len(refused) == 1 and refused[0].attributes["veltrane.tool.disabled"] is True
    assert refused[0].attributes["veltrane.tool.consecutive_errors"] == 2
    assert refused[0].events[0].name == "veltrane.tool.refused"
    assert dict(refused[0].events[0].attributes or {}) == {"gen_ai.tool.name": "git", "error.type": "tool_disabled"}


def test_health_instruments_match_the_prometheus_collector_from_one_walk(tracker: Any,
                                                                        monkeypatch: pytest.MonkeyPatch) -> None:
    tracker = tracker.pop()
    health_metrics = pytest.importorskip("ordanis_veltrane.tool_handlers.health_metrics")
    walks = []
    monkeypatch.setattr(otel, "read_health", lambda *a: walks.append(1) or health_metrics.read_health(*a))
    for tool in ('quo"te', "ünïcødé 名前", "lone \udc80", "plain"):
        for outcome in ("ok", "error", "error", "disabled"):
            call(tracker, tool, outcome, "E", action="a" if tool == "plain" else None, alias_hit=outcome == "ok")
    reader = InMemoryMetricReader()
    observer = otel.OtelObserver(MeterProvider(metric_readers=[reader]))
    assert collect(reader).get("veltrane.tool.health.calls") is None  # no tracker seen yet: no health series
    observer.tracker = tracker
    got = collect(reader)
    assert len(walks) == 1  # four instruments, one summary
    collect(reader)
    assert len(walks) == 2

    samples = {(s.name, tuple(sorted(s.labels.items()))): s.value
               for family in health_metrics.HealthCollector(tracker).collect() for s in family.samples}
    for name, prom in (("calls", "calls_total"), ("errors", "errors_total"), ("disabled", "disabled")):
        ours = {dict(k)["gen_ai.tool.name"]: v for k, v in got[f"veltrane.tool.health.{name}"].items()}
        theirs = {dict(k)["tool"]: v for (n, k), v in samples.items() if n == f"veltrane_tool_{prom}"}
        assert ours == theirs and len(ours) == 4, name
    ours_usage = {(a["gen_ai.tool.name"], a.get("veltrane.tool.action", ""), a["veltrane.tool.outcome"],
                   str(a["veltrane.tool.alias_hit"]).lower()): v
                  for a, v in ((dict(k), v) for k, v in got["veltrane.tool.health.usage"].items())}
    theirs_usage = {(d["tool"], d["action"], d["outcome"], d["alias_hit"]): v
                    for (n, k), v in samples.items() if n == "veltrane_tool_usage_calls_total" for d in [dict(k)]}
    assert ours_usage == theirs_usage and len(ours_usage) == 12

    del tracker  # held weakly: once the host lets it go, its series go
    gc.collect()
    assert "veltrane.tool.health.calls" not in collect(reader)


def test_concurrent_calls_while_collecting_count_exactly(tracker: Any, monkeypatch: pytest.MonkeyPatch) -> None:
    """Measurements wait for a collection, up to a limit past which the calls record their own: none is lost."""
    monkeypatch.setattr(otel, "PENDING_LIMIT", 50)
    tracker = tracker.pop()
    reader = InMemoryMetricReader()
    observer = otel.OtelObserver(MeterProvider(metric_readers=[reader]))
    reports = [call(tracker, f"tool{i}", "ok" if i % 2 else "error", None if i % 2 else f"Error{i % 5}")
               for i in range(8)]
    start, failures = threading.Barrier(9), []

    def worker(report: CallReport) -> None:
        start.wait()
        try:
            for _ in range(500):
                observer.call_finished(report)
        except BaseException as exc:  # pragma: no cover - the failure is the finding
            failures.append(exc)

    threads = [threading.Thread(target=worker, args=(r,)) for r in reports]
    for t in threads:
        t.start()
    start.wait()
    while any(t.is_alive() for t in threads):
        collect(reader)
    for t in threads:
        t.join()
    assert not failures
    assert sum(collect(reader)[DURATION].values()) == 8 * 500


def test_without_an_sdk_nothing_is_recorded_and_a_provider_set_later_is_followed(tmp_path: Path) -> None:
    pytest.importorskip("mcp")
    done = subprocess.run([sys.executable, str(ROOT / "tests" / "otel_child.py"), str(tmp_path / "repo.db")],
                          env=child_env(), capture_output=True, text=True, timeout=120)
    assert done.returncode == 0, done.stderr
    got = json.loads(done.stdout)
    points = got["metrics"][DURATION]
    counts = {(p["attributes"]["gen_ai.tool.name"], p["attributes"].get("error.type")): p["value"] for p in points}
    assert counts == {("search", None): 1, ("answers_error", "tool_error"): 1, ("boom", "ValueError"): 3,
                      ("boom", "tool_disabled"): 1}  # the call made before the SDK was installed is not there
    assert all(p["bounds"] == list(otel.DURATION_BUCKETS) for p in points)
    served = [s for s in got["spans"] if s["name"].startswith("tools/call ")]
    assert len(served) == 6  # one server span per call: the SDK's, annotated
    boom = [s for s in served if s["name"] == "tools/call boom"]
    assert [s["attributes"]["veltrane.tool.consecutive_errors"] for s in boom] == [1, 2, 3, 3]
    assert [s["attributes"]["veltrane.tool.disabled"] for s in boom] == [False, False, True, True]
    assert [e["name"] for s in served for e in s["events"]] == ["veltrane.tool.refused"]
    assert boom[-1]["events"][0]["attributes"]["veltrane.tool.last_error"] == "backend down"


def test_the_module_names_its_extra_and_health_imports_no_telemetry() -> None:
    code = ("import sys\nfrom ordanis_veltrane.tool_handlers import health, health_view\n"
            "assert not {'opentelemetry', 'prometheus_client'} & set(sys.modules)\n"
            "sys.modules['opentelemetry'] = None\nfrom ordanis_veltrane import otel")
    done = subprocess.run([sys.executable, "-c", code], env=child_env(), capture_output=True, text=True, timeout=60)
    last = done.stderr.splitlines()[-1]
    assert last.startswith("ImportError: ") and "[otel]" in last, done.stderr


def free_port() -> int:
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return int(s.getsockname()[1])


def test_zero_code_under_opentelemetry_instrument_scrapes_clean(tmp_path: Path) -> None:
    """Needs the observers wired into the example server's calls (the guard reports to them)."""
    pytest.importorskip("mcp")
    pytest.importorskip("opentelemetry.exporter.prometheus")
    instrument = shutil.which("opentelemetry-instrument", path=os.pathsep.join([str(Path(sys.executable).parent),
                                                                               os.environ.get("PATH", "")]))
    if instrument is None:
        pytest.skip("opentelemetry-instrument is not installed (opentelemetry-distro)")
    import anyio
    from mcp import ClientSession, StdioServerParameters, stdio_client

    port = free_port()
    env = {**child_env(), "OTEL_METRICS_EXPORTER": "prometheus", "OTEL_TRACES_EXPORTER": "none",
           "OTEL_LOGS_EXPORTER": "none", "OTEL_EXPORTER_PROMETHEUS_HOST": "127.0.0.1",
           "OTEL_EXPORTER_PROMETHEUS_PORT": str(port)}
    server = [sys.executable, "-m", "ordanis_veltrane.mcp_server", "--db", str(tmp_path / "repo.db"),
              "--disable-after", "2"]

    async def scenario() -> str:
        params = StdioServerParameters(command=instrument, args=server, env=env)
        with open(tmp_path / "server.log", "w") as errlog:
            async with stdio_client(params, errlog=errlog) as (read, write), ClientSession(read, write) as session:
                await session.initialize()
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
    promtool = shutil.which("promtool")
    if promtool is None:
        pytest.skip("promtool is not installed (Debian: apt-get install prometheus)")
    check = subprocess.run([promtool, "check", "metrics"], input=scrape, capture_output=True, text=True, timeout=60)
    assert check.returncode == 0, check.stdout + check.stderr


def test_readme_error_ratio_query_with_promtool(tmp_path: Path) -> None:
    promtool = shutil.which("promtool")
    if promtool is None:
        pytest.skip("promtool is not installed (Debian: apt-get install prometheus)")
    if not (ROOT / "README.md").is_file():
        pytest.skip("runs from a checkout, next to the README")
    section = (ROOT / "README.md").read_text().split("## OpenTelemetry\n", 1)[1].split("\n## ", 1)[0]
    (query,) = re.findall(r"```promql\n(.*?)```", section, re.S)

    def series(tool: str, error: str, per_minute: int) -> dict[str, str]:
        labels = f'gen_ai_tool_name="{tool}",mcp_method_name="tools/call",error_type="{error}",job="mcp"'
        return {"series": f"mcp_server_operation_duration_seconds_count{{{labels}}}", "values": f"0+{per_minute}x20"}

    inputs = [series("git", "", 10), series("git", "tool_error", 5), series("git", "RuntimeError", 5),
              series("git", "tool_disabled", 100), series("git", "cancelled", 7), series("search", "", 30),
              series("fetch", "RuntimeError", 4), series("gone", "tool_disabled", 9)]  # only refused: no ratio
    expected = [{"labels": f'{{gen_ai_tool_name="{tool}"}}', "value": value}
                for tool, value in (("git", 0.5), ("search", 0), ("fetch", 1))]
    tests = {"tests": [{"interval": "1m", "input_series": inputs,
                        "promql_expr_test": [{"expr": query, "eval_time": "10m", "exp_samples": expected}]}]}
    (tmp_path / "query.test.yml").write_text(json.dumps(tests))  # YAML reads JSON
    done = subprocess.run([promtool, "test", "rules", str(tmp_path / "query.test.yml")], capture_output=True,
                          text=True, timeout=60)
    assert done.returncode == 0, done.stdout + done.stderr

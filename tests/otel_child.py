"""Run by test_otel in a process of its own (the API's global providers can be set once per process): a
guarded MCPServer called through the SDK's in-memory client, first with no SDK installed, then with an SDK
meter and tracer provider installed as globals. Prints what the SDK collected as JSON."""

import json
import sys
from typing import Any

import anyio
from mcp import Client
from mcp.server.mcpserver import MCPServer
from mcp.types import CallToolResult, TextContent
from opentelemetry import metrics, trace
from opentelemetry.sdk.metrics import MeterProvider
from opentelemetry.sdk.metrics.export import InMemoryMetricReader
from opentelemetry.sdk.trace import TracerProvider
from opentelemetry.sdk.trace.export import SimpleSpanProcessor
from opentelemetry.sdk.trace.export.in_memory_span_exporter import InMemorySpanExporter

from ordanis_veltrane import otel
from ordanis_veltrane.config import ToolsConfig
from ordanis_veltrane.mcp_guard import ToolGuard
from ordanis_veltrane.tool_registry import ActionSpec


def main(db: str) -> None:
    guard = ToolGuard(db, ToolsConfig(disable_after_errors=3, disable_cooldown_s=600), flush_interval=None)
    server: MCPServer[Any] = MCPServer("otel-child", lifespan=guard.lifespan)

    @guard.tool(server, actions=[ActionSpec("text", ("grep",))])
    async def search(query: str, action: str = "text") -> str:
        return f"{action}: {query}"

    @guard.tool(server)
    def answers_error() -> CallToolResult:
        return CallToolResult(content=[TextContent(type="text", text="quota exceeded")], is_error=True)

    @guard.tool(server)
    def boom() -> str:
        raise ValueError("backend down")

    observer = otel.default_observer()
    assert observer is not None and guard.pipeline.observers == [observer]
    reader, spans = InMemoryMetricReader(), InMemorySpanExporter()

    async def run() -> None:
        async with Client(server, mode="legacy") as client:
            await client.call_tool("search", {"query": "before", "action": "grep"})  # no SDK yet: not recorded
            assert observer._histogram is None and not observer._spans
            metrics.set_meter_provider(MeterProvider(metric_readers=[reader]))
            tracer_provider = TracerProvider()
            tracer_provider.add_span_processor(SimpleSpanProcessor(spans))
            trace.set_tracer_provider(tracer_provider)
            await client.call_tool("search", {"query": "after", "action": "grep"})
            await client.call_tool("answers_error", {})
            for _ in range(4):  # three errors disable it; the fourth call is refused
                await client.call_tool("boom", {})

    anyio.run(run)
    collected: dict[str, Any] = {"metrics": {}, "spans": []}
    for resource_metrics in reader.get_metrics_data().resource_metrics:
        for scope_metrics in resource_metrics.scope_metrics:
            for metric in scope_metrics.metrics:
                points = collected["metrics"].setdefault(metric.name, [])
                for point in metric.data.data_points:
                    value = point.count if hasattr(point, "count") else point.value
                    bounds = list(getattr(point, "explicit_bounds", None) or [])
                    points.append({"attributes": dict(point.attributes), "value": value, "bounds": bounds})
    for span in spans.get_finished_spans():
        collected["spans"].append({"name": span.name, "attributes": dict(span.attributes or {}),
                                   "events": [{"name": e.name, "attributes": dict(e.attributes or {})}
                                              for e in span.events]})
    print(json.dumps(collected))


if __name__ == "__main__":
    main(sys.argv[1])

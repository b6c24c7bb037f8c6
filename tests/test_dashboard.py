"""The Grafana dashboard's queries against a real Prometheus scraping two example servers on one store, and a third
server whose metrics port is taken serving on without metrics. Each server's counters count the calls it served,
while a disable made by one shows on the others: the fleet's view of health."""

import json
import socket
import subprocess
import time
import urllib.parse
import urllib.request
from contextlib import AsyncExitStack
from pathlib import Path
from typing import Any

import pytest

pytest.importorskip("mcp")
pytest.importorskip("prometheus_client")

import anyio  # noqa: E402
from conftest import need, stdio_session  # noqa: E402

DASHBOARD = Path(__file__).parents[1] / "examples" / "grafana" / "tool-health.json"
pytestmark = pytest.mark.skipif(not DASHBOARD.is_file(), reason="runs from a checkout, next to examples/")


def free_port() -> int:
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return int(s.getsockname()[1])


def query(base: str, expr: str) -> list[Any]:
    url = f"{base}/api/v1/query?" + urllib.parse.urlencode({"query": expr})
    with urllib.request.urlopen(url, timeout=10) as answer:
        body = json.load(answer)
    assert body["status"] == "success", body
    return list(body["data"]["result"])


def scrape(port: int) -> dict[tuple[str, str | None], float]:
    """A server's samples summed by (name, tool)."""
    from prometheus_client.parser import text_string_to_metric_families

    with urllib.request.urlopen(f"http://127.0.0.1:{port}/metrics", timeout=10) as answer:
        samples = [s for f in text_string_to_metric_families(answer.read().decode()) for s in f.samples]
    return {key: sum(s.value for s in samples if (s.name, s.labels.get("tool")) == key)
            for key in {(s.name, s.labels.get("tool")) for s in samples}}


def test_every_panel_has_data_from_a_real_prometheus(tmp_path: Path) -> None:
    prometheus = need("prometheus")
    exprs = [t["expr"].replace("$__rate_interval", "1m") for p in json.loads(DASHBOARD.read_text())["panels"]
             for t in p["targets"]]
    assert len(exprs) >= 5
    ports = [free_port(), free_port()]
    db = str(tmp_path / "fleet.db")
    common = ["-m", "ordanis_veltrane.mcp_server", "--db", db, "--flush-interval", "0.5", "--disable-after", "2",
              "--cooldown", "600", "--metrics-host", "127.0.0.1", "--hide-disabled", "--no-status-tools"]
    web = free_port()
    (tmp_path / "prometheus.yml").write_text(
        "global: {scrape_interval: 1s, evaluation_interval: 1s}\n"
        "scrape_configs:\n  - job_name: tools\n    static_configs:\n"
        f"      - targets: ['127.0.0.1:{ports[0]}', '127.0.0.1:{ports[1]}']\n")
    log = tmp_path / "log"

    async def scenario() -> None:
        async with AsyncExitStack() as stack:
            errlog = stack.enter_context(open(log, "a"))
            sessions = [await stack.enter_async_context(stdio_session([*common, "--metrics-port", str(port)], errlog))
                        for port in [*ports, ports[0]]]  # the third finds its port taken
            server = subprocess.Popen(
                [prometheus, f"--config.file={tmp_path / 'prometheus.yml'}", f"--storage.tsdb.path={tmp_path / 'tsdb'}",
                 f"--web.listen-address=127.0.0.1:{web}"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            stack.callback(server.wait, 30)
            stack.callback(server.terminate)
            base = f"http://127.0.0.1:{web}"
            deadline, missing, rounds = time.monotonic() + 40, exprs, 0
            while missing and time.monotonic() < deadline:
                rounds += 1
                for session in sessions:  # calls of every outcome, all along; only the first one fails
                    await session.call_tool("search", {"query": "q", "action": "grep"})
                await sessions[0].call_tool("always_fails", {})
                await anyio.sleep(1)
                try:
                    missing = [e for e in exprs if not await anyio.to_thread.run_sync(query, base, e)]
                except OSError:
                    continue  # not listening yet
            assert not missing, missing
            listed = {t.name for t in (await sessions[0].list_tools()).tools}
            assert "search" in listed and not listed & {"status", "always_fails"}  # always_fails: disabled, hidden
            with anyio.fail_after(20):  # the second server has synced the first one's disable
                while (await anyio.to_thread.run_sync(scrape, ports[1])).get(
                        ("veltrane_tool_disabled", "always_fails")) != 1:
                    await anyio.sleep(0.1)
            first, second = [await anyio.to_thread.run_sync(scrape, port) for port in ports]
            for name in ("veltrane_tool_calls_total", "veltrane_tool_usage_calls_total"):
                assert first[(name, "search")] == second[(name, "search")] == rounds  # not the fleet's 3 x rounds
            errors = ("veltrane_tool_errors_total", "always_fails")
            assert (first[errors], second.get(errors, 0)) == (2, 0)
            assert not (await sessions[2].call_tool("search", {"query": "q"})).is_error

    anyio.run(scenario)
    assert "Not serving tool health metrics" in log.read_text()

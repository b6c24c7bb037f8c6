"""The example alert rules: shown in the docs as they are, using only metrics that health_metrics exports,
and, for promtool, valid and firing exactly where they should on made-up series."""

import json
import re
import subprocess
from pathlib import Path
from typing import Any

import pytest

from conftest import need

RULES = Path(__file__).resolve().parent.parent / "examples" / "prometheus" / "tool-health.rules.yml"
pytestmark = pytest.mark.skipif(not RULES.is_file(), reason="runs from a checkout, next to examples/")


def test_rules_use_exported_metrics() -> None:
    assert RULES.read_text() in (RULES.parents[2] / "docs" / "operators.md").read_text()  # shown as it is
    pytest.importorskip("prometheus_client")
    from ordanis_veltrane.tool_handlers.health_metrics import HealthCollector

    exported = {m.name + ("_total" if m.type == "counter" else "") for m in HealthCollector(None, 1).describe()}
    used = set(re.findall(r"\bveltrane_tool_\w+", RULES.read_text()))
    assert len(used) >= 6 and used <= exported, used - exported


def series(name: str, instance: str, values: str, tool: str | None = None) -> dict[str, str]:
    labels = f'job="daemon",instance="{instance}"' + (f',tool="{tool}"' if tool else "")
    return {"series": f"veltrane_tool_{name}{{{labels}}}", "values": values}


def alert(instance: str, summary: str, tool: str | None = None) -> dict[str, Any]:
    labels = {"severity": "warning", "job": "daemon", "instance": instance, **({"tool": tool} if tool else {})}
    return {"exp_labels": labels, "exp_annotations": {"summary": summary}}


def test_promtool(tmp_path: Path) -> None:
    promtool = need("promtool")
    check = subprocess.run([promtool, "check", "rules", str(RULES)], capture_output=True, text=True, timeout=60)
    assert check.returncode == 0, check.stdout + check.stderr
    a, b, c = "a:9464", "b:9464", "c:9464"
    inputs = [
        series("disabled", a, "0 0 1 0 0 0 0 0 0", "git"),  # disabled around minute 2 only
        series("disabled", a, "0x8", "search"),
        series("calls_total", a, "0+60x40", "git"), series("errors_total", a, "0+30x40", "git"),  # half fail
        series("calls_total", a, "0+60x40", "search"), series("errors_total", a, "0x40", "search"),
        series("calls_total", a, "0+1x40", "rare"), series("errors_total", a, "0+1x40", "rare"),  # too few calls
        series("os_threads", a, "12x40"), series("python_threads", a, "10x40"), series("thread_budget", a, "8x40"),
        series("python_threads", b, "9x40"), series("thread_budget", b, "8x40"),  # no OS count: Python's
        series("os_threads", c, "8x40"), series("python_threads", c, "30x40"), series("thread_budget", c, "8x40"),
    ]
    disabled = alert(a, "Tool git on a:9464 was disabled after repeated errors", "git")
    expected = [
        ("ToolDisabled", "3m", [disabled]), ("ToolDisabled", "8m", []),
        ("ToolErrorRatioHigh", "5m", []),  # not yet for 10 minutes
        ("ToolErrorRatioHigh", "25m", [alert(a, "Tool git on a:9464 fails 50% of its calls", "git")]),
        ("ToolThreadsPilingUp", "10m", []),
        ("ToolThreadsPilingUp", "25m", [alert(a, "a:9464 holds 12 threads, more than its pools allow"),
                                        alert(b, "b:9464 holds 9 threads, more than its pools allow")]),
    ]
    tests = {"rule_files": [str(RULES)], "evaluation_interval": "1m", "tests": [{
        "interval": "1m", "input_series": inputs,
        "alert_rule_test": [{"alertname": n, "eval_time": t, "exp_alerts": e} for n, t, e in expected]}]}
    (tmp_path / "tests.yml").write_text(json.dumps(tests))  # JSON is YAML
    run = subprocess.run([promtool, "test", "rules", "tests.yml"], cwd=tmp_path, capture_output=True, text=True,
                         timeout=120)
    assert run.returncode == 0, run.stdout + run.stderr

"""The demo session end to end: its answers and the restart through a real file."""

import importlib.util
import json
import subprocess
import sys
from pathlib import Path

from conftest import child_env


def test_session_answers_and_restart(tmp_path: Path) -> None:
    """With the metrics endpoint where prometheus_client is installed (the docs' examples run the demo without)."""
    extra = ["--metrics-port", "0"] if importlib.util.find_spec("prometheus_client") else []
    done = subprocess.run([sys.executable, "-m", "ordanis_veltrane.demo", "--json", "--calls", "300", "--threads", "3",
                           "--seed", "5", "--db", str(tmp_path / "kept.db"), *extra], env=child_env(),
                          capture_output=True, text=True, timeout=120)
    assert done.returncode == 0, done.stderr
    answer = json.loads(done.stdout)
    restart, removed = answer["restart"], answer["restart"]["removed_tool"]  # rows and counts of a removed tool go
    assert removed in restart["tool_health_rows_before"] and removed not in restart["tool_health_rows_after"]
    assert restart["removed_tool_in_usage_before"] and not restart["removed_tool_in_usage_after"]
    assert restart["unsaved_changes_after_load"] is True
    assert "broken_plugin" in restart["seeded_disabled_after_restart"]  # disabled just before the restart
    summary = answer["health_summary"]
    by_name, order = {r["tool_name"]: r for r in summary}, [(-r["error_count"], -r["call_count"]) for r in summary]
    assert order == sorted(order) and removed not in by_name and all(r["usage"] for r in summary)
    assert by_name["broken_plugin"]["error_count"] == by_name["broken_plugin"]["call_count"] > 0
    assert by_name["broken_plugin"]["last_error"]
    assert sum(answer["session"]["outcomes"].values()) >= 300 and min(answer["flush_rows"]) > 0
    assert {t["name"] for t in answer["performance_stats"]["tools"]} >= set(by_name)
    assert list(answer["thread_census"])[-1] == "budget"  # the demo's own threads fit its budget
    if extra:  # the endpoint serves the tracker made at the restart
        worst = summary[0]
        assert f'veltrane_tool_calls_total{{tool="{worst["tool_name"]}"}} {worst["call_count"]:.1f}' \
            in answer["metrics"]["excerpt"]

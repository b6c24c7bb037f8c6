"""The demo session end to end: its answers, the restart through a real file, and reuse of a kept file."""
from __future__ import annotations

import json
import os
import subprocess
import sys
from pathlib import Path
from typing import Any

import ordanis_veltrane


def _demo(*args: str) -> subprocess.CompletedProcess[str]:
    env = dict(os.environ)
    root = str(Path(ordanis_veltrane.__file__).resolve().parent.parent)
    env["PYTHONPATH"] = os.pathsep.join(filter(None, [root, env.get("PYTHONPATH")]))
    result = subprocess.run(
        [sys.executable, "-m", "ordanis_veltrane.demo", *args], env=env, capture_output=True, text=True, timeout=120
    )
    assert result.returncode == 0, result.stderr
    return result


def _json(*args: str) -> dict[str, Any]:
    out: dict[str, Any] = json.loads(_demo("--json", *args).stdout)
    return out


def test_session_answers_and_restart(tmp_path: Path) -> None:
    db = tmp_path / "kept.db"
    first = _json("--calls", "300", "--threads", "3", "--seed", "5", "--db", str(db))
    restart = first["restart"]
    removed = restart["removed_tool"]
    # The removed tool's row is deleted at construction and its counts written away.
    assert removed in restart["tool_health_rows_before"] and removed not in restart["tool_health_rows_after"]
    assert restart["removed_tool_in_usage_before"] and not restart["removed_tool_in_usage_after"]
    assert restart["unsaved_changes_after_load"] is True
    # The plugin driven to disabled just before the restart is seeded disabled.
    assert "broken_plugin" in restart["seeded_disabled_after_restart"]

    summary = first["health_summary"]
    order = [(-r["error_count"], -r["call_count"]) for r in summary]
    assert order == sorted(order)
    by_name = {r["tool_name"]: r for r in summary}
    assert removed not in by_name
    plugin = by_name["broken_plugin"]
    assert plugin["error_count"] == plugin["call_count"] > 0 and plugin["last_error"]
    assert all(r["usage"] for r in summary)
    assert sum(first["session"]["outcomes"].values()) >= 300
    assert first["flush_rows"] and min(first["flush_rows"]) > 0
    assert {t["name"] for t in first["performance_stats"]["tools"]} >= set(by_name)
    assert list(first["thread_census"])[-1] in ("budget", "warning")

    # A second session on the kept file starts from the first one's history.
    second = _json("--calls", "100", "--threads", "2", "--seed", "6", "--db", str(db))
    again = {r["tool_name"]: r for r in second["health_summary"]}
    for name in ("search", "read_file"):
        assert again[name]["call_count"] > by_name[name]["call_count"]


def test_text_report() -> None:
    out = _demo("--calls", "120", "--threads", "2").stdout
    for heading in ("Tool health, worst first", "Tool performance stats", "Thread census", "Flushes", "Cost of the tracker calls"):
        assert heading in out
    assert "{" not in out  # tables, not raw dicts

"""What loading the module binds, what a failed host import does, and what the shared object exports."""

import importlib
import inspect
import json
import logging
import os
import shutil
import subprocess
import sys
import typing
from typing import Any

import pytest

from ordanis_veltrane.tool_handlers import health

HOST = ["ordanis_veltrane." + m for m in ("config", "tool_registry", "tool_schemas", "utils.process", "utils.timing")]
HOSTS = {  # the names the load binds first, in order, and the modules they come from
    "json": "json", "logging": "logging", "threading": "threading", "time": "time", "dataclass": "dataclasses",
    "datetime": "datetime", "timezone": "datetime", "TYPE_CHECKING": "typing", "Any": "typing", "ToolsConfig": HOST[0],
    "TOOLS": HOST[1], "is_slow_call": HOST[2], "ThreadCensus": HOST[3], "thread_census": HOST[3],
    "get_timing_collector": HOST[4]}
LOAD_ORDER = [*HOSTS, "logger", "_SQLITE_TIMESTAMP", "_TOOL_HEALTH_COLUMNS", "TOOL_USAGE_KEY", "_UsageKey",
              "_sqlite_time", "_epoch", "_ToolState", "_Usage", "_known", "ToolHealthTracker",
              "handle_get_tool_performance_stats", "thread_census_report"]


def test_bound_names_in_load_order_and_signatures(repo: Any) -> None:
    assert [n for n in vars(health) if n in LOAD_ORDER] == LOAD_ORDER and "__all__" not in vars(health)
    assert health.__name__ == "ordanis_veltrane.tool_handlers.health" and health.__doc__.strip()
    for name, module in HOSTS.items():
        source = importlib.import_module(module)
        assert getattr(health, name) is (source if name in LOAD_ORDER[:4] else getattr(source, name)), name
    assert health.logger is logging.getLogger(health.__name__) and health.TYPE_CHECKING is False
    assert (health._SQLITE_TIMESTAMP, health._TOOL_HEALTH_COLUMNS, health.TOOL_USAGE_KEY) == (
        "%Y-%m-%d %H:%M:%S", "tool_name, call_count, error_count, last_error, disabled_at, updated_at", "tool_usage")
    assert typing.get_args(health._UsageKey) == (str, str | None, str, bool)
    record_call = health.ToolHealthTracker(repo).record_call
    assert str(inspect.signature(record_call)) == "(tool_name, action, outcome, *, alias_hit, duration_ms)"
    assert str(inspect.signature(health.thread_census_report)) == "(budget, census=None)"


LOAD = """
import json, sys, threading
class Blocker:
    def find_spec(self, name, path=None, target=None):
        if name == {blocked!r}:
            raise ImportError("blocked " + name)
sys.modules.pop({blocked!r}, None)
sys.meta_path.insert(0, Blocker())
try:
    import ordanis_veltrane.tool_handlers.health
    outcome = ["loaded"]
except BaseException as error:
    outcome = [type(error).__name__, str(error)]
print(json.dumps([outcome, "ordanis_veltrane.tool_handlers.health" in sys.modules,
                  [m for m in {host!r} if m in sys.modules], threading.active_count(),
                  "ordanis_veltrane.repository" in sys.modules or "sqlite3" in sys.modules]))
"""


@pytest.mark.parametrize("blocked", [None, "json", *HOST])
def test_load_and_a_missing_import(blocked: str | None) -> None:
    done = subprocess.run([sys.executable, "-c", LOAD.format(blocked=blocked, host=HOST)], capture_output=True,
                          text=True, env=dict(os.environ, PYTHONPATH=os.pathsep.join(sys.path)), timeout=60)
    assert done.returncode == 0, done.stderr
    outcome, loaded, imported, threads, database = json.loads(done.stdout)
    # Host modules are imported in order and the load stops at the failed one; no thread, no database.
    assert imported == (HOST[: HOST.index(blocked)] if blocked in HOST else [] if blocked else HOST)
    expected = (["loaded"], True) if blocked is None else (["ImportError", f"blocked {blocked}"], False)
    assert (outcome, loaded) == expected and threads == 1 and database is False


@pytest.mark.skipif(shutil.which("nm") is None, reason="nm is not installed")
def test_only_the_init_entry_is_exported() -> None:
    done = subprocess.run(["nm", "-D", "--defined-only", health.__file__], capture_output=True, text=True, check=True)
    assert [line.split()[-1] for line in done.stdout.splitlines() if line.strip()] == ["PyInit_health"]

"""What loading the module binds, what a failed host import does, and what the shared object exports."""
from __future__ import annotations

import dataclasses
import datetime
import inspect
import json
import logging
import os
import shutil
import subprocess
import sys
import textwrap
import threading
import time
import typing
from pathlib import Path

import pytest

import ordanis_veltrane.config
import ordanis_veltrane.tool_registry
import ordanis_veltrane.tool_schemas
import ordanis_veltrane.utils.process
import ordanis_veltrane.utils.timing
from ordanis_veltrane.tool_handlers import health

# Where the package under test is imported from: the source tree or an installed copy.
SRC = Path(ordanis_veltrane.config.__file__).resolve().parents[1]

LOAD_ORDER = [
    "json", "logging", "threading", "time", "dataclass", "datetime", "timezone", "TYPE_CHECKING", "Any",
    "ToolsConfig", "TOOLS", "is_slow_call", "ThreadCensus", "thread_census", "get_timing_collector",
    "logger", "_SQLITE_TIMESTAMP", "_TOOL_HEALTH_COLUMNS", "TOOL_USAGE_KEY", "_UsageKey",
    "_sqlite_time", "_epoch", "_ToolState", "_Usage", "_known", "ToolHealthTracker",
    "handle_get_tool_performance_stats", "thread_census_report",
]
HOST_MODULES = [
    "ordanis_veltrane.config",
    "ordanis_veltrane.tool_registry",
    "ordanis_veltrane.tool_schemas",
    "ordanis_veltrane.utils.process",
    "ordanis_veltrane.utils.timing",
]


def test_attributes_are_bound_in_load_order() -> None:
    names = [n for n in vars(health) if n in LOAD_ORDER]
    assert names == LOAD_ORDER
    assert "__all__" not in vars(health)


def test_bound_names_and_constants() -> None:
    assert health.__name__ == "ordanis_veltrane.tool_handlers.health"
    assert isinstance(health.__doc__, str) and health.__doc__.strip()
    expected = {
        "json": json, "logging": logging, "threading": threading, "time": time,
        "dataclass": dataclasses.dataclass, "datetime": datetime.datetime, "timezone": datetime.timezone,
        "Any": typing.Any,
        "ToolsConfig": ordanis_veltrane.config.ToolsConfig,
        "TOOLS": ordanis_veltrane.tool_registry.TOOLS,
        "is_slow_call": ordanis_veltrane.tool_schemas.is_slow_call,
        "ThreadCensus": ordanis_veltrane.utils.process.ThreadCensus,
        "thread_census": ordanis_veltrane.utils.process.thread_census,
        "get_timing_collector": ordanis_veltrane.utils.timing.get_timing_collector,
        "logger": logging.getLogger("ordanis_veltrane.tool_handlers.health"),
    }
    for name, value in expected.items():
        assert getattr(health, name) is value, name
    assert health.TYPE_CHECKING is False
    assert health.logger.name == "ordanis_veltrane.tool_handlers.health"
    assert health._SQLITE_TIMESTAMP == "%Y-%m-%d %H:%M:%S"
    assert health._TOOL_HEALTH_COLUMNS == "tool_name, call_count, error_count, last_error, disabled_at, updated_at"
    assert health.TOOL_USAGE_KEY == "tool_usage"
    assert typing.get_origin(health._UsageKey) is tuple
    assert typing.get_args(health._UsageKey) == (str, str | None, str, bool)


def run_python(script: str) -> subprocess.CompletedProcess[str]:
    env = dict(os.environ, PYTHONPATH=str(SRC))
    return subprocess.run(
        [sys.executable, "-c", textwrap.dedent(script)], capture_output=True, text=True, env=env, timeout=60
    )


BLOCKED_IMPORT = """
import json as _json, sys, threading

BLOCKED = {blocked!r}

class Blocker:
    def find_spec(self, name, path=None, target=None):
        if name == BLOCKED:
            raise ImportError("blocked " + name)
        return None

sys.modules.pop(BLOCKED, None)
sys.meta_path.insert(0, Blocker())
before = threading.active_count()
try:
    import ordanis_veltrane.tool_handlers.health
    outcome = ["loaded"]
except BaseException as error:
    outcome = [type(error).__name__, str(error)]
host = {host!r}
print(_json.dumps({{
    "outcome": outcome,
    "in_modules": "ordanis_veltrane.tool_handlers.health" in sys.modules,
    "imported": [m for m in host if m in sys.modules],
    "threads": threading.active_count() - before,
}}))
"""


@pytest.mark.parametrize("blocked", ["json", *HOST_MODULES])
def test_a_missing_import_fails_the_load(blocked: str) -> None:
    done = run_python(BLOCKED_IMPORT.format(blocked=blocked, host=HOST_MODULES))
    assert done.returncode == 0, done.stderr
    result = json.loads(done.stdout)
    assert result["outcome"] == ["ImportError", f"blocked {blocked}"]
    assert result["in_modules"] is False
    # Host modules are imported in order, and the load stops at the failed one.
    before = HOST_MODULES[: HOST_MODULES.index(blocked)] if blocked in HOST_MODULES else []
    assert result["imported"] == before


def test_load_starts_no_thread_and_touches_no_database(tmp_path: Path) -> None:
    script = """
    import json, sqlite3, sys, threading
    connects = []
    real = sqlite3.connect
    sqlite3.connect = lambda *a, **k: connects.append(a) or real(*a, **k)
    before = threading.active_count()
    import ordanis_veltrane.tool_handlers.health as health
    print(json.dumps([threading.active_count() - before, len(connects), sorted(m for m in sys.modules if m.startswith("ordanis_veltrane.repository"))]))
    """
    done = run_python(script)
    assert done.returncode == 0, done.stderr
    assert json.loads(done.stdout) == [0, 0, []]


@pytest.mark.skipif(shutil.which("nm") is None, reason="nm is not installed")
def test_only_the_init_entry_is_exported() -> None:
    done = subprocess.run(["nm", "-D", "--defined-only", health.__file__], capture_output=True, text=True, check=True)
    symbols = [line.split()[-1] for line in done.stdout.splitlines() if line.strip()]
    assert symbols == ["PyInit_health"]


P = inspect.Parameter
POK, KWO = P.POSITIONAL_OR_KEYWORD, P.KEYWORD_ONLY


@pytest.mark.parametrize(
    ("target", "params"),
    [
        (health.ToolHealthTracker.record_call,
         [("self", None), ("tool_name", POK), ("action", POK), ("outcome", POK), ("alias_hit", KWO), ("duration_ms", KWO)]),
        (health.ToolHealthTracker.is_disabled, [("self", None), ("tool_name", POK)]),
        (health.ToolHealthTracker.record_success, [("self", None), ("tool_name", POK)]),
        (health.ToolHealthTracker.record_error, [("self", None), ("tool_name", POK), ("error", POK)]),
        (health.ToolHealthTracker.flush, [("self", None)]),
        (health.ToolHealthTracker.get_health_summary, [("self", None)]),
        (health.handle_get_tool_performance_stats, []),
        (health.thread_census_report, [("budget", POK), ("census", POK)]),
        (health._sqlite_time, [("epoch", None)]),
        (health._epoch, [("text", None)]),
        (health._known, [("tool", None), ("action", None)]),
    ],
    ids=lambda v: getattr(v, "__qualname__", None),
)
def test_text_signatures(target: object, params: list[tuple[str, object]]) -> None:
    signature = inspect.signature(target)
    got = list(signature.parameters.values())
    assert [p.name for p in got] == [name for name, _ in params]
    for parameter, (name, kind) in zip(got, params):
        if kind is not None:
            assert parameter.kind is kind, name
    if target is health.ToolHealthTracker.record_call:
        assert all(p.default is P.empty for p in got)
    if target is health.thread_census_report:
        assert signature.parameters["census"].default is None
        assert signature.parameters["budget"].default is P.empty


def test_bound_method_signature_drops_self(repo) -> None:
    tracker = health.ToolHealthTracker(repo)
    assert str(inspect.signature(tracker.record_call)) == "(tool_name, action, outcome, *, alias_hit, duration_ms)"

"""The type stubs: stubtest against the native module, and mypy on code written against them."""
from __future__ import annotations

import os
import subprocess
import sys
import sysconfig
import textwrap
from pathlib import Path

import pytest

pytest.importorskip("mypy")

import ordanis_veltrane  # noqa: E402

MODULE = "ordanis_veltrane.tool_handlers.health"


def _env() -> dict[str, str]:
    """The environment for mypy: when the package is imported from a source tree rather
    than from site-packages, mypy is pointed at that tree."""
    env = dict(os.environ)
    root = Path(ordanis_veltrane.__file__).resolve().parent.parent
    site = {Path(p).resolve() for p in (sysconfig.get_path("purelib"), sysconfig.get_path("platlib"))}
    if root not in site:
        env["MYPYPATH"] = str(root)
        env["PYTHONPATH"] = os.pathsep.join(filter(None, [str(root), env.get("PYTHONPATH")]))
    return env


@pytest.fixture(scope="module")
def mypy_cache(tmp_path_factory: pytest.TempPathFactory) -> Path:
    return tmp_path_factory.mktemp("mypy-cache")


def _run(args: list[str], cwd: Path) -> subprocess.CompletedProcess[str]:
    return subprocess.run(
        [sys.executable, "-m", *args], cwd=cwd, env=_env(), capture_output=True, text=True, timeout=600
    )


def test_stubtest(tmp_path: Path, mypy_cache: Path) -> None:
    result = _run(["mypy.stubtest", MODULE, "--mypy-config-file", str(_config(tmp_path, mypy_cache))], tmp_path)
    assert result.returncode == 0, result.stdout + result.stderr


def _config(tmp_path: Path, cache: Path) -> Path:
    config = tmp_path / "mypy.ini"
    config.write_text(f"[mypy]\ncache_dir = {cache}\nfollow_imports = silent\n")
    return config


USAGE = """
    import time
    from typing import Any, Callable
    from ordanis_veltrane.config import ToolsConfig
    from ordanis_veltrane.repository import Repository
    from ordanis_veltrane.tool_handlers import health
    from ordanis_veltrane.tool_handlers.health import ToolHealthTracker

    tracker = ToolHealthTracker(Repository("repo.db"), limits=ToolsConfig(disable_cooldown_s=5))
    limits: ToolsConfig = tracker.limits
    cooldown: float = tracker.cooldown_s

    def call(tool: str, action: str | None, handler: Callable[[], Any]) -> Any:
        disabled, last_error = tracker.is_disabled(tool)
        if disabled:
            return last_error.upper() if last_error is not None else None
        start = time.perf_counter()
        try:
            result = handler()
        except Exception as exc:
            tracker.record_error(tool, str(exc))
            tracker.record_call(tool, action, "error", alias_hit=False, duration_ms=None)
            return None
        tracker.record_success(tool)
        tracker.record_call(tool, action, "ok", alias_hit=True, duration_ms=(time.perf_counter() - start) * 1e3)
        return result

    rows: int = tracker.flush() if tracker.has_unsaved_changes else 0
    for rec in tracker.get_health_summary():
        print(rec["tool_name"], rec["usage"])
    stats: dict[str, Any] = health.handle_get_tool_performance_stats()
    report: dict[str, Any] = health.thread_census_report(40)
    report = health.thread_census_report(budget=40, census=health.thread_census())
    text: str = health._sqlite_time(0.0)
    nothing: None = health._sqlite_time(None)
    epoch: float | None = health._epoch("2024-03-05 14:07:09")
    state = health._ToolState(call_count=1, disabled_at=None)
    state.error_count += 1
    usage = health._Usage(1, 1, 2.5)
    key: health._UsageKey = ("search", None, "ok", False)
    tracker._usage[key] = usage
    name: str = health.TOOL_USAGE_KEY
"""

# Each wrong use, and a fragment of the error mypy must report for it.
MISUSES = [
    ("tracker.record_call('t', None, 'ok', False, 1.0)", "Too many positional arguments"),
    ("tracker.record_call('t', None, 'ok', alias_hit=False)", 'Missing named argument "duration_ms"'),
    ("tracker.is_disabled('t')[1].upper()", 'Item "None" of "str | None" has no attribute "upper"'),
    ("x: str = tracker.flush()", 'Incompatible types in assignment (expression has type "int"'),
    ("tracker.limits = ToolsConfig()", "Property \"limits\" defined in \"ToolHealthTracker\" is read-only"),
    ("health.thread_census_report('40')", 'incompatible type "str"; expected "int"'),
    ("health._ToolState(call_count='1')", 'Argument "call_count" to "_ToolState" has incompatible type "str"'),
]


def test_usage_typechecks(tmp_path: Path, mypy_cache: Path) -> None:
    """The usage example checks clean under --strict; each misuse appended to it is
    reported on its own line, and nothing else is."""
    source = textwrap.dedent(USAGE)
    first = source.count("\n") + 1
    source += "".join(misuse + "\n" for misuse, _ in MISUSES)
    (tmp_path / "usage.py").write_text(source)
    result = _run(["mypy", "--strict", "--config-file", str(_config(tmp_path, mypy_cache)), "usage.py"], tmp_path)
    output = result.stdout + result.stderr
    errors: dict[int, list[str]] = {}
    for line in output.splitlines():
        parts = line.split(":", 3)
        if len(parts) == 4 and parts[0] == "usage.py" and parts[2].strip() == "error":
            errors.setdefault(int(parts[1]), []).append(parts[3])
    expected = {first + i: fragment for i, (_, fragment) in enumerate(MISUSES)}
    assert set(errors) == set(expected), output
    for line_no, fragment in expected.items():
        assert any(fragment in e for e in errors[line_no]), (MISUSES[line_no - first][0], output)

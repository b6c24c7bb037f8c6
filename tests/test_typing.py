"""The type stubs: stubtest against the native module, and mypy on code written against them."""

import os
import shutil
import subprocess
import sys
import sysconfig
import textwrap
from pathlib import Path

import pytest

pytest.importorskip("mypy")

from mypy.version import __version__ as mypy_version  # noqa: E402

import ordanis_veltrane  # noqa: E402


def run(args: list[str], tmp_path: Path) -> subprocess.CompletedProcess[str]:
    """Runs a mypy tool; when the package comes from a source tree, mypy is pointed at that tree."""
    env, root = dict(os.environ), Path(ordanis_veltrane.__file__).resolve().parent.parent
    if root not in {Path(sysconfig.get_path(p)).resolve() for p in ("purelib", "platlib")}:
        env["MYPYPATH"] = str(root)
        env["PYTHONPATH"] = os.pathsep.join(filter(None, [str(root), env.get("PYTHONPATH")]))
    (tmp_path / "mypy.ini").write_text(f"[mypy]\ncache_dir = {tmp_path / 'cache'}\nfollow_imports = silent\n")
    flag = "--mypy-config-file" if args[0] == "mypy.stubtest" else "--config-file"
    return subprocess.run([sys.executable, "-m", *args, flag, "mypy.ini"], cwd=tmp_path, env=env, capture_output=True,
                          text=True, timeout=600)


def test_stubtest(tmp_path: Path) -> None:
    args = ["mypy.stubtest", "ordanis_veltrane.tool_handlers.health"]
    if int(mypy_version.split(".")[0]) < 2:
        # Before 2.0, stubtest misreads typing.Any (a class since 3.11) on CPython 3.13, and 2.x
        # has no wheel for the free-threaded 3.13t: only the module's re-export of Any is excused.
        (tmp_path / "allow.txt").write_text(r"ordanis_veltrane\.tool_handlers\.health\.Any(\..*)?" + "\n")
        args += ["--allowlist", "allow.txt", "--ignore-unused-allowlist"]
    result = run(args, tmp_path)
    assert result.returncode == 0, result.stdout + result.stderr


@pytest.mark.parametrize("package", ["ordanis_veltrane.tool_handlers.health", "ordanis_veltrane"])
def test_verifytypes(tmp_path: Path, package: str) -> None:
    """pyright finds every public name typed, of the module and of the whole package with its stand-ins
    (basedpyright from PyPI bundles it); names from the optional SDKs are theirs to type."""
    pyright = shutil.which("basedpyright")
    if pyright is None:
        pytest.skip("basedpyright is not installed")
    env, root = dict(os.environ), Path(ordanis_veltrane.__file__).resolve().parent.parent
    env["PYTHONPATH"] = os.pathsep.join(filter(None, [str(root), env.get("PYTHONPATH")]))
    result = subprocess.run([pyright, "--verifytypes", package, "--ignoreexternal", "--pythonpath", sys.executable],
                            cwd=tmp_path, env=env, capture_output=True, text=True, timeout=600)
    assert result.returncode == 0 and "score: 100%" in result.stdout, result.stdout + result.stderr


USAGE = """
    import dataclasses
    from dataclasses import dataclass
    from typing import Any
    from ordanis_veltrane.config import ToolsConfig
    from ordanis_veltrane.repository import Repository
    from ordanis_veltrane.tool_handlers import health
    from ordanis_veltrane.tool_registry import ToolRegistry

    tracker = health.ToolHealthTracker(Repository("repo.db"), limits=ToolsConfig(disable_cooldown_s=5))
    limits: ToolsConfig = tracker.limits
    cooldown: float = tracker.cooldown_s
    disabled, last_error = tracker.is_disabled("t")
    message: str = last_error.upper() if last_error is not None else str(disabled)
    tracker.record_success("t")
    tracker.record_error("t", "boom")
    tracker.record_call("t", None, "ok", alias_hit=True, duration_ms=1.5)
    rows: int = tracker.flush() if tracker.has_unsaved_changes else 0
    stats: dict[str, Any] = health.handle_get_tool_performance_stats()
    report: dict[str, Any] = health.thread_census_report(budget=40, census=health.thread_census())
    text: str = health._sqlite_time(0.0)
    nothing: None = health._sqlite_time(None)
    epoch: float | None = health._epoch("2024-03-05 14:07:09")
    key: health._UsageKey = ("search", None, "ok", False)
    tracker._usage[key] = health._Usage(1, 1, 2.5)
    tracker._state["t"] = health._ToolState(call_count=1, disabled_at=None)
    counts: dict[str, Any] = dataclasses.asdict(dataclasses.replace(tracker._usage[key], calls=2))
    match tracker._state["t"]:
        case health._ToolState(calls, errors):
            total: int = calls + errors

    # The daemon's own services, in place of the stand-ins.
    class MySpec:
        def action(self, name: str) -> str | None:
            return name if name in ("log", "diff") else None

    class MyRegistry:
        def get(self, name: str) -> MySpec | None:
            return MySpec() if name == "git" else None

    @dataclass
    class MyCensus:
        os_threads: int | None
        python_total: int
        python_threads: dict[str, int]

    class MyCollector:
        def get_all_stats(self) -> list[dict[str, float]]:
            return []

    health.TOOLS = MyRegistry()
    health.TOOLS = ToolRegistry()
    health.is_slow_call = lambda tool_name, action: action == "rebuild"
    health.get_timing_collector = MyCollector
    health.thread_census = lambda: MyCensus(None, 1, {"MainThread": 1})
    report = health.thread_census_report(8, MyCensus(3, 3, {}))
"""

MISUSES = [
    ("tracker.record_call('t', None, 'ok', False, 1.0)", "Too many positional arguments"),
    ("tracker.record_call('t', None, 'ok', alias_hit=False)", 'Missing named argument "duration_ms"'),
    ("tracker.is_disabled('t')[1].upper()", 'Item "None" of "str | None" has no attribute "upper"'),
    ("x: str = tracker.flush()", 'Incompatible types in assignment (expression has type "int"'),
    ("tracker.limits = ToolsConfig()", "Property \"limits\" defined in \"ToolHealthTracker\" is read-only"),
    ("health.thread_census_report('40')", 'incompatible type "str"; expected "int"'),
    ("health._ToolState(call_count='1')", 'Argument "call_count" to "_ToolState" has incompatible type "str"'),
    ("health.TOOLS = {'git': 'spec'}", 'expected "str": "_ToolSpec | None"'),  # a spec without action()
    ("health.is_slow_call = lambda tool_name: False", 'variable has type "Callable[[str, str | None], bool]"'),
    ("health.thread_census_report(8, ToolsConfig())", 'expected "_Census | None"'),
]


def test_usage_typechecks(tmp_path: Path) -> None:
    """The example checks clean under --strict; each misuse appended to it is reported on its own line."""
    source = textwrap.dedent(USAGE)
    first = source.count("\n") + 1
    (tmp_path / "usage.py").write_text(source + "".join(misuse + "\n" for misuse, _ in MISUSES))
    result = run(["mypy", "--strict", "usage.py"], tmp_path)
    output = result.stdout + result.stderr
    errors: dict[int, list[str]] = {}
    for parts in (line.split(":", 3) for line in output.splitlines()):
        if len(parts) == 4 and parts[0] == "usage.py" and parts[2].strip() == "error":
            errors.setdefault(int(parts[1]), []).append(parts[3])
    assert set(errors) == set(range(first, first + len(MISUSES))), output
    for line_no, (misuse, fragment) in enumerate(MISUSES, first):
        assert any(fragment in e for e in errors[line_no]), (misuse, output)

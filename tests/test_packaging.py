"""Packaging: a daemon with its own ordanis_veltrane package builds the module into it through CMake
(add_subdirectory), and the module then serves that daemon's services, never the stand-ins; the wheel's
metadata names the maintainers and the license it carries."""

import importlib.metadata
import importlib.util
import json
import os
import shutil
import subprocess
import sys
import sysconfig
import textwrap
from pathlib import Path

import pytest

import ordanis_veltrane

ROOT = Path(__file__).resolve().parent.parent
FAKE_DAEMON = {  # path -> source; each service tells itself apart from the stand-ins
    "__init__.py": "", "utils/__init__.py": "", "tool_handlers/__init__.py": "",
    "config.py": """
        from dataclasses import dataclass
        @dataclass
        class ToolsConfig:
            disable_after_errors: int = 2
            disable_cooldown_s: float = 30.0
    """,
    "tool_registry.py": """
        class Spec:
            def action(self, name): return name if name in ("fast", "slow") else None
        class Registry:
            def get(self, name): return Spec() if name.startswith("daemon_") else None
        TOOLS = Registry()
    """,
    "tool_schemas.py": "def is_slow_call(tool_name, action): return action == 'slow'\n",
    "utils/process.py": """
        from dataclasses import dataclass, field
        @dataclass
        class ThreadCensus:
            os_threads: object = None
            python_total: int = 1
            python_threads: dict = field(default_factory=lambda: {"daemon-loop": 1})
        def thread_census(): return ThreadCensus()
    """,
    "utils/timing.py": """
        class Collector:
            def get_all_stats(self):
                return [dict(errors=0, max_ms=4, min_ms=1, p95_ms=3, avg_ms=2, count=1, name="daemon_a", extra=0)]
        def get_timing_collector(): return Collector()
    """,
}
SESSION = """
import json, sqlite3, sys, types
sys.path.insert(0, sys.argv[1])
from ordanis_veltrane import config, tool_registry, tool_schemas
from ordanis_veltrane.utils import process, timing
from ordanis_veltrane.tool_handlers import health

conn = sqlite3.connect(sys.argv[2], isolation_level=None)  # the daemon's database object, over a real SQLite file
db = types.SimpleNamespace(fetchall=lambda sql: conn.execute(sql).fetchall(), execute=conn.execute,
                           fetchone=lambda sql, p: conn.execute(sql, p).fetchone(), executemany=conn.executemany)
conn.execute("CREATE TABLE tool_health (tool_name TEXT PRIMARY KEY, call_count INTEGER NOT NULL DEFAULT 0, "
             "error_count INTEGER NOT NULL DEFAULT 0, last_error TEXT, disabled_at TEXT, updated_at TEXT)")
conn.execute("CREATE TABLE schema_info (key TEXT PRIMARY KEY, value TEXT)")
conn.executemany("INSERT INTO tool_health (tool_name, call_count) VALUES (?, 5)", [("daemon_a",), ("search",)])
tracker = health.ToolHealthTracker(types.SimpleNamespace(db=db))
for _ in range(2):
    tracker.record_error("daemon_b", "boom")
    tracker.record_call("daemon_b", "slow", "error", alias_hit=False, duration_ms=1.0)
tracker.flush()
print(json.dumps({
    "modules": sorted(m.__file__ for n, m in sys.modules.items() if n.startswith("ordanis_veltrane")),
    "services": [health.ToolsConfig is config.ToolsConfig, health.TOOLS is tool_registry.TOOLS,
                 health.is_slow_call is tool_schemas.is_slow_call, health.thread_census is process.thread_census,
                 health.ThreadCensus is process.ThreadCensus,
                 health.get_timing_collector is timing.get_timing_collector],
    "disabled": tracker.is_disabled("daemon_b")[0],
    "summary": [(r["tool_name"], r["call_count"], [u["slow"] for u in r["usage"]])
                for r in tracker.get_health_summary()],
    "stored": db.fetchall("SELECT tool_name, call_count, error_count FROM tool_health ORDER BY tool_name"),
    "perf": [list(t.items()) for t in health.handle_get_tool_performance_stats()["tools"]],
    "census": health.thread_census_report(0),
}))
"""


def test_module_built_into_a_daemon_package(tmp_path: Path) -> None:
    cmake, ninja = shutil.which("cmake"), shutil.which("ninja")
    if cmake is None or not any(map(shutil.which, ("c++", "g++", "clang++"))):
        pytest.skip("needs cmake and a C++ compiler")
    if not (ROOT / "native" / "health").is_dir():
        pytest.skip("runs from a checkout, next to native/")
    daemon, src, build = tmp_path / "daemon", tmp_path / "daemon" / "src", tmp_path / "build"
    for name, text in FAKE_DAEMON.items():
        (src / "ordanis_veltrane" / name).parent.mkdir(parents=True, exist_ok=True)
        (src / "ordanis_veltrane" / name).write_text(textwrap.dedent(text))
    (daemon / "CMakeLists.txt").write_text(f"cmake_minimum_required(VERSION 3.18)\nproject(daemon LANGUAGES CXX)\n"
                                           f"set(HEALTH_INSTALL_DIR src/ordanis_veltrane/tool_handlers)\n"
                                           f'add_subdirectory("{ROOT.as_posix()}" health)\n')
    configure = [cmake, "-S", str(daemon), "-B", str(build), "-DCMAKE_BUILD_TYPE=Release",
                 f"-DPython_EXECUTABLE={sys.executable}", *(["-G", "Ninja"] if ninja else [])]
    for step in (configure, [cmake, "--build", str(build)], [cmake, "--install", str(build), "--prefix", str(daemon)]):
        done = subprocess.run(step, capture_output=True, text=True, timeout=600)
        assert done.returncode == 0, done.stdout + done.stderr
    installed = sorted(Path(p).relative_to(daemon).as_posix()  # what cmake --install wrote: nothing else
                       for p in (build / "install_manifest.txt").read_text().split())
    suffix = sysconfig.get_config_var("EXT_SUFFIX")
    assert installed == sorted(f"src/ordanis_veltrane/tool_handlers/health{end}" for end in (suffix, ".pyi"))

    env = {k: v for k, v in os.environ.items() if not k.startswith("PYTHON")}
    done = subprocess.run([sys.executable, "-I", "-c", SESSION, str(src), str(tmp_path / "repo.db")], env=env,
                          cwd=tmp_path, capture_output=True, text=True, timeout=120)
    assert done.returncode == 0, done.stderr
    seen = json.loads(done.stdout)
    assert seen["modules"] and all(f.startswith(str(src)) for f in seen["modules"]), seen["modules"]
    assert all(seen["services"]), seen["services"]
    assert seen["disabled"]  # the daemon's limit: 2 errors, not the stand-in's 3
    assert seen["summary"] == [["daemon_b", 2, [True]], ["daemon_a", 5, []]]  # "search" is no daemon tool
    assert seen["stored"] == [["daemon_a", 5, 0], ["daemon_b", 2, 2]]
    assert seen["perf"] == [[["name", "daemon_a"], ["count", 1], ["avg_ms", 2], ["p95_ms", 3], ["min_ms", 1],
                             ["max_ms", 4], ["errors", 0]]]  # the seven keys in their order, nothing else
    census = seen["census"]  # the daemon's census: no OS count, one Python thread, over a budget of 0
    assert census.pop("warning") and census == {"python": 1, "python_by_name": {"daemon-loop": 1}, "budget": 0}


def test_installed_metadata() -> None:
    """The installed wheel says who maintains it, under which license, and carries that license; its console
    scripts name callables."""
    try:
        dist = importlib.metadata.distribution("ordanis-veltrane-health")
    except importlib.metadata.PackageNotFoundError:
        pytest.skip("the package is not installed")
    if Path(str(dist.locate_file("ordanis_veltrane/__init__.py"))).resolve() != Path(
            ordanis_veltrane.__file__).resolve():
        pytest.skip("the package under test is not the installed one")
    assert dist.metadata["License"] == "MIT"
    for field in ("Author-email", "Maintainer-email"):
        assert dist.metadata[field] == ("ordanis_veltrane maintainers"
                                        " <maintainers@users.noreply.c-seed-a084835f.example>")
    licenses = [f for f in dist.files or () if f.name == "LICENSE"]
    assert licenses and "Copyright (c) 2026 The ordanis_veltrane maintainers" in licenses[0].read_text()
    scripts = {ep.name: ep for ep in dist.entry_points if ep.group == "console_scripts"}
    assert set(scripts) == {"veltrane-health", "veltrane-proxy", "veltrane-example-server"}
    needs = {"ordanis_veltrane.mcp_proxy": "fastmcp", "ordanis_veltrane.mcp_server": "mcp"}  # their extras
    for script in scripts.values():
        if script.module not in needs or importlib.util.find_spec(needs[script.module]):
            assert callable(script.load())

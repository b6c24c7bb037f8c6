"""Loading the module: host imports in order, a failed one fails the load, no thread and no database; the one
symbol the shared object exports; and the thread census report (performance stats: test_mcp, test_packaging)."""

import json
import shutil
import subprocess
import sys
from typing import Any

import pytest

from conftest import child_env
from ordanis_veltrane.tool_handlers import health
from ordanis_veltrane.utils.process import ThreadCensus

HOST = ["ordanis_veltrane." + m for m in ("config", "tool_registry", "tool_schemas", "utils.process", "utils.timing")]


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
                          text=True, env=child_env(), timeout=60)
    assert done.returncode == 0, done.stderr
    outcome, loaded, imported, threads, database = json.loads(done.stdout)
    # Host modules are imported in order and the load stops at the failed one; no thread, no database.
    assert imported == (HOST[: HOST.index(blocked)] if blocked in HOST else [] if blocked else HOST)
    expected = (["loaded"], True) if blocked is None else (["ImportError", f"blocked {blocked}"], False)
    assert (outcome, loaded) == expected and threads == 1 and database is False


@pytest.mark.parametrize(("module", "needs", "extra"), [("ordanis_veltrane.otel", "opentelemetry", "[otel]"), (
    "ordanis_veltrane.tool_handlers.health_metrics", "prometheus_client", "[metrics]")])
def test_health_imports_no_telemetry_and_each_integration_names_its_extra(module: str, needs: str, extra: str) -> None:
    code = ("import sys\nfrom ordanis_veltrane.tool_handlers import health, health_view\n"
            "assert not {'opentelemetry', 'prometheus_client'} & set(sys.modules)\n"
            f"sys.modules[{needs!r}] = None\nimport {module}")
    done = subprocess.run([sys.executable, "-c", code], env=child_env(), capture_output=True, text=True, timeout=60)
    last = done.stderr.splitlines()[-1]  # the error that ends the run: not an AssertionError
    assert last.startswith("ImportError: ") and extra in last, done.stderr


@pytest.mark.skipif(shutil.which("nm") is None, reason="nm is not installed")
def test_only_the_init_entry_is_exported() -> None:
    done = subprocess.run(["nm", "-D", "--defined-only", health.__file__], capture_output=True, text=True, check=True)
    assert [line.split()[-1] for line in done.stdout.splitlines() if line.strip()] == ["PyInit_health"]


def warning(counted: int, budget: int) -> str:
    return (f"The process holds {counted} threads, more than the {budget} its pools allow: threads are piling up. "
            "A thread that ran the local embedding model keeps a team of torch threads, as many as "
            "VELTRANE_EMBED_THREADS allows (0 leaves torch's own size).")


@pytest.mark.parametrize(("os_threads", "total", "budget", "counted"), [
    (None, 12, 10, 12), (None, 10, 10, None), (None, 11, 10, 11), (30, 50, 40, None), (45, 20, 40, 45),
    (0, 99, 0, None), (-3, 1, -5, -3), ("taken", 7, 5, 7), ("taken", 0, 0, None)])
def test_thread_census_report(monkeypatch, os_threads: Any, total: int, budget: int, counted: int | None) -> None:
    """The census given, or taken (from thread_census, which knows no OS count here) when none is."""
    by_name, taken = {"MainThread": 1, "ThreadPoolExecutor": total - 1, "": 0}, os_threads == "taken"
    census = ThreadCensus(None if taken else os_threads, total, by_name)
    monkeypatch.setattr(health, "thread_census", lambda: census if taken else pytest.fail("census taken"))
    report = health.thread_census_report(budget=budget, census=None if taken else census)
    expected = {**({} if census.os_threads is None else {"os": os_threads}), "python": total, "python_by_name": by_name,
                "budget": budget, **({} if counted is None else {"warning": warning(counted, budget)})}
    assert report == expected and list(report) == list(expected)
    assert list(report["python_by_name"]) == list(by_name) and report["python_by_name"] is not by_name
    by_name["late"] = 1
    assert "late" not in report["python_by_name"] and census.python_threads is by_name

"""A short run of benchmarks/stress.py: worker threads recording against a flusher,
a summary reader and a thread replacing TOOLS and is_slow_call; every count must
match what the threads did, the database must match memory, and no statement may
run under the tracker's lock."""
from __future__ import annotations

import importlib.util
import sys
from pathlib import Path
from types import ModuleType

import pytest


def _load_stress() -> ModuleType:
    path = Path(__file__).resolve().parents[1] / "benchmarks" / "stress.py"
    spec = importlib.util.spec_from_file_location("health_stress", path)
    assert spec is not None and spec.loader is not None
    module = importlib.util.module_from_spec(spec)
    sys.modules[spec.name] = module  # dataclasses resolve the module by name
    spec.loader.exec_module(module)
    return module


stress = _load_stress()


@pytest.mark.parametrize(
    ("seed", "threads", "calls", "tools", "switch_interval"),
    [
        (1, 8, 24_000, 200, 1e-5),  # frequent thread switches: many interleavings inside the lock
        (2, 3, 6_000, 5, 1e-6),  # few tools: heavy contention on the same records
    ],
)
def test_stress(tmp_path: Path, seed: int, threads: int, calls: int, tools: int, switch_interval: float) -> None:
    # The clock read through Python code lets threads switch inside the recording calls too.
    report = stress.run(tmp_path / "stress.db", calls=calls, threads=threads, tools=tools, seed=seed,
                        switch_interval=switch_interval, python_clock=True, pause_s=0.001)
    assert report.problems == [], "\n".join(report.problems[:10])
    assert report.calls == calls
    assert report.flushes > 1 and report.summaries > 0 and report.replacements > 0

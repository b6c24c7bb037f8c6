"""A short run of benchmarks/stress.py, which checks counts, the database and the lock discipline itself."""

import importlib.util
import sys
from pathlib import Path

import pytest

spec = importlib.util.spec_from_file_location("health_stress", Path(__file__).parents[1] / "benchmarks" / "stress.py")
assert spec is not None and spec.loader is not None
stress = sys.modules[spec.name] = importlib.util.module_from_spec(spec)  # dataclasses resolve it by name
spec.loader.exec_module(stress)


@pytest.mark.parametrize(("seed", "threads", "calls", "tools", "switch_interval"), [
    (1, 8, 24_000, 200, 1e-5),  # frequent thread switches: many interleavings inside the lock
    (2, 3, 6_000, 5, 1e-6),  # few tools: heavy contention on the same records
])
def test_stress(tmp_path: Path, seed: int, threads: int, calls: int, tools: int, switch_interval: float) -> None:
    report = stress.run(tmp_path / "s.db", calls=calls, threads=threads, tools=tools, seed=seed, python_clock=True,
                        switch_interval=switch_interval, pause_s=0.001)  # a Python clock: switches inside the calls
    assert report.problems == [], "\n".join(report.problems[:10])
    assert report.calls == calls and report.flushes > 1 and report.summaries > 0 and report.replacements > 0

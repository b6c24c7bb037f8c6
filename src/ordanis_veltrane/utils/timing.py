"""Per-tool call timings kept by the daemon."""
from __future__ import annotations

import math
import threading
from typing import Any


class TimingCollector:
    """Keeps every call's duration per tool and answers count, mean, p95, min, max, errors."""

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._durations: dict[str, list[float]] = {}
        self._errors: dict[str, int] = {}

    def record(self, tool_name: str, duration_ms: float, error: bool = False) -> None:
        with self._lock:
            self._durations.setdefault(tool_name, []).append(float(duration_ms))
            if error:
                self._errors[tool_name] = self._errors.get(tool_name, 0) + 1
            else:
                self._errors.setdefault(tool_name, 0)

    def reset(self) -> None:
        with self._lock:
            self._durations.clear()
            self._errors.clear()

    def get_all_stats(self) -> list[dict[str, Any]]:
        with self._lock:
            snapshot = {name: sorted(values) for name, values in self._durations.items()}
            errors = dict(self._errors)
        stats = []
        for name, values in snapshot.items():
            count = len(values)
            p95_index = max(0, math.ceil(0.95 * count) - 1)
            stats.append(
                {
                    "name": name,
                    "count": count,
                    "avg_ms": round(sum(values) / count, 3),
                    "p95_ms": round(values[p95_index], 3),
                    "min_ms": round(values[0], 3),
                    "max_ms": round(values[-1], 3),
                    "errors": errors.get(name, 0),
                }
            )
        return stats


_collector = TimingCollector()


def get_timing_collector() -> TimingCollector:
    """The process's timing collector."""
    return _collector

"""Per-tool call timings kept by the daemon.

The collector keeps, per tool, the exact count, sum (for the mean), minimum, maximum and
error count, and a fixed-size uniform sample of the durations for the 95th percentile, so
its memory does not grow with the calls served.

The sample is a reservoir: the first ``reservoir_size`` durations are all kept, so the
percentile is exact until a tool has more calls than that; afterwards the reservoir stays a
uniform sample of every duration seen, as with Vitter's algorithm R (each new duration
replaces a random slot with probability ``reservoir_size / count``). It is filled with Li's
algorithm L, which gives the same distribution but draws random numbers only for the
durations it keeps (about ``k * ln(count / k)`` of them), so that recording stays a few
additions and comparisons. The answer is then the 95th percentile
of the sample: its rank among all durations has a standard error of
``sqrt(0.95 * 0.05 / reservoir_size)``, about 0.34 percentile points for the default 4096
(the true rank of the answer lies between the 94.3rd and the 95.7th percentile about 95% of
the time). Each collector draws from its own ``random.Random`` (seedable), so it neither
disturbs nor depends on the process's global random state.
"""
from __future__ import annotations

import math
import random
import threading
from array import array
from typing import Any

__all__ = ["DEFAULT_RESERVOIR_SIZE", "TimingCollector", "get_timing_collector"]

DEFAULT_RESERVOIR_SIZE = 4096


class _ToolTimes:
    """Exact figures and the duration reservoir of one tool."""

    __slots__ = ("count", "total", "low", "high", "errors", "sample", "weight", "next_kept")

    def __init__(self) -> None:
        self.count = 0
        self.total = 0.0
        self.low = math.inf
        self.high = -math.inf
        self.errors = 0
        self.sample: array[float] = array("d")
        self.weight = 0.0  # algorithm L's W, once the reservoir is full
        self.next_kept = 0  # the count at which the next duration goes into the reservoir


class TimingCollector:
    """Per-tool count, mean, p95, min, max and errors of call durations, in bounded memory.

    ``reservoir_size`` is the number of durations kept per tool for the percentile (exact
    below it, a uniform sample above it); ``seed`` seeds the collector's own random source.
    Safe to use from any thread.
    """

    def __init__(self, reservoir_size: int = DEFAULT_RESERVOIR_SIZE, *, seed: int | None = None) -> None:
        if reservoir_size < 1:
            raise ValueError("reservoir_size must be at least 1")
        self.reservoir_size = reservoir_size
        self._lock = threading.Lock()
        self._random = random.Random(seed)
        self._tools: dict[str, _ToolTimes] = {}

    def record(self, tool_name: str, duration_ms: float, error: bool = False) -> None:
        value = float(duration_ms)
        with self._lock:
            times = self._tools.get(tool_name)
            if times is None:
                times = self._tools[tool_name] = _ToolTimes()
            times.count += 1
            times.total += value
            if value < times.low:
                times.low = value
            if value > times.high:
                times.high = value
            if error:
                times.errors += 1
            sample = times.sample
            if len(sample) < self.reservoir_size:
                sample.append(value)
                if len(sample) == self.reservoir_size:
                    times.weight = math.exp(math.log(self._uniform()) / self.reservoir_size)
                    self._skip(times)
            elif times.count == times.next_kept:
                sample[self._random.randrange(self.reservoir_size)] = value
                times.weight *= math.exp(math.log(self._uniform()) / self.reservoir_size)
                self._skip(times)

    def _uniform(self) -> float:
        """A random number in (0, 1)."""
        while True:
            u = self._random.random()
            if u > 0.0:
                return u

    def _skip(self, times: _ToolTimes) -> None:
        """Algorithm L: the count of the next duration to keep, after a geometric number of skipped ones."""
        weight = min(times.weight, 1.0 - 2.0**-53)
        times.next_kept = times.count + int(math.log(self._uniform()) / math.log1p(-weight)) + 1

    def reset(self) -> None:
        with self._lock:
            self._tools.clear()

    def get_all_stats(self) -> list[dict[str, Any]]:
        """One entry per tool, in the order the tools were first recorded.

        Under the lock only the exact figures and a copy of each (bounded) reservoir are
        taken; the sorting for the percentile happens after the lock is released."""
        with self._lock:
            snapshot = [
                (name, t.count, t.total, t.low, t.high, t.errors, array("d", t.sample))
                for name, t in self._tools.items()
            ]
        stats = []
        for name, count, total, low, high, errors, sample in snapshot:
            ordered = sorted(sample)
            p95_index = max(0, math.ceil(0.95 * len(ordered)) - 1)
            stats.append(
                {
                    "name": name,
                    "count": count,
                    "avg_ms": round(total / count, 3),
                    "p95_ms": round(ordered[p95_index], 3),
                    "min_ms": round(low, 3),
                    "max_ms": round(high, 3),
                    "errors": errors,
                }
            )
        return stats


_collector = TimingCollector()


def get_timing_collector() -> TimingCollector:
    """The process's timing collector."""
    return _collector

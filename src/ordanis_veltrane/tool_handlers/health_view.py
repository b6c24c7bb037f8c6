"""One walk of a tracker's health summary, shaped for metrics.

Both metric front ends read a tracker the same way: the Prometheus collector
(``health_metrics``) at each scrape and the OpenTelemetry observable instruments
(``ordanis_veltrane.otel``) at each collection. ``read_health`` takes one
``get_health_summary()`` (one short hold of the tracker's lock, no database access)
and folds it into per-tool figures and per-usage-key counts, with every name made
into a label value. Rows whose label values come out equal (a tool ``1`` and a tool
``"1"``, an action ``None`` and ``""``) merge into one series.

Counters per instance: a tracker that shares a store counts every process's calls, so that a
counter exported from it would count each call once per process, and ``sum()`` over instances
would be off by their number. The tool-call pipeline therefore keeps ``ServedCounts``, the calls
this process served, and registers it for its tracker (``serve_counts``); ``read_health`` then
takes every count (calls, errors, usage calls) from it, and the health (disabled, since when) and
the mean handler time, gauges both, from the tracker. A tracker without served counts (a host's own) is
read as it always was: its counts since its history began.

No metrics library is imported here.
"""
from __future__ import annotations

import threading
import weakref
from dataclasses import dataclass
from datetime import datetime, timezone
from typing import Any, Callable

from ordanis_veltrane.tool_handlers import health

__all__ = ["HealthView", "ServedCounts", "ToolFigures", "UsageKey", "epoch_of", "label", "read_health", "serve_counts",
           "served_counts", "walk_summary"]

# (tool, action or "" for none, outcome, "true"/"false" for alias_hit)
UsageKey = tuple[str, str, str, str]


def label(value: Any) -> str:
    """A label value: text passes through unchanged; anything else becomes its str().

    Text that UTF-8 cannot encode (a lone surrogate) would make the whole scrape
    fail, so only that is escaped, with backslashes."""
    text = value if type(value) is str else str(value)
    if not text.isascii():
        try:
            text.encode("utf-8")
        except UnicodeEncodeError:
            text = text.encode("utf-8", "backslashreplace").decode("utf-8")
    return text


def epoch_of(stored: str) -> float | None:
    """Epoch seconds of a stored UTC timestamp "YYYY-MM-DD HH:MM:SS"; None when unreadable."""
    try:
        return datetime.fromisoformat(stored).replace(tzinfo=timezone.utc).timestamp()
    except (TypeError, ValueError):
        return None


@dataclass
class ToolFigures:
    calls: float
    errors: float
    disabled: bool
    disabled_for: float | None


@dataclass
class HealthView:
    """One summary, folded: figures by tool, and ``[calls, mean ms or None]`` by usage key."""

    tools: dict[str, ToolFigures]
    usage: dict[UsageKey, list[Any]]


def walk_summary(summary: list[dict[str, Any]], now: float) -> HealthView:
    """Folds a ``get_health_summary()`` answer; ``now`` (epoch seconds) measures ``disabled_for``."""
    tools: dict[str, ToolFigures] = {}
    usage: dict[UsageKey, list[Any]] = {}
    for record in summary:
        name = record["tool_name"]
        if type(name) is not str or not name.isascii():
            name = label(name)
        disabled_for = None
        if record["disabled"]:
            since = epoch_of(record["disabled_at"])
            disabled_for = None if since is None else round(max(0.0, now - since), 3)
        figures = ToolFigures(record["call_count"], record["error_count"], bool(record["disabled"]), disabled_for)
        seen = tools.get(name)
        if seen is None:
            tools[name] = figures
        else:
            seen.calls += figures.calls
            seen.errors += figures.errors
            seen.disabled = seen.disabled or figures.disabled
            if figures.disabled_for is not None:
                seen.disabled_for = max(seen.disabled_for or 0.0, figures.disabled_for)
        for row in record["usage"]:
            action, outcome = row["action"], row["outcome"]
            if action is None:
                action = ""
            elif type(action) is not str or not action.isascii():
                action = label(action)
            if type(outcome) is not str or not outcome.isascii():
                outcome = label(outcome)
            key = (name, action, outcome, "true" if row["alias_hit"] else "false")
            calls, avg_ms = row["calls"], row["avg_ms"]
            entry = usage.get(key)
            if entry is None:
                usage[key] = [calls, avg_ms]
            else:  # merged: a mean weighted by calls, where both sides know one
                both = entry[0] + calls
                if avg_ms is not None:
                    entry[1] = avg_ms if entry[1] is None else (entry[1] * entry[0] + avg_ms * calls) / both
                entry[0] = both
    return HealthView(tools, usage)


# The outcomes of a call that ran (counted in a tool's calls), and the one that is its error.
_RAN = frozenset(("ok", "error", "client_error"))


class ServedCounts:
    """The calls one process served, by usage key (tool, action, outcome, alias_hit).

    Counting is on the hot path of every call, so it takes no lock: each thread counts into a map of
    its own, which only that thread writes; ``snapshot`` adds them up (and folds the maps of threads
    that have ended into one, so that thread churn does not grow it)."""

    __slots__ = ("_local", "_lock", "_threads", "_retired", "__weakref__")

    def __init__(self) -> None:
        self._local = threading.local()
        self._lock = threading.Lock()
        self._threads: list[tuple[threading.Thread, dict[Any, int]]] = []
        self._retired: dict[Any, int] = {}

    def _mine(self) -> dict[Any, int]:
        counts: dict[Any, int] = {}
        self._local.counts = counts
        with self._lock:
            self._threads.append((threading.current_thread(), counts))
        return counts

    def add(self, tool: Any, action: Any, outcome: str, alias_hit: bool) -> None:
        try:
            counts: dict[Any, int] = self._local.counts
        except AttributeError:
            counts = self._mine()
        key = (tool, action, outcome, alias_hit)
        counts[key] = counts.get(key, 0) + 1

    def snapshot(self) -> dict[tuple[Any, Any, str, bool], int]:
        with self._lock:
            retired, live = self._retired, []
            for thread, counts in self._threads:
                if thread.is_alive():
                    live.append((thread, counts))
                else:  # it writes no more: folded in for good
                    for key, n in counts.items():
                        retired[key] = retired.get(key, 0) + n
            self._threads = live
            total = dict(retired)
            for _, counts in live:
                for key, n in counts.copy().items():  # one C-level copy: the owner may be adding meanwhile
                    total[key] = total.get(key, 0) + n
        return total


_served: weakref.WeakKeyDictionary[Any, ServedCounts] = weakref.WeakKeyDictionary()


def serve_counts(tracker: health.ToolHealthTracker, counts: ServedCounts) -> None:
    """From now on the metrics of `tracker` count the calls in `counts` (this process's)."""
    _served[tracker] = counts


def served_counts(tracker: health.ToolHealthTracker) -> ServedCounts | None:
    return _served.get(tracker)


def _per_instance(view: HealthView, served: ServedCounts) -> HealthView:
    """`view`'s health, with every count taken from `served`."""
    tools = {name: ToolFigures(0, 0, f.disabled, f.disabled_for) for name, f in view.tools.items()}
    usage: dict[UsageKey, list[Any]] = {}
    for (tool, action, outcome, alias_hit), calls in served.snapshot().items():
        name = tool if type(tool) is str and tool.isascii() else label(tool)
        figures = tools.get(name)
        if figures is None:
            figures = tools[name] = ToolFigures(0, 0, False, None)
        if outcome in _RAN:
            figures.calls += calls
            if outcome == "error":
                figures.errors += calls
        key = (name, "" if action is None else label(action), label(outcome), "true" if alias_hit else "false")
        entry = usage.get(key)
        if entry is None:  # the mean handler time is a gauge: the tracker's (the fleet's, when shared)
            mean = view.usage.get(key)
            usage[key] = [calls, None if mean is None else mean[1]]
        else:
            entry[0] += calls
    return HealthView(tools, usage)


def read_health(tracker: health.ToolHealthTracker, clock: Callable[[], float]) -> HealthView:
    """``walk_summary`` of one ``tracker.get_health_summary()`` (the only hold of the tracker's lock),
    measured against ``clock()`` read once the summary is taken; its counts are the process's own
    where the tracker has served counts (``serve_counts``)."""
    summary = tracker.get_health_summary()
    view = walk_summary(summary, clock())
    served = _served.get(tracker)
    return view if served is None else _per_instance(view, served)

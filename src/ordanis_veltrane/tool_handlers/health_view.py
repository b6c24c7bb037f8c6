"""One walk of a tracker's health summary, shaped for metrics.

Both metric front ends read a tracker the same way: the Prometheus collector
(``health_metrics``) at each scrape and the OpenTelemetry observable instruments
(``ordanis_veltrane.otel``) at each collection. ``read_health`` takes one
``get_health_summary()`` (one short hold of the tracker's lock, no database access)
and folds it into per-tool figures and per-usage-key counts, with every name made
into a label value. Rows whose label values come out equal (a tool ``1`` and a tool
``"1"``, an action ``None`` and ``""``) merge into one series.

No metrics library is imported here.
"""
from __future__ import annotations

from dataclasses import dataclass
from datetime import datetime, timezone
from typing import Any, Callable

from ordanis_veltrane.tool_handlers import health

__all__ = ["HealthView", "ToolFigures", "UsageKey", "epoch_of", "label", "read_health", "walk_summary"]

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


def read_health(tracker: health.ToolHealthTracker, clock: Callable[[], float]) -> HealthView:
    """``walk_summary`` of one ``tracker.get_health_summary()`` (the only hold of the tracker's lock),
    measured against ``clock()`` read once the summary is taken."""
    summary = tracker.get_health_summary()
    return walk_summary(summary, clock())

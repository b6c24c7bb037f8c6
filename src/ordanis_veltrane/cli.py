"""The command-line flags that every server of this package shares: where the health is kept, the
disabling limits, how often it is written, and the Prometheus metrics."""
from __future__ import annotations

import argparse
import math
import sys
from pathlib import Path
from typing import TYPE_CHECKING, Callable, Union

from ordanis_veltrane.config import ToolsConfig
from ordanis_veltrane.tool_pipeline import check_target

if TYPE_CHECKING:
    from ordanis_veltrane.tool_handlers.health_metrics import MetricsServer

__all__ = ["Target", "add_health_arguments", "at_least", "db_target", "health_limits", "start_metrics"]

Target = Union[str, Path]


def at_least(low: float, kind: Callable[[str], float], high: float = math.inf) -> Callable[[str], float]:
    """An argparse type: ``kind(text)`` within [low, high]."""

    def parse(text: str) -> float:
        value = kind(text)
        if not low <= value <= high:
            bounds = f"at least {low:g}" if high == math.inf else f"from {low:g} to {high:g}"
            raise argparse.ArgumentTypeError(f"must be {bounds}")
        return value

    parse.__name__ = kind.__name__  # argparse names it in "invalid int value"
    return parse


def _target(text: str) -> Target:
    """A URL (``scheme://...``) as it is; anything else is a path."""
    return text if "://" in text else Path(text)


def add_health_arguments(parser: argparse.ArgumentParser) -> None:
    """``--db``, ``--disable-after``, ``--cooldown``, ``--flush-interval`` and ``--metrics-port``."""
    parser.add_argument("--db", type=_target, required=True, metavar="PATH|URL",
                        help="where the tool health is kept: a SQLite file (created if missing) or a postgresql:// URL")
    parser.add_argument("--disable-after", type=at_least(1, int), metavar="N",
                        help=f"errors in a row that disable a tool (default {ToolsConfig.disable_after_errors})")
    parser.add_argument("--cooldown", type=at_least(0, float), metavar="SECONDS",
                        help=f"how long a tool stays disabled (default {ToolsConfig.disable_cooldown_s:g})")
    parser.add_argument("--flush-interval", type=at_least(0, float), default=5.0, metavar="S",
                        help="seconds between writes of the health to --db; 0: only at shutdown (default 5)")
    parser.add_argument("--metrics-port", type=at_least(0, int, 65535), metavar="N",
                        help="serve Prometheus metrics on 127.0.0.1:N (0 picks a free port; needs the metrics extra)")


def health_limits(args: argparse.Namespace) -> ToolsConfig:
    """The ``ToolsConfig`` with the flags' overrides."""
    limits = ToolsConfig()
    if args.disable_after is not None:
        limits.disable_after_errors = int(args.disable_after)
    if args.cooldown is not None:
        limits.disable_cooldown_s = args.cooldown
    return limits


def db_target(parser: argparse.ArgumentParser, args: argparse.Namespace) -> Target:
    """``--db``, ready to open: a path's directory is created; a target that cannot be a store ends the
    program with a clear message."""
    target: Target = args.db
    if isinstance(target, Path):
        target.parent.mkdir(parents=True, exist_ok=True)
    try:
        check_target(target)
    except ValueError as exc:
        parser.error(f"--db: {exc}")
    return target


def start_metrics(parser: argparse.ArgumentParser, args: argparse.Namespace,
                  thread_budget: int) -> MetricsServer | None:
    """Serves the Prometheus metrics where ``--metrics-port`` asks for them (the URL goes to stderr)."""
    if args.metrics_port is None:
        return None
    try:
        from ordanis_veltrane.tool_handlers.health_metrics import serve_metrics

        metrics = serve_metrics(None, int(args.metrics_port), thread_budget=thread_budget)
    except (ImportError, OSError) as exc:
        parser.error(f"cannot serve metrics: {exc}")
    # stdout carries the protocol; everything else goes to stderr.
    print(f"serving tool health metrics at {metrics.url}", file=sys.stderr, flush=True)
    return metrics

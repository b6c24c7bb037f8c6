"""The command-line flags that every server of this package shares: where the health is kept, the
disabling limits, how often it is written, and the Prometheus metrics."""
from __future__ import annotations

import argparse
import logging
import math
import os
import signal
import sys
from pathlib import Path
from typing import TYPE_CHECKING, Awaitable, Callable, Union

import anyio

from ordanis_veltrane.config import ToolsConfig
from ordanis_veltrane.tool_pipeline import check_target

if TYPE_CHECKING:
    from ordanis_veltrane.tool_handlers.health_metrics import MetricsServer

__all__ = ["METRICS_CONNECTIONS", "Target", "add_health_arguments", "at_least", "health_limits",
           "health_thread_budget", "serve_stdio", "start_metrics"]

logger: logging.Logger = logging.getLogger("ordanis_veltrane")

Target = Union[str, Path]
# Scrapes served at once by --metrics-port.
METRICS_CONNECTIONS = 8


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
    """A ``postgresql://`` URL as it is, anything else a path; either is checked here, before anything
    is created: a malformed URL or a path that cannot be opened ends the program with a clear message,
    in which no password appears (argparse would quote the whole value for any other error)."""
    from ordanis_veltrane.sharing.targets import is_postgres_url, redact_message

    try:
        check_target(text)
    except Exception as exc:
        raise argparse.ArgumentTypeError(redact_message(exc, text)) from None
    return text if is_postgres_url(text) else Path(text)


def add_health_arguments(parser: argparse.ArgumentParser) -> None:
    """``--db``, ``--disable-after``, ``--cooldown``, ``--flush-interval``, ``--metrics-port``, ``--metrics-host``,
    ``--hide-disabled`` and ``--no-status-tools``."""
    parser.add_argument("--db", type=_target, required=True, metavar="PATH|URL",
                        help="where the tool health is kept and shared with every server using it: a SQLite "
                             "file (created if missing, in a directory that exists) or a postgresql:// URL")
    parser.add_argument("--disable-after", type=at_least(1, int), metavar="N",
                        help=f"errors in a row that disable a tool (default {ToolsConfig.disable_after_errors})")
    parser.add_argument("--cooldown", type=at_least(0, float), metavar="SECONDS",
                        help=f"how long a tool stays disabled (default {ToolsConfig.disable_cooldown_s:g})")
    parser.add_argument("--flush-interval", type=at_least(0, float), default=5.0, metavar="S",
                        help="seconds between writes of the health to --db; 0: only at shutdown (default 5)")
    parser.add_argument("--metrics-port", type=at_least(0, int, 65535), metavar="N",
                        help="serve Prometheus metrics on --metrics-host:N (0 picks a free port; needs the metrics "
                             "extra); a port that is taken is logged and the server serves on without metrics")
    parser.add_argument("--metrics-host", default="127.0.0.1", metavar="ADDR",
                        help="the address the metrics are served on (default 127.0.0.1, this machine only; "
                             "0.0.0.0 serves them to every network this machine is on)")
    parser.add_argument("--hide-disabled", action="store_true",
                        help="leave disabled tools out of tools/list and tell the client when the list changes")
    parser.add_argument("--no-status-tools", dest="status_tools", action="store_false",
                        help="do not serve the status and get_tool_performance_stats tools")


def health_limits(args: argparse.Namespace) -> ToolsConfig:
    """The ``ToolsConfig`` with the flags' overrides."""
    limits = ToolsConfig()
    if args.disable_after is not None:
        limits.disable_after_errors = int(args.disable_after)
    if args.cooldown is not None:
        limits.disable_cooldown_s = args.cooldown
    return limits


def health_thread_budget(args: argparse.Namespace, extra: int = 0) -> int:
    """The threads the process starts, for the status tool and the metrics alike."""
    from ordanis_veltrane.status_answer import thread_budget

    return thread_budget(metrics=args.metrics_port is not None, max_connections=METRICS_CONNECTIONS, extra=extra)


def start_metrics(parser: argparse.ArgumentParser, args: argparse.Namespace,
                  thread_budget: int) -> MetricsServer | None:
    """Serves the Prometheus metrics where ``--metrics-port`` asks for them (the URL goes to stderr).
    Without the metrics extra the program stops with a clear message; a port that is taken (another
    session's server holds it) or an address that cannot be bound is logged, and the server serves
    on without metrics."""
    if args.metrics_port is None:
        return None
    host = getattr(args, "metrics_host", "127.0.0.1")
    try:
        from ordanis_veltrane.tool_handlers.health_metrics import serve_metrics
    except ImportError as exc:
        parser.error(f"cannot serve metrics: {exc}")
    try:
        metrics = serve_metrics(None, int(args.metrics_port), host, thread_budget=thread_budget,
                                max_connections=METRICS_CONNECTIONS)
    except OSError as exc:
        logger.warning("Not serving tool health metrics: cannot listen on %s port %s: %s; serving on without them",
                       host, args.metrics_port, exc.strerror or exc)
        return None
    # stdout carries the protocol; everything else goes to stderr.
    print(f"serving tool health metrics at {metrics.url}", file=sys.stderr, flush=True)
    return metrics


async def serve_stdio(run_stdio: Callable[[], Awaitable[object]], finish: Callable[[], Awaitable[object]]) -> None:
    """Serves over stdio until stdin closes. SIGTERM or SIGINT end the calls in flight, run ``finish``
    (shielded, 30 s at most) and leave at once: the thread that reads stdin cannot be cancelled and
    would hold the exit until stdin closes."""
    async with anyio.create_task_group() as tg:
        if sys.platform != "win32":

            async def stop_on_signal() -> None:
                with anyio.open_signal_receiver(signal.SIGTERM, signal.SIGINT) as signals:
                    async for _ in signals:
                        break
                tg.cancel_scope.cancel()
                with anyio.CancelScope(shield=True), anyio.move_on_after(30):
                    await finish()
                sys.stderr.flush()
                os._exit(0)

            tg.start_soon(stop_on_signal)
        await run_stdio()
        tg.cancel_scope.cancel()

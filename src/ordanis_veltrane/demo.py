"""A simulated agent session against the stand-in daemon.

Run ``python -m ordanis_veltrane.demo``. Worker threads play an agent that calls
tools through a small tool pipeline, the way the daemon does it:

1. ``tracker.is_disabled(tool)``; a disabled tool is refused and the agent is told why;
2. the tool's handler runs (here: a short sleep, sometimes a failure);
3. ``record_success`` / ``record_error``, then ``record_call`` with the action, the
   outcome, ``alias_hit`` and ``duration_ms``; the daemon's timing collector is fed too.

A flusher thread writes what changed to the repository's SQLite file. Halfway
through, the daemon "restarts": the tracker is flushed one last time and dropped,
one tool is removed from the registry, and a new tracker is built on the same
file. At the end the session prints the health summary, the performance stats
answer, the thread census report, the flushes and the cost of the tracker calls.
With ``--metrics-port N`` the live tracker is also served as Prometheus metrics
while the session runs (needs the ``metrics`` extra).
"""
from __future__ import annotations

import argparse
import json
import random
import statistics
import sys
import tempfile
import threading
import time
import urllib.request
from dataclasses import dataclass, field
from pathlib import Path
from typing import TYPE_CHECKING, Any, Callable, Sequence

from ordanis_veltrane.config import ToolsConfig
from ordanis_veltrane.repository import Repository
from ordanis_veltrane.tool_handlers import health
from ordanis_veltrane.tool_registry import ActionSpec, ToolRegistry, ToolSpec
from ordanis_veltrane.utils.process import thread_census
from ordanis_veltrane.utils.timing import TimingCollector, get_timing_collector

if TYPE_CHECKING:
    from ordanis_veltrane.tool_handlers.health_metrics import MetricsServer

# The limits of the session: three errors in a row disable a tool for 0.2 s.
DISABLE_AFTER_ERRORS = 3
COOLDOWN_S = 0.2
REMOVED_TOOL = "legacy_export"


@dataclass(frozen=True)
class ToolBehaviour:
    """How a simulated tool behaves: its chance to fail, to time out, and how long it takes."""

    fail: float = 0.0
    timeout: float = 0.0
    ms: tuple[float, float] = (0.2, 1.6)
    weight: float = 1.0
    synonyms: float = 0.0  # chance that the agent names the action by a synonym
    message: str = "tool failed"


# name -> (actions with synonyms, behaviour)
TOOLSET: dict[str, tuple[tuple[ActionSpec, ...], ToolBehaviour]] = {
    "search": (
        (ActionSpec("text", ("grep",)), ActionSpec("symbol", ("sym",)), ActionSpec("semantic")),
        ToolBehaviour(fail=0.01, weight=4.0, synonyms=0.3, message="index is busy"),
    ),
    "read_file": ((), ToolBehaviour(fail=0.02, weight=3.0, message="no such file")),
    "git": (
        (ActionSpec("log"), ActionSpec("blame"), ActionSpec("diff", ("changes",))),
        ToolBehaviour(fail=0.08, weight=2.0, synonyms=0.2, message="fatal: bad revision 'HEAD~40'"),
    ),
    "index": (
        (ActionSpec("status"), ActionSpec("rebuild", ("reindex",))),
        ToolBehaviour(fail=0.05, ms=(0.2, 2.0), synonyms=0.25, message="index is locked by another writer"),
    ),
    "run_tests": (
        (ActionSpec("unit"), ActionSpec("integration")),
        ToolBehaviour(fail=0.15, timeout=0.15, ms=(0.5, 3.0), message="3 tests failed"),
    ),
    "web_fetch": ((), ToolBehaviour(fail=0.25, timeout=0.1, weight=1.5, message="HTTP 503 from upstream")),
    "broken_plugin": ((), ToolBehaviour(fail=1.0, weight=0.5, message="plugin crashed: exit status 3")),
    REMOVED_TOOL: (
        (ActionSpec("csv"), ActionSpec("json", ("ndjson",))),
        ToolBehaviour(fail=0.05, weight=0.8, synonyms=0.3, message="disk full"),
    ),
}


def thread_budget(workers: int, metrics: bool) -> int:
    """The most threads the demo runs at once: the main thread, the progress line, the
    flusher and the workers; with metrics, the server and the thread answering a scrape."""
    return workers + 3 + (2 if metrics else 0)


def make_registry(names: Sequence[str]) -> ToolRegistry:
    registry = ToolRegistry()
    for name in names:
        registry.register(ToolSpec(name, TOOLSET[name][0]))
    return registry


class HandlerTimeout(Exception):
    """A handler that gave no answer in time."""


OPS = ("is_disabled", "record_success", "record_error", "record_call")


@dataclass
class Costs:
    """Nanoseconds spent inside the tracker's call-path operations, per operation."""

    ns: dict[str, int] = field(default_factory=lambda: dict.fromkeys(OPS, 0))
    n: dict[str, int] = field(default_factory=lambda: dict.fromkeys(OPS, 0))

    def add(self, other: Costs) -> None:
        for op in OPS:
            self.ns[op] += other.ns[op]
            self.n[op] += other.n[op]


def _timer_overhead_ns() -> int:
    """What timing an empty stretch costs, subtracted from every sample."""
    clock = time.perf_counter_ns
    samples = []
    for _ in range(20_000):
        t0 = clock()
        samples.append(clock() - t0)
    return int(statistics.median(samples))


class Daemon:
    """The parts of the daemon that the pipeline needs: the tool registry, the tracker,
    the timing collector, and a way to tell the agent that a tool was refused."""

    def __init__(self, db_path: Path, limits: ToolsConfig, registry: ToolRegistry) -> None:
        # The registry goes in before the tracker: loading deletes the history of
        # every tool that the module's TOOLS does not know.
        self.registry: ToolRegistry = registry
        health.TOOLS = registry
        self.db_path = db_path
        self.limits = limits
        self.repo: Repository = Repository(db_path)
        started = time.perf_counter_ns()
        self.tracker: health.ToolHealthTracker = health.ToolHealthTracker(self.repo, limits)
        self.construct_ms: float = (time.perf_counter_ns() - started) / 1e6
        self.collector: TimingCollector = get_timing_collector()
        self.flushes: list[int] = []
        self.flush_ms: list[float] = []
        self.flush_lock: threading.Lock = threading.Lock()
        self.refusals: list[str] = []

    def flush(self) -> int:
        # Only the flusher thread and the restart call this; the lock keeps their
        # bookkeeping in one order.
        with self.flush_lock:
            started = time.perf_counter_ns()
            rows = self.tracker.flush()
            self.flush_ms.append((time.perf_counter_ns() - started) / 1e6)
            self.flushes.append(rows)
            return rows

    def close(self) -> None:
        self.repo.close()


def call_tool(
    daemon: Daemon,
    rng: random.Random,
    tool: str,
    requested_action: str | None,
    costs: Costs,
    overhead: int,
) -> str:
    """One tool call through the pipeline; answers the outcome."""
    tracker = daemon.tracker
    clock = time.perf_counter_ns
    spec = daemon.registry.get(tool)
    if spec is None:
        return "unknown_tool"
    action: str | None = None
    alias_hit = False
    if requested_action is not None:
        found = spec.action(requested_action)
        if found is None:
            return "unknown_action"
        action = found.name
        alias_hit = found.name != requested_action

    t0 = clock()
    disabled, last_error = tracker.is_disabled(tool)
    costs.ns["is_disabled"] += clock() - t0 - overhead
    costs.n["is_disabled"] += 1
    if disabled:
        # The agent is told instead of the tool running; the call is counted
        # without a duration, since no handler answered.
        daemon.refusals.append(f"{tool} is disabled after repeated errors: {last_error}")
        t0 = clock()
        tracker.record_call(tool, action, "disabled", alias_hit=alias_hit, duration_ms=None)
        costs.ns["record_call"] += clock() - t0 - overhead
        costs.n["record_call"] += 1
        return "disabled"

    behaviour = TOOLSET[tool][1]
    started = clock()
    error: str | None = None
    outcome = "ok"
    try:
        low, high = behaviour.ms
        if action in ("semantic", "rebuild", "integration"):
            low, high = low * 3, high * 3
        time.sleep(rng.uniform(low, high) / 1000.0)
        roll = rng.random()
        if roll < behaviour.timeout:
            raise HandlerTimeout(f"{tool} gave no answer within its deadline")
        if roll < behaviour.timeout + behaviour.fail:
            raise RuntimeError(behaviour.message)
    except HandlerTimeout as exc:
        error, outcome = str(exc), "timeout"
    except RuntimeError as exc:
        error, outcome = str(exc), "error"
    duration_ms = (clock() - started) / 1e6

    if error is None:
        t0 = clock()
        tracker.record_success(tool)
        costs.ns["record_success"] += clock() - t0 - overhead
        costs.n["record_success"] += 1
    else:
        t0 = clock()
        tracker.record_error(tool, error)
        costs.ns["record_error"] += clock() - t0 - overhead
        costs.n["record_error"] += 1
    # A handler that timed out gave no answer: the call is counted without a time.
    answered = outcome != "timeout"
    t0 = clock()
    tracker.record_call(tool, action, outcome, alias_hit=alias_hit, duration_ms=duration_ms if answered else None)
    costs.ns["record_call"] += clock() - t0 - overhead
    costs.n["record_call"] += 1
    daemon.collector.record(tool, duration_ms, error=error is not None)
    return outcome


def pick_call(rng: random.Random, tools: Sequence[str], weights: Sequence[float]) -> tuple[str, str | None]:
    tool = rng.choices(tools, weights)[0]
    actions, behaviour = TOOLSET[tool]
    if not actions:
        return tool, None
    spec = rng.choice(actions)
    if spec.synonyms and rng.random() < behaviour.synonyms:
        return tool, rng.choice(spec.synonyms)
    return tool, spec.name


@dataclass
class Progress:
    phase: str = "starting"
    done: int = 0
    total: int = 0
    lock: threading.Lock = field(default_factory=threading.Lock)

    def step(self) -> None:
        with self.lock:
            self.done += 1


def run_phase(
    daemon: Daemon,
    tools: Sequence[str],
    calls: int,
    threads: int,
    seed: int,
    progress: Progress,
    overhead: int,
    on_running: Callable[[], None] | None = None,
) -> tuple[Costs, dict[str, int]]:
    """Runs `calls` tool calls on `threads` worker threads, with a flusher beside them."""
    weights = [TOOLSET[t][1].weight for t in tools]
    stop_flusher = threading.Event()
    costs = Costs()
    outcomes: dict[str, int] = {}
    merge = threading.Lock()
    errors: list[BaseException] = []

    def flusher() -> None:
        while not stop_flusher.is_set():
            if daemon.tracker.has_unsaved_changes:
                daemon.flush()
            stop_flusher.wait(0.025)

    def worker(index: int, count: int) -> None:
        rng = random.Random(seed * 1_000 + index)
        mine = Costs()
        seen: dict[str, int] = {}
        try:
            for _ in range(count):
                tool, action = pick_call(rng, tools, weights)
                outcome = call_tool(daemon, rng, tool, action, mine, overhead)
                seen[outcome] = seen.get(outcome, 0) + 1
                progress.step()
        except BaseException as exc:  # reported by the main thread
            errors.append(exc)
        with merge:
            costs.add(mine)
            for key, value in seen.items():
                outcomes[key] = outcomes.get(key, 0) + value

    flush_thread = threading.Thread(target=flusher, name="health-flusher", daemon=True)
    flush_thread.start()
    share, extra = divmod(calls, threads)
    workers = [
        threading.Thread(target=worker, args=(i, share + (i < extra)), name=f"agent-worker-{i}", daemon=True)
        for i in range(threads)
    ]
    for thread in workers:
        thread.start()
    if on_running is not None:
        on_running()
    for thread in workers:
        thread.join()
    stop_flusher.set()
    flush_thread.join()
    if errors:
        raise errors[0]
    return costs, outcomes


def tool_health_rows(repo: Repository) -> list[str]:
    return sorted(row[0] for row in repo.db.fetchall("SELECT tool_name FROM tool_health"))


def usage_tools(repo: Repository) -> set[str]:
    row = repo.db.fetchone("SELECT value FROM schema_info WHERE key = ?", (health.TOOL_USAGE_KEY,))
    if row is None or not isinstance(row[0], str):
        return set()
    return {entry["tool"] for entry in json.loads(row[0])}


# ---------------------------------------------------------------- rendering


def table(headers: Sequence[str], rows: Sequence[Sequence[Any]], indent: str = "", right: set[int] | None = None) -> str:
    """An aligned text table; columns listed in `right` are right-aligned."""
    right = right or set()
    cells = [[("-" if v is None else str(v)) for v in row] for row in rows]
    widths = [len(h) for h in headers]
    for row in cells:
        for i, value in enumerate(row):
            widths[i] = max(widths[i], len(value))

    def line(values: Sequence[str]) -> str:
        parts = [v.rjust(widths[i]) if i in right else v.ljust(widths[i]) for i, v in enumerate(values)]
        return (indent + "  ".join(parts)).rstrip()

    out = [line(list(headers)), indent + "  ".join("-" * w for w in widths)]
    out.extend(line(row) for row in cells)
    return "\n".join(out)


def clip(value: Any, width: int) -> str:
    text = "-" if value is None else str(value)
    return text if len(text) <= width else text[: width - 3] + "..."


def render_summary(summary: list[dict[str, Any]]) -> str:
    out = []
    headers = ("", "TOOL", "CALLS", "ERRORS", "STATE", "LAST ERROR", "UPDATED (UTC)")
    tool_rows = []
    for rec in summary:
        state = f"DISABLED since {rec['disabled_at'][11:]}" if rec["disabled"] else "enabled"
        tool_rows.append(
            (
                "X" if rec["disabled"] else " ",
                rec["tool_name"],
                rec["call_count"],
                rec["error_count"],
                state,
                clip(rec["last_error"], 34),
                rec["updated_at"],
            )
        )
    widths = [max(len(h), *(len(str(r[i])) for r in tool_rows)) if tool_rows else len(h) for i, h in enumerate(headers)]
    right = {2, 3}

    def line(values: Sequence[Any]) -> str:
        parts = [
            (str(v).rjust(widths[i]) if i in right else str(v).ljust(widths[i])) for i, v in enumerate(values)
        ]
        return "  ".join(parts).rstrip()

    out.append(line(headers))
    out.append("  ".join("-" * w for w in widths))
    for rec, row in zip(summary, tool_rows):
        out.append(line(row))
        usage = [
            (
                u["action"] if u["action"] is not None else "(none)",
                u["outcome"],
                "yes" if u["alias_hit"] else "",
                u["calls"],
                "-" if u["avg_ms"] is None else f"{u['avg_ms']:.2f}",
                "slow" if u["slow"] else "",
            )
            for u in rec["usage"]
        ]
        if usage:
            out.append(
                table(("action", "outcome", "synonym", "calls", "avg ms", "slow"), usage, indent="      ", right={3, 4})
            )
        out.append("")
    out.append("X = disabled (a disabled tool is shown as such until it is next asked about)")
    return "\n".join(out)


def render_perf(answer: dict[str, Any]) -> str:
    rows = [
        (t["name"], t["count"], f"{t['avg_ms']:.3f}", f"{t['p95_ms']:.3f}", f"{t['min_ms']:.3f}", f"{t['max_ms']:.3f}", t["errors"])
        for t in answer["tools"]
    ]
    return table(("TOOL", "COUNT", "AVG ms", "P95 ms", "MIN ms", "MAX ms", "ERRORS"), rows, right={1, 2, 3, 4, 5, 6})


def render_census(report: dict[str, Any]) -> str:
    out = []
    if "os" in report:
        out.append(f"  OS threads:      {report['os']}")
    out.append(f"  Python threads:  {report['python']}")
    out.append(f"  budget:          {report['budget']}")
    rows = list(report["python_by_name"].items())
    out.append(table(("thread name prefix", "threads"), rows, indent="    ", right={1}))
    out.append("  warning:         " + report.get("warning", "none, the threads are within the budget"))
    return "\n".join(out)


def render_flushes(rows: list[int], ms: list[float]) -> str:
    if not rows:
        return "  no flush wrote anything"
    out = [
        f"  {len(rows)} flushes wrote {sum(rows)} rows in all "
        f"(per flush: min {min(rows)}, median {statistics.median(rows):g}, max {max(rows)}; "
        f"time per flush: median {statistics.median(ms):.2f} ms, max {max(ms):.2f} ms)"
    ]
    counts: dict[int, int] = {}
    for n in rows:
        counts[n] = counts.get(n, 0) + 1
    hist = sorted(counts.items())
    shown = ", ".join(f"{n} rows x{k}" for n, k in hist[:12])
    if len(hist) > 12:
        shown += f", ... ({len(hist) - 12} more sizes)"
    out.append(f"  rows per flush: {shown}")
    return "\n".join(out)


def render_costs(costs: Costs) -> str:
    rows = []
    total_ns = 0
    total_n = 0
    for op in OPS:
        n = costs.n[op]
        if n:
            rows.append((op, n, f"{costs.ns[op] / n:.0f}"))
            total_ns += costs.ns[op]
            total_n += n
    out = [table(("operation", "calls", "ns/call"), rows, indent="  ", right={1, 2})]
    if total_n:
        out.append(f"  all tracker calls on the call path: {total_ns / total_n:.0f} ns per call on average")
    out.append("  (measured inside the worker threads, so lock and interpreter contention are included)")
    return "\n".join(out)


def scrape_metrics(url: str) -> str:
    """One scrape of the metrics endpoint, as a Prometheus server would make it."""
    with urllib.request.urlopen(url, timeout=10) as answer:
        text: str = answer.read().decode("utf-8")
    return text


def metrics_excerpt(text: str, tool: str | None, per_metric: int = 2) -> list[str]:
    """Sample lines of a scrape: those of one tool (at most `per_metric` of each
    metric) and those without labels (limits and threads)."""
    mark = f'tool="{tool}"'
    shown: dict[str, int] = {}
    out: list[str] = []
    for line in text.splitlines():
        if not line or line.startswith("#") or ("{" in line and mark not in line):
            continue
        name = line.split("{", 1)[0].split(" ", 1)[0]
        shown[name] = shown.get(name, 0) + 1
        if shown[name] <= per_metric:
            out.append(line)
    return out


# ---------------------------------------------------------------- main


def main(argv: Sequence[str] | None = None) -> int:
    parser = argparse.ArgumentParser(prog="python -m ordanis_veltrane.demo", description=__doc__.splitlines()[0])
    parser.add_argument("--calls", type=int, default=6000, help="tool calls in all (default 6000)")
    parser.add_argument("--threads", type=int, default=4, help="agent worker threads (default 4)")
    parser.add_argument("--seed", type=int, default=7, help="random seed of the simulated agent (default 7)")
    parser.add_argument("--db", type=Path, default=None, help="SQLite file to keep or reuse (default: a fresh temporary file)")
    parser.add_argument("--json", action="store_true", help="print the raw answers as JSON")
    parser.add_argument("--metrics-port", type=int, default=None, metavar="N",
                        help="serve the live tracker as Prometheus metrics on 127.0.0.1:N while the session runs "
                             "(0 picks a free port; needs pip install '.[metrics]')")
    args = parser.parse_args(argv)
    if args.calls < 2 or args.threads < 1:
        parser.error("--calls must be at least 2 and --threads at least 1")
    metrics: MetricsServer | None = None
    if args.metrics_port is not None:
        if not 0 <= args.metrics_port <= 65535:
            parser.error("--metrics-port must be from 0 to 65535")
        try:
            from ordanis_veltrane.tool_handlers.health_metrics import serve_metrics
        except ImportError as exc:
            parser.error(str(exc))
        try:
            metrics = serve_metrics(None, args.metrics_port, thread_budget=thread_budget(args.threads, True))
        except OSError as exc:
            parser.error(f"cannot serve metrics on 127.0.0.1:{args.metrics_port}: {exc}")
        print(f"serving tool health metrics at {metrics.url}", file=sys.stderr)

    tmpdir: tempfile.TemporaryDirectory[str] | None = None
    if args.db is None:
        tmpdir = tempfile.TemporaryDirectory(prefix="veltrane-demo-")
        db_path = Path(tmpdir.name) / "repository.db"
    else:
        db_path = args.db
        db_path.parent.mkdir(parents=True, exist_ok=True)
    try:
        return run(args, db_path, metrics)
    finally:
        if metrics is not None:
            metrics.close()
        if tmpdir is not None:
            tmpdir.cleanup()


def run(args: argparse.Namespace, db_path: Path, metrics: MetricsServer | None = None) -> int:
    saved_tools = health.TOOLS
    limits = ToolsConfig(disable_after_errors=DISABLE_AFTER_ERRORS, disable_cooldown_s=COOLDOWN_S)
    get_timing_collector().reset()
    overhead = _timer_overhead_ns()
    progress = Progress(total=args.calls)
    started = time.perf_counter()
    stop_progress = threading.Event()
    progress_on_tty = sys.stderr.isatty()
    show_progress = progress_on_tty

    def progress_line() -> None:
        while not stop_progress.wait(0.1):
            if show_progress:
                with progress.lock:
                    done = progress.done
                pct = 100 * done // max(progress.total, 1)
                sys.stderr.write(
                    f"\r  {progress.phase:<28} {done:>6}/{progress.total} calls ({pct:3d}%)  {time.perf_counter() - started:5.1f} s "
                )
                sys.stderr.flush()

    reporter = threading.Thread(target=progress_line, name="demo-progress", daemon=True)
    reporter.start()
    census: list[Any] = []
    try:
        # Phase 1: every tool is in the registry.
        phase1_tools = list(TOOLSET)
        daemon = Daemon(db_path, limits, make_registry(phase1_tools))
        if metrics is not None:
            metrics.collector.tracker = daemon.tracker  # the served collector follows the live tracker
        first_construct_ms = daemon.construct_ms
        progress.phase = "phase 1: agent session"
        calls1 = args.calls // 2
        costs1, outcomes1 = run_phase(daemon, phase1_tools, calls1, args.threads, args.seed, progress, overhead)

        # The daemon restarts: a last flush, the tracker dropped, one tool gone
        # from the registry, a new tracker on the same file.
        progress.phase = "restart"
        # The agent's last calls before the restart go to the failing plugin until
        # it is disabled, so that a disabled tool crosses the restart.
        rng = random.Random(args.seed)
        for _ in range(limits.disable_after_errors + 1):
            outcome = call_tool(daemon, rng, "broken_plugin", None, costs1, overhead)
            outcomes1[outcome] = outcomes1.get(outcome, 0) + 1
            if outcome == "disabled":
                break
        last_flush = daemon.flush() if daemon.tracker.has_unsaved_changes else 0
        flushes1, flush_ms1 = daemon.flushes, daemon.flush_ms
        refusals1 = daemon.refusals
        disabled_before = sorted(r["tool_name"] for r in daemon.tracker.get_health_summary() if r["disabled"])
        rows_before = tool_health_rows(daemon.repo)
        usage_before = usage_tools(daemon.repo)
        if metrics is not None:
            metrics.collector.tracker = None  # no tracker until the restart is done: threads only
        del daemon.tracker
        daemon.close()

        phase2_tools = [t for t in TOOLSET if t != REMOVED_TOOL]
        daemon = Daemon(db_path, limits, make_registry(phase2_tools))
        if metrics is not None:
            metrics.collector.tracker = daemon.tracker
        rows_after = tool_health_rows(daemon.repo)
        unsaved_after_load = daemon.tracker.has_unsaved_changes
        seeded_disabled = sorted(r["tool_name"] for r in daemon.tracker.get_health_summary() if r["disabled"])
        still_disabled = sorted(t for t in seeded_disabled if daemon.tracker.is_disabled(t)[0])
        restart: dict[str, Any] = {
            "db": str(db_path),
            "last_flush_rows": last_flush,
            "disabled_before_restart": disabled_before,
            "seeded_disabled_after_restart": seeded_disabled,
            "still_disabled_after_restart": still_disabled,
            "removed_tool": REMOVED_TOOL,
            "tool_health_rows_before": rows_before,
            "tool_health_rows_after": rows_after,
            "removed_tool_in_usage_before": REMOVED_TOOL in usage_before,
            "unsaved_changes_after_load": unsaved_after_load,
            "construct_ms": [round(first_construct_ms, 2), round(daemon.construct_ms, 2)],
        }

        # Phase 2: the agent goes on against the restarted daemon; the census is
        # taken while the workers run, and the report is built from it.
        progress.phase = "phase 2: after the restart"
        budget = thread_budget(args.threads, metrics is not None)

        def take_census() -> None:
            time.sleep(0.05)
            census.append(thread_census())

        costs2, outcomes2 = run_phase(
            daemon, phase2_tools, args.calls - calls1, args.threads, args.seed + 1, progress, overhead, take_census
        )
        if daemon.tracker.has_unsaved_changes:
            daemon.flush()
        restart["removed_tool_in_usage_after"] = REMOVED_TOOL in usage_tools(daemon.repo)
        show_progress = False
        stop_progress.set()
        reporter.join()
        if progress_on_tty:
            sys.stderr.write("\r" + " " * 78 + "\r")
            sys.stderr.flush()
        elapsed = time.perf_counter() - started

        summary = daemon.tracker.get_health_summary()
        perf = health.handle_get_tool_performance_stats()
        census_report = health.thread_census_report(budget, census[0] if census else None)
        scraped = scrape_metrics(metrics.url) if metrics is not None else None
        flushes = flushes1 + daemon.flushes
        flush_ms = flush_ms1 + daemon.flush_ms
        costs = Costs()
        costs.add(costs1)
        costs.add(costs2)
        outcomes: dict[str, int] = {}
        for part in (outcomes1, outcomes2):
            for key, value in part.items():
                outcomes[key] = outcomes.get(key, 0) + value
        refusals = refusals1 + daemon.refusals
        daemon.close()
    finally:
        stop_progress.set()
        health.TOOLS = saved_tools

    cost_ns = {op: round(costs.ns[op] / costs.n[op], 1) for op in OPS if costs.n[op]}
    total_n = sum(costs.n.values())
    cost_ns["all"] = round(sum(costs.ns.values()) / total_n, 1) if total_n else 0.0
    served: dict[str, Any] | None = None
    if metrics is not None and scraped is not None:
        served = {
            "url": metrics.url,
            "sample_lines": sum(1 for line in scraped.splitlines() if line and not line.startswith("#")),
            "bytes": len(scraped.encode("utf-8")),
            "excerpt": metrics_excerpt(scraped, summary[0]["tool_name"] if summary else None),
        }
    if args.json:
        print(
            json.dumps(
                {
                    "session": {
                        "calls": args.calls,
                        "threads": args.threads,
                        "seed": args.seed,
                        "seconds": round(elapsed, 3),
                        "outcomes": outcomes,
                        "refused_calls": len(refusals),
                    },
                    "restart": restart,
                    "health_summary": summary,
                    "performance_stats": perf,
                    "thread_census": census_report,
                    "flush_rows": flushes,
                    "cost_ns_per_call": cost_ns,
                    **({"metrics": served} if served is not None else {}),
                },
                indent=2,
            )
        )
        return 0

    p = print
    total_calls = sum(outcomes.values())
    p(f"Simulated agent session: {total_calls} tool calls on {args.threads} threads (seed {args.seed}) in {elapsed:.2f} s")
    p(f"  repository database: {db_path}{'' if args.db else ' (temporary)'}")
    p(f"  limits: {limits.disable_after_errors} errors in a row disable a tool for {limits.disable_cooldown_s} s")
    p("  outcomes: " + ", ".join(f"{k} {v}" for k, v in sorted(outcomes.items(), key=lambda kv: -kv[1])))
    if refusals:
        p(f"  {len(refusals)} calls refused, e.g. the agent was told: \"{refusals[-1]}\"")
    p("")
    p("Daemon restart halfway")
    p(f"  last flush before the restart wrote {restart['last_flush_rows']} rows; tracker dropped; "
      f"'{REMOVED_TOOL}' removed from the registry")
    p(f"  disabled at the restart: {', '.join(disabled_before) or 'none'}; seeded as disabled by the new tracker: "
      f"{', '.join(seeded_disabled) or 'none'}")
    p(f"  still disabled at the first is_disabled after the restart: {', '.join(still_disabled) or 'none'} "
      f"(stored times are whole seconds, so a {limits.disable_cooldown_s} s cooldown has often run out by then)")
    p(f"  tool_health rows before: {len(rows_before)} ({', '.join(rows_before)})")
    p(f"  tool_health rows after:  {len(rows_after)} ({', '.join(rows_after)})")
    pruned = REMOVED_TOOL in rows_before and REMOVED_TOOL not in rows_after
    p(f"  '{REMOVED_TOOL}' row pruned at construction: {'yes' if pruned else 'no'}; its usage counts dropped "
      f"(written away at the next flush: {'yes' if not restart['removed_tool_in_usage_after'] else 'no'}; "
      f"unsaved changes right after loading: {unsaved_after_load})")
    p(f"  construction from the file: {restart['construct_ms'][0]:.2f} ms first, {restart['construct_ms'][1]:.2f} ms after the restart")
    p("")
    p("Tool health, worst first (get_health_summary)")
    p(render_summary(summary))
    p("")
    p("Tool performance stats (handle_get_tool_performance_stats)")
    p(render_perf(perf))
    p("")
    p("Thread census (thread_census_report, taken while the workers ran)")
    p(render_census(census_report))
    p("")
    p("Flushes (flusher thread, whenever has_unsaved_changes)")
    p(render_flushes(flushes, flush_ms))
    p("")
    p("Cost of the tracker calls on the call path")
    p(render_costs(costs))
    if served is not None:
        p("")
        p(f"Prometheus metrics, served at {served['url']} while the session ran")
        p(f"  the last scrape ({served['sample_lines']} samples, {served['bytes']:,} bytes), "
          "the worst tool's lines and those without labels:")
        p("\n".join("    " + line for line in served["excerpt"]))
    return 0


if __name__ == "__main__":
    sys.exit(main())

"""``veltrane-health``: see and steer the health of the tools every server on a store serves.

Reads a shared store (a SQLite file or a PostgreSQL database that servers started with ``--db``
share) or, read-only, the file of a single tracker. ``disable`` and ``enable`` write an operator's
decision to a shared store; every server serving from it applies the decision at its next sync.
Uses the standard library alone (psycopg for a ``postgresql://`` store).
"""
from __future__ import annotations

import argparse
import getpass
import json
import os
import re
import socket
import sys
import time
import unicodedata
from collections import deque
from typing import Any, Sequence, TextIO

from ordanis_veltrane.sharing.operators import (
    DISABLE, ENABLE, Decision, DecisionStore, StoreError, ToolTotals, format_time,
)

__all__ = ["main", "parse_duration"]

ENV_DB = "VELTRANE_HEALTH_DB"
DEFAULT_COOLDOWN_S = 60.0
WINDOW_S = 60.0  # watch: the error ratio over this many seconds
MAX_TOOL_NAME = 200

EXAMPLES = """\
examples:
  veltrane-health --db health.db status
  veltrane-health --db postgresql://health@db.internal/health status --json
  veltrane-health status search --db health.db          (one tool, with its usage by action)
  veltrane-health disable search --for 2h --reason "index rebuild until 14:00 (OPS-412)"
  veltrane-health enable search --reason "rebuild done"  (also clears a disable by errors)
  VELTRANE_HEALTH_DB=health.db veltrane-health watch

A disable reaches every server on the store within its sync period (--flush-interval) plus about a
second; it lasts until `enable` or the end of --for, across restarts of the servers.

exit status: 0 done; 1 the store cannot be read or written, or no such tool; 2 bad usage.
"""


class CommandError(Exception):
    """A failure to report on one line, exit status 1."""


# ---------------------------------------------------------------- input


def parse_duration(text: str) -> float:
    """``90``, ``90s``, ``15m``, ``2h``, ``1d``, ``1h30m``: seconds, above 0."""
    cleaned = text.strip().lower()
    units = {"s": 1.0, "m": 60.0, "h": 3600.0, "d": 86400.0}
    if re.fullmatch(r"\d+(\.\d+)?", cleaned):
        seconds = float(cleaned)
    elif re.fullmatch(r"(\d+(\.\d+)?[smhd])+", cleaned):
        seconds = sum(float(n) * units[u] for n, _, u in re.findall(r"(\d+(\.\d+)?)([smhd])", cleaned))
    else:
        raise argparse.ArgumentTypeError(f"not a duration: {text!r} (examples: 90s, 15m, 2h, 1d, 1h30m)")
    if not 0 < seconds < 100 * 365 * 86400:
        raise argparse.ArgumentTypeError(f"a duration must be above 0 and below 100 years, not {text!r}")
    return seconds


def _tool_name(text: str) -> str:
    if not text or len(text) > MAX_TOOL_NAME or any(unicodedata.category(c) in ("Cc", "Cs") for c in text):
        raise argparse.ArgumentTypeError(f"not a tool name: {text!r}")
    return text


def _reason(text: str) -> str:
    cleaned = " ".join(text.split())
    if not cleaned:
        raise argparse.ArgumentTypeError("the reason is empty")
    return cleaned


def _operator(text: str) -> str:
    cleaned = " ".join(text.split())
    if not cleaned or len(cleaned) > MAX_TOOL_NAME or any(unicodedata.category(c) in ("Cc", "Cs") for c in cleaned):
        raise argparse.ArgumentTypeError(f"not an operator's name: {text!r}")
    return cleaned


def _default_operator() -> str:
    try:
        user = getpass.getuser()
    except Exception:
        user = "unknown"
    return f"{user}@{socket.gethostname()}"


def _parser() -> argparse.ArgumentParser:
    db_help = f"the store: a SQLite file or a postgresql:// URL (default: ${ENV_DB})"
    parser = argparse.ArgumentParser(
        prog="veltrane-health", description="See and steer the health of the tools of every server on a store.",
        epilog=EXAMPLES, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--db", metavar="PATH|URL", help=db_help)
    commands = parser.add_subparsers(dest="command", metavar="COMMAND", required=True)

    def command(name: str, help: str) -> argparse.ArgumentParser:
        sub = commands.add_parser(name, help=help, description=help, epilog=EXAMPLES,
                                  formatter_class=argparse.RawDescriptionHelpFormatter)
        sub.add_argument("--db", metavar="PATH|URL", default=argparse.SUPPRESS, help=db_help)
        return sub

    status = command("status", "every tool's state, calls, errors and last error; the last operator decisions")
    status.add_argument("tool", nargs="?", type=_tool_name, metavar="TOOL", help="one tool, with its usage rows")
    status.add_argument("--json", action="store_true", help="print JSON")
    status.add_argument("--cooldown", type=float, default=DEFAULT_COOLDOWN_S, metavar="SECONDS",
                        help=f"the servers' --cooldown, to say until when a disable by errors lasts "
                             f"(default {DEFAULT_COOLDOWN_S:g})")
    disable = command("disable", "disable a tool on every server of the store, with a reason")
    disable.add_argument("tool", type=_tool_name, metavar="TOOL")
    disable.add_argument("--for", dest="duration", type=parse_duration, metavar="DURATION",
                         help="how long (90s, 15m, 2h, 1d); default: until `enable`")
    disable.add_argument("--reason", type=_reason, required=True, help="why; the clients are told this")
    disable.add_argument("--by", type=_operator, default=None, help="who decides (default: user@host)")
    enable = command("enable", "enable a tool again on every server, also clearing a disable by errors")
    enable.add_argument("tool", type=_tool_name, metavar="TOOL")
    enable.add_argument("--reason", type=_reason, default=None, help="why")
    enable.add_argument("--by", type=_operator, default=None, help="who decides (default: user@host)")
    watch = command("watch", "the status table refreshed in place, with each tool's error ratio over the last minute")
    watch.add_argument("--interval", type=float, default=1.0, metavar="SECONDS", help="between refreshes (default 1)")
    watch.add_argument("--count", type=int, default=None, metavar="N", help="stop after N refreshes")
    watch.add_argument("--cooldown", type=float, default=DEFAULT_COOLDOWN_S, metavar="SECONDS",
                       help=f"the servers' --cooldown (default {DEFAULT_COOLDOWN_S:g})")
    return parser


# ---------------------------------------------------------------- the state of each tool


def _state(totals: ToolTotals | None, decision: Decision | None, now: float, cooldown: float) -> dict[str, Any]:
    """The state of one tool as every server on the store applies it."""
    disabled_at = totals.disabled_at if totals is not None else None
    if decision is not None and decision.active(now):
        return {"state": "disabled", "by": "operator", "since": decision.at, "until": decision.until,
                "operator": decision.by, "reason": decision.reason}
    by_errors = disabled_at is not None and now - disabled_at < cooldown
    reset = decision is not None and decision.decision == ENABLE and disabled_at is not None \
        and decision.at >= disabled_at
    if disabled_at is not None and by_errors and not reset:
        return {"state": "disabled", "by": "errors", "since": disabled_at, "until": disabled_at + cooldown,
                "operator": None, "reason": totals.last_error if totals is not None else None}
    if decision is not None:
        ended = decision.decision == DISABLE  # a disable whose time ran out
        return {"state": "enabled", "by": "expiry" if ended else "operator", "since": decision.until if ended
                else decision.at, "until": None, "operator": decision.by, "reason": decision.reason}
    return {"state": "enabled", "by": None, "since": None, "until": None, "operator": None, "reason": None}


def _rows(store: DecisionStore, kind: str, cooldown: float,
          now: float) -> tuple[list[dict[str, Any]], dict[str, Decision]]:
    totals = {t.tool: t for t in store.read_tools(kind)}
    decisions = store.current() if kind != "plain" else {}
    rows = []
    for name in sorted(set(totals) | set(decisions)):
        t = totals.get(name)
        calls, errors = (t.calls, t.errors) if t is not None else (0, 0)
        rows.append({"tool": name, **_state(t, decisions.get(name), now, cooldown), "calls": calls, "errors": errors,
                     "error_ratio": round(errors / calls, 4) if calls else None,
                     "last_error": t.last_error if t is not None else None,
                     "updated_at": t.updated_at if t is not None else None})
    return rows, decisions


def _open(args: argparse.Namespace, *, read_only: bool) -> tuple[DecisionStore, str]:
    target = args.db or os.environ.get(ENV_DB)
    if not target:
        raise _UsageError(f"no store: give --db PATH|URL or set {ENV_DB}")
    store = DecisionStore(target, read_only=read_only and not str(target).lower().startswith(("postgres",)))
    kind = store.kind()
    return store, kind


class _UsageError(Exception):
    pass


# ---------------------------------------------------------------- output


def _printable(text: Any) -> str:
    """One line with no control characters: a tool's error text or a reason must not drive the terminal."""
    return "".join(c if unicodedata.category(c) not in ("Cc", "Cs") else " " for c in " ".join(str(text).split()))


def _clip(text: Any, width: int) -> str:
    s = _printable(text) if text is not None else "-"
    return s if len(s) <= width else s[: width - 1] + "…"


def _state_text(row: dict[str, Any]) -> str:
    if row["state"] == "disabled":
        until = f" until {format_time(row['until'])}" if row["until"] is not None else ""
        who = f"operator {row['operator']}" if row["by"] == "operator" else "errors"
        return f"DISABLED by {who}{until}"
    if row["by"] == "operator":
        return f"enabled by operator {row['operator']}"
    return "enabled"


def _table(rows: list[dict[str, Any]], ratio_key: str = "error_ratio", ratio_title: str = "ERR%") -> str:
    if not rows:
        return "no tools yet: no server has recorded a call on this store\n"
    width = max(4, *(len(_clip(r["tool"], 40)) for r in rows))
    head = f"{'TOOL':<{width}}  {'STATE':<62}  {'CALLS':>8}  {'ERRORS':>7}  {ratio_title:>6}  LAST ERROR"
    lines = [head]
    for r in rows:
        ratio = r.get(ratio_key)
        pct = "-" if ratio is None else f"{100 * ratio:.1f}"
        lines.append(f"{_clip(r['tool'], 40):<{width}}  {_clip(_state_text(r), 62):<62}  {r['calls']:>8}  "
                     f"{r['errors']:>7}  {pct:>6}  {_clip(r['last_error'], 60)}")
    return "\n".join(lines) + "\n"


def _decision_line(d: Decision) -> str:
    until = f" until {format_time(d.until)}" if d.until is not None else ""
    return (f"  {format_time(d.at)}  {d.decision} {_clip(d.tool, 60)}{until} by {_clip(d.by, 60)}: "
            f"{_clip(d.reason or '(no reason)', 200)}")


def _status(args: argparse.Namespace, out: TextIO) -> int:
    store, kind = _open(args, read_only=True)
    try:
        now = time.time()
        if kind == "empty":
            raise CommandError(f"{store.description} holds no tool health yet: start a server with --db on it first")
        rows, _ = _rows(store, kind, args.cooldown, now)
        if args.tool is not None:
            rows = [r for r in rows if r["tool"] == args.tool]
            if not rows:
                raise CommandError(f"no tool {args.tool!r} in {store.description}")
            rows[0]["usage"] = [vars(u) for u in store.read_usage(kind, args.tool)]
        history = store.history(args.tool) if kind == "shared" else []
    finally:
        store.close()
    if args.json:
        json.dump({"store": store.description, "kind": kind, "now": now, "tools": rows,
                   "decisions": [d.as_dict() for d in history]}, out, indent=2)
        out.write("\n")
        return 0
    label = "shared by every server on it" if kind == "shared" else "a single tracker's file, read-only"
    out.write(f"{store.description} ({label}), {format_time(now)}\n\n")
    out.write(_table(rows))
    if args.tool is not None:
        row = rows[0]
        if row["state"] == "disabled":
            out.write(f"\n{_clip(_state_text(row), 200)} since {format_time(row['since'])}: "
                      f"{_clip(row['reason'], 1000)}\n")
        if row["usage"]:
            out.write(f"\n{'ACTION':<24}  {'OUTCOME':<12}  {'SYNONYM':<7}  {'CALLS':>8}  {'MEAN MS':>9}\n")
            for u in row["usage"]:
                mean = f"{u['total_ms'] / u['timed_calls']:.1f}" if u["timed_calls"] else "-"
                out.write(f"{_clip(u['action'], 24):<24}  {u['outcome']:<12}  {'yes' if u['alias_hit'] else 'no':<7}  "
                          f"{u['calls']:>8}  {mean:>9}\n")
    if history:
        out.write("\nlast operator decisions:\n" + "\n".join(_decision_line(d) for d in history) + "\n")
    return 0


def _decide(args: argparse.Namespace, decision: str, out: TextIO) -> int:
    store, kind = _open(args, read_only=False)
    try:
        if kind == "plain":
            raise CommandError(f"{store.description} is a single tracker's file, not a store servers share: no "
                               "server reads decisions from it. Decisions need the shared store the servers use "
                               "as their --db (a SQLite file or a postgresql:// URL).")
        if kind == "empty":
            raise CommandError(f"{store.description} holds no tool health: start a server with --db on it first")
        known = {t.tool for t in store.read_tools(kind)}
        duration = getattr(args, "duration", None)
        made = store.record(args.tool, decision, args.reason, args.by or _default_operator(), duration)
    finally:
        store.close()
    if args.tool not in known:
        print(f"note: no server on this store has served {args.tool!r} yet; the decision applies once one does",
              file=sys.stderr)
    if decision == DISABLE:
        until = f"until {format_time(made.until)}" if made.until is not None else "until `enable`"
        out.write(f"disabled {args.tool!r} on every server of the store, {until}, by {_clip(made.by, 100)}: "
                  f"{_clip(made.reason, 1000)}\n")
    else:
        out.write(f"enabled {args.tool!r} on every server of the store (a disable by errors is cleared too), "
                  f"by {_clip(made.by, 100)}\n")
    return 0


def _watch(args: argparse.Namespace, out: TextIO) -> int:
    if args.interval <= 0:
        raise _UsageError("--interval must be above 0")
    samples: deque[tuple[float, dict[str, tuple[int, int]]]] = deque()
    store, kind = _open(args, read_only=True)
    clear = "\x1b[H\x1b[2J" if out.isatty() else ""
    refreshes = 0
    try:
        while args.count is None or refreshes < args.count:
            now = time.time()
            try:
                rows, _ = _rows(store, kind, args.cooldown, now)
                problem = None
            except Exception as exc:  # shown, and tried again at the next refresh
                rows, problem = [], str(exc).splitlines()[0] if str(exc) else type(exc).__name__
            counts = {r["tool"]: (r["calls"], r["errors"]) for r in rows}
            samples.append((now, counts))
            while len(samples) > 1 and now - samples[1][0] >= WINDOW_S:
                samples.popleft()
            base = samples[0][1]
            for r in rows:
                calls0, errors0 = base.get(r["tool"], (0, 0)) if len(samples) > 1 else (r["calls"], r["errors"])
                calls, errors = r["calls"] - calls0, r["errors"] - errors0
                r["recent"] = round(errors / calls, 4) if calls > 0 else None
            frame = (f"{store.description}  {format_time(now)}  (every {args.interval:g} s; ERR% over the last "
                     f"{min(WINDOW_S, now - samples[0][0]):.0f} s; Ctrl-C to stop)\n\n")
            frame += f"cannot read the store: {problem}\n" if problem else _table(rows, "recent", "ERR%1m")
            out.write(clear + frame + ("" if clear else "\n"))
            out.flush()
            refreshes += 1
            if args.count is None or refreshes < args.count:
                time.sleep(args.interval)
    except KeyboardInterrupt:
        pass
    finally:
        store.close()
    return 0


# ---------------------------------------------------------------- main


def main(argv: Sequence[str] | None = None) -> int:
    parser = _parser()
    args = parser.parse_args(argv)
    try:
        if args.command == "status":
            return _status(args, sys.stdout)
        if args.command == "watch":
            return _watch(args, sys.stdout)
        return _decide(args, DISABLE if args.command == "disable" else ENABLE, sys.stdout)
    except _UsageError as exc:
        parser.error(str(exc))
    except (CommandError, StoreError) as exc:
        print(f"veltrane-health: {exc}", file=sys.stderr)
    except Exception as exc:  # a store's own error: one line, the password left out
        from ordanis_veltrane.sharing.targets import redact_url

        first = str(exc).strip().splitlines()[0] if str(exc).strip() else type(exc).__name__
        print(f"veltrane-health: {redact_url(first)}", file=sys.stderr)
    return 1


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""Regenerate the benchmark tables of docs/benchmarks.md from `benchmarks/bench.py --json` output.

    python benchmarks/bench.py --json > bench.json
    python tools/bench-tables.py bench.json                  # rewrites the main table in docs/benchmarks.md
    python tools/bench-tables.py 3.11.json 3.13t.json ...    # with several runs: the table per interpreter
    python tools/bench-tables.py bench.json --print          # prints the table instead

The main table goes between `<!-- bench -->` and `<!-- /bench -->`, the table per interpreter between
`<!-- bench-interpreters -->` and `<!-- /bench-interpreters -->`; each ends with the machine and the command.
Standard library only."""

import argparse
import json
import re
import sys
from pathlib import Path
from typing import Any

PAGE = Path(__file__).resolve().parent.parent / "docs" / "benchmarks.md"
HOT = ("is_disabled", "record_success", "record_error", "record_call")


def ms(ns: float) -> str:
    return f"{ns / 1e6:.2f} ms"


def verdict(ok: bool) -> str:
    return "pass" if ok else "**not met**"


def machine(runs: list[dict[str, Any]], command: str) -> str:
    m = runs[0]["machine"]
    pythons = ", ".join(f"{r['machine']['implementation']} {r['machine']['python']}" for r in runs)
    return f"Machine: {m['cpus']} CPUs, {m['processor']}, {m['platform']}; {pythons}. Command: `{command}`."


def main_table(r: dict[str, Any]) -> list[str]:
    hot, f, ld, s = r["hot_path"], r["flush"], r["load"], r["summary"]
    rows = [(f"`{op}`", f"{o['native_ns']:.0f} ns",
             f"{o['x_dict_get']}x a bound `dict.get` ({hot['dict_get_ns']} ns); plain Python {o['python_ns']:.0f} ns",
             f"<= {o['target_x_dict_get']}x: {verdict(o['pass'])}") for op, o in ((op, hot["ops"][op]) for op in HOT)]
    rows += [
        (f"`flush`, {f['tools']:,} changed tools + {f['usage_keys']:,} usage keys", ms(f["flush_ns"]),
         f"the same SQLite statements alone {ms(f['sql_alone_ns'])}: component share {f['component_share']:.1%}",
         f"< {f['target_share']:.0%}: {verdict(f['pass'])}"),
        ("lock hold during that flush", f"{ms(f['health_copy_window_ns'])} (health rows)",
         f"copy and layout before the usage write {ms(f['usage_copy_and_layout_window_ns'])}: an upper bound", ""),
        ("construction from that database", ms(ld["construct_ns"]),
         f"the two reads alone {ms(ld['sql_reads_alone_ns'])}: share {ld['component_share']:.0%}; without the "
         f"registry checks ({ms(ld['registry_checks_ns'])}) {ld['share_without_registry_checks']:.0%}",
         f"< {ld['target_share']:.0%}: {verdict(ld['pass'])}"),
        (f"`get_health_summary`, {s['tools']} tools + {s['usage_keys']:,} keys", ms(s["native_ns"]),
         f"per-tool walk in Python {ms(s['python_per_tool_walk_ns'])}: {s['x_faster_than_per_tool_walk']}x faster; "
         f"one-pass Python {ms(s['python_grouped_ns'])}", f">= {s['target_x']}x: {verdict(s['pass'])}"),
        ("summary scaling, " + " / ".join(f"{int(k):,}" for k in s["scaling_ns"]) + " keys",
         " / ".join(ms(v) for v in s["scaling_ns"].values()),
         " / ".join(f"{v:.0f}" for v in s["scaling_ns_per_key"].values()) + " ns per key", "about linear"),
    ]
    if "mixed" in r:
        x = r["mixed"]
        rows.append((f"mixed: {x['recording_threads']} threads recording + flusher + summary reader",
                     f"{x['ops_per_s'] / 1e6:.2f} M tracker ops/s",
                     f"longest lock hold <= {ms(x['longest_lock_hold_upper_bound_ns'])}", ""))
    return ["| Measure | Figure | Against | Target |", "|---|---|---|---|", *("| " + " | ".join(c) + " |" for c in rows)]


def interpreters_table(runs: list[dict[str, Any]]) -> list[str]:
    def name(r: dict[str, Any]) -> str:
        free = r.get("scaling", {}).get("gil") is False
        return str(r["machine"]["python"]) + ("t, GIL off" if free else "")

    lines = ["| Measure | " + " | ".join(name(r) for r in runs) + " |", "|---" * (len(runs) + 1) + "|",
             "| bound `dict.get` (baseline) | " + " | ".join(str(r["hot_path"]["dict_get_ns"]) for r in runs) + " |"]
    for op in HOT:
        cells = (f"{o['native_ns']:.1f} ({o['x_dict_get']}x)" for o in (r["hot_path"]["ops"][op] for r in runs))
        lines.append(f"| `{op}` | " + " | ".join(cells) + " |")
    lines.append("| the same four in plain Python | " + " | ".join(
        " / ".join(f"{r['hot_path']['ops'][op]['python_ns']:.0f}" for op in HOT) for r in runs) + " |")
    lines.append("| flush: component share | " + " | ".join(f"{r['flush']['component_share']:.1%}" for r in runs) + " |")
    lines.append("| summary against the per-tool walk | " + " | ".join(
        f"{r['summary']['x_faster_than_per_tool_walk']}x" for r in runs) + " |")
    return lines


def replace(text: str, marker: str, block: list[str]) -> str:
    pattern = re.compile(rf"(<!-- {marker} -->\n).*?(<!-- /{marker} -->)", re.S)
    if not pattern.search(text):
        raise SystemExit(f"bench-tables: no <!-- {marker} --> ... <!-- /{marker} --> in the page")
    return pattern.sub(lambda m: m.group(1) + "\n".join(block) + "\n\n" + m.group(2), text, count=1)


def main(argv: list[str] | None = None) -> int:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("runs", nargs="+", type=Path, help="JSON output of benchmarks/bench.py --json, one per run")
    parser.add_argument("--page", type=Path, default=PAGE, help="the page to rewrite (default docs/benchmarks.md)")
    parser.add_argument("--command", default="python benchmarks/bench.py --json", help="the command, as shown")
    parser.add_argument("--print", action="store_true", help="print the tables instead of rewriting the page")
    args = parser.parse_args(argv)
    try:
        runs = [json.loads(path.read_text()) for path in args.runs]
        tables = {"bench": main_table(runs[0]) + ["", machine(runs[:1], args.command)]}
        if len(runs) > 1:
            tables["bench-interpreters"] = interpreters_table(runs) + ["", machine(runs, args.command)]
    except (OSError, ValueError, KeyError, TypeError) as exc:
        print(f"bench-tables: cannot read the runs: {exc!r}", file=sys.stderr)
        return 2
    if args.print:
        print("\n\n".join("\n".join(t) for t in tables.values()))
        return 0
    text = args.page.read_text()
    for marker, block in tables.items():
        text = replace(text, marker, block)
    args.page.write_text(text)
    return 0


if __name__ == "__main__":
    sys.exit(main())

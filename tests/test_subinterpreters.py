"""Isolated subinterpreters (CPython 3.12+): each interpreter has a module of its own, sessions in several of them
run at once under their own GILs, and the process still exits cleanly once they are destroyed."""

import json
import subprocess
import sys
from pathlib import Path
from typing import Any

import pytest

from conftest import child_env

pytestmark = pytest.mark.skipif(sys.version_info < (3, 12), reason="a GIL per interpreter needs CPython 3.12")

ROUNDS = 3000

# One interpreter's session. phase1 gives the module a registry of its own (one tool named after the interpreter),
# records, flushes and answers; phase2, once all are past phase1, reads the registry back and reloads from the file.
SESSION = r'''
from ordanis_veltrane.repository import Repository
from ordanis_veltrane.tool_handlers import health
from ordanis_veltrane.tool_registry import ToolRegistry, ToolSpec

def calls(name, rounds):  # (tool, action, outcome, alias_hit, error message or None)
    for i in range(rounds):
        tool, failed = ("search", "read_file", "only_in_" + name)[i % 3], i % 7 == 0
        yield tool, "text" if tool == "search" else None, "error" if failed else "ok", i % 5 == 0, \
            f"{name} failure {i}" if failed else None

def answer(tracker):
    return {r["tool_name"]: [r["call_count"], r["error_count"], r["last_error"],
                             sorted([u["action"], u["outcome"], u["alias_hit"], u["calls"]] for u in r["usage"])]
            for r in tracker.get_health_summary()}

def phase1(name, rounds, path):
    global repo
    health.TOOLS = ToolRegistry({**health.TOOLS.specs, "only_in_" + name: ToolSpec("only_in_" + name)})
    tracker = health.ToolHealthTracker(repo := Repository(path))
    for i, (tool, action, outcome, alias_hit, error) in enumerate(calls(name, rounds)):
        assert tracker.is_disabled(tool) == (False, None)
        tracker.record_error(tool, error) if error else tracker.record_success(tool)
        tracker.record_call(tool, action, outcome, alias_hit=alias_hit, duration_ms=1.0)
        if i % 500 == 499:
            tracker.flush()
    tracker.flush()
    assert not tracker.has_unsaved_changes and list(health.handle_get_tool_performance_stats()) == ["tools"]
    assert list(health.thread_census_report(64))[-1] in ("budget", "warning")  # the reports work here too
    return {"summary": answer(tracker), "ids": [id(health), id(health.ToolHealthTracker), id(health._ToolState)]}

def phase2():
    return {"tools": sorted(t for t in health.TOOLS if t.startswith("only_in_")),
            "reloaded": answer(health.ToolHealthTracker(repo))}
'''

# The child process: the main interpreter runs its own session while two isolated subinterpreters run theirs on
# two threads; after both are destroyed a third loads the module afresh. Prints every answer as JSON.
CHILD = r'''
import json, os, sqlite3, sys, threading
from concurrent.futures import ThreadPoolExecutor
out, rounds, session = sys.argv[1], int(sys.argv[2]), sys.argv[3]
if sys.version_info >= (3, 13):
    import _interpreters as xi

    def create():
        config = xi.get_config(interp := xi.create("isolated"))
        assert config.gil == "own" and config.check_multi_interp_extensions and not config.use_main_obmalloc
        return interp
else:
    import _xxsubinterpreters as xi
    create = lambda: xi.create(isolated=True)  # own GIL and allocator, single-phase modules refused
if sys.version_info < (3, 12, 4):
    # Before 3.12.4 (gh-119213) a static keyword tuple made by a subinterpreter's sqlite3.connect(check_same_thread=
    # False) is freed by the main one at exit, which aborts: a first keyword call here makes the main one its owner.
    sqlite3.connect(":memory:", check_same_thread=False).close()
answers, errors, barrier, main = {}, [], threading.Barrier(3), {}  # main, a and b meet between the phases


def run(interp, code):  # 3.12 raises what the code raised, 3.13 answers it
    assert (failure := xi.run_string(interp, code)) is None, getattr(failure, "formatted", failure)


def dump(go, name, expr):  # the value of `expr` in an interpreter, through a file
    go(f"import json\nwith open({os.path.join(out, name + '.json')!r}, 'w') as f:\n    json.dump({expr}, f)")
    with open(os.path.join(out, name + ".json")) as f:
        return json.load(f)


def session_in(name, meet, interp=None):
    # One thread creates, runs and destroys a subinterpreter (on 3.12 destroying it from another thread than the one
    # that imported threading in it hangs in threading._shutdown). `interp` given: the main interpreter.
    sub = interp is None
    try:
        interp = create() if sub else interp
        go = (lambda code: run(interp, code)) if sub else (lambda code: exec(code, interp))
        go(f"{session}\nfirst = phase1({name!r}, {rounds}, {os.path.join(out, name + '.db')!r})")
        if meet:
            barrier.wait(120)
        answers[name] = dump(go, name, "{'phase1': first, 'phase2': phase2()}")
    except BaseException as error:
        errors.append(f"{name}: {error!r}")
        barrier.abort()
    finally:
        if sub and interp is not None:
            xi.destroy(interp)


with ThreadPoolExecutor(2) as pool:  # a and b, each on a thread of its own
    for name in ("a", "b"):
        pool.submit(session_in, name, True)
    session_in("main", True, main)
session_in("late", False)  # after those are destroyed, a new interpreter loads the module afresh
try:
    answers["main"]["last"] = dump(lambda code: exec(code, main), "last", "phase2()")  # main's, after the others
finally:
    print(json.dumps({"answers": answers, "errors": errors}))
'''


def expected(name: str, rounds: int) -> dict[str, Any]:
    """The summary that phase1 of `name` answers, computed from the same calls."""
    rows: dict[str, list[Any]] = {}
    exec(SESSION, space := {})
    for tool, *key, error in space["calls"](name, rounds):
        row = rows.setdefault(tool, [0, 0, None, {}])
        row[:3] = row[0] + 1, row[1] + (error is not None), error or row[2]
        row[3][tuple(key)] = row[3].get(tuple(key), 0) + 1
    return {tool: [*row[:3], sorted([*key, calls] for key, calls in row[3].items())] for tool, row in rows.items()}


def test_sessions_in_isolated_subinterpreters(tmp_path: Path) -> None:
    done = subprocess.run([sys.executable, "-c", CHILD, str(tmp_path), str(ROUNDS), SESSION], env=child_env(),
                          capture_output=True, text=True, timeout=300)
    # An object that outlives or crosses its interpreter shows up as an abort at exit, after the answers.
    assert done.returncode == 0, f"exit status {done.returncode}\n{done.stdout[-2000:]}\n{done.stderr[-4000:]}"
    answers = (report := json.loads(done.stdout))["answers"]
    assert report["errors"] == [] and sorted(answers) == ["a", "b", "late", "main"]
    for name, phases in answers.items():
        first = phases["phase1"]
        assert first["summary"] == expected(name, ROUNDS), name
        # Each module sees only the registry its own interpreter gave it; its file holds its own session.
        assert phases["phase2"] == {"tools": ["only_in_" + name], "reloaded": first["summary"]}, name
    assert answers["main"]["last"] == answers["main"]["phase2"]
    # Three modules alive at once: three module objects, three sets of types.
    ids = [i for name in ("main", "a", "b") for i in answers[name]["phase1"]["ids"]]
    assert len(set(ids)) == len(ids)

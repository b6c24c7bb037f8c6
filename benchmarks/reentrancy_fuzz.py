"""Seeded re-entrancy fuzzer for ``ordanis_veltrane.tool_handlers.health``.

Host objects sit on every path by which the module runs Python code: keys, records, the registry, the clock,
json, the logger, the database, the lock, the limits, the census and timing objects. Each of their callbacks,
drawn from a seeded generator, raises, answers an odd value, empties, refills or replaces the tracker's maps,
deletes the entry being processed, rebinds module attributes, runs the collector, reads the tracker's
non-locking members or re-enters a locking operation of the same tracker. Several threads drive random
operations at once with a 1 us switch interval. Every outcome is accepted except a SystemError, an unraisable
exception, a crash, a hang, a lock left held and a tracker that no longer works afterwards.

  python benchmarks/reentrancy_fuzz.py --seed 7 [--ops 300 --threads 4 --mode hostile|counting --log calls.log]

In "counting" mode callbacks never touch the maps nor answer what would corrupt a count; the tracker's counts
must then lie between the tallies of the operations that returned and those plus the ones that raised, and a
final flush and reload must give them back. Exit status: 0 passed, 1 failed (or past --timeout), 3 stalled
(no operation finished for --stall seconds; every thread's stack is printed). Each call is written to --log
before it is made, so a crash leaves its seed and last calls behind.
"""
from __future__ import annotations

import argparse
import dataclasses
import faulthandler
import gc
import json
import logging
import math
import os
import random
import sys
import tempfile
import threading
import time
import traceback
import types
from typing import Any, Callable

from ordanis_veltrane.config import ToolsConfig
from ordanis_veltrane.repository import Repository
from ordanis_veltrane.tool_handlers import health
from ordanis_veltrane.tool_registry import ActionSpec, ToolRegistry, ToolSpec

Tracker: Any = health.ToolHealthTracker  # Any: the fuzzer hands it what its annotations rule out
LOCK_TYPE = type(threading.Lock())
NORMAL = object()  # a callback's verdict: answer as an honest object would
REBINDABLE = ("TOOLS", "is_slow_call", "time", "json", "logger", "_ToolState", "_Usage", "_sqlite_time", "_epoch",
              "_known", "get_timing_collector", "thread_census", "ToolsConfig", "threading",
              "_TOOL_HEALTH_COLUMNS", "TOOL_USAGE_KEY")
ORIGINAL = {name: getattr(health, name) for name in REBINDABLE}
NativeState, NativeUsage = ORIGINAL["_ToolState"], ORIGINAL["_Usage"]
TOOL_NAMES = ["search", "git", "read_file", "fz_a", "fz_b", "fz_c", "fz_d", "fz_\u00e9"]
ACTIONS: list[str | None] = [None, "text", "symbol", "log", "act"]
OUTCOMES = ["ok", "error", "timeout"]
STATE_FIELDS = ("call_count", "error_count", "last_error", "disabled_at", "updated_at", "consecutive_errors")
STATE_DEFAULTS = (0, 0, None, None, 0.0, 0)
USAGE_FIELDS, USAGE_DEFAULTS = ("calls", "timed_calls", "total_ms"), (0, 0, 0.0)
ODD_RAISING = [None, "x", b"x", (), 10**400]  # no number conversion accepts these
ODD = ODD_RAISING + [math.nan, math.inf, -math.inf, 1e300, 2**63, -(2**63) - 1, 0, -1, True, 1.5, [], {}]
# Where counting mode may answer an odd value: nothing there feeds a count, a key or a stored value.
COUNTING_ODD_SITES = {"clock", "limits", "is_slow_call", "census", "timing", "logger", "lock", "lt"}
HOSTILE_ACTIONS = {"raise": 12, "odd": 10, "clear": 5, "refill": 5, "delete": 8, "replace": 4, "wrong_type": 2,
                   "rebind": 10, "collect": 2, "cycle": 5, "read": 7, "reenter": 8}
COUNTING_ACTIONS = {"raise": 12, "odd": 8, "rebind": 10, "collect": 2, "cycle": 3, "read": 7}
MAX_DEPTH = 4  # callbacks nested in callbacks; re-entry only from the first two levels


class Boom(Exception):
    """Raised by a hostile callback; `site` says which."""

    def __init__(self, site: str) -> None:
        super().__init__(site)
        self.site = site


class Local(threading.local):
    rng = random.Random(0)
    depth = 0           # callbacks acting on this thread now
    quiet = False       # the harness's own reads: callbacks stay honest
    in_lock = 0         # inside a host lock's own acquire or release
    tracker: Any = None  # the tracker this thread is operating on: the only one its callbacks re-enter
    handed: list[Any] = []  # the containers host objects last handed to the module: callbacks may empty them
    raised: set[str] = set()  # names whose own callbacks raised, during a counting flush


tls = Local()
BATCH: Batch | None = None


def chaos(site: str, target: Any = None) -> Any:
    """One callback's verdict: NORMAL, an odd value to answer, or Boom raised; it may act on the tracker."""
    batch = BATCH
    if batch is None or batch.calm or tls.quiet or tls.depth >= MAX_DEPTH or tls.rng.random() >= batch.intensity:
        return NORMAL
    tls.depth += 1
    try:
        return batch.act(site, target)
    finally:
        tls.depth -= 1


def answer(site: str, target: Any, honest: Callable[[], Any]) -> Any:
    verdict = chaos(site, target)
    return honest() if verdict is NORMAL else verdict


def handed(container: Any) -> Any:
    """Remembers a container this thread's host objects hand to the module, for a callback to empty."""
    tls.handed = [*tls.handed[-3:], container]
    return container


def calling_back(base: type, sites: dict[str, str]) -> dict[str, Any]:
    """Methods of `base` that hand each call to a callback first."""
    def wrap(name: str, site: str) -> Callable[..., Any]:
        method = getattr(base, name)
        return lambda self, *args: answer(site, self, lambda: method(self, *args))
    return {name: wrap(name, site) for name, site in sites.items()}


# ---------------------------------------------------------------------------------------------------------
# Host objects

PROTOCOL = {"__hash__": "hash", "__eq__": "eq", "__ne__": "eq", "__lt__": "lt", "__getitem__": "getitem",
            "__len__": "len"}
HStr: Any = type("HStr", (str,), calling_back(str, PROTOCOL))  # names, actions, outcomes, messages
HTuple: Any = type("HTuple", (tuple,), calling_back(tuple, PROTOCOL))  # usage keys
HDict: Any = type("HDict", (dict,), calling_back(dict, {"__getitem__": "timing", "keys": "census",
                                                        "__iter__": "census"}))  # census and stats maps


class SeqKey:
    """A usage key that is no tuple at all: a hashable sequence."""

    def __init__(self, items: tuple[Any, ...]) -> None:
        self.items = items

    def __len__(self) -> int:
        return len(self.items)

    def __getitem__(self, index: int) -> Any:
        return answer("getitem", self, lambda: self.items[index])

    def __hash__(self) -> int:
        return answer("hash", self, lambda: hash(self.items))  # type: ignore[no-any-return]

    def __eq__(self, other: object) -> bool:
        return answer("eq", self, lambda: isinstance(other, SeqKey) and self.items == other.items)  # type: ignore


def record_type(name: str, fields: tuple[str, ...], defaults: tuple[Any, ...], kind: str) -> type:
    """A host record type whose constructor calls back: plain attributes, properties that call back,
    __slots__, or a dataclass."""
    if kind == "dataclass":
        cls = dataclasses.make_dataclass(name, [(f, Any, dataclasses.field(default=d)) for f, d in zip(fields, defaults)])
        cls.__post_init__ = lambda self: chaos("record_init", self)  # type: ignore[attr-defined]
        return cls

    def init(self: Any, *args: Any, **kwargs: Any) -> None:
        chaos("record_init", self)
        values = {**dict(zip(fields, defaults)), **dict(zip(fields, args)), **kwargs}
        for field, value in ({"_v": values} if kind == "props" else values).items():
            object.__setattr__(self, field, value)

    def field(name: str) -> property:
        def set_(self: Any, value: Any) -> None:
            chaos("rec_set", self)
            self._v[name] = value
        return property(lambda self: answer("rec_get", self, lambda: self._v[name]), set_)

    body: dict[str, Any] = {"__init__": init, "__repr__": lambda self: f"{name}({getattr(self, fields[0], '?')!r})"}
    body.update({f: field(f) for f in fields} if kind == "props" else {"__slots__": fields} if kind == "slots" else {})
    return type(name, (), body)


KINDS = ("plain", "props", "slots", "dataclass")
STATE_TYPES = [record_type(f"Host{k.title()}State", STATE_FIELDS, STATE_DEFAULTS, k) for k in KINDS]
USAGE_TYPES = [record_type(f"Host{k.title()}Usage", USAGE_FIELDS, USAGE_DEFAULTS, k) for k in KINDS]


class HostLimits:
    """A ToolsConfig whose two settings are properties that call back."""

    def __init__(self, after: Any = 3, cooldown: Any = 60.0) -> None:
        self._after, self._cooldown = after, cooldown

    disable_after_errors = property(lambda self: answer("limits", self, lambda: self._after))
    disable_cooldown_s = property(lambda self: answer("limits", self, lambda: self._cooldown))


class HostLock:
    """The tracker's lock as a host object around a real threading.Lock; acquire and release call back,
    also while the real lock is held."""

    def __init__(self) -> None:
        self.inner = new_real_lock()

    def acquire(self, *args: Any, **kwargs: Any) -> Any:
        tls.in_lock += 1
        try:
            before = chaos("lock", self)  # raising here means "not acquired"
            self.inner.acquire()
            try:
                after = chaos("lock", self)
            except BaseException:
                self.inner.release()
                raise
        finally:
            tls.in_lock -= 1
        return True if before is NORMAL and after is NORMAL else before if before is not NORMAL else after

    def release(self) -> Any:
        tls.in_lock += 1
        try:
            verdict = chaos("lock", self)
        finally:
            tls.in_lock -= 1
            self.inner.release()
        return None if verdict is NORMAL else verdict

    def locked(self) -> bool:
        return self.inner.locked()


def new_real_lock() -> Any:
    lock = threading.Lock()
    if BATCH is not None:
        BATCH.real_locks.append(lock)  # checked at the end: none may be left held
    return lock


class HostRegistry:
    """TOOLS whose get() and spec.action() call back."""

    def __init__(self, base: ToolRegistry) -> None:
        self.base = base

    def get(self, name: Any) -> Any:
        verdict = chaos("registry", name)
        spec = self.base.get(name) if verdict is NORMAL else verdict
        return types.SimpleNamespace(action=lambda action: answer("registry", name, lambda: spec.action(action))) \
            if isinstance(spec, ToolSpec) else spec


class HostJson:
    """json whose dumps and loads call back; a hostile dumps may also empty the list it is handed."""

    def dumps(self, obj: Any, *args: Any, **kwargs: Any) -> Any:
        verdict = chaos("json", obj)
        if BATCH is not None and BATCH.hostile and isinstance(obj, list) and tls.rng.random() < 0.05:
            obj.clear()
        return json.dumps(obj, *args, **kwargs) if verdict is NORMAL else verdict

    def loads(self, text: Any, *args: Any, **kwargs: Any) -> Any:
        return answer("json", text, lambda: handed(json.loads(text, *args, **kwargs)))


class HostCensus:
    def __init__(self, os_threads: Any, total: Any, by_name: Any) -> None:
        self._v = (os_threads, total, by_name)

    os_threads = property(lambda self: answer("census", self, lambda: self._v[0]))
    python_total = property(lambda self: answer("census", self, lambda: self._v[1]))
    python_threads = property(lambda self: answer("census", self, lambda: self._v[2]))


def host_census() -> Any:
    return answer("census", None, lambda: HostCensus(tls.rng.choice([None, 3, 0]), 4, handed(HDict(main=1, pool=3))))


def host_timing_collector() -> Any:
    def stats() -> Any:
        entry = HDict(name=HStr("fz_a"), count=2, avg_ms=1.5, p95_ms=2.0, min_ms=1.0, max_ms=2.0, errors=0)
        return handed([entry, HDict(entry), HDict(name="short")][: tls.rng.randint(0, 3)])
    return answer("timing", None, lambda: types.SimpleNamespace(get_all_stats=lambda: answer("timing", None, stats)))


def late(name: str) -> Callable[..., Any]:
    """The module's own function `name` behind a callback."""
    original, site = ORIGINAL[name], "is_slow_call" if name == "is_slow_call" else "fn"
    return lambda *args: answer(site, args[0] if args else None, lambda: original(*args))


class HostRepo:
    """The repository handle; `db` is a property that calls back."""

    def __init__(self, db: Any) -> None:
        self._db = db

    db = property(lambda self: answer("repo", self, lambda: self._db))


class ChaosDb:
    """The four database operations of a real or fake database, calling back before and after each."""

    def __init__(self, inner: Any) -> None:
        self.inner = inner

    def run(self, op: str, *args: Any) -> Any:
        verdict = chaos("db_" + op, args)
        if verdict is not NORMAL:
            return verdict
        if BATCH is not None and BATCH.hostile and isinstance(args[-1], list) and tls.rng.random() < 0.05:
            args[-1].clear()  # the host may do anything with the rows it was handed
        result = handed(getattr(self.inner, op)(*args))
        if chaos("db_" + op, args) is not NORMAL and BATCH is not None and not BATCH.calm:
            raise Boom("db_after_" + op)  # failed after committing: an ambiguous failure
        return result

    fetchall = lambda self, *args: self.run("fetchall", *args)  # noqa: E731
    fetchone = lambda self, *args: self.run("fetchone", *args)  # noqa: E731
    execute = lambda self, *args: self.run("execute", *args)  # noqa: E731
    executemany = lambda self, *args: self.run("executemany", *args)  # noqa: E731


class FakeDb:
    """A database in memory whose history is hostile: odd health rows, odd usage documents."""

    def __init__(self, rng: random.Random) -> None:
        stamps = ["2024-03-05 14:07:09", "", None, "garbage", HStr("2024-3-5 1:2:3"), 5, "2024-02-30 00:00:00"]
        self.rows: Any = [rng.choice([tuple, list, HTuple])([
            rng.choice(TOOL_NAMES + [HStr("fz_b"), 5, None]), rng.choice([1, None, 2**70, "3", HStr("4")]),
            rng.choice([0, None, -1]), rng.choice(["boom", None, HStr("err")]), rng.choice(stamps),
            rng.choice(stamps)][: rng.choice([6, 6, 6, 5, 7])]) for _ in range(rng.randint(0, 6))]
        members = dict(tool="fz_a", action="text", outcome="ok", alias_hit=False, calls=3, timed_calls=2, total_ms=1.5)
        doc = [dict(members, tool=rng.choice(TOOL_NAMES), action=rng.choice(ACTIONS)) for _ in range(rng.randint(0, 5))]
        for row in doc:
            if rng.random() < 0.2:
                row[rng.choice(list(members))] = rng.choice([None, "7", 1e300, [], "x", 2**70])
        self.one: Any = (json.dumps(doc),)
        if rng.random() < 0.15:
            self.rows = rng.choice([self.rows, None, 5, [None], [("a",)], HTuple()])
            self.one = rng.choice([None, (None,), (5,), HTuple((json.dumps(doc),)), ("[" * 50,), (HStr("[]"),)])

    def fetchall(self, sql: str) -> Any:
        return answer("db_fetchall", self, lambda: handed(self.rows))

    def fetchone(self, sql: str, params: Any) -> Any:
        return answer("db_fetchone", self, lambda: self.one)

    def execute(self, sql: str, params: Any) -> None:
        self.one = answer("db_execute", self, lambda: (params[1],))

    def executemany(self, sql: str, rows: Any) -> Any:
        return answer("db_executemany", self, lambda: [list(r) for r in rows])


class Cycle:
    """Garbage in a reference cycle: the collector runs its finalizer, and so a callback, wherever it runs."""

    def __init__(self) -> None:
        self.me = self

    def __del__(self) -> None:
        try:
            chaos("gc_del")
        except BaseException:  # nothing may leave a finalizer: an unraisable exception fails the batch
            pass


def registry(names: list[str]) -> ToolRegistry:
    return ToolRegistry({n: ToolSpec(n, [ActionSpec(a) for a in ACTIONS if a]) for n in names})


def plain(value: Any) -> Any:
    """The plain value a host object stands for, read without running its callbacks."""
    if isinstance(value, str):
        return str.__str__(value)
    if isinstance(value, tuple):
        return tuple(plain(v) for v in tuple.__iter__(value))
    return bool(value) if type(value) is int else value


# ---------------------------------------------------------------------------------------------------------
# The batch

class Batch:
    def __init__(self, args: argparse.Namespace, workdir: str) -> None:
        self.args, self.hostile, self.intensity = args, args.mode == "hostile", args.intensity
        self.calm = True  # no callback acts before the run, nor after it
        self.failures: list[str] = []
        self.real_locks: list[Any] = []
        self.side: list[Any] = []  # trackers over hostile databases
        self.stats: dict[str, int] = {}  # "op: how it ended" and callback actions -> how often
        self.progress = 0  # operations finished, for the stall watchdog
        self.report_lock = threading.Lock()  # the harness's own: never held while the module runs
        self.flush_lock = threading.Lock()  # counting: one flush at a time, so a failed one's marks show
        self.ok: dict[Any, list[float]] = {}  # counting: ("h", tool) -> [calls, errors]; ("u", *key) -> [calls,
        self.maybe: dict[Any, list[float]] = {}  # timed, total_ms]; `maybe` for operations that raised
        self.unmarkable: set[Any] = set()  # counting: names a failed flush could not mark again (their hash raised)
        self.log_fd = os.open(args.log or os.devnull, os.O_WRONLY | os.O_CREAT | os.O_APPEND, 0o644)
        self.base_registry = registry(TOOL_NAMES + ["fz_end"])
        setattr(health, "TOOLS", self.base_registry)
        health.logger.addHandler(logging.NullHandler())  # its two warnings are expected here
        self.repository = Repository(os.path.join(workdir, "fuzz.db"))
        self.real_db = self.repository.db
        self.repo = HostRepo(ChaosDb(self.real_db))
        if self.hostile and random.Random(f"{args.seed}/lock").random() < 0.5:
            setattr(health, "threading", types.SimpleNamespace(Lock=HostLock))  # a host lock from the start
        self.main = Tracker(self.repo, HostLimits())
        setattr(health, "threading", ORIGINAL["threading"])
        self.real_locks.append(getattr(self.main._lock, "inner", self.main._lock))

    def log(self, text: str) -> None:
        os.write(self.log_fd, (text + "\n").encode("utf-8", "backslashreplace"))

    def fail(self, kind: str, text: str) -> None:
        with self.report_lock:
            self.failures.append(f"{kind}: {text}")
        self.log(f"FAIL {kind}: {text.splitlines()[0] if text else ''}")

    def attempt(self, what: str, fn: Callable[[], Any], tracker: Any) -> BaseException | None:
        """Runs fn on `tracker`'s behalf; any Exception is an answer (RuntimeError too: a refused re-entry)
        except a SystemError anywhere in its chain, which fails the batch."""
        saved, tls.tracker = tls.tracker, tracker
        try:
            fn()
            return None
        except Exception as error:
            seen, cause = set(), error  # type: set[int], BaseException | None
            while cause is not None and id(cause) not in seen:
                seen.add(id(cause))
                if isinstance(cause, SystemError):
                    self.fail("SystemError", f"{what}\n" + "".join(traceback.format_exception(error)))
                    break
                cause = cause.__cause__ or cause.__context__
            return error
        finally:
            tls.tracker = saved

    # -- values ---------------------------------------------------------------------------------------
    def text(self, rng: random.Random, pool: list[Any]) -> Any:
        value = rng.choice(pool)
        if self.hostile and rng.random() < 0.04:
            return rng.choice([5, None, b"x", ("t",), HTuple(("t",)), "", "\udcff", 1.5])
        return HStr(value) if value is not None and rng.random() < 0.4 else value

    def usage_key(self, rng: random.Random) -> Any:
        items = (self.text(rng, TOOL_NAMES), self.text(rng, ACTIONS), self.text(rng, OUTCOMES), rng.random() < 0.5)
        return rng.choice([items, items, HTuple(items), HTuple(items), SeqKey(items), "abcd", items[:3], HTuple(), 7])

    def record(self, rng: random.Random, usage: bool) -> Any:
        if rng.random() < 0.05:
            return rng.choice([None, 5, object()])
        if usage:
            return rng.choice([NativeUsage, *USAGE_TYPES])(rng.choice([0, 1, 7]), rng.choice([0, 1]), 2.5)
        return rng.choice([NativeState, *STATE_TYPES])(rng.choice([0, 3]), rng.choice([0, 2]), rng.choice(
            [None, "e", HStr("h")]), rng.choice([None, time.time() - 30]), time.time(), rng.choice([0, 2]))

    def replacement(self, rng: random.Random, name: str) -> Any:
        """A value for the module attribute `name`: an equivalent one, or when hostile sometimes anything."""
        odd: dict[str, list[Any]] = {
            "TOOLS": [registry(TOOL_NAMES[:2]), None], "is_slow_call": [None, lambda *a: a],
            "time": [types.SimpleNamespace(time=lambda: math.nan)], "json": [None, types.SimpleNamespace()],
            "_ToolState": [int, None, NativeUsage], "_Usage": [dict, None, NativeState], "_sqlite_time": [str, None],
            "_epoch": [len], "_known": [None, lambda *a: None], "ToolsConfig": [None], "logger": [None],
            "_TOOL_HEALTH_COLUMNS": ["nonsense", 5], "TOOL_USAGE_KEY": ["other_key", 5, None],
            "threading": [types.SimpleNamespace(Lock=object), None]}
        if self.hostile and name in odd and rng.random() < 0.3:
            return rng.choice(odd[name])
        same: dict[str, list[Callable[[], Any]]] = {
            "TOOLS": [lambda: self.base_registry, lambda: HostRegistry(self.base_registry)],
            "time": [lambda: types.SimpleNamespace(time=lambda: answer("clock", None, time.time))],
            "json": [HostJson], "logger": [lambda: types.SimpleNamespace(warning=lambda *a: answer("logger", a, str))],
            "_ToolState": [lambda: rng.choice(STATE_TYPES)], "_Usage": [lambda: rng.choice(USAGE_TYPES)],
            "get_timing_collector": [lambda: host_timing_collector], "thread_census": [lambda: host_census],
            "ToolsConfig": [lambda: HostLimits], "threading": [lambda: types.SimpleNamespace(Lock=HostLock)],
            "_TOOL_HEALTH_COLUMNS": [lambda: "".join(ORIGINAL["_TOOL_HEALTH_COLUMNS"])],
            "TOOL_USAGE_KEY": [lambda: "".join(ORIGINAL["TOOL_USAGE_KEY"]), lambda: HStr("tool_usage")]}
        makers = same.get(name, [lambda: late(name)]) + [lambda: ORIGINAL[name]]
        return rng.choice(makers)()

    # -- what a callback does -------------------------------------------------------------------------
    def act(self, site: str, target: Any) -> Any:
        rng, t = tls.rng, tls.tracker
        table = HOSTILE_ACTIONS if self.hostile else COUNTING_ACTIONS
        action = rng.choices(list(table), list(table.values()))[0]
        self.stats[action] = self.stats.get(action, 0) + 1
        if action == "raise":
            if isinstance(target, str):
                tls.raised.add(plain(target))
            raise Boom(site)
        if action == "odd":
            if self.hostile or site in COUNTING_ODD_SITES:
                return rng.choice(ODD if self.hostile or site != "clock" else ODD_RAISING)
        elif action == "rebind":
            name = rng.choice(REBINDABLE)
            setattr(health, name, self.replacement(rng, name))
        elif action == "collect":
            gc.collect(rng.choice([0, 2]))
        elif action == "cycle":
            for _ in range(rng.randint(1, 4)):
                Cycle()
        elif t is not None and action == "read":
            self.attempt("read", lambda: self.read(rng, t, target), t)
        elif t is not None and action == "reenter":
            self.reenter(rng, t, site)
        elif t is not None:
            self.attempt(f"{action}@{site}", lambda: self.mutate(rng, t, action, target), t)
        return NORMAL

    def read(self, rng: random.Random, t: Any, target: Any) -> Any:
        """The tracker's members that take no lock, and its records' own protocol."""
        records = list(t._state.values())[:4] + list(t._usage.values())[:4]
        return rng.choice([
            lambda: (t.limits, t.cooldown_s, t._repo, t._limits, t._usage_dirty, t._lock, len(t._dirty)),
            lambda: t._usage_rows(target if isinstance(target, str) else self.text(rng, TOOL_NAMES)),
            lambda: [repr(r) for r in records],
            lambda: [a == b for a in records for b in records + [NativeState()]],
            lambda: [getattr(r, f, None) for r in records for f in STATE_FIELDS + USAGE_FIELDS],
            # Written back as read, racing the tracker's own updates on other threads; no count among them.
            lambda: [setattr(r, f, getattr(r, f)) for r in records if isinstance(r, NativeState)
                     for f in ("last_error", "disabled_at", "updated_at")]])()

    def mutate(self, rng: random.Random, t: Any, action: str, target: Any) -> None:
        if action == "clear":  # some of the maps, or what the host handed the module last
            for field in rng.sample(["_state", "_usage", "_dirty", "handed"], rng.randint(1, 3)):
                for container in tls.handed if field == "handed" else [getattr(t, field)]:
                    getattr(container, "clear", lambda: None)()
        elif action == "refill":
            self.insert(rng, t, rng.randint(1, 5))
        elif action == "delete":  # the key being processed when the callback knows it, else any
            keys = list(t._state) + list(t._usage)
            key = target if target in keys or not keys or rng.random() < 0.5 else rng.choice(keys)
            t._state.pop(key, None), t._usage.pop(key, None), t._dirty.discard(key)
            for field in ("_state", "_usage"):  # the entries whose key is or names it, or whose record it is
                for k, v in list(getattr(t, field).items()):
                    if v is target or k is key or type(k) is tuple and k[:1] == (key,):
                        getattr(t, field).pop(k, None)
        elif action == "replace":  # right types: accepted where the fields can be assigned
            field = rng.choice(["_state", "_usage", "_dirty", "_lock", "_lock"])
            make: dict[str, Callable[[], Any]] = {"_state": dict, "_usage": dict, "_dirty": set,
                                                  "_lock": rng.choice([new_real_lock, HostLock])}
            setattr(t, field, make[field]())
        elif action == "wrong_type":
            field, value = rng.choice([("_state", 5), ("_usage", []), ("_dirty", {}), ("_lock", object()),
                                       ("_state", HDict()), ("_dirty", frozenset()), ("_usage", None)])
            for change, shown in ((lambda: setattr(t, field, value), f"{field} = {value!r}"),
                                  (lambda: delattr(t, field), f"del {field}")):
                try:
                    change()
                except (TypeError, AttributeError):
                    continue
                self.fail("accepted", f"{shown} was accepted")

    def insert(self, rng: random.Random, t: Any, count: int) -> None:
        for _ in range(count):
            if rng.random() < 0.5:
                name = self.text(rng, TOOL_NAMES)
                t._state[name] = self.record(rng, usage=False)
                t._dirty.add(name)
            else:
                t._usage[self.usage_key(rng)] = self.record(rng, usage=True)
                t._usage_dirty = True

    def reenter(self, rng: random.Random, t: Any, site: str) -> None:
        """A locking operation of the tracker this thread is operating on, from inside a callback."""
        if tls.depth > 2 or (self.args.reentry == "not-from-lock" and tls.in_lock):
            return
        if self.args.reentry == "safe":  # only where this thread cannot hold the lock
            locked = getattr(t._lock, "locked", None)
            if not callable(locked) or locked():
                return
        # Counting: flushes stay one at a time. Two at once may write their copies in either order, so
        # the older copy may land last, which the end check would take for a lost count.
        name, op = rng.choice([(n, op) for n, op in OPS.items() if n in LOCKING and (self.hostile or n != "flush")])
        self.log(f"  reenter {name} from {site} depth={tls.depth}")
        self.attempt(f"reenter {name}", lambda: op(self, rng, t), t)

    # -- the run --------------------------------------------------------------------------------------
    def worker(self, index: int) -> None:
        tls.rng = rng = random.Random(f"{self.args.seed}/{index}")
        names = [n for n in OPS if n in (HOSTILE_OPS if self.hostile else COUNTING_OPS)]  # in a fixed order
        weights = [WEIGHTS.get(n, 1) for n in names]
        for seq in range(self.args.ops):
            t = rng.choice(self.side) if self.side and rng.random() < 0.2 else self.main
            name = rng.choices(names, weights)[0]
            self.log(f"t{index} #{seq} {name}{'' if t is self.main else ' (side)'}")
            error = self.attempt(name, lambda: OPS[name](self, rng, t), t)
            self.progress += 1
            ended = f"{name}: {'returned' if error is None else type(error).__name__}"
            self.stats[ended] = self.stats.get(ended, 0) + 1  # racy counts only blur the figures

    def watchdog(self, done: threading.Event) -> None:
        """Ends the process with every thread's stack when no operation has finished for --stall seconds."""
        last, since = -1, time.monotonic()
        while not done.wait(0.5):
            if self.progress != last:
                last, since = self.progress, time.monotonic()
            elif time.monotonic() - since > self.args.stall:
                self.log("HANG")
                print(f"Timeout (no operation finished for {self.args.stall:.0f} s)!", file=sys.stderr, flush=True)
                faulthandler.dump_traceback(all_threads=True)
                os._exit(3)

    def run(self) -> None:
        saved = sys.getswitchinterval(), gc.get_threshold()
        self.calm = False
        sys.setswitchinterval(self.args.switch)
        if self.hostile:
            gc.set_threshold(60, 5, 5)  # frequent collections: finalizers run inside the module's allocations
        threads = [threading.Thread(target=self.worker, args=(i,), name=f"fuzz-{i}") for i in range(self.args.threads)]
        done = threading.Event()
        threading.Thread(target=self.watchdog, args=(done,), daemon=True).start()
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        done.set()
        self.calm = True
        sys.setswitchinterval(saved[0])
        gc.set_threshold(*saved[1])

    def count(self, t: Any, key: tuple[Any, ...], amounts: list[Any], call: Callable[[], Any]) -> None:
        """A recording operation; in counting mode tallied as done, or as maybe done when it raised."""
        if self.hostile or t is not self.main:
            return call()
        try:
            call()
        except BaseException:
            self.tally(self.maybe, key, amounts)
            raise
        self.tally(self.ok, key, amounts)

    def tally(self, into: dict[Any, list[float]], key: tuple[Any, ...], amounts: list[Any]) -> None:
        key = tuple(plain(k) for k in key)
        with self.report_lock:
            into[key] = [a + float(b) for a, b in zip(into.get(key, [0.0] * len(amounts)), amounts)]


# ---------------------------------------------------------------------------------------------------------
# Operations: each takes the batch, the thread's generator and the tracker

def record_call(b: Batch, rng: random.Random, t: Any) -> None:
    tool, action, outcome = b.text(rng, TOOL_NAMES), b.text(rng, ACTIONS), b.text(rng, OUTCOMES)
    alias: Any = rng.choice([True, False, 0, 1])
    ms: Any = rng.choice([None, 0.0, rng.randint(0, 400) / 4])  # quarters: their sums are exact in any order
    if b.hostile and rng.random() < 0.1:
        alias, ms = rng.choice([alias, HStr("x"), None]), rng.choice([ms, *ODD])
    call = rng.choice([
        lambda: t.record_call(tool, action, outcome, alias_hit=alias, duration_ms=ms),
        lambda: t.record_call(tool_name=tool, action=action, outcome=outcome, alias_hit=alias, duration_ms=ms),
        lambda: t.record_call(tool, action, outcome=outcome, duration_ms=ms, alias_hit=alias)])
    b.count(t, ("u", tool, action, outcome, alias), [1, ms is not None, ms or 0.0], call)


def flush(b: Batch, rng: random.Random, t: Any) -> None:
    if b.hostile or t is not b.main:
        return rng.choice([t.flush, t.flush, t._flush_health, t._flush_usage])()  # type: ignore[no-any-return]
    with b.flush_lock:  # counting: a failed write leaves its marks, but for names whose own hash raised
        before, tls.raised = {plain(name) for name in t._dirty}, set()
        try:
            t.flush()
        except Boom as error:
            tls.quiet = True
            try:
                if error.site in ("db_execute", "db_after_execute") and not t._usage_dirty:
                    b.fail("marks", f"a failed write of the usage document ({error.site}) left it unmarked")
                unmarked = before - {plain(name) for name in t._dirty}
                b.unmarkable |= unmarked & tls.raised  # passed over by design: the end marks them again
                b.log(f"  flush raised at {error.site}; unmarked now {sorted(unmarked)}, "
                      f"of which callbacks raised for {sorted(unmarked & tls.raised)}")
                lost = unmarked - tls.raised
                if error.site in ("db_executemany", "db_after_executemany") and lost:
                    b.fail("marks", f"a failed write ({error.site}) dropped the marks of {sorted(lost)}")
            finally:
                tls.quiet = False
            raise


def construct(b: Batch, rng: random.Random, t: Any) -> None:
    """A tracker over a hostile database; its _load and _load_usage run with callbacks that re-enter it."""
    fresh = Tracker.__new__(Tracker)
    limits = rng.choice([None, HostLimits(), HostLimits(rng.choice(ODD), rng.choice(ODD)), ToolsConfig()])
    b.attempt("construct", lambda: Tracker.__init__(fresh, HostRepo(ChaosDb(FakeDb(rng))), limits), fresh)
    if type(fresh._lock) is LOCK_TYPE:
        b.real_locks.append(fresh._lock)
    if len(b.side) < 4:
        b.side.append(fresh)
    else:
        b.side[rng.randrange(4)] = fresh


def reports(b: Batch, rng: random.Random, t: Any) -> None:
    if rng.random() < 0.5:
        health.handle_get_tool_performance_stats()
    else:
        census = rng.choice([None, host_census(), HostCensus(rng.choice(ODD), rng.choice(ODD), rng.choice(ODD))])
        health.thread_census_report(rng.choice([40, 0, -1, 10**30, None, HStr("5")]), census)  # type: ignore


def records(b: Batch, rng: random.Random, t: Any) -> None:
    """The record types and the module's functions, each called directly, sometimes with odd values."""
    def odd(values: tuple[Any, ...]) -> list[Any]:
        return [rng.choice(ODD + [HStr("e")]) if rng.random() < 0.1 else v for v in values]
    state, usage = NativeState(*STATE_DEFAULTS), NativeUsage(*USAGE_DEFAULTS)
    for step in (lambda: NativeState(*odd(STATE_DEFAULTS)), lambda: NativeUsage(*odd(USAGE_DEFAULTS)),
                 lambda: setattr(rng.choice([state, usage]), rng.choice(STATE_FIELDS + USAGE_FIELDS), *odd((0,))),
                 lambda: (repr(state), repr(usage), state == b.record(rng, False), usage == b.record(rng, True)),
                 lambda: ORIGINAL["_sqlite_time"](*odd((time.time(),))),
                 lambda: ORIGINAL["_epoch"](*odd((rng.choice(["2024-03-05 14:07:09", HStr("2024-3-5 1:2:3")]),))),
                 lambda: ORIGINAL["_known"](b.text(rng, TOOL_NAMES), b.text(rng, ACTIONS))):
        b.attempt("records", step, t)


OPS: dict[str, Callable[[Batch, random.Random, Any], Any]] = {
    "record_success": lambda b, rng, t: (lambda name: b.count(t, ("h", name), [1, 0], lambda: t.record_success(
        name)))(b.text(rng, TOOL_NAMES)),
    "record_error": lambda b, rng, t: (lambda name, message: b.count(t, ("h", name), [1, 1], lambda: t.record_error(
        name, message)))(b.text(rng, TOOL_NAMES), b.text(rng, ["boom", "x" * 600, ""])),
    "record_call": record_call,
    "is_disabled": lambda b, rng, t: t.is_disabled(b.text(rng, TOOL_NAMES)),
    "summary": lambda b, rng, t: t.get_health_summary(),
    "unsaved": lambda b, rng, t: t.has_unsaved_changes,
    "usage_rows": lambda b, rng, t: t._usage_rows(b.text(rng, TOOL_NAMES)),
    "flush": flush,
    "load": lambda b, rng, t: rng.choice([t._load, t._load_usage])(),
    "reinit": lambda b, rng, t: Tracker.__init__(t, HostRepo(FakeDb(rng))),
    "construct": construct,
    "insert": lambda b, rng, t: b.insert(rng, t, rng.randint(1, 3)),
    "reports": reports,
    "records": records,
}
WEIGHTS = {"record_success": 2, "record_call": 3, "is_disabled": 2, "summary": 2, "flush": 2}  # else 1
HOSTILE_OPS = set(OPS)
COUNTING_OPS = HOSTILE_OPS - {"load", "reinit", "construct", "insert"}  # these replace counts by design
LOCKING = {"record_success", "record_error", "record_call", "is_disabled", "summary", "unsaved", "flush", "load",
           "reinit"}


# ---------------------------------------------------------------------------------------------------------
# End checks: every thread stopped, callbacks calm, the module's attributes restored

def end_checks(b: Batch) -> None:
    for name, value in ORIGINAL.items():
        setattr(health, name, value)
    setattr(health, "TOOLS", b.base_registry)
    for t in [b.main, *b.side]:
        if type(getattr(t, "_lock", None)) is LOCK_TYPE:
            b.real_locks.append(t._lock)
    held = [lock for lock in b.real_locks if lock.locked()]
    if held:
        return b.fail("lock", f"{len(held)} of {len(b.real_locks)} real locks left held")
    t = b.main
    kinds = (type(t._state), type(t._usage), type(t._dirty))
    if kinds != (dict, dict, set):
        return b.fail("fields", f"the tracker's maps are {kinds}")
    (hostile_end if b.hostile else counting_end)(b, t)


def hostile_end(b: Batch, t: Any) -> None:
    """What the run left behind answers or raises an ordinary error; emptied, the tracker works exactly."""
    for op in (t.get_health_summary, t.flush, lambda: t.is_disabled("fz_a"), lambda: t._usage_rows("fz_a")):
        b.attempt("leftover state", op, t)
    for field, make in (("_state", dict), ("_usage", dict), ("_dirty", set), ("_lock", new_real_lock)):
        try:
            setattr(t, field, make())
        except AttributeError:  # a module whose fields cannot be assigned: the same fields, emptied
            getattr(t, field).clear() if field != "_lock" else None
    t._usage_dirty, b.repo._db = False, b.real_db
    b.real_db.execute("DELETE FROM tool_health", ())
    b.real_db.execute("DELETE FROM schema_info", ())
    for _ in range(3):
        t.record_success("fz_end")
    t.record_error("fz_end", "bad")
    for _ in range(2):
        t.record_call("fz_end", "text", "ok", alias_hit=True, duration_ms=2.5)
    expect(b, "is_disabled", t.is_disabled("fz_end"), (False, None))
    got = [(r["tool_name"], r["call_count"], r["error_count"], r["last_error"], r["disabled"],
            [(u["action"], u["calls"], u["avg_ms"]) for u in r["usage"]]) for r in t.get_health_summary()]
    expect(b, "summary", got, [("fz_end", 4, 1, "bad", False, [("text", 2, 2.5)])])
    expect(b, "flush", (t.flush(), t.has_unsaved_changes), (2, False))
    again = Tracker(types.SimpleNamespace(db=b.real_db))
    expect(b, "reloaded", (again._state["fz_end"].call_count, again._state["fz_end"].error_count,
                           again._usage[("fz_end", "text", "ok", True)].calls), (4, 1, 2))


def counting_end(b: Batch, t: Any) -> None:
    """Each count lies between the tallies of the operations that returned and those plus the ones that
    raised part-way; after a final flush and a reload the database holds what memory holds."""
    memory: dict[Any, list[float]] = {("h", plain(n)): [r.call_count, r.error_count] for n, r in t._state.items()}
    for key, rec in t._usage.items():
        k = ("u", *plain(key))
        memory[k] = [a + b for a, b in zip(memory.get(k, [0, 0, 0.0]), [rec.calls, rec.timed_calls, rec.total_ms])]
    for key in set(memory) | set(b.ok) | set(b.maybe):
        zero = [0.0] * (2 if key[0] == "h" else 3)
        have, low = memory.get(key, zero), b.ok.get(key, zero)
        high = [x + y for x, y in zip(low, b.maybe.get(key, zero))]
        if not all(lo <= h <= hi for lo, h, hi in zip(low, have, high)):
            b.fail("count", f"{key}: the tracker holds {have}, operations that returned {low}, at most {high}")
    # An operation that raised part-way may have changed a record before marking it, and a failed flush
    # passes over a name whose hash raised as the marks went back: mark those. Every other change was
    # marked by the module and must have stayed marked through every failed write.
    t._dirty.update(key[1] for key in b.maybe if key[0] == "h")
    t._dirty.update(b.unmarkable)
    t._usage_dirty = t._usage_dirty or any(key[0] == "u" for key in b.maybe)
    t.flush()
    expect(b, "unsaved after the final flush", t.has_unsaved_changes, False)
    again = Tracker(types.SimpleNamespace(db=b.real_db))
    reloaded = {("h", plain(n)): [r.call_count, r.error_count] for n, r in again._state.items()}
    reloaded.update({("u", *plain(k)): [r.calls, r.timed_calls, r.total_ms] for k, r in again._usage.items()})
    for key in sorted(set(memory) | set(reloaded), key=repr):
        expect(b, f"{key} reloaded from the file", reloaded.get(key), memory.get(key))


def expect(b: Batch, what: str, got: Any, want: Any) -> None:
    if got != want:
        b.fail("end", f"{what}: got {got!r}, want {want!r}")


# ---------------------------------------------------------------------------------------------------------

def main(argv: list[str] | None = None) -> int:
    parser = argparse.ArgumentParser(description=(__doc__ or "").split("\n\n")[0])
    add = parser.add_argument
    add("--seed", type=int, default=1)
    add("--ops", type=int, default=300, help="operations per thread")
    add("--threads", type=int, default=4)
    add("--switch", type=float, default=1e-6, help="sys.setswitchinterval during the run")
    add("--mode", choices=["hostile", "counting"], default="hostile")
    add("--reentry", choices=["strict", "not-from-lock", "safe"], default="strict",
        help="strict: re-enter locking operations under the lock too (the module must raise RuntimeError); "
             "not-from-lock: except from inside a host lock's own acquire and release; safe: only where this "
             "thread cannot hold the lock")
    add("--intensity", type=float, default=0.3, help="share of callbacks that act")
    add("--without", default="", help="operations left out, to look past a known crash: e.g. summary,usage_rows")
    add("--quiet-actions", default="", help="callback actions left out, e.g. clear (see benchmarks/dict_churn.py)")
    add("--log", help="file that receives each call before it is made")
    add("--stats", action="store_true", help="print how the operations ended and what the callbacks did")
    add("--stall", type=float, default=30, help="seconds without a finished operation that make a hang")
    add("--timeout", type=float, default=600, help="seconds for the whole batch")
    args = parser.parse_args(argv)
    for ops in (HOSTILE_OPS, COUNTING_OPS, LOCKING):
        ops -= set(args.without.split(","))
    for action in filter(None, args.quiet_actions.split(",")):
        HOSTILE_ACTIONS.pop(action, None)
        COUNTING_ACTIONS.pop(action, None)
    global BATCH
    faulthandler.enable()
    faulthandler.dump_traceback_later(args.timeout, exit=True)
    print(f"reentrancy batch: seed={args.seed} mode={args.mode} threads={args.threads} ops={args.ops} "
          f"reentry={args.reentry}", flush=True)
    with tempfile.TemporaryDirectory(prefix="reentrancy-") as workdir:
        started = time.perf_counter()
        batch = BATCH = Batch(args, workdir)

        def unraisable(info: Any) -> None:
            text = "".join(traceback.format_exception(info.exc_type, info.exc_value, info.exc_traceback))
            batch.fail("unraisable", f"{info.err_msg or 'Exception ignored'} in {info.object!r}\n{text}")
        sys.unraisablehook = unraisable
        batch.run()
        gc.collect()
        error = batch.attempt("end checks", lambda: end_checks(batch), None)
        if error is not None:
            batch.fail("end", "".join(traceback.format_exception(error)))
        BATCH = None
        batch.repository.close()
        elapsed = time.perf_counter() - started
    faulthandler.cancel_dump_traceback_later()
    for key, count in sorted(batch.stats.items()) if args.stats else ():
        print(f"  {count:7d}  {key}")
    for failure in batch.failures:
        print(f"FAILURE {failure}", file=sys.stderr)
    print(f"reentrancy batch: seed={args.seed} {'FAILED' if batch.failures else 'passed'} "
          f"({len(batch.failures)} failures) in {elapsed:.1f}s", flush=True)
    return 1 if batch.failures else 0


if __name__ == "__main__":
    sys.exit(main())

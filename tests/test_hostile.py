"""Hostile values at every entry point: the module's functions and every tracker method given objects whose
conversions, hash or comparison raise, huge or odd numbers and lone surrogates answer or raise an ordinary error,
never crash, never leave the lock held; refused asks and summaries change nothing. Hostile histories and host
code inside operations: test_reentrancy's fuzzer."""

import math
import types
from typing import Any

import pytest

from conftest import FIELDS, FakeClock, MemDb, make_registry, patched, throw, tracker_over
from ordanis_veltrane.config import ToolsConfig
from ordanis_veltrane.tool_handlers import health

Hostile = type("Hostile", (Exception,), {})  # raised by the objects below; it must reach the caller unchanged
# SystemError and RuntimeError are not here: from a native module they mean a broken contract. MemoryError is
# what CPython raises for an object that claims 2**62 items (BigLen).
ALLOWED = (TypeError, ValueError, ArithmeticError, LookupError, AttributeError, MemoryError, Hostile)
_raise = lambda *_: throw(Hostile("hostile"))  # noqa: E731
VALUES = [
    type("Raising", (), dict.fromkeys(["__hash__", "__eq__", "__index__", "__int__", "__float__", "__bool__", "__str__",
                                       "__repr__", "__len__", "__iter__", "__getitem__"], _raise))(),
    type("RaisingEq", (), {"__hash__": lambda self: hash("a"), "__eq__": _raise})(),  # lookups of "a" compare it
    type("S", (str,), {"__hash__": _raise})("a"), type("I", (int,), {})(5), type("F", (float,), {})(1.5),
    type("BigLen", (), {"__len__": lambda self: 2**62, "__getitem__": lambda self, i: "aaaaaa"[i]})(), object(),
    None, True, -1, 2**63, -(2**63) - 1, 10**30, math.nan, -math.inf, 1e300, "", "\ud800", b"a", ["a"], ("a",), {},
]
CALLS = {  # v is the hostile value
    "is_disabled": "t.is_disabled(v)", "success": "t.record_success(v)", "error": "t.record_error('a', v)",
    "error_name": "t.record_error(v, 'x')", "summary": "P(t.get_health_summary, is_slow_call=lambda n, a: v)",
    "call_tool": "t.record_call(v, None, 'ok', alias_hit=False, duration_ms=1.0)",
    "call_action": "t.record_call('a', v, 'ok', alias_hit=False, duration_ms=1.0)",
    "call_outcome": "t.record_call('a', None, v, alias_hit=False, duration_ms=1.0)",
    "call_alias": "t.record_call('a', None, 'ok', alias_hit=v, duration_ms=1.0)",
    "call_duration": "t.record_call('a', None, 'ok', alias_hit=False, duration_ms=v)",
    "limits": "(u := tracker_over(MemDb(), ToolsConfig(v, v)), u.record_error('a', 'x'), u.is_disabled('a'))",
    "sqlite_time": "h._sqlite_time(v)", "epoch": "h._epoch(v)", "known": "h._known(v, None), h._known('a', v)",
    "census": "h.thread_census_report(v, NS(os_threads=v, python_total=v, python_threads=v))",
    "stats": "P(h.handle_get_tool_performance_stats, get_timing_collector=lambda: NS(get_all_stats=lambda: [v]))",
}
UNCHANGED = {"is_disabled", "summary", "sqlite_time", "epoch", "known", "census", "stats", "limits"}


def snapshot(t: Any) -> Any:  # by identity and value, comparable whatever the keys are
    return ([(id(k), id(r), *[repr(getattr(r, f)) for f in FIELDS]) for k, r in t._state.items()],
            [(id(k), id(u), u.calls, u.timed_calls, repr(u.total_ms)) for k, u in t._usage.items()],
            set(map(id, t._dirty)), t._usage_dirty)


@pytest.mark.parametrize("value", VALUES, ids=lambda v: type(v).__name__)
@pytest.mark.parametrize("call", list(CALLS))
def test_hostile_value(monkeypatch: pytest.MonkeyPatch, call: str, value: Any) -> None:
    monkeypatch.setattr(health, "TOOLS", make_registry({"a": (), "search": ("text",), "\udfff": ()}))
    monkeypatch.setattr(health, "time", FakeClock())
    t = tracker_over(MemDb(), ToolsConfig(disable_after_errors=1))
    for name in ("a", "search", "\udfff"):
        t.record_error(name, "x")
        t.record_call(name, None, "ok", alias_hit=True, duration_ms=2.5)
    before = snapshot(t)
    try:
        eval(CALLS[call], {"t": t, "v": value, "h": health, "P": patched, "NS": types.SimpleNamespace,
                           "tracker_over": tracker_over, "MemDb": MemDb, "ToolsConfig": ToolsConfig})
    except ALLOWED:
        pass
    assert not t._lock.locked() and (call not in UNCHANGED or snapshot(t) == before)
    t.record_success("a")
    assert t.is_disabled("a") == (False, None)

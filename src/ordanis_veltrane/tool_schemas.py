"""What the daemon knows about the cost of its tools' actions."""
from __future__ import annotations

SLOW_CALLS: frozenset[tuple[str, str | None]] = frozenset(
    {
        ("search", "semantic"),
        ("index", "rebuild"),
        ("run_tests", "integration"),
        ("run_tests", "unit"),
    }
)


def is_slow_call(tool_name: str, action: str | None) -> bool:
    """Whether that action of that tool is slow by nature."""
    return (tool_name, action) in SLOW_CALLS

"""The daemon's tool registry: tool specs and their actions, with action synonyms.

``TOOLS.get(name)`` and ``spec.action(name)`` are bound ``dict.get`` methods, so a
lookup costs what a dictionary lookup costs.
"""
from __future__ import annotations

from dataclasses import dataclass, field
from typing import Callable, Iterable, Iterator


@dataclass(frozen=True)
class ActionSpec:
    name: str
    synonyms: tuple[str, ...] = ()


class ToolSpec:
    """One tool: its name and actions. ``action(name)`` also answers synonyms."""

    def __init__(self, name: str, actions: Iterable[ActionSpec] = ()) -> None:
        self.name: str = name
        self.actions: tuple[ActionSpec, ...] = tuple(actions)
        by_name: dict[str, ActionSpec] = {}
        for spec in self.actions:
            by_name[spec.name] = spec
            for synonym in spec.synonyms:
                by_name.setdefault(synonym, spec)
        self.action: Callable[[str], ActionSpec | None] = by_name.get

    def __repr__(self) -> str:
        return f"ToolSpec({self.name!r}, actions={[a.name for a in self.actions]!r})"


@dataclass
class ToolRegistry:
    """Tool specs by name."""

    specs: dict[str, ToolSpec] = field(default_factory=dict)

    def __post_init__(self) -> None:
        self.get: Callable[[str], ToolSpec | None] = self.specs.get

    def register(self, spec: ToolSpec) -> ToolSpec:
        self.specs[spec.name] = spec
        return spec

    def remove(self, name: str) -> None:
        self.specs.pop(name, None)

    def __contains__(self, name: object) -> bool:
        return name in self.specs

    def __iter__(self) -> Iterator[str]:
        return iter(self.specs)

    def __len__(self) -> int:
        return len(self.specs)


def _default_registry() -> ToolRegistry:
    registry = ToolRegistry()
    for name, actions in (
        ("search", (ActionSpec("text", ("grep",)), ActionSpec("symbol", ("sym",)), ActionSpec("semantic"))),
        ("read_file", ()),
        ("list_files", ()),
        ("git", (ActionSpec("log"), ActionSpec("blame"), ActionSpec("diff", ("changes",)))),
        ("index", (ActionSpec("status"), ActionSpec("rebuild", ("reindex",)))),
        ("status", ()),
        ("get_tool_performance_stats", ()),
        ("run_tests", (ActionSpec("unit"), ActionSpec("integration"))),
    ):
        registry.register(ToolSpec(name, actions))
    return registry


TOOLS = _default_registry()

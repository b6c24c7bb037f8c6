"""The daemon's ``tools`` settings."""
from __future__ import annotations

from dataclasses import dataclass


@dataclass
class ToolsConfig:
    """Settings of the ``tools`` section: when to disable a failing tool and for how long."""

    disable_after_errors: int = 3
    disable_cooldown_s: float = 60.0

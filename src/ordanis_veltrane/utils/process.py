"""A census of the process's threads."""
from __future__ import annotations

import os
import re
import threading
from dataclasses import dataclass, field

_POOL_SUFFIX = re.compile(r"[-_ ]?\d+(?:[-_ ]\d+)*$|[-_ ]?\(.*\)$")


@dataclass
class ThreadCensus:
    """The process's threads: the OS count (None where it cannot be read) and the
    threads Python knows, grouped by name prefix."""

    os_threads: int | None
    python_total: int
    python_threads: dict[str, int] = field(default_factory=dict)


def _os_thread_count() -> int | None:
    try:
        return len(os.listdir("/proc/self/task"))
    except OSError:
        return None


def _prefix(name: str) -> str:
    """The pool part of a thread's name: ``ThreadPoolExecutor-0_3`` -> ``ThreadPoolExecutor``."""
    prefix = name
    while True:
        shorter = _POOL_SUFFIX.sub("", prefix)
        if shorter == prefix or not shorter:
            return prefix
        prefix = shorter


def thread_census() -> ThreadCensus:
    threads = threading.enumerate()
    by_name: dict[str, int] = {}
    for thread in threads:
        key = _prefix(thread.name)
        by_name[key] = by_name.get(key, 0) + 1
    return ThreadCensus(_os_thread_count(), len(threads), by_name)

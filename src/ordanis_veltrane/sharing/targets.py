"""Where shared tool health lives: a SQLite file path or a PostgreSQL URL, checked before anything opens it.

Every message that names a PostgreSQL URL names it through ``redact_url``, so that no password
given on a command line reaches a log, an error or an answer.
"""
from __future__ import annotations

import os
import re
from pathlib import Path
from urllib.parse import urlsplit

__all__ = ["check_target", "is_postgres_url", "redact_url"]

# A password in the authority part (user:password@) or as a conninfo parameter (password=...).
_AUTHORITY_PASSWORD = re.compile(r"^([a-z][a-z0-9+.-]*://[^/?#@:]*):[^/?#@]*@", re.IGNORECASE)
_PARAMETER_PASSWORD = re.compile(r"(\bpassword=)[^&\s]*", re.IGNORECASE)


def redact_url(text: object) -> str:
    """``text`` with any password replaced by ``***``; safe on text that is not a URL."""
    s = str(text)
    s = _AUTHORITY_PASSWORD.sub(r"\1:***@", s)
    return _PARAMETER_PASSWORD.sub(r"\1***", s)


def is_postgres_url(target: object) -> bool:
    return isinstance(target, str) and target.lower().startswith(("postgresql://", "postgres://"))


def check_target(target: str | os.PathLike[str]) -> None:
    """Raises ``ValueError`` with a clear message when ``target`` is neither a well-formed
    ``postgresql://`` URL nor the path of a SQLite file that can be opened; creates nothing."""
    if is_postgres_url(target):
        text = str(target)
        try:
            parts = urlsplit(text)
            parts.port  # noqa: B018 - raises for a port that is not a number
        except ValueError as exc:
            raise ValueError(f"malformed PostgreSQL URL {text!r}: {exc}") from None
        if not parts.hostname and "host=" not in parts.query:
            raise ValueError(f"malformed PostgreSQL URL {text!r}: no host")
        try:
            from psycopg.conninfo import conninfo_to_dict
        except ImportError as exc:
            raise ValueError(f"{text!r} needs psycopg: install the 'postgres' extra ({exc})") from None
        try:
            conninfo_to_dict(text)
        except Exception as exc:
            raise ValueError(f"malformed PostgreSQL URL {text!r}: {exc}") from None
        return
    text = os.fspath(target)
    if isinstance(text, bytes) or not text:
        raise ValueError(f"not a database path or URL: {target!r}")
    if "://" in text:
        raise ValueError(f"unsupported database URL {text!r}: use postgresql://... or a SQLite file path")
    path = Path(text)
    if path.exists():
        if not path.is_file():
            raise ValueError(f"cannot open {text!r} as a SQLite database: it is not a file")
        if not os.access(path, os.R_OK | os.W_OK):
            raise ValueError(f"cannot open {text!r} as a SQLite database: no read and write permission")
        # The header, not a connection: opening a database in WAL mode would create its side files.
        try:
            with open(path, "rb") as f:
                header = f.read(16)
        except OSError as exc:
            raise ValueError(f"cannot open {text!r} as a SQLite database: {exc.strerror}") from None
        if header and header != b"SQLite format 3\x00":
            raise ValueError(f"cannot open {text!r} as a SQLite database: the file is not a database")
        return
    parent = path.parent
    if not parent.is_dir():
        raise ValueError(f"cannot create the SQLite database {text!r}: directory {str(parent)!r} does not exist")
    if not os.access(parent, os.W_OK | os.X_OK):
        raise ValueError(f"cannot create the SQLite database {text!r}: directory {str(parent)!r} is not writable")

"""Where shared tool health lives: a SQLite file path or a PostgreSQL URL, checked before anything opens it.

Every message that names a PostgreSQL URL names it through ``redact_url``, so that no password
given on a command line reaches a log, an error or an answer.
"""
from __future__ import annotations

import os
import re
from pathlib import Path
from urllib.parse import unquote

__all__ = ["check_target", "is_postgres_url", "redact_message", "redact_url", "store_options"]

# URL parameters this package reads and removes before it hands the URL to libpq.
HOLD_CONNECTION = "hold_connection"
_BOOLEANS = {"1": True, "true": True, "yes": True, "on": True, "0": False, "false": False, "no": False, "off": False}

# The authority of a URL: from "scheme://" to the first "/" or white space. Its user information
# ends at its last "@", so that a password holding an "@" is masked whole.
_AUTHORITY = re.compile(r"([a-z][a-z0-9+.-]*://)([^/\s]*)", re.IGNORECASE)
# A password as a URL parameter (password=...) or a conninfo keyword (password=... or password='...').
_PARAMETER_PASSWORD = re.compile(r"(\bpassword\s*=\s*)('(?:[^'\\]|\\.)*'?|[^&\s'\"]*)", re.IGNORECASE)


def _mask_authority(match: re.Match[str]) -> str:
    scheme, authority = match.group(1), match.group(2)
    at = authority.rfind("@")
    colon = authority.find(":", 0, at)
    if at < 0 or colon < 0:
        return match.group(0)
    return f"{scheme}{authority[:colon]}:***{authority[at:]}"


def redact_url(text: object) -> str:
    """``text`` with any password replaced by ``***``: in the user information of a URL
    (``user:password@``) and as a ``password=`` parameter or keyword; safe on text that is not a URL."""
    s = str(text)
    if "://" in s:
        s = _AUTHORITY.sub(_mask_authority, s)
    if "assword" in s or "ASSWORD" in s:
        s = _PARAMETER_PASSWORD.sub(r"\1***", s)
    return s


def _passwords_of(url: str) -> list[str]:
    """The password texts a URL holds, as written and decoded: a message that quotes one of them (a
    parser's complaint about a bad escape) is masked even where its shape is not a URL's."""
    found: list[str] = []
    match = _AUTHORITY.search(url)
    if match is not None:
        authority = match.group(2)
        at = authority.rfind("@")
        colon = authority.find(":", 0, at)
        if at >= 0 and colon >= 0:
            found.append(authority[colon + 1:at])
    found += [m.group(2).strip("'") for m in _PARAMETER_PASSWORD.finditer(url)]
    found += [unquote(p) for p in found]
    return sorted({p for p in found if p}, key=len, reverse=True)


def redact_message(message: object, url: str) -> str:
    """``redact_url`` of `message`, with every password `url` holds masked wherever it appears."""
    text = str(message)
    for password in _passwords_of(url):
        text = text.replace(password, "***")
    return redact_url(text)


def store_options(url: str) -> tuple[str, dict[str, bool]]:
    """The URL without this package's own parameters, and their values: ``hold_connection=false``
    (or 0, no, off) connects for each sync only. Raises ``ValueError`` for a value that is not a boolean."""
    base, sep, query = url.partition("?")
    if not sep:
        return url, {}
    kept, options = [], {}
    for item in query.split("&"):
        name, _, value = item.partition("=")
        if unquote(name) != HOLD_CONNECTION:
            kept.append(item)
            continue
        flag = _BOOLEANS.get(unquote(value).strip().lower())
        if flag is None:
            raise ValueError(f"malformed PostgreSQL URL {redact_url(url)!r}: {HOLD_CONNECTION} must be true or "
                             f"false, not {redact_message(unquote(value), url)!r}")
        options[HOLD_CONNECTION] = flag
    return base + ("?" + "&".join(kept) if kept else ""), options


def is_postgres_url(target: object) -> bool:
    return isinstance(target, str) and target.lower().startswith(("postgresql://", "postgres://"))


def check_target(target: str | os.PathLike[str]) -> None:
    """Raises ``ValueError`` with a clear message when ``target`` is neither a well-formed
    ``postgresql://`` URL nor the path of a SQLite file that can be opened; creates nothing."""
    if is_postgres_url(target):
        _check_postgres_url(str(target))
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


def _check_postgres_url(url: str) -> None:
    """libpq's own parsing of the URL: what it leaves out (host, port, user, database, password) libpq
    takes from its environment (PGHOST, PGPORT, PGUSER, PGDATABASE, PGPASSWORD), a service file
    (``service=``, PGSERVICEFILE) and ``.pgpass`` when it connects, exactly as psql does."""
    shown = redact_url(url)
    url = store_options(url)[0]
    try:
        from psycopg.conninfo import conninfo_to_dict
    except ImportError as exc:
        raise ValueError(f"the PostgreSQL URL {shown!r} needs psycopg: install the 'postgres' extra ({exc})") from None
    try:
        params = conninfo_to_dict(url)
    except Exception as exc:
        raise ValueError(f"malformed PostgreSQL URL {shown!r}: {redact_message(exc, url).strip()}") from None
    for port in str(params.get("port") or "").split(","):
        if port and not (port.isdigit() and 0 < int(port) < 65536):
            raise ValueError(f"malformed PostgreSQL URL {shown!r}: invalid port {redact_message(port, url)!r}")

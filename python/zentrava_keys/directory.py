"""Working in the directory of a key store."""

from __future__ import annotations

import contextlib
import os
import threading
from pathlib import Path
from typing import Iterator, Optional, Union

_guard = threading.Lock()
_owner: Optional[int] = None  # the thread that has the current directory, while one has


@contextlib.contextmanager
def working_in(directory: Union[str, "os.PathLike[str]"]) -> Iterator[Path]:
    """Makes a directory the current one, for the with statement, and goes back after it.

    The library finds the key store in the current directory, and a process has only one of these:
    while this thread is in the with statement, every other thread is in that directory as well,
    with all its relative file names. Two threads can therefore not be in two stores; the second
    one that tries is refused with RuntimeError. Work on several stores at a time belongs in
    several processes. (A thread may use it again inside of itself.)

        >>> with zentrava_keys.working_in("bench"):
        ...     keys.store.contains(uid, "srk")
        True
    """
    global _owner
    me = threading.get_ident()
    with _guard:
        if _owner not in (None, me):
            raise RuntimeError("another thread is working in a directory: a process has only one")
        outer, _owner = _owner, me
    try:
        before = os.open(".", os.O_PATH | os.O_DIRECTORY)
        try:
            os.chdir(directory)
            yield Path.cwd()
        finally:
            os.fchdir(before)
            os.close(before)
    finally:
        with _guard:
            _owner = outer

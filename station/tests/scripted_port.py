"""A port on which a phone follows a script, without a daemon."""

import os
import pty
import threading
import time
import tty
from typing import Union

CLOSE = None
Piece = Union[bytes, float, None]  # what it sends, seconds that it waits, or CLOSE


class ScriptedPort:
    """Answers each line that it reads by the next of the scripts, and then no more."""

    def __init__(self, *scripts: list[Piece]):
        self._scripts = scripts
        self._master, self._slave = pty.openpty()
        tty.setraw(self._slave)
        self.url = os.ttyname(self._slave)
        self.lines: list[bytes] = []
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self) -> None:
        for script in self._scripts:
            self.lines.append(os.read(self._master, 4096))
            for piece in script:
                if piece is CLOSE:
                    os.close(self._slave)
                    os.close(self._master)
                    self._master = -1
                    return
                if isinstance(piece, bytes):
                    os.write(self._master, piece)
                else:
                    time.sleep(piece)

    def __enter__(self) -> "ScriptedPort":
        return self

    def __exit__(self, *_: object) -> None:
        self._thread.join(10)
        if self._master >= 0:
            os.close(self._slave)
            os.close(self._master)

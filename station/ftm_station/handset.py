"""A simulated phone, started, controlled and stopped by a station; or one that somebody else serves."""

import os
import pathlib
import select
import shutil
import signal
import socket
import subprocess
import tempfile

from .errors import HandsetError


class Control:
    """The control socket of a served handset. Raises HandsetError when it cannot be reached. For one
    thread at a time.

    patience: seconds that a line may take.
    """

    def __init__(self, path: str, patience: float = 60.0):
        self._received = b""
        self._socket = socket.socket(socket.AF_UNIX)
        self._socket.settimeout(patience)
        try:
            self._socket.connect(path)
        except OSError as error:
            self._socket.close()
            raise HandsetError(f"cannot reach a handset at {path}: {error}") from error

    def __enter__(self) -> "Control":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        self._socket.close()

    def tell(self, line: str) -> list[str]:
        """Does a line of the console, a dot line or a command, and gives what it prints. Raises
        HandsetError when it cannot be carried out, or the handset has gone."""
        if "\n" in line:
            raise ValueError(f"one line, not {line!r}")
        printed: list[str] = []
        try:
            self._socket.sendall(line.encode("latin-1") + b"\n")
            while (answer := self._answer_line()).startswith(" "):
                printed.append(answer[1:])
        except OSError as error:
            raise HandsetError(f"{line}: the handset does not answer: {error}") from error
        if answer != "ok":
            raise HandsetError("\n".join(printed) or f"{line}: failed")
        return printed

    def _answer_line(self) -> str:
        while b"\n" not in self._received:
            more = self._socket.recv(65536)
            if not more:
                raise OSError("it has ended")
            self._received += more
        answer, _, self._received = self._received.partition(b"\n")
        return str(answer, "latin-1")

    def node(self, path: str, value: object = None) -> str:
        """The value of a kernel node, with line ends shown as \\\\n; a value sets it first, with a line
        feed behind it."""
        if value is not None:
            self.tell(f".node {path} {value}")
        return "\n".join(self.tell(f".node {path}"))

    def press(self, *keys: str) -> None:
        """Presses keys (power, volup, voldown) now, or as soon as AT+KEY listens."""
        self.tell(" ".join([".key", *keys]))

    def break_part(self, name: str) -> None:
        """Makes a broken phone of it, by the name of one or a folder."""
        self.tell(f".broken {name}")

    def panel(self, path: str | os.PathLike[str]) -> pathlib.Path:
        """Writes what the panel shows to a PNG file."""
        file = pathlib.Path(path).absolute()
        self.tell(f".panel {file}")
        return file

    def journal(self, kind: str = "") -> list[str]:
        """What the daemon has done since the last look; of a kind ("wait", "write") only that."""
        return self.tell(f".journal {kind}".rstrip())

    def reboot(self, seconds: float) -> None:
        """The phone restarts and is away that long; comes back when it is up again."""
        self.tell(f".reboot {round(seconds * 1000)}")

    def wait_asleep(self) -> None:
        """Waits until the phone sleeps. Raises HandsetError when it does not."""
        self.tell(".asleep")

    def wake(self) -> None:
        """Wakes it by an event from outside."""
        self.tell(".wake")


class Handset(Control):
    """A served handset of its own. It starts when it is made and stops by stop(), or at the end of a
    with block. Raises HandsetError when it cannot start. For one thread at a time.

    profile: the name of a broken phone or a folder; None is the healthy one.
    waits: what part of its time each wait of the phone takes: 1 all, 0 none.
    tty: the settings of the phone's tty: raw, canonical, default, uart.
    program: the handset's program; else the variable HANDSET, or what the PATH has.
    patience: seconds that its start, or a line of its control socket, may take.
    """

    def __init__(
        self,
        profile: str | None = None,
        *,
        waits: float = 1.0,
        tty: str = "raw",
        program: str | None = None,
        patience: float = 60.0,
    ):
        found = program or os.environ.get("HANDSET") or shutil.which("handset")
        if found is None:
            raise HandsetError("no program handset: it is neither in HANDSET nor in the PATH")
        self._patience = patience
        self._folder = tempfile.TemporaryDirectory(prefix="handset-")
        self.line = f"{self._folder.name}/line"
        control = f"{self._folder.name}/control"
        arguments = [found, "--serve", "--line", self.line, "--control", control]
        arguments += ["--waits", str(waits), "--tty", tty]
        arguments += ["--profile", profile] if profile else []
        self._errors = open(f"{self._folder.name}/errors", "w+", encoding="utf-8")
        try:
            self._process = subprocess.Popen(
                arguments,
                stdin=subprocess.DEVNULL,
                stdout=subprocess.PIPE,
                stderr=self._errors,
                start_new_session=True,  # Ctrl-C is the station's: it stops the handset
            )
        except OSError as error:
            self._forget()
            raise HandsetError(f"cannot start {found}: {error}") from error
        try:
            self._wait_ready(patience)
            super().__init__(control, patience)
        except BaseException:
            self._end()
            raise

    def _wait_ready(self, patience: float) -> None:
        out = self._process.stdout
        assert out is not None
        ready, _, _ = select.select([out], [], [], patience)
        if not ready:
            raise HandsetError(f"the handset is not ready after {patience:.0f} s")
        if not out.readline().startswith(b"ready"):
            self._process.wait()
            self._errors.seek(0)
            raise HandsetError(self._errors.read().strip() or "the handset ended at its start")

    def __enter__(self) -> "Handset":
        return self

    def __exit__(self, *_: object) -> None:
        self.stop()

    def stop(self) -> None:
        """Ends the phone; nothing of it is left. May be called again."""
        self.close()
        self._end()

    def _end(self) -> None:
        if self._process.poll() is None:
            self._process.send_signal(signal.SIGTERM)
            try:
                self._process.wait(self._patience)
            except subprocess.TimeoutExpired:
                self._process.kill()
                self._process.wait()
        if self._process.stdout is not None:
            self._process.stdout.close()
        self._forget()

    def _forget(self) -> None:
        self._errors.close()
        self._folder.cleanup()

"""A station's end of the line: sends commands and gives their answers."""

import collections
import pathlib
import termios
import time
from dataclasses import dataclass

import serial

from .answer import AllAnswers, Answers, Result, State
from .errors import NoPort, PortClosed, TimeOut, UnexpectedReply
from .table import TABLE, Table

LONGEST_LINE = 576  # bytes, the line end among them: what the daemon reads at once
SPEED = 115200
LONGEST_WRITE = 5  # seconds until a port that takes nothing counts as closed
LONGEST_LOG = 20000  # entries
LONGEST_REST = 65536  # bytes of garbage that an error's text holds
_POLL = 0.02  # seconds that one read waits
_FAILURES = (OSError, termios.error)  # serial.SerialException is an OSError


@dataclass(frozen=True)
class Entry:
    """One write or read of the line: the seconds since the station was made; "sent", "received", or
    "dropped" for what came too late for its command."""

    at: float
    kind: str
    text: str

    def __str__(self) -> str:
        mark = {"sent": ">", "received": "<", "dropped": "?"}[self.kind]
        return f"{self.at:9.3f} {mark} {self.text!r}"


class Station:
    """A line to one phone. Raises NoPort when the port cannot be opened, ValueError or OSError when the
    table cannot be used. For one thread at a time; several stations may be used side by side.

    url: a tty's path, or any URL that pyserial knows ("rfc2217://host:port", "socket://host:port").
    speed: bits per second, for a UART.
    patience: seconds that are granted on top of the longest time that the table gives a command.
    endless: seconds for a command of which the table knows no longest time, on top of its usual one.
    quiet: seconds without a byte after which an answer that might go on is taken for complete; a
    command that usually takes longer is granted its usual time, and a phone that is late with its first
    byte half as much again as that took: its line may be late with the next ones, too.
    """

    def __init__(
        self,
        url: str,
        *,
        table: pathlib.Path = TABLE,
        speed: int = SPEED,
        patience: float = 3.0,
        endless: float = 30.0,
        quiet: float = 0.3,
    ):
        self._answers = AllAnswers(Table(table))
        self.url = url
        self.patience = patience
        self.endless = endless
        self.quiet = quiet
        self.log: collections.deque[Entry] = collections.deque(maxlen=LONGEST_LOG)
        self._start = time.monotonic()
        self._last: tuple[Answers, Result] | None = None  # what may still have later replies
        self._unsettled = False  # a command had no answer, which may come yet
        # RFC 2217 ports of pyserial refuse a limit for writes.
        more = {} if "://" in url else {"write_timeout": LONGEST_WRITE, "exclusive": True}
        try:
            self._port = serial.serial_for_url(url, baudrate=speed, timeout=_POLL, **more)
        except (*_FAILURES, ValueError, NotImplementedError) as error:
            raise NoPort(f"cannot open {url}: {error}") from error

    def __enter__(self) -> "Station":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        self._port.close()

    def command(self, line: str, limit: float | None = None) -> Result:
        """Sends a line, without its line end, and gives the answer when it is complete.

        limit: seconds, instead of the time that the table gives the command.
        Raises TimeOut, UnexpectedReply and PortClosed; UnexpectedReply also when something came that
        nobody had asked for: then the line is not sent.
        """
        if "\n" in line or len(line) >= LONGEST_LINE or not line.isascii():
            raise ValueError(f"no line of {LONGEST_LINE - 1} ASCII characters at most: {line!r}")
        self._settle(line)
        answers = self._answers.to(line)
        if limit is None:
            longest = answers.longest
            limit = self.patience + (answers.usual + self.endless if longest is None else longest)
        self._unsettled = True
        self._write(line + "\n")
        result = self._answer(line, answers, limit)
        self._unsettled = False
        self._last = (answers, result)
        return result

    def listen(self, seconds: float) -> list[str]:
        """Waits that long for a reply that may come after the last answer, and gives all that came since
        it. Raises UnexpectedReply for any other bytes, and PortClosed."""
        if self._last is None:
            return []
        text = self._more(seconds)
        if text:
            self._keep_later("after " + self._last[1].line, text + self._rest())
        return self._last[1].later

    def _answer(self, line: str, answers: Answers, limit: float) -> Result:
        began = time.monotonic()
        text = ""
        first = 0.0  # seconds until something came
        while True:
            passed = time.monotonic() - began
            state = answers.state(text)
            if state is State.UNKNOWN and (without := self._without_later(text)) is not None:
                text = without
                continue
            if state is State.UNKNOWN:
                return self._with_later(line, answers, text + self._rest(), passed)
            more = ""
            if state is State.BEGUN and passed < limit:
                more = self._more(limit - passed)
            elif state is State.MAYBE and passed < limit:
                more = self._more(max(self.quiet, answers.usual, 1.5 * first))
            if not more:
                break
            first = first or time.monotonic() - began
            text += more
        result = answers.result(line, text, passed)
        if result is None:
            raise TimeOut(line, text, limit, answers.silent)
        return result

    def _with_later(self, line: str, answers: Answers, text: str, passed: float) -> Result:
        """An answer that came in one with a later reply. Raises UnexpectedReply where it is not."""
        for end in answers.whole_beginnings(text):
            result = answers.result(line, text[:end], passed)
            if result is not None:
                result.later += answers.later_replies(result, text[end:])
                if "".join(result.later) == text[end:]:
                    return result
        raise UnexpectedReply(line, text)

    def _settle(self, line: str) -> None:
        """Takes what came since the last answer."""
        text = self._waiting()
        if text and self._unsettled:
            self._note("dropped", text)
        elif text:
            self._keep_later("before " + line, text + self._rest())

    def _keep_later(self, when: str, text: str) -> None:
        if self._without_later(text) != "":
            raise UnexpectedReply(when, text)

    def _without_later(self, text: str) -> str | None:
        """The text without later replies of the last answer, which gets them; None when it has none."""
        if self._last is None:
            return None
        answers, result = self._last
        replies = answers.later_replies(result, text)
        for reply in replies:
            text = text.replace(reply, "", 1)
        result.later += replies
        return text if replies else None

    def _more(self, seconds: float) -> str:
        """What comes first within that time; empty when nothing does."""
        end = time.monotonic() + seconds
        while not (text := self._waiting(wait=True)) and time.monotonic() < end:
            pass
        return text

    def _rest(self) -> str:
        """All that comes until the line is quiet, for an error's text."""
        text = ""
        while len(text) < LONGEST_REST and (more := self._more(self.quiet)):
            text += more
        return text

    def _waiting(self, wait: bool = False) -> str:
        """What has come; where that is nothing and one waits, what comes within a moment."""
        try:
            data = self._port.read(1) if wait else b""
            data += self._port.read(self._port.in_waiting)
        except _FAILURES as error:
            raise PortClosed(f"{self.url}: {error}") from error
        text = str(data, "latin-1")
        if text:
            self._note("received", text)
        return text

    def _write(self, text: str) -> None:
        """In one write: what one read of the daemon brings is one line."""
        try:
            self._port.write(text.encode("latin-1"))
        except _FAILURES as error:
            raise PortClosed(f"{self.url}: {error}") from error
        self._note("sent", text)

    def _note(self, kind: str, text: str) -> None:
        self.log.append(Entry(time.monotonic() - self._start, kind, text))

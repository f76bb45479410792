"""What a plan wants done to a phone, and seen of it, beside the line: by the simulated handset, or by a
person for a real phone."""

import pathlib
import time
from typing import Callable, Protocol

from .errors import HandsetError
from .handset import Control
from .picture import one_colour

COLOURS = {"white": (255, 255, 255), "black": (0, 0, 0)}


class Hands(Protocol):
    """Methods that look give an empty text when all is as it should be, or else what is wrong."""

    def press(self, *keys: str) -> None:
        """Presses keys (power, volup, voldown) now or as soon as AT+KEY listens."""

    def panel_is(self, colour: str, picture: pathlib.Path) -> str:
        """Whether the panel has one colour (white, black); writes a picture where there can be one."""

    def light_is(self, what: str, node: str, value: int) -> str:
        """Whether a light is as described; node and value are what the phone's driver then has."""

    def sleeps(self) -> str:
        """Waits until the phone sleeps."""

    def wake(self) -> None:
        """Wakes the phone."""


class SimulatedHands:
    """Those of a simulated handset."""

    WAKES = 20  # times that a phone is woken until it stays awake

    def __init__(self, handset: Control):
        self._handset = handset

    def press(self, *keys: str) -> None:
        self._handset.press(*keys)

    def panel_is(self, colour: str, picture: pathlib.Path) -> str:
        seen = one_colour(self._handset.panel(picture))
        return "" if seen == COLOURS[colour] else f"the panel is {seen or 'of several colours'}, not {colour}"

    def light_is(self, what: str, node: str, value: int) -> str:
        seen = self._handset.node(node)
        return "" if seen == f"{value}\\n" else f"not {what}: {node} is {seen}, not {value}"

    def sleeps(self) -> str:
        self._wake_lock("dropped")
        self._handset.wait_asleep()
        return ""

    def wake(self) -> None:
        """It stays awake, as after the power key. The alarm that AT+ESLP=1 has set goes off, too: until
        then a thread of the daemon polls it without a pause."""
        for _ in range(self.WAKES):
            self._handset.wake()
            if self._wake_lock("taken"):
                self._handset.tell(".alarm")
                return
        raise HandsetError(f"the phone was woken {self.WAKES} times and did not stay awake")

    def _wake_lock(self, what: str) -> bool:
        """False when the phone refuses: it sleeps, or there is none to drop."""
        try:
            self._handset.tell(f".wakelock station {what}")
            return True
        except HandsetError:
            return False


class PersonHands:
    """Those of a person, who is told what to do and asked what is to be seen.

    tell: shows a sentence. ask: shows a question and gives whether the answer was yes.
    """

    SLEEP = 5  # seconds that a phone is given to fall asleep

    def __init__(self, tell: Callable[[str], object], ask: Callable[[str], bool]):
        self._tell = tell
        self._ask = ask

    def press(self, *keys: str) -> None:
        self._tell(f"Press {', '.join(keys)}, each once, within 5 s.")

    def panel_is(self, colour: str, picture: pathlib.Path) -> str:
        return "" if self._ask(f"Is the whole panel {colour}?") else f"the panel is not {colour}"

    def light_is(self, what: str, node: str, value: int) -> str:
        return "" if self._ask(f"Is it so: {what}?") else f"not {what}"

    def sleeps(self) -> str:
        time.sleep(self.SLEEP)
        return ""

    def wake(self) -> None:
        self._tell("Press the power key to wake the phone.")
        time.sleep(self.SLEEP)

"""What can go wrong between a station and its phone."""


class StationError(Exception):
    """Of all that this package raises."""


class NoPort(StationError):
    """There is no such port, or it cannot be opened."""


class PortClosed(StationError):
    """The port has gone while it was in use."""


class TimeOut(StationError):
    """The answer was not complete in time. received is what came of it."""

    def __init__(self, line: str, received: str, seconds: float, silent: list[str]):
        said = f"only {received!r} came" if received else "nothing came"
        known = f"; silence may mean {' or '.join(silent)}" if silent and not received else ""
        super().__init__(f"{line}: {said} in {seconds:.1f} s{known}")
        self.received = received


class UnexpectedReply(StationError):
    """Bytes came that no outcome of the command explains. received is all that came."""

    def __init__(self, line: str, received: str):
        super().__init__(f"{line}: no answer to it is {received!r}")
        self.received = received


class HandsetError(StationError):
    """The simulated handset cannot be started, or cannot do what it was told."""

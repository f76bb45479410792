"""What a run of a plan leaves of a unit, for its page."""

from dataclasses import dataclass, field

from .station import Entry


@dataclass
class Measure:
    """A value beside its limits, all as texts with their units."""

    name: str
    value: str
    limits: str
    passed: bool


@dataclass
class Step:
    """outcome: "passed", "failed" or "skipped"; why says it for the last two. seconds: how long it took.
    pictures: the contents of PNG files."""

    name: str
    title: str
    outcome: str = "skipped"
    why: str = ""
    seconds: float = 0.0
    measures: list[Measure] = field(default_factory=list)
    pictures: list[bytes] = field(default_factory=list)
    exchange: list[Entry] = field(default_factory=list)


@dataclass
class Unit:
    """A phone: its name, the line to it, and the steps in their order. began: seconds since the epoch."""

    name: str
    line: str
    began: float
    steps: list[Step] = field(default_factory=list)
    left_out: int = 0  # steps of the plan that were not asked for, or not begun

    @property
    def verdict(self) -> str:
        """ "failed" when a step failed, "passed" when each step of the plan passed, else "incomplete"."""
        outcomes = {step.outcome for step in self.steps}
        if "failed" in outcomes:
            return "failed"
        return "passed" if outcomes == {"passed"} and not self.left_out else "incomplete"

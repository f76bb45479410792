"""Knows from the command table when the answer to a line is complete, and what it says."""

import functools
import itertools
import re
from collections.abc import Iterator
from dataclasses import dataclass, field
from enum import Enum
from typing import Any, Union

from .automaton import Automaton
from .table import Command, Field, Outcome, Table, fits

Value = Union[int, float, str, "list[Value]"]

UNDEFINED = {
    "name": "undefined",
    "result": "fail",
    "replies": ["UNDEFINED COMMAND\n"],
    "meaning": "The phone knows no such command.",
}
NO_COMMAND = {
    "text": "",
    "time": {"usual_ms": 0, "longest_ms": 0},
    "outcomes": [],
}


class State(Enum):
    """Of what has come of an answer."""

    BEGUN = "more must come"
    MAYBE = "it is an answer, and the beginning of another one"
    COMPLETE = "it is an answer, and of none the beginning"
    UNKNOWN = "no answer begins like this"


@dataclass
class Result:
    """What a phone has answered to a line.

    outcome is the name that the table gives it; there are more outcomes where several send the same
    bytes, all of them passes or all of them failures. values are those of the outcome's fields, in the
    units of the table: numbers, texts (a text that the table calls hexadecimal stays one), and
    lists where replies repeat. seconds passed from the line to the last byte that was needed. later holds
    replies that came after the answer.
    """

    line: str
    text: str
    outcomes: tuple[str, ...]
    passed: bool
    meaning: str
    remedy: str = ""
    values: dict[str, Value] = field(default_factory=dict)
    seconds: float = 0.0
    later: list[str] = field(default_factory=list)

    @property
    def outcome(self) -> str:
        return self.outcomes[0]

    def __getitem__(self, name: str) -> Any:
        """The value of a field. Raises KeyError, with what was answered instead."""
        if name not in self.values:
            raise KeyError(f"{self.line}: {self.outcome} has no {name}: {self.text!r}")
        return self.values[name]


def _typed(part: Field, text: str) -> Value:
    kind = part.row["type"]
    if kind == "integer":
        return int(text or "0")
    return float(text) if kind == "decimal" else text


def _pattern(parts: list[Any]) -> str:
    return "".join(
        re.escape(part) if isinstance(part, str) else f"(?:{part.pattern})" for part in parts
    )


def _joined(form: list[list[Any]]) -> list[Any]:
    return [part for reply in form for part in reply]


def _declared(outcome: Outcome) -> str:
    """The text of an outcome in the order in which the table has its replies."""
    shortest = outcome.forms[0]
    pattern = _pattern(_joined(shortest))
    if len(outcome.forms) > 1:
        once = _pattern(_joined(outcome.forms[1][len(shortest) :]))
        pattern += f"(?:{once}){{0,{len(outcome.forms) - 1}}}"
    return pattern


def _orders(outcome: Outcome) -> Iterator[list[Any]]:
    """The parts of an outcome's text, in each order in which its senders may have had their turns;
    the order of the table comes first, and of replies that repeat the most."""
    for form in reversed(outcome.forms):
        yield _joined(form)
        own = [i for i in range(len(form)) if outcome.senders[i : i + 1] in (["worker"], [])]
        others = [i for i in range(len(form)) if i not in own]
        if own and others:
            for places in itertools.combinations(range(len(form)), len(others)):
                theirs, ours = iter(others), iter(own)
                yield _joined([form[next(theirs if i in places else ours)] for i in range(len(form))])


class Answers:
    """What a command may be answered. One for all of its answers; not for several threads at once
    before each method has been called once."""

    def __init__(self, command: Command):
        self.command = command
        self.outcomes = [*command.outcomes, Outcome(UNDEFINED)]

    @functools.cached_property
    def _in_order(self) -> Automaton:
        return Automaton([_declared(o) for o in self.outcomes if o.row["replies"]])

    @functools.cached_property
    def _in_any_order(self) -> Automaton:
        return Automaton(
            [_pattern(parts) for o in self.outcomes if o.row["replies"] for parts in _orders(o)]
        )

    @property
    def silent(self) -> list[str]:
        """The outcomes in which the phone says nothing."""
        return [o.name for o in self.command.outcomes if not o.row["replies"]]

    @property
    def usual(self) -> float:
        """Seconds from the line to the last reply of a phone that is well."""
        return float(self.command.row["time"]["usual_ms"]) / 1000

    @property
    def longest(self) -> float | None:
        """Seconds that it may take at most; None where the phone may wait for ever."""
        longest = self.command.row["time"]["longest_ms"]
        return None if longest is None else longest / 1000

    def state(self, text: str) -> State:
        for automaton in (self._in_order, self._in_any_order):
            states = automaton.step(automaton.start(), text)
            if automaton.whole(states) and self._matches(text):
                return State.MAYBE if automaton.goes_on(states) else State.COMPLETE
            if automaton.goes_on(states):
                return State.BEGUN
        return State.UNKNOWN

    def whole_beginnings(self, text: str) -> list[int]:
        """The lengths of those beginnings of a text that may be answers, the longest first."""
        states = self._in_order.start()
        found: list[int] = []
        for end, char in enumerate(text, 1):
            states = self._in_order.step(states, char)
            if not states:
                break
            if self._in_order.whole(states):
                found.insert(0, end)
        return found

    def _matches(self, text: str) -> list[tuple[Outcome, dict[str, str], list[Any]]]:
        """The outcomes that say the most word by word of those that a text is."""
        found: list[tuple[Outcome, dict[str, str], list[Any]]] = []
        for outcome in self.outcomes:
            for parts in _orders(outcome) if outcome.row["replies"] else ():
                values: dict[str, str] = {}
                if fits(parts, text, values):
                    found.append((outcome, values, parts))
                    break
        most = max((match[0].literals for match in found), default=0)
        return [match for match in found if match[0].literals == most]

    def result(self, line: str, text: str, seconds: float) -> Result | None:
        """What a whole answer says. None when no outcome is this text."""
        matches = self._matches(text)
        if not matches:
            return None
        outcome, texts, parts = matches[0]
        values: dict[str, Value] = {}
        for part in parts:
            if isinstance(part, Field):
                name = part.name.rpartition("_")[0] if part.name not in outcome.row["fields"] else ""
                value = _typed(part, texts[part.name])
                if name:
                    entries = values.setdefault(name, [])
                    assert isinstance(entries, list)
                    entries.append(value)
                else:
                    values[part.name] = value
        return Result(
            line=line,
            text=text,
            outcomes=tuple(match[0].name for match in matches),
            passed=all(match[0].row["result"] == "pass" for match in matches),
            meaning=outcome.row["meaning"],
            remedy=outcome.row.get("remedy", ""),
            values=values,
            seconds=seconds,
        )

    def later_replies(self, result: Result, text: str) -> list[str]:
        """What of a text may have come after an answer from another thread, each such reply once."""
        patterns = [
            _pattern(parts)
            for o in self.outcomes
            if o.name in result.outcomes
            for parts in o.later
        ]
        found = (re.search(pattern, text) for pattern in patterns)
        return [match[0] for match in found if match]


class AllAnswers:
    """The answers of every command, made when they are asked for first."""

    def __init__(self, table: Table):
        self._table = table
        self._known: dict[str, Answers] = {}
        self._none = Answers(Command(NO_COMMAND))

    def to(self, line: str) -> Answers:
        """Those to a line; to one that is no command only that the phone does not know it."""
        command = self._table.command(line)
        if command is None:
            return self._none
        if command.text not in self._known:
            self._known[command.text] = Answers(command)
        return self._known[command.text]

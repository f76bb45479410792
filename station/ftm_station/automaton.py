"""Says of a text that comes in parts whether it is whole, and whether it may go on. A regular
expression alone tells the first only, and some take for ever on garbage."""

import functools
import re
from typing import Union

# A set of characters, a sequence, alternatives, or a node repeated: (node, least, most or None).
Node = Union["Chars", "Sequence", "Choice", "Repeat"]
Chars = frozenset[str]


class Sequence(tuple[Node, ...]):
    pass


class Choice(tuple[Node, ...]):
    pass


class Repeat(tuple[Node, int, "int | None"]):
    pass


_ATOM = re.compile(r"\\x[0-9a-fA-F]{2}|\\.|\[\^?\]?(?:\\.|[^\]\\])*\]|[^()|*+?{}$]", re.DOTALL)
_TIMES = re.compile(r"\*|\+|\?|\{(\d+)(,?)(\d*)\}")


@functools.lru_cache(maxsize=None)
def _chars(atom: str) -> Chars:
    pattern = re.compile(atom, re.DOTALL)
    return frozenset(char for char in map(chr, range(256)) if pattern.fullmatch(char))


class _Parser:
    """The regular expressions of the command table: characters, classes, groups without a name,
    alternatives, counts. What looks ahead is left out, so that the automaton takes more than the
    expression does."""

    def __init__(self, text: str):
        self.text = text
        self.at = 0

    def choice(self) -> Node:
        choices = [self.sequence()]
        while self._skip("|"):
            choices.append(self.sequence())
        return choices[0] if len(choices) == 1 else Choice(choices)

    def sequence(self) -> Node:
        nodes: list[Node] = []
        while self.at < len(self.text) and self.text[self.at] not in "|)":
            if self._skip("(?!"):
                self.choice()
                self._expect(")")
            elif not self._skip("$"):
                nodes.append(self._counted(self._one()))
        return Sequence(nodes)

    def _one(self) -> Node:
        if self._skip("(?:"):
            node = self.choice()
            self._expect(")")
            return node
        found = _ATOM.match(self.text, self.at)
        if found is None:
            raise ValueError(f"no pattern that a station reads: {self.text!r} at {self.at}")
        self.at = found.end()
        return _chars(found[0])

    def _counted(self, node: Node) -> Node:
        found = _TIMES.match(self.text, self.at)
        if found is None:
            return node
        self.at = found.end()
        if found[1] is None:
            least, most = {"*": (0, None), "+": (1, None), "?": (0, 1)}[found[0]]
        else:
            least = int(found[1])
            most = int(found[3]) if found[3] else None if found[2] else least
        return Repeat((node, least, most))

    def _skip(self, text: str) -> bool:
        here = self.text.startswith(text, self.at)
        self.at += len(text) if here else 0
        return here

    def _expect(self, text: str) -> None:
        if not self._skip(text):
            raise ValueError(f"no pattern that a station reads: {self.text!r} has no {text}")


class Automaton:
    """Takes any text that one of the patterns is. Raises ValueError for a pattern of a kind that no
    command's table has."""

    END = 0

    def __init__(self, patterns: list[str]):
        # Of each state the characters that it takes, if any, and the states that follow.
        self._states: list[tuple[Chars | None, tuple[int, ...]]] = [(None, ())]
        self._starts = tuple(self._add(self._parse(pattern), self.END) for pattern in patterns)
        self._closures: dict[tuple[int, ...], frozenset[int]] = {}

    @staticmethod
    def _parse(pattern: str) -> Node:
        parser = _Parser(pattern)
        node = parser.choice()
        if parser.at != len(pattern):
            raise ValueError(f"no pattern that a station reads: {pattern!r} at {parser.at}")
        return node

    def _new(self, chars: Chars | None, following: tuple[int, ...]) -> int:
        self._states.append((chars, following))
        return len(self._states) - 1

    def _add(self, node: Node, then: int) -> int:
        """The state from which the node leads to another state."""
        if isinstance(node, frozenset):
            return self._new(node, (then,))
        if isinstance(node, Sequence):
            for part in reversed(node):
                then = self._add(part, then)
            return then
        if isinstance(node, Choice):
            return self._new(None, tuple(self._add(part, then) for part in node))
        part, least, most = node
        state = then
        if most is None:
            state = self._new(None, (then,))
            self._states[state] = (None, (self._add(part, state), then))
        for _ in range(0 if most is None else most - least):
            state = self._new(None, (self._add(part, state), then))
        for _ in range(least):
            state = self._add(part, state)
        return state

    def _closure(self, states: tuple[int, ...]) -> frozenset[int]:
        """These and what follows without a character; only those that take one, and the end."""
        known = self._closures.get(states)
        if known is None:
            seen = set()
            ahead = list(states)
            while ahead:
                state = ahead.pop()
                if state not in seen:
                    seen.add(state)
                    chars, following = self._states[state]
                    ahead += following if chars is None else ()
            known = frozenset(
                s for s in seen if s == self.END or self._states[s][0] is not None
            )
            self._closures[states] = known
        return known

    def start(self) -> frozenset[int]:
        """Where it is before the first character."""
        return self._closure(self._starts)

    def step(self, states: frozenset[int], text: str) -> frozenset[int]:
        """Where it is after more characters; nowhere when nothing begins like this."""
        for char in text:
            following: set[int] = set()
            for state in states:
                chars, targets = self._states[state]
                if chars is not None and char in chars:
                    following |= self._closure(targets)
            states = frozenset(following)
        return states

    def whole(self, states: frozenset[int]) -> bool:
        """Whether what came is one of the texts."""
        return self.END in states

    def goes_on(self, states: frozenset[int]) -> bool:
        """Whether there are texts that begin with what came and are longer."""
        return bool(states - {self.END})

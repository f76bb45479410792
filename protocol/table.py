"""Reads the command table, protocol/commands.json: finds a line's command and says which of its
outcomes replies are. Standard library only."""

import json
import pathlib
import re
from typing import NamedTuple

VERSION = 1  # of the tables that this program reads
TABLE = pathlib.Path(__file__).with_name("commands.json")

# What a field of each type looks like, and the beginning of one.
TYPES = {
    "integer": (r"-?[0-9]+", r"-?[0-9]*"),
    "decimal": (r"-?[0-9]+\.[0-9]+", r"-?[0-9]*(\.[0-9]*)?"),
    "hex": (r"[0-9a-fA-F]+", r"[0-9a-fA-F]*"),
    "text": (r"[^\r\n]+", r"[^\r\n]*"),
}


class Reply(NamedTuple):
    """One write of the daemon."""

    text: str
    from_worker: bool = True


class Match(NamedTuple):
    """What replies are: the outcome, the values of its fields, and whether all has come."""

    outcome: "Outcome"
    values: dict[str, str]
    complete: bool


class Field:
    def __init__(self, name: str, row: dict):
        self.name = name
        self.row = row
        if row["type"] == "choice":
            self.pattern = "|".join(re.escape(value) for value in row["values"])
        else:
            self.pattern = row.get("pattern", TYPES[row["type"]][0])
            if row.get("may_be_empty"):
                self.pattern = f"(?:{self.pattern})?"
        re.compile(self.pattern)

    def examples(self) -> list[str]:
        if self.row["type"] == "choice":
            return list(self.row["values"])
        return [self.row["example"]] + [""] * self.row.get("may_be_empty", False)

    def fits(self, text: str) -> bool:
        length = self.row.get("length", len(text))
        return len(text) == length and re.fullmatch(self.pattern, text, re.DOTALL) is not None

    def may_begin_with(self, text: str) -> bool:
        if self.row["type"] == "choice" or "pattern" in self.row:
            return self.fits(text) or any(e.startswith(text) for e in self.examples())
        return re.fullmatch(TYPES[self.row["type"]][1], text) is not None


class Outcome:
    """forms: the replies of the outcome, each as its texts and fields. There are several where the
    last replies repeat; the fields of these are then numbered: entry_1, entry_2, ..."""

    def __init__(self, row: dict):
        self.row = row
        self.name: str = row["name"]
        repeats = row.get("repeats", {"replies": [], "at_least": 0, "at_most": 0})
        fixed = [self._parts(reply) for reply in row["replies"]]
        self.forms = []
        for times in range(repeats["at_least"], repeats["at_most"] + 1):
            more = [
                self._parts(reply, f"_{i + 1}") for i in range(times) for reply in repeats["replies"]
            ]
            self.forms.append(fixed + more)
        self.later = [self._parts(later["reply"]) for later in row.get("later", [])]
        self.senders: list[str] = row.get("from", ["worker"] * len(fixed))
        self.literals = sum(len(part) for reply in fixed for part in reply if isinstance(part, str))

    def _parts(self, reply: str, suffix: str = "") -> list:
        """A reply's texts and fields."""
        parts = []
        for text, name in re.findall(r"((?:\{\{|\}\}|[^{}])+)|\{(\w+)\}", reply):
            if name:
                parts.append(Field(name + suffix, self.row["fields"][name]))
            else:
                parts.append(text.replace("{{", "{").replace("}}", "}"))
        return parts

    def texts(self) -> list[str]:
        """What a station may receive, with each example of each field once."""
        return [text for form in self.forms for text in _texts(form)]

    def may_begin_with(self, text: str) -> bool:
        """Whether the replies, written behind each other, may begin with a text and go on."""
        return any(_may_begin_with([p for r in form for p in r], text) for form in self.forms)

    def match(self, replies: list[Reply], ended: bool) -> Match | None:
        """What other threads send may still be missing, and their later replies may be there."""
        if ended == self.row.get("ends_daemon", False):
            for form in self.forms:
                match = self._match(form, replies)
                if match is not None:
                    return match
        return None

    def _match(self, form: list, replies: list[Reply]) -> Match | None:
        """Each sender's replies in their order; between senders it is chance where waits are short."""
        values: dict[str, str] = {}
        senders = self.senders + ["worker"] * (len(form) - len(self.senders))
        own = [parts for parts, sender in zip(form, senders) if sender == "worker"]
        theirs = [parts for parts, sender in zip(form, senders) if sender != "worker"]
        from_worker = [reply.text for reply in replies if reply.from_worker]
        from_others = [reply.text for reply in replies if not reply.from_worker]
        if len(from_worker) != len(own):
            return None
        pairs = list(zip(own, from_worker)) + list(zip(theirs, from_others))
        if not all(fits(parts, text, values) for parts, text in pairs):
            return None
        for text in from_others[len(theirs) :]:
            if not any(fits(parts, text, values) for parts in self.later):
                return None
        return Match(self, values, len(from_others) >= len(theirs))


def _texts(form: list) -> list[str]:
    fields = [part for reply in form for part in reply if isinstance(part, Field)]
    first = {field.name: field.examples()[0] for field in fields}
    cases = [first] + [{**first, f.name: e} for f in fields for e in f.examples()[1:]]
    return [
        "".join(case[p.name] if isinstance(p, Field) else p for reply in form for p in reply)
        for case in cases
    ]


def _may_begin_with(parts: list, text: str) -> bool:
    if not parts:
        return False
    part, more = parts[0], parts[1:]
    if isinstance(part, str):
        if part.startswith(text):
            return part != text or bool(more)
        return text.startswith(part) and _may_begin_with(more, text[len(part) :])
    if part.may_begin_with(text) and (more or text == "" or not part.fits(text)):
        return True
    return any(
        part.fits(text[:length]) and _may_begin_with(more, text[length:])
        for length in range(len(text) + 1)
    )


def fits(parts: list, text: str, values: dict[str, str]) -> bool:
    """Whether a text is these parts; adds the fields to the values, which may not change."""
    pattern = ""
    seen: set[str] = set()
    for part in parts:
        if isinstance(part, str):
            pattern += re.escape(part)
        elif part.name in seen:
            pattern += f"(?P={part.name})"
        else:
            seen.add(part.name)
            pattern += f"(?P<{part.name}>{part.pattern})"
    found = re.fullmatch(pattern, text, re.DOTALL)
    if found is None:
        return False
    new = found.groupdict()
    if not all(p.fits(new[p.name]) for p in parts if isinstance(p, Field)):
        return False
    if any(values.get(name, value) != value for name, value in new.items()):
        return False
    values.update(new)
    return True


class Command:
    def __init__(self, row: dict):
        self.row = row
        self.text: str = row["text"]
        self.outcomes = []
        for outcome in row["outcomes"]:
            try:
                self.outcomes.append(Outcome(outcome))
            except (KeyError, re.error) as error:
                name = outcome["name"]
                raise ValueError(f"{self.text}: {name}: no field or pattern: {error}") from error

    def explain(self, replies: list[Reply], ended: bool = False) -> list[Match]:
        """The outcomes that fit and of these those that say the most word by word: several only
        where the replies are the same. ended: the daemon has ended instead of going on."""
        found = [m for m in (o.match(replies, ended) for o in self.outcomes) if m is not None]
        if any(match.complete for match in found):
            found = [match for match in found if match.complete]
        most = max((match.outcome.literals for match in found), default=0)
        return [match for match in found if match.outcome.literals == most]


class Table:
    """Raises OSError, ValueError or KeyError where the file is no table, as the schema has it."""

    def __init__(self, path: pathlib.Path = TABLE):
        self.document = json.loads(path.read_text(encoding="ascii"))
        version = self.document["version"] if isinstance(self.document, dict) else None
        if version != VERSION:
            raise ValueError(f"{path} is of version {version}, not {VERSION}")
        self.commands = [Command(row) for row in self.document["commands"]]

    def command(self, line: str) -> Command | None:
        """The command that the daemon takes a line for. None: it is undefined."""
        line = re.sub("[a-z]+", lambda small: small[0].upper(), line.split("\0")[0])
        if line.startswith("AT^WITH_ARGS") and ":" not in line:
            return None
        return next((c for c in self.commands if line.startswith(c.text)), None)

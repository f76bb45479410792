"""Checks the command table and prints a line for each finding; status 1 when there is one.

usage: check.py [--daemon PROGRAM] [EXCHANGES...]

The table is held to its schema and to itself; to the daemon's own table, which PROGRAM prints (text and
short name, a tab between, a row a line); to the exchanges of the transcripts (run_transcripts
--exchanges): each must be one of the outcomes, and each outcome must be seen.
"""

import argparse
import collections
import json
import pathlib
import re
import subprocess
import sys

import jsonschema

from table import TABLE, Field, Outcome, Reply, Table

PROJECT = TABLE.parent.parent

# Outcomes that no transcript can show, by command and outcome, with the reason.
NOT_SHOWN: dict[tuple[str, str], str] = {}


def check_schema(document: dict) -> list[str]:
    schema = json.loads(TABLE.with_name("commands.schema.json").read_text())
    found = []
    for error in jsonschema.Draft7Validator(schema).iter_errors(document):
        path = list(error.absolute_path)
        where = "the table"
        if path[:1] == ["commands"] and len(path) > 1:
            row = document["commands"][path[1]]
            where = row.get("text", f"command {path[1] + 1}")
            if path[2:3] == ["outcomes"] and len(path) > 3:
                where += ", " + row["outcomes"][path[3]].get("name", f"outcome {path[3] + 1}")
        place = "/".join(str(step) for step in path[2:])
        found.append(f"{where}: {place}: {error.message}")
    return found


def twice(what: str, names: list[str]) -> list[str]:
    counts = collections.Counter(names)
    return [f"{what} {name} is there {count} times" for name, count in counts.items() if count > 1]


def check_outcome(outcome: Outcome) -> list[str]:
    row = outcome.row
    found = []
    replies = row["replies"] + row.get("repeats", {}).get("replies", [])
    replies += [later["reply"] for later in row.get("later", [])]
    fields = {name: Field(name, field) for name, field in row.get("fields", {}).items()}
    found += [f"the field {name} is in no reply" for name in fields
              if not any(f"{{{name}}}" in reply for reply in replies)]
    if len(outcome.senders) != len(row["replies"]):
        found.append(f"{len(outcome.senders)} senders for {len(row['replies'])} replies")
    for field in fields.values():
        if re.search(r"\((?!\?)", field.pattern):
            found.append(f"the pattern of {field.name} has a group that captures")
        found += [f'the field {field.name} cannot be "{example}"' for example in field.examples()
                  if not field.fits(example)]
    if row["result"] == "pass" and "remedy" in row:
        found.append("a pass has a remedy")
    return found


def check_beginnings(outcomes: list[Outcome]) -> list[str]:
    """What is said of beginnings, beside what the replies are."""
    found = []
    for one in outcomes:
        said = set(one.row.get("begins", []))
        true = {
            other.name
            for other in outcomes
            if other is not one and any(other.may_begin_with(text) for text in one.texts() if text)
        }
        found += [f"{one.name}: begins {name}, which is not said" for name in sorted(true - said)]
        found += [f"{one.name}: does not begin {name}" for name in sorted(said - true)]
    for i, one in enumerate(outcomes):
        for other in outcomes[i + 1 :]:
            if one.senders == other.senders and set(one.texts()) & set(other.texts()):
                found.append(f"{one.name} and {other.name} cannot be told apart")
    return found


def check_itself(table: Table) -> list[str]:
    found = twice("the text", [command.text for command in table.commands])
    for command in table.commands:
        here = twice("the outcome", [outcome.name for outcome in command.outcomes])
        for outcome in command.outcomes:
            here += [f"{outcome.name}: {text}" for text in check_outcome(outcome)]
        here += check_beginnings(command.outcomes)
        found += [f"{command.text}: {text}" for text in here]
    return found


def check_modules(table: Table) -> list[str]:
    """The sources of a row's module hold its text."""
    found = []
    for command in table.commands:
        module = command.row["module"]
        folder = PROJECT / "modules" / module
        folder = folder if folder.is_dir() else PROJECT / module
        if not any(f'"{command.text}"' in path.read_text() for path in folder.glob("*.cpp")):
            found.append(f"{command.text}: the module {module} does not have it")
    return found


def check_daemon(table: Table, program: str) -> list[str]:
    """The daemon's rows beside the table's: the same ones in the same order."""
    printed = subprocess.run([program], check=True, capture_output=True, text=True).stdout
    daemon = [tuple(line.split("\t")) for line in printed.splitlines() if "\t" in line]
    rows = [(command.text, command.row["name"]) for command in table.commands]
    found = [f"{text} ({name}): the daemon has it, the table not" for text, name in daemon
             if (text, name) not in rows]
    found += [f"{text} ({name}): the table has it, the daemon not" for text, name in rows
              if (text, name) not in daemon]
    if not found and daemon != rows:
        at = next(i for i, row in enumerate(rows) if row != daemon[i])
        found.append(f"{rows[at][0]}: the daemon has {daemon[at][0]} in its place")
    return found


def unescaped(shown: str) -> str:
    """The bytes that the handset shows as \\r, \\n, \\\\, \\x1b and \\{12*\\x00}."""

    def byte(match: re.Match) -> str:
        if match[1]:
            return unescaped(match[2]) * int(match[1])
        return {"r": "\r", "n": "\n", "\\": "\\"}.get(match[3]) or chr(int(match[3][1:], 16))

    return re.sub(r"\\(?:\{(\d+)\*(.*?)\}|(r|n|\\|x[0-9a-f]{2}))", byte, shown)


def exchange(line: str) -> tuple[str, list[Reply], bool]:
    """A sent line with its replies and whether the daemon ended."""
    sent, *shown = line.split("\t")
    ended = shown[-1:] == ["!"]
    replies = []
    for text in shown[:-1] if ended else shown:
        sender, reply = text.split("< ", 1)
        replies.append(Reply(unescaped(reply), sender == ""))
    return unescaped(sent), replies, ended


def exchanges(path: pathlib.Path):
    """Each exchange with its line."""
    for line in path.read_text(encoding="ascii").splitlines():
        if not line.startswith("#"):
            yield *exchange(line), line


def check_exchanges(table: Table, paths: list[pathlib.Path]) -> list[str]:
    found = []
    seen: set[tuple[str, str]] = set()
    for path in paths:
        if not path.exists():
            found.append(f"there is no {path}: its transcript has not been replayed")
            continue
        for sent, replies, ended, line in exchanges(path):
            command = table.command(sent)
            if command is None:
                if replies != [Reply("UNDEFINED COMMAND\n")]:
                    found.append(f"{path.name}: no command, and yet: {line}")
                continue
            matches = command.explain(replies, ended)
            if not matches:
                found.append(f"{command.text}: {path.name} has what no outcome is: {line}")
            seen |= {(command.text, match.outcome.name) for match in matches if match.complete}
    for command in table.commands:
        for outcome in command.outcomes:
            here = (command.text, outcome.name)
            if here in NOT_SHOWN and here in seen:
                found.append(f"{command.text}: {outcome.name}: is shown after all")
            if here not in NOT_SHOWN and here not in seen:
                found.append(f"{command.text}: {outcome.name}: no transcript shows it")
    names = {(c.text, o.name) for c in table.commands for o in c.outcomes}
    found += [f"{text}: {name}: there is no such outcome" for text, name in NOT_SHOWN
              if (text, name) not in names]
    return found


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--daemon", metavar="PROGRAM", help="prints the daemon's table")
    parser.add_argument("exchanges", nargs="*", type=pathlib.Path)
    options = parser.parse_args()
    found = check_schema(json.loads(TABLE.read_text(encoding="ascii")))
    commands = 0
    if not found:
        try:
            table = Table()
            commands = len(table.commands)
            found = check_itself(table) + check_modules(table)
            if options.daemon:
                found += check_daemon(table, options.daemon)
            if options.exchanges:
                found += check_exchanges(table, options.exchanges)
        except ValueError as error:
            found.append(str(error))
    for finding in found:
        print(finding)
    print(f"{commands} commands, {len(found)} findings")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())

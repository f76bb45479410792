"""Checks the daemon's access policy and prints a line for each finding; status 1 when there is one.

usage: check_policy.py TOUCHES...

TOUCHES are files of run_transcripts --touches. Each line must be in the table and be allowed, with the
way to its place; each word of the table must be seen, or be in parentheses; no rule may be more than
the two need. The policy files must be what make_policy.py writes, and compile with the platform's types
in base/. What the init script grants must be what the table says.
"""

import argparse
import pathlib
import re
import subprocess
import sys
import tempfile

import make_policy
import policy_table
from policy_table import BASE, HERE, Row, Rule

# What starting the daemon takes, and not the table.
STARTING = {("ftmd_exec", "file", permission)
            for permission in ("entrypoint", "open", "read", "execute", "getattr", "map")}
STARTING.add(("init", "process", "sigchld"))

FILES = ("ftmd.te", "file_contexts", "genfs_contexts", "property_contexts", "ueventd.ftmd.rc")


class Policy:
    """The policy files beside those of the platform."""

    def __init__(self, files: dict[str, str]) -> None:
        self.text = files["ftmd.te"]
        platform = (BASE / "platform.te").read_text()
        self.labels = make_policy.base_labels(files)
        self.own = policy_table.read_rules(self.text, "ftmd")
        self.rules = self.own | policy_table.read_rules(platform, "domain")
        self.attributes: dict[str, set[str]] = {}
        for name, attributes in re.findall(r"^type (\w+), ([\w, ]+);", platform + self.text, re.MULTILINE):
            self.attributes[name] = {name, *attributes.split(", ")}

    def names(self, label: str) -> set[str]:
        """The label and its attributes."""
        return self.attributes.get(label, {label})

    def allows(self, rule: Rule) -> bool:
        label, kind, permission = rule
        return any((name, kind, permission) in self.rules for name in self.names(label))

    def label(self, row: Row, path: str) -> str:
        if row.kind == "property":
            return self.labels.property(path)
        if row.kind in ("self", "volume", "driver"):
            return row.label
        return self.labels.path(policy_table.real_path(path), policy_table.CLASSES[row.kind])


def on_phone(word: str, path: str) -> str:
    """The path without the link that /d is; the desk's shell tools have their places there."""
    path = re.sub("^/d(?=/)", "/sys/kernel/debug", path)
    path = re.sub("(?<=.)/$", "", path)
    return re.sub("^/(usr/)?bin/", "/system/bin/", path) if word == "run" else path


def check_touch(policy: Policy, row: Row, word: str, path: str) -> list[str]:
    what = f"{word} {path}"
    label = policy.label(row, path)
    if row.label not in policy.names(label):
        return [f"{what}: its label is {label or 'none'}, the table says {row.label}"]
    found = [f"{what}: not allowed: {kind} {permission} on {name}"
             for name, kind, permission in sorted(policy_table.rules_of(row, word, path, policy.labels))
             if not policy.allows((name, kind, permission))]
    if word in ("create", "mkdir"):
        above, _, name = path.rpartition("/")
        folder = policy.labels.path(policy_table.real_path(above), "dir")
        transition = f'type_transition ftmd {folder}:file {label} "{name}";'
        if folder != label and transition not in policy.text:
            found.append(f"{what}: is made as {folder}, its folder's, and not as {label}")
    return found


class Seen:
    """What the run's touches and the table have to say of each other."""

    def __init__(self, policy: Policy, rows: list[Row]) -> None:
        self.policy = policy
        self.rows = rows
        self.words: set[tuple[int, str]] = set()  # a row's line and a word
        self.needed: set[Rule] = set()
        self.found: list[str] = []
        self.places: set[str] = set()
        self.desk = 0

    def add(self, word: str, path: str) -> None:
        path = on_phone(word, path)
        rows = [row for row in self.rows if row.matches(path)]
        fitting = [(row, row_word) for row in rows for row_word in row.words if row_word.name == word]
        if not fitting:
            if any(row.kind == "desk" for row in rows):
                self.desk += 1
            else:
                self.found.append(f"{word} {path}: not in {policy_table.TABLE.name}")
            return
        self.places.add(path)
        for row, row_word in fitting:
            self.words.add((row.line, word))
            if not row_word.refused:
                self.needed |= policy_table.rules_of(row, word, path, self.policy.labels)
                self.found += check_touch(self.policy, row, word, path)

    def check_table(self) -> None:
        for row in self.rows:
            if row.kind == "self":
                self.needed |= make_policy.row_rules(row, self.policy.labels)
                continue
            for word in row.words:
                if word.shown != ((row.line, word.name) in self.words):
                    where, shows = ("the table", "no") if word.shown else ("parentheses", "a")
                    self.found.append(f"{word.name} {row.place}: in {where}, but {shows} run shows it")
                if not word.shown:
                    self.needed |= make_policy.row_rules(row._replace(words=[word]), self.policy.labels)

    def check_rules(self) -> None:
        for label, kind, permission in sorted(self.policy.own - self.needed - STARTING):
            self.found.append(f"allowed, but nobody needs it: {kind} {permission} on {label}")
        for label, kind, permission in sorted(rule for rule in self.needed if not self.policy.allows(rule)):
            self.found.append(f"needed, but not allowed: {kind} {permission} on {label}")


def check_made(files: dict[str, str], table: str) -> list[str]:
    return [f"{name}: not what make_policy.py writes" for name, text in make_policy.make(table).items()
            if files[name] != text]


def check_compiles(files: dict[str, str]) -> list[str]:
    parts = [(BASE / "head.conf").read_text(), (BASE / "platform.te").read_text(), files["ftmd.te"],
             (BASE / "tail.conf").read_text(), (BASE / "genfs_contexts").read_text(), files["genfs_contexts"]]
    with tempfile.TemporaryDirectory() as folder:
        policy = pathlib.Path(folder, "policy.conf")
        policy.write_text("\n".join(parts))
        command = ["checkpolicy", "-M", "-c", "30", "-o", f"{folder}/policy", str(policy)]
        run = subprocess.run(command, capture_output=True, text=True)
    return run.stderr.splitlines()[:5] if run.returncode != 0 else []


def check_contexts(policy: Policy) -> list[str]:
    """A label that the policy does not declare is no label."""
    used = {policy_table.type_of(words[-1]) for words in policy.labels.files + policy.labels.genfs}
    used |= set(policy.labels.properties.values())
    return [f"no such type: {name}" for name in sorted(used - set(policy.attributes))]


def check_init(script: str, policy: Policy) -> list[str]:
    """The init script's capabilities and its program."""
    granted = re.search(r"^    capabilities (.*)$", script, re.MULTILINE)
    names = set(granted.group(1).lower().split() if granted else [])
    allowed = {permission for _, kind, permission in policy.own if kind in ("capability", "capability2")}
    found = [f"ftmd.rc: capability {name} is in one of script and policy only"
             for name in sorted(names ^ allowed)]
    if not re.search(r"^service ftmd /odm/bin/ftmd$", script, re.MULTILINE):
        found.append("ftmd.rc: starts no /odm/bin/ftmd")
    return found


def check(files: dict[str, str], table: str, touches: list[str]) -> tuple[list[str], str]:
    """The findings, and one line of what was looked at."""
    rows = policy_table.read_table(table)
    policy = Policy(files)
    seen = Seen(policy, rows)
    for touch in sorted(set(touches)):
        seen.add(*touch.split(" ", 1))
    if not seen.places:
        seen.found.append("the runs touch nothing")
    seen.check_table()
    seen.check_rules()
    found = check_made(files, table) + seen.found + check_contexts(policy) + check_compiles(files)
    allows = len(re.findall("^allow ftmd ", policy.text, re.MULTILINE))
    return found, (f"{allows} rules with {len(policy.own)} permissions, {len(seen.places)} places touched"
                   f" in the runs, {len([row for row in rows if row.kind != 'desk'])} rows of the table;"
                   f" {seen.desk} touches of the desk's own left out")


def read_files() -> dict[str, str]:
    return {name: (HERE / name).read_text() for name in FILES}


def main() -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("touches", nargs="+", type=pathlib.Path)
    touches = [line for path in parser.parse_args().touches for line in path.read_text().splitlines()]
    files = read_files()
    found, looked_at = check(files, policy_table.TABLE.read_text(), touches)
    found += check_init((HERE / "ftmd.rc").read_text(), Policy(files))
    for finding in found:
        print(finding)
    print(f"{looked_at}: {len(found)} findings")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())

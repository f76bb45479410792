"""The table of what the daemon touches, and what the phone's access rules make of it.

Read by make_policy.py and check_policy.py.
"""

import itertools
import pathlib
import re
from typing import NamedTuple

HERE = pathlib.Path(__file__).resolve().parent
TABLE = HERE / "touches.table"
BASE = HERE / "base"

# A type, a class and a permission that a domain has on it.
Rule = tuple[str, str, str]

CLASSES = {"sysfs": "file", "proc": "file", "debugfs": "file", "class": "file", "file": "file",
           "program": "file", "dir": "dir", "device": "chr_file", "block": "blk_file",
           "link": "lnk_file", "driver": "system", "volume": "filesystem", "property": "file"}
GENFS = {"sysfs": "/sys", "proc": "/proc", "debugfs": "/sys/kernel/debug"}

READ = ["open", "read", "getattr"]
NEEDED: dict[str, list[str]] = {
    "look": [], "ask": ["read"], "read": READ, "write": ["open", "write", "getattr"],
    "create": ["create"], "remove": ["unlink", "getattr"], "chmod": ["setattr"], "chown": ["setattr"],
    "list": READ + ["search"], "mkdir": ["create"], "rmdir": ["rmdir"], "control": ["ioctl"],
    "map": ["map"], "run": READ + ["execute", "execute_no_trans", "map"], "statfs": ["getattr"],
    "get": READ + ["map"], "load": ["module_load"], "unload": [],
}
# Of the folder that the place is in.
NEEDED_ABOVE = {
    "create": ["write", "add_name"], "mkdir": ["write", "add_name"],
    "remove": ["write", "remove_name"], "rmdir": ["write", "remove_name"],
}
MODULES: Rule = ("self", "capability", "sys_module")
# Setting a property is asking init for it.
SET: list[Rule] = [("property_socket", "sock_file", "write"), ("init", "unix_stream_socket", "connectto")]


class Word(NamedTuple):
    name: str
    shown: bool  # in a run on a desk
    refused: bool


class Row(NamedTuple):
    line: int
    kind: str
    place: str
    label: str
    platform: bool  # the label is the platform's own business
    words: list[Word]
    who: str

    def matches(self, path: str) -> bool:
        if self.kind in GENFS or self.kind in ("property", "volume", "driver"):
            return path == self.place
        return re.fullmatch(self.place, path) is not None


def read_word(text: str) -> Word:
    return Word(text.strip("()-"), not text.startswith("("), text.startswith("-"))


def read_table(text: str) -> list[Row]:
    rows = []
    for number, line in enumerate(text.splitlines(), 1):
        if not line or line.startswith("#"):
            continue
        if line.startswith("desk "):
            kind, place, who = line.split(None, 2)
            label, access = "-", "-"
        else:
            kind, place, label, access, who = line.split(None, 4)
        words = [read_word(word) for word in access.split(",") if word != "-"]
        known = kind in ("desk", "self") or kind in CLASSES and all(
            word.name in NEEDED or word.name == "set" for word in words)
        if not known:
            raise ValueError(f"{TABLE.name}:{number}: {line}")
        rows.append(Row(number, kind, place, label.lstrip("="), label.startswith("="), words, who))
    return rows


def real_path(path: str) -> str:
    """Where the links of a class lead. Its devices are somewhere below /sys/devices."""
    return re.sub("^/sys/class/", "/sys/devices/platform/", path)


def samples(place: str) -> list[str]:
    """Paths that an expression of the table stands for: one for each of its alternatives."""
    for pattern, text in ((r"\[[^]]*\]\+", "0"), (r"\[cp\]", "c"), (r"\.[*+]", "x"),
                          (r"\\\.", ".")):
        place = re.sub(pattern, text, place)
    parts: list[str] = re.split(r"\(([^()]*)\)(\??)", place)
    choices = [[part] for part in parts]
    for i in range(1, len(parts), 3):
        choices[i] = parts[i].split("|") + ([""] if parts[i + 1] else [])
        choices[i + 1] = [""]
    return ["".join(choice) for choice in itertools.product(*choices)]


class Labels:
    """Which label a place has, by the context files."""

    def __init__(self, files: str, genfs: str, properties: str) -> None:
        self.files = [line.split() for line in lines_of(files)]
        self.genfs = [line.split() for line in lines_of(genfs)]
        self.properties = {line.split()[0]: type_of(line.split()[1]) for line in lines_of(properties)}

    def path(self, path: str, kind: str) -> str:
        """kind is the path's class. The last expression that matches counts, for nodes the longest."""
        flag = {"dir": "-d", "file": "--", "chr_file": "-c", "blk_file": "-b", "lnk_file": "-l"}[kind]
        for words in reversed(self.files):
            if (len(words) == 2 or words[1] == flag) and re.fullmatch(words[0], path):
                return type_of(words[-1])
        best = ("", "")
        for _, system, place, context in self.genfs:
            whole = GENFS[system] + place.rstrip("/")
            if (path == whole or path.startswith(whole + "/")) and len(whole) >= len(best[0]):
                best = (whole, type_of(context))
        return best[1]

    def property(self, name: str) -> str:
        return self.properties.get(name, "")


def lines_of(text: str) -> list[str]:
    return [line for line in text.splitlines() if line and not line.startswith("#")]


def type_of(context: str) -> str:
    return context.split(":")[2]


def folders_of(path: str) -> list[str]:
    return [str(folder) for folder in pathlib.PurePosixPath(path).parents]


def rules_of(row: Row, word: str, path: str, labels: Labels) -> set[Rule]:
    """What a domain must be allowed, to do what the word says to the path."""
    if row.kind == "self":
        return {("self", row.place, word)}
    if row.kind == "driver":
        return {MODULES} | {("self", "system", needed) for needed in NEEDED[word]}
    if word == "set":
        return {(row.label, "property_service", "set"), *SET}
    rules = {(row.label, CLASSES[row.kind], needed) for needed in NEEDED[word]}
    if row.kind in ("property", "volume"):
        return rules
    above = folders_of(real_path(path))
    for folder in above:
        rules.add((labels.path(folder, "dir"), "dir", "search"))
    if row.kind == "class":
        rules.add((row.label, "dir", "search"))  # the device's folder often has its nodes' label
        classes = labels.path(path.rpartition("/")[0], "lnk_file")  # the link's own
        rules |= {(classes, "dir", "search"), (classes, "lnk_file", "read")}
    for needed in NEEDED_ABOVE.get(word, []):
        rules.add((labels.path(above[0], "dir"), "dir", needed))
    return rules


ALLOW = re.compile(r"^allow (\w+) (\w+):(\w+) (?:\{ ([\w ]+) \}|(\w+));$", re.MULTILINE)


def read_rules(policy: str, domain: str) -> set[Rule]:
    """The allow rules of one domain, or of one attribute."""
    return {(label, kind, permission) for source, label, kind, several, one in ALLOW.findall(policy)
            if source == domain for permission in (several or one).split()}

"""Writes the daemon's access policy.

usage: make_policy.py [--check | --places]

The files are ftmd.te, file_contexts, genfs_contexts, property_contexts and ueventd.ftmd.rc, beside this
one, from touches.table. With --check nothing is written: status 1 when one of them is not what would be
written. With --places the devices and nodes of the table are printed, a path a line.
"""

import argparse
import collections
import difflib
import re
import sys

import policy_table
from policy_table import BASE, GENFS, HERE, Labels, Row, Rule

# Owner and group of devices, by their label: as the platform has them, where it has them.
OWNERS = {"serial_device": "root root", "graphics_device": "root graphics", "input_device": "root input",
          "audio_device": "system audio", "video_device": "system camera"}

HEAD = "# {what} Written by make_policy.py from touches.table.\n"

DOMAIN = """
type ftmd, domain;
type ftmd_exec, exec_type, vendor_file_type, file_type;

# Its tools are the system's as well as the vendor's.
typeattribute ftmd vendor_executes_system_violators;

# Started by init.
type_transition init ftmd_exec:process ftmd;
allow init ftmd_exec:file { getattr open read execute map };
allow init ftmd:process { transition siginh rlimitinh };
allow ftmd ftmd_exec:file { entrypoint open read execute getattr map };
allow ftmd init:process sigchld;
dontaudit init ftmd:process noatsecure;

# The line's settings are made before by stty, in a domain of its own.
type ftmd_line, domain;
allow init vendor_toolbox_exec:file { getattr open read execute map };
allow init ftmd_line:process { transition siginh rlimitinh };
allow ftmd_line vendor_toolbox_exec:file { entrypoint open read execute getattr map };
allow ftmd_line init:process sigchld;
dontaudit init ftmd_line:process noatsecure;
allow ftmd_line serial_device:chr_file { open read write getattr ioctl };

# ifconfig: SIOCGIFFLAGS and SIOCSIFFLAGS; iw: SIOCGIFINDEX.
allowxperm ftmd self:udp_socket ioctl { 0x8913 0x8914 0x8933 };
"""

ATTRIBUTES = {"sysfs": "fs_type, sysfs_type", "class": "fs_type, sysfs_type", "proc": "fs_type, proc_type",
              "debugfs": "fs_type, debugfs_type", "block": "dev_type", "file": "file_type",
              "dir": "file_type", "property": "property_type, vendor_property_type"}
DATA = ", data_file_type"
NODES = ("device", "block", "class", "sysfs", "proc", "debugfs")
NUMBER = r"\[0-9\]\+(\[cp\])?"

FLAGS = {"class": "--", "file": "--", "program": "--", "dir": "-d", "device": "-c", "block": "-b",
         "link": "-l"}


def context(label: str) -> str:
    return f"u:object_r:{label}:s0"


def labelled(rows: list[Row], kinds: collections.abc.Iterable[str]) -> list[Row]:
    return [row for row in rows if row.kind in kinds and not row.platform]


def file_contexts(rows: list[Row]) -> str:
    lines = [f"/(odm|vendor/odm)/bin/ftmd  --  {context('ftmd_exec')}"]
    for row in labelled(rows, FLAGS):
        place = row.place.replace("/sys/class/", "/sys/devices/.+/")
        lines.append(f"{place}  {FLAGS[row.kind]}  {context(row.label)}")
    return HEAD.format(what="Files, devices and the nodes of classes.") + "\n".join(lines) + "\n"


def genfs_contexts(rows: list[Row]) -> str:
    lines = [f"genfscon {row.kind} {row.place.removeprefix(GENFS[row.kind])} {context(row.label)}"
             for row in labelled(rows, GENFS)]
    return HEAD.format(what="Nodes at fixed places.") + "\n".join(lines) + "\n"


def property_contexts(rows: list[Row]) -> str:
    lines = [f"{row.place} {context(row.label)} exact string" for row in labelled(rows, ["property"])]
    return HEAD.format(what="Properties.") + "\n".join(lines) + "\n"


def ueventd(rows: list[Row]) -> str:
    """The daemon is root without the right to pass over a file's mode."""
    lines = []
    for row in rows:
        if row.kind == "device":
            lines.append(f"{re.sub(NUMBER, '*', row.place)} 0660 {OWNERS[row.label]}")
        elif row.kind == "class" and any(word.name == "write" for word in row.words):
            lines += [f"{device} {node} 0664 root system" for device, _, node in
                      (path.rpartition("/") for path in policy_table.samples(row.place))]
    return HEAD.format(what="Lines for the phone's ueventd.rc.") + "\n".join(lines) + "\n"


def types(rows: list[Row]) -> str:
    declared: dict[str, str] = {}
    for row in labelled(rows, ATTRIBUTES):
        attributes = ATTRIBUTES[row.kind] + (DATA if row.place.startswith("/data/") else "")
        declared.setdefault(row.label, attributes)
    return "".join(f"type {label}, {attributes};\n" for label, attributes in declared.items())


def transitions(rows: list[Row], labels: Labels) -> str:
    """Of files that are made in a folder with another label."""
    text = ""
    for row in labelled(rows, ["file"]):
        if any(word.name == "create" and not word.refused for word in row.words):
            for path in policy_table.samples(row.place):
                folder, _, name = path.rpartition("/")
                above = labels.path(folder, "dir")
                if above != row.label:
                    text += f'type_transition ftmd {above}:file {row.label} "{name}";\n'
    return text


def row_rules(row: Row, labels: Labels) -> set[Rule]:
    paths = policy_table.samples(row.place) if "/" in row.place else [row.place]
    return {rule for word in row.words if not word.refused for path in paths
            for rule in policy_table.rules_of(row, word.name, path, labels)}


def allows(rows: list[Row], labels: Labels, given: set[Rule]) -> str:
    """given is what every domain has."""
    asked = [(row, row_rules(row, labels) - given) for row in rows if row.kind != "desk"]
    permissions: dict[tuple[str, str], set[str]] = collections.defaultdict(set)
    users: dict[tuple[str, str], list[str]] = collections.defaultdict(list)
    for row, rules in asked:
        for label, kind, permission in sorted(rules):
            permissions[label, kind].add(permission)
            user = row.who.split(":")[0].split(",")
            users[label, kind] += [name.strip() for name in user if name.strip() not in users[label, kind]]
    text = heading = ""
    for (label, kind), names in permissions.items():
        last, heading = heading, f"# {', '.join(users[label, kind])}\n"
        text += heading if heading != last else ""
        text += f"allow ftmd {label}:{kind} {{ {' '.join(sorted(names))} }};\n"
    return text


def base_labels(files: dict[str, str]) -> Labels:
    return Labels(*((BASE / name).read_text() + files[name]
                    for name in ("file_contexts", "genfs_contexts", "property_contexts")))


def make(table: str) -> dict[str, str]:
    rows = [row for row in policy_table.read_table(table) if row.kind != "desk"]
    files = {"file_contexts": file_contexts(rows), "genfs_contexts": genfs_contexts(rows),
             "property_contexts": property_contexts(rows), "ueventd.ftmd.rc": ueventd(rows)}
    labels = base_labels(files)
    given = policy_table.read_rules((BASE / "platform.te").read_text(), "domain")
    files["ftmd.te"] = "\n".join([HEAD.format(what="The daemon's domain.") + DOMAIN.rstrip("\n"), "",
                                  types(rows) + transitions(rows, labels), allows(rows, labels, given)])
    return files


def main() -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("--check", action="store_true")
    parser.add_argument("--places", action="store_true")
    arguments = parser.parse_args()
    if arguments.places:
        rows = policy_table.read_table(policy_table.TABLE.read_text())
        for row in rows:
            if row.kind in NODES:
                print("\n".join(policy_table.samples(row.place)))
        return 0
    check = arguments.check
    differs = False
    for name, text in make(policy_table.TABLE.read_text()).items():
        path = HERE / name
        if not check:
            path.write_text(text)
        elif not path.exists() or path.read_text() != text:
            differs = True
            was = path.read_text() if path.exists() else ""
            sys.stdout.writelines(difflib.unified_diff(was.splitlines(True), text.splitlines(True), name,
                                                       "as make_policy.py writes it"))
    return 1 if differs else 0


if __name__ == "__main__":
    sys.exit(main())

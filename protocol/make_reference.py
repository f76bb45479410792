"""Writes doc/commands.md and the man page doc/ftmd.8 from the command table.

usage: make_reference.py [--check]

With --check nothing is written; status 1 says that a file is not as it would be written.
"""

import re
import sys

from table import TABLE, Table

DOC = TABLE.parent.parent / "doc"

INTRO = r"""# Commands

<!-- Written by protocol/make_reference.py from protocol/commands.json: change the table, not this file. -->

What a test station sends to the phone, and all that may come back.

- A line goes on the serial line in one write and ends with `\n`. What one read of the daemon brings, at
  most 576 bytes, is one command: a line that comes in parts, or two in one write, are not what was meant.
- Small letters are folded to capitals, in an argument, too. What follows a command's text is ignored, but
  for an argument: that is all behind the first colon, `\r` and `\n` with it.
- The replies of one command have no common framing. Wait for the whole reply before you send the next line.
- A line that is no command is answered with `UNDEFINED COMMAND\n`.

Replies stand as they look on the line: `\r` and `\n` are the two line ends, `{name}` is a field. Each
piece in code letters is one write of the daemon; on the line they follow each other without a gap or a mark.
Times are those of a phone, to the last reply.
"""

WANTS = """## What you want to know

What is not listed has no command.
"""

MAN_HEAD = r""".\" Written by protocol/make_reference.py from protocol/commands.json.
.TH FTMD 8 "" "ftmd" "System Administration"
.SH NAME
ftmd \- factory test mode of a phone over its serial line
.SH SYNOPSIS
.B ftmd
.SH DESCRIPTION
.B ftmd
reads commands from /dev/ttyMSM0, drives the phone's hardware and answers on the same line.
It is started as root, in the root folder, when the phone is in factory test mode, and takes no options.
The line's settings are not touched: set them before the start, with
.B stty raw icanon \-echo
so that each line is one command.
.PP
A station writes a command in one write of at most 576 bytes, ends it with a line feed and waits for the
whole reply. Letters may be small. What is no command is answered with
.BR "UNDEFINED COMMAND\en" .
.PP
Each reply below stands as it looks on the line, one for each write; {name} is a field.
A reply behind a minus sign is a failure's.
"""

MAN_TAIL = r""".SH FILES
.TP
.I /dev/ttyMSM0
The serial line.
.TP
.I /odm/etc/ftm_mixer_paths.xml
The mixer paths of the audio tests.
.SH DIAGNOSTICS
Everything else that the daemon has to say goes to the Android log.
"""


def shown(reply: str) -> str:
    """A reply as it looks on the line."""
    text = reply.replace("{{", "{").replace("}}", "}").replace("\\", "\\\\")
    text = text.replace("\r", "\\r").replace("\n", "\\n")
    return re.sub(r"[^ -~]", lambda match: f"\\x{ord(match[0]):02x}", text)


def milliseconds(time: int | None) -> str:
    if time is None:
        return "no limit"
    if time >= 1000:
        return f"{time / 1000:g} s"
    return f"{time} ms"


def times(row: dict) -> str:
    usual, longest = row["time"]["usual_ms"], row["time"]["longest_ms"]
    if longest == 0:
        return "at once"
    if usual == longest:
        return milliseconds(usual)
    usually = f"usually {milliseconds(usual)}" if usual else "usually at once"
    return f"{usually}, at most {milliseconds(longest)}" if longest else f"{usually}, no limit"


def sent(row: dict) -> str:
    return row["text"] + (":ARGUMENT" if row["argument"] else "")


# ---- Markdown


def cell(text: str) -> str:
    return text.replace("|", "\\|").replace("<", "&lt;")


def code(text: str) -> str:
    """A reply or a command in a table's cell."""
    return f"`` {text} ``".replace("|", "\\|") if "`" in text else f"`{text}`".replace("|", "\\|")


def anchor(text: str) -> str:
    return re.sub(r"[^a-z0-9]+", "-", text.lower())


def link(text: str) -> str:
    return f"[`{text}`](#{anchor(text)})"


def title(module: str) -> str:
    return module.replace("_", " ").capitalize()


def replies_cell(row: dict) -> str:
    senders = row.get("from", ["worker"] * len(row["replies"]))
    parts = []
    for reply, sender in zip(row["replies"], senders):
        by = "" if sender == "worker" else f" ({sender})"
        parts.append((code(shown(reply)) if reply else "(an empty write)") + by)
    if "repeats" in row:
        repeats = row["repeats"]
        again = " ".join(code(shown(reply)) for reply in repeats["replies"])
        parts.append(f"then {repeats['at_least']} to {repeats['at_most']} times {again}")
    if not parts:
        parts.append("none")
    return "<br>".join(parts)


def outcome_cell(row: dict) -> str:
    parts = [cell(row["meaning"])]
    if "effects" in row:
        parts.append("What it leaves: " + cell("; ".join(row["effects"])) + ".")
    if "remedy" in row:
        parts.append("What to do: " + cell(row["remedy"]))
    for later in row.get("later", []):
        who, when = later["from"], cell(later["when"])
        parts.append(f"Later, from {who}, when {when}: {code(shown(later['reply']))}")
    if "begins" in row:
        others = ", ".join(row["begins"])
        parts.append(f"More may come: it is also the beginning of {others}.")
    return "<br>".join(parts)


def field_line(name: str, field: dict) -> str:
    meaning = field["meaning"]
    if field["type"] == "choice":
        values = (f"{value or '(nothing)'} {means}" for value, means in field["values"].items())
        meaning += ": " + ", ".join(values)
    example = code(shown(field["example"])) if field.get("example") else ""
    return f"| {name} | {field['type']} | {field.get('unit', '')} | {example} | {cell(meaning)} |"


def field_lines(row: dict) -> list[str]:
    fields = [field for outcome in row["outcomes"] for field in outcome.get("fields", {}).items()]
    lines = list(dict.fromkeys(field_line(name, field) for name, field in fields))
    head = ["", "| field | type | unit | example | meaning |", "|---|---|---|---|---|"]
    return head + lines if lines else []


def command_lines(row: dict) -> list[str]:
    argument = row["argument"]
    lines = [f'<a id="{anchor(row["text"])}"></a>', f"### `{row['text']}`", ""]
    lines += [row["purpose"], "", "| | |", "|---|---|"]
    lines.append(f"| send | {code(sent(row) + shown(chr(10)))} |")
    if argument:
        told = "; ".join(argument[key] for key in ("form", "limits", "case"))
        lines.append(f"| argument | {cell(told)} |")
    lines.append(f"| time | {times(row)} |")
    if row["needs"]:
        lines.append(f"| needs | {cell('; '.join(row['needs']))} |")
    lines += ["", "| outcome | | replies | what it means |", "|---|---|---|---|"]
    for outcome in row["outcomes"]:
        cells = [outcome["name"], outcome["result"], replies_cell(outcome), outcome_cell(outcome)]
        lines.append(f"| {' | '.join(cells)} |")
    lines += field_lines(row)
    if row["notes"]:
        lines += ["", *(f"- {cell(note)}" for note in row["notes"])]
    return lines + [""]


def markdown(rows: list[dict]) -> str:
    lines = [INTRO, WANTS, "| you want | send |", "|---|---|"]
    wants: dict[str, list[str]] = {}
    for row in rows:
        for want in row["answers"]:
            wants.setdefault(want, []).append(link(row["text"]))
    lines += [f"| {cell(want)} | {', '.join(wants[want])} |" for want in sorted(wants)]
    lines += ["", "## All commands", "", "| command | |", "|---|---|"]
    for row in sorted(rows, key=lambda r: r["text"]):
        lines.append(f"| {link(row['text'])} | {cell(row['purpose'])} |")
    for module in dict.fromkeys(row["module"] for row in rows):
        lines += ["", f"## {title(module)}", ""]
        for row in rows:
            if row["module"] == module:
                lines += command_lines(row)
    return re.sub(r"\n{3,}", "\n\n", "\n".join(lines)).rstrip() + "\n"


# ---- man page


def roff(text: str) -> str:
    text = text.replace("\\", "\\e").replace("-", "\\-")
    return "\\&" + text if text[:1] in (".", "'") else text


def man(rows: list[dict]) -> str:
    lines = [MAN_HEAD.rstrip(), ".SH COMMANDS"]
    for module in dict.fromkeys(row["module"] for row in rows):
        lines.append(f".SS {roff(title(module))}")
        for row in [row for row in rows if row["module"] == module]:
            lines += [".TP", f".B {roff(sent(row))}", roff(row["purpose"])]
            if row["argument"]:
                lines.append(roff(f"The argument: {row['argument']['form']}."))
            for outcome in row["outcomes"]:
                mark = "" if outcome["result"] == "pass" else "- "
                replies = " ".join(shown(reply) for reply in outcome["replies"]) or "(no reply)"
                lines += [".br", roff(f"{mark}{replies}")]
    return "\n".join(lines) + "\n" + MAN_TAIL


def main() -> int:
    rows = [command.row for command in Table().commands]
    files = {DOC / "commands.md": markdown(rows), DOC / "ftmd.8": man(rows)}
    stale = [path for path, text in files.items()
             if not path.exists() or path.read_text(encoding="ascii") != text]
    if sys.argv[1:] == ["--check"]:
        for path in stale:
            print(f"doc/{path.name} is not what protocol/make_reference.py would write")
        return 1 if stale else 0
    if sys.argv[1:]:
        print(__doc__, file=sys.stderr)
        return 2
    for path in stale:
        path.write_text(files[path], encoding="ascii")
    return 0


if __name__ == "__main__":
    sys.exit(main())

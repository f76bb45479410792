"""Says of each exchange on standard input, a line each as check.py reads them, what it is to its command:
"pass" or "fail", or an empty line where it is none of the outcomes."""

import sys

from check import exchange
from table import Reply, Table


def result(table: Table, line: str) -> str:
    sent, replies, ended = exchange(line)
    command = table.command(sent)
    if command is None:
        return "fail" if replies == [Reply("UNDEFINED COMMAND\n")] else ""
    return max((m.outcome.row["result"] for m in command.explain(replies, ended)), default="")


if __name__ == "__main__":
    command_table = Table()
    for asked in sys.stdin:
        print(result(command_table, asked.rstrip("\n")), flush=True)

#!/usr/bin/python3
"""What an open page costs: the rate of commands on a handset's line without a page and with one, and the
memory of handset and browser meanwhile.

usage: bench_page.py BUILD_FOLDER [COMMANDS]
"""
import os
import pathlib
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).parent.parent / "tests/page"))
from pages import Browser, Handset  # noqa: E402

BUILD = sys.argv[1]
COMMANDS = int(sys.argv[2]) if len(sys.argv) > 2 else 10_000
COMMAND, REPLY = b"AT+EDFT=9,1\n", b"OK\r\n"
ROUNDS = 8  # the first few let each thread of the server come to all the memory that it takes
FILL = 60_000  # commands, after which the journal is as long as it ever gets


def round_trip(line):
    os.write(line, COMMAND)
    received = b""
    while len(received) < len(REPLY):
        received += os.read(line, 64)


def rate(line, commands):
    """Commands a second."""
    start = time.perf_counter()
    for _ in range(commands):
        round_trip(line)
    return commands / (time.perf_counter() - start)


def handset_memory(handset):
    """Resident, in MB."""
    with open(f"/proc/{handset.process.pid}/statm", encoding="ascii") as file:
        return int(file.read().split()[1]) * os.sysconf("SC_PAGE_SIZE") / 1e6


def page_memory(page):
    """The page's heap after a collection, in MB, and its elements."""
    page.driver.execute_cdp_cmd("HeapProfiler.collectGarbage", {})
    heap = page.driver.execute_cdp_cmd("Runtime.getHeapUsage", {})["usedSize"] / 1e6
    return heap, page.run("return document.querySelectorAll('*').length")


def main():
    handset = Handset(BUILD + "/handset/handset")
    page = Browser()
    try:
        line = os.open(handset.line, os.O_RDWR | os.O_NOCTTY)
        rate(line, FILL)
        for number in range(ROUNDS):
            alone = rate(line, COMMANDS)
            before = handset_memory(handset)
            page.open(handset.url)
            watched = rate(line, COMMANDS)
            time.sleep(1)
            heap, elements = page_memory(page)
            print(f"round {number + 1}: {alone:.0f} commands/s alone, {watched:.0f} with the page; "
                  f"handset {before:.1f} MB before, {handset_memory(handset):.1f} MB with it, "
                  f"page {heap:.1f} MB, {elements} elements", flush=True)
            page.driver.get("about:blank")
    finally:
        page.quit()
        handset.end()


main()

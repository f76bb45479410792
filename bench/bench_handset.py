#!/usr/bin/python3
"""What a handset costs, measured on the program from outside: its start beside that of an empty program
with the daemon's libraries, a command's round trip on its line with and without the journal, and many
handsets at once.

usage: bench_handset.py BUILD_FOLDER
"""
import os
import select
import statistics
import subprocess
import sys
import tempfile
import time

BUILD = sys.argv[1]
HANDSET = BUILD + "/handset/handset"
EMPTY = BUILD + "/bench/bench_empty"
COMMAND, REPLY = b"AT^OPEN_GPS\n", b"OK\r\n"


class Served:
    def __init__(self, folder, *arguments):
        self.process = subprocess.Popen([HANDSET, "--serve", "--waits", "0", "--line",
                                         folder + "/tty%d", *arguments], stdout=subprocess.PIPE)
        while not self.process.stdout.readline().startswith(b"ready"):
            pass

    def end(self):
        self.process.terminate()
        self.process.wait()
        self.process.stdout.close()

    def processes(self):
        """The handset and its daemons."""
        found = [self.process.pid]
        for task in os.listdir(f"/proc/{self.process.pid}/task"):
            with open(f"/proc/{self.process.pid}/task/{task}/children", encoding="ascii") as file:
                found += map(int, file.read().split())
        return found


def open_line(path):
    return os.open(path, os.O_RDWR | os.O_NOCTTY)


def round_trip(line):
    start = time.perf_counter()
    os.write(line, COMMAND)
    received = b""
    while len(received) < len(REPLY):
        received += os.read(line, 64)
    return time.perf_counter() - start


def memory(pid):
    """Resident, and the share of it that is its own or divided by its users, in MB."""
    kib = {}
    with open(f"/proc/{pid}/smaps_rollup", encoding="ascii") as file:
        for line in file.read().splitlines()[1:]:
            name, value, _ = line.split()
            kib[name] = int(value)
    return kib["Rss:"] / 1024, kib["Pss:"] / 1024


def processor_time(pid):
    with open(f"/proc/{pid}/stat", encoding="ascii") as file:
        fields = file.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def timed(work):
    start = time.perf_counter()
    work()
    return 1000 * (time.perf_counter() - start)


def measure_start(folder, rounds=15):
    empty, ready, first = [], [], []
    for _ in range(rounds):
        empty.append(timed(lambda: subprocess.run([EMPTY], check=True)))
        start = time.perf_counter()
        phone = Served(folder)
        ready.append(1000 * (time.perf_counter() - start))
        line = open_line(folder + "/tty1")
        round_trip(line)
        first.append(1000 * (time.perf_counter() - start))
        os.close(line)
        phone.end()
    for what, times in [("empty program", empty), ("ready", ready), ("first reply", first)]:
        print(f"start to {what}: median {statistics.median(times):.1f} ms, "
              f"of the empty program's {statistics.median(times) / statistics.median(empty):.1f}")


def measure_round_trip(folder, rounds=2000):
    """Both in turns, so that whatever else the machine does falls on both."""
    os.mkdir(folder + "/journal")
    phones = [Served(folder), Served(folder + "/journal", "--journal", folder + "/journal.txt")]
    lines = [open_line(folder + "/tty1"), open_line(folder + "/journal/tty1")]
    times = [[], []]
    for _ in range(rounds):
        for line, taken in zip(lines, times):
            time.sleep(0.0005)
            taken.append(1e6 * round_trip(line))
    medians = [statistics.median(taken) for taken in times]
    print(f"round trip: median {medians[0]:.0f} us, with a journal's file {medians[1]:.0f} us, "
          f"ratio {medians[1] / medians[0]:.2f}")
    for name, pid in zip(["handset", "daemon"], phones[0].processes()):
        print(f"{name}: {memory(pid)[0]:.1f} MB resident, {memory(pid)[1]:.1f} MB its share")
    for phone, line in zip(phones, lines):
        os.close(line)
        phone.end()


def measure_many(folder, count, rounds=200):
    start = time.perf_counter()
    phones = Served(folder, "--count", str(count))
    ready = time.perf_counter() - start
    lines = [open_line(f"{folder}/tty{number}") for number in range(1, count + 1)]
    start = time.perf_counter()
    left = {line: rounds for line in lines}
    for line in lines:
        os.write(line, COMMAND)
    while left:
        for line in select.select(list(left), [], [])[0]:
            os.read(line, 64)
            left[line] -= 1
            if left[line] == 0:
                del left[line]
            else:
                os.write(line, COMMAND)
    busy = time.perf_counter() - start
    processes = phones.processes()
    used = sum(map(processor_time, processes)) / count
    share = sum(memory(pid)[1] for pid in processes) / count
    print(f"{count:3} handsets: ready in {ready:.2f} s, {rounds} commands each in {busy:.2f} s, "
          f"each {1000 * used:.0f} ms of processor time and {share:.1f} MB")
    for line in lines:
        os.close(line)
    phones.end()


def main():
    with tempfile.TemporaryDirectory() as folder:
        measure_start(folder)
        measure_round_trip(folder)
        for count in [1, 8, 32, 64]:
            measure_many(folder, count)


main()

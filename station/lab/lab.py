#!/usr/bin/env python3
"""A lab of three machines: labgrid's coordinator, its exporters with eight served handsets, and its client,
which acquires the places and runs the plan on all phones side by side. One exporter is killed in the middle.

    lab.py HANDSET      the program handset; status 0 when all went as it should, 1 when not, 2 when it
                        could not begin
"""

import concurrent.futures
import dataclasses
import fcntl
import os
import pathlib
import re
import signal
import subprocess
import sys
import textwrap
import time
import xml.etree.ElementTree

from machines import (
    BUILD,
    PROJECT,
    RUN,
    LabError,
    beside,
    confined,
    empty_run,
    join_machines,
    log_of,
    make_tree,
    on,
    start,
    wait_until,
)

EXPORTERS = {"bench1": range(1, 5), "bench2": range(5, 9)}
KILLED = "bench2"
KILLED_AFTER = 12  # steps that each of its phones has passed
LONGEST_REPORT = 15  # seconds from the kill until each of its units has its page
LONGEST_RUN = 240  # seconds that the plan may take
LONGEST = 600  # seconds that everything may take
STARTING = 60  # seconds that a service may take to be there, or a client's word


@dataclasses.dataclass
class Phone:
    """A phone, its place, and what became of its unit."""

    number: int
    exporter: str
    seen: int = 0  # steps of which the run has told that they passed
    status: int | None = None
    ended: float = 0.0  # on the monotonic clock
    said: str = ""
    trouble: list[str] = dataclasses.field(default_factory=list)

    @property
    def place(self) -> str:
        return f"phone{self.number}"

    @property
    def lost(self) -> bool:
        return self.exporter == KILLED

    @property
    def line(self) -> pathlib.Path:
        return RUN / "exporter" / f"{self.place}.tty"

    @property
    def control(self) -> pathlib.Path:
        return RUN / "exporter" / f"{self.place}.ctl"

    @property
    def folder(self) -> pathlib.Path:
        return RUN / "client" / self.place


def run(command: list[str]) -> tuple[int, str]:
    """Runs a command to its end; its status, and what it said. Raises LabError when it hangs."""
    try:
        ended = subprocess.run(
            command,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            timeout=STARTING,
        )
    except subprocess.TimeoutExpired as error:
        raise LabError(f"not at its end after {STARTING} s: {' '.join(command)}") from error
    return ended.returncode, ended.stdout


def client(*words: str) -> str:
    """What labgrid-client says on the client's machine. Raises LabError when it fails."""
    status, said = run(on("client", "labgrid-client", *words))
    if status:
        raise LabError(f"labgrid-client {' '.join(words)}: {said.strip()}")
    return said


def ports() -> list[str]:
    """The resources that the coordinator knows of."""
    return client("resources").split()


def acquire(phone: Phone) -> None:
    """Makes the phone's place and acquires it. Raises LabError."""
    for words in (["create"], ["add-match", f"{phone.exporter}/{phone.place}/*"], ["acquire"]):
        client("-p", phone.place, *words)


def plan(phone: Phone, folder: pathlib.Path) -> list[str]:
    """The run of the plan on a phone's place, with page and JUnit file in a folder."""
    command = ["python3", "-m", "pytest", "-p", "ftm_station.plugin", "-p", "no:cacheprovider", "-v"]
    command += ["--lg-env", str(PROJECT / "station/lab/env.yaml"), "--control", str(phone.control)]
    command += ["--pages", str(folder), "--junitxml", str(folder / "unit.xml")]
    return on("client", *command, str(PROJECT / "station/plan"), LG_PLACE=phone.place)


def run_unit(phone: Phone) -> None:
    """Runs the plan on a phone and keeps what it said."""
    phone.folder.mkdir()
    with subprocess.Popen(
        plan(phone, phone.folder),
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
    ) as process:
        assert process.stdout is not None
        for line in process.stdout:
            phone.said += line
            phone.seen += " PASSED " in line
    phone.status = process.returncode
    phone.ended = time.monotonic()
    (phone.folder / "run.log").write_text(phone.said)


def steps(phone: Phone) -> tuple[int, list[str]]:
    """How many steps of the unit's JUnit file passed, and why the others did not."""
    try:
        cases = list(xml.etree.ElementTree.parse(phone.folder / "unit.xml").iter("testcase"))
    except (OSError, xml.etree.ElementTree.ParseError) as error:
        return 0, [str(error)]
    fallen = [found.get("message", "") for case in cases for found in case if found.tag != "properties"]
    return len(cases) - len(fallen), fallen


def judge(phone: Phone, killed: float) -> int:
    """Says what became of a unit, and notes what should not have; gives the steps that passed."""
    passed, fallen = steps(phone)
    verdict = re.search(r"^unit (.*)$", phone.said, re.M)
    print(f"{phone.place}: unit {verdict[1] if verdict else '?: no verdict'}, {passed} steps passed", end="")
    if not phone.lost:
        print(f"; {fallen}" if fallen else "")
        if phone.status or fallen:
            phone.trouble.append(f"{phone.place} is not whole, with status {phone.status}")
        return passed
    after = phone.ended - killed
    reason = re.search(r"the line has gone: (.*?) !*$", phone.said, re.M)
    print(f"; reported {after:.2f} s after the kill: {reason[1] if reason else 'no reason'}")
    if phone.status != 2 or len(fallen) != 1 or not reason or after > LONGEST_REPORT:
        phone.trouble.append(f"{phone.place}: its loss is not as it should be reported: {fallen}")
    return passed


def refusals(phones: list[Phone], coordinator: subprocess.Popen[bytes]) -> list[str]:
    """Runs that cannot begin: each must say why, with status 2, and soon. Gives what did not."""
    first, last = phones[0], phones[-1]
    trouble = []

    def refused(what: str, phone: Phone, why: str) -> None:
        began = time.monotonic()
        status, said = run(plan(phone, RUN / "client" / "refused"))
        found = re.search(f"!+ (.*{why}.*?) !+$", said, re.M)
        reason = textwrap.shorten(found[1], 120) if found else "no reason"
        print(f"{what}: status {status} after {time.monotonic() - began:.1f} s: {reason}", flush=True)
        if status != 2 or not found:
            trouble.append(f"{what}:\n{said}")

    refused("the place of the killed exporter", last, "labgrid has no line")
    client("-p", first.place, "release")
    refused("a place that nobody has acquired", first, "phone1 is not acquired")
    coordinator.kill()
    coordinator.wait()
    refused("no coordinator", first, "labgrid has no line")
    return trouble


def run_lab(handset: str) -> int:
    """The lab, in a process of its own that `confined` has started."""
    empty_run()
    join_machines()
    phones = [Phone(number, name) for name, numbers in EXPORTERS.items() for number in numbers]
    paths = [f"--{kind}={RUN}/exporter/phone%d.{end}" for kind, end in (("line", "tty"), ("control", "ctl"))]
    handsets = start("handsets", beside("exporter", handset, "--serve", f"--count={len(phones)}", *paths))
    coordinator = start("coordinator", on("coordinator", "labgrid-coordinator"))
    wait_until("handsets", lambda: "ready" in log_of("handsets").read_text(), STARTING)
    exporters = {
        name: start(
            name,
            on(
                "exporter",
                *("labgrid-exporter", "--name", name, "--hostname", "exporter"),
                str(PROJECT / "station/lab/exporter.yaml"),
                PHONES=" ".join(f"{p.number}={p.line.resolve()}" for p in phones if p.exporter == name),
            ),
        )
        for name in EXPORTERS
    }
    wait_until("ports of all phones", lambda: len(ports()) == len(phones), STARTING)
    with concurrent.futures.ThreadPoolExecutor(len(phones)) as pool:
        began = time.monotonic()
        list(pool.map(acquire, phones))
        print(f"{len(phones)} places acquired in {time.monotonic() - began:.1f} s", flush=True)
        began = time.monotonic()
        runs = [pool.submit(run_unit, phone) for phone in phones]
        lost = [phone for phone in phones if phone.lost]
        wait_until(
            f"{KILLED_AFTER} steps on {KILLED}",
            lambda: min(p.seen for p in lost) >= KILLED_AFTER or any(run.done() for run in runs),
            LONGEST_RUN,
        )
        os.killpg(exporters[KILLED].pid, signal.SIGKILL)
        killed = time.monotonic()
        print(f"{KILLED} killed after {killed - began:.1f} s, with a run on each of its phones", flush=True)
        left = wait_until(f"loss of {KILLED} at the coordinator", lambda: len(ports()) == 4, STARTING)
        print(f"the coordinator knows {left:.2f} s later")
        concurrent.futures.wait(runs, LONGEST_RUN)
        for run in runs:
            run.result(0)
    passed = sum(judge(phone, killed) for phone in phones)
    wall = max(phone.ended for phone in phones) - began
    trouble = [text for phone in phones for text in phone.trouble] + refusals(phones, coordinator)
    handsets.terminate()
    if handsets.wait(STARTING):
        trouble.append(f"the handsets ended with status {handsets.returncode}: {log_of('handsets')}")
    for text in trouble:
        print(f"WRONG: {text}", file=sys.stderr)
    print(
        f"{len(phones)} phones, {passed} steps passed, {wall:.1f} s; from the kill to the last report "
        f"{max(phone.ended for phone in lost) - killed:.2f} s; {len(trouble)} troubles"
    )
    return 1 if trouble else 0


def main() -> int:
    if sys.argv[1:2] == ["inside"]:
        try:
            return run_lab(sys.argv[2])
        except LabError as error:
            print(f"lab: {error}", file=sys.stderr)
            return 1
        except KeyboardInterrupt:
            return 130
    if len(sys.argv) != 2 or not os.access(sys.argv[1], os.X_OK):
        print("usage: lab.py HANDSET", file=sys.stderr)
        return 2
    if os.geteuid() != 0:
        print("lab: only root can make networks: sudo ./test lab", file=sys.stderr)
        return 2
    BUILD.mkdir(parents=True, exist_ok=True)
    with open(BUILD / "lock", "w", encoding="utf-8") as lock:
        try:
            fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
            make_tree()
        except BlockingIOError:
            print(f"lab: another one runs in {BUILD}", file=sys.stderr)
            return 2
        except LabError as error:
            print(f"lab: {error}", file=sys.stderr)
            return 2
        inside = confined(sys.executable, __file__, "inside", os.path.abspath(sys.argv[1]), network=True)
        try:
            return subprocess.run(inside, stdin=subprocess.DEVNULL, timeout=LONGEST).returncode
        except subprocess.TimeoutExpired:
            print(f"lab: not at its end after {LONGEST} s", file=sys.stderr)
            return 1
        except KeyboardInterrupt:
            return 130


if __name__ == "__main__":
    sys.exit(main())

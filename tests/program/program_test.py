#!/usr/bin/python3
"""The handset as its users start it: options, scripts, a terminal, and served phones with the programs
on their lines and control sockets. The program's path comes in the variable HANDSET, and in PATIENCE how
many times slower than a desk the machine is.
"""
import contextlib
import os
import pty
import re
import select
import signal
import socket
import subprocess
import tempfile
import time
import unittest

import serial

PROGRAM = os.environ["HANDSET"]
PATIENCE = 30 * int(os.environ.get("PATIENCE", "1"))  # seconds
BATTERY = b"OK\r\n+EADC: 3.85,25.30,0.00,-512.000,2.10"


def run(*arguments, **more):
    more = {"capture_output": True, "text": True, "stdin": subprocess.DEVNULL, "timeout": 2 * PATIENCE} | more
    return subprocess.run([PROGRAM, *arguments], check=False, **more)


def eventually(condition):
    end = time.monotonic() + PATIENCE
    while not condition() and time.monotonic() < end:
        time.sleep(0.01)
    return condition()


def daemons_of(pid):
    """The processes that a handset has started."""
    children = []
    for task in os.listdir(f"/proc/{pid}/task"):
        with contextlib.suppress(FileNotFoundError):  # it has ended
            with open(f"/proc/{pid}/task/{task}/children", encoding="ascii") as file:
                children += file.read().split()
    return children


class Served:
    """A served handset; its line and control socket are in a folder of its own."""

    def __init__(self, folder, *arguments, usual=True):
        self.tty = os.path.join(folder, "tty")
        self.control = os.path.join(folder, "control")
        paths = ["--line", self.tty, "--control", self.control] if usual else []
        # What it makes on the desk for itself lies there, too.
        self.process = subprocess.Popen(
            [PROGRAM, "--serve", "--waits", "0", *paths, *arguments], env={**os.environ, "TMPDIR": folder},
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.said = ""
        while not self.said.split("\n")[-2:][0].startswith("ready"):
            line = self.process.stdout.readline()
            if not line:
                break
            self.said += line

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.end(signal.SIGKILL)

    def end(self, signal_number):
        if self.process.poll() is None:
            self.process.send_signal(signal_number)
        status = self.process.wait(PATIENCE)
        self.process.stdout.close()
        self.process.stderr.close()
        return status


class Client:
    """One client of a control socket."""

    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(PATIENCE)
        self.socket.connect(path)
        self.received = self.socket.makefile("r", encoding="latin-1")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.received.close()
        self.socket.close()

    def send(self, line):
        self.socket.sendall(line.encode("latin-1") + b"\n")

    def answer(self):
        lines = []
        while (line := self.received.readline()) not in ("ok\n", "failed\n", ""):
            lines.append(line[1:-1])
        return lines, line.strip()

    def ask(self, line):
        self.send(line)
        return self.answer()


class FolderTest(unittest.TestCase):
    def setUp(self):
        temporary = tempfile.TemporaryDirectory()
        self.addCleanup(temporary.cleanup)
        self.folder = temporary.name


class Options(FolderTest):
    def test_what_is_wrong_is_one_line_and_status_2(self):
        taken = os.path.join(self.folder, "taken")
        with open(taken, "w", encoding="ascii") as file:
            file.write("mine")
        os.mkdir(os.path.join(self.folder, "sensors"))
        for arguments, why in [
            (["--bogus"], "--bogus"),
            (["AT", "--bogus"], "--bogus"),
            (["--waits", "abc"], "--waits: Value abc"),
            (["--waits", "-1"], "--waits: Value -1"),
            (["--tty", "blah"], "--tty: blah not in"),
            (["--speed", "9600"], "--speed requires --tty"),
            (["--control", taken], "--control requires --serve or --web"),
            (["--count", "3"], "--count requires --serve or --web"),
            (["--web", "80x"], "no place for the page: 80x"),
            (["--web", "99999"], "no place for the page: 99999"),
            (["--web", "desk.example:80"], "no place for the page: desk.example:80"),
            (["--web", "192.0.2.1:8080"], "cannot serve the page at 192.0.2.1:8080"),
            (["--demo", "--web", "0"], "--web excludes --demo"),
            (["--serve", "--count", "0"], "--count: Value 0"),
            (["--serve", "--count", "2", "--line", taken], "several phones need %d in " + taken),
            (["--demo", "AT"], "--demo has lines of its own"),
            (["--serve", "--demo"], "--serve excludes --demo"),
            (["--daemon", self.folder + "/none", "AT"], "does not exist"),
            (["--line", taken, "AT"], "cannot make the link " + taken + ": File exists"),
            (["--line", "/nowhere/tty", "AT"], "cannot make the link /nowhere/tty: No such file"),
            (["--serve", "--control", taken], "cannot make the socket " + taken),
            (["--serve", "--control", "/tmp/" + 120 * "x"], "too long a path"),
            (["--profile", "nothing"], "no broken phone is called nothing"),
            (["--profile", "/nowhere/phone"], "no folder of a phone: /nowhere/phone"),
            (["--profile", self.folder], "cannot read " + self.folder + "/sensors"),
            (["--log", "/nowhere/log", "AT"], "cannot write /nowhere/log: No such file"),
            (["--journal", "/nowhere/j", "AT"], "cannot write /nowhere/j: No such file"),
        ]:
            with self.subTest(arguments=arguments):
                ended = run(*arguments)
                self.assertEqual((ended.returncode, ended.stdout), (2, ""))
                self.assertIn(why, ended.stderr)
                self.assertEqual(ended.stderr.count("\n"), 1, ended.stderr)
        with open(taken, encoding="ascii") as file:
            self.assertEqual(file.read(), "mine")

    def test_help_and_version_start_no_phone(self):
        for option, start in [("--help", "A simulated handset"), ("--version", "handset ")]:
            ended = run(option, env={"PATH": "/usr/bin", "TMPDIR": "/nowhere"})
            self.assertEqual((ended.returncode, ended.stderr), (0, ""))
            self.assertTrue(ended.stdout.startswith(start))


class Scripts(FolderTest):
    def test_lines_their_output_and_status(self):
        for lines, status, output in [
            (["AT^OPEN_GPS", "[a,b]"], 0, "< OK\\r\\n\n> [a,b]\n< UNDEFINED COMMAND\\n\n"),
            ([".hub blah", "AT^OPEN_GPS"], 1, '"blah" is none of: '),
            ([".wait abc"], 1, "no number: abc"),
            ([".pause -1"], 1, "no number: -1"),
            ([".power off"], 1, "usage: .power\n"),
            ([".nothing"], 1, "no such command: .nothing"),
            ([">> \\q"], 1, "no escape: \\q"),
            ([".quit", "AT^OPEN_GPS"], 0, "> .quit\n"),
        ]:
            for ended in [run("--waits", "0", *lines),
                          run("--waits", "0", input="\n".join(lines), stdin=None)]:
                with self.subTest(lines=lines):
                    self.assertEqual((ended.returncode, ended.stderr), (status, ""))
                    self.assertIn(output, ended.stdout)
                    self.assertEqual("< OK" in ended.stdout, lines[-1] != ".quit"
                                     and "AT^OPEN_GPS" in lines and ".quit" not in lines)

    def test_files_of_the_log_and_the_journal(self):
        log = os.path.join(self.folder, "log")
        journal = os.path.join(self.folder, "journal")
        run("--log", log, "--journal", journal, "--waits", "0", "AT+EDFT=6,1")
        with open(log, encoding="ascii") as file:
            self.assertIn("[FTM-VIBRATOR]at_vibrator_on", file.read())
        with open(journal, encoding="ascii") as file:
            self.assertIn("write /sys/class/leds/vibrator/activate 1\\n\nwait 700 ms\n",
                          file.read())

    def test_a_daemon_that_ends_and_one_that_never_comes_up(self):
        ended = run("--waits", "0", ".fail thread EAGAIN", ".start", "AT^OPEN_GPS", ".log")
        self.assertEqual(ended.returncode, 1)
        self.assertIn("the daemon did not come up", ended.stdout)
        self.assertIn("the daemon has ended; its log ends:", ended.stdout)
        self.assertNotIn("> .log", ended.stdout)
        ended = run("--waits", "0", ".record pcba " + 32 * "P", "AT+EGMR=0,5", "AT^OPEN_GPS")
        self.assertEqual(ended.returncode, 1)  # it ends within a line
        self.assertIn("the daemon has ended; its log ends:", ended.stdout)
        self.assertNotIn("> AT^OPEN_GPS", ended.stdout)
        ended = run("--daemon", "/bin/true", "AT^OPEN_GPS")
        self.assertEqual((ended.returncode, ended.stdout), (2, ""))
        self.assertIn("the daemon did not come up", ended.stderr)

    def test_a_signal_ends_lines_and_a_closed_output_does_too(self):
        for signal_number, line in [(signal.SIGINT, "AT+KEY"), (signal.SIGTERM, "AT+KEY"),
                                    (signal.SIGHUP, ".pause 60000")]:
            with subprocess.Popen([PROGRAM, "--waits", "1", line], stdout=subprocess.PIPE,
                                  env={**os.environ, "TMPDIR": self.folder}) as process:
                self.assertEqual(process.stdout.readline(), f"> {line}\n".encode())
                self.assertEqual(len(os.listdir(self.folder)), 1)
                process.send_signal(signal_number)
                self.assertEqual(process.wait(PATIENCE), 128 + signal_number)
            self.assertEqual(os.listdir(self.folder), [])
        ended = subprocess.run(f"yes .line | {PROGRAM} --waits 0 | head -n 1; "
                               "echo ${PIPESTATUS[1]}", shell=True, executable="/bin/bash",
                               check=True, capture_output=True, timeout=PATIENCE)
        self.assertEqual(ended.stdout, b"> .line\n1\n")

    def test_every_command_of_the_demonstration_succeeds(self):
        ended = run("--demo", "--waits", "0.02")
        self.assertEqual(ended.returncode, 0)
        self.assertRegex(ended.stdout, r"\n118 of 118 commands in \d+\.\d s\n$")
        commands = re.split(r"^\[\d+/118\] ", ended.stdout, flags=re.M)[1:]
        self.assertEqual(len({command.split("\n")[0] for command in commands}), 118)
        for command in commands:
            self.assertRegex(command, r"< (OK\\r\\n| DOWNLOAD:over\\n|RFCABLE:OK )")
            self.assertNotRegex(command, "ERROR|FAIL|UNDEFINED")


class Terminal(FolderTest):
    def test_typed_lines_wait_for_their_turn_and_keys_do_not(self):
        process, terminal = pty.fork()
        if process == 0:
            os.execv(PROGRAM, [PROGRAM, "--waits", "0.3"])
        shown = b""

        def read_until(text):
            nonlocal shown
            end = time.monotonic() + PATIENCE
            while text not in shown and time.monotonic() < end:
                if select.select([terminal], [], [], 0.1)[0]:
                    shown += os.read(terminal, 4096)
            self.assertIn(text, shown)

        read_until(b"serial line: /dev/pts/")
        os.write(terminal, b"AT+KEY\n")
        read_until(b"wait input event in 5s")
        os.write(terminal, b".press power volup voldown\nAT^OPEN_GPS\n")
        read_until(b"test is end")
        self.assertIn(b"POWER_KEY:1, VOL+:1, VOL-:1", shown)
        shown = shown[shown.index(b"test is end"):]
        read_until(b"< OK\\r\\n")
        os.write(terminal, b"AT+EA\t")
        read_until(b"AT+EADC=1")
        os.write(terminal, b"\x03")
        self.assertEqual(os.waitpid(process, 0)[1], 0)
        os.close(terminal)


class Serving(FolderTest):
    def assert_nothing_left(self):
        self.assertEqual(os.listdir(self.folder), [])

    def test_a_ready_line_a_line_and_a_control_socket(self):
        with Served(self.folder) as phone:
            self.assertEqual(phone.said, f"ready: line {phone.tty} control {phone.control}\n")
            self.assertEqual(os.stat(phone.control).st_mode & 0o777, 0o700)
            with serial.Serial(phone.tty, 115200, timeout=PATIENCE) as line:
                line.write(b"AT+EADC=1\n")
                self.assertEqual(line.read(len(BATTERY)), BATTERY)
            with Client(phone.control) as client:
                node = ".node /sys/class/power_supply/battery/temp "
                for asked, answer in [
                    ("AT+EADC=1", (["< OK\\r\\n", "< +EADC: 3.85,25.30,0.00,-512.000,2.10"], "ok")),
                    (node + "301", ([], "ok")),
                    ("AT+EADC=1", (["< OK\\r\\n", "< +EADC: 3.85,30.10,0.00,-512.000,2.10"], "ok")),
                    ("", ([], "ok")),
                    ("# nothing", ([], "ok")),
                    (".nothing", (["no such command: .nothing; .help lists them"], "failed")),
                    ("\xff\x00\x1b", (["< UNDEFINED COMMAND\\n"], "ok")),
                    (".quit", ([], "ok")),
                ]:
                    self.assertEqual(client.ask(asked), answer, asked)
                self.assertEqual(client.received.read(), "")

    def test_a_line_of_the_control_socket_waits_for_the_programs_on_the_tty(self):
        healthy = ["< OK\\r\\n", "< +EADC: 3.85,25.30,0.00,-512.000,2.10"]
        with Served(self.folder) as phone, Client(phone.control) as client, \
                serial.Serial(phone.tty, timeout=PATIENCE) as line:
            for _ in range(20):
                line.write(b"AT+EADC=1\n")
                self.assertEqual(line.read(len(BATTERY)), BATTERY)
                for _ in range(2):
                    self.assertEqual(client.ask("AT+EADC=1"), (healthy, "ok"))
                line.read(2 * len(BATTERY))  # the line is one: its program sees these replies, too

    def test_lines_of_the_options_come_first(self):
        with Served(self.folder, ".node /sys/class/power_supply/battery/temp 301",
                    "AT+EADC=1") as phone:
            self.assertIn("< +EADC: 3.85,30.10,0.00,-512.000,2.10\nready: ", phone.said)
        with Served(self.folder, ".nothing") as phone:
            self.assertEqual(phone.process.wait(PATIENCE), 1)
        self.assert_nothing_left()

    def test_clients_take_turns_on_the_line_and_see_each_others_phone(self):
        with Served(self.folder, "--waits", "0.5") as phone, Client(phone.control) as operator, \
                Client(phone.control) as station, Client(phone.control) as watcher:
            self.assertEqual(watcher.ask(".follow"), ([], "ok"))
            station.send("AT+KEY")
            first = watcher.received.readline()
            while first.startswith(" main: "):  # its start may end later
                first = watcher.received.readline()
            self.assertEqual(first[:2], " D")
            operator.send("AT^OPEN_GPS")
            with Client(phone.control) as hand:
                eventually(lambda: not hand.ask(".press power volup voldown")[0])
            self.assertEqual(station.answer()[0][-2:], ["< OK\\r\\n", "< AT_KEY test is end\\n"])
            self.assertEqual(operator.answer(), (["< OK\\r\\n"], "ok"))
            # The one that follows sees what came of it, in order.
            followed = ""
            while "AT^OPEN_GPS" not in followed:
                followed += watcher.received.readline()
            self.assertLess(followed.index("POWER_KEY:1"), followed.index("AT^OPEN_GPS"))
            # A long wait of one is not the others'.
            station.send(".wait 60")
            self.assertEqual(operator.ask("AT^OPEN_GPS")[1], "ok")

    def test_a_running_phone_is_broken_and_its_line_spoilt(self):
        with Served(self.folder) as phone, Client(phone.control) as client, \
                serial.Serial(phone.tty, timeout=PATIENCE) as line:
            self.assertEqual(client.ask(".broken no-battery"), ([], "ok"))
            line.write(b"AT+EADC=1\n")
            self.assertEqual(line.read(35), b"OK\r\n+EADC: 0.00,0.00,0.00,0.000,0.00"[:35])
            line.read(line.in_waiting)
            for spoilt, least in [(".late 300", 0.3), (".torn 1 100", 0.3), (".torn 0", 0)]:
                client.ask(spoilt)
                start = time.monotonic()
                line.write(b"AT^OPEN_GPS\n")
                self.assertEqual(line.read(4), b"OK\r\n")
                self.assertGreaterEqual(time.monotonic() - start, least)
                client.ask(".late 0")
            # What is sent to a phone that is away is lost.
            client.send(".reboot 500")
            self.assertTrue(eventually(lambda: not daemons_of(phone.process.pid)))
            line.write(b"AT^CLOSE_GPS\n")
            self.assertEqual(client.answer(), ([], "ok"))
            line.write(b"AT^NOPE\n")
            self.assertEqual(line.read(4), b"UNDE")

    def test_a_daemon_that_ends_is_started_anew(self):
        with Served(self.folder) as phone, Client(phone.control) as client:
            os.kill(int(daemons_of(phone.process.pid)[0]), signal.SIGABRT)
            self.assertTrue(eventually(lambda: client.ask("AT^OPEN_GPS")[1] == "ok"))
            self.assertEqual(client.ask(".fail thread EAGAIN")[1], "ok")
            os.kill(int(daemons_of(phone.process.pid)[0]), signal.SIGABRT)
            for _ in range(2):
                self.assertIn("is started anew", phone.process.stderr.readline())
            self.assertIn("does not come up", phone.process.stderr.readline())
            self.assertEqual(client.ask("AT^OPEN_GPS")[1], "failed")
            client.ask(".fail thread works")
            self.assertEqual(client.ask(".start")[1], "ok")
            self.assertEqual(client.ask("AT^OPEN_GPS"), (["< OK\\r\\n"], "ok"))

    def test_bad_clients_harm_nobody_else(self):
        with Served(self.folder) as phone, Client(phone.control) as good:
            with Client(phone.control) as garbage:
                garbage.socket.sendall(bytes(range(256)) * 20 + b"\n")
                garbage.answer()
            with Client(phone.control) as endless:
                try:
                    endless.socket.sendall(200000 * b"x")
                except OSError:
                    pass  # closed before it has said all
                self.assertEqual(endless.received.readline(),
                                 " a line has at most 65536 bytes\n")
            with Client(phone.control) as leaving:
                leaving.send(".node /sys/class/leds/red/brightness 77")
            self.assertTrue(eventually(
                lambda: good.ask(".node /sys/class/leds/red/brightness")[0] == ["77\\n"]))
            crowd = [Client(phone.control) for _ in range(32)]
            self.assertEqual(crowd[-1].answer(), (["no more clients are served"], "failed"))
            for client in crowd:
                client.__exit__()
            # One that reads nothing of what it asks for, and one that follows and reads nothing.
            with Client(phone.control) as silent, Client(phone.control) as follower:
                follower.ask(".follow")
                silent.socket.setblocking(False)
                try:
                    while True:
                        silent.socket.send(1000 * b".help\n")
                except BlockingIOError:
                    pass
                for _ in range(20):
                    self.assertEqual(good.ask("AT^OPEN_GPS"), (["< OK\\r\\n"], "ok"))

                def closed():
                    try:
                        silent.socket.send(b"\n")
                    except BlockingIOError:
                        return False
                    except OSError:
                        return True
                    return False
                self.assertTrue(eventually(closed))

    def test_nothing_is_left_however_it_ends(self):
        for signal_number, status in [(signal.SIGTERM, 0), (signal.SIGINT, 0), (signal.SIGHUP, 0),
                                      (signal.SIGKILL, -signal.SIGKILL)]:
            phone = Served(self.folder)
            daemon = daemons_of(phone.process.pid)[0]
            self.assertEqual(phone.end(signal_number), status)
            self.assertTrue(eventually(lambda: not os.path.exists(f"/proc/{daemon}")))
            if signal_number == signal.SIGKILL:  # the next start clears what it left, and only that
                self.assertTrue(os.path.islink(phone.tty))
                living = Served(self.folder, usual=False)
                phone = Served(self.folder)
                self.assertEqual(phone.said,
                                 f"ready: line {phone.tty} control {phone.control}\n")
                self.assertEqual(len(os.listdir(self.folder)), 4)
                for one in (living, phone):
                    self.assertEqual(one.end(signal.SIGTERM), 0)
            self.assert_nothing_left()

    def test_a_path_has_one_handset(self):
        with Served(self.folder) as phone:
            for option, path in [("--line", phone.tty), ("--control", phone.control)]:
                ended = run("--serve", option, path)
                self.assertEqual((ended.returncode, ended.stderr),
                                 (2, f"handset: another handset has {path}\n"))
            with Client(phone.control) as client:
                self.assertEqual(client.ask("AT^OPEN_GPS")[1], "ok")
            self.assertEqual(phone.end(signal.SIGTERM), 0)
        self.assert_nothing_left()

    def test_several_phones_each_with_its_own_state(self):
        paths = ["--line", self.folder + "/tty%d", "--control", self.folder + "/c%d"]
        with Served(self.folder, "--count", "3", *paths, usual=False) as phones:
            said = phones.said.splitlines()
            self.assertEqual(said[1], f"phone 2: line {self.folder}/tty2 control {self.folder}/c2")
            self.assertEqual(said[3], "ready: 3 phones")
            with Client(self.folder + "/c2") as client:
                client.ask(".node /sys/class/power_supply/battery/present 0")
            for number, reply in [(1, BATTERY), (2, b"OK\r\n+EADC: 0.00"), (3, BATTERY)]:
                with serial.Serial(f"{self.folder}/tty{number}", timeout=PATIENCE) as line:
                    line.write(b"AT+EADC=1\n")
                    self.assertEqual(line.read(len(reply)), reply)
            self.assertEqual(phones.end(signal.SIGTERM), 0)
        self.assert_nothing_left()

    @unittest.skipUnless(os.path.exists("/usr/bin/socat"), "no socat")
    def test_the_line_over_tcp(self):
        with Served(self.folder) as phone, socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            port = probe.getsockname()[1]
            probe.close()
            with subprocess.Popen(["socat", f"TCP-LISTEN:{port},bind=127.0.0.1,reuseaddr",
                                   f"OPEN:{phone.tty},rawer"]) as relay:
                line = socket.socket()
                self.assertTrue(eventually(
                    lambda: line.connect_ex(("127.0.0.1", port)) in (0, 106)))
                line.settimeout(PATIENCE)
                line.sendall(b"AT+EADC=1\n")
                received = b""
                while len(received) < len(BATTERY):
                    received += line.recv(4096)
                self.assertEqual(received, BATTERY)
                line.close()
                relay.wait(PATIENCE)


if __name__ == "__main__":
    unittest.main()

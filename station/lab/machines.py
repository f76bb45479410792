"""Three machines on this one: each has a network of its own and the programs of a newer Debian.

All of them, and their mounts, belong to one process that `confined` starts: nothing is left when it has
ended, however it did.
"""

import pathlib
import shutil
import subprocess
import time
from collections.abc import Callable

SUITE = "forky"
PROJECT = pathlib.Path(__file__).resolve().parents[2]
BUILD = PROJECT / "build" / "lab"
TREE = BUILD / "tree"
RUN = BUILD / "run"  # what the last run wrote; the same path on each machine
ADDRESSES = {"coordinator": "10.91.7.1", "exporter": "10.91.7.2", "client": "10.91.7.3"}


class LabError(Exception):
    """Why the lab cannot go on."""


def confined(*command: str, network: bool) -> list[str]:
    """The command with processes and mounts of its own, and a network where asked. They end with it, and
    it ends with its parent."""
    namespaces = ["--mount", "--pid", "--fork", "--kill-child", "--mount-proc"]
    namespaces += ["--net"] if network else []
    return ["setpriv", "--pdeathsig", "KILL", "unshare", *namespaces, *command]


def make_tree() -> None:
    """Makes the tree of programs, where it is not yet there as it should be. Raises LabError."""
    packages = [
        line
        for line in (PROJECT / "station/lab/tree-packages.txt").read_text().split("\n")
        if line and not line.startswith("#")
    ]
    command = ["mmdebstrap", "--mode=root", "--variant=apt", f"--include={','.join(packages)}"]
    command += [f"--dpkgopt=path-exclude=/usr/share/{name}/*" for name in ("doc", "man", "locale")]
    command += ["--aptopt=APT::Install-Recommends false", *_apt_options(), SUITE]
    made_by = TREE / "made-by"
    if made_by.exists() and made_by.read_text() == "\n".join(command):
        return
    print(f"Making a tree of Debian {SUITE} in {TREE.relative_to(PROJECT)}", flush=True)
    new = BUILD / "tree.new"
    for old in (new, TREE):
        shutil.rmtree(old, ignore_errors=True)
    with open(BUILD / "tree.log", "w", encoding="utf-8") as log:
        made = subprocess.run(
            confined(*command, str(new), _mirror(), network=False),
            stdin=subprocess.DEVNULL,
            stdout=log,
            stderr=subprocess.STDOUT,
        )
    if made.returncode:
        raise LabError(f"no tree could be made: {BUILD}/tree.log")
    (new / "made-by").write_text("\n".join(command))
    new.rename(TREE)


def _mirror() -> str:
    """Where this machine has its own Debian from."""
    query = ["--format", "$(REPO_URI)", "Created-By: Packages", "Origin: Debian"]
    uris = _output("apt-get", "indextargets", *query)
    if not uris:
        raise LabError("apt knows no mirror of Debian")
    return uris[0]


def _apt_options() -> list[str]:
    """How this machine fetches packages."""
    how = ("Acquire::http", "Acquire::https", "Acquire::Check-")
    return [f"--aptopt={line}" for line in _output("apt-config", "dump") if line.startswith(how)]


def _output(*command: str) -> list[str]:
    return subprocess.run(command, stdout=subprocess.PIPE, text=True, check=True).stdout.splitlines()


def join_machines() -> None:
    """Makes the networks and joins them by a switch, and gives the tree what the machines share: devices,
    processes and the project. To be called once by a confined process."""
    _do("mount", "-t", "tmpfs", "tmpfs", "/run")
    _do("ip", "link", "add", "switch", "type", "bridge")
    _do("ip", "link", "set", "switch", "up")
    for name, address in ADDRESSES.items():
        _do("ip", "netns", "add", name)
        _do("ip", "link", "add", name, "type", "veth", "peer", "name", "eth0", "netns", name)
        _do("ip", "link", "set", name, "master", "switch", "up")
        _do("ip", "-n", name, "address", "add", f"{address}/24", "dev", "eth0")
        for device in ("lo", "eth0"):
            _do("ip", "-n", name, "link", "set", device, "up")
    hosts = RUN / "hosts"
    hosts.write_text("127.0.0.1 localhost\n" + "".join(f"{ip} {name}\n" for name, ip in ADDRESSES.items()))
    _do("mount", "--bind", str(hosts), f"{TREE}/etc/hosts")
    _do("mount", "-t", "tmpfs", "tmpfs", f"{TREE}/tmp")
    for folder, how in {"/dev": "--rbind", "/proc": "--bind", str(PROJECT): "--bind"}.items():
        pathlib.Path(f"{TREE}{folder}").mkdir(parents=True, exist_ok=True)
        _do("mount", how, folder, f"{TREE}{folder}")


def _do(*command: str) -> None:
    done = subprocess.run(command, capture_output=True, text=True)
    if done.returncode:
        raise LabError(f"{' '.join(command)}: {done.stderr.strip()}")


def on(machine: str, *command: str, **variables: object) -> list[str]:
    """The command on a machine, among the programs of the tree."""
    return _at(machine, ["chroot", str(TREE)], command, variables)


def beside(machine: str, *command: str) -> list[str]:
    """The command on a machine's network, among this machine's own programs."""
    return _at(machine, [], command, {})


def _at(machine: str, root: list[str], command: tuple[str, ...], more: dict[str, object]) -> list[str]:
    variables = {
        "HOME": RUN,
        "LANG": "C.UTF-8",
        "LG_COORDINATOR": "coordinator:20408",
        "LG_HOSTNAME": machine,
        "LG_USERNAME": "lab",
        "PATH": "/usr/sbin:/usr/bin:/sbin:/bin",
        "PYTHONDONTWRITEBYTECODE": 1,
        "PYTHONPATH": PROJECT / "station",
        "PYTHONUNBUFFERED": 1,
        "TMPDIR": RUN / "tmp",
    } | more
    words = [f"{name}={value}" for name, value in variables.items()]
    return ["ip", "netns", "exec", machine, *root, "env", "-i", f"--chdir={RUN / machine}", *words, *command]


def start(name: str, command: list[str]) -> subprocess.Popen[bytes]:
    """Starts a service in a process group of its own; it writes to NAME.log."""
    with open(log_of(name), "w", encoding="utf-8") as log:
        return subprocess.Popen(
            command, stdin=subprocess.DEVNULL, stdout=log, stderr=log, start_new_session=True
        )


def log_of(name: str) -> pathlib.Path:
    return RUN / f"{name}.log"


def wait_until(what: str, there: Callable[[], bool], seconds: float) -> float:
    """Waits until it is there, and gives the seconds that it took. Raises LabError after its time."""
    began = time.monotonic()
    while not there():
        if time.monotonic() - began > seconds:
            raise LabError(f"{what}: not within {seconds:g} s")
        time.sleep(0.05)
    return time.monotonic() - began


def empty_run() -> None:
    """Clears what the last run left to read."""
    shutil.rmtree(RUN, ignore_errors=True)
    for folder in (*ADDRESSES, "tmp"):
        (RUN / folder).mkdir(parents=True)

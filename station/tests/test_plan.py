"""The example plan on the healthy phone and on each broken one: what fails is what should."""

import base64
import os
import re
import subprocess
import sys
import xml.etree.ElementTree
import zlib
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest
from scripted_port import CLOSE, ScriptedPort

from ftm_station import Handset
from ftm_station.picture import NoPicture, one_colour

STATION = Path(__file__).parent.parent
SENSORS = ["GSENSOR", "DUAL_GSENSOR", "GYRO", "MSENSOR", "PROX", "LIGHT", "PRESS", "HALL"]
ALL_SENSORS = {f"sensor[AT+{name}]" for name in SENSORS}

# The steps that fail, for each broken phone.
FAILING = {
    "": set(),
    "cracked-die": {"codec"},
    "dead-panel": {"panel_number", "panel"},
    "full-persist": {"configuration[aging]", "configuration[test]"},
    "locked": {"lock", "product_info", "back_cover"},
    "missing-cameras": {"camera[front]", "camera[tele]"},
    "no-battery": {"battery"},
    "one-accelerometer": {"sensor[AT+DUAL_GSENSOR]"},
    "silent-hub": ALL_SENSORS,
    "slow-phone": ALL_SENSORS,
    "stuck-key": {"keys"},
    "unreadable-reserve": {"download", "product_info", "back_cover"},
    "wrong-board-stage": {"secure_boot"},
}


# What takes so long that its steps are divided among several phones of the kind, side by side.
DIVIDED = {"slow-phone": 4}
WAITS = "0.3"  # what part of their time the waits of all but the healthy phone take


def run_plan(folder, *options, answers="", steps=(str(STATION / "plan"),)):
    """The run's output, and the steps that failed, were left out or could not begin with their reasons."""
    folder.mkdir(exist_ok=True)
    environment = os.environ | {"PYTHONPATH": str(STATION), "PYTHONDONTWRITEBYTECODE": "1"}
    command = [sys.executable, "-m", "pytest", "-p", "ftm_station.plugin", "-p", "no:cacheprovider"]
    command += ["--pages", str(folder), "--junitxml", str(folder / "unit.xml"), "--patience", "20"]
    command += ["-v", *options, *steps]
    ended = subprocess.run(
        command, input=answers, capture_output=True, text=True, env=environment, timeout=500
    )
    fallen = {}
    if (folder / "unit.xml").exists():
        for case in xml.etree.ElementTree.parse(folder / "unit.xml").iter("testcase"):
            for kind in ("failure", "error", "skipped"):
                if (found := case.find(kind)) is not None:
                    fallen[case.get("name").removeprefix("test_")] = kind, found.get("message")
    return ended, fallen


def all_steps():
    command = [sys.executable, "-m", "pytest", "-p", "ftm_station.plugin", "-p", "no:cacheprovider"]
    environment = os.environ | {"PYTHONPATH": str(STATION), "PYTHONDONTWRITEBYTECODE": "1"}
    command += ["--collect-only", "-q", str(STATION / "plan")]
    listed = subprocess.run(command, capture_output=True, text=True, env=environment, timeout=60)
    names = [line.partition("::")[2] for line in listed.stdout.splitlines()]
    return [f"{STATION}/plan/test_unit.py::{name}" for name in names if name]


@pytest.fixture(scope="module")
def runs(tmp_path_factory):
    """For each phone the runs, each to come, and the folder of all."""
    folder = tmp_path_factory.mktemp("runs")
    steps = all_steps()
    assert len(steps) == 38

    def run(name, part):
        parts = DIVIDED.get(name, 1)
        options = ["--broken", name, "--waits", WAITS] if name else []
        return run_plan(folder / f"{name or 'healthy'}{part or ''}", *options, steps=steps[part::parts])

    with ThreadPoolExecutor(len(FAILING) + sum(DIVIDED.values())) as pool:
        yield {
            name: [pool.submit(run, name, part) for part in range(DIVIDED.get(name, 1))]
            for name in sorted(FAILING, key=lambda name: name not in DIVIDED)
        }, folder


def test_each_broken_phone_is_in_the_table():
    printed = subprocess.run([os.environ["HANDSET"], ".broken"], capture_output=True, text=True)
    assert set(re.findall(r"^([a-z-]+) ", printed.stdout, re.M)) == set(FAILING) - {""}


@pytest.mark.parametrize("name", FAILING)
def test_the_steps_that_fail(runs, name):
    found = set()
    for run in runs[0][name]:
        ended, fallen = run.result()
        assert {kind for kind, _ in fallen.values()} <= {"failure"}
        assert ended.returncode == bool(fallen), ended.stdout
        found |= set(fallen)
    assert found == FAILING[name]


def test_the_page(runs):
    ended = runs[0]["no-battery"][0].result()[0]
    assert "FAILED voltage 0 V (3.6 to 4.4 V)" in ended.stdout
    page = (runs[1] / "no-battery" / "deadbeef.html").read_text()
    assert "<title>deadbeef failed</title>" in page
    assert re.findall(r'id="test_(\w+)".*?class="word failed"', page) == ["battery"]
    assert "voltage is 0 V, and should be 3.6 to 4.4 V" in page
    assert re.search(r"&lt; &#x27;.*\+EADC: 0\.00,0\.00,0\.00,0\.000,0\.00&#x27;\n?</pre>", page)
    assert base64.b64decode(re.search(r"data:image/png;base64,([^\"]*)", page)[1])[1:4] == b"PNG"
    runs[0][""][0].result()
    assert "<title>deadbeef passed</title>" in (runs[1] / "healthy" / "deadbeef.html").read_text()


def test_a_run_that_cannot_begin(tmp_path):
    for options, why in [
        (["--phone", "/nowhere/tty"], "cannot open /nowhere/tty"),
        (["--broken", "nothing"], "no broken phone is called nothing"),
    ]:
        ended, _ = run_plan(tmp_path / "run", *options)
        assert ended.returncode == 2 and why in ended.stdout, ended.stdout


def test_a_line_that_goes(tmp_path):
    with ScriptedPort([b"OK\r\nSN: 1\n"], [CLOSE]) as port:
        ended, fallen = run_plan(tmp_path / "run", "--phone", port.url)
    assert (ended.returncode, list(fallen)) == (2, ["software"]), ended.stdout
    assert f"the line has gone: {port.url}: " in ended.stdout
    assert "1 passed, 1 failed, 36 left out" in (tmp_path / "run" / "1.html").read_text()


def test_a_step_that_is_left_out(tmp_path):
    ended, _ = run_plan(tmp_path / "run", "-k", "serial")
    assert ended.returncode == 1 and "unit deadbeef: incomplete" in ended.stdout
    assert "1 passed, 37 left out" in (tmp_path / "run" / "deadbeef.html").read_text()


def test_a_person_takes_the_place_of_the_handset(tmp_path):
    """At a terminal, and where nobody answers."""
    with Handset(waits=0) as handset:
        options = ["--phone", handset.line, "-k", "led or battery"]
        ended, fallen = run_plan(tmp_path / "alone", *options)
        assert list(fallen) == ["led"]
        assert fallen["led"][1] == "nobody has answered: Is it so: red LED on?"
        ended, fallen = run_plan(tmp_path / "asked", *options, answers="y\n" * 5 + "n\n")
        assert set(fallen) == {"led"} and "not blue LED off" in fallen["led"][1]
        assert ended.stdout.count("[y/n]") == 6


def test_pictures(tmp_path):
    def png(rows, kind=b"\x08\x02"):
        chunks = [(b"IHDR", b"\0\0\0\2" + len(rows).to_bytes(4, "big") + kind + b"\0\0\0")]
        chunks.append((b"IDAT", zlib.compress(b"".join(rows))))
        file = tmp_path / "picture.png"
        file.write_bytes(b"\x89PNG\r\n\x1a\n" + b"".join(
            len(data).to_bytes(4, "big") + name + data + b"\0\0\0\0" for name, data in chunks))
        return file

    red = b"\xff\0\0"
    for rows, colour in [
        ([b"\0" + red + red], (255, 0, 0)),
        ([b"\1" + red + b"\0\0\0", b"\2" + 6 * b"\0", b"\4" + 6 * b"\0"], (255, 0, 0)),
        ([b"\0" + red + red, b"\3\x80\0\0\0\0\0"], (255, 0, 0)),
        ([b"\0" + red + red, b"\0" + red + b"\xff\0\1"], None),
    ]:
        assert one_colour(png(rows)) == colour
    for file in [png([b"\0" + red]), png([b"\7" + red + red]), png([b"\0" + red + red], b"\x10\x02")]:
        with pytest.raises(NoPicture):
            one_colour(file)
    file.write_bytes(b"GIF")
    with pytest.raises(NoPicture):
        one_colour(file)

"""The client of the line: against a port that follows a script, and against served handsets."""

import json
import os
import random
import threading
import time
from concurrent.futures import ThreadPoolExecutor

import pytest
from scripted_port import CLOSE, ScriptedPort

from ftm_station import (
    Handset,
    HandsetError,
    NoPort,
    PortClosed,
    Station,
    TimeOut,
    UnexpectedReply,
)
from ftm_station.answer import Answers, State
from ftm_station.hands import SimulatedHands
from ftm_station.table import TABLE, Table

BATTERY = b"OK\r\n+EADC: 3.85,25.30,0.00,-512.000,2.10"
CHARGE = ("AT+EADC=1", "read", {"charge": 2.1})


def torn(data, pause=0.002):
    return [piece for i in range(len(data)) for piece in (data[i : i + 1], pause)]


def test_each_text_of_the_table_is_complete_and_none_of_its_beginnings():
    for command in Table().commands:
        answers = Answers(command)
        for outcome in answers.outcomes:
            for text in filter(None, outcome.texts()):
                where = f"{command.text}, {outcome.name}, {text!r}"
                assert outcome.name in answers.result("", text, 0).outcomes, where
                whole = answers.state(text)
                assert whole in (State.COMPLETE, State.MAYBE), where
                assert whole is State.MAYBE or not outcome.row.get("begins"), where
                for end in range(len(text)):
                    assert answers.state(text[:end]) in (State.BEGUN, State.MAYBE), (where, end)
        # No search for ever.
        assert answers.state("OK\r\n" + 300 * "\n" + "\0") in (State.UNKNOWN, State.BEGUN)


@pytest.mark.parametrize(
    "script, expected",
    [
        ([BATTERY], CHARGE),
        (torn(BATTERY), CHARGE),
        ([BATTERY[:-1], 0.7, BATTERY[-1:]], CHARGE),
        ([b"OK\r\n", 0.6, b" CPUINFO:", 0.1, b"28", 0.1, b"41600"],
         ("AT+GCPU=1", "read", {"frequency": 2841600})),
        ([b"OK\r\n PCBA:", 0.1, b"NV24"], ("AT+EGMR=0,5", "read", {"number": "NV24"})),
        ([b"OK\r\n PCBA:"], ("AT+EGMR=0,5", "no_number", {})),
        ([b"ERROR\n", 0.1, b" UNLOCK FIRST"], ("AT^RESET_ENG_MARK", "locked", {})),
        ([b"ERROR\n"], ("AT^RESET_ENG_MARK", "failed", {})),
        # It plays and looks between its replies for longer than a line is quiet.
        ([b"ERROR\n", 0.9, b"OK\r\nOK\r\n16"],
         ("AT+CASP=PA_SELFCHECK", "checked_without_tone", {"code": 16})),
        # The listening thread's reply is late.
        ([b"AT_KEY test is start\nPOWER_KEY:0, VOL+:1, VOL-:0, \n",
          b"wait input event in 5s\nERROR\nAT_KEY test is end\n"],
         ("AT+KEY", "missed", {"volume_up": "1"})),
        ([b"OK\r\nA=B\n\n", b"C=D\n\n"], ("AT^GET_PRODUCT_INFO", "listed", {"entry": ["A=B\n", "C=D\n"]})),
        # A line that holds back each of the phone's writes.
        ([0.8, b"OK\r\n", 0.9, b"A=B\n", 0.9, b"\n"],
         ("AT^GET_PRODUCT_INFO", "listed", {"entry": ["A=B\n"]})),
        ([b"x : -999  \n", b"OK\r\n"], ("AT+PROX", "no_sample", {})),
        ([b"ERROR\nOK\r\n"], ("AT+TP", "answered", {"answer": "ERROR\n"})),
        ([b"ffc04205"], ("AT+WCDMIC=1", "cracked", {"enable": "c0", "output": "05"})),
        ([b"UNDEFINED COMMAND\n"], ("AT^NOPE", "undefined", {})),
        ([b"UNDEFINED COMMAND\n"], ("AT+EADC=1", "undefined", {})),
    ],
)
def test_answers(script, expected):
    line, outcome, values = expected
    with ScriptedPort(script) as port, Station(port.url) as phone:
        result = phone.command(line)
        assert (result.outcome, {name: result[name] for name in values}) == (outcome, values)
        assert port.lines == [line.encode() + b"\n"]
        assert "".join(e.text for e in phone.log if e.kind == "received") == result.text


@pytest.mark.parametrize(
    "script, error, received",
    [
        ([BATTERY + BATTERY], UnexpectedReply, BATTERY + BATTERY),
        ([b"\xff\0\x80garbage", 0.1, b"more"], UnexpectedReply, b"\xff\0\x80garbagemore"),
        ([b"OK\r\n+EADC: 3.85,25.30,0.00,x"], UnexpectedReply, b"OK\r\n+EADC: 3.85,25.30,0.00,x"),
        ([b"AT+EADC=1\r\n" + BATTERY], UnexpectedReply, b"AT+EADC=1\r\n" + BATTERY),
        ([b"\n" * 4000] * 3, UnexpectedReply, b"\n" * 12000),
        ([], TimeOut, b""),
        ([BATTERY[:9]], TimeOut, BATTERY[:9]),
    ],
)
def test_what_no_outcome_explains_and_what_never_comes(script, error, received):
    with ScriptedPort(script, [BATTERY]) as port, Station(port.url, patience=1) as phone:
        with pytest.raises(error) as raised:
            phone.command("AT+EADC=1")
        assert raised.value.received.encode("latin-1") == received
        assert phone.command("AT+EADC=1").passed


def test_later_replies_are_gathered():
    tone = [b"OK\r\n"]
    with ScriptedPort([b"OK\r\nERROR\n"], tone, tone + [0.3, b"ERROR\n"], [b"ERROR\n" + BATTERY]) as port:
        with Station(port.url) as phone:
            assert phone.command("AT+CASP=1,151,2,20").later == ["ERROR\n"]
            first = phone.command("AT+CASP=1,151,2,20")
            assert phone.listen(0.1) == first.later == []
            second = phone.command("AT+CASP=1,151,2,20")
            assert phone.listen(5) == second.later == ["ERROR\n"]
            second.later.clear()
            assert phone.command("AT+EADC=1").passed
            assert second.later == ["ERROR\n"]


def test_a_duplicate_that_comes_late_stops_the_next_line():
    with ScriptedPort([BATTERY, 0.2, BATTERY], [BATTERY]) as port, Station(port.url) as phone:
        phone.command("AT+EADC=1")
        time.sleep(0.5)
        with pytest.raises(UnexpectedReply, match="before AT.SN"):
            phone.command("AT^SN")
        assert len(port.lines) == 1
        assert phone.command("AT+EADC=1").passed


def test_an_answer_after_its_time_is_dropped():
    with ScriptedPort([0.5, BATTERY], [b"OK\r\nSN: 1\n"]) as port, Station(port.url) as phone:
        with pytest.raises(TimeOut, match="nothing came in 0.1 s"):
            phone.command("AT+EADC=1", limit=0.1)
        time.sleep(1)
        assert phone.command("AT^SN")["serial"] == "1"
        assert [entry.kind for entry in phone.log].count("dropped") == 1


def test_a_port_that_closes():
    with ScriptedPort([BATTERY[:9], 0.2, CLOSE]) as port, Station(port.url) as phone:
        for line in ["AT+EADC=1", "AT^SN"]:
            with pytest.raises(PortClosed, match=port.url):
                phone.command(line)


def test_what_cannot_be_opened_or_sent(tmp_path):
    table = json.loads(TABLE.read_text())
    newer = tmp_path / "newer.json"
    newer.write_text(json.dumps(table | {"version": 2}))
    (tmp_path / "list.json").write_text("[]")
    for name, why in [("newer.json", "is of version 2, not 1"), ("list.json", "is of version None")]:
        with pytest.raises(ValueError, match=why):
            Station("/dev/null", table=tmp_path / name)
    with pytest.raises(FileNotFoundError):
        Station("/dev/null", table=tmp_path / "none.json")
    for url in ["/nowhere/tty", str(newer), "socket://127.0.0.1:1", "nothing://x"]:
        with pytest.raises(NoPort, match=url):
            Station(url)
    with ScriptedPort() as port, Station(port.url) as phone:
        for line in ["AT\nAT", "AT" + 574 * "x", "AT\xe4"]:
            with pytest.raises(ValueError, match="no line of 575"):
                phone.command(line)


# What may be sent in any order to a phone that is well, and passes; what follows a semicolon belongs to
# what stands before it.
MIXED = """AT+EDFT=9,1|AT+EDFT=9,0|AT+RGB|AT+EDFT=0,5|AT+EDFT=0,0|AT+EDFT=6,1|AT+EDFT=6,0|AT+GCPU=1
AT+GEMMC=1|AT+EMMC|AT+UFSPLUS|AT+GMEM=1|AT+MEMCARD|AT^FM_SW_VERSION|AT^SN|AT+EGMR=0,5|AT+DOWNLOAD_STATUS
AT+CHARGE_MCU|AT+LCDSN|AT+IRIS=1|AT+EADC=1|AT+WCDMIC=1;AT+WCDMIC=0|AT+CODEC_SPK|AT+CASP=PA_SELFCHECK
AT+CASP=CHECK_AUDIO_CODEC|AT^OPEN_GPS|AT+CAMERA_OPEN|AT+CAMERA_CLOSE|AT^FM_CAMERA_TEST|AT+FLASH_OPEN
AT^CAMERA_QR_CODE_GET|AT^SECRECY_LOCK_STATUS|AT^WITH_ARGS_PRODUCT_INFO:color=red|AT^GET_PRODUCT_INFO
AT^WITH_ARGS_BACKCOVER_COLOR:ff00aa11|AT^GET_BACKCOVER_COLOR|AT^WITH_ARGS_UTC:station=b2|AT^WITH_ARGS_QTC:station
AT^OPEN_WIFI|AT^CLOSE_WIFI|AT+TP|AT^FINGER_QR_CODE_GET|AT^SECUREBOOT_STATUS_CHECK|AT_RF_CABLE
AT+GSENSOR|AT+LIGHT|AT+SAR|AT+HALL""".replace("\n", "|").split("|")


@pytest.mark.parametrize("seed", [18, 19, 20])
def test_mixed_commands_of_a_served_handset(mixed_runs, seed):
    mixed_runs[seed].result()


@pytest.fixture(scope="module")
def mixed_runs():
    """Three phones side by side, each with a station on a thread. STATION_COMMANDS sets how many commands
    all have together."""
    count = int(os.environ.get("STATION_COMMANDS", "300")) // 3
    with ThreadPoolExecutor(3) as pool:
        yield {seed: pool.submit(send_mixed, seed, count) for seed in [18, 19, 20]}


def send_mixed(seed, count):
    chance = random.Random(seed)
    with Handset(waits=0.1) as handset, Station(handset.line, patience=30) as phone:
        for line in ["AT^WITH_ARGS_UTC:station=b2", "AT^WITH_ARGS_BACKCOVER_COLOR:ff00aa11"]:
            assert phone.command(line).passed
        for number in range(count):
            for line in chance.choice(MIXED).split(";"):
                result = phone.command(line)
                assert result.passed, (number, result)


def test_a_phone_that_reboots_and_a_daemon_that_ends():
    with Handset(waits=0) as handset, Station(handset.line, patience=0.5) as phone:
        phone.command("AT^WITH_ARGS_PRODUCT_INFO:color=red")
        rebooting = threading.Thread(target=handset.reboot, args=(2,))
        rebooting.start()
        time.sleep(0.5)
        with pytest.raises(TimeOut):
            phone.command("AT+EADC=1")
        rebooting.join()
        phone.patience = 30
        assert phone.command("AT^GET_PRODUCT_INFO")["entry"] == ["COLOR=RED\n"]
        handset.stop()
        with pytest.raises(PortClosed):
            phone.command("AT+EADC=1")
        with pytest.raises(HandsetError, match="does not answer"):
            handset.tell(".power")


def test_a_phone_that_was_woken_stays_awake():
    with Handset(waits=0.1) as handset, Station(handset.line, patience=10) as phone:
        hands = SimulatedHands(handset)
        for _ in range(2):
            assert phone.command("AT+ESLP=1").passed
            hands.sleeps()
            hands.wake()
            time.sleep(0.5)
            assert phone.command("AT+ESLP=0").passed
        handset.journal()
        time.sleep(0.5)
        polls = [text for text in handset.journal("raw") if "sleep_fail_info_save_func,ret" in text]
        assert len(polls) < 5


def test_handsets_that_do_not_start_or_do_what_they_are_told(tmp_path):
    for options, why in [
        ({"program": "/nowhere/handset"}, "cannot start /nowhere/handset"),
        ({"program": "/bin/true"}, "ended at its start"),
        ({"profile": "nothing"}, "no broken phone is called nothing"),
        ({"tty": "blah"}, "--tty: blah not in"),
    ]:
        with pytest.raises(HandsetError, match=why):
            Handset(**options)
    with Handset(waits=0) as handset, Station(handset.line, patience=30) as phone:
        assert handset.node("/sys/class/power_supply/battery/temp", 301) == "301\\n"
        assert phone.command("AT+EADC=1")["temperature"] == 30.1
        with pytest.raises(HandsetError, match="no such command: .nothing"):
            handset.tell(".nothing")
        handset.break_part("locked")
        assert phone.command("AT^SECRECY_LOCK_STATUS").outcome == "locked"
        handset.journal()
        phone.command("AT+EDFT=6,1")
        assert handset.journal("wait") == ["wait 700 ms"]
        phone.command("AT+EDFT=0,5")
        assert handset.panel(tmp_path / "panel.png").read_bytes()[1:4] == b"PNG"

"""The plan of a unit at the end of the line: one step a test, in this order.

    pytest --pages pages --junitxml unit.xml test_unit.py
"""

import pytest

from ftm_station.plugin import Checks

# What is not bound to a unit but to the model: name of the value, least, most, unit.
Limits = tuple[str, float, float, str]
ACCELERATION: list[Limits] = [("x", -1, 1, "m/s^2"), ("y", -1, 1, "m/s^2"), ("z", 9.3, 10.3, "m/s^2")]
ROTATION: list[Limits] = [(axis, -0.1, 0.1, "rad/s") for axis in "xyz"]
SENSORS: dict[str, list[Limits]] = {
    "AT+GSENSOR": ACCELERATION,
    "AT+DUAL_GSENSOR": ACCELERATION,
    "AT+GYRO": ROTATION,
    "AT+MSENSOR": [(axis, -100, 100, "uT") for axis in "xyz"],
    "AT+PROX": [("count", 500, 2000, "ADC counts")],
    "AT+LIGHT": [("light", 200, 500, "lux")],
    "AT+PRESS": [("pressure", 950, 1050, "hPa")],
    "AT+HALL": [("state", 1, 1, "")],
}
BATTERY = [
    ("voltage", 3.6, 4.4, "V"),
    ("temperature", 15, 35, "degrees C"),
    ("current", -1500, 100, "mA"),
    ("charge", 1.5, 5, "Ah"),
]
CAMERAS = ["", "_FRONT", "_BACK_AUX", "_BACK_TELE"]
LEDS = ["red", "green", "blue"]


def test_serial_number(check: Checks) -> None:
    """The chip has a serial number."""
    serial = check.passes("AT^SN")["serial"]
    check.name_unit(serial)


def test_software(check: Checks) -> None:
    """The software is that of the model."""
    version = check.passes("AT^FM_SW_VERSION")
    check.equal("model", version["model"], "NV-A1")
    check.equal("android", version["android"], "11")


def test_board_number(check: Checks) -> None:
    """The board has a number."""
    check.equal("digits", len(check.passes("AT+EGMR=0,5")["number"]), 12)


def test_download(check: Checks) -> None:
    """The download has come to its end."""
    check.passes("AT+DOWNLOAD_STATUS")


def test_checksums(check: Checks) -> None:
    """The system is as it was built."""
    check.passes("AT^SYS_VEN_MD5", limit=600)


def test_secure_boot(check: Checks) -> None:
    """Secure boot is in the stage of its board."""
    check.passes("AT^SECUREBOOT_STATUS_CHECK")


def test_lock(check: Checks) -> None:
    """The phone is not locked."""
    check.passes("AT^SECRECY_LOCK_STATUS", "unlocked", "no_lock")


def test_product_info(check: Checks) -> None:
    """The product info can be written and is read back."""
    check.passes("AT^RESET_PRODUCT_INFO")
    check.passes("AT^WITH_ARGS_PRODUCT_INFO:LINE=B2")
    entries = check.passes("AT^GET_PRODUCT_INFO", "listed")["entry"]
    check.equal("entries", " ".join(entry.strip() for entry in entries), "LINE=B2")


def test_back_cover(check: Checks) -> None:
    """The colour of the back cover can be written and is read back."""
    check.passes("AT^WITH_ARGS_BACKCOVER_COLOR:FF00AA11")
    check.equal("colour", check.passes("AT^GET_BACKCOVER_COLOR")["color"], "FF00AA11")


@pytest.mark.parametrize("kind", ["A", "T"], ids=["aging", "test"])
def test_configuration(check: Checks, kind: str) -> None:
    """A configuration item can be written and is read back."""
    check.passes(f"AT^WITH_ARGS_U{kind}C:CYCLES=12")
    check.equal("cycles", check.passes(f"AT^WITH_ARGS_Q{kind}C:CYCLES")["value"], "12")


def test_memory(check: Checks) -> None:
    """Memory and storage have the model's size."""
    check.within("memory", check.passes("AT+GMEM=1")["size"] / 2**20, 7, 8, "GiB")
    check.within("storage", check.passes("AT+GEMMC=1")["size"] / 2**20, 110, 128, "GiB")


def test_memory_card(check: Checks) -> None:
    """The memory card can be read."""
    check.within("card", check.passes("AT+MEMCARD")["total"], 50, 64, "GiB")


def test_battery(check: Checks) -> None:
    """The battery is there and well."""
    battery = check.passes("AT+EADC=1")
    for name, least, most, unit in BATTERY:
        check.within(name, battery[name], least, most, unit)


def test_panel_number(check: Checks) -> None:
    """The panel tells when it was made."""
    check.within("year", check.passes("AT+LCDSN")["year"], 2020, 2026)


def test_panel(check: Checks) -> None:
    """The panel goes dark, and shows white."""
    check.passes("AT+EDFT=0,0")
    check.panel("black")
    check.passes("AT+EDFT=0,5")
    check.panel("white")


def test_led(check: Checks) -> None:
    """The notification LED shines and goes out."""
    for line, what, value in [("AT+EDFT=9,1", "LED on", 1), ("AT+EDFT=9,0", "LED off", 0)]:
        check.passes(line)
        for colour in LEDS:
            check.light(f"{colour} {what}", f"/sys/class/leds/{colour}/brightness", value)


def test_vibrator(check: Checks) -> None:
    """The vibrator can be switched."""
    check.passes("AT+EDFT=6,1")
    check.passes("AT+EDFT=6,0")


def test_keys(check: Checks) -> None:
    """Each key is felt."""
    check.hands.press("power", "volup", "voldown")
    check.passes("AT+KEY")


def test_touch(check: Checks) -> None:
    """The touch controller's own test passes."""
    check.equal("touch", check.passes("AT+TP")["answer"].strip(), "PASS")


@pytest.mark.parametrize("line", SENSORS)
def test_sensor(check: Checks, line: str) -> None:
    """A sensor measures what a phone that lies still does."""
    measured = check.passes(line)
    for name, least, most, unit in SENSORS[line]:
        check.within(name, measured[name], least, most, unit)


def test_codec(check: Checks) -> None:
    """The codec is whole, and the amplifiers are there."""
    check.passes("AT+CASP=CHECK_AUDIO_CODEC")
    check.passes("AT+CASP=CHECK_TOP_PA")
    check.passes("AT+CASP=CHECK_BOTTOM_PA")
    cracks = check.phone.command("AT+WCDMIC=1")
    check.passes("AT+WCDMIC=0")
    check.equal("codec", cracks.outcome, "sound")


def test_loudspeaker(check: Checks) -> None:
    """The loudspeaker plays its tone."""
    check.passes("AT+CASP=1,151,2,20", "started")
    check.passes("AT+CASP=2,151")


@pytest.mark.parametrize("camera", CAMERAS, ids=["main", "front", "aux", "tele"])
def test_camera(check: Checks, camera: str) -> None:
    """A camera can be powered."""
    check.passes(f"AT+CAMERA{camera}_OPEN")
    check.passes(f"AT+CAMERA{camera}_CLOSE")


def test_fingerprint(check: Checks) -> None:
    """The fingerprint sensor tells its code."""
    check.passes("AT^FINGER_QR_CODE_GET")


def test_wifi(check: Checks) -> None:
    """Wi-Fi goes on and off."""
    check.passes("AT^OPEN_WIFI")
    check.passes("AT^CLOSE_WIFI")


def test_antennas(check: Checks) -> None:
    """No test cable is left in an antenna's port."""
    check.passes("AT_RF_CABLE")


def test_sleep(check: Checks) -> None:
    """The phone sleeps, and wakes."""
    check.passes("AT+ESLP=1")
    assert check.hands.sleeps() == ""
    check.hands.wake()
    check.passes("AT+ESLP=0")

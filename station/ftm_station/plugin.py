"""The pytest plugin: fixtures for a plan's steps, and a page of each unit.

A run of pytest is one unit: the phone of --phone, or a simulated handset of its own.
"""

import pathlib
import tempfile
import time
from collections.abc import Generator, Iterator
from typing import Any

import pytest

from .answer import Result
from .errors import PortClosed, StationError
from .handset import Control, Handset
from .hands import Hands, PersonHands, SimulatedHands
from .page import write_page
from .record import Measure, Step, Unit
from .station import Station

_UNIT = pytest.StashKey[Unit]()
_STEP = pytest.StashKey[Step]()


def pytest_addoption(parser: pytest.Parser) -> None:
    group = parser.getgroup("factory-test line")
    group.addoption("--phone", metavar="URL", help="the port of a real phone, as pyserial knows it")
    group.addoption(
        "--control",
        metavar="PATH",
        help="with --phone or labgrid: the port is a served handset's that has this control socket",
    )
    group.addoption("--broken", metavar="NAME|DIR", help="a simulated handset that is broken like this")
    group.addoption(
        "--waits",
        metavar="FACTOR",
        type=float,
        default=1.0,
        help="what part of its time each wait of a simulated handset takes",
    )
    group.addoption(
        "--patience",
        metavar="SECONDS",
        type=float,
        default=3.0,
        help="what each answer is granted on top of the time that it may take",
    )
    group.addoption("--pages", metavar="DIR", help="write the unit's page to a file in DIR")


def pytest_configure(config: pytest.Config) -> None:
    config.stash[_UNIT] = Unit("unit", config.getoption("--phone") or "", time.time())


class Checks:
    """What a step finds: it stops at the first that is not as it should be."""

    def __init__(self, phone: Station, hands: Hands, request: pytest.FixtureRequest):
        self.phone = phone
        self.hands = hands
        self._step = request.node.stash[_STEP]
        self._properties: list[tuple[str, object]] = request.node.user_properties
        self._unit = request.config.stash[_UNIT]

    def name_unit(self, name: str) -> None:
        """What the unit's page is called."""
        self._unit.name = name

    def passes(self, line: str, *outcomes: str, limit: float | None = None) -> Result:
        """Sends a line; its answer must be a pass, and one of the outcomes where some are named."""
        result = self.phone.command(line, limit)
        if not result.passed or (outcomes and not set(outcomes) & set(result.outcomes)):
            remedy = f"\n{result.remedy}" if result.remedy else ""
            self._fail(f"{line}: {result.outcome}: {result.meaning}{remedy}")
        return result

    def within(self, name: str, value: float, least: float, most: float, unit: str = "") -> None:
        """A value must lie within its limits, both included."""
        unit = f" {unit}" if unit else ""
        self._note(name, f"{value:g}{unit}", f"{least:g} to {most:g}{unit}", least <= value <= most)

    def equal(self, name: str, value: object, expected: object) -> None:
        """A value must be this one."""
        self._note(name, str(value), str(expected), value == expected)

    def panel(self, colour: str) -> None:
        """The panel must have this colour all over; its picture comes on the page."""
        with tempfile.TemporaryDirectory() as folder:
            picture = pathlib.Path(folder) / "panel.png"
            wrong = self.hands.panel_is(colour, picture)
            if picture.exists():
                self._step.pictures.append(picture.read_bytes())
        if wrong:
            self._fail(wrong)

    def light(self, what: str, node: str, value: int) -> None:
        """A light must be as described; node and value are what a simulated handset must have."""
        if wrong := self.hands.light_is(what, node, value):
            self._fail(wrong)

    def _note(self, name: str, value: str, limits: str, passed: bool) -> None:
        self._step.measures.append(Measure(name, value, limits, passed))
        self._properties.append((name, f"{value} ({limits})"))
        if not passed:
            self._fail(f"{name} is {value}, and should be {limits}")

    @staticmethod
    def _fail(why: str) -> None:
        pytest.fail(why, pytrace=False)


def _labgrid(config: pytest.Config) -> bool:
    return bool(config.getoption("lg_env", None))


def _labgrid_station(request: pytest.FixtureRequest) -> Any:
    """The station of labgrid's target. Whatever keeps it from being there ends the run: its errors have
    nothing in common."""
    try:
        return request.getfixturevalue("target").get_driver("StationDriver").station
    except Exception as error:
        pytest.exit(f"labgrid has no line: {error}", returncode=2)


@pytest.fixture(scope="session")
def handset(request: pytest.FixtureRequest) -> Iterator[Control | None]:
    """The simulated handset, None with a real phone."""
    options = request.config.option
    try:
        if options.control:
            simulated = Control(options.control)
        elif options.phone or _labgrid(request.config):
            yield None
            return
        else:
            simulated = Handset(options.broken, waits=options.waits)
    except StationError as error:
        pytest.exit(str(error), returncode=2)
    with simulated:
        yield simulated


@pytest.fixture(scope="session")
def phone(request: pytest.FixtureRequest, handset: Control | None) -> Iterator[Station]:
    """The line to the phone."""
    options = request.config.option
    try:
        if _labgrid(request.config):
            station = _labgrid_station(request)
        else:
            url = options.phone or getattr(handset, "line", None)
            if url is None:
                pytest.exit("--control names no line: add --phone", returncode=2)
            station = Station(url, patience=options.patience)
    except (StationError, ValueError, OSError) as error:
        pytest.exit(str(error), returncode=2)
    request.config.stash[_UNIT].line = station.url
    with station:
        yield station


@pytest.fixture(scope="session")
def hands(request: pytest.FixtureRequest, handset: Control | None) -> Hands:
    """What presses and looks."""
    if handset:
        return SimulatedHands(handset)
    capture = request.config.pluginmanager.getplugin("capturemanager")

    def tell(text: str, question: bool = False) -> str:
        capture.suspend_global_capture(in_=True)
        try:
            print(f"\n{text}", end=" " if question else "\n", flush=True)
            return input().strip() if question else ""
        except (EOFError, OSError):
            return ""
        finally:
            capture.resume_global_capture()

    def ask(text: str) -> bool:
        answer = tell(f"{text} [y/n]", question=True)
        if not answer:
            pytest.fail(f"nobody has answered: {text}", pytrace=False)
        return answer.lower().startswith("y")

    return PersonHands(tell, ask)


@pytest.fixture
def check(request: pytest.FixtureRequest, phone: Station, hands: Hands) -> Iterator[Checks]:
    """What a step checks with; it keeps what was sent and found for the page."""
    before = phone.log[-1] if phone.log else None
    yield Checks(phone, hands, request)
    entries = list(phone.log)
    after = next((i for i, entry in enumerate(entries, 1) if entry is before), 0)
    request.node.stash[_STEP].exchange = entries[after:]


@pytest.hookimpl(tryfirst=True)
def pytest_runtest_setup(item: pytest.Item) -> None:
    doc = (getattr(getattr(item, "function", None), "__doc__", None) or "").strip()
    title = doc.partition("\n")[0].rstrip(".") or item.name
    case = item.name.partition("[")[2].rstrip("]")
    step = Step(item.name, f"{title}: {case}" if case else title)
    item.stash[_STEP] = step
    item.config.stash[_UNIT].steps.append(step)


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(
    item: pytest.Item, call: pytest.CallInfo[None]
) -> Generator[None, Any, None]:
    """Keeps what became of a step. Without the line the run ends: no other could pass."""
    outcome = yield
    report: pytest.TestReport = outcome.get_result()
    if call.excinfo and isinstance(call.excinfo.value, PortClosed) and not item.session.shouldstop:
        unit = item.config.stash[_UNIT]
        unit.left_out += len(item.session.items) - len(unit.steps)
        item.session.shouldstop = f"the line has gone: {call.excinfo.value}"
    step = item.stash.get(_STEP, None)
    if step is None or (report.when == "teardown" and report.passed):
        return
    step.seconds += report.duration
    if report.when == "call" or not report.passed:
        step.outcome = report.outcome
        step.why = "" if report.passed else _why(report)


def _why(report: pytest.TestReport) -> str:
    if isinstance(report.longrepr, tuple):  # of a skipped one: file, line, reason
        return report.longrepr[2].removeprefix("Skipped: ")
    crash = getattr(report.longrepr, "reprcrash", None)
    return str(report.longrepr if crash is None else crash.message)


def pytest_deselected(items: list[pytest.Item]) -> None:
    if items:
        items[0].config.stash[_UNIT].left_out += len(items)


@pytest.hookimpl(trylast=True)
def pytest_sessionfinish(session: pytest.Session, exitstatus: int) -> None:
    """A unit of which steps were left out has not passed."""
    if exitstatus == pytest.ExitCode.OK and session.config.stash[_UNIT].verdict != "passed":
        session.exitstatus = pytest.ExitCode.TESTS_FAILED


def pytest_report_teststatus(report: Any) -> tuple[str, str, str] | None:
    """With -v each step's values stand behind its outcome."""
    if report.when == "call" and report.outcome in ("passed", "failed") and report.user_properties:
        values = "; ".join(f"{name} {value}" for name, value in report.user_properties)
        return report.outcome, report.outcome[0].replace("p", "."), f"{report.outcome.upper()} {values}"
    return None


def pytest_terminal_summary(terminalreporter: Any, config: pytest.Config) -> None:
    folder = config.getoption("--pages")
    unit = config.stash[_UNIT]
    if unit.steps:
        terminalreporter.write_line(f"unit {unit.name}: {unit.verdict}")
    if folder and unit.steps:
        try:
            file = write_page(unit, pathlib.Path(folder))
            terminalreporter.write_line(f"the unit's page: {file}")
        except OSError as error:
            terminalreporter.write_line(f"no page: {error}", red=True)

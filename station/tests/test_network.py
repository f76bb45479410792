"""Lines over the network, as a lab has them: ser2net makes the line a port of RFC 2217, and labgrid knows
where it is. Left out where one of the two is not installed."""

import os
import shutil
import signal
import socket
import subprocess
import time
from pathlib import Path

import pytest
from test_plan import run_plan

from ftm_station import NoPort, PortClosed, Station

LABGRID = Path(__file__).parent.parent / "labgrid"


def free_port():
    with socket.create_server(("127.0.0.1", 0)) as server:
        return server.getsockname()[1]


@pytest.fixture
def lab(tmp_path):
    """The example's two files with a port and a line of the test's own; the port, and ser2net."""
    if shutil.which("ser2net") is None:
        pytest.skip("ser2net is not installed")
    port = free_port()
    for name in ["ser2net.yaml", "env.yaml"]:
        text = (LABGRID / name).read_text().replace("7001", str(port))
        (tmp_path / name).write_text(text.replace("/tmp/phone1", str(tmp_path / "phone1")))
    command = [os.environ["HANDSET"], "--serve", "--line", str(tmp_path / "phone1.tty")]
    command += ["--control", str(tmp_path / "phone1.ctl")]
    with subprocess.Popen(command, stdout=subprocess.PIPE) as handset:
        handset.stdout.readline()
        with subprocess.Popen(["ser2net", "-n", "-c", str(tmp_path / "ser2net.yaml")]) as ser2net:
            end = time.monotonic() + 30
            while time.monotonic() < end:
                try:
                    socket.create_connection(("localhost", port)).close()
                    break
                except ConnectionRefusedError:
                    time.sleep(0.05)
            yield port, ser2net
            ser2net.terminate()
        handset.send_signal(signal.SIGTERM)


def test_a_line_over_rfc2217(lab):
    port, ser2net = lab
    url = f"rfc2217://localhost:{port}?ign_set_control"
    with Station(url, patience=20) as phone:
        assert phone.command("AT+EADC=1")["voltage"] == 3.85
        assert phone.command("AT+GCPU=1")["frequency"] == 2841600
        ser2net.terminate()
        ser2net.wait()
        with pytest.raises(PortClosed, match="rfc2217"):
            phone.command("AT+EADC=1")
    with pytest.raises(NoPort, match="rfc2217"):
        Station(url)


def test_the_plan_through_labgrid(lab, tmp_path):
    pytest.importorskip("labgrid.driver")  # a folder of that name is beside the package
    options = ["--lg-env", str(tmp_path / "env.yaml"), "--control", str(tmp_path / "phone1.ctl")]
    ended, fallen = run_plan(tmp_path / "run", *options)
    assert (ended.returncode, fallen) == (0, {}), ended.stdout
    assert f"rfc2217://localhost:{lab[0]}" in (tmp_path / "run" / "deadbeef.html").read_text()

#!/usr/bin/python3
"""How long the station's client takes for a command, beside a loop that knows how long the answer is.

usage: HANDSET=build/dev/handset/handset bench/bench_station.py [COMMANDS]
"""

import pathlib
import statistics
import sys
import time

import serial

sys.path.insert(0, str(pathlib.Path(__file__).parent.parent / "station"))

from ftm_station import Handset, Station  # noqa: E402

ANSWER = b"OK\r\n+EADC: 3.85,25.30,0.00,-512.000,2.10"


def bare(line: str, count: int) -> list[float]:
    took = []
    with serial.Serial(line, timeout=5) as port:
        for _ in range(count):
            began = time.perf_counter()
            port.write(b"AT+EADC=1\n")
            assert port.read(len(ANSWER)) == ANSWER
            took.append(time.perf_counter() - began)
    return took


def client(line: str, count: int) -> list[float]:
    took = []
    with Station(line) as phone:
        for _ in range(count):
            began = time.perf_counter()
            assert phone.command("AT+EADC=1").passed
            took.append(time.perf_counter() - began)
    return took


def main() -> None:
    count = int(sys.argv[1]) if len(sys.argv) > 1 else 1000
    with Handset(waits=0) as handset:
        for run in (bare, client, bare, client):
            took = run(handset.line, count)
            print(
                f"{run.__name__:6} {count} x AT+EADC=1: median {statistics.median(took) * 1e3:.2f} ms, "
                f"longest {max(took) * 1e3:.1f} ms"
            )


if __name__ == "__main__":
    main()

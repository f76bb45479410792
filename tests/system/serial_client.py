#!/usr/bin/env python3
"""A test station of its own: opens a serial port, sends each argument as a command and prints the
bytes that come back within a moment, as Python shows them.

usage: serial_client.py TTY COMMAND...
"""
import sys

import serial

with serial.Serial(sys.argv[1], 115200, timeout=10) as port:
    for command in sys.argv[2:]:
        port.write(command.encode() + b"\r\n")
        received = port.read(1)
        port.timeout = 1
        received += port.read(4096)
        port.timeout = 10
        print(received)

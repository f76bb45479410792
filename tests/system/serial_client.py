#!/usr/bin/env python3
"""A test station of its own: opens a serial port, sends each argument as a command, one write with a
line feed behind it, and prints the bytes that come back until the line has been quiet for a second
(for six with AT+KEY, which is silent while it waits for keys), as Python shows them.

usage: serial_client.py TTY COMMAND...
"""
import sys

import serial

with serial.Serial(sys.argv[1], 115200) as port:
    for command in sys.argv[2:]:
        port.write(command.encode() + b"\n")
        port.timeout = 10
        received = port.read(1)
        port.timeout = 6 if command.upper().startswith("AT+KEY") else 1
        while more := port.read(4096):
            received += more
        print(received)

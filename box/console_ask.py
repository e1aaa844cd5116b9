#!/usr/bin/python3 -IS
"""A command of the box's shell, under its name: hands its words to console.py and shows the answer."""
import signal

for number in signal.SIGINT, signal.SIGPIPE:  # before what takes a while
    signal.signal(number, signal.SIG_DFL)

import json  # noqa: E402
import os  # noqa: E402
import socket  # noqa: E402
import sys  # noqa: E402

name = os.path.basename(sys.argv[0])
ask = socket.socket(socket.AF_UNIX)
ask.connect("/run/box/console")
ask.sendall(json.dumps([name, *sys.argv[1:]]).encode() + b"\n")
lines, error = json.load(ask.makefile())
sys.stdout.write("".join(line + "\n" for line in lines))
if error:
    sys.exit(f"{name}: {error}")

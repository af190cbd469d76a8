#!/usr/bin/env python3
"""Runs the README's program on a pseudo-terminal, and is its partner there: partner.py COMMAND...

The device is added to the command. Ends with status 0 when the program sends its message, acknowledges and prints the
one that it gets, and ends when Enter is pressed.
"""

import os
import select
import subprocess
import sys
import time

PATIENCE_SEC = 60

MESSAGE_7 = bytes.fromhex("ff81 0700 0300 0040 f73d 0100 0200 0300 faff")
ACK_7 = bytes.fromhex("ff81 0700 0000 0088 faf5")
MESSAGE_9 = bytes.fromhex("ff81 0900 0000 0040 f83d")
ACK_9 = bytes.fromhex("ff81 0900 0000 0088 f8f5")


def read_from(descriptor, enough):
    """What comes until it is enough, or the patience is over."""
    deadline = time.monotonic() + PATIENCE_SEC
    result = b""
    while not enough(result):
        left = deadline - time.monotonic()
        if left <= 0 or not select.select([descriptor], [], [], left)[0]:
            break
        chunk = os.read(descriptor, 1)
        if not chunk:
            break
        result += chunk
    return result


def expect(what, actual, expected):
    if actual != expected:
        sys.exit(f"{what}: expected {expected!r}, got {actual!r}")
    print(f"{what}: {actual!r}")


def read_frame(line, frame):
    return read_from(line, lambda read: len(read) == len(frame))


def talk(line, program):
    expect("its message", read_frame(line, MESSAGE_7), MESSAGE_7)
    os.write(line, ACK_7)
    os.write(line, MESSAGE_9)
    expect("its acknowledgement", read_frame(line, ACK_9), ACK_9)
    printed = read_from(program.stdout.fileno(), lambda read: read.endswith(b"\n"))
    expect("its line", printed, b"message 9, 0 words\n")
    rest, _ = program.communicate(b"\n", timeout=PATIENCE_SEC)
    expect("the rest", rest, b"")
    expect("its status", program.returncode, 0)


def main():
    line, device = os.openpty()
    command = sys.argv[1:] + [os.ttyname(device)]
    # The device stays open here, so that the line lives before the program opens it.
    with subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE) as program:
        try:
            talk(line, program)
        finally:
            program.kill()


main()

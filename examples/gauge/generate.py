#!/usr/bin/env python3
"""Writes the recording: a gauge whose level rises and falls, with lines lost and garbled on the way."""

import math
import pathlib


def line(sequence):
    angle = sequence / 5
    level, temperature = 12.5 + 2.5 * math.sin(angle), 21.3 + math.cos(angle)
    return f"LEVEL {level:.2f} TEMP {temperature:.1f} SEQ {sequence}\r\n".encode()


def log():
    yield line(7)[9:]  # joined in the middle of a line
    yield from (line(n) for n in range(8, 20))
    yield from (line(n) for n in range(22, 30))
    yield b"LEVEL 13.3\xff TE" + line(31)
    yield b"\r\n" + b"?" * 100 + b"\r\n"
    yield line(32)
    yield line(0)  # the gauge was switched off and on
    yield line(1)


if __name__ == "__main__":
    tests = pathlib.Path(__file__).parent / "gauge.tests"
    (tests / "recording.txt").write_bytes(b"".join(log()))

#!/usr/bin/env python3
"""Writes the recording: what a scale answers while a load is put on it, tared, lifted, dropped."""

import pathlib


def answer(weight, header="ST", mode="GS", unit="kg"):
    sign = "-" if weight < 0 else "+"
    return f"{header},{mode},{sign}{abs(weight):8.3f}{unit}\r\n".encode()


def log():
    yield answer(0)
    for weight in (3.2, 9.875, 13.02):
        yield answer(weight, "US")
    yield answer(12.345)
    yield answer(0, mode="NT")
    yield answer(-12.345, "US", "NT")
    yield answer(-0.005, mode="NT")
    yield answer(1234.567)
    yield b"OL,GS,+99999999  \r\n"
    yield b"?\r\n"
    yield b"ST;GS;+   1.000kg\r\n"
    yield answer(27.216, unit="lb")


if __name__ == "__main__":
    tests = pathlib.Path(__file__).parent / "scale.tests"
    (tests / "recording.txt").write_bytes(b"".join(log()))

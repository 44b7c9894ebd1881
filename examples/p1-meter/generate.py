#!/usr/bin/env python3
"""Writes the recording: telegrams of a three-phase meter, some of them damaged on the way."""

import pathlib


def crc16(data):
    crc = 0
    for byte in data:
        crc ^= byte
        for _ in range(8):
            crc = (crc >> 1) ^ (0xA001 if crc & 1 else 0)
    return crc


def telegram(second, gas=True):
    power = 378 + 211 * second
    lines = [
        "/KVL5EXAMPLE-METER",
        "",
        "1-3:0.2.8(50)",
        f"0-0:1.0.0(2603241505{second:02d}W)",
        "0-0:96.1.1(4530303030303030303030303030303031)",
        f"1-0:1.8.1({(3432827 + second) / 1000:010.3f}*kWh)",
        f"1-0:1.8.2({3224.632:010.3f}*kWh)",
        f"1-0:2.8.1({(120045 + 7 * second) / 1000:010.3f}*kWh)",
        f"1-0:2.8.2({999999.999:010.3f}*kWh)",
        "0-0:96.14.0(0001)",
        f"1-0:1.7.0({power / 1000:06.3f}*kW)",
        f"1-0:2.7.0({second / 1000:06.3f}*kW)",
        "0-0:96.7.21(00005)",
        "0-0:96.7.9(00003)",
        "1-0:99.97.0(1)(0-0:96.7.19)(180417201458S)(0000000236*s)",
    ]
    for phase in (32, 52, 72):
        lines += [f"1-0:{phase}.32.0(00001)", f"1-0:{phase}.36.0(00002)"]
    lines.append("0-0:96.13.0()")
    for phase, volts in ((32, 237.1), (52, 235.1), (72, 236.1)):
        lines.append(f"1-0:{phase}.7.0({volts + second / 10:05.1f}*V)")
    for phase in (31, 51, 71):
        lines.append(f"1-0:{phase}.7.0({phase % 10 + second:03d}*A)")
    for phase in (21, 41, 61, 22, 42, 62):
        lines.append(f"1-0:{phase}.7.0({power / 3000:06.3f}*kW)")
    if gas:
        lines += ["0-1:24.1.0(003)", "0-1:96.1.0(4730303030303030303030303030303031)"]
        lines.append(f"0-1:24.2.1(260324150000W)({123.456 + second:09.3f}*m3)")
    body = "\r\n".join(lines + ["!"]).encode()
    return body + f"{crc16(body):04X}\r\n".encode()


def log():
    yield telegram(0)[300:]  # the recording starts inside a telegram
    yield telegram(1)
    yield telegram(2).replace(b"(003224.632", b"(003224.633")  # a digit changed
    yield telegram(3)[:500]  # its end was lost
    yield telegram(4, gas=False)
    yield telegram(5)[:-4] + b"G!\r\n"  # no hexadecimal digit
    yield b"\xff\x80 noise \xfe\r\n"
    yield telegram(6)
    yield telegram(7)[:-3]  # the recording ends inside the CRC


if __name__ == "__main__":
    tests = pathlib.Path(__file__).parent / "p1-meter.tests"
    (tests / "recording.p1").write_bytes(b"".join(log()))

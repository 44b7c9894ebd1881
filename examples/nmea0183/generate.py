#!/usr/bin/env python3
"""Writes the recording: a boat sails across the equator and the prime meridian."""

import pathlib


def sentence(body):
    total = 0
    for byte in body.encode("latin-1"):
        total ^= byte
    return f"${body}*{total:02X}\r\n".encode("latin-1")


def coordinate(degrees, width, letters):
    letter = letters[degrees < 0]
    minutes = round(abs(degrees) * 60 * 10000)
    whole, rest = divmod(minutes, 60 * 10000)
    return f"{whole:0{width}d}{rest // 10000:02d}.{rest % 10000:04d},{letter}"


def position(step):
    latitude = 0.021 - step * 0.00731
    longitude = -0.0333 + step * 0.0127
    return coordinate(latitude, 2, "NS") + "," + coordinate(longitude, 3, "EW")


def log():
    for step in range(8):
        time = f"1200{step:02d}.00"
        yield sentence(f"GPGGA,{time},{position(step)},1,09,0.9,12.4,M,17.2,M,,")
        yield sentence("GPGSV,2,1,08,05,67,101,47,13,44,250,41,15,23,057,36,21,08,310,")
        yield sentence(f"GPRMC,{time},A,{position(step + 0.25)},6.31,141.5,230826,,,A")
        yield sentence(f"IIGLL,{position(step + 0.5)},{time},A,A")
        yield sentence(f"SDDBT,{(10 + step) * 3.2808:.1f},f,{10 + step:.1f},M,{(10 + step) * 0.5468:.1f},F")
        if step == 2:
            yield b"$GPGGA,120002.50,0000.3840,N,0000\xff\x80\x81"  # cut off by noise
            yield b"!AIVDM,1,1,,A,15Muq?002>G?svP00<0,0*53\r\n"  # no sentence of ours
        if step == 3:
            good = sentence("SDDBT,324.8,f,99.0,M,54.1,F")
            yield good.replace(b"99.0", b"98.0")  # one bit less, same checksum
            yield b"$SDDBT,324.8,f,99.0,M,54.1,F\r\n"  # no checksum
            yield b"$SDDBT,324.8,f,99.0,M,54.1,F*2:\r\n"  # no hexadecimal digit
        if step == 5:
            yield sentence(f"GPGGA,{time},,,,,0,00,,,M,,M,,")  # no fix
            yield sentence(f"GPRMC,{time},V,,,,,,,230826,,,N")
            yield sentence("SDDBT,,f,,M,,F")  # no bottom
        if step == 6:
            yield sentence("GPTXT,01,01,02,M\xe4rz, a field longer than any slot has room for")
    yield sentence("SDDBT,65.6,f,20.0,M,10.9,F")[:17]  # the recording ends here


if __name__ == "__main__":
    tests = pathlib.Path(__file__).parent / "nmea0183.tests"
    (tests / "recording.nmea").write_bytes(b"".join(log()))

#!/usr/bin/env python3
"""Follows one live value of kvl and prints it each time it is written.

    table_reader.py [--library FILE] [--count N] [--timeout MS] TABLE TAG
"""
import argparse
import ctypes
import ctypes.util
import sys
import time

OK, TIMEOUT, TYPE_TEXT = 0, 258, 4
SLICE_MS = 500  # of a wait; Ctrl-C is heard between two, since Python is deaf within a call to C


class Table:
    """One open table; its tags are read by name."""

    def __init__(self, library, name):
        self.kvl = ctypes.CDLL(library)
        self.kvl.kvl_error_text.restype = ctypes.c_char_p
        self.kvl.kvl_table_close.restype = None
        self.kvl.kvl_table_close.argtypes = [ctypes.c_void_p]
        self.handle = ctypes.c_void_p()
        self.check(self.kvl.kvl_table_open(name.encode(), ctypes.byref(self.handle)), name)

    def check(self, code, what):
        if code != OK:
            raise OSError(code, f"{what}: {self.kvl.kvl_error_text(code).decode()}")

    def tag(self, name):
        tag = ctypes.c_void_p()
        self.check(self.kvl.kvl_table_tag(self.handle, name.encode(), ctypes.byref(tag)), name)
        return tag

    def wait(self, tag, timeout_ms):
        """Until the next value; below 0 is no limit."""
        end = time.monotonic() + timeout_ms / 1000
        code = TIMEOUT
        while code == TIMEOUT:
            left_ms = round((end - time.monotonic()) * 1000)
            last = 0 <= timeout_ms and left_ms <= SLICE_MS
            code = self.kvl.kvl_tag_wait(tag, max(left_ms, 0) if last else SLICE_MS)
            if last:
                break
        self.check(code, "waiting")

    def read(self, tag):
        kind, size = ctypes.c_int(), ctypes.c_size_t()
        self.check(self.kvl.kvl_tag_info(tag, ctypes.byref(kind), ctypes.byref(size)), "reading")
        if kind.value == TYPE_TEXT:
            # A byte of the tag takes up to three in UTF-8.
            text = ctypes.create_string_buffer(3 * size.value + 1)
            self.check(self.kvl.kvl_tag_read_text(tag, text, ctypes.c_size_t(len(text))), "reading")
            return text.value.decode()
        number = ctypes.c_double()
        self.check(self.kvl.kvl_tag_read_number(tag, ctypes.byref(number)), "reading")
        return f"{number.value:g}"

    def close(self):
        self.kvl.kvl_table_close(self.handle)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("table")
    parser.add_argument("tag")
    parser.add_argument("--library", default=ctypes.util.find_library("kvl"))
    parser.add_argument("--count", type=int, default=-1, help="end after so many values")
    parser.add_argument("--timeout", type=int, default=-1, help="milliseconds without a value")
    options = parser.parse_args()
    try:
        table = Table(options.library, options.table)
        try:
            tag = table.tag(options.tag)
            while options.count != 0:
                table.wait(tag, options.timeout)
                print(options.tag, table.read(tag), flush=True)
                options.count -= 1
        finally:
            table.close()
    except OSError as error:
        sys.exit(f"table_reader.py: {error.strerror}")
    except KeyboardInterrupt:
        pass


if __name__ == "__main__":
    main()

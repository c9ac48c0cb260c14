#!/usr/bin/env python3
"""Writes the seed corpus of fuzz_misc_get: real exchanges with the driver,
in the input layout described at the top of fuzz_misc_get.cpp. Run from the
repository root; the seeds are committed, so CI does not need this."""
import os
import struct

OK, SHORT = 1024, 1038
out = os.path.join(os.path.dirname(__file__), "corpus", "fuzz_misc_get")
os.makedirs(out, exist_ok=True)


def nums(status, data_len, need_len, record, data=b""):
    return struct.pack("<IIIHH", status, data_len, need_len, record, len(data)) + data


def rounds(*rs):
    b = struct.pack("<B", len(rs))
    for kind, status, data_len, need_len, data in rs:
        b += struct.pack("<BIIIH", kind, status, data_len, need_len, len(data)) + data
    return b


def events(*es):
    b = struct.pack("<B", len(es))
    for req, ret, status, text in es:
        b += struct.pack("<BbIH", req, ret, status, len(text)) + text
    return b


def tail(start_ret=0, ctrl_len=31, ctrl_text=b"8:32"):
    return struct.pack("<bHB", start_ret, ctrl_len, len(ctrl_text)) + ctrl_text


LIST = b"8:32 8:48 259:2"
BIG = b" ".join(b"8:%d" % i for i in range(0, 1200, 16))[:4000]
seeds = {
    "get-list": nums(OK, len(LIST), 0, 1024, LIST) + rounds((1, OK, len(LIST), len(LIST), LIST)) + events() + tail(),
    "get-empty-list": nums(OK, 0, 0, 1024) + rounds((1, OK, 0, 0, b"")) + events() + tail(),
    "get-buffer-short-then-list": nums(OK, len(BIG), 0, 4001, BIG)
    + rounds((1, SHORT, 0, len(BIG), b""), (1, OK, len(BIG), len(BIG), BIG)) + events() + tail(),
    "get-ioctl-fails": nums(SHORT, 0, 4000, 16) + rounds((0, 0, 0, 0, b"")) + events() + tail(-1),
    "get-datalen-beyond-record": nums(OK, 5000, 0, 100, LIST) + rounds((1, OK, 1028, 0, LIST)) + events() + tail(),
    "get-needlen-above-limit": nums(1030, 0, 0, 16) + rounds((1, SHORT, 0, 0x7FFFFFFF, b"")) + events() + tail(),
    # Record sizes below 16 (the header): 0x8000 | size.
    "reply-block-shorter-than-header": nums(OK, 4, 0, 0x8008) + rounds() + events() + tail(),
    "events-add-remove-change": nums(OK, 0, 0, 16) + rounds()
    + events((0, 0, 1061, b"8:32 scsi QUILLMSH QM-ARRAY 2:0:1:3"), (1, 0, 1055, b"8:32"), (2, -1, 0, b"8:32"),
             (0, 0, 1052, b"259:2 nvme QUILLMSH QMNVME 3:0:2:2"), (1, 0, 1056, b"259:2"))
    + tail(0, 1023, b""),
}
for name, data in seeds.items():
    with open(os.path.join(out, name), "wb") as f:
        f.write(data)

#!/usr/bin/env python3
"""Writes one test archive for tst_unzipinplace: make_zip.py CASE OUTPUT.zip [ABSOLUTE-PATH]

Hostile archives are built with zipfile and, where zipfile refuses, by patching bytes."""
import stat
import sys
import zipfile


def entry(name, mode=None, is_dir=False):
    info = zipfile.ZipInfo(name, date_time=(2024, 5, 17, 12, 30, 0))
    info.create_system = 3  # Unix, so external_attr carries the mode
    if mode is None:
        mode = (stat.S_IFDIR | 0o755) if is_dir else (stat.S_IFREG | 0o644)
    info.external_attr = mode << 16
    if is_dir:
        info.external_attr |= 0x10
    return info


def write(path, entries, compression=zipfile.ZIP_STORED):
    """entries: list of (ZipInfo or name, bytes or None for a folder)."""
    with zipfile.ZipFile(path, "w", compression) as z:
        for info, data in entries:
            if isinstance(info, str):
                info = entry(info, is_dir=data is None)
            info.compress_type = compression
            z.writestr(info, b"" if data is None else data)


def patch_name(path, old, new):
    """Rewrites an entry name in the local header and central directory (same length)."""
    assert len(old) == len(new)
    raw = open(path, "rb").read()
    assert raw.count(old) == 2, raw.count(old)
    open(path, "wb").write(raw.replace(old, new))


NESTED = [
    ("Photos/", None),
    ("Photos/2024/", None),
    ("Photos/2024/beach.jpg", bytes(range(256)) * 40),
    ("Photos/readme.txt", b"hello\n"),
    ("Photos/empty.bin", b""),
    ("notes.md", b"# Notes\n" * 100),
]

LINK = stat.S_IFLNK | 0o777

# Stored archives written as listed.
STORED = {
    "stored": [("a.txt", b"stored bytes\n"), ("sub/b.txt", b"more\n")],
    "doubled": [("Trip/", None), ("Trip/day1.txt", b"sunny\n"),  # Trip.zip -> Trip/...
                ("Trip/maps/", None), ("Trip/maps/route.gpx", b"<gpx/>\n")],
    "notdoubled": [("Other/", None), ("Other/x.txt", b"x\n")],
    "lonefile": [("Trip", b"just a file\n")],  # Trip.zip -> Trip/Trip, a file, not a folder
    "unicode": [("bé ✓.bin", b"\x00\x01\x02unicode"), ("dossier été/ü.txt", b"u\n")],
    "macos": [("Trip/", None), ("Trip/a.txt", b"a\n"), ("__MACOSX/", None),
              ("__MACOSX/Trip/._a.txt", b"\x00\x05\x16\x07junk"),
              ("Trip/._a.txt", b"\x00\x05\x16\x07junk")],
    "traversal": [("ok.txt", b"ok\n"), ("../x", b"escaped\n")],
    "traversal-inner": [("a/", None), ("a/../../x", b"escaped\n")],
    "dotdir": [("a/./b.txt", b"dot\n")],
    "symlink-out": [("ok.txt", b"ok\n"), (entry("link", LINK), b"../outside")],
    "symlink-abs": [(entry("link", LINK), b"/etc")],
    "symlink-through": [(entry("dir", LINK), b".."), ("dir/through.txt", b"escaped\n")],
    "fifo": [("ok.txt", b"ok\n"), (entry("pipe", stat.S_IFIFO | 0o644), b"")],
    "device": [(entry("tty", stat.S_IFCHR | 0o666), b"")],
    "socket": [(entry("sock", stat.S_IFSOCK | 0o644), b"")],
    "duplicate": [("same.txt", b"first\n"), ("same.txt", b"second, hostile\n")],
    # The same name composed and decomposed: distinct on Linux, one name once read back.
    "duplicate-composed": [("\u1e8e.txt", b"composed\n"), ("Y\u0307.txt", b"decomposed\n")],
    "file-then-folder": [("thing", b"file\n"), ("thing/inner.txt", b"inner\n")],
    "setuid": [(entry("tool", stat.S_IFREG | 0o6777), b"#!/bin/sh\n"),
               (entry("shared/", stat.S_IFDIR | 0o1777, is_dir=True), None)],
    "long-name": [("n" * 300 + ".txt", b"long\n")],
    "controls": [("bill\x1b]0;pwned\x07\u202etxt.exe", b"x\n")],
}


def main():
    case, out = sys.argv[1], sys.argv[2]
    if case in STORED:
        write(out, STORED[case])
    elif case == "nested":
        write(out, NESTED, zipfile.ZIP_DEFLATED)
    elif case == "bomb":
        write(out, [("zeros.bin", bytes(8 * 1024 * 1024))], zipfile.ZIP_DEFLATED)
    elif case == "bomb-many":  # each entry small, the sum over budget
        write(out, [(f"part{i}.bin", bytes(256 * 1024)) for i in range(16)],
              zipfile.ZIP_DEFLATED)
    elif case == "absolute":
        target = sys.argv[3].encode()  # an absolute path the test watches
        write(out, [("ok.txt", b"ok\n"), ("X" * len(target), b"escaped\n")])
        patch_name(out, b"X" * len(target), target)
    elif case == "nul-name":
        write(out, [("nulXhidden.txt", b"hidden\n")])
        patch_name(out, b"nulXhidden.txt", b"nul\x00hidden.txt")
    elif case == "big-stored":  # 256 KiB that does not compress, stored
        write(out, [("big.bin", bytes((i * 7919 + i // 251) % 256 for i in range(256 * 1024)))])
    elif case == "declared-size":  # no central directory; an entry declares far more bytes
        import base64
        open(out, "wb").write(base64.b64decode(
            "UEsDBBQAAAAAAMBjsVgAAAAAAAAAAAAALi4vAAAAVHJpcC9QSwMEFAAAAAAAwGOxWMj83ooGAAAABgAAAA0AAABU"
            "cmlwL2RheTEuFAMUAAAQAO1BVAAAAFRyaXAvbWFwcy9QSwECFAMUAAAAAADAY7FYuLQGIgcAAAAHAAAAEwAAAAAA"
            "AAAAAAAApIF8AAAAVHJpcC9tYXBzL3JvdXRlLgAApIEAAAAAYS50eHRQSwECFAMUAAAAAAA="))
    elif case == "bad-crc":  # the stored bytes changed after the CRC was written
        write(out, [("a.txt", b"stored bytes\n")])
        raw = open(out, "rb").read()
        assert raw.count(b"stored bytes") == 1
        open(out, "wb").write(raw.replace(b"stored bytes", b"stOred bytes"))
    elif case == "not-a-zip":
        with open(out, "wb") as f:
            f.write(b"this is not an archive at all\n" * 10)
    elif case == "truncated":
        write(out, NESTED)
        raw = open(out, "rb").read()
        open(out, "wb").write(raw[: len(raw) // 2])
    else:
        sys.exit("unknown case " + case)


if __name__ == "__main__":
    main()

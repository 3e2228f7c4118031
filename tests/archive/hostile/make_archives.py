#!/usr/bin/env python3
"""Writes the archives of this folder: small backups that are hostile, damaged or merely unusual,
each kept for one way a reader can go wrong. The tests run every one of them through `corvelstow
list`, `verify`, `cat` and `restore`; the fuzzer starts from them too.

    python3 tests/archive/hostile/make_archives.py [FOLDER]

The records are written here byte by byte, so that each archive can say what no honest writer
would. The output is the same on every run: fixed dates, no randomness.
"""
import json
import os
import struct
import sys
import zlib

LOCAL, CENTRAL, END = 0x04034B50, 0x02014B50, 0x06054B50
ZIP64_END, ZIP64_LOCATOR = 0x06064B50, 0x07064B50
DOS_TIME, DOS_DATE = 0x4BC5, 0x58A1  # 2024-05-01 09:30:10
UNIX, MSDOS, NTFS = 0x031E, 0x0014, 0x0A3F  # "version made by": Unix 3.0, MS-DOS 2.0, NTFS 6.3
DOS_FOLDER = 0x10  # the MS-DOS attribute of a folder
UTF8, ENCRYPTED = 1 << 11, 1 << 0
DOCUMENTS = b"container/Documents/"
SHOPPING = b"milk, eggs, bread\n"


class Entry:
    """One entry: the bytes that stand in the archive and what its records declare."""

    def __init__(self, name, data, method, crc, size, flags=UTF8, made_by=UNIX, extra=b"",
                 local_extra=b"", attributes=None):
        self.name, self.data, self.method = name, data, method
        self.crc, self.size, self.compressed = crc, size, len(data)
        self.flags, self.made_by, self.extra, self.local_extra = flags, made_by, extra, local_extra
        if attributes is None:
            attributes = 0x41ED0000 if name.endswith(b"/") else 0x81A40000
        self.attributes = attributes
        self.is_folder = name.endswith(b"/") or attributes == DOS_FOLDER


def raw_deflate(content, finish=True):
    compressor = zlib.compressobj(9, zlib.DEFLATED, -15)
    return compressor.compress(content) + compressor.flush(zlib.Z_FINISH if finish else
                                                           zlib.Z_SYNC_FLUSH)


def stored(name, content, **fields):
    return Entry(name, content, 0, zlib.crc32(content), len(content), **fields)


def deflated(name, content, **fields):
    return Entry(name, raw_deflate(content), 8, zlib.crc32(content), len(content), **fields)


def folder(name, **fields):
    return stored(name, b"", **fields)


def manifest(entries):
    files = [e for e in entries if e.name.startswith(b"container/") and not e.is_folder]
    text = json.dumps({"schemaVersion": 1, "bundleIdentifier": "com.example.notes",
                       "appName": "Notes", "createdAt": "2024-05-01T09:30:00Z",
                       "includedPaths": ["Documents", "Library"], "fileCount": len(files),
                       "totalBytes": sum(e.size for e in files)})
    return stored(b"manifest.json", text.encode())


def backup(*entries):
    """A backup holding `entries`: the manifest, the container's folders, then the entries."""
    return [manifest(entries), folder(b"container/"), folder(DOCUMENTS), *entries]


def archive(entries, records=None, count=None, front=b"", tail=b""):
    """The bytes of an archive. `records` lists (entry, index of the local entry it points at)
    for the central directory, one per entry by default; `count` overrides the end record's."""
    body, offsets = bytearray(), []
    for e in entries:
        offsets.append(len(body))
        body += struct.pack("<IHHHHHIIIHH", LOCAL, 20, e.flags, e.method, DOS_TIME, DOS_DATE,
                            e.crc, e.compressed, e.size, len(e.name), len(e.local_extra))
        body += e.name + e.local_extra + e.data
    directory = bytearray()
    for e, index in records or [(e, i) for i, e in enumerate(entries)]:
        directory += struct.pack("<IHHHHHHIIIHHHHHII", CENTRAL, e.made_by, 20, e.flags, e.method,
                                 DOS_TIME, DOS_DATE, e.crc, e.compressed, e.size, len(e.name),
                                 len(e.extra), 0, 0, 0, e.attributes, offsets[index])
        directory += e.name + e.extra
    n = len(records or entries) if count is None else count
    end = struct.pack("<IHHHHIIH", END, 0, 0, n, n, len(directory), len(body), 0)
    return front + bytes(body + directory + end) + tail


def unicode_path(name, utf8, crc_of=None):
    """An Info-ZIP Unicode Path extra field giving `utf8` for a name stored as `name`."""
    data = struct.pack("<BI", 1, zlib.crc32(name if crc_of is None else crc_of)) + utf8
    return struct.pack("<HH", 0x7075, len(data)) + data


def empty_end(offset=0, comment=b""):
    return struct.pack("<IHHHHIIH", END, 0, 0, 0, 0, 0, offset, len(comment)) + comment


def cases():
    shopping = deflated(DOCUMENTS + b"Notes/shopping.txt", SHOPPING)
    notes = [folder(DOCUMENTS + b"Notes/"), shopping]
    zeros = bytes(16 << 20)

    # Declared sizes: a bomb declared as 1,000 bytes with the CRC of all 16 MiB it unpacks to;
    # data that ends short of its declared size; stored sizes that differ; a DEFLATE stream
    # whose final block never comes; four directory records sharing one local entry.
    bomb = Entry(DOCUMENTS + b"bomb.bin", raw_deflate(zeros), 8, zlib.crc32(zeros), 1000)
    yield "declared-too-small.zip", archive(backup(*notes, bomb))
    short = deflated(DOCUMENTS + b"short.txt", SHOPPING)
    short.size += 1
    yield "declared-too-large.zip", archive(backup(*notes, short))
    uneven = stored(DOCUMENTS + b"uneven.txt", b"abcd")
    uneven.size = 3
    yield "stored-sizes-differ.zip", archive(backup(*notes, uneven))
    unended = Entry(DOCUMENTS + b"unended.txt", raw_deflate(SHOPPING, finish=False), 8,
                    zlib.crc32(SHOPPING), len(SHOPPING))
    yield "deflate-without-end.zip", archive(backup(*notes, unended))
    entries = backup(*notes, deflated(DOCUMENTS + b"big0.bin", zeros))
    shared = [(e, i) for i, e in enumerate(entries)]
    for copy in range(1, 4):
        twin = deflated(DOCUMENTS + b"big%d.bin" % copy, zeros)
        shared.append((twin, len(entries) - 1))
    yield "overlapping-entries.zip", archive(entries, shared)
    # A local header whose extra field claims the bytes up to the next entry's data, so that
    # those become its data too.
    first, second = (stored(DOCUMENTS + name, SHOPPING) for name in (b"a.txt", b"b.txt"))
    body = archive(backup(*notes, first, second))
    field = body.index(first.name) - 2  # the local extra length stands right before the name
    claimed = len(SHOPPING) + 30 + len(second.name)  # its data, then the next header and name
    yield "local-data-overlaps.zip", body[:field] + struct.pack("<H", claimed) + body[field + 2:]

    # Data in front of the archive, its offsets left as they were: a self-extracting stub.
    stub = b"#!/bin/sh\necho 'This is a self-extracting archive.'\nexit 0\n" + b"\0" * 100
    yield "data-in-front.zip", archive(backup(*notes), front=stub)

    # Names. Without the UTF-8 flag: code page 437 from an MS-DOS tool, every byte a character
    # of its own; the UTF-8 name of a Unicode Path field, unless the field is stale; and the
    # bytes a Unix tool stored, Latin-1 here, which come back as they were.
    dos = [stored(DOCUMENTS + b"Notes/" + bytes([0x80 + 16 * i, 0x81 + 16 * i]) + b".txt",
                  b"%d" % i, flags=0, made_by=MSDOS) for i in range(8)]
    dos.append(stored(DOCUMENTS + b"r\x82sum\x82.txt", b"resume", flags=0, made_by=MSDOS))
    yield "cp437-names.zip", archive(backup(folder(DOCUMENTS + b"Notes/"), *dos))
    cafe = DOCUMENTS + b"caf\x82.txt"
    yield "unicode-path-field.zip", archive(backup(
        stored(cafe, b"fresh", flags=0, made_by=MSDOS,
               extra=unicode_path(cafe, b"", crc_of=b"older") +
               unicode_path(cafe, "container/Documents/Café.txt".encode())),
        stored(DOCUMENTS + b"na\x8bve.txt", b"stale", flags=0, made_by=MSDOS,
               extra=unicode_path(b"renamed since", "container/Documents/wrong.txt".encode()))))
    yield "unix-names.zip", archive(backup(
        stored(DOCUMENTS + b"r\xe9sum\xe9.txt", b"acute", flags=0),
        stored(DOCUMENTS + b"r\xe8sum\xe8.txt", b"grave", flags=0)))
    # Flagged UTF-8 but not: both names read as the same string of U+FFFD.
    yield "utf8-flag-bad-bytes.zip", archive(backup(
        stored(DOCUMENTS + b"\xff.txt", b"one"), stored(DOCUMENTS + b"\xfe.txt", b"two")))

    # Names without the UTF-8 flag that are UTF-8, as Info-ZIP's zip and the Finder store them,
    # also from a tool that says it ran on MS-DOS; a flagged name whose Unicode Path field is
    # current, which wins as it does unflagged.
    yield "utf8-unflagged.zip", archive(backup(
        stored("container/Documents/Café.txt".encode(), b"cafe", flags=0, made_by=MSDOS),
        stored("container/Documents/Ünïcödé/日本語 ✓.txt".encode(), b"nihongo", flags=0),
        stored(DOCUMENTS + b"old.txt", b"renamed", extra=unicode_path(DOCUMENTS + b"old.txt",
                                                                    DOCUMENTS + b"new.txt"))))

    # Folders: one marked only by its MS-DOS attribute, one from Windows whose Unicode Path field
    # ends in a backslash, and one that declares a size but holds no data, as some tools write.
    ae = DOCUMENTS + b"\x84/"  # "ä/" in code page 437
    yield "folder-marks.zip", archive(backup(
        folder(DOCUMENTS + b"def", flags=0, made_by=MSDOS, attributes=DOS_FOLDER),
        stored(DOCUMENTS + b"def/x.txt", b"x", flags=0, made_by=MSDOS),
        folder(ae, flags=0, made_by=NTFS, attributes=DOS_FOLDER,
               extra=unicode_path(ae, "container/Documents/ä\\".encode())),
        Entry(DOCUMENTS + b"sized/", b"", 0, 0, 68)))

    # A backslash: a character like any other in a name from Unix or macOS, as in our own
    # backups; a way out in one from Windows, where it separates folders.
    yield "unix-backslash.zip", archive(backup(stored(DOCUMENTS + b"with\\backslash", b"unix")))
    yield "dos-backslash.zip", archive(backup(
        stored(DOCUMENTS + b"a\\..\\..\\x", b"dos", flags=0, made_by=MSDOS)))

    # Names that would land on one file: twice the same, a file where a folder is, and a NUL
    # that would cut the name short.
    yield "duplicate-names.zip", archive(backup(
        *notes, deflated(DOCUMENTS + b"Notes/shopping.txt", b"overwritten\n")))
    yield "file-and-folder.zip", archive(backup(
        stored(DOCUMENTS + b"Notes", b"a file"), *notes))
    yield "nul-in-name.zip", archive(backup(
        *notes, stored(DOCUMENTS + b"Notes/shopping.txt\0evil.exe", b"MZ")))
    # Control characters, which the listing shows escaped.
    yield "control-names.zip", archive(backup(
        stored(DOCUMENTS + b"line\nbreak\t\x1b[2J.txt", b"two lines"),
        stored(b'"quoted"', b"quoted")))
    # A size of 2^62 bytes from a few bytes of data: no volume could hold it, and no data give it.
    huge = deflated(DOCUMENTS + b"huge.bin", SHOPPING,
                    extra=struct.pack("<HHQ", 0x0001, 8, 1 << 62))
    huge.size = 0xFFFFFFFF
    yield "zip64-size-impossible.zip", archive(backup(*notes, huge))

    # End records and directories that do not hold together.
    junk = bytes(range(256)) * 2
    yield "empty-end-then-junk.zip", junk[:100] + empty_end(offset=100) + junk[:40]
    yield "empty-end-bogus-offset.zip", junk[:100] + empty_end(offset=5000)
    locator = struct.pack("<IIQI", ZIP64_LOCATOR, 0, 65536, 1)
    yield "zip64-locator-to-nowhere.zip", locator + empty_end()
    zip64_end = struct.pack("<IQHHIIQQQQ", ZIP64_END, 44, UNIX, 45, 0, 0, 0, 0, 0, 0)
    apart = zip64_end + junk[:22] + struct.pack("<IIQI", ZIP64_LOCATOR, 0, 0, 1)
    yield "zip64-end-apart.zip", apart + empty_end()
    entries = backup(*notes)
    yield "count-too-low.zip", archive(entries, count=len(entries) - 1)
    yield "count-too-high.zip", archive(entries, count=len(entries) + 1)
    body = archive(entries)
    yield "gap-before-end.zip", body[:-22] + b"\0" * 16 + body[-22:]
    # A comment that holds a copy of the end record: the copy, nearest the end, places the
    # directory where it is not; the end record before it holds together.
    end = body[-22:-2] + struct.pack("<H", 22)
    yield "end-record-in-comment.zip", body[:-22] + end + end

    # Encrypted: the header says so, whatever the bytes are.
    secret = stored(DOCUMENTS + b"Notes/secret.txt", b"\x8f\x12\x9a\x77" * 8, flags=UTF8 | ENCRYPTED)
    yield "encrypted.zip", archive(backup(*notes, secret))


def main():
    target = sys.argv[1] if len(sys.argv) > 1 else os.path.dirname(os.path.abspath(__file__))
    for name, data in cases():
        with open(os.path.join(target, name), "wb") as out:
            out.write(data)


if __name__ == "__main__":
    main()

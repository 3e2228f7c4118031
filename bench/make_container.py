#!/usr/bin/env python3
"""Makes an app data container for the benchmarks, the same bytes every time.

    bench/make_container.py PATH --scale SCALE [--seed N] [--force]

The same scale and seed give byte-identical files, names and modification times, so that two
archives made of it can be compared byte for byte.

  typical     about 280 MB, laid out as an iPhone app's container: Documents with 3,000 files
              of 1-64 KiB (JSON, database pages, opaque blobs) three to five folders deep, a few
              hidden or with names beyond ASCII; Library/Application Support with a 150 MiB
              database and its journal; Library/Caches with 1,000 incompressible files of
              10-200 KiB; Preferences, SplashBoard and Saved Application State.
  many-small  60,000 files of 0-4 KiB in some 400 folders: below the 65,534 entries a classic
              ZIP archive holds, folder entries included.
  one-big     one file of 2 GiB, half random bytes and half database pages.
  huge-count  150,000 files of 0-4 KiB in some 900 folders: past the 65,534 entries a classic
              ZIP archive holds.
  huge-file   one file of 5 GiB, past the 4 GiB a classic ZIP entry holds: zeros (a hole, which
              takes no space) with a run of database pages every 256 MiB.
"""
import argparse
import math
import os
import random
import shutil
import struct
import sys

KIB = 1 << 10
MIB = 1 << 20
PAGE = 4096
BUNDLE = "com.example.notes"
MTIME = 1714555800  # 2024-05-01 09:30:00 UTC, on every file and folder

WORDS = """amber anchor apple atlas basil beacon birch cabin canyon cedar cobalt comet coral
delta dune echo ember fable fern fjord garnet glacier harbor hazel indigo island jade juniper
kettle lagoon lantern maple meadow nectar north oasis olive orbit pebble pepper pine quartz
raven reef river saffron sierra summit tidal timber tundra umber valley velvet willow zephyr
note draft task photo album invoice receipt budget recipe journey project meeting""".split()
# Names as people type them: spaces, accents, other scripts.
HUMAN_NAMES = ["Café notes", "Résumé 2024", "日記", "Über Projekt", "naïve draft", "Año nuevo"]


class Maker:
    """Writes files below one root from one random stream, and counts what it wrote."""

    def __init__(self, root, seed):
        self.root = root
        self.random = random.Random(seed)
        self.files = 0
        self.bytes = 0
        self.rows = None
        self.next_rowid = 1

    # Contents

    def json_text(self, size):
        r = self.random
        parts, length, ident = ['{"items": [\n'], 12, r.randrange(10**6)
        while length < size:
            ident += r.randrange(1, 7)
            part = ('  {"id": %d, "title": "%s %s", "tags": ["%s"], "done": %s, '
                    '"updated": "2024-%02d-%02dT%02d:%02d:00Z", "weight": %.5f},\n'
                    % (ident, r.choice(WORDS), r.choice(WORDS), r.choice(WORDS),
                       "true" if r.random() < 0.4 else "false", r.randint(1, 12),
                       r.randint(1, 28), r.randint(0, 23), r.randint(0, 59), r.random()))
            parts.append(part)
            length += len(part)
        return "".join(parts).encode()[:size]

    def database_pages(self, count):
        """Leaf pages laid out as a database's: a header, cell pointers, free space, then cells
        drawn from a pool of rows, so that the file repeats itself as real tables do."""
        r = self.random
        if self.rows is None:
            self.rows = []
            for _ in range(4096):
                text = " ".join(r.choice(WORDS) for _ in range(r.randint(2, 12))).encode()
                self.rows.append(struct.pack(">qdH", r.randrange(1 << 40), r.random(), len(text))
                                 + text + r.randbytes(r.choice((0, 0, 8, 16))))
        pages = []
        for _ in range(count):
            budget, cells = r.randint(PAGE // 2, PAGE - 64), []
            used = 0
            while True:
                row = r.choice(self.rows)
                cell = struct.pack(">HI", len(row), self.next_rowid) + row
                if used + len(cell) + 2 > budget:
                    break
                cells.append(cell)
                used += len(cell) + 2
                self.next_rowid += 1
            offsets, end = [], PAGE
            for cell in cells:
                end -= len(cell)
                offsets.append(struct.pack(">H", end))
            header = struct.pack(">BHHH", 0x0D, 0, len(cells), end) + b"".join(offsets)
            pages.append(header + bytes(end - len(header)) + b"".join(reversed(cells)))
        return b"".join(pages)

    def database(self, size):
        return self.database_pages(max(1, -(-size // PAGE)))[:size]

    def noise(self, size):
        return self.random.randbytes(size)

    def photo(self, size):
        return (b"\xff\xd8\xff\xe0\x00\x10JFIF\x00" + self.noise(size))[:size]

    def preferences(self, size):
        return (b"bplist00" + self.json_text(size))[:size]

    def document(self, size, json_share=0.4, database_share=0.3):
        """A file of one of three kinds, with a fitting extension."""
        x = self.random.random()
        if x < json_share:
            return self.json_text(size), ".json"
        if x < json_share + database_share:
            return self.database(size), self.random.choice((".sqlite", ".db", ".store"))
        return self.noise(size), self.random.choice((".bin", ".dat", ".heic", ".pdf"))

    def size_between(self, low, high):
        """Uniform on a log scale: many small files, a few large ones."""
        return int(2 ** self.random.uniform(math.log2(low), math.log2(high)))

    # Files

    def write(self, relative, data):
        path = os.path.join(self.root, relative)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as f:
            f.write(data)
        self.files += 1
        self.bytes += len(data)

    def write_pieces(self, relative, pieces):
        path = os.path.join(self.root, relative)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as f:
            for piece in pieces:
                f.write(piece)
                self.bytes += len(piece)
        self.files += 1


def folder_tree(m, top, branches, leaves):
    """`leaves` folders three to five levels below `top`, sharing their upper levels."""
    r = m.random
    folders = set()
    for _ in range(leaves):
        path = os.path.join(top, r.choice(branches))
        for level in range(r.randint(2, 4)):
            if r.random() < 0.05:
                path = os.path.join(path, r.choice(HUMAN_NAMES))
            else:
                path = os.path.join(path, "%s-%d" % (r.choice(WORDS[:30]), r.randint(1, 4 + level)))
        folders.add(path)
    return sorted(folders)


def typical(m):
    r = m.random
    folders = folder_tree(m, "Documents", ["Inbox", "Projects", "Notes", "Media", "Sync",
                                           "Exports", ".sync-state"], 60)
    for i in range(3000):
        data, extension = m.document(m.size_between(1 * KIB, 64 * KIB))
        stem = "%s %s %04d" % (r.choice(WORDS), r.choice(WORDS), i)
        if r.random() < 0.02:
            stem = "%s %04d" % (r.choice(HUMAN_NAMES), i)
        if r.random() < 0.05:
            stem = "." + stem
        m.write(os.path.join(r.choice(folders), stem + extension), data)
    m.write("Documents/.DS_Store", m.noise(6148))

    support = os.path.join("Library/Application Support", BUNDLE)
    m.write_pieces(os.path.join(support, "Store.sqlite"),
                   (m.database_pages(256) for _ in range(150)))  # 1 MiB at a time
    m.write(os.path.join(support, "Store.sqlite-wal"), m.database(4 * MIB))
    m.write(os.path.join(support, "Store.sqlite-shm"), bytes(32 * KIB - 256) + m.noise(256))
    for name in ("config", "accounts", "sync-token", "feature-flags"):
        m.write(os.path.join(support, name + ".json"), m.json_text(r.randint(300, 6000)))
    m.write("Library/Cookies/Cookies.binarycookies", m.noise(2 * KIB))
    for host in ("app", "cdn"):
        m.write("Library/WebKit/WebsiteData/LocalStorage/https_%s.example.com_0.localstorage"
                % host, m.database(24 * KIB))

    for i in range(1000):
        if i < 600:
            name = os.path.join(BUNDLE, "fsCachedData", "%032X" % r.getrandbits(128))
        else:
            name = os.path.join("ImageCache", "%02x" % (i % 32), "%032x.jpg" % r.getrandbits(128))
        m.write(os.path.join("Library/Caches", name), m.photo(m.size_between(10 * KIB, 200 * KIB)))

    for domain in (BUNDLE, BUNDLE + ".analytics", "group." + BUNDLE):
        m.write("Library/Preferences/%s.plist" % domain, m.preferences(r.randint(200, 3000)))
    for _ in range(4):
        m.write("Library/SplashBoard/Snapshots/sceneID:%s-default/%08X@3x.ktx"
                % (BUNDLE, r.getrandbits(32)), m.photo(r.randint(200 * KIB, 800 * KIB)))
    state = "Library/Saved Application State/%s.savedState/" % BUNDLE
    m.write(state + "data.data", m.noise(12 * KIB))
    m.write(state + "windows.plist", m.preferences(900))


def many_small(m, documents=50_000, thumbnails=10_000, batches=5):
    r = m.random

    def small(json_share, database_share):
        if r.random() < 0.03:
            return b"", ".txt"
        return m.document(r.randint(1, 4 * KIB), json_share, database_share)

    leaves = ["Documents/%s/%s/batch-%d" % (WORDS[a], WORDS[30 + b], c)
              for a in range(12) for b in range(4) for c in range(batches)]
    for i in range(documents):
        data, extension = small(0.5, 0.2)
        hidden = "." if r.random() < 0.02 else ""
        m.write("%s/%sitem-%05d%s" % (leaves[i % len(leaves)], hidden, i, extension), data)
    for i in range(thumbnails):
        data, extension = small(0.2, 0.2)
        m.write("Library/Application Support/%s/Thumbs/%02x/t%05d%s"
                % (BUNDLE, i % 100, i, extension), data)
    for domain in (BUNDLE, BUNDLE + ".analytics", "group." + BUNDLE):
        m.write("Library/Preferences/%s.plist" % domain, m.preferences(r.randint(200, 3000)))
    for i in range(200):
        m.write("Library/Caches/%s/c%03d" % (BUNDLE, i), m.photo(r.randint(1, 4 * KIB)))


def one_big(m):
    # Sixteen different 512 KiB runs of pages: DEFLATE looks back 32 KiB only, so repeating them
    # makes the file no more compressible than one run is.
    runs = [m.database_pages(128) for _ in range(16)]
    m.write_pieces("Documents/Exports/library-export.bin",
                   (m.noise(512 * KIB) + m.random.choice(runs) for _ in range(2048)))
    os.makedirs(os.path.join(m.root, "Library"), exist_ok=True)


def huge_count(m):
    many_small(m, documents=125_000, thumbnails=25_000, batches=16)


def huge_file(m):
    path = os.path.join(m.root, "Documents/Offline/region.mbtiles")
    os.makedirs(os.path.dirname(path))
    size = 5 << 30
    runs = [m.database_pages(256) for _ in range(4)]  # 1 MiB each
    with open(path, "wb") as f:
        f.truncate(size)
        for offset in range(0, size, 256 * MIB):
            f.seek(offset)
            f.write(b"".join(runs))
    m.files += 1
    m.bytes += size
    os.makedirs(os.path.join(m.root, "Library"), exist_ok=True)


def stamp_times(root):
    for folder, _, names in os.walk(root, topdown=False):
        for name in names:
            os.utime(os.path.join(folder, name), (MTIME, MTIME))
        os.utime(folder, (MTIME, MTIME))


SCALES = {"typical": typical, "many-small": many_small, "one-big": one_big,
          "huge-count": huge_count, "huge-file": huge_file}


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("path")
    parser.add_argument("--scale", required=True, choices=SCALES)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--force", action="store_true", help="replace PATH when it exists")
    args = parser.parse_args()

    if os.path.lexists(args.path):
        if not args.force:
            sys.exit("%s exists; --force replaces it" % args.path)
        shutil.rmtree(args.path)
    os.umask(0o022)
    root = os.path.abspath(args.path)
    for top in ("Documents", "Library"):
        os.makedirs(os.path.join(root, top))
    # Each scale draws from its own stream: a change to one leaves the others as they were.
    maker = Maker(root, "%s/%d" % (args.scale, args.seed))
    SCALES[args.scale](maker)
    stamp_times(root)
    print("%s: %d files, %d bytes (%.1f MiB)"
          % (args.path, maker.files, maker.bytes, maker.bytes / MIB))


if __name__ == "__main__":
    main()

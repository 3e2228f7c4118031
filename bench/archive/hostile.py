#!/usr/bin/env python3
"""Peak memory of the reader on hostile archives: verify, restore and the fuzz target.

    bench/archive/hostile.py [--build BUILD_DIR] [--fuzzer FUZZER] [--limit MIB]

Runs every archive of tests/archive/hostile, and a backup made here whose 1 GiB entry of zeros
(about 1 MB deflated, with the right CRC) is declared as 1,000 bytes, through `corvelstow
verify` and `corvelstow restore` (into a fresh container in a temporary folder), and, with
--fuzzer, through the given fuzz target once (build it without sanitizers, with the fuzz preset
and -DCORVELSTOW_FUZZ_SANITIZERS=OFF, to measure the reader rather than their shadow memory). Each run is under /usr/bin/time for its wall time and
peak resident memory; a peak over the limit (default 32 MiB) is marked and fails the run.
"""
import argparse
import os
import struct
import subprocess
import sys
import tempfile
import zlib

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
HOSTILE = os.path.join(ROOT, "tests", "archive", "hostile")


def timed(command, env):
    """Runs a command under /usr/bin/time: (exit code, seconds, peak RSS in MiB)."""
    result = subprocess.run(["/usr/bin/time", "-f", "%e %M", *command], env=env,
                            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    seconds, kib = result.stderr.strip().splitlines()[-1].split()
    return result.returncode, float(seconds), int(kib) / 1024


def big_bomb(path):
    """A backup whose one file inflates to 1 GiB while its records say 1,000 bytes."""
    compressor = zlib.compressobj(9, zlib.DEFLATED, -15)
    chunk, data, crc = bytes(1 << 20), bytearray(), 0
    for _ in range(1024):
        data += compressor.compress(chunk)
        crc = zlib.crc32(chunk, crc)
    data += compressor.flush()
    manifest = (b'{"schemaVersion": 1, "bundleIdentifier": "com.example.notes", "appName": "Notes",'
                b' "createdAt": "2024-05-01T09:30:00Z", "includedPaths": ["Documents", "Library"],'
                b' "fileCount": 1, "totalBytes": 1000}')
    entries = [(b"manifest.json", 0, manifest, zlib.crc32(manifest), len(manifest)),
               (b"container/Documents/zeros.bin", 8, bytes(data), crc, 1000)]
    body, directory = bytearray(), bytearray()
    for name, method, stored, entry_crc, size in entries:
        directory += struct.pack("<IHHHHHHIIIHHHHHII", 0x02014B50, 0x031E, 20, 1 << 11, method,
                                 0, 0x58A1, entry_crc, len(stored), size, len(name), 0, 0, 0, 0,
                                 0x81A40000, len(body)) + name
        body += struct.pack("<IHHHHHIIIHH", 0x04034B50, 20, 1 << 11, method, 0, 0x58A1,
                            entry_crc, len(stored), size, len(name), 0) + name + stored
    end = struct.pack("<IHHHHIIH", 0x06054B50, 0, 0, 2, 2, len(directory), len(body), 0)
    with open(path, "wb") as out:
        out.write(body + directory + end)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", default="build")
    parser.add_argument("--fuzzer")
    parser.add_argument("--limit", type=float, default=32)
    args = parser.parse_args()
    command = os.path.abspath(os.path.join(args.build, "corvelstow"))
    over = 0
    with tempfile.TemporaryDirectory() as work:
        archives = sorted(os.path.join(HOSTILE, f) for f in os.listdir(HOSTILE)
                          if f.endswith(".zip"))
        bomb = os.path.join(work, "1-gib-declared-as-1000-bytes.zip")
        big_bomb(bomb)
        archives.append(bomb)
        print(f"  {'archive':<34} {'run':<8} {'exit':>4} {'seconds':>8} {'peak RSS MiB':>13}")
        for archive in archives:
            home = os.path.join(work, "home")
            subprocess.run(["rm", "-rf", home], check=True)
            os.makedirs(os.path.join(home, "Documents"))
            runs = [("verify", [command, "verify", archive], {"CORVELSTOW_HOME": ""}),
                    ("restore", [command, "restore", archive], {"CORVELSTOW_HOME": home})]
            if args.fuzzer:
                runs.append(("fuzz", [os.path.abspath(args.fuzzer), archive], {}))
            for label, run, env in runs:
                code, seconds, rss = timed(run, dict(os.environ, **env))
                mark = "  over the limit" if rss > args.limit else ""
                over += rss > args.limit
                print(f"  {os.path.basename(archive):<34} {label:<8} {code:>4} {seconds:8.2f} "
                      f"{rss:13.1f}{mark}")
    sys.exit(1 if over else 0)


if __name__ == "__main__":
    main()

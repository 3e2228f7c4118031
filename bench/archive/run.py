#!/usr/bin/env python3
"""The archive writer and reader against zip, bsdtar and unzip, in one run.

    bench/archive/run.py [--build BUILD_DIR] [--work DIR] [--big] [--keep]

Makes the realistic container with bench/make_container.py (--scale typical: 3,000 small
files, a 157 MB database-like file, a thousand cached images) and, with --big, the one-big
container (one 2 GiB file). For each it archives the tree with our writer (zip_bench pack), `zip -r -6`
and `bsdtar --format zip -cf`, then unpacks our archive with our reader (zip_bench unpack),
`unzip` and `bsdtar -xf`, checking that every unpacked tree equals the source. Each command
runs under /usr/bin/time for its wall time and peak resident memory. Files are in the page
cache throughout (they were just written), so the figures are CPU-bound, as on a phone's flash.
Then the inner loops: CRC-32 throughput and the cost of a zlib stream per entry.

The work folder (default /tmp/corvelstow-bench) is removed at the end unless --keep is given.
"""
import argparse
import os
import shutil
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
MAKE_CONTAINER = os.path.join(ROOT, "bench", "make_container.py")


def timed(command, cwd=None):
    """Runs a command under /usr/bin/time: (seconds, peak RSS in MiB)."""
    result = subprocess.run(["/usr/bin/time", "-f", "%e %M"] + command, cwd=cwd,
                            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    if result.returncode != 0:
        sys.exit(f"{' '.join(command)} failed:\n{result.stderr}")
    seconds, kib = result.stderr.strip().splitlines()[-1].split()
    return float(seconds), int(kib) / 1024


def tree_bytes(folder):
    total = 0
    for directory, _, files in os.walk(folder):
        total += sum(os.path.getsize(os.path.join(directory, f)) for f in files)
    return total


def same_tree(a, b):
    return subprocess.run(["diff", "-rq", a, b], stdout=subprocess.DEVNULL).returncode == 0


def bench(scale, zip_bench, work):
    source = os.path.join(work, scale)
    if not os.path.isdir(source):
        subprocess.run([sys.executable, MAKE_CONTAINER, source, "--scale", scale], check=True,
                       stdout=subprocess.DEVNULL)
    size = tree_bytes(source)
    files = sum(len(f) for _, _, f in os.walk(source))
    print(f"\n{scale}: {files} files, {size / 1e6:.1f} MB")
    print(f"  {'archive':<28} {'seconds':>8} {'MB/s':>8} {'size MB':>9} {'ratio':>6} {'peak RSS MiB':>13}")
    ours = os.path.join(work, "ours.zip")
    archivers = [
        ("corvelstow (zip_bench pack)", ours, [zip_bench, "pack", source, ours]),
        ("zip -r -6", os.path.join(work, "zip.zip"), ["zip", "-q", "-r", "-6"]),
        ("bsdtar --format zip -cf", os.path.join(work, "bsdtar.zip"),
         ["bsdtar", "--format", "zip", "-cf"]),
    ]
    for name, output, command in archivers:
        if os.path.exists(output):
            os.remove(output)
        if output != ours:
            command = command + [output, "."]
        seconds, rss = timed(command, cwd=source)
        out = os.path.getsize(output)
        print(f"  {name:<28} {seconds:8.2f} {size / 1e6 / seconds:8.1f} {out / 1e6:9.1f} "
              f"{out / size:6.3f} {rss:13.1f}")
        if output != ours:
            os.remove(output)  # only ours is unpacked

    print(f"  {'unpack our archive':<28} {'seconds':>8} {'MB/s':>8} {'':>9} {'same':>6} {'peak RSS MiB':>13}")
    target = os.path.join(work, "unpacked")
    unpackers = {
        "corvelstow (zip_bench unpack)": [zip_bench, "unpack", ours, target],
        "unzip": ["unzip", "-q", ours, "-d", target],
        "bsdtar -xf": ["bsdtar", "-xf", ours, "-C", target],
    }
    for name, command in unpackers.items():
        shutil.rmtree(target, ignore_errors=True)
        os.makedirs(target)
        seconds, rss = timed(command)
        same = "yes" if same_tree(source, target) else "NO"
        print(f"  {name:<28} {seconds:8.2f} {size / 1e6 / seconds:8.1f} {'':>9} {same:>6} {rss:13.1f}")
        shutil.rmtree(target, ignore_errors=True)
    os.remove(ours)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", default=os.path.join(ROOT, "build"))
    parser.add_argument("--work", default="/tmp/corvelstow-bench")
    parser.add_argument("--big", action="store_true", help="also the one-big container (2 GiB)")
    parser.add_argument("--keep", action="store_true", help="keep the containers for a rerun")
    args = parser.parse_args()
    zip_bench = os.path.join(os.path.abspath(args.build), "bench", "archive", "zip_bench")
    os.makedirs(args.work, exist_ok=True)
    try:
        for scale in ["typical"] + (["one-big"] if args.big else []):
            bench(scale, zip_bench, args.work)
        print()
        subprocess.run([zip_bench, "crc", "512"], check=True)
        subprocess.run([zip_bench, "streams", "20000"], check=True)
    finally:
        if not args.keep:
            shutil.rmtree(args.work, ignore_errors=True)


if __name__ == "__main__":
    main()

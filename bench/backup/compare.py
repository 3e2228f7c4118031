#!/usr/bin/env python3
"""Backup and restore staging beside the tools a user would pick instead.

    bench/backup/compare.py [--build build] [--work DIR] [--runs 3] [SCALE ...]

SCALE is typical, many-small or one-big (default: all three), containers made by
bench/make_container.py and kept in DIR/containers between runs. For each one:

  backup:  corvelstow backup   vs  zip -r -6 -q   vs  bsdtar --format zip -cf
  restore: corvelstow restore  vs  unzip -q       vs  bsdtar -xf      (into a tmpfs)

each the best of --runs, with its wall time, peak RSS (from /usr/bin/time) and archive size.
Everything runs single-threaded at the tools' default levels; the archive every tool unpacks
is the one corvelstow wrote.
"""
import argparse
import os
import shutil
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
MAKE_CONTAINER = os.path.join(ROOT, "bench", "make_container.py")
TMPFS = "/dev/shm"


def timed(command, cwd=None, env=None):
    """Runs a command under /usr/bin/time; returns (seconds, peak RSS in MiB)."""
    result = subprocess.run(["/usr/bin/time", "-f", "%e %M", *command], cwd=cwd, env=env,
                            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    if result.returncode != 0:
        sys.exit(f"{' '.join(command)} failed:\n{result.stderr}")
    seconds, kib = result.stderr.strip().splitlines()[-1].split()
    return float(seconds), int(kib) / 1024


def best(runs, prepare, command, **kwargs):
    results = []
    for _ in range(runs):
        prepare()
        results.append(timed(command, **kwargs))
    return min(r[0] for r in results), max(r[1] for r in results)


def container_for(scale, work):
    path = os.path.join(work, "containers", scale)
    if not os.path.isdir(os.path.join(path, "Documents")):
        subprocess.run([sys.executable, MAKE_CONTAINER, path, "--scale", scale, "--force"],
                       check=True)
    return path


def report(label, seconds, rss, size=None, data_bytes=None):
    rate = f"{data_bytes / seconds / 1e6:8.1f} MB/s" if data_bytes and seconds else ""
    extra = f"  {size / 1e6:9.1f} MB" if size is not None else ""
    print(f"  {label:<34} {seconds:8.2f} s {rate}  {rss:7.1f} MiB RSS{extra}")


def tree_bytes(path):
    total = 0
    for folder, _, names in os.walk(path):
        for name in names:
            full = os.path.join(folder, name)
            if os.path.isfile(full) and not os.path.islink(full):
                total += os.path.getsize(full)
    return total


def bench(scale, args):
    container = container_for(scale, args.work)
    command = os.path.abspath(os.path.join(args.build, "corvelstow"))
    data = tree_bytes(os.path.join(container, "Documents")) + tree_bytes(
        os.path.join(container, "Library"))
    print(f"{scale}: {data / 1e6:.1f} MB of data")
    out = os.path.join(args.work, "out")
    os.makedirs(out, exist_ok=True)
    exports = os.path.join(out, "CorvelStow Exports")
    env = dict(os.environ, TMPDIR=out, CORVELSTOW_HOME=container)

    def clear(path):
        return lambda: shutil.rmtree(path, ignore_errors=True) if os.path.isdir(path) else (
            os.path.exists(path) and os.remove(path))

    # Backup
    seconds, rss = best(args.runs, clear(exports), [command, "backup", "--include-caches"], env=env)
    # The one export, in the container's own folder inside the exports folder.
    archive = next(os.path.join(folder, name) for folder, _, names in os.walk(exports)
                   for name in names)
    ours = os.path.join(out, "corvelstow.zip")
    shutil.move(archive, ours)
    report("corvelstow backup", seconds, rss, os.path.getsize(ours), data)
    zip_out = os.path.join(out, "zip.zip")
    seconds, rss = best(args.runs, clear(zip_out),
                        ["zip", "-r", "-6", "-q", zip_out, "Documents", "Library"], cwd=container)
    report("zip -r -6", seconds, rss, os.path.getsize(zip_out), data)
    tar_out = os.path.join(out, "bsdtar.zip")
    seconds, rss = best(args.runs, clear(tar_out),
                        ["bsdtar", "--format", "zip", "-cf", tar_out, "Documents", "Library"],
                        cwd=container)
    report("bsdtar --format zip -cf", seconds, rss, os.path.getsize(tar_out), data)
    os.remove(zip_out)
    os.remove(tar_out)

    # Restore staging, into a tmpfs
    home = os.path.join(TMPFS, "corvelstow-bench-home")
    target = os.path.join(TMPFS, "corvelstow-bench-unzip")
    env = dict(os.environ, CORVELSTOW_HOME=home)

    def fresh_home():
        shutil.rmtree(home, ignore_errors=True)
        os.makedirs(os.path.join(home, "Documents"))

    def fresh_target():
        shutil.rmtree(target, ignore_errors=True)
        os.makedirs(target)

    seconds, rss = best(args.runs, fresh_home, [command, "restore", ours], env=env)
    report("corvelstow restore (staging)", seconds, rss, None, data)
    seconds, rss = best(args.runs, fresh_target, ["unzip", "-q", ours, "-d", target])
    report("unzip", seconds, rss, None, data)
    seconds, rss = best(args.runs, fresh_target, ["bsdtar", "-xf", ours, "-C", target])
    report("bsdtar -xf", seconds, rss, None, data)
    shutil.rmtree(home, ignore_errors=True)
    shutil.rmtree(target, ignore_errors=True)
    os.remove(ours)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", default="build")
    parser.add_argument("--work", default=os.path.join(ROOT, "build", "bench-work"))
    parser.add_argument("--runs", type=int, default=3)
    parser.add_argument("scales", nargs="*", default=["typical", "many-small", "one-big"])
    args = parser.parse_args()
    for scale in args.scales:
        bench(scale, args)


if __name__ == "__main__":
    main()

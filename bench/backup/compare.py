#!/usr/bin/env python3
"""Backup and restore staging, on one thread and on all, beside the tools a user would pick.

    bench/backup/compare.py [--build build] [--work DIR] [--runs 3] [--threads N] [SCALE ...]

SCALE is typical, many-small or one-big (default: these three), huge-count or huge-file,
containers made by bench/make_container.py and kept in DIR/containers between runs. For each one:

  backup:  corvelstow backup --threads 1 and --threads N (default: every core)
           vs  bsdtar --format zip -cf  vs  zip -r -6  vs  tar -c | pigz -6 -c (the parallel peer)
  checks:  the archive corvelstow wrote, through unzip -t, bsdtar -tf and Python's testzip
  staging: corvelstow restore --threads 1 and --threads N
           vs  bsdtar -xf  vs  unzip -q   (into a tmpfs, from the archive corvelstow wrote)

The commands of one group run in turn, and that round is repeated --runs times, so that a
change in the machine's load falls on all of them alike. Each figure is the median of the
runs: wall time, throughput over the data's size, peak RSS (/usr/bin/time) and output size.
Ratios are to bsdtar (and, for many small files, to zip); the speed-up is one thread's time
over N threads'.
"""
import argparse
import os
import shutil
import statistics
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


class Contender:
    """One command of a group: how to ready its run, what to run, and where its output lands."""

    def __init__(self, label, command, prepare=None, output=None, cwd=None, env=None):
        self.label, self.command, self.prepare = label, command, prepare
        self.output, self.cwd, self.env = output, cwd, env
        self.seconds, self.rss, self.size = [], [], None

    def run(self):
        if self.prepare:
            self.prepare()
        seconds, rss = timed(self.command, cwd=self.cwd, env=self.env)
        self.seconds.append(seconds)
        self.rss.append(rss)
        if self.output:
            self.size = os.path.getsize(self.output())

    @property
    def median(self):
        return statistics.median(self.seconds)


def alternate(contenders, runs):
    for _ in range(runs):
        for contender in contenders:
            contender.run()


def report(title, contenders, data_bytes, baselines):
    print(f"  {title:<30} {'seconds':>8} {'MB/s':>7} {'RSS MiB':>8} {'size MB':>9}" +
          "".join(f" {'x ' + b.label.split()[0]:>9}" for b in baselines))
    for c in contenders:
        size = f"{c.size / 1e6:9.1f}" if c.size is not None else f"{'':>9}"
        ratios = "".join(f" {c.median / b.median:9.2f}" for b in baselines)
        print(f"  {c.label:<30} {c.median:8.2f} {data_bytes / c.median / 1e6:7.1f} "
              f"{max(c.rss):8.1f} {size}{ratios}")


def container_for(scale, work):
    path = os.path.join(work, "containers", scale)
    if not os.path.isdir(os.path.join(path, "Documents")):
        subprocess.run([sys.executable, MAKE_CONTAINER, path, "--scale", scale, "--force"],
                       check=True)
    return path


def tree_bytes(path):
    total = 0
    for folder, _, names in os.walk(path):
        for name in names:
            full = os.path.join(folder, name)
            if os.path.isfile(full) and not os.path.islink(full):
                total += os.path.getsize(full)
    return total


def removed(path):
    def remove():
        if os.path.isdir(path):
            shutil.rmtree(path)
        elif os.path.exists(path):
            os.remove(path)
    return remove


def emptied(path, *inside):
    def empty():
        shutil.rmtree(path, ignore_errors=True)
        os.makedirs(os.path.join(path, *inside))
    return empty


def only_file(folder):
    return next(os.path.join(place, name) for place, _, names in os.walk(folder) for name in names)


def bench_backup(container, command, threads, out, runs, data):
    exports = os.path.join(out, "CorvelStow Exports")
    env = dict(os.environ, TMPDIR=out, CORVELSTOW_HOME=container)
    backup = [command, "backup", "--include-caches", "--threads"]
    zip_out, tar_out, pigz_out = (os.path.join(out, name) for name in
                                  ("zip.zip", "bsdtar.zip", "tar.gz"))
    ours = [Contender(f"corvelstow backup, {n} thread{'s' if n > 1 else ''}", backup + [str(n)],
                      removed(exports), lambda: only_file(exports), env=env)
            for n in sorted({1, threads})]
    bsdtar = Contender("bsdtar --format zip -cf",
                       ["bsdtar", "--format", "zip", "-cf", tar_out, "Documents", "Library"],
                       removed(tar_out), lambda: tar_out, cwd=container)
    zip_r = Contender("zip -r -6", ["zip", "-r", "-6", "-q", zip_out, "Documents", "Library"],
                      removed(zip_out), lambda: zip_out, cwd=container)
    pigz = Contender(f"tar -c | pigz -6 -c (-p {threads})",
                     ["sh", "-c", f"tar -cf - Documents Library | pigz -6 -c -p {threads} > "
                      f"'{pigz_out}'"], removed(pigz_out), lambda: pigz_out, cwd=container)
    everyone = ours + [bsdtar, zip_r, pigz]
    alternate(everyone, runs)
    report("backup", everyone, data, [bsdtar, zip_r])
    if len(ours) == 2:
        print(f"  speed-up from 1 to {threads} threads: {ours[0].median / ours[1].median:.2f}x")
    archive = os.path.join(out, "corvelstow.zip")
    shutil.move(only_file(exports), archive)
    for path in (zip_out, tar_out, pigz_out):
        removed(path)()
    return archive


def check_archive(archive):
    """Whether the tools a user has read the whole archive, each checking every CRC."""
    python = ("import sys, zipfile\nwith zipfile.ZipFile(sys.argv[1]) as z:\n"
              "    print(z.testzip() or 'ok')")
    results = []
    for label, command in (("unzip -t", ["unzip", "-tq", archive]),
                           ("bsdtar -tf", ["bsdtar", "-tf", archive]),
                           ("Python testzip", [sys.executable, "-c", python, archive])):
        run = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        ok = run.returncode == 0 and (label != "Python testzip" or run.stdout.strip() == "ok")
        detail = f" ({len(run.stdout.splitlines())} entries)" if label == "bsdtar -tf" else ""
        results.append(f"{label} {'passes' if ok else 'FAILS'}{detail}")
    print("  checks: " + ", ".join(results))


def bench_staging(archive, command, threads, runs, data):
    home = os.path.join(TMPFS, "corvelstow-bench-home")
    target = os.path.join(TMPFS, "corvelstow-bench-unzip")
    env = dict(os.environ, CORVELSTOW_HOME=home)
    ours = [Contender(f"corvelstow restore, {n} thread{'s' if n > 1 else ''}",
                      [command, "restore", archive, "--threads", str(n)],
                      emptied(home, "Documents"), env=env)
            for n in sorted({1, threads})]
    bsdtar = Contender("bsdtar -xf", ["bsdtar", "-xf", archive, "-C", target], emptied(target))
    unzip = Contender("unzip -q", ["unzip", "-q", archive, "-d", target], emptied(target))
    everyone = ours + [bsdtar, unzip]
    alternate(everyone, runs)
    report("restore staging", everyone, data, [bsdtar])
    if len(ours) == 2:
        print(f"  speed-up from 1 to {threads} threads: {ours[0].median / ours[1].median:.2f}x")
    removed(home)()
    removed(target)()


def bench(scale, args):
    container = container_for(scale, args.work)
    command = os.path.abspath(os.path.join(args.build, "corvelstow"))
    data = tree_bytes(os.path.join(container, "Documents")) + tree_bytes(
        os.path.join(container, "Library"))
    files = sum(len(names) for _, _, names in os.walk(container))
    print(f"\n{scale}: {files} files, {data / 1e6:.1f} MB; medians of {args.runs} rounds")
    out = os.path.join(args.work, "out")
    os.makedirs(out, exist_ok=True)
    archive = bench_backup(container, command, args.threads, out, args.runs, data)
    check_archive(archive)
    bench_staging(archive, command, args.threads, args.runs, data)
    os.remove(archive)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", default="build")
    parser.add_argument("--work", default=os.path.join(ROOT, "build", "bench-work"))
    parser.add_argument("--runs", type=int, default=3)
    parser.add_argument("--threads", type=int, default=os.cpu_count() or 1)
    parser.add_argument("scales", nargs="*", default=["typical", "many-small", "one-big"])
    args = parser.parse_args()
    for tool in ("bsdtar", "zip", "unzip", "pigz", "/usr/bin/time"):
        if not shutil.which(tool):
            sys.exit(f"{tool} is missing: sh scripts/install-deps installs it.")
    for scale in args.scales:
        bench(scale, args)


if __name__ == "__main__":
    main()

#!/usr/bin/env python3
"""What the library adds to a launch with nothing to do.

    bench/startup/launch_cost.py [BUILD_DIR] [RUNS]

Starts a C program (/bin/true) and a C++ one (the example host, which already loads the C++
runtime the library needs) RUNS times plainly and RUNS times with libcorvelstow.so preloaded
and a container named (no undo, no staged restore), interleaved, and reports the median and
the 90th percentile of each.
"""
import os
import statistics
import subprocess
import sys
import tempfile
import time

build = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else "build")
runs = int(sys.argv[2]) if len(sys.argv) > 2 else 500
library = os.path.join(build, "libcorvelstow.so")


def measure(program, home):
    plain_env = dict(os.environ, CORVELSTOW_HOME=home)
    plain_env.pop("LD_PRELOAD", None)
    loaded_env = dict(plain_env, LD_PRELOAD=library)
    times = {"plain": [], "with library": []}
    for _ in range(runs):
        for name, env in (("plain", plain_env), ("with library", loaded_env)):
            start = time.perf_counter()
            subprocess.run([program], env=env, check=True, stdout=subprocess.DEVNULL)
            times[name].append(time.perf_counter() - start)
    print(program)
    for name, values in times.items():
        values.sort()
        print(f"  {name:>13}: median {statistics.median(values) * 1e3:.3f} ms, "
              f"p90 {values[int(len(values) * 0.9)] * 1e3:.3f} ms over {runs} launches")
    added = statistics.median(times["with library"]) - statistics.median(times["plain"])
    print(f"  added by the library: {added * 1e3:.3f} ms per launch (median)")


with tempfile.TemporaryDirectory() as home:
    os.makedirs(os.path.join(home, "Documents"))
    for program in ("/bin/true", os.path.join(build, "notes-host")):
        measure(program, home)

#!/usr/bin/env python3
"""Measures what it costs a host to load a library.

bench_load.py BUILD_DIRECTORY ROUND

Prints one JSON object for each library and kind of host. load_ns and the memory are those of a warm load: the second of
two in a row. cold_ns is the time of a cold load: the libraries are copies that have been written to the disk and then
removed from the page cache.
"""
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

RUNTIME = "libstdc++.so.6"
HOSTS = {"C": (), "C++": (RUNTIME,)}  # Libraries that the host has loaded before.


def run(*command, **options):
    return subprocess.run(command, check=True, capture_output=True, text=True, **options).stdout


def needed(library):
    """Returns {name: path} of the libraries that this one needs, directly or indirectly."""
    return dict(re.findall(r"^\s*(\S+) => (/\S+) \(", run("ldd", library), re.M))


def cold_copy(source, target):
    shutil.copyfile(source, target)
    with open(target, "rb") as file:
        os.fsync(file.fileno())
        os.posix_fadvise(file.fileno(), 0, 0, os.POSIX_FADV_DONTNEED)
    if int(run("fincore", "--bytes", "--noheadings", "--output", "RES", target)) != 0:
        sys.exit(f"bench_load: {target} is still in the page cache")


def load(host, library, before, directory=""):
    return json.loads(run(host, library, *before, env={"LD_LIBRARY_PATH": directory}))


def main(build, at):
    host = build / "bench" / "load_host"
    spdlog = needed(build / "bench" / "end_to_end_spdlog_block.so")
    libraries = {"oxevent": build / "liboxEvent.so", "http": build / "liboxutil-http.so",
                 "spdlog": next(path for name, path in spdlog.items() if name.startswith("libspdlog"))}
    for name, library in libraries.items():
        for kind, before in HOSTS.items():
            load(host, library, before)
            result = load(host, library, before)
            loaded = {path for item in (host, *(needed(library)[name] for name in before))
                      for path in (str(item), *needed(item).values())}
            with tempfile.TemporaryDirectory(dir=build) as directory:
                for file, path in {Path(library).name: str(library), **needed(library)}.items():
                    if path not in loaded:
                        cold_copy(path, f"{directory}/{file}")
                cold = load(host, f"{directory}/{Path(library).name}", before, directory)
            print(json.dumps({"round": at, "library": name, "host": kind, **result, "cold_ns": cold["load_ns"]}))


if __name__ == "__main__":
    main(Path(sys.argv[1]).resolve(), int(sys.argv[2]))

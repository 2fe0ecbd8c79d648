#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs one part of the benchmarks and writes what it measured to OUT/PART.json.

usage: run.py BUILD_DIR PART [--smoke] [--out OUT]     PART: see the end of this file

Mounts are made in a mount namespace of the run's own, and the programs that serve them end with it:
nothing outlives the run, however it ends. Exit status 77: the part needs mounts, which are not
permitted here.
"""
import argparse
import fcntl
import json
import os
import pathlib
import random
import re
import resource
import signal
import subprocess
import sys
import tempfile
import time

DEDUP_REVOKE = 0x4004F566


def run(words, preload=""):
    """Runs a program to its end, which must be a success. Returns what it took, in seconds."""
    env = {**os.environ, **({"LD_PRELOAD": preload} if preload else {})}
    begin = time.monotonic()
    child = subprocess.Popen([str(word) for word in words], env=env,
                             stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    _, status, usage = os.wait4(child.pid, 0)
    wall = time.monotonic() - begin
    child.returncode = os.waitstatus_to_exitcode(status)
    if child.returncode != 0:
        sys.exit(f"run.py: exit status {child.returncode} from {' '.join(child.args)}")
    return {"wall": wall, "user": usage.ru_utime, "system": usage.ru_stime}


def system_calls(words, preload):
    run(["strace", "-f", "-qq", "-c", "-U", "calls,name", "-o", work / "calls",
         "-E", f"LD_PRELOAD={preload}", *words])
    return int(re.search(r"(\d+) total", (work / "calls").read_text())[1])


def peak_kib(words, preload):
    run(["time", "-f", "%M", "-o", work / "peak", *words], preload)
    return int((work / "peak").read_text())


def make_tree(top, files, size):
    """Directories of 100 files, named as a camera names them."""
    for number in range(files):
        directory = f"{top}/Camera{number // 100:05}"
        if number % 100 == 0:
            os.makedirs(directory)
        with open(f"{directory}/IMG_20250101_{number % 1_000_000:06}.jpg", "wb") as file:
            file.write(b"x" * size)


class Served:
    """A FUSE mount and the program that serves it, which ends with this one."""

    def __init__(self, name, program, options=()):
        self.path = work / name
        self.path.mkdir(exist_ok=True)
        device = self.path.stat().st_dev
        self.daemon = subprocess.Popen(
            ["setpriv", "--pdeathsig", "TERM", *map(str, program), self.path, *options],
            stderr=subprocess.DEVNULL)
        while self.path.stat().st_dev == device:
            time.sleep(0.01)
            if self.daemon.poll() is not None:
                sys.exit(f"run.py: {program[0]} gave up")

    def processor_seconds(self):
        return int(pathlib.Path(f"/proc/{self.daemon.pid}/schedstat").read_text().split()[0]) * 1e-9

    def end(self):
        run(["umount", "-l", self.path])
        self.daemon.wait()


def make_image(mebibytes):
    """An XFS image with shared blocks, in memory, so that no disk is measured."""
    image = work / "image"
    image.mkdir()
    run(["truncate", "-s", f"{mebibytes}M", work / "image.xfs"])
    run(["mkfs.xfs", "-q", "-m", "reflink=1", work / "image.xfs"])
    run(["mount", "-o", "loop", work / "image.xfs", image])
    (image / "backing").mkdir()
    return image


def revoke(top):
    """Resets a source to the state of one that was never prepared."""
    for file in pathlib.Path(top).rglob("*.jpg"):
        fd = os.open(file, os.O_RDWR)
        fcntl.ioctl(fd, DEDUP_REVOKE, bytes(4))
        os.close(fd)


def google(program, repetitions, *arguments):
    """Runs contests of Google Benchmark: one record per repetition of each."""
    out = work / "google.json"
    run([build / "bench" / program, f"--benchmark_repetitions={repetitions}",
         f"--benchmark_out={out}", "--benchmark_out_format=json", *arguments])
    measured = json.loads(out.read_text())["benchmarks"]
    return [{"name": each["run_name"].split("/iterations")[0],
             **{key: each[key] for key in ("ours", "theirs", "our_user", "their_user")}}
            for each in measured if each["run_type"] == "iteration"]


def engine():
    make_tree(work / "DCIM", 200 if smoke else 10000, 8192)
    return google("bench_engine", 1 if smoke else 21, work / "DCIM", work / "backup")


def grow(sources):
    """Creates and destroys snapshots of sources of different sizes, in turns."""
    target = work / "backup"
    records = []
    for _ in range(1 if smoke else 5):
        for name, (source, units) in sources.items():
            for _ in range(1 if smoke or units > 10_000 else 5):  # short runs scatter more
                records.append({"name": name, "units": units,
                                "create": run([tool, "create", source, target], stubs),
                                "destroy": run([tool, "destroy", target], stubs)})
    peaks = {name: peak_kib([tool, "create", source, target], stubs)
             for name, (source, _) in sources.items()}
    return [{**record, "peak_kib": peaks[record["name"]]} for record in records]


def scale():
    sources = {}
    for files in [1000] if smoke else [1000, 10000, 100000, 1000000]:
        sources[f"{files:,} files"] = (work / f"files{files}", files)
        make_tree(work / f"files{files}", files, 0)
    return grow(sources)


def depth():
    """Directories in each other, a file in each, until the paths in the snapshot get as long as paths
    can get. The engine holds a stream open per level."""
    limit = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (limit, limit))
    deepest = (4095 - len(f"{work}/backup/snapshot{work}/d0000/f")) // len("/d")
    sources = {}
    for levels in [10] if smoke else [10, 100, 500, 1000, min(deepest, limit - 10)]:
        top = directory = f"{work}/d{levels:04}"
        for _ in range(levels + 1):
            os.mkdir(directory)
            os.mknod(directory + "/f")
            directory += "/d"
        sources[f"{levels:,} levels"] = (top, levels + 1)
    return grow(sources)


def peers():
    files = 200 if smoke else 10000
    image = make_image(512 if smoke else 2048)
    served = Served("emulated", [emulator, image / "backing"], ["-f"])
    plain, copy = image / "DCIM", image / "copy"
    emulated, emulated_copy = served.path / "DCIM", served.path / "copy"
    make_tree(plain, files, 8192)
    make_tree(emulated, files, 8192)
    remove = ["rm", "-r", copy]
    snapshot = [tool, "create", plain, copy], [tool, "destroy", copy]
    contestants = {
        "`cp -a --reflink=always`": (["cp", "-a", "--reflink=always", plain, copy], remove, ""),
        "`cp -a --reflink=never`": (["cp", "-a", "--reflink=never", plain, copy], remove, ""),
        "`rsync -a --link-dest`":
            (["rsync", "-a", f"--link-dest={plain}", f"{plain}/", copy], remove, ""),
        "`f2fs_snapshot`, driver and log stubbed": (*snapshot, stubs),
        "`f2fs_snapshot`, driver stubbed": (*snapshot, str(stub_driver)),
        "`f2fs_snapshot`, emulator": ([tool, "create", emulated, emulated_copy],
                                      [tool, "destroy", emulated_copy], ""),
        "`cp -a`, emulator": (["cp", "-a", emulated, emulated_copy],
                              ["rm", "-r", emulated_copy], ""),
    }
    counted = {name: [system_calls(words, preload) for words in (make, unmake)]
               for name, (make, unmake, preload) in contestants.items()}
    records = []
    for _ in range(1 if smoke else 11):
        for name in random.sample(list(contestants), len(contestants)):
            *steps, preload = contestants[name]
            if "f2fs_snapshot`, emulator" in name:
                revoke(emulated)
            record = {"name": name, "units": files}
            for step, words, number in zip(("make", "remove"), steps, counted[name]):
                run(["sync", "-f", image])
                before = served.processor_seconds()
                record[step] = {**run(words, preload), "calls": number,
                                "daemon": served.processor_seconds() - before}
            records.append(record)
    return sorted(records, key=lambda record: list(contestants).index(record["name"]))


def sizes():
    """One file of each size: its snapshot on the emulator beside its copy."""
    image = make_image(512 if smoke else 6144)
    served = Served("emulated", [emulator, image / "backing"], ["-f"])
    target, copy = served.path / "backup", served.path / "copy"

    def used():
        """Asks until the answer stays the same: XFS frees removed files in the background."""
        answers = [0, 1]
        while answers[-1] != answers[-2]:
            run(["sync", "-f", image])
            time.sleep(0.2)
            figures = os.statvfs(served.path)
            answers.append((figures.f_blocks - figures.f_bfree) * figures.f_frsize)
        return answers[-1]

    records = []
    lengths = [4 << 10] if smoke else [4 << 10, 1 << 20, 64 << 20, 1 << 30]
    for length in lengths:
        (served.path / str(length)).mkdir()
        with open(served.path / str(length) / "one.jpg", "wb") as file:
            for _ in range(length >> 12):
                file.write(os.urandom(4096))
    for _ in range(1 if smoke else 11):
        for length in lengths:
            source = served.path / str(length)
            revoke(source)
            before = used()
            create = run([tool, "create", source, target])
            grown = used() - before
            run([tool, "destroy", target])
            records.append({"name": length, "create": create, "grown": grown,
                            "copy": run(["cp", "-a", "--reflink=never", source, copy])})
            run(["rm", "-r", copy])
    return records


def operations():
    image = make_image(512 if smoke else 2048)
    ours = Served("emulated", [emulator, image / "backing"], ["-f"])
    theirs = Served("bound", ["bindfs", "-f", image / "backing"])
    return google("bench_operations", 1 if smoke else 31, image / "backing", ours.path, theirs.path,
                  100 if smoke else 1000, 100 if smoke else 10000)


# The operation codes of FUSE that a snapshot uses.
OPCODES = {1: "lookup", 2: "forget", 3: "getattr", 9: "mkdir", 10: "unlink", 11: "rmdir",
           14: "open", 18: "release", 22: "getxattr", 25: "flush", 26: "init", 27: "opendir",
           28: "readdir", 29: "releasedir", 35: "create", 39: "ioctl", 42: "forget",
           43: "fallocate", 44: "readdirplus", 51: "tmpfile"}


def messages():
    """Counts what the kernel asks of the emulator: the fifth byte of a message is the operation."""
    files = 100 if smoke else 10000
    image = make_image(512 if smoke else 2048)
    for name in "prepared", "fresh":
        make_tree(image / "backing" / name, files, 8192)
    records = []
    for name, words in [("prepare", ["pre", "prepared"]),
                        ("create after prepare", ["create", "prepared", "backup"]),
                        ("destroy", ["destroy", "backup"]),
                        ("create", ["create", "fresh", "backup"])]:
        trace = work / "trace"
        served = Served("traced", ["strace", "-f", "--seccomp-bpf", "-y", "-qq", "-x", "-s", "8",
                                   "-e", "trace=read", "-o", trace, emulator, image / "backing"],
                        ["-f"])
        run([tool, words[0], *(served.path / word for word in words[1:])])
        served.end()
        record = {"name": name, "files": files, "messages": {}}
        for code in re.findall(r'/dev/fuse>, "(?:\\x..){4}\\x(..)', trace.read_text()):
            word = OPCODES.get(int(code, 16), f"opcode {int(code, 16)}")
            record["messages"][word] = record["messages"].get(word, 0) + 1
        records.append(record)
    return records


def manager_phases(store, source, digests="plain", preload=""):
    """What the phases of a create of the manager took, in seconds, and its memory."""
    env = {**os.environ, **({"LD_PRELOAD": preload} if preload else {})}
    return json.loads(subprocess.run([build / "bench/bench_manager", store, source, digests], env=env,
                                     stdout=subprocess.PIPE, check=True).stdout)


def manager():
    """Snapshots of the manager beside those of the tool, on the emulator, in turns."""
    files = 200 if smoke else 5000
    image = make_image(512 if smoke else 2048)
    served = Served("emulated", [emulator, image / "backing"], ["-f"])
    source, target, store = (served.path / name for name in ("DCIM", "backup", "store"))
    make_tree(source, files, 8192)

    def by_tool():
        return {"sum": sum(run([tool, *words])["wall"]
                           for words in (["pre", source], ["create", source, target]))}

    contestants = {
        "`f2fs_snapshot pre` and `create`": by_tool,
        "manager": lambda: manager_phases(store, source),
        "manager, with digests": lambda: manager_phases(store, source, "digests"),
    }
    records = []
    for turn in range(1 if smoke else 11):
        for name in random.sample(list(contestants), len(contestants)):
            revoke(source)
            run(["sync", "-f", image])
            records.append({"name": name, "turn": turn, "units": files, **contestants[name]()})
            if name == list(contestants)[0]:
                run([tool, "destroy", target])
    return sorted(records, key=lambda record: list(contestants).index(record["name"]))


def listing():
    """The manager on trees of different sizes: its listings, and the memory that they need."""
    # Short runs scatter more.
    turns = {1000: 1} if smoke else {1000: 15, 10_000: 15, 100_000: 5, 1_000_000: 2}
    for files in turns:
        make_tree(work / f"files{files}", files, 0)
    return [{"name": f"{files:,} files", "units": files,
             **manager_phases(work / "store", work / f"files{files}", preload=str(stub_driver))}
            for files, number in turns.items() for _ in range(number)]


PARTS = {"engine": engine, "scale": scale, "depth": depth, "peers": peers, "sizes": sizes,
         "operations": operations, "messages": messages, "manager": manager, "listing": listing}
NEED_MOUNTS = {"peers", "sizes", "operations", "messages", "manager"}
OWN_NAMESPACE = ["unshare", "--mount", "--propagation", "private"]

parser = argparse.ArgumentParser()
parser.add_argument("build", type=pathlib.Path)
parser.add_argument("part", choices=PARTS)
parser.add_argument("--smoke", action="store_true")
parser.add_argument("--out", type=pathlib.Path)
parser.add_argument("--inside", action="store_true", help=argparse.SUPPRESS)
options = parser.parse_args()
if not options.inside and subprocess.run([*OWN_NAMESPACE, "mount", "-t", "tmpfs", "none", "/mnt"],
                                         stderr=subprocess.DEVNULL, check=False).returncode == 0:
    os.execvp("unshare", [*OWN_NAMESPACE, sys.executable, *sys.argv, "--inside"])
if options.part in NEED_MOUNTS and not (options.inside and os.path.exists("/dev/fuse")
                                        and os.path.exists("/dev/loop-control")):
    print(f"{options.part}: skipped, since it needs to mount FUSE file systems and XFS images")
    sys.exit(77)

build, smoke = options.build.resolve(), options.smoke
tool, emulator = build / "f2fs_snapshot", build / "emulator/f2fs_emulator"
stub_driver, stub_log = build / "bench/libstub_driver.so", build / "bench/libstub_log.so"
stubs = f"{stub_driver}:{stub_log}"
signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
with tempfile.TemporaryDirectory(dir="/dev/shm", prefix="f2fs_snapshot_bench.") as directory:
    work = pathlib.Path(directory)
    if options.inside:
        run(["mount", "-t", "tmpfs", "-o", "size=90%,nr_inodes=0", "bench", work])
    if options.part in NEED_MOUNTS:
        # Otherwise each message would wake an idle processor, which takes longer than the answer.
        os.sched_setaffinity(0, {min(os.sched_getaffinity(0))})
    begun = time.monotonic()
    try:
        figures = PARTS[options.part]()
    finally:
        if options.inside:
            subprocess.run(["umount", "-l", work], check=False)
print(f"{options.part}: {time.monotonic() - begun:.0f} s")
if options.out:
    (options.out / f"{options.part}.json").write_text(json.dumps(figures))

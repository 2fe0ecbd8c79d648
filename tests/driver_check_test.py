#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Tests of f2fs_driver_check on the emulator, on a plain directory, and on drivers with one planted
defect each.

usage: driver_check_test.py [CLASS]...   with F2FS_DRIVER_CHECK, F2FS_EMULATOR, F2FS_DEFECTS (the
preloaded layer; without it no defect is planted) and SOURCE_DIR in the environment.
F2FS_SNAPSHOT_LONG=1 runs all checks but the other races on each defect, not only the one that should
find it.
"""
import contextlib
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import tempfile
import time
import unittest
import unittest.mock

PROGRAM = os.environ["F2FS_DRIVER_CHECK"]
EMULATOR = os.environ["F2FS_EMULATOR"]
LAYER = os.environ.get("F2FS_DEFECTS", "")
SOURCE = pathlib.Path(os.environ["SOURCE_DIR"])
IS_LONG = "F2FS_SNAPSHOT_LONG" in os.environ

REQUESTS = {f"presence.{name}" for name in (
    "get-file-info", "modify-check", "clone-file", "snapshot-prepare", "snapshot-create",
    "dedup-revoke")}
MAPPED = {"mark.lost-by-mapping-before", "mark.lost-by-mapping-after",
          "mark.lost-by-mapping-of-another-process", "mark.race-mapped", "snapshot.mapped-data",
          "snapshot.one-instant-mapped"}
# What the emulator does not offer, beside mappings.
NOT_OFFERED = {f"mark.lost-by-{way}" for way in (
    "collapse-range", "insert-range", "reflink", "move-range-into", "move-range-out",
    "atomic-write", "atomic-abort", "secure-trim")} | {f"feature.{name}" for name in (
        "encrypted", "compressed", "casefolded", "pinned", "immutable", "verity", "quota")}

WAYS = """write pwrite writev append direct-io async-io io-uring splice sendfile copy-file-range
another-process truncating-open truncate-down truncate-up truncate-path fallocate punch-hole
zero-range collapse-range insert-range clone-file snapshot-create reflink move-range-into
move-range-out atomic-write atomic-abort secure-trim""".split()

# Each defect, the check that must find it, and the checks that may fail too, because they build on
# what the defect breaks.
DEFECTS = [
    *((f"no-{name.split('.')[1]}", name, "") for name in sorted(REQUESTS)),
    ("reads-beyond-record", "presence.record-bounds", ""),
    ("directories-accepted", "presence.directories", ""),
    ("size-not-compared", "presence.unknown-requests", ""),
    ("other-file-system-accepted", "presence.bad-descriptors", ""),
    ("read-only-target-accepted", "presence.read-only-target", ""),
    ("memory-not-checked", "presence.bad-memory", ""),
    ("set-places-late", "mark.placed", "mark.read-only-descriptor mark.mode-0440 mark.record-kept"),
    ("set-refuses-read-only", "mark.read-only-descriptor", ""),
    ("set-refuses-0440", "mark.mode-0440", ""),
    ("set-changes-record", "mark.record-kept", ""),
    ("mark-lost-by-read", "mark.kept-by-reads", ""),
    ("mark-lost-by-rename", "mark.kept-by-rename", ""),
    ("mark-lost-by-link", "mark.kept-by-link", "mark.per-inode"),
    ("mark-lost-by-fsync", "mark.kept-by-sync",
     "mark.kept-by-dropped-caches snapshot.keeps-mark"),
    ("mark-lost-with-pages", "mark.kept-by-dropped-caches", "snapshot.keeps-mark"),
    ("mark-shared", "mark.per-inode", ""),
    *((f"unseen-{way}", f"mark.lost-by-{way}", "mark.per-inode" if way == "pwrite" else "")
      for way in WAYS),
    *(("unseen-mapping", check, " ".join(MAPPED))
      for check in sorted(MAPPED - {"snapshot.mapped-data"})),
    ("write-clears-early", "mark.race-write", ""),
    ("write-clears-late", "mark.race-write", ""),
    ("truncate-clears-early", "mark.race-truncate", ""),
    ("truncate-clears-late", "mark.race-truncate", ""),
    ("clone-short-by-a-block", "prepare.clone-data", ""),
    ("clone-with-stale-page", "prepare.clone-data", ""),
    ("clone-of-wrong-size", "prepare.clone-data", ""),
    ("prepare-damages-source", "prepare.source-unchanged", ""),
    ("prepare-loses-write", "prepare.write-between", ""),
    ("layered-too-early", "prepare.layered", "prepare.revoke snapshot.of-snapshot"),
    ("layered-never", "prepare.layered", ""),
    ("prepare-accepts-stranger", "prepare.stranger", "presence.bad-descriptors"),
    ("prepare-leaks-clone", "prepare.space", ""),
    ("revoke-does-nothing", "prepare.revoke", ""),
    ("snapshot-inline-tail-lost", "snapshot.sizes", ""),
    ("snapshot-hole-filled", "snapshot.sparse", ""),
    ("snapshot-size-of-32-bits", "snapshot.over-4-gib", ""),
    ("snapshot-stale-page", "snapshot.cached-data",
     "snapshot.again"),
    ("snapshot-without-mapped-data", "snapshot.mapped-data", ""),
    ("snapshot-preallocation-kept", "snapshot.preallocation", "snapshot.again"),
    ("snapshot-shares-source", "snapshot.source-later", ""),
    ("snapshot-shares-back", "snapshot.snapshot-later", ""),
    ("snapshot-takes-mark", "snapshot.keeps-mark", ""),
    ("snapshot-only-once", "snapshot.again", "snapshot.preallocation cost.time cost.space"),
    ("snapshot-of-snapshot-refused", "snapshot.of-snapshot", ""),
    ("snapshot-torn", "snapshot.one-instant", ""),
    ("snapshot-torn", "snapshot.one-size", ""),
    ("snapshot-size-later", "snapshot.one-size", ""),
    *((f"snapshot-spoils-{name}", f"feature.{name}", "") for name in (
        "encrypted", "compressed", "casefolded", "pinned", "immutable", "verity")),
    ("quota-never-given-back", "feature.quota", ""),
    ("no-tmpfile-below", "file-system.tmpfile", ""),
    ("entry-types-unknown", "file-system.entry-types", ""),
    ("mode-0440-obeyed", "file-system.mode-0440", "snapshot.snapshot-later"),
    ("snapshot-of-8-mib-refused", "cost.time", "cost.space snapshot.sizes snapshot.over-4-gib"),
    ("snapshot-of-8-mib-refused", "cost.space", "cost.time snapshot.sizes snapshot.over-4-gib"),
    ("snapshot-of-4097-refused", "persistence.before", "snapshot.sizes"),
]


class Volume:
    """A mounted emulator; `path` is open to everybody."""

    def __init__(self):
        self.root = pathlib.Path(tempfile.mkdtemp(prefix="driver_check_test."))
        os.chmod(self.root, 0o755)
        self.backing, self.path = self.root / "backing", self.root / "mount"
        self.backing.mkdir()
        self.path.mkdir()
        self.start()

    def start(self):
        with open(self.root / "errors", "ab") as errors:
            # A test that is killed leaves no mount behind either.
            self.daemon = subprocess.Popen(
                ["setpriv", "--pdeathsig=TERM", EMULATOR, self.backing, self.path, "-f"],
                stderr=errors)
        while not os.path.ismount(self.path):
            if self.daemon.poll() is not None:
                raise unittest.SkipTest((self.root / "errors").read_text())
            time.sleep(0.01)
        if os.geteuid() == 0:
            os.chmod(self.path, 0o777)

    def stop(self):
        self.daemon.terminate()
        return self.daemon.wait()

    def remove(self):
        self.stop()
        shutil.rmtree(self.root)


def run(arguments, directory, volume=None, defect="", **more):
    environment = dict(os.environ)
    if defect:
        environment.update(F2FS_DEFECT=defect, F2FS_DEFECT_VOLUME=str(volume.path),
                           F2FS_DEFECT_BACKING=str(volume.backing), LD_PRELOAD=LAYER)
    return subprocess.run([PROGRAM, *arguments, str(directory)], env=environment, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False, **more)


def results(outcome):
    return {check["name"]: check for check in json.loads(outcome.stdout)["checks"]}


def names(checks, verdict):
    return {name for name, check in checks.items() if check["verdict"] == verdict}


def listed():
    lines = subprocess.check_output([PROGRAM, "--list"], text=True).splitlines()
    return dict(line.split(maxsplit=1) for line in lines)


class OnVolume(unittest.TestCase):
    def setUp(self):
        self.volume = Volume()
        self.addCleanup(self.volume.remove)

    def check_is_clean(self):
        self.assertEqual(os.listdir(self.volume.path), [])


class Healthy(OnVolume):
    def judge(self, outcome):
        checks = results(outcome)
        self.assertEqual(outcome.returncode, 0, outcome.stdout)
        self.assertEqual(names(checks, "skip"), MAPPED | NOT_OFFERED)
        for name in MAPPED:
            self.assertIn("ENODEV", checks[name]["reason"])
        self.check_is_clean()

    def test_all_holds(self):
        self.judge(run(["--json"], self.volume.path))

    @unittest.skipIf(os.geteuid() != 0, "needs root to become another user")
    def test_all_holds_for_an_ordinary_user(self):
        own = shutil.copy(PROGRAM, self.volume.root)  # the build directory may be root's alone
        command = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", own, "--json"]
        self.judge(subprocess.run([*command, self.volume.path], text=True, check=False,
                                  stdout=subprocess.PIPE))

    @unittest.skipIf(not LAYER, "needs the layer of defects")
    def test_files_with_attributes_hold_where_they_can_be_had(self):
        outcome = run(["--json", "--only", "feature"], self.volume.path, self.volume,
                      "features-served")
        self.assertEqual(names(results(outcome), "skip"), {"feature.quota"}, outcome.stdout)
        self.assertEqual(outcome.returncode, 0, outcome.stdout)


@unittest.skipIf(not LAYER, "needs the layer of defects")
class Defects(OnVolume):
    def judge(self, defect, check, others):
        races = {name for name in listed() if "race" in name or ".one-" in name}
        only = {check} | (set(listed()) - races if IS_LONG else set())
        arguments = ["--json", *(f"--only={name}" for name in sorted(only))]
        if check == "persistence.before":
            arguments += ["--stage=before"]
        elif check in races:
            arguments += ["--long"]  # ends with the first failure
        outcome = run(arguments, self.volume.path, self.volume, defect)
        checks = results(outcome)
        failed = names(checks, "FAIL")
        self.assertEqual(outcome.returncode, 1, outcome.stdout)
        self.assertIn(check, failed)
        self.assertLessEqual(failed, {check, *others.split()})
        self.assertEqual(checks[check]["clause"], listed()[check])
        for evidence in ("did", "expected", "saw", "means"):
            self.assertTrue(checks[check][evidence], evidence)
        self.check_is_clean()

    def test_each_is_found(self):
        for defect, check, others in DEFECTS:
            with self.subTest(defect=defect, check=check):
                self.judge(defect, check, others)

    def test_each_check_finds_one(self):
        found = {check for _, check, _ in DEFECTS}
        after = {"persistence.data", "persistence.layered", "persistence.marks"}  # see Persistence
        self.assertEqual(found | after, set(listed()))

    def test_a_check_that_blocks_is_ended(self):
        outcome = run(["--ktap", "--time-limit=1", "--only=snapshot.sizes", "--only=snapshot.sparse"],
                      self.volume.path, self.volume, "snapshot-blocks")
        self.assertIn("\nnot ok 1 snapshot.sizes # TIMEOUT\nok 2 snapshot.sparse\n", outcome.stdout)
        self.assertIn("# saw:      its process blocked", outcome.stdout)
        self.assertRegex(outcome.stdout, r"SNAPSHOT_CREATE .* on snapshot3000 \(O_RDWR\)\n# expected")
        self.check_is_clean()

    def test_a_full_disk_says_nothing_of_the_driver(self):
        outcome = run(["--json", "--only=file-system"], self.volume.path, self.volume, "disk-full")
        self.assertEqual(outcome.returncode, 2, outcome.stdout)
        self.assertEqual(results(outcome)["file-system.tmpfile"]["reason"], "pwrite: ENOSPC")
        self.check_is_clean()


@unittest.skipIf(not LAYER, "needs the layer of defects")
class Persistence(OnVolume):
    def reboot(self):
        self.assertEqual(run(["--stage=before"], self.volume.path).returncode, 0)
        self.assertEqual(self.volume.stop(), 0)
        self.volume.start()

    def after(self, defect=""):
        outcome = run(["--stage=after", "--json"], self.volume.path, self.volume, defect)
        self.check_is_clean()
        return names(results(outcome), "FAIL")

    def test_stages(self):
        self.assertEqual(run(["--stage=after"], self.volume.path).returncode, 2)
        self.reboot()
        self.assertEqual(run(["--stage=before"], self.volume.path).returncode, 2)
        self.assertEqual(self.after(), set())
        self.reboot()
        stage = self.volume.path / "f2fs_driver_check.stage"
        os.truncate(stage / "snapshot_of_source4097", 4096)
        self.assertEqual(self.after(), {"persistence.data"})
        self.reboot()
        self.assertEqual(self.after("snapshot-of-4097-refused"), {"persistence.layered"})
        self.reboot()
        self.assertEqual(self.after("mark-returns"), {"persistence.marks"})


class Program(OnVolume):
    def test_ktap_follows_the_rules(self):
        only = ["--only=presence", "--only=mark.kept-by-reads", "--only=feature"]
        outcome = run(["--ktap", *only], self.volume.path, self.volume,
                      LAYER and "mark-lost-by-read")
        version, plan, *lines = outcome.stdout.splitlines()
        self.assertEqual(version, "KTAP version 1")
        count = int(re.fullmatch(r"1\.\.(\d+)", plan)[1])
        tests = [line for line in lines if not line.startswith("# ")]
        self.assertEqual(len(tests), count)
        for number, line in enumerate(tests, 1):
            self.assertRegex(line, rf"^(ok|not ok) {number} [a-z0-9.-]+( # (SKIP|TIMEOUT|ERROR)\b.*)?$")
        self.assertTrue(any(" # SKIP " in line for line in tests))
        self.assertEqual(any(line.startswith("not ok") for line in tests), bool(LAYER))

    def test_signals_leave_nothing(self):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            with subprocess.Popen([PROGRAM, "--long", "--only=mark.race-write", self.volume.path],
                                  stdout=subprocess.PIPE) as program:
                while not list(self.volume.path.glob("*/mark.race-write/source")):
                    self.assertIsNone(program.poll())
                program.send_signal(number)
                self.assertEqual(program.wait(), -number)
            self.check_is_clean()

    def test_runs_side_by_side(self):
        own = self.volume.path / "own"
        own.write_text("untouched")
        command = [PROGRAM, "--only=prepare", "--only=file-system", self.volume.path]
        runs = [subprocess.Popen(command, stdout=subprocess.DEVNULL) for _ in range(3)]
        self.assertEqual([program.wait() for program in runs], [0, 0, 0])
        self.assertEqual(os.listdir(self.volume.path), ["own"])
        self.assertEqual(own.read_text(), "untouched")

    def test_a_reader_that_goes_away_leaves_nothing(self):
        script = f"'{PROGRAM}' '{self.volume.path}' --only=presence | true; echo ${{PIPESTATUS[0]}}"
        outcome = subprocess.run(["bash", "-c", script], stdout=subprocess.PIPE, check=True)
        self.assertEqual(outcome.stdout, b"2\n")
        self.check_is_clean()


class Elsewhere(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory(prefix="driver_check_test.")
        self.addCleanup(directory.cleanup)
        self.path = pathlib.Path(directory.name)

    def test_a_plain_directory_lacks_the_requests_and_nothing_else(self):
        outcome = run(["--json"], self.path)
        checks = results(outcome)
        self.assertEqual(outcome.returncode, 1)
        self.assertEqual(names(checks, "FAIL"), REQUESTS)
        self.assertEqual(names(checks, "pass"), {name for name in checks if "file-system." in name})
        text = run([], self.path).stdout
        self.assertIn("\nThis file system has none of the six snapshot requests", text)
        self.assertLess(len(text.splitlines()), 20)
        self.assertEqual(os.listdir(self.path), [])

    def refuse(self, reason, arguments, directory, **more):
        outcome = run(arguments, directory, **more)
        self.assertEqual((outcome.returncode, outcome.stdout), (2, ""))
        self.assertRegex(outcome.stderr, reason)
        self.assertEqual(outcome.stderr.count("\n"), 1)

    def test_bad_input(self):
        file = self.path / "file"
        file.touch()
        self.refuse("No such file", [], self.path / "missing")
        self.refuse("not a directory", [], file)
        self.refuse("no check is named mark.nothing", ["--only=mark.nothing"], self.path)
        self.assertEqual(run(["--unknown"], self.path).returncode, 2)
        self.assertEqual(subprocess.run([PROGRAM], stderr=subprocess.DEVNULL, check=False).returncode, 2)
        if LAYER:
            volume = unittest.mock.Mock(path=self.path, backing=self.path)
            self.refuse("O_TMPFILE: EOPNOTSUPP", [], self.path, volume=volume, defect="no-tmpfile")
        self.assertEqual(os.listdir(self.path), ["file"])

    @unittest.skipIf(os.geteuid() != 0, "needs root to mount")
    def test_small_and_read_only(self):
        for options, reason in (("size=1m", "1 MiB of space are free"), ("ro", "read-only")):
            script = f"mount -t tmpfs -o {options} none '{self.path}' && '{PROGRAM}' '{self.path}'"
            outcome = subprocess.run(["unshare", "-m", "sh", "-c", f"{script}; echo $?; ls '{self.path}'"],
                                     text=True, capture_output=True, check=True)
            self.assertEqual(outcome.stdout, "2\n", outcome.stderr)
            self.assertIn(reason, outcome.stderr)


class Contract(unittest.TestCase):
    """Every "must" of the page has a check, and every check is named in the section of its clause."""

    def setUp(self):
        page = (SOURCE / "docs/kernel-interface.md").read_text()
        parts = re.split(r"^##+ (.*)$", page, flags=re.M)
        self.sections = dict(zip(parts[1::2], parts[2::2]))

    def names_in(self, text):
        return set(re.findall(r"`([a-z-]+\.[a-z0-9-]+)`", text)) & set(listed())

    def test_each_must_has_a_check(self):
        for title, text in self.sections.items():
            text = re.sub(r"^```.*?^```", "", text, flags=re.M | re.S)
            for paragraph in re.split(r"\n\s*\n|\n(?=[-|\d])", text):
                if re.search(r"(?<!\*)\bmust\b", paragraph):
                    self.assertTrue(self.names_in(paragraph), f"{title}: {paragraph}")

    def test_each_check_is_in_its_section(self):
        for name, clause in listed().items():
            way = re.fullmatch(r"mark\.lost-by-(.*)", name)
            wanted = f"`{way[1]}`" if way else f"`{name}`"
            self.assertIn(wanted, self.sections[clause], f"{name} in {clause}")

    def test_each_name_on_the_page_is_a_check(self):
        groups = {name.split(".")[0] for name in listed()}
        for title, text in self.sections.items():
            for name in re.findall(r"`([a-z-]+\.[a-z0-9-]+)`", text):
                if name.split(".")[0] in groups and not name.endswith((".h", ".cpp")):
                    self.assertIn(name, listed(), title)


if __name__ == "__main__":
    with contextlib.suppress(KeyboardInterrupt):
        unittest.main()

#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Reads Android.bp, without Soong.

usage: blueprint.py compare BUILD   what differs from the CMake build in BUILD, line by line
       blueprint.py commands        "MODULE FILE FLAG..." for each file that is compiled for a device

BUILD needs a file .cmake/api/v1/query/codemodel-v2 before it is configured.
"""
import glob
import json
import os
import re
import shlex
import sys

from mini_soong.parser import soong

# The CMake targets whose sources make up a module, where that is not one target of the same name.
TARGETS = {
    "f2fs_snapshot": ["f2fs_snapshot_tool"],
    "f2fs_driver_check": ["driver_check"],
    "f2fs_snapshot_unit_tests": [
        "test_main", "fake_kernel", "unit_tests", "fault_sweep_tests", "limits_tests"],
    "f2fs_snapshotctl_unit_tests": ["test_main", "snapshotctl_unit_tests"],
    "f2fs_snapshot_volume_tests": [
        "test_main", "fake_kernel", "mounted_emulator", "end_to_end_tests", "resource_tests",
        "consistency_tests", "crash_tests"],
    "f2fs_snapshot_manager_volume_tests": [
        "test_main", "mounted_emulator", "manager_create_tests", "manager_store_tests",
        "manager_killed_tests", "manager_random_tests"],
    "f2fs_snapshot_paths_fuzz": ["paths_fuzz"],
    "f2fs_snapshot_requests_fuzz": ["requests_fuzz"],
}
# Built by CMake only, and why.
DEVELOPMENT_MACHINE = {
    "f2fs_emulator": "needs libfuse",
    "f2fs_emulator_requests": "part of the emulator",
    "emulator_tests": "of the emulator",
    "emulator_requests_tests": "of the emulator",
    "snapshotctl_tests": "starts the emulator",
    "snapshotctl_restore_tests": "starts the emulator",
    "driver_check_defects": "breaks the emulator",
    "memory_tests": "sets the limits of a desktop's loader",
    "limited_memory": "part of memory_tests",
    "f2fs_driver_check": "made of driver_check alone",
    "f2fs_driver_check_static": "made of driver_check alone",
}
DEVELOPMENT_MACHINE_DIRECTORIES = ("bench", "tests/jni", "googletest")

FILES = ("srcs", "corpus", "license_text", "version_script", "test_config", "init_rc", "data",
         "export_include_dirs", "local_include_dirs")
# Modules of the platform.
PLATFORM = {"jni_headers", "libarchive", "liblog"}


def read(path="Android.bp"):
    """The modules by name, with what they take from their defaults."""
    parsed = [(one.name, one.arguments) for one in soong.parseFile(path, parseAll=True)]
    named = {}
    for kind, properties in parsed:
        name = properties.get("name")
        if name is None:
            continue
        if name in named:
            raise SystemExit(f"{path}: there are two modules {name}")
        named[name] = dict(properties, kind=kind)
    for module in named.values():
        for default in module.get("defaults", []):
            if not named.get(default, {}).get("kind", "").endswith("_defaults"):
                raise SystemExit(f"{path}: {module['name']}: there are no defaults {default}")
    return {name: merged(named, name) for name in named}


def merged(named, name):
    result = {}
    for part in [*named[name].get("defaults", []), None]:
        properties = named[name] if part is None else merged(named, part)
        for key, value in properties.items():
            result[key] = result.get(key, []) + value if isinstance(value, list) else value
    return result


def is_compiled(module):
    return module["kind"].startswith("cc_") and "srcs" in module and \
        not module["kind"].endswith("_defaults")


def flags(module, source):
    """The compiler's flags, in Soong's order: those of C++ after those of both languages."""
    result = module.get("cflags", [])
    if source.endswith(".c"):
        result = result + module.get("conlyflags", [])
    else:
        result = result + ["-std=" + module.get("cpp_std", "c++17"), "-fno-exceptions",
                           "-frtti" if module.get("rtti") else "-fno-rtti"]
        result += module.get("cppflags", [])
    return [flag.replace('\\"', '"') for flag in result]


class CMake:
    """The targets of a configured build, as CMake's file API reports them."""

    def __init__(self, build):
        reply = os.path.join(build, ".cmake/api/v1/reply")
        indexes = sorted(glob.glob(reply + "/codemodel-v2-*.json"))
        if not indexes:
            raise SystemExit(f"{build}: CMake was not asked for codemodel-v2")
        self.root = os.getcwd()
        self.targets = {}
        for target in self.load(indexes[-1])["configurations"][0]["targets"]:
            details = self.load(os.path.join(reply, target["jsonFile"]))
            if details["type"] != "UTILITY":
                self.targets[target["name"]] = details

    @staticmethod
    def load(path):
        with open(path, encoding="utf-8") as file:
            return json.load(file)

    def sources(self, name):
        """The files of this project that a target compiles itself."""
        files = {os.path.relpath(os.path.join(self.root, source["path"]), self.root)
                 for source in self.targets[name]["sources"] if "compileGroupIndex" in source}
        return {file for file in files if not file.startswith("..")}

    def directory(self, name):
        return self.targets[name]["paths"]["source"]

    def version(self):
        with open("CMakeLists.txt", encoding="utf-8") as file:
            return re.search(r"project\(\w+ VERSION (\S+)", file.read())[1]


def targets_of(module):
    return TARGETS.get(module["name"], [module["name"].removeprefix("lib")])


def compare_module(module, cmake):
    targets = targets_of(module)
    missing = [name for name in targets if name not in cmake.targets]
    if missing:
        yield "CMake has no target " + ", ".join(missing)
        return
    theirs = set().union(*(cmake.sources(name) for name in targets))
    ours = set(module["srcs"])
    for file in sorted(theirs - ours):
        yield file + " is missing"
    for file in sorted(ours - theirs):
        yield file + " is not compiled by CMake's " + ", ".join(targets)


def check_module(module, named, version):
    for key in FILES:
        value = module.get(key, [])
        for pattern in [value] if isinstance(value, str) else value:
            if not glob.glob(pattern):
                yield f"{key}: there is no {pattern}"
    for key in ("header_libs", "shared_libs", "static_libs", "required", "data_libs"):
        for name in module.get(key, []):
            if name not in named and name not in PLATFORM:
                yield f"{key}: there is no module {name}"
    for text in module.get("cflags", []):
        if "_VERSION=" in text and f'\\"{version}\\"' not in text:
            yield f"{text}: the version is {version}"
    if len(set(module.get("srcs", []))) != len(module.get("srcs", [])):
        yield "srcs names a file twice"


def differences(build):
    named, cmake = read(), CMake(build)
    for module in named.values():
        found = list(check_module(module, named, cmake.version()))
        if is_compiled(module):
            found += compare_module(module, cmake)
        for text in found:
            yield f"Android.bp: {module['name']}: {text}"
    for name in sorted(set(TARGETS) - set(named)):
        yield f"Android.bp: there is no module {name}"
    known = set(DEVELOPMENT_MACHINE).union(
        *(targets_of(module) for module in named.values() if is_compiled(module)))
    for name in sorted(set(cmake.targets) - known):
        if not cmake.directory(name).startswith(DEVELOPMENT_MACHINE_DIRECTORIES) and \
                "googletest" not in cmake.directory(name):
            yield f"Android.bp: CMake's target {name} is in no module, and nothing says why"


def main(words):
    if words[:1] == ["commands"]:
        for module in read().values():
            is_for_device = is_compiled(module) and module.get("device_supported", True)
            for source in module["srcs"] if is_for_device else []:
                print(shlex.join([module["name"], source, *flags(module, source)]))
        return 0
    if words[:1] == ["compare"] and len(words) == 2:
        found = list(differences(words[1]))
        print("\n".join(found) or "Android.bp has what CMake has")
        return 1 if found else 0
    print(__doc__, file=sys.stderr)
    return 2


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))

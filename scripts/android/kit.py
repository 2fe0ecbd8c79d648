#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Compares the files of android/ with Android.bp: what they name exists, and their lines parse.

usage: kit.py      in the root of the project
"""
import json
import re
import sys
import xml.etree.ElementTree

import blueprint

DEVICE_DIRECTORY = "/data/local/tmp/f2fs_snapshot/"
TESTS = ("cc_test", "sh_test")
# Options of a service, with the least and the highest number of words after them.
OPTIONS = {"disabled": (0, 0), "oneshot": (0, 0), "user": (1, 1), "group": (1, 12),
           "capabilities": (1, 40), "restart_period": (1, 1), "timeout_period": (1, 1),
           "stdio_to_kmsg": (0, 0)}
TRIGGER = re.compile(r"on property:([\w.]+)=(\w+)")
# Programs that only a shell starts, which need no domain.
WITHOUT_CONTEXT = {"f2fs_driver_check"}


def lines_of(path):
    """The lines of a file without comments: PATH:NUMBER, whether indented, words."""
    with open(path, encoding="utf-8") as file:
        for number, line in enumerate(file, 1):
            if line.strip() and not line.lstrip().startswith("#"):
                yield f"{path}:{number}", line[0].isspace(), line.split()


def installed(modules):
    return {"/system_ext/bin/" + module["name"] for module in modules.values()
            if module["kind"] == "cc_binary" and module.get("system_ext_specific")}


def check_init(path, modules):
    programs, services, started, section = installed(modules), {}, [], ""
    for place, is_inside, words in lines_of(path):
        if not is_inside:
            section = words[0]
            if section == "service":
                services[words[1]] = words[2:]
                if len(words) < 3 or words[2] not in programs:
                    yield f"{place}: Android.bp installs no {' '.join(words[2:3])}"
            elif not TRIGGER.fullmatch(" ".join(words)):
                yield f"{place}: neither a service nor a trigger"
            elif words[1].startswith("property:init.svc."):
                started.append((place, words[1].split("=")[0].split(".", 2)[2]))
        elif section == "on":
            if words[0] != "start" or len(words) != 2:
                yield f"{place}: unknown command {words[0]}"
            started.append((place, words[-1]))
        else:
            least, most = OPTIONS.get(words[0], (1, 0))
            if not least <= len(words) - 1 <= most:
                yield f"{place}: unknown option, or number of words behind it: {words[0]}"
    for place, name in started:
        if name not in services:
            yield f"{place}: there is no service {name}"
    for name in set(services) - {name for _, name in started}:
        yield f"{path}: nothing starts {name}"


def check_contexts(path, modules):
    patterns = [(place, words[0]) for place, _, words in lines_of(path)]
    programs = {one for one in installed(modules) if one.split("/")[-1] not in WITHOUT_CONTEXT}
    for place, pattern in patterns:
        if not any(re.fullmatch(pattern, program) for program in programs):
            yield f"{place}: Android.bp installs no {pattern}"
    for program in sorted(programs):
        if sum(1 for _, pattern in patterns if re.fullmatch(pattern, program)) != 1:
            yield f"{path}: {program} does not have one context"


def check_product(path, modules):
    with open(path, encoding="utf-8") as file:
        text = re.sub(r"#.*", "", file.read()).replace("\\\n", " ")
    for line in filter(str.strip, text.splitlines()):
        name, operator, *values = line.split()
        if operator != "+=":
            yield f"{path}: {line}"
        for value in values:
            if name.startswith("PRODUCT_PACKAGES") and value not in modules:
                yield f"{path}: there is no module {value}"
            elif name.endswith("_DIRS") and not value.endswith("/android/sepolicy"):
                yield f"{path}: {value} is not the policy's directory"
            elif not name.startswith("PRODUCT_PACKAGES") and not name.endswith("_DIRS"):
                yield f"{path}: unknown variable {name}"


def check_tests(path, modules):
    root = xml.etree.ElementTree.parse(path).getroot()
    options = [(one.get("name"), one.get("key"), one.get("value")) for one in root.iter("option")]
    pushed = {value: key for name, key, value in options if name == "push-file"}
    data = [one for module in modules.values() if module.get("test_config") == path
            for key in ("data_bins", "data_libs") for one in module.get(key, [])]
    sources = {key[:-3] if key.endswith(".so") else key for key in pushed.values()}
    for name in sorted(sources - set(modules)):
        yield f"{path}: there is no module {name}"
    for name in sorted(set(data) - sources):
        yield f"{path}: {name} is not pushed"
    hold = " ".join(modules["f2fs_snapshot_manager_volume_tests"]["cflags"])
    if not any(f'="{one}"' in hold.replace("\\", "") for one in pushed):
        yield f"{path}: what the tests preload is not where they look for it"
    commands = [value.split() for name, _, value in options if name == "test-command-line"]
    if len(commands) != len(data) - len([one for one in data if one.startswith("lib")]):
        yield f"{path}: not every program is run"
    for words in commands:
        if words[0] != "sh" or words[1] not in pushed or DEVICE_DIRECTORY + words[2] not in pushed:
            yield f"{path}: not pushed: {' '.join(words)}"


def check_mapping(path, modules):
    with open(path, encoding="utf-8") as file:
        mapping = json.loads(re.sub(r"^//.*", "", file.read(), flags=re.MULTILINE))
    named = [one["name"] for tests in mapping.values() for one in tests]
    for name in named:
        if modules.get(name, {}).get("kind") not in TESTS:
            yield f"{path}: there is no test {name}"
    for module in modules.values():
        runs = module["name"] in named or any(
            module["name"] in modules[one].get("data_bins", []) for one in named if one in modules)
        if module["kind"] in TESTS and not runs:
            yield f"{path}: {module['name']} is run by nobody"


def main():
    modules = blueprint.read()
    found = [
        *check_init("android/f2fs_snapshot_nightly.rc", modules),
        *check_contexts("android/sepolicy/file_contexts", modules),
        *check_product("android/f2fs_snapshot.mk", modules),
        *check_tests("android/AndroidTest.xml", modules),
        *check_mapping("TEST_MAPPING", modules),
    ]
    print("\n".join(found) or "what android/ names is in Android.bp")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Writes what run.py measured between the markers of DOCS_DIR/benchmarks.md, and draws the plots.

usage: report.py RESULTS_DIR DOCS_DIR
"""
import collections
import json
import os
import pathlib
import platform
import re
import statistics
import subprocess
import sys
import textwrap

results, docs = map(pathlib.Path, sys.argv[1:])
page = (docs / "benchmarks.md").read_text()


def load(part):
    """The records of a part, by name, in the order in which the names first occur."""
    by_name = collections.defaultdict(list)
    for record in json.loads((results / f"{part}.json").read_text()):
        by_name[record["name"]].append(record)
    return by_name


def quartiles(values):
    return statistics.quantiles(values, n=4) if len(values) > 1 else 3 * list(values)


def spread(values, digits=2):
    """Median and quartiles, as a table shows them."""
    low, middle, high = (f"{value:.{digits}f}" for value in quartiles(values))
    return f"{middle} ({low}–{high})"


def middle(values):
    return quartiles(values)[1]


def write(part, *lines):
    global page
    text = f"<!-- {part} -->\n" + "\n".join(lines) + f"\n<!-- end of {part} -->"
    place = re.compile(f"<!-- {part} -->.*?<!-- end of {part} -->", re.S)
    page, found = place.subn(lambda _: text, page)
    assert found == 1, part


def table(part, head, rows):
    cells = [head, ["---"] + ["---:"] * (len(head) - 1), *rows]
    write(part, *("| " + " | ".join(map(str, row)) + " |" for row in cells))


def plot(name, data, commands):
    style = """set terminal svg size 720,400 font "sans-serif,13" background "white" noenhanced
        set grid ytics lc rgb "#dddddd"; set border 3; set tics nomirror; set key outside top center horizontal
        set style line 1 lc rgb "#1b6ca8" lw 2 pt 7; set style line 2 lc rgb "#d1495b" lw 2 pt 5
        """
    block = "$data << END\n" + "\n".join("\t".join(map(str, row)) for row in data) + "\nEND\n"
    (docs / "img").mkdir(exist_ok=True)
    script = f"{style}\nset output '{docs}/img/{name}.svg'\n{block}{commands}"
    subprocess.run(["gnuplot"], input=script, text=True, check=True)


def machine():
    cpuinfo = pathlib.Path("/proc/cpuinfo").read_text()
    cpu = re.search(r"model name\s*: (.*)", cpuinfo)[1]
    virtual = "virtual machine" if "hypervisor" in cpuinfo else "machine"
    release = re.match(r"[\d.]+", platform.release())[0]
    memory = os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES") / 2**30
    write("machine", f"Measured on a {os.cpu_count()}-core {virtual}: {cpu}, {memory:.0f} GiB,"
                     f" Linux {release}, {platform.machine()}.")


def user_share(records, user, wall):
    return f"{sum(each[user] for each in records) / sum(each[wall] for each in records):.1%}"


def engine():
    rows, log_rows = [], []
    for name, records in load("engine").items():
        ours, theirs = ([each[side] for each in records] for side in ("ours", "theirs"))
        if not name.startswith("log/"):
            ratios = [our / their for our, their in zip(ours, theirs)]
            rows.append([name, spread(ours), spread(theirs), spread(ratios, 3),
                         user_share(records, "our_user", "ours"),
                         user_share(records, "their_user", "theirs")])
            continue
        _, operation, lines = name.split("/")
        extra = [our - their for our, their in zip(ours, theirs)]
        log_rows.append([operation, f"{float(lines):.2f}", spread(extra),
                         f"{middle(extra) / float(lines):.2f}" if float(lines) >= 1 else "–",
                         f"{middle(extra) / middle(ours):.0%}"])
    table("engine", ["operation", "engine, µs per file", "bare calls, µs per file", "ratio",
                     "user time, engine", "user time, bare"], rows)
    table("log", ["operation", "lines per file", "µs per file", "µs per line",
                  "share of the whole"], log_rows)


def per_unit(records, step):
    return [each[step]["wall"] * 1e6 / each["units"] for each in records]


def growth(part, unit):
    table(part, ["", f"create, µs per {unit}", f"destroy, µs per {unit}", "peak memory, MiB"],
          [[name, spread(per_unit(records, "create")), spread(per_unit(records, "destroy")),
            f"{records[0]['peak_kib'] / 1024:.1f}"] for name, records in load(part).items()])


def scale():
    growth("scale", "file")
    plot("files", [[records[0]["units"], *quartiles(per_unit(records, "create")),
                    *quartiles(per_unit(records, "destroy"))]
                   for records in load("scale").values()],
         """set logscale x; set format x "%.0s%c"; set xlabel "files"; set xrange [700:1400000]
        set ylabel "µs per file"; set yrange [0:*]
        plot $data using 1:3:2:4 with yerrorlines ls 1 title "create", \\
             $data using 1:6:5:7 with yerrorlines ls 2 title "destroy" """)


def peers():
    contestants = load("peers")
    for step in "make", "remove":
        rows = []
        for name, records in contestants.items():
            times = {key: statistics.mean(each[step][key] * 1e6 / each["units"] for each in records)
                     for key in ("user", "system", "daemon")}
            rows.append([name, spread(per_unit(records, step), 1),
                         f"{times['user']:.1f}", f"{times['system']:.1f}",
                         f"{times['daemon']:.1f}" if "emulator" in name else "–",
                         f"{records[0][step]['calls'] / records[0]['units']:.1f}"])
        table(f"peers-{step}",
              ["µs per file", "wall", "user", "system", "daemon", "system calls"], rows)
    bars = []
    for name, records in contestants.items():
        words = textwrap.wrap(re.sub("[`,]", "", name), 17, break_on_hyphens=False)
        bars.append(['"' + "\\n".join(words) + '"', middle(per_unit(records, "make")),
                     middle(per_unit(records, "remove"))])
    plot("peers", [bar for bar in bars if "emulator" not in bar[0]],
         """set style data histograms; set style fill solid 0.9; set boxwidth 0.9; set bmargin 4
        set ylabel "µs per file"; set yrange [0:*]; set xtics scale 0
        plot $data using 2:xtic(1) ls 1 title "make", $data using 3 ls 2 title "remove" """)


def sizes():
    lengths = load("sizes")
    names = {4 << 10: "4 KiB", 1 << 20: "1 MiB", 64 << 20: "64 MiB", 1 << 30: "1 GiB"}
    table("sizes", ["file", "create, ms", "`cp --reflink=never`, ms", "disk space taken, KiB"],
          [[names[length], *(spread([each[step]["wall"] * 1e3 for each in records], 1)
                             for step in ("create", "copy")),
            f"{middle([each['grown'] for each in records]) / 1024:.0f}"]
           for length, records in lengths.items()])
    plot("sizes", [[length, *(value * 1e3 for step in ("create", "copy")
                              for value in quartiles([each[step]["wall"] for each in records]))]
                   for length, records in lengths.items()],
         """set logscale xy; set format x "%.0b %BB"; set xlabel "size of the file"; set ylabel "ms"
        set xtics (""" + ", ".join(f'"{name}" {length}' for length, name in names.items()) + """)
        plot $data using 1:3:2:4 with yerrorlines ls 1 title "snapshot", \\
             $data using 1:6:5:7 with yerrorlines ls 2 title "copy" """)


def operations():
    table("operations", ["operation", "emulator, µs", "bindfs, µs", "ratio"],
          [[name, spread([each["ours"] for each in records]),
            spread([each["theirs"] for each in records]),
            spread([each["ours"] / each["theirs"] for each in records])]
           for name, records in load("operations").items()])


def messages():
    steps = {name: records[0] for name, records in load("messages").items()}
    totals = collections.Counter()
    for step in steps.values():
        totals.update({word: number / step["files"] for word, number in step["messages"].items()})
    words = [word for word, number in totals.most_common() if number >= 0.1]
    rows = []
    for name, step in steps.items():
        numbers = [step["messages"].get(word, 0) for word in words]
        numbers.append(sum(step["messages"].values()))
        rows.append([name, *(f"{number / step['files']:.2f}" for number in numbers)])
    table("messages", ["messages per file", *words, "all"], rows)


def manager():
    contestants = load("manager")
    tool = {record["turn"]: record["sum"] for record in next(iter(contestants.values()))}
    rows, shares = [], []
    for name, records in contestants.items():
        ratio = spread([each["sum"] / tool[each["turn"]] for each in records])
        listings = [(each["list"] + each["compare"]) / each["sum"] for each in records
                    if "list" in each]
        rows.append([name, spread([each["sum"] * 1e6 / each["units"] for each in records], 1), ratio,
                     f"{middle(listings):.1%} ({max(listings):.1%})" if listings else "–"])
        if listings:
            shares.append([name, *(f"{middle([each[step] * 1e6 / each['units'] for each in records]):.1f}"
                                   for step in ("list", "create", "check", "compare", "record",
                                                "sync", "other"))])
    table("manager", ["", "create, µs per file", "ratio", "both listings, median (largest)"], rows)
    table("manager-phases", ["µs per file", "first listing", "create", "check passes",
                             "second listing", "manifest", "sync", "other"], shares)


def listing():
    per_size = load("listing")

    def per_file(records, key):
        return [each[key] * 1e6 / each["units"] for each in records]

    table("listing", ["", "both listings, µs of processor per file",
                      "create as a whole, µs per file", "peak memory, MiB", "bytes per file"],
          [[name, spread(per_file(records, "listings_processor")), spread(per_file(records, "sum"), 1),
            f"{middle([each['peak_kib'] for each in records]) / 1024:.1f}",
            f"{middle([each['peak_kib'] for each in records]) * 1024 / records[0]['units']:,.0f}"]
           for name, records in per_size.items()])
    plot("listing", [[records[0]["units"], *quartiles(per_file(records, "listings_processor")),
                      *quartiles(per_file(records, "sum"))] for records in per_size.values()],
         """set logscale x; set format x "%.0s%c"; set xlabel "files"; set xrange [700:1400000]
        set ylabel "µs per file"; set yrange [0:*]
        plot $data using 1:3:2:4 with yerrorlines ls 1 title "both listings, processor", \\
             $data using 1:6:5:7 with yerrorlines ls 2 title "create as a whole" """)


machine()
for part, show in {"engine": engine, "scale": scale, "depth": lambda: growth("depth", "level"),
                   "peers": peers, "sizes": sizes, "operations": operations,
                   "messages": messages, "manager": manager, "listing": listing}.items():
    if (results / f"{part}.json").exists():
        show()
    else:
        print(f"report.py: no figures for {part}: its tables stay as they are")
(docs / "benchmarks.md").write_text(page)

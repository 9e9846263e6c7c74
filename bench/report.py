#!/usr/bin/env python3
"""Merges the results of the benchmarks into one JSON file, and prints such a file as tables.

report.py merge BUILD_FOLDER FILTER RESULTS_FOLDER OUTPUT
report.py print JSON

The merged file holds "collector" (the measurements of collector_bench), "library" (nanoseconds per
item by benchmark name, medians), "memory" (bytes of heap per item), "allocations", "instructions"
and "growth" (counts by name; of the last, at 1,000 items, at many, and their ratio) and "size" (the
stripped product). A part that is not there was left out by the filter.
"""
import json
import os
import re
import subprocess
import sys
import tempfile

PRODUCT = ("lib/libTavlenCommon.so", "bin/TavlenLogger")

# ------------------------------------------------------------------------------------------- merge


def read_json(path):
    """What a benchmark wrote; nothing where it had nothing to write."""
    if not os.path.exists(path) or os.path.getsize(path) == 0:
        return {}
    with open(path, encoding="utf-8") as file:
        return json.load(file)


def plain_name(name):
    """A benchmark's name without the parts that only tell how it was run."""
    how = r"/(real_time|process_time|manual_time|(min_time|iterations|repeats):[^/]*)"
    return re.sub(how, "", name)


def natural_order(name):
    """A sort key by which 9 comes before 10."""
    return [part.zfill(12) if part.isdigit() else part for part in re.split(r"(\d+)", name)]


def nanoseconds(run):
    """Per item, or per iteration of a benchmark that does not count items."""
    if "per_item" in run:
        return run["per_item"] * 1e9
    return run["cpu_time"] * {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}[run["time_unit"]]


def library_medians(results):
    medians = {}
    for run in results.get("benchmarks", []):
        if run.get("error_occurred") or run.get("skipped"):
            sys.exit(f"bench: {run['name']}: {run.get('error_message', 'failed')}")
        if run.get("aggregate_name") == "median":
            medians[plain_name(run["run_name"])] = round(nanoseconds(run), 4)
    return dict(sorted(medians.items(), key=lambda item: natural_order(item[0])))


def library_memory(results):
    """Bytes per item, which are the same in every repetition."""
    runs = results.get("benchmarks", [])
    return {plain_name(run["run_name"]): run["bytes_per_item"] for run in runs
            if run.get("aggregate_name") == "median" and "bytes_per_item" in run}


def read_counts(path, columns=1):
    """{name: numbers} of a table of words and numbers, as the counting programs print them."""
    counts = {}
    if os.path.exists(path):
        with open(path, encoding="utf-8") as file:
            lines = [line.split() for line in file]
        for words in lines:
            numbers = words[-columns:]
            if len(words) > columns and all(re.fullmatch(r"[\d.]+", n) for n in numbers):
                counts[" ".join(words[:-columns])] = [float(n) for n in numbers]
    return counts


def stripped_size(path):
    with tempfile.TemporaryDirectory() as folder:
        stripped = os.path.join(folder, "stripped")
        subprocess.run(["strip", "-o", stripped, path], check=True)
        return os.path.getsize(stripped)


def needed_libraries(path):
    dynamic = subprocess.run(["readelf", "-dW", path], check=True, capture_output=True, text=True)
    return re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic.stdout)


def product_sizes(build):
    paths = {os.path.basename(name): os.path.join(build, name) for name in PRODUCT}
    return [
        {"file": name, "bytes": stripped_size(path), "needs": needed_libraries(path)}
        for name, path in paths.items()
    ]


def merge(build, pattern, folder, output):
    library = read_json(os.path.join(folder, "library.json"))
    memory = library_memory(library)
    medians = library_medians(library)
    parts = {
        "collector": read_json(os.path.join(folder, "collector.json")).get("measurements", []),
        "library": {name: time for name, time in medians.items() if name not in memory},
        "memory": memory,
        "allocations": read_counts(os.path.join(folder, "allocations.txt")),
        "instructions": read_counts(os.path.join(folder, "instructions.txt")),
        "growth": read_counts(os.path.join(folder, "growth.txt"), columns=3),
        "size": product_sizes(build) if re.search(pattern, "size") else [],
    }
    parts = {name: part for name, part in parts.items() if part}
    if not parts:
        sys.exit(f"bench: no benchmark matches {pattern}")
    with open(output, "w", encoding="utf-8") as file:
        json.dump(parts, file, indent=1)
        file.write("\n")


# ------------------------------------------------------------------------- groups of the library's


def growth_of(library):
    """{work: {size: ns}} of the benchmarks whose name ends in a size, such as Encode/blob/1000."""
    growth = {}
    for name, value in library.items():
        work, _, size = name.rpartition("/")
        if work and size.isdigit():
            growth.setdefault(work, {})[int(size)] = value
    return growth


def growth_ratio(times):
    """The largest size's time per item to that at 1,000; to the smallest's where 1,000 is none."""
    return times[max(times)] / times.get(1000, times[min(times)])


def growth_family(work):
    """Which table a work is shown in: one of those that go with it."""
    first = work.split("/")[0]
    families = {"Encode": "structures", "Decode": "structures"}
    families.update({"Build": "messages", "Extract": "messages"})
    return families.get(first, "nesting" if first.startswith("Nest") else "other")


def codec_of(library):
    """{"event encode": {"ours": ns, "limit": ns, ...}} of names like Codec/event/encode/ours."""
    codec = {}
    for name, value in library.items():
        parts = name.split("/")
        if parts[0] == "Codec" and len(parts) == 4:
            codec.setdefault(f"{parts[1]} {parts[2]}", {})[parts[3]] = value
    return codec


def log_reference(name):
    """What a log call is compared with, under as many threads as itself; LockTime is no call."""
    call, slash, threads = name.partition("/")
    return ("LockTime" if call in ("LogRefused", "LockTime") else "LogFprintf") + slash + threads


# ------------------------------------------------------------------------------------------ tables


def shown(value, digits=2):
    return "-" if value is None else f"{value:,.{digits}f}"


def ratio(values, name, other):
    if name not in values or not values.get(other):
        return None
    return values[name] / values[other]


def print_table(title, head, rows):
    """Columns as wide as they need to be, words to the left and numbers to the right."""
    if not rows:
        return
    cells = [head] + rows
    widths = [max(len(row[i]) for row in cells) for i in range(len(head))]
    words = [not any(c.isdigit() for row in rows for c in row[i][:1]) for i in range(len(head))]
    words[0] = True
    print(f"\n{title}")
    for row in cells:
        parts = [
            cell.ljust(width) if is_word else cell.rjust(width)
            for cell, width, is_word in zip(row, widths, words)
        ]
        print("  ".join(parts).rstrip())


def print_collector(measurements):
    rows = [
        [m["scenario"], m["receiver"], m["quantity"], f"{m['median']:,.6g}", m["unit"],
         shown(m["ratio"]), str(len(m["values"]))]
        for m in measurements
    ]
    head = ["whole process", "receiver", "quantity", "median", "unit", "ratio", "runs"]
    title = "Ratios to limit_loop (of the start: to empty_program), medians of pairs"
    print_table(title, head, rows)


def print_log_calls(library):
    names = [n for n in library if re.match(r"Log[A-Z]|LockTime", n)]
    rows = []
    for name in names:
        against = log_reference(name)
        compared = against != name and against in library
        rows.append([name, shown(library[name]), shown(ratio(library, name, against)),
                     f"/ {against}" if compared else ""])
    print_table("A record's call", ["", "ns", "ratio", ""], rows)
    return names


def print_codec(library):
    codec = codec_of(library)
    head = ["codec", "ours ns", "limit ns", "/ limit", "protobuf ns", "/ protobuf"]
    rows = [
        [work, shown(t.get("ours")), shown(t.get("limit")), shown(ratio(t, "ours", "limit")),
         shown(t.get("protobuf")), shown(ratio(t, "ours", "protobuf"))]
        for work, t in codec.items()
    ]
    print_table("Structures to bytes and back, against hand-written code and a peer", head, rows)
    return [n for n in library if n.startswith("Codec/") and n.count("/") == 3]


def print_growth(library):
    growth = growth_of(library)
    for family in ("structures", "messages", "nesting", "other"):
        works = {w: t for w, t in growth.items() if growth_family(w) == family}
        sizes = sorted({size for times in works.values() for size in times})
        base = "1,000" if 1000 in sizes else "first"
        rows = [
            [work] + [shown(times.get(size), 3) for size in sizes] + [shown(growth_ratio(times))]
            for work, times in works.items()
        ]
        head = ["ns per item, of"] + [f"{size:,}" for size in sizes] + [f"last/{base}"]
        print_table(f"Growth: {family}", head, rows)
    return [n for n in library if n.rpartition("/")[2].isdigit() and "/" in n]


def print_library(library):
    done = set(print_log_calls(library) + print_codec(library) + print_growth(library))
    rows = [[name, shown(library[name])] for name in library if name not in done]
    print_table("Others", ["", "ns"], rows)


def print_memory(memory):
    rows = [[name, shown(count, 0)] for name, count in memory.items()]
    print_table("Heap per item of a decoded structure", ["", "bytes"], rows)


def print_counts(title, counts):
    """One column per codec where the names tell codecs apart, else one."""
    codecs = {name: parts for name in counts if len(parts := name.rsplit("/", 1)) == 2}
    kinds = list(dict.fromkeys(kind for _, kind in codecs.values()))
    works = list(dict.fromkeys(work for work, _ in codecs.values()))
    rows = [
        [work] + [shown(counts.get(f"{work}/{kind}", [None])[0], 0) for kind in kinds]
        for work in works
    ]
    print_table(title, ["by codec"] + kinds, rows)
    rows = [[name, shown(count[0], 0)] for name, count in counts.items() if name not in codecs]
    print_table(title, ["per record", "count"], rows)


def print_instruction_growth(growth):
    rows = [[name, shown(a, 1), shown(b, 1), shown(r, 3)] for name, (a, b, r) in growth.items()]
    head = ["instructions per item, of", "1,000", "many", "ratio"]
    print_table("Growth: messages, counted", head, rows)


def print_size(sizes):
    rows = [[s["file"], f"{s['bytes']:,}", " ".join(s["needs"])] for s in sizes]
    print_table("Size, stripped", ["file", "bytes", "needs"], rows)


def print_all(path):
    results = read_json(path)
    print_collector(results.get("collector", []))
    print_library(results.get("library", {}))
    print_memory(results.get("memory", {}))
    print_counts("Allocations", results.get("allocations", {}))
    print_counts("Instructions", results.get("instructions", {}))
    print_instruction_growth(results.get("growth", {}))
    print_size(results.get("size", []))


def main(arguments):
    if len(arguments) == 5 and arguments[0] == "merge":
        merge(*arguments[1:])
    elif len(arguments) == 2 and arguments[0] == "print":
        print_all(arguments[1])
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    main(sys.argv[1:])

#!/usr/bin/env python3
"""Runs the benchmarks and puts their figures into docs/performance.md and docs/idle.svg.

  bench/report.py               runs all benchmarks (11 minutes), then rewrites the tables
  bench/report.py compare       runs only this program (7 minutes)
  bench/report.py --resume      goes on with a run that has ended early
  bench/report.py --short       runs all for a moment, for a look; the page says so
  bench/report.py --from DIR    rewrites the tables from what script/bench --json DIR has left

Each program's figures stay in build/figures, where --resume and a run of some programs find those of the others.

A median of fewer than eleven rounds says little. Such figures are refused, unless --short is given.

A table stands between the lines "<!-- figures: PROGRAM -->" and "<!-- /figures -->" and is rewritten whole, so the
figures of a program that has not run are taken out. With "machine" in place of a program it says where the figures
come from, with "size" how large the libraries are, and with "calls" how many system calls they make.
"""

import argparse
import glob
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile

PAGE = "docs/performance.md"
DIRECTORY = "build/figures"
BEGIN = re.compile(r"^<!-- figures: ([\w-]+) -->$")
END = "<!-- /figures -->"
# What bench/compare has measured, such as zel_ns, and in a column of its own libuv_p99_us.
COUNTER = re.compile(r"(.+?)_(ns|us|p99_us|sleeps)$")
# Seconds of all ways together for each benchmark. A round of lateness takes half a second.
MIN_TIME = {"lateness": 15, "compare": 12}
DEFAULT_MIN_TIME = 4
FEWEST_ROUNDS = 11
LOOPS = {"zel": "libzel.so", "Asio": None, "GLib": "libglib-2.0.so", "libev": "libev.so", "libevent": "libevent_core-",
         "libuv": "libuv.so", "sd-event": "libsystemd.so"}
CONTEXT = ["machine", "processors", "kernel", "compiler", "commit", "date", *LOOPS, "command"]
COMPARE = "build/release/bench/bin/compare"
# What is run once under strace, and how many operations that is.
TRACED = {"slices_of_tasks/tasks:1000": 10000, "timers_due_at_once/timers:10000": 10000}


def measure(short, wanted, resume):
    """Runs the programs; the JSON of each is then in DIRECTORY."""
    if not wanted and not resume:
        shutil.rmtree(DIRECTORY, ignore_errors=True)
    build = ["script/bench", "--", "--benchmark_list_tests"]
    subprocess.run(build, check=True, stdout=subprocess.DEVNULL)
    with open("build/release/bench/programs", encoding="utf-8") as file:
        programs = file.read().split()
    if set(wanted) - set(programs):
        raise SystemExit(f"report: the programs are {', '.join(programs)}")
    for program in wanted or programs:
        path = f"{DIRECTORY}/{program}.json"
        seconds = 0.02 if short else MIN_TIME.get(program, DEFAULT_MIN_TIME)
        if resume and os.path.exists(path):
            with open(path, encoding="utf-8") as file:
                result = json.load(file)
        else:
            result = run(program, seconds)
        strengthen(program, result, 3 * seconds, 1 if short else FEWEST_ROUNDS)
        if program == "compare" and "size" not in result:
            result["size"] = sizes()
            result["calls"] = system_calls(loops_of(result))
        os.makedirs(DIRECTORY, exist_ok=True)
        with open(path, "w", encoding="utf-8") as file:
            json.dump(result, file, indent=1)


def run(program, seconds, *arguments):
    # A program that is interrupted leaves half a file, which is not to be taken for figures.
    with tempfile.TemporaryDirectory() as fresh:
        command = ["script/bench", "--json", fresh, program, "--", f"--benchmark_min_time={seconds}", *arguments]
        subprocess.run(command, check=True)
        with open(f"{fresh}/{program}.json", encoding="utf-8") as file:
            return json.load(file)


def strengthen(program, result, seconds, fewest):
    """Runs the benchmarks again that failed or had fewer rounds, as happens on a busy machine."""
    for _ in range(2):
        weak = [benchmark["name"] for benchmark in result["benchmarks"]
                if benchmark.get("error_occurred") or benchmark["iterations"] < fewest]
        if not weak:
            break
        print(f"report: again: {', '.join(weak)}")
        again = run(program, seconds, f"--benchmark_filter=^({'|'.join(weak)})$")
        better = {benchmark["name"]: benchmark for benchmark in again["benchmarks"]}
        result["benchmarks"] = [better.get(benchmark["name"], benchmark) for benchmark in result["benchmarks"]]


def failures(result):
    return [f"{benchmark['name']}: {benchmark['error_message']}"
            for benchmark in result["benchmarks"] if benchmark.get("error_occurred")]


def loops_of(result):
    """zel, the bare loop, and the others by name."""
    names = {match[1] for benchmark in result["benchmarks"] for match in map(COUNTER.match, benchmark) if match}
    return sorted(names, key=lambda name: (name != "zel", name != "bare", name.casefold()))


def sizes():
    """The KiB of each stripped library that the comparison is linked with."""
    linked = subprocess.run(["ldd", COMPARE], check=True, capture_output=True, text=True).stdout
    found = {}
    with tempfile.TemporaryDirectory() as directory:
        for name, library in LOOPS.items():
            match = library and re.search(rf"^\s*{re.escape(library)}\S* => (\S+)", linked, re.M)
            if match:
                subprocess.run(["strip", "-o", f"{directory}/{name}", match[1]], check=True)
                found[name] = os.path.getsize(f"{directory}/{name}") / 1024
    return found


def system_calls(loops):
    """The system calls of one operation of each loop, or nothing when they cannot be traced. What the program calls
    for its start is little beside so many operations."""
    found = {piece: {} for piece in TRACED}
    try:
        for piece, operations in TRACED.items():
            for loop in loops:
                with tempfile.NamedTemporaryFile("r", encoding="utf-8") as summary:
                    command = ["strace", "-f", "-c", "-U", "calls,name", "-o", summary.name, COMPARE,
                               f"--benchmark_filter=^{piece}/", "--benchmark_min_time=1e-9"]
                    subprocess.run(command, check=True, capture_output=True,
                                   env=dict(os.environ, ZEL_BENCH_LOOPS=loop))
                    calls = int(re.search(r"^\s*(\d+) total$", summary.read(), re.M)[1])
                found[piece][loop] = calls / operations
    except (OSError, subprocess.CalledProcessError) as failure:
        print(f"report: system calls are not counted: {failure}")
        return {}
    return found


def load(directory):
    results = {}
    for path in sorted(glob.glob(f"{directory}/*.json")):
        with open(path, encoding="utf-8") as file:
            text = file.read()
        if not text.strip():
            continue
        result = json.loads(text)
        if failures(result):
            raise SystemExit(f"report: {path}: {', '.join(failures(result))}")
        results[os.path.splitext(os.path.basename(path))[0]] = result
    if not results:
        raise SystemExit(f"report: no results in {directory}")
    return results


def refuse_few_rounds(results):
    few = [f"  {program}: {benchmark['run_name']}: {benchmark['iterations']}"
           for program, result in sorted(results.items())
           for benchmark in result["benchmarks"] if benchmark["iterations"] < FEWEST_ROUNDS]
    if few:
        raise SystemExit("\n".join([f"report: fewer than {FEWEST_ROUNDS} rounds (more time for the program in MIN_TIME,"
                                    " or --short for a look):", *few]))


def counters(benchmark):
    """The benchmark's own counters, the compared ones first."""
    standard = {"family_index", "per_family_instance_index", "repetitions", "repetition_index", "threads",
                "iterations", "real_time", "cpu_time"}
    names = [name for name, value in benchmark.items() if isinstance(value, (int, float)) and name not in standard]
    first = ["zel_ns", "zel_us", "bare_ns", "bare_us", "ratio"]
    return [name for name in first if name in names] + [name for name in names if name not in first]


def figure(name, value):
    if name.startswith("ratio"):
        return f"{value:.2f}"
    return f"{value:,.0f}" if abs(value) >= 100 or value == int(value) else f"{value:.1f}"


def families_of(result):
    """The benchmarks by name, each with its arguments in words."""
    families = {}
    for benchmark in result["benchmarks"]:
        family, *arguments = benchmark["run_name"].split("/")
        arguments = [argument for argument in arguments if argument != "manual_time"]
        families.setdefault(family, []).append((" ".join(arguments).replace(":", " "), benchmark))
    return families


def tables(result):
    """One table for each benchmark, with a row for each of its arguments, and above it what one operation is."""
    lines = []
    for family, rows in families_of(result).items():
        columns = []
        for _, benchmark in rows:
            columns += [name for name in counters(benchmark) if name not in columns]
        lines += ["", f"`{family}`: {rows[0][1].get('label', '')}", ""]
        body = [(arguments, [figure(name, benchmark[name]) if name in benchmark else "" for name in columns]
                 + [f"{benchmark['iterations']:,}"]) for arguments, benchmark in rows]
        lines += grid([f"`{name}`" for name in columns] + ["rounds"], body)
    return lines[1:]


def grid(columns, rows):
    return ["| | " + " | ".join(columns) + " |", "|---|" + "---:|" * len(columns),
            *(f"| {name} | " + " | ".join(cells) + " |" for name, cells in rows)]


def loop_tables(result):
    """The same with a row for each loop and a column for each argument, since there are more loops than arguments."""
    lines = []
    for family, rows in families_of(result).items():
        loops = loops_of({"benchmarks": [benchmark for _, benchmark in rows]})
        metrics = [metric for metric in ("ns", "us", "p99_us", "sleeps") if f"{loops[0]}_{metric}" in rows[0][1]]
        unit = {"ns": "ns", "us": "µs"}[metrics[0]]
        titles = {metrics[0]: "median", "p99_us": "p99", "sleeps": "sleeps"}
        cells = [(arguments if len(metrics) == 1 else titles[metric], benchmark, metric)
                 for arguments, benchmark in rows for metric in metrics]
        body = [(loop, [figure(metric, benchmark[f"{loop}_{metric}"]) for _, benchmark, metric in cells])
                for loop in loops]
        for name, counter in (("zel / bare", "ratio"), ("zel / best", "ratio_best")):
            if counter in rows[0][1]:
                body.append((name, [figure(counter, benchmark[counter]) if metric == metrics[0] else ""
                                    for _, benchmark, metric in cells]))
        body.append(("rounds", [f"{benchmark['iterations']:,}" if metric == metrics[0] else ""
                                for _, benchmark, metric in cells]))
        lines += ["", f"`{family}`: {rows[0][1].get('label', '')}; in {unit}", ""]
        lines += grid([title or "median" for title, _, _ in cells], body)
    return lines[1:]


def size_table(result):
    found = result.get("size", {})
    if not found:
        return ["Not measured."]
    return grid(["KiB"], [(name, [f"{kib:,.0f}"]) for name, kib in sorted(found.items(), key=lambda item: item[1])])


def call_table(result):
    found = result.get("calls", {})
    if not found:
        return ["Not measured."]
    loops = list(next(iter(found.values())))
    pieces = [f"`{piece.split('/')[0]}`" for piece in found]
    return grid(pieces, [(loop, [f"{found[piece][loop]:.1f}" for piece in found]) for loop in loops])


def machine(results, command, short):
    merged = {}
    for result in results.values():
        context = dict(result["context"], processors=result["context"]["num_cpus"], command=f"`{command}`")
        context["date"] = context["date"][:10]
        for name in CONTEXT:
            if name in context:
                merged.setdefault(name, [])
                if str(context[name]) not in merged[name]:
                    merged[name].append(str(context[name]))
    # All values are shown: more than one commit or compiler tells that the figures do not belong together.
    table = ["| | |", "|---|---|"] + [f"| {name} | {' / '.join(merged[name])} |" for name in CONTEXT if name in merged]
    return (["**A short run, for a look: rows of few rounds say little.**", ""] if short else []) + table


def rewrite(lines, results, command, short):
    output, inside = [], False
    for line in lines:
        match = BEGIN.match(line)
        if inside and match:
            raise SystemExit(f"report: {PAGE}: a table without an end: {line}")
        if line == END:
            inside = False
        if not inside:
            output.append(line)
        if match:
            inside = True
            name = match.group(1)
            if name == "machine":
                body = machine(results, command, short)
            elif name in ("size", "calls"):
                body = {"size": size_table, "calls": call_table}[name](results.get("compare", {}))
            elif name in results:
                body = (loop_tables if name == "compare" else tables)(results[name])
            else:
                body = ["Not measured."]
            output += ["", *body, ""]
    if inside:
        raise SystemExit(f"report: {PAGE}: a table without an end")
    missing = set(results) - {match.group(1) for match in map(BEGIN.match, lines) if match}
    if missing:
        raise SystemExit(f"report: {PAGE} has no place for: {', '.join(sorted(missing))}")
    return output


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("programs", nargs="*")
    parser.add_argument("--resume", action="store_true")
    parser.add_argument("--short", action="store_true")
    parser.add_argument("--from", dest="directory", metavar="DIR")
    arguments = parser.parse_args()
    directory = os.path.abspath(arguments.directory) if arguments.directory else None
    os.chdir(os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
    if directory is None:
        measure(arguments.short, arguments.programs, arguments.resume)
        directory = DIRECTORY
    results = load(directory)
    if not arguments.short:
        refuse_few_rounds(results)
    command = "bench/report.py" + (" --short" if arguments.short else "")
    if arguments.directory:
        command = f"script/bench --json {arguments.directory}"
    with open(PAGE, encoding="utf-8") as file:
        lines = file.read().splitlines()
    text = "\n".join(rewrite(lines, results, command, arguments.short)) + "\n"
    with open(PAGE, "w", encoding="utf-8") as file:
        file.write(text)
    if "compare" in results:
        subprocess.run(["bench/chart.py", directory], check=True)
    print(f"{PAGE}: figures of {', '.join(sorted(results))}")


if __name__ == "__main__":
    sys.exit(main())

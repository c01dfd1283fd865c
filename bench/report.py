#!/usr/bin/env python3
"""Runs the benchmarks and puts their figures into docs/performance.md.

  bench/report.py               runs all benchmarks (some minutes), then rewrites the tables
  bench/report.py --short       the same in a minute, for a look; the page says so
  bench/report.py --from DIR    rewrites the tables from what script/bench --json DIR has left

A median of fewer than ten rounds says little. Such figures are refused, unless --short is given.

A table stands between the lines "<!-- figures: PROGRAM -->" and "<!-- /figures -->" and is rewritten whole, so the
figures of a program that has not run are taken out. With "machine" in place of a program it says where the figures
come from.
"""

import argparse
import glob
import json
import os
import re
import subprocess
import sys

PAGE = "docs/performance.md"
DIRECTORY = "build/figures"
BEGIN = re.compile(r"^<!-- figures: ([\w-]+) -->$")
END = "<!-- /figures -->"
# Seconds for each benchmark. A round of lateness takes half a second.
MIN_TIME = {"lateness": 15}
DEFAULT_MIN_TIME = 2
FEWEST_ROUNDS = 10
CONTEXT = ["machine", "processors", "kernel", "compiler", "commit", "date", "libevent", "libuv", "command"]


def measure(short):
    """Runs the programs; the JSON of each is then in DIRECTORY."""
    for old in glob.glob(f"{DIRECTORY}/*.json"):
        os.remove(old)
    build = ["script/bench", "--", "--benchmark_list_tests"]
    subprocess.run(build, check=True, stdout=subprocess.DEVNULL)
    with open("build/release/bench/programs", encoding="utf-8") as file:
        programs = file.read().split()
    for program in programs:
        seconds = 0.02 if short else MIN_TIME.get(program, DEFAULT_MIN_TIME)
        command = ["script/bench", "--json", DIRECTORY, program, "--", f"--benchmark_min_time={seconds}"]
        subprocess.run(command, check=True)


def load(directory):
    results = {}
    for path in sorted(glob.glob(f"{directory}/*.json")):
        with open(path, encoding="utf-8") as file:
            text = file.read()
        if not text.strip():
            continue
        result = json.loads(text)
        for benchmark in result["benchmarks"]:
            if benchmark.get("error_occurred"):
                raise SystemExit(f"report: {path}: {benchmark['name']}: {benchmark['error_message']}")
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


def tables(result):
    """One table for each benchmark, with a row for each of its arguments, and above it what one operation is."""
    families = {}
    for benchmark in result["benchmarks"]:
        family, *arguments = benchmark["run_name"].split("/")
        arguments = [argument for argument in arguments if argument != "manual_time"]
        families.setdefault(family, []).append((" ".join(arguments).replace(":", " "), benchmark))
    lines = []
    for family, rows in families.items():
        columns = []
        for _, benchmark in rows:
            columns += [name for name in counters(benchmark) if name not in columns]
        lines += ["", f"`{family}`: {rows[0][1].get('label', '')}", ""]
        lines.append("| | " + " | ".join(f"`{name}`" for name in columns) + " | rounds |")
        lines.append("|---|" + "---:|" * (len(columns) + 1))
        for arguments, benchmark in rows:
            cells = [figure(name, benchmark[name]) if name in benchmark else "" for name in columns]
            lines.append(f"| {arguments} | " + " | ".join(cells) + f" | {benchmark['iterations']:,} |")
    return lines[1:]


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
            else:
                body = tables(results[name]) if name in results else ["Not measured."]
            output += ["", *body, ""]
    if inside:
        raise SystemExit(f"report: {PAGE}: a table without an end")
    missing = set(results) - {match.group(1) for match in map(BEGIN.match, lines) if match}
    if missing:
        raise SystemExit(f"report: {PAGE} has no place for: {', '.join(sorted(missing))}")
    return output


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--short", action="store_true")
    parser.add_argument("--from", dest="directory", metavar="DIR")
    arguments = parser.parse_args()
    directory = os.path.abspath(arguments.directory) if arguments.directory else None
    os.chdir(os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
    if directory is None:
        measure(arguments.short)
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
    print(f"{PAGE}: figures of {', '.join(sorted(results))}")


if __name__ == "__main__":
    sys.exit(main())

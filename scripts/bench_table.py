#!/usr/bin/env python3
"""Runs the benchmark programs and prints the table of ours against the peers.

Usage: bench_table.py BIN_DIR RESULTS_DIR [FILTER]

The rows come from bench/targets.tsv. FILTER (a regular expression, any case) picks the
programs whose name it matches; when it matches no program name, it picks the rows whose
operation, benchmark names or peer it matches, and only their benchmarks run. Each program
runs with 5 repetitions (TOLVEN_BENCH_REPETITIONS changes that, TOLVEN_BENCH_FLAGS adds
flags such as --benchmark_min_time=0.01 for a quick look); its JSON goes to
RESULTS_DIR/<program>.json and its console output to RESULTS_DIR/<program>.log.

A row whose peer package is not installed, or whose program was not built, is left out and
the reason printed under the table; a row whose figures are missing prints a dash. The exit
code is 1 when a program failed to run, else 0: a missed target is a finding, not a failure.
"""
import json
import math
import os
import re
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
TARGETS = os.path.join(ROOT, "bench", "targets.tsv")
DASH = "\u2014"
COLUMNS = ["program", "operation", "ours", "peer", "label", "package", "metric", "target"]


def read_rows():
    rows = []
    with open(TARGETS, encoding="utf-8") as f:
        for number, line in enumerate(f, 1):
            line = line.rstrip("\n")
            if not line.strip() or line.startswith("#"):
                continue
            fields = line.split("\t")
            if fields == COLUMNS:
                continue
            if len(fields) != len(COLUMNS):
                sys.exit(f"{TARGETS}:{number}: {len(fields)} columns, {len(COLUMNS)} expected")
            row = dict(zip(COLUMNS, fields))
            row["line"] = number
            rows.append(row)
    return rows


def installed(package, cache={}):
    if package == "-":
        return True
    if package not in cache:
        try:
            out = subprocess.run(["dpkg-query", "-W", "-f=${Status}", package],
                                 capture_output=True, text=True).stdout
        except FileNotFoundError:
            out = "install ok installed"  # not a Debian system: let the run tell
        cache[package] = "install ok installed" in out
    return cache[package]


def deps_reasons():
    """The reasons deps.sh gave for packages it could not install."""
    reasons = {}
    path = os.environ.get("TOLVEN_BENCH_DEPS_LOG")
    if path and os.path.exists(path):
        with open(path, encoding="utf-8", errors="replace") as f:
            for line in f:
                m = re.match(r"deps: cannot install (\S+): (.*)", line.strip())
                if m:
                    reasons[m.group(1)] = m.group(2)
    return reasons


def regex_literal(name):
    """Escapes a benchmark name for Google Benchmark's filter (a POSIX extended regex)."""
    return re.sub(r"([.*+?()\[\]{}|^$\\])", r"\\\1", name)


def run_program(binary, results, program, names, repetitions):
    """Runs one program; gives an error text or None."""
    json_path = os.path.join(results, program + ".json")
    log_path = os.path.join(results, program + ".log")
    if os.path.exists(json_path):
        os.remove(json_path)
    args = [binary, f"--benchmark_repetitions={repetitions}",
            "--benchmark_report_aggregates_only=true",
            f"--benchmark_out={json_path}", "--benchmark_out_format=json"]
    args += os.environ.get("TOLVEN_BENCH_FLAGS", "").split()
    if names is not None:
        args.append("--benchmark_filter=^(" + "|".join(regex_literal(n) for n in names) + ")$")
    print(f"running bench_{program} ...", end=" ", flush=True)
    start = time.monotonic()
    with open(log_path, "w") as log:
        rc = subprocess.run(args, stdout=log, stderr=subprocess.STDOUT).returncode
    status = "" if rc == 0 else f", exit code {rc}"
    print(f"{time.monotonic() - start:.0f} s{status}", flush=True)
    if rc != 0:
        return f"bench_{program} exited with code {rc} (see {log_path})"
    return None


def load_results(path):
    """Maps each run name to its median entry, or to an error entry."""
    found = {}
    if not os.path.exists(path):
        return found
    try:
        with open(path, encoding="utf-8") as f:
            data = json.load(f)
    except (OSError, ValueError):
        return found
    for b in data.get("benchmarks", []):
        name = b.get("run_name", b.get("name", ""))
        if b.get("error_occurred"):
            found[name] = b
        elif b.get("run_type") == "aggregate" and b.get("aggregate_name") == "median":
            found[name] = b
        elif b.get("run_type") != "aggregate" and name not in found:
            found[name] = b  # a single run without aggregates
    return found


NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


def value(entry, metric):
    """Gives (number, kind) with kind 'time' (ns), 'rate' (per second) or 'plain'."""
    if entry is None or entry.get("error_occurred"):
        return None, None
    scale = NS.get(entry.get("time_unit", "ns"), 1.0)
    if metric == "cpu":
        return entry.get("cpu_time", math.nan) * scale, "time"
    if metric == "real":
        return entry.get("real_time", math.nan) * scale, "time"
    if metric == "rate":
        return entry.get("items_per_second"), "rate"
    if metric == "per_item":
        rate = entry.get("items_per_second")
        return (1e9 / rate if rate else None), "time"
    v = entry.get(metric)
    if metric.endswith("_ns"):
        return v, "time"
    if metric.endswith("_per_s") or metric.endswith("per_second"):
        return v, "rate"
    return v, "plain"


def sig3(x):
    """Three significant digits, trailing zeros kept: 1.00, 12.5, 106."""
    return f"{x:#.3g}".rstrip(".")


def figure(v, kind):
    if v is None or (isinstance(v, float) and math.isnan(v)):
        return DASH
    if kind == "time":
        for unit, scale in (("s", 1e9), ("ms", 1e6), ("\u00b5s", 1e3)):
            if v >= scale:
                return f"{sig3(v / scale)} {unit}"
        return f"{sig3(v)} ns"
    if kind == "rate":
        for unit, scale in (("G/s", 1e9), ("M/s", 1e6), ("k/s", 1e3)):
            if v >= scale:
                return f"{sig3(v / scale)} {unit}"
        return f"{sig3(v)} /s"
    return sig3(v)


def check(target, ours, ratio):
    """Gives 'met', 'missed', '?' (a figure is missing) or the dash (no target)."""
    if target == "-":
        return DASH
    verdicts = []
    for part in target.split(" and "):
        m = re.fullmatch(r"\s*(<=|>=)\s*([0-9.]+)\s*(x|ns|us|ms|s)?\s*", part)
        if not m:
            return f"? (target '{part}')"
        op, number, unit = m.group(1), float(m.group(2)), m.group(3)
        if unit == "x":
            subject = ratio
        elif unit:
            subject, number = ours, number * NS[unit]
        else:
            subject = ours
        if subject is None or (isinstance(subject, float) and math.isnan(subject)):
            return "?"
        verdicts.append(subject <= number if op == "<=" else subject >= number)
    return "met" if all(verdicts) else "missed"


def main():
    if len(sys.argv) not in (3, 4):
        sys.exit(__doc__)
    bin_dir, results = sys.argv[1], sys.argv[2]
    pattern = re.compile(sys.argv[3], re.I) if len(sys.argv) == 4 and sys.argv[3] else None
    repetitions = int(os.environ.get("TOLVEN_BENCH_REPETITIONS", "5"))
    os.makedirs(results, exist_ok=True)

    rows = read_rows()
    programs = list(dict.fromkeys(r["program"] for r in rows))
    for name in sorted(os.listdir(bin_dir)) if os.path.isdir(bin_dir) else []:
        if name.startswith("bench_") and os.access(os.path.join(bin_dir, name), os.X_OK):
            if name[6:] not in programs:
                programs.append(name[6:])

    # What runs: whole programs, or the benchmarks of the rows the filter picks.
    names = {p: None for p in programs}
    if pattern:
        chosen = [p for p in programs if pattern.search(p)]
        if chosen:
            names = {p: None for p in chosen}
            rows = [r for r in rows if r["program"] in chosen]
        else:
            rows = [r for r in rows
                    if any(pattern.search(r[k]) for k in ("operation", "ours", "peer", "label"))]
            names = {}
            for r in rows:
                names.setdefault(r["program"], [])
                names[r["program"]] += [n for n in (r["ours"], r["peer"]) if n != "-"]
        if not rows and not names:
            sys.exit(f"no benchmark program or row matches '{sys.argv[3]}'")

    reasons = deps_reasons()
    dropped = []
    failures = []
    found = {}
    for program, selected in names.items():
        binary = os.path.join(bin_dir, "bench_" + program)
        if not os.access(binary, os.X_OK):
            continue
        error = run_program(binary, results, program, selected, repetitions)
        if error:
            failures.append(error)
        found[program] = load_results(os.path.join(results, program + ".json"))

    table = []
    counts = {"met": 0, "missed": 0}
    for r in rows:
        if not os.access(os.path.join(bin_dir, "bench_" + r["program"]), os.X_OK):
            dropped.append((r, f"bench_{r['program']} was not built"))
            continue
        if not installed(r["package"]):
            why = reasons.get(r["package"], "not installed")
            dropped.append((r, f"{r['package']}: {why}"))
            continue
        results_of = found.get(r["program"], {})
        ours_entry = results_of.get(r["ours"])
        ours, kind = value(ours_entry, r["metric"])
        note = ""
        for side, name in (("ours", r["ours"]), ("peer", r["peer"])):
            e = results_of.get(name)
            if e is not None and e.get("error_occurred"):
                note = f" ({side}: {e.get('error_message', 'error')})"
            elif name != "-" and e is None:
                note = f" ({side}: no result)"
        if r["peer"] == "-":
            peer_text, ratio = DASH, None
        else:
            peer, peer_kind = value(results_of.get(r["peer"]), r["metric"])
            peer_text = f"{r['label']} {figure(peer, peer_kind or kind)}"
            ratio = ours / peer if ours is not None and peer else None
        verdict = check(r["target"], ours, ratio)
        if verdict in counts:
            counts[verdict] += 1
        ratio_text = DASH if ratio is None else f"{ratio:.2f}\u00d7"
        table.append([r["program"], r["operation"] + note, figure(ours, kind), peer_text,
                      ratio_text, DASH if r["target"] == "-" else r["target"], verdict])

    header = ["program", "operation", "ours", "peer", "ratio", "target", "met"]
    widths = [max(len(str(c)) for c in col) for col in zip(header, *table)]
    print()
    for i, line in enumerate([header] + table):
        print("| " + " | ".join(str(c).ljust(w) for c, w in zip(line, widths)) + " |")
        if i == 0:
            print("|" + "|".join("-" * (w + 2) for w in widths) + "|")
    print()
    print(f"{counts['met']} targets met, {counts['missed']} missed; ratio = ours / peer of the "
          f"figure shown (medians of {repetitions} repetitions; for rates, above 1 is faster)")
    print(f"results: {results}")
    for r, why in dropped:
        print(f"left out: {r['program']}: {r['operation']} against {r['label']}: {why}")
    # A program with an entry point of its own (the timers' drift and jitter) writes no JSON:
    # its own table follows as it printed it.
    for program in found:
        if not found[program] and not any(f.startswith(f"bench_{program} ") for f in failures):
            print(f"\nbench_{program}, its own table:")
            with open(os.path.join(results, program + ".log"), encoding="utf-8") as log:
                print(log.read().rstrip())
    for f in failures:
        print(f"failed: {f}")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())

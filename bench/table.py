"""Prints one table from a Google Benchmark JSON run of kovrabpf_bench: per subject and size, the
time per entry of the service and of its two floors (raw loop, batch), with the ratios, and the
service's bpf commands per call (by kind) and per entry.
Usage: table.py RESULTS.json LISTING (the binary's --benchmark_list_tests output)."""
import json
import sys
from collections import defaultdict


def commands(run):
    """The service's bpf commands per call by kind ("1 get + 4 info + ..."), and per entry."""
    order = ("get", "info", "next", "lookup", "update", "delete", "other")
    kinds = [(k, run[f"bpf_{k}"]) for k in order if f"bpf_{k}" in run]
    per_call = " + ".join(f"{v:.4g} {k}" for k, v in kinds) or "-"
    per_entry = run.get("bpf_per_entry")
    return per_call, f"{per_entry:.4g}" if per_entry is not None else "-"


def load(path):
    """Median CPU time per entry (or per call), its coefficient of variation and the commands,
    by run name."""
    with open(path) as f:
        runs = json.load(f)["benchmarks"]
    median, cv, cmds = {}, {}, {}
    for run in runs:
        if run.get("error_occurred"):
            sys.exit(f"{run['run_name']}: {run.get('error_message')}")
        kind = run.get("aggregate_name", "median")
        # Time per entry where the benchmark counts entries, else per call (in seconds).
        if kind == "median":
            per = run.get("per_entry")
            median[run["run_name"]] = per if per is not None else run["cpu_time"] * 1e-9
            cmds[run["run_name"]] = commands(run)
        elif kind == "cv":
            cv[run["run_name"]] = run["cpu_time"]
    return median, cv, cmds


def fmt_time(seconds):
    if seconds is None:
        return "-"
    for unit, scale in (("s", 1), ("ms", 1e-3), ("us", 1e-6)):
        if seconds >= scale:
            return f"{seconds / scale:.3g} {unit}"
    return f"{seconds / 1e-9:.3g} ns"


def ratio(a, b):
    return f"{a / b:.3f}" if a is not None and b else "-"


def split(name):
    subject, variant, *args = name.split("/")
    return (subject, "/".join(args)), variant


def main(path, listing):
    median, cv, cmds = load(path)
    rows = defaultdict(dict)
    for name, per in median.items():
        key, variant = split(name)
        rows[key][variant] = (per, cv.get(name), cmds[name])
    # Rows in the order the benchmarks are registered, not the order they happened to run in.
    with open(listing) as f:
        order = list(dict.fromkeys(split(line.strip())[0] for line in f if line.strip()))
    order = [key for key in order if key in rows]
    head = ("subject", "size", "service", "cv", "raw", "batch", "svc/raw", "svc/batch",
            "bpf/entry", "bpf commands per call")
    table = [head]
    for subject, size in order:
        row = rows[(subject, size)]
        svc, svc_cv, (per_call, per_entry) = row.get("service", (None, None, ("-", "-")))
        raw = row.get("raw", (None,))[0]
        batch = row.get("batch", (None,))[0]
        table.append((subject, size or "-", fmt_time(svc),
                      f"{svc_cv:.1%}" if svc_cv is not None else "-",
                      fmt_time(raw), fmt_time(batch), ratio(svc, raw), ratio(svc, batch),
                      per_entry, per_call))
    widths = [max(len(r[i]) for r in table) for i in range(len(head))]
    for r in table:
        print("  ".join(c.ljust(w) if i < 2 or i == len(head) - 1 else c.rjust(w)
                        for i, (c, w) in enumerate(zip(r, widths))).rstrip())
    print("\ntimes are median CPU time per entry (per call where a size is '-'); "
          "cv is the service's coefficient of variation over the repetitions;\n"
          "bpf/entry and the commands per call count the library's own bpf(2) commands "
          "(get: BPF_OBJ_GET, info: BPF_OBJ_GET_INFO_BY_FD, next: BPF_MAP_GET_NEXT_KEY, ...)")


if __name__ == "__main__":
    main(sys.argv[1], sys.argv[2])

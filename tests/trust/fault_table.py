#!/usr/bin/python3
"""The table of all faults: call, errors, how many lives, what became of them.

    ./tests/trust/fault_table.py     prints it from the last run's results in build/trust"""

import glob
import json
import os
from collections import Counter

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
RESULTS = f"{ROOT}/build/trust"
OUTCOMES = [
    "borne",
    "told",
    "seen in a listing",
    "request refused",
    "no start, told",
    "not met",
]


def forget():
    """Removes the results of an earlier run."""
    for path in glob.glob(f"{RESULTS}/faults-*.json"):
        os.unlink(path)


def keep(verdicts, name):
    os.makedirs(RESULTS, exist_ok=True)
    rows = [
        {
            "call": verdict.site.call if verdict.site else "(none)",
            "site": str(verdict.site),
            "error": verdict.error,
            "outcome": verdict.outcome,
            "problems": verdict.problems,
        }
        for verdict in verdicts
    ]
    with open(f"{RESULTS}/faults-{name}.json", "w") as file:
        json.dump(rows, file, indent=1)


def table(kind):
    """Lines of the table; kind: sample or all. Empty when there are no results."""
    rows = []
    for path in sorted(glob.glob(f"{RESULTS}/faults-{kind}-*.json")):
        with open(path) as file:
            rows += json.load(file)
    if not rows:
        return []
    calls = {}
    for row in rows:
        errors, sites, outcomes = calls.setdefault(row["call"], (set(), set(), Counter()))
        errors.add(row["error"])
        sites.add(row["site"])
        outcomes[row["outcome"]] += 1
    lines = [["call", "errors", "sites", "lives", *OUTCOMES[:-1]]]
    whole = Counter()
    for call in sorted(name for name in calls if name != "(none)"):
        errors, sites, outcomes = calls[call]
        counts = [str(outcomes[outcome] or "") for outcome in OUTCOMES[:-1]]
        lives = sum(outcomes.values())
        lines.append([call, ", ".join(sorted(errors)), str(len(sites)), str(lives), *counts])
        whole.update(outcomes)
        whole["sites"] += len(sites)
        whole["lives"] += lives
    totals = [str(whole[outcome]) for outcome in OUTCOMES[:-1]]
    lines.append(["all", "", str(whole["sites"]), str(whole["lives"]), *totals])
    widths = [max(len(line[i]) for line in lines) for i in range(len(lines[0]))]
    rule = ["-" * width if i < 2 else "-" * (width - 1) + ":" for i, width in enumerate(widths)]
    text = []
    for line in [lines[0], rule, *lines[1:]]:
        cells = [_aligned(cell, widths[i], i) for i, cell in enumerate(line)]
        text.append("| " + " | ".join(cells) + " |")
    failed = sum(bool(row["problems"]) for row in rows)
    not_met = len(rows) - whole["lives"]
    last = f"{len(rows)} lives, {failed} with a fault of the daemon's; {not_met} never met theirs."
    return [*text, "", last]


def _aligned(cell, width, column):
    return cell.ljust(width) if column < 2 else cell.rjust(width)


def write():
    """Puts the tables beside the results."""
    for kind in ("sample", "all"):
        lines = table(kind)
        if lines:
            with open(f"{RESULTS}/faults-{kind}.md", "w") as file:
                file.write("\n".join(lines) + "\n")


if __name__ == "__main__":
    print("\n".join(table("all") or table("sample") or ["no results: ./scripts/test trust"]))

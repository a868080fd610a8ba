"""Prints the line and branch coverage of each file, and what was not reached.

coverage_table.py LCOV FILE...: fails unless every line was reached, and every branch of the FILEs.
A constexpr function that never ran is left out: the compiler evaluated it.
"""
import os
import re
import sys


def constexpr_functions(path):
    """The ranges of lines that they take up, in the formatting of this project."""
    begin = None
    with open(path) as source:
        for number, text in enumerate(source, 1):
            if text.startswith("constexpr"):
                begin = number
            if begin and re.match(r"}|constexpr.*[;}]$", text):
                yield range(begin, number + 1)
                begin = None


files = {}
with open(sys.argv[1]) as lcov:
    for record in lcov.read().split("end_of_record")[:-1]:
        path = os.path.relpath(re.search(r"SF:(.+)", record)[1])
        lines = {int(line): int(count) for line, count in re.findall(r"\bDA:(\d+),(\d+)", record)}
        for function in constexpr_functions(path):
            if not any(lines.get(line, 0) for line in function):
                lines = {line: count for line, count in lines.items() if line not in function}
        branches, reached = (int(re.search(rf"BR{key}:(\d+)", record)[1]) for key in "FH")
        files[path] = (lines, branches, reached)

missed = []
total = [0, 0, 0, 0]
row = "{:34} {:5} of {:4} {:8} of {:4}"
print(f"{'file':34} {'lines':>13} {'branches':>16}")
for path, (lines, branches, reached) in sorted(files.items()):
    unreached = [line for line, count in lines.items() if count == 0]
    numbers = [len(lines) - len(unreached), len(lines), reached, branches]
    total = [sum(pair) for pair in zip(total, numbers)]
    print(row.format(path, *numbers))
    missed += [f"{path}:{line}: not reached" for line in unreached]
    if path in sys.argv[2:] and reached < branches:
        missed.append(f"{path}: {branches - reached} branches not reached")
print(row.format("all", *total))
missed += [f"{path}: nothing counted" for path in sys.argv[2:] if path not in files]
sys.exit("\n".join(missed) or 0)

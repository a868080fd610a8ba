#!/usr/bin/env python3
"""Writes the layers of the networks into docs/networks.md, as the Python package records them (`facezoo.graphs`).
    docs/graphs.py [--check]    with --check, only says how the page differs
"""
import difflib
import re
import sys
from collections.abc import Iterator
from pathlib import Path

import facezoo
from facezoo.graphs import UNUSED, Row, Step, leaves, operations, recorded

PAGE = Path(__file__).resolve().with_name("networks.md")
PLACE = re.compile("(?<=^<!-- recorded: layers -->\n).*?(?=^<!-- end -->$)", re.M | re.S)


def arrays(row: Row) -> Iterator[str]:
    """Names of the arrays, after the first without what they have in common with it."""
    names = [weight["name"] for layer in leaves([row]) for weight in layer["weights"]]
    if row["layers"]:
        yield f"`{names[0]}` and {len(names) - 1} more"
    else:
        yield from (f"`{name if name is names[0] else name[name.rindex('-'):]}`" for name in names)


def widths(row: Row) -> str:
    """How many channels each layer of a block gives."""
    parts = ", ".join(f"`{part['name']}` {next(leaves([part]))['out']}" for part in row["layers"])
    pooled = {"inceptionV1": " of maxima", "inceptionV3_1": " of maxima" if row["max_pool"] else " of averages"}
    return f": {parts}{pooled.get(row['kind'], '')}" if parts else ""


def line(number: int, step: Step) -> str:
    cells = [str(number),
             ", ".join(str(i + 1) if i >= 0 else "images" for i in step.inputs),
             ", ".join(step.kinds) + "".join(map(widths, step.rows)),
             ", ".join(map(str, step.window or ())),
             " × ".join(map(str, step.shape)),
             ", ".join(name for row in step.rows for name in arrays(row))]
    return f"| {' | '.join(cells)} |"


def section(network: str) -> Iterator[str]:
    yield f"\n### Layers of {network}\n"
    yield f"{operations(network) / 1e9:.2f} · 10⁹ operations for an image.\n"
    yield "| step | takes | layers | window, stride, padding | result | arrays |\n|---|---|---|---|---|---|"
    for number, step in enumerate(recorded(network).steps, 1):
        yield line(number, step)
    if network in UNUSED:
        names = ", ".join(f"`{name}`" for name in sorted(UNUSED[network]))
        yield f"\nNo result depends on the arrays of {names}."


def main() -> int:
    page = PAGE.read_text(encoding="utf-8")
    lines = [text for network in facezoo.networks() for text in section(network)]
    written = PLACE.sub("\n".join(lines) + "\n", page)
    if sys.argv[1:] == ["--check"]:
        difference = difflib.unified_diff(page.splitlines(), written.splitlines(), str(PAGE),
                                          "what docs/graphs.py would write", lineterm="")
        print(*difference, sep="\n")
        return page != written
    PAGE.write_text(written, encoding="utf-8")
    return 0


sys.exit(main())

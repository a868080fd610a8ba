"""Common to the comparisons: seeded files, processes that run a network on them, and tables."""
import argparse
import os
import platform
import subprocess
from collections.abc import Sequence
from dataclasses import dataclass
from pathlib import Path
from typing import Any, TypeVar

import numpy as np

import facezoo
import facezoo.weights
from facezoo.graphs import Table, table

LIBRARY = "facezoo"
TOLERANCE = 1e-3
Item = TypeVar("Item")


@dataclass
class Files:
    """What an engine reads for one network and one batch."""
    network: Table
    weights: Path
    images: Path
    shape: tuple[int, ...]


class EngineFailure(Exception):
    """An engine's process ended before it should."""


class Worker:
    """A process that holds one network on one engine, ready for one batch."""

    def __init__(self, engine: str, command: Sequence[object], threads: int) -> None:
        self.engine = engine
        self.process = subprocess.Popen(
            [str(word) for word in command], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
            encoding="ascii", env={**os.environ, "OMP_NUM_THREADS": str(threads)})
        assert self.process.stdin and self.process.stdout
        self.questions, self.answers = self.process.stdin, self.process.stdout
        self.load_ms = self.answer()[0]

    def close(self) -> None:
        self.questions.close()
        if code := self.process.wait():
            raise EngineFailure(f"{self.engine} ended with code {code}")

    def answer(self) -> list[float]:
        line = self.answers.readline()
        if not line:
            raise EngineFailure(f"{self.engine} ended with code {self.process.wait()}")
        return [float(word) for word in line.split()]

    def ask(self, question: str) -> list[float]:
        print(question, file=self.questions, flush=True)
        return self.answer()


def library_worker(name: str, files: Files, options: argparse.Namespace) -> Worker:
    program = options.build / "bin/facezoo-bench-worker"
    return Worker(LIBRARY, [program, name, files.weights, files.images, files.shape[0]], options.threads)


def prepare(name: str, batch: int, options: argparse.Namespace) -> Files:
    """Writes seeded images for a batch, and seeded weights unless there are some."""
    network = table(name)
    folder = options.output / "files"
    folder.mkdir(parents=True, exist_ok=True)
    files = Files(network, folder / f"{name}.weights", folder / f"{name}.{batch}.images",
                  (batch, network["height"], network["width"], network["channels"]))
    if not files.weights.exists():
        facezoo.weights.synthesize(name, files.weights)
    np.random.default_rng(batch).integers(0, 256, files.shape, np.uint8).tofile(files.images)
    return files


def rotated(items: list[Item], turn: int) -> list[Item]:
    first = turn % len(items)
    return items[first:] + items[:first]


def difference(found: Any, expected: Any) -> float:
    """The largest difference, relative to the largest value."""
    return float(np.abs(np.subtract(found, expected)).max() / np.abs(expected).max())


def aligned(title: str, rows: list[list[str]]) -> str:
    widths = [max(map(len, column)) for column in zip(*rows)]
    lines = ["  ".join([row[0].ljust(widths[0]), *map(str.rjust, row[1:], widths[1:])])
             for row in rows]
    return "\n".join([title, *lines]) + "\n"


def processor() -> str:
    for line in Path("/proc/cpuinfo").read_text(encoding="utf-8").splitlines():
        if line.startswith("model name"):
            return line.split(":", 1)[1].strip()
    return platform.machine()


def choose_networks(parser: argparse.ArgumentParser, options: argparse.Namespace) -> None:
    known = facezoo.networks()
    if unknown := set(options.networks) - set(known):
        parser.error(f"no such network: {', '.join(unknown)}; of {', '.join(known)}")
    options.networks = options.networks or known

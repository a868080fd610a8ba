"""Compares calls of the networks in Python with calls in C++.

Started by bench/run.sh python. A program in C++, with the library of the package, and the package itself take
turns, from bytes in host memory to results in host memory. What Python adds is the median of the differences in
each turn. A call of no images has all that Python adds and none of the library's work.
"""
import argparse
import os
import statistics
import subprocess
import tempfile
import time
from collections.abc import Callable
from pathlib import Path

import numpy as np

import facezoo
import facezoo.weights

WORKER = Path(__file__).parents[1] / "build/bench/bin/facezoo-bench-worker"
EMPTY_CALLS = 1000
ROW = "{:24} {:>5} {:>10} {:>9} {:>9} {:>7} {:>15}"


def compare(name: str, batch: int, rounds: int, folder: Path) -> tuple[float, float, float, float]:
    """Milliseconds in Python, in C++ and between them, and of a call of no images."""
    weights = folder / name
    if not weights.exists():
        facezoo.weights.synthesize(name, weights)
    net = getattr(facezoo, name)(weights, max_batch=batch)
    images = np.random.default_rng(1).integers(0, 256, (batch, net.height, net.width, net.channels), np.uint8)
    images.tofile(folder / "images")
    command = [WORKER, name, weights, folder / "images", str(batch)]
    environment = {**os.environ, "LD_LIBRARY_PATH": str(Path(facezoo.__file__).parent)}
    with subprocess.Popen(command, text=True, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                          env=environment) as worker:
        worker.stdout.readline()

        def in_python() -> float:
            start = time.perf_counter()
            net(images)
            return 1000 * (time.perf_counter() - start)

        def in_cpp() -> float:
            worker.stdin.write("run\n")
            worker.stdin.flush()
            return float(worker.stdout.readline())

        times: dict[Callable[[], float], list[float]] = {in_python: [], in_cpp: []}
        for turn in range(rounds):
            for run in sorted(times, key=[in_cpp, in_python].index, reverse=bool(turn % 2)):
                run()  # finds its data in no cache
                times[run].append(run())
        worker.stdin.close()
    start = time.perf_counter()
    for _ in range(EMPTY_CALLS):
        net(images[:0])
    empty = 1000 * (time.perf_counter() - start) / EMPTY_CALLS
    net.close()
    more = statistics.median(a - b for a, b in zip(times[in_python], times[in_cpp]))
    return statistics.median(times[in_python]), statistics.median(times[in_cpp]), more, empty


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("networks", nargs="*", metavar="NET", help="default: all")
    parser.add_argument("--batches", nargs="+", type=int, default=[1, 8])
    parser.add_argument("--rounds", type=int, default=50)
    arguments = parser.parse_args()
    print(ROW.format("network", "batch", "Python, ms", "C++, ms", "more, µs", "more, %", "of no image, µs"))
    with tempfile.TemporaryDirectory() as folder:
        for name in arguments.networks or facezoo.networks():
            for batch in arguments.batches:
                python, cpp, more, empty = compare(name, batch, arguments.rounds, Path(folder))
                print(ROW.format(name, batch, f"{python:.2f}", f"{cpp:.2f}", f"{1000 * more:.0f}",
                                 f"{100 * more / cpp:.1f}", f"{1000 * empty:.1f}"), flush=True)


if __name__ == "__main__":
    main()

"""Compares the library with other inference engines: same weights, images and threads.

Started by bench/run.sh. README.md says what is measured and how to read it.
"""
import instruction_sets  # before NumPy
import argparse
import json
import statistics
import sys
import time
from contextlib import ExitStack
from dataclasses import dataclass, field
from importlib import metadata
from pathlib import Path
from typing import Any

import matplotlib
import numpy as np

import facezoo.onnx
from facezoo.graphs import operations
from workers import (LIBRARY, TOLERANCE, EngineFailure, Files, Worker, aligned, choose_networks,
                     difference, library_worker, prepare, processor, rotated)

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402

PEERS = ["onnxruntime", "openvino-latency", "openvino-streams", "openvino-images"]
FAMILIES = ["onnxruntime", "openvino"]
CALL_KINDS = ["Winograd", "other convolutions", "fully connected", "pooling", "LRN",
              "batch normalization", "ReLU", "rest"]  # as the worker answers "profile"
PROFILES = 5
LOADS = 3
WARM_UPS = 3
FEWEST_ROUNDS = 5
HERE = Path(__file__).resolve().parent


@dataclass
class Result:
    """What was measured of one engine on one network and one batch."""
    load_ms: list[float] = field(default_factory=list)
    first_result_ms: list[float] = field(default_factory=list)
    run_ms: list[float] = field(default_factory=list)
    peak_mib: float = 0
    difference: float = 0
    profile_ms: list[float] = field(default_factory=list)
    gflops: float = 0
    sgemm_gflops: list[float] = field(default_factory=list)

    def summary(self) -> dict[str, Any]:
        return {"run_ms": statistics.median(self.run_ms),
                "run_p90_ms": float(np.percentile(self.run_ms, 90)),
                "rounds": len(self.run_ms),
                "load_ms": statistics.median(self.load_ms),
                "first_result_ms": statistics.median(self.first_result_ms),
                "peak_mib": self.peak_mib,
                "difference": self.difference,
                "profile_ms": self.profile_ms,
                "gflops": self.gflops / statistics.median(self.run_ms) * 1e3,
                "sgemm_gflops": max(self.sgemm_gflops)}


def start(engine: str, name: str, files: Files, options: argparse.Namespace) -> Worker:
    if engine == LIBRARY:
        return library_worker(name, files, options)
    command = [sys.executable, HERE / "peer.py", engine, model_of(files), files.images,
               "x".join(map(str, files.shape)), options.threads]
    return Worker(engine, command, options.threads)


def model_of(files: Files) -> Path:
    return files.weights.with_suffix(".onnx")


def make_model(files: Files) -> None:
    """Makes the ONNX model if there is none, or if weights or the package are newer than it."""
    model = model_of(files)
    sources = files.weights, Path(facezoo.graphs.__file__), Path(facezoo.onnx.__file__)
    if not model.exists() or model.stat().st_mtime < max(path.stat().st_mtime for path in sources):
        facezoo.onnx.export(files.network["name"], files.weights, model)


def sgemm_gflops(size: int = 1024) -> float:
    """The speed of a large matrix product, which shows how fast the machine is at this moment."""
    a = np.ones((size, size), np.float32)
    start = time.perf_counter()
    a @ a
    return 2 * size ** 3 / (time.perf_counter() - start) / 1e9


def measure(name: str, batch: int, options: argparse.Namespace) -> dict[str, Result]:
    files = prepare(name, batch, options)
    make_model(files)
    results = {engine: Result() for engine in options.engines}
    gflop = operations(name) * batch / 1e9
    with ExitStack() as stack:
        workers: list[Worker] = []
        for attempt in range(LOADS):
            for engine in options.engines:
                time.sleep(options.pause / 1e3)
                worker = start(engine, name, files, options)
                results[engine].load_ms.append(worker.load_ms)
                results[engine].first_result_ms.append(worker.load_ms + worker.ask("run")[0])
                if attempt == LOADS - 1:
                    stack.callback(worker.close)
                    workers.append(worker)
                else:
                    worker.close()
        for worker in workers:
            for _ in range(WARM_UPS):
                worker.ask("run")
        deadline = time.monotonic() + options.seconds
        for turn in range(options.rounds):
            if turn >= FEWEST_ROUNDS and time.monotonic() > deadline:
                break
            for worker in rotated(workers, turn):
                time.sleep(options.pause / 1e3)  # until the threads of the others sleep
                lead_end = time.monotonic() + options.lead / 1e3
                while time.monotonic() < lead_end:
                    worker.ask("run")
                results[worker.engine].run_ms += worker.ask("run")
            time.sleep(options.pause / 1e3)
            sgemm_gflops()
            speed = sgemm_gflops()
            for result in results.values():
                result.sgemm_gflops.append(speed)
        expected = workers[0].ask("results")
        for worker in workers:
            result = results[worker.engine]
            result.difference = difference(worker.ask("results"), expected)
            result.peak_mib = worker.ask("memory")[0] / 1024
            result.gflops = gflop
            if worker.engine == LIBRARY:
                profiles = [worker.ask("profile") for _ in range(PROFILES)]
                result.profile_ms = [statistics.median(kind) for kind in zip(*profiles)]
    return results


Cells = dict[tuple[str, int], dict[str, dict[str, Any]]]


def advantage(cell: dict[str, dict[str, Any]], quantity: str, family: str = "") -> float | None:
    """The best peer's value divided by the library's. Of all quantities, less is better."""
    peers = [values[quantity] for engine, values in cell.items()
             if engine != LIBRARY and engine.startswith(family)]
    if not peers or LIBRARY not in cell:
        return None
    return min(peers) / cell[LIBRARY][quantity]


def table(title: str, quantity: str, more: str, cells: Cells, engines: list[str]) -> str:
    def value(values: dict[str, Any]) -> str:
        return f"{values[quantity]:.2f}" + (f" ({values[more]:.2f})" if more else "")

    rows = [["network", "batch", *engines, *(f"over {family}" for family in FAMILIES)]]
    for (name, batch), cell in cells.items():
        ratios = [advantage(cell, quantity, family) for family in FAMILIES]
        rows.append([name, str(batch), *(value(cell[engine]) for engine in engines),
                     *("-" if ratio is None else f"{ratio:.2f}" for ratio in ratios)])
    return aligned(title, rows)


def profile_table(cells: Cells) -> str:
    rows = [["network", "batch", "GFLOP/s", "SGEMM", *CALL_KINDS]]
    for (name, batch), cell in cells.items():
        values = cell.get(LIBRARY)
        if not values or not values["profile_ms"]:
            continue
        total = sum(values["profile_ms"])
        rows.append([name, str(batch), f"{values['gflops']:.0f}", f"{values['sgemm_gflops']:.0f}",
                     *(f"{100 * part / total:.0f} %" for part in values["profile_ms"])])
    return aligned("The library: speed by the definition of the layers, and where the time goes",
                   rows)


def draw(cells: Cells, batches: list[int], path: Path) -> None:
    quantities = {"run_ms": "time of a run", "first_result_ms": "time to the first result",
                  "peak_mib": "peak memory"}
    networks = list(dict.fromkeys(name for name, _ in cells))
    figure, axes = plt.subplots(len(quantities), figsize=(11, 10), sharex=True, squeeze=False)
    width = 0.8 / len(batches)
    for axis, (quantity, label) in zip(axes.flat, quantities.items()):
        for i, batch in enumerate(batches):
            axis.bar([x + (i + 0.5) * width - 0.4 for x in range(len(networks))],
                     [advantage(cells[name, batch], quantity) or 0 for name in networks], width,
                     label=f"batch {batch}")
        axis.axhline(1, color="black", linewidth=0.8)
        axis.set_ylabel(f"{label}:\nbest peer / {LIBRARY}")
    axes.flat[0].legend()
    axes.flat[0].set_title("Above 1 the library is better than every peer")
    axes.flat[-1].set_xticks(range(len(networks)), networks, rotation=20, ha="right")
    figure.tight_layout()
    figure.savefig(path, dpi=120)


def parse_arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("networks", nargs="*", metavar="NET", help="default: all")
    parser.add_argument("--batches", type=int, nargs="+", default=[1, 8, 32], metavar="N")
    parser.add_argument("--threads", type=int, default=2, metavar="N", help="of each engine")
    parser.add_argument("--isa", choices=instruction_sets.LIMITS,
                        help="limit the instruction set of all engines but ONNX Runtime, which "
                        "cannot be limited")
    parser.add_argument("--engines", nargs="+", default=[LIBRARY, *PEERS],
                        choices=[LIBRARY, *PEERS], metavar="E",
                        help=f"of {LIBRARY}, {', '.join(PEERS)}; the first is what the results of "
                        "the others are compared with")
    parser.add_argument("--rounds", type=int, default=30, metavar="N",
                        help="most timed runs of each engine for a network and a batch")
    parser.add_argument("--seconds", type=float, default=20, metavar="S",
                        help=f"most time for them, once there are {FEWEST_ROUNDS}")
    parser.add_argument("--pause", type=float, default=60, metavar="MS", help="before each run")
    parser.add_argument("--lead", type=float, default=30, metavar="MS",
                        help="how long to run before each timed run, which brings caches and "
                        "threads back")
    parser.add_argument("--output", type=Path, default="build/bench-results", metavar="DIR",
                        help="of results.txt, .json and .png")
    parser.add_argument("--build", type=Path, default="build/bench", metavar="DIR",
                        help="where the worker has been built")
    options = parser.parse_args()
    choose_networks(parser, options)
    return options


def main() -> int:
    options = parse_arguments()
    cells: Cells = {}
    for name in options.networks:
        for batch in options.batches:
            print(f"{name}, batch {batch} ...", file=sys.stderr, flush=True)
            cells[name, batch] = {engine: result.summary() for engine, result
                                  in measure(name, batch, options).items()}
    worst = np.max([values["difference"] for cell in cells.values() for values in cell.values()])
    about = {"processor": processor(), "instructions": instruction_sets.of_processor(),
             "limited to": options.isa or "nothing", "threads": options.threads,
             **{package: metadata.version(package) for package in ("onnxruntime", "openvino")}}
    text = "\n".join([
        ", ".join(f"{key} {value}" for key, value in about.items()),
        "Over a peer: its best value divided by the library's; above 1 the library is better.",
        "",
        table("Milliseconds of a run, median (90th percentile)", "run_ms", "run_p90_ms", cells,
              options.engines),
        table("Milliseconds to load", "load_ms", "", cells, options.engines),
        table("Milliseconds to load and run once", "first_result_ms", "", cells, options.engines),
        table("MiB at peak beyond those before loading", "peak_mib", "", cells, options.engines),
        profile_table(cells),
        f"Results differ by at most {worst:.1e} of the largest; {TOLERANCE:.0e} is allowed."])
    print(text)
    (options.output / "results.txt").write_text(text + "\n", encoding="utf-8")
    (options.output / "results.json").write_text(json.dumps(
        {**about, "cells": [{"network": name, "batch": batch, "engines": cell}
                            for (name, batch), cell in cells.items()]}, indent=1) + "\n",
        encoding="utf-8")
    draw(cells, options.batches, options.output / "results.png")
    return 0 if worst <= TOLERANCE else 1


try:
    sys.exit(main())
except EngineFailure as failure:
    sys.exit(str(failure))

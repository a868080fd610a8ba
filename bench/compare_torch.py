"""Compares the library with PyTorch: same weights, same images, on the same card.

Started by `bench/run.sh torch`. README.md says what is measured and how to read it.
"""
import argparse
import gc
import json
import multiprocessing
import os
import statistics
import sys
import time
from collections.abc import Callable
from concurrent.futures import ProcessPoolExecutor, wait
from contextlib import ExitStack
from dataclasses import dataclass, field
from functools import cache, partial
from pathlib import Path
from typing import Any, NamedTuple

import numpy as np
import torch
from torch import Tensor

from facezoo.torch import Network, module
from workers import (LIBRARY, TOLERANCE, Files, aligned, choose_networks, difference,
                     library_worker, prepare, processor, rotated)

Pass = Callable[[], Tensor]
WARM_UPS = 5
LEAD, COUNT = 2, 3  # passes of a turn: untimed, then timed
FEWEST_ROUNDS = 3


def eager(network: Network, images: Tensor) -> Pass:
    return lambda: network(images)


def captured(network: Network, images: Tensor) -> Pass:
    """A CUDA graph. Before it is captured, a few passes choose algorithms and allocate memory."""
    stream = torch.cuda.Stream()
    stream.wait_stream(torch.cuda.current_stream())
    with torch.cuda.stream(stream):
        for _ in range(WARM_UPS):
            network(images)
    torch.cuda.current_stream().wait_stream(stream)
    graph = torch.cuda.CUDAGraph()
    with torch.cuda.graph(graph):
        results = network(images)

    def replay() -> Tensor:
        graph.replay()
        return results

    return replay


def compiled(network: Network, images: Tensor) -> Pass:
    mode = "reduce-overhead" if images.is_cuda else "default"
    return partial(torch.compile(network, mode=mode, fullgraph=True, dynamic=False), images)


class Form(NamedTuple):
    """A way to run a network with PyTorch."""
    start: Callable[[Network, Tensor], Pass]
    memory_format: torch.memory_format = torch.contiguous_format
    tf32: bool = False
    needs_card: bool = False


FORMS = {
    "eager": Form(eager),
    "channels-last": Form(eager, torch.channels_last),
    "graph": Form(captured, needs_card=True),
    "graph-channels-last": Form(captured, torch.channels_last, needs_card=True),
    "compile": Form(compiled),
    "eager-tf32": Form(eager, tf32=True, needs_card=True),
}


class Aim(NamedTuple):
    ratio: float
    over: str  # a form, or the best of all
    batch: int


BEST = "the best form"
AIMS = [Aim(2, "eager", 1), Aim(1, "eager", 32), Aim(1, BEST, 1)]


@dataclass
class Outcome:
    """The library or a form of PyTorch on one network and one batch."""
    ms: list[float] = field(default_factory=list)
    difference: float = 0
    without: str = "not measured: out of time"  # why there are no times
    failed: bool = False

    def fail(self, failure: Exception) -> None:
        lines = str(failure).strip().splitlines() or [""]
        self.without = f"failed: {type(failure).__name__}: {lines[0][:120]}"
        self.failed = True
        self.ms.clear()

    @property
    def median(self) -> float | None:
        return statistics.median(self.ms) if self.ms else None

    def summary(self) -> dict[str, Any]:
        if not self.ms:
            return {"without": self.without}
        return {"ms": self.median, "p90_ms": float(np.percentile(self.ms, 90)),
                "passes": len(self.ms), "difference": self.difference}


Cell = dict[str, Outcome]
Cells = dict[tuple[str, int], Cell]


def allow_tf32(allowed: bool) -> None:
    torch.backends.cuda.matmul.allow_tf32 = allowed
    torch.backends.cudnn.allow_tf32 = allowed


def milliseconds(run: Pass, on_card: bool) -> float:
    """The time of a pass, measured as the library's worker does: by the card's own clock, once it
    has nothing else to do."""
    if on_card:
        begin, end = (torch.cuda.Event(enable_timing=True) for _ in range(2))
        torch.cuda.synchronize()
        begin.record()
        run()
        end.record()
        end.synchronize()
        return begin.elapsed_time(end)
    start = time.perf_counter()
    run()
    return (time.perf_counter() - start) * 1e3


def turn(run: Pass, form: Form, on_card: bool) -> list[float]:
    allow_tf32(form.tf32)
    for _ in range(LEAD):
        run()
    return [milliseconds(run, on_card) for _ in range(COUNT)]


def to_host(run: Pass, results: Tensor) -> Pass:
    host = torch.empty_like(results, device="cpu", pin_memory=results.is_cuda)
    return lambda: host.copy_(run())


# As a host application has them: made in the normal mode, used in inference mode.
@torch.inference_mode(False)
def read_images(files: Files, device: torch.device) -> Tensor:
    return torch.from_numpy(np.fromfile(files.images, np.uint8).reshape(files.shape)).to(device)


@cache
@torch.inference_mode(False)
def load(name: str, weights: Path, device: torch.device, memory_format: torch.memory_format) -> Network:
    network = module(name).eval().requires_grad_(False)
    network.load_weights(weights)
    network.memory_format = memory_format
    return network.to(device=device, memory_format=memory_format)  # type: ignore[call-overload]


def start(form: Form, files: Files, device: torch.device) -> Pass:
    return form.start(load(files.network["name"], files.weights, device, form.memory_format),
                      read_images(files, device))


def measure(cell: Cell, name: str, batch: int, options: argparse.Namespace) -> None:
    files = prepare(name, batch, options)
    on_card = options.device.type == "cuda"
    with ExitStack() as stack:
        worker = library_worker(name, files, options)
        stack.callback(worker.close)
        worker.ask("run")
        expected = worker.ask("results")
        turns: dict[str, Callable[[], list[float]]] = {
            LIBRARY: lambda: worker.ask(f"time {LEAD} {COUNT}")}
        for label in options.forms:
            form, outcome = FORMS[label], cell[label]
            if form.start is compiled and batch not in options.compile_batches:
                outcome.without = "not asked for"
            elif form.start is not compiled or time.monotonic() < options.deadline:
                try:
                    allow_tf32(form.tf32)
                    run = start(form, files, options.device)
                    for _ in range(WARM_UPS):
                        results = run()
                    outcome.difference = difference(results.flatten().tolist(), expected)
                    if files.network["results"] == "host":
                        run = to_host(run, results)
                    turns[label] = partial(turn, run, form, on_card)
                except Exception as failure:  # whatever it is, the other forms go on
                    outcome.fail(failure)
        deadline = time.monotonic() + options.seconds
        for i in range(options.rounds):
            if i >= FEWEST_ROUNDS and time.monotonic() > deadline:
                break
            for label in rotated(list(turns), i):
                cell[label].ms += turns[label]()


def free_memory() -> None:
    torch.compiler.reset()
    gc.collect()
    torch.cuda.empty_cache()


def compile_once(name: str, batch: int, options: argparse.Namespace) -> None:
    set_up(options)
    with torch.inference_mode():
        start(FORMS["compile"], prepare(name, batch, options), options.device)()


def compile_all(options: argparse.Namespace) -> None:
    """Compiles several networks at once, before anything is timed. The measurements find the results
    in the compiler's cache on disk; they also report what has failed."""
    context = multiprocessing.get_context("spawn")
    with ProcessPoolExecutor(max(1, (os.cpu_count() or 1) // 2), context) as pool:
        wait([pool.submit(compile_once, name, batch, options)
              for batch in options.compile_batches for name in options.networks],
             timeout=max(0, options.deadline - time.monotonic()))
        pool.shutdown(cancel_futures=True)


def best(cell: Cell) -> tuple[float, str] | None:
    """The shortest time of a form that computes in fp32, and which form."""
    return min(((outcome.median, label) for label, outcome in cell.items()
                if label != LIBRARY and not FORMS[label].tf32 and outcome.median), default=None)


def ratio(cell: Cell, over: str) -> float | None:
    """The time of a form divided by that of the library."""
    fastest = best(cell)
    peer = fastest[0] if over == BEST and fastest else cell[over].median if over in cell else None
    own = cell[LIBRARY].median
    return peer / own if peer and own else None


def figure(value: float | None) -> str:
    return "-" if value is None else f"{value:.2f}"


def markdown(rows: list[list[str]]) -> str:
    rows = [[text.replace("|", "/") for text in row] for row in rows]
    rows.insert(1, ["---", *["---:"] * (len(rows[0]) - 1)])
    return "\n".join(f"| {' | '.join(row)} |" for row in rows) + "\n"


def times(cells: Cells, forms: list[str]) -> list[list[str]]:
    plain = [label for label in forms if not FORMS[label].tf32]
    apart = [label for label in forms if FORMS[label].tf32]
    rows = [["network", "batch", f"{LIBRARY} ms", *(f"{label} ms" for label in plain),
             "over eager", f"over {BEST}", *(f"{label} ms" for label in apart)]]
    for (name, batch), cell in cells.items():
        fastest = best(cell)
        rows.append([name, str(batch), *(time_of(cell[label]) for label in (LIBRARY, *plain)),
                     figure(ratio(cell, "eager")),
                     figure(ratio(cell, BEST)) + (f" ({fastest[1]})" if fastest else ""),
                     *(time_of(cell[label]) for label in apart)])
    return rows


def time_of(outcome: Outcome) -> str:
    return f"{outcome.median:.3f}" if outcome.median else outcome.without


def spreads(cells: Cells, forms: list[str]) -> list[list[str]]:
    def spread(outcome: Outcome) -> str:
        if not outcome.ms:
            return outcome.without
        return f"{np.percentile(outcome.ms, 90):.3f}, {outcome.difference:.0e}"

    return [["network", "batch", LIBRARY, *forms],
            *([name, str(batch), *(spread(cell[label]) for label in (LIBRARY, *forms))]
              for (name, batch), cell in cells.items())]


def aims(cells: Cells) -> list[list[str]]:
    asked = [aim for aim in AIMS if any(batch == aim.batch for _, batch in cells)]

    def verdict(name: str, aim: Aim) -> str:
        found = ratio(cells[name, aim.batch], aim.over)
        if found is None:
            return "not measured"
        return f"{found:.2f}, {'reached' if found >= aim.ratio else 'not reached'}"

    return [["network", *(f"over {aim.over} ≥ {aim.ratio}, batch {aim.batch}" for aim in asked)],
            *([name, *(verdict(name, aim) for aim in asked)]
              for name in dict.fromkeys(name for name, _ in cells))]


def worst(cells: Cells, tf32: bool) -> float:
    return float(np.max([outcome.difference for cell in cells.values()
                         for label, outcome in cell.items()
                         if label != LIBRARY and FORMS[label].tf32 == tf32], initial=0))


def about(options: argparse.Namespace) -> dict[str, str]:
    found = {"PyTorch": str(torch.__version__)}
    if options.device.type == "cpu":
        return {**found, "processor": processor(), "threads": str(options.threads)}
    found |= {"CUDA": str(torch.version.cuda), "cuDNN": str(torch.backends.cudnn.version()),
              "card": torch.cuda.get_device_name(options.device)}
    driver = Path("/sys/module/nvidia/version")
    return {**found, "driver": driver.read_text("ascii").strip()} if driver.exists() else found


def report(cells: Cells, options: argparse.Namespace) -> str:
    versions = about(options)
    last = (", ".join(f"{key} {value}" for key, value in versions.items()) +
            f". fp32 results differ by at most {worst(cells, False):.1e} of the largest; "
            f"{TOLERANCE:.0e} is allowed." +
            (f" With TF32: {worst(cells, True):.1e}." if worst(cells, True) else "") + "\n")
    text = "\n".join([
        aligned("Milliseconds of a pass, median", times(cells, options.forms)),
        aligned("90th percentile, and by how much results differ", spreads(cells, options.forms)),
        aligned("Aims", aims(cells)), last])
    results = {**versions, "cells": [
        {"network": name, "batch": batch,
         "forms": {label: outcome.summary() for label, outcome in cell.items()}}
        for (name, batch), cell in cells.items()]}
    for suffix, content in {
            "txt": text, "json": json.dumps(results, indent=1) + "\n",
            "md": "\n".join([markdown(times(cells, options.forms)), markdown(aims(cells)), last]),
    }.items():
        (options.output / f"torch.{suffix}").write_text(content, encoding="utf-8")
    return text


def set_up(options: argparse.Namespace) -> None:
    torch.set_num_threads(options.threads)
    torch.backends.cudnn.benchmark = True
    allow_tf32(False)


def parse_arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("networks", nargs="*", metavar="NET", help="default: all")
    parser.add_argument("--batches", type=int, nargs="+", default=[1, 8, 32, 128], metavar="N")
    parser.add_argument("--forms", nargs="+", choices=FORMS, metavar="F",
                        help=f"of PyTorch: {', '.join(FORMS)}")
    parser.add_argument("--compile-batches", type=int, nargs="*", default=[1], metavar="N",
                        help="those of --batches to compile for, which takes long; none for all")
    parser.add_argument("--rounds", type=int, default=30, metavar="N",
                        help="most turns of each form for a network and a batch")
    parser.add_argument("--seconds", type=float, default=3, metavar="S",
                        help=f"most time for them, once there are {FEWEST_ROUNDS}")
    parser.add_argument("--minutes", type=float, default=60, metavar="M",
                        help="after which no batch of a network and no compilation begins")
    parser.add_argument("--device", choices=["cuda", "cpu"], default="cuda")
    parser.add_argument("--threads", type=int, default=2, metavar="N", help="on the CPU")
    parser.add_argument("--output", type=Path, default="build/bench-results", metavar="DIR",
                        help="of torch.txt, .json and .md")
    parser.add_argument("--build", type=Path, metavar="DIR",
                        help="where the worker has been built; default: build/cuda or build/bench")
    options = parser.parse_args()
    on_card = options.device == "cuda"
    if on_card and not torch.cuda.is_available():
        sys.exit("PyTorch finds no card; --device cpu compares on the CPU")
    options.device = torch.device(options.device)
    options.build = options.build or Path("build", "cuda" if on_card else "bench")
    choose_networks(parser, options)
    usable = [label for label, form in FORMS.items() if on_card or not form.needs_card]
    options.forms = options.forms or usable
    if unusable := set(options.forms) - set(usable):
        parser.error(f"without a card there is no {', '.join(unusable)}")
    chosen = set(options.compile_batches or options.batches)
    options.compile_batches = [batch for batch in options.batches if batch in chosen]
    options.deadline = time.monotonic() + 60 * options.minutes
    return options


def main() -> int:
    options = parse_arguments()
    set_up(options)
    options.output.mkdir(parents=True, exist_ok=True)
    cells: Cells = {(name, batch): {label: Outcome() for label in (LIBRARY, *options.forms)}
                    for name in options.networks for batch in options.batches}
    if "compile" in options.forms:
        print("compiling ...", file=sys.stderr, flush=True)
        compile_all(options)
    for name, batch in sorted(cells, key=lambda key: options.batches.index(key[1])):
        if time.monotonic() > options.deadline:
            break
        print(f"{name}, batch {batch} ...", file=sys.stderr, flush=True)
        try:
            with torch.inference_mode():
                measure(cells[name, batch], name, batch, options)
        except Exception as failure:  # the other cells go on
            for outcome in cells[name, batch].values():
                outcome.fail(failure)
        free_memory()
        report(cells, options)  # for whom this ends early
    print(report(cells, options))
    failed = any(outcome.failed for cell in cells.values() for outcome in cell.values())
    return 1 if failed or not worst(cells, False) <= TOLERANCE else 0


if __name__ == "__main__":  # not in the processes that compile
    sys.exit(main())

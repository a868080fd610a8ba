"""What a call of a network in Python takes more than one in C++.
    python_calls.py [--weights FOLDER] [--rounds N] [NET...]

Needs the installed package facezoo and build/bench/bin/facezoo-bench-worker, or the path that the variable
WORKER gives. The two take turns, so that both see the same machine. Times are medians in milliseconds, from
bytes in host memory to results in host memory. The last column is a call of no images, which has all that
Python adds and nothing of the library's work, in microseconds.
"""
import argparse, os, pathlib, statistics, subprocess, tempfile, time

import numpy as np

import facezoo

WORKER = os.environ.get("WORKER", pathlib.Path(__file__).parents[1] / "build/bench/bin/facezoo-bench-worker")

EMPTY_CALLS = 1000
ROW = "{:24} {:>5} {:>9} {:>9} {:>9} {:>8} {:>9}"


def compare(name, batch, rounds, folder):
    weights = folder / name
    if not weights.exists():
        subprocess.run([WORKER, "synth", name, weights], check=True)
    net = getattr(facezoo, name)(weights, max_batch=batch)
    images = np.random.default_rng(1).integers(0, 256, (batch, net.height, net.width, net.channels), np.uint8)
    images.tofile(folder / "images")
    with subprocess.Popen([WORKER, name, weights, folder / "images", str(batch)], text=True,
                          stdin=subprocess.PIPE, stdout=subprocess.PIPE) as worker:
        worker.stdout.readline()
        in_python, in_cpp = [], []
        for _ in range(rounds):
            for _ in range(2):  # the first finds its data in no cache
                start = time.perf_counter()
                net(images)
                spent = 1000 * (time.perf_counter() - start)
            in_python.append(spent)
            for _ in range(2):
                worker.stdin.write("run\n")
                worker.stdin.flush()
                spent = float(worker.stdout.readline())
            in_cpp.append(spent)
        worker.stdin.close()
    start = time.perf_counter()
    for _ in range(EMPTY_CALLS):
        net(images[:0])
    empty = 1e6 * (time.perf_counter() - start) / EMPTY_CALLS
    net.close()
    return statistics.median(in_python), statistics.median(in_cpp), empty


def main():
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("networks", nargs="*", metavar="NET", help="default: all")
    parser.add_argument("--rounds", type=int, default=30)
    parser.add_argument("--weights", type=pathlib.Path, help="where weights are, or are to be written")
    arguments = parser.parse_args()
    with tempfile.TemporaryDirectory() as temporary:
        print(ROW.format("network", "batch", "Python", "C++", "more, µs", "more, %", "empty, µs"))
        for name in arguments.networks or facezoo.networks():
            for batch in (1, 8):
                folder = arguments.weights or pathlib.Path(temporary)
                python, cpp, empty = compare(name, batch, arguments.rounds, folder)
                print(ROW.format(name, batch, f"{python:.3f}", f"{cpp:.3f}", f"{1000 * (python - cpp):.0f}",
                                 f"{100 * (python / cpp - 1):.2f}", f"{empty:.1f}"), flush=True)


if __name__ == "__main__":
    main()

"""Runs an ONNX model on one of the library's peers, driven by compare.py.

peer.py ENGINE MODEL IMAGES SHAPE THREADS: SHAPE says what is in the file of images, as in
8x224x224x3. Loads the model for such a batch and speaks the protocol of worker.cpp.
"""
import sys
import time
from collections.abc import Callable
from pathlib import Path

import numpy as np

Infer = Callable[[np.ndarray], np.ndarray]
Load = Callable[[str, int], Infer]


def onnxruntime_engine(threads: int) -> Load:
    import onnxruntime as ort

    def load(model: str, batch: int) -> Infer:
        options = ort.SessionOptions()
        options.intra_op_num_threads = threads
        options.inter_op_num_threads = 1
        options.graph_optimization_level = ort.GraphOptimizationLevel.ORT_ENABLE_ALL
        options.add_free_dimension_override_by_name("N", batch)
        session = ort.InferenceSession(model, options, providers=["CPUExecutionProvider"])
        return lambda images: session.run(None, {"images": images})[0]

    return load


def openvino_engine(threads: int, hint: str, requests: int | None) -> Load:
    """`requests`: how many share a batch; None is one for every image."""
    import openvino as ov

    core = ov.Core()

    def load(path: str, batch: int) -> Infer:
        # Every request has the same fixed shape, so their number divides the batch.
        count = next(n for n in range(min(batch, requests or batch), 0, -1) if batch % n == 0)
        share = batch // count
        model = core.read_model(path)
        shape = model.input(0).partial_shape
        shape[0] = share
        model.reshape(shape)
        compiled = core.compile_model(model, "CPU", {
            "PERFORMANCE_HINT": hint, "INFERENCE_PRECISION_HINT": "f32",
            "INFERENCE_NUM_THREADS": threads})
        queue = [compiled.create_infer_request() for _ in range(
            min(count, compiled.get_property("OPTIMAL_NUMBER_OF_INFER_REQUESTS")))]

        def infer(images: np.ndarray) -> np.ndarray:
            parts: list[np.ndarray] = []
            for i in range(count + len(queue)):
                request = queue[i % len(queue)]
                if i >= len(queue):
                    request.wait()
                    parts.append(request.get_output_tensor().data.copy())
                if i < count:
                    part = images[i * share:(i + 1) * share]
                    request.set_input_tensor(ov.Tensor(part, shared_memory=True))
                    request.start_async()
            return np.concatenate(parts)

        return infer

    return load


ENGINES: dict[str, Callable[[int], Load]] = {
    "onnxruntime": onnxruntime_engine,
    "openvino-latency": lambda threads: openvino_engine(threads, "LATENCY", 1),
    "openvino-streams": lambda threads: openvino_engine(threads, "THROUGHPUT", threads),
    "openvino-images": lambda threads: openvino_engine(threads, "THROUGHPUT", None),
}


def memory_kib(field: str) -> int:
    lines = Path("/proc/self/status").read_text(encoding="ascii").splitlines()
    return next(int(line.split()[1]) for line in lines if line.startswith(field + ":"))


def main() -> None:
    engine, model, image_file, shape, threads = sys.argv[1:]
    images = np.fromfile(image_file, np.uint8).reshape([int(size) for size in shape.split("x")])
    load = ENGINES[engine](int(threads))
    Path("/proc/self/clear_refs").write_text("5", encoding="ascii")  # the peak starts anew
    before = memory_kib("VmRSS")
    start = time.perf_counter()
    infer = load(model, len(images))
    print((time.perf_counter() - start) * 1e3, flush=True)
    for line in sys.stdin:
        if line == "run\n":
            start = time.perf_counter()
            results = infer(images)
            print((time.perf_counter() - start) * 1e3, flush=True)
        elif line == "results\n":
            print(*results.ravel().tolist(), flush=True)
        elif line == "memory\n":
            print(memory_kib("VmHWM") - before, flush=True)


main()

"""The eight networks as ONNX models, for other engines.

    facezoo.onnx.export("LCNN29", "lcnn.msgpack", "lcnn.onnx")

The models use version 13 of ONNX's operators (2020), the first in which Softmax and Split have the definitions that
they have kept, so that any later engine reads them.
"""
from __future__ import annotations

import os
from collections.abc import Mapping, Sequence
from typing import Any

import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper

from facezoo import graphs, weights as weight_files
from facezoo.graphs import Row, Table

OPSET, IR_VERSION = 13, 7  # IR_VERSION is that of the release which brought OPSET


class _Nodes(graphs.Layers[str]):
    """Collects the nodes of a model, in which values are names."""

    def __init__(self, network: Table, arrays: Mapping[str, np.ndarray]) -> None:
        super().__init__(network)
        self.arrays = arrays
        self.edges = {"images": network["height"]}  # of the feature maps; 0 of a matrix
        self.nodes: list[onnx.NodeProto] = []
        self.constants: dict[str, np.ndarray] = {}

    def several(self, kind: str, *inputs: str, outputs: int, **attributes: Any) -> list[str]:
        names = [f"{len(self.nodes)}.{i}" for i in range(outputs)]
        self.nodes.append(helper.make_node(kind, inputs, names, **attributes))
        for name in names:
            self.edges[name] = self.edges[inputs[0]]
        return names

    def one(self, kind: str, *inputs: str, **attributes: Any) -> str:
        return self.several(kind, *inputs, outputs=1, **attributes)[0]

    def constant(self, name: str, array: np.ndarray) -> str:
        self.constants[name] = np.ascontiguousarray(array, np.float32)
        return name

    def constants_of(self, row: Row) -> list[str]:
        return [self.constant(weight["name"], self.arrays[weight["name"]]) for weight in row["weights"]]

    def planar(self, images: str) -> str:
        return self.one("Cast", self.one("Transpose", images, perm=[0, 3, 1, 2]), to=TensorProto.FLOAT)

    def subtract_mean(self, x: str, row: Row) -> str:
        if row["kind"] == "meanImage":
            mean, = self.constants_of(row)
            self.constant(mean, self.constants[mean].transpose(2, 0, 1)[None])
        else:
            mean = self.constant("means", np.reshape(row["means"], (1, -1, 1, 1)))
        return self.one("Sub", x, mean)

    def convolution(self, x: str, row: Row) -> str:
        y = self.one("Conv", x, *self.constants_of(row), kernel_shape=[row["kernel"]] * 2,
                     strides=[row["stride"]] * 2, pads=[row["pad"]] * 4)
        self.edges[y] = graphs.convolved(self.edges[x], row)
        return y

    def normalize(self, x: str, row: Row) -> str:
        return self.one("BatchNormalization", x, *self.constants_of(row), epsilon=1e-5)

    def product(self, x: str, row: Row) -> str:
        return self.one("Gemm", x, *self.constants_of(row), transB=1)

    def project(self, x: str, row: Row) -> str:
        matrix, mean = self.constants_of(row)
        return self.one("Gemm", self.one("Sub", x, mean), matrix, transB=1)

    def edge(self, x: str) -> int:
        return self.edges[x]

    def pool(self, kind: str, x: str, window: int, stride: int, pad: int, **attributes: Any) -> str:
        """Sizes are rounded up by more padding, which does not count, behind the last window: engines compute that
        faster than with their own option for it."""
        edge = graphs.pooled(self.edges[x], window, stride, pad)
        overhang = (edge - 1) * stride + window - self.edges[x] - 2 * pad
        y = self.one(kind, x, kernel_shape=[window] * 2, strides=[stride] * 2,
                     pads=[pad] * 2 + [pad + overhang] * 2, **attributes)
        self.edges[y] = edge
        return y

    def max_pool(self, x: str, window: int, stride: int, pad: int = 0) -> str:
        return self.pool("MaxPool", x, window, stride, pad)

    def average_pool(self, x: str, window: int, stride: int, pad: int = 0) -> str:
        """No pooling of the networks has both padding, which counts, and overhang."""
        return self.pool("AveragePool", x, window, stride, pad, count_include_pad=int(pad > 0))

    def lrn(self, x: str, alpha: float = 1e-4, k: float = 1.0) -> str:
        return self.one("LRN", x, size=5, alpha=alpha, beta=0.75, bias=k)

    def mfm(self, x: str) -> str:
        return self.one("Max", *self.several("Split", x, outputs=2, axis=1))

    def relu(self, x: str) -> str:
        return self.one("Relu", x)

    def softmax(self, x: str) -> str:
        return self.one("Softmax", x, axis=1)

    def add(self, a: str, b: str) -> str:
        return self.one("Add", a, b)

    def flat(self, x: str) -> str:
        if not self.edges[x]:
            return x
        y = self.one("Flatten", x)
        self.edges[y] = 0
        return y

    def concat(self, parts: Sequence[str]) -> str:
        return self.one("Concat", *parts, axis=1)


def export(network: str, weights: str | os.PathLike[str], path: str | os.PathLike[str], prefix: str = "",
           norm: bool = False, separate: bool = False) -> None:
    """Writes a model that gives what the library gives.

    Its input "images" is uint8 (N, height, width, channels), its output "results" float32 (N, values); N is free.

    Args:
        network: One of `facezoo.networks()`.
        weights: A weight file.
        path: Of the model.
        prefix: What the names of the arrays begin with.
        norm: Whether there is an output "norms", float32 (N), the norms that the library returns.
        separate: Whether, in place of "results", each group of results is an output (N, count) of its own, with the
            group's name.

    Raises:
        ValueError: There is no such network, or it has no norms.
        facezoo.WeightError: The weight file cannot be read, or an array is missing, of another size or not finite.
    """
    graphs.recorded(network)  # refuses a table that the graph does not fit
    table = graphs.table(network)
    nodes = _Nodes(table, weight_files.load(weights, network, prefix))
    groups, described = nodes.run("images")
    outputs: dict[str, list[int | str]] = {}

    def output(name: str, value: str, *shape: int) -> None:
        nodes.one("Identity", value)
        nodes.nodes[-1].output[0] = name
        outputs[name] = ["N", *shape]

    if separate:
        for name, count in table["outputs"]:
            output(name, nodes.join({name: groups[name]}), count)
    else:
        output("results", nodes.join(groups), sum(count for _, count in table["outputs"]))
    if norm:
        if described is None:
            raise ValueError(f"{network} has no norms")
        output("norms", nodes.one("ReduceL2", described, axes=[1], keepdims=0))
    shape = ["N", table["height"], table["width"], table["channels"]]
    model = helper.make_model(
        helper.make_graph(
            nodes.nodes, network, [helper.make_tensor_value_info("images", TensorProto.UINT8, shape)],
            [helper.make_tensor_value_info(name, TensorProto.FLOAT, shape) for name, shape in outputs.items()],
            [numpy_helper.from_array(array, name) for name, array in nodes.constants.items()]),
        producer_name="facezoo", opset_imports=[helper.make_opsetid("", OPSET)], ir_version=IR_VERSION)
    onnx.checker.check_model(model)
    onnx.save(model, os.fspath(path))

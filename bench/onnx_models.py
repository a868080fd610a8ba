"""The networks as ONNX models.

The input "images" is what `Forward` takes: bytes, (N, height, width, channels); N is symbolic. The
output "results" is what it gives, (N, values).
"""
from pathlib import Path
from typing import Any

import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper

from networks import Layers, Network, read_weights


class Graph(Layers[str]):
    """Collects the nodes of an ONNX graph, in which values are names."""

    def __init__(self, network: Network, weights: Path) -> None:
        super().__init__(network, read_weights(weights))
        self.edges = {"images": self.network.edge}  # of the maps
        self.nodes: list[onnx.NodeProto] = []
        self.constants: dict[str, np.ndarray] = {}
        self.products = 0  # of an image, in convolutions and fully connected layers
        self.results = self.network.build(self, "images")

    def several(self, kind: str, *inputs: str, outputs: int, **attributes: Any) -> list[str]:
        names = [f"{len(self.nodes)}.{i}" for i in range(outputs)]
        self.nodes.append(helper.make_node(kind, inputs, names, **attributes))
        for name in names:
            self.edges[name] = self.edges[inputs[0]]
        return names

    def one(self, kind: str, *inputs: str | None, **attributes: Any) -> str:
        return self.several(kind, *filter(None, inputs), outputs=1, **attributes)[0]

    def parameter(self, name: str, *shape: int, axes: tuple[int, ...] = ()) -> str:
        array = self.weights[name].reshape(shape)
        self.constants[name] = array.transpose(axes) if axes else array
        return name

    def edge(self, x: str) -> int:
        return self.edges[x]

    def planar(self, images: str) -> str:
        x = self.one("Transpose", images, perm=[0, 3, 1, 2])
        return self.one("Cast", x, to=TensorProto.FLOAT)

    def convolution(self, x: str, filters: str, bias: str | None, stride: int, pad: int) -> str:
        array = self.constants[filters]
        kernel = array.shape[-1]
        y = self.one("Conv", x, filters, bias, kernel_shape=[kernel] * 2, strides=[stride] * 2,
                     pads=[pad] * 4)
        self.edges[y] = (self.edges[x] + 2 * pad - kernel) // stride + 1
        self.products += array.size * self.edges[y] ** 2
        return y

    def product(self, x: str, matrix: str, bias: str | None = None) -> str:
        self.products += self.constants[matrix].size
        return self.one("Gemm", x, matrix, bias, transB=1)

    def normalize(self, x: str, gamma: str, beta: str, mean: str, variance: str) -> str:
        return self.one("BatchNormalization", x, gamma, beta, mean, variance, epsilon=1e-5)

    def pool(self, kind: str, x: str, window: int, stride: int, pad: int,
             **attributes: Any) -> str:
        """Sizes are rounded up by more padding, which does not count, behind the last window: the peers
        compute that faster than with their own option for it."""
        edge = self.edges[x]
        rounded = -(-(edge + 2 * pad - window) // stride) + 1
        overhang = (rounded - 1) * stride + window - edge - 2 * pad
        y = self.one(kind, x, kernel_shape=[window] * 2, strides=[stride] * 2,
                     pads=[pad] * 2 + [pad + overhang] * 2, **attributes)
        self.edges[y] = rounded
        return y

    def max_pool(self, x: str, window: int, stride: int, pad: int = 0) -> str:
        return self.pool("MaxPool", x, window, stride, pad)

    def average_pool(self, x: str, window: int, stride: int, pad: int = 0) -> str:
        """No pooling of the networks has both padding, which counts, and overhang."""
        return self.pool("AveragePool", x, window, stride, pad, count_include_pad=int(pad > 0))

    def lrn(self, x: str, alpha: float = 1e-4, k: float = 1.0) -> str:
        return self.one("LRN", x, size=5, alpha=alpha, beta=0.75, bias=k)

    def mfm(self, x: str) -> str:
        return self.one("Max", *self.several("Split", x, outputs=2, axis=1, num_outputs=2))

    def relu(self, x: str) -> str:
        return self.one("Relu", x)

    def softmax(self, x: str) -> str:
        return self.one("Softmax", x, axis=1)

    def add(self, a: str, b: str) -> str:
        return self.one("Add", a, b)

    def subtract(self, a: str, b: str) -> str:
        return self.one("Sub", a, b)

    def flat(self, x: str) -> str:
        return self.one("Flatten", x)

    def concat(self, *parts: str) -> str:
        return self.one("Concat", *parts, axis=1)


def operations(network: Network, weights: Path) -> int:
    """Additions and multiplications for one image, by the definition of the layers."""
    return 2 * Graph(network, weights).products


def save_model(network: Network, weights: Path, path: Path) -> None:
    graph = Graph(network, weights)
    graph.one("Identity", graph.results)
    graph.nodes[-1].output[0] = "results"
    edge, channels = network.edge, network.channels
    images = helper.make_tensor_value_info("images", TensorProto.UINT8, ["N", edge, edge, channels])
    results = helper.make_tensor_value_info("results", TensorProto.FLOAT, ["N", None])
    constants = [numpy_helper.from_array(np.ascontiguousarray(array), key)
                 for key, array in graph.constants.items()]
    model = helper.make_model(
        helper.make_graph(graph.nodes, network.name, [images], [results], constants),
        opset_imports=[helper.make_opsetid("", 18)], ir_version=10)
    onnx.checker.check_model(model)
    onnx.save(model, path)

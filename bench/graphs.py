"""The eight networks as ONNX models, built from the library's weight files.

The input "images" is what `Forward` takes: bytes, (N, height, width, channels); N is symbolic. The
output "results" is what it gives, (N, values). Sizes of layers follow from those of their weights.
"""
from collections.abc import Callable, Iterable
from pathlib import Path
from typing import Any, NamedTuple

import msgpack
import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper


class Graph:
    """Collects nodes; every layer takes and gives the name of a value."""

    def __init__(self, weights: dict[str, np.ndarray], edge: int, channels: int) -> None:
        self.weights = weights
        self.edge, self.channels = edge, channels  # of an image
        self.edges = {"images": edge}  # of the maps
        self.nodes: list[onnx.NodeProto] = []
        self.constants: list[onnx.TensorProto] = []
        self.products = 0  # of an image, in convolutions and fully connected layers

    def add(self, kind: str, *inputs: str, outputs: int = 1, **attributes: Any) -> list[str]:
        names = [f"{len(self.nodes)}.{i}" for i in range(outputs)]
        self.nodes.append(helper.make_node(kind, inputs, names, **attributes))
        for name in names:
            self.edges[name] = self.edges[inputs[0]]
        return names

    def one(self, kind: str, *inputs: str, **attributes: Any) -> str:
        return self.add(kind, *inputs, **attributes)[0]

    def constant(self, value: np.ndarray) -> str:
        name = f"constant.{len(self.constants)}"
        self.constants.append(numpy_helper.from_array(np.ascontiguousarray(value), name))
        return name

    def images(self, mean: np.ndarray | None = None) -> str:
        """Planar floats, minus `mean` of shape (channels, height, width) or (channels, 1, 1)."""
        x = self.one("Transpose", "images", perm=[0, 3, 1, 2])
        x = self.one("Cast", x, to=TensorProto.FLOAT)
        return x if mean is None else self.one("Sub", x, self.constant(mean))

    def convolution(self, x: str, name: str, kernel: int, stride: int, pad: int,
                    outputs: int) -> str:
        filters = self.weights[name + "-0"].reshape(outputs, -1, kernel, kernel)
        bias = [self.constant(self.weights[name + "-1"])] if name + "-1" in self.weights else []
        y = self.one("Conv", x, self.constant(filters), *bias, kernel_shape=[kernel] * 2,
                     strides=[stride] * 2, pads=[pad] * 4)
        self.edges[y] = (self.edges[x] + 2 * pad - kernel) // stride + 1
        self.products += filters.size * self.edges[y] ** 2
        return y

    def conv(self, x: str, name: str, kernel: int = 1) -> str:
        return self.convolution(x, name, kernel, 1, kernel // 2, self.weights[name + "-1"].size)

    def cba(self, x: str, name: str, kernel: int = 1, stride: int = 1,
            pad: int | None = None) -> str:
        """Convolution, bias, ReLU."""
        pad = kernel // 2 if pad is None else pad
        outputs = self.weights[name + "-1"].size
        return self.relu(self.convolution(x, name, kernel, stride, pad, outputs))

    def normalized_relu(self, x: str, name: str) -> str:
        parameters = [self.constant(self.weights[f"{name}/bn-{suffix}"])
                      for suffix in ("gamma", "beta", "avg_mean", "avg_var")]
        return self.relu(self.one("BatchNormalization", x, *parameters, epsilon=1e-5))

    def cbn(self, x: str, name: str, kernel: int = 1, stride: int = 1) -> str:
        """Convolution without bias, batch normalization, ReLU."""
        outputs = self.weights[name + "/bn-gamma"].size
        return self.normalized_relu(
            self.convolution(x, name, kernel, stride, kernel // 2, outputs), name)

    def fc(self, x: str, name: str, outputs: int | None = None) -> str:
        """Fully connected; with a bias unless the number of outputs is given."""
        bias = [] if outputs else [self.constant(self.weights[name + "-1"])]
        matrix = self.weights[name + "-0"].reshape(outputs or self.weights[name + "-1"].size, -1)
        self.products += matrix.size
        return self.one("Gemm", self.flat(x), self.constant(matrix), *bias, transB=1)

    def fcn(self, x: str, name: str) -> str:
        """Fully connected without bias, batch normalization, ReLU."""
        return self.normalized_relu(self.fc(x, name, self.weights[name + "/bn-gamma"].size), name)

    def projection(self, x: str, name: str) -> str:
        mean, matrix = self.weights[name + "-1"], self.weights[name + "-0"]
        self.products += matrix.size
        x = self.one("Sub", x, self.constant(mean))
        return self.one("Gemm", x, self.constant(matrix.reshape(-1, mean.size)), transB=1)

    def relu(self, x: str) -> str:
        return self.one("Relu", x)

    def flat(self, x: str) -> str:
        return self.one("Flatten", x)

    def concat(self, *parts: str) -> str:
        return self.one("Concat", *parts, axis=1)

    def pool(self, kind: str, x: str, window: int, stride: int, pad: int,
             **attributes: Any) -> str:
        """Rounds the size up. What the last window overhangs is padding that does not count: that
        is faster with the peers than their own rounding."""
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
        """Padding counts in the divisor; no pooling has both padding and overhang."""
        return self.pool("AveragePool", x, window, stride, pad, count_include_pad=int(pad > 0))

    def lrn(self, x: str, alpha: float = 1e-4, k: float = 1.0) -> str:
        return self.one("LRN", x, size=5, alpha=alpha, beta=0.75, bias=k)

    def mfm(self, x: str) -> str:
        """Max feature map: the larger of the two halves of the channels."""
        return self.one("Max", *self.add("Split", x, outputs=2, axis=1, num_outputs=2))


def mean_image(g: Graph) -> str:
    mean = g.weights["inMean-0"].reshape(g.edge, g.edge, g.channels)
    return g.images(mean.transpose(2, 0, 1))


def inception_v1(g: Graph, x: str, prefix: str) -> str:
    return g.concat(g.cba(x, prefix + "1x1"),
                    g.cba(g.cba(x, prefix + "3x3_reduce"), prefix + "3x3", 3),
                    g.cba(g.cba(x, prefix + "5x5_reduce"), prefix + "5x5", 5),
                    g.cba(g.max_pool(x, 3, 1, 1), prefix + "pool_proj"))


def double_3x3(g: Graph, x: str, prefix: str, stride: int) -> str:
    x = g.cbn(g.cbn(x, prefix + "double3x3_reduce"), prefix + "double3x3a", 3)
    return g.cbn(x, prefix + "double3x3b", 3, stride)


def inception_v3_1(g: Graph, x: str, prefix: str, pool: Callable[[str, int, int, int], str]) -> str:
    return g.concat(g.cbn(x, prefix + "1x1"),
                    g.cbn(g.cbn(x, prefix + "3x3_reduce"), prefix + "3x3", 3),
                    double_3x3(g, x, prefix, 1),
                    g.cbn(pool(x, 3, 1, 1), prefix + "pool_proj"))


def inception_v3_2(g: Graph, x: str, prefix: str) -> str:
    return g.concat(g.cbn(g.cbn(x, prefix + "3x3_reduce"), prefix + "3x3", 3, 2),
                    double_3x3(g, x, prefix, 2),
                    g.max_pool(x, 3, 2))


def residual(g: Graph, x: str, name: str) -> str:
    y = g.mfm(g.conv(x, name + "_conv1", 3))
    return g.one("Add", x, g.mfm(g.conv(y, name + "_conv2", 3)))


def v1_to_4d(g: Graph) -> str:
    x = g.cba(mean_image(g), "conv1/7x7_s2", 7, 2)
    x = g.lrn(g.max_pool(x, 3, 2))
    x = g.cba(g.cba(x, "conv2/3x3_reduce"), "conv2/3x3", 3)
    x = g.max_pool(g.lrn(x), 3, 2)
    for block in "3a", "3b":
        x = inception_v1(g, x, f"inception_{block}/")
    x = g.max_pool(x, 3, 2)
    for block in "4a", "4b", "4c", "4d":
        x = inception_v1(g, x, f"inception_{block}/")
    return x


def v1_from_4e(g: Graph, x: str) -> str:
    x = g.max_pool(inception_v1(g, x, "inception_4e/"), 3, 2)
    for block in "5a", "5b":
        x = inception_v1(g, x, f"inception_{block}/")
    return g.flat(g.average_pool(x, g.edges[x], 1))


def heads(g: Graph, x: str, classifiers: Iterable[str], regressors: Iterable[str] = ()) -> str:
    x = g.flat(x)
    return g.concat(*(g.one("Softmax", g.fc(x, "loss3/classifier_" + name), axis=1)
                      for name in classifiers),
                    *(g.fc(x, "loss3/classifier_" + name) for name in regressors))


def dexpression(g: Graph) -> str:
    x = g.cba(mean_image(g), "conv1", 7, 2)
    x = g.lrn(g.max_pool(x, 3, 2))
    for stage in "conv2", "conv3":
        x = g.concat(g.cba(g.cba(x, stage + "a"), stage + "b", 3),
                     g.cba(g.max_pool(x, 3, 1, 1), stage + "c"))
        x = g.max_pool(x, 3, 2)
    return heads(g, x, ["acce_mouth", "acce_eye"])


def fa_net(g: Graph) -> str:
    x = g.cba(mean_image(g), "conv1", 7, 2, pad=0)
    x = g.max_pool(g.lrn(x, 5e-4, 2.0), 3, 3)
    x = g.max_pool(g.cba(x, "conv2", 5, pad=0), 2, 2)
    for name in "conv3", "conv4", "conv5":
        x = g.cba(x, name, 3)
    x = g.max_pool(x, 3, 3)
    x = g.relu(g.fc(x, "fc6"))
    x = g.relu(g.fc(x, "fc7"))
    return g.fc(x, "68point")


def google_net(g: Graph) -> str:
    middle = v1_to_4d(g)
    branch = g.cba(g.average_pool(middle, 5, 3), "loss2/conv")
    branch = g.relu(g.fc(branch, "loss2/fc"))
    return g.projection(g.concat(branch, v1_from_4e(g, middle)), "pca")


def google_net_bn(g: Graph) -> str:
    x = g.images(np.array([104, 117, 123], np.float32).reshape(3, 1, 1))
    x = g.max_pool(g.cbn(x, "conv1/7x7_s2", 7, 2), 3, 2)
    x = g.max_pool(g.cbn(g.cbn(x, "conv2/3x3_reduce"), "conv2/3x3", 3), 3, 2)
    for block in "3a", "3b":
        x = inception_v3_1(g, x, f"inception_{block}/", g.average_pool)
    x = inception_v3_2(g, x, "inception_3c/")
    for block in "4a", "4b", "4c", "4d":
        x = inception_v3_1(g, x, f"inception_{block}/", g.average_pool)
    middle = inception_v3_2(g, x, "inception_4e/")
    branch = g.fcn(g.cbn(g.average_pool(middle, 5, 3), "loss2/conv"), "loss2/fc")
    x = inception_v3_1(g, middle, "inception_5a/", g.average_pool)
    x = inception_v3_1(g, x, "inception_5b/", g.max_pool)
    return g.projection(g.concat(branch, g.flat(g.average_pool(x, 7, 1))), "pca")


def two_heads(g: Graph) -> str:
    x = v1_from_4e(g, v1_to_4d(g))
    return heads(g, x, ["acce_mouth", "acce_eye"])


def twelve_tasks(g: Graph) -> str:
    x = v1_from_4e(g, v1_to_4d(g))
    return heads(g, x, ["acce_eye", "acce_mouth", "acce_head", "acce_hair", "condition_eye",
                        "exp_mouth_open", "exp_mouth_corner"],
                 ["yaw", "pitch", "blur", "noise", "lumi"])


def lcnn29(g: Graph) -> str:
    x = g.max_pool(g.mfm(g.conv(g.images(), "conv1", 5)), 2, 2)
    x = residual(g, x, "1")
    for stage, blocks in ("2", "23"), ("3", "456"), ("4", ("7", "8", "9", "10")), ("5", ""):
        x = g.mfm(g.conv(x, f"conv{stage}_1"))
        x = g.mfm(g.conv(x, f"conv{stage}_2", 3))
        if stage != "4":
            x = g.max_pool(x, 2, 2)
        for block in blocks:
            x = residual(g, x, block)
    return g.fc(x, "fc1")


class Network(NamedTuple):
    build: Callable[[Graph], str]
    edge: int
    channels: int


NETWORKS = {
    "DexpressionNet": Network(dexpression, 224, 1),
    "FANet": Network(fa_net, 224, 3),
    "GoogLeNet": Network(google_net, 256, 1),
    "GoogLeNetBN": Network(google_net_bn, 224, 3),
    "GoogLeNet_FAA1ch": Network(two_heads, 224, 1),
    "GoogLeNet_FAA3ch": Network(two_heads, 224, 3),
    "GoogLeNet_FAA3ch_12tasks": Network(twelve_tasks, 224, 3),
    "LCNN29": Network(lcnn29, 128, 3),
}


def read_weights(path: Path) -> dict[str, np.ndarray]:
    document = msgpack.unpackb(path.read_bytes(), raw=True, max_str_len=2**31 - 1)
    return {name.decode(): np.frombuffer(data, "<f4") for name, data in document.items()}


def operations(name: str, weights: Path) -> int:
    """Additions and multiplications for one image, by the definition of the layers."""
    network = NETWORKS[name]
    graph = Graph(read_weights(weights), network.edge, network.channels)
    network.build(graph)
    return 2 * graph.products


def save_model(name: str, weights: Path, path: Path) -> None:
    network = NETWORKS[name]
    graph = Graph(read_weights(weights), network.edge, network.channels)
    graph.one("Identity", network.build(graph))
    graph.nodes[-1].output[0] = "results"
    images = helper.make_tensor_value_info(
        "images", TensorProto.UINT8, ["N", network.edge, network.edge, network.channels])
    results = helper.make_tensor_value_info("results", TensorProto.FLOAT, ["N", None])
    model = helper.make_model(
        helper.make_graph(graph.nodes, name, [images], [results], graph.constants),
        opset_imports=[helper.make_opsetid("", 18)], ir_version=10)
    onnx.checker.check_model(model)
    onnx.save(model, path)

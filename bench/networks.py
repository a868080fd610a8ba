"""The library's networks, defined once over abstract layers.

The definitions mirror the library's layer by layer; which networks there are and the sizes of their
images are the library's answer. What they compute with is up to a subclass of `Layers`. Sizes of
layers follow from those of their weights.
"""
import subprocess
from abc import ABC, abstractmethod
from collections.abc import Callable, Iterable, Mapping
from functools import cache
from pathlib import Path
from typing import Any, Generic, NamedTuple, TypeVar

import msgpack
import numpy as np

Value = TypeVar("Value")  # a map, a matrix or a parameter


class Layers(ABC, Generic[Value]):
    """Layers by name, on top of operations that a subclass provides."""

    def __init__(self, network: "Network", weights: Mapping[str, np.ndarray]) -> None:
        self.network = network
        self.weights = {**weights, **CONSTANTS.get(network.name, {})}
        self.sizes = {key: array.size for key, array in self.weights.items()}

    @abstractmethod
    def parameter(self, name: str, *shape: int, axes: tuple[int, ...] = ()) -> Value:
        """The weights `name` in that shape, then with their axes in that order."""

    @abstractmethod
    def edge(self, x: Value) -> int:
        """Height and width of a map."""

    @abstractmethod
    def planar(self, images: Value) -> Value:
        """Bytes (N, height, width, channels) to floats (N, channels, height, width)."""

    @abstractmethod
    def convolution(self, x: Value, filters: Value, bias: Value | None, stride: int,
                    pad: int) -> Value: ...

    @abstractmethod
    def product(self, x: Value, matrix: Value, bias: Value | None = None) -> Value:
        """x · matrixᵀ + bias"""

    @abstractmethod
    def normalize(self, x: Value, gamma: Value, beta: Value, mean: Value,
                  variance: Value) -> Value:
        """Batch normalization with the statistics given; epsilon is 1e-5."""

    @abstractmethod
    def max_pool(self, x: Value, window: int, stride: int, pad: int = 0) -> Value:
        """The size of the result is rounded up."""

    @abstractmethod
    def average_pool(self, x: Value, window: int, stride: int, pad: int = 0) -> Value:
        """The size of the result is rounded up. Divides by the number of a window's positions inside
        the padded input."""

    @abstractmethod
    def lrn(self, x: Value, alpha: float = 1e-4, k: float = 1.0) -> Value:
        """Local response normalization over five channels; beta is 0.75."""

    @abstractmethod
    def mfm(self, x: Value) -> Value:
        """Max feature map: the larger of the two halves of the channels."""

    @abstractmethod
    def relu(self, x: Value) -> Value: ...

    @abstractmethod
    def softmax(self, x: Value) -> Value: ...

    @abstractmethod
    def add(self, a: Value, b: Value) -> Value: ...

    @abstractmethod
    def subtract(self, a: Value, b: Value) -> Value: ...

    @abstractmethod
    def flat(self, x: Value) -> Value: ...

    @abstractmethod
    def concat(self, *parts: Value) -> Value:
        """Joins channels."""

    def bias(self, name: str) -> Value | None:
        return self.parameter(name + "-1", -1) if name + "-1" in self.sizes else None

    def outputs(self, name: str) -> int:
        """The number of a layer's outputs: of its biases, or of the betas of the batch normalization
        that stands in their place."""
        return self.sizes.get(name + "-1") or self.sizes[name + "/bn-beta"]

    def conv(self, x: Value, name: str, kernel: int = 1, stride: int = 1,
             pad: int | None = None) -> Value:
        filters = self.parameter(name + "-0", self.outputs(name), -1, kernel, kernel)
        return self.convolution(x, filters, self.bias(name), stride,
                                kernel // 2 if pad is None else pad)

    def fc(self, x: Value, name: str) -> Value:
        """Fully connected."""
        matrix = self.parameter(name + "-0", self.outputs(name), -1)
        return self.product(self.flat(x), matrix, self.bias(name))

    def normalized_relu(self, x: Value, name: str) -> Value:
        return self.relu(self.normalize(x, *(self.parameter(f"{name}/bn-{part}", -1) for part in
                                             ("gamma", "beta", "avg_mean", "avg_var"))))

    def cba(self, x: Value, name: str, kernel: int = 1, stride: int = 1,
            pad: int | None = None) -> Value:
        """Convolution, bias, ReLU."""
        return self.relu(self.conv(x, name, kernel, stride, pad))

    def cbn(self, x: Value, name: str, kernel: int = 1, stride: int = 1) -> Value:
        """Convolution without bias, batch normalization, ReLU."""
        return self.normalized_relu(self.conv(x, name, kernel, stride), name)

    def fcn(self, x: Value, name: str) -> Value:
        """Fully connected without bias, batch normalization, ReLU."""
        return self.normalized_relu(self.fc(x, name), name)

    def projection(self, x: Value, name: str) -> Value:
        mean = self.parameter(name + "-1", -1)
        return self.product(self.subtract(x, mean),
                            self.parameter(name + "-0", -1, self.sizes[name + "-1"]))

    def minus_mean_image(self, images: Value) -> Value:
        edge, channels = self.network.edge, self.network.channels
        mean = self.parameter("inMean-0", 1, edge, edge, channels, axes=(0, 3, 1, 2))
        return self.subtract(self.planar(images), mean)


def inception_v1(g: Layers[Value], x: Value, prefix: str) -> Value:
    return g.concat(g.cba(x, prefix + "1x1"),
                    g.cba(g.cba(x, prefix + "3x3_reduce"), prefix + "3x3", 3),
                    g.cba(g.cba(x, prefix + "5x5_reduce"), prefix + "5x5", 5),
                    g.cba(g.max_pool(x, 3, 1, 1), prefix + "pool_proj"))


def double_3x3(g: Layers[Value], x: Value, prefix: str, stride: int) -> Value:
    x = g.cbn(g.cbn(x, prefix + "double3x3_reduce"), prefix + "double3x3a", 3)
    return g.cbn(x, prefix + "double3x3b", 3, stride)


def inception_v3_1(g: Layers[Value], x: Value, prefix: str,
                   pool: Callable[[Value, int, int, int], Value]) -> Value:
    return g.concat(g.cbn(x, prefix + "1x1"),
                    g.cbn(g.cbn(x, prefix + "3x3_reduce"), prefix + "3x3", 3),
                    double_3x3(g, x, prefix, 1),
                    g.cbn(pool(x, 3, 1, 1), prefix + "pool_proj"))


def inception_v3_2(g: Layers[Value], x: Value, prefix: str) -> Value:
    return g.concat(g.cbn(g.cbn(x, prefix + "3x3_reduce"), prefix + "3x3", 3, 2),
                    double_3x3(g, x, prefix, 2),
                    g.max_pool(x, 3, 2))


def residual(g: Layers[Value], x: Value, name: str) -> Value:
    y = g.mfm(g.conv(x, name + "_conv1", 3))
    return g.add(x, g.mfm(g.conv(y, name + "_conv2", 3)))


def v1_to_4d(g: Layers[Value], images: Value) -> Value:
    x = g.cba(g.minus_mean_image(images), "conv1/7x7_s2", 7, 2)
    x = g.lrn(g.max_pool(x, 3, 2))
    x = g.cba(g.cba(x, "conv2/3x3_reduce"), "conv2/3x3", 3)
    x = g.max_pool(g.lrn(x), 3, 2)
    for block in "3a", "3b":
        x = inception_v1(g, x, f"inception_{block}/")
    x = g.max_pool(x, 3, 2)
    for block in "4a", "4b", "4c", "4d":
        x = inception_v1(g, x, f"inception_{block}/")
    return x


def v1_from_4e(g: Layers[Value], x: Value) -> Value:
    x = g.max_pool(inception_v1(g, x, "inception_4e/"), 3, 2)
    for block in "5a", "5b":
        x = inception_v1(g, x, f"inception_{block}/")
    return g.flat(g.average_pool(x, g.edge(x), 1))


def heads(g: Layers[Value], x: Value, classifiers: Iterable[str],
          regressors: Iterable[str] = ()) -> Value:
    x = g.flat(x)
    return g.concat(*(g.softmax(g.fc(x, "loss3/classifier_" + name)) for name in classifiers),
                    *(g.fc(x, "loss3/classifier_" + name) for name in regressors))


def dexpression(g: Layers[Value], images: Value) -> Value:
    x = g.cba(g.minus_mean_image(images), "conv1", 7, 2)
    x = g.lrn(g.max_pool(x, 3, 2))
    for stage in "conv2", "conv3":
        x = g.concat(g.cba(g.cba(x, stage + "a"), stage + "b", 3),
                     g.cba(g.max_pool(x, 3, 1, 1), stage + "c"))
        x = g.max_pool(x, 3, 2)
    return heads(g, x, ["acce_mouth", "acce_eye"])


def fa_net(g: Layers[Value], images: Value) -> Value:
    x = g.cba(g.minus_mean_image(images), "conv1", 7, 2, pad=0)
    x = g.max_pool(g.lrn(x, 5e-4, 2.0), 3, 3)
    x = g.max_pool(g.cba(x, "conv2", 5, pad=0), 2, 2)
    for name in "conv3", "conv4", "conv5":
        x = g.cba(x, name, 3)
    x = g.max_pool(x, 3, 3)
    x = g.relu(g.fc(x, "fc6"))
    x = g.relu(g.fc(x, "fc7"))
    return g.fc(x, "68point")


def google_net(g: Layers[Value], images: Value) -> Value:
    middle = v1_to_4d(g, images)
    branch = g.cba(g.average_pool(middle, 5, 3), "loss2/conv")
    branch = g.relu(g.fc(branch, "loss2/fc"))
    return g.projection(g.concat(branch, v1_from_4e(g, middle)), "pca")


def google_net_bn(g: Layers[Value], images: Value) -> Value:
    x = g.subtract(g.planar(images), g.parameter("mean", 1, -1, 1, 1))
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


def two_heads(g: Layers[Value], images: Value) -> Value:
    x = v1_from_4e(g, v1_to_4d(g, images))
    return heads(g, x, ["acce_mouth", "acce_eye"])


def twelve_tasks(g: Layers[Value], images: Value) -> Value:
    x = v1_from_4e(g, v1_to_4d(g, images))
    return heads(g, x, ["acce_eye", "acce_mouth", "acce_head", "acce_hair", "condition_eye",
                        "exp_mouth_open", "exp_mouth_corner"],
                 ["yaw", "pitch", "blur", "noise", "lumi"])


def lcnn29(g: Layers[Value], images: Value) -> Value:
    x = g.max_pool(g.mfm(g.conv(g.planar(images), "conv1", 5)), 2, 2)
    x = residual(g, x, "1")
    for stage, blocks in ("2", "23"), ("3", "456"), ("4", ("7", "8", "9", "10")), ("5", ""):
        x = g.mfm(g.conv(x, f"conv{stage}_1"))
        x = g.mfm(g.conv(x, f"conv{stage}_2", 3))
        if stage != "4":
            x = g.max_pool(x, 2, 2)
        for block in blocks:
            x = residual(g, x, block)
    return g.fc(x, "fc1")


GRAPHS = {
    "DexpressionNet": dexpression,
    "FANet": fa_net,
    "GoogLeNet": google_net,
    "GoogLeNetBN": google_net_bn,
    "GoogLeNet_FAA1ch": two_heads,
    "GoogLeNet_FAA3ch": two_heads,
    "GoogLeNet_FAA3ch_12tasks": twelve_tasks,
    "LCNN29": lcnn29,
}
# What weight files do not have.
CONSTANTS = {"GoogLeNetBN": {"mean": np.array([104, 117, 123], np.float32)}}


class Network(NamedTuple):
    name: str
    channels: int
    edge: int
    results_on_host: bool  # where `Forward` leaves them

    def build(self, g: Layers[Any], images: Any) -> Any:
        return GRAPHS[self.name](g, images)


@cache
def networks(worker: Path) -> dict[str, Network]:
    """All networks of the library, by name."""
    listed = subprocess.run([worker, "networks"], check=True, stdout=subprocess.PIPE, encoding="ascii")
    found = {}
    for line in listed.stdout.splitlines():
        name, channels, edge, memory = line.split()
        if name not in GRAPHS:
            raise SystemExit(f"bench/networks.py: expected a graph of {name}, found none")
        found[name] = Network(name, int(channels), int(edge), memory == "host")
    return found


def read_weights(path: Path) -> dict[str, np.ndarray]:
    document = msgpack.unpackb(path.read_bytes(), raw=True, max_str_len=2**31 - 1)
    return {name.decode(): np.frombuffer(data, "<f4") for name, data in document.items()}

"""The wiring of the eight networks, over operations that are still abstract.

The library's own table of a network says which layers with weights it has: their names, sizes, strides, padding
and weights, and which layers a block consists of. The functions below say in which order these layers, the
poolings, the normalizations and the joins follow each other. What is computed is up to a subclass of `Layers`:
numbers (`facezoo.torch`), nodes of a model (`facezoo.onnx`), or shapes (`recorded`).
"""
from __future__ import annotations

from abc import ABC, abstractmethod
from collections.abc import Callable, Iterator, Sequence
from dataclasses import dataclass
from functools import cache
from math import prod
from typing import Any, Generic, TypedDict, TypeVar

from facezoo import _core

Value = TypeVar("Value")  # images, feature maps or a matrix
Results = tuple[dict[str, Value], Value | None]


class Weight(TypedDict):
    """An array of a weight file; its name lacks the file's prefix."""
    name: str
    shape: list[int]
    role: str


Row = TypedDict("Row", {
    "kind": str, "name": str, "in": int, "out": int, "kernel": int, "stride": int, "pad": int, "bias": bool,
    "width": int, "height": int, "edge": int, "means": list[float], "max_pool": bool, "widths": dict[str, int],
    "weights": list[Weight], "layers": list[Any]})


class Table(TypedDict):
    """What the library says of a network."""
    name: str
    channels: int
    height: int
    width: int
    output_dim: int
    has_norm: bool
    outputs: list[tuple[str, int]]
    results: str
    layers: list[Row]


@cache
def table(network: str) -> Table:
    """The table of a network, always the same object, which is not to be changed."""
    return _core.table(network)


def leaves(rows: Sequence[Row]) -> Iterator[Row]:
    """The layers that have arrays themselves: the given ones, or those of which a block consists."""
    for row in rows:
        yield from leaves(row["layers"]) if row["layers"] else [row]


class Layers(ABC, Generic[Value]):
    """A network's layers by name, on top of operations that a subclass provides.

    Feature maps are (N, channels, height, width), matrices (N, values).
    """

    def __init__(self, network: Table) -> None:
        self.network = network
        self.rows = {row["name"]: row for row in network["layers"]}

    @abstractmethod
    def planar(self, images: Value) -> Value:
        """Bytes (N, height, width, channels) to floats (N, channels, height, width)."""

    @abstractmethod
    def subtract_mean(self, x: Value, row: Row) -> Value:
        """Less the array (height, width, channels) of a "meanImage", or the `means` of a "channelMean"."""

    @abstractmethod
    def convolution(self, x: Value, row: Row) -> Value:
        """With the bias, if the row has one."""

    @abstractmethod
    def normalize(self, x: Value, row: Row) -> Value:
        """Batch normalization: gamma · (x - mean) / sqrt(variance + 1e-5) + beta."""

    @abstractmethod
    def product(self, x: Value, row: Row) -> Value:
        """x · matrixᵀ, plus the bias, if the row has one."""

    @abstractmethod
    def project(self, x: Value, row: Row) -> Value:
        """(x - mean) · matrixᵀ"""

    @abstractmethod
    def edge(self, x: Value) -> int:
        """Height and width of a feature map."""

    @abstractmethod
    def max_pool(self, x: Value, window: int, stride: int, pad: int = 0) -> Value:
        """The size of the result is rounded up (`pooled`)."""

    @abstractmethod
    def average_pool(self, x: Value, window: int, stride: int, pad: int = 0) -> Value:
        """The size of the result is rounded up. Divides by the number of a window's positions inside the padded
        input."""

    @abstractmethod
    def lrn(self, x: Value, alpha: float = 1e-4, k: float = 1.0) -> Value:
        """Local response normalization over five channels: x / (k + alpha / 5 · Σ x²)^0.75."""

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
    def flat(self, x: Value) -> Value:
        """(N, channels · height · width), in this order; a matrix stays as it is."""

    @abstractmethod
    def concat(self, parts: Sequence[Value]) -> Value:
        """Joins channels, or the values of matrices."""

    def apply(self, row: Row, x: Value) -> Value:
        """The layer, or block of layers, that a row describes."""
        return KINDS[row["kind"]](self, row, x)

    def layer(self, name: str, x: Value) -> Value:
        if name not in self.rows:
            raise ValueError(f"{self.network['name']}: the library's table has no layer {name}")
        return self.apply(self.rows[name], x)

    def normalized_layer(self, name: str, x: Value) -> Value:
        """A layer without bias, the batch normalization that follows it, and ReLU."""
        return self.relu(self.layer(name + "/bn", self.layer(name, x)))

    def input(self, images: Value) -> Value:
        return self.apply(self.network["layers"][0], self.planar(images))

    def run(self, images: Value) -> Results[Value]:
        """The values of each group of results, before the softmax of those that have one, and the values of which
        the library takes the norm, if the network has norms."""
        return GRAPHS[self.network["name"]](self, images)

    def join(self, groups: dict[str, Value]) -> Value:
        """What the library returns, (N, values): probabilities of the classifiers, the other groups as they are."""
        parts = [self.softmax(value) if name in CLASSIFIERS else value for name, value in groups.items()]
        return self.concat(parts) if len(parts) > 1 else parts[0]


def in_turn(g: Layers[Value], rows: Sequence[Row], x: Value) -> Value:
    for row in rows:
        x = g.apply(row, x)
    return x


def inception_v1(g: Layers[Value], block: Row, x: Value) -> Value:
    conv1, reduce3, conv3, reduce5, conv5, projection = block["layers"]
    return g.concat([g.apply(conv1, x),
                     g.apply(conv3, g.apply(reduce3, x)),
                     g.apply(conv5, g.apply(reduce5, x)),
                     g.apply(projection, g.max_pool(x, 3, 1, 1))])


def inception_v3_1(g: Layers[Value], block: Row, x: Value) -> Value:
    conv1, reduce3, conv3, *double, projection = block["layers"]
    pool = g.max_pool if block["max_pool"] else g.average_pool
    return g.concat([g.apply(conv1, x),
                     g.apply(conv3, g.apply(reduce3, x)),
                     in_turn(g, double, x),
                     g.apply(projection, pool(x, 3, 1, 1))])


def inception_v3_2(g: Layers[Value], block: Row, x: Value) -> Value:
    reduce3, conv3, *double = block["layers"]
    return g.concat([g.apply(conv3, g.apply(reduce3, x)), in_turn(g, double, x), g.max_pool(x, 3, 2)])


def residual(g: Layers[Value], block: Row, x: Value) -> Value:
    conv1, conv2 = block["layers"]
    return g.add(x, g.mfm(g.apply(conv2, g.mfm(g.apply(conv1, x)))))


def normalized_convolution(g: Layers[Value], pair: Row, x: Value) -> Value:
    convolution, normalization = pair["layers"]
    return g.relu(g.apply(normalization, g.apply(convolution, x)))


KINDS: dict[str, Callable[[Layers[Any], Row, Any], Any]] = {
    "meanImage": lambda g, row, x: g.subtract_mean(x, row),
    "channelMean": lambda g, row, x: g.subtract_mean(x, row),
    "noMean": lambda g, row, x: x,
    "fusedConvolution": lambda g, row, x: g.relu(g.convolution(x, row)),
    "convolution": lambda g, row, x: g.convolution(x, row),
    "batchNormalization": lambda g, row, x: g.normalize(x, row),
    "normalizedConvolution": normalized_convolution,
    "innerProduct": lambda g, row, x: g.product(g.flat(x), row),
    "projection": lambda g, row, x: g.project(g.flat(x), row),
    "inceptionV1": inception_v1,
    "inceptionV3_1": inception_v3_1,
    "inceptionV3_2": inception_v3_2,
    "inceptionMFM": residual,
}

# Groups of results and the last part of the name of the layer that computes them.
CLASSIFIERS = {"mouth": "acce_mouth", "eye": "acce_eye", "head": "acce_head", "hair": "acce_hair",
               "eye_condition": "condition_eye", "mouth_open": "exp_mouth_open",
               "mouth_corner": "exp_mouth_corner"}
REGRESSORS = {"yaw": "yaw", "pitch": "pitch", "blur": "blur", "noise": "noise", "luminance": "lumi"}


def heads(g: Layers[Value], x: Value) -> Results[Value]:
    x = g.flat(x)
    layers = CLASSIFIERS | REGRESSORS
    return {group: g.layer("loss3/classifier_" + layers[group], x) for group, _ in g.network["outputs"]}, None


def v1_to_4d(g: Layers[Value], images: Value) -> Value:
    x = g.layer("conv1/7x7_s2", g.input(images))
    x = g.lrn(g.max_pool(x, 3, 2))
    x = g.layer("conv2/3x3", g.layer("conv2/3x3_reduce", x))
    x = g.max_pool(g.lrn(x), 3, 2)
    for block in "3a", "3b":
        x = g.layer(f"inception_{block}/", x)
    x = g.max_pool(x, 3, 2)
    for block in "4a", "4b", "4c", "4d":
        x = g.layer(f"inception_{block}/", x)
    return x


def v1_from_4e(g: Layers[Value], x: Value) -> Value:
    x = g.max_pool(g.layer("inception_4e/", x), 3, 2)
    for block in "5a", "5b":
        x = g.layer(f"inception_{block}/", x)
    return g.average_pool(x, g.edge(x), 1)


def v1_heads(g: Layers[Value], images: Value) -> Results[Value]:
    return heads(g, v1_from_4e(g, v1_to_4d(g, images)))


def projected(g: Layers[Value], branch: Value, x: Value) -> Results[Value]:
    descriptor = g.concat([branch, g.flat(x)])
    return {"features": g.layer("pca", descriptor)}, descriptor


def dexpression(g: Layers[Value], images: Value) -> Results[Value]:
    x = g.layer("conv1", g.input(images))
    x = g.lrn(g.max_pool(x, 3, 2))
    for stage in "conv2", "conv3":
        x = g.concat([g.layer(stage + "b", g.layer(stage + "a", x)),
                      g.layer(stage + "c", g.max_pool(x, 3, 1, 1))])
        x = g.max_pool(x, 3, 2)
    return heads(g, x)


def fa_net(g: Layers[Value], images: Value) -> Results[Value]:
    x = g.layer("conv1", g.input(images))
    x = g.max_pool(g.lrn(x, 5e-4, 2.0), 3, 3)
    x = g.max_pool(g.layer("conv2", x), 2, 2)
    for name in "conv3", "conv4", "conv5":
        x = g.layer(name, x)
    described = g.flat(g.max_pool(x, 3, 3))
    x = g.relu(g.layer("fc6", described))
    x = g.relu(g.layer("fc7", x))
    return {"landmarks": g.layer("68point", x)}, described


def google_net(g: Layers[Value], images: Value) -> Results[Value]:
    middle = v1_to_4d(g, images)
    branch = g.layer("loss2/conv", g.average_pool(middle, 5, 3))
    branch = g.relu(g.layer("loss2/fc", branch))
    return projected(g, branch, v1_from_4e(g, middle))


def google_net_bn(g: Layers[Value], images: Value) -> Results[Value]:
    x = g.max_pool(g.normalized_layer("conv1/7x7_s2", g.input(images)), 3, 2)
    x = g.normalized_layer("conv2/3x3", g.normalized_layer("conv2/3x3_reduce", x))
    x = g.max_pool(x, 3, 2)
    for block in "3a", "3b", "3c", "4a", "4b", "4c", "4d", "4e":
        x = g.layer(f"inception_{block}/", x)
    branch = g.normalized_layer("loss2/conv", g.average_pool(x, 5, 3))
    branch = g.normalized_layer("loss2/fc", branch)
    for block in "5a", "5b":
        x = g.layer(f"inception_{block}/", x)
    return projected(g, branch, g.average_pool(x, 7, 1))


def lcnn29(g: Layers[Value], images: Value) -> Results[Value]:
    x = g.max_pool(g.mfm(g.layer("conv1", g.input(images))), 2, 2)
    x = g.layer("1", x)
    for stage, blocks in ("2", "23"), ("3", "456"), ("4", ("7", "8", "9", "10")), ("5", ""):
        x = g.mfm(g.layer(f"conv{stage}_1", x))
        x = g.mfm(g.layer(f"conv{stage}_2", x))
        if stage != "4":
            x = g.max_pool(x, 2, 2)
        for block in blocks:
            x = g.layer(block, x)
    described = g.flat(x)
    return {"features": g.layer("fc1", described)}, described


GRAPHS: dict[str, Callable[[Layers[Any], Any], Results[Any]]] = {
    "DexpressionNet": dexpression,
    "FANet": fa_net,
    "GoogLeNet": google_net,
    "GoogLeNetBN": google_net_bn,
    "GoogLeNet_FAA1ch": v1_heads,
    "GoogLeNet_FAA3ch": v1_heads,
    "GoogLeNet_FAA3ch_12tasks": v1_heads,
    "LCNN29": lcnn29,
}
# Layers whose arrays a weight file must have, although no result depends on them.
UNUSED = {"GoogLeNetBN": {"loss1/conv", "loss1/conv/bn", "loss1/fc", "loss1/fc/bn"}}


def pooled(edge: int, window: int, stride: int, pad: int) -> int:
    """The edge of a pooled map: a window that only partly covers the input still gives a value."""
    return -(-(edge + 2 * pad - window) // stride) + 1


def convolved(edge: int, row: Row) -> int:
    """The edge of a convolution's result: every window lies inside the padded input."""
    return (edge + 2 * row["pad"] - row["kernel"]) // row["stride"] + 1


@dataclass
class Step:
    """A layer, or several of which each takes the result of the one before."""
    inputs: list[int]  # the steps whose results it takes
    kinds: list[str]
    shape: tuple[int, ...]  # of the result, for one image
    window: tuple[int, int, int] | None = None  # edge, stride and padding
    rows: tuple[Row, ...] = ()


@dataclass(frozen=True)
class Map:
    """The result of a step, or a part of what leads to it."""
    step: int
    shape: tuple[int, ...]


class Recorder(Layers[Map]):
    """Notes what follows what and the shapes for one image, and refuses what does not fit together."""

    NAMES = {"meanImage": "mean image", "channelMean": "mean of each channel", "innerProduct": "fully connected",
             "batchNormalization": "batch normalization", "inceptionV1": "Inception", "inceptionV3_1": "Inception",
             "inceptionV3_2": "Inception, halving", "inceptionMFM": "residual block"}

    def __init__(self, network: Table) -> None:
        super().__init__(network)
        self.steps: list[Step] = []
        self.products = 0
        self.block_depth = 0
        images = Map(-1, (network["height"], network["width"], network["channels"]))
        groups, described = self.run(images)
        self.results = self.join(groups)
        self.require(list(groups), [name for name, _ in network["outputs"]], "groups of results")
        for name, count in network["outputs"]:
            self.require(groups[name].shape, (count,), f"values of {name}")
        self.require(described is not None, network["has_norm"], "norm")
        used = {row["name"] for step in self.steps for row in step.rows}
        self.require(set(self.rows) - used, UNUSED.get(network["name"], set()), "layers that nothing uses")

    def require(self, found: object, expected: object, what: str) -> None:
        if found != expected:
            raise ValueError(f"{self.network['name']}: the graph and the library's table differ in "
                             f"{what}: {found} and {expected}")

    def step(self, kind: str, shape: tuple[int, ...], *inputs: Map, window: tuple[int, int, int] | None = None,
             joins: bool = False) -> Map:
        """@param joins whether the layer becomes part of the step before it, if its input comes from there"""
        last = len(self.steps) - 1
        if joins and inputs[0].step == last >= 0:
            self.steps[last].kinds.append(kind)
            self.steps[last].shape = shape
            return Map(last, shape)
        self.steps.append(Step([x.step for x in inputs], [kind], shape, window))
        return Map(last + 1, shape)

    def apply(self, row: Row, x: Map) -> Map:
        before = len(self.steps)
        self.block_depth += 1
        y = super().apply(row, x)
        self.block_depth -= 1
        if self.block_depth:
            return y
        if row["layers"]:
            del self.steps[before:]
            y = self.step(self.NAMES[row["kind"]], y.shape, x)
        self.steps[-1].rows += (row,)
        return y

    def planar(self, images: Map) -> Map:
        height, width, channels = images.shape
        return self.step("floats", (channels, height, width), images)

    def subtract_mean(self, x: Map, row: Row) -> Map:
        if row["kind"] == "meanImage":
            self.require((row["in"], row["height"], row["width"]), x.shape, "the mean image")
        return self.step("less the " + self.NAMES[row["kind"]], x.shape, x, joins=True)

    def convolution(self, x: Map, row: Row) -> Map:
        self.require(x.shape[0], row["in"], f"channels that enter {row['name']}")
        edge = convolved(self.edge(x), row)
        self.products += row["out"] * row["in"] * (row["kernel"] * edge) ** 2
        return self.step("convolution", (row["out"], edge, edge), x,
                         window=(row["kernel"], row["stride"], row["pad"]))

    def normalize(self, x: Map, row: Row) -> Map:
        self.require(x.shape[0], row["in"], f"channels that enter {row['name']}")
        return self.step("batch normalization", x.shape, x, joins=True)

    def product(self, x: Map, row: Row) -> Map:
        self.require(x.shape, (row["in"],), f"values that enter {row['name']}")
        self.products += row["in"] * row["out"]
        return self.step("projection" if row["kind"] == "projection" else "fully connected", (row["out"],), x)

    def project(self, x: Map, row: Row) -> Map:
        return self.product(x, row)

    def edge(self, x: Map) -> int:
        return x.shape[-1]

    def pool(self, kind: str, x: Map, window: int, stride: int, pad: int) -> Map:
        edge = pooled(self.edge(x), window, stride, pad)
        return self.step(kind, (x.shape[0], edge, edge), x, window=(window, stride, pad))

    def max_pool(self, x: Map, window: int, stride: int, pad: int = 0) -> Map:
        return self.pool("max pooling", x, window, stride, pad)

    def average_pool(self, x: Map, window: int, stride: int, pad: int = 0) -> Map:
        return self.pool("average pooling", x, window, stride, pad)

    def lrn(self, x: Map, alpha: float = 1e-4, k: float = 1.0) -> Map:
        return self.step("local response normalization", x.shape, x)

    def mfm(self, x: Map) -> Map:
        return self.step("max feature map", (x.shape[0] // 2, *x.shape[1:]), x, joins=True)

    def relu(self, x: Map) -> Map:
        return self.step("ReLU", x.shape, x, joins=True)

    def softmax(self, x: Map) -> Map:
        self.steps[x.step].kinds.append("softmax")
        return x

    def add(self, a: Map, b: Map) -> Map:
        self.require(a.shape, b.shape, "terms of a sum")
        return self.step("sum", a.shape, a, b)

    def flat(self, x: Map) -> Map:
        return Map(x.step, (prod(x.shape),))

    def concat(self, parts: Sequence[Map]) -> Map:
        self.require({part.shape[1:] for part in parts}, {parts[0].shape[1:]}, "sizes of joined maps")
        return self.step("join", (sum(part.shape[0] for part in parts), *parts[0].shape[1:]), *parts)


@cache
def recorded(network: str) -> Recorder:
    """A pass of one image through a network: the steps with their shapes.

    Raises:
        ValueError: The graph uses a layer that the library's table lacks, leaves one out, or shapes do not fit.
    """
    return Recorder(table(network))


def operations(network: str) -> int:
    """Additions and multiplications for one image, by the definition of convolutions and products."""
    return 2 * recorded(network).products

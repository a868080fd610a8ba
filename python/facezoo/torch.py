"""The eight networks as PyTorch modules, to be trained and to be compared with.

    network = facezoo.torch.LCNN29()
    network.load_weights("lcnn.msgpack")
    features = network.eval()(images)  # uint8 (n, 128, 128, 3) -> float32 (n, 512)

Layers and sizes are those of the library's own tables. A module's parameters and buffers have the names of the
arrays in a weight file, such as "inception_3a/3x3_reduce-0", also in its `state_dict`.
"""
from __future__ import annotations

import os
from collections.abc import Sequence
from math import prod, sqrt

import numpy as np
import torch
import torch.nn.functional as F
from torch import Tensor, nn
from torch.nn.utils.fusion import fuse_conv_bn_weights

from facezoo import graphs, weights
from facezoo.graphs import Row

EPSILON = 1e-5  # what the library adds to a variance
MOMENTUM = 0.1  # the share of a batch in the running statistics
# Arrays that no gradient reaches; the mean of a projection is one of the descriptors of a data set.
STATISTICS = "mean", "variance"


class _Pass(graphs.Layers[Tensor]):
    """One pass of a batch through a module."""

    def __init__(self, module: Network, normalized: bool) -> None:
        super().__init__(module.table)
        self.module = module
        self.normalized = normalized
        # Looking into these takes a tenth of the time of an attribute.
        self.arrays: dict[str, Tensor] = {**module._parameters, **module._buffers}  # type: ignore[dict-item]

    def arrays_of(self, row: Row) -> list[Tensor]:
        return [self.arrays[weight["name"]] for weight in row["weights"]]

    def planar(self, images: Tensor) -> Tensor:
        dtype = next(iter(self.module._parameters.values())).dtype  # type: ignore[union-attr]
        return images.permute(0, 3, 1, 2).to(dtype).contiguous(memory_format=self.module.memory_format)

    def subtract_mean(self, x: Tensor, row: Row) -> Tensor:
        return x if self.normalized else x - self.module.mean.permute(2, 0, 1)

    def convolution(self, x: Tensor, row: Row) -> Tensor:
        x = F.conv2d(x, *self.arrays_of(row), stride=row["stride"], padding=row["pad"])
        return self.batch_norm(x, added_names(row)) if self.module.batch_norm and row["bias"] else x

    def normalize(self, x: Tensor, row: Row) -> Tensor:
        return self.batch_norm(x, [weight["name"] for weight in row["weights"]])

    def batch_norm(self, x: Tensor, names: Sequence[str]) -> Tensor:
        gamma, beta, mean, variance = (self.arrays[name] for name in names)
        return F.batch_norm(x, mean, variance, gamma, beta, self.module.training, MOMENTUM, EPSILON)

    def product(self, x: Tensor, row: Row) -> Tensor:
        return F.linear(x, *self.arrays_of(row))

    def project(self, x: Tensor, row: Row) -> Tensor:
        matrix, mean = self.arrays_of(row)
        return F.linear(x - mean, matrix)

    def edge(self, x: Tensor) -> int:
        return x.shape[-1]

    def max_pool(self, x: Tensor, window: int, stride: int, pad: int = 0) -> Tensor:
        return F.max_pool2d(x, window, stride, pad, ceil_mode=True)

    def average_pool(self, x: Tensor, window: int, stride: int, pad: int = 0) -> Tensor:
        return F.avg_pool2d(x, window, stride, pad, ceil_mode=True, count_include_pad=True)

    def lrn(self, x: Tensor, alpha: float = 1e-4, k: float = 1.0) -> Tensor:
        return F.local_response_norm(x, 5, alpha, 0.75, k)

    def mfm(self, x: Tensor) -> Tensor:
        return torch.maximum(*x.chunk(2, 1))

    def relu(self, x: Tensor) -> Tensor:
        # What a layer has just computed may be overwritten, unless a gradient needs it.
        return F.relu(x, inplace=not torch.is_grad_enabled())

    def softmax(self, x: Tensor) -> Tensor:
        return F.softmax(x, 1)

    def add(self, a: Tensor, b: Tensor) -> Tensor:
        return a + b

    def flat(self, x: Tensor) -> Tensor:
        return torch.flatten(x, 1)

    def concat(self, parts: Sequence[Tensor]) -> Tensor:
        return torch.cat(list(parts), 1)


class Network(nn.Module):
    """What the eight modules have in common.

    A new module has the initialization of He et al. ("Delving deep into rectifiers", 2015), which keeps the size
    of values from layer to layer. It suits `normalized` images; from bytes, values are some sixty times as large.
    A mean image begins as 127.5.

    Filters, matrices, biases, and gamma and beta of batch normalization are parameters. The mean image, the mean
    of a projection and running statistics are buffers; training changes the last alone. In training mode batch
    normalization takes the statistics of the batch, and adds a tenth of them to nine tenths of the running ones,
    the variance as an estimate from a sample (divided by n - 1), as PyTorch does.

    Args:
        batch_norm: Whether each convolution that has a bias is followed by a batch normalization, which the
            library does not have there. It helps deep networks to begin to learn; `fold_batch_norm` removes it.

    Attributes:
        table: What the library says of the network.
        outputs: The columns of the results by group, such as {"mouth": slice(0, 2), "eye": slice(2, 5)}.
        memory_format: Of the feature maps; `to(memory_format=...)` changes that of the filters.
    """

    def __init__(self, batch_norm: bool = False) -> None:
        super().__init__()
        graphs.recorded(type(self).__name__)  # refuses a table that the graph does not fit
        self.table = graphs.table(type(self).__name__)
        self.memory_format = torch.contiguous_format
        self.batch_norm = batch_norm
        self.outputs, end = {}, 0
        for group, count in self.table["outputs"]:
            self.outputs[group] = slice(end, end + count)
            end += count
        if (first := self.table["layers"][0])["kind"] != "meanImage":  # so that no weight file has it
            means = torch.tensor(first["means"] or [0] * first["in"], dtype=torch.float32).view(1, 1, -1)
            self.register_buffer("means", means, persistent=False)
        for row in graphs.leaves(self.table["layers"]):
            for weight in row["weights"]:
                self._add(weight["name"], weight["shape"], weight["role"], row)
            if batch_norm and _is_biased_convolution(row):
                for name, role in zip(added_names(row), ("scale", "shift", "mean", "variance")):
                    self._add(name, [row["out"]], role, row)

    def _add(self, name: str, shape: Sequence[int], role: str, row: Row) -> None:
        values = torch.empty(*shape)
        if role == "filter":
            nn.init.normal_(values, std=sqrt(_gain(row) / prod(shape[1:])))
        else:
            values.fill_(127.5 if row["kind"] == "meanImage" else 1 if role in ("scale", "variance") else 0)
        if role in STATISTICS:
            self.register_buffer(name, values)
        else:
            self.register_parameter(name, nn.Parameter(values))

    @property
    def mean(self) -> Tensor:
        """What is subtracted from the pixels: a mean image (height, width, channels), which `mean.copy_(image)`
        sets, else constants (1, 1, channels)."""
        return self._buffers["inMean-0" if "inMean-0" in self._buffers else "means"]  # type: ignore[return-value]

    def forward(self, images: Tensor, norm: bool = False,
                normalized: bool = False) -> Tensor | tuple[Tensor, Tensor]:
        """What the library returns.

        Args:
            images: (n, height, width, channels), uint8, or floats of the same range.
            norm: Whether to return norms, too.
            normalized: Whether the images are floats from which the mean has been subtracted already, by the
                caller (`fold_normalization`).

        Returns:
            float32 (n, values): the groups of results one after the other, where those of classifiers are
            probabilities. With `norm`, also the Euclidean norms (n,) of the values that the library describes
            a face by.

        Raises:
            ValueError: The images have another shape, are of integers other than uint8, or bytes are said to be
                normalized; or the network has no norms.
        """
        pass_ = self._pass(images, normalized)
        groups, described = pass_.run(images)
        if not norm:
            return pass_.join(groups)
        if described is None:
            raise ValueError(f"{self.table['name']} has no norms")
        return pass_.join(groups), torch.linalg.vector_norm(described, dim=1)

    def logits(self, images: Tensor, normalized: bool = False) -> dict[str, Tensor]:
        """The values before the softmax, for a loss: (n, count) by group, as in `outputs`. Groups without a
        softmax have their results. Arguments and errors are those of `forward`."""
        return self._pass(images, normalized).run(images)[0]

    def _pass(self, images: Tensor, normalized: bool) -> _Pass:
        expected = self.table["height"], self.table["width"], self.table["channels"]
        if images.dim() != 4 or tuple(images.shape[1:]) != expected:
            raise ValueError(f"expected images of shape (n, {', '.join(map(str, expected))}), "
                             f"found {tuple(images.shape)}")
        if not images.is_floating_point() and (normalized or images.dtype != torch.uint8):
            raise ValueError(f"expected {'floats' if normalized else 'uint8 or floats'}, found {images.dtype}")
        return _Pass(self, normalized)

    def load_weights(self, path: str | os.PathLike[str], prefix: str = "") -> None:
        """Takes the arrays of a weight file, whose names begin with `prefix`. Batch normalizations that were added
        keep what they have.

        Raises:
            facezoo.WeightError: The file cannot be read, or an array is missing, of another size or not finite.
        """
        tensors = self._named_arrays()
        with torch.no_grad():
            for name, array in weights.load(path, self.table["name"], prefix).items():
                tensors[name].copy_(torch.from_numpy(array.copy()))

    def save_weights(self, path: str | os.PathLike[str], prefix: str = "") -> None:
        """Writes a weight file for the library, with all arrays that it asks for.

        Raises:
            ValueError: Batch normalizations that the library does not have are to be folded first.
            facezoo.WeightError: An array is not finite.
            facezoo.Error: The file cannot be written.
        """
        if self.batch_norm:
            raise ValueError("expected a network as the library has it, found batch normalizations added; "
                             "fold_batch_norm(network) removes them")
        weights.save(path, self._named_arrays(), self.table["name"], prefix)

    def _named_arrays(self) -> dict[str, Tensor]:
        """The arrays of a weight file, by their names in it."""
        tensors = {**self._parameters, **self._buffers}
        names = [weight["name"] for row in graphs.leaves(self.table["layers"]) for weight in row["weights"]]
        return {name: tensors[name] for name in names}  # type: ignore[misc]


class DexpressionNet(Network):
    """Whether the mouth and the eyes are open."""


class FANet(Network):
    """68 landmarks."""


class GoogLeNet(Network):
    """A descriptor, from grey images."""


class GoogLeNetBN(Network):
    """A descriptor, from colour images, with batch normalization. The parameters "loss1/..." are part of a weight
    file, but no result depends on them."""


class GoogLeNet_FAA1ch(Network):
    """Mouth and eyes, from grey images."""


class GoogLeNet_FAA3ch(Network):
    """Mouth and eyes, from colour images."""


class GoogLeNet_FAA3ch_12tasks(Network):
    """Seven classifications and five measures."""


class LCNN29(Network):
    """A descriptor, from colour images, with max feature maps."""


def module(name: str, batch_norm: bool = False) -> Network:
    """A new module of the network with that name.

    Raises:
        ValueError: There is no such network.
    """
    for network in Network.__subclasses__():
        if network.__name__ == name:
            return network(batch_norm)
    raise ValueError(f"expected one of {', '.join(graphs.GRAPHS)}, found {name}")


def fold_normalization(network: Network, mean: float | Sequence[float] | np.ndarray,
                       std: float | Sequence[float], scale: float = 1 / 255) -> None:
    """Lets a network take bytes x that was trained on images z = (scale · x - mean) / std, given as `normalized`.

    With the filters W of the first convolution, W · z = W' · (x - mean'), where

        mean' = mean / scale,    W'[o, c] = W[o, c] · scale / std[c]

    mean' becomes what the network subtracts. It cannot do anything else with pixels, so that the division is left
    to the filters, and `std` is one number for each channel. The padding is zero in z as in x - mean', so that the
    borders of images agree as well.

    Args:
        mean: One number, one for each channel, or (height, width, channels).
        std: One number, or one for each channel.

    Raises:
        ValueError: The network subtracts constants, and mean' is something else; or shapes do not fit.
    """
    target = network.mean
    try:
        shift = (torch.as_tensor(mean, dtype=torch.float64) / scale).expand(target.shape)
        factor = (scale / torch.as_tensor(std, dtype=torch.float64)).expand(target.shape[2])
    except RuntimeError as error:
        raise ValueError(f"expected a mean and a deviation for {target.shape[2]} channels: {error}") from None
    if "inMean-0" not in network._buffers and not torch.allclose(shift.to(target), target, atol=0.01):
        raise ValueError(f"{network.table['name']} always subtracts {target.flatten().tolist()}, "
                         f"found a mean of {shift.flatten().tolist()} for bytes")
    first = next(row for row in graphs.leaves(network.table["layers"]) if row["kernel"] > 1)
    filters = network._parameters[first["weights"][0]["name"]]
    with torch.no_grad():
        target.copy_(shift)
        filters.mul_(factor.to(filters).view(1, -1, 1, 1))  # type: ignore[union-attr]


def fold_batch_norm(network: Network) -> None:
    """Removes the batch normalizations that `batch_norm=True` added (Ioffe and Szegedy, "Batch normalization",
    2015). In evaluation mode the network computes the same. The filters W and the bias b of a convolution become

        W'[o] = W[o] · gamma[o] / sqrt(variance[o] + 1e-5)
        b'[o] = (b[o] - mean[o]) · gamma[o] / sqrt(variance[o] + 1e-5) + beta[o]
    """
    if not network.batch_norm:
        return
    parameters, buffers = network._parameters, network._buffers
    for row in filter(_is_biased_convolution, graphs.leaves(network.table["layers"])):
        filters, bias = (parameters[weight["name"]] for weight in row["weights"])
        gamma, beta, mean, variance = added = added_names(row)
        folded = fuse_conv_bn_weights(
            filters, bias, buffers[mean], buffers[variance], EPSILON,  # type: ignore[arg-type]
            parameters[gamma], parameters[beta])
        with torch.no_grad():
            filters.copy_(folded[0])  # type: ignore[union-attr]
            bias.copy_(folded[1])  # type: ignore[union-attr]
        for name in added:
            delattr(network, name)
    network.batch_norm = False


def added_names(row: Row) -> list[str]:
    """The arrays of the batch normalization that is added behind a convolution, named as the library names those
    that it has."""
    layer = row["weights"][0]["name"].removesuffix("-0")
    return [f"{layer}/bn-{part}" for part in ("gamma", "beta", "avg_mean", "avg_var")]


def _is_biased_convolution(row: Row) -> bool:
    return row["bias"] and row["kind"] in ("convolution", "fusedConvolution")


def _gain(row: Row) -> float:
    """What the mean square of a layer's results is to be, by that of its inputs. A ReLU takes half of it away. The
    larger of two channels takes nothing, and residual sums of such layers add to it."""
    return 0.7 if row["kind"] == "convolution" and row["bias"] else 2

"""Weight files as NumPy arrays: checked, made, read, written, and exchanged with other frameworks.

A weight file is a MessagePack map of names to little-endian 32-bit floats; it has no shapes. The functions that
are given a network know the shapes of its arrays, from the index that varies slowest to the one that varies
fastest: a filter is ``(outputs, inputs, rows, columns)``, a matrix ``(outputs, inputs)``, a mean image
``(rows, columns, channels)``. A ``network`` is its name, one of ``facezoo.networks()``.

Arrays are named as the network names them. A ``prefix`` stands in front of these names in a file or a state: it
is added where a file is written, and taken off where one is read.

A file appears under its name only when it is complete, and replaces what had the name before. Files that are
made of arrays are read back and compared before that.

All functions raise ValueError if there is no such network, and TypeError for arguments of a wrong type. They
release the interpreter's lock while they read and write, and none needs a device.
"""

import operator
import os
from collections.abc import Mapping, Sequence
from dataclasses import dataclass
from typing import Any, NamedTuple

import numpy as np
from numpy.typing import NDArray

from facezoo import _core

__all__ = ["ProposedNames", "Report", "check", "from_state_dict", "load", "propose_names", "save", "synthesize",
           "to_safetensors"]

Path = str | bytes | os.PathLike[str] | os.PathLike[bytes]
Floats = NDArray[np.float32]
# Name, type, shape, and the bytes of 32-bit floats; None if the type is not of floats.
_Tensor = tuple[str, str, Sequence[int], NDArray[np.uint8] | None]


@dataclass(frozen=True)
class Report:
    """What `check` found in a weight file. Its text is what ``facezoo weights check`` prints.

    Attributes:
        network: The network's name.
        expected: How many arrays the network reads.
        faults: Why the network would not load, or not work: a sentence for each array that is missing, of a wrong
            type or size, or not finite.
        unused: Names of entries that the network does not read, the first 40 of them.
        unused_count: How many entries the network does not read.
        text: All of this in lines, then the verdict.
    """

    network: str
    expected: int
    faults: tuple[str, ...]
    unused: tuple[str, ...]
    unused_count: int
    text: str

    @property
    def ok(self) -> bool:
        """Whether the network can use the file."""
        return not self.faults

    def __str__(self) -> str:
        return self.text


class ProposedNames(NamedTuple):
    """Which tensors may be a network's weights. To be checked: a state does not say which of equal layers is which.

    Attributes:
        names: Each of the network's weights, and its tensor; None if none was found.
        by_name: How many tensors, or their modules, are called like the weight.
        by_shape: How many tensors alone have the shape.
        by_order: How many are the n-th of equal modules for the n-th of equal layers.
    """

    names: dict[str, str | None]
    by_name: int
    by_shape: int
    by_order: int


def check(network: str, path: Path, prefix: str = "") -> Report:
    """Lists all that is wrong with a weight file, as ``facezoo weights check`` does.

    Raises:
        facezoo.WeightError: The file is no weight file, or cannot be read. All other faults are in the report.
    """
    network = _network(network)
    expected, faults, unused, count, text = _core.check_weights(_path(path), network, _text("prefix", prefix))
    return Report(network, expected, tuple(faults), tuple(unused), count, text)


def synthesize(network: str, path: Path, seed: int = 1, prefix: str = "") -> None:
    """Writes a weight file of random values, as ``facezoo weights synth`` does: equal seeds give equal bytes.

    The values are scaled to give sane results.

    Args:
        seed: From 0 to 2^64 - 1.

    Raises:
        ValueError: The seed is outside that range.
        facezoo.Error: The file cannot be written.
    """
    seed = operator.index(seed)
    if not 0 <= seed < 1 << 64:
        raise ValueError(f"seed: expected a whole number from 0 to {(1 << 64) - 1}, found {seed}")
    _core.synthesize_weights(_path(path), _network(network), seed, _text("prefix", prefix))


def load(path: Path, network: str | None = None, prefix: str = "") -> dict[str, Floats]:
    """Reads a weight file.

    The file is read once, and not copied again: the arrays are views of its bytes, which live as long as one of
    them. They are float32, read-only, and in general not aligned to four bytes, as they are not in the file. NumPy
    computes with such arrays; ``array.copy()`` is aligned and writable, for what needs that, as PyTorch does.

    Args:
        network: Takes this network's arrays only, in the order of its layers and with their shapes. Without a
            network, all arrays are taken, in the order of the file, each of shape ``(elements,)``.
        prefix: What stands in front of the network's names in the file.

    Raises:
        facezoo.WeightError: The file is no weight file, or cannot be read; an array of the network is missing, of
            a wrong type or size, or not finite. Without a network: the file holds an entry that is no array.
    """
    arguments = _path(path), *_optional_network(network, prefix)
    return _arrays(_core.load_weights(*arguments))


def save(path: Path, arrays: Mapping[str, Any], network: str | None = None, prefix: str = "") -> None:
    """Writes a weight file.

    Args:
        arrays: Names and arrays of float32, float16, bfloat16 or float64, which is rounded to float32: whatever
            NumPy makes an array of, and tensors of PyTorch or with DLPack.
        network: Writes exactly this network's arrays, in the order of its layers. Their shapes may differ from the
            layer's by sizes of 1; the matrix of a layer that flattens a feature map may be of shape
            ``(outputs, channels, rows, columns)``. Without a network the arrays are written as they are.
        prefix: What to put in front of the network's names.

    Raises:
        facezoo.WeightError: An array is not of floats. With a network: one is missing, is none of the
            network's, of a wrong shape, or not finite.
        facezoo.Error: The file cannot be written.
    """
    arguments = _optional_network(network, prefix)
    _core.save_weights(_path(path), _tensors("arrays", arrays), *arguments)


def propose_names(network: str, state_dict: Mapping[str, Any] | Path, prefix: str = "") -> ProposedNames:
    """Proposes which tensors are the network's weights, as ``facezoo weights names`` does.

    Args:
        state_dict: As `from_state_dict` takes it.

    Raises:
        facezoo.WeightError: The file is no safetensors file, or cannot be read.
    """
    names, *counts = _core.propose_names(_network(network), _source(state_dict), _text("prefix", prefix))
    return ProposedNames(dict(names), *counts)


def from_state_dict(network: str, state_dict: Mapping[str, Any] | Path,
                    names: Mapping[str, str | None] | None = None, prefix: str = "") -> dict[str, Floats]:
    """Takes a network's weights out of a state of another framework, as ``facezoo weights import`` does.

    Args:
        state_dict: Names and tensors, as ``module.state_dict()`` of PyTorch gives them, or the path of a
            safetensors file. Shapes and types are those that `save` takes, but a file may not hold float64. Tensors
            that the network does not need are left alone, whatever they hold.
        names: The names of weights, and of the tensors that are called otherwise.
        prefix: What stands in front of the network's names in the state.

    Returns:
        The network's arrays in the order of its layers, of the layers' shapes, in float32 and read-only. Those that
        were float32 and contiguous are not copied: they change with the state's.

    Raises:
        facezoo.WeightError: A tensor is missing, given to two weights, of a wrong type or shape, or not finite;
            `names` has no tensor for a weight, or a name that is none of the network's; the file is no safetensors
            file, or cannot be read.
    """
    network, prefix = _network(network), _text("prefix", prefix)
    pairs = [(_text("names", weight), tensor if tensor is None else _text("names", tensor))
             for weight, tensor in _mapping("names", names or {}).items()]
    source = "state_dict" if isinstance(state_dict, Mapping) else _path(state_dict)
    return _arrays(_core.select_tensors(network, _source(state_dict), pairs, prefix, source))


def to_safetensors(network: str, weights: Mapping[str, Any] | Path, path: Path, prefix: str = "") -> None:
    """Writes the safetensors file of a network's weights, as ``facezoo weights export`` does.

    Args:
        weights: Arrays, as `save` takes them, or the path of a weight file.
        path: The file to write. Tensors are F32, in the order of the layers and of their shapes.
        prefix: What stands in front of the network's names, in both files.

    Raises:
        facezoo.WeightError: As `load` or `save` with a network.
        facezoo.Error: The file cannot be written, or is the weight file itself.
    """
    network, prefix = _network(network), _text("prefix", prefix)
    inputs = []
    if not isinstance(weights, Mapping):
        inputs = [_path(weights)]
        weights = load(weights, network, prefix)
    _core.save_safetensors(_path(path), _tensors("weights", weights), network, prefix, inputs)


def _network(name: str) -> str:
    if _text("network", name) not in _core.networks():
        raise ValueError(f"network: expected one of {', '.join(_core.networks())}, found {name}")
    return name


def _optional_network(network: str | None, prefix: str) -> tuple[str | None, str]:
    if network is not None:
        return _network(network), _text("prefix", prefix)
    if prefix:
        raise ValueError(f"prefix: expected one only with a network, found {prefix!r} without")
    return None, ""


def _text(argument: str, value: str) -> str:
    if not isinstance(value, str):
        raise TypeError(f"{argument}: expected str, found {type(value).__name__}")
    return value


def _mapping(argument: str, value: Mapping[str, Any]) -> Mapping[str, Any]:
    if not isinstance(value, Mapping):
        raise TypeError(f"{argument}: expected a mapping of names, found {type(value).__name__}")
    return value


def _path(path: Path) -> str:
    """The name of a file in the form in which the extension takes names: UTF-8, with surrogates for other bytes."""
    name = os.fsencode(path)
    if b"\0" in name:
        raise ValueError(f"path: expected a name without NUL, found {path!r}")
    return name.decode("utf-8", "surrogateescape")


def _arrays(tensors: Sequence[_Tensor]) -> dict[str, Floats]:
    return {name: data.view(np.float32).reshape(shape) for name, _, shape, data in tensors if data is not None}


def _source(state_dict: Mapping[str, Any] | Path) -> Sequence[_Tensor]:
    if isinstance(state_dict, Mapping):
        return _tensors("state_dict", state_dict)
    return _core.read_safetensors(_path(state_dict))


def _tensors(argument: str, arrays: Mapping[str, Any]) -> Sequence[_Tensor]:
    return [_tensor(_text(argument, name), value) for name, value in _mapping(argument, arrays).items()]


def _tensor(name: str, value: Any) -> _Tensor:
    """The array in 32-bit floats, copied only if it is not contiguous or of another type."""
    try:
        if hasattr(value, "detach"):  # of PyTorch: it may be on a device, or of bfloat16, which NumPy lacks
            value = value.detach().cpu()
            value = value.float() if str(value.dtype) == "torch.bfloat16" else value
        array = np.asarray(value) if hasattr(value, "__array__") else _from_dlpack(value)
    except (BufferError, RuntimeError, TypeError, ValueError):  # which matters only if the array is needed
        return name, type(value).__name__, (), None
    if array.dtype.kind != "f" and array.dtype.name != "bfloat16":
        return name, array.dtype.name, array.shape, None
    return name, "F32", array.shape, np.ascontiguousarray(array, np.dtype("<f4")).reshape(-1).view(np.uint8)


def _from_dlpack(value: Any) -> NDArray[Any]:
    return np.from_dlpack(value) if hasattr(value, "__dlpack__") else np.asarray(value)

"""What the library makes of seeded weights and images, for comparisons with other engines."""
from functools import cache
from pathlib import Path
from tempfile import TemporaryDirectory
from typing import NamedTuple

import numpy as np

import facezoo
import facezoo.weights
from facezoo.graphs import table

FOLDER = TemporaryDirectory(prefix="facezoo-tests-")
TOLERANCE = 1e-4  # of the largest value


class Sample(NamedTuple):
    weights: Path
    images: np.ndarray
    results: np.ndarray
    norms: np.ndarray | None


@cache
def sample(network: str) -> Sample:
    """Three images, whose results are the library's."""
    weights = Path(FOLDER.name, network)
    facezoo.weights.synthesize(network, weights)
    shape = 3, table(network)["height"], table(network)["width"], table(network)["channels"]
    images = np.random.default_rng(1).integers(0, 256, shape, np.uint8)
    return Sample(weights, images, *library(network, weights, images))


def library(network: str, weights: Path, images: np.ndarray) -> tuple[np.ndarray, np.ndarray | None]:
    with getattr(facezoo, network)(weights, max_batch=len(images)) as net:
        if table(network)["has_norm"]:
            return net(images, norm=True)
        return net(images), None


def assert_close(found, expected, tolerance: float = TOLERANCE) -> None:
    found, expected = np.asarray(found), np.asarray(expected)
    assert found.shape == expected.shape
    assert np.abs(found - expected).max() <= tolerance * np.abs(expected).max()

"""Eight trained networks for face analysis, on a GPU or on a CPU."""

from facezoo._core import __version__, networks

__all__ = ["__version__", "networks"]

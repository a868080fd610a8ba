"""Eight trained networks for face analysis, on a GPU or on a CPU."""

from facezoo import _core
from facezoo._core import (
    DeviceError, DexpressionNet, Error, FANet, GoogLeNet, GoogLeNetBN, GoogLeNet_FAA1ch,
    GoogLeNet_FAA3ch, GoogLeNet_FAA3ch_12tasks, LCNN29, Network, OutOfMemoryError, WeightError,
    info, networks,
)

__all__ = [
    "DeviceError", "DexpressionNet", "Error", "FANet", "GoogLeNet", "GoogLeNetBN",
    "GoogLeNet_FAA1ch", "GoogLeNet_FAA3ch", "GoogLeNet_FAA3ch_12tasks", "LCNN29", "Network",
    "OutOfMemoryError", "WeightError", "__version__", "info", "networks",
]

__version__ = _core.version

# Messages name the classes where users find them.
for _name in __all__:
    if isinstance(globals()[_name], type):
        globals()[_name].__module__ = __name__

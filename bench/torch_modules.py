"""The networks as PyTorch modules."""
from pathlib import Path

import torch
import torch.nn.functional as F
from torch import Tensor, nn

from networks import Layers, Network, read_weights


class TorchNetwork(nn.Module, Layers[Tensor]):
    """Runs the network's definition in every `forward`. Maps are in the memory format given."""

    def __init__(self, network: Network, weights: Path, device: torch.device,
                 memory_format: torch.memory_format) -> None:
        nn.Module.__init__(self)
        Layers.__init__(self, network, read_weights(weights))
        self.memory_format = memory_format
        edge, channels = network.edge, network.channels
        self(torch.zeros(1, edge, edge, channels, dtype=torch.uint8))  # makes the parameters
        self.weights = {}
        self.to(device=device, memory_format=memory_format)  # type: ignore[call-overload]

    def forward(self, images: Tensor) -> Tensor:
        return self.network.build(self, images)

    def parameter(self, name: str, *shape: int, axes: tuple[int, ...] = ()) -> Tensor:
        found = self._buffers.get(name)  # takes a tenth of the time of an attribute
        if found is None:
            array = self.weights[name].reshape(shape)
            found = torch.tensor(array.transpose(axes) if axes else array)
            self.register_buffer(name, found)
        return found

    def edge(self, x: Tensor) -> int:
        return x.shape[-1]

    def planar(self, images: Tensor) -> Tensor:
        return images.permute(0, 3, 1, 2).to(torch.float32, memory_format=self.memory_format)

    def convolution(self, x: Tensor, filters: Tensor, bias: Tensor | None, stride: int,
                    pad: int) -> Tensor:
        return F.conv2d(x, filters, bias, stride, pad)

    def product(self, x: Tensor, matrix: Tensor, bias: Tensor | None = None) -> Tensor:
        return F.linear(x, matrix, bias)

    def normalize(self, x: Tensor, gamma: Tensor, beta: Tensor, mean: Tensor,
                  variance: Tensor) -> Tensor:
        return F.batch_norm(x, mean, variance, gamma, beta, eps=1e-5)

    def max_pool(self, x: Tensor, window: int, stride: int, pad: int = 0) -> Tensor:
        return F.max_pool2d(x, window, stride, pad, ceil_mode=True)

    def average_pool(self, x: Tensor, window: int, stride: int, pad: int = 0) -> Tensor:
        return F.avg_pool2d(x, window, stride, pad, ceil_mode=True, count_include_pad=True)

    def lrn(self, x: Tensor, alpha: float = 1e-4, k: float = 1.0) -> Tensor:
        return F.local_response_norm(x, 5, alpha, 0.75, k)

    def mfm(self, x: Tensor) -> Tensor:
        return torch.maximum(*x.chunk(2, 1))

    def relu(self, x: Tensor) -> Tensor:
        return F.relu(x, inplace=True)

    def softmax(self, x: Tensor) -> Tensor:
        return F.softmax(x, 1)

    def add(self, a: Tensor, b: Tensor) -> Tensor:
        return torch.add(a, b)

    def subtract(self, a: Tensor, b: Tensor) -> Tensor:
        return torch.sub(a, b)

    def flat(self, x: Tensor) -> Tensor:
        return torch.flatten(x, 1)

    def concat(self, *parts: Tensor) -> Tensor:
        return torch.cat(parts, 1)

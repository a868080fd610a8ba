"""The modules compute what the library computes, and can be trained."""
import numpy as np
import pytest

import facezoo
from facezoo.graphs import CLASSIFIERS, UNUSED, table
from peers import assert_close, library, sample

torch = pytest.importorskip("torch")
import facezoo.torch  # noqa: E402
import torch.nn.functional as F  # noqa: E402

MEAN, STD = [0.4, 0.5, 0.6], [0.2, 0.3, 0.25]


def some_images(network, count=2):
    shape = count, table(network)["height"], table(network)["width"], table(network)["channels"]
    generator = torch.Generator().manual_seed(1)
    return torch.randint(0, 256, shape, dtype=torch.uint8, generator=generator)


@pytest.fixture(autouse=True)
def seed():
    torch.manual_seed(1)


@pytest.mark.parametrize("network", facezoo.networks())
def test_results_are_the_librarys(network, tmp_path):
    expected = sample(network)
    module = facezoo.torch.module(network).eval()
    module.load_weights(expected.weights)
    images = torch.from_numpy(expected.images)
    with torch.no_grad():
        if table(network)["has_norm"]:
            results, norms = module(images, norm=True)
            assert_close(norms, expected.norms)
        else:
            results = module(images)
            with pytest.raises(ValueError, match=f"{network} has no norms"):
                module(images, norm=True)
        assert_close(results, expected.results)
        logits = module.logits(images.float())
    for group, columns in module.outputs.items():
        value = F.softmax(logits[group], 1) if group in CLASSIFIERS else logits[group]
        assert_close(value, expected.results[:, columns])

    module.save_weights(tmp_path / "saved", prefix="face/")
    saved = facezoo.weights.load(tmp_path / "saved", network, "face/")
    for name, array in facezoo.weights.load(expected.weights, network).items():
        np.testing.assert_array_equal(saved[name], array, name)
    assert set(saved) == set(module.state_dict())


@pytest.mark.parametrize("network", facezoo.networks())
def test_gradients_reach_all_parameters(network):
    module = facezoo.torch.module(network)
    before = {name: buffer.clone() for name, buffer in module.named_buffers()}
    values = module.logits(some_images(network) / 255 - 0.5, normalized=True).values()
    sum(value.square().sum() for value in values).backward()
    without = {name for name, parameter in module.named_parameters()
               if parameter.grad is None or not parameter.grad.any()}
    unused = tuple(UNUSED.get(network, ()))
    assert without == {name for name in module.state_dict()
                       if name.startswith(unused) and name not in before}
    changed = {name for name, buffer in module.named_buffers() if not buffer.equal(before[name])}
    assert changed == {name for name in before if "/bn-" in name and not name.startswith(unused)}


def test_training_ends_in_a_file_for_the_library(tmp_path):
    """Through both foldings: of the pixels' normalization, and of batch normalizations."""
    module = facezoo.torch.DexpressionNet(batch_norm=True)
    images = some_images("DexpressionNet", 8)
    normalized = (images / 255 - 0.5) / 0.3
    labels = {"mouth": torch.arange(8) % 2, "eye": torch.arange(8) % 3}
    optimizer = torch.optim.SGD(module.parameters(), 1e-5, momentum=0.5)
    losses = []
    for _ in range(4):
        optimizer.zero_grad()
        logits = module.logits(normalized, normalized=True)
        loss = sum(F.cross_entropy(logits[group], labels[group]) for group in labels)
        loss.backward()
        optimizer.step()
        losses.append(loss.item())
    assert losses == sorted(losses, reverse=True) and losses[-1] < 0.7 * losses[0]

    module.eval().requires_grad_(False)
    trained = module(normalized, normalized=True)
    with pytest.raises(ValueError, match="fold_batch_norm"):
        module.save_weights(tmp_path / "early")
    facezoo.torch.fold_batch_norm(module)
    assert_close(module(normalized, normalized=True), trained, 1e-5)
    facezoo.torch.fold_normalization(module, 0.5, 0.3)
    assert_close(module(images), trained, 1e-5)
    module.save_weights(tmp_path / "trained")
    assert_close(library("DexpressionNet", tmp_path / "trained", images.numpy())[0], trained)


@pytest.mark.parametrize("network, mean, std, scale", [
    ("GoogLeNet_FAA3ch", MEAN, STD, 1 / 255),
    ("GoogLeNet_FAA3ch", np.linspace(0, 1, 224 * 224 * 3).reshape(224, 224, 3), STD, 1 / 128),
    ("GoogLeNet", 127.5, 64, 1),
    ("GoogLeNetBN", [104 / 255, 117 / 255, 123 / 255], STD, 1 / 255),
    ("LCNN29", 0, STD, 1 / 255)])
def test_normalization_is_folded(network, mean, std, scale):
    module = facezoo.torch.module(network).eval().requires_grad_(False)
    images = some_images(network)
    normalized = ((images * scale - torch.as_tensor(mean)) / torch.as_tensor(std)).float()
    expected = module(normalized, normalized=True)
    facezoo.torch.fold_normalization(module, mean, std, scale)
    assert_close(module(images), expected, 1e-5)


def fold(network, mean, std):
    facezoo.torch.fold_normalization(facezoo.torch.module(network), mean, std)


IMAGES = torch.zeros(1, 224, 224, 1, dtype=torch.uint8)


@pytest.mark.parametrize("call, message", [
    (lambda net: net(IMAGES[0]), r"shape \(n, 224, 224, 1\), found \(224, 224, 1\)"),
    (lambda net: net(IMAGES.permute(0, 3, 1, 2)), r"found \(1, 1, 224, 224\)"),
    (lambda net: net(IMAGES.long()), "expected uint8 or floats, found torch.int64"),
    (lambda net: net.logits(IMAGES, normalized=True), "expected floats, found torch.uint8"),
    (lambda net: facezoo.torch.module("NoNet"), "expected one of DexpressionNet, .*, found NoNet"),
    (lambda net: fold("DexpressionNet", 0.5, STD), "deviation for 1 channels"),
    (lambda net: fold("LCNN29", 0.5, 1), r"LCNN29 always subtracts \[0.0, 0.0, 0.0\], found"),
    (lambda net: fold("GoogLeNetBN", MEAN, STD), r"GoogLeNetBN always subtracts \[104.0, 117.0, 123.0\], found"),
    (lambda net: net.load_weights(sample("LCNN29").weights), "inMean-0")])
def test_wrong_use_is_refused(call, message):
    with pytest.raises(ValueError, match=message):
        call(facezoo.torch.DexpressionNet())

"""Trains a network on real pictures, and asks three engines what it has learnt.

    pip install ".[faces,onnx,torch]" matplotlib onnxruntime scikit-image
    python examples/train.py --out trained

The pictures are 100 faces and 100 pieces of background of 25 x 25 grey pixels, which the scikit-image package ships
(lfw_subset, from "Labeled Faces in the Wild"). `DexpressionNet` has two classifiers. For these weights

    mouth   says whether there is a face: no face, face;
    eye     says how a face is turned: upright, to the left, to the right. The background has no such label.

docs/training.md explains each step.
"""
import argparse
import time
from pathlib import Path

import matplotlib
import numpy as np
import onnxruntime
import skimage.data
import torch
import torch.nn.functional as F

import facezoo
import facezoo.onnx
import facezoo.torch
from facezoo import faces

CLASSES = {"mouth": ["no face", "face"], "eye": ["upright", "left", "right"]}
QUARTER_TURNS = [0, 1, 3]  # anticlockwise, of the classes of `eye`
HELD_OUT = 30  # of 100 faces, and of 100 others
BATCH = 10
PIXEL_SCALE = 64  # about what pixels less their mean reach


def pictures() -> tuple[np.ndarray, np.ndarray]:
    """uint8 (200, 224, 224, 1), and whether each is a face."""
    small = np.rint(255 * skimage.data.lfw_subset()).astype(np.uint8)
    height, width = small.shape[1:]
    return np.stack([faces.crop(image, (0, 0, width, height), (224, 224)) for image in small]), np.arange(200) < 100


def turned(images: np.ndarray) -> np.ndarray:
    """All images upright, then all to the left, then all to the right."""
    return np.concatenate([np.rot90(images, turns, (1, 2)) for turns in QUARTER_TURNS])


def train(images: np.ndarray, is_face: np.ndarray, epochs: int, seed: int) -> tuple[facezoo.torch.Network, list]:
    """A network that takes bytes, and the mean loss of each epoch."""
    torch.manual_seed(seed)
    random = np.random.default_rng(seed)
    mean = turned(images).mean(0)
    network = facezoo.torch.DexpressionNet()
    optimizer = torch.optim.Adam(network.parameters(), lr=2e-4)
    losses = []
    for epoch in range(epochs):
        start, total = time.monotonic(), 0.0
        for chosen in np.split(random.permutation(len(images)), range(BATCH, len(images), BATCH)):
            turn, mirror = random.integers(3, size=len(chosen)), random.integers(2, size=len(chosen))
            batch = np.stack([np.rot90(images[i, :, ::-1] if m else images[i], QUARTER_TURNS[t])
                              for i, t, m in zip(chosen, turn, mirror)])
            pixels = torch.tensor((batch - mean) / PIXEL_SCALE, dtype=torch.float32)
            logits = network.logits(pixels, normalized=True)
            has_face = torch.tensor(is_face[chosen])
            turn_loss = F.cross_entropy(logits["eye"], torch.tensor(turn), reduction="none")[has_face]
            loss = F.cross_entropy(logits["mouth"], has_face.long()) + turn_loss.sum() / len(chosen)
            optimizer.zero_grad()
            loss.backward()
            optimizer.step()
            total += loss.item() * len(chosen)
        losses.append(total / len(images))
        print(f"epoch {epoch + 1} of {epochs}: loss {losses[-1]:.3f}, {time.monotonic() - start:.0f} s", flush=True)
    facezoo.torch.fold_normalization(network, mean, PIXEL_SCALE, scale=1)
    return network.eval(), losses


def results_of_engines(network: facezoo.torch.Network, folder: Path, images: np.ndarray) -> dict[str, np.ndarray]:
    """The probabilities (n, 5) that each engine gives, from one weight file."""
    weights, model = folder / "weights.msgpack", folder / "model.onnx"
    network.save_weights(weights)
    facezoo.onnx.export("DexpressionNet", weights, model)
    session = onnxruntime.InferenceSession(model, providers=["CPUExecutionProvider"])
    parts = np.split(images, range(BATCH, len(images), BATCH))
    with torch.no_grad(), facezoo.DexpressionNet(weights, max_batch=BATCH) as library:
        return {
            "PyTorch": np.concatenate([network(torch.tensor(part)).numpy() for part in parts]),
            "library": library(images),
            "ONNX Runtime": np.concatenate([session.run(None, {"images": part})[0] for part in parts]),
        }


def plot(folder: Path, losses: list[float], confusions: dict[str, np.ndarray]) -> None:
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt
    figure, axes = plt.subplots(figsize=(6, 4), layout="constrained")
    axes.plot(range(1, len(losses) + 1), losses, marker="o")
    axes.set(xlabel="epoch", ylabel="loss", title="Loss in training", yscale="log")
    figure.savefig(folder / "loss.png", dpi=120)
    figure, all_axes = plt.subplots(1, len(confusions), figsize=(9, 4), layout="constrained")
    for axes, (head, counts) in zip(all_axes, confusions.items()):
        axes.imshow(counts, cmap="Blues")
        for (row, column), count in np.ndenumerate(counts):
            axes.text(column, row, str(count), ha="center", color="white" if count > counts.max() / 2 else "black")
        ticks = range(len(CLASSES[head]))
        axes.set(title=head, xlabel="found", ylabel="true", xticks=ticks, xticklabels=CLASSES[head], yticks=ticks,
                 yticklabels=CLASSES[head])
    figure.suptitle("Held-out pictures")
    figure.savefig(folder / "confusion.png", dpi=120)


def main() -> None:
    parser = argparse.ArgumentParser(description="Trains DexpressionNet to tell faces from background.")
    parser.add_argument("--epochs", type=int, default=12)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--threads", type=int, default=torch.get_num_threads(), help="of PyTorch")
    parser.add_argument("--out", type=Path, default=Path("trained"), help="folder of the weights and the plots")
    options = parser.parse_args()
    options.out.mkdir(parents=True, exist_ok=True)
    torch.set_num_threads(options.threads)
    torch.use_deterministic_algorithms(True)
    start = time.monotonic()

    images, is_face = pictures()
    random = np.random.default_rng(options.seed)
    shuffled = np.stack([random.permutation(100), 100 + random.permutation(100)])
    held_out, known = shuffled[:, :HELD_OUT].ravel(), shuffled[:, HELD_OUT:].ravel()
    network, losses = train(images[known], is_face[known], options.epochs, options.seed)

    results = results_of_engines(network, options.out, turned(images[held_out]))
    with_face = np.tile(is_face[held_out], 3)
    truth = {"mouth": with_face.astype(int), "eye": np.repeat(range(3), len(held_out))}
    counted = {"mouth": np.full(len(with_face), True), "eye": with_face}
    confusions = {}
    print(f"\naccuracy  pictures  chance  {'  '.join(results)}")
    for head, classes in CLASSES.items():
        found = {engine: values[:, network.outputs[head]].argmax(1)[counted[head]]
                 for engine, values in results.items()}
        true = truth[head][counted[head]]
        shares = "  ".join(f"{(each == true).mean():{len(engine)}.1%}" for engine, each in found.items())
        print(f"{head:8}  {len(true):8}  {1 / len(classes):6.1%}  {shares}")
        confusions[head] = np.zeros((len(classes), len(classes)), int)
        np.add.at(confusions[head], (true, found["library"]), 1)
    reference = results.pop("PyTorch")
    for engine, values in results.items():
        same = all(np.array_equal(values[:, part].argmax(1), reference[:, part].argmax(1))
                   for part in network.outputs.values())
        print(f"{engine}: {'the same' if same else 'other'} classes as PyTorch, "
              f"largest difference {np.abs(values - reference).max() / np.abs(reference).max():.1e} of the largest")
    plot(options.out, losses, confusions)
    print(f"{options.out}: weights.msgpack, model.onnx, loss.png, confusion.png; {time.monotonic() - start:.0f} s")


if __name__ == "__main__":
    main()

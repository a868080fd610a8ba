"""What several tests need: weights of each network, and a C++ program that runs them."""
import functools, pathlib, subprocess

import numpy as np
import pytest

import facezoo
from facezoo import weights

SOURCE = pathlib.Path(__file__).parents[2]


@pytest.fixture(scope="session")
def weight_file(tmp_path_factory):
    """Gives the path of seeded weights of the network of a name."""
    folder = tmp_path_factory.mktemp("weights")

    @functools.cache
    def path_of(name):
        weights.synthesize(name, folder / f"{name}.msgpack")
        return str(folder / f"{name}.msgpack")
    return path_of


@pytest.fixture(scope="session")
def images_of():
    """Gives random images for a network."""
    def images_of(net, count, seed=1):
        shape = count, net.height, net.width, net.channels
        return np.random.default_rng(seed).integers(0, 256, shape, np.uint8)
    return images_of


@pytest.fixture(scope="session")
def run_in_cpp(tmp_path_factory, weight_file):
    """Gives the results and norms that a C++ program with the package's own library gets."""
    if facezoo.info()["platform"] != "host":
        pytest.skip("peer.cpp is compiled for the CPU platform only")
    folder = tmp_path_factory.mktemp("peer")
    libraries = [pathlib.Path(facezoo.__file__).with_name(f"lib{name}.so.0.1")
                 for name in ("facezoo", "facezoo_host")]
    subprocess.run(
        ["g++", "-std=c++17", "-DMSGPACK_NO_BOOST", *(f"-I{SOURCE / part}" for part in (
            "include", "src", "platform/host/include")), SOURCE / "python/tests/peer.cpp",
         *libraries, f"-Wl,-rpath,{libraries[0].parent}", "-o", folder / "peer"], check=True)

    def run_in_cpp(net, images):
        images.tofile(folder / "images")
        subprocess.run([folder / "peer", net.name, weight_file(net.name), str(net.max_batch),
                        folder / "images", folder / "output"], check=True)
        width = max(columns.stop for columns in net.outputs.values())
        floats = np.fromfile(folder / "output", np.float32)
        return floats[:len(images) * width].reshape(-1, width), floats[len(images) * width:]
    return run_in_cpp

"""The models that are exported give another engine what the library gives."""
import numpy as np
import pytest

import facezoo
from facezoo.graphs import table
from peers import assert_close, sample

onnxruntime = pytest.importorskip("onnxruntime")
import facezoo.onnx  # noqa: E402
import onnx  # noqa: E402


@pytest.mark.parametrize("network", facezoo.networks())
def test_results_are_the_librarys(network, tmp_path):
    expected = sample(network)
    has_norm = table(network)["has_norm"]
    facezoo.onnx.export(network, expected.weights, tmp_path / "model.onnx", norm=has_norm)
    session = onnxruntime.InferenceSession(tmp_path / "model.onnx", providers=["CPUExecutionProvider"])
    for batch in 1, 3:
        results, *norms = session.run(None, {"images": expected.images[:batch]})
        assert_close(results, expected.results[:batch])
        for found in norms:
            assert_close(found, expected.norms[:batch])
    assert len(norms) == has_norm


def test_groups_can_be_outputs(tmp_path):
    expected = sample("GoogLeNet_FAA3ch_12tasks")
    path = tmp_path / "model.onnx"
    facezoo.onnx.export("GoogLeNet_FAA3ch_12tasks", expected.weights, path, separate=True)
    graph = onnx.load(path).graph
    shapes = {value.name: [size.dim_param or size.dim_value for size in value.type.tensor_type.shape.dim]
              for value in (*graph.input, *graph.output)}
    groups = table("GoogLeNet_FAA3ch_12tasks")["outputs"]
    assert shapes == {"images": ["N", 224, 224, 3], **{name: ["N", count] for name, count in groups}}
    session = onnxruntime.InferenceSession(path, providers=["CPUExecutionProvider"])
    results = session.run([name for name, _ in groups], {"images": expected.images})
    assert_close(np.concatenate(results, 1), expected.results)


@pytest.mark.parametrize("network, weights, arguments, message", [
    ("LCNN29", "LCNN29", {"prefix": "face/"}, "face/conv1-0"),
    ("LCNN29", "DexpressionNet", {}, "conv1-0"),
    ("DexpressionNet", "DexpressionNet", {"norm": True}, "DexpressionNet has no norms"),
    ("NoNet", "LCNN29", {}, "NoNet")])
def test_wrong_use_is_refused(network, weights, arguments, message, tmp_path):
    with pytest.raises(ValueError, match=message):
        facezoo.onnx.export(network, sample(weights).weights, tmp_path / "model.onnx", **arguments)
    assert not list(tmp_path.iterdir())

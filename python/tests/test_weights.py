"""Tests of facezoo.weights."""
import hashlib, json, re, struct, threading
from pathlib import Path

import numpy as np
import pytest

import facezoo
from facezoo import weights

NET, EYE = "DexpressionNet", "loss3/classifier_acce_eye-1"


@pytest.fixture(autouse=True)
def folder(tmp_path, monkeypatch):
    """A folder of its own for each test, with the weight file "good"."""
    monkeypatch.chdir(tmp_path)
    weights.synthesize(NET, "good", seed=7)


def pack(entries):
    """A weight file of (key, value), which are text or, as bytes, MessagePack."""
    def item(data):
        return data if isinstance(data, bytes) else struct.pack(">BI", 0xDB, len(data.encode())) + data.encode()
    return struct.pack(">BH", 0xDE, len(entries)) + b"".join(item(key) + item(value) for key, value in entries)


def equal(expected, found):
    """Whether two dictionaries of arrays are equal, in their order too."""
    return [*expected] == [*found] and all(map(np.array_equal, expected.values(), found.values()))


def read_safetensors(path):
    content = Path(path).read_bytes()
    start = 8 + struct.unpack_from("<Q", content)[0]
    header = json.loads(content[8:start])
    return header.pop("__metadata__"), {
        name: np.frombuffer(content[start:][slice(*entry["data_offsets"])], "<f4").reshape(entry["shape"])
        for name, entry in header.items() if entry["dtype"] == "F32"}


@pytest.mark.parametrize("seed, prefix, digest", [  # of the files that the tool writes
    (7, "", "1a60762610ed2e9f405e0984e549d789bd65a725570d2b7599cbb69149965d32"),
    (7, "up/", "1ae98d13be3033dfad6d141261204f559334429cbfd5ae326620f2c482966908"),
    (2 ** 64 - 1, "", "542d715175a732034bbecb9fe6c96303d82c43940089dcbed171be4b9962111a")])
def test_synthesizes_what_the_tool_does(seed, prefix, digest):
    weights.synthesize(NET, "made", seed, prefix)
    assert digest == hashlib.sha256(Path("made").read_bytes()).hexdigest()


def test_loads_views_of_one_copy_of_the_file():
    content, arrays = Path("good").read_bytes(), weights.load("good", NET)
    start = min(array.ctypes.data for array in arrays.values())
    first = content.index(arrays["inMean-0"].tobytes())
    for name, array in arrays.items():
        offset = first + array.ctypes.data - start
        assert content[offset:offset + array.nbytes] == array.tobytes(), name
        assert (array.dtype, array.flags.writeable, array.flags.c_contiguous) == (np.float32, False, True)
    shapes = {"inMean-0": (224, 224, 1), "conv1-0": (64, 1, 7, 7), "conv1-1": (64,), EYE: (3,)}
    assert shapes == {name: arrays[name].shape for name in shapes}
    last, copy = arrays["conv3b-0"], arrays["conv3b-0"].copy()
    del arrays, array  # the file's bytes live on
    assert np.array_equal(last, copy) and np.tensordot(last, last, 4) == np.tensordot(copy, copy, 4)


def test_saves_what_it_loaded():
    weights.synthesize(NET, "up", 7, "up/")
    weights.save("odd", {"\u00e9": [1.], "\udcff": [1., 2.], "": []})
    assert b"\xff" in Path("odd").read_bytes()
    for path, *names in ("good",), ("good", NET), ("up", NET, "up/"), (Path("odd"),), (b"odd",):
        weights.save("\udcfe", weights.load(path, *names), *names)
        assert Path("\udcfe").read_bytes() == Path(path.decode() if path == b"odd" else path).read_bytes()
    weights.save("odd", dict(reversed(weights.load("good", NET).items())), NET, "up/")
    assert Path("odd").read_bytes() == Path("up").read_bytes()


def test_saves_any_floats():
    class OnlyDLPack:
        def __dlpack__(self, **how): return floats.__dlpack__(**how)
        def __dlpack_device__(self): return floats.__dlpack_device__()
    floats = np.float32([[1.5, -2], [0, 2 ** -10]])
    given = {"same": floats, "half": floats.astype(np.float16), "double": floats.astype(float), "other": floats.T,
             "big-endian": floats.astype(">f4"), "DLPack": OnlyDLPack(), "list": floats.tolist(), "number": 0.5}
    try:
        import torch
        given |= {"parameter": torch.nn.Parameter(torch.tensor(floats)), "bfloat": torch.tensor(floats).bfloat16()}
    except ImportError:
        pass
    weights.save("made", given)
    others = {"other": [1.5, 0, -2, 2 ** -10], "number": [0.5]}
    assert equal({name: np.float32(others.get(name, floats.ravel())) for name in given}, weights.load("made"))


def test_check_reports_what_the_tool_prints():
    report = weights.check(NET, "good")
    assert report.ok and str(report) == f"OK: 19 arrays of {NET}, 0 unused"
    arrays = weights.load("good") | {"conv2a-1": np.zeros(95), EYE: np.full(3, np.nan), "spare": np.zeros(1)}
    del arrays["conv1-0"]
    weights.save("bad", arrays)
    report = weights.check(NET, "bad")
    faults = ("conv1-0: expected 12544 bytes of str, shape [64, 1, 7, 7], found none",
              "conv2a-1: expected 384 bytes of str, shape [96], found 380 bytes",
              f"{EYE}: expected finite values, found 3 of 3 NaN or infinite")
    assert (False, 19, faults, ("spare",), 1) == (
        report.ok, report.expected, report.faults, report.unused, report.unused_count)
    assert str(report).splitlines() == [*(f"fault   {fault}" for fault in faults), "unused  spare",
                                        f"3 of 19 arrays of {NET} are faulty or missing"]


def test_takes_weights_out_of_a_state():
    arrays = weights.load("good", NET)
    layers = [*dict.fromkeys(name[:-2] for name in arrays)]
    names = {name: f"net.{layers.index(name[:-2])}.{'bias' if name[-1] == '1' else 'weight'}" for name in arrays}
    names["inMean-0"] = "mean"
    state = {"steps": np.int64(3), "more": object(), **{names[name]: arrays[name] for name in arrays}}
    state[names["conv1-1"]] = arrays["conv1-1"].astype(float).reshape(1, 64, 1, 1)
    matrix = names["loss3/classifier_acce_eye-0"]
    state[matrix] = state[matrix].reshape(3, 272, 14, 14)
    proposed = weights.propose_names(NET, state)
    assert proposed.names == names and (0, 19) == (proposed.by_name, proposed.by_shape + proposed.by_order)
    found = weights.from_state_dict(NET, state, proposed.names)
    assert equal(arrays, found) and found["conv1-1"].shape == (64,)
    assert np.shares_memory(found["conv1-0"], arrays["conv1-0"])
    prefixed = {"up/" + name: array for name, array in arrays.items()}
    assert equal(arrays, weights.from_state_dict(NET, prefixed, prefix="up/"))


def test_exchanges_safetensors():
    arrays = weights.load("good", NET)
    for source, prefix in ("good", ""), (arrays, "up/"):
        weights.to_safetensors(NET, source, "made", prefix)
        metadata, tensors = read_safetensors("made")
        assert metadata == {"network": NET}
        assert equal({prefix + name: array for name, array in arrays.items()}, tensors)
        assert equal(arrays, weights.from_state_dict(NET, "made", prefix=prefix))
    header = json.loads(Path("made").read_bytes()[8:].split(b"}}")[0] + b"}}")
    data, end = [], 0
    for name, entry in [*header.items()][1:]:
        data.append(arrays[name[3:]].astype(np.float16).tobytes())
        entry |= {"dtype": "F16", "data_offsets": [end, end := end + len(data[-1])]}
    text = json.dumps(header | {"steps": {"dtype": "I64", "shape": [], "data_offsets": [end, end + 8]}}).encode()
    Path("made").write_bytes(struct.pack("<Q", len(text)) + text + b"".join(data) + bytes(8))
    halves = {name: array.astype(np.float16) for name, array in arrays.items()}
    assert equal(halves, weights.from_state_dict(NET, "made", prefix="up/"))
    assert weights.propose_names(NET, "made", "up/").by_name == 19


def test_example_of_the_documentation(capsys):
    page = Path(__file__).parents[2] / "docs" / "weights.md"
    found = {}
    exec(re.search("^```python\n(.*?)^```$", page.read_text("utf-8"), re.M | re.S)[1], found)
    assert capsys.readouterr().out == f"OK: 19 arrays of {NET}, 0 unused\n"
    assert equal(weights.load("changed.msgpack", NET), found["arrays"]) and found["proposal"].by_name == 19


def test_threads_write_side_by_side():
    arrays = weights.load("good")
    threads = [threading.Thread(target=weights.save, args=(f"made{i}", arrays)) for i in range(8)]
    for does in threading.Thread.start, threading.Thread.join:
        [*map(does, threads)]
    assert {Path("good").read_bytes()} == {path.read_bytes() for path in Path().iterdir()}
    assert len([*Path().iterdir()]) == 9


def changed(**arrays):
    return weights.load("good", NET) | {name.replace("_", "-"): array for name, array in arrays.items()}


WRONG = [  # (call, type, pattern of the text)
    (lambda: weights.check("LCNN", "good"), ValueError, "network: expected one of DexpressionNet, .*found LCNN"),
    (lambda: weights.check(7, "good"), TypeError, "network: expected str, found int"),
    (lambda: weights.check(NET, 7), TypeError, "expected str, bytes or os.PathLike object, not int"),
    (lambda: weights.check(NET, "go\0od"), ValueError, "path: expected a name without NUL"),
    (lambda: weights.check(NET, "none"), facezoo.WeightError, "none: cannot be read: No such file"),
    (lambda: weights.check(NET, "."), facezoo.WeightError, r"\.: expected a file, found a directory"),
    (lambda: weights.check(NET, "good", b"up/"), TypeError, "prefix: expected str, found bytes"),
    (lambda: weights.synthesize(NET, "made", -1), ValueError, "seed: expected .* 18446744073709551615, found -1"),
    (lambda: weights.synthesize(NET, "made", 1.5), TypeError, "float"),
    (lambda: weights.synthesize(NET, "no/made"), facezoo.Error, "no/made: cannot be written: No such file"),
    (lambda: weights.load("good", "LCNN29"), facezoo.WeightError, "good: conv1-0: .* and 55 more"),
    (lambda: weights.load("good", prefix="up/"), ValueError, "prefix: expected one only with a network"),
    (lambda: weights.load("tensors"), facezoo.WeightError, "tensors: expected a weight file.* a safetensors file"),
    (lambda: weights.load("cut"), facezoo.WeightError, "cut: .*its end missing after 100 bytes"),
    (lambda: weights.load("odd"), facezoo.WeightError,
     "odd: expected names.*type int.*; a: .*floats, found 3 bytes; b: .*found bin; 1 arrays .*use_bin_type=False"),
    (lambda: weights.save("made", [1.5]), TypeError, "arrays: expected a mapping of names, found list"),
    (lambda: weights.save("made", {7: [1.5]}), TypeError, "arrays: expected str, found int"),
    (lambda: weights.save("made", {"a": [1]}), facezoo.WeightError, "a: expected floats, found int64"),
    (lambda: weights.save("made", {"a": [[1.], [2., 3.]]}), facezoo.WeightError, "a: expected floats, found list"),
    (lambda: weights.save("made", changed(conv9_0=[1.]), NET), facezoo.WeightError, f"arrays of {NET}: .*conv9-0"),
    (lambda: weights.save("made", changed(conv1_1=np.zeros(63)), NET), facezoo.WeightError,
     r"conv1-1: expected shape \[64\], found \[63\]"),
    (lambda: weights.save("made", changed(conv1_1=np.full(64, 1e39)), NET), facezoo.WeightError, "64 of 64 NaN"),
    (lambda: weights.from_state_dict(NET, "good"), facezoo.WeightError, "good: expected a safetensors file"),
    (lambda: weights.from_state_dict(NET, {}), facezoo.WeightError, "state_dict: inMean-0: .*and 14 more"),
    (lambda: weights.from_state_dict(NET, changed(), {"conv1-1": None}), facezoo.WeightError,
     r"state_dict: conv1-1: expected the name of a tensor of shape \[64\], found null"),
    (lambda: weights.from_state_dict(NET, changed(), {"conv3b-1": "conv2b-1"}), facezoo.WeightError,
     "conv3b-1 from conv2b-1: expected a tensor of its own, found that of conv2b-1"),
    (lambda: weights.from_state_dict(NET, changed(), {"conv9-0": "a"}), facezoo.WeightError, "found conv9-0"),
    (lambda: weights.from_state_dict(NET, changed(), ["conv1-0"]), TypeError, "names: expected a mapping"),
    (lambda: weights.from_state_dict(NET, changed(conv1_1=np.zeros(64, int))), facezoo.WeightError,
     "conv1-1: expected F32, F16 or BF16, found int64"),
    (lambda: weights.to_safetensors(NET, "good", "./good"), facezoo.Error, "good: is to be read, and would be"),
    (lambda: weights.to_safetensors(NET, "odd", "made"), facezoo.WeightError, "odd: inMean-0: .*found none"),
]


@pytest.mark.parametrize("call, error, text", WRONG, ids=[text for *_, text in WRONG])
@pytest.mark.filterwarnings("ignore:overflow")
def test_refuses(call, error, text):
    weights.to_safetensors(NET, "good", "tensors")
    Path("cut").write_bytes(Path("good").read_bytes()[:100])
    Path("odd").write_bytes(pack([(b"\1", "1234"), ("a", "123"), ("b", b"\xc4\4abcd")]))
    before = {path: path.read_bytes() for path in Path().iterdir()}
    with pytest.raises(error, match=text) as raised:
        call()
    assert type(raised.value) is error and "\n" not in str(raised.value)
    assert before == {path: path.read_bytes() for path in Path().iterdir()}

"""The networks in Python give what they give in C++, and refuse in words what they cannot do."""
import concurrent.futures, copy, os, pathlib, pickle, re, resource, subprocess, sys

import numpy as np
import pytest

import facezoo
from facezoo import _core


@pytest.fixture
def make(weight_file):
    """Constructs networks, and closes them after the test."""
    made = []

    def make(name, **options):
        made.append(getattr(facezoo, name)(weight_file(name), **options))
        return made[-1]
    yield make
    for net in made:
        net.close()


@pytest.fixture
def small(make):
    return make("DexpressionNet", max_batch=2)


def run_script(script, *arguments):
    """The end of a process with a script, its standard output and its standard error."""
    # From 3.12 on, Python itself warns of forks where there are threads.
    command = [sys.executable, "-W", "ignore::DeprecationWarning", "-c", script, *arguments]
    done = subprocess.run(command, capture_output=True, text=True, timeout=60)
    return done.returncode, done.stdout, done.stderr


@pytest.mark.parametrize("name", facezoo.networks())
def test_results_are_those_of_cpp_bit_by_bit(name, make, images_of, run_in_cpp, capfd):
    net, table = make(name, max_batch=2), _core.table(name)
    images = images_of(net, 3)
    expected, expected_norms = run_in_cpp(net, images)
    results = net(images)
    assert results.dtype == np.float32 and results.flags.owndata
    np.testing.assert_array_equal(results, expected)
    assert [(group, columns.stop - columns.start) for group, columns in net.outputs.items()] \
        == table["outputs"]
    assert [getattr(net, field) for field in ("name", "channels", "height", "width", "output_dim")] \
        == [table[field] for field in ("name", "channels", "height", "width", "output_dim")]
    if table["has_norm"]:
        results, norms = net(images, norm=True)
        np.testing.assert_array_equal(results, expected)
        np.testing.assert_array_equal(norms, expected_norms)
    else:
        with pytest.raises(ValueError, match=f"^norm: {name} has no norms$"):
            net(images, norm=True)
    assert capfd.readouterr() == ("", "")


class ArrayInterface:
    def __init__(self, array):
        self.array, self.__array_interface__ = array, array.__array_interface__


def read_only(array):
    view = array.view()
    view.flags.writeable = False
    return view


@pytest.mark.parametrize("convert", [
    read_only, memoryview, ArrayInterface, lambda a: memoryview(bytes(a)).cast("B", a.shape),
    lambda a: pytest.importorskip("torch").from_numpy(a),
    lambda a: np.lib.stride_tricks.as_strided(a, strides=(*a.strides[:3], 7)),
], ids=["read-only", "buffer", "array interface", "bytes", "DLPack", "stride of one element"])
def test_all_kinds_of_arrays(convert, small, images_of):
    images = images_of(small, 5)
    np.testing.assert_array_equal(small(convert(images)), small(images))


def test_any_number_of_images(make, images_of):
    net = make("LCNN29", max_batch=2)
    images = images_of(net, 5)
    whole, norms = net(images, norm=True)
    assert [part.shape for part in net(images[:0], norm=True)] == [(0, 512), (0,)]
    for count in (1, 2, 3, 4):
        part, part_norms = net(images[:count], norm=True)
        np.testing.assert_allclose(part, whole[:count], rtol=1e-5, atol=1e-6)
        np.testing.assert_allclose(part_norms, norms[:count], rtol=1e-5)


IMAGES = np.zeros((2, 224, 224, 1), np.uint8)
SHAPE = r"^images: expected uint8 of shape \(n, 224, 224, 1\) in C order, found "
WRONG_IMAGES = {
    "another type": (IMAGES.astype(np.float32), r"float32 of shape \(2, 224, 224, 1\)"),
    "signed": (IMAGES.view(np.int8), "int8 of shape"),
    "bool": (IMAGES.view(bool), "bool of shape"),
    "objects": (IMAGES.astype(object), "object of shape"),
    "times": (IMAGES.astype("datetime64[s]"), r"datetime64\[s\] of shape"),
    "one image": (IMAGES[0], r"uint8 of shape \(224, 224, 1\)"),
    "no channels": (IMAGES[..., 0], r"uint8 of shape \(2, 224, 224\)"),
    "channels first": (IMAGES.transpose(0, 3, 1, 2), r"uint8 of shape \(2, 1, 224, 224\)"),
    "too small": (IMAGES[:, ::2], r"uint8 of shape \(2, 112, 224, 1\)"),
    "too many channels": (np.zeros((1, 224, 224, 3), np.uint8), r"uint8 of shape \(1, 224, 224, 3\)"),
    "every other row": (np.zeros((2, 448, 224, 1), np.uint8)[:, ::2], r"strides \(100352, 448, 1, 1\)"),
    "upside down": (IMAGES[:, ::-1], r"strides \(50176, -224, 1, 1\)"),
    "Fortran order": (np.asfortranarray(IMAGES), "strides"),
    "bytes": (b"abc", r"uint8 of shape \(3,\)"),
    "list": ([[1]], "list$"),
    "None": (None, "NoneType$"),
}


@pytest.mark.parametrize("wrong", WRONG_IMAGES)
def test_wrong_images(wrong, small):
    images, found = WRONG_IMAGES[wrong]
    with pytest.raises(ValueError, match=SHAPE + found):
        small(images)


def load(weights=None, **options):
    """A use that loads a network, by default from a good file."""
    return lambda net, files: facezoo.DexpressionNet(
        files[weights] if weights in files else files["good"] if weights is None else weights, **options)


WRONG_USES = {
    "no file": (load("missing.msgpack"), facezoo.WeightError, "^missing.msgpack: cannot be read: No such"),
    "a folder": (load("/"), facezoo.WeightError, "^/: expected a file, found a directory"),
    "a number": (load(3), TypeError, "^weights: expected a str, bytes or os.PathLike, found 3$"),
    "no name": (load("a\0b"), ValueError, r"^weights: expected a name that a file can have, found 'a\\x00b'"),
    "empty file": (load("empty"), facezoo.WeightError, "empty: expected a MessagePack map, found an empty"),
    "torn file": (load("torn"), facezoo.WeightError, "torn: expected a complete .* after 1000 bytes"),
    "another network's": (load("other"), facezoo.WeightError, r"conv1-0: expected 12544 bytes .* found 28800"),
    "another prefix": (load(prefix="x/"), facezoo.WeightError, "x/conv1-0: expected 12544 bytes .*, found none"),
    "prefix of bytes": (load(prefix=b"x"), TypeError, "^prefix: expected a str, found b'x'$"),
    "prefix not of Unicode": (load(prefix="\ud800"), UnicodeEncodeError, "surrogates not allowed"),
    "no batch": (load(max_batch=0), ValueError, "^max_batch: DexpressionNet takes 1 to 629, found 0$"),
    "negative batch": (load(max_batch=-1), ValueError, "takes 1 to 629, found -1$"),
    "large batch": (load(max_batch=630), ValueError, "takes 1 to 629, found 630$"),
    "huge batch": (load(max_batch=10**30), ValueError, "takes 1 to 629, found 10+$"),
    "batch of text": (load(max_batch="8"), TypeError, "^max_batch: expected a whole number, found '8'$"),
    "batch and a half": (load(max_batch=1.5), TypeError, "^max_batch: expected a whole number, found 1.5$"),
    "no arguments": (lambda net, files: facezoo.LCNN29(), TypeError, "weights: str"),
    "no network": (lambda net, files: facezoo.Network(), TypeError, "no constructor"),
    "unknown name": (lambda net, files: _core.table("Net"), ValueError, r"^name: .* networks\(\), found Net$"),
    "no images": (lambda net, files: net(), TypeError, "images"),
    "unknown option": (lambda net, files: net(IMAGES, batch=1), TypeError, "batch: int"),
    "norm of a number": (lambda net, files: net(IMAGES, norm=1), TypeError, "^norm: .* True or False, found 1$"),
    "other memory": (lambda net, files: net(IMAGES, out="disk"), ValueError, "^out: expected 'host'.*'disk'$"),
    "setting": (lambda net, files: setattr(net, "max_batch", 3), AttributeError, "set"),
    "pickle": (lambda net, files: pickle.dumps(net), TypeError, "cannot be pickled or copied"),
    "copy": (lambda net, files: copy.deepcopy(net), TypeError, "load its file in each process"),
    "closed": (lambda net, files: (net.close(), net(IMAGES)), facezoo.Error, "^DexpressionNet is closed$"),
}


@pytest.mark.parametrize("use", WRONG_USES)
def test_wrong_uses(use, small, weight_file, tmp_path, capfd):
    good = weight_file("DexpressionNet")
    files = {"good": good, "other": weight_file("LCNN29"), "empty": tmp_path / "empty", "torn": tmp_path / "torn"}
    files["empty"].touch()
    files["torn"].write_bytes(pathlib.Path(good).read_bytes()[:1000])
    call, kind, sentence = WRONG_USES[use]
    with pytest.raises(kind, match=sentence) as raised:
        call(small, files)
    assert type(raised.value) is kind and getattr(raised.value, "status", None) is None
    assert capfd.readouterr() == ("", "")


def test_exceptions_are_also_those_of_python():
    kinds = [facezoo.DeviceError, facezoo.WeightError, facezoo.OutOfMemoryError]
    assert all(issubclass(kind, facezoo.Error) and kind.__module__ == "facezoo" for kind in kinds)
    assert issubclass(facezoo.WeightError, ValueError) and issubclass(facezoo.OutOfMemoryError, MemoryError)


def test_device_failure_has_the_line_and_the_status(weight_file):
    script = """
import facezoo, resource, sys
net = facezoo.DexpressionNet(sys.argv[1], max_batch=1)
resource.setrlimit(resource.RLIMIT_AS, (2 << 30, 2 << 30))
try:
    facezoo.DexpressionNet(sys.argv[1], max_batch=629)
except facezoo.OutOfMemoryError as error:
    print(error.status, error)
"""
    code, out, err = run_script(script, weight_file("DexpressionNet"))
    assert (code, err) == (0, "") and out.startswith("2 [Error] out of memory (cuda error code: 2) at "), out


def test_end_of_life(weight_file, images_of):
    with facezoo.DexpressionNet(os.fsencode(weight_file("DexpressionNet")), max_batch=1) as net:
        assert not net.closed and repr(net).startswith("<facezoo.DexpressionNet of '/")
    assert net.closed and repr(net).endswith(", max_batch 1, closed>")
    net.close()


def test_threads_get_the_bits_of_one_thread(make, images_of):
    nets = make("DexpressionNet", max_batch=2), make("LCNN29", max_batch=3)
    images = [images_of(net, 4) for net in nets]
    expected = [net(batch) for net, batch in zip(nets, images)]

    def work(number):
        return [nets[i % 2](images[i % 2]) for i in range(number, number + 6)]
    with concurrent.futures.ThreadPoolExecutor(8) as pool:
        for number, results in enumerate(pool.map(work, range(8))):
            for i, result in enumerate(results, number):
                np.testing.assert_array_equal(result, expected[i % 2])


def test_constructions_lose_no_memory(weight_file, small):
    def resident():
        pages = int(pathlib.Path("/proc/self/statm").read_text().split()[1])
        return pages * resource.getpagesize() >> 10

    def construct(count):
        for _ in range(count):
            facezoo.DexpressionNet(weight_file("DexpressionNet"), max_batch=1)
    construct(500)
    before = resident()
    construct(10_000)
    assert resident() - before < 2048  # KiB; a loss of 1 KiB each would be five times that


# A thread is in the midst of a call when the process ends, and networks are alive.
EXIT = """
import facezoo, numpy, sys, threading, time
nets = [facezoo.DexpressionNet(sys.argv[1], max_batch=8) for _ in range(2)]
sys.networks = nets  # which outlives this module
def work(images=numpy.zeros((8, 224, 224, 1), numpy.uint8)):
    while True:
        nets[1](images)
for _ in range(2):
    threading.Thread(target=work, daemon=True).start()
time.sleep(0.2)
"""
FORK = """
import facezoo, numpy, os, sys
images = numpy.zeros((1, 224, 224, 1), numpy.uint8)
net = facezoo.DexpressionNet(sys.argv[1], max_batch=1)
net(images)
if os.fork() == 0:
    for call in (lambda: net(images), lambda: facezoo.DexpressionNet(sys.argv[1]), facezoo.info):
        try:
            call()
        except facezoo.Error as error:
            assert 'multiprocessing.set_start_method("spawn")' in str(error)
        else:
            os.abort()
    facezoo.networks()
    net.close()
    sys.exit(5)
assert os.waitstatus_to_exitcode(os.wait()[1]) == 5
net(images)
"""
EARLY_FORK = """
import facezoo, os, sys
pid = os.fork()
facezoo.DexpressionNet(sys.argv[1], max_batch=1)
if pid:
    assert os.waitstatus_to_exitcode(os.wait()[1]) == 0
"""


@pytest.mark.parametrize("script", [EXIT, FORK, EARLY_FORK], ids=["exit", "fork", "early fork"])
def test_processes_end_silently(script, weight_file):
    assert run_script(script, weight_file("DexpressionNet")) == (0, "", "")


def test_device_arrays(make, images_of):
    torch = pytest.importorskip("torch")
    if facezoo.info()["platform"] != "cuda" or not torch.cuda.is_available():
        pytest.skip("needs a build for GPUs, and one")
    for name in ("LCNN29", "FANet"):  # whose results are on the device, and on the host
        net = make(name, max_batch=2)
        images = images_of(net, 3)
        on_device = torch.from_numpy(images).cuda()
        expected, expected_norms = net(images, norm=True)
        results, norms = net(on_device, norm=True, out="device")
        assert torch.from_dlpack(results).is_cuda
        np.testing.assert_array_equal(torch.from_dlpack(results).cpu().numpy(), expected)
        np.testing.assert_array_equal(norms, expected_norms)
        np.testing.assert_array_equal(net(on_device), expected)


@pytest.mark.parametrize("page", ["README.md", "docs/python.md"])
def test_pages(page, weight_file, tmp_path):
    text = (pathlib.Path(__file__).parents[2] / page).read_text()
    os.symlink(weight_file("LCNN29"), tmp_path / "lcnn.msgpack")
    code = re.findall(r"^```python\n(.*?)^```$", text, re.M | re.S)
    end, out, err = run_script("import os, sys\nos.chdir(sys.argv[1])\n" + "".join(code), str(tmp_path))
    assert (end, err) == (0, "") and all(f"# {line}\n" in text for line in out.splitlines()), out

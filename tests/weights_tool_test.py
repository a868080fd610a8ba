"""Test of the tool's weight files: weights_tool_test.py PATH_TO_FACEZOO PATH_TO_PORTRAIT."""
import itertools, json, math, os, re, struct, sys, unittest
from pathlib import Path
from tool_support import EYE, MOUTH, NET, RUN, ToolCase, pack


def file_of(header, data=b"", length=None):
    """Safetensors file; `header` may be any text, right or wrong, and `length` any claim."""
    text = header if isinstance(header, bytes) else json.dumps(header).encode()
    return struct.pack("<Q", len(text) if length is None else length) + text + data


def save(tensors):
    """Safetensors file of name: (type, shape, data)."""
    ends = [0, *itertools.accumulate(len(data) for *_, data in tensors.values())]
    return file_of({name: {"dtype": type_, "shape": shape, "data_offsets": [begin, end]}
                    for (name, (type_, shape, _)), begin, end in zip(
                        tensors.items(), ends, ends[1:])},
                   b"".join(data for *_, data in tensors.values()))


def load(name):
    """The reverse of `save`, and the metadata."""
    content = Path(name).read_bytes()
    start = 8 + struct.unpack_from("<Q", content)[0]
    header = json.loads(content[8:start])
    metadata = header.pop("__metadata__")
    assert start % 8 == 0
    return {name: (entry["dtype"], entry["shape"],
                   content[start:][slice(*entry["data_offsets"])])
            for name, entry in header.items()}, metadata


class WeightsTest(ToolCase):
    def convert(self, does, source, *args, faults=(), unused=()):
        """Imports or exports `source` to "made", which `faults` in the listing prevent."""
        Path("made").unlink(missing_ok=True)
        stderr = rf"facezoo: {source}: {len(faults)} of 19 [^\n]*\n" if faults else ""
        out = self.call("weights", does, NET, source, "-o", "made", *args,
                        code=int(bool(faults)), stderr=stderr)
        end = [] if faults else [f"made: 19 arrays of {NET}, 2.9 MB, read back and equal"]
        self.assertEqual([f"fault   {fault}" for fault in faults]
                         + [f"unused  {name}" for name in unused] + end, out.splitlines())
        self.assertEqual(not faults, os.path.exists("made"))

    def exported(self):
        self.convert("export", "good")
        return load("made")[0]

    def test_refuses_arrays(self):
        arrays = {**self.zeros, "conv2a-1": bytes(380), EYE: struct.pack("<3f", *[math.nan] * 3)}
        arrays["spare"] = arrays.pop("conv1-0")
        Path("bad").write_bytes(pack(arrays.items(), ["conv3b-1"]))
        faults = ["conv1-0: expected 12544 bytes of str, shape [64, 1, 7, 7], found none",
                  "conv2a-1: expected 384 bytes of str, shape [96], found 380 bytes",
                  "conv3b-1: expected 832 bytes of str, shape [208], found bin",
                  f"{EYE}: expected finite values, found 3 of 3 NaN or infinite"]
        listing = "".join(f"fault   {fault}\n" for fault in faults) + "unused  spare\n"
        self.fail_all([(f"weights check {NET} bad", 1, "bad: 4 of 19 arrays")], listing)
        self.convert("export", "bad", faults=faults, unused=["spare"])
        self.fail_all([(RUN + " bad", 1, "bad: " + re.escape("; ".join(faults))),
                       ("run LCNN29 face.jpg -w good", 1, "conv1-0.* 12544 bytes; .*55 more")])

    def test_reads_known_weights(self):
        odds = struct.pack("<5f", 0, math.log(3), 0, math.log(2), math.log(5))
        arrays = {**self.zeros, MOUTH: odds[:8], EYE: odds[8:]}.items()
        Path("known").write_bytes(pack([*arrays, (MOUTH, bytes(4)), ("spare", b"1")]))
        self.assertEqual(f"unused  {MOUTH}\nunused  spare\nOK: 19 arrays of {NET}, 2 unused\n",
                         self.call("weights", "check", NET, "known"))
        self.assertRegex(self.call("weights", "show", "known"),
                         rf"\n{MOUTH} +str +8 +2 +0 +0\.549306 +1\.09861\n")
        self.assert_near([.25, .75, .125, .25, .625], self.results("-w", "known", "face.jpg")[0][1])

    def test_reports_are_short(self):
        spare = [(f"spare{i}", b"1") for i in range(100)]
        steering = "\x85\u009b2J\u2028\u2029\u202a\u202e\u2066\u2069\x7f\n \u00e9\u200d\u2030\u206a"
        shown = "??2J???????? \u00e9\u200d\u2030\u206a"
        arrays = [(steering, b"1"), ("n" * 99999, b"1"), *spare]
        Path("much").write_bytes(b"".join([struct.pack(">BH", 0xDE, len(arrays) + 19), *(
            struct.pack(">BI", 0xDB, len(name.encode())) + name.encode() + b"\xa1" + data
            for name, data in arrays), Path("good").read_bytes()[3:]]))
        for does in ("check", NET, "much"), ("export", NET, "much", "-o", "made"):
            *listed, last = self.call("weights", *does).splitlines()
            self.assertEqual([f"unused  {name}" for name in (
                shown, "n" * 99999, *(name for name, _ in spare[:38]), "... and 62 more")], listed)
        lines = self.call("weights", "show", "much").splitlines()
        self.assertEqual((121, f"{shown:60}  str            1"), (len(lines) - 1, lines[1][:78]))
        self.assertLess(max(map(len, lines[:2] + lines[3:])), 200)
        Path("list").write_text("n" * 99999 + "\nface.jpg\n")
        table = self.call("run", NET, "-w", "good", "--list", "list", code=1, stderr="[^\0]*")
        self.assertLess(max(map(len, table.splitlines())), 200)

    def test_synthesizes(self):
        for name, *rest in ("same", "7"), ("other", "8"), ("named", "7", "--prefix", "up/"):
            self.call("weights", "synth", NET, "-o", name, "--seed", *rest)
        good, same, other = (Path(name).read_bytes() for name in ("good", "same", "other"))
        self.assertEqual((True, False), (good == same, good == other))
        self.assertIn("OK: 19", self.call("weights", "check", NET, "named", "--prefix", "up/"))
        self.assert_near(*(self.results("face.jpg", "-w", *rest)[0][1]
                           for rest in (["good"], ["named", "--prefix", "up/"])))
        self.fail_all([(RUN + " named", 1, "named: inMean-0: .*found none")])

    def test_round_trip(self):
        for does in "import", "export":
            self.assertIn(f"Example: facezoo weights {does}", self.call("weights", does, "--help"))
        known = {name: struct.pack(f"<{len(zeros) // 4}f", *range(i, i + len(zeros) // 4))
                 for i, (name, zeros) in enumerate(self.zeros.items())}
        Path("known").write_bytes(pack(known.items()))
        self.convert("export", "known")
        tensors, metadata = load("made")
        self.assertEqual({"network": NET}, metadata)
        self.assertTrue([*known.items()] == [(name, data) for name, (*_, data) in tensors.items()])
        self.assertEqual(("F32", [64, 1, 7, 7]), tensors["conv1-0"][:2])
        self.call("weights", "synth", NET, "-o", "up", "--seed", "7", "--prefix", "up/")
        for source, prefix in ("good", ""), ("up", "up/"):
            self.convert("export", source, "--prefix", prefix)
            os.rename("made", "file")
            self.assertEqual([prefix + name for name in known], [*load("file")[0]])
            self.convert("import", "file", "--prefix", prefix)
            self.assertTrue(Path("made").read_bytes() == Path(source).read_bytes())

    def test_widens(self):
        floats = {"F16": (0x7C00, lambda bits: struct.pack(
                      "<f", *struct.unpack("<e", struct.pack("<H", bits)))),
                  "BF16": (0x7F80, lambda bits: struct.pack("<I", bits << 16))}
        tensors = self.exported()
        for type_, (exponent, widen) in floats.items():
            with self.subTest(type_):
                wide = {bits: widen(bits) for bits in range(1 << 16) if bits & exponent != exponent}
                patterns, halves, expected = itertools.cycle(wide), {}, {}
                for name, (_, shape, data) in tensors.items():
                    some = [*itertools.islice(patterns, len(data) // 4)]
                    halves[name] = type_, shape, struct.pack(f"<{len(some)}H", *some)
                    expected[name] = "F32", shape, b"".join(map(wide.get, some))
                Path("file").write_bytes(save(halves))
                self.convert("import", "file")
                os.rename("made", "wide")
                self.convert("export", "wide")
                self.assertTrue(expected == load("made")[0])
                halves[EYE] = type_, [3], struct.pack("<3H", exponent, exponent | 0x8001, 0)
                Path("file").write_bytes(save(halves))
                self.convert("import", "file", faults=[
                    f"{EYE}: expected finite values, found 2 of 3 NaN or infinite"])

    def test_matches_tensors(self):
        tensors, matrix = self.exported(), "loss3/classifier_acce_eye-0"
        _, (out, inner), _ = tensors[matrix]
        shapes = {  # of which the first rows keep the order of elements
            ("conv1-0", (64, 7, 7)): "", ("conv1-1", (1, 64, 1, 1)): "",
            (matrix, (3, 272, 14, 14)): "", (matrix, (1, out, inner)): "",
            ("conv1-0", (7, 7, 1, 64)): "[64, 1, 7, 7]", ("conv1-0", (64, 49)): "[64, 1, 7, 7]",
            ("conv2b-0", (208, 3, 3, 96)): "[208, 96, 3, 3]", ("conv1-1", (8, 8)): "[64]",
            **{(matrix, shape): f"[{out}, {inner}] or [3, 272, 14, 14]"
               for shape in ((inner, out), (3, 14, 14, 272), (3, 13328, 2, 2))}}
        for (name, shape), expected in shapes.items():
            with self.subTest((name, shape)):
                Path("file").write_bytes(save({**tensors, name: ("F32", shape, tensors[name][2])}))
                self.convert("import", "file", faults=[
                    f"{name}: expected shape {expected}, found {[*shape]}"] if expected else [])
        others = {"features.0": tensors.pop("conv1-0"), "steps": ("I64", [], bytes(8)), **tensors}
        others["conv1-1"] = "F64", [64], bytes(512)
        Path("file").write_bytes(save(others))
        self.convert("import", "file", unused=["features.0", "steps"], faults=[
            "conv1-0: expected shape [64, 1, 7, 7], found none",
            "conv1-1: expected F32, F16 or BF16, found F64"])
        Path("file").write_bytes(save({**others, "conv1-1": tensors["conv1-1"]}))
        Path("names").write_text('{"conv1-0": "features.0"}')
        self.convert("import", "file", "--names", "names", unused=["steps"])
        Path("names").write_text('{"conv1-0": "features.0", "conv1-1": "features.0"}')
        self.convert("import", "file", "--names", "names", unused=["steps", "conv1-1"], faults=[
            "conv1-1 from features.0: expected a tensor of its own, found that of conv1-0"])
        for text, line in (('{"conv9": "a", "conv1-0": 1}', "conv1-0: .*number; .*conv9"),
                           ("[]", "found array"), ('{"a": {}}', "1 level"), ("{", "byte 2")):
            Path("names").write_text(text)
            self.fail_all([(f"weights import {NET} file --names names -o no", 1, f"names.*{line}")])

    def test_recognises_other_files(self):
        onnx = b"\x08\x08\x12\x07pytorch\x1a\x032.1\x28\0\x3a\xc8\1" + bytes(200)
        directory = bytes(99999) + b"PK\1\2" + bytes(42) + b"model/"
        arrays = ".*; `safetensors.numpy.save_file"
        files = {  # some of which are MessagePack, too
            "pt": (b"PK\3\4" + bytes(26) + b"archive/data.pkl", "a PyTorch file; `safetensors.torch.save"),
            "pth": (b"PK\3\4" + directory + b"data.pkl" + bytes(22), "a PyTorch file; `safetensors.torch"),
            "old": (b"\x80\2\x8a\nl\xfc\x9cF\xf9 j\xa8P\x19.", "a Python pickle.*PyTorch.*; `safetensors.torch"),
            "onnx": (onnx, r'an ONNX file; .*onnx.load\("onnx"\).graph.initializer'),
            "npz": (b"PK\3\4" + bytes(26) + b"conv1-0.npy", "NumPy's arrays" + arrays),
            "npy": (b"\x93NUMPY\1\0v\0" + bytes(128), "a NumPy array" + arrays),
            "keras": (b"PK\3\4" + directory + b"model.weights.h5", "a Keras file" + arrays),
            "h5": (b"\x89HDF\r\n\x1a\n\0\0\0\0\0\x08\x08\0\4\0\x10\0" + bytes(80), "an HDF5 file.*Keras" + arrays),
            "gz": (b"\x1f\x8b\x08", "a gzip file;"), "zip": (b"PK\3\4" + bytes(99), "a zip archive;")}
        uses = (RUN, f"bench {NET} -w", f"weights check {NET}", f"weights export {NET} -o made", "weights show")
        for name, (content, line) in files.items():
            Path(name).write_bytes(content)
            self.fail_all([(f"{use} {name}", 1, f"{name}: expected a weight file .*, found {line}")
                           for use in uses])
            self.fail_all([(f"weights import {NET} {name} -o made", 1,
                            f"{name}: expected a safetensors file, found {line}")])
        for length in range(120, 144):  # which is a safetensors file's first byte
            Path("st").write_bytes(file_of(b"{}".ljust(length)))
            self.fail_all([(f"{use} st", 1, "st: expected a weight file .*, found a safetensors file; "
                            f"`facezoo weights import {NET} st -o") for use in uses[:4]])
        self.fail_all([(f"weights import {NET} good -o made", 1, "found a weight file; it needs no conv")])
        for name in "cut", "other":  # of which no more is known
            Path(name).write_bytes(onnx[:-1] if name == "cut" else b"\x08\x08\x12\x07pytorch")
            self.fail_all([(f"weights check {NET} {name}", 1, f"{name}: expected a MessagePack map, found int")])

    def test_says_how_to_pack(self):
        """Arrays, and names, of the binary type are said to be so, once."""
        advice = r"; 19 arrays are of type bin, [^\n]*`msgpack.packb\(..., use_bin_type=False\)`[^\n]*"
        items = self.zeros.items()
        named = struct.pack(">BH", 0xDE, len(items)) + b"".join(
            struct.pack(">BB", 0xC4, len(name)) + name.encode() + struct.pack(">BI", 0xC6, len(data)) + data
            for name, data in items)
        for content in pack(items, self.zeros), named:
            Path("bin").write_bytes(content)
            self.fail_all([(f"{RUN} bin", 1, f"more, which weights check lists{advice}")])
            for does in ("check", NET, "bin"), ("export", NET, "bin", "-o", "made"):
                listed = self.call("weights", *does, code=1, stderr=f"facezoo: bin: 19 of 19 [^;]*{advice}\n")
                self.assertNotIn("msgpack", listed)

    def test_proposes_names(self):
        """A PyTorch state in any order, with names that say nothing of the layer's."""
        net, leaves = "GoogLeNetBN", {"0": "weight", "1": "bias", "gamma": "weight", "beta": "bias",
                                      "avg_mean": "running_mean", "avg_var": "running_var"}
        self.call("weights", "synth", net, "-o", "big")
        self.call("weights", "export", net, "big", "-o", "file")
        tensors = load("file")[0]
        layers = [*dict.fromkeys(name.rpartition("-")[0] for name in tensors)]
        for order, module in (lambda names: sorted(names), "net.{}"), (list, "z{0}{1}"):
            names = {name: module.format(layers.index(layer), 999 - layers.index(layer)) + "." + leaves[leaf]
                     for name in tensors for layer, _, leaf in [name.rpartition("-")]}
            names["pca-1"] = "centre"
            state = {new: tensors[name] for name, new in names.items()}
            steps = {f"net.{i}.num_batches_tracked": ("I64", [], bytes(8)) for i in range(99)}
            Path("file").write_bytes(save(steps | {name: state[name] for name in order(state)}))
            self.assertRegex(self.call("weights", "names", net, "file", "-o", "names", "--force"), (
                rf"\Anames: 367 names of {net}, to be checked: 0 by name, \d+ by shape alone, "
                r"\d+ by order among equal shapes, 0 not at all\n\Z"))
            self.assertEqual([*names.items()], [*json.loads(Path("names").read_text()).items()])
            listed = self.call("weights", "import", net, "file", "-o", "made", "--force", "--names", "names")
            self.assertIn("and 59 more\nmade: 367 arrays", listed)
            self.assertTrue(Path("big").read_bytes() == Path("made").read_bytes())

    def test_proposes_what_fits(self):
        tensors = self.exported()
        names = {"conv1-0": "conv1-0", "conv3b-0": "conv3b.weight", "conv2a-0": "other.2.weight", EYE: "x"}
        file = {new: tensors[name] for name, new in names.items()}
        file |= {"other.2.running_mean": tensors["conv2b-1"], "many": ("F64", [96], bytes(768))}
        Path("file").write_bytes(save(file))
        expected = {name: names.get(name) for name in tensors}
        found = self.call("weights", "names", NET, "file", stderr="facezoo: names to be checked, found 2 by "
                          "name, 2 by shape alone, 0 by order among equal shapes, 15 not at all\n")
        self.assertEqual([*expected.items()], [*json.loads(found).items()])
        Path("names").write_text(found)
        shapes = {name: shape for name, (_, shape, _) in tensors.items()}
        self.convert("import", "file", "--names", "names", unused=["other.2.running_mean", "many"], faults=[
            f"{name}: expected the name of a tensor of shape {shapes[name]}, found null"
            for name, tensor in expected.items() if tensor is None])
        none = self.call("weights", "names", NET, "--prefix", "up/")
        self.assertEqual({"up/" + name: None for name in tensors}, json.loads(none))

    def test_shows_tensors(self):
        wide = struct.pack("<6000e", 7, -3, math.inf, *[0] * 5997)
        Path("file").write_bytes(save({"steps": ("I64", [], bytes(8)), "a.b": ("F16", [2, 3000], wide)}))
        self.assertEqual([
            ["name", "type", "shape", "elements", "min", "mean", "max"], ["steps", "I64", "[]", "1"],
            [*"a.b F16 [2, 3000] 6000 -3".split(), f"{4 / 5999:g}", *"7 and 1 NaN or infinite".split()]],
            [line.split() for line in self.call("weights", "show", "file").splitlines()])

    def test_refuses_safetensors(self):
        def entry(dtype="U8", shape=(4,), data_offsets=(0, 4)):
            return dict(dtype=dtype, shape=shape, data_offsets=data_offsets)
        a = json.dumps(entry()).encode()
        files = {  # each would be taken but for what the line says
            b"1234": "8 bytes", file_of({}, length=3): "3 bytes, found 2",
            file_of({}, length=2 ** 64 - 1): "at most", file_of(b""): "byte 1",
            file_of(b"{}\0{}"): "NUL", file_of(b'{"\xff": 1}'): "JSON", file_of(b"[]"): "array",
            file_of(b"[" * 99999): "at most 3 levels", file_of(b'{"a":[[{}]]}'): "3 levels",
            file_of(b'{"a":%b,"\\u0061":%b}' % (a, a), b"1234"): "another a",
            file_of({"a": 1}): "a: .*object, found number", file_of({"a": {}}): "dtype, found none",
            file_of({"a": entry("Q5")}): "Q5", file_of({"__metadata__": {"a": 1}}): "string"}
        files.update({file_of({"a": entry(), "b": entry(**change)}, data): line
                      for change, data, line in (
            (dict(data_offsets=(4, 8)), b"1234567", "inside 7 bytes"),
            (dict(data_offsets=(4, 8)), b"123456789", "8 bytes of data, found 9"),
            (dict(data_offsets=(3, 7)), b"1234567", "b: .*byte 4, found it at 3"),
            (dict(data_offsets=(5, 9)), b"123456789", "b: .*byte 4, found it at 5"),
            (dict(data_offsets=(8, 4)), b"12345678", "b: .*start and end"),
            (dict(data_offsets=(4, 8, 9)), b"12345678", "b: .*start and end"),
            (dict(data_offsets=(4, 7)), b"1234567", "b: .*4 bytes of data, found 3"),
            (dict(shape=(2 ** 63, 2, 1), data_offsets=(4, 4)), b"1234", "b: .*shape"),
            *((dict(shape=(size,), data_offsets=(4, 8)), b"12345678", "b: .*shape .*whole numbers")
              for size in (-4, 4.0, "4", None, 2 ** 65)))})
        for content, line in files.items():
            Path("file").write_bytes(content)
            self.fail_all([(f"weights import {NET} file -o new", 1, f"\\bfile: .*{line}")])
        self.assertEqual({"face.jpg", "good", "file"}, {*os.listdir()})


unittest.main(argv=sys.argv[:1] + sys.argv[3:])

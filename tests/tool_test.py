"""End-to-end test of the command-line tool: tool_test.py PATH_TO_FACEZOO PATH_TO_PORTRAIT."""
import csv, json, math, os, re, resource, struct, subprocess, sys, tempfile, unittest, zlib
from pathlib import Path

TOOL, PORTRAIT = map(os.path.abspath, sys.argv[1:3])
NET, MOUTH, EYE = "DexpressionNet", "loss3/classifier_acce_mouth-1", "loss3/classifier_acce_eye-1"
RUN = f"run {NET} face.jpg -w"


def png(name, row, height, channels):
    """Writes an image of equal rows; its checksums are 0, as decoding does not depend on them."""
    pixels = zlib.compress((b"\0" + row) * height, 1)
    head = struct.pack(">2I5B", len(row) // channels, height, 8, {1: 0, 3: 2}[channels], 0, 0, 0)
    chunks = (b"IHDR", head), (b"IDAT", pixels), (b"IEND", b"")
    Path(name).write_bytes(b"\x89PNG\r\n\x1a\n" + b"".join(
        struct.pack(">I", len(body)) + kind + body + bytes(4) for kind, body in chunks))


def pack(arrays, binary=()):
    """MessagePack map of (name, data) pairs; the names in `binary` get the binary type."""
    return struct.pack(">BH", 0xDE, len(arrays)) + b"".join(
        struct.pack(f">BB{len(name)}sBI", 0xD9, len(name), name.encode(),
                    0xC6 if name in binary else 0xDB, len(data)) + data for name, data in arrays)


class ToolTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        os.chdir(directory.name)
        os.symlink(PORTRAIT, "face.jpg")
        self.call("weights", "synth", NET, "-o", "good", "--seed", "7")
        rows = [line.split() for line in self.call("weights", "show", "good").splitlines()[1:]]
        self.zeros = {row[0]: bytes(int(row[2])) for row in rows}

    def call(self, *args, code=0, stderr=""):
        done = subprocess.run([TOOL, *args], capture_output=True, encoding="utf-8", timeout=120)
        self.assertRegex(f"{done.returncode}{done.stderr}", rf"\A{code}{stderr}\Z")
        return done.stdout

    def fail_all(self, cases, listing=""):
        for args, code, line in cases:
            with self.subTest(args):
                stderr = rf"facezoo: [^\n]*(?:{line})[^\n]*\n"
                self.assertEqual(listing, self.call(*args.split(" "), code=code, stderr=stderr))

    def results(self, *args):
        lines = [*map(json.loads, self.call("run", NET, "--format", "json", *args).splitlines())]
        for group, size in ("mouth", 2), ("eye", 3):
            sums = [(len(line[group]), round(sum(line[group]), 4)) for line in lines]
            self.assertEqual([(size, 1)] * len(lines), sums)
        return [(line["image"], line["mouth"] + line["eye"]) for line in lines]

    def assert_near(self, expected, found):
        self.assertLess(math.dist(expected, found), 1e-4)

    def test_informs(self):
        for words in ", info, run, weights, weights synth, weights check, weights show".split(","):
            self.assertIn("Example: facezoo" + words, self.call(*words.split(), "--help"))
        self.assertRegex(self.call("info"), rf"(?s){NET}.* mouth \(2\) eye \(3\).*, chosen\n")

    def test_refuses_wrong_usage(self):
        run, synth = RUN + " good", f"weights synth {NET} -o"
        self.fail_all([("walk", 2, "walk"), ("weights", 2, "subcommand is required"),
                       (RUN[:-3], 2, "--weights is"), (f"run {NET} -w good", 2, "IMAGE is"),
                       (run.replace(NET, "Nobody"), 2, "Nobody"), (run + " --bogus", 2, "--bogus"),
                       (run + " --format xml", 2, "xml"), (synth + " /", 1, "/: .*directory"),
                       *((f"{run} --batch {n}", 2, f"--batch.* {n}\\b") for n in (0, -1, 700)),
                       (synth + " new --seed -1", 2, "seed.*-1"), (synth + " no/z", 1, "no/z: ")])
        self.assertEqual(["face.jpg", "good"], sorted(os.listdir()))

    def test_formats_agree(self):
        name = 'an "odd", name'
        os.symlink(PORTRAIT, name)
        [(image, expected)] = self.results("-w", "good", name)
        args = "run", NET, "-w", "good", name, "--format"
        head, row = csv.reader(self.call(*args, "csv").splitlines())
        top, below = self.call(*args, "table").splitlines()
        self.assertEqual("image mouth_0 mouth_1 eye_0 eye_1 eye_2".split(), head)
        self.assertEqual([head, name, name, name], [top.split(), image, row[0], below[:len(name)]])
        self.assert_near(expected, list(map(float, row[1:])))
        self.assert_near(expected, list(map(float, below[len(name):].split())))

    def test_runs_every_network(self):
        two, twelve = {"mouth": 2, "eye": 3}, {
            "eye": 3, "mouth": 2, "head": 2, "hair": 2, "eye_condition": 4, "mouth_open": 4,
            "mouth_corner": 4, "yaw": 1, "pitch": 1, "blur": 1, "noise": 1, "luminance": 1}
        for net, groups in dict(
                FANet={"landmarks": 136, "norm": 1}, GoogLeNet={"features": 512, "norm": 1},
                GoogLeNetBN={"features": 1024, "norm": 1}, LCNN29={"features": 512, "norm": 1},
                GoogLeNet_FAA1ch=two, GoogLeNet_FAA3ch=two, GoogLeNet_FAA3ch_12tasks=twelve).items():
            with self.subTest(net):
                self.call("weights", "synth", net, "-o", "all")
                self.assertRegex(self.call("weights", "check", net, "all"), rf"OK: \d+ .*{net}, 0")
                run = "run", net, "-w", "all", "face.jpg", "--format"
                line = json.loads(self.call(*run, "json"))
                found = {name: value if isinstance(value, list) else [value]
                         for name, value in line.items() if name != "image"}
                self.assertEqual([*groups.items()], [(g, len(v)) for g, v in found.items()])
                values = sum(found.values(), [])
                self.assertGreater(max(values) - min(values), 0.1)
                head, row = csv.reader(self.call(*run, "csv").splitlines())
                self.assertEqual(len(head), len(row))
                self.assertEqual([struct.pack("f", v) for v in values],
                                 [struct.pack("f", float(cell)) for cell in row[1:]])
                top, below = self.call(*run, "table").splitlines()
                self.assertEqual(len(top), len(below))
                shown = [[n for n, v in zip(top.split(), below.split()) if g in n] for g in groups]
                self.assertTrue(all(shown), shown)

    def test_batches_and_sizes(self):
        png("dot", b"\x5a", 1, 1)  # as grey as the largest square of `big`
        png("big", bytes(3000) + b"\x5a" * 18000 + b"\xff" * 3000, 6000, 3)
        [(_, face)], [(_, dot)] = (self.results("-w", "good", name) for name in ("face.jpg", "dot"))
        self.assertGreater(math.dist(face, dot), 0.01)
        for images in ["face.jpg"] * 3, ["dot", "face.jpg", "dot"], ["face.jpg", "big"]:
            found = self.results("-w", "good", "--batch", "2", *images)
            self.assertEqual(images, [image for image, _ in found])
            for image, values in found:
                self.assert_near(face if image == "face.jpg" else dot, values)
        if b"__asan_init" not in Path(TOOL).read_bytes():
            self.assertLess(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss, 1 << 20)

    def test_refuses_files(self):
        png("whole", bytes(range(256)) * 3, 256, 3)
        image, photo, good = (Path(name).read_bytes() for name in ("whole", PORTRAIT, "good"))
        for name, data in dict(
                empty=b"", text=b"no such data\n", cutpng=image[:-400], cutjpg=photo[:9999],
                vast=image[:16] + b"\0\0\xea\x60" * 2 + image[24:], short=good[:-1],
                array=b"\x91" + good, claim=b"\x81\xa1a\xdb\xff\xff\xff\xff12", half=good[:9999],
                level=b"\x81\xa1a" + b"\x91" * 31 + b"1", deep=b"\x81\xa1a" + b"\x91" * 32 + b"1",
                entries=b"\xdf\xff\xff\xff\xff\xa1a\xc0").items():
            Path(name).write_bytes(data)
        self.fail_all([(f"{RUN} good {name}", 1, line) for name, line in (
            ("nobody", "nobody: .*No such"), ("no\nbody", r"no\?body: "), ("empty", "empty: "),
            (".", r"\.: .*directory"), ("text", "text: .*else"), ("cutpng", "cutpng: .*PNG.*ends"),
            ("cutjpg", "cutjpg: .*JPEG.*ends"), ("vast", "vast: .*60000 x 60000"))])
        self.fail_all([(f"{command} {name}", 1, f"{re.escape(name)}: .*{line}") for name, line in (
            ("nobody", "No such"), ("empty", "empty"), (".", "directory"), ("short", "end missing"),
            ("half", "end missing"), ("text", "MessagePack map"), ("array", "found array"),
            ("claim", "end missing"), ("entries", "end missing"), ("deep", "deeper than 32"))
            for command in (RUN, f"weights check {NET}", "weights show")])
        self.assertRegex(self.call("weights", "show", "level"), r"\na +array\n")

    def test_refuses_arrays(self):
        arrays = {**self.zeros, "conv2a-1": bytes(380), EYE: struct.pack("<3f", *[math.nan] * 3)}
        arrays["spare"] = arrays.pop("conv1-0")
        Path("bad").write_bytes(pack(arrays.items(), ["conv3b-1"]))
        faults = ["conv1-0: expected 12544 bytes of str, found none",
                  "conv2a-1: expected 384 bytes of str, found 380",
                  "conv3b-1: expected 832 bytes of str, found bin",
                  f"{EYE}: expected finite values, found 3 of 3 NaN or infinite"]
        listing = "".join(f"fault   {fault}\n" for fault in faults) + "unused  spare\n"
        self.fail_all([(f"weights check {NET} bad", 1, "bad: 4 of 19 arrays")], listing)
        self.fail_all([(RUN + " bad", 1, "bad: " + "; ".join(faults)),
                       ("run LCNN29 face.jpg -w good", 1, "good: conv1-0: .*found 12544; .*55 more")])

    def test_reads_known_weights(self):
        odds = struct.pack("<5f", 0, math.log(3), 0, math.log(2), math.log(5))
        arrays = {**self.zeros, MOUTH: odds[:8], EYE: odds[8:]}.items()
        Path("known").write_bytes(pack([*arrays, (MOUTH, bytes(4)), ("spare", b"1")]))
        self.assertEqual(f"unused  {MOUTH}\nunused  spare\nOK: 19 arrays of {NET}, 2 unused\n",
                         self.call("weights", "check", NET, "known"))
        self.assertRegex(self.call("weights", "show", "known"),
                         rf"\n{MOUTH} +str +8 +2 +0 +0\.549306 +1\.09861\n")
        self.assert_near([.25, .75, .125, .25, .625], self.results("-w", "known", "face.jpg")[0][1])

    def test_synthesizes(self):
        for name, *rest in ("same", "7"), ("other", "8"), ("named", "7", "--prefix", "up/"):
            self.call("weights", "synth", NET, "-o", name, "--seed", *rest)
        good, same, other = (Path(name).read_bytes() for name in ("good", "same", "other"))
        self.assertEqual((True, False), (good == same, good == other))
        self.assertIn("OK: 19", self.call("weights", "check", NET, "named", "--prefix", "up/"))
        self.assert_near(*(self.results("face.jpg", "-w", *rest)[0][1]
                           for rest in (["good"], ["named", "--prefix", "up/"])))
        self.fail_all([(RUN + " named", 1, "named: inMean-0: .*found none")])


unittest.main(argv=sys.argv[:1])

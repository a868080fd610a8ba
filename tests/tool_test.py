"""End-to-end test of the command-line tool: tool_test.py PATH_TO_FACEZOO PATH_TO_PORTRAIT."""
import csv, json, math, os, re, resource, struct, sys, unittest, zlib
from pathlib import Path
from tool_support import NET, PORTRAIT, RUN, TOOL, ToolCase


def png(name, row, height, channels):
    """Writes an image of equal rows; its checksums are 0, as decoding does not depend on them."""
    pixels = zlib.compress((b"\0" + row) * height, 1)
    head = struct.pack(">2I5B", len(row) // channels, height, 8, {1: 0, 3: 2}[channels], 0, 0, 0)
    chunks = (b"IHDR", head), (b"IDAT", pixels), (b"IEND", b"")
    Path(name).write_bytes(b"\x89PNG\r\n\x1a\n" + b"".join(
        struct.pack(">I", len(body)) + kind + body + bytes(4) for kind, body in chunks))


class ToolTest(ToolCase):
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


unittest.main(argv=sys.argv[:1])

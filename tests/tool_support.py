"""What the tests of the tool share, which run as TEST PATH_TO_FACEZOO PATH_TO_PORTRAIT."""
import json, math, os, struct, subprocess, sys, tempfile, unittest
from pathlib import Path

TOOL, PORTRAIT = map(os.path.abspath, sys.argv[1:3])
SANITIZED = any(name in Path(TOOL).read_bytes() for name in (b"__asan_init", b"__tsan_init"))
NET, MOUTH, EYE = "DexpressionNet", "loss3/classifier_acce_mouth-1", "loss3/classifier_acce_eye-1"
RUN = f"run {NET} face.jpg -w"


def pack(arrays, binary=()):
    """MessagePack map of (name, data) pairs; the names in `binary` get the binary type."""
    return struct.pack(">BH", 0xDE, len(arrays)) + b"".join(
        struct.pack(f">BB{len(name)}sBI", 0xD9, len(name), name.encode(),
                    0xC6 if name in binary else 0xDB, len(data)) + data for name, data in arrays)


class ToolCase(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        os.chdir(directory.name)
        os.symlink(PORTRAIT, "face.jpg")
        self.call("weights", "synth", NET, "-o", "good", "--seed", "7")
        rows = [line.split() for line in self.call("weights", "show", "good").splitlines()[1:]]
        self.zeros = {row[0]: bytes(int(row[2])) for row in rows}

    def call(self, *args, code=0, stderr="", **how):
        how = dict(stdout=subprocess.PIPE, stderr=subprocess.PIPE, encoding="utf-8") | how
        done = subprocess.run([TOOL, *args], timeout=300, **how)
        self.assertRegex(f"{done.returncode}{done.stderr}", rf"\A{code}{stderr}\Z")
        return done.stdout

    def fail_all(self, cases, listing="", **how):
        """Each of the (words, exit code, pattern) says one line, and leaves no file behind."""
        before = sorted(os.listdir())
        for args, code, line in cases:
            with self.subTest(args):
                stderr = rf"facezoo: [^\n]*(?:{line})[^\n]*\n"
                self.assertEqual(listing, self.call(*args.split(" "), code=code, stderr=stderr, **how))
                self.assertEqual(before, sorted(os.listdir()))

    def results(self, *args, **how):
        lines = [*map(json.loads, self.call("run", NET, "--format", "json", *args, **how).splitlines())]
        for group, size in ("mouth", 2), ("eye", 3):
            sums = [(len(line[group]), round(sum(line[group]), 4)) for line in lines]
            self.assertEqual([(size, 1)] * len(lines), sums)
        return [(line["image"], line["mouth"] + line["eye"]) for line in lines]

    def assert_near(self, expected, found):
        self.assertLess(math.dist(expected, found), 1e-4)

"""End-to-end test of the tool's weight files: weights_tool_test.py PATH_TO_FACEZOO PATH_TO_PORTRAIT."""
import math, re, struct, sys, unittest
from pathlib import Path
from tool_support import EYE, MOUTH, NET, RUN, ToolCase, pack


class WeightsTest(ToolCase):
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
        self.fail_all([(RUN + " bad", 1, "bad: " + re.escape("; ".join(faults))),
                       ("run LCNN29 face.jpg -w good", 1, "good: conv1-0.* 12544 bytes; .*55 more")])

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

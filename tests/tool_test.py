"""End-to-end test of the command-line tool: tool_test.py PATH_TO_FACEZOO PATH_TO_PORTRAIT."""
import ast, contextlib, csv, ctypes, errno, glob, json, math, os, pty, re, resource, shutil, signal, struct
import subprocess, sys, time, unittest, zlib
from pathlib import Path
from unittest import mock
from tool_support import NET, PORTRAIT, RUN, SANITIZED, TOOL, ToolCase


def png(name, row, height, channels, claimed=None, extra=()):
    """Writes an image of equal rows, or of a list of them, with extra (kind, body) chunks; its
    header may claim another width and height."""
    rows = row if isinstance(row, list) else [row] * height
    pixels = zlib.compress(b"".join(b"\0" + each for each in rows), 1)
    width, height = claimed or (len(rows[0]) // channels, len(rows))
    head = struct.pack(">2I5B", width, height, 8, {1: 0, 3: 2}[channels], 0, 0, 0)
    chunks = (b"IHDR", head), *extra, (b"IDAT", pixels), (b"IEND", b"")
    Path(name).write_bytes(b"\x89PNG\r\n\x1a\n" + b"".join(
        struct.pack(">I", len(body)) + kind + body + struct.pack(">I", zlib.crc32(kind + body))
        for kind, body in chunks))


def exif(orientation, order="<"):
    """TIFF metadata that says how a picture is turned."""
    return struct.pack(order + "2sHIHHHIHHI", {"<": b"II", ">": b"MM"}[order], 42, 8, 1, 0x112, 3, 1,
                       orientation, 0, 0)


def npy(name):
    """The rows of a NumPy file of floats."""
    data = Path(name).read_bytes()
    head = ast.literal_eval(data[10:128].decode())
    assert (data[:10], head["descr"], head["fortran_order"]) == (b"\x93NUMPY\1\0v\0", "<f4", False)
    rows, columns = head["shape"]
    return [struct.unpack_from(f"<{columns}f", data, 128 + 4 * columns * row) for row in range(rows)]


def write_npy(name, rows, names=None, head=None, version=b"\1\0H\0"):
    head = head or f"{{'descr': '<f4', 'fortran_order': False, 'shape': ({len(rows)}, {len(rows[0])})}}"
    Path(name).write_bytes(b"\x93NUMPY" + version + head.ljust(71).encode() + b"\n" + b"".join(
        struct.pack(f"<{len(row)}f", *row) for row in rows))
    if names is not None:
        Path(name).with_suffix(".names.jsonl").write_text("".join(map("{}\n".format, names)))


def names_of(name):
    return [json.loads(line) for line in Path(name).with_suffix(".names.jsonl").read_text().split("\n")[:-1]]


def pixels(name):
    """Width and the RGB pixels of a PNG file."""
    data, at, packed = Path(name).read_bytes(), 8, b""
    while at < len(data):
        size, kind = struct.unpack_from(">I4s", data, at)
        packed += data[at + 8:at + 8 + size] if kind == b"IDAT" else b""
        at += size + 12
    stride, raw = 3 * struct.unpack_from(">I", data, 16)[0], zlib.decompress(packed)
    above, found = bytearray(stride + 3), []
    for start in range(0, len(raw), stride + 1):
        row = bytearray(3) + raw[start + 1:start + 1 + stride]
        for i in range(3, stride + 3):
            left, up, corner = row[i - 3], above[i], above[i - 3]
            near = min((left, up, corner), key=lambda v: abs(left + up - corner - v))
            row[i] = row[i] + (0, left, up, (left + up) // 2, near)[raw[start]] & 255
        found += [row[i:i + 3] for i in range(3, stride + 3, 3)]
        above = row
    return stride // 3, found


class ToolTest(ToolCase):
    def test_informs(self):
        for words in ", bench, info, run, weights, weights synth, weights check, weights show".split(","):
            self.assertIn("Example: facezoo" + words, self.call(*words.split(), "--help"))
        with mock.patch.dict(os.environ, OMP_NUM_THREADS="1", CUBLAS_WORKSPACE_CONFIG=":16:8"):
            found, text = json.loads(self.call("info", "--format", "json")), self.call("info")
        self.assertRegex(text, rf"(?s)\nCUDA.* chosen\n.*{NET} .* mouth \(2\) eye \(3\)\n.* :16:8 ")
        self.assertIn("threads 1\n", text)
        for name, field, values in (
                ("libraries", "verdict", ["supported", "not needed", "supported", "supported"]),
                ("devices", "verdict", ["chosen"]), ("environment", "value", [":16:8", "1"])):
            self.assertEqual(values, [row[field] for row in found[name]])
        self.assertEqual((1, 8), (found["threads"], len(found["networks"])))

    def test_benches(self):
        quick, weights = ("--seconds", "0.01", "--format"), sum(map(len, self.zeros.values()))
        bench = "bench", NET, "--batch", "1", "3", *quick
        with mock.patch.dict(os.environ, TMPDIR=os.getcwd()):
            rows = [*map(json.loads, self.call(*bench, "json").splitlines())]
            self.assertEqual(["face.jpg", "good"], sorted(os.listdir()))
        self.assertEqual([1, 3], [row["batch"] for row in rows])
        for row in rows:
            times = [row[f"{name}_ms"] for name in ("min", "p50", "p90", "p99", "max")]
            self.assertEqual([0, *times], sorted([0, *times]))
            whole = 1000 * row["batch"] / row["images_per_s"]
            self.assertTrue(times[0] / 2 < whole < 5 * times[-1], row)
            self.assertGreaterEqual(row["passes"], 10)
            device = 4 * 3411968 * row["batch"] + (128 << 20) + weights
            self.assertAlmostEqual(device, row["device_MiB"] * 2**20, delta=1 << 16)
            self.assertGreater(row["peak_MiB"] * 2**20, 2 * weights)
        self.call("weights", "synth", NET, "-o", "named", "--prefix", "up/")
        named = "bench", NET, "-w", "named", "--prefix", "up/", "--batch", "2", *quick
        head, row = csv.reader(self.call(*named, "csv").splitlines())
        self.assertEqual(([*rows[0]], NET), (head, dict(zip(head, row))["network"]))
        setting, top, below = self.call(*named, "table").splitlines()
        self.assertRegex(setting, "^facezoo .*, platform host, .*, threads .*, device ")
        self.assertEqual([[NET, "2"], len(top)], [below.split()[:2], len(below)])
        self.assertLessEqual({*top.split()}, {*head})

    def test_bench_refuses(self):
        self.fail_all([(f"bench {args}", code, line) for args, code, line in (
            ("Nobody", 2, "Nobody not in .*DexpressionNet.*LCNN29"), ("--batch 0", 2, "--batch.* 0 "),
            ("LCNN29 --batch 8 342", 2, "LCNN29 .* 341, found 342"), ("-w good", 2, "one NET.* 0 "),
            (f"{NET} LCNN29 -w good", 2, "one NET.* 2 "), ("--seconds 1s", 2, "--seconds.*1s"),
            ("--seconds 0", 2, "positive.* 0"), ("--seconds -1", 2, "positive.* -1"),
            ("--seconds nan", 2, "positive.*nan"), ("--format xml", 2, "xml"),
            ("LCNN29 -w good", 1, "good: conv1-0: .*found 12544"), (f"{NET} -w no", 1, "no: "))])
        with mock.patch.dict(os.environ, TMPDIR="/nowhere"):
            self.fail_all([(f"bench {NET} --format csv", 1, "TMPDIR.*No such")])

    def test_refuses_wrong_usage(self):
        run, synth, lcnn = RUN + " good", f"weights synth {NET} -o", "run LCNN29 -w good"
        self.fail_all([
            ("walk", 2, "walk"), ("weights", 2, "subcommand is required"), (RUN[:-3], 2, "--weights is"),
            (f"run {NET} -w good", 2, "IMAGE: expected pictures.*found none"),
            (run.replace(NET, "Nobody"), 2, "Nobody"), (run + " --bogus", 2, "--bogus"),
            (run + " --format xml", 2, "xml"), (run + " --norm", 2, f"--norm: {NET} gives no norm"),
            *((f"{run} --batch {n}", 2, f"--batch.* {n}\\b") for n in (0, -1, 700, "x", "0x8", 2**64 + 1)),
            *((f"{run} --threads {n}", 2, f"--threads.* {n}\\b") for n in (0, -1, 257)),
            *((f"{run} --max-pixels {n}", 2, f"--max-pixels.* {n}\\b") for n in (0, -1, 1.5, 1 << 30, "x")),
            (run + " --draw to --layout xyxy", 2, f"--draw: .*landmarks, found {NET}"),
            (run + " --layout xyxy", 2, "--layout requires --draw"), (run + " --scale 2", 2, "--scale"),
            ("run FANet -w good face.jpg --draw to", 2, "--draw: expected --layout"),
            ("run FANet -w good face.jpg --draw to --layout yx", 2, "yx"),
            *((f"run FANet -w good face.jpg --draw to --layout xyxy --scale {n}", 2, f"--scale.* {n} ")
              for n in ("1e39", "nan", 0)),
            (f"run {NET} -w good --compare face.jpg face.jpg", 2, f"--compare: .*descriptor, found {NET}"),
            (lcnn + " --compare face.jpg", 2, "--compare"), (lcnn + " c --compare a b", 2, "IMAGE|--compare"),
            (lcnn + " --compare a b --features f.npy", 2, "--features excludes --compare"),
            (run + " --features values.csv", 2, "--features: .*values.csv"),
            (run + " --features no/f.npy", 1, "no/f.names.jsonl: cannot be written: No such"),
            (run + " --features good/f.npy", 1, "good/f.names.jsonl: .*Not a directory"),
            (run + " --list nobody", 1, "nobody: .*No such"), (run + " --list /dev/null", 1, "/dev/null: "),
            (f"run {NET} -w good .git", 1, ".git: .*No such"), (synth + " /", 1, "/: .*directory"),
            *((f"{synth} new --seed {n}", 2, f"--seed.* {n}\\b") for n in (-1, 2**64)),
            (synth + " no/z", 1, "no/z: "),
            (synth.replace(NET, "Nobody") + " new", 2, "Nobody")])

    def test_survives_full_disks_and_closed_streams(self):
        self.call("weights", "synth", "LCNN29", "-o", "large")
        run, full = "run LCNN29 -w large face.jpg", open("/dev/full", "w")
        self.addCleanup(full.close)
        limit = lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (1000, 1000))
        self.fail_all([(run + " --features f.npy", 1, "f.npy: cannot be written: File too large"),
                       (f"weights synth {NET} -o new", 1, "new: cannot be written: File too large")],
                      preexec_fn=limit)
        self.fail_all([(args, 1, "standard output: cannot be written")
                       for args in ("info", "--help", run, "weights show good")], None, stdout=full)
        if "FACEZOO_FAILING_CALLS" in os.environ:
            late = dict(LD_PRELOAD=os.environ["FACEZOO_FAILING_CALLS"], FAIL_CLOSE=str(errno.ENOSPC))
            with mock.patch.dict(os.environ, late), open("lines", "w+") as lines:
                self.fail_all([(args, 1, "standard output: cannot be written: No space left")
                               for args in ("info", "--help", run)], None, stdout=lines)
        closed = dict(preexec_fn=lambda: os.close(1), stdout=None)
        self.fail_all([(run + " --format csv --features f.npy", 1, "standard output")], None, **closed)

    def test_loses_no_output(self):
        """Where a pipe is full and does not wait, and where who reads it has gone."""
        Path("many").write_text("face.jpg\n" * 40)
        run = *f"run {NET} -w good --format json --batch 4 --list many".split(),
        for args in run, (*run, "--help"):
            expected = self.call(*args)
            ours, theirs = os.pipe()
            os.set_blocking(theirs, False)
            with contextlib.suppress(BlockingIOError):  # so that nothing can be written at first
                while os.write(theirs, b"\n" * 4096):
                    pass
            tool = subprocess.Popen([TOOL, *args], stdout=theirs, stderr=subprocess.PIPE)
            os.close(theirs)
            with open(ours, encoding="utf-8") as found:
                self.assertEqual(expected, found.read().lstrip("\n"))
            self.assertEqual((b"", 0), (tool.communicate()[1], tool.returncode))
            ours, theirs = os.pipe()
            os.close(ours)
            self.call(*args, "--features", "f.npy", code=-signal.SIGPIPE, stdout=theirs)
            self.call(*args, code=1, stderr="facezoo: standard output: .*nobody reads it\n",
                      stdout=theirs, restore_signals=False)
            os.close(theirs)
        self.assertEqual(["face.jpg", "good", "many"], sorted(os.listdir()))

    @contextlib.contextmanager
    def opened(self, *names):
        """How often each file is opened meanwhile. Ends are watched, too, as Linux makes one event of
        two like ones."""
        libc, counts, is_open, is_closed = ctypes.CDLL(None), dict.fromkeys(names, 0), 0x20, 0x10
        watch = libc.inotify_init()
        watched = {libc.inotify_add_watch(watch, name.encode(), is_open | is_closed): name for name in names}
        try:
            yield counts
            for number, event, *_ in struct.iter_unpack("<i3I", os.read(watch, 9999)):
                counts[watched[number]] += event == is_open
        finally:
            os.close(watch)

    def test_reads_weights_once(self):
        """So that what was checked is what is computed with, whoever replaces the file meanwhile."""
        with self.opened("good") as opened:
            self.call("run", NET, "-w", "good", "face.jpg")
        self.assertEqual({"good": 1}, opened)

    @unittest.skipIf(SANITIZED, "which need files of their own to look at memory")
    def test_keeps_the_library_quiet(self):
        """Where it would print among the results: a weight file that cannot be opened any more."""
        few = lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (5, 5))
        stderr = "facezoo: [^\n]*\n"
        self.assertEqual("", self.call("run", NET, "-w", "good", "face.jpg", "--features", "f.npy",
                                       code=1, stderr=stderr, preexec_fn=few))

    def test_makes_do_with_the_threads_there_are(self):
        bench = "bench", NET, "--batch", "1", "--seconds", "0.01", "--format", "json"
        for count in "40000", "100000":
            with mock.patch.dict(os.environ, OMP_NUM_THREADS=count):
                self.assertGreaterEqual(os.cpu_count(), json.loads(self.call(*bench))["threads"])
        if "FACEZOO_FAILING_CALLS" in os.environ:
            with mock.patch.dict(os.environ, LD_PRELOAD=os.environ["FACEZOO_FAILING_CALLS"],
                                 FAIL_THREAD_AT="1", OMP_NUM_THREADS="2"):
                self.assertEqual(1, json.loads(self.call(*bench))["threads"])
        if SANITIZED:
            return  # which takes more of the address space than is left below

        def limit():  # so that there is no room for the stack of a thread that decodes
            resource.setrlimit(resource.RLIMIT_STACK, (1 << 30, 1 << 30))
            resource.setrlimit(resource.RLIMIT_AS, (900 << 20, 900 << 20))
        self.results("-w", "good", "--threads", "8", "face.jpg", "face.jpg", preexec_fn=limit)

    @unittest.skipIf(SANITIZED or "FACEZOO_FAILING_CALLS" not in os.environ, "fails no calls")
    def test_ends_without_memory_or_threads(self):
        """A complete result, or one line and no file, whichever allocation fails."""
        run = f"run {NET} -w good --threads 3 --features f.npy --format csv face.jpg"
        drawing = run.replace(f"{NET} -w good", "FANet -w fa --draw to --layout xyxy")
        self.call("weights", "synth", "FANet", "-o", "fa")
        fixed = dict(LD_PRELOAD=os.environ["FACEZOO_FAILING_CALLS"])

        def end(run, **how):
            how = dict(fixed, OMP_NUM_THREADS="2", **{name: str(value) for name, value in how.items()})
            with mock.patch.dict(os.environ, how):
                done = subprocess.run([TOOL, *run.split()], stdout=subprocess.DEVNULL,
                                      stderr=subprocess.PIPE, timeout=60, encoding="utf-8")
            lines = re.fullmatch(r"(?:facezoo: [^\n]* landmarks [^\n]*\n)?((?:facezoo: [^\n]*\n)*)",
                                 done.stderr)
            found = done.returncode, lines and lines[1].count("\n")
            if "--resume" in run:  # which a later run would go on with
                [*map(os.remove, glob.glob("*.partial") + glob.glob("*.journal"))]
            self.assertIn(glob.glob("to/*"), ([], ["to/face.png"]))
            shutil.rmtree("to", ignore_errors=True)
            made = {*os.listdir()} - {"face.jpg", "good", "fa", "count"}
            if made:
                self.assertEqual({"f.npy", "f.names.jsonl"}, made)
                self.assertEqual((1, ["face.jpg"]), (len(npy("f.npy")), names_of("f.npy")))
                [*map(os.remove, made)]
            expected = [(1, 1), (0, 0)] if made else [(1, 1)]
            if run == drawing:  # which warns of landmarks, and may lack the memory to say it
                expected.append((1, 2))
            self.assertIn(found, expected, (how, done.stderr))
            return found[0]
        for words, points in ((run, range(500, 0, -2)), (run + " --resume", range(70)),
                              (drawing, range(0, 60, 8))):
            self.assertEqual(0, end(words, COUNT_TO="count"))
            most = int(Path("count").read_text())
            for at in most // 2, *(most - before for before in points):
                end(words, FAIL_MALLOC_AT=at)
        for at in range(1, 6):  # of threads it needs none but its own
            self.assertEqual(0, end(run, FAIL_THREAD_AT=at))

    def test_ends_at_a_signal(self):
        Path("many").write_text("face.jpg\n" * 100000)
        faults = () if SANITIZED else ("ABRT", "BUS", "FPE", "ILL", "SEGV")
        words = dict(INT="interrupted", TERM="ended by another", HUP="terminal", XCPU="processor time",
                     **{name: f"SIG{name}" for name in ("QUIT", "ALRM", "USR1", "USR2", "VTALRM", "PROF", *faults)})
        for name, word in words.items():
            number = signal.Signals[f"SIG{name}"]
            run = subprocess.Popen([TOOL, *f"run {NET} -w good --list many --features f.npy".split()],
                                   stderr=subprocess.PIPE, encoding="utf-8")
            while not glob.glob("*.part"):
                self.assertIsNone(run.poll())
            run.send_signal(number)
            self.assertRegex(run.communicate(timeout=60)[1], rf"\Afacezoo: [^\n]*{word}[^\n]*\n\Z")
            self.assertEqual((-number, ["face.jpg", "good", "many"]),
                             (run.returncode, sorted(os.listdir())))

    def test_loses_no_file_unasked(self):
        """Neither one that is read, whatever its names, nor one that is there and holds anything."""
        for name in "x.jpg", "y.jpg":
            shutil.copy(PORTRAIT, name)
        self.call("weights", "synth", "FANet", "-o", "fa")
        self.call("run", NET, "-w", "good", "x.jpg", "--features", "old.npy", "-o", "old")
        for name, link in ("good", "w.npy"), ("good", "r.npy.partial"), ("good", "j.npy.journal"):
            os.link(name, link)
        os.symlink("good", "linked")
        os.symlink("x.jpg", "n.names.jsonl")
        Path("list").write_text("x.jpg\n")
        Path("x.png").write_text("mine")
        Path("p.npy.partial").write_text("mine")
        Path("q.npy.journal").write_text("mine")
        Path("m.npy.journal").write_text('{"my": "own"}\n')
        os.mkdir("to")
        shutil.copy("x.png", "to/y.png")
        png("in.png", b"\x5a" * 30, 10, 3)
        os.symlink("in.png", "in.jpg")
        run, fa, match = f"run {NET} -w good x.jpg", "run FANet -w fa --layout xyxy", "match old.npy --queries"
        before = {name: Path(name).read_bytes() for name in os.listdir() if os.path.isfile(name)}
        for force in "", " --force":
            self.fail_all([(args + force, 1, line + ": is to be read") for args, line in (
                (f"{run} --features w.npy", "w.npy"), (f"{run} --features n.npy", "n.names.jsonl"),
                (f"{run} --features r.npy --resume", "r.npy.partial"),
                (f"{run} --features j.npy --resume", "j.npy.journal"),
                *((f"{run} -o {name}", name) for name in ("good", "linked", "x.jpg")),
                (f"run {NET} -w good --list list -o list", "list"),
                (f"{match} w.npy -o ./w.npy", "w.npy"), (f"{match} w.npy -o old.npy", "old.npy"),
                (f"{match} w.npy -o old.names.jsonl", "old.names.jsonl"),
                (f"match old.npy {NET} -w good x.jpg -o good", "good"),
                (f"weights export {NET} good -o linked", "linked"),
                (f"weights import {NET} old --names list -o list", "list"),
                (f"{fa} in.jpg x.jpg --draw .", "in.png"))])
        self.fail_all([
            *((args, 1, line + ": expected no such file.*--force") for args, line in (
                (f"{run} -o old", "old"), (f"{run} --features old.npy", "old.names.jsonl"),
                (f"{match} old.npy -o old", "old"), (f"weights synth {NET} -o old", "old"),
                (f"weights export {NET} good -o old", "old"), (f"weights import {NET} list -o old", "old"),
                (f"{fa} x.jpg --draw .", "x.png"), (f"{fa} x.jpg y.jpg --draw to", "to/y.png"))),
            (f"{run} --features p.npy --resume", 1, "p.npy.partial: expected no such file"),
            (f"{run} --features q.npy --resume", 1, "q.npy.journal: is of another run"),
            (f"{run} --features m.npy --resume", 1, "m.npy.journal: is of another run"),
            (f"{run} -o new.names.jsonl --features new.npy", 1, "new.names.jsonl: would be written twice"),
            (f"{run} -o /dev/null", 1, "/dev/null: .*not a regular")])
        with open("list") as names:
            self.fail_all([(f"run {NET} -w good --list - -o list --force", 1, "list: is to be read")],
                          stdin=names)
        self.assertEqual(before, {name: Path(name).read_bytes() for name in before})
        self.assertEqual("mine", Path("to/y.png").read_text())
        Path("empty").touch()
        for args in f"{run} -o empty", f"{run} -o old --features old.npy --force", \
                    f"weights synth {NET} -o old --force", f"{fa} x.jpg x.jpg --draw . --force", \
                    f"{fa} x.jpg x.jpg --draw new":
            self.call(*args.split(), stderr="[^\0]*")
        self.assertEqual(3, len({*map(os.path.getsize, ("empty", "old", "x.png"))} - {0, 4}))

    def test_writes_files_of_its_own(self):
        """Neither what stands beside a file nor what has its name is written to before its time."""
        good, umask = Path("good").read_bytes(), os.umask(0)
        os.umask(umask)
        synth, longest = ("weights", "synth", NET, "--seed", "7", "-o"), "n" * 255
        Path("victim").write_text("mine")
        Path("replaced").write_text("old")
        os.chmod("replaced", 0o640)
        os.link("replaced", "linked")
        os.symlink("replaced", "link")

        def plant():  # at the name that the number of the process foretells
            os.symlink("victim", f"new.{os.getpid()}.part")
        for name, mode in (("new", 0o666 & ~umask), (longest, 0o666 & ~umask), ("link", 0o640)):
            with self.subTest(name):
                self.call(*synth, name, "--force", preexec_fn=plant if name == "new" else None)
                found = Path(name).read_bytes() == good, os.stat(name).st_mode & 0o777
                self.assertEqual((True, mode), found)
        self.assertEqual(("mine", "old", True), (
            Path("victim").read_text(), Path("linked").read_text(),
            os.path.islink("link")))
        self.assertEqual(1, len(glob.glob("*.part")))

    def test_shows_progress_on_a_terminal(self):
        Path("many").write_text("face.jpg\n" * 9)
        run = *f"run {NET} -w good --list many --features f.npy --force".split(),
        for path, shown in ((os.environ["PATH"], r"\b0:00:0\d .*\d ?/s.* 100%"),
                            ("", "not shown: pv cannot be")):
            child, terminal = pty.fork()
            if child == 0:
                os.execve(TOOL, [TOOL, *run], {**os.environ, "PATH": path})
            found = b""
            with contextlib.suppress(OSError):  # which ends what a closed terminal said
                while piece := os.read(terminal, 9999):
                    found += piece
            self.assertEqual(0, os.waitpid(child, 0)[1])
            self.assertRegex(found.decode(), shown)
            os.close(terminal)

    def test_finds_pictures(self):
        os.makedirs("faces/below")
        png("faces/below/grey.PNG", b"\x5a", 1, 1)
        for name in "b.jpeg", "a.jpg":
            os.symlink(PORTRAIT, f"faces/{name}")
        Path("faces/notes.txt").write_text("not a picture")
        Path("faces/c.png").write_text("not one either")
        Path("list").write_text("faces/b.jpeg\r\n\nfaces/below/grey.PNG\n")
        names = [f"faces/{name}" for name in ("a.jpg", "b.jpeg", "below/grey.PNG")]
        fault = "faces/c.png: expected a PNG or JPEG image, found something else"
        self.assertEqual(names[1:], [name for name, _ in self.results("-w", "good", "--list", "list")])
        run = "run", NET, "-w", "good", "--batch", "2", "--format", "json"
        for text, *args in (("face.jpg\nfaces/a.jpg",), ("\ufeffface.jpg\nfaces/a.jpg",),
                            ("face.jpg\0faces/a.jpg\0", "--null"), ("\ufeffface.jpg\0faces/a.jpg", "--null")):
            listed = self.call(*run, "face.jpg", "--list", "-", *args, input=text)
            self.assertEqual(["face.jpg", "face.jpg", "faces/a.jpg"],
                             [json.loads(line)["image"] for line in listed.splitlines()])
        lists = f"run {NET} -w good --list -"
        self.fail_all([(lists, 1, "standard input: .*null.*--null")], input="face.jpg\0faces/a.jpg\0")
        for order in "le", "be":
            Path("wide").write_text("\ufefffaces/a.jpg\n", encoding=f"utf-16-{order}")
            self.fail_all([(lists[:-1] + "wide", 1, "wide: expected a text in UTF-8, found one in UTF-16")])
        folder = os.open(".", os.O_RDONLY)
        self.fail_all([(lists, 1, "standard input: cannot be read: Is a directory")], stdin=folder)
        os.close(folder)
        os.makedirs("faces/none/deeper")
        os.symlink("..", "faces/below/loop")
        left = r"facezoo: faces: left out, as not PNG or JPEG by name: 1 \(notes.txt\)\n"
        left += r"facezoo: faces: folders without files: 1 \(none\)\n"
        found = self.call(*run, "faces", "--features", "f.npy", code=1, stderr=(
            rf"facezoo: {fault}\n{left}facezoo: 1 of 4 pictures could not be read\n"))
        self.assertEqual([{"image": name} for name in names], [*map(json.loads, found.splitlines())])
        rows = npy("f.npy")
        self.assertEqual((names, rows[0]), (names_of("f.npy"), rows[1]))
        self.assert_near(rows[2], self.results("-w", "good", names[2])[0][1])
        os.remove("f.npy")
        os.remove("f.names.jsonl")
        os.mkdir("f.names.jsonl")
        self.fail_all([(f"run {NET} -w good face.jpg --features f.npy", 1, "f.names.jsonl: .*directory")])
        os.rmdir("f.names.jsonl")
        self.fail_all([(f"run {NET} -w good faces --features f.npy --strict", 1, fault)])
        shutil.rmtree("faces/below")
        self.fail_all([(f"run {NET} -w good faces/below", 1, "faces/below: .*No such")])

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
        self.assertEqual("lines: 1 row", self.call(*args, "csv", "-o", "lines").split(",")[0])
        self.assertEqual([head, row], [*csv.reader(Path("lines").read_text().splitlines())])

    def test_names_of_any_bytes(self):
        names = [os.fsdecode(name) for name in (
            b"a\xff\xe2\x82\xed\xa0\x80\xc0\xaf\xf4\x90", "\u00e9\\udcff \U0001f600\ufffe".encode(),
            *(b"_" + bytes([byte]) for byte in {*range(1, 256)} - {0x2F}))]
        for name in names:
            os.symlink(PORTRAIT, name)
        run = "run", NET, "-w", "good", *names, "--format"
        how = dict(errors="surrogateescape")
        found = self.call(*run, "json", "--features", "f.npy")
        self.assertEqual([names] * 2, [[json.loads(line)["image"] for line in found.splitlines()],
                                       names_of("f.npy")])
        self.call(*run, "csv", "-o", "lines")
        with open("lines", encoding="utf-8", newline="", **how) as lines:
            self.assertEqual(names, [row[0] for row in csv.reader(lines)][1:])
        table = self.call(*run, "table")
        self.assertEqual((len(names) + 1, []), (table.count("\n"), re.findall(r"[\0-\x09\x0b-\x1f\x7f]", table)))
        nearest = self.call("match", "f.npy", "--queries", "f.npy", "--format", "json")
        self.assertEqual(names, [json.loads(line)["image"] for line in nearest.splitlines()])

    def test_results_that_are_not_finite(self):
        self.call("weights", "synth", "LCNN29", "-o", "large")
        weights, count = bytearray(Path("large").read_bytes()), 8192
        start = weights.index(b"fc1-0\xdb") + 10
        for row, sign in (0, (1, 1)), (1, (-1, -1)), (2, (1, -1)):
            huge = [sign[i % 2] * 3e38 for i in range(count)]
            struct.pack_into(f"<{count}f", weights, start + 4 * count * row, *huge)
        Path("large").write_bytes(weights)
        run = "run", "LCNN29", "-w", "large", "face.jpg", "face.jpg"
        how = dict(stderr="facezoo: face.jpg: expected finite results, found [^\n]* 2 pictures in all\n")
        [line, _] = self.call(*run, "--format", "json", **how).splitlines()
        _, row, _ = csv.reader(self.call(*run, "--format", "csv", **how).splitlines())
        forms = json.loads(line)["features"][:3]
        self.assertEqual({"Infinity", "-Infinity", "NaN"}, {*forms})
        self.assertEqual([form.lower()[:3 + (form[0] == "-")] for form in forms], row[1:4])
        table = self.call(*run, "--features", "f.npy", "--format", "table", **how)
        self.assertNotIn("nan", table)
        self.assertEqual(row[1:4], self.call(*run, **how).splitlines()[1].split()[1:4])
        self.assertEqual(row[1:4], [*map(str, npy("f.npy")[0][:3])])
        self.fail_all([("match f.npy --queries f.npy", 1, "f.npy: every row")])

    def test_runs_every_network(self):
        png("wide", bytes(range(0, 200)) * 6, 200, 3)
        for row in json.loads(self.call("info", "--format", "json"))["networks"]:
            net = row["network"]
            groups = {name: int(n) for name, n in re.findall(r"(\w+) \((\d+)\)", row["results"])}
            with self.subTest(net):
                self.call("weights", "synth", net, "-o", "all", "--force")
                self.assertRegex(self.call("weights", "check", net, "all"), rf"OK: \d+ .*{net}, 0")
                run = "run", net, "-w", "all", "face.jpg", "--format"
                norm = ["--norm"] if "norm" in groups else []
                line = json.loads(self.call(*run, "json", *norm))
                found = {name: value if isinstance(value, list) else [value]
                         for name, value in line.items() if name != "image"}
                self.assertEqual([*groups.items()], [(g, len(v)) for g, v in found.items()])
                values = sum(found.values(), [])
                self.assertGreater(max(values) - min(values), 0.1)
                head, row = csv.reader(self.call(*run, "csv", *norm).splitlines())
                self.assertEqual(len(head), len(row))
                self.assertEqual([struct.pack("f", v) for v in values],
                                 [struct.pack("f", float(cell)) for cell in row[1:]])
                top, below = self.call(*run, "table", *norm).splitlines()
                self.assertEqual(len(top), len(below))
                shown = [[n for n, v in zip(top.split(), below.split()) if g in n] for g in groups]
                self.assertTrue(all(shown), shown)
                if "features" in groups:
                    self.check_comparison(net)
                if "landmarks" in groups:
                    self.check_drawing(net)

    def check_comparison(self, net):
        run = "run", net, "-w", "all", "--format", "json"
        a, b = (json.loads(self.call(*run, name))["features"] for name in ("face.jpg", "wide"))
        dot = lambda a, b: sum(x * y for x, y in zip(a, b))
        cosine = dot(a, b) / math.sqrt(dot(a, a) * dot(b, b))
        found = json.loads(self.call(*run, "--compare", "face.jpg", "wide"))
        self.assertEqual(["face.jpg", "wide"], [found["image"], found["other"]])
        self.assertAlmostEqual(cosine, found["cosine"], 5)
        three = "--compare", "face.jpg", "wide", "face.jpg"
        pairs = [*map(json.loads, self.call(*run, *three).splitlines())]
        self.assertEqual([("face.jpg", "wide"), ("face.jpg", "face.jpg"), ("wide", "face.jpg")],
                         [(pair["image"], pair["other"]) for pair in pairs])
        top, *square = [line.split() for line in self.call(*run[:-1], "table", *three).splitlines()]
        self.assertEqual(["#", "image", "1", "2", "3"], top)
        for found, expected in ((pairs[0]["cosine"], cosine), (pairs[1]["cosine"], 1),
                                *((float(row[2 + j]), cosine if (i + j) % 2 else 1)
                                  for i, row in enumerate(square) for j in range(3))):
            self.assertAlmostEqual(expected, found, 5)
        self.fail_all([(f"run {net} -w all --compare face.jpg nobody", 1, "nobody: .*No such")])
        self.call(*run[:4], "wide", "face.jpg", "--features", "g.npy", "--force")
        found = self.call("match", "g.npy", *run[1:], "face.jpg", "--nearest", "9")
        rows = [*map(json.loads, found.splitlines())]
        self.assertEqual([("face.jpg", 1, 1, "face.jpg"), ("face.jpg", 2, 0, "wide")],
                         [tuple(row.values())[:4] for row in rows])
        self.assertAlmostEqual(1, rows[0]["cosine"], 5)
        self.assertAlmostEqual(cosine, rows[1]["cosine"], 5)

    def test_matches(self):
        nan, inf = math.nan, math.inf
        write_npy("g.npy", [(3, 0), (0, 0), (1e30, 1e30), (nan, 1), (0, -1e-30), (5, 0), (inf, 0)],
                  map('"n{}"'.format, range(7)))
        queries = [(1, .1), (0, 0), (-1, -1), *[(0, 1)] * 130]
        write_npy("q.npy", queries)
        match = "match", "g.npy", "--queries", "q.npy", "--format", "json", "--nearest", "3"
        found = self.call(*match, stderr="facezoo: g.npy: 3 of 7 rows [^\n]*\n"
                          "facezoo: q.npy row 1: [^\n]* zero or not finite\n")
        half = 1 / math.sqrt(2)
        order = {"0": ([0, 5, 2], 1 / math.hypot(1, .1)), "2": ([4, 0, 5], half), "3": ([2, 0, 5], half)}
        rows = [*map(json.loads, found.splitlines())]
        self.assertEqual(3 * (len(queries) - 1), len(rows))
        for at, row in enumerate(rows):
            query, rank = at // 3 + (at > 2), at % 3 + 1
            best, cosine = order[str(min(query, 3))]
            self.assertEqual((f"q.npy row {query}", rank, best[rank - 1], f"n{best[rank - 1]}"),
                             tuple(row.values())[:4])
            if rank == 1:
                self.assertAlmostEqual(cosine, row["cosine"], 6)
        good, form = [(1, 2)], "{{'descr': '{}', 'fortran_order': {}, 'shape': {}}}".format
        for name, rows, names, *how in (
                ("more", good, ['"a"', '"b"']), ("wrong", good, ["[]"]), ("half", good, ['"\\ud83d"']),
                ("cut", good, ['"a']), ("wide3", [(1, 2, 3)], None),
                *((name, good, None, form(*words)) for name, *words in (
                    ("type", "<f8", False, "(1, 2)"), ("order", "<f4", True, "(1, 2)"),
                    ("flat", "<f4", False, "(2,)"), ("none", "<f4", False, "(0, 2)"),
                    ("less", "<f4", False, "(1, 1)"), ("wrap", "<f4", False, f"({2**62 + 1}, 2)"),
                    ("twice", "<f4", False, "(1, 2)} {"))),
                ("future", good, None, "", b"\4\0H\0"), ("long", good, None, "", b"\2\0\xff\xff\xff\xff")):
            write_npy(name + ".npy", rows, names, *how)
        Path("text.npy").write_text("no array")
        Path("start.npy").write_bytes(b"\x93NUMPY\1")
        write_npy("v3.npy", good, None, form("<f4", False, "(1, 2)"), b"\3\0H\0\0\0")
        self.fail_all([(f"match {name}.npy --queries v3.npy", 1, rf"{name}\.{line}") for name, line in (
            ("more", "names.*each of the 1 rows.*found 2"), ("wrong", "names.*line 1"),
            ("half", "names.*line 1"), ("cut", "names.*line 1"), ("wide3", "npy: .* 2 values.*found 3"),
            *((name, "npy: .*found the header") for name in ("type", "order", "flat", "wrap", "twice")),
            *((name, "npy: .*values, one at least") for name in ("none", "less")),
            ("future", "npy: .*found 4"), ("long", "npy: .*no end"), ("text", "npy: .*something else"),
            ("start", "npy: .*something else"), ("nobody", "npy: .*No such"))] + [
            ("match g.npy", 2, "NET: .*--queries"), (f"match g.npy {NET} face.jpg", 2, "--weights"),
            (f"match g.npy {NET} face.jpg -w good", 1, f"g.npy: .*5 values, as {NET} gives, found 2"),
            ("match g.npy --queries q.npy --nearest 0", 2, "--nearest")])
        self.assertIn("v3.npy row 0 ", self.call("match", "v3.npy", "--queries", "v3.npy"))

    def test_resumes(self):
        for i in range(20):
            png(f"{i}.png", bytes([i, 255 - i] * 112), 224, 1)
        Path("list").write_text("".join(f"{i % 20}.png\n" for i in range(900)))
        run = "run", NET, "-w", "good", "--list", "list", "--format", "csv", "--batch", "7"
        outputs = lambda name: ("--features", name + ".npy", "-o", name + ".csv")
        self.call(*run, *outputs("whole"))
        resumed, kills, journal = (*run, *outputs("r"), "--resume"), 0, Path("r.npy.journal")
        before, count = 0, lambda: journal.exists() and journal.read_text().count('.png"')
        for _ in range(4):
            process = subprocess.Popen([TOOL, *resumed], stdout=subprocess.DEVNULL)
            while process.poll() is None and count() <= before:
                time.sleep(0.01)
            with contextlib.suppress(FileNotFoundError):
                self.fail_all([(" ".join(resumed), 1, "r.npy: another run")])
                process.kill()
                kills += process.wait() < 0
                rows = journal.read_text().count('.png"')
                with open("r.npy.partial", "ab") as partial, open(journal, "a") as torn:
                    partial.write(b"torn"), torn.write('"half')
                self.assertGreater(rows, before)
                before = rows
            process.wait()
        self.assertGreater(kills, 1)
        other = " ".join(resumed).replace
        Path("other").write_bytes(Path("good").read_bytes())
        self.fail_all([(other(*change), 1, line) for change, line in (
            (("good", "other"), "weight_file_time"), (("csv --batch", "json --batch"), "format"),
            (("r.csv", "s.csv"), "files"), ((NET, "GoogLeNet_FAA1ch"), "network"))])
        said = re.match(r"r.npy: 900 rows of 5 values, (\d+) from before", self.call(*resumed))
        self.assertGreaterEqual(int(said[1]), before)
        for kind in ".npy", ".csv", ".names.jsonl":
            self.assertEqual(Path("whole" + kind).read_bytes(), Path("r" + kind).read_bytes())

        def resume(rows, before, **how):
            line = rf"\Ar.npy: {rows} rows of 5 values, {before} from before, "
            self.assertRegex(self.call(*resumed, **how), line)
        self.assertEqual(["r.npy.journal"], glob.glob("r.*.*al"))
        resume(900, 900)  # which was finished
        os.rename("r.npy", "r.npy.partial")  # as a run that is stopped while it names its files
        Path("r.npy").write_text("mine")
        self.fail_all([(" ".join(resumed), 1, "r.npy: expected no such file")])
        os.remove("r.npy")
        resume(900, 900)
        os.rename("r.csv", "csv")
        self.fail_all([(" ".join(resumed), 1, "r.csv: expected the file .* found none")])
        shutil.copy("csv", "r.csv")
        self.fail_all([(" ".join(resumed), 1, "r.csv: expected the file .* found another")])
        os.rename("csv", "r.csv")
        with open("list", "a") as names:
            names.write("late.png\n")
        left = {name: os.stat(name).st_mtime_ns for name in glob.glob("r.*")}
        for _ in range(2):
            resume(900, 900, code=1, stderr="facezoo: late.png: [^\n]*\nfacezoo: 1 of 901 [^\n]*\n")
            self.assertEqual(left, {name: os.stat(name).st_mtime_ns for name in glob.glob("r.*")})
        shutil.copy("0.png", "late.png")
        resume(901, 900)
        resume(901, 901)
        self.assertEqual([*npy("whole.npy"), npy("whole.npy")[0]], npy("r.npy"))
        self.assertEqual([*names_of("whole.npy"), "late.png"], names_of("r.npy"))
        [*map(os.remove, {*left} - {"r.npy.journal"})]
        resume(901, 0)
        self.fail_all([(" ".join(run) + " --resume", 2, "--resume: expected --features"),
                       (" ".join(resumed).replace("r.", "s.") + " --strict x", 1, "x: ")])

    def check_drawing(self, net):
        """Landmarks of the 224 x 224 crop land where they belong in the 400 x 200 picture."""
        run = "run", net, "-w", "all", "wide"
        values = json.loads(self.call(*run, "--format", "json"))["landmarks"]
        for layout, xs, ys in (("xyxy", values[::2], values[1::2]), ("xxyy", values[:68], values[68:])):
            points = [(100 + x * 90 * 200 / 224, y * 90 * 200 / 224) for x, y in zip(xs, ys)]
            inside = [p for p in points if 0 <= p[0] < 400 and 0 <= p[1] < 200]
            self.assertGreater(len(inside), 9)
            self.call(*run, "--draw", "to/new", "--force", "--layout", layout, "--scale", "90",
                      stderr=rf"facezoo: wide: {68 - len(inside)} of 68 landmarks lie outside[^\n]*\n")
            width, found = pixels("to/new/wide.png")
            before = [bytes((i * 3 + c) % 200 for c in range(3)) for i in range(400)]
            drawn = [x + y * width for y in range(200) for x in range(width)
                     if found[x + y * width] != before[x]]
            self.assertEqual(400, width)
            self.assertTrue({int(x) + int(y) * width for x, y in inside} <= set(drawn))
            self.assertLess(len(drawn), 30 * len(inside))
        # Opened once, but for one picture, as 64 MiB of decoded ones may wait to be drawn.
        png("large", bytes(range(200)) * 42, 2800, 3)
        names = [f"large{i}" for i in range(3)]
        for name in names:
            shutil.copy("large", name)
        with self.opened(*names) as opened:
            self.call("run", net, "-w", "all", *names, "--draw", "large.d", "--layout", "xyxy", "--batch",
                      "3", "--threads", "1", "--max-pixels", "7840000", stderr="[^\0]*")
        self.assertEqual([1, 1, 2], [*opened.values()])
        limit = lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (1100, 1100))
        self.fail_all([(f"run {net} -w all large --draw large.d --layout xyxy", 1,
                        "large.d/large.png: cannot be written: File too large")], preexec_fn=limit)
        self.assertEqual(3, len(os.listdir("large.d")))
        self.assertEqual(1, len({Path(f"large.d/{name}.png").read_bytes() for name in names}))
        png("blue", b"\x01\x50\xf0" * 9, 9, 3)
        png("red", b"\xf0\x50\x01" * 9, 9, 3)
        blue, red, swapped = (
            json.loads(self.call("run", net, "-w", "all", "--format", "json", *args))["landmarks"]
            for args in (["blue"], ["red", "--channels", "rgb"], ["red", "--channels", "bgr"]))
        self.assertEqual(blue, swapped)
        self.assertNotEqual(blue, red)
        os.symlink("../wide", "to/wide.png")
        for folder in "in/a", "in/b":
            os.makedirs(folder)
            shutil.copy("red", folder + "/x.png")
        self.call("run", net, "-w", "all", "in", "--draw", "out", "--layout", "xyxy", stderr="[^\0]*")
        self.assertEqual(["out/a/x.png", "out/b/x.png"], sorted(glob.glob("out/*/*")))
        shutil.rmtree("out/a")
        os.symlink("../to", "out/a")
        shutil.copy("red", "in/x.jpg")
        shutil.copy("red", "in/x.png")
        self.fail_all([(f"run {net} -w good in/{what} --layout xyxy --draw {to}", 1, line)
                       for what, to, line in ((".", "out", "x.png: .*both"), ("x.png", "in", "to be read"))])
        os.remove("in/x.jpg")
        self.fail_all([(f"run {net} -w good in --layout xyxy --draw out", 1, "out/a/x.png: .*outside of out")])
        self.fail_all([(f"run {net} -w good wide to/wide.png --draw a --layout xyxy", 1, "a/wide.png: .*both"),
                       (f"run {net} -w good to/wide.png --draw to --layout xyxy", 1, "would be replaced")])

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
        if not SANITIZED:
            self.assertLess(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss, 1 << 20)

    def test_decodes_what_is_whole(self):
        photo = Path(PORTRAIT).read_bytes()
        scan = photo.index(b"\xff\xda")
        for name, data in dict(
                behind=photo + b"\xff\xd8 more", padded=photo[:-2] + bytes(30) + photo[-2:],
                between=photo[:20] + b"junk" + photo[20:scan] + b"junk" + photo[scan:],
                version=photo[:11] + b"\7" + photo[12:],
                parameters=photo[:scan + 11] + b"\1" + photo[scan + 12:]).items():
            with self.subTest(name):
                Path(name).write_bytes(data)
                (_, expected), (_, found) = self.results("-w", "good", "face.jpg", name)
                self.assertEqual(expected, found)

    def peak(self, *args):
        """How many MiB a run takes at most; none under sanitizers, which take their own. What
        starts a process counts in, so that it is a small one."""
        start = ("import resource, subprocess, sys\n"
                 "subprocess.run(sys.argv[1:], check=True, stdout=subprocess.DEVNULL, timeout=60)\n"
                 "print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss >> 10)")
        run = sys.executable, "-c", start, TOOL, "run", NET, "-w", "good", *args
        most = int(subprocess.run(run, check=True, stdout=subprocess.PIPE).stdout)
        return 0 if SANITIZED else most

    def test_takes_little_memory_for_hostile_pictures(self):
        packed, photo = zlib.compress(bytes(64 << 20), 1), Path(PORTRAIT).read_bytes()
        for name, chunks in dict(dot=[], ztxt=[(b"zTXt", b"a\0\0" + packed)], many=[(b"tEXt", b"a\0b")] * 3000,
                                 itxt=[(b"iTXt", b"a\0\1\0\0\0" + packed)] * 3,
                                 iccp=[(b"iCCP", b"a\0\0" + packed)]).items():
            png(name, b"\x5a", 1, 1, extra=chunks)
            self.assertLess(self.peak(name), 64, name)
        names = "dot", "ztxt", "many", "itxt", "iccp"
        self.assertEqual(1, len({str(values) for _, values in self.results("-w", "good", *names)}))
        Path("segments").write_bytes(photo[:2] + b"\xff\xe1\0\2" * (1 << 20) + photo[2:])
        self.assertLess(self.peak("segments"), 64)
        png("large", bytes(3400), 3400, 1)  # 33 MiB, of 92 that eight bytes a pixel are
        crowd = "--threads", "16", "--max-pixels", "12000000", *["large"] * 16
        self.assertLess(self.peak(*crowd), 192)

    def test_turns_pictures_upright(self):
        stored = [bytes((x * 7 + y * y) % 256 for x in range(30)) for y in range(20)]
        mirrored = lambda rows: [row[::-1] for row in rows]
        columns = [*map(bytes, zip(*stored))]
        upright = [stored, mirrored(stored), mirrored(stored[::-1]), stored[::-1], columns,
                   mirrored(columns), mirrored(columns[::-1]), columns[::-1]]
        numbers = range(1, 9)
        for number, rows in zip(numbers, upright):
            png(f"upright{number}", rows, 0, 1)
            png(f"tagged{number}", stored, 0, 1, extra=[(b"eXIf", exif(number, "<>"[number % 2]))])
        found = [[v for _, v in self.results("-w", "good", *args, *(f"{name}{n}" for n in numbers))]
                 for name, *args in (("upright",), ("tagged",), ("tagged", "--no-orient"))]
        self.assertEqual(found[0], found[1])
        self.assertEqual([found[0][0]] * 8, found[2])
        self.assertEqual(8, len(set(map(tuple, found[0]))))
        photo, names, empty = Path(PORTRAIT).read_bytes(), [], struct.pack("<2sHIH", b"II", 42, 8, 0)
        faults = b"", b"junk", exif(9), exif(6)[:12], exif(6)[:4] + b"\xff" * 4, empty, exif(6)
        for i, data in enumerate(faults):
            segment = b"Exif\0\0" + data
            names += [f"broken{i}.jpg"]
            Path(names[-1]).write_bytes(photo[:2] + b"\xff\xe1" + struct.pack(
                ">H", len(segment) + 2) + segment + photo[2:])
            if data:  # else the chunk itself is broken
                names += [f"broken{i}.png"]
                png(names[-1], stored, 0, 1, extra=[(b"eXIf", data)])
        (_, face), *broken, turned = self.results("-w", "good", "face.jpg", *names)
        for name, values in broken[:-1]:  # the last two are whole
            self.assertEqual(face if "jpg" in name else found[0][0], values, name)
        self.assertEqual(found[0][5], turned[1])
        self.assertNotEqual(face, broken[-1][1])

    def test_refuses_files(self):
        png("whole", bytes(range(256)) * 3, 256, 3)
        png("vast", b"", 1, 3, (60000, 60000))
        png("hollow", b"", 1, 3, (9000, 9000))
        corpus = Path(__file__).parent.parent / "fuzz/corpus/image"
        image, photo, good, scans, inks = (Path(name).read_bytes() for name in (
            "whole", PORTRAIT, "good", corpus / "greyprog.jpg", corpus / "cmyk.jpg"))
        many, frame = (scans[127:136] + b"\0" + scans[137:140]) * 600, inks.index(b"\xff\xc0")
        for name, data in dict(
                empty=b"", text=b"no such data\n", cutpng=image[:-400], cutjpg=photo[:9999],
                noend=photo[:-2], hole=photo[:9500] + bytes(16) + photo[9516:],
                shift=photo[:5000] + bytes(16) + photo[5016:],
                bomb=scans[:127] + many + scans[-2:],
                kept=inks[:frame] + struct.pack(">2sHBHH", b"\xff\xc2", 20, 8, 3000, 3000)
                + inks[frame + 9:] + bytes(9999),
                short=good[:-1], array=b"\x91" + good, claim=b"\x81\xa1a\xdb\xff\xff\xff\xff12", half=good[:9999],
                level=b"\x81\xa1a" + b"\x91" * 31 + b"1", deep=b"\x81\xa1a" + b"\x91" * 32 + b"1",
                entries=b"\xdf\xff\xff\xff\xff\xa1a\xc0").items():
            Path(name).write_bytes(data)
        self.fail_all([(f"run {NET} -w good {name}", 1, line) for name, line in (
            ("nobody", "nobody: .*No such"), ("no\nbody", r"no\?body: "), ("empty", "empty: "),
            ("text", "text: .*else"), ("cutpng", "cutpng: .*PNG.*end"),
            ("cutjpg", "cutjpg: .*JPEG.*end"), ("noend", "noend: .*end of JPEG"),
            ("hole", "hole: .*premature end"), ("shift", "shift: .*extraneous"),
            ("bomb", "bomb: .*at most 500 scans"), ("vast", "vast: .*60000 x 60000"),
            ("bomb --max-pixels 187", "bomb: .*at most 16 scans of 17 x 11 pixels"),
            ("kept --max-pixels 9000000", "kept: .*at most 69 MiB .*--max-pixels.* found 104 MiB"),
            ("whole --max-pixels 65535", "whole: .*at most 65535 pixels.*--max-pixels.* 256 x 256"),
            ("hollow", "hollow: .*9000 x 9000 pixels.*bytes"))])
        self.fail_all([(f"{command} {name}", 1, f"{re.escape(name)}: .*{line}") for name, line in (
            ("nobody", "No such"), ("empty", "empty"), (".", "directory"), ("short", "end missing"),
            ("half", "end missing"), ("text", "MessagePack map"), ("array", "found array"),
            ("claim", "end missing"), ("entries", "end missing"), ("deep", "deeper than 32"))
            for command in (RUN, f"weights check {NET}", "weights show")])
        self.assertRegex(self.call("weights", "show", "level"), r"\na +array\n")


unittest.main(argv=sys.argv[:1] + sys.argv[3:])

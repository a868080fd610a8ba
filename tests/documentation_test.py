"""What the documentation shows runs, and prints what the page says.
    documentation_test.py SOURCE_DIR PATH_TO_FACEZOO

In a ```console block $ stands before a command, and what follows is its output, where … is any
text, and alone on a line any lines. In a ```sh block every line is a command. The commands of a page
run in order in one folder; an example of the manual page or of a --help has a folder of its own.
Each folder begins with the same files, below, but for those that its commands make.
"""
import json, os, pathlib, re, shutil, subprocess, sys, tempfile, unittest

SOURCE, TOOL = map(pathlib.Path, map(os.path.abspath, sys.argv[1:3]))
PAGES = sorted({page for pattern in ("*.md", "docs/*.md", "*/README.md", "platform/*/README.md")
                for page in SOURCE.glob(pattern)})
PICTURES = "face.jpg", "one.jpg", "other.jpg", "faces/a.jpg", "faces/b.jpg", "faces/below/c.jpg"
MANUAL = "docs/facezoo.1"
WEIGHTS = {"weights.msgpack": "DexpressionNet", "lcnn.msgpack": "LCNN29", "fa.msgpack": "FANet"}

# How the commands begin that do not run here, why, and what runs them.
ELSEWHERE = {
    "./demo.sh": "installs packages and builds; runs on a fresh machine",
    "./test.sh": "this test is part of it",
    "cmake --preset cuda": "needs the CUDA toolkit; scripts/cuda-build-check.sh builds the preset",
    "cmake --preset host": "configures and builds; ./test.sh does",
    "cpack --config build/host": "makes the packages; tests/package_test.sh does",
    "apt install ./build/host": "installs the packages; tests/package_test.sh unpacks them",
    "pip install": "builds the Python package; scripts/python.sh does",
    "cmake -S . -B build": "builds the examples; tests/package_test.sh does",
    "bench/run.sh": "takes an hour, and other engines from the network",
    "build/bench/bin/facezoo-bench-layers": "takes minutes; bench/run.sh builds the preset",
    "python examples/": "needs the Python package; python/tests/test_train.py runs them",
    "build/cuda/bin/facezoo-bench-kernels": "needs a card; scripts/gpu-check.sh --bench runs it",
}


def blocks(page):
    """The (command, output) pairs of a page; the output of a ```sh block's commands is None."""
    for kind, block in re.findall(r"^```(console|sh)\n(.*?)^```$", page.read_text(), re.M | re.S):
        if kind == "sh":
            yield from ((command, None) for command in re.findall(r"(?:.*\\\n)*.+", block))
        else:
            yield from re.findall(r"^\$ ((?:.*\\\n)*.*)\n((?:(?!\$ ).*\n)*)", block, re.M)


def pattern(output):
    return "".join(r"(?:.*\n)*" if line == "…\n" else ".*".join(map(re.escape, line.split("…")))
                   for line in output.splitlines(keepends=True))


def output_of(*words, **how):
    return subprocess.run(words, stdout=subprocess.PIPE, check=True, encoding="utf-8", **how).stdout


def helps(*words):
    """The --help of every command, by the command."""
    text = output_of(TOOL, *words, "--help")
    found = {" ".join(["facezoo", *words]): text}
    subcommands = re.search(r"^Subcommands:\n((?:  .*\n)*)", text, re.M)
    for word in re.findall(r"^  (\w+)", subcommands[1], re.M) if subcommands else ():
        found |= helps(*words, word)
    return found


def options(texts):
    """What each command's text names but the options that all have, and the command without any."""
    return {(command, option) for command, text in texts
            for option in ["", *re.findall(r"(?<![\w-])--?[a-z]+", re.sub("Example: .*", "", text))]
            if option not in ("-h", "--help")}


def variables(text):
    return set(re.findall(r"\b[A-Z][A-Z\d]+_[A-Z\d_]+\b", text))


class Documentation(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        directory = tempfile.TemporaryDirectory()
        cls.addClassCleanup(directory.cleanup)
        cls.root = pathlib.Path(directory.name)
        cls.start = cls.root / "start"
        for picture in PICTURES:
            (cls.start / picture).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(SOURCE / "samples/portrait.jpg", cls.start / picture)
        (cls.start / "names.json").write_text("{}")
        for file, network in WEIGHTS.items():
            output_of(TOOL, "weights", "synth", network, "-o", file, cwd=cls.start)
        output_of(TOOL, "weights", "export", "LCNN29", "lcnn.msgpack", "-o", "model.safetensors",
                  cwd=cls.start)
        cls.helps = helps()
        page = output_of("mandoc", "-T", "ascii", "-O", "width=200", SOURCE / MANUAL)
        cls.manual = re.sub(".\b", "", page)  # bold and underlined

    def new_folder(self, text):
        """A copy of the first files, without those that the commands in the text make."""
        made = {*re.findall(r"(?<!\S)(?:-o|--features) (\S+)", text)}
        return shutil.copytree(self.start, tempfile.mkdtemp(dir=self.root), copy_function=os.link,
                               ignore=lambda _, names: made.intersection(names), dirs_exist_ok=True)

    def check(self, command, folder, expected=None):
        how = {"cwd": folder, "env": os.environ | {"PATH": f"{TOOL.parent}:{os.environ['PATH']}"}}
        done = subprocess.run(["bash", "-o", "pipefail", "-c", command], timeout=60, encoding="utf-8",
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, **how)
        self.assertEqual(0, done.returncode, f"$ {command}\n{done.stdout}")
        if expected is not None and not re.fullmatch(pattern(expected), done.stdout):
            self.assertEqual(f"$ {command}\n{expected}", f"$ {command}\n{done.stdout}")

    def test_pages(self):
        unseen = set(ELSEWHERE)
        for page in PAGES:
            folder = self.new_folder(page.read_text())
            for command, output in blocks(page):
                with self.subTest(page.relative_to(SOURCE)):
                    program = re.sub(r"^(\w+=\S+ )*", "", command)
                    elsewhere = [start for start in ELSEWHERE if program.startswith(start)]
                    unseen.difference_update(elsewhere)
                    if not elsewhere:
                        self.check(command, folder, output)
        self.assertEqual(set(), unseen, "no page shows these any more")

    def test_headers_declare_the_networks_that_the_tool_lists(self):
        rows = json.loads(output_of(TOOL, "info", "--format", "json"))["networks"]
        classes = sorted(["GPU", *(row["network"] for row in rows)])
        headers = {header.stem for header in SOURCE.glob("include/*.h")} - {"facezoo"}
        self.assertEqual(classes, sorted(headers))
        included = re.findall(r'#include "(\w+)\.h"', (SOURCE / "include/facezoo.h").read_text())
        self.assertEqual(classes, sorted(included))

    def test_links(self):
        for page in PAGES:
            for link in re.findall(r"\]\(([^)#:]+)[)#]", page.read_text()):
                self.assertTrue((page.parent / link).exists(), f"{page.relative_to(SOURCE)}: {link}")

    def test_examples(self):
        for place, text in {**self.helps, MANUAL: self.manual}.items():
            examples = re.findall(r"^(?:Example:| +\$) (.*)", text, re.M)
            for example in examples or ["echo no example; false"]:
                with self.subTest(place):
                    self.check(example, self.new_folder(example))

    def test_manual_names_what_there_is(self):
        self.check(f"mandoc -T lint -W warning {MANUAL}", SOURCE, "")
        parts = re.split(r"^(?:   (facezoo[a-z ]*)|[A-Z ]+)\n", self.manual, flags=re.M)
        sections = [(name, text) for name, text in zip(parts[1::2], parts[2::2]) if name]
        self.assertEqual(options(self.helps.items()), options(sections))
        self.assertEqual(variables("".join(self.helps.values())), variables(self.manual))


unittest.main(argv=sys.argv[:1] + sys.argv[3:])

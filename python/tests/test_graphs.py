"""The wiring of the networks fits the library's table, and the page shows it."""
import copy
import subprocess
import sys
from pathlib import Path

import pytest

import facezoo
from facezoo.graphs import GRAPHS, Recorder, table

PAGE = Path(__file__).parents[2] / "docs/graphs.py"


def test_each_network_has_a_graph():
    assert list(GRAPHS) == facezoo.networks()


def other(change):
    changed = copy.deepcopy(table("GoogLeNetBN"))
    rows = {row["name"]: row for row in changed["layers"]}
    change(changed, rows)
    return changed


@pytest.mark.parametrize("change, message", [
    (lambda table, rows: rows["loss2/conv"].update(name="loss4/conv"), "has no layer loss2/conv"),
    (lambda table, rows: table["layers"].append(rows["pca"] | {"name": "pca2"}), "that nothing uses: .*pca2"),
    (lambda table, rows: table["layers"].remove(rows["loss1/fc"]), "that nothing uses"),
    (lambda table, rows: rows["inception_4a/"]["layers"].pop(), "channels that enter"),
    (lambda table, rows: rows["conv1/7x7_s2"].update(stride=1), "values that enter loss2/fc"),
    (lambda table, rows: rows["conv2/3x3/bn"].update({"in": 64}), "channels that enter conv2/3x3/bn"),
    (lambda table, rows: table.update(outputs=[("features", 512)]), "values of features"),
    (lambda table, rows: table.update(has_norm=False), "norm")])
def test_a_table_that_the_graph_does_not_fit_is_refused(change, message):
    with pytest.raises(ValueError, match=message):
        Recorder(other(change))


def test_page_shows_the_layers():
    check = subprocess.run([sys.executable, PAGE, "--check"], stdout=subprocess.PIPE, encoding="utf-8")
    assert (check.returncode, check.stdout.strip()) == (0, "")

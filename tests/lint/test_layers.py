"""The layering of src/ (src/layers.txt) is kept: no include goes upwards,
and the check does notice one that does."""
import os
import shutil
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
SRC = os.path.join(HERE, "..", "..", "src")
CHECK = os.path.join(HERE, "check_layers.py")


def run(src):
    return subprocess.run([sys.executable, CHECK, src], stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True)


def test_every_include_of_the_tree_keeps_to_the_layers():
    r = run(SRC)
    assert r.returncode == 0, r.stdout


def test_an_upward_include_is_caught(tmp_path):
    copy = tmp_path / "src"
    shutil.copytree(SRC, copy)
    target = copy / "util" / "debug.cpp"
    text = target.read_text()
    target.write_text('#include "sdk/nimb_sdk.h"\n' + text)
    r = run(str(copy))
    assert r.returncode == 1
    assert "util/debug.cpp:1: includes sdk/nimb_sdk.h, which its layer may not use" in r.stdout


def test_a_sideways_include_between_siblings_is_caught(tmp_path):
    copy = tmp_path / "src"
    shutil.copytree(SRC, copy)
    target = copy / "upnp" / "upnp_helper.cpp"
    target.write_text('#include "websocket/connection.h"\n' + target.read_text())
    r = run(str(copy))
    assert r.returncode == 1
    assert "upnp/upnp_helper.cpp:1: includes websocket/connection.h" in r.stdout


def test_a_folder_missing_from_the_table_is_caught(tmp_path):
    copy = tmp_path / "src"
    shutil.copytree(SRC, copy)
    os.mkdir(copy / "extra")
    (copy / "extra" / "x.cpp").write_text('#include "util/debug.h"\n')
    r = run(str(copy))
    assert r.returncode == 1
    assert "extra/x.cpp" in r.stdout

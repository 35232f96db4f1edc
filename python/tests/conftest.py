import os
import pathlib
import subprocess

import pytest

HERE = pathlib.Path(__file__).resolve().parent


@pytest.fixture(scope="session")
def tool():
    """The built command-line tool (QUILLON_TOOL, set by CTest)."""
    path = os.environ.get("QUILLON_TOOL")
    if not path or not os.path.exists(path):
        pytest.skip("QUILLON_TOOL does not name the built quillon tool; run through ctest")
    return path


@pytest.fixture(scope="session")
def vectors():
    """The shared conformance vectors beside the checkout."""
    path = pathlib.Path(os.environ.get("QUILLON_VECTORS", HERE.parents[2] / "shared" / "vectors"))
    if not path.is_dir():
        pytest.skip("shared vectors not found at %s" % path)
    return path


def run_tool(tool, *args):
    """Runs the tool; (exit status, stderr). Its stdout (library traces) is dropped."""
    p = subprocess.run([tool, *map(str, args)], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, timeout=60)
    return p.returncode, p.stderr.decode(errors="replace")

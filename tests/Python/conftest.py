import os
import shutil

import pytest

import qzmath


def _tool(name):
    """A command-line tool of the same build: $QZMATH_TOOLS_DIR, else the build
    tree the module was imported from (<build>/python/qzmath -> <build>/tools/qzrecon),
    else PATH."""
    here = os.path.dirname(os.path.abspath(qzmath.__file__))
    for folder in (os.environ.get("QZMATH_TOOLS_DIR"), os.path.join(here, "..", "..", "tools", "qzrecon")):
        if folder and os.access(os.path.join(folder, name), os.X_OK):
            return os.path.join(folder, name)
    return shutil.which(name)


@pytest.fixture(scope="session")
def tools():
    found = {name: _tool(name) for name in ("qzrecon", "qzsample")}
    missing = [name for name, path in found.items() if path is None]
    if missing:
        pytest.skip("tools not found: " + ", ".join(missing))
    return found


@pytest.fixture(scope="session")
def sphere():
    return qzmath.sample_shape("sphere", 3000)

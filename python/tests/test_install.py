"""cmake --install puts the module where Debian's interpreter finds it."""
import os
import re
import subprocess
import sys

import pytest


def test_installed_module_imports_and_converts(tmp_path):
    build = os.environ.get("RSMPL_BINARY_DIR")
    if not build:
        pytest.skip("RSMPL_BINARY_DIR is not set (run through ctest)")
    cache = open(os.path.join(build, "CMakeCache.txt")).read()
    prefix = re.search(r"^CMAKE_INSTALL_PREFIX:\w+=(.*)$", cache, re.M).group(1)
    subdir = re.search(r"^RSMPL_PYTHON_INSTALL_DIR:\w+=(.*)$", cache, re.M).group(1)
    site = subdir if os.path.isabs(subdir) else os.path.join(prefix, subdir)
    subprocess.run([os.environ.get("RSMPL_CMAKE", "cmake"), "--install", build], check=True,
                   env=dict(os.environ, DESTDIR=str(tmp_path)), stdout=subprocess.DEVNULL)
    staged = str(tmp_path) + site
    assert any(f.startswith("rsmpl.") and f.endswith(".so") for f in os.listdir(staged)), os.listdir(staged)
    code = ("import numpy, rsmpl, sys; print(rsmpl.__file__); "
            "y = rsmpl.resample(numpy.ones(480, numpy.int16), 16000, 48000, converter='rsmplrate'); "
            "assert y.shape == (1440,) and y[700] == 1, y[700]")
    env = {k: v for k, v in os.environ.items() if k != "PYTHONPATH"}
    env["PYTHONPATH"] = staged
    out = subprocess.run([sys.executable, "-c", code], check=True, env=env, cwd=tmp_path, capture_output=True,
                         text=True).stdout
    assert out.strip().startswith(staged)
    # With the default prefix no PYTHONPATH is needed: the interpreter searches there.
    if prefix in ("/usr", "/usr/local"):
        env.pop("PYTHONPATH")
        path = subprocess.run([sys.executable, "-c", "import sys; print('\\n'.join(sys.path))"], check=True,
                              env=env, capture_output=True, text=True).stdout.split("\n")
        assert site in path, (site, path)

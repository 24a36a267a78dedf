"""Shared pieces: the built alsa-lib module loaded through ctypes, as the
independent path every conversion is compared with."""
import ctypes
import os

import numpy as np
import pytest

from cpath import CModule

# Converters under test. Add a name here and every conversion test covers it.
CONVERTERS = ["rsmplrate_best", "rsmplrate"]


def module_path():
    path = os.environ.get("RSMPL_MODULE_PATH")
    if not path:
        pytest.skip("RSMPL_MODULE_PATH is not set (run through ctest)")
    return path


@pytest.fixture(scope="session")
def cmod():
    return CModule(module_path())


@pytest.fixture
def rng(request):
    # One seed per test, printed on failure through the test id.
    return np.random.default_rng(abs(hash(request.node.name)) % (2**32))

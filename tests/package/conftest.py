# Fixtures of the package tests: a fresh simulated device with the package
# installed (pkgsupport.AccessPoint), running, per test.
import os
import sys

import pytest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from pkgsupport import AccessPoint  # noqa: E402


@pytest.fixture
def ap(tmp_path):
    a = AccessPoint(str(tmp_path))
    a.boot()
    yield a
    a.close()

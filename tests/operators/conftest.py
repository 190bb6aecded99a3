"""Makes the plain references of this folder importable, and runs the catalogue in processes of its own."""

from __future__ import annotations

import importlib.util
import sys
from functools import lru_cache
from pathlib import Path
from typing import Callable

import numpy as np
import pytest

HERE = Path(__file__).resolve().parent
sys.path[:0] = [str(HERE)]
# These tests are of the native module.
collect_ignore_glob = [] if importlib.util.find_spec("tolvane") else ["test_*.py"]
Arrays = dict[str, np.ndarray]


@pytest.fixture(scope="session")
def results(in_python, tmp_path_factory) -> Callable[..., Arrays]:
    """What the catalogue gives, or some of its subjects, in an environment: one process for each, which runs once."""

    @lru_cache(maxsize=None)
    def run(*subjects: str, **environment: str) -> Arrays:
        out = tmp_path_factory.mktemp("run") / "out.npz"
        done = in_python(str(HERE / "catalogue.py"), str(out), *subjects, **environment)
        assert done.returncode == 0, done.stderr[-2000:]
        with np.load(out) as arrays:
            return dict(arrays)

    return run

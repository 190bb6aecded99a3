"""Makes the plain references of this folder importable, and runs scripts in processes of their own."""

from __future__ import annotations

import importlib.util
import os
import subprocess
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
def in_python() -> Callable[..., subprocess.CompletedProcess]:
    """Runs code, or a script of this folder, in a new process with this one's modules and more environment variables;
    what it prints and how it ends is the caller's to judge."""

    def run(code: str, *arguments: str, **environment: str) -> subprocess.CompletedProcess:
        program = [str(HERE / code)] if code.endswith(".py") else ["-c", code]
        paths = os.pathsep.join([str(HERE), *sys.path])
        return subprocess.run(
            [sys.executable, *program, *arguments],
            env={**os.environ, **environment, "PYTHONPATH": paths},
            capture_output=True,
            text=True,
            timeout=500,
        )

    return run


@pytest.fixture(scope="session")
def results(in_python, tmp_path_factory) -> Callable[..., Arrays]:
    """What the catalogue gives, or some of its subjects, in an environment: one process for each, which runs once."""

    @lru_cache(maxsize=None)
    def run(*subjects: str, **environment: str) -> Arrays:
        out = tmp_path_factory.mktemp("run") / "out.npz"
        done = in_python("catalogue.py", str(out), *subjects, **environment)
        assert done.returncode == 0, done.stderr[-2000:]
        with np.load(out) as arrays:
            return dict(arrays)

    return run

"""Makes the plain references of this folder importable, and runs scripts in processes of their own."""

from __future__ import annotations

import os
import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest

HERE = Path(__file__).resolve().parent
sys.path[:0] = [str(HERE)]


def environment_for(one_lane: bool, changes: dict[str, str]) -> dict[str, str]:
    """This process's environment with its modules and some changes. one_lane: with kernels compiled for one
    work-item per gang."""
    target = {"KELVOR_XPU_TARGET": "scalar"} if one_lane else {}
    return {**os.environ, **target, **changes, "PYTHONPATH": os.pathsep.join([str(HERE), *sys.path])}


@pytest.fixture(scope="session")
def run_code():
    """Runs code in a fresh process; what it prints and how it ends is the caller's to judge."""

    def run(code: str, one_lane: bool = False, **environment: str) -> subprocess.CompletedProcess:
        env = environment_for(one_lane, environment)
        return subprocess.run([sys.executable, "-c", code], env=env, capture_output=True, text=True, timeout=300)

    return run


@pytest.fixture(scope="session")
def in_process(tmp_path_factory):
    """Runs a script of this folder in a fresh process and returns the arrays that it saved."""

    def run(script: str, *args: str, one_lane: bool = False, **environment: str) -> dict[str, np.ndarray]:
        out = tmp_path_factory.mktemp("run") / "out.npz"
        env = environment_for(one_lane, environment)
        done = subprocess.run(
            [sys.executable, str(HERE / script), str(out), *args], env=env, capture_output=True, text=True
        )
        assert done.returncode == 0, done.stderr[-2000:]
        with np.load(out) as arrays:
            return dict(arrays)

    return run

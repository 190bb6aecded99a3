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


@pytest.fixture(scope="session")
def in_process(tmp_path_factory):
    """Runs a script of this folder in a fresh process and returns the arrays that it saved.

    one_lane=True loads the kernels that are compiled for one work-item per gang.
    """

    def run(script: str, *args: str, one_lane: bool = False, **environment: str) -> dict[str, np.ndarray]:
        out = tmp_path_factory.mktemp("run") / "out.npz"
        path = [str(HERE), *sys.path]
        env = {**os.environ, **environment, "PYTHONPATH": os.pathsep.join(path)}
        if one_lane:
            env["KELVOR_XPU_TARGET"] = "scalar"
        done = subprocess.run(
            [sys.executable, str(HERE / script), str(out), *args], env=env, capture_output=True, text=True
        )
        assert done.returncode == 0, done.stderr[-2000:]
        with np.load(out) as arrays:
            return dict(arrays)

    return run

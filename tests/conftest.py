"""What the tests of all folders share."""

from __future__ import annotations

import os
import subprocess
import sys
from typing import Callable

import pytest


@pytest.fixture(scope="session")
def in_python() -> Callable[..., subprocess.CompletedProcess]:
    """Runs code, or a script, in a new process with this one's modules and more environment variables; what it prints
    and how it ends is the caller's to judge."""

    def run(code: str, *arguments: str, **environment: str) -> subprocess.CompletedProcess:
        return subprocess.run(
            [sys.executable, *([code] if code.endswith(".py") else ["-c", code]), *arguments],
            env={**os.environ, **environment, "PYTHONPATH": os.pathsep.join(sys.path)},
            capture_output=True,
            text=True,
            timeout=500,
        )

    return run

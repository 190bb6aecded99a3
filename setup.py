"""Lets CMake build the modules and lay out the wheel: pip install --no-build-isolation .

Nothing is built into the source tree but build/wheel. CMake's own variables work, such as CMAKE_BUILD_PARALLEL_LEVEL.
"""

from __future__ import annotations

import re
import shutil
import subprocess
import sys
from pathlib import Path

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = Path(__file__).resolve().parent
BUILD = ROOT / "build" / "wheel"


class CMakeBuild(build_ext):
    """Builds with CMake for the Python that runs this, and installs into the folder that becomes the wheel."""

    def run(self) -> None:
        if self.inplace or self.editable_mode:
            raise SystemExit("tolvane: no editable installation: in the sources, use scripts/python")
        for tool in ("cmake", "ninja", "c++"):
            if shutil.which(tool) is None:
                raise SystemExit(
                    f"tolvane: {tool} is needed and was not found; on Debian: "
                    "apt-get install build-essential cmake ninja-build"
                )
        folder = BUILD / (sys.implementation.cache_tag or "python")
        layout = Path(self.build_lib).resolve()
        shutil.rmtree(layout, ignore_errors=True)  # what an earlier build left
        configure = ["cmake", "--fresh", "-G", "Ninja", "-S", ROOT, "-B", folder]
        settings = ["-DCMAKE_BUILD_TYPE=Release", "-DTOLVANE_TESTS=OFF"]
        for command in (
            [*configure, *settings, f"-DPython_EXECUTABLE={sys.executable}"],
            ["cmake", "--build", folder, "--target", "installed"],
            ["cmake", "--install", folder, "--prefix", layout, "--strip"],
        ):
            try:
                subprocess.run(command, check=True)
            except subprocess.CalledProcessError:
                raise SystemExit("tolvane: CMake failed, see above") from None


def version() -> str:
    found = re.search(r"project\(tolvane VERSION (\S+)", (ROOT / "CMakeLists.txt").read_text())
    assert found is not None
    return found[1]


BUILD.mkdir(parents=True, exist_ok=True)
setup(
    version=version(),
    # CMake installs the Python files too. The extension makes the wheel one for this Python and machine.
    packages=[],
    py_modules=[],
    ext_modules=[Extension("tolvane", sources=[])],
    cmdclass={"build_ext": CMakeBuild},
    options={"build": {"build_base": "build/wheel"}, "egg_info": {"egg_base": "build/wheel"}},
)

"""What stands between ``import torch`` and the package kelvor_xpu. Loads no native library by itself."""

from __future__ import annotations

import sys
import warnings


def check() -> None:
    """Raises ImportError, with what to do, unless this Python and its torch are what the modules were built for."""
    from kelvor_xpu import _built_for

    python = f"{sys.version_info.major}.{sys.version_info.minor}"
    again = "or build the modules again with this one: pip install --no-build-isolation . in their sources"
    if python != _built_for.PYTHON:
        raise ImportError(
            f"tolvane's modules are built for Python {_built_for.PYTHON}, but this is Python {python}. "
            f"Use Python {_built_for.PYTHON}, {again}"
        )
    try:
        import torch
    except ImportError as error:
        raise ImportError(
            f"tolvane's modules need PyTorch, which cannot be imported: install torch=={_built_for.TORCH}"
        ) from error
    if str(torch.__version__).split(".")[:2] != _built_for.TORCH.split(".")[:2]:
        raise ImportError(
            f"tolvane's modules are built for torch {_built_for.TORCH}, but this is torch {torch.__version__}. "
            f"Install torch=={_built_for.TORCH}, {again}"
        )


def load() -> None:
    """What ``import torch`` calls, by the entry point in the group torch.backends.

    PyTorch would not be importable if this failed, so that a device which cannot be loaded is only warned of.
    """
    if "kelvor_xpu" in sys.modules:  # it imports torch itself, and goes on when torch is there
        return
    try:
        import kelvor_xpu  # noqa: F401
    except Exception as error:
        warnings.warn(f"the xpu device is not available: {error}", stacklevel=2)

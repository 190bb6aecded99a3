"""Gives its name to the extension module beside it, once it is certain that this Python and torch can load that."""

import importlib.machinery
import importlib.util
import sys

import kelvor_xpu  # noqa: F401  loads torch, and refuses one that the modules were not built for


def _load() -> None:
    finder = importlib.machinery.FileFinder(
        __path__[0], (importlib.machinery.ExtensionFileLoader, importlib.machinery.EXTENSION_SUFFIXES)
    )
    found = finder.find_spec("tolvane")
    if found is None or found.loader is None:
        raise ImportError(f"the extension module is missing in {__path__[0]}: install tolvane again")
    # `import tolvane` gives what stands in sys.modules at its end: the extension itself, and nothing around it.
    module = importlib.util.module_from_spec(found)
    sys.modules["tolvane"] = module
    found.loader.exec_module(module)


_load()

"""Model layer on tolvane: packing of dense weights, and modules that compute with packed ones."""

from .formats import FORMATS, Format
from .modules import QuantMLP
from .packing import pack, unpack
from .synthetic import synthetic

__all__ = ["FORMATS", "Format", "QuantMLP", "pack", "synthetic", "unpack"]

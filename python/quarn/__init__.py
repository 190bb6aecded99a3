"""Model layer on tolvane: packing of dense weights, and modules that compute with packed ones."""

from .formats import FORMATS, MLP_FORMATS, Format
from .modules import QuantLinear, QuantMLP
from .packing import pack, unpack
from .synthetic import synthetic

__all__ = [
    *("FORMATS", "MLP_FORMATS", "Format", "QuantLinear", "QuantMLP"),
    *("pack", "synthetic", "unpack"),
]

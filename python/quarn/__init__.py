"""Model layer on tolvane: packing of dense weights, and modules that compute with packed ones."""

from .embedding import QuantEmbedding
from .formats import FORMATS, MLP_FORMATS, Format
from .importance import collect_importance
from .models import pack_model
from .modules import QuantLinear, QuantMLP
from .packing import pack, unpack
from .synthetic import synthetic

__all__ = [
    *("FORMATS", "MLP_FORMATS", "Format", "QuantEmbedding", "QuantLinear", "QuantMLP"),
    *("collect_importance", "pack", "pack_model", "synthetic", "unpack"),
]

"""Model layer on tolvane: packing of dense weights, and modules that compute with packed ones."""

from .embedding import QuantEmbedding
from .formats import FORMATS, MLP_FORMATS, Format
from .generation import generate, perplexity
from .importance import collect_importance
from .modules import QuantLinear, QuantMLP
from .packing import pack, unpack
from .pretrained import from_pretrained, pack_pretrained, save_pretrained
from .quantize import quantize_
from .synthetic import synthetic

__all__ = [
    *("FORMATS", "MLP_FORMATS", "Format", "QuantEmbedding", "QuantLinear", "QuantMLP"),
    *("collect_importance", "from_pretrained", "generate", "pack", "pack_pretrained"),
    *("perplexity", "quantize_", "save_pretrained", "synthetic", "unpack"),
]

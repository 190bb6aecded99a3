"""Makes the examples, the benchmarks and the plain reading of the packed formats importable."""

from __future__ import annotations

import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / name) for name in ("examples", "benchmarks", "tests/operators")]

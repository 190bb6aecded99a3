"""The calls that every target, device class and guard page must get right, and a script that makes them:
catalogue.py OUT [SUBJECT …].
"""

from __future__ import annotations

import sys

import numpy as np

import bmm_cases
import kv_cases
import linear_cases
import linear_routes
import mlp_cases
import norm_cases
import qkv_cases
import rope_cases
import rwkv_cases
import super_block_cases
import sysarr_cases

SUBJECTS = {
    "linear": linear_cases.CASES,
    "qkv": qkv_cases.CASES,
    "mlp": mlp_cases.CASES,
    "norm": norm_cases.CASES,
    "rope": rope_cases.CASES,
    "attention": kv_cases.CASES,
    "rwkv": rwkv_cases.CASES,
    "bmm": bmm_cases.CASES,
    "super blocks": super_block_cases.CASES,
}
CASES = [case for cases in SUBJECTS.values() for case in cases]
# Only some classes of device take these.
ENGINES = {"engine": sysarr_cases.CASES, "engine of many rows": sysarr_cases.MANY_ROWS}


if __name__ == "__main__":
    results = {}
    for subject in sys.argv[2:] or [*SUBJECTS, "routes"]:
        if subject == "routes":
            results.update(linear_routes.observations())
        for case in (SUBJECTS | ENGINES).get(subject, []):
            print(case.name, file=sys.stderr)  # the last one that is named failed
            results.update((f"{case.name} {part}", x) for part, x in case.arrays().items())
    np.savez(sys.argv[1], **results)

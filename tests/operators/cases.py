"""What all calls of the catalogue have in common."""

from __future__ import annotations

import numpy as np
import torch

from arithmetic import ALL, Arithmetic

# A name of a device of each class, 0 to 5, for KELVOR_XPU_DEVICE_NAME.
DEVICE_NAMES = ("Rack GPU Summit", "Vela(TM) A", "Rack GPU Ridge", "other", "Vela(TM)", "IGX")
TYPES = ("float16", "float32", "float64", "bfloat16")
Results = dict[str, np.ndarray]


def numbers(tensor: torch.Tensor | None) -> np.ndarray | None:
    """A tensor in a type of numpy that holds it exactly."""
    return None if tensor is None else tensor.cpu().double().numpy()


def on_xpu(array: np.ndarray, dtype: str | None = None) -> torch.Tensor:
    """A copy, in the array's type or another."""
    return torch.from_numpy(np.array(array)).to("xpu", dtype and getattr(torch, dtype))


class Case:
    """A call, whose kind derives a dataclass with the field `type`, run() and check(results, group).

    run() gives tensors by part, and check compares arrays of them with plain numpy, `group` being the work-group that
    the linear operators take on the device. Where `any_order` holds, sums may differ between targets.
    """

    type: str
    any_order = False

    @property
    def name(self) -> str:
        return "-".join((type(self).__name__, *(str(value) for value in vars(self).values())))

    @property
    def t(self) -> Arithmetic:
        return ALL[self.type]

    @property
    def dtype(self) -> torch.dtype:
        return getattr(torch, self.type)

    def arrays(self) -> Results:
        return {part: numbers(x) for part, x in self.run().items()}

    def activations(self, *shape: int) -> np.ndarray:
        """Random multiples of 1/64 that every element type can hold."""
        values = np.random.default_rng(3).standard_normal(shape)
        return (np.round(values * 64) / 64).astype(np.float32)


class SummingCase(Case):
    """Of packed rows times activations: sums in float and double are made in any order."""

    @property
    def any_order(self) -> bool:
        return self.type in ("float32", "float64")

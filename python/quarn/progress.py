"""How far a long task is, on stderr."""

from __future__ import annotations

import sys
import time

BAR_WIDTH = 30
REDRAW_SECONDS = 0.1


class ProgressBar:
    """A line on stderr that is redrawn as the work goes on; elsewhere than on a terminal, its end only.

    It counts to `total` `things`, in millions where `in_millions`.
    """

    def __init__(self, total: int, shown: bool, things: str = "weights", in_millions: bool = True) -> None:
        self.total, self.done, self.label = total, 0, ""
        self.things, self.in_millions = things, in_millions
        self.start, self.drawn = time.monotonic(), 0.0
        self.shown, self.live = shown, shown and sys.stderr.isatty()

    def advance(self, count: int) -> None:
        self.done += count
        if self.live and time.monotonic() - self.drawn >= REDRAW_SECONDS:
            self.drawn = time.monotonic()
            print(f"\r{self.line()}", end="", file=sys.stderr, flush=True)

    def line(self) -> str:
        share = self.done / self.total if self.total else 1.0
        rate = self.done / max(time.monotonic() - self.start, 1e-9)
        bar = ("#" * int(share * BAR_WIDTH)).ljust(BAR_WIDTH)
        if self.in_millions:
            counts = f"{self.done / 1e6:.1f} of {self.total / 1e6:.1f} M {self.things}"
            counts += f", {rate / 1e6:.1f} M/s"
        else:
            counts = f"{self.done} of {self.total} {self.things}, {rate:.1f}/s"
        return f"[{bar}] {share:4.0%}  {counts}  {self.label:<40.40}"

    def finish(self) -> None:
        if not self.shown:
            return
        self.label = ""
        print(("\r" if self.live else "") + self.line().rstrip(), file=sys.stderr, flush=True)

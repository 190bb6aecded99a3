"""Streams and events. Work is complete when its call returns, so that they never wait."""

from __future__ import annotations

import time
from typing import Any

import torch

from . import _C


class Stream:
    """A stream of the xpu device: ``Stream()`` is one of a pool of 32."""

    def __init__(
        self, device: Any = None, priority: int = 0, *, stream_id: int | None = None
    ) -> None:
        self.device = torch.device("xpu", 0)
        self.stream_id: int = _C.new_stream() if stream_id is None else stream_id

    def synchronize(self) -> None:
        """Waits until the stream's work is done, which it is."""

    def query(self) -> bool:
        """Whether the stream's work is done: always."""
        return True

    def wait_event(self, event: Event) -> None:
        """Makes later work wait for ``event``, which has happened."""

    def wait_stream(self, stream: Stream) -> None:
        """Makes later work wait for that of ``stream``, which is done."""

    def record_event(self, event: Event | None = None) -> Event:
        """Records ``event``, or a new one, and returns it."""
        event = Event() if event is None else event
        event.record(self)
        return event

    def __eq__(self, other: object) -> bool:
        return isinstance(other, Stream) and other.stream_id == self.stream_id

    def __hash__(self) -> int:
        return hash(self.stream_id)

    def __repr__(self) -> str:
        return f"<kelvor_xpu.Stream device={self.device} id={self.stream_id}>"


class Event:
    """A point in a stream's work, with the time at which it was reached."""

    def __init__(self, enable_timing: bool = False, blocking: bool = False) -> None:
        self._time: float | None = None

    def record(self, stream: Stream | None = None) -> None:
        """Marks the present point of ``stream``."""
        self._time = time.perf_counter()

    def wait(self, stream: Stream | None = None) -> None:
        """Makes later work on ``stream`` wait for this event, which has happened."""

    def query(self) -> bool:
        """Whether the work before the event is done: always."""
        return True

    def synchronize(self) -> None:
        """Waits for the event, which has happened."""

    def elapsed_time(self, end: Event) -> float:
        """Milliseconds from this event to ``end``; both must have been recorded."""
        if self._time is None or end._time is None:
            raise RuntimeError("elapsed_time needs two recorded events: call record() first")
        return (end._time - self._time) * 1000.0


class StreamContext:
    """Context manager that makes a stream current; ``None`` changes nothing."""

    def __init__(self, stream: Stream | None) -> None:
        self._stream = stream
        self._previous = 0

    def __enter__(self) -> Stream | None:
        if self._stream is not None:
            self._previous = _C.set_stream(self._stream.stream_id)
        return self._stream

    def __exit__(self, *error: object) -> None:
        if self._stream is not None:
            _C.set_stream(self._previous)


def stream(stream: Stream | None) -> StreamContext:
    """``with stream(s):`` runs its body with ``s`` as the calling thread's current stream."""
    return StreamContext(stream)


def set_stream(stream: Stream) -> None:
    """Makes ``stream`` the calling thread's current stream."""
    _C.set_stream(stream.stream_id)


def current_stream(device: Any = None) -> Stream:
    """The calling thread's current stream."""
    return Stream(stream_id=_C.current_stream())


def default_stream(device: Any = None) -> Stream:
    """The stream that is current when no other was made so."""
    return Stream(stream_id=0)


def synchronize(device: Any = None) -> None:
    """Waits until all work on the device is done, which it is when a call returns."""

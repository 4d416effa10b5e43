# SPDX-License-Identifier: LicenseRef-none-chosen-yet
"""One System V queue as its peers see it: found by its key, never created here, and opened anew when it was removed.

Nothing blocks in the kernel. A call that waits looks again after naps that grow with the waiting, so a signal handler
runs in time and no signal of its own is needed. Sources: msgop(2), sysvipc(7), proc(5).
"""

from __future__ import annotations

import errno
import math
import os
import time
from collections.abc import Callable
from dataclasses import dataclass
from typing import TypeVar

import sysv_ipc

from .errors import PlaceTaken, Refused
from .protocol import MTYPE, find_queue

# Bytes of text that there is room for. What is longer could not be taken off, and would stay in the way.
_ROOM = 0xFFFF

# In seconds. In between, a nap is an eighth of the time waited so far, so what is measured is right to an eighth.
_SHORTEST_NAP = 0.00002
_LONGEST_NAP = 0.02

Result = TypeVar("Result")


@dataclass(frozen=True)
class QueueState:
    """How many messages wait in a queue, and the id of the process or thread that took one last: 0 for none."""

    messages: int
    reader: int


class Queue:
    """A queue by its name or key, such as "inbound" or 1002. It need not exist yet, nor stay the same one.

    Any thread or signal handler may call `close`; the other calls belong to one thread.
    """

    def __init__(self, name_or_key: str | int) -> None:
        self.facts = find_queue(name_or_key)
        self.closed = False
        self._handle: sysv_ipc.MessageQueue | None = None

    def __str__(self) -> str:
        return f"queue {self.facts.key} ({self.facts.name})"

    def put(self, data: bytes, timeout: float | None = None, mtype: int = MTYPE) -> bool:
        """Sends one message. False when the queue has been full, or missing, for `timeout` seconds (None: for ever), or
        `close` was called meanwhile.

        Raises Refused where the kernel does: no permission, or more bytes than /proc/sys/kernel/msgmax allows.
        """
        if len(data) > _ROOM:
            raise ValueError(f"a message has at most {_ROOM} bytes, and this has {len(data)}")

        def send(handle: sysv_ipc.MessageQueue) -> bool:
            try:
                handle.send(data, block=False, type=mtype)
            except OSError as error:
                _ = handle.current_messages  # the same errno tells of a removed queue; this call tells them apart
                hint = "; /proc/sys/kernel/msgmax is the limit" if error.errno == errno.EINVAL else ""
                raise Refused(f"{self} takes no message of {len(data)} bytes: {error.strerror}{hint}") from None
            return True

        return self._until(timeout, send) is not None

    def take(self, timeout: float | None = None, mtype: int = 0) -> bytes | None:
        """Takes the next message, of one `mtype` or of any (0), and returns its text, which may be empty.

        None when none has come within `timeout` seconds (None: for ever), or `close` was called meanwhile.
        """
        received = self._until(timeout, lambda handle: handle.receive(block=False, type=mtype))
        return None if received is None else received[0]

    def look(self) -> QueueState | None:
        """The state of the queue, without disturbing it; None while it does not exist."""
        return self._attempt(lambda handle: QueueState(handle.current_messages, handle.last_receive_pid))

    def await_queue(self, timeout: float | None = None) -> bool:
        """Waits until the queue exists; False when it still does not after `timeout` seconds (None: for ever)."""
        return self._until(timeout, lambda handle: True) is not None

    def close(self) -> None:
        """Ends what waits here; from then on nothing is sent or taken. The queue itself stays as it is."""
        self.closed = True

    def _attempt(self, action: Callable[[sysv_ipc.MessageQueue], Result]) -> Result | None:
        """The action's result on the queue as it is now, or None while there is no queue."""
        while True:
            if self._handle is None:
                try:
                    self._handle = sysv_ipc.MessageQueue(self.facts.key, 0, 0, _ROOM)
                except sysv_ipc.ExistentialError:
                    return None
            try:
                return action(self._handle)
            except sysv_ipc.ExistentialError:
                self._handle = None  # removed; there may be another one by now
            except sysv_ipc.PermissionsError:
                owner = "the queues belong to the user that HubKeeper runs as, mostly root"
                raise Refused(f"no permission for {self}; {owner}") from None

    def _until(self, timeout: float | None, action: Callable[[sysv_ipc.MessageQueue], Result]) -> Result | None:
        """Tries until there is a result, the time is over or `close` was called; once, however short the time is."""
        start = time.monotonic()
        end = math.inf if timeout is None else start + timeout
        while not self.closed:
            try:
                result = self._attempt(action)
                if result is not None:
                    return result
            except sysv_ipc.BusyError:
                pass  # empty, or full
            now = time.monotonic()
            if now >= end:
                break
            time.sleep(min(max((now - start) / 8, _SHORTEST_NAP), _LONGEST_NAP, end - now))
        return None


@dataclass(frozen=True)
class Process:
    """A living process."""

    id: int
    name: str

    def __str__(self) -> str:
        return f"process {self.id} ({self.name})"

    @property
    def is_this(self) -> bool:
        return self.id == os.getpid()


def living_process(process_or_thread: int) -> Process | None:
    """The process with this id or thread; None for one that is gone, or dead and not yet waited for.

    Where a message goes straight to a thread that waits for it, the kernel notes the thread's id as the queue's reader.
    """
    try:
        with open(f"/proc/{process_or_thread}/status", encoding="utf-8", errors="replace") as status:
            fields = dict(line.rstrip("\n").split(":\t", 1) for line in status if ":\t" in line)
    except OSError:
        return None
    return None if fields["State"][0] in "ZX" else Process(int(fields["Tgid"]), fields["Name"])


def refuse_beside_reader(queue: Queue) -> None:
    """Raises PlaceTaken when a living process other than this one was the last to take a message."""
    state = queue.look()
    reader = living_process(state.reader) if state else None
    if reader and not reader.is_this:
        raise PlaceTaken(
            f"{reader} reads {queue}, and a message is taken by one reader alone;"
            " stop it first, or use force=True and let both miss messages"
        )

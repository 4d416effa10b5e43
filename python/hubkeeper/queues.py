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
from .protocol import MTYPE, find_queue, require_bytes, require_within

# Bytes of text that there is room for. What is longer could not be taken off, and would stay in the way.
_ROOM = 0xFFFF

_MTYPE_MAX = 0x7FFFFFFF  # a 32-bit process knows no larger one

# In seconds. In between, a nap is an eighth of the time waited so far, so what is measured is right to an eighth.
_SHORTEST_NAP = 0.00002
_LONGEST_NAP = 0.02

_CLOCK_GRAIN = 2  # seconds: the start of a process and of the machine are rounded

Result = TypeVar("Result")


def moment_after(timeout: float | None) -> float:
    """The moment on the monotonic clock that is so many seconds from now; infinite for None, which stands for ever."""
    if timeout is None:
        return math.inf
    if not isinstance(timeout, (int, float)):
        raise TypeError(f"a time is a number of seconds, not {timeout!r}")
    try:
        moment = time.monotonic() + timeout
    except OverflowError:
        raise ValueError("so long a time is given as None or math.inf") from None
    if math.isnan(moment):
        raise ValueError("a time is a number of seconds, and this is not a number")
    return moment


@dataclass(frozen=True)
class QueueState:
    """How many messages wait in a queue, the id of the process or thread that took one last, and when, in whole seconds
    since 1970. The id is 0 for none, and for one in another PID namespace; the time is 0 for never.
    """

    messages: int
    reader: int
    taken: int

    def living_reader(self) -> Process | None:
        """Who took a message last, or None when that one has ended. An id that was given anew belongs to a process that
        has started later; where the clock has been set since, that cannot be told, and it counts as the reader.
        """
        boot = _boot_time()
        if self.taken >= boot and boot + _start_seconds(self.reader) > self.taken + _CLOCK_GRAIN:
            return None
        return living_process(self.reader)


class Queue:
    """A queue by its name or key, such as "inbound" or 1002. It need not exist yet, nor stay the same one.

    With `sends`, whatever opens the queue raises Refused unless this process may send, and touches nothing for it: a
    Ridgelink calls `await_queue` for "inbound" before it takes anything off "ridgelink".

    `removals` counts how often the queue was removed while it was used here, with all that was in it.

    Any thread or signal handler may call `close`; the other calls belong to one thread.
    """

    def __init__(self, name_or_key: str | int, *, sends: bool = False) -> None:
        self.facts = find_queue(name_or_key)
        self._rights = 0o222 if sends else 0  # what msgget(2) asks the kernel for
        self.closed = False
        self.removals = 0
        self._handle: sysv_ipc.MessageQueue | None = None

    def __str__(self) -> str:
        return f"queue {self.facts.key} ({self.facts.name})"

    def put(self, data: bytes, timeout: float | None = None, mtype: int = MTYPE) -> bool:
        """Sends one message. False when the queue has been full, or missing, for `timeout` seconds (None: for ever), or
        `close` was called meanwhile.

        Raises Refused where the kernel does: no permission, or more bytes than /proc/sys/kernel/msgmax allows.
        """
        data = require_bytes("a message", data)
        require_within("the type of a message", mtype, _MTYPE_MAX, least=1)
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
        require_within("the type of a message", mtype, _MTYPE_MAX)
        received = self._until(timeout, lambda handle: handle.receive(block=False, type=mtype))
        return None if received is None else received[0]

    def look(self) -> QueueState | None:
        """The state of the queue, without disturbing it; None while it does not exist."""
        return self._attempt(
            lambda handle: QueueState(handle.current_messages, handle.last_receive_pid, handle.last_receive_time)
        )

    def await_queue(self, timeout: float | None = None) -> bool:
        """Waits until the queue exists; False when it still does not after `timeout` seconds (None: for ever)."""
        return self._until(timeout, lambda handle: True) is not None

    def close(self) -> None:
        """Ends what waits here; from then on nothing is sent or taken. The queue itself stays as it is."""
        self.closed = True

    def _attempt(self, action: Callable[[sysv_ipc.MessageQueue], Result]) -> Result | None:
        """The action's result on the queue as it is now, or None while there is no queue."""
        while True:
            try:
                if self._handle is None:
                    self._handle = sysv_ipc.MessageQueue(self.facts.key, 0, self._rights, _ROOM)
                return action(self._handle)
            except sysv_ipc.ExistentialError:
                if self._handle is None:
                    return None
                self._handle = None  # removed; there may be another one by now
                self.removals += 1
            except sysv_ipc.PermissionsError:
                owner = "the queues belong to the user that HubKeeper runs as, mostly root"
                raise Refused(f"no permission for {self}; {owner}") from None

    def _until(self, timeout: float | None, action: Callable[[sysv_ipc.MessageQueue], Result]) -> Result | None:
        """Tries until there is a result, the time is over or `close` was called; once, however short the time is."""
        start, end = time.monotonic(), moment_after(timeout)
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


def _boot_time() -> int:
    """When this machine was started, by its clock of now."""
    with open("/proc/stat", encoding="utf-8") as stat:
        return next(int(line.split()[1]) for line in stat if line.startswith("btime "))


def _start_seconds(process_or_thread: int) -> float:
    """Seconds from the machine's start to that of a process or thread; 0 where they cannot be seen."""
    try:
        with open(f"/proc/{process_or_thread}/stat", encoding="utf-8", errors="replace") as stat:
            fields = stat.read().rpartition(")")[2].split()  # what stands before is a name that may hold anything
    except OSError:
        return 0.0
    return int(fields[19]) / os.sysconf("SC_CLK_TCK")


def refuse_beside_reader(queue: Queue) -> None:
    """Raises PlaceTaken when a living process other than this one was the last to take a message."""
    state = queue.look()
    reader = state.living_reader() if state else None
    if reader and not reader.is_this:
        raise PlaceTaken(
            f"{reader} reads {queue}, and a message is taken by one reader alone;"
            " stop it first, or use force=True and let both miss messages"
        )

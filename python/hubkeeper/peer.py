# SPDX-License-Identifier: LicenseRef-none-chosen-yet
"""A local process of the board, such as Netsteward, or a stand-in for one: it takes what HubKeeper forwards."""

from __future__ import annotations

from types import TracebackType

from .errors import NoAnswer, NotAPacket
from .protocol import Key, Packet
from .queues import Queue, refuse_beside_reader


class Peer:
    """The reader of one local process's queue, told by name, such as "netsteward", or by key.

        with Peer("netsteward") as peer:
            for packet in peer:
                print(packet.opcode, packet.tag, packet.payload)

    The loop waits for Packets for ever, and ends after `close`, which a signal handler may call: a Packet that has been
    taken is always handed out first. The queue is never created here: a Peer that is earlier than HubKeeper waits for
    it, and goes on with the new queue when the old one is removed, with all that was in it; `removals` counts that.
    HubKeeper never waits for a Peer: what finds its queue full is lost.

    HubKeeper forwards a Packet whose length is under 5 with as many bytes as its length says. The loop passes over such
    messages and counts them in `skipped`; `receive` raises NotAPacket.

    Raises PlaceTaken beside another living reader of the queue, unless `force` is given: both would miss messages.
    """

    def __init__(self, name_or_key: str | int, *, force: bool = False) -> None:
        self._queue = Queue(name_or_key)
        self.skipped = 0
        if self._queue.facts.key in (Key.INBOUND, Key.RIDGELINK):
            raise ValueError(f"{self._queue} belongs to no local process; Hub stands in for Ridgelink")
        if not force:
            refuse_beside_reader(self._queue)

    @property
    def removals(self) -> int:
        """How often the queue was removed under this Peer."""
        return self._queue.removals

    def receive(self, timeout: float | None = None) -> Packet:
        """The next Packet. `timeout` is in seconds; None waits for ever.

        Raises NoAnswer when none has come in time or the Peer is closed, and NotAPacket for a message that is none.
        """
        data = self._queue.take(timeout)
        if data is None:
            if self._queue.closed:
                raise NoAnswer(f"this Peer of {self._queue} has been closed")
            why = "is empty" if self._queue.look() else "does not exist; HubKeeper creates it"
            raise NoAnswer(f"no Packet within {timeout:g} s: {self._queue} {why}")
        try:
            return Packet.decode(data)
        except ValueError as error:
            raise NotAPacket(f"a message on {self._queue} is no Packet: {error}", data) from None

    def __iter__(self) -> Peer:
        return self

    def __next__(self) -> Packet:
        while not self._queue.closed:
            try:
                return self.receive()
            except NotAPacket:
                self.skipped += 1
            except NoAnswer:  # closed
                break
        raise StopIteration

    def close(self) -> None:
        """Ends the loop, and all further use. What is in the queue stays there for the next reader."""
        self._queue.close()

    def __enter__(self) -> Peer:
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        self.close()

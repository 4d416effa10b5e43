# SPDX-License-Identifier: LicenseRef-none-chosen-yet
"""For those who write HubKeeper's peers and test benches: Packets and Bundles, the hub, the peers' queues.

    Hub      stands in Ridgelink's place: heartbeats, commands, versions, files, any bytes
    Peer     reads what HubKeeper forwards to one local process
    Packet, Bundle, Bounce, StateNotice, decode_message     the bytes; need no queue at all
    Queue    what Hub and Peer are made of, for those who write a Ridgelink or a peer of their own

    from hubkeeper import Hub, Packet, Peer

    with Peer("netsteward") as netsteward, Hub() as hub:
        hub.send(Packet(0x10, tag=42, payload=b"up"))
        assert netsteward.receive(timeout=1) == Packet(0x10, 42, b"up")

For the distribution's /usr/bin/python3, with its package python3-sysv-ipc. All times are in seconds.

Failures are exceptions whose texts say what was seen: NoQueue, NoAnswer, PlaceTaken, Refused, TransferFailed and
NotAPacket, each a HubError. A wrong argument is a ValueError or a TypeError, and a local file that cannot be read an
OSError.

Hub and Peer take messages from the queues of the machine that they run on, and Hub's commands are root's there. So they
belong on a board, a bench, or into a container with a HubKeeper of its own.
"""

from __future__ import annotations

from .errors import HubError, NoAnswer, NoQueue, NotAPacket, PlaceTaken, Refused, TransferFailed
from .hub import CommandResult, Hub, Reply, RoundTrip
from .peer import Peer
from .protocol import (
    BUNDLE_MAX,
    PACKET_MAX,
    PAYLOAD_MAX,
    Bounce,
    Bundle,
    Key,
    Message,
    Opcode,
    Packet,
    Piece,
    QueueFacts,
    StateNotice,
    decode_message,
    find_queue,
    opcode_name,
)
from .queues import Queue, QueueState

__all__ = [
    "BUNDLE_MAX",
    "PACKET_MAX",
    "PAYLOAD_MAX",
    "Bounce",
    "Bundle",
    "CommandResult",
    "Hub",
    "HubError",
    "Key",
    "Message",
    "NoAnswer",
    "NoQueue",
    "NotAPacket",
    "Opcode",
    "Packet",
    "Peer",
    "Piece",
    "PlaceTaken",
    "Queue",
    "QueueFacts",
    "QueueState",
    "Refused",
    "Reply",
    "RoundTrip",
    "StateNotice",
    "TransferFailed",
    "decode_message",
    "find_queue",
    "opcode_name",
]

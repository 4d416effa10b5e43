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

For the distribution's /usr/bin/python3 with the package python3-sysv-ipc. Failures are exceptions, see errors.py; all
times are in seconds. Whatever talks to queues belongs on a board, or into the sandbox, with a service of its own:

    scripts/build
    PYTHONPATH=python scripts/sandbox sh -c 'build/release/src/hubkeeper >/tmp/log & /usr/bin/python3'
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
    StateNotice,
    decode_message,
    find_queue,
    opcode_name,
)
from .queues import Queue

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
    "Refused",
    "Reply",
    "RoundTrip",
    "StateNotice",
    "TransferFailed",
    "decode_message",
    "find_queue",
    "opcode_name",
]

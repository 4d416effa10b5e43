# SPDX-License-Identifier: LicenseRef-none-chosen-yet
"""The facts of HubKeeper's wire: queue keys, opcodes, sizes, Packets, and the walk of a Bundle.

The same facts as in the C header hubkeeper/protocol.h, by the same names; a test compares the two. Nothing here
touches a queue, so it serves recordings as well.

    byte 0  length   16 bits, low byte first: the whole Packet, these five bytes included
    byte 2  tag      16 bits, low byte first: given back in a reply, otherwise not interpreted
    byte 4  opcode    8 bits, decides where the Packet goes
    byte 5  payload  length - 5 bytes

A Bundle is one or more Packets back to back, in the text of one message; the size of the message ends it.
"""

from __future__ import annotations

import struct
from collections.abc import Iterable, Iterator
from dataclasses import dataclass
from enum import IntEnum
from typing import TypeAlias

# Sizes in bytes.
HEADER_SIZE = 5
PACKET_MAX = 512  # a Packet that HubKeeper builds or forwards
PAYLOAD_MAX = 507  # of such a Packet
BUNDLE_MAX = 8192  # the text of one message to HubKeeper
COMMAND_MAX = 999  # of a command's text, the NUL that ends it not counted

QUEUE_MODE = 0o644  # what HubKeeper creates a missing queue with
MTYPE = 1  # of every message that HubKeeper sends; it takes messages of any type

_HEADER = struct.Struct("<HHB")
_LENGTH_MAX = 0xFFFF


class Key(IntEnum):
    """The keys of the queues, for msgget(2). Each is named after the peer that drains it; INBOUND is HubKeeper's."""

    INBOUND = 1002
    NETSTEWARD = 1000
    CLOCKSTEWARD = 1011
    CHRONICLER = 1010
    STAGEHAND = 1006
    RIDGELINK = 1003


class Opcode(IntEnum):
    """The opcodes that HubKeeper carries out itself, and those that it sends to Ridgelink."""

    HEARTBEAT = 0x04
    VERSION = 0x60
    COMMAND = 0x63
    TRANSFER_START = 0x70
    TRANSFER_CHUNK = 0x71
    TRANSFER_END = 0x72
    CLOCKSTEWARD_DISABLE = 0x75
    CLOCKSTEWARD_ENABLE = 0x76
    HEARTBEAT_REPLY = 0x80
    PACKAGE = 0x87
    VERSION_REPLY = 0x88
    PACKAGE_OTHER = 0x8A
    COMMAND_REPLY = 0x90


@dataclass(frozen=True)
class QueueFacts:
    """One row of `QUEUES`: who fills a queue and who drains it."""

    key: int
    name: str
    source: str
    drain: str


QUEUES = (  # in the order in which HubKeeper opens them
    QueueFacts(Key.INBOUND, "inbound", "Ridgelink", "HubKeeper"),
    QueueFacts(Key.NETSTEWARD, "netsteward", "HubKeeper", "Netsteward"),
    QueueFacts(Key.CLOCKSTEWARD, "clocksteward", "HubKeeper", "Clocksteward"),
    QueueFacts(Key.CHRONICLER, "chronicler", "HubKeeper", "Chronicler"),
    QueueFacts(Key.STAGEHAND, "stagehand", "HubKeeper", "Stagehand"),
    QueueFacts(Key.RIDGELINK, "ridgelink", "HubKeeper", "Ridgelink"),
)


def find_queue(name_or_key: str | int) -> QueueFacts:
    """The row of a queue. Raises ValueError, with the names that there are, where there is none.

    >>> find_queue("chronicler").key == find_queue(1010).key == 1010
    True
    """
    for row in QUEUES:
        if name_or_key in (row.name, row.key, str(row.key)):
            return row
    names = ", ".join(f"{row.name} ({row.key})" for row in QUEUES)
    raise ValueError(f"there is no queue {name_or_key!r}; the queues are {names}")


OPCODES = (  # first, last, name: the first row that holds an opcode wins
    (Opcode.HEARTBEAT, Opcode.HEARTBEAT, "heartbeat"),
    (0x30, 0x30, "to chronicler"),
    (0x00, 0x1F, "to netsteward"),
    (0x20, 0x28, "to clocksteward"),
    (Opcode.VERSION, Opcode.VERSION, "version"),
    (Opcode.COMMAND, Opcode.COMMAND, "command"),
    (Opcode.TRANSFER_START, Opcode.TRANSFER_START, "transfer start"),
    (Opcode.TRANSFER_CHUNK, Opcode.TRANSFER_CHUNK, "transfer chunk"),
    (Opcode.TRANSFER_END, Opcode.TRANSFER_END, "transfer end"),
    (Opcode.CLOCKSTEWARD_DISABLE, Opcode.CLOCKSTEWARD_DISABLE, "clocksteward disable"),
    (Opcode.CLOCKSTEWARD_ENABLE, Opcode.CLOCKSTEWARD_ENABLE, "clocksteward enable"),
    (Opcode.HEARTBEAT_REPLY, Opcode.HEARTBEAT_REPLY, "heartbeat reply"),
    (Opcode.PACKAGE, Opcode.PACKAGE, "package"),
    (Opcode.VERSION_REPLY, Opcode.VERSION_REPLY, "version reply"),
    (Opcode.PACKAGE_OTHER, Opcode.PACKAGE_OTHER, "package other"),
    (Opcode.COMMAND_REPLY, Opcode.COMMAND_REPLY, "command reply"),
    (0x00, 0xFF, "unknown"),
)


def opcode_name(opcode: int) -> str:
    """What HubKeeper takes an opcode (0 to 255) for.

    >>> opcode_name(0x04), opcode_name(0x05), opcode_name(0x29)
    ('heartbeat', 'to netsteward', 'unknown')
    """
    require_within("an opcode", opcode, 0xFF)
    return next(name for first, last, name in OPCODES if first <= opcode <= last)


def require_within(what: str, number: int, most: int, least: int = 0) -> None:
    """Raises TypeError for what is no whole number, and ValueError for one that is not from `least` to `most`."""
    if not isinstance(number, int):
        raise TypeError(f"{what} is a number, not {number!r}")
    if not least <= number <= most:
        raise ValueError(f"{what} is from {least} to {most}, and this is {number}")


def require_bytes(what: str, data: bytes) -> bytes:
    """The same bytes as an object of their own. Raises TypeError for what is none."""
    if not isinstance(data, (bytes, bytearray, memoryview)):
        raise TypeError(f"{what} is bytes, not {type(data).__name__}; a text must be encoded first")
    return bytes(data)


def _shown(payload: bytes, room: int = 16) -> str:
    rest = f" and {len(payload) - room} more" if len(payload) > room else ""
    return payload[:room].hex(" ") + rest


@dataclass(frozen=True, repr=False)
class Packet:
    """One Packet: an opcode (0 to 255), a tag (0 to 65535) and up to 65530 bytes of payload.

    HubKeeper forwards Packets of up to 512 bytes, and takes what it consumes itself as long as it fits its Bundle.
    Raises ValueError or TypeError when a number or the payload is none of these.

    >>> packet = Packet(0x10, tag=42, payload=b"\\xaa\\xbb\\xcc")
    >>> bytes(packet).hex(" ")
    '08 00 2a 00 10 aa bb cc'
    >>> Packet.decode(bytes(packet)) == packet
    True
    >>> print(packet)
    10 to netsteward, tag 42, 8 bytes: aa bb cc
    >>> Packet(256)
    Traceback (most recent call last):
    ValueError: an opcode is from 0 to 255, and this is 256
    """

    opcode: int
    tag: int = 0
    payload: bytes = b""

    def __post_init__(self) -> None:
        require_within("an opcode", self.opcode, 0xFF)
        require_within("a tag", self.tag, 0xFFFF)
        object.__setattr__(self, "payload", require_bytes("a payload", self.payload))
        if self.length > _LENGTH_MAX:
            most = _LENGTH_MAX - HEADER_SIZE
            raise ValueError(f"a payload has at most {most} bytes, and this has {len(self.payload)}")

    @property
    def length(self) -> int:
        """The size in bytes, the header included."""
        return HEADER_SIZE + len(self.payload)

    @property
    def name(self) -> str:
        """What HubKeeper takes the opcode for, such as "heartbeat" or "to netsteward"."""
        return opcode_name(self.opcode)

    def __bytes__(self) -> bytes:
        return _HEADER.pack(self.length, self.tag, self.opcode) + self.payload

    def __repr__(self) -> str:
        return f"Packet(0x{self.opcode:02x}, tag={self.tag}, payload={self.payload!r})"

    def __str__(self) -> str:
        payload = f": {_shown(self.payload)}" if self.payload else ""
        return f"{self.opcode:02x} {self.name}, tag {self.tag}, {self.length} bytes{payload}"

    @classmethod
    def decode(cls, data: bytes) -> Packet:
        """The Packet that `data` is, as a peer gets it: exactly one and nothing behind it. Otherwise a ValueError.

        >>> Packet.decode(b"\\x06\\x00\\x07\\x00\\x04")
        Traceback (most recent call last):
        ValueError: the length says 6 bytes, and there are 5
        """
        data = require_bytes("a Packet to decode", data)
        if len(data) < HEADER_SIZE:
            raise ValueError(f"a Packet has at least {HEADER_SIZE} bytes, and there are {len(data)}")
        length, tag, opcode = _HEADER.unpack_from(data)
        if length != len(data):
            raise ValueError(f"the length says {length} bytes, and there are {len(data)}")
        return cls(opcode, tag, data[HEADER_SIZE:])


@dataclass(frozen=True)
class Piece:
    """One step of a walk.

    `offset` is where the Packet begins, and `remaining` the count of bytes from there to the end of the Bundle.
    `length`, `tag` and `opcode` are what its header says, or 65535, 65535 and 255 where fewer than 5 bytes are left.
    Where the length is under 5 or beyond the Bundle, `good` is False, `payload` is empty, and nothing tells where the
    next Packet begins.
    """

    offset: int
    remaining: int
    length: int
    tag: int
    opcode: int
    payload: bytes
    good: bool


@dataclass(frozen=True, init=False)
class Bundle:
    """What goes to HubKeeper in one message: one or more Packets, 8192 bytes at most. Otherwise a ValueError.

    >>> bytes(Bundle([Packet(Opcode.HEARTBEAT, tag=7), Packet(0x30, tag=8, payload=b"disk")])).hex(" ")
    '05 00 07 00 04 09 00 08 00 30 64 69 73 6b'
    >>> len(bytes(Bundle([Packet(0x71, payload=bytes(8187))])))
    8192
    >>> Bundle([Packet(0x71, payload=bytes(8183)), Packet(0x72)])
    Traceback (most recent call last):
    ValueError: a Bundle has from 1 to 8192 bytes, and these Packets have 8193
    """

    packets: tuple[Packet, ...]

    def __init__(self, packets: Iterable[Packet]) -> None:
        object.__setattr__(self, "packets", tuple(packets))
        for packet in self.packets:
            if not isinstance(packet, Packet):
                raise TypeError(f"a Bundle is made of Packets, not of {packet!r}")
        size = sum(packet.length for packet in self.packets)
        if not 0 < size <= BUNDLE_MAX:
            raise ValueError(f"a Bundle has from 1 to {BUNDLE_MAX} bytes, and these Packets have {size}")

    def __bytes__(self) -> bytes:
        return b"".join(map(bytes, self.packets))

    @staticmethod
    def walk(data: bytes) -> Iterator[Piece]:
        """Yields what HubKeeper finds in the bytes of a Bundle, Packet by Packet.

        What a bad length leaves, or a rest of fewer than 5 bytes, is handed out once as well and ends the walk:
        HubKeeper bounces and routes a Packet before it judges its length.

        >>> for piece in Bundle.walk(b"\\x05\\x00\\x07\\x00\\x04\\xaa"):
        ...     print(piece.offset, piece.remaining, piece.length, piece.opcode, piece.good)
        0 6 5 4 True
        5 1 65535 255 False
        """
        data = require_bytes("a Bundle to walk", data)
        offset = 0
        good = True
        while good and offset < len(data):
            remaining = len(data) - offset
            length, tag, opcode = 0xFFFF, 0xFFFF, 0xFF
            if remaining >= HEADER_SIZE:
                length, tag, opcode = _HEADER.unpack_from(data, offset)
            good = HEADER_SIZE <= length <= remaining
            payload = data[offset + HEADER_SIZE : offset + length] if good else b""
            yield Piece(offset, remaining, length, tag, opcode, payload, good)
            offset += length


@dataclass(frozen=True, repr=False)
class Bounce:
    """HubKeeper has taken a Packet with this opcode from its queue, whatever becomes of it. One byte on the wire.

    >>> print(Bounce(0x63))
    bounce 63 command
    """

    opcode: int

    def __post_init__(self) -> None:
        require_within("an opcode", self.opcode, 0xFF)

    def __repr__(self) -> str:
        return f"Bounce(0x{self.opcode:02x})"

    def __str__(self) -> str:
        return f"bounce {self.opcode:02x} {opcode_name(self.opcode)}"


@dataclass(frozen=True)
class StateNotice:
    """The state of the board, from 1 to 65535. Two bytes on the wire; no Packet, and no reply to anything."""

    state: int

    def __post_init__(self) -> None:
        require_within("a state", self.state, 0xFFFF, least=1)


Message: TypeAlias = Packet | Bounce | StateNotice


def decode_message(data: bytes) -> Message:
    """What Ridgelink gets, told apart by its size: a Bounce, a StateNotice, or a Packet. Otherwise a ValueError.

    >>> decode_message(b"\\x04"), decode_message(b"\\x02\\x00"), decode_message(b"\\x05\\x00\\x07\\x00\\x88")
    (Bounce(0x04), StateNotice(state=2), Packet(0x88, tag=7, payload=b''))
    """
    data = require_bytes("a message", data)
    if len(data) == 1:
        return Bounce(data[0])
    if len(data) == 2:
        return StateNotice(int.from_bytes(data, "little"))
    return Packet.decode(data)

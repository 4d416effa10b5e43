#!/usr/bin/python3
# SPDX-License-Identifier: LicenseRef-none-chosen-yet
"""minimal_ridgelink.py [SECONDS]

Ridgelink at its smallest: sends one heartbeat and waits at most SECONDS (5) for its reply. Exit status 0 when the reply
came, 1 when none did, 2 for wrong usage.

Hub(...).ping() does all this and more; here is what a Ridgelink of one's own has to do.
"""

from __future__ import annotations

import os
import sys
import time

from hubkeeper import Bounce, HubError, Opcode, Packet, Queue, decode_message


def beat(timeout: float) -> bool:
    to_hub, from_hub = Queue("inbound", sends=True), Queue("ridgelink")  # HubKeeper makes a removed one when it sends
    if not to_hub.await_queue(timeout):  # first, because whoever may not send takes nothing off the other queue either
        print(f"minimal_ridgelink: {to_hub} does not exist", file=sys.stderr)
        return False
    while from_hub.take(0) is not None:  # what an earlier Ridgelink has left there would be taken for answers
        pass
    tag = os.getpid() & 0xFFFF
    own_type = 0x1000000 + os.getpid()  # HubKeeper takes any; one's own tells which requests are one's own to take back
    start = time.monotonic()
    if not to_hub.put(bytes(Packet(Opcode.HEARTBEAT, tag)), timeout, own_type):
        print(f"minimal_ridgelink: {to_hub} is full", file=sys.stderr)
        return False
    while (data := from_hub.take(max(0.0, start + timeout - time.monotonic()))) is not None:
        milliseconds = (time.monotonic() - start) * 1000
        try:
            message = decode_message(data)
        except ValueError as error:
            print(f"minimal_ridgelink: {error}", file=sys.stderr)
            continue
        if message == Bounce(Opcode.HEARTBEAT):  # HubKeeper has taken the Packet; the reply is a message of its own
            print(f"bounce after {milliseconds:.3f} ms")
        elif isinstance(message, Packet) and (message.opcode, message.tag) == (Opcode.HEARTBEAT_REPLY, tag):
            print(f"reply of {message.length} bytes after {milliseconds:.3f} ms")
            return True
    while to_hub.take(0, own_type) is not None:  # it would be answered later, when nobody waits for it any more
        pass
    print(f"minimal_ridgelink: no reply within {timeout:g} s", file=sys.stderr)
    return False


def main() -> int:
    try:
        (timeout,) = map(float, sys.argv[1:] or ["5"])
    except ValueError:
        print("usage: minimal_ridgelink.py [SECONDS]", file=sys.stderr)
        return 2
    try:
        return 0 if beat(timeout) else 1
    except (HubError, ValueError) as error:
        print(f"minimal_ridgelink: {error}", file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main())

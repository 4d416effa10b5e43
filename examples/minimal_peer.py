#!/usr/bin/python3
# SPDX-License-Identifier: LicenseRef-none-chosen-yet
"""minimal_peer.py [PEER]

What the local processes have in common: drains its queue (netsteward by default; a key
will do too) and prints each Packet. Ctrl-C or SIGTERM ends it, and no Packet that it has taken gets lost. For one:

    python3 minimal_peer.py chronicler
"""

from __future__ import annotations

import signal
import sys

from hubkeeper import HubError, Peer, Queue


def drain(name: str) -> None:
    with Peer(name) as peer:
        for number in (signal.SIGINT, signal.SIGTERM):
            signal.signal(number, lambda *_: peer.close())
        if Queue(name).look() is None:
            print("no queue yet; waiting for HubKeeper", file=sys.stderr)
        for packet in peer:
            print(packet, flush=True)
        if peer.skipped or peer.removals:
            print(f"removed queues: {peer.removals}, skipped messages: {peer.skipped}", file=sys.stderr)


def main() -> int:
    try:
        (name,) = sys.argv[1:] or ["netsteward"]
        drain(name)
    except ValueError:
        print("usage: minimal_peer.py [PEER], in small letters", file=sys.stderr)
        return 2
    except HubError as error:
        print(f"minimal_peer: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/python3
# SPDX-License-Identifier: LicenseRef-none-chosen-yet
"""minimal_peer.py [QUEUE]

A local process of the board at its smallest: drains its queue, "netsteward" or another by its name or key, and prints
each Packet. Ctrl-C or SIGTERM ends it, and no Packet that it has taken gets lost. From the top of the checkout:

    PYTHONPATH=python examples/minimal_peer.py chronicler
"""

from __future__ import annotations

import signal
import sys

from hubkeeper import HubError, Peer


def main() -> int:
    try:
        with Peer(sys.argv[1] if len(sys.argv) > 1 else "netsteward") as peer:
            for number in (signal.SIGINT, signal.SIGTERM):
                signal.signal(number, lambda *_: peer.close())
            for packet in peer:  # waits for HubKeeper too, when that is started later
                print(packet, flush=True)
            if peer.skipped > 0:
                print(f"minimal_peer: {peer.skipped} messages were no Packets", file=sys.stderr)
    except (HubError, ValueError) as error:
        print(f"minimal_peer: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())

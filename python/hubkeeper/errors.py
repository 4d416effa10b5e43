# SPDX-License-Identifier: LicenseRef-none-chosen-yet
"""What can go wrong on the queues. Each text says what was seen and, where there is one, what helps.

A wrong argument is a ValueError or a TypeError, as everywhere; a local file that cannot be read is an OSError.
"""

from __future__ import annotations


class HubError(Exception):
    """The base of all the others here."""


class NoQueue(HubError):
    """A queue does not exist: HubKeeper has not run since this machine's start, or somebody has removed it."""


class NoAnswer(HubError, TimeoutError):
    """Nothing came in time, or nothing could be sent in time.

    A request that HubKeeper had not taken yet has been taken back; one that it had taken may still be carried out. The
    text says which of the two.
    """


class PlaceTaken(HubError):
    """Another living process reads the queue, and a message is taken by one reader alone."""


class Refused(HubError):
    """The kernel or the board will not do it: no permission, a message too long, a target that cannot be opened."""


class TransferFailed(HubError):
    """The file on the board is not the one that was sent, or is not known to be."""


class NotAPacket(HubError, ValueError):
    """A message that nothing can be read from. Its bytes are in `data`."""

    def __init__(self, text: str, data: bytes) -> None:
        super().__init__(text)
        self.data = data

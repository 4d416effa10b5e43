# SPDX-License-Identifier: LicenseRef-none-chosen-yet
"""HubKeeper as Ridgelink sees it: requests and their replies, commands, files. Single-threaded.

All times are in seconds. What a bench needs first:

    with Hub() as hub:
        print(hub.ping().reply, hub.version())
        assert hub.run("uname -r", status=True).status == 0
        hub.send(Packet(0x10, tag=42, payload=b"for Netsteward"))
        assert hub.receive() == Bounce(0x10)
"""

from __future__ import annotations

import hashlib
import io
import os
import shlex
import stat
import time
from collections.abc import Iterator
from dataclasses import dataclass
from types import TracebackType
from typing import BinaryIO

from .errors import NoAnswer, NoQueue, NotAPacket, Refused, TransferFailed
from .protocol import (
    BUNDLE_MAX,
    COMMAND_MAX,
    HEADER_SIZE,
    MTYPE,
    PACKET_MAX,
    PAYLOAD_MAX,
    Bounce,
    Bundle,
    Message,
    Opcode,
    Packet,
    decode_message,
)
from .queues import Queue, moment_after, refuse_beside_reader

_CHUNK_SIZE = BUNDLE_MAX - HEADER_SIZE
_NAME_MAX = PACKET_MAX - HEADER_SIZE - 1  # the start of a transfer must fit one frame, with the byte behind the name
_UNBOUNCED_MAX = 2  # as many full Bundles as a queue of the usual size holds
_COMPARE_TIMEOUT = 60.0  # the board reads the whole file for it


@dataclass(frozen=True)
class RoundTrip:
    """The seconds from sending a request to its bounce, None when there came none, and to its reply.

    Right to about an eighth of the time, or to some ten microseconds, because queues are looked at again and again.
    """

    bounce: float | None
    reply: float


@dataclass(frozen=True)
class Reply:
    """What came back for a request."""

    payload: bytes
    time: RoundTrip


@dataclass(frozen=True)
class CommandResult:
    """What a command printed, whether that was cut, and its exit status, or None where that was not asked for."""

    output: bytes
    cut: bool
    status: int | None = None


class Hub:
    """Ridgelink's place beside a running HubKeeper: the one sender to queue 1002 and the one reader of queue 1003.

    What earlier talks have left in queue 1003 is taken off first and kept in `leftovers`, each message as its bytes;
    decode_message tells what they are. The queues are never created: `wait` is how long to wait until HubKeeper, when
    it is only just starting, has done that with queue 1002. A missing queue 1003 comes back when HubKeeper sends; the
    first bounce is lost.

    Raises NoQueue when there is no queue 1002, Refused when this user may not send, and PlaceTaken beside another
    living reader of queue 1003, unless `force` is given: both would miss messages. All three take nothing from anybody.
    This process counts as the reader as long as it lives, also after `close`.

    While a request waits for its reply, other messages that come are dropped. A request that is given up, for lack of
    time or by Ctrl-C, is taken back from queue 1002 unless HubKeeper has taken it already: nothing is carried out later
    that nobody waits for. What `send` has sent stays there.
    """

    def __init__(self, *, wait: float = 0.0, force: bool = False) -> None:
        self._to_hub = Queue("inbound", sends=True)  # and so refused, if at all, before anything is taken
        self._from_hub = Queue("ridgelink")
        # HubKeeper takes messages of any type, so the type tells which ones in its queue are requests made here.
        self._mtype = 0x1000000 + os.getpid()
        self._tag = time.time_ns() >> 10 & 0xFFFF  # not where an earlier process began: its replies may still come
        if not self._to_hub.await_queue(wait):
            raise NoQueue(
                "queue 1002 (Ridgelink to HubKeeper) does not exist:"
                " HubKeeper has not run since this machine's start, or somebody has removed it"
            )
        if not force:
            refuse_beside_reader(self._from_hub)
        self.leftovers = list(iter(lambda: self._from_hub.take(0), None))

    def ping(self, timeout: float = 5.0) -> RoundTrip:
        """Sends a heartbeat and waits for its reply. Raises NoAnswer."""
        return self.request(Opcode.HEARTBEAT, Opcode.HEARTBEAT_REPLY, timeout=timeout).time

    def version(self, timeout: float = 5.0) -> bytes:
        """The board's version file, at most 506 bytes; empty when there is no version to be had. Raises NoAnswer."""
        return self.request(Opcode.VERSION, Opcode.VERSION_REPLY, timeout=timeout).payload

    def run(self, command: str, timeout: float = 30.0, *, status: bool = False) -> CommandResult:
        """Runs a shell command on the board, as HubKeeper's user, and waits for its end. Raises NoAnswer.

        The text is sent as it is. Only the first 507 bytes come back, and no exit status; `cut` is True when there are
        507, and then more may have been printed. Of "a; b" only the output of b comes back, so send "{ a; b; }". After
        a text that the shell cannot parse, or that ends in a comment, the output of the command before it comes again.

        With `status`, a shell of its own runs the command: the output of a whole list counts, and standard input is
        empty. Exit status and size come in front, which costs the output some of the 507 bytes; `cut` is exact.

        HubKeeper does nothing else until the command ends, even when `timeout` is over. Let the command bound itself:
        "timeout 10 command". Raises ValueError for a text of more than 999 bytes, with `status` about 870.
        """
        if not isinstance(command, str):
            raise TypeError(f"a command is one text, as for a shell, not {command!r}")
        if not command or "\0" in command:
            raise ValueError("a command has at least one character, and no NUL, which would end it")
        if not status:
            output = self._run_text(command, timeout)
            return CommandResult(output, len(output) == PAYLOAD_MAX)
        mark = os.urandom(3).hex()  # where no shell can run, the reply is an earlier one's
        script = (
            "t=$(mktemp /tmp/hubkeeper.XXXXXX) && { "
            f"sh -c {shlex.quote(command)} </dev/null >$t 2>&1; "
            f"echo {mark} $? $(wc -c <$t); head -c {PAYLOAD_MAX} $t; rm -f $t; }}"
        )
        answer = self._run_script(script, timeout)
        head, _, output = answer.partition(b"\n")
        try:
            came, *numbers = head.decode("ascii", "replace").split()
            code, size = map(int, numbers if came == mark else "")
        except ValueError:
            said = f"it said, or had said before, {_text(answer)!r}"
            raise Refused(f"the board could not prepare the command; {said}") from None
        return CommandResult(output, len(output) < size, code)

    def clocksteward(self, on: bool, timeout: float = 5.0) -> None:
        """Allows Clocksteward's restart (True), or kills it and forbids that (False). Raises NoAnswer.

        Only the bounce is waited for: HubKeeper has taken the request. Once allowed, a dead Clocksteward is restarted
        within about five seconds, if the configuration names it.
        """
        if not isinstance(on, bool):
            raise TypeError(f"Clocksteward is switched by True or False, not by {on!r}")
        opcode = Opcode.CLOCKSTEWARD_ENABLE if on else Opcode.CLOCKSTEWARD_DISABLE
        self._send_and_await_bounce(opcode, b"", timeout)

    def send_file(
        self, source: bytes | str | os.PathLike[str], target: str | os.PathLike[str], timeout: float = 5.0
    ) -> None:
        """Sends a file, by its path, or some bytes to the absolute path `target` on the board, and compares the two.

        An existing target is overwritten. `timeout` is how long nothing may come back; the comparison at the end has
        a minute at least.

        Raises Refused when the target cannot be written or another transfer is open; then nothing was sent, but a
        target that was missing or empty may hold a newline. Raises TransferFailed when size or SHA-256 differ on the
        board afterwards, and NoAnswer in the middle, with a sentence about what is left open. An OSError tells of the
        local file; that, Ctrl-C, and whatever else ends the sending early end the transfer on the board too.
        """
        target = os.fspath(target)
        name = _target_name(target)
        with io.BytesIO(source) if isinstance(source, bytes) else _open_regular(source) as file:
            self._check_target(target, timeout)
            try:
                self._send_and_await_bounce(Opcode.TRANSFER_START, name + b"\0", timeout)
                size, digest = self._send_chunks(file, target, timeout)
            except NoAnswer as error:
                raise NoAnswer(
                    f"{error}; the transfer to {target} may be open, and send(Packet(Opcode.TRANSFER_END)) ends it,"
                    " unless HubKeeper has ended meanwhile: a new one has no transfer open"
                ) from None
        self._compare(target, size, digest, max(timeout, _COMPARE_TIMEOUT))

    def request(self, opcode: int, reply_opcode: int, payload: bytes = b"", timeout: float = 5.0) -> Reply:
        """Sends one Packet with a tag of its own and waits for the Packet with that tag and `reply_opcode`.

        Raises NoAnswer, or ValueError when the Packet is longer than a Bundle.
        """
        packet = Packet(opcode, self._next_tag(), payload)
        start, end = time.monotonic(), moment_after(timeout)
        bounce: float | None = None
        self._put(bytes(Bundle([packet])), timeout, self._mtype)
        for message in self._messages(end):
            if message == Bounce(opcode) and bounce is None:
                bounce = time.monotonic() - start
            if isinstance(message, Packet) and (message.opcode, message.tag) == (reply_opcode, packet.tag):
                return Reply(message.payload, RoundTrip(bounce, time.monotonic() - start))
        raise self._no_answer(timeout)

    def send(self, bundle: Bundle | Packet | bytes, timeout: float = 5.0) -> None:
        """Puts a Bundle, a Packet, or any bytes on queue 1002 as one message, and waits for nothing but room there.

        Bytes are not judged, so this is the way to send what is bad on purpose. Raises NoAnswer when the queue stays
        full, and Refused when the kernel's msgmax does not allow so many bytes.
        """
        if not isinstance(bundle, (Bundle, Packet, bytes)):
            raise TypeError(f"a Bundle, a Packet or bytes can be sent, not {type(bundle).__name__}")
        self._put(bytes(bundle), timeout, MTYPE)

    def receive(self, timeout: float = 5.0) -> Message:
        """The next message from queue 1003: a Bounce, a Packet, or a StateNotice.

        Raises NoAnswer when none has come in time, and NotAPacket for one that is none of these.
        """
        self._require_open()
        data = self._from_hub.take(timeout)
        if data is None:
            raise NoAnswer(f"nothing came within {timeout:g} s; {self._explain()}")
        try:
            return decode_message(data)
        except ValueError as error:
            raise NotAPacket(f"a message on {self._from_hub} is no Packet: {error}", data) from None

    def close(self) -> None:
        """Ends all further use. What is in the queues stays there."""
        self._to_hub.close()
        self._from_hub.close()

    def __enter__(self) -> Hub:
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        self.close()

    # Sending and waiting.

    def _require_open(self) -> None:
        if self._to_hub.closed:
            raise ValueError("this Hub has been closed")

    def _next_tag(self) -> int:
        self._tag = self._tag % 0xFFFF + 1
        return self._tag

    def _put(self, data: bytes, timeout: float, mtype: int) -> None:
        self._require_open()
        if not self._to_hub.put(data, timeout, mtype):
            failure = NoAnswer if self._to_hub.look() else NoQueue
            raise failure(f"nothing could be sent for {timeout:g} s; {self._explain()}")

    def _messages(self, end: float) -> Iterator[Message]:
        """What comes on queue 1003 until the moment `end`, but for messages that nothing can be read from."""
        while (data := self._take(end)) is not None:
            try:
                yield decode_message(data)
            except ValueError:
                continue

    def _take(self, end: float) -> bytes | None:
        try:
            return self._from_hub.take(max(0.0, end - time.monotonic()))
        except BaseException:  # Ctrl-C, mostly: nobody waits for what was requested any more
            self._take_back()
            raise

    def _await_bounce(self, opcode: int, timeout: float) -> None:
        if Bounce(opcode) not in self._messages(moment_after(timeout)):
            raise self._no_answer(timeout)

    def _send_and_await_bounce(self, opcode: int, payload: bytes, timeout: float) -> None:
        self._put(bytes(Packet(opcode, self._next_tag(), payload)), timeout, self._mtype)
        self._await_bounce(opcode, timeout)

    def _take_back(self) -> int:
        return sum(1 for _ in iter(lambda: self._to_hub.take(0, self._mtype), None))

    def _no_answer(self, timeout: float) -> NoAnswer:
        why = self._explain()
        fate = "had left queue 1002, and was not taken back"
        if self._take_back():
            fate = "was taken back, and will not be carried out later"
        return NoAnswer(f"no answer within {timeout:g} s; {why}; the request {fate}")

    def _explain(self) -> str:
        """Why nothing comes, as far as queues and processes tell; disturbs neither."""
        inbound, outbound = self._to_hub.look(), self._from_hub.look()
        if inbound is None:
            return f"{self._to_hub} has been removed"
        reader, taker = inbound.living_reader(), outbound.living_reader() if outbound else None
        last = f"last read by {reader or f'process {inbound.reader}, which is gone'}"
        if inbound.reader == 0:
            last = "last read from another PID namespace" if inbound.taken else "never read by anybody"
        elif reader and reader.is_this:
            last = "last read by this process, which took a request back"
        if inbound.messages > 0:
            count = "1 message" if inbound.messages == 1 else f"{inbound.messages} messages"
            known = reader is not None and not reader.is_this
            state = "is busy with a command, or stopped" if known else "is not running, only just starting, or busy"
            return f"queue 1002 holds {count} and was {last}: HubKeeper {state}"
        if taker and not taker.is_this:
            return f"queue 1002 is empty, but {taker} took messages from queue 1003 too"
        if reader and reader.is_this:
            return "queue 1002 is empty: the last request was taken back"
        if not inbound.taken:
            return "queue 1002 is empty, and nobody has ever read from it: it was removed meanwhile, and made anew"
        if inbound.reader and not reader:
            return f"queue 1002 is empty and was {last}: the HubKeeper that took what was sent has ended since"
        return f"queue 1002 is empty and was {last}: HubKeeper took what was sent, and is busy or has no answer to it"

    # Commands.

    def _run_text(self, text: str, timeout: float) -> bytes:
        command = text.encode("utf-8", "surrogateescape")
        if len(command) > COMMAND_MAX:
            raise ValueError(
                f"the board takes {COMMAND_MAX} bytes of command text; with its quoting this has {len(command)}"
            )
        return self.request(Opcode.COMMAND, Opcode.COMMAND_REPLY, command + b"\0", timeout).payload

    def _run_script(self, script: str, timeout: float) -> bytes:
        return self._run_text(f"{{ {script}; }}", timeout)

    # Files. The target is looked at first, because one that cannot be opened ends the service. The chunks are paced by
    # their bounces, because a full queue would refuse them. The result is compared, because nothing else notices a disk
    # that fills up.

    def _check_target(self, target: str, timeout: float) -> None:
        # The same open as the service's, but for the truncation, by the same user. What was empty gets a byte, so that
        # the truncation shows that the transfer has begun.
        answer = self._run_script(
            f't={shlex.quote(target)}; if [ -d "$t" ]; then echo it is a directory; '
            'elif [ ! -d "${t%/*}/" ]; then echo its directory does not exist; '
            'elif [ -e "$t" ] && [ ! -f "$t" ]; then echo it is not a regular file; '
            'elif (: >>"$t") && ([ -s "$t" ] || echo >>"$t"); then echo ok; fi',
            timeout,
        )
        if answer != b"ok\n":
            reason = _text(answer).rpartition(": ")[2]  # behind what the shell says of itself
            raise Refused(f"cannot send to {target}: {reason or 'it cannot be written'}")

    def _require_begun(self, target: str, timeout: float) -> None:
        if self._run_script(f"[ -s {shlex.quote(target)} ] || echo empty", timeout) != b"empty\n":
            raise Refused(
                "HubKeeper has not begun this transfer: an earlier one was never ended;"
                " if nobody else is sending, send(Packet(Opcode.TRANSFER_END)) ends it"
            )

    def _send_chunks(self, file: BinaryIO, target: str, timeout: float) -> tuple[int, str]:
        """Sends all that the file holds, and the end; returns the size and the SHA-256 of what was sent."""
        size, digest = 0, hashlib.sha256()
        try:
            self._require_begun(target, timeout)
            for number, chunk in enumerate(iter(lambda: file.read(_CHUNK_SIZE), b"")):
                if number >= _UNBOUNCED_MAX:
                    self._await_bounce(Opcode.TRANSFER_CHUNK, timeout)
                self._put(bytes(Packet(Opcode.TRANSFER_CHUNK, self._next_tag(), chunk)), timeout, self._mtype)
                size += len(chunk)
                digest.update(chunk)
        except (NoAnswer, Refused):  # an end would get no answer either, or end another's transfer
            raise
        except BaseException:  # the end must go out in any case, or every further start is refused
            self._send_and_await_bounce(Opcode.TRANSFER_END, b"", timeout)
            raise
        self._send_and_await_bounce(Opcode.TRANSFER_END, b"", timeout)
        return size, digest.hexdigest()

    def _compare(self, target: str, size: int, digest: str, timeout: float) -> None:
        answer = self._run_script(f't={shlex.quote(target)}; wc -c <"$t"; sha256sum <"$t"', timeout)
        words = _text(answer).split()
        if not words or words[0] != str(size):
            raise TransferFailed(
                f"{target} has {words[0] if words else 'no'} bytes on the board instead of {size}; is its disk full?"
            )
        if len(words) < 2 or len(words[1]) != len(digest):
            raise TransferFailed("the size is right, but sha256sum is missing, so the content was not compared")
        if words[1] != digest:
            raise TransferFailed(f"{target} differs on the board: SHA-256 {words[1]} instead of {digest}")


def _text(answer: bytes) -> str:
    return answer.decode("utf-8", "replace").strip()


def _target_name(target: str) -> bytes:
    """The target as a start names it: without its leading slash."""
    if not isinstance(target, str):
        raise TypeError(f"the target is a text or a Path, not {target!r}")
    name = target.encode("utf-8", "surrogateescape")
    if not name.startswith(b"/") or b"\0" in name:
        raise ValueError(f"the target is an absolute path without a NUL, and this is {target!r}")
    if len(name) - 1 > _NAME_MAX:
        raise ValueError(f"the target may have {_NAME_MAX + 1} bytes, and this has {len(name)}")
    return name[1:]


def _open_regular(path: str | os.PathLike[str]) -> BinaryIO:
    file = open(os.fspath(path), "rb")  # no number, which open would take for a descriptor
    if stat.S_ISREG(os.fstat(file.fileno()).st_mode):
        return file
    file.close()
    raise ValueError(f"{os.fspath(path)} is not a regular file")

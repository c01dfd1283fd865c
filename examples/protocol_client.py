#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Asks a process that has zel. Uses nothing of zel, only the command channel that docs/protocol.md describes.

  protocol_client.py PID WORD...
"""

import fcntl
import os
import select
import signal
import socket
import struct
import sys
import time


# [signal]
CHANNEL_SIGNAL = 55


def status(pid, key):
    """The words behind "key:" in /proc/<pid>/status."""
    with open(f"/proc/{pid}/status", encoding="utf-8", errors="replace") as lines:
        return next(line.split()[1:] for line in lines if line.startswith(key + ":"))


def catches_the_signal(pid):
    return int(status(pid, "SigCgt")[0], 16) >> (CHANNEL_SIGNAL - 1) & 1 == 1
# [/signal]


# [packet]
HEADER = struct.Struct("=IHBBi4I")  # the machine's byte order, no padding: 28 bytes
MAGIC, VERSION = 0x6F6D7367, 1
CONNECT, COMMAND = 1, 2


def packet(kind, *parts, descriptors=0):
    lengths = [len(part) for part in parts] + [0] * (4 - len(parts))
    return HEADER.pack(MAGIC, VERSION, len(parts), descriptors, kind, *lengths) + b"".join(parts)
# [/packet]


# [send]
def send(pid, data, *descriptors):
    """One message: a connection of its own, one packet, and good-bye."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as connection:
        connection.setsockopt(socket.SOL_SOCKET, socket.SO_SNDTIMEO, struct.pack("@ll", 1, 0))
        connection.connect(f"\0orn.msg.cmd.{pid}")
        peer = connection.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, struct.calcsize("iII"))
        owner, user, _ = struct.unpack("iII", peer)
        trusted = user in (0, os.geteuid()) or os.geteuid() == 0 and user == int(status(pid, "Uid")[1])
        if owner != pid or not trusted:
            raise PermissionError(f"the queue of process {pid} is that of process {owner}, user {user}")
        rights = struct.pack(f"{len(descriptors)}i", *descriptors)
        connection.sendmsg([data], [(socket.SOL_SOCKET, socket.SCM_RIGHTS, rights)] if descriptors else [])
# [/send]


# [pipe]
F_SETPIPE_SZ = 1031  # Linux: fcntl.F_SETPIPE_SZ from Python 3.10 on


def enlarge(pipe):
    """To a mebibyte, or to what this user may have."""
    for size in (1 << 20, 1 << 19, 1 << 18, 1 << 17):
        try:
            return fcntl.fcntl(pipe, F_SETPIPE_SZ, size)
        except PermissionError:
            pass


def full(pipe):
    """Whether there is no room. Ask before each read: only reading makes room, so it cannot be missed."""
    end = os.open(f"/proc/self/fd/{pipe}", os.O_WRONLY | os.O_NONBLOCK)
    try:
        return not select.select([], [end], [], 0)[1]
    finally:
        os.close(end)
# [/pipe]


class Channel:
    # [connect]
    def __init__(self, pid, seconds=5):
        if not catches_the_signal(pid):
            raise PermissionError(f"process {pid} does not catch signal {CHANNEL_SIGNAL}: it would be ended")
        self.pid, self.marks = pid, 0
        self.identity = struct.pack("=i", os.getpid())
        self.answers, answers_in = os.pipe()
        os.fchmod(answers_in, 0o622)  # the process opens it anew, perhaps as another user than root
        enlarge(answers_in)
        os.kill(pid, CHANNEL_SIGNAL)
        deadline = time.monotonic() + seconds
        while True:
            try:
                send(pid, packet(CONNECT, self.identity, descriptors=1), answers_in)
                break
            except (ConnectionRefusedError, BlockingIOError):  # the process has not opened its queue yet
                if time.monotonic() > deadline:
                    raise
                time.sleep(0.01)
        os.close(answers_in)  # now the end of the stream means that the process has ended
    # [/connect]

    # [ask]
    def command(self, text):
        send(self.pid, packet(COMMAND, self.identity, text + b"\0"))

    def ask(self, text):
        """The lines of the answer; self.lost then tells whether some may be missing."""
        self.marks += 1
        self.lost = False
        mark = b"mark-%d-%d" % (os.getpid(), self.marks)  # a word that nobody has
        end = b'received "%s"\n' % mark
        self.command(text)
        self.command(mark)
        got = b""
        while end not in got:
            if not select.select([self.answers], [], [], 0.25)[0]:
                self.command(mark)  # the pipe was full, and the first mark was lost
                continue
            self.lost = self.lost or full(self.answers)
            data = os.read(self.answers, 65536)
            if not data:
                raise EOFError(f"process {self.pid} has ended")
            got += data
        answer = got.partition(end)[0]
        echo = b'received "%s"\n' % text  # behind what earlier marks have left
        return (answer.partition(echo)[2] if echo in answer else answer).decode(errors="replace").splitlines()
    # [/ask]

    def close(self):
        os.close(self.answers)


def main():
    if len(sys.argv) < 3 or not sys.argv[1].isdigit():
        print(__doc__.strip(), file=sys.stderr)
        return 2
    try:
        channel = Channel(int(sys.argv[1]))
        for line in channel.ask(os.fsencode(" ".join(sys.argv[2:]))):
            print(line)
        if channel.lost:
            print("protocol_client: lines were lost: the pipe was full", file=sys.stderr)
        return 1 if channel.lost else 0
    except (OSError, EOFError) as error:
        print(f"protocol_client: {error}", file=sys.stderr)
        return 1


if __name__ == "__main__":
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)
    sys.exit(main())

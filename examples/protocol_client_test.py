#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Checks docs/protocol.md and docs/modules.md against a real process.

  protocol_client_test.py SERVER HELLO MEMORY

SERVER prints its process id when it is called with "serve". HELLO and MEMORY are the modules of examples/modules.
"""

import fcntl
import os
import socket
import struct
import subprocess
import sys
import unittest

sys.dont_write_bytecode = True
import protocol_client as protocol  # noqa: E402

SERVER, HELLO, MEMORY = sys.argv[1:]
SECONDS = 10 * int(os.environ.get("ZEL_TEST_SCALE", "1"))


class ProtocolTest(unittest.TestCase):
    def setUp(self):
        environment = dict(os.environ, ZEL_PRELOAD=MEMORY)
        self.server = subprocess.Popen([SERVER, "serve"], stdout=subprocess.PIPE, env=environment)
        self.pid = int(self.server.stdout.readline())
        self.channel = protocol.Channel(self.pid, SECONDS)

    def tearDown(self):
        self.channel.close()
        self.server.terminate()
        self.assertEqual(self.server.wait(SECONDS), 0)
        self.server.stdout.close()

    def still_serves(self):
        self.assertEqual(self.channel.ask(b"twice tea"), ["tea tea"])

    def test_words_are_answered_and_unknown_ones_echoed(self):
        self.still_serves()
        self.assertEqual(self.channel.ask(b"foo"), ["1/1 foo"])
        self.assertEqual(self.channel.ask(b"2 x"), ["1/2 2 x", "2/2 2 x"])
        self.assertEqual(self.channel.ask(b"0 x"), [])
        self.assertEqual(self.channel.ask(b""), ["1/1 "])
        self.assertEqual(self.channel.ask(b"zel tasks")[0], "TaskMgrs:")
        self.assertEqual(self.channel.ask(b"zel sing"), ["[zel] sing: no such command"])

    def test_an_answer_larger_than_the_pipe_is_cut_and_the_next_is_whole(self):
        lines = self.channel.ask(b"100000 x")
        self.assertGreater(len(lines), 1000)
        self.assertLess(len(lines), 100000)
        self.assertEqual(lines, [f"{i}/100000 100000 x" for i in range(1, len(lines) + 1)])
        self.still_serves()

    def test_a_long_answer_is_whole_or_known_to_be_cut(self):
        text = b"x" * 100000
        self.assertEqual(self.channel.ask(b"twice " + text), [f"{text.decode()} {text.decode()}"])
        self.assertFalse(self.channel.lost)
        fcntl.fcntl(self.channel.answers, protocol.F_SETPIPE_SZ, 65536)
        self.assertLess(len(self.channel.ask(b"twice " + text)[0]), 200001)
        self.assertTrue(self.channel.lost)
        self.still_serves()
        self.assertFalse(self.channel.lost)

    def test_what_is_no_message_is_dropped(self):
        identity = self.channel.identity
        good = protocol.packet(protocol.COMMAND, identity, b"foo\0")
        for bad in (
            b"x",
            good[:-1],
            good + b"x",
            b"\0" + good[1:],
            protocol.packet(protocol.COMMAND, identity),
            protocol.packet(protocol.COMMAND, identity[:3], b"foo\0"),
            protocol.packet(protocol.COMMAND, identity, b"foo\0", b"bar\0"),
            protocol.packet(protocol.COMMAND, identity, b"foo\0", descriptors=1),
            protocol.packet(protocol.COMMAND, identity, b"f" * (128 * 1024 - 3)),
            protocol.packet(protocol.CONNECT, identity),
            protocol.packet(3, identity),
        ):
            protocol.send(self.pid, bad)
        # Nothing of them has been answered, since the answer begins with the echo of this command.
        protocol.send(self.pid, protocol.packet(protocol.COMMAND, identity, b"no end"))
        self.assertEqual(os.read(self.channel.answers, 17), b'received "no end"')
        self.still_serves()

    def test_modules_bring_their_words_and_take_them_along(self):
        name = os.fsencode(HELLO)
        self.assertEqual([line.split(":")[0] for line in self.channel.ask(b"memory")], ["VmHWM", "VmRSS"])
        self.assertEqual(
            self.channel.ask(b"zel load " + name + b" /nowhere.so"),
            [HELLO + ": loaded", "/nowhere.so: cannot open shared object file: No such file or directory"],
        )
        self.assertEqual(self.channel.ask(b"hello tester"), [f"hello tester, from process {self.pid}"])
        self.assertEqual(self.channel.ask(b"zel unload x " + name), ["x: not found", HELLO + ": unloaded"])
        self.assertEqual(self.channel.ask(b"hello tester"), ["1/1 hello tester"])
        with open(f"/proc/{self.pid}/maps", encoding="utf-8") as maps:
            self.assertNotIn(HELLO, maps.read())

    def test_connecting_again_replaces_the_descriptor_and_leaves_the_own_end_as_it_was(self):
        answers, answers_in = os.pipe()
        protocol.send(self.pid, protocol.packet(protocol.CONNECT, self.channel.identity, descriptors=1), answers_in)
        self.channel.command(b"foo")
        got = b""
        while not got.endswith(b"1/1 foo\n"):
            got += os.read(answers, 4096)
        self.assertEqual(got, b'received "foo"\n1/1 foo\n')
        self.assertFalse(fcntl.fcntl(answers_in, fcntl.F_GETFL) & os.O_NONBLOCK)
        os.close(answers)
        os.close(answers_in)

    def test_the_end_of_the_process_ends_the_stream(self):
        self.still_serves()
        self.server.terminate()
        while os.read(self.channel.answers, 4096):
            pass
        self.server.wait(SECONDS)  # a second signal, while the library is taken down, would end it at once

    def test_strangers_are_left_alone(self):
        stranger = subprocess.Popen(["sleep", "60"])
        try:
            with self.assertRaises(PermissionError):
                protocol.Channel(stranger.pid)
            self.assertIsNone(stranger.poll())
            with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as squatter:
                squatter.bind(f"\0orn.msg.cmd.{stranger.pid}")
                squatter.listen()
                with self.assertRaises(PermissionError):
                    protocol.send(stranger.pid, protocol.packet(protocol.COMMAND, struct.pack("=i", 1), b"foo\0"))
        finally:
            stranger.kill()
            stranger.wait()


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])

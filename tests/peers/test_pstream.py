#!/usr/bin/env python3
"""The Python codec on its own: byte vectors of the wire format's table, the
key and length rules, merging of repeated keys and malformed input."""

import hashlib
import os
import socket
import sys
import threading
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from pstream import (Binary, BinaryEx, Buffer, PStreamError, decode,  # noqa: E402
                     decode_prefix, encode, recv_value, send_value, wire_form)

H = bytes.fromhex


class VectorTest(unittest.TestCase):
    VECTORS = [
        (None, "00 00"),
        (0, "01 01 00"),
        (255, "01 01 ff"),
        (256, "01 02 01 00"),
        (65536, "01 04 00 01 00 00"),
        (2**32, "01 08 00 00 00 01 00 00 00 00"),
        (-1, "01 08 ff ff ff ff ff ff ff ff"),
        ("", "10 00 00"),
        ("x", "10 00 01 78"),
        ({}, "42 40"),
        ([], "41 40"),
        ({"b": 1, "a": 2}, "42 10 00 01 61 01 01 02 10 00 01 62 01 01 01 40"),
        (Buffer(b"ab"), "20 00 00 00 02 61 62"),
        (Binary(b"xyz"), "30 00 00 00 00 00 00 00 03 78 79 7a"),
        ([None, [{}]], "41 00 00 41 42 40 40 40"),
    ]

    def test_vectors_both_ways(self):
        for value, hex_bytes in self.VECTORS:
            with self.subTest(value=value):
                self.assertEqual(H(hex_bytes), encode(value))
                self.assertEqual(value, decode(H(hex_bytes)))

    def test_key_rule_and_string_cut(self):
        self.assertEqual(H("42 10 00 05") + b"agent" + H("10 00 01 78 40"),
                         encode({"_agent": "x"}))
        self.assertEqual({"agent": "x"}, wire_form({"_agent": "x"}))
        self.assertEqual(H("10 00 01 61"), encode("a" + "b" * 65536))
        self.assertEqual(b"\xff\x00", decode(encode(b"\xff\x00")))
        self.assertEqual(b"\xff", decode(encode("\u00ff".encode("latin-1")), text=False))

    def test_binary_ex(self):
        data = b"hello world\n"
        digest = hashlib.sha256(data).hexdigest()
        wire = encode(BinaryEx(data, hash_algo="sha256"))
        self.assertEqual(H("43 10 00 06") + b"binary" + H("30 00 00 00 00 00 00 00 0c") + data +
                         H("10 00 09") + b"send_hash" + H("10 00 40") + digest.encode() +
                         H("40"), wire)
        got = decode(wire, hash_algo="sha256")
        self.assertEqual((data, digest, digest), (got.data, got.send_hash, got.recv_hash))

    def test_inputs_the_writer_never_makes(self):
        self.assertEqual(0, decode(H("01 00")))
        self.assertEqual(5, decode(H("01 03 00 00 05")))
        k = H("10 00 01 6b")
        self.assertEqual({"k": [1, 2]},
                         decode(H("42") + k + H("41 01 01 01 40") + k + H("41 01 01 02 40 40")))
        self.assertEqual({"k": {"a": 1, "b": 2}},
                         decode(H("42") + k + encode({"a": 1}) + k + encode({"b": 2}) + H("40")))
        self.assertEqual({"k": "s"}, decode(H("42") + k + encode(1) + k + encode("s") + H("40")))

    def test_malformed(self):
        cases = [("00 01", -5), ("42 01", -5), ("07", -5), ("40", -5), ("01 c8", -5),
                 ("41" * 129 + "40" * 129, -5), ("10 00 05 61", -2), ("", -2)]
        for hex_bytes, code in cases:
            with self.subTest(input=hex_bytes):
                with self.assertRaises(PStreamError) as caught:
                    decode(H(hex_bytes))
                self.assertEqual(code, caught.exception.code)
        self.assertEqual(([[]], 4), decode_prefix(H("41 41 40 40 00")))

    def test_socket_round_trip(self):
        a, b = socket.socketpair()
        value = {"list": [1, "two", Buffer(b"3")], "file": Binary(b"\x00" * 100000)}
        sender = threading.Thread(target=send_value, args=(a, value))
        sender.start()
        self.assertEqual(value, recv_value(b))
        sender.join()
        a.close()
        b.close()


if __name__ == "__main__":
    unittest.main()

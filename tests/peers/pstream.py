"""Encoder and decoder of the daemon's tagged wire format, for test peers.

Standard library only.  Every value starts with a one-byte tag (TAG_*
below, each with its body); every multi-byte number is big-endian.

Python representation:

    None                 null
    int                  integer (signed 64-bit; wider values are cut)
    str / bytes          string (str is sent as UTF-8); decoded as str when
                         the bytes are UTF-8, else bytes (text=False: bytes)
    list                 array
    dict                 map (str or bytes keys)
    Buffer(data)         buffer
    Binary(data)         binary: the file content itself
    BinaryEx(data, ...)  binary_ex: content, digest name and digest texts

The writer behaves like the daemon's: members in bytewise key order, a key
whose first character is '_' sent without it, an integer in 1, 2, 4 or 8
bytes (as unsigned: below 2**8, below 2**16, upper half zero, else 8), and a
string cut to its length modulo 65536.
"""

import hashlib

TAG_NULL = 0x00       # one byte 0x00
TAG_INTEGER = 0x01    # one byte N, then N bytes (two's complement when N = 8)
TAG_STRING = 0x10     # 16-bit length L, then L bytes
TAG_BUFFER = 0x20     # 32-bit length L, then L bytes
TAG_BINARY = 0x30     # 64-bit length L, then L bytes of file content
TAG_END = 0x40        # closes an array, a map or a binary_ex
TAG_ARRAY = 0x41      # the elements, then TAG_END
TAG_MAP = 0x42        # per member: key (a string value), value; then TAG_END
TAG_BINARY_EX = 0x43  # members "binary" (a binary), "send_hash" (a string), TAG_END

MAX_DEPTH = 128
ERR_CHANNEL = -2    # the daemon decoder's code for input that ended
ERR_MALFORMED = -5  # and for input that is no value


class PStreamError(Exception):
    def __init__(self, code, message):
        super().__init__("%s (%d)" % (message, code))
        self.code = code


class _Bytes:
    def __init__(self, data=b""):
        self.data = bytes(data)

    def __eq__(self, other):
        return type(other) is type(self) and self.data == other.data

    def __repr__(self):
        return "%s(%d bytes)" % (type(self).__name__, len(self.data))


class Buffer(_Bytes):
    """An in-memory byte block."""


class Binary(_Bytes):
    """A file's byte range; on the wire only its content travels."""


class Raw(_Bytes):
    """Bytes already in wire form, sent as they are (large test input)."""


class BinaryEx:
    """A file's byte range with a digest: `send_hash`, else the hex digest of
    `data` by `hash_algo`, else "" travels.  Decoding fills `data`,
    `send_hash`, and `recv_hash` when the decoder has a `hash_algo`."""

    def __init__(self, data=b"", hash_algo="", send_hash=None, recv_hash=""):
        self.data = bytes(data)
        self.hash_algo = hash_algo
        self.send_hash = send_hash
        self.recv_hash = recv_hash

    def wire_hash(self):
        if self.send_hash is not None:
            return self.send_hash
        return hashlib.new(self.hash_algo, self.data).hexdigest() if self.hash_algo else ""

    def __eq__(self, other):
        return (isinstance(other, BinaryEx) and self.data == other.data and
                self.wire_hash() == other.wire_hash())

    def __repr__(self):
        return "BinaryEx(%d bytes, send_hash=%r)" % (len(self.data), self.send_hash)


# ---- encoding ----

def _as_bytes(text):
    return text.encode("utf-8") if isinstance(text, str) else bytes(text)


def _sized(tag, width, raw):
    return bytes([tag]) + len(raw).to_bytes(width, "big") + raw


def _encode(value, out):
    if value is None:
        out += bytes([TAG_NULL, 0])
    elif isinstance(value, int):  # bool too
        bits = value & 0xFFFFFFFFFFFFFFFF
        width = 1 if bits < 1 << 8 else 2 if bits < 1 << 16 else 4 if bits >> 32 == 0 else 8
        out += bytes([TAG_INTEGER, width]) + bits.to_bytes(width, "big")
    elif isinstance(value, (str, bytes, bytearray)):
        raw = _as_bytes(value)
        out += _sized(TAG_STRING, 2, raw[:len(raw) & 0xFFFF])
    elif isinstance(value, Buffer):
        out += _sized(TAG_BUFFER, 4, value.data)
    elif isinstance(value, Binary):
        out += _sized(TAG_BINARY, 8, value.data)
    elif isinstance(value, Raw):
        out += value.data
    elif isinstance(value, BinaryEx):
        out.append(TAG_BINARY_EX)
        for member in ("binary", Binary(value.data), "send_hash", value.wire_hash()):
            _encode(member, out)
        out.append(TAG_END)
    elif isinstance(value, (list, tuple)):
        out.append(TAG_ARRAY)
        for element in value:
            _encode(element, out)
        out.append(TAG_END)
    elif isinstance(value, dict):
        out.append(TAG_MAP)
        for key in sorted(value, key=_as_bytes):
            raw = _as_bytes(key)
            _encode(raw[1:] if raw[:1] == b"_" else raw, out)
            _encode(value[key], out)
        out.append(TAG_END)
    else:
        raise TypeError("no wire form for %r" % type(value))


def encode(value):
    """The bytes of one value."""
    out = bytearray()
    _encode(value, out)
    return bytes(out)


# ---- decoding ----

class _BytesReader:
    def __init__(self, data):
        self.data = memoryview(data)
        self.pos = 0

    def read(self, n):
        if self.pos + n > len(self.data):
            raise PStreamError(ERR_CHANNEL, "input ended after %d bytes" % len(self.data))
        self.pos += n
        return bytes(self.data[self.pos - n:self.pos])


class _SocketReader:
    def __init__(self, sock):
        self.sock = sock

    def read(self, n):
        parts = []
        while n > 0:
            parts.append(self.sock.recv(min(n, 1 << 20)))
            if not parts[-1]:
                raise PStreamError(ERR_CHANNEL, "peer closed")
            n -= len(parts[-1])
        return b"".join(parts)


def _merge(target, value):
    """A repeated key: arrays append, maps merge, a second file range goes
    on after the first (same file), anything else replaces."""
    if isinstance(target, Binary) and isinstance(value, Binary):
        return Binary(target.data + value.data)
    if isinstance(target, BinaryEx) and isinstance(value, BinaryEx):
        return BinaryEx(target.data + value.data, value.hash_algo, value.send_hash,
                        value.recv_hash)
    if isinstance(target, list) and isinstance(value, list):
        return target + value
    if isinstance(target, dict) and isinstance(value, dict):
        merged = dict(target)
        for k, v in value.items():
            merged[k] = _merge(merged[k], v) if k in merged else v
        return merged
    return value


class _Decoder:
    def __init__(self, reader, text, hash_algo):
        self.reader = reader
        self.text = text
        self.hash_algo = hash_algo
        self.depth = 0

    def read_int(self, width):
        return int.from_bytes(self.reader.read(width), "big")

    def string(self):
        raw = self.reader.read(self.read_int(2))
        try:
            return raw.decode("utf-8") if self.text else raw
        except UnicodeDecodeError:
            return raw

    def key(self, tag):
        if tag != TAG_STRING:
            raise PStreamError(ERR_MALFORMED, "expect string, but get tag %u" % tag)
        return self.string()

    def until_end(self):
        """The tags of a container's members, up to its TAG_END."""
        if self.depth >= MAX_DEPTH:
            raise PStreamError(ERR_MALFORMED, "nested deeper than %d" % MAX_DEPTH)
        self.depth += 1
        while (tag := self.read_int(1)) != TAG_END:
            yield tag
        self.depth -= 1

    def value(self):
        return self.tagged(self.read_int(1))

    def tagged(self, tag):
        if tag == TAG_NULL:
            length = self.read_int(1)
            if length != 0:
                raise PStreamError(ERR_MALFORMED, "expect length 0, but we've got %u" % length)
            return None
        if tag == TAG_INTEGER:
            width = self.read_int(1)
            if width > 8:
                raise PStreamError(ERR_MALFORMED, "integer of %d bytes" % width)
            bits = self.read_int(width)
            return bits - (1 << 64) if bits >= 1 << 63 else bits
        if tag == TAG_STRING:
            return self.string()
        if tag == TAG_BUFFER:
            return Buffer(self.reader.read(self.read_int(4)))
        if tag == TAG_BINARY:
            return Binary(self.reader.read(self.read_int(8)))
        if tag == TAG_ARRAY:
            return [self.tagged(t) for t in self.until_end()]
        if tag == TAG_MAP:
            members = {}
            for t in self.until_end():
                k, v = self.key(t), self.value()
                members[k] = _merge(members[k], v) if k in members else v
            return members
        if tag == TAG_BINARY_EX:
            ex = BinaryEx(hash_algo=self.hash_algo)
            for t in self.until_end():
                k, v = _as_bytes(self.key(t)), self.value()
                if k == b"binary" and isinstance(v, Binary):
                    ex.data = v.data
                    if self.hash_algo:
                        ex.recv_hash = hashlib.new(self.hash_algo, v.data).hexdigest()
                elif k == b"send_hash" and isinstance(v, (str, bytes)):
                    ex.send_hash = v if isinstance(v, str) else v.decode("latin-1")
            return ex
        raise PStreamError(ERR_MALFORMED, "unknown tag %u" % tag)


def decode(data, text=True, hash_algo=""):
    """Decodes exactly one value; trailing bytes are an error (-5)."""
    reader = _BytesReader(data)
    value = _Decoder(reader, text, hash_algo).value()
    if reader.pos != len(data):
        raise PStreamError(ERR_MALFORMED, "%d bytes after the value" % (len(data) - reader.pos))
    return value


def recv_value(sock, text=True, hash_algo=""):
    """Reads one value from a connected socket, no byte more."""
    return _Decoder(_SocketReader(sock), text, hash_algo).value()


def send_value(sock, value):
    sock.sendall(encode(value))


def wire_form(value):
    """`value` as it reads back after one trip: keys without their leading
    '_', long strings cut, text that is not UTF-8 as bytes."""
    return decode(encode(value))

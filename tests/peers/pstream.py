"""Encoder and decoder of the daemon's tagged wire format, for test peers.

Every value is a one-byte tag (TAG_* below) and its body, numbers
big-endian.  Python values: None, int (signed 64-bit), str / bytes (decoded
as str when UTF-8), list, dict, Buffer, Binary (a file's content) and
BinaryEx (a file's content and its digest text).  The writer behaves like
the daemon's: members in bytewise key order, a leading '_' of a key dropped,
integers in 1, 2, 4 or 8 bytes (as unsigned: below 2**8, below 2**16, upper
half zero, else 8), strings cut to their length modulo 65536.
"""

TAG_NULL = 0x00       # one byte 0x00
TAG_INTEGER = 0x01    # one byte N, then N bytes (two's complement when N = 8)
TAG_STRING = 0x10     # 16-bit length L, then L bytes
TAG_BUFFER = 0x20     # 32-bit length L, then L bytes
TAG_BINARY = 0x30     # 64-bit length L, then L bytes of file content
TAG_END = 0x40        # closes an array, a map or a binary_ex
TAG_ARRAY = 0x41      # the elements, then TAG_END
TAG_MAP = 0x42        # per member: key (a string value), value; then TAG_END
TAG_BINARY_EX = 0x43  # members "binary" (a binary), "send_hash" (a string), TAG_END


class PStreamError(Exception):
    """Input that ended early or is no value."""


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


class BinaryEx(_Bytes):
    """A file's byte range with the sender's digest text."""

    def __init__(self, data=b"", send_hash=""):
        super().__init__(data)
        self.send_hash = send_hash

    def __eq__(self, other):
        return super().__eq__(other) and self.send_hash == other.send_hash


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
        for member in ("binary", Binary(value.data), "send_hash", value.send_hash):
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


class _Decoder:
    def __init__(self, read):
        self.read = read  # exactly n bytes, or PStreamError

    def number(self, width):
        return int.from_bytes(self.read(width), "big")

    def string(self):
        raw = self.read(self.number(2))
        try:
            return raw.decode("utf-8")
        except UnicodeDecodeError:
            return raw

    def tags(self):
        """The tags of a container's members, up to its TAG_END."""
        while (tag := self.number(1)) != TAG_END:
            yield tag

    def members(self):
        for tag in self.tags():
            if tag != TAG_STRING:
                raise PStreamError("expect string, but get tag %u" % tag)
            yield self.string(), self.value()

    def value(self):
        return self.tagged(self.number(1))

    def tagged(self, tag):
        if tag == TAG_NULL and self.number(1) == 0:
            return None
        if tag == TAG_INTEGER:
            bits = self.number(self.number(1))
            return bits - (1 << 64) if bits >= 1 << 63 else bits
        if tag == TAG_STRING:
            return self.string()
        if tag == TAG_BUFFER:
            return Buffer(self.read(self.number(4)))
        if tag == TAG_BINARY:
            return Binary(self.read(self.number(8)))
        if tag == TAG_ARRAY:
            return [self.tagged(t) for t in self.tags()]
        if tag == TAG_MAP:
            return dict(self.members())
        if tag == TAG_BINARY_EX:
            members = dict(self.members())
            return BinaryEx(members["binary"].data, members["send_hash"])
        raise PStreamError("no value has tag %u" % tag)


def decode(data):
    """Exactly one value from `data`."""
    view, pos = memoryview(data), 0

    def read(n):
        nonlocal pos
        if pos + n > len(view):
            raise PStreamError("input ended after %d bytes" % len(view))
        pos += n
        return bytes(view[pos - n:pos])

    value = _Decoder(read).value()
    if pos != len(view):
        raise PStreamError("%d bytes after the value" % (len(view) - pos))
    return value


def recv_value(sock):
    """Reads one value from a connected socket, no byte more."""
    def read(n):
        parts = []
        while n > 0:
            parts.append(sock.recv(min(n, 1 << 20)))
            if not parts[-1]:
                raise PStreamError("peer closed")
            n -= len(parts[-1])
        return b"".join(parts)

    return _Decoder(read).value()


def send_value(sock, value):
    sock.sendall(encode(value))

"""Builds captures from bytes: messages of ZEB, the TIPC around them, and what TIPC travels in. Nothing comes from the library."""
import struct

NAME_TYPE = 2303
SYNC, REQUEST, ACK, MNG = 1, 2, 4, 8
ETHERTYPE = 0x88CA
UDP_PORT = 6118

# TIPC's users, and kinds of their messages.
DATA, BUNDLER, FRAGMENTER = 0, 6, 12
MCAST_MSG, NAMED_MSG, DIRECT_MSG = 1, 2, 3


def words(*values):
    return b"".join(struct.pack(">I", value & 0xFFFFFFFF) for value in values)


def message(flag=0, body=b"", src=(0x4321, 0x1234), dst=(0x1ABC, 0xFEDC), seq=0, stat=0, ver=2, app_ver=1, length=None, rsvd=0, qos=0):
    """A message of the application and node `src`; `length` lies about its length."""
    head = bytes([ver, rsvd, flag, qos])
    return head + words(36 + len(body) if length is None else length, src[1], dst[1], src[0], dst[0], app_ver, seq, stat) + body


def element(kind, value=b"", length=None):
    """One element with its padding; `length` lies about its length."""
    size = 4 + len(value) if length is None else length
    return struct.pack(">HH", size, kind) + value + bytes(-len(value) % 4)


def tipc(payload, name=(NAME_TYPE, None), error=0, user=DATA, kind=NAMED_MSG, src=0x01001001, dst=0x01001002, word4=0x1111, size=None):
    """A TIPC message. Without a name instance it goes to the one that the header of `payload` names."""
    head_len = {NAMED_MSG: 40, DIRECT_MSG: 32, MCAST_MSG: 44}[kind] if user == DATA else 40
    instance = name[1]
    if instance is None:
        node, app = (struct.unpack(">I", payload[at : at + 4].ljust(4, b"\0"))[0] for at in (12, 20))
        instance = (app & 0xFFFF) << 16 | node & 0xFFFF
    size = head_len + len(payload) if size is None else size
    head = words(2 << 29 | user << 25 | head_len // 4 << 21 | size, kind << 29 | error << 25 | 2 << 19, 7, src, word4, 0x2222, src, dst)
    return (head + words(name[0], instance, instance))[:head_len] + payload


def bundle(*messages):
    """Several TIPC messages in one, each from a multiple of 4 on."""
    body = b"".join(inner + bytes(-len(inner) % 4) for inner in messages)
    packed = bytearray(tipc(body, user=BUNDLER, kind=0, name=(0, 0)))
    packed[36:40] = words(len(messages) << 16)
    return bytes(packed)


def fragments(whole, size=1400, number=77):
    """What a link sends of a message that is longer than its packets."""
    parts = [whole[at : at + size] for at in range(0, len(whole), size)]
    for index, part in enumerate(parts):
        kind = 0 if index == 0 else 2 if index == len(parts) - 1 else 1
        yield tipc(part, user=FRAGMENTER, kind=kind, name=(0, 0), word4=(index + 1) << 16 | number)


def ethernet(payload, kind=ETHERTYPE):
    return b"\x52\x54\x00\x12\x34\x02\x52\x54\x00\x12\x34\x01" + struct.pack(">H", kind) + payload


def over_udp(payload):
    udp = struct.pack(">HHHH", UDP_PORT, UDP_PORT, 8 + len(payload), 0) + payload
    ip = struct.pack(">BBHHHBBH4s4s", 0x45, 0, 20 + len(udp), 1, 0, 64, 17, 0, bytes([10, 0, 0, 1]), bytes([10, 0, 0, 2]))
    return ethernet(ip + udp, 0x0800)


class Capture:
    """Frames in their order, each with a label and a time in microseconds; `cut` is how much of one was captured."""

    def __init__(self):
        self.frames = []
        self.numbers = {}
        self.now = 1_700_000_000_000_000

    def add(self, label, frame, after=1000, cut=None):
        self.now += after
        self.frames.append((self.now, frame, cut))
        assert label not in self.numbers, label
        self.numbers[label] = len(self.frames)

    def zeb(self, label, bytes_of_message, after=1000, cut=None, **of_tipc):
        """A message over TIPC over Ethernet."""
        self.add(label, ethernet(tipc(bytes_of_message, **of_tipc)), after, cut)

    def write(self, path):
        with open(path, "wb") as out:
            out.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 262144, 1))
            for now, frame, cut in self.frames:
                part = frame[:cut]
                out.write(struct.pack("<IIII", now // 1_000_000, now % 1_000_000, len(part), len(frame)) + part)

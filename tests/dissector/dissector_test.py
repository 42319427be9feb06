#!/usr/bin/env python3
"""The dissector, over captures that are built from bytes, and over talk.pcapng.gz, which two machines with TIPC of the kernel
recorded: what tshark says of each frame. Usage: dissector_test.py [TEST…]

./record makes two captures, and has them checked with `--capture FILE` and `--talk FILE`. ZEB_DISSECTOR names another script
than the tree's."""
import json
import os
import pathlib
import random
import re
import subprocess
import sys
import tempfile
import unittest

from frames import (ACK, DIRECT_MSG, MCAST_MSG, MNG, REQUEST, SYNC, Capture, bundle, element, ethernet, fragments, message, over_udp, tipc,
                    words)

HERE = pathlib.Path(__file__).resolve().parent
SCRIPT = os.environ.get("ZEB_DISSECTOR", HERE.parent.parent / "tools/wireshark/zeb.lua")
PAGE = HERE.parent.parent / "docs/dissector.md"
SECONDS = 100  # for one run of tshark

# The two instances of every message that does not say otherwise.
FROM_TO = "17185/4660 → 6844/65244"

# Whole messages as bytes, as they stand in the tests of the library's own bytes.
HEAD = "000012340000fedc" "0000432100001abc"
HELLO = bytes.fromhex("020000ee" "00000029" + HEAD + "01020304" "00000000" "00000000" "68656c6c6f")
SYNC_INST = bytes.fromhex("02000100" "0000003c" + HEAD + "000000010000000000000000" "00180001" "a1b2c3d4" "0badcafe" "00000001" "00000000" "00000258")
ACK_BODY = "a1b2c3d4" "00000bad" "00000001" "00000000" "00000258"
BOTH_ACKS = bytes.fromhex("02000100" "00000058" + HEAD + "000000010000000000000000" "00180002" + ACK_BODY + "001c0009" + ACK_BODY + "00000046")
OLD_ACK = bytes.fromhex("01000100" "0000003c" + HEAD + "000000010000000000000000" "00180002" + ACK_BODY)


def sync(seq, resume=0, **more):
    return message(SYNC, element(1, words(seq, 99, 1, resume, 600)), **more)


def acks(seq, pseq, **more):
    body = words(seq, 88, 1, 0, 600)
    return message(SYNC, element(2, body) + element(9, body + words(pseq)), **more)


def little(*values):
    return b"".join(value.to_bytes(4, "little") for value in values)


STATISTICS = b"Application 17185/4660 process's ZEB library information:\n\0"
MANAGEMENT = {  # by the element's type: value, and whether it is a reply
    "num ack": message(MNG, element(0, words(512))),
    "debug": message(MNG, element(3, little(8, 1))),
    "info asked": message(MNG | REQUEST, element(4), seq=500),
    "info": message(MNG | REQUEST | ACK, element(4, little(0x4321, 4242, 0xC)), seq=501),
    "statistics": message(MNG | REQUEST | ACK, STATISTICS, seq=502, ver=0, app_ver=0),
    "ping": message(MNG, element(6)),
    "echo": message(MNG, element(7)),
    "reload": message(MNG, element(8)),
}
WHOLE = {
    "hello": HELLO, "sync": SYNC_INST, "acks": BOTH_ACKS, "old ack": OLD_ACK, **MANAGEMENT,
    "request": message(REQUEST, b"what?", seq=600), "reply": message(REQUEST | ACK, b"this", seq=601),
    "mismatch": message(REQUEST | ACK, words(1, 2), seq=602, stat=1), "no dispatcher": message(REQUEST | ACK, little(3, 7), seq=603, stat=3),
}
APPLICATION = """
local toy = Proto("toy", "An application's own")
local said = ProtoField.string("toy.said", "Said")
toy.fields = { said }
function toy.dissector(tvb, pinfo, tree)
    tree:add(toy, tvb()):add(said, tvb())
    pinfo.cols.info:append(" toy")
    return tvb:len()
end
DissectorTable.get("zeb.application"):add(300, toy)
DissectorTable.get("ethertype"):add(0x88cb, Dissector.get("zeb"))
"""
BARE = 0x88CB
FIELDS = """frame.number zeb zeb.ver zeb.rsvd zeb.flag zeb.flag.sync zeb.flag.request zeb.flag.ack zeb.flag.mng zeb.qos zeb.len zeb.src_node
zeb.dst_node zeb.src_app zeb.dst_app zeb.app zeb.node zeb.app_ver zeb.seq zeb.rpc_stat zeb.data zeb.returned zeb.request_in zeb.reply_in
zeb.time zeb.mismatch.low zeb.mismatch.high zeb.element zeb.element.len zeb.element.type zeb.element.value zeb.element.refused zeb.sync.seq
zeb.sync.id zeb.sync.is_server zeb.sync.resume zeb.sync.ttl zeb.sync.pseq zeb.sync_in zeb.sync_time zeb.ack_num zeb.debug.level zeb.debug.on
zeb.info.app zeb.info.pid zeb.info.mask zeb.stat.text zeb.bad_length zeb.bad_element zeb.bad_header zeb.address_mismatch
zeb.version_mismatch zeb.failed_reply zeb.pseq_mismatch zeb.returned_message zeb.skipped_element zeb.cut _ws.expert.message _ws.col.Info
_ws.col.Protocol toy.said""".split()
NOTES = FIELDS[FIELDS.index("zeb.bad_length") : FIELDS.index("_ws.expert.message")]
BETWEEN = "\x1e"


def add_plain(capture):
    for name, whole in WHOLE.items():
        capture.zeb(name, whole)
    capture.zeb("empty", message(0, app_ver=7))
    capture.zeb("longest", message(0, bytes(61440)))
    for index, part in enumerate(fragments(tipc(message(0, bytes(5000), app_ver=9)))):
        capture.add(f"fragment {index}", ethernet(part))
    capture.add("udp", over_udp(tipc(HELLO)))
    capture.add("bundle", ethernet(bundle(tipc(HELLO), tipc(message(REQUEST, b"x", seq=610)))))
    elsewhere = message(0, b"x", dst=(300, 1))
    capture.add("bundle with a port", ethernet(bundle(tipc(HELLO), tipc(elsewhere, kind=DIRECT_MSG))))
    capture.add("bundle with a range", ethernet(bundle(tipc(HELLO), tipc(elsewhere, kind=MCAST_MSG))))
    capture.add("bundle with a returned one", ethernet(bundle(tipc(HELLO, error=2), tipc(HELLO))))
    capture.zeb("to a port", HELLO, kind=DIRECT_MSG)
    capture.zeb("to a range", HELLO, kind=MCAST_MSG)
    capture.zeb("foreign name", HELLO[:2] + b"\x77" + HELLO[3:], name=(4711, 5))
    capture.zeb("foreign port", b"\2\0\0\0" + bytes(60), kind=DIRECT_MSG)
    capture.zeb("toy request", message(REQUEST, b"play", dst=(300, 1), seq=620))
    capture.zeb("toy reply", message(REQUEST | ACK, b"played", src=(300, 1), dst=(17185, 4660), seq=620))
    capture.zeb("info from big-endian", message(MNG | REQUEST | ACK, element(4, words(0x4321, 4242, 0xC)), seq=504))
    capture.zeb("debug from big-endian", message(MNG, element(3, words(8, 1))))
    # Read in the other order the largest word would be smaller; but the application names itself.
    capture.zeb("large process id", message(MNG | REQUEST | ACK, element(4, little(256, 0x3F0000, 0)), src=(256, 1), seq=505))
    capture.zeb("the same, big-endian", message(MNG | REQUEST | ACK, element(4, words(256, 0x3F0000, 0)), src=(256, 1), seq=506))
    capture.zeb("no dispatcher, big-endian", message(REQUEST | ACK, words(3, 7), seq=604, stat=3))


def add_calls(capture):
    client, server, other = (100, 1), (101, 2), (101, 3)
    capture.zeb("call", message(REQUEST, b"?", src=client, dst=server, seq=7))
    capture.zeb("call to another", message(REQUEST, b"?", src=client, dst=other, seq=7))
    capture.zeb("same call again", message(REQUEST, b"?", src=client, dst=server, seq=7))
    capture.zeb("answer", message(REQUEST | ACK, b"!", src=server, dst=client, seq=7), after=1_000_250)
    capture.zeb("answer again", message(REQUEST | ACK, b"!", src=server, dst=client, seq=7))
    capture.zeb("number used again", message(REQUEST, b"?", src=client, dst=server, seq=7))
    capture.zeb("answer to that", message(REQUEST | ACK, b"!", src=server, dst=client, seq=7), after=500)
    capture.zeb("answer to nothing", message(REQUEST | ACK, b"!", src=server, dst=client, seq=8))
    capture.zeb("lost call", message(REQUEST, b"?", src=client, dst=server, seq=9))
    capture.zeb("lost call returned", message(REQUEST, b"?", src=client, dst=server, seq=9), error=2, src=0x01001002, dst=0x01001001)
    for status in (2, 4, 5, 17):
        capture.zeb(f"status {status}", message(REQUEST | ACK, src=server, dst=client, seq=10 + status, stat=status))
    capture.zeb("mismatch without versions", message(REQUEST | ACK, b"1234567", src=server, dst=client, seq=30, stat=1))
    capture.zeb("management call", message(MNG | REQUEST, element(5), src=client, dst=server, seq=40))
    capture.zeb("management answer", message(MNG | REQUEST | ACK, b"text\0", src=server, dst=client, seq=40), after=2000)
    capture.zeb("one-way returned", message(0, bytes(988), src=client, dst=server, length=5000), error=1)
    capture.zeb("returned and shorter", message(0, bytes(900), src=client, dst=server, length=5000), error=1)


def add_handshakes(capture):
    a, b = (100, 1), (101, 2)
    capture.zeb("a sync", sync(10, src=a, dst=b))
    capture.zeb("b sync", sync(70, src=b, dst=a))
    capture.zeb("a acks early", acks(70, 0, src=a, dst=b))
    capture.zeb("a sync again", sync(10, src=a, dst=b))
    capture.zeb("b acks", acks(10, 70, src=b, dst=a), after=3_000_000)
    capture.zeb("b sync anew", sync(71, resume=1, src=b, dst=a))
    capture.zeb("b acks of old", acks(10, 70, src=b, dst=a))
    capture.zeb("ack of unknown", acks(5, 6, src=(210, 1), dst=(211, 1)))


def add_wrong(capture):
    capture.zeb("length too large", message(0, b"abc", length=40))
    capture.zeb("length too small", message(0, b"abc", length=37))
    capture.zeb("length below the header", message(SYNC, element(1, bytes(20)), length=35))
    capture.zeb("one-way below the header", message(0, b"abc", length=3))
    capture.zeb("length of 4 GiB", message(MNG, element(6), length=0xFFFFFFFF))
    capture.zeb("version 3", message(ver=3))
    capture.zeb("version 0", message(ver=0))
    capture.zeb("reserved", message(rsvd=1))
    capture.zeb("flags", message(flag=0x30))
    for app in (0, 8192, 12288, 16383, 20480):
        capture.zeb(f"from {app}", message(src=(app, 1)))
        capture.zeb(f"to {app}", message(dst=(app, 1)))
    for app in (1, 8191, 16384, 20479):
        capture.zeb(f"good {app}", message(src=(app, 1), dst=(app, 65535)))
    capture.zeb("node 65536", message(src=(1, 65536)))
    capture.zeb("to node 65536", message(dst=(1, 65536)))
    capture.zeb("status in one-way", message(stat=2))
    capture.zeb("another instance", message(), name=(2303, 0x1ABC0001))
    capture.zeb("element of 0", message(MNG, element(6) + bytes(8)))
    capture.zeb("element of 3", message(MNG, element(6) + element(6, length=3) + element(7)))
    capture.zeb("element too long", message(MNG, element(6) + element(0, words(1), length=9)))
    capture.zeb("element of 65535", message(SYNC, element(1, bytes(20), length=65535)))
    for kind, size in ((0, 4), (1, 20), (2, 20), (3, 8), (9, 24)):
        flag = SYNC if kind in (1, 2, 9) else MNG
        capture.zeb(f"short record {kind}", message(flag, element(kind, bytes(size - 4))))
    capture.zeb("short record 4", message(MNG | REQUEST | ACK, element(4, bytes(12), length=16)[:4] + bytes(8), seq=1))
    for tail in (1, 2, 3):
        capture.zeb(f"tail of {tail}", message(MNG, element(6) + bytes(tail)))
    capture.zeb("odd lengths", message(MNG, element(6, b"abc") + element(7, b"defgh") + element(8)))
    capture.zeb("unknown type", message(MNG, element(42, b"what") + element(6)))
    capture.zeb("ping in a sync", message(SYNC, element(6)))
    capture.zeb("sync in management", message(MNG, element(1, bytes(20))))
    capture.zeb("nested", message(MNG, nested(200)))
    capture.zeb("many elements", message(MNG, element(6) * 15360))
    capture.zeb("all of it", message(0xFF, element(1, bytes(20)), stat=-1))


def nested(depth):
    inner = element(6)
    for _ in range(depth):
        inner = element(42, inner)
    return inner


def add_hostile(capture):
    """Each message, cut and damaged; none of them may stop the dissector."""
    chance = random.Random(2303)
    for name, whole in WHOLE.items():
        for size in range(len(whole)):
            capture.zeb(f"{name} of {size}", whole[:size])
            capture.zeb(f"{name} of {size} that says so", whole[:4] + words(size) + whole[8:size] if size >= 8 else b"")
            # TIPC's dissector hands nothing on that was captured in part; this type goes to ours directly.
            capture.add(f"{name} captured to {size}", ethernet(whole, kind=BARE), cut=14 + size)
        for round_ in range(60):
            damaged = bytearray(whole)
            for _ in range(chance.randint(1, 6)):
                damaged[chance.randrange(len(damaged))] = chance.choice((0, 1, 0x7F, 0x80, 0xFF, chance.randrange(256)))
            capture.zeb(f"{name} damaged {round_}", bytes(damaged), error=chance.choice((0, 0, 0, 1, 9)))
    for size in range(14, 14 + 40):
        capture.zeb(f"TIPC cut to {size}", HELLO, cut=size)
    for size in (0, 1, 39, 40, 41, 0x1FFFF):
        capture.zeb(f"TIPC says {size}", HELLO, size=size)


def run_tshark(path, *arguments):
    """What tshark prints of a capture. Its settings are its own defaults, and nothing of a user's."""
    with tempfile.TemporaryDirectory() as folder:
        return run_in(pathlib.Path(folder), path, arguments)


def run_in(work, path, arguments):
    toy = work / "toy.lua"
    toy.write_text(APPLICATION)
    environment = dict(os.environ, HOME=str(work), WIRESHARK_CONFIG_DIR=str(work / "settings"), LC_ALL="C.UTF-8", TZ="UTC")
    environment.pop("XDG_CONFIG_HOME", None)
    command = ["tshark", "-n", "-r", str(path), "-X", f"lua_script:{SCRIPT}", "-X", f"lua_script:{toy}", *arguments]
    ended = subprocess.run(command, capture_output=True, timeout=SECONDS, env=environment, check=False)
    said = [line for line in ended.stderr.decode().splitlines() if line and 'user "root"' not in line]
    if ended.returncode != 0 or said:
        raise AssertionError(f"{command} ended with {ended.returncode}: {said[:20]}")
    return ended.stdout.decode("utf-8", "replace")


def fields_of(path, *arguments):
    """By frame number: the values of each field that the frame has."""
    wanted = [word for field in FIELDS for word in ("-e", field)]
    out = run_tshark(path, "-T", "fields", "-E", "separator=/t", "-E", "occurrence=a", "-E", f"aggregator={BETWEEN}", *wanted, *arguments)
    frames = {}
    for line in out.rstrip("\n").split("\n"):
        values = dict(zip(FIELDS, (cell.split(BETWEEN) if cell else [] for cell in line.split("\t"))))
        frames[int(values["frame.number"][0])] = values
    return frames


class Dissector(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.path = pathlib.Path(cls.folder.name) / "frames.pcap"
        cls.capture = Capture()
        for add in (add_plain, add_calls, add_handshakes, add_wrong, add_hostile):
            add(cls.capture)
        cls.capture.write(cls.path)
        cls.frames = fields_of(cls.path, "-2")

    @classmethod
    def tearDownClass(cls):
        cls.folder.cleanup()

    def of(self, name):
        return self.frames[self.capture.numbers[name]]

    def number(self, name):
        return str(self.capture.numbers[name])

    def has(self, name, *notes, **fields):
        """The frame has these values (a dot is two underscores), and these notes and no others."""
        frame = self.of(name)
        for field, value in fields.items():
            field = "zeb." + field.replace("__", ".")
            expected = [str(one) for one in (value if isinstance(value, (list, tuple)) else [value])]
            self.assertEqual(frame[field], expected, f"{field} of '{name}'")
        found = [note for note in NOTES if frame[note]]
        self.assertEqual(found, [note for note in NOTES if note in ["zeb." + one for one in notes]], f"notes of '{name}'")

    def says(self, name, *texts):
        for text in texts:
            self.assertIn(text, " ".join(self.of(name)["_ws.expert.message"]), name)

    def info(self, name):
        return self.of(name)["_ws.col.Info"][0]

    def test_a_header(self):
        self.has("hello", ver=2, rsvd=0, flag="0x00", qos=0xEE, len=41, src_node=0x1234, dst_node=0xFEDC, src_app=0x4321, dst_app=0x1ABC,
                 app_ver=0x01020304, seq=0, rpc_stat=0, data="68656c6c6f", flag__sync=0, flag__request=0, flag__ack=0, flag__mng=0,
                 returned=[], request_in=[], reply_in=[])
        self.has("request", flag="0x02", seq=600, flag__sync=0, flag__request=1, flag__ack=0, flag__mng=0)
        self.has("sync", flag="0x01", flag__sync=1, flag__request=0, flag__ack=0, flag__mng=0)
        self.has("info", flag="0x0e", flag__sync=0, flag__request=1, flag__ack=1, flag__mng=1)
        self.has("empty", len=36, app_ver=7, data=[])
        self.assertEqual(self.of("hello")["_ws.col.Protocol"], ["ZEB"])

    def test_either_end_by_one_field(self):
        self.has("hello", app=(0x4321, 0x1ABC), node=(0x1234, 0xFEDC))

    def test_the_line_of_a_message(self):
        self.assertEqual(self.info("hello"), f"{FROM_TO} one-way, 5 bytes")
        self.assertEqual(self.info("request"), f"{FROM_TO} request seq 600, 5 bytes")
        self.assertEqual(self.info("acks"), f"{FROM_TO} synchronisation: SYNC_INST_ACK seq 2712847316, SYNC_INST_SEQ_ACK seq 2712847316 pseq 70")
        self.assertEqual(self.info("mismatch"), f"{FROM_TO} reply seq 602: library version mismatch")
        self.assertEqual(self.info("lost call returned"), "100/1 → 101/2 request seq 9, 1 bytes [returned: no port]")
        self.assertEqual(self.info("num ack"), f"{FROM_TO} management: processed messages acknowledged 512")

    def test_a_synchronisation(self):
        self.has("sync", element__len=24, element__type=1, sync__seq=0xA1B2C3D4, sync__id=0x0BADCAFE, sync__is_server=1, sync__resume=0, sync__ttl=600,
                 sync__pseq=[])
        self.has("b sync anew", sync__seq=71, sync__resume=1)
        self.assertTrue(self.info("b sync anew").endswith("SYNC_INST seq 71 resume"))

    def test_acknowledgements(self):
        self.has("acks", "pseq_mismatch", element__len=(24, 28), element__type=(2, 9), sync__seq=[0xA1B2C3D4] * 2, sync__id=[0xBAD] * 2, sync__is_server=[1, 1],
                 sync__resume=[0, 0], sync__ttl=[600, 600], sync__pseq=70, sync_in=[])
        self.has("old ack", ver=1, element__type=2, sync__seq=0xA1B2C3D4, sync__pseq=[])

    def test_an_acknowledgement_is_linked_to_its_synchronisation(self):
        self.has("b acks", sync_in=[self.number("a sync")] * 2, sync_time=["3.003000000"] * 2)
        self.has("ack of unknown", sync_in=[])

    def test_an_acknowledgement_that_does_not_complete_the_pair(self):
        self.has("a acks early", "pseq_mismatch", sync__pseq=0)
        self.says("a acks early", "has not confirmed the peer's identity")
        self.has("b acks of old", "pseq_mismatch", sync__pseq=70)
        self.says("b acks of old", f"pseq 70 is not the last synchronisation, 71 in frame {self.number('b sync anew')}")

    def test_management_elements(self):
        self.has("num ack", element__type=0, ack_num=512)
        self.has("ping", element__type=6, element__len=4)
        self.has("echo", element__type=7)
        self.has("reload", element__type=8)
        self.has("info asked", element__type=4, info__app=[])
        self.has("statistics", element=[], stat__text=STATISTICS[:-1].decode().replace("\n", "\\n"))

    def test_words_in_the_byte_order_of_their_sender(self):
        for name in ("debug", "debug from big-endian"):
            self.has(name, debug__level=8, debug__on=1)
        for name in ("info", "info from big-endian"):
            self.has(name, info__app=0x4321, info__pid=4242, info__mask="0x0000000c")
        for name in ("large process id", "the same, big-endian"):
            self.has(name, info__app=256, info__pid=0x3F0000)
        for name in ("no dispatcher", "no dispatcher, big-endian"):
            self.has(name, "version_mismatch", mismatch__low=3, mismatch__high=7)

    def test_a_call_and_its_reply(self):
        self.has("call", reply_in=self.number("answer"), request_in=[], time=[])
        self.has("answer", request_in=self.number("call"), reply_in=[], time="1.002250000")
        self.has("answer again", request_in=self.number("call"))
        self.has("same call again", request_in=self.number("call"), reply_in=[])
        self.has("number used again", reply_in=self.number("answer to that"), request_in=[])
        self.has("answer to that", request_in=self.number("number used again"), time="0.000500000")
        self.has("management answer", request_in=self.number("management call"), time="0.002000000")

    def test_calls_that_are_not_linked(self):
        for name in ("call to another", "answer to nothing", "lost call"):
            self.has(name, request_in=[], reply_in=[], time=[])

    def test_a_mismatch_of_versions(self):
        self.has("mismatch", "version_mismatch", rpc_stat=1, mismatch__low=1, mismatch__high=2, data=[])
        self.says("mismatch", "library version mismatch: the server takes 1 to 2")
        self.says("no dispatcher", "no dispatcher for the version: the server takes 3 to 7")
        self.has("mismatch without versions", "version_mismatch", mismatch__low=[], data="31323334353637")

    def test_other_statuses(self):
        self.has("status 2", "failed_reply", rpc_stat=2)
        self.says("status 2", "the server does not know the caller's instance")
        self.has("status 4", "failed_reply")
        self.has("status 5", "bad_header", "failed_reply")
        self.has("status 17", "failed_reply")
        self.says("status 17", "unknown status 17")
        self.has("reply", rpc_stat=0)

    def test_a_returned_message(self):
        self.has("lost call returned", "returned_message", returned=2, request_in=self.number("lost call"))
        self.says("lost call returned", "no port")
        self.has("one-way returned", "returned_message", "cut", returned=1)
        self.says("one-way returned", "TIPC returned 1024 of 5000 bytes")
        self.has("returned and shorter", "returned_message", "bad_length")

    def test_a_wrong_length(self):
        self.has("length too large", "bad_length", data="616263")
        self.says("length too large", "The header says 40 bytes, the datagram has 39")
        self.has("length too small", "bad_length", data="61")
        self.has("length below the header", "bad_length", element=[], data=[])
        self.assertTrue(self.info("one-way below the header").endswith("one-way, 0 bytes"))
        self.has("length of 4 GiB", "bad_length", element__type=6)
        self.has("hello of 35", "bad_length", ver=[])
        self.has("hello of 36", "bad_length", ver=2)
        self.has("hello of 1", "bad_length")

    def test_what_no_sender_writes(self):
        for name in ("version 3", "version 0", "reserved", "flags", "node 65536", "to node 65536", "status in one-way"):
            self.has(name, "bad_header")
        for app in (0, 8192, 12288, 16383, 20480):
            self.has(f"from {app}", "bad_header")
            self.has(f"to {app}", "bad_header")
        for app in (1, 8191, 16384, 20479):
            self.has(f"good {app}")

    def test_another_instance_than_the_name(self):
        self.has("another instance", "address_mismatch")
        self.says("another instance", "The header names 6844/65244, the TIPC name 6844/1")

    def test_elements_of_wrong_length(self):
        self.has("element of 0", "bad_element", element__type=6, element__refused="00" * 8)
        self.has("element of 3", "bad_element", element__type=6, element__refused="0003000600040007")
        self.has("element too long", "bad_element", element__type=6, element__refused="0009000000000001")
        self.has("element of 65535", "bad_element", element=[])
        for kind in (0, 1, 2, 3, 9):
            self.has(f"short record {kind}", "bad_element", element=[])
        for tail in (1, 2, 3):
            self.has(f"tail of {tail}", "bad_element", element__type=6, element__refused="00" * tail)

    def test_padding_and_longer_values(self):
        self.has("odd lengths", element__type=(6, 7, 8), element__len=(7, 9, 4), element__value=("616263", "6465666768"))

    def test_elements_that_are_skipped(self):
        self.has("unknown type", "skipped_element", element__type=(42, 6), element__value=b"what".hex())
        self.has("ping in a sync", "skipped_element")
        self.has("sync in management", "skipped_element")

    def test_elements_do_not_nest(self):
        self.has("nested", "skipped_element", element__type=42, element__len=804)

    def test_many_elements(self):
        self.has("many elements", "cut", element__type=[6] * 1000)
        self.says("many elements", "Only the first 1000 elements are shown")

    def test_long_messages_and_fragments(self):
        self.has("longest", len=61476)
        last = max(int(name.split()[1]) for name in self.capture.numbers if name.startswith("fragment "))
        self.has(f"fragment {last}", len=5036, app_ver=9)

    def test_other_ways_through_tipc(self):
        self.has("udp", data="68656c6c6f")
        self.has("to a port", data="68656c6c6f")
        self.has("to a range", data="68656c6c6f")

    def test_several_messages_in_a_frame(self):
        self.has("bundle", flag=("0x00", "0x02"), seq=(0, 610))
        for name in ("bundle with a port", "bundle with a range"):
            self.has(name, dst_app=(0x1ABC, 300))
        self.has("bundle with a returned one", "returned_message", returned=2)

    def test_what_is_not_ours(self):
        for name in ("foreign name", "foreign port"):
            self.assertEqual(self.of(name)["zeb"], [], name)

    def test_the_payload_goes_to_the_dissector_of_its_application(self):
        for name, said in (("toy request", "play"), ("toy reply", "played"), ("request", None)):
            self.assertEqual(self.of(name)["toy.said"], [said] if said else [], name)
        self.assertTrue(self.info("toy request").endswith("request seq 620, 4 bytes toy"))

    def test_a_message_that_was_captured_in_part(self):
        for name, whole in WHOLE.items():
            for size in range(1, len(whole)):
                frame = self.of(f"{name} captured to {size}")
                self.assertFalse(frame["zeb.bad_length"], (name, size))
                self.assertEqual(frame["zeb.ver"], [str(whole[0])] if size >= 36 else [], (name, size))

    def test_each_truncation_is_a_wrong_length(self):
        for name, whole in WHOLE.items():
            for size in range(1, len(whole)):
                self.assertTrue(self.of(f"{name} of {size}")["zeb.bad_length"], (name, size))
                said = self.of(f"{name} of {size} that says so")
                if size >= 36:
                    self.assertFalse(said["zeb.bad_length"], (name, size))

    def test_a_cut_list_is_refused(self):
        for size in range(37, len(BOTH_ACKS)):
            frame = self.of(f"acks of {size} that says so")
            self.assertEqual(bool(frame["zeb.bad_element"]), size != 60, size)

    def test_no_error_of_lua(self):
        out = run_tshark(self.path, "-T", "json")
        no_error(self, out)
        self.assertGreater(len(json.loads(out)), 3000)

    def test_every_message_to_our_names_is_dissected(self):
        missing = [name for name, number in self.capture.numbers.items()
                   if not self.frames[number]["zeb"] and not name.startswith(("foreign", "fragment", "TIPC "))]
        self.assertEqual([name for name in missing if not name.endswith((" of 0", "that says so", " to 0"))], [])

    def test_the_page_has_every_field(self):
        fields = set(re.findall(r'Proto(?:Field|Expert)\.\w+\("(zeb[.\w]+)"', pathlib.Path(SCRIPT).read_text()))
        self.assertGreater(len(fields), 50)
        listed = PAGE.read_text().split("## Fields")[1].split("## Payloads")[0]
        self.assertEqual(set(re.findall(r"`(zeb\.[.\w]+)`", listed)), fields)
        self.assertEqual({field for field in FIELDS if field.startswith("zeb.")}, fields)

    def test_the_filters_of_the_page(self):
        """Each finds some of the frames, and not all."""
        looking = PAGE.read_text().split("## Look")[1].split("## Fields")[0]
        cells = [row.split("|")[2] for row in looking.splitlines() if row.startswith("|")]
        filters = [found for cell in cells for found in re.findall(r"`(zeb[^`]+)`", cell)]
        self.assertGreater(len(filters), 8)
        out = run_tshark(self.path, "-2", "-q", "-z", ",".join(["io,stat,0", "frame", *filters]))
        counts = [int(word) for word in re.findall(r"\| *(\d+) \| *\d+ (?=\|)", next(line for line in out.splitlines() if "<>" in line))]
        self.assertEqual(len(counts), len(filters) + 1, out)
        for one, count in zip(filters, counts[1:]):
            self.assertTrue(0 < count < counts[0], (one, count))

    def test_the_byte_order_of_the_boards(self):
        small = Capture()
        small.zeb("debug", message(MNG, element(3, little(8, 1))))
        path = self.path.with_name("small.pcap")
        small.write(path)
        for order, level in (("little-endian", 8), ("big-endian", 8 << 24)):
            frame = fields_of(path, "-o", f"zeb.byte_order:{order}")[1]
            self.assertEqual(frame["zeb.debug.level"], [str(level)], order)


def no_error(test, out):
    for error in ("Lua Error", "_ws.lua.text", "Dissector bug", "buggy dissector"):
        at = out.find(error)
        test.assertEqual(at, -1, out[max(at - 300, 0) : at + 300])


def understood(test, path):
    """The frames with messages of ours, after looking that each is understood."""
    no_error(test, run_tshark(path, "-2", "-T", "json", "-Y", "zeb"))
    frames = fields_of(path, "-2", "-Y", "tipcv2.port_name_type == 2303").values()
    test.assertEqual([frame for frame in frames if not frame["zeb"]], [])
    wrong = ("zeb.bad_length", "zeb.bad_element", "zeb.bad_header", "zeb.address_mismatch", "zeb.skipped_element")
    test.assertEqual([frame for frame in frames if any(frame[note] for note in wrong)], [])
    return frames


class Recorded(unittest.TestCase):
    """What two machines said: joins, ten messages of the largest size each way, a call each way."""

    path = None

    def test_all_of_it_is_understood(self):
        frames = understood(self, self.path)
        self.assertEqual([frame for frame in frames if frame["zeb.cut"]], [])
        self.assertGreaterEqual(sum("61476" in frame["zeb.len"] for frame in frames), 20)
        self.assertGreaterEqual(sum("1" in frame["zeb.element.type"] for frame in frames), 2)
        self.assertGreaterEqual(sum(bool(frame["zeb.sync_in"]) for frame in frames), 2)
        self.assertGreaterEqual(sum(bool(frame["zeb.reply_in"]) for frame in frames), 2)
        self.assertGreaterEqual(sum(bool(frame["zeb.time"]) for frame in frames), 2)


class Talk(unittest.TestCase):
    """What ./talk makes two machines say, in its order: see there. Instance 101/1 is on the machine that records."""

    path = HERE / "talk.pcapng.gz"
    CLIENT, SERVER, ASKER = ("101", "1"), ("101", "2"), ("1", "2")

    @classmethod
    def setUpClass(cls):
        cls.frames = fields_of(cls.path, "-2", "-Y", "zeb")

    def find(self, src, dst, flag, **wanted):
        """The frames with one message from `src` to `dst`, with these flags and these values of the fields."""
        ends = {"src_app": src[0], "src_node": src[1], "dst_app": dst[0], "dst_node": dst[1], "flag": f"0x{flag:02x}", "ver": "2"}
        wanted = {"zeb." + name.replace("__", "."): [str(value)] for name, value in {**ends, **wanted}.items()}
        return [frame for frame in self.frames.values() if all(frame[name] == value for name, value in wanted.items())]

    def one(self, *ends, **wanted):
        found = self.find(*ends, **wanted)
        self.assertEqual(len(found), 1, (ends, wanted, found))
        return found[0]

    def linked(self, request, reply, **values):
        """Each half of a call names the other, and the reply the time since."""
        self.assertEqual((request["zeb.reply_in"], reply["zeb.request_in"]), (reply["frame.number"], request["frame.number"]))
        self.assertEqual((request["zeb.request_in"], reply["zeb.reply_in"]), ([], []))
        self.assertEqual(reply["zeb.seq"], request["zeb.seq"])
        self.assertTrue(0 < float(reply["zeb.time"][0]) < 20, reply["zeb.time"])
        for name, value in values.items():
            self.assertEqual(reply["zeb." + name.replace("__", ".")], [str(value)], name)

    def test_all_of_it_is_understood(self):
        self.assertGreater(len(understood(self, self.path)), 20)

    def test_a_handshake(self):
        for src, dst in ((self.CLIENT, self.SERVER), (self.SERVER, self.CLIENT)):
            syncs = self.find(src, dst, SYNC, element__type=1, sync__is_server=1, sync__resume=0)
            self.assertTrue(syncs)
            seq = syncs[0]["zeb.sync.seq"]
            answers = [frame for frame in self.find(dst, src, SYNC) if frame["zeb.element.type"] == ["2", "9"]]
            self.assertTrue(answers)
            for frame in answers:
                self.assertEqual(frame["zeb.sync.seq"], seq * 2, "each acknowledges the one synchronisation")
                self.assertEqual(len(set(frame["zeb.sync_in"])), 1)
                self.assertIn(frame["zeb.sync_in"][0], [sync["frame.number"][0] for sync in syncs])
                self.assertGreater(float(frame["zeb.sync_time"][0]), 0)
            own = self.find(dst, src, SYNC, element__type=1)[0]["zeb.sync.seq"]
            self.assertEqual(answers[-1]["zeb.sync.pseq"], own, "the last names the other's synchronisation")

    def test_one_way_messages(self):
        frame = self.one(self.CLIENT, self.SERVER, 0, len=5036)
        self.assertEqual((frame["zeb.app_ver"], frame["zeb.seq"], frame["zeb.rpc_stat"]), (["1"], ["0"], ["0"]))
        self.assertEqual(len(frame["zeb.data"][0]), 10000)
        short = [data for frame in self.frames.values() if set(frame["zeb.flag"]) == {"0x00"} for data in frame["zeb.data"] if len(data) == 8]
        self.assertEqual(sorted({int.from_bytes(bytes.fromhex(data), "little") for data in short}), list(range(512)))
        self.one(self.SERVER, self.CLIENT, MNG, element__type=0, ack_num=512)

    def test_calls(self):
        taken, refused = self.find(self.CLIENT, self.SERVER, REQUEST)
        self.assertEqual((taken["zeb.app_ver"], refused["zeb.app_ver"]), (["3"], ["7"]))
        reply = self.one(self.SERVER, self.CLIENT, REQUEST | ACK, rpc_stat=0)
        self.linked(taken, reply)
        self.assertEqual(reply["zeb.mismatch.low"], [])
        mismatch = self.one(self.SERVER, self.CLIENT, REQUEST | ACK, rpc_stat=3)
        self.linked(refused, mismatch, mismatch__low=1, mismatch__high=3)
        self.assertTrue(mismatch["zeb.version_mismatch"])
        self.assertIn("no dispatcher for the version: the server takes 1 to 3", mismatch["_ws.expert.message"][0])

    def test_management(self):
        asked = self.find(self.ASKER, self.CLIENT, MNG | REQUEST)
        infos = self.find(self.CLIENT, self.ASKER, MNG | REQUEST | ACK, element__type=4)
        texts = self.find(self.CLIENT, self.ASKER, MNG | REQUEST | ACK, ver=0)
        answered = sorted(infos + texts, key=lambda frame: int(frame["frame.number"][0]))
        self.assertEqual((len(asked), len(infos), len(texts)), (6, 4, 2))
        for request, reply in zip(asked, answered):
            self.linked(request, reply, rpc_stat=0)
        self.assertEqual([frame["zeb.element.type"] for frame in asked], [["4"], ["5"], ["4"], ["5"], ["3", "3", "4"], ["3"] * 4 + ["4"]])
        self.assertEqual({tuple(frame["zeb.info.app"]) for frame in infos}, {("101",)})
        self.assertEqual(len({tuple(frame["zeb.info.pid"]) for frame in infos}), 1)
        self.assertEqual([int(frame["zeb.info.mask"][0], 0) for frame in infos], [8, 8, 14, 0])
        self.assertEqual((asked[4]["zeb.debug.level"], asked[4]["zeb.debug.on"]), (["1", "2"], ["1", "1"]))
        self.assertEqual((asked[5]["zeb.debug.level"], asked[5]["zeb.debug.on"]), (["0", "1", "2", "3"], ["0"] * 4))
        for frame in texts:
            self.assertEqual(frame["zeb.element"], [])
            self.assertIn("Application 101/1 [agent] information:", frame["zeb.stat.text"][0])
            self.assertIn("Send to application 101/2: send 515, unack ", frame["zeb.stat.text"][0])

    def test_a_message_that_comes_back(self):
        sent, back = self.find(self.CLIENT, self.SERVER, 0, len=2036)
        self.assertEqual((sent["zeb.returned"], sent["zeb.returned_message"], sent["zeb.cut"]), ([], [], []))
        self.assertEqual(back["zeb.returned"], ["2"])
        self.assertTrue(back["zeb.returned_message"] and back["zeb.cut"])
        self.assertIn("TIPC returned 1024 of 2036 bytes", "".join(back["_ws.expert.message"]))
        self.assertTrue(sent["zeb.data"][0].startswith(back["zeb.data"][0]))


if __name__ == "__main__":
    chosen = [f"Dissector.{name}" for name in sys.argv[1:]] or ["Dissector", "Talk"]
    for option, suite in (("--capture", Recorded), ("--talk", Talk)):
        if sys.argv[1:2] == [option]:
            suite.path = pathlib.Path(sys.argv[2]).resolve()
            chosen = [suite.__name__]
    unittest.main(argv=[sys.argv[0], *chosen])

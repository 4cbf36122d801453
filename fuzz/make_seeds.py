#!/usr/bin/env python3
"""Writes the seed corpus of every fuzz target into fuzz/corpus/<target>/: a handful of small valid
and nearly valid inputs each, laid out the way the target reads its input. Re-run after changing
a target's input layout; files this script did not write are left alone (kept findings)."""

import os
import struct

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus")

MAGIC = struct.pack("<I", 0xF4E8CDAE)
TYPE_MAGIC = {1: 0x5775, 2: 0x5875, 3: 0xCAAC}


def mcp(mcp_type, payload, length=None):
    """One MCP packet; `length` overrides the length field."""
    length = len(payload) if length is None else length
    return MAGIC + struct.pack("<HI", TYPE_MAGIC[mcp_type], length) + payload


def trap_record(trap_type, payload, length=None):
    length = len(payload) if length is None else length
    return struct.pack("<BI", trap_type, length) + payload


def discard_record(entries):
    return struct.pack("<BI", 1, len(entries)) + b"".join(
        struct.pack("<BI", t, n) for t, n in entries)


def json_bytes(text):
    return text.encode() + b"\n\0"


def link_frame(opcode, payload):
    return struct.pack("<I", len(payload) + 1) + bytes([opcode]) + payload


def write(target, seeds):
    folder = os.path.join(ROOT, target)
    os.makedirs(folder, exist_ok=True)
    for name, data in seeds.items():
        with open(os.path.join(folder, "seed-" + name), "wb") as f:
            f.write(data)


def stream_prefix(flags=0, start=0, pieces=(3, 1, 7, 0xFF)):
    return bytes([flags]) + struct.pack("<H", start // 2) + bytes(pieces)


def mcp_seeds():
    cmd = mcp(1, json_bytes('{"api":"Tidewatch.Session","method":"list","version":1}'))
    trap = mcp(3, trap_record(3, b"hello"))
    bad_type = MAGIC + struct.pack("<HI", 0x1234, 5)
    return {
        "one-command": cmd,
        "two-packets": cmd + trap,
        "garbage-first": b"\x00\xae\xcd\xe8garbage" + trap,
        "bad-type-then-packet": MAGIC + trap,
        "bad-lengths": mcp(2, b"", length=0) + mcp(2, b"", length=131073) + trap,
        "max-length-short": mcp(3, b"x" * 40, length=131072),
        "truncated": mcp(2, b'{"ret":0}', length=20),
        "nine-bytes": cmd[:9],
        "bad-type-magic": bad_type + b"abcde",
    }


def trap_seeds():
    return {
        "em": trap_record(3, b"hello"),
        "with-discard": trap_record(2, b"ota") + discard_record([(2, 3), (3, 4), (6, 9)]),
        "discard-empty": discard_record([]),
        "discard-not-last": discard_record([(2, 1)]) + trap_record(3, b"x"),
        "discard-bad-type": trap_record(3, b"x") + discard_record([(9, 1)]),
        "unknown-type": trap_record(12, b"skip") + trap_record(4, b"volte"),
        "length-past-end": trap_record(5, b"abc", length=1000),
        "header-cut": trap_record(3, b"ab") + b"\x02\x01",
        "duplicate-discard": trap_record(2, b"") + discard_record([(3, 1), (3, 2)]),
    }


LAYOUT = """\
#OTA_INFO
OTA_TRACE_ID_OFFSET,4,4
OTA_SIM_IDX_OFFSET,8,1
OTA_TRACE_LTE_RRC(1),OTA_MSG_OFFSET,12
OTA_TRACE_LTE_RRC(1),GLOBAL_ID,8,2
#GLOBAL_ID
LTE_RRC_PAGING(1003)
LTE_RRC_MASTER_INFORMATION_BLOCK(1000)
#MSG_INFO
MSG_ID_OFFSET,4,2
SIM_IDX_OFFSET,6,1
EM_LTE_SERVING_CELL_INFO(2000),EARFCN,4,4
EM_LTE_SERVING_CELL_INFO(2000),PCI,8,2
EM_NR_CELL(2001),ARFCN,4,4
#SIM2_INFO
2000
#SIM3_INFO
2001
#IP_PACKET_INFO_TRACE_ID
IP_TRACE_UL(1)
#PEER_INFO
MSG_PEERSIZE_OFFSET,2,2
MSG_PEER_HEADER_SIZE,16
EM_PEER(2002),PEER_OFFSET,-4
#PEER_INFO_WITHOUT_HEADER
EM_PEER2(2003),PEER_OFFSET,8
#MSG_EM_ID_MAPPING
2000,7
#EM_FILTER_INFO
EM_UPDATE_INFO_STATUS_SIZE,4
EM_UPDATE_INFO_REQ_OFFSET_1,16
EM_UPDATE_INFO_REQ_ARRAY_NUM,32
#3GPP_VERSION_INFO
RRC_MAJOR_VERSION(15)
NAS_MINOR_VERSION(3)
#TIME_INFO
TIMESTAMP_PRECISION(1000)
"""


def layout_seeds():
    return {
        "complete": LAYOUT.encode(),
        "crlf": LAYOUT.replace("\n", "\r\n").encode(),
        "header-only": b"#OTA_INFO\n",
        "unknown-section": b"#FOO\nA,B\n#GLOBAL_ID\nNAME(5)\nNAME(6)\nOTHER(5)\n",
        "bad-number": b"#GLOBAL_ID\nFOO(1x)\n",
        "blanks-and-commas": b"#OTA_INFO\n  OTA_TRACE_ID_OFFSET , 0 , 4 \n\tA(1),,B,1,2\n" +
                             b"#MSG_INFO\nFOO(12),BAR,1,2\nBAZ(12),BAR,3,4\n" +
                             b"#TIME_INFO\nTIMESTAMP_PRECISIONX(3)\n",
        "many-fields": b"#MSG_INFO\nA(1),B,1,2,3,4,5,6,7,8,9,10,11,12\n",
    }


def decoder_seeds():
    """The repository's sample layout, a NUL, then a payload laid out by it."""
    with open(os.path.join(os.path.dirname(ROOT), "..", "resources", "twd_layout_desc.dat"),
              "rb") as f:
        sample = f.read()
    mib = struct.pack("<IIBBHH", 7, 1, 0, 0, 1000, 3) + bytes([0x58, 0x40, 0x00])
    cell = struct.pack("<IHBBIHhhh", 7, 2000, 0, 0, 1850, 301, -95, -10, 12)
    neighbours = struct.pack("<IHBBBxxxIxxxxHxx", 7, 2001, 1, 0, 2, 0, 2) + bytes(8) + \
        struct.pack("<HH", 11, 12)
    return {
        "ota-mib": sample + b"\0" + mib,
        "ota-cut": sample + b"\0" + mib[:-2],
        "em-cell": sample + b"\0" + cell,
        "em-peers": sample + b"\0" + neighbours,
        "small-layout": LAYOUT.encode() + b"\0" + cell,
        "no-payload": sample,
    }


def reply(api, method, ret, data=None, version="1"):
    text = '{"api":"%s","method":"%s","version":%s,"ret":%s' % (api, method, version, ret)
    if data is not None:
        text += ',"data":%s' % data
    return json_bytes(text + "}")


def reply_seeds():
    # First byte: the command (0 create, 1 close, ... 9 set debug level); 0-9 answer with a
    # REPLY packet, +10 with a CMD packet, +40 fail the send.
    session = "Tidewatch.Session"
    trap = "Tidewatch.Trap"
    return {
        "create": bytes([0]) + reply(session, "create", 0, '{"sessionId":12}'),
        "create-refused": bytes([0]) + reply(session, "create", 5),
        "close": bytes([1]) + reply(session, "close", 0),
        "close-ret-16": bytes([1]) + reply(session, "close", 16),
        "subscribe-big-version": bytes([2]) + reply(trap, "subscribe", 0, version="4294967297"),
        "unsubscribe-bool": bytes([3]) + reply(trap, "unsubscribe", "false", version="true"),
        "enable-wrong-api": bytes([4]) + reply(session, "enable", 0),
        "disable-real-ret": bytes([5]) + reply(trap, "disable", "2.5"),
        "receiver": bytes([6]) + reply("Tidewatch.Trap.Receiver", "set", 0),
        "get": bytes([7]) + reply(
            session, "get", 0,
            '{"trapEnabled":true,"subscribedTraps":[[],[],[1003],[17,18]],'
            '"trapReceiverHost":"7srv"}'),
        "get-negative-id": bytes([7]) + reply(
            session, "get", 0,
            '{"trapEnabled":false,"subscribedTraps":[[-1]],"trapReceiverHost":""}'),
        "list": bytes([8]) + reply(session, "list", 0, '{"sid_list":[1,2,3]}'),
        "list-real": bytes([8]) + reply(session, "list", 0, '{"sid_list":[1e30]}'),
        "debug-level": bytes([9]) + reply("Tidewatch.DebugLevel", "set", 0),
        "cmd-type": bytes([11]) + reply(session, "close", 0),
        "send-fails": bytes([41]),
    }


def link_seeds():
    pieces = bytes([2, 9, 0, 0xFF])

    def wrapped(text):
        return link_frame(0x11, text.encode())

    create = '{"api":"Tidewatch.Session","method":"create","version":1}'
    request = mcp(1, json_bytes(create))
    session = [
        wrapped(create),
        wrapped('{"api":"Tidewatch.Trap","arg":{"async":0,"msgId":1234,"sessionId":1,'
                '"type":"EM"},"method":"subscribe","version":1}'),
        wrapped('{"api":"Tidewatch.Trap.Receiver","arg":{"server_name":"1srv","sessionId":1},'
                '"method":"set","version":1}'),
        wrapped('{"api":"Tidewatch.Session","arg":{"sessionId":1},"method":"get","version":1}'),
        wrapped('{"api":"Tidewatch.Session","arg":{"doerId":1},"method":"list","version":1}'),
    ]
    return {
        "command": pieces + link_frame(0x01, request),
        "session": pieces + b"".join(session),
        "register-and-trap": pieces + link_frame(0x02, b"7srv") + link_frame(0x83, b"\x01"),
        "bad-length": pieces + link_frame(0x01, b"") + struct.pack("<I", 0) + b"xyz",
        "too-long": pieces + struct.pack("<I", 16 * 1024 * 1024 + 1),
        "partial": pieces + struct.pack("<I", 300) + b"\x01" + request,
        "not-json": pieces + wrapped('{"api":1,"method":[],"version":-1}') + wrapped("[1,2]"),
    }


def cli_seeds():
    def argv(*words):
        return b"\0".join(w.encode() for w in words)

    return {
        "create": argv("--create-session", "level=1", "level=0"),
        "create-bad-level": argv("--create-session", "level=-1"),
        "close-bad-id": argv("--close-session", "sessionId=12abc"),
        "close-from-file": argv("@7", "--close-session", "sessionId=0"),
        "subscribe": argv("--subscribe-trap", "sessionId=1", "TYPE=EM", "msgId=5"),
        "subscribe-no-type": argv("--subscribe-trap", "sessionId=1", "msgId=5"),
        "debug-level": argv("@12", "-set-debug", "level=10"),
        "get": argv("--get-session", "doerId=1", "sessionId=18446744073709551615"),
        "list-no-file": argv("--list-session"),
        "receiver": argv("--set-trap-receiver", "sessionId=3", "servername=" + "s" * 140),
        "help": argv("--help"),
        "unknown": argv("--frobnicate", "x=1"),
    }


def pcapng_block(block_type, body):
    length = 12 + len(body)
    return struct.pack("<II", block_type, length) + body + struct.pack("<I", length)


def pcapng_option(code, value):
    return struct.pack("<HH", code, len(value)) + value + b"\0" * (-len(value) % 4)


def pcapng_section(appl=b"tide_watch_capture seed"):
    shb = pcapng_block(0x0A0D0D0A, struct.pack("<IHHq", 0x1A2B3C4D, 1, 0, -1)
                       + pcapng_option(4, appl) + b"\0" * 4)
    idb = pcapng_block(1, struct.pack("<HHI", 162, 0, 0) + pcapng_option(2, b"tidewatch")
                       + pcapng_option(9, b"\x06") + b"\0" * 4)
    return shb + idb


def trap_header(trap_type, seq, record, flags=0, numbers=(0,) * 5, pdu=(0, 0), peers=(0, 0),
                names=(b"", b""), fields=(), discards=(0,) * 9, tool_drops=0):
    var = b"".join(struct.pack("<H", len(n)) + n for n in names)
    var += struct.pack("<H", len(fields))
    var += b"".join(struct.pack("<H", len(n)) + n + struct.pack("<Q", v) for n, v in fields)
    size = 128 + len(var)
    size += -size % 4
    fixed = struct.pack("<IBBHII", 0x52545754, 1, trap_type, flags, size, len(record))
    fixed += struct.pack("<QQ", seq, len(record) - 5) + struct.pack("<5Q", *numbers)
    fixed += struct.pack("<4I", *pdu, *peers) + struct.pack("<9I", *discards)
    fixed += struct.pack("<I", tool_drops)
    return (fixed + var).ljust(size, b"\0") + record


def pcapng_packet(data, seq, time_us, drops=0):
    body = struct.pack("<IIIII", 0, time_us >> 32, time_us & 0xFFFFFFFF, len(data), len(data))
    body += data + b"\0" * (-len(data) % 4)
    body += pcapng_option(4, struct.pack("<Q", drops)) + pcapng_option(5, struct.pack("<Q", seq))
    return pcapng_block(6, body + b"\0" * 4)


def pcapng_stats(start_us, end_us, written, service_drops, tool_drops):
    def time(us):
        return struct.pack("<II", us >> 32, us & 0xFFFFFFFF)
    body = struct.pack("<I", 0) + time(end_us) + pcapng_option(2, time(start_us))
    body += pcapng_option(3, time(end_us))
    for code, value in ((4, written + tool_drops), (5, service_drops), (7, tool_drops),
                        (8, written)):
        body += pcapng_option(code, struct.pack("<Q", value))
    return pcapng_block(5, body + b"\0" * 4)


def pcapng_seeds():
    mib = bytes([0x60, 0xA0, 0x00])
    ota_record = trap_record(2, bytes(4) + b"\x01\0\0\0" + struct.pack("<HH", 1000, 3) + mib)
    ota = trap_header(2, 1, ota_record, flags=0x7F, numbers=(1, 1000, 1, 3, 0), pdu=(17, 3),
                      names=(b"OTA_TRACE_LTE_RRC", b"LTE_RRC_MASTER_INFORMATION_BLOCK"))
    em_record = trap_record(3, bytes(16))
    em = trap_header(3, 2, em_record, flags=0x307, numbers=(0, 2000, 0, 0, 1), peers=(13, 8),
                     names=(b"", b"EM_LTE_SERVING_CELL_INFO"),
                     fields=((b"EARFCN", 1300), (b"RSRP", 180)), discards=(0, 0, 3) + (0,) * 6,
                     tool_drops=2)
    raw = trap_header(4, 3, trap_record(4, b"volte"))
    t0 = 1700000000000000
    body = (pcapng_packet(ota, 1, t0) + pcapng_packet(em, 2, t0 + 1250, 5)
            + pcapng_packet(raw, 3, t0 + 2500))
    whole = pcapng_section() + body + pcapng_stats(t0, t0 + 9000, 3, 3, 2)
    return {
        "capture": whole,
        "two-sections": whole + whole,
        "truncated": whole[:len(whole) - 50],
        "empty-section": pcapng_section(),
    }


def main():
    write("mcp_stream_fuzzer", {
        name: stream_prefix() + body for name, body in mcp_seeds().items()})
    write("mcp_stream_fuzzer", {
        "debug-log": stream_prefix(flags=1, pieces=(0, 0, 4, 9)) + mcp_seeds()["garbage-first"],
        "past-compaction-mark": stream_prefix(flags=63 << 1, start=131070, pieces=(200, 17, 90, 3))
                                + b"junk" + mcp(3, trap_record(2, b"z" * 1500)),
    })
    write("mcp_oneshot_fuzzer", mcp_seeds())
    write("trap_packet_fuzzer", trap_seeds())
    write("layout_file_fuzzer", layout_seeds())
    write("trap_decoder_fuzzer", decoder_seeds())
    write("reply_check_fuzzer", reply_seeds())
    write("hal_link_fuzzer", link_seeds())
    write("cli_args_fuzzer", cli_seeds())
    write("pcapng_reader_fuzzer", pcapng_seeds())


if __name__ == "__main__":
    main()

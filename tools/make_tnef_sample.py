#!/usr/bin/env python3
"""Writes data/samples/winmail.eml: a message whose attachments travel
inside one application/ms-tnef part ("winmail.dat"), as some mail clients
send them.  The TNEF stream is built here attribute by attribute:

  attTnefVersion, attOemCodepage (1252), attMessageClass,
  then two attachments, each opened by attAttachRenddata:
    1. a text file titled "AGENDA~1.TXT" whose MAPI properties give the
       long file name "Meeting agenda.txt" (UTF-16) and the extension;
    2. a 24x16 PNG titled "floorplan.png" with no properties.

Every attribute is: level byte (1 message, 2 attachment), 32-bit id,
32-bit length, the data, and a 16-bit checksum (the sum of the data bytes);
all numbers little-endian.

usage: tools/make_tnef_sample.py [OUT.eml]   (default: data/samples/winmail.eml)
"""

import base64
import os
import struct
import sys
import zlib

SIGNATURE = 0x223E9F78
LVL_MESSAGE, LVL_ATTACHMENT = 1, 2

ATT_TNEF_VERSION = 0x00089006
ATT_OEM_CODEPAGE = 0x00069007
ATT_MESSAGE_CLASS = 0x00078008
ATT_ATTACH_RENDDATA = 0x00069002
ATT_ATTACH_TITLE = 0x00018010
ATT_ATTACH_DATA = 0x0006800F
ATT_ATTACHMENT = 0x00069005

PT_UNICODE = 0x001F
PT_STRING8 = 0x001E
PR_ATTACH_EXTENSION = 0x3703
PR_ATTACH_LONG_FILENAME = 0x3707


def attribute(level, attr_id, data):
    checksum = sum(data) & 0xFFFF
    return struct.pack("<BII", level, attr_id, len(data)) + data + struct.pack("<H", checksum)


def padded(data):
    return data + b"\0" * (-len(data) % 4)


def string_property(prop_id, prop_type, value):
    """One string property: tag, value count 1, size, bytes padded to 4."""
    if prop_type == PT_UNICODE:
        raw = value.encode("utf-16-le") + b"\0\0"
    else:
        raw = value.encode("ascii") + b"\0"
    return struct.pack("<III", (prop_id << 16) | prop_type, 1, len(raw)) + padded(raw)


def property_block(props):
    return struct.pack("<I", len(props)) + b"".join(props)


def renddata():
    # ATYP 1 (a file), position -1 (none), width and height -1, flags 0.
    return struct.pack("<HIHHI", 1, 0xFFFFFFFF, 0xFFFF, 0xFFFF, 0)


def png(width, height):
    """A small picture: light ground, a dark frame and one room wall."""
    rows = []
    for y in range(height):
        row = bytearray([0])  # filter: none
        for x in range(width):
            edge = x in (0, width - 1) or y in (0, height - 1) or x == width // 2 and y > 3
            row += bytes((40, 60, 90) if edge else (235, 230, 215))
        rows.append(bytes(row))

    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))

    header = struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0)
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", zlib.compress(b"".join(rows), 9))
            + chunk(b"IEND", b""))


AGENDA = (b"Agenda for the planning meeting, Wednesday 12 June\r\n"
          b"\r\n"
          b"1. Office move: dates and packing\r\n"
          b"2. Floor plan of the new rooms (attached)\r\n"
          b"3. Any other business\r\n")


def tnef_stream():
    out = struct.pack("<IH", SIGNATURE, 0x1F2E)
    out += attribute(LVL_MESSAGE, ATT_TNEF_VERSION, struct.pack("<I", 0x00010000))
    out += attribute(LVL_MESSAGE, ATT_OEM_CODEPAGE, struct.pack("<II", 1252, 0))
    out += attribute(LVL_MESSAGE, ATT_MESSAGE_CLASS, b"IPM.Microsoft Mail.Note\0")

    out += attribute(LVL_ATTACHMENT, ATT_ATTACH_RENDDATA, renddata())
    out += attribute(LVL_ATTACHMENT, ATT_ATTACH_TITLE, b"AGENDA~1.TXT\0")
    out += attribute(LVL_ATTACHMENT, ATT_ATTACH_DATA, AGENDA)
    out += attribute(LVL_ATTACHMENT, ATT_ATTACHMENT, property_block([
        string_property(PR_ATTACH_EXTENSION, PT_STRING8, ".txt"),
        string_property(PR_ATTACH_LONG_FILENAME, PT_UNICODE, "Meeting agenda.txt"),
    ]))

    out += attribute(LVL_ATTACHMENT, ATT_ATTACH_RENDDATA, renddata())
    out += attribute(LVL_ATTACHMENT, ATT_ATTACH_TITLE, b"floorplan.png\0")
    out += attribute(LVL_ATTACHMENT, ATT_ATTACH_DATA, png(24, 16))
    return out


def message():
    body = base64.encodebytes(tnef_stream()).decode("ascii")
    return (
        "From: Ingrid Holm <ingrid.holm@example.com>\r\n"
        "To: Tom Berg <tom.berg@example.net>\r\n"
        "Subject: Planning meeting: agenda and floor plan\r\n"
        "Date: Mon, 10 Jun 2024 08:30:00 +0200\r\n"
        "Message-ID: <tnef.20240610.0830@example.com>\r\n"
        "MIME-Version: 1.0\r\n"
        "Content-Type: multipart/mixed; boundary=\"----=_NextPart_000_0001\"\r\n"
        "\r\n"
        "------=_NextPart_000_0001\r\n"
        "Content-Type: text/plain; charset=\"us-ascii\"\r\n"
        "Content-Transfer-Encoding: 7bit\r\n"
        "\r\n"
        "Hello Tom,\r\n"
        "\r\n"
        "the agenda and the floor plan for Wednesday are attached.\r\n"
        "\r\n"
        "Ingrid\r\n"
        "\r\n"
        "------=_NextPart_000_0001\r\n"
        "Content-Type: application/ms-tnef; name=\"winmail.dat\"\r\n"
        "Content-Transfer-Encoding: base64\r\n"
        "Content-Disposition: attachment; filename=\"winmail.dat\"\r\n"
        "\r\n"
        + body.replace("\n", "\r\n") +
        "\r\n"
        "------=_NextPart_000_0001--\r\n"
    )


def main():
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    out = sys.argv[1] if len(sys.argv) > 1 else os.path.join(root, "data", "samples", "winmail.eml")
    with open(out, "wb") as f:
        f.write(message().encode("ascii"))


if __name__ == "__main__":
    main()

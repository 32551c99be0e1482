#!/usr/bin/env python3
"""Writes the simulator-session seeds of the fuzz corpus (mode 's').

Run from the repository's root after a change to the frame layout or to the
requests the simulator serves; the seeds are committed, so neither CI nor a
build runs this. Each seed is the mode byte, a pacing byte (chunk size and
stall bit, as sim_session.cpp reads it) and a client's stream of frames.
"""
import json
import struct
from pathlib import Path


def frame(kind, ident, name, payload=b"", fmt=None):
    if fmt is None:
        fmt = 2 if payload else 0
    name = name.encode()
    header = struct.pack(">BBBBIBBHiI", 0x51, 4, kind, fmt, ident, 0, 0, len(name), 0,
                         len(payload))
    return header + name + payload


def request(ident, name, body=None):
    payload = b"" if body is None else json.dumps(body, separators=(",", ":")).encode()
    return frame(1, ident, name, payload)


BOUND = [request(1, "hdshkStart", {}), request(2, "hdshkFinish", {"if": "hci0"})]

SEEDS = {
    # The whole life of a bound session, in single bytes and in big chunks.
    "s_bound_session": (0, BOUND + [request(3, "ifStatusGet", {}), request(4, "ifAddrGet", {})]),
    "s_bound_session_chunks": (0x3f, BOUND + [request(3, "ifStatusGet", {})]),
    # Refusals: a client id, the controller's choice of interface, an
    # unknown one, a request before the handshake, an unknown name, bodies
    # that are not objects or not JSON, a request wanting no reply.
    "s_refusals": (7, [request(1, "ifStatusGet", {}),
                       request(2, "hdshkStart", {"clientID": "00112233445566778899AABBCCDDEEFF"}),
                       request(3, "hdshkFinish", None),
                       request(4, "hdshkFinish", {"if": "nowhere"}),
                       request(5, "bogus", [1, 2]),
                       frame(1, 6, "ifAddrGet", b"{not json", 2),
                       frame(1, 7, "ifAddrGet", b"\x00\x01", 1),
                       request(0, "ifStatusGet", {})]),
    # Nesting near the bound, and an event and an error frame from a client.
    "s_nesting": (0x1f, [frame(1, 1, "hdshkStart", b"[" * 80 + b"]" * 80, 2),
                         frame(3, 0, "ifStatusChanged", b"{}", 2),
                         frame(4, 0, "", b"", 0)]),
    # Half a frame, left hanging while the pacing stalls.
    "s_half_frame": (0x81, [request(1, "hdshkStart", {})[:25]]),
}


def main():
    corpus = Path(__file__).resolve().parent / "corpus"
    for name, (pace, frames) in SEEDS.items():
        (corpus / name).write_bytes(b"s" + bytes([pace]) + b"".join(frames))


if __name__ == "__main__":
    main()

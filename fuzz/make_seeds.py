#!/usr/bin/env python3
"""Writes the simulator-session and client seeds of the fuzz corpus (modes
's' and 'c').

Run from the repository's root after a change to the frame layout or to the
requests the simulator serves; the seeds are committed, so neither CI nor a
build runs this. Each seed is the mode byte, a pacing byte (chunk size and
stall bit, as sim_session.cpp reads it) and a client's stream of frames.
A client seed is the mode byte and records as client.cpp reads them.
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

# Mode 'c': the wire names in client.cpp's order, and its record kinds.
NAMES = ["ifAddrGet", "freeResvsGet", "resvsGet", "advsGet", "connsGet", "connOpen",
         "connClose", "connStatusGet", "connMtuGet", "connDirectionGet", "connResvSet",
         "connAddressGet", "connSignalGet", "connPhySet", "connPhyGet", "connParamsSet",
         "connParamsGet", "connLatencySet", "connLatencyGet", "resvCreate", "resvRecreate",
         "resvDestroy", "connPending", "connOpening", "connOpened", "connClosing", "connClosed",
         "connMtu", "connPhy", "connParams", "connsChanged", "freeResvsChanged", "advsChanged",
         "ifStatusChanged", "advPending", "gattsDbUpdated", "advStart", "advStop",
         "advStatusGet", "advResvSet", "advDataSet", "advDataGet", "advAddressGet",
         "advConnectionGet", "advIntervalGet", "advTxPowerGet", "advChannelMapGet", "advPhyGet",
         "advStarting", "advStarted", "advStopping", "advStopped", "advDataChanged",
         "gattsPrimaryServicesGet", "gattsServiceGet", "gattsCharGet", "gattsDescGet",
         "gattsServiceAdd", "gattsServiceRemove", "gattsServiceReferenceAdd",
         "gattsServiceReferenceRemove", "gattsServiceEnable", "gattsServiceDisable",
         "gattsCharAdd", "gattsCharRemove", "gattsDescAdd", "gattsDescRemove",
         "gattsCharValueRead", "gattsCharValueWrite", "gattsDescValueRead",
         "gattsDescValueWrite", "gattsCharValueReadResponse", "gattsDescValueReadResponse",
         "gattsCharValueWriteResponse", "gattsDescValueWriteResponse",
         "gattsCharValueSetNotify"]
REPLY, FAIL, EVENT, CALL, ADVANCE = range(5)
# Application calls, as client.cpp numbers them.
CONNECT, CLOSE, ADDRESS_SIGNAL, PHY_LATENCY, PARAMS, SET_PHY_LATENCY, SET_PARAMS, SET_RESV, \
    ADD_RESV, REPLACE_RESV, REMOVE_RESV, QUEUE, READ, DROP, RELEASE, RESET = range(16)
# The advertiser calls follow, as client_advertisers.cpp numbers them.
ADV_START, ADV_STOP, ADV_SET_RESV, ADV_SET_DATA, ADV_DATA_ADDRESS, ADV_CONN_INTERVAL, \
    ADV_POWER_CHANNELS_PHY, ADV_QUEUE, ADV_READ, ADV_DROP, ADV_DROP_ANNOUNCED, \
    ADV_RELEASE = range(16, 28)
# The GATT server calls follow, as client_gatt.cpp numbers them.
GATT_SYNC, GATT_ADD_SERVICE, GATT_DEL_SERVICE, GATT_REFERENCE, GATT_ENABLE, GATT_ADD_CHAR, \
    GATT_DEL_CHAR, GATT_ADD_DESC, GATT_DEL_DESC, GATT_READ_MIRROR, GATT_WATCH, GATT_RELEASE, \
    GATT_SERVE, GATT_ANSWER, GATT_DROP_HANDLERS = range(28, 43)
# The controller's code for a handle that names nothing.
UNKNOWN_HANDLE = 31


def body(value):
    if isinstance(value, bytes):
        return value
    return json.dumps(value, separators=(",", ":")).encode()


def length(data):
    """One byte, or 255 and two bytes for a body of 255 bytes or more."""
    if len(data) < 255:
        return bytes([len(data)])
    return bytes([255]) + struct.pack(">H", len(data))


def reply(name, value):
    data = body(value)
    return bytes([REPLY, NAMES.index(name)]) + length(data) + data


def fail(name, code):
    return bytes([FAIL, NAMES.index(name), code])


def event(name, value):
    data = body(value)
    return bytes([EVENT, NAMES.index(name)]) + length(data) + data


def call(operation, argument=0):
    return bytes([CALL, operation, argument])


def advance(seconds):
    return bytes([ADVANCE, seconds])


AD_FLAGS = {"type": 1, "value": "06"}
PARAMS_BODY = {"intervalMin": 6, "intervalMax": 12, "latency": 0, "timeout": 100}
OPENED = {"connHandle": 5, "connPhy": "1m", "connMtu": 23, "connDirection": "outgoing"}

CLIENT_SEEDS = {
    # A connection's whole life, with its properties read and changed.
    "c_connection": [
        call(CONNECT), reply("connOpen", {"connHandle": 5, "status": "opening",
                                          "guaranteedTime": 5}),
        event("connOpened", OPENED),
        event("connMtu", {"connHandle": 5, "connMtu": 185}),
        event("connPhy", {"connHandle": 5, "connPhy": "2m"}),
        event("connParams", {"connHandle": 5, "connParams": PARAMS_BODY}),
        call(PHY_LATENCY), reply("connPhyGet", {"connPhy": "2m"}),
        call(ADDRESS_SIGNAL),
        reply("connAddressGet", {"addr": {"type": "public", "mac": "AA:BB:CC:DD:EE:01"}}),
        reply("connSignalGet", {"signal": {"quality": 80, "strength": -60}}),
        call(PARAMS), reply("connParamsGet", {"connParams": PARAMS_BODY}),
        call(SET_PHY_LATENCY, 8), reply("connPhySet", {}),
        call(SET_PARAMS, 0), reply("connParamsSet", {}),
        call(QUEUE), reply("connsGet", {"maxConnections": 4,
                                        "connections": {"5": {"piq": 0}}}),
        call(CLOSE), reply("connClose", {}),
        event("connClosing", {"connHandle": 5}),
        event("connClosed", {"connHandle": 5, "reason": "userRequested"}),
    ],
    # Reservations added, used, replaced and given back, with the counts.
    "c_reservations": [
        call(ADD_RESV, 0), reply("resvCreate", {"resvId": 9}),
        event("freeResvsChanged", {"connection": 1, "advertiser": 1}),
        call(CONNECT, 0x11), reply("connOpen", {"connHandle": 6, "status": "pending",
                                                "guaranteedTime": 0}),
        event("connPending", {"connHandle": 6}),
        call(SET_RESV, 0x11), reply("connResvSet", {}),
        event("connsChanged", {"maxConnections": 4, "connections": {"6": {"piq": 1}}}),
        call(REPLACE_RESV, 0x20), reply("resvRecreate", {"resvId": 10}),
        call(REMOVE_RESV, 0x10), fail("resvDestroy", 7),
        call(REMOVE_RESV, 0x10), reply("resvDestroy", {}),
    ],
    # The interface goes away and comes back: a second sync, answered by
    # the input, with a connection the application did not make.
    "c_resync": [
        event("ifStatusChanged", {"status": "rebooting"}),
        event("ifStatusChanged", {"status": "enabled"}),
        reply("ifAddrGet", {"addr": {"type": "public", "mac": "02:54:56:00:00:01"}}),
        reply("freeResvsGet", {"connection": 0, "advertiser": 2}),
        reply("resvsGet", {"1": {"type": "advertiser", "context": {"customData": "x"}}}),
        reply("advsGet", {"maxAdvertisers": 2, "advertisers": {}}),
        reply("connsGet", {"maxConnections": 2, "connections": {"4": {"piq": 0}}}),
        reply("connStatusGet", {"status": "opened"}), reply("connMtuGet", {"connMtu": 50}),
        reply("connDirectionGet", {"connDirection": "incoming"}),
        event("connOpened", {"connHandle": 8, "connPhy": "1m", "connMtu": 23,
                             "connDirection": "incoming"}),
        event("connClosed", {"connHandle": 4, "reason": "resourceRotation"}),
        # The incoming connection's latency, which only such a one has.
        call(PHY_LATENCY, 0x40), reply("connLatencyGet", {"enableLatency": False}),
    ],
    # An advertiser's whole life: started (random address, 1M, channel 37,
    # flags), its data changed by the controller, every property read, its
    # data set, the queue read, stopped.
    "c_advertiser": [
        call(ADV_START, 0x0B),
        reply("advStart", {"advHandle": 2, "status": "starting", "advGuaranteedTime": 30}),
        event("advStarted", {"advHandle": 2}),
        event("advDataChanged", {"advHandle": 2, "data": {"primary": [AD_FLAGS],
                                                          "scanRsp": []}}),
        call(ADV_DATA_ADDRESS, 0x01), reply("advDataGet", {"data": {"primary": [AD_FLAGS]}}),
        reply("advAddressGet", {"addr": {"type": "random", "mac": "C2:BB:CC:DD:EE:03"}}),
        call(ADV_CONN_INTERVAL, 0x01), reply("advConnectionGet", {}),
        reply("advIntervalGet", {"interval": 88}),
        call(ADV_POWER_CHANNELS_PHY, 0x01), reply("advTxPowerGet", {"txPower": -4}),
        reply("advChannelMapGet", {"channelMap": ["ch37"]}), reply("advPhyGet", {"advPhy": "1m"}),
        call(ADV_SET_DATA, 0x23), reply("advDataSet", {}),
        call(ADV_QUEUE), reply("advsGet", {"maxAdvertisers": 2, "advertisers": {"2": {"piq": 0}}}),
        call(ADV_READ, 0x01), call(ADV_STOP, 0x01), reply("advStop", {}),
        event("advStopping", {"advHandle": 2}),
        event("advStopped", {"advHandle": 2, "reason": "userRequested"}),
    ],
    # Listening through a connection: the start names the connection, and a
    # peer connects; then a set someone else runs is announced, read and let
    # go, and the application drops its own while it runs.
    "c_listen": [
        call(ADV_START, 0x49),
        reply("advStart", {"advHandle": 3, "status": "started", "advGuaranteedTime": 10,
                           "connHandle": 9, "connGuaranteedTime": 10}),
        event("connOpened", {"connHandle": 9, "connPhy": "1m", "connMtu": 23,
                             "connDirection": "incoming"}),
        call(ADV_CONN_INTERVAL, 0x01), reply("advConnectionGet", {"connHandle": 9}),
        event("advPending", {"advHandle": 4, "addr": {"type": "public",
                                                      "mac": "AA:BB:CC:DD:EE:01"}}),
        event("advsChanged", {"maxAdvertisers": 2, "advertisers": {"4": {"piq": 1}}}),
        call(ADV_POWER_CHANNELS_PHY, 0x40), call(ADV_DROP_ANNOUNCED, 0x00),
        event("advStopped", {"advHandle": 4, "reason": "resourceRotation"}),
        call(ADV_START, 0x03), call(ADV_DROP, 0x03),
        reply("advStart", {"advHandle": 5, "status": "pending", "advGuaranteedTime": 0}),
        reply("advStop", {}), event("advStopped", {"advHandle": 5, "reason": "userRequested"}),
        call(ADV_STOP, 0x01), reply("connClose", {}),
    ],
    # What a controller must not say about advertisers: numbers out of range,
    # wrong types, unknown handles and states, bad hex, channels that are
    # not numbers; refusals and a reply that never comes.
    "c_adv_hostile": [
        call(ADV_START, 0x8B), reply("advStart", {"advHandle": 70000, "status": "flying",
                                                  "advGuaranteedTime": 1e30}),
        call(ADV_START, 0x0B), reply("advStart", {"advHandle": 6, "status": "started",
                                                  "advGuaranteedTime": 5}),
        event("advDataChanged", {"advHandle": 6, "data": {"primary": [{"type": 1,
                                                                       "value": "0G"}]}}),
        event("advDataChanged", {"advHandle": 6, "data": {"primary": [{"type": 300}]}}),
        event("advStarted", {"advHandle": "6"}), event("advStopped", {"advHandle": 6}),
        event("advStarting", {"advHandle": 99, "addr": {"type": 1}}),
        event("advsChanged", {"maxAdvertisers": -1, "advertisers": []}),
        call(ADV_POWER_CHANNELS_PHY, 0x01), reply("advTxPowerGet", {"txPower": 1000}),
        reply("advChannelMapGet", {"channelMap": ["chXY", "ch99999999999"]}),
        fail("advPhyGet", 3),
        call(ADV_SET_RESV, 0x31), fail("advResvSet", 200),
        call(ADV_START, 0x00), call(ADV_RELEASE), advance(46),
        event("advStopped", {"advHandle": 6, "reason": "somethingElse"}),
    ],
    # What a controller must not say: bodies of the wrong shape, numbers out
    # of range, refusals, and silence until the replies time out; objects
    # dropped and links released mid-operation.
    "c_hostile": [
        call(CONNECT, 0x81), reply("connOpen", b"[1,2"),
        call(CONNECT, 1), reply("connOpen", {"connHandle": 70000, "status": "opened",
                                             "guaranteedTime": -1}),
        event("connMtu", {"connHandle": "5", "connMtu": 1e9}),
        event("connsChanged", {"maxConnections": 4, "connections": {"x": {}}}),
        event("freeResvsChanged", [1]), event("connParams", {"connHandle": 3}),
        call(CONNECT, 2), call(DROP, 2), call(RELEASE), call(ADD_RESV, 1),
        advance(46), call(CONNECT, 3), fail("connOpen", 255), call(RESET),
    ],
    # A walk of a small database: a service included by both primary ones
    # (asked for twice, built once), a characteristic with a descriptor; the
    # mirror read, an update heard by a watcher that walks again, and a
    # second caller that waits for the next walk.
    "c_gatt_walk": [
        call(GATT_WATCH, 0x01), call(GATT_SYNC, 0x01),
        reply("gattsPrimaryServicesGet", [10, 20]),
        reply("gattsServiceGet", {"uuid": "180f", "enabled": True, "includedServices": [30],
                                  "includedChars": [11]}),
        reply("gattsServiceGet", {"uuid": "12345678-1234-5678-1234-56789ABCDEF0",
                                  "enabled": False, "includedServices": [30]}),
        reply("gattsServiceGet", {"uuid": "181a", "enabled": True}),
        reply("gattsCharGet", {"uuid": "2a19", "permissions": ["read"],
                               "properties": ["read", "notify"], "includedDescriptors": [12]}),
        reply("gattsServiceGet", {"uuid": "181a", "enabled": True}),
        reply("gattsDescGet", {"uuid": "2902", "permissions": ["read", "write"]}),
        call(GATT_READ_MIRROR, 8),
        reply("gattsPrimaryServicesGet", []),
        event("gattsDbUpdated", {"handles": [11, 12]}),
        reply("gattsPrimaryServicesGet", {}),
        call(GATT_READ_MIRROR, 0),
    ],
    # What a controller must not say in a walk: services that include each
    # other, handles that name nothing or the wrong kind, the root's handle,
    # a reply with hundreds of handles, keys of the wrong type, texts the
    # tree does not know; a walk that fails midway while a caller waits.
    "c_gatt_hostile": [
        call(GATT_SYNC, 0x03), call(GATT_SYNC, 0x84),
        reply("gattsPrimaryServicesGet", [1, 2, 0, 1]),
        reply("gattsServiceGet", {"uuid": "1800", "enabled": True, "includedServices": [2],
                                  "includedChars": [1, 2, 5]}),
        reply("gattsServiceGet", {"uuid": "1801", "enabled": True, "includedServices": [1, 2],
                                  "includedChars": "5"}),
        reply("gattsServiceGet", {"uuid": 5, "enabled": "yes"}),
        fail("gattsServiceGet", UNKNOWN_HANDLE),
        reply("gattsCharGet", {"uuid": "2a00", "permissions": ["read", "execute"],
                               "properties": ["read"]}),
        reply("gattsCharGet", {"uuid": "2a01", "permissions": [],
                               "properties": ["writeNoResponse", "extendedProps"],
                               "includedDescriptors": [7]}),
        reply("gattsCharGet", {"uuid": "not-a-uuid", "permissions": [], "properties": []}),
        reply("gattsServiceGet", {"uuid": "1802", "enabled": True,
                                  "includedChars": list(range(100, 700))}),
        reply("gattsCharGet", {"uuid": "2a02", "permissions": ["read"], "properties": ["read"],
                               "includedDescriptors": [1, 100, 4294967295]}),
        fail("gattsCharGet", UNKNOWN_HANDLE), fail("gattsCharGet", 3),
        reply("gattsPrimaryServicesGet", "[1"), fail("gattsPrimaryServicesGet", UNKNOWN_HANDLE),
        call(GATT_READ_MIRROR, 0), advance(46), call(GATT_READ_MIRROR, 1),
    ],
    # Edits: a service with and without a parent, a characteristic, a
    # descriptor, references, enabling; refusals, a reply without a handle,
    # and links released before the replies.
    "c_gatt_edits": [
        call(GATT_ADD_SERVICE, 0x01), reply("gattsServiceAdd", {"handle": 40}),
        call(GATT_ADD_SERVICE, 0x07), reply("gattsServiceAdd", {"handle": 41}),
        call(GATT_ADD_CHAR, 0x3f), reply("gattsCharAdd", {"handle": 42}),
        call(GATT_ADD_DESC, 0x07), reply("gattsDescAdd", {"handle": 43}),
        call(GATT_REFERENCE, 0x13), reply("gattsServiceReferenceAdd", {}),
        call(GATT_REFERENCE, 0x12), fail("gattsServiceReferenceRemove", 39),
        call(GATT_ENABLE, 0x03), reply("gattsServiceEnable", {}),
        call(GATT_ENABLE, 0x82), reply("gattsServiceDisable", {}),
        call(GATT_ADD_SERVICE, 0x80), reply("gattsServiceAdd", {}),
        call(GATT_DEL_DESC, 0x01), reply("gattsDescRemove", {}),
        call(GATT_DEL_CHAR, 0x02), call(GATT_RELEASE), reply("gattsCharRemove", {}),
        call(GATT_DEL_SERVICE, 0x05), fail("gattsServiceRemove", UNKNOWN_HANDLE),
        event("gattsDbUpdated", {"handles": [40, 41, 42, 43]}),
        event("gattsDbUpdated", {"handles": "all"}),
    ],
    # Peers' reads and writes on a connection a peer opened (handle 8, the
    # first the client announces): handlers at the three levels, answering
    # inside the handler or throwing; answers and a notification later;
    # events the client must drop or that throw; then no handlers at all.
    "c_gatt_values": [
        event("connOpened", {"connHandle": 8, "connPhy": "1m", "connMtu": 23,
                             "connDirection": "incoming"}),
        call(GATT_SERVE, 0x6A), call(GATT_SERVE, 0x64), call(GATT_SERVE, 0x69),
        call(GATT_SERVE, 0xA3),
        event("gattsCharValueWrite", {"connHandle": 8, "handle": 11, "data": "0aFF"}),
        reply("gattsCharValueWriteResponse", {}),
        event("gattsCharValueRead", {"connHandle": 8, "handle": 5, "offset": 1}),
        fail("gattsCharValueReadResponse", UNKNOWN_HANDLE),
        event("gattsDescValueRead", {"connHandle": 8, "handle": 6}),
        event("gattsDescValueWrite", {"connHandle": 8, "handle": 2, "data": "", "offset": 0}),
        event("gattsCharValueWrite", {"connHandle": 8, "handle": 12, "data": "0aff",
                                      "responseNeeded": False}),
        event("gattsCharValueWrite", {"connHandle": 8, "handle": 11, "data": "0G"}),
        event("gattsCharValueWrite", {"connHandle": 8, "handle": 11}),
        event("gattsCharValueWrite", {"connHandle": 8, "handle": 11, "data": "00",
                                      "responseNeeded": "yes"}),
        event("gattsDescValueRead", {"connHandle": 8, "handle": -1, "offset": 1e20}),
        event("gattsCharValueRead", {"connHandle": 99}),
        call(GATT_ANSWER, 0x24), reply("gattsCharValueSetNotify", {}),
        call(GATT_ANSWER, 0x39), fail("gattsDescValueReadResponse", 3),
        call(GATT_DROP_HANDLERS),
        event("gattsCharValueWrite", {"connHandle": 8, "handle": 11, "data": "0aff"}),
    ],
}


def main():
    corpus = Path(__file__).resolve().parent / "corpus"
    for name, (pace, frames) in SEEDS.items():
        (corpus / name).write_bytes(b"s" + bytes([pace]) + b"".join(frames))
    for name, records in CLIENT_SEEDS.items():
        (corpus / name).write_bytes(b"c" + b"".join(records))


if __name__ == "__main__":
    main()

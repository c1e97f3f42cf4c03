#!/usr/bin/env python3
"""Writes the seed corpus of every fuzz target (tests/fuzz/corpus/<target>/):
a handful of valid messages each. Run it again after changing a seed: it
rewrites the seeds named here and keeps every other file of a corpus (inputs
found by fuzzing, seeds written by hand)."""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))
SEP = b"|NEXT|"


def status(typ, lid, version=b"V5.1 [9.2]", name=b"gw", grp=b"", users=10, max_users=100):
    return struct.pack(
        "<4sHHIIIIII16s88s64s64sQQIIIHH24s", b"VTR", typ, 7, 1700000000, 3600, 0xC0A80101,
        1690000000, 1710000000, users, lid, lid + b"-83", version, name, 1000000, 8000000,
        500, 1000, max_users, 0, 45, grp)


def lnglat(lid, lng, lat):
    return struct.pack("<4sHH16sdd", b"VTR", 1008, 0, lid, lng, lat)


def key(lid, md5):
    return struct.pack("<4sHH16s32s", b"VTR", 20001, 0, lid, md5)


def text(t):
    return struct.pack("<4sHH512s", b"VTR", 40000, 520, t)


def family(magic, body):
    """A text report of a cache appliance (FRB) or log server (LOG)."""
    return struct.pack("<4sHH", magic, 40000, len(body)) + body


KEY = b"RSA=ssh-ed25519 AAAAC3NzaC1lZDI1NTE5AAAAIGtestkeymaterial0123456789 box@"


SEEDS = {
    "fuzz_dgram": {
        "new_device": SEP.join([
            status(10012, b"GW0000000009"), lnglat(b"GW0000000009", 116.397, 39.909),
            key(b"GW0000000009", b"0123456789abcdef0123456789abcdef"),
            text(b"tag=cpuinfo license_id12=GW0000000009 cpurate=5 rmadmin=0 cronfile=1")]),
        "limits_group": SEP.join([
            status(30004, b"GW0000000001", grp=b"east", users=200, max_users=100),
            status(30004, b"GW0000000001", version=b"V5.2 [9.3]", grp=b"", users=1)]),
        "text_replies": SEP.join([
            status(50000, b"GW0000000005"),
            text(b"tag=rootpassreset license_id12=GW0000000001 return=0"),
            text(b"tag=wxdeny license_id12=GW0000000005 return=-1"),
            text(b"tag=cpuinfo licid12=TEMP00000001 cpurate=97")]),
        "silence": SEP.join([status(10012, b"GW0000000001"), b"VTR", b"VTR", status(10012, b"GW0000000001"),
                             b"@3600", text(b"tag=cpuinfo license_id12=GW0000000001 cpurate=1")]),
        "refused_ids": SEP.join([status(10012, b"GW00000000012"), status(10012, b""), key(b"UNKNOWN", b"ff" * 16)]),
        "frelbox": SEP.join([
            family(b"FRB", b"key=FRB000000001 cpurate=37 cpu=Xeon board=X10 mem=16G boot=1700000100 name=cache "
                   b"ver=V3.2.1 bdw=1000 start=1700000000 end=1900000000 bpsout=5000000000 bpsin=7000000000 "
                   b"flow=321 diskio=r1 pused=45%"),
            family(b"FRB", b"tag=FRBPWD licenseid=FRB000000001 verify=s3cr3t"),
            family(b"FRB", b"tag=frb_upgrade license_id12=FRB000000001 taskid=42 log=flashed new_ver=V3.3 fail=0"),
            family(b"FRB", KEY + b"frb"),
            family(b"FRB", b"license_id12=FRB000000001 bpsin=1 flow=2")]),
        "logserver": SEP.join([
            family(b"LOG", b"key=LOG000000001 name=logs ver=V1.2.0 boot=1700000100 start=1700000000 end=1900000000 "
                   b"bps=4000"),
            family(b"LOG", b"tag=FRBPWD key=LOG000000002   name=tagged"),
            family(b"LOG", KEY + b"log"),
            family(b"LOG", b"key=LOG000000001 bps=5")]),
    },
    "fuzz_mgmt": {
        "stat_list": b"2050 grpid=0" + SEP + b"2055 page=1 limit=20 sortname=2 sortdesc=1" + SEP +
        b"2054 license_id12=GW0000000001",
        "set_search": b"2053 license_id12=GW0000000001 sysname=office grpid=3 address=Beijing lng=116.3 lat=39.9" +
        SEP + b"2055 sch=office usergrp=3|0",
        "passreset": b"2053 license_id12=GW0000000001 rootpass=Secret123 mfadminpass=1" + SEP + b"D " +
        status(10012, b"GW0000000001") + SEP + b"2055 showpassreset" + SEP + b"2055 clearpassreset",
        "ranges": b"2056 minport=30000 maxport=31000" + SEP + b"2056 defgrp=5 notify_discon=1" + SEP +
        b"2056 grpreset=1 oldgrp=5" + SEP + b"2050",
        "mapping_remove": b"2057 license_id12=GW0000000002 maphost=10.0.0.9 hostport=22 webport=30001 "
        b"sshport=30002 webenable=1 sshenable=1" + SEP + b"2052 license_id12=TEMP00000003" + SEP + b"2055 expire=3",
        "other_modules": b"2055 clearequalinfo" + SEP + b"2055:cloud:300 showequal=1 expire=1" + SEP +
        b"389 sec=120" + SEP + b"2050:cpu" + SEP + b"2055:thread:100" + SEP + b"2050:dbf:64" + SEP + b"511" +
        SEP + b"9999:nosuch",
        "relay": b"2053 wxcmd=1 file=/etc/passwd" + SEP + b"2053 wxcmdstatus=1" + SEP +
        b"D " + text(b"tag=wxdeny license_id12=GW0000000001 return=0"),
        "helpers": b"H 10.0.0.1 192.168.1.0/24 10.0.0.1-10.0.0.9 10.1 any 00:11:22:33:44:55 aa-bb-cc-dd-ee-ff "
        b"65535 \t tag=\"quoted\" \r\n",
    },
    "fuzz_config": {
        "getconfig": b"g2cloud_mapping_min_port=30000\n# note\n cloud_weixin_relation_obj = discon,up\n",
        "setconfig": b"s0\x0530000cloud_mapping_min_port=24569\ncloud_mapping_max_port=34567\nother=1\n",
        "dbconf": b"d0# account\nhost = db.example\nport=3307\nsocket=/run/mysqld/mysqld.sock\nuser=vtcloud\n"
        b"password= s3cret \nmap_password=Abc.123-x\n",
        "cloudconf": b"c2device_port=24567\nlnglat_turn_us=2000\namap_host=127.0.0.1:8080\nsshd_restart=true\n",
        "webport": b"w0# nginx\nWEBPORT = 8080\n",
        "verify": b"v0cloud enable 1\nkeyonly   \nnospace\n# c\n\ncpu rate 5\nENDCONFIG\nafter end\n",
        "sshd": b"h0Port 22\n#GatewayPorts no\nPermitRootLogin no\n",
    },
    "fuzz_sqlf": {
        # Quoted conversions: conversion byte, then the value; items split at NUL.
        "quoted_latin1": b"\x02" + b"\0".join([b"@O'Reilly", b"a\\back\\slash", b"bline\nbreak\r\x1a",
                                               b"c\"dq\"", b"\x85GBK \xbf'", b"eX"]),
        "quoted_numbers": b"\x08" + b"\0".join([b"\x9e12345678", b"\xae\xff\xff\xff\xff\xff\xff\xff\xff",
                                                b"\xbf\x00\x00\x00\x00\x00\x00\xf0\x7f", b"@plain"]),
        "quoted_utf8": b"\x04" + b"\0".join([b"@\xe4\xb8\xad\xe6\x96\x87'", b"C\xc3'x"]),
        # Arbitrary format: the format, then values each led by a kind byte.
        "raw_insert": b"\x01insert into t values('%s', %d, %.12f, '%-10.3s', %c, %lu, %x, %%, %q, %ls)\0"
        b"\x00it's\0\x01\x05\0\x00\0\x03\x00\x00\x00\x00\x00\x00\xf0?\0\x00abcdef\0\x02A\0\x02\xff",
        "raw_widths": b"\x03%99999d %65535.65535f %hhu %lld %#o %+ .3e %-08s\0\x01\xff\xff\xff\xff\0\x03\x01",
    },
    "fuzz_lnglat": {
        "amap": b"\x00" + b'{"status":"1","geocodes":[{"location":"116.397128,39.916527"}]}\n',
        "baidu": b"\x01" + b'{"address":"CN|x","content":{"point":{"x":"116.40","y":"39.91"}},"status":0}\n',
        "baidu_illegal": b"\x01" + b'{"status":1,"message":"illegal request"}',
        "amap_cut": b"\x00" + b'"location' + b"\n" + b'"location":"1,2' + b"x" * 1100 + b'"\n',
    },
}

for target, seeds in SEEDS.items():
    d = os.path.join(HERE, "corpus", target)
    os.makedirs(d, exist_ok=True)
    for name, data in seeds.items():
        with open(os.path.join(d, name), "wb") as f:
            f.write(data)

#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Writes the seeds of velk-term's fuzz targets from the bundled profiles and
scenarios: the files as they are (and two that extend a bundled one), the
C-APDUs of one payment with each bundled card as vpcd frames, and the card
responses of those payments for the decoder.

usage: fuzz/host_seeds.py VELK_TERM KERNEL_LIBRARY OUT_DIR
"""
import glob
import hashlib
import json
import os
import subprocess
import sys

here = os.path.dirname(os.path.abspath(__file__))
profiles = os.path.join(here, "..", "profiles")
term, lib, out = sys.argv[1:4]


def seed(target, data):
    os.makedirs(os.path.join(out, target), exist_ok=True)
    name = hashlib.sha1(data).hexdigest()
    with open(os.path.join(out, target, name), "wb") as f:
        f.write(data)


def read(path):
    with open(path, "rb") as f:
        return f.read()


for path in glob.glob(os.path.join(profiles, "cards", "*.json")) + glob.glob(
        os.path.join(profiles, "terminals", "*.json")):
    seed("profile_fuzz", read(path))
# The bytes before a NUL are the base the rest extends.
seed("profile_fuzz", read(os.path.join(profiles, "cards", "offline-cda.json")) + b"\0" +
     b'{"extends": "base.json", "application": {"atc": 5, "fci": {"BF0C": {"9F4D": "0B0A"}}}}')
seed("profile_fuzz", read(os.path.join(profiles, "terminals", "pos.json")) + b"\0" +
     b'{"extends": "base.json", "parameters": {"9F1A": "0840"}, "exception_file": null}')
for path in glob.glob(os.path.join(profiles, "scenarios", "*.json")):
    seed("scenario_fuzz", read(path))
seed("scenario_fuzz", read(os.path.join(profiles, "scenarios", "01-online-long-tap-approved.json"))
     + b"\0" + b'{"extends": "base.json", "faults": ["tear@gac1"], "expect": {"restarts": 1}}')

responses = set()
for path in sorted(glob.glob(os.path.join(profiles, "cards", "*.json"))):
    card = os.path.splitext(os.path.basename(path))[0]
    report = subprocess.run([term, "pay", "--card", card, "--lib", lib, "--seed", "1", "--trace",
                             "--json"], capture_output=True, check=False).stdout
    frames = b"\x00\x01\x01\x00\x01\x04"  # power on, get ATR
    for item in json.loads(report).get("trace", []):
        if item.get("type") != "apdu":
            continue
        command = bytes.fromhex(item["command"])
        frames += len(command).to_bytes(2, "big") + command
        if len(item.get("response", "")) > 4:
            responses.add(bytes.fromhex(item["response"])[:-2])
    seed("vpcd_fuzz", frames + b"\x00\x01\x00")  # and power off
for r in sorted(responses, key=len)[::2]:
    seed("decode_fuzz", r)
seed("decode_fuzz", b"770E8202198094080801010010010301")
seed("decode_fuzz", b"8000048000")

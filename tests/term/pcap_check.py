#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Each scenario's capture as Wireshark's tshark reads it: every data frame
with a good CRC_A, every frame but RATS and ATS an ISO 14443-4 I-block (or
the R-block that acknowledges a chained one), the reader's block numbers
alternating from 0 at each activation and the card's answering them, the
interindustry commands (SELECT, READ RECORD...) with their instruction byte
and the status word of every response, in the order of the run's trace.

    pcap_check.py VELK_TERM LIB SCENARIOS WORK"""
import json
import os
import shutil
import subprocess
import sys

velk_term, lib, scenarios, work = sys.argv[1:5]
if shutil.which("tshark") is None:
    print("tshark is not installed: skipped")
    sys.exit(77)
shutil.rmtree(work, ignore_errors=True)
os.makedirs(work)

run = subprocess.run([velk_term, "run", scenarios, "--lib", lib, "--json",
                      "--pcap-dir", work], capture_output=True, text=True, timeout=300)
if run.returncode > 1:
    sys.exit(f"velk-term run exited with {run.returncode}: {run.stderr}")

FIELDS = ["iso14443.event", "iso14443.block_type", "iso14443.block_number",
          "iso14443.i_block_chaining",
          "iso14443.crc.status", "iso14443.rats_start", "iso14443.tl",
          "iso7816.apdu.ins", "iso7816.apdu.sw1", "iso7816.apdu.sw2"]
failures = []

for scenario in json.loads(run.stdout)["scenarios"]:
    name = scenario["file"].removesuffix(".json")
    pcap = os.path.join(work, name + ".pcap")
    if not os.path.exists(pcap):
        if scenario["report"]:
            failures.append(f"{name}: no capture")
        continue
    # The exchange as the run saw it: command then response, in order.
    want = []
    for e in scenario["report"]["trace"]:
        if e["type"] != "apdu":
            continue
        command = bytes.fromhex(e["command"])
        want.append(("C", f"{command[1]:02x}" if command[0] & 0x80 == 0 else None))
        if "response" in e:
            want.append(("R", e["response"][-4:].lower()))
    tshark = subprocess.run(
        ["tshark", "-r", pcap, "-d", "iso14443.subdissector,iso7816", "-T", "fields",
         "-E", "separator=;"] + sum([["-e", f] for f in FIELDS], []),
        capture_output=True, text=True, timeout=60)
    if tshark.returncode != 0:
        failures.append(f"{name}: tshark: {tshark.stderr.strip()}")
        continue
    got, block = [], None
    for n, line in enumerate(tshark.stdout.splitlines(), 1):
        event, btype, number, chained, crc, rats, tl, ins, sw1, sw2 = line.split(";")
        if event not in ("0xfe", "0xff"):
            block = None  # field on or off: a new activation starts at block 0
            continue
        if crc != "1":
            failures.append(f"{name} frame {n}: CRC_A status {crc or 'none'}")
        if rats or tl:
            continue
        if btype not in ("0x00", "0x02"):  # I-block, R-block
            failures.append(f"{name} frame {n}: neither I- nor R-block ({btype or 'none'})")
            continue
        if event == "0xfe":
            expected = "0" if block is None else str(1 - int(block))
            if number != expected:
                failures.append(f"{name} frame {n}: block number {number}, expected {expected}")
            block = number
        elif number != block:
            failures.append(f"{name} frame {n}: answers block {number}, not {block}")
        # A chained APDU is read whole at its last block.
        if btype == "0x02" or chained == "1":
            continue
        if event == "0xfe":
            got.append(("C", ins[2:] if ins else None))
        else:
            got.append(("R", sw1[2:] + sw2[2:]))
    if got != want:
        failures.append(f"{name}: tshark reads {got}, the run traced {want}")
    else:
        print(f"{name}: {len(got)} frames")

if failures:
    sys.exit("FAILED:\n" + "\n".join(failures))

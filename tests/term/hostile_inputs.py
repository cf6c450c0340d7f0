#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs the rows of hostile_inputs.rows against velk-term.

A row is `description | command line | exit status | expected text`. The
command line is split like a shell's after $NAME is replaced by the files
and values made here at run time (nothing hostile is committed). A row
passes when velk-term exits with the status, is not killed by a signal,
ends within the time allowed, stays under the memory limit, prints no
sanitizer report, and its stderr (else stdout) holds the text.

Before the command, `peer=HEX` plays the vpcd driver: it listens, sends
the bytes to serve-vpcd once it connects, closes its side and appends
"peer received: HEX" to the output; `signal=NAME@S` sends a signal after S
seconds; `env=NAME=VALUE` sets a variable.

usage: hostile_inputs.py VELK_TERM KERNEL_LIBRARY PROFILES_DIR ROWS_FILE
"""
import os
import resource
import shlex
import signal
import socket
import subprocess
import sys
import tempfile
import threading

TIME_LIMIT = 60
MEMORY_LIMIT = 1 << 30  # address space, when not under a sanitizer


def nest(levels, inner, open_, close):
    return open_ * levels + inner + close * levels


def tlv_nest(levels):
    data = bytes.fromhex("5A0100")
    for _ in range(levels):
        n = len(data)
        length = bytes([n]) if n < 0x80 else bytes([0x83]) + n.to_bytes(3, "big")
        data = b"\xE0" + length + data
    return data.hex().upper()


def make_inputs(work, profiles):
    """The hostile files and values the rows name as $NAME."""
    card = os.path.join(profiles, "cards", "offline-cda.json")
    pos = os.path.join(profiles, "terminals", "pos.json")
    files = {
        "deep_any.json": nest(10**6, "", "[", "]"),
        "deep_fci.json": '{"extends": "%s", "application": {"fci": %s}}'
        % (card, nest(10**5, '"00"', '{"BF0C": ', "}")),
        "deep_parameters.json": '{"extends": "%s", "parameters": %s}'
        % (pos, nest(10**5, '"00"', '{"E1": ', "}")),
        "deep_base.json": '{"name": %s}' % nest(10**4, "1", "[", "]"),
        "extends_deep.json": '{"extends": "deep_base.json"}',
        "number_overflow.json": '{"extends": "%s", "application": {"atc": 1e400}}' % card,
        "number_unsigned.json": '{"extends": "%s", "application": {"atc": 18446744073709551615}}'
        % card,
        "duplicate.json": '{"extends": "%s", "application": {"atc": 1, "atc": 2}}' % card,
        "empty_9F9301.json": '{"extends": "%s", "parameters": {"9F9301": ""}}' % pos,
        "parameters_not_tlv.json": '{"extends": "%s", "parameters": {"E1": "01"}}' % pos,
        "fci_not_tlv.json": '{"extends": "%s", "application": {"fci": {"BF0C": "01"}}}' % card,
        "hex_non_ascii.json": '{"extends": "%s", "atr": "3B\u00e980"}' % card,
        "language_not_utf8.json": '{"extends": "%s", "application": {"fci": {"5F2D": "C328FF"}}}'
        % card,
        "extends_fifo.json": '{"extends": "fifo.json"}',
    }
    for name, text in files.items():
        with open(os.path.join(work, name), "w", encoding="utf-8") as f:
            f.write(text)
    with open(os.path.join(work, "not_utf8.json"), "wb") as f:
        f.write(b'{"name": "caf\xe9 \xff"}')
    os.mkfifo(os.path.join(work, "fifo.json"))
    with open(os.path.join(work, "large.json"), "wb") as f:
        f.truncate(200 << 20)  # sparse: refused for its size, never read
    os.mkdir(os.path.join(work, "folder.json"))
    scenario = ('{"name": "%s", "card": "%s", "terminal": "pos", "expect": {"outcome": '
                '"APPROVED"}}')
    for folder, cards in {
        "run_deep": ["../deep_fci.json", "../deep_any.json"],
        "run_fifo": ["../fifo.json"],
        "run_not_utf8": ["../hex_non_ascii.json", "../not_utf8.json"],
    }.items():
        os.mkdir(os.path.join(work, folder))
        for i, c in enumerate(cards):
            with open(os.path.join(work, folder, "%d.json" % i), "w") as f:
                f.write(scenario % (c, c))
    with open(os.path.join(work, "run_fifo", "extends.json"), "w") as f:
        f.write('{"extends": "../fifo.json"}')
    os.symlink("nowhere.json", os.path.join(work, "run_deep", "broken.json"))
    with open(os.path.join(work, "run_deep", "deep.json"), "w") as f:
        f.write('{"name": "x", "card": "offline-cda", "terminal": "pos", "expect": %s}'
                % nest(10**4, "{}", '{"result": ', "}"))
    return {
        "W": work,
        "P": profiles,
        "DEEP_TLV": tlv_nest(10000),
        "NOT_UTF8": "\udcc3(",  # C3 28 once encoded: not UTF-8
    }


def frames(hex_apdus):
    out = b""
    for h in hex_apdus.split(","):
        b = bytes.fromhex(h)
        out += len(b).to_bytes(2, "big") + b
    return out


class Peer:
    """The vpcd driver's side: sends its frames, then reads until closed."""

    def __init__(self, data):
        self.data = data
        self.received = b""
        self.server = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.server.bind(("127.0.0.1", 0))
        self.server.listen(1)
        self.server.settimeout(0.5)
        self.done = False  # velk-term has exited
        self.port = self.server.getsockname()[1]
        self.thread = threading.Thread(target=self.run, daemon=True)
        self.thread.start()

    def run(self):
        while True:
            try:
                conn, _ = self.server.accept()
                break
            except socket.timeout:
                if self.done:
                    return
            except OSError:
                return
        with conn:
            conn.settimeout(TIME_LIMIT)
            conn.sendall(self.data)
            conn.shutdown(socket.SHUT_WR)
            try:
                while chunk := conn.recv(65536):
                    self.received += chunk
            except OSError:
                pass
        self.server.close()


def substitute(word, values):
    for name, value in sorted(values.items(), key=lambda kv: -len(kv[0])):
        word = word.replace("$" + name, value)
    return word


def under_sanitizer(binary):
    with open(binary, "rb") as f:
        return b"__asan_init" in f.read()


def run_row(term, lib, values, sanitized, description, command, status, expected):
    env = dict(os.environ, VELK_PROFILES=values["P"])
    words = shlex.split(command)
    peer = None
    stop = None
    while words and "=" in words[0] and not words[0].startswith("velk-term"):
        key, value = words.pop(0).split("=", 1)
        if key == "peer":
            peer = Peer(frames(value))
            values = dict(values, PORT=str(peer.port))
        elif key == "signal":
            name, after = value.split("@")
            stop = (getattr(signal, "SIG" + name), float(after))
        elif key == "env":
            name, val = value.split("=", 1)
            env[name] = substitute(val, values)
    words = [os.fsencode(substitute(w, values)) for w in words]
    if words[0] != b"velk-term":
        return "the command must start with velk-term"
    words[0] = os.fsencode(term)
    if b"--lib" not in words and words[1:2] in ([b"pay"], [b"run"]):
        words[2:2] = [b"--lib", os.fsencode(lib)]

    def limit():
        if not sanitized:
            resource.setrlimit(resource.RLIMIT_AS, (MEMORY_LIMIT, MEMORY_LIMIT))

    proc = subprocess.Popen(words, stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=env,
                            preexec_fn=limit, cwd=values["W"])
    timer = None
    if stop:
        timer = threading.Timer(stop[1], proc.send_signal, [stop[0]])
        timer.start()
    try:
        out, err = proc.communicate(timeout=TIME_LIMIT * (4 if sanitized else 1))
    except subprocess.TimeoutExpired:
        proc.kill()
        proc.communicate()
        return "no exit within the time allowed (a hang)"
    finally:
        if timer:
            timer.cancel()
    out = out.decode("utf-8", "replace")
    err = err.decode("utf-8", "replace")
    if peer:
        peer.done = True
        peer.thread.join(TIME_LIMIT)
        out += "\npeer received: " + peer.received.hex().upper()
    if proc.returncode < 0:
        return "killed by signal %d\n%s" % (-proc.returncode, err[-2000:])
    for report in ("AddressSanitizer", "LeakSanitizer", "runtime error:"):
        if report in err:
            return "sanitizer report\n" + err[-4000:]
    if proc.returncode != status:
        return "exit %d, expected %d\n%s" % (proc.returncode, status, (err or out)[-2000:])
    expected = substitute(expected, values)
    if expected not in err and expected not in out:
        return "no %r in the output\nstderr: %s\nstdout: %s" % (expected, err[-2000:],
                                                                out[-2000:])
    return None


def main():
    term, lib, profiles, rows = map(os.path.abspath, sys.argv[1:5])
    sanitized = under_sanitizer(term)
    failed = 0
    count = 0
    with tempfile.TemporaryDirectory() as work:
        values = make_inputs(work, os.path.abspath(profiles))
        with open(rows, encoding="utf-8") as f:
            for number, line in enumerate(f, 1):
                line = line.strip()
                if not line or line.startswith("#"):
                    continue
                parts = [p.strip() for p in line.split("|")]
                if len(parts) != 4:
                    print("%s:%d: expected 4 fields" % (rows, number))
                    failed += 1
                    continue
                count += 1
                description, command, status, expected = parts
                why = run_row(term, lib, values, sanitized, description, command, int(status),
                              expected)
                print("%s %s" % ("ok  " if why is None else "FAIL", description))
                if why is not None:
                    failed += 1
                    print("    " + why.replace("\n", "\n    "))
    print("%d row(s), %d failed" % (count, failed))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())

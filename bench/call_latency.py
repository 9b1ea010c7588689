#!/usr/bin/env python3
"""Time of a bus call against the bare exchange with the same kind of simulated modem.

Usage: call_latency.py ROOT CALLS [METHOD]: ROOT is a running private root with bus, daemon and modem on the bus socket ROOT/var/run/ubus/ubus.sock;
a second simulated modem's port is ROOT/tmp/bare. Prints median and 99th percentile of both in ms."""
import os, socket, struct, sys, time, tty

root, calls = sys.argv[1], int(sys.argv[2])
method = sys.argv[3] if len(sys.argv) > 3 else "get_imei"

def attr(kind, data):
    raw = struct.pack(">I", kind << 24 | len(data) + 4) + data
    return raw + b"\0" * (-len(raw) % 4)

class Bus:
    def __init__(self, path):
        os.chdir(os.path.dirname(path))
        self.sock = socket.socket(socket.AF_UNIX)
        self.sock.connect(os.path.basename(path))
        self.seq = 0
        self.read()
    def read_exact(self, size):
        data = b""
        while len(data) < size:
            data += self.sock.recv(size - len(data))
        return data
    def read(self):
        _, kind, seq, peer = struct.unpack(">BBHI", self.read_exact(8))
        head = struct.unpack(">I", self.read_exact(4))[0]
        length = (head & 0xffffff) - 4
        return kind, seq, self.read_exact(length + -length % 4)
    def request(self, kind, peer, attrs):
        self.seq += 1
        self.sock.sendall(struct.pack(">BBHI", 0, kind, self.seq, peer) + attr(0, b"".join(attrs)))
        answers = []
        while True:
            kind, seq, data = self.read()
            if seq != self.seq:
                continue
            if kind == 1:
                return answers, data
            answers.append(data)

def percentiles(times):
    times.sort()
    return times[len(times) // 2] * 1000, times[len(times) * 99 // 100] * 1000

bus = Bus(os.path.join(root, "var/run/ubus/ubus.sock"))
answers, _ = bus.request(4, 0, [attr(2, b"celmux\0")])
data, object_id, at = answers[0], None, 0
while at < len(data):
    head = struct.unpack_from(">I", data, at)[0]
    length = head & 0xffffff
    if head >> 24 & 0x7f == 3:
        object_id = data[at + 4:at + 8]
    at += length + -length % 4
port = os.open(os.path.join(root, "tmp/bare"), os.O_RDWR | os.O_NOCTTY)
tty.setraw(port)
os.write(port, b"ATE0\r")
time.sleep(0.3)
os.read(port, 4096)

bare, called = [], []
for _ in range(calls):
    began = time.perf_counter()
    os.write(port, b"AT+CGSN=1\r")
    text = b""
    while b"OK\r\n" not in text:
        text += os.read(port, 4096)
    bare.append(time.perf_counter() - began)
    began = time.perf_counter()
    answers, _ = bus.request(5, struct.unpack(">I", object_id)[0], [attr(3, object_id), attr(4, method.encode() + b"\0"), attr(7, b"")])
    called.append(time.perf_counter() - began)
    assert answers, "no answer"
print("bare exchange: median %.2f ms, 99th percentile %.2f ms" % percentiles(bare))
print("%s: median %.2f ms, 99th percentile %.2f ms" % (method, *percentiles(called)))

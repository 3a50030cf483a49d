#!/usr/bin/env python3
"""Measures a wwan-busd binary against clients that announce large messages.

    measure_broker.py WWAN_BUSD [CONNECTIONS]

1. Memory: the broker's RSS before and after CONNECTIONS (default 500) clients
   each send a 12-byte header announcing a 1 MB message and nothing more.
2. Descriptor limit: a broker started with RLIMIT_NOFILE 64 is filled with
   connections until one is not greeted; then its CPU time over 2 s of
   idling, and whether a client connected before still gets answers.
Traffic goes only to the broker's Unix socket in a temporary directory.
"""
import os
import resource
import select
import socket
import struct
import subprocess
import sys
import tempfile
import time


def rss_kb(pid):
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    return -1


def cpu_seconds(pid):
    with open(f"/proc/{pid}/stat") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def start(busd, sock, nofile=None):
    def limit():
        if nofile:
            resource.setrlimit(resource.RLIMIT_NOFILE, (nofile, nofile))
    p = subprocess.Popen([busd, "-s", sock], preexec_fn=limit, stderr=subprocess.DEVNULL)
    for _ in range(500):
        if os.path.exists(sock):
            return p
        time.sleep(0.01)
    raise SystemExit("broker did not start")


def connect(sock, timeout=1.0):
    s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    s.connect(sock)
    r, _, _ = select.select([s], [], [], timeout)
    if not r or len(s.recv(12)) != 12:
        return s, False
    return s, True


def ping(s):
    """A PING (no attributes); True when its STATUS comes back."""
    s.sendall(struct.pack(">BBHII", 0, 3, 7, 0, 4))
    end = time.time() + 3
    buf = b""
    while time.time() < end:
        r, _, _ = select.select([s], [], [], 0.1)
        if r:
            buf += s.recv(4096)
            while len(buf) >= 12:
                length = struct.unpack(">I", buf[8:12])[0] & 0xFFFFFF
                if len(buf) < 8 + length:
                    break
                if buf[1] == 1:
                    return True
                buf = buf[8 + length:]
    return False


def main():
    busd = sys.argv[1]
    n = int(sys.argv[2]) if len(sys.argv) > 2 else 500
    resource.setrlimit(resource.RLIMIT_NOFILE, (n + 256, resource.getrlimit(resource.RLIMIT_NOFILE)[1]))
    with tempfile.TemporaryDirectory() as d:
        sock = os.path.join(d, "ubus.sock")
        p = start(busd, sock)
        time.sleep(0.2)
        before = rss_kb(p.pid)
        header = struct.pack(">BBHII", 0, 4, 1, 0, 1024 * 1024 - 8)
        conns = []
        for _ in range(n):
            s, _ = connect(sock)
            s.sendall(header)
            conns.append(s)
        time.sleep(1.0)
        after = rss_kb(p.pid)
        print(f"rss: {before} kB idle, {after} kB with {n} connections announcing 1 MB each "
              f"(+{after - before} kB)")
        for s in conns:
            s.close()
        p.terminate()
        p.wait()

        p = start(busd, sock, nofile=64)
        first, ok = connect(sock)
        if not ok:
            raise SystemExit("first client not greeted")
        conns = []
        for _ in range(200):
            s, greeted = connect(sock, 0.5)
            conns.append(s)
            if not greeted:
                break
        else:
            raise SystemExit("never reached the descriptor limit")
        c0 = cpu_seconds(p.pid)
        time.sleep(2.0)
        used = cpu_seconds(p.pid) - c0
        answered = ping(first)
        print(f"fd limit: {len(conns)} connections, {used:.2f} s CPU in 2 s idle, "
              f"existing client answered: {answered}")
        for s in conns + [first]:
            s.close()
        p.terminate()
        p.wait()


if __name__ == "__main__":
    main()

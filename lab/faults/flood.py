#!/usr/bin/env python3
"""Lab helpers for the trapped-frame flood; bounded in count and in time.

  flood.py send IFACE DST_MAC DST_IP SRC_NET POOL MAX_FRAMES SECONDS
      Sends Ethernet/IPv4/UDP frames from POOL distinct unleased (MAC, IP)
      pairs (MACs 02:00:5e:7e:xx:xx, addresses SRC_NET.64.0 upwards) out of
      IFACE as fast as one thread can, until MAX_FRAMES are sent or SECONDS
      pass. Prints "frames N seconds S pps P".

  flood.py probe SOCKET SECONDS INTERVAL_MS OUT
      Asks tavrind's control socket for show-counters (one connection per
      call, as tavrinctl does) every INTERVAL_MS for SECONDS; writes each
      call's round trip in milliseconds to OUT, one per line.

  flood.py rss PID SECONDS INTERVAL_MS OUT
      Samples VmRSS (kB) of PID; writes "t kB" lines to OUT.

  flood.py watch FILE PATTERN SECONDS OUT
      Follows FILE from its current end and writes "t line" for each new
      line containing PATTERN.
"""
import os
import socket
import struct
import sys
import time


def csum(b):
    if len(b) % 2:
        b += b"\0"
    s = sum(struct.unpack("!%dH" % (len(b) // 2), b))
    while s >> 16:
        s = (s & 0xFFFF) + (s >> 16)
    return (~s) & 0xFFFF


def frames(dst_mac, dst_ip, src_net, pool):
    dst = bytes.fromhex(dst_mac.replace(":", ""))
    dip = socket.inet_aton(dst_ip)
    a, b = (int(x) for x in src_net.split("."))
    out = []
    for i in range(pool):
        src = bytes([0x02, 0x00, 0x5E, 0x7E, (i >> 8) & 0xFF, i & 0xFF])
        sip = bytes([a, b, 64 + (i >> 8), i & 0xFF])
        payload = b"tavrin-flood" + bytes(18)
        udp = struct.pack("!HHHH", 40000, 9, 8 + len(payload), 0) + payload
        ip = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + len(udp), i & 0xFFFF, 0, 64, 17, 0, sip, dip)
        ip = ip[:10] + struct.pack("!H", csum(ip)) + ip[12:]
        out.append(dst + src + b"\x08\x00" + ip + udp)
    return out


def send(iface, dst_mac, dst_ip, src_net, pool, max_frames, seconds):
    s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
    s.bind((iface, 0))
    fr = frames(dst_mac, dst_ip, src_net, int(pool))
    max_frames, seconds = int(max_frames), float(seconds)
    n, k = 0, len(fr)
    t0 = time.monotonic()
    end = t0 + seconds
    send_ = s.send
    while n < max_frames:
        # The clock is read once per 256 frames: it costs as much as a send.
        for _ in range(256):
            try:
                send_(fr[n % k])
            except OSError:
                pass  # a full queue drops the frame, as a wire would
            n += 1
        if time.monotonic() >= end:
            break
    dt = time.monotonic() - t0
    print("frames %d seconds %.3f pps %.0f" % (n, dt, n / dt))


def probe(path, seconds, interval_ms, out):
    seconds, interval = float(seconds), float(interval_ms) / 1000
    req = b'{"command": "show-counters"}\n'
    end = time.monotonic() + seconds
    with open(out, "w") as f:
        while time.monotonic() < end:
            t0 = time.monotonic()
            try:
                c = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
                c.settimeout(5)
                c.connect(path)
                c.sendall(req)
                buf = b""
                while not buf.endswith(b"\n"):
                    d = c.recv(65536)
                    if not d:
                        break
                    buf += d
                c.close()
                ok = buf.startswith(b'{"ok":true') or b'"ok": true' in buf[:20] or b'"ok":true' in buf[:20]
                ms = (time.monotonic() - t0) * 1000
                f.write("%.3f%s\n" % (ms, "" if ok else " error"))
            except OSError as e:
                f.write("%.3f error %s\n" % ((time.monotonic() - t0) * 1000, e))
            left = interval - (time.monotonic() - t0)
            if left > 0:
                time.sleep(left)


def rss(pid, seconds, interval_ms, out):
    end = time.monotonic() + float(seconds)
    with open(out, "w") as f:
        while time.monotonic() < end:
            try:
                for line in open("/proc/%s/status" % pid):
                    if line.startswith("VmRSS:"):
                        f.write("%.3f %s\n" % (time.time(), line.split()[1]))
            except OSError:
                break
            f.flush()
            time.sleep(float(interval_ms) / 1000)


def watch(path, pattern, seconds, out):
    end = time.monotonic() + float(seconds)
    with open(path, "rb") as src, open(out, "w") as f:
        src.seek(0, os.SEEK_END)
        part = b""
        while time.monotonic() < end:
            d = src.read()
            if not d:
                time.sleep(0.01)
                continue
            part += d
            *lines, part = part.split(b"\n")
            now = time.time()
            for line in lines:
                text = line.decode(errors="replace")
                if pattern in text:
                    f.write("%.3f %s\n" % (now, text))
                    f.flush()


if __name__ == "__main__":
    cmds = {"send": (send, 7), "probe": (probe, 4), "rss": (rss, 4), "watch": (watch, 4)}
    if len(sys.argv) < 2 or sys.argv[1] not in cmds or len(sys.argv) != cmds[sys.argv[1]][1] + 2:
        sys.exit(__doc__)
    cmds[sys.argv[1]][0](*sys.argv[2:])

"""Traffic and its measurement. Each function runs in a process of its own inside a LAN host or provider, and
ends with SIGTERM or when its work is done."""

import select
import signal
import socket
import struct
import time

ECHO_PORT, SINK_PORT, TUNNEL_PORT = 7000, 9000, 5555


class _Ended(Exception):
    pass


def _end_on_signal():
    def handler(*_):
        signal.signal(signal.SIGTERM, signal.SIG_IGN)
        raise _Ended
    signal.signal(signal.SIGTERM, handler)


def _udp(address="0.0.0.0", port=0):
    out = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    out.bind((address, port))
    return out


def echo():
    """Answers everything from the address that it was sent to."""
    _end_on_signal()
    server = _udp(port=ECHO_PORT)
    server.setsockopt(socket.IPPROTO_IP, 8, 1)  # IP_PKTINFO
    count = 0
    try:
        while True:
            data, extra, _, sender = server.recvmsg(2048, 64)
            server.sendmsg([data], extra, 0, sender)
            count += 1
    except _Ended:
        return count


def probe(target, per_second, file_name):
    """Small packets at a steady pace, each echoed by the far side. Lines "s NUMBER TIME" and "r NUMBER TIME"."""
    _end_on_signal()
    client = _udp()
    client.connect((target, ECHO_PORT))
    client.setblocking(False)
    number, pace = 0, 1 / per_second
    with open(file_name, "w") as out:
        try:
            due = time.time()
            while True:
                now = time.time()
                if now >= due:
                    try:
                        client.send(struct.pack("!Id", number, now) + bytes(84))
                    except OSError:
                        pass  # counts as sent and lost
                    out.write(f"s {number} {now:.6f}\n")
                    number += 1
                    due = max(due + pace, now - 1)
                    if number % 10 == 0:
                        out.flush()
                ready, _, _ = select.select([client], [], [], max(0.0, due - time.time()))
                if ready:
                    try:
                        answer = client.recv(2048)
                    except OSError:
                        continue  # "no route to host" of an earlier packet
                    out.write(f"r {struct.unpack('!I', answer[:4])[0]} {time.time():.6f}\n")
        except _Ended:
            return number


def flows(first_target, count):
    """One packet per destination: as many flows as there are destinations."""
    client = _udp()
    base = struct.unpack("!I", socket.inet_aton(first_target))[0]
    for number in range(count):
        client.sendto(struct.pack("!I", number), (socket.inet_ntoa(struct.pack("!I", base + number)), SINK_PORT))
    return count


def sink():
    """The flows that arrive here."""
    _end_on_signal()
    server, seen = _udp(port=SINK_PORT), set()
    try:
        while True:
            seen.add(struct.unpack("!I", server.recv(2048)[:4])[0])
    except _Ended:
        return sorted(seen)


def flood(target, ports, bits_per_second, size=1200):
    """Packets to each port in turn, together at the given rate, until told to end. The rate that was reached."""
    _end_on_signal()
    client = _udp()
    data, sent = bytes(size), 0
    pace = size * 8 / bits_per_second
    began = time.monotonic()
    try:
        while True:
            if time.monotonic() < began + sent * pace:
                time.sleep(pace)
                continue
            try:
                client.sendto(data, (target, ports[sent % len(ports)]))
            except OSError:
                pass
            sent += 1
    except _Ended:
        return sent * size * 8 / (time.monotonic() - began)


def first_encapsulated(device, seconds):
    """What the first packet on the tunnels' UDP port looks like, from the provider's side."""
    with socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(0x0800)) as tap:
        tap.bind((device, 0x0800))
        until = time.monotonic() + seconds
        while (left := until - time.monotonic()) > 0:
            tap.settimeout(left)
            try:
                packet = tap.recv(2048)[14:]
            except TimeoutError:
                break
            outer = (packet[0] & 15) * 4
            if packet[9] != 17 or struct.unpack("!H", packet[outer + 2:outer + 4])[0] != TUNNEL_PORT:
                continue
            encapsulation = packet[outer + 8:]
            inner = encapsulation[4 + (encapsulation[0] & 31) * 4:]
            return {"outer": [socket.inet_ntoa(packet[12:16]), socket.inet_ntoa(packet[16:20])],
                    "version": encapsulation[0] >> 6, "protocol": encapsulation[1],
                    "inner": [socket.inet_ntoa(inner[12:16]), socket.inet_ntoa(inner[16:20])]}
    return {}


def record(branch_pid, file_name, interval):
    """A line every `interval` seconds: time, conditions of both WANs, and bytes of the branch's devices."""
    _end_on_signal()
    names = ("eth1", "eth2", "ifb0")

    def line():
        values = {}
        with open(f"/proc/{branch_pid}/net/dev") as file:
            for text in file.readlines()[2:]:
                name, _, figures = text.partition(":")
                values[name.strip()] = figures.split()
        conditions = []
        for port in (1, 2):
            try:
                with open(f"/proc/{branch_pid}/net/nf_condition/PORT{port}") as file:
                    conditions.append(file.read().strip())
            except OSError:
                conditions.append("0")
        sent = [values[name][8] if name in values else "0" for name in names]
        return " ".join([f"{time.time():.3f}", *conditions, *sent])

    with open(file_name, "w") as out:
        try:
            while True:
                out.write(line() + "\n")
                out.flush()
                time.sleep(interval)
        except _Ended:
            out.write(line() + "\n")
            return True

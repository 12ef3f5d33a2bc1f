"""Sends and receives for the check of the emulator: run inside one of its namespaces."""
import json
import os
import socket
import sys
import time

PORT = 7000
RCVBUFFORCE = 33  # of Linux; the module does not know it


def echo():
    """Sends every datagram back to where it came from."""
    receiver = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    receiver.setsockopt(socket.IPPROTO_IP, 8, 1)  # IP_PKTINFO: answer from the address that was asked
    receiver.setsockopt(socket.SOL_SOCKET, RCVBUFFORCE, 32 << 20)
    receiver.bind(("0.0.0.0", PORT))
    print("ready", flush=True)
    while True:
        data, ancillary, _, sender = receiver.recvmsg(2048, 64)
        receiver.sendmsg([data], [(level, kind, value[:8] + bytes(4)) for level, kind, value in ancillary], 0, sender)


def ping(address, count, gap_ms, size):
    """Sends numbered datagrams; the times of sending and [number, time] of what came back, in ms."""
    pinger = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    pinger.setsockopt(socket.SOL_SOCKET, RCVBUFFORCE, 32 << 20)
    pinger.connect((address, PORT))
    pinger.setblocking(False)
    began, sent, back, last = time.monotonic(), [], [], time.monotonic()
    while len(sent) < count or time.monotonic() - last < 1.5:
        if len(sent) < count and time.monotonic() - began >= len(sent) * gap_ms / 1000:
            sent.append((time.monotonic() - began) * 1000)
            pinger.send(len(sent).to_bytes(4, "big").ljust(size, b"."))
            last = time.monotonic()
        try:
            back.append((int.from_bytes(pinger.recv(2048)[:4], "big") - 1, (time.monotonic() - began) * 1000))
        except (BlockingIOError, ConnectionRefusedError):
            if gap_ms > 0 or len(sent) == count:
                time.sleep(0.0002)
    print(json.dumps({"sent": sent, "back": back}))


def source():
    """Sends without end to whoever connects."""
    listener = socket.create_server(("0.0.0.0", PORT))
    print("ready", flush=True)
    block = bytes(1 << 16)
    import threading

    def feed(connection):
        try:
            while True:
                connection.sendall(block)
        except OSError:
            pass

    while True:
        threading.Thread(target=feed, args=(listener.accept()[0],), daemon=True).start()


def sink(address, after_s, for_s):
    """Receives a stream; bytes per second between two moments."""
    stream = socket.create_connection((address, PORT))
    began, total = time.monotonic(), 0
    buffer = bytearray(1 << 18)
    while time.monotonic() - began < after_s + for_s:
        got = stream.recv_into(buffer)
        now = time.monotonic() - began
        total += got if now > after_s else 0
    print(json.dumps({"bytes_per_s": total / for_s}))


if __name__ == "__main__":
    if sys.argv[1] in ("echo", "ping", "sink"):  # they are to be prompt on a busy machine, too
        os.sched_setscheduler(0, os.SCHED_FIFO, os.sched_param(1))
    {"echo": echo, "ping": ping, "source": source, "sink": sink}[sys.argv[1]](
        *[value if "." in value and value.count(".") == 3 else float(value) if "." in value else int(value)
          for value in sys.argv[2:]])

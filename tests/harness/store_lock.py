#!/usr/bin/env python3
"""Takes the lock of the running configuration as a user session of its own, prints "held", and keeps it until killed.

The CLI has no command for that. Frames and operations are those of agent/wire/wire.h.
"""

import os
import signal
import socket
import struct

AGENT = ("127.0.0.1", 4565)
HELLO, START_SESSION, LOCK = 1, 60, 75
VERSION, KIND_MAAPI, RUNNING = 1, 4, 1


def text(value):
    return struct.pack("=I", len(value)) + value.encode()


def call(connection, operation, payload):
    connection.sendall(struct.pack("=IHHI", len(payload), operation, 0, 1) + payload)
    length, _, status, _ = struct.unpack("=IHHI", connection.recv(12, socket.MSG_WAITALL))
    answer = connection.recv(length, socket.MSG_WAITALL) if length else b""
    if status != 0:
        raise SystemExit(f"store_lock: operation {operation} is refused: {answer[4:].decode()}")


def main():
    with socket.create_connection(AGENT) as connection:
        call(connection, HELLO,
             struct.pack("=HB", VERSION, KIND_MAAPI) + text("store_lock") + struct.pack("=I", os.getpid()) + text("")
             + struct.pack("=I", 0))
        call(connection, START_SESSION, text("locker") + text("test") + text("127.0.0.1") + struct.pack("=H", 0))
        call(connection, LOCK, struct.pack("=B", RUNNING))
        print("held", flush=True)
        signal.pause()


main()

#!/usr/bin/env python3
"""A small HTTP backend for the balance benchmark: one request at a time,
each costing a fixed processor time (measured on this thread, so a
throttled cgroup makes it slower in wall time, as it would a real service),
answered with the backend's name in X-Backend and the connection closed.

usage: backend.py PORT NAME CPU_MS
"""
import socket
import sys
import time


def burn(seconds):
    end = time.thread_time() + seconds
    while time.thread_time() < end:
        pass


def main():
    port, name, cpu_ms = int(sys.argv[1]), sys.argv[2], float(sys.argv[3])
    listener = socket.socket()
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    listener.bind(("127.0.0.1", port))
    # The queue of waiting requests lives in the backlog: a slow backend's
    # queue shows as latency, not as refused connections.
    listener.listen(4096)
    body = b"ok\n"
    head = ("HTTP/1.0 200 OK\r\nX-Backend: %s\r\nContent-Length: %d\r\n"
            "Connection: close\r\n\r\n" % (name, len(body))).encode()
    while True:
        conn, _ = listener.accept()
        try:
            conn.settimeout(5)
            data = b""
            while b"\r\n\r\n" not in data:
                chunk = conn.recv(4096)
                if not chunk:
                    break
                data += chunk
            if data:
                burn(cpu_ms / 1000.0)
                conn.sendall(head + body)
        except OSError:
            pass
        finally:
            conn.close()


if __name__ == "__main__":
    main()

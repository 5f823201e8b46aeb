#!/usr/bin/env python3
"""Sends a push and waits for the application's answer: exit status 0 accepted, 1 rejected, 4 no answer in time.

Usage: send.py HOST PORT ID TEXT
"""
import socket
import sys

host, port, push_id, text = sys.argv[1:5]
data = text.encode()
head = f"POST / HTTP/1.1\r\nContent-Length: {len(data)}\r\nPush-Message-ID: {push_id}\r\n\r\n"

with socket.create_connection((host, int(port)), timeout=10) as connection:
    connection.sendall(head.encode() + data)  # header lines and data together
    connection.settimeout(60)
    answer = b""
    try:
        while received := connection.recv(4096):  # until the device closes
            answer += received
    except TimeoutError:
        print("not answered")
        sys.exit(4)

print("accepted" if answer.startswith(b"HTTP/1.0 200 OK\n\r") else "rejected")
sys.exit(not answer)

#!/usr/bin/env python3
"""Sends a push and waits for the application's answer, at most SECONDS (60).

Usage: send.py HOST PORT ID TEXT [SECONDS]

Exit status: 0 accepted; 1 closed without an answer, so rejected by the application, or not taken by the device;
2 bad arguments; 3 not reached, so not delivered; 4 not answered in time; 5 an answer that is no acknowledgement.
"""
import socket
import sys
import time

ACCEPTED, CLOSED, BAD_ARGUMENTS, NOT_REACHED, NOT_ANSWERED, STRANGE = range(6)
CONNECT_SECONDS = 10


def judge(answer):
    if not answer:
        return CLOSED, "closed without an answer"
    if not answer.startswith(b"HTTP/1.0 200 OK\n\r"):
        return STRANGE, f"an answer that is no acknowledgement: {answer[:40]!r}"
    return ACCEPTED, "accepted"


def send(host, port, push, seconds):
    """Gives the exit status and what it means."""
    end = time.monotonic() + seconds
    try:
        connection = socket.create_connection((host, port), timeout=min(CONNECT_SECONDS, seconds))
    except ConnectionResetError:  # made, and closed at once
        return judge(b"")
    except OSError as error:  # refused, no way there, or too many wait on the port already
        return NOT_REACHED, f"not reached: {error}"
    answer = b""
    with connection:
        try:
            connection.sendall(push)  # header lines and data together
            received = None
            while received != b"":  # until the device closes
                connection.settimeout(max(end - time.monotonic(), 0.001))
                received = connection.recv(4096)
                answer += received
        except TimeoutError:
            return NOT_ANSWERED, "not answered in time"
        except OSError:
            pass  # a reset is a close, too
    return judge(answer)


def main():
    if len(sys.argv) not in (5, 6):
        print(__doc__, file=sys.stderr)
        return BAD_ARGUMENTS
    host, port, push_id, text = sys.argv[1:5]
    seconds = float(sys.argv[5]) if len(sys.argv) == 6 else 60.0
    data = text.encode()
    head = f"POST / HTTP/1.1\r\nContent-Length: {len(data)}\r\nPush-Message-ID: {push_id}\r\n\r\n"
    status, meaning = send(host, int(port), head.encode() + data, seconds)
    print(meaning)
    return status


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""An application with the client library for Python: prints each push and accepts it, unless it came short. Session
and channel come back by themselves when the agent or the object service was restarted, and with them the pushes that
came meanwhile.

Usage: listen.py APP PPG-URL
"""
import os
import re
import signal
import sys

sys.path.append(os.path.join(os.path.dirname(os.path.realpath(__file__)), "../python"))  # where it is not installed

import quilclient  # noqa: E402: the path comes first


def announced(push):
    """How much data the push ought to have; 0 when its sender does not say."""
    said = [re.match(r"\s*([0-9]{1,18})", value) for name, value in push.headers if name == "Content-Length"]
    return int(said[-1].group(1)) if said and said[-1] else 0


def on_push(push):
    if len(push.data) < announced(push):  # it broke off
        print(f"short push{push.id}: {len(push.data)} of {announced(push)} bytes", flush=True)
        return quilclient.Answer.REJECT
    print(f"push{push.id}: {push.data.decode(errors='replace')}", flush=True)
    # One that was handed over before is accepted again: its sender missed the first answer.
    return quilclient.Answer.ACCEPT


def on_channel(result, token):
    print(f"channel {token}" if result.ok else f"no channel: {result.words}", flush=True)


def on_connection(result):
    if not result.ok:
        print("waiting for the agent:", result.words, file=sys.stderr)


if len(sys.argv) != 3:
    sys.exit("Usage: listen.py APP PPG-URL")
sys.stdout.reconfigure(errors="surrogateescape")  # ids need not be UTF-8
with quilclient.PushClient(*sys.argv[1:], on_push=on_push, on_channel=on_channel, on_connection=on_connection,
                           on_sim_change=lambda: print("another SIM", flush=True)) as client:
    signal.signal(signal.SIGINT, lambda *_: client.stop())
    signal.signal(signal.SIGTERM, lambda *_: client.stop())
    client.run()

#!/usr/bin/env python3
"""An application without any library: prints each push and accepts it. Starts over when the agent was restarted.

Usage: listen.py APP PPG-URL
"""
import base64
import json
import os
import select
import sys
import time


def request(ipc, msg, request_id, **dat):
    """One write is one request. Values go as "encoding:value", plain text without an encoding."""
    os.write(ipc, f"msg::{msg}\nid:{request_id}\ndat:json:{json.dumps(dat)}\n".encode())


def objects(ipc):
    """Gives each object from the agent as {name: "encoding:value"}, until the agent goes away."""
    while select.select([ipc], [], []) and (text := os.read(ipc, 1 << 20).decode()):
        for lines in text.removeprefix("@").split("\n@"):  # "@ipc" heads each object
            yield dict(line.split(":", 1) for line in lines.splitlines() if ":" in line)


def listen(app, url):
    ipc = os.open(os.environ.get("QUIL_ROOT", "") + "/pps/services/push/ipc", os.O_RDWR)
    try:
        request(ipc, "createSession", ":1", providerApplicationId=app)
        request(ipc, "createChannel", ":2", providerApplicationId=app, ppgUrl=url)
        for answer in objects(ipc):
            dat = json.loads(answer.get("dat", "json:{}").removeprefix("json:"))
            if answer.get("msg") == ":onCreateChannelComplete":
                print("channel", dat.get("token") or "was not created", flush=True)
            elif answer.get("msg") == ":pushNotification":
                text = base64.b64decode(dat["data"]).decode(errors="replace")
                print(f"push{answer['id'].split(':', 1)[1]}: {text}", flush=True)
                if dat["appLevelAck"]:  # the id goes back as it came, its encoding included
                    request(ipc, "acceptPush", answer["id"], providerApplicationId=app)
    finally:
        os.close(ipc)


while True:
    try:
        listen(*sys.argv[1:])
    except OSError as error:
        print("waiting for the agent:", error, file=sys.stderr)
    time.sleep(1)

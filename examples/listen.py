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
    os.write(ipc, f"msg::{msg}\nid:{request_id}\ndat:json:{json.dumps(dat)}\n".encode(errors="surrogateescape"))


def objects(text):
    """Gives each object of what one read brought as {name: "encoding:value"}; "@ipc" heads each."""
    for lines in text.removeprefix("@").split("\n@"):
        yield dict(line.split(":", 1) for line in lines.split("\n") if ":" in line)


def show_push(ipc, app, push):
    dat = json.loads(push["dat"].removeprefix("json:"))
    text = base64.b64decode(dat["data"]).decode(errors="replace")
    print(f"push{push['id'].split(':', 1)[1]}: {text}", flush=True)
    if dat["appLevelAck"]:  # the id goes back as it came, its encoding included
        request(ipc, "acceptPush", push["id"], providerApplicationId=app)


def listen(app, url):
    ipc = os.open(os.environ.get("QUIL_ROOT", "") + "/pps/services/push/ipc", os.O_RDWR)
    try:
        request(ipc, "createSession", ":1", providerApplicationId=app)
        quiet = None  # how many seconds without a push lead to the channel
        while True:
            if not select.select([ipc], [], [], quiet)[0]:
                # Not before: a channel asked for anew closes its port, with all pushes that wait on it.
                request(ipc, "createChannel", ":2", providerApplicationId=app, ppgUrl=url)
                quiet = None
                continue
            text = os.read(ipc, 1 << 20).decode(errors="surrogateescape")  # ids need not be UTF-8
            if not text:
                raise OSError("it went away")
            for answer in objects(text):
                if answer.get("msg") == ":onCreateSessionComplete":
                    quiet = 1
                elif answer.get("msg") == ":onCreateChannelComplete":
                    print("channel", json.loads(answer["dat"][5:])["token"] or "was not created", flush=True)
                elif answer.get("msg") == ":pushNotification":
                    show_push(ipc, app, answer)
                elif answer.get("msg") == ":createSession":  # what we wrote: nobody reads it
                    raise OSError("an ordinary object lies in its place")
    finally:
        os.close(ipc)


sys.stdout.reconfigure(errors="surrogateescape")
while True:
    try:
        listen(*sys.argv[1:])
    except OSError as error:
        print("waiting for the agent:", error, file=sys.stderr)
    time.sleep(1)

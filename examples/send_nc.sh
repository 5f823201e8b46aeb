#!/bin/sh
# Sends a push with nc (the one of OpenBSD) and waits for the application's answer, at most SECONDS (60).
#
# Usage: send_nc.sh HOST PORT ID TEXT [SECONDS]
#
# Exit status: 0 accepted; 1 closed without an answer, so rejected by the application, or not taken by the device;
# 2 bad arguments; 3 not reached, so not delivered; 4 not answered, or not connected, in time; 5 an answer that is no
# acknowledgement.
if [ $# -ne 4 ] && [ $# -ne 5 ]; then
    sed -n '2,8s/^# \{0,1\}//p' "$0" >&2
    exit 2
fi
push=$(mktemp) && answer=$(mktemp) || exit 2
trap 'rm -f "$push" "$answer"' EXIT

# The whole push first, so that it goes out in one piece: the device takes what its first read brings.
printf 'POST / HTTP/1.1\r\nContent-Length: %d\r\nPush-Message-ID: %s\r\n\r\n%s' \
    "$(printf %s "$4" | wc -c)" "$3" "$4" > "$push"
# nc leaves the connection open behind its input, and ends with status 0 when the device closes or resets it. Its own
# option -w would end it in the same way.
timeout "${5:-60}" nc "$1" "$2" < "$push" > "$answer"
status=$?

if [ "$(head -c 15 "$answer")" = "HTTP/1.0 200 OK" ]; then
    echo accepted
elif [ "$status" -eq 124 ]; then
    echo "not answered in time"
    exit 4
elif [ "$status" -ne 0 ]; then
    echo "not reached"
    exit 3
elif [ ! -s "$answer" ]; then
    echo "closed without an answer"
    exit 1
else
    echo "an answer that is no acknowledgement"
    exit 5
fi

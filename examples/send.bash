#!/usr/bin/env bash
# Sends a push with nothing but bash and waits for the application's answer, at most SECONDS (60).
#
# Usage: send.bash HOST PORT ID TEXT [SECONDS]
#
# Exit status: 0 accepted; 1 closed without an answer, so rejected by the application, or not taken by the device;
# 2 bad arguments; 3 not reached, so not delivered; 4 not answered, or not connected, in time; 5 an answer that is no
# acknowledgement.
if [ $# -ne 4 ] && [ $# -ne 5 ]; then
    sed -n '2,8s/^# \{0,1\}//p' "$0" >&2
    exit 2
fi

# In a bash of its own, which can be ended while it connects.
# One write for header lines and data: bash's own printf writes line by line, the program does not.
# cat reads until the device closes; a reset is a close, too.
# shellcheck disable=SC2016
send='exec 3<>"/dev/tcp/$0/$1" || exit 3
env printf "POST / HTTP/1.1\r\nContent-Length: %d\r\nPush-Message-ID: %s\r\n\r\n%s" \
    "$(env printf %s "$3" | wc -c)" "$2" "$3" >&3
cat <&3 || true'
# What is not text in a strange answer is left out.
answer=$(timeout "${5:-60}" bash -c "$send" "$1" "$2" "$3" "$4" 2>/dev/null | tr -d '\000'; exit "${PIPESTATUS[0]}")
status=$?

if [[ $answer == "HTTP/1.0 200 OK"* ]]; then
    echo accepted
elif [ "$status" -eq 124 ]; then
    echo "not answered in time"
    exit 4
elif [ "$status" -eq 3 ]; then
    echo "not reached"
    exit 3
elif [ -z "$answer" ]; then
    echo "closed without an answer"
    exit 1
else
    echo "an answer that is no acknowledgement"
    exit 5
fi

#!/usr/bin/env bash
# Sends a push with nothing but bash and waits for the application's answer: exit status 0 accepted, 1 rejected,
# 4 no answer in time.
# Usage: send.bash HOST PORT ID TEXT
exec 3<>"/dev/tcp/$1/$2" || exit 3
# One write for header lines and data: bash's own printf writes line by line, the program does not.
env printf 'POST / HTTP/1.1\r\nContent-Length: %d\r\nPush-Message-ID: %s\r\n\r\n%s' \
    "$(env printf %s "$4" | wc -c)" "$3" "$4" >&3
# Reads until the device closes.
answer=$(timeout 60 cat <&3) || { echo "not answered"; exit 4; }
[[ $answer == "HTTP/1.0 200 OK"* ]] && echo accepted && exit 0
echo rejected
exit 1

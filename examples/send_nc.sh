#!/bin/sh
# Sends a push with nc and waits for the application's answer: exit status 0 accepted, 1 rejected, 3 not reached.
# Usage: send_nc.sh HOST PORT ID TEXT
push=$(mktemp) && answer=$(mktemp) || exit 3
trap 'rm -f "$push" "$answer"' EXIT
# The whole push first, so that it goes out in one piece: the device takes what its first read brings.
printf 'POST / HTTP/1.1\r\nContent-Length: %d\r\nPush-Message-ID: %s\r\n\r\n%s' \
    "$(printf %s "$4" | wc -c)" "$3" "$4" > "$push"
# nc leaves the connection open behind its input, and ends when the device closes it.
nc -w 60 "$1" "$2" < "$push" > "$answer" || exit 3
case $(head -n 1 "$answer") in
    "HTTP/1.0 200 OK"*) echo accepted ;;
    *) echo rejected; exit 1 ;;
esac

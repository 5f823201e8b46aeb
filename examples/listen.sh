#!/usr/bin/env bash
# An application in nothing but bash, cat, printf and base64: prints each push and accepts it.
# Usage: listen.sh APP PPG-URL
app=$1 url=$2 ipc=$QUIL_ROOT/pps/services/push/ipc
# "<>" makes an ordinary object where no agent serves; behind an open descriptor there is nothing to make. With "?wait"
# a read waits until there is something.
{ exec 4<"$ipc?wait" && exec 3<>/proc/self/fd/4 4<&-; } 2>/dev/null || { echo "no agent serves $ipc" >&2; exit 3; }

# One write is one request: the printf of some shells writes line by line, the program does not.
request() { env printf 'msg::%s\n%s\ndat:json:{"providerApplicationId":"%s"%s}\n' "$1" "$2" "$app" "$3" >&3; }
# The string that follows "NAME": in the line.
field() { rest=${line#*\"$1\":\"}; printf %s "${rest%%\"*}"; }

request createSession id::1
while :; do
    IFS= read -r $quiet line
    case $?:$line in
        0:msg::onCreateSessionComplete) quiet="-t 1" ;;
        0:msg::createSession) echo "an ordinary object lies in its place" >&2; kill $!; exit 3 ;;
        0:id:*) id=$line ;; # handed back as it came, its encoding included
        0:dat:json:'{"token"'*) token=$(field token); echo "channel ${token:-was not created}" ;;
        0:dat:json:*) echo "push${id#id:*:}: $(field data | base64 -d)"; request acceptPush "$id" ;;
        1:*) break ;; # the end
        1??:*) # A second without a push. Not before: a channel asked for anew closes its port and all that waits there.
            quiet=; request createChannel id::2 ",\"ppgUrl\":\"$url\"" ;;
    esac
done < <(cat <&3)
echo "the agent went away" >&2
exit 3

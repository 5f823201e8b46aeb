#!/bin/sh
# An application in nothing but sh, cat, printf and base64: prints each push and accepts it.
# Usage: listen.sh APP PPG-URL
app=$1 url=$2 ipc=$QUIL_ROOT/pps/services/push/ipc
[ -e "$ipc" ] || { echo "no agent serves $ipc" >&2; exit 3; }
exec 3<>"$ipc?wait" # a read waits until there is something

# One write is one request: the printf of some shells writes line by line, the program does not.
request() { env printf 'msg::%s\n%s\ndat:json:{"providerApplicationId":"%s"%s}\n' "$1" "$2" "$app" "$3" >&3; }
# The string that follows "NAME": in the line.
field() { rest=${line#*\"$1\":\"}; printf %s "${rest%%\"*}"; }

request createSession id::1
request createChannel id::2 ",\"ppgUrl\":\"$url\""
cat <&3 | while IFS= read -r line; do
    case $line in
        id:*) id=$line ;; # handed back as it came, its encoding included
        dat:json:'{"token"'*) token=$(field token); echo "channel ${token:-was not created}" ;;
        dat:json:*) echo "push${id#id:*:}: $(field data | base64 -d)"; request acceptPush "$id" ;;
    esac
done
echo "the agent went away" >&2
exit 3

#!/usr/bin/env bash
# An application in nothing but bash, cat, printf and base64: prints each push and accepts it, unless it came
# short. Starts over when the agent or the object service was restarted, and asks again for a channel that it did not
# get; with growing pauses.
# Usage: listen.sh APP PPG-URL
export LC_ALL=C # bytes as they come, also those that are no UTF-8
app=$1 url=$2 ipc=$QUIL_ROOT/pps/services/push/ipc

# One write is one request: the printf of some shells writes line by line, the program does not.
request() { env printf 'msg::%s\n%s\ndat:json:{"providerApplicationId":"%s"%s}\n' "$1" "$2" "$app" "$3" >&3; }
# The string that follows "NAME": in the line.
field() { rest=${line#*\"$1\":\"}; printf %s "${rest%%\"*}"; }
# How many bytes of data the push in the line has, and ought to have (0 when its sender does not say).
size() { data=$(field data) fill=${data##*[!=]}; echo $((${#data} / 4 * 3 - ${#fill})); }
announced() {
    case $line in *\"Content-Length\":\"*) rest=${line##*\"Content-Length\":\"} ;; *) rest= ;; esac
    [[ $rest =~ ^\ *([0-9]{1,18}) ]] && echo "${BASH_REMATCH[1]}" || echo 0
}
# Twice as much, but no more than $2.
grown() { echo $(($1 * 2 < $2 ? $1 * 2 : $2)); }

# Lives on one connection until that ends. What is asked for when no line came for $patience seconds is the channel.
listen() {
    # "<>" makes an ordinary object where no agent serves; behind an open descriptor there is nothing to make. With
    # "?wait" a read waits until there is something.
    { exec 4<"$ipc?wait" && exec 3<>/proc/self/fd/4 4<&-; } 2>/dev/null || return
    request createSession id::1 # before the reader: on an ordinary object nobody could write while it waits
    exec 5< <(exec cat <&3 2>/dev/null)
    reader=$!
    channel=
    patience=150
    while :; do
        IFS= read -r -t "$patience" line <&5
        case $?:$line in
            0:@ipc) msg= ;;
            0:msg::*) msg=${line#msg::}
                case $msg in
                    onCreateSessionComplete) pause=1 patience=2; request queryChannel id::2 ;;
                    onSimChange) [ -z "$channel" ] || patience=1 ;;
                    createSession) echo "an ordinary object lies in its place" >&2; return ;;
                esac ;;
            0:id:*) id=$line ;; # handed back as it came, its encoding included
            0:err:*) [ "$msg" = onSimChange ] || { echo "refused with code ${line##*:}" >&2; return; } ;;
            0:dat:json:*)
                case $msg:$line in
                    # It stands: asked for anew it would be closed, with all pushes that wait there.
                    onQuery*'"registered":1,"listening":1,'*"\"ppgUrl\":\"$url\"}") opened ;;
                    onQuery*) patience=1 ;;
                    onCreateChannelComplete:*'"token":""'*)
                        echo "channel was not created"
                        patience=$retry retry=$(grown "$retry" 300) ;;
                    onCreateChannelComplete:*) opened ;;
                    pushNotification:*)
                        if [ "$(size)" -lt "$(announced)" ]; then # it broke off
                            echo "short push${id#id:*:}: $(size) of $(announced) bytes"
                            request rejectPush "$id"
                        else
                            echo "push${id#id:*:}: $(field data | base64 -d)"
                            request acceptPush "$id"
                        fi ;;
                esac ;;
            0:*) ;;
            1:*) return ;; # the end
            *) patience=150; request createChannel id::3 ",\"ppgUrl\":\"$url\"" ;;
        esac
    done
}
opened() {
    channel=yes retry=1 patience=1000000
    echo "channel $(field token)"
}

# Nothing goes to a connection whose reader is left behind.
trap 'kill $reader 2>/dev/null' EXIT
trap 'exit 0' INT TERM
pause=1 retry=1
while :; do
    listen
    kill $reader 2>/dev/null
    exec 3<&- 5<&-
    echo "waiting for the agent" >&2
    sleep $pause
    pause=$(grown $pause 5)
done

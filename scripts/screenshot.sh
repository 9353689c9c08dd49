#!/usr/bin/env bash
# Shoots the app in demo mode on a virtual X display, after pressing Return on the welcome panel
# to start the search:
#   scripts/screenshot.sh <dravinel executable> <out.png> [seconds connected, default 5]
set -euo pipefail
app=${1:?usage: screenshot.sh <dravinel executable> <out.png> [seconds]}
out=${2:?usage: screenshot.sh <dravinel executable> <out.png> [seconds]}
wait_s=${3:-5}

xvfb-run -a -s "-screen 0 1024x720x24" bash -c '
    "$1" --demo >/dev/null 2>&1 &
    pid=$!
    sleep 1.5
    if [ "$3" != 0 ]; then
        xdotool search --sync --name "^Welcome$" windowfocus --sync key Return
        sleep "$3"
    fi
    import -window root "$2"
    kill "$pid"
    wait "$pid" || true
' screenshot "$app" "$out" "$wait_s"
echo "wrote $out"

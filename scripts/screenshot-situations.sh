#!/usr/bin/env bash
# Shoots the app on a virtual X display in four situations, each against the standalone
# simulator (dravinel-sim) on its own pty, driven by the keyboard as a technician would. A
# stopped simulator (SIGSTOP) is a device that stays plugged in but says nothing; SIGUSR1
# unplugs it.
#   1-port-in-use.png      the welcome panel after a search that failed on a port another program
#                          holds (the reason is shown under the usual message)
#   2-mute-refresh.png     the window during a Refresh the device does not answer (greyed, busy)
#   3-unplug-motor.png     the window just after the device was unplugged during a motor test
#   4-invalid-field.png    a field holding 70000, marked, with Update disabled
# Usage: scripts/screenshot-situations.sh <build dir> <out dir>
# Needs xvfb, xauth, xdotool, imagemagick and flock (util-linux).
set -euo pipefail
build=${1:?usage: screenshot-situations.sh <build dir> <out dir>}
out=${2:?usage: screenshot-situations.sh <build dir> <out dir>}
mkdir -p "$out"
app=$(realpath "$build/app/dravinel")
sim=$(realpath "$build/sim/dravinel-sim")
out=$(realpath "$out")

xvfb-run -a -s "-screen 0 1024x768x24" bash -s "$app" "$sim" "$out" <<'SESSION'
set -euo pipefail
app=$1 sim=$2 out=$3
work=$(mktemp -d)
pids=()
cleanup() { for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done; rm -rf "$work"; }
trap cleanup EXIT

# Starts a simulated device; sets simpid and port.
start_sim() {
    "$sim" >"$work/sim.out" 2>/dev/null &
    simpid=$!
    pids+=("$simpid")
    for _ in $(seq 50); do [ -s "$work/sim.out" ] && break; sleep 0.1; done
    port=$(head -1 "$work/sim.out")
}
# Starts the app on one port and presses Open (Return) on its welcome panel; sets apppid.
start_app() {
    "$app" --port "$1" >/dev/null 2>&1 &
    apppid=$!
    pids+=("$apppid")
    xdotool search --sync --name "^Welcome" windowfocus --sync key Return
}
# Gives the main window the keyboard, with focus on its first basic field after connecting.
focus_main() {
    xdotool search --sync --name "^Dravinel Configurator" windowfocus --sync
    sleep 0.3
}
shoot() { import -window root "$out/$1"; echo "wrote $out/$1"; }
stop_all() { for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done; wait 2>/dev/null || true; pids=(); }

# 1. A port held by another program: the search gives up and names the holder.
start_sim
flock "$port" sleep 60 &
pids+=($!)
sleep 0.3
start_app "$port"
sleep 5
shoot 1-port-in-use.png
stop_all

# 2. A Refresh the device does not answer: six answers of one second each are awaited.
start_sim
start_app "$port"
sleep 2
focus_main
kill -STOP "$simpid"
# From the first basic control (the positive rotation box), six Tabs reach Refresh.
xdotool key --delay 60 Tab Tab Tab Tab Tab Tab space
sleep 1.5
shoot 2-mute-refresh.png
kill -CONT "$simpid"
stop_all

# 3. Unplugged during a motor test: Shift+Tab reaches the monitoring choice; the test is picked
# from its open list (Alt+Down, Down, Return), as a key on the closed box changes nothing.
start_sim
start_app "$port"
sleep 2
focus_main
xdotool key --delay 120 shift+Tab alt+Down Down Return
sleep 1.2
kill -USR1 "$simpid"
sleep 0.8
shoot 3-unplug-motor.png
stop_all

# 4. A value out of range: the field is marked and Update is disabled.
start_sim
start_app "$port"
sleep 2
focus_main
xdotool key --delay 60 Tab ctrl+a
xdotool type --delay 60 70000
sleep 0.5
shoot 4-invalid-field.png
stop_all
SESSION

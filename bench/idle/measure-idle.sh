#!/bin/bash
# Whole-process cost of an idle console: starts qmlscene on idlesurface.qml against the
# plugin in a build tree, lets it settle, then counts the process's context switches (every
# thread's voluntary and involuntary switches: each is a wake-up or a preemption) and its
# CPU time (user + system, all threads) from /proc over a measuring window.
#
#   bench/idle/measure-idle.sh [build-dir] [settle-s] [window-s]
#
# Extra environment (QT_QPA_PLATFORM, TARVIX_WORKSURFACE_LINK_THREAD, ...) passes through.
# SLOW_START_S=2.5 holds the scene up while it starts, as a machine busy with other work
# would: for that many seconds it is stopped about 8 ms in every 10 (SIGSTOP, SIGCONT), so
# that the surface is built over many milliseconds; the settle time follows.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=${1:-$here/../../build/dev}
settle=${2:-3}
window=${3:-10}
export QT_QPA_PLATFORM=${QT_QPA_PLATFORM:-offscreen}
# No GL on a headless machine: the scene graph draws in software.
export QT_QUICK_BACKEND=${QT_QUICK_BACKEND:-software}
export QT_SELECT=${QT_SELECT:-qt5}
export QML2_IMPORT_PATH=$build/qml${QML2_IMPORT_PATH:+:$QML2_IMPORT_PATH}

qmlscene "$here/idlesurface.qml" >/dev/null 2>&1 &
pid=$!
trap 'kill -CONT $pid 2>/dev/null; kill $pid 2>/dev/null || true' EXIT
if [ -n "${SLOW_START_S:-}" ]; then
    until=$(awk -v now="$(date +%s%N)" -v s="$SLOW_START_S" 'BEGIN {printf "%d", now + s * 1e9}')
    while [ "$(date +%s%N)" -lt "$until" ]; do
        kill -STOP $pid
        sleep 0.008
        kill -CONT $pid
        sleep 0.001
    done
fi
sleep "$settle"

# $1: voluntary (the thread slept and was woken) or nonvoluntary (it was preempted).
switches() {
    cat /proc/$pid/task/*/status | awk -v k="$1_ctxt_switches:" '$1 == k {s += $2} END {print s}'
}
# Nanoseconds on the CPU, summed over the threads (schedstat's first field).
cputime() { cat /proc/$pid/task/*/schedstat | awk '{s += $1} END {printf "%d", s}'; }

v0=$(switches voluntary); n0=$(switches nonvoluntary); c0=$(cputime); t0=$(date +%s.%N)
sleep "$window"
v1=$(switches voluntary); n1=$(switches nonvoluntary); c1=$(cputime); t1=$(date +%s.%N)
awk -v v=$((v1 - v0)) -v p=$((n1 - n0)) -v c=$((c1 - c0)) -v t0="$t0" -v t1="$t1" \
    -v n="$(ls /proc/$pid/task | wc -l)" 'BEGIN {
    d = t1 - t0
    printf "threads %d, window %.1f s: %.1f wake-ups/s (+ %.1f preemptions/s), %.2f ms CPU/s\n",
        n, d, v / d, p / d, c / 1e6 / d
}'

#!/bin/sh
# Stands in for the daemon in the shared side-by-side harness (--pelod) and
# runs, on each start, the next of the commands in $FLOOR_ROTATE (separated
# by ';'), each given the daemon's arguments: so one harness run with
# --repeat measures the floor program's modes and the daemon in turn,
# between the same GStreamer runs. The command run is the first line of
# that run's sut.log. The turn counter lives in $FLOOR_STATE (default
# /tmp/floor-rotate.n); remove it to start from the first command.
state=${FLOOR_STATE:-/tmp/floor-rotate.n}
n=$(cat "$state" 2>/dev/null || echo 0)
echo $((n + 1)) >"$state"
count=$(printf '%s\n' "$FLOOR_ROTATE" | tr ';' '\n' | grep -c .)
[ "$count" -gt 0 ] || { echo "rotate.sh: FLOOR_ROTATE is empty" >&2; exit 1; }
cmd=$(printf '%s\n' "$FLOOR_ROTATE" | tr ';' '\n' | grep . | sed -n "$((n % count + 1))p")
echo "rotate.sh: turn $n: $cmd" >&2
exec $cmd "$@"

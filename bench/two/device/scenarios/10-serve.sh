# Until the other machine has gone.
# shellcheck shell=sh
. /vm/bench.sh
/opt/usbredirect --device 0525:a4a0 --as 10.0.2.15:4000 &
redirector=$!
serve "$(place_of 0525:a4a1)" 10.0.2.15:4001
await "the other service" grep -q ':0FA0 00000000:0000 0A ' /proc/net/tcp
echo "both are served" >/dev/ttyS0
wait $redirector
kill -TERM $server
wait $server

# Until the other machine has gone.
# shellcheck shell=sh
. /vm/bench.sh
/opt/usbredirect --device 0525:a4a0 --as 10.0.2.15:4000 &
redirector=$!
serve "$(place_of 0525:a4a1)" 10.0.2.15:4001
await "the other service" grep -q ':0FA0 00000000:0000 0A ' /proc/net/tcp
nc -ll -p 4002 -e /opt/tcp_echo &
# usbipd looks for the ids where a Debian system has them.
/opt/usbipd -4 -D 2>/dev/null
usbip bind -b "$(device_of 0525:a4a2)"
echo "both are served" >/dev/ttyS0
wait $redirector
kill -TERM $server
wait $server

# Either end dies while pictures flow. Last, since the kernel may say then that its connection was cut.
# shellcheck shell=sh
. /vm/far/lib.sh
dmesg -c | grep -E 'cannot find a urb|recv xbuf|incorrect iso' && fail "the kernel did not take an answer"
attach camera
record_on
kill -KILL $attached
wait $attached || true
attached=
await "the ports to be free" ports_free
record_off

serve="exec:$VIRTUSB --module $VIRTUSB_MODULE serve camera --stdio --answer-failures"
attach "$serve"
record_on
kill -KILL "$(ps -o pid,ppid | awk -v parent="$attached" '$2 == parent { print $1 }')"
status=0
wait $attached || status=$?
attached=
[ $status = 1 ] || fail "attach ends with $status: $(cat $said)"
await "the ports to be free" ports_free
record_off
cat $said
attach camera
record 640 480 5
remote pictures /tmp/pictures 640 480 20 >/dev/null
detach
echo "killed at either end; the camera streams again"

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

zero=$(place_of 0525:a4a0)
$VIRTUSB --module $VIRTUSB_MODULE export camera "$zero" 2>$said &
exporter=$!
await "the service" grep -q '^serving 2 devices' $said
import 1 2
await "uvcvideo" has_driver ff00:fffe 1 uvcvideo
record_on
kill -KILL $exporter
wait $exporter || true
exporter=
await "the ports to be free" ports_free
record_off
virtusb giveback "$zero"
await "usbtest on the gadget again" has_driver 0525:a4a0 0 usbtest

serve="exec:$VIRTUSB --module $VIRTUSB_MODULE serve camera --stdio --answer-failures"
kill_far_end() { kill -KILL "$(ps -o pid,ppid | awk -v parent="$attached" '$2 == parent { print $1 }')"; }
attach "$serve"
record_on
kill_far_end
record_off
await "its return" grep -q 'is back on port' $said
await "uvcvideo" has_driver ff00:fffe 1 uvcvideo
record 640 480 5
cat $said
detach
attach --tries 0 "$serve"
kill_far_end
status=0
wait $attached || status=$?
attached=
[ $status = 1 ] || fail "attach ends with $status: $(cat $said)"
await "the ports to be free" ports_free
cat $said

# A far end that turns into something else leaves the other device as it is.
attach --tries 0 "exec:sh -c '$VIRTUSB --module $VIRTUSB_MODULE serve camera --stdio --answer-failures; yes'" keyboard
kill -TERM "$(pidof virtusb | tr ' ' '\n' | sort -n | tail -n 1)"
await "the camera's end" gone ff00:fffe
cat $said
await "the other device's driver" has_driver 4701:0290 0 usbhid
detach
attach camera
record 640 480 5
remote pictures /tmp/pictures 640 480 20 >/dev/null
detach
# What is left is looked at behind all scenarios, where the end of a connection in mid-answer would count as a fault.
dmesg -c | grep -E 'BUG:|Oops|general protection|kernel panic|hung task' && fail "the kernel broke"
echo "killed at either end, or nonsense from the far one; the camera is back and streams again"

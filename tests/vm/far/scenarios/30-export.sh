# The same devices by the guest's own client, and clients that are none.
# shellcheck shell=sh
. /vm/far/lib.sh
ports_used() { [ "$(ports_of 006 | wc -l)" = "$1" ]; }
given_back() { [ "$(grep -c 'given printer back' $said)" = "$1" ]; }
$VIRTUSB --module $VIRTUSB_MODULE export --capture /tmp/export.pcapng --capture-bytes 64 keyboard printer ch340 ch9102 raw winusb \
  camera 2>$said &
exporter=$!
await "the service" grep -q '^serving 7 devices' $said
usbip list -r 127.0.0.1 >/tmp/list 2>/dev/null
for line in "1-1.*4701:0290" "1-3.*1a86:7523" "1-7.*ff00:fffe" "0e/02/00"; do
  grep -q "$line" /tmp/list || fail "usbip list: $(cat /tmp/list)"
done
import 1 2 3 4 5 6 7
await "seven devices" ports_used 7
await "usblp" has_driver 2867:1112 0 usblp
await "ch341" has_driver 1a86:7523 0 ch341
await "cdc_acm" has_driver 1a86:55d4 1 cdc_acm
await "uvcvideo" has_driver ff00:fffe 1 uvcvideo
await "the keyboard's LED" find /sys/class/leds -name '*::numlock'
use_simple_devices
remote guest "$(place_of ffff:ffff)" 320
record 640 480 10
remote pictures /tmp/pictures 640 480 20

# None of these disturbs the others.
usbip attach -r 127.0.0.1 -b 1-7 2>/dev/null && fail "a device has two guests"
usbip attach -r 127.0.0.1 -b 1-9 2>/dev/null && fail "a device that is not there is attached"
head -c 1073741824 /dev/zero | timeout 20 nc 127.0.0.1 3240 >/dev/null || true
await "seven devices" ports_used 7
usbip detach -p 1 2>/dev/null
await "the printer to be given back" given_back 1
usbip attach -r 127.0.0.1 -b 1-2
await "usblp again" has_driver 2867:1112 0 usblp
# A client that takes a device and then sends what is no command loses it.
usbip detach -p 1 2>/dev/null
await "the printer to be given back" given_back 2
{ printf '\001\021\200\003\0\0\0\0001-2'; head -c 29 /dev/zero; head -c 1073741824 /dev/urandom; } |
  timeout 20 nc 127.0.0.1 3240 >/dev/null || true
await "its refusal" grep -q 'sends what is no USB/IP' $said
await "the other six" ports_used 6
kill $exporter
wait $exporter || fail "export ends with $?: $(cat $said)"
exporter=
gzip -c /tmp/export.pcapng >$results/export.pcapng.gz
await "the ports to be free" ports_free
echo "seven devices by usbip; taken ones and unknown ones refused, garbage ended"

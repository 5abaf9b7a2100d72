# A camera across a link that is narrower than its stream, another device on the same link, and a link that falls silent.
# shellcheck shell=sh
. /vm/far/lib.sh
mount -t tracefs tracefs /sys/kernel/tracing
ifconfig lo mtu 1500 # Packets as a network has them.
services=
trap 'kill $attached $services 2>/dev/null || true; /bin/tc qdisc del dev lo root 2>/dev/null || true' EXIT
for each in "camera 4201" "raw 4202"; do
  $VIRTUSB --module $VIRTUSB_MODULE serve "${each% *}" --listen "${each#* }" --answer-failures 2>/tmp/served &
  services="$services $!"
  await "the service" grep -q '^serving' /tmp/served
done
link() { /bin/tc qdisc replace dev lo root netem "$@"; }
milliseconds() { awk '{ print int($1 * 1000) }' /proc/uptime; }
# enumerate: how long until a device is there that has no driver to wait for, milliseconds, as $took.
enumerate() {
  begin=$(milliseconds)
  attach tcp://127.0.0.1:4202
  took=$(($(milliseconds) - begin))
  detach
}
# watch: how late pictures are, milliseconds, as $middle (p50) and $late (p99); and round trips beside them, p50.
watch() {
  /opt/vm_trips "$place" 60 >/tmp/trips &
  trips=$!
  # shellcheck disable=SC2086 # Process ids.
  line=$(/opt/vm_camera "$1" 640 480 $VIRTUSB $VIRTUSB_MODULE $attached $services)
  wait $trips || fail "no round trips"
  beside=$(cut -d' ' -f1 /tmp/trips)
  middle=$(echo "$line" | awk '{ print int($6) }') late=$(echo "$line" | awk '{ print int($7) }')
  echo "$line; $beside"
}
enumerate # Loads what it takes.
enumerate
near=$took
link delay 25ms
enumerate
far=$((took - near))
[ $far -lt 1000 ] || fail "a round trip of 50 ms makes an enumeration $far ms longer"
/bin/tc qdisc del dev lo root

attach tcp://127.0.0.1:4201 tcp://127.0.0.1:4202
place=$(place_of ffff:ffff)
watch near
near=$late near_middle=$middle
link rate 1mbit delay 50ms loss 1%
alone=$(/opt/vm_trips "$place" 40) alone=${alone% *}
watch 1mbit
[ "$late" -lt $((near + 50 + 500)) ] || fail "pictures are $late ms late, and $near where nothing holds them back"
[ "$beside" -lt $((alone + 100)) ] || fail "a round trip takes $beside ms beside the camera, $alone ms alone"
link rate 500kbit delay 50ms loss 1% # Narrower than what an emulated encoder makes on a machine with other work, too.
watch 500kbit
[ "$middle" -lt $((near_middle + 400)) ] || fail "pictures are $middle ms late, and $near_middle where nothing holds them back"
record_on
link loss 100%
await "the loss" grep -q '4201 is lost, trying again' $said
/bin/tc qdisc del dev lo root
record_off
await "its return" grep -q '4201 is back on port' $said
await "uvcvideo" has_driver ff00:fffe 1 uvcvideo
record 640 480 5
detach
echo "50 ms a round trip: $far ms longer to enumerate; round trips on the narrow link $alone ms alone; silence is noticed"

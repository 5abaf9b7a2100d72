# The emulated camera across a link that is narrower than its pictures, and the round trips of another device on that link:
# 1 Mbit/s, 50 ms each way, a packet of a hundred lost. Without such a link first.
# shellcheck shell=sh
. /vm/bench.sh
rm -f /tmp/lines
mount -t tracefs tracefs /sys/kernel/tracing 2>/dev/null || true
ifconfig lo mtu 1500 # Packets as a network has them.
serve camera 7801
camera=$server
serve raw 7802
now() { awk '{ print int($1 * 1000) }' /proc/uptime; }
for link in none "rate 1mbit delay 50ms loss 1%"; do
  # shellcheck disable=SC2086 # Several words.
  [ "$link" = none ] || /bin/tc qdisc replace dev lo root netem $link
  echo "link: $link" >/dev/ttyS0
  begin=$(now)
  $VIRTUSB --module $VIRTUSB_MODULE attach tcp://127.0.0.1:7801 tcp://127.0.0.1:7802 2>/tmp/attached &
  attach=$!
  await "its driver" has_driver ff00:fffe 1 uvcvideo
  await "the other device" device_of ffff:ffff
  echo "both there after $(($(now) - begin)) ms" >/dev/ttyS0
  place=$(place_of ffff:ffff)
  /opt/vm_trips "$place" 60 >/dev/ttyS0
  for size in "640 480" "1280 720"; do
    /opt/vm_trips "$place" 60 >/dev/ttyS0 &
    trips=$!
    # shellcheck disable=SC2086 # Two words.
    keep /opt/vm_camera link $size $VIRTUSB $VIRTUSB_MODULE $attach $camera
    wait $trips
  done
  end $attach ff00:fffe
done

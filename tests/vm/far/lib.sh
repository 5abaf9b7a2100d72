# For the scenarios of the far side; sourced.
# shellcheck shell=sh

# attach [--OPTION...] DEVICE...: in the background; what it says is in $said. Waits until the last device's driver is there.
said=/tmp/attached
attached= exporter=
# shellcheck disable=SC2086 # None, or one.
trap '[ -z "$attached$exporter" ] || kill $attached $exporter 2>/dev/null || true' EXIT
attach() {
  for last in "$@"; do :; done
  rm -f $said # Another's lines are not waited for.
  $VIRTUSB --module $VIRTUSB_MODULE attach "$@" 2>$said &
  attached=$!
  await "$last on the bus" grep -qF "$last is on port" $said
}
# detach: interrupts it; it ends well, and its devices go.
detach() {
  kill -TERM $attached
  wait $attached || fail "attach ends with $?: $(cat $said)"
  attached=
  await "the ports to be free" ports_free
}
# import NUMBER...: exported devices by the guest's own client. It fails while another one has its address already and is not
# in sysfs yet.
import() {
  for number in "$@"; do
    imported=$(($(count_imported) + 1))
    usbip attach -r 127.0.0.1 -b "1-$number"
    await "1-$number on the bus" is_imported
  done
}
count_imported() { find /sys/devices/platform/vhci_hcd.*/usb*/ -mindepth 2 -maxdepth 2 -name idVendor | wc -l; }
is_imported() { [ "$(count_imported)" = $imported ]; }
ports_free() { [ ! "$(ports_of 006)" ]; }

# What the drivers of the keyboard, the printer and the serial adapters do with their devices.
use_simple_devices() {
  led=$(find /sys/class/leds/ -name '*::numlock' | head -n 1)
  echo 1 >"$led/brightness"
  id=$(find "/sys/bus/usb/devices/$(device_of 2867:1112)/" -name ieee1284_id -exec cat {} \;)
  [ "$id" = "MFG:DV3;CMD:PDF;MDL:VTL;" ] || fail "the printer's id: $id"
  head -c 1048576 /dev/urandom >/tmp/page
  timeout 20 dd if=/tmp/page of=/dev/usb/lp0 bs=64k 2>/dev/null || fail "printing"
  remote serial /dev/ttyUSB0
  remote serial /dev/ttyACM0
  echo "LED set, 1 MiB printed"
}

# find_disk: waits until the attached disk has a node, and sets $block to it.
block_of() { find "$(on_vhci 1d6b:0106)/" -path '*/block/sd?' | grep .; }
find_disk() {
  await "the disk" block_of
  block=/dev/$(basename "$(block_of)")
}

# The node of the one camera that has its driver, and COUNT pictures of it into /tmp/pictures: record WIDTH HEIGHT COUNT
video() { echo "/dev/$(basename "$(dirname "$(grep -l 0 /sys/class/video4linux/*/index)")")"; }
record() {
  timeout 30 v4l2-ctl --verbose -d "$(video)" --set-fmt-video="width=$1,height=$2,pixelformat=YUYV" --stream-mmap \
    --stream-count="$3" --stream-to=/tmp/pictures >/tmp/record 2>&1 || fail "no pictures: $(tail -n 3 /tmp/record)"
  sed -n 's/.* seq: *\([0-9]*\) .*/\1/p' /tmp/record >/tmp/order
  [ "$(wc -l </tmp/order)" -ge "$3" ] || fail "pictures without numbers: $(tail -n 3 /tmp/record)"
  # uvcvideo copies what came on all processors at once: of two pictures in quick succession the second may be ready first.
  sort -nc /tmp/order 2>/dev/null || { echo "the guest's driver changed the order of its pictures; again" && record "$@"; }
}
# record_on: in the background, until it is ended or fails; there are pictures when it returns. This shell has the node
# open, too, until record_off: a 6.1 kernel whose camera is closed for the last time while it goes from the bus may
# follow a null pointer (media_device_unregister_entity() looks at the device before it takes its lock).
record_on() {
  rm -f /tmp/pictures
  watched=$(video)
  camera_node=$(readlink -f "/sys/class/video4linux/${watched#/dev/}/device/..")
  camera_number=$(cat "$camera_node/devnum")
  exec 8<"$watched"
  v4l2-ctl -d "$watched" --stream-mmap --stream-to=/tmp/pictures >/dev/null 2>&1 8<&- &
  recorder=$!
  await "a picture" test -s /tmp/pictures
}
# record_off: of a camera that goes or has gone.
record_off() {
  await "the camera to leave the bus" camera_gone
  kill $recorder 2>/dev/null || true
  wait $recorder || true
  exec 8<&-
}
camera_gone() { [ "$(cat "$camera_node/devnum" 2>/dev/null)" != "$camera_number" ]; }

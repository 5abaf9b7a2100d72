#!/bin/sh
# As root, where the kernel has vhci-hcd: attaches devices, the emulated camera last, shows the USB bus, records five
# seconds of the camera with this machine's own driver. Leaves the last picture in OUT/picture.yuyv, 640x480.
#
# attach.sh OUT VIRTUSB DEVICE...
set -eu
out=$1 virtusb=$2
shift 2
attached=
trap '[ -z "$attached" ] || { kill "$attached"; wait "$attached"; } 2>/dev/null || true; rm -f "$out/attached" "$out/pictures"' EXIT

echo "\$ virtusb attach $*"
"$virtusb" attach "$@" 2>"$out/attached" &
attached=$!
until grep -q "^camera is on port" "$out/attached"; do
  kill -0 "$attached" 2>/dev/null || { cat "$out/attached"; exit 1; }
  sleep 1
done
cat "$out/attached"
printf '\n$ lsusb -t\n'
lsusb -t 2>/dev/null

for folder in /sys/class/video4linux/video*; do
  [ "$(cat "$folder/device/../idVendor" "$folder/index" | tr '\n' ' ')" = "ff00 0 " ] && video=/dev/${folder##*/}
done
printf '\n$ v4l2-ctl -d %s --stream-mmap   # for five seconds\n' "$video"
timeout 5 v4l2-ctl -d "$video" --set-fmt-video=width=640,height=480,pixelformat=YUYV --stream-mmap \
  --stream-to="$out/pictures" >/dev/null 2>&1 || true
size=614400
count=$(($(wc -c <"$out/pictures") / size))
[ "$count" -gt 0 ] || { echo "no picture came"; exit 1; }
dd if="$out/pictures" of="$out/picture.yuyv" bs=$size skip=$((count - 1)) count=1 2>/dev/null
echo "$count pictures of 640x480 recorded; each crossed as H.264"

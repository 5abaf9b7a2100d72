# A camera of this kernel, with payload headers of each length: streamed by the command, and put back on the bus.
# shellcheck shell=sh
. /vm/far/lib.sh
for header in 2 12 8; do
  [ $header = 2 ] || kill $camera
  await "the one before to be gone" gone 1d6b:0102
  /opt/vm_remote camera $header /run/vhci &
  camera=$!
  await "uvcvideo" has_driver 1d6b:0102 1 uvcvideo
  place=$(place_of 1d6b:0102)
  virtusb stream "$place" --no-transcode --frames 40 -o /tmp/pictures >/tmp/streamed
  await "uvcvideo again" has_driver 1d6b:0102 1 uvcvideo
  echo "headers of $header: $(grep -o 'frames per second.*' /tmp/streamed); $(remote gradients /tmp/pictures 1000)"
done
attach "$place"
record 640 480 20
echo "as H.264 and back: $(remote gradients /tmp/pictures 30)"
detach
await "uvcvideo again" has_driver 1d6b:0102 1 uvcvideo
kill $camera

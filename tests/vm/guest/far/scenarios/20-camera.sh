# Pictures by the guest's own driver: untouched, and as H.264 over the way, at both sizes; sizes in turn, ten starts.
# shellcheck shell=sh
. /vm/far/lib.sh
for how in --no-transcode ""; do
  # shellcheck disable=SC2086 # Nothing, or an option.
  attach $how camera
  # A picture that is exact has infinitely many dB; the encoder leaves 24 and more of this pattern.
  if [ "$how" ]; then least=1000; else least=20; fi
  for size in "640 480" "1280 720"; do
    record $size 20
    remote pictures /tmp/pictures $size $least
  done
  detach
done
attach camera
for size in "640 480" "1280 720" "640 480" "1280 720" "640 480" "640 480" "1280 720" "1280 720" "640 480" "640 480"; do
  record $size 2
  remote pictures /tmp/pictures $size 20 >/dev/null
done
record_on
detach
record_off
echo "ten starts, sizes in turn; detached in mid-stream"

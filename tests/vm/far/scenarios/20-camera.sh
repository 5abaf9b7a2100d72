# Pictures by the guest's own driver: untouched, and as H.264 over the way, at both sizes; sizes in turn, ten starts.
# shellcheck shell=sh
. /vm/far/lib.sh
$VIRTUSB --module $VIRTUSB_MODULE serve camera --listen 4100 --answer-failures 2>/tmp/served &
exporter=$!
await "the service" grep -q '^serving' /tmp/served
# A picture that is exact has infinitely many dB. What is left of one that was encoded is compared outside.
for size in "640 480" "1280 720"; do
  attach --no-transcode camera
  record $size 20
  remote pictures /tmp/pictures $size 1000
  detach
  attach tcp://127.0.0.1:4100
  ! grep -q 'does not say' $said || fail "a far end that answers failures is not known: $(cat $said)"
  record $size 20
  remote pictures /tmp/pictures $size 0 >>$results/transcoded
  detach
done
kill $exporter
wait $exporter || fail "serve ends with $?: $(cat /tmp/served)"
exporter=
attach camera
for size in "640 480" "1280 720" "640 480" "1280 720" "640 480" "640 480" "1280 720" "1280 720" "640 480" "640 480"; do
  record $size 2
  remote pictures /tmp/pictures $size 20 >/dev/null
done
record_on
detach
record_off
echo "ten starts, sizes in turn; detached in mid-stream"

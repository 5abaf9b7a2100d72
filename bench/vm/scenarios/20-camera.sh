# The emulated camera by the guest's own driver: from complete at its source to a program's buffer, attached in one
# process and by serve and attach over TCP, as H.264 and untouched, at both sizes. In turn; medians of the rounds.
# shellcheck shell=sh
. /vm/bench.sh
rm -f /tmp/lines
mount -t tracefs tracefs /sys/kernel/tracing
# watch LABEL PID...: both sizes of the camera that is on the bus.
watch() {
  label=$1
  shift
  await "its driver" has_driver ff00:fffe 1 uvcvideo
  for size in "640 480" "1280 720"; do
    # shellcheck disable=SC2086 # Two words.
    keep /opt/vm_camera "$label" $size $VIRTUSB $VIRTUSB_MODULE "$@"
  done
}
for round in 1 2 3; do
  for form in "h264" "raw --no-transcode"; do
    option=${form#"${form%% *}"}
    # shellcheck disable=SC2086 # None, or one.
    $VIRTUSB --module $VIRTUSB_MODULE attach $option camera 2>/tmp/attached &
    watch "process-${form%% *}" $!
    end $! ff00:fffe

    serve camera "127.0.0.1:78$round"
    # shellcheck disable=SC2086
    $VIRTUSB --module $VIRTUSB_MODULE attach $option "tcp://127.0.0.1:78$round" 2>/tmp/attached &
    watch "tcp-${form%% *}" $! $server
    end $! ff00:fffe
    kill -TERM $server
    wait $server
  done
done
awk -v keys=2 "$medians"'
  END {
    printf "%-24s %8s %13s %15s %15s %13s %13s %8s %s\n", "milliseconds", "sent/s", "dropped", "late p50/p99", "beyond p50/p99",
      "encode/decode", "link/guest", "machine", "CPU % of attach, serve"
    for (k = 1; k <= kinds; ++k) {
      key = order[k]
      printf "%-24s %8.1f %4d of %6d %7.1f/%7.1f %7.1f/%7.1f %6.2f/%6.2f %6.2f/%6.2f %7d%% %d", key, median(key, 3), median(key, 5),
        median(key, 4), median(key, 6), median(key, 7), median(key, 8), median(key, 9), median(key, 10), median(key, 11),
        median(key, 12), median(key, 13), median(key, 14), median(key, 15)
      if ((key, 16, 1) in value) printf ", %d", median(key, 16)
      printf "\n"
    }
  }' /tmp/lines

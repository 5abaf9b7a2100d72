# For the guest's scripts that measure; sourced.
# shellcheck shell=sh

# serve DEVICE ADDRESS: in the background, as $server.
serve() {
  rm -f /tmp/serve
  $VIRTUSB --module $VIRTUSB_MODULE serve "$1" --listen "$2" --insecure --answer-failures 2>/tmp/serve &
  server=$!
  await "the service" grep -q serving /tmp/serve
}
# end PID VID:PID: of an attach, and of what it has put on the bus.
end() {
  kill -TERM "$1"
  wait "$1" || fail "attach ends with $?"
  await "its end" off_bus "$2"
}
off_bus() { ! on_vhci "$1"; }
# keep COMMAND...: its line is shown at once, and kept for the table.
keep() {
  line=$("$@")
  echo "$line" | tee -a /tmp/lines >/dev/ttyS0
}
# measure LABEL FOLDER: the source/sink gadget that is there in sysfs.
measure() { keep /opt/vm_bench "$1" "$(cat "$2/busnum"):$(cat "$2/devnum")"; }
# ways_table WAY: what was measured, the ratios to this way.
ways_table() {
  awk -v keys=1 -v base="$1" "$medians"'
    END {
      printf "%-8s %16s %16s %16s %10s %16s %10s\n", "", "control, us", "512 bytes, us", "IN, MB/s", "CPU ms/MB", "OUT, MB/s", "CPU ms/MB"
      for (k = 1; k <= kinds; ++k) {
        printf "%-8s", order[k]
        for (i = 2; i <= 7; ++i) {
          m = median(order[k], i)
          if (i == 5 || i == 7) printf " %10.1f", m
          else printf " %7.0f (%.2f x)", m, m / median(base, i)
        }
        printf "\n"
      }
    }' /tmp/lines
}
# For awk: of lines in which `keys` columns say what was measured, medians of the others.
medians='
  function median(key, column,  i, n, list, j, t) {
    n = count[key]
    for (i = 1; i <= n; ++i) list[i] = value[key, column, i]
    for (i = 1; i <= n; ++i) for (j = i + 1; j <= n; ++j) if (list[j] < list[i]) { t = list[i]; list[i] = list[j]; list[j] = t }
    return list[int((n + 1) / 2)]
  }
  {
    key = $1
    for (i = 2; i <= keys; ++i) key = key " " $i
    if (!count[key]++) order[++kinds] = key
    for (i = keys + 1; i <= NF; ++i) value[key, i, count[key]] = $i
  }'

# The same gadget: directly, by the kernel's own usbip-host and vhci-hcd, by serve and attach over TCP, and attached in one
# process. In turn, so that what the machine does beside meets all of them; medians of the rounds.
# shellcheck shell=sh
vhci=/sys/devices/platform/vhci_hcd.0
on_bus() { on_vhci 0525:a4a0; }
gone() { ! on_bus; }
measure() { /opt/vm_bench "$1" "$(cat "$2/busnum"):$(cat "$2/devnum")" | tee -a /tmp/lines >/dev/ttyS0; }
# over LABEL: what is on vhci-hcd now.
over() {
  await "the device of $1" on_bus
  measure "$1" "$(on_bus)"
}
# end PID: of an attach, and of what it has put on the bus.
end() {
  kill -TERM "$1"
  wait "$1" || fail "attach ends with $?"
  await "its end" gone
}
gadget_name=$(device_of 0525:a4a0)
place=$(place_of 0525:a4a0)
# usbipd looks for the ids where a Debian system has them.
/opt/usbipd -D 2>/dev/null
for round in 1 2 3; do
  measure direct "/sys/bus/usb/devices/$gadget_name"

  usbip bind -b "$gadget_name" >/dev/null 2>&1
  usbip attach -r 127.0.0.1 -b "$gadget_name"
  over kernel
  awk '$3 == "006" { print substr($2, 3) + 0 }' $vhci/status >$vhci/detach
  await "its end" gone
  usbip unbind -b "$gadget_name" >/dev/null 2>&1

  rm -f /tmp/serve
  $VIRTUSB --module $VIRTUSB_MODULE serve "$place" --listen "127.0.0.1:77$round" --answer-failures 2>/tmp/serve &
  server=$!
  await "the service" grep -q serving /tmp/serve
  $VIRTUSB --module $VIRTUSB_MODULE attach "tcp://127.0.0.1:77$round" 2>/tmp/attached &
  over tcp
  end $!
  kill -TERM $server
  wait $server

  $VIRTUSB --module $VIRTUSB_MODULE attach "$place" 2>/tmp/attached &
  over process
  end $!
done
awk '
  function median(way, column,  i, n, list, j, t) {
    n = count[way]
    for (i = 1; i <= n; ++i) list[i] = value[way, column, i]
    for (i = 1; i <= n; ++i) for (j = i + 1; j <= n; ++j) if (list[j] < list[i]) { t = list[i]; list[i] = list[j]; list[j] = t }
    return list[int((n + 1) / 2)]
  }
  { ++count[$1]; for (i = 2; i <= NF; ++i) value[$1, i, count[$1]] = $i }
  END {
    printf "%-8s %16s %16s %16s %10s %16s %10s\n", "", "control, us", "512 bytes, us", "IN, MB/s", "CPU ms/MB", "OUT, MB/s", "CPU ms/MB"
    split("direct kernel tcp process", ways, " ")
    for (w = 1; w <= 4; ++w) {
      printf "%-8s", ways[w]
      for (i = 2; i <= 7; ++i) {
        m = median(ways[w], i)
        if (i == 5 || i == 7) printf " %10.1f", m
        else printf " %7.0f (%.2f x)", m, m / median("kernel", i)
      }
      printf "\n"
    }
  }' /tmp/lines

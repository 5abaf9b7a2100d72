# The same gadget of another machine, by usbredirect and this machine's controller, by the kernel's USB/IP, and by serve and
# attach; and the network between them by itself. In turn; medians of the rounds.
# Processor time is this machine's: what QEMU's own end of usbredirect takes is none of it.
# shellcheck shell=sh
. /vm/bench.sh
$VIRTUSB --module $VIRTUSB_MODULE attach "tcp://10.0.2.2:47001" 2>/tmp/attached &
attached=$!
await "the attached gadget" on_vhci 0525:a4a1
bus=$(usbip --tcp-port 47003 list -r 10.0.2.2 | sed -n 's/^ *\([0-9]*-[0-9.]*\):.*/\1/p')
usbip --tcp-port 47003 attach -r 10.0.2.2 -b "$bus"
await "the kernel's" on_vhci 0525:a4a2
for round in 1 2 3 4 5; do
  measure usbredir "/sys/bus/usb/devices/$(device_of 0525:a4a0)"
  measure kernel "$(on_vhci 0525:a4a2)"
  measure virtusb "$(on_vhci 0525:a4a1)"
  keep /opt/tcp_echo network 10.0.2.2:47002
done
end $attached 0525:a4a1
ways_table usbredir

# The same gadget of another machine, by usbredirect and this machine's controller, and by serve and attach. In turn;
# medians of the rounds.
# Processor time is this machine's: what QEMU's own end of usbredirect takes is none of it.
# shellcheck shell=sh
. /vm/bench.sh
$VIRTUSB --module $VIRTUSB_MODULE attach "tcp://10.0.2.2:47001" 2>/tmp/attached &
attached=$!
await "the attached gadget" on_vhci 0525:a4a1
for round in 1 2 3 4 5; do
  measure usbredir "/sys/bus/usb/devices/$(device_of 0525:a4a0)"
  measure virtusb "$(on_vhci 0525:a4a1)"
done
end $attached 0525:a4a1
ways_table usbredir

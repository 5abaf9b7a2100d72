# The same gadget: directly, by packets through the module in the same process, by the kernel's own usbip-host and
# vhci-hcd, by serve and attach over TCP, and attached in one process. In turn, so that what the machine does beside meets
# all of them; medians of the rounds.
# shellcheck shell=sh
. /vm/bench.sh
on_bus() { on_vhci 0525:a4a0; }
# over LABEL: what is on vhci-hcd now.
over() {
  await "the device of $1" on_bus
  measure "$1" "$(on_bus)"
}
gadget_name=$(device_of 0525:a4a0)
place=$(place_of 0525:a4a0)
endpoints=$(find "/sys/bus/usb/devices/$gadget_name/$gadget_name:1.0/" -name 'ep_*' | sed 's/.*ep_//' | sort -r | tr '\n' ' ')
# usbipd looks for the ids where a Debian system has them.
/opt/usbipd -D 2>/dev/null
for round in 1 2 3; do
  measure direct "/sys/bus/usb/devices/$gadget_name"
  # shellcheck disable=SC2086 # Two endpoints.
  keep /opt/vm_module module "$place" $VIRTUSB_MODULE $endpoints

  usbip bind -b "$gadget_name" >/dev/null 2>&1
  usbip attach -r 127.0.0.1 -b "$gadget_name"
  over kernel
  ports_of 006 >/sys/devices/platform/vhci_hcd.0/detach
  await "its end" off_bus 0525:a4a0
  usbip unbind -b "$gadget_name" >/dev/null 2>&1

  serve "$place" "127.0.0.1:77$round"
  $VIRTUSB --module $VIRTUSB_MODULE attach "tcp://127.0.0.1:77$round" 2>/tmp/attached &
  over tcp
  end $! 0525:a4a0
  kill -TERM $server
  wait $server

  $VIRTUSB --module $VIRTUSB_MODULE attach "$place" 2>/tmp/attached &
  over process
  end $! 0525:a4a0
done
ways_table kernel

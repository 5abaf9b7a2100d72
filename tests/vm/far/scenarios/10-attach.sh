# All seven emulated devices on this machine's bus, each with its driver, and data through it.
# shellcheck shell=sh
. /vm/far/lib.sh
attach --capture /tmp/attach.pcapng --capture-bytes 64 keyboard printer ch340 ch9102 raw winusb camera
for expected in "keyboard.*: usbhid" "printer.*: usblp" "ch340.*: ch341" "ch9102.*: cdc_acm cdc_acm" \
  "raw.*: no driver" "winusb.*: no driver" "camera.*: uvcvideo uvcvideo"; do
  grep -q "^$expected\$" $said || fail "not so: $expected: $(cat $said)"
done
# What the command says of each, and lsusb of what is on this bus; compared outside. Their buses differ.
for name in keyboard printer ch340 ch9102 raw winusb camera; do
  folder=/sys/bus/usb/devices/$(sed -n "s/^$name is on port .* as \(.*\): .*/\1/p" $said)
  lsusb -v -s "$(cat "$folder/busnum"):$(cat "$folder/devnum")" 2>/dev/null | sed 's/^Bus .*//' >$results/$name.lsusb
  # The raw device does not say in which language its strings are, so that lsusb asks for none.
  strings= && [ $name != raw ] || strings='s/^\( *i[MPS].* [123]\) .*/\1/'
  virtusb describe $name | sed "s/^Bus .*//; $strings" >$results/$name.describe
done
use_simple_devices
date -s "@$(($(date +%s) - 3600))" >/dev/null # Neither the capture nor a wait goes by a clock that is set.
remote guest "$(place_of ffff:ffff)" 10000
detach
gzip -c /tmp/attach.pcapng >$results/attach.pcapng.gz

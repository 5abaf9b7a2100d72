# All seven emulated devices on this machine's bus, each with its driver, and data through it.
# shellcheck shell=sh
. /vm/far/lib.sh
attach keyboard printer ch340 ch9102 raw winusb camera
for expected in "keyboard.*: usbhid" "printer.*: usblp" "ch340.*: ch341" "ch9102.*: cdc_acm cdc_acm" \
  "raw.*: no driver" "winusb.*: no driver" "camera.*: uvcvideo uvcvideo"; do
  grep -q "^$expected\$" $said || fail "not so: $expected: $(cat $said)"
done
use_simple_devices
remote guest "$(place_of ffff:ffff)" 10000
detach

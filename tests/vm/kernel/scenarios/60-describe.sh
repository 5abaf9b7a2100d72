# What the command says of each device and what lsusb says; compared outside. The kernel's drivers stay.
# shellcheck shell=sh
list=$(virtusb list)
for id in 0525:a4a0 1d6b:0104 1d6b:0106 46f4:0002 46f4:0001; do
  device=$(device_of $id)
  place=$(place_of $id)
  drivers() { find "/sys/bus/usb/devices/$device":*/driver -maxdepth 0 -exec readlink {} \;; }
  before=$(drivers)
  [ "$before" ] || fail "$id has no driver"
  virtusb describe "$place" >"$results/$id.describe"
  [ "$(drivers)" = "$before" ] || fail "describing $id changes its drivers"
  lsusb -v -s "$place" >"$results/$id.lsusb" 2>/dev/null
  echo "$list" | grep -q "$id" || fail "virtusb list does not show $id"
done

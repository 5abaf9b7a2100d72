# Who else wants a device, and what is left of it when its redirection is ended, hung up on or killed.
# shellcheck shell=sh
. /vm/far/lib.sh
disk=$(place_of 1d6b:0106)
zero=$(place_of 0525:a4a0)
driver_back() { await "$1's driver" has_driver "$2" 0 "$1"; }

attach "$disk"
find_disk
timeout 60 md5sum "$block" >/tmp/sum &
reading=$!
for second in "serve $disk --stdio" "attach $zero $disk" "export $disk" "describe $disk" "stream $disk" "giveback $disk"; do
  # shellcheck disable=SC2086 # Several words.
  if virtusb $second </dev/null 2>/tmp/refused; then fail "$second is not refused"; fi
  grep -v '^+' /tmp/refused | grep -qx "virtusb: .*1d6b:0106 is already redirected by process $attached" ||
    fail "$second: $(cat /tmp/refused)"
done
wait $reading || fail "the first redirection was disturbed"
[ "$(cut -d' ' -f1 /tmp/sum)" = "$(md5sum </tmp/disk.img | cut -d' ' -f1)" ] || fail "other data on the disk"
kill -HUP $attached
wait $attached || fail "hung up on, attach ends with $?: $(cat $said)"
driver_back usb-storage 1d6b:0106
driver_back usbtest 0525:a4a0

# A program that knows no lock.
/opt/vm_remote hold "$zero" >/tmp/held &
holder=$!
await "the device to be held" test -s /tmp/held
virtusb serve "$zero" --stdio </dev/null 2>/tmp/warned
grep -q "is held by process $holder (vm_remote): until that ends" /tmp/warned || fail "serve says: $(cat /tmp/warned)"
kill $holder
wait $holder || true
virtusb giveback "$zero"
driver_back usbtest 0525:a4a0

# A guest that has selected another configuration, and how the device comes back from it: at its end, or after a kill.
configuration() { cat "/sys/bus/usb/devices/$(device_of 0525:a4a0)/bConfigurationValue"; }
has_configuration() { [ "$(configuration)" = "$1" ]; }
nothing() { :; }
serve_none() { virtusb serve "$zero" --stdio </dev/null; }
give_back() { virtusb giveback "$zero" | grep -F 'configuration 1 is back'; }
while read -r signal repair; do
  attach "$zero"
  echo 2 >"$(on_vhci 0525:a4a0)/bConfigurationValue"
  await "configuration 2" has_configuration 2
  kill -"$signal" $attached
  wait $attached || true
  attached=
  $repair </dev/null || fail "$repair"
  driver_back usbtest 0525:a4a0
  has_configuration 1 || fail "after $signal and $repair, configuration $(configuration)"
done <<END
TERM nothing
KILL give_back
KILL serve_none
END
echo "a second user is refused, another program named; drivers and configuration are back after each end"

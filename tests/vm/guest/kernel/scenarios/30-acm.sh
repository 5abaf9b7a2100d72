# Data both ways through the redirection; afterwards the kernel's driver has the device back, and moves data too.
# shellcheck shell=sh
[ -c /dev/ttyACM0 ] || fail "no /dev/ttyACM0 before"
remote acm "$(place_of 1d6b:0104)" /dev/ttyGS0 262144
await "cdc_acm on the device" has_driver 1d6b:0104 0 cdc_acm
await "cdc_acm on the data interface" has_driver 1d6b:0104 1 cdc_acm
await "/dev/ttyACM0" test -c /dev/ttyACM0
stty -F /dev/ttyGS0 raw -echo
# The function answers again a moment after the reset that gave it back.
await "/dev/ttyACM0 to open" stty -F /dev/ttyACM0 raw -echo
timeout 20 head -n 1 </dev/ttyACM0 >/tmp/acm.line &
reader=$!
echo "through the kernel's driver" >/dev/ttyGS0
wait $reader || fail "/dev/ttyACM0 gives no data"
[ "$(cat /tmp/acm.line)" = "through the kernel's driver" ] || fail "/dev/ttyACM0 gives $(cat /tmp/acm.line)"
echo "/dev/ttyACM0 is back and carries data"

# The camera of the command for Windows, which serves it outside, by this guest's own driver.
# shellcheck shell=sh
. /vm/windows/lib.sh
camera=tcp://10.0.2.2:$(sed -n 's/.*vm\.port=\([0-9]*\).*/\1/p' /proc/cmdline)
for size in "640 480" "1280 720"; do
  attach "$camera"
  record $size 20
  remote pictures /tmp/pictures $size 20
  detach
done

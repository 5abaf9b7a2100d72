# The service as its unit says, its lines carried out as systemd would, by its user and under its udev rule: killed while a guest
# has the device, started again; the device unplugged and plugged meanwhile; stopped.
# shellcheck shell=sh
. /vm/far/lib.sh
files=/vm/far/packaging
device=0525:a4a0
# key NAME: what the unit says, for this device.
key() { sed -n "s/^$1=//p" $files/systemd/virtusb@.service | sed "s/%i/$device/g; s,%t,/run,g"; }
# play LINE: as the service's user.
play() {
  # shellcheck disable=SC2034 # Stands in the line.
  SERVE_OPTIONS=$(sed -n 's/^SERVE_OPTIONS=//p' $files/systemd/virtusb.conf)
  eval "set -- ${1#-}"
  # shellcheck disable=SC2016
  exec su -s /bin/sh -c 'exec "$@"' -- "$user" sh env "$(key Environment)" "$@"
}
start() {
  mkdir -p "$state"
  chown "$user:$(key Group)" "$state"
  rm -f /tmp/service
  (play "$(key ExecStart)") 2>/tmp/service &
  service=$!
  await "the service" grep -q serving /tmp/service
}
driver() { basename "$(readlink "/sys/bus/usb/devices/$gadget:1.0/driver")"; }
ours() { [ "$(stat -c %G "/dev/bus/usb/$(place_of $device | awk -F: '{ printf "%03d/%03d", $1, $2 }')")" = "$group" ]; }

user=$(key User) group=$(key Group) state=/run/$(key RuntimeDirectory)
gadget=$(device_of $device)
mkdir -p /lib/virtusb
ln -s "$VIRTUSB_MODULE" /lib/virtusb/
ln -s "$VIRTUSB" /bin/
ln -s systemd-udevd /bin/udevadm
printf 'root:x:0:0::/:/bin/sh\n%s:x:900:900::/:/bin/false\n' "$user" >/etc/passwd
printf 'root:x:0:\n%s:x:900:\n' "$group" >/etc/group
cp $files/70-virtusb.rules /etc/udev/rules.d/
udevadm control --reload
regroup() { timeout 5 udevadm trigger --settle --subsystem-match=usb && ours; }
await "the node's group" regroup

start
port=tcp://127.0.0.1:4000
attach $port
[ "$(driver)" = usbfs ] || fail "attached, the gadget has $(driver)"
kill -KILL $service
wait $service || true
[ "$(driver)" != usbtest ] || fail "the kernel's driver is back before anything is done"
(play "$(key ExecStopPost)")
[ "$(driver)" = usbtest ] || fail "after the stop the gadget has $(driver)"
kill -TERM $attached 2>/dev/null || true
wait $attached || true
await "the ports to be free" ports_free

start
echo >$gadgets/zero/UDC
await "it is told" grep -q unplugged /tmp/service
plug zero 0
await "it is told" grep -q 'device is there' /tmp/service
attach $port
kill -TERM $service
wait $service || fail "stopped, the service ends with $?: $(cat /tmp/service)"
(play "$(key ExecStopPost)")
[ "$(driver)" = usbtest ] || fail "stopped, the gadget has $(driver)"
kill -TERM $attached 2>/dev/null || true
wait $attached || true
attached=
await "the ports to be free" ports_free
rm -r "$state" /etc/udev/rules.d/70-virtusb.rules
udevadm control --reload

# A disk that is exported as it comes and goes, used by the guest's own client.
# shellcheck shell=sh
. /vm/far/lib.sh
$VIRTUSB --module $VIRTUSB_MODULE export --auto "8,0x1d6b,0x0106,-1,1" 2>$said &
exporter=$!
told() { [ "$(grep -c '(1d6b:0106, Gadget disk) is 1-1$' $said)" = "$1" ]; }
for time in 1 2; do
  await "bus id, time $time" told $time
  usbip attach -r 127.0.0.1 -b 1-1
  find_disk
  timeout 20 dd if="$block" of=/dev/null bs=64k count=64 2>/dev/null || fail "it cannot be read"
  [ $time = 1 ] || break
  echo >$gadgets/disk/UDC
  await "the ports to be free" ports_free
  plug disk 1
done
kill $exporter
wait $exporter || fail "export ends with $?: $(cat $said)"
exporter=
await "the ports to be free" ports_free
await "usb-storage on the gadget again" has_driver 1d6b:0106 0 usb-storage
grep -q ' is 1-2$' $said && fail "what came by USB/IP is exported again: $(cat $said)"
echo "exported, unplugged, exported again with the same bus id"

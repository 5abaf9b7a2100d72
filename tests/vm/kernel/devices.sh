# The devices of the machine: three gadgets on emulated controllers, and QEMU's own behind its xHCI.
# shellcheck shell=sh
gadget zero 0525:a4a0
add_function zero SourceSink.0 pattern=1
add_function zero Loopback.0
plug zero 0
gadget acm 1d6b:0104
add_function acm acm.0
plug acm 1
gadget disk 1d6b:0106
head -c 8388608 /dev/urandom >/tmp/disk.img
add_function disk mass_storage.0 stall=1 lun.0/file=/tmp/disk.img
plug disk 2

while read -r id interface driver; do
  await "$id with $driver" has_driver "$id" "$interface" "$driver"
done <<END
0525:a4a0 0 usbtest
1d6b:0104 0 cdc_acm
1d6b:0106 0 usb-storage
46f4:0001 0 usb-storage
46f4:0002 1 snd-usb-audio
END

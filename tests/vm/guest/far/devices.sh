# The gadgets that are redirected and attached back.
# shellcheck shell=sh
ifconfig lo up
mkdir -p /var/run
gadget zero 0525:a4a0
add_function zero SourceSink.0 pattern=0 # Alone: only then it gets the control requests of usbtest.
plug zero 0
gadget disk 1d6b:0106
head -c 41943040 /dev/zero >/tmp/disk.img
add_function disk mass_storage.0 stall=1 lun.0/file=/tmp/disk.img
plug disk 1
await "usbtest" has_driver 0525:a4a0 0 usbtest
await "usb-storage" has_driver 1d6b:0106 0 usb-storage

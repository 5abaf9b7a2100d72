# The gadgets that are redirected and attached back.
# shellcheck shell=sh
ifconfig lo up
mkdir -p /var/run
gadget zero 0525:a4a0
add_function zero SourceSink.0 pattern=0 # Alone: only then it gets the control requests of usbtest.
# Another configuration with the other function.
mkdir -p $gadgets/zero/configs/c.2 $gadgets/zero/functions/Loopback.0
ln -s $gadgets/zero/functions/Loopback.0 $gadgets/zero/configs/c.2/
plug zero 0
gadget disk 1d6b:0106
head -c 41943040 /dev/zero >/tmp/disk.img
add_function disk mass_storage.0 stall=1 lun.0/file=/tmp/disk.img
plug disk 1
await "usbtest" has_driver 0525:a4a0 0 usbtest
await "usb-storage" has_driver 1d6b:0106 0 usb-storage
# The second virtual controller, as the first one's folder shows it. A camera there is put back on the first: while the
# kernel changes a device's settings, it changes no other's on the same controller.
mkdir /run/vhci
ln -s /sys/devices/platform/vhci_hcd.0/attach /run/vhci/attach
ln -s /sys/devices/platform/vhci_hcd.0/status.1 /run/vhci/status

# The gadget's medium against its backing file, the xHCI's against what the kernel's driver reads.
# shellcheck shell=sh
remote storage "$(device_of 1d6b:0106)" /tmp/disk.img written
device=$(device_of 46f4:0001)
block_of() { basename "$(find -H "/sys/bus/usb/devices/$1/" -path '*/block/sd?' | head -n 1)"; }
block=$(block_of "$device")
dd if="/dev/$block" of=/tmp/xhci.img bs=64k 2>/dev/null
remote storage "$device" /tmp/xhci.img untouched

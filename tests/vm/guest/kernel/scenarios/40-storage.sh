# The gadget's medium against its backing file, the xHCI's against what the kernel's driver reads.
# shellcheck shell=sh
remote storage "$(place_of 1d6b:0106)" /tmp/disk.img
block=$(basename "$(find -H "/sys/bus/usb/devices/$(device_of 46f4:0001)/" -path '*/block/sd?' | head -n 1)")
dd if="/dev/$block" of=/tmp/xhci.img bs=64k 2>/dev/null
remote storage "$(place_of 46f4:0001)" /tmp/xhci.img

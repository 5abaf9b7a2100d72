# The emulated devices are all there is; the command finds its module where an installation has it.
# shellcheck shell=sh
mkdir -p /lib/virtusb
ln -s "$VIRTUSB_MODULE" /lib/virtusb/
dmesg -n 1 # The console is for the demo.

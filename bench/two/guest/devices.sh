# This machine's controller has the one gadget from its start; the other comes by attach.
# shellcheck shell=sh
ifconfig lo up
mkdir -p /var/run # Where usbip notes what it has attached.
ifconfig eth0 10.0.2.15 up
await "the redirected gadget" device_of 0525:a4a0

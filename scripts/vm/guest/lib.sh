# For the guest's scripts; sourced.
# shellcheck shell=sh

export VIRTUSB=/opt/virtusb VIRTUSB_MODULE=/opt/virtusb-redir.so
gadgets=/sys/kernel/config/usb_gadget
results=/tmp/results

virtusb() { $VIRTUSB --module $VIRTUSB_MODULE "$@"; }
remote() { /opt/vm_remote "$@"; }
fail() {
  echo "$*" >&2
  exit 1
}

# await WHAT COMMAND...: polls until the command succeeds; fails after the deadline.
await() {
  what=$1
  shift
  read -r now _ </proc/uptime
  deadline=$((${now%.*} + 30))
  until "$@" >/dev/null 2>&1; do
    read -r now _ </proc/uptime
    [ "${now%.*}" -lt $deadline ] || fail "waited in vain: $what"
    usleep 20000
  done
}

# ports_of STATUS: the ports of the first vhci-hcd controller in this state; 006 is in use. They are decimal: with their
# zeros in front awk would take them for octal.
ports_of() { awk -v status="$1" '$3 == status { sub(/^0+/, "", $2); print $2 == "" ? 0 : $2 }' /sys/devices/platform/vhci_hcd.0/status 2>/dev/null; }
# device_of VID:PID: prints the name under /sys/bus/usb/devices; fails while there is none.
device_of() {
  for folder in /sys/bus/usb/devices/*; do
    [ -f "$folder/idVendor" ] && [ "$(cat "$folder/idVendor"):$(cat "$folder/idProduct")" = "$1" ] &&
      echo "${folder##*/}" && return
  done
  return 1
}
gone() { ! device_of "$1"; }
# place_of VID:PID: BUS:ADDRESS, as the command takes it.
place_of() {
  folder=/sys/bus/usb/devices/$(device_of "$1")
  echo "$(cat "$folder/busnum"):$(cat "$folder/devnum")"
}

# on_vhci VID:PID: the folder of the device that is attached.
on_vhci() {
  for folder in /sys/devices/platform/vhci_hcd.*/usb*/*-*; do
    [ "$(cat "$folder/idVendor" 2>/dev/null):$(cat "$folder/idProduct" 2>/dev/null)" = "$1" ] && echo "$folder" && return
  done
  return 1
}

# has_driver VID:PID INTERFACE DRIVER
has_driver() {
  name=$(device_of "$1") &&
    [ "$(basename "$(readlink "/sys/bus/usb/devices/$name:1.$2/driver")")" = "$3" ]
}

# gadget NAME VID:PID: makes a gadget with one configuration.
gadget() {
  folder=$gadgets/$1
  mkdir -p "$folder/strings/0x409" "$folder/configs/c.1/strings/0x409"
  echo "0x${2%:*}" >"$folder/idVendor"
  echo "0x${2#*:}" >"$folder/idProduct"
  echo "Emulated maker" >"$folder/strings/0x409/manufacturer"
  echo "Gadget $1" >"$folder/strings/0x409/product"
  echo "serial-$1" >"$folder/strings/0x409/serialnumber"
  echo "configuration of $1" >"$folder/configs/c.1/strings/0x409/configuration"
  echo 120 >"$folder/configs/c.1/MaxPower"
}
# add_function GADGET FUNCTION [ATTRIBUTE=VALUE...]
add_function() {
  folder=$gadgets/$1 function=$2
  shift 2
  mkdir "$folder/functions/$function"
  for setting in "$@"; do
    echo "${setting#*=}" >"$folder/functions/$function/${setting%%=*}"
  done
  ln -s "$folder/functions/$function" "$folder/configs/c.1/"
}
# plug NAME CONTROLLER
plug() { echo "dummy_udc.$2" >"$gadgets/$1/UDC"; }

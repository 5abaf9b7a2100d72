#!/bin/sh
# Serves the camera by the command for Windows, under Wine, to a virtual machine.
#
# windows.sh COMMAND RUN_ARGUMENT...   the command of the build for Windows; what scripts/vm/run.sh is given
set -eu
command=$1
[ -x "$command" ] || { echo "skipped: nothing was built for Windows here; scripts/test windows does" && exit 77; }
shift
said=$(mktemp)
"$command" serve camera --listen 0 --answer-failures 2>"$said" &
service=$!
trap 'kill $service 2>/dev/null; cat "$said"; rm "$said"' EXIT
until grep -q '^serving' "$said"; do
  kill -0 $service
  sleep 0.1
done
port=$(sed -n 's/^serving .* on [0-9.]*:\([0-9]*\).*/\1/p' "$said" | tr -d '\r')
VM_QEMU="-netdev user,id=net,ipv6=off -device virtio-net-pci,netdev=net" VM_APPEND="vm.port=$port" "$@"

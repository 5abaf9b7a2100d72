#!/bin/sh
# Boots a small virtual machine with Debian's kernel under software emulation and runs a set of scenarios in it. What the
# guest says on its serial console is the result; its files are in WORK_DIR/NAME/results.
#
# run.sh WORK_DIR SET PROGRAM...   SET is a folder, whose name is NAME: its modules, devices and scenarios
#   VM_SCENARIOS=a,b   leaves all other scenarios out
#   VM_QEMU            more arguments for QEMU
#   VM_APPEND          more words for the kernel's command line
#   VM_CHECK           a program that is given the folder of NAME, VM_SCENARIOS and the programs, and fails when what the
#                      guest has left is not right
set -eu
PATH=$PATH:/sbin:/usr/sbin
here=$(cd "$(dirname "$0")" && pwd)
work=$1 folder=$2 set=$(basename "$2")
shift 2
skip() {
  echo "skipped: $1"
  exit 77
}
[ -z "${SANITIZED:-}" ] || skip "under emulation a sanitizer takes too long; the plain build is tested"
for tool in qemu-system-x86_64 busybox cpio depmod lsusb udevadm usbip v4l2-ctl mkfs.ext4 tc xz; do
  command -v $tool >/dev/null || skip "no $tool here; vm_packages in scripts/lib.sh names what to install"
done
[ -z "${VM_CHECK:-}" ] || command -v tshark >/dev/null || skip "no tshark here; test_packages in scripts/lib.sh names it"

mkdir -p "$work/$set"
# Sets beside each other share a kernel.
# shellcheck disable=SC2046 # One module a line.
"$here/fetch_kernel.sh" "$work/kernel" $(cat "$folder"/../*/modules | sort -u)
"$here/build_image.sh" "$work/$set/image" "$work/kernel/modules" "$here/guest" "$folder" "$@"
cd "$work/$set"
rm -rf results results.tar sound.wav
head -c 4194304 /dev/urandom >disk.img

limit=1100 # Seconds; an idle machine takes a tenth of it.
# shellcheck disable=SC2086 # VM_QEMU is a list.
timeout -k 5 $limit qemu-system-x86_64 -accel tcg -smp 2 -m 1024 -display none -no-reboot -nodefaults \
  -kernel ../kernel/vmlinux -initrd image \
  -append "console=ttyS0 quiet panic=-1 log_buf_len=16M rdinit=/vm/init vm.set=$set ${VM_SCENARIOS:+vm.scenarios=$VM_SCENARIOS} ${VM_APPEND:-}" \
  -serial file:/dev/stdout -serial file:results.tar -monitor none \
  -device qemu-xhci \
  -drive if=none,id=disk,format=raw,file=disk.img -device usb-storage,drive=disk \
  -audiodev wav,id=sound,path=sound.wav,out.frequency=48000 -device usb-audio,audiodev=sound ${VM_QEMU:-} \
  </dev/null 2>qemu.log | tee console.log
cat qemu.log
mkdir results
status=0
tar -xf results.tar -C results || status=1
[ -z "${VM_CHECK:-}" ] || "$VM_CHECK" . "${VM_SCENARIOS:-}" "$@" || status=1
grep -q '^@result passed=[1-9][0-9]* failed=0$' console.log || {
  echo "the machine ended without a good result (it has $limit s)" >&2
  status=1
}
exit $status

#!/bin/sh
# Builds the initramfs: busybox, the kernel modules, the guest's scripts, the programs and the libraries they load.
#
# build_image.sh IMAGE MODULES_TREE GUEST_SCRIPTS SET PROGRAM...
set -eu
image=$1 modules=$2 scripts=$3 set=$4
shift 4
root=$image.root
rm -rf "$root"
mkdir -p "$root"/bin "$root"/lib "$root"/opt "$root"/proc "$root"/sys "$root"/dev "$root"/run "$root"/tmp \
  "$root"/etc/udev/rules.d
cp -a "$modules/lib/modules" "$root/lib/"
cp -r "$scripts" "$root/vm"
cp -rL "$set" "$root/vm/" # With what it links to of the project.
cp "$(command -v busybox)" "$root/bin/"
for applet in $(busybox --list); do
  [ "$applet" = busybox ] || ln -s busybox "$root/bin/$applet"
done
cp "$(command -v udevadm)" "$root/bin/systemd-udevd"
cp "$(command -v lsusb)" "$root/bin/lsusb"
cp "$@" "$root/opt/"
for tool in v4l2-ctl usbip mkfs.ext4 tc; do
  cp --remove-destination "$(command -v $tool)" "$root/bin/" # Not through a link to busybox.
done
ldd "$(command -v udevadm)" "$root"/bin/lsusb "$root"/bin/v4l2-ctl "$root"/bin/usbip "$root"/bin/mkfs.ext4 "$root"/bin/tc "$@" | awk '/=> \// { print $3 } /^\t\// { print $1 }' | sort -u |
  xargs cp -L --parents -t "$root"
strip -d "$root"/opt/*
(cd "$root" && find . | cpio -o -H newc --quiet) >"$image"
rm -rf "$root"

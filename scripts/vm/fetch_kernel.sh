#!/bin/sh
# Fetches Debian's kernel package and keeps what the virtual machine needs of it: the kernel unpacked, since the
# machine is emulated and would take seconds for that, and the modules with their dependencies. Does nothing the
# second time. Exit status 77 when the package cannot be had.
#
# fetch_kernel.sh CACHE_DIR MODULE...
set -eu
cache=$1
shift
wanted="$*"
[ "$(cat "$cache/complete" 2>/dev/null)" = "$wanted" ] && exit 0
rm -rf "$cache/complete" "$cache/modules" "$cache/package"
mkdir -p "$cache/package"
cache=$(cd "$cache" && pwd)
cd "$cache"

# Prints the file of the package; fetches it where it is not there yet.
package_file() {
  find . -maxdepth 1 -name 'linux-image-*.deb' | grep . && return
  name=$(apt-cache depends linux-image-amd64 2>/dev/null | awk '$1 == "Depends:" { print $2; exit }')
  [ "$name" ] && apt-get download -q "$name" >download.log 2>&1 && find . -maxdepth 1 -name 'linux-image-*.deb'
}
file=$(package_file) || { [ "$(id -u)" -eq 0 ] && apt-get update -q >update.log 2>&1 && file=$(package_file); } || {
  echo "skipped: no kernel package: linux-image-amd64 cannot be fetched with apt-get"
  exit 77
}
dpkg-deb -x "$file" package

# The boot protocol's header says where the compressed kernel lies (setup_sects, payload_offset, payload_length).
image=$(find package/boot -name 'vmlinuz-*')
field() { od -An -t"u$2" -j"$1" -N"$2" "$image" | tr -d ' '; }
tail -c +$((($(field 497 1) + 1) * 512 + $(field 584 4) + 1)) "$image" | head -c "$(field 588 4)" |
  xz -dc --single-stream >vmlinux

version=${image##*/vmlinuz-}
depmod -b package "$version"
tree=lib/modules/$version
mkdir -p "modules/$tree"
for module in $wanted; do
  modprobe -d "$cache/package" -S "$version" --show-depends "$module"
done | awk '$1 == "insmod" { print $2 }' | sort -u >modules.list
(cd package && sed "s|^$cache/package/||" ../modules.list | xargs cp --parents -t ../modules)
cp package/"$tree"/modules.builtin* "package/$tree/modules.order" "modules/$tree"
depmod -b modules "$version"
rm -rf package
echo "$wanted" >complete

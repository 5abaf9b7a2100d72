#!/bin/sh
# Installs the build into a folder, moves that folder, and uses it as others do: the command runs, pkg-config answers,
# and a client that knows only the package builds and talks to the module.
#
# check_install.sh BUILD_DIR CLIENT_DIR WORK_DIR
#   TOOLCHAIN, EMULATOR   of a build for another system
set -eu
if [ "${SANITIZED:-}" ]; then
  echo "skipped: the client would have to be built with -fsanitize=$SANITIZED as well"
  exit 77
fi
build=$1 client=$2 work=$3
rm -rf "$work"
mkdir -p "$work"
cmake --install "$build" --prefix "$work/first" >"$work/install.log"
mv "$work/first" "$work/moved"
prefix=$work/moved
mkdir "$prefix/src"
touch "$prefix/src/virtusb-redir.so" "$prefix/src/virtusb-redir.dll"  # Another one's, not to be loaded.

program() { ${EMULATOR:-} "$@"; }
suffix=${TOOLCHAIN:+.exe}
program "$prefix/bin/virtusb$suffix" describe raw | grep -q 'idVendor           0xffff'
test "$(program "$prefix/bin/virtusb$suffix" list --json | grep -c '"name"')" -ge 6

module=$(PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name virtusb.pc)") \
  pkg-config --define-variable=prefix="$prefix" --variable=module virtusb)
test -f "$module" || { echo "pkg-config names no module: $module" >&2; exit 1; }

# A cross build looks for packages in its system root alone, and loads what is beside the program.
VIRTUSB_SYSROOT=$prefix${VIRTUSB_SYSROOT:+:$VIRTUSB_SYSROOT} cmake -S "$client" -B "$work/client" \
  -DCMAKE_PREFIX_PATH="$prefix" ${TOOLCHAIN:+"-DCMAKE_TOOLCHAIN_FILE=$TOOLCHAIN"} -DCMAKE_BUILD_TYPE=Debug >"$work/configure.log"
cmake --build "$work/client" >"$work/build.log"
[ ! "$suffix" ] || mv "$work/client/client.exe" "$prefix/bin"
program "$(find "$work/client" "$prefix/bin" -name "client$suffix" -type f)"

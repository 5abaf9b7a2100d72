# Shared by the scripts of this folder; sourced, not run.
# shellcheck shell=sh

root=$(cd "$(dirname "$0")/.." && pwd)

build_packages="g++ cmake ninja-build pkg-config libusb-1.0-0-dev libspdlog-dev libcli11-dev nlohmann-json3-dev libavcodec-dev libavutil-dev libswscale-dev libavformat-dev libssl-dev python3"
test_packages="libgtest-dev libgmock-dev libbenchmark-dev libjpeg62-turbo-dev binutils libumockdev-dev umockdev usbutils openssl tshark lintian bash-completion systemd"
# Make builds faster, and a yardstick for the benchmarks.
optional_packages="ccache libusbredirparser-dev"
# For the tests in a virtual machine, which are skipped, and counted as such, where these cannot be had.
vm_packages="qemu-system-x86 busybox-static cpio kmod udev xz-utils usbip v4l-utils e2fsprogs iproute2"

# For the build for Windows, and to run its tests.
windows_packages="g++-mingw-w64-x86-64-posix wine wine64 make nasm perl dpkg-dev"

# Installs what is missing, and asks for nothing when nothing is.
install_packages() {
  missing=
  for package in "$@"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing="$missing $package"
  done
  [ -z "$missing" ] && return
  echo "Installing$missing" >&2
  if [ "$(id -u)" -eq 0 ]; then as_root=; else as_root=sudo; fi
  $as_root apt-get update -q >&2
  # shellcheck disable=SC2086 # The lists are words.
  DEBIAN_FRONTEND=noninteractive $as_root apt-get install -y -q --no-install-recommends $missing >&2
}

# build PRESET [TARGET...]: configures once, builds what changed. ccache, where it is, spares what another build folder or
# checkout has compiled: its objects do not depend on where the tree lies.
build() {
  built=$1
  shift
  export CCACHE_BASEDIR="$root" CCACHE_NOHASHDIR=1
  launcher=$(command -v ccache || true)
  [ -f "$root/build/$built/build.ninja" ] ||
    (cd "$root" && cmake --preset "$built" ${launcher:+"-DCMAKE_CXX_COMPILER_LAUNCHER=$launcher"}) >&2
  cmake --build "$root/build/$built" ${1:+--target "$@"} >&2
}

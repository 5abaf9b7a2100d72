# For the scripts beside it: Debian's source packages, from where this system takes its packages. Apt's own lists stay as
# they are. Sourced with the folder that everything goes to in $work; $lists, unless it is there, is what apt keeps of them.
# shellcheck shell=sh

# What of FFmpeg the programs use.
# shellcheck disable=SC2034 # Of those who source this.
ffmpeg_parts="--enable-shared --disable-static --disable-programs --disable-doc --disable-everything --disable-autodetect
  --enable-libopenh264 --enable-encoder=libopenh264,mjpeg --enable-decoder=mjpeg,h264,rawvideo
  --enable-parser=mjpeg,h264 --enable-demuxer=avi,matroska,mov,mjpeg,h264,yuv4mpegpipe,rawvideo,image2 --enable-protocol=file"

apt_source() {
  command=$1
  shift
  "$command" -o Dir::Etc::sourcelist="$lists/sources.list" -o Dir::Etc::sourceparts=- -o Dir::State::lists="$lists" \
    -o APT::Get::List-Cleanup=0 -o APT::Sandbox::User="$(id -un)" "$@"
}

# Learns what there is.
update_sources() {
  : "${lists:=$work/lists}"
  mkdir -p "$lists/partial"
  apt-get indextargets --format 'deb-src $(SITE) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' | sort -u \
    >"$lists/sources.list"
  [ -s "$lists/sources.list" ] || { echo "$0: apt knows no packages: run 'apt-get update' first" >&2; return 1; }
  apt_source apt-get update -q
}

# The versions of a source package, the newest one first.
source_versions() {
  apt_source apt-cache showsrc --only-source "$1" 2>/dev/null | sed -n 's/^Version: //p' | sort -urV
}

# Unpacks the newest version of a source package that a mirror has, or the given one, unless it is there. A mirror may
# have a version's binaries, and not yet or no longer its source.
fetch_source() { # SOURCE [VERSION]
  [ -z "$(source_folder "$1")" ] || return 0
  for version in ${2:-$(source_versions "$1")}; do
    (cd "$work" && apt_source apt-get source -q "$1=$version") && return
    echo "$0: no mirror has the source of $1 $version" >&2
  done
  return 1
}

source_folder() {
  find "$work" -maxdepth 1 -type d -name "$1-[0-9]*"
}

# install_missing COMMAND... -- PACKAGE...: the packages, if a command is missing.
install_missing() {
  missing=
  while [ "$1" != -- ]; do
    command -v "$1" >/dev/null || missing=1
    shift
  done
  shift
  [ "$missing" ] || return 0
  if [ "$(id -u)" -eq 0 ]; then as_root=; else as_root=sudo; fi
  DEBIAN_FRONTEND=noninteractive $as_root apt-get install -y -q --no-install-recommends "$@"
}

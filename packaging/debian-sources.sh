# For the scripts beside it: Debian's source packages, from where this system takes its packages. Apt's own lists stay as
# they are. Sourced with the folder that everything goes to in $work.

apt_source() {
  apt-get -o Dir::Etc::sourcelist="$work/sources.list" -o Dir::Etc::sourceparts=- -o Dir::State::lists="$work/lists" \
    -o APT::Get::List-Cleanup=0 -o APT::Sandbox::User="$(id -un)" "$@"
}

# Unpacks the newest version of each source package, unless it is there.
fetch_sources() {
  mkdir -p "$work/lists/partial"
  apt-get indextargets --format 'deb-src $(SITE) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' | sort -u \
    >"$work/sources.list"
  [ -s "$work/sources.list" ] || { echo "$0: apt knows no packages: run 'apt-get update' first" >&2; exit 1; }
  apt_source update -q
  for source in "$@"; do
    [ -n "$(source_folder "$source")" ] || (cd "$work" && apt_source source -q "$source")
  done
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

#!/bin/sh
# Makes the Debian packages of a build: they are complete enough for lintian, and the manual pages name every command and option.
#
# check_package.sh BUILD_DIR WORK_DIR
set -eu
build=$1 work=$2
[ -z "${SANITIZED:-}" ] || { echo "skipped: nobody packages a build with -fsanitize=$SANITIZED" && exit 77; }
command -v lintian >/dev/null || { echo "skipped: no lintian here" && exit 77; }
rm -rf "$work"
mkdir -p "$work"
cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work" >"$work/log" 2>&1 || { cat "$work/log" && exit 1; }
lintian --no-cfg --allow-root --tag-display-limit 0 --fail-on error,warning "$work"/*.deb
dpkg-deb -x "$work"/virtusb_*.deb "$work/root"

status=0
# named PAGE COMMAND...: in the page is what begins a line of the command's help.
named() {
  page=$1
  shift
  text=$(zcat "$work/root/usr/share/man/man1/$page.1.gz" | sed 's/\\-/-/g')
  words=$("$@" --help | sed -n 's/^ *\(-[a-zA-Z],\)\{0,1\}\(--[a-z-]*\).*/\2/p; s/^  \([a-z]*\)   .*/\1/p')
  [ "$words" ] || { echo "$* --help has no options" && status=1; }
  for word in $words; do
    case $text in *"$word"*) ;; *) echo "$page.1 has no $word of $*" && status=1 ;; esac
  done
}
virtusb=$work/root/usr/bin/virtusb
named virtusb-transcode "$virtusb-transcode"
named virtusb "$virtusb"
commands=$("$virtusb" --help | sed -n '/^Subcommands:/,$s/^  \([a-z]*\) .*/\1/p')
[ "$commands" ] || { echo "virtusb --help has no commands" && status=1; }
for command in $commands; do
  named virtusb "$virtusb" "$command"
done
exit $status

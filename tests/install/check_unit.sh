#!/bin/sh
# The service's unit says what systemd understands, and shuts the service in.
#
# check_unit.sh UNIT PROGRAM WORK_DIR
set -eu
command -v systemd-analyze >/dev/null || { echo "skipped: no systemd-analyze here" && exit 77; }
rm -rf "$3"
mkdir -p "$3"
unit=$3/virtusb@camera.service
sed "s,=\(-*\)virtusb ,=\1$2 ," "$1" >"$unit"
# The keys of a later systemd are meant to be passed over by one that has no such.
if systemd-analyze verify --man=no "$unit" 2>&1 | grep -v "Unknown key.*'Restart\(Steps\|MaxDelaySec\)'\|process aliases"; then
  exit 1
fi
systemd-analyze security --offline=true --no-pager --threshold=17 "$unit" >"$3/security" || { cat "$3/security" && exit 1; }

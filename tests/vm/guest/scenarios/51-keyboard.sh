# shellcheck shell=sh
remote keyboard "$(device_of 0627:0001)" /dev/ttyS0

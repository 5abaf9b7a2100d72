# shellcheck shell=sh
remote bulk "$(device_of 0525:a4a0)" 34

# shellcheck shell=sh
remote cancels "$(device_of 0525:a4a0)" 200

# shellcheck shell=sh
remote rounds "$(device_of 0525:a4a0)" 50

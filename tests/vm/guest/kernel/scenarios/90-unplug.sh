# shellcheck shell=sh
remote unplug "$(place_of 0525:a4a0)" $gadgets/zero/UDC

# shellcheck shell=sh
remote serial-out "$(device_of 0403:6001)" $results/serial.expected

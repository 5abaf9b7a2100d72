# shellcheck shell=sh
remote rounds "$(place_of 0525:a4a0)" 50

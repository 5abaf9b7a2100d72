# shellcheck shell=sh
remote cancels "$(place_of 0525:a4a0)" 200

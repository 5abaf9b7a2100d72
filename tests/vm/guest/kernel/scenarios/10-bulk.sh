# shellcheck shell=sh
remote bulk "$(place_of 0525:a4a0)" 34

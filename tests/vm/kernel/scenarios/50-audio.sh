# shellcheck shell=sh
remote audio "$(place_of 46f4:0002)" 3000 $results/sound.frames

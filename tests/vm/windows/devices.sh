# The machine outside is this one's gateway.
# shellcheck shell=sh
ifconfig lo up
ifconfig eth0 10.0.2.15 up

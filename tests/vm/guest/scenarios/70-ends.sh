# Every way to end for a device whose interfaces share a driver, one way for a disk, a keyboard and a sound card.
# shellcheck shell=sh
remote ends "$(device_of 1d6b:0104)" all
for id in 46f4:0001 0627:0001 46f4:0002; do
  remote ends "$(device_of $id)" one
done

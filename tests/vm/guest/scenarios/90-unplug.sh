# shellcheck shell=sh
for state in busy idle; do
  remote unplug "$(place_of 0525:a4a0)" $gadgets/zero/UDC $state
  plug zero 0
  await "the gadget again" has_driver 0525:a4a0 0 usbtest
done

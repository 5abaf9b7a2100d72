# The gadget, once for each of the three that redirect it.
# shellcheck shell=sh
ifconfig lo up
ifconfig eth0 10.0.2.15 up
for number in 0 1 2; do
  gadget zero$number 0525:a4a$number
  add_function zero$number SourceSink.$number pattern=0
  plug zero$number $number
  await "the gadget" device_of 0525:a4a$number
done

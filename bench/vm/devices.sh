# The gadget that is used directly and by each way.
# shellcheck shell=sh
ifconfig lo up
mkdir -p /var/run
gadget zero 0525:a4a0
add_function zero SourceSink.0 pattern=0
plug zero 0
await "the gadget" device_of 0525:a4a0

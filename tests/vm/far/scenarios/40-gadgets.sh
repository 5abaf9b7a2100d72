# Devices of this kernel, redirected and put back on its bus: storage with a file system, a serial adapter, usbtest.
# shellcheck shell=sh
. /vm/far/lib.sh
gadget acm 1d6b:0104
add_function acm acm.0
plug acm 2
await "cdc_acm" has_driver 1d6b:0104 0 cdc_acm
disk=$(place_of 1d6b:0106)
zero=$(place_of 0525:a4a0)
acm=$(place_of 1d6b:0104)
# What this kernel's driver finds in the gadget by itself is what it has to find behind the redirection.
direct=$(remote usbtest "$zero" 20)
case $direct in *fails*) fail "directly: $direct" ;; esac
attach "$disk" "$zero" "$acm"
find_disk
mkfs.ext4 -q -O ^has_journal "$block" 2>/dev/null
mkdir -p /mnt
mount -t ext4 "$block" /mnt
head -c 20971520 /dev/urandom >/mnt/data
sum=$(md5sum </mnt/data)
umount /mnt
mount -t ext4 "$block" /mnt
[ "$(md5sum </mnt/data)" = "$sum" ] || fail "the file has changed"
umount /mnt
echo "ext4: 20 MiB, the same after it was mounted again"
tty=$(basename "$(find "$(on_vhci 1d6b:0104)/" -path '*/tty/ttyACM*' -name 'ttyACM*')")
for each in $tty ttyGS0; do stty -F /dev/$each raw -echo; done
head -c 102400 /dev/urandom >/tmp/sent
for way in "$tty ttyGS0" "ttyGS0 $tty"; do
  exec 3<"/dev/${way#* }" # Open before the first byte comes: a closed port drops it.
  timeout 20 head -c 102400 <&3 >/tmp/received &
  reader=$!
  timeout 20 dd if=/tmp/sent "of=/dev/${way% *}" bs=4k 2>/dev/null || fail "$way: not written"
  wait $reader || fail "$way: not read"
  cmp /tmp/sent /tmp/received || fail "$way: other bytes"
done
echo "ACM: 100 kB each way"

folder=$(on_vhci 0525:a4a0)
place=$(cat "$folder/busnum"):$(cat "$folder/devnum")
unlinks() { dmesg | grep -cE 'vhci_hcd: (urb->status|.*already given back)'; }
before=$(unlinks || true)
redirected=$(remote usbtest "$place" 20)
echo "$redirected, with $(($(unlinks) - before)) unlinks"
[ "$redirected" = "$direct" ] || fail "directly: $direct"
# Cases 11 and 12 repeat the first of their two ways until an unlink has reached the transfer.
[ $(($(unlinks) - before)) -ge 40 ] || fail "the unlinks were not passed on"
remote cancels "$place" 2000
detach
await "usb-storage on the gadget again" has_driver 1d6b:0106 0 usb-storage
await "cdc_acm on the gadget again" has_driver 1d6b:0104 0 cdc_acm

# Pulled out while data flows: what is attached ends.
attach "$(place_of 1d6b:0106)"
find_disk
dd if="$block" of=/tmp/read bs=64k 2>/dev/null &
reader=$!
await "data" test -s /tmp/read
echo >$gadgets/disk/UDC
status=0
wait $attached || status=$?
attached=
[ $status = 1 ] || fail "attach ends with $status: $(cat $said)"
grep -q '^virtusb: the device is gone$' $said || fail "no message that it left: $(cat $said)"
await "the ports to be free" ports_free
wait $reader || true # An error, or the end of a disk that has no size any more.
[ "$(wc -c </tmp/read)" -lt 41943040 ] || fail "the disk could be read to its end"
echo "pulled out in the middle of a read"

# shellcheck shell=sh
sh /vm/demo-vm/attach.sh $results $VIRTUSB keyboard printer ch340 ch9102 raw winusb camera

# shellcheck shell=sh
sh /vm/demo/attach.sh $results $VIRTUSB keyboard printer ch340 ch9102 raw winusb camera

#!/bin/bash
# What bash offers for the beginning of a command line: a line, then what has to be among the offers, and behind a "!" what
# must not.
#
# check_completion.sh COMPLETION_FILE PROGRAM
helpers=/usr/share/bash-completion/bash_completion
[[ -f $helpers ]] || { echo "skipped: no bash-completion here" && exit 77; }
source $helpers
source "$1"
status=0
while IFS='|' read -r line wanted; do
  read -ra COMP_WORDS <<<"$line"
  [[ $line == *' ' ]] && COMP_WORDS+=("")
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1)) COMP_LINE=$line COMP_POINT=${#line} COMPREPLY=()
  _virtusb "$2"
  for word in $wanted; do
    found=$(printf '%s\n' "${COMPREPLY[@]}" | grep -cxF -- "${word#!}")
    if [[ $word == !* && $found != 0 || $word != !* && $found != 1 ]]; then
      echo "\"$line\": $word: ${COMPREPLY[*]}" >&2
      status=1
    fi
  done
done <<'END'
virtusb s|serve stream !list
virtusb --log d|debug !demo
virtusb --log debug --tls folder d|describe demo
virtusb serve |camera keyboard !serve !Emulated
virtusb serve camera --l|--listen --lean-replies --log !--stdio
virtusb stream camera --s|--size --silence --snapshot --seconds !--stdio
virtusb stream camera --frames |!camera
virtusb stream --json c|camera ch340
virtusb list |!camera
END
exit $status

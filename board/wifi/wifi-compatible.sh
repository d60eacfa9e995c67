#!/bin/sh
# wifi-compatible.sh get: stands in for the board's own script.
[ "$1" = get ] || exit 1
echo 'compatible: 0'

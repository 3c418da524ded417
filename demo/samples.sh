#!/bin/sh
# SPDX-License-Identifier: MIT
# Builds two upgrade images to try: a good one, and one that is damaged. They contain no system that
# a processor could run.
#
# usage: samples.sh CORVEL-IMAGE DIRECTORY
set -eu
tool=$1
mkdir -p "$2"
cd "$2"

# Prints text of this many bytes, which starts with the version.
content() { # VERSION BYTES
    printf '%s\n' "$1"
    yes "A sample of firmware for the demo." | head -c "$2"
}

sample() { # VERSION
    content "Corvel R1 $1" 3000000 >root
    content "Corvel R1 kernel $1" 700000 >kernel
    printf '[root]\nfile = root\n[kern]\nfile = kernel\n[Ver0]\ntext = Corvel R1 %s\n' "$1" >manifest
    "$tool" build --strict manifest "corvel-r1-$1.bin"
    rm root kernel manifest
}

sample 1.1.0
sample 1.2.0
printf X | dd of=corvel-r1-1.2.0.bin bs=1 seek=2000000 conv=notrunc 2>/dev/null
mv corvel-r1-1.2.0.bin corvel-r1-1.2.0-damaged.bin

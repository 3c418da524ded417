#!/bin/sh
# SPDX-License-Identifier: MIT
# Records what the web server passes: the environment, the working directory, and the input.
env > ../../received/environment
pwd > ../../received/directory
head -c "${CONTENT_LENGTH:-99999999}" > ../../received/input
echo ended > ../../received/ended
printf 'Content-Type: text/plain\r\n\r\nrecorded\n'

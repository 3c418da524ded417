#!/bin/sh
# SPDX-License-Identifier: MIT
# Refuses a request, and does not read its body.
printf 'Status: 403 Forbidden\r\nContent-Type: text/plain\r\n\r\nrefused\n'

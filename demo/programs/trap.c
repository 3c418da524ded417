/* SPDX-License-Identifier: MIT */
#include "trap.h"

#include <unistd.h>

void send_trap(const char *text) {
    char record[trap_size];
    safe_strncpy(record, text, sizeof record);
    const int output = mute_output();
    const int receiver = open_socket_for_trap();
    if (receiver > 0) {
        send_trap_msg(receiver, record);
        close(receiver);
    }
    unmute_output(output);
}

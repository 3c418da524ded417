// SPDX-License-Identifier: MIT
#include "firmware/boot_parameter.h"

#include <corvel.h>

#include <syslog.h>

#include "firmware/boot_arguments.h"
#include "firmware/boot_environment.h"
#include "support/text.h"

extern "C" {
int bootparam = CORVEL_SET_A;
}

namespace corvel {
namespace {

constexpr const char *environment_device = "/dev/mtdblock1";
constexpr const char *variable_name = "bootparam";

/// By running set: the value with which the other set boots.
constexpr const char *bootparam_next[] = {"1", "0"};

} // namespace

std::uint32_t load_boot_parameter() {
    if (load_environment(environment_device) != CORVEL_ENV_GOOD)
        return 0;
    const char *const value = find_variable(variable_name);
    if (value == nullptr)
        return 0;
    const int running = decimal_value(value) % 2;
    if (running < 0)
        return 0;
    bootparam = running;
    syslog(LOG_INFO, "bootparam=%d\n", bootparam);
    return bootparam_mtd_shift[bootparam];
}

} // namespace corvel

extern "C" {

using namespace corvel;

uint32_t get_bootparam(void) { return load_boot_parameter(); }

uint32_t save_bootparam(void) {
    // The program can write to `bootparam`: any value but 1 means set A, as the initial value does.
    const char *const next =
        bootparam_next[bootparam == CORVEL_SET_B ? CORVEL_SET_B : CORVEL_SET_A];
    return static_cast<uint32_t>(save_variable(environment_device, variable_name, next));
}

} // extern "C"

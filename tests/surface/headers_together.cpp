/* SPDX-License-Identifier: MIT */
/* Both public headers must compile together as C++17, in the other order. */
#include <corvel_page.h>

#include <corvel.h>

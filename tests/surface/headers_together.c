/* SPDX-License-Identifier: MIT */
/* Both public headers must compile together as C99. */
#include <corvel.h>

#include <corvel_page.h>

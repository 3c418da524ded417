/* SPDX-License-Identifier: MIT */
/* The page kit's header must compile as C++17 with nothing before it. */
#include <corvel_page.h>

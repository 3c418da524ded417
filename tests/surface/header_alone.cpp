/* SPDX-License-Identifier: MIT */
/* The public header must compile as C++17 with nothing before it. */
#include <corvel.h>

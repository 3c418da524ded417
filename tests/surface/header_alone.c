/* SPDX-License-Identifier: MIT */
/* The public header must compile as C99 with nothing before it. */
#include <corvel.h>

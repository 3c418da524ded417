/* SPDX-License-Identifier: MIT */
/* The public header must compile as C99 with nothing in front of it. */
#include <corvel.h>

// SPDX-License-Identifier: MIT
#ifndef CORVEL_PAGE_CONFINEMENT_H
#define CORVEL_PAGE_CONFINEMENT_H

#include <sys/types.h>

#include <corvel_page.h>

namespace corvel {

/// Takes from this process, for the rest of its life, all that reading standard input, computing
/// and writing to standard output do not need: other descriptors, its user and groups, the ability
/// to gain privileges, memory, processor time, files, and all but a few system calls.
///
/// The process ends with its parent.
///
/// Returns null, or the name of the first function that failed, with errno set. If the containment
/// accepts less, a failure is ignored. All members of the containment have a value.
const char *confine(const corvel_containment &containment, pid_t parent);

} // namespace corvel

#endif

// SPDX-License-Identifier: MIT
#ifndef CORVEL_PAGE_TEMPLATE_H
#define CORVEL_PAGE_TEMPLATE_H

#include <corvel_page.h>

#include "page/buffer.h"

namespace corvel {

/// Appends a template filled with values; names that @p data lacks are looked up in @p common,
/// which may be null. False if that failed: part of it may have been appended then. Unless the
/// reason is that @p out failed, it is in the log.
bool fill_template(Buffer &out, const char *directory, const char *name, const corvel_data *data,
                   const corvel_data *common);

} // namespace corvel

#endif

// SPDX-License-Identifier: MIT
#ifndef CORVEL_PAGE_TEMPLATE_H
#define CORVEL_PAGE_TEMPLATE_H

#include <corvel_page.h>

namespace corvel {

/// Appends a template filled with values to the body of an answer; names that @p data lacks are
/// looked up in the answer's values. False if that failed: part of it may have been appended then.
/// Unless the reason is that the body failed, it is in the log.
bool fill_template(corvel_answer &answer, const char *name, const corvel_data *data);

} // namespace corvel

#endif

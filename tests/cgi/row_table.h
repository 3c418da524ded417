/* SPDX-License-Identifier: MIT */
/** A property table of the test's own strings. */
#ifndef CORVEL_TESTS_ROW_TABLE_H
#define CORVEL_TESTS_ROW_TABLE_H

#include <corvel.h>

#include "tests/cgi/list_contents.h"

#include <vector>

namespace corvel_test {

/** A property table whose sizes are meaningless, as in rows that a request decoder filled. */
class RowTable {
  public:
    explicit RowTable(const Fields &rows) : strings_(rows) {
        for (auto &[name, value] : strings_)
            rows_.push_back({0xFFFFFFFFU, 0, name.data(), value.data()});
    }
    RowTable(const RowTable &) = delete;
    RowTable &operator=(const RowTable &) = delete;

    [[nodiscard]] const prop_entry *data() const { return rows_.data(); }
    [[nodiscard]] int count() const { return static_cast<int>(rows_.size()); }
    /** The names and values as they are now. */
    [[nodiscard]] const Fields &strings() const { return strings_; }

  private:
    Fields strings_;
    std::vector<prop_entry> rows_;
};

} // namespace corvel_test

#endif

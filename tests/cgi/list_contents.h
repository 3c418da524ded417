/* SPDX-License-Identifier: MIT */
/** Field lists as values that can be compared and printed. */
#ifndef CORVEL_TESTS_LIST_CONTENTS_H
#define CORVEL_TESTS_LIST_CONTENTS_H

#include <corvel.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace corvel_test {

/** Names and values, in list order. */
using Fields = std::vector<std::pair<std::string, std::string>>;

/** The fields of a list. An unterminated string ends at the end of its array. */
inline Fields contents(const str_node *list) {
    Fields fields;
    for (; list != nullptr; list = list->next) {
        fields.emplace_back(std::string(list->name, strnlen(list->name, sizeof list->name)),
                            std::string(list->value, strnlen(list->value, sizeof list->value)));
    }
    return fields;
}

/** A field list; the destructor frees it. */
class OwnedList {
  public:
    OwnedList() = default;
    explicit OwnedList(const Fields &fields) { append(fields); }
    OwnedList(const OwnedList &) = delete;
    OwnedList &operator=(const OwnedList &) = delete;
    ~OwnedList() { free_list(&head_); }

    void append(const Fields &fields) {
        for (const auto &[name, value] : fields)
            add_str(&head_, name.c_str(), value.c_str());
    }
    [[nodiscard]] str_node *head() const { return head_; }
    str_node **address() { return &head_; }

  private:
    str_node *head_ = nullptr;
};

} // namespace corvel_test

#endif

/* SPDX-License-Identifier: MIT */
/** A field list as a value that can be compared and printed. */
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

/** The fields of a list. A text that fills its array without a terminator ends with the array. */
inline Fields contents(const str_node *list) {
    Fields fields;
    for (; list != nullptr; list = list->next) {
        fields.emplace_back(std::string(list->name, strnlen(list->name, sizeof list->name)),
                            std::string(list->value, strnlen(list->value, sizeof list->value)));
    }
    return fields;
}

/** A list that frees itself. */
class OwnedList {
  public:
    OwnedList() = default;
    explicit OwnedList(const Fields &fields) {
        for (const auto &[name, value] : fields) {
            add_str(&head_, name.c_str(), value.c_str());
        }
    }
    OwnedList(const OwnedList &) = delete;
    OwnedList &operator=(const OwnedList &) = delete;
    ~OwnedList() { free_list(&head_); }

    str_node *head() const { return head_; }
    str_node **address() { return &head_; }

  private:
    str_node *head_ = nullptr;
};

} // namespace corvel_test

#endif

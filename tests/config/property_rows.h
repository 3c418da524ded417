/* SPDX-License-Identifier: MIT */
/** Property tables that tests write and read as lists of names and values. */
#ifndef CORVEL_TESTS_PROPERTY_ROWS_H
#define CORVEL_TESTS_PROPERTY_ROWS_H

#include <corvel.h>

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace corvel_test {

/** The name and the value of each row. */
using Rows = std::vector<std::pair<std::string, std::string>>;

/** A property table and its count; the destructor frees it. */
class PropertyTable {
  public:
    explicit PropertyTable(std::size_t capacity = 64) : rows_(capacity) {}
    explicit PropertyTable(const Rows &rows) : rows_(rows.size() + 8) {
        for (const auto &[name, value] : rows)
            count_ += ins_pr(name.c_str(), value.c_str(), &rows_.at(index()), count_);
    }
    ~PropertyTable() { free_prop(rows_.data(), count_); }
    PropertyTable(const PropertyTable &) = delete;
    PropertyTable &operator=(const PropertyTable &) = delete;

    int load(char separator, const std::string &path) {
        return count_ = load_prop(static_cast<signed char>(separator), path.c_str(), rows_.data());
    }
    int insert(const std::string &name, const std::string &value) {
        return count_ = ins_prop(name.c_str(), value.c_str(), rows_.data(), count_);
    }
    int set(const std::string &name, const std::string &value) {
        return set_prop(name.c_str(), value.c_str(), rows_.data(), count_);
    }

    [[nodiscard]] prop_entry *data() { return rows_.data(); }
    [[nodiscard]] const prop_entry &row(std::size_t i) const { return rows_.at(i); }
    [[nodiscard]] int count() const { return count_; }
    [[nodiscard]] Rows rows() const {
        Rows rows;
        for (std::size_t i = 0; i < index(); ++i)
            rows.emplace_back(rows_.at(i).name, rows_.at(i).value);
        return rows;
    }

  private:
    [[nodiscard]] std::size_t index() const { return static_cast<std::size_t>(count_); }

    std::vector<prop_entry> rows_;
    int count_ = 0;
};

} // namespace corvel_test

#endif

/* SPDX-License-Identifier: MIT */
/** An environment image between pages that nobody may touch, made current by the library. */
#ifndef CORVEL_TESTS_CURRENT_IMAGE_H
#define CORVEL_TESTS_CURRENT_IMAGE_H

#include <corvel.h>

#include "tests/support/guarded_block.h"
#include "tests/support/output_capture.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace corvel_test {

class CurrentImage {
  public:
    explicit CurrentImage(std::string_view bytes, Fence fence = Fence::after)
        : block_(bytes, fence) {
        loaded_said_ = capture_stdout([this] { loaded_ = set_env_ptr(block_.start()); });
    }

    /** What set_env_ptr() answered and printed. */
    [[nodiscard]] int loaded() const { return loaded_; }
    [[nodiscard]] const std::string &loaded_said() const { return loaded_said_; }

    [[nodiscard]] std::string_view bytes() const { return block_.bytes(); }
    [[nodiscard]] char *data() const { return block_.start() + 4; }

    /** Where get_env()'s answer lies in the data area; none for null. */
    [[nodiscard]] std::optional<std::size_t> offset_of(const char *name) const {
        const char *const value = get_env(name);
        if (value == nullptr)
            return std::nullopt;
        return static_cast<std::size_t>(value - data());
    }

  private:
    GuardedBlock block_;
    int loaded_ = -1;
    std::string loaded_said_;
};

} // namespace corvel_test

#endif

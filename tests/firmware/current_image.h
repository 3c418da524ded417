/* SPDX-License-Identifier: MIT */
/** Environment images, as the library sees them in memory. */
#ifndef CORVEL_TESTS_CURRENT_IMAGE_H
#define CORVEL_TESTS_CURRENT_IMAGE_H

#include <corvel.h>

#include "tests/support/guarded_memory.h"
#include "tests/support/output_capture.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace corvel_test {

/** Returns the bytes of env_image_mem. */
inline std::string_view memory_image() {
    return {reinterpret_cast<const char *>(env_image_mem), sizeof env_image_mem};
}

/** An environment image next to an inaccessible page, made current with set_env_ptr(). */
class CurrentImage {
  public:
    explicit CurrentImage(std::string_view bytes, GuardPage guard = GuardPage::after)
        : block_(bytes, guard) {
        load_output_ = capture_stdout([this] { load_result_ = set_env_ptr(block_.start()); });
    }

    /** The result and the output of set_env_ptr(). */
    [[nodiscard]] int load_result() const { return load_result_; }
    [[nodiscard]] const std::string &load_output() const { return load_output_; }

    [[nodiscard]] std::string_view bytes() const { return block_.bytes(); }
    [[nodiscard]] char *data() const { return block_.start() + 4; }

    /** The offset in the data of the value that get_env() returns; none for a null pointer. */
    [[nodiscard]] std::optional<std::size_t> offset_of(const char *name) const {
        const char *const value = get_env(name);
        if (value == nullptr)
            return std::nullopt;
        return static_cast<std::size_t>(value - data());
    }

  private:
    GuardedBlock block_;
    int load_result_ = -1;
    std::string load_output_;
};

} // namespace corvel_test

#endif

// SPDX-License-Identifier: MIT
#include "firmware/boot_arguments.h"

#include <corvel.h>

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "firmware/boot_environment.h"
#include "support/descriptor.h"
#include "support/handles.h"
#include "support/text.h"

namespace corvel {
namespace {

/// A copy of the characters between a key and the next space; null if either is missing.
HeapBlock<char> copy_argument(const char *arguments, const char *key) {
    if (arguments == nullptr)
        return nullptr;
    // In glibc and in musl, strstr() takes linear time; std::string_view::find() does not.
    const char *const found = std::strstr(arguments, text_or_empty(key));
    if (found == nullptr)
        return nullptr;
    const char *const value = found + text_of(key).size();
    const char *const end = std::strchr(value, ' ');
    return end != nullptr ? copy_of({value, end}) : nullptr;
}

/// Reads an environment and makes it current. On failure, prints the reason and returns false; an
/// environment with a bad CRC becomes current nevertheless.
bool load_for_root_id(const char *path) {
    if (!read_environment_image(path, "65536"))
        return false;
    if (use_environment_image(env_image_mem))
        return true;
    std::puts("Err: invalid image");
    return false;
}

} // namespace

int save_variable(const char *path, const char *name, const char *value) {
    if (!set_variable(name, value))
        return -1;
    const Descriptor file = open_environment(path, O_WRONLY | O_CREAT | O_TRUNC);
    if (!file) {
        std::printf("Err: open file %s failed\n", text_or_empty(path));
        return 0;
    }
    static_cast<void>(write(file.get(), env_image_mem, sizeof env_image_mem) < 0);
    fsync(file.get());
    return 0;
}

} // namespace corvel

extern "C" {

using namespace corvel;

char *parse_bootargs_get_val(const char *args, const char *key) {
    return copy_argument(args, key).release();
}

uint32_t get_rootid(const char *path) {
    if (!load_for_root_id(path))
        return 0;
    const HeapBlock<char> position = copy_argument(find_variable("bootargs"), "root=");
    if (!position)
        return 0;
    std::printf("pos=%s\n", position.get());
    // The number is read at the colon, not after it: the root id is always 0.
    const std::string_view text(position.get());
    return static_cast<uint32_t>(decimal_value(after(text, text.find(':'))));
}

int save_param(const char *path, const char *name, const char *value) {
    return save_variable(path, name, value);
}

} // extern "C"

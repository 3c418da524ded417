// SPDX-License-Identifier: MIT
#include "sys/error_and_io.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <pwd.h>
#include <span>

#include "support/descriptor.h"
#include "support/text.h"

extern "C" {
int bb_default_error_retval = 1;
const char *bb_msg_memory_exhausted = "memory exhausted";
}

namespace corvel {
namespace {

void print_error(const char *format, std::va_list values) CORVEL_PRINTF_LIKE(1, 0);

void print_error(const char *format, std::va_list values) {
    const int error = errno; // the format can contain %m
    std::fflush(stdout);
    std::fputs("unknown app: ", stderr);
    errno = error;
    if (format != nullptr)
        std::vfprintf(stderr, format, values);
}

[[noreturn]] void print_error_and_exit(const char *format, std::va_list values)
    CORVEL_PRINTF_LIKE(1, 0);

void print_error_and_exit(const char *format, std::va_list values) {
    print_error(format, values);
    std::fputc('\n', stderr);
    std::exit(bb_default_error_retval);
}

/// Copies a string, truncated to fit, and fills the rest of the field with zeros. Reads no further
/// than the field is long: the string may be unterminated.
void store_padded(std::span<char> field, const char *string) {
    if (field.empty())
        return;
    const std::size_t length = store(field, {string, strnlen(string, field.size() - 1)});
    std::memset(field.data() + length, 0, field.size() - length);
}

/// Does what my_getug() does.
char *name_or_number(char *buf, char *name, long id, int bufsize, char prefix) {
    if (bufsize < 1) {
        if (bufsize < 0 && name == nullptr)
            die("unknown %cid %ld", prefix, id);
        return name;
    }
    if (name == nullptr) {
        std::snprintf(buf, static_cast<std::size_t>(bufsize), "%ld", id);
        return nullptr;
    }
    store_padded({buf, static_cast<std::size_t>(bufsize)}, name);
    return buf;
}

} // namespace

void die(const char *format, ...) {
    std::va_list values;
    va_start(values, format);
    print_error_and_exit(format, values);
}

void *resize_or_die(void *block, std::size_t size) {
    void *const resized = std::realloc(block, size);
    if (resized == nullptr && size != 0)
        die("%s", bb_msg_memory_exhausted);
    return resized;
}

} // namespace corvel

extern "C" {

using namespace corvel;

void bb_verror_msg(const char *fmt, va_list ap) { print_error(fmt, ap); }

void bb_error_msg_and_die(const char *fmt, ...) {
    std::va_list values;
    va_start(values, fmt);
    print_error_and_exit(fmt, values);
}

void *xmalloc(size_t size) {
    void *const block = std::malloc(size);
    if (block == nullptr && size != 0)
        die("%s", bb_msg_memory_exhausted);
    return block;
}

void *xrealloc(void *block, size_t size) { return resize_or_die(block, size); }

char *safe_strncpy(char *dst, const char *src, size_t size) {
    store_padded({dst, size}, text_or_empty(src));
    return dst;
}

char *my_getug(char *buf, char *name, long id, int bufsize, char prefix) {
    return name_or_number(buf, name, id, bufsize, prefix);
}

char *my_getpwuid(char *buf, long uid, int bufsize) {
    const passwd *const user = getpwuid(static_cast<uid_t>(uid));
    return name_or_number(buf, user != nullptr ? user->pw_name : nullptr, uid, bufsize, 'u');
}

ssize_t full_read(int fd, void *buf, size_t len) { return read_fully(fd, buf, len); }

ssize_t read_close(int fd, void *buf, size_t len) {
    const Descriptor file(fd);
    return read_fully(fd, buf, len);
}

ssize_t open_read_close(const char *path, void *buf, size_t len) {
    const Descriptor file(open(text_or_empty(path), O_RDONLY | O_CLOEXEC));
    if (!file)
        return -1;
    return read_fully(file.get(), buf, len);
}

} // extern "C"

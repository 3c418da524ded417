// SPDX-License-Identifier: MIT
#include "bench/firmware/zlib.h"

#include "bench/harness.h"

#include <dlfcn.h>

namespace bench {

namespace {

using Crc32 = unsigned long(unsigned long crc, const unsigned char *bytes, unsigned int length);

Crc32 *load_crc32() {
    void *const library = dlopen("libz.so.1", RTLD_NOW | RTLD_LOCAL);
    require(library != nullptr, "cannot load zlib");
    auto *const function = reinterpret_cast<Crc32 *>(dlsym(library, "crc32"));
    require(function != nullptr, "zlib has no crc32()");
    return function;
}

} // namespace

std::uint32_t zlib_crc32(std::span<const unsigned char> bytes) {
    static Crc32 *const function = load_crc32();
    return static_cast<std::uint32_t>(
        function(0, bytes.data(), static_cast<unsigned int>(bytes.size())));
}

} // namespace bench

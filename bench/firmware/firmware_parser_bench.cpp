// SPDX-License-Identifier: MIT
// Checking an upgrade image of N KiB: both root file systems, a kernel and the version section.
//
// The peer is the minimum work of the check in its plain form: the sum of all payload bytes in a
// simple loop, which the compiler vectorises here, and then zlib's CRC of the whole image.
//
// The device of the boot environment does not exist on this machine, so that reading 64 KiB from it
// is not part of the result; messages to the system log are discarded.
#include "bench/firmware/zlib.h"
#include "bench/harness.h"

#include <corvel.h>

#include <algorithm>
#include <random>

extern "C" void syslog(int /*priority*/, const char * /*format*/, ...) {}

namespace {

using Image = std::vector<unsigned char>;
using Bytes = std::span<const unsigned char>;

constexpr std::size_t header_size = 20;
constexpr std::size_t version_size = 0x5c;
constexpr std::size_t crc_size = 4;

void append_word(Image &image, std::size_t word) {
    for (const int shift : {24, 16, 8, 0})
        image.push_back(static_cast<unsigned char>(word >> shift));
}

void append_header(Image &image, std::string_view signature, std::size_t mtd_id, std::size_t pad,
                   std::size_t length) {
    image.insert(image.end(), signature.begin(), signature.end());
    append_word(image, 0);
    append_word(image, mtd_id);
    append_word(image, pad);
    append_word(image, length);
}

unsigned char sum_of(Bytes bytes) {
    unsigned char sum = 0;
    for (const unsigned char byte : bytes)
        sum = static_cast<unsigned char>(sum + byte);
    return sum;
}

/// A section with random data of the partition's size, padding and a checksum byte.
void append_section(Image &image, std::string_view signature, std::size_t length,
                    std::size_t partition_size) {
    static std::mt19937 generator(1);
    append_header(image, signature, 0, length - 1 - std::min(length - 1, partition_size), length);
    const std::size_t payload = image.size();
    while (image.size() < payload + length - 1)
        image.push_back(static_cast<unsigned char>(generator()));
    image.push_back(static_cast<unsigned char>(-sum_of(Bytes(image).subspan(payload))));
}

Image make_image(std::size_t size) {
    const std::size_t payloads = size - 3 * header_size - version_size;
    const std::size_t root = payloads / 20 * 9;
    Image image;
    append_section(image, "root", root, 0x650000);
    append_section(image, "rfs1", root, 0x650000);
    append_section(image, "kern", payloads - 2 * root, 0x100000);
    append_header(image, "Ver0", CORVEL_NOT_WRITTEN, 0, version_size - header_size);
    image.resize(size - crc_size, '1');
    append_word(image, bench::zlib_crc32(image));
    return image;
}

void corvel(benchmark::State &state) {
    const Image image = make_image(static_cast<std::size_t>(state.range(0)) * 1024);
    img_info records[CORVEL_IMAGE_RECORDS];
    const auto check = [&image, &records] {
        int result = CORVEL_IMAGE_ACCEPTED;
        const int count =
            parse_firmware(image.data(), static_cast<unsigned int>(image.size()), records, &result);
        return result == CORVEL_IMAGE_ACCEPTED ? count : -result;
    };
    bench::require(check() == 4, "parse_firmware() refuses a valid image");
    bench::measure(state, [&check] { benchmark::DoNotOptimize(check()); });
    state.SetBytesProcessed(state.iterations() * state.range(0) * 1024);
}

void sum_and_zlib(benchmark::State &state) {
    const Image image = make_image(static_cast<std::size_t>(state.range(0)) * 1024);
    const Bytes payloads = Bytes(image).first(image.size() - version_size);
    const Bytes checked = Bytes(image).first(image.size() - crc_size);
    bench::measure(state, [payloads, checked] {
        benchmark::DoNotOptimize(sum_of(payloads));
        benchmark::DoNotOptimize(bench::zlib_crc32(checked));
    });
    state.SetBytesProcessed(state.iterations() * state.range(0) * 1024);
}

const bench::Job job("check an upgrade image", {{1024}, {4096}, {15360}},
                     {{"corvel", corvel}, {"sum and zlib", sum_and_zlib}});

} // namespace

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
#include "firmware/image_format.h"

#include <corvel.h>

#include <algorithm>
#include <random>

extern "C" void syslog(int /*priority*/, const char * /*format*/, ...) {}

namespace {

using Image = std::vector<unsigned char>;
using Bytes = std::span<const unsigned char>;

constexpr std::size_t crc_size = corvel::crc_size;
constexpr std::size_t header_size = corvel::header_size;
constexpr const corvel::sign_tbl_entry &version = corvel::sign_tbl.back();
constexpr std::size_t version_size = version.max_size;

void append_header(Image &image, const corvel::sign_tbl_entry &partition, std::size_t pad,
                   std::size_t length) {
    image.resize(image.size() + header_size);
    corvel::store_header(std::span(image).last<header_size>(),
                         {partition.signature, 0, partition.mtd_id, static_cast<std::uint32_t>(pad),
                          static_cast<std::uint32_t>(length)});
}

unsigned char plain_sum(Bytes bytes) {
    unsigned char sum = 0;
    for (const unsigned char byte : bytes)
        sum = static_cast<unsigned char>(sum + byte);
    return sum;
}

/// A section with random data of at most the partition's size, padding and a checksum.
void append_section(Image &image, const corvel::sign_tbl_entry &partition, std::size_t length) {
    static std::mt19937 generator(1);
    const std::size_t filled = length - corvel::checksum_size;
    append_header(image, partition, filled - std::min<std::size_t>(filled, partition.max_size),
                  length);
    const std::size_t payload = image.size();
    while (image.size() < payload + filled)
        image.push_back(static_cast<unsigned char>(generator()));
    image.push_back(corvel::checksum_of(Bytes(image).subspan(payload)));
}

Image make_image(std::size_t size) {
    const std::size_t payloads = size - 3 * header_size - version_size;
    const std::size_t root = payloads / 20 * 9;
    Image image;
    append_section(image, corvel::sign_tbl[corvel::root_a_row], root);
    append_section(image, corvel::sign_tbl[corvel::root_b_row], root);
    append_section(image, corvel::sign_tbl[corvel::kernel_a_row], payloads - 2 * root);
    append_header(image, version, 0, version_size - header_size);
    image.resize(size - crc_size, '1');
    const std::uint32_t crc = bench::zlib_crc32(image);
    image.resize(size);
    corvel::store_big_endian(std::span(image).last<crc_size>(), crc);
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
        benchmark::DoNotOptimize(plain_sum(payloads));
        benchmark::DoNotOptimize(bench::zlib_crc32(checked));
    });
    state.SetBytesProcessed(state.iterations() * state.range(0) * 1024);
}

const bench::Job job("check an upgrade image", {{1024}, {4096}, {15360}},
                     {{"corvel", corvel}, {"sum and zlib", sum_and_zlib}});

} // namespace

// SPDX-License-Identifier: MIT
// Upgrade images: what is accepted for a set is a complete one for exactly that set, inside the
// image, and parse_firmware() accepts the image with the same sections.
//
// Input: a byte (flags), then sections: a byte (kind) a byte (flags) a byte (payload bytes, a 64th
// of them if a flag is set) and the payload; a kind of zero or the end of the input ends them. A
// version section with the right CRC follows, unless a flag says otherwise.
#include <corvel_page.h>

#include <corvel.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <syslog.h>

#include "firmware/image_format.h"
#include "fuzz/fixed_file.h"
#include "fuzz/harness.h"
#include "page/upgrade_image.h"

namespace {

using namespace corvel_fuzz;
using corvel::UpgradeImage;

// Flags of an input.
constexpr unsigned char for_set_b = 0x01;
constexpr unsigned char no_version = 0x02;
constexpr unsigned char wrong_crc = 0x04;
constexpr unsigned char raw = 0x08; ///< The rest of the input is the image.

// Flags of a section.
constexpr unsigned char unchecked = 0x01;
constexpr unsigned char wrong_sum = 0x02;
constexpr unsigned char padded = 0x04;
constexpr unsigned char wrong_length = 0x08;
constexpr unsigned char large = 0x10;

constexpr corvel::PartitionSizes sizes = {20'000, 10'000};

constexpr std::string_view signatures[] = {"root", "kern", "rfs1", "knl1", "boot", "benv",
                                           "log0", "conf", "artp", "Ver0", "note", "ROOT"};

std::string big_endian(std::uint32_t word) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes += static_cast<char>(word >> shift);
    return bytes;
}

std::string header(std::string_view signature, std::uint32_t mtd_id, std::uint32_t pad,
                   std::size_t length) {
    return std::string(signature) + big_endian(0) + big_endian(mtd_id) + big_endian(pad) +
           big_endian(static_cast<std::uint32_t>(length));
}

/** Takes a section from the input. */
std::string take_section(std::string_view &input) {
    const auto kind = static_cast<unsigned char>(input[0]);
    const auto flags = static_cast<unsigned char>(input[1]);
    const std::size_t size = static_cast<unsigned char>(input[2]);
    input.remove_prefix(3);
    const std::string_view start = input.substr(0, std::min(size, input.size()));
    input.remove_prefix(start.size());
    std::string payload(start);
    if ((flags & large) != 0)
        payload.resize(64 * size, 'x');
    const std::size_t padding = (flags & padded) != 0 ? size % 7 : 0;
    payload.append(padding, '\0');
    unsigned sum = 0;
    for (const char byte : payload)
        sum += static_cast<unsigned char>(byte);
    payload += static_cast<char>(0 - sum);
    if ((flags & wrong_sum) != 0)
        payload.back() = static_cast<char>(payload.back() + 1);
    const std::size_t length =
        (flags & wrong_length) != 0 ? payload.size() + size - 128 : payload.size();
    return header(signatures[(kind - 1U) % std::size(signatures)],
                  (flags & unchecked) != 0 ? CORVEL_NOT_WRITTEN : 2,
                  static_cast<std::uint32_t>(padding), length) +
           payload;
}

std::string make_image(unsigned char flags, std::string_view input) {
    if ((flags & raw) != 0)
        return std::string(input);
    std::string image;
    while (input.size() >= 3 && input[0] != '\0')
        image += take_section(input);
    if ((flags & no_version) != 0)
        return image;
    image += header("Ver0", CORVEL_NOT_WRITTEN, 0, 8) + "1.0\n";
    const std::uint32_t crc = crc_of(image);
    return image + big_endian((flags & wrong_crc) != 0 ? crc + 1 : crc);
}

/** The parser does not know the running set: its records are compared by their bytes. */
void compare_with_parser(const std::string &image, const UpgradeImage &found) {
    const auto *const start = reinterpret_cast<const unsigned char *>(image.data());
    img_info records[CORVEL_IMAGE_RECORDS];
    int result = -1;
    int count = 0;
    static_cast<void>(output_of([&] {
        count = parse_firmware(start, static_cast<unsigned>(image.size()), records, &result);
    }));
    check_equal(result, static_cast<int>(CORVEL_IMAGE_ACCEPTED), "the parser accepts the image");
    check_equal(count, 3, "records of the parser");
    for (const corvel::Half &half : found.halves) {
        const bool is_found = std::any_of(records, records + count, [&](const img_info &record) {
            return record.data == half.data.data() && record.len == half.data.size();
        });
        check(is_found, "the parser finds the same section");
    }
}

} // namespace

extern "C" void syslog(int, const char *, ...) {}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    // The machine's own environment is never read.
    static FixedFile environment("/dev/mtdblock1");
    if (size == 0)
        return 0;
    const std::string image =
        make_image(data[0], {reinterpret_cast<const char *>(data) + 1, size - 1});
    const int set = (data[0] & for_set_b) != 0 ? CORVEL_FIRMWARE_B : CORVEL_FIRMWARE_A;
    // A block of its own, so that the sanitizer sees a read past its end.
    auto *const block = static_cast<unsigned char *>(std::malloc(image.size()));
    std::copy(image.begin(), image.end(), block);
    UpgradeImage found;
    const corvel_upgrade_result result =
        corvel::inspect_image({block, image.size()}, set, sizes, found);
    check(result <= CORVEL_UPGRADE_DONE && result >= CORVEL_UPGRADE_HALF_A_SET, "a known result");
    check(*corvel_upgrade_complaint(result) != '\0' || result == CORVEL_UPGRADE_DONE,
          "a complaint");
    for (unsigned i = 0; i < corvel::halves_of_set; ++i) {
        const corvel::Half &half = found.halves[i];
        if (half.name == nullptr)
            continue;
        check_equal(half.partition, (set == CORVEL_FIRMWARE_A ? 2U : 4U) + i, "the partition");
        check(half.data.data() >= block &&
                  half.data.data() + half.data.size() <= block + image.size(),
              "a section is inside the image");
    }
    check(found.version.find_first_of(std::string_view("\0\n\x7F", 3)) == std::string::npos,
          "a version has no controls");
    if (result == CORVEL_UPGRADE_DONE) {
        for (unsigned i = 0; i < corvel::halves_of_set; ++i) {
            check(found.halves[i].name != nullptr, "both halves");
            check(!found.halves[i].data.empty() && found.halves[i].data.size() <= sizes[i],
                  "a section fits its partition");
        }
        check(found.failed == nullptr, "no section is refused");
        UpgradeImage in_copy;
        corvel::inspect_image({reinterpret_cast<const unsigned char *>(image.data()), image.size()},
                              set, sizes, in_copy);
        compare_with_parser(image, in_copy);
    }
    std::free(block);
    return 0;
}

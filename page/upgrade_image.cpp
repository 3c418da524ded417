// SPDX-License-Identifier: MIT
#include "page/upgrade_image.h"

#include <corvel.h>

#include "support/big_endian.h"
#include "support/text.h"

namespace corvel {
namespace {

static_assert(root_b_row == root_a_row + halves_of_set && root_a_row % halves_of_set == 0,
              "the rows of the sets are next to each other, and a half is row % 2");

/// Checks a section for a partition. The sum of a section whose `mtd_id` exempts it is not checked,
/// its size is: the CRC of the image protects the content.
corvel_upgrade_result take_half(const SectionHeader &header, std::uint32_t row, FlashBytes payload,
                                const PartitionSizes &sizes, UpgradeImage &image) {
    if (row < root_a_row || row >= root_b_row + halves_of_set)
        return CORVEL_UPGRADE_OTHER_PARTITION;
    if (row >= root_b_row && image.set == CORVEL_FIRMWARE_A)
        return CORVEL_UPGRADE_RUNNING_SET;
    const unsigned number = row % halves_of_set;
    Half &half = image.halves[number];
    if (half.name != nullptr)
        return CORVEL_UPGRADE_TWICE;
    if (header.pad >= payload.size())
        return CORVEL_UPGRADE_SECTION_DAMAGED;
    half = {partition_name(row), root_partition(image.set) + number,
            payload.first(payload.size() - 1 - header.pad)};
    if (half.data.size() > size_limit(row) || half.data.size() > sizes[number])
        return CORVEL_UPGRADE_TOO_LARGE;
    return is_erased(half.data) ? CORVEL_UPGRADE_EMPTY : CORVEL_UPGRADE_DONE;
}

/// Checks the version section, which ends the image with its CRC.
corvel_upgrade_result take_version(FlashBytes bytes, const SectionHeader &header,
                                   FlashBytes payload, UpgradeImage &image) {
    if (payload.size() < crc_size || is_checked(header.mtd_id) ||
        payload.data() + payload.size() != bytes.data() + bytes.size())
        return CORVEL_UPGRADE_NO_VERSION;
    const std::string_view text(reinterpret_cast<const char *>(payload.data()),
                                payload.size() - crc_size);
    image.version = front(text, printable_length(text));
    const std::size_t covered = bytes.size() - crc_size;
    if (crc32(bytes.data(), static_cast<int>(covered)) != big_endian_word(bytes.last<crc_size>()))
        return CORVEL_UPGRADE_BAD_CRC;
    return image.halves[0].name != nullptr && image.halves[1].name != nullptr
               ? CORVEL_UPGRADE_DONE
               : CORVEL_UPGRADE_HALF_A_SET;
}

} // namespace

corvel_upgrade_result inspect_image(FlashBytes bytes, int set, const PartitionSizes &sizes,
                                    UpgradeImage &image) {
    image = {};
    image.set = set;
    bool is_recognised = false;
    FlashBytes rest = bytes;
    while (rest.size() > header_size) {
        const SectionHeader header = read_header(rest.first<header_size>());
        rest = rest.subspan(header_size);
        const std::uint32_t row = get_tbl_id(static_cast<const unsigned char *>(header.signature));
        is_recognised = is_recognised || row != CORVEL_NO_PARTITION;
        if (header.len > rest.size())
            return is_recognised ? CORVEL_UPGRADE_TRUNCATED : CORVEL_UPGRADE_NO_IMAGE;
        const FlashBytes payload = rest.first(header.len);
        rest = rest.subspan(header.len);
        if (row == CORVEL_NO_PARTITION)
            continue;
        if (row == version_row)
            return take_version(bytes, header, payload, image);
        image.failed = partition_name(row); // unless it passes
        if (is_checked(header.mtd_id) && sum_of(payload) != 0)
            return CORVEL_UPGRADE_SECTION_DAMAGED;
        const corvel_upgrade_result result = take_half(header, row, payload, sizes, image);
        if (result != CORVEL_UPGRADE_DONE)
            return result;
        image.failed = nullptr;
    }
    return is_recognised ? CORVEL_UPGRADE_NO_VERSION : CORVEL_UPGRADE_NO_IMAGE;
}

} // namespace corvel

// SPDX-License-Identifier: MIT
#include "page/upgrade_image.h"

#include <corvel.h>

#include "page/utf8.h"
#include "support/big_endian.h"
#include "support/text.h"

namespace corvel {
namespace {

/// The printable characters at the start of the version section.
std::string_view printable_start(FlashBytes bytes) {
    const std::string_view text(reinterpret_cast<const char *>(bytes.data()), bytes.size());
    std::size_t length = 0;
    while (utf8_length(after(text, length)) != 0 && !is_control(after(text, length)))
        length += utf8_length(after(text, length));
    return front(text, length);
}

/// The partition that a section is written to, if it is part of an upgrade.
unsigned target_of(const sign_tbl_entry &row, int set) {
    return is_in_set_a(row) ? row.mtd_id - root_partition(CORVEL_FIRMWARE_A) + root_partition(set)
                            : row.mtd_id;
}

bool is_half_of(unsigned partition, int set) {
    return partition - root_partition(set) < halves_of_set;
}

/// Checks a section for a partition. The sum of a section whose `mtd_id` exempts it is not checked,
/// its size is: the CRC of the image protects the content.
corvel_upgrade_result take_half(const SectionHeader &header, const sign_tbl_entry &row,
                                FlashBytes payload, const PartitionSizes &sizes,
                                UpgradeImage &image) {
    const unsigned target = target_of(row, image.set);
    if (is_half_of(target, other_set(image.set)))
        return CORVEL_UPGRADE_RUNNING_SET;
    if (!is_half_of(target, image.set))
        return CORVEL_UPGRADE_OTHER_PARTITION;
    const unsigned number = target - root_partition(image.set);
    Half &half = image.halves[number];
    if (half.name != nullptr)
        return CORVEL_UPGRADE_TWICE;
    if (header.pad >= payload.size())
        return CORVEL_UPGRADE_SECTION_DAMAGED;
    half = {row.name, target, payload.first(payload.size() - 1 - header.pad)};
    if (half.data.size() > row.max_size || half.data.size() > sizes[number])
        return CORVEL_UPGRADE_TOO_LARGE;
    return is_erased(half.data) ? CORVEL_UPGRADE_EMPTY : CORVEL_UPGRADE_DONE;
}

/// Checks the version section, which ends the image with its CRC.
corvel_upgrade_result take_version(FlashBytes bytes, const SectionHeader &header,
                                   FlashBytes payload, UpgradeImage &image) {
    if (payload.size() < crc_size || is_checked(header.mtd_id) ||
        payload.data() + payload.size() != bytes.data() + bytes.size())
        return CORVEL_UPGRADE_NO_VERSION;
    image.version = printable_start(payload.first(payload.size() - crc_size));
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
        if (is_version(sign_tbl[row]))
            return take_version(bytes, header, payload, image);
        image.failed = sign_tbl[row].name; // unless it passes
        if (is_checked(header.mtd_id) && sum_of(payload) != 0)
            return CORVEL_UPGRADE_SECTION_DAMAGED;
        const corvel_upgrade_result result =
            take_half(header, sign_tbl[row], payload, sizes, image);
        if (result != CORVEL_UPGRADE_DONE)
            return result;
        image.failed = nullptr;
    }
    return is_recognised ? CORVEL_UPGRADE_NO_VERSION : CORVEL_UPGRADE_NO_IMAGE;
}

} // namespace corvel

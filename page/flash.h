// SPDX-License-Identifier: MIT
// The flash of the device: its partitions, the boot environment, and the two sets of a root file
// system and a kernel.
#ifndef CORVEL_PAGE_FLASH_H
#define CORVEL_PAGE_FLASH_H

#include <corvel_page.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <fcntl.h>
#include <span>
#include <string_view>

#include "firmware/image_format.h"
#include "page/sha256.h"
#include "support/descriptor.h"

namespace corvel {

using FlashBytes = std::span<const unsigned char>;

/// An erase block of the flash: a write of a whole one, at a multiple of its size, erases and
/// programs it once.
inline constexpr std::size_t erase_block = 65536;

inline constexpr unsigned environment_partition = sign_tbl[boot_environment_row].mtd_id;

constexpr int other_set(int set) { return CORVEL_FIRMWARE_A + CORVEL_FIRMWARE_B - set; }

constexpr bool is_set(int set) { return set == CORVEL_FIRMWARE_A || set == CORVEL_FIRMWARE_B; }

/// The partition of a set's root file system; that of its kernel is the next one.
constexpr unsigned root_partition(int set) {
    return set == CORVEL_FIRMWARE_A ? sign_tbl[root_a_row].mtd_id : sign_tbl[root_b_row].mtd_id;
}

inline constexpr unsigned halves_of_set = 2;

inline constexpr std::uint32_t version_row = CORVEL_PARTITIONS - 1;
static_assert(is_version(sign_tbl[version_row]));

/// The name of a row of the partition table; empty if there is no such row.
const char *partition_name(std::uint32_t row);

/// The bytes that a section for a half of a set may have.
constexpr std::uint32_t size_limit(std::uint32_t row) {
    static_assert(sign_tbl[root_a_row].max_size == sign_tbl[root_b_row].max_size &&
                  sign_tbl[kernel_a_row].max_size == sign_tbl[kernel_b_row].max_size);
    return row == root_a_row || row == root_b_row ? sign_tbl[root_a_row].max_size
                                                  : sign_tbl[kernel_a_row].max_size;
}

/// The number of bytes at the start of a string that are UTF-8 without control characters.
std::size_t printable_length(std::string_view text);

/// Whether this is the start of erased flash; true for no bytes at all.
bool is_erased(FlashBytes bytes);

Descriptor open_partition(unsigned partition, int flags);

/// Bytes of a partition; 0 if it cannot be opened.
std::uint32_t partition_size(unsigned partition);

/// Writes bytes at an offset of a partition and waits until the device has them.
bool write_flash(const Descriptor &device, std::size_t offset, FlashBytes bytes);

/// Whether a partition starts with these bytes. They are read from the device, not from memory.
bool flash_contains(unsigned partition, FlashBytes bytes);

/// Erases the start of a partition, which marks its set as incomplete.
bool mark_incomplete(unsigned partition);

/// What reading the boot environment has shown.
struct LoadedEnvironment {
    bool is_good = false;   ///< Its CRC is right.
    bool is_usable = false; ///< It is a list of variables, so that it may be saved.
};

/// Reads the boot environment and makes it the current one of libcorvel, if it is usable.
LoadedEnvironment load_boot_environment();

/// Whether the current environment has room for what an upgrade adds.
bool has_room_for_upgrade();

/// A set's hash as it is recorded in the environment.
struct SetDigest {
    char text[Sha256::text_size];
};

/// Computes the hash of both partitions of a set. False if one cannot be read.
bool digest_of_set(int set, SetDigest &digest);

/// The set that the environment names, or CORVEL_FIRMWARE_UNKNOWN.
int stored_set(const LoadedEnvironment &environment);

/// Changes the current environment, without saving it. False if there is no room.
bool set_boot_set(int set);
bool set_digest(int set, const SetDigest &digest);

/// Writes the current environment to the flash, unless the flash contains it.
bool save_boot_environment();

} // namespace corvel

#endif

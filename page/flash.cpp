// SPDX-License-Identifier: MIT
#include "page/flash.h"

#include <corvel.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "firmware/environment_format.h"
#include "page/utf8.h"
#include "support/big_endian.h"
#include "support/text.h"

namespace corvel {
namespace {

static_assert(static_cast<int>(CORVEL_FIRMWARE_A) == CORVEL_SET_A &&
              static_cast<int>(CORVEL_FIRMWARE_B) == CORVEL_SET_B);

constexpr std::size_t piece_size = 16384;

/// Bytes that are erased to mark a set: a page of memory.
constexpr std::size_t erased_size = 4096;

/// As many erased bytes are the start of no root file system and no kernel.
constexpr std::size_t mark_size = 16;

constexpr const char *boot_variable = "bootparam";
constexpr const char *digest_variables[] = {"firmware_a", "firmware_b"};

/// Reads the first bytes of a partition piece by piece, from the device: what memory has of it is
/// dropped first.
class PartitionReader {
  public:
    PartitionReader(unsigned partition, std::size_t size)
        : device_(open_partition(partition, O_RDONLY)), left_(size) {
        if (device_)
            static_cast<void>(posix_fadvise(device_.get(), 0, 0, POSIX_FADV_DONTNEED));
    }
    /// Returns the next piece; empty after the last one, and if the device cannot be read.
    FlashBytes next() {
        const std::size_t wanted = at_most(left_, sizeof piece_);
        if (!device_ || read_fully(device_.get(), piece_, wanted) != static_cast<ssize_t>(wanted))
            return {};
        left_ -= wanted;
        return {piece_, wanted};
    }
    /// Whether all bytes have been read.
    [[nodiscard]] bool is_at_end() const { return device_ && left_ == 0; }

  private:
    Descriptor device_;
    std::size_t left_;
    unsigned char piece_[piece_size] = {};
};

bool is_marked_incomplete(unsigned partition) {
    PartitionReader reader(partition, mark_size);
    const FlashBytes start = reader.next();
    return !start.empty() && is_erased(start);
}

EnvironmentImage current_image() { return EnvironmentImage(env_image_mem); }

/// The offset at which the list in the environment ends. 0 if the data is not a list of variables.
std::size_t end_of_list() {
    const std::span<unsigned char> data = environment_data(current_image());
    std::size_t start = 0;
    while (start < data.size() && data[start] != '\0') {
        const auto entry = data.subspan(start);
        const auto end = std::find(entry.begin(), entry.end(), '\0');
        if (end == entry.end() || std::find(entry.begin(), end, '=') == end)
            return 0;
        start += static_cast<std::size_t>(end - entry.begin()) + 1;
    }
    return start < data.size() ? start : 0;
}

/// Whether an entry of this many characters fits. set_env() prints a message if it does not.
bool has_room(std::size_t length) {
    constexpr std::size_t terminators = 2;
    return environment_data_size - end_of_list() >= length + terminators;
}

/// Sets a variable, which the list should contain once.
bool set_variable(const char *name, const char *value) {
    constexpr int most_entries = 16;
    const char *const before = get_env(name);
    if (before != nullptr && std::strcmp(before, value) == 0)
        return true;
    // set_env() removes the first entry of the name, and get_env() returns the first one.
    for (int entries = 0; entries < most_entries && get_env(name) != nullptr; ++entries)
        set_env(name, nullptr);
    return get_env(name) == nullptr && has_room(std::strlen(name) + 1 + std::strlen(value)) &&
           set_env(name, value) == 0;
}

/// Where the version is: at the start of a root file system or, if that is a squashfs, after it.
/// The header of a squashfs contains its size, in little-endian order; a partition has less than 4
/// GiB.
off_t version_offset(const Descriptor &device) {
    constexpr std::size_t size_at = 40;
    unsigned char header[size_at + sizeof(std::uint32_t)];
    if (read_fully(device.get(), header, sizeof header) != static_cast<ssize_t>(sizeof header) ||
        std::memcmp(header, "hsqs", 4) != 0)
        return 0;
    std::uint32_t size = 0;
    for (std::size_t i = sizeof header; i-- > size_at;)
        size = size << 8 | header[i];
    return size;
}

/// The first line, if it is text.
std::string_view version_in(std::string_view start) {
    const std::size_t end = start.find('\n');
    if (end == std::string_view::npos)
        return {};
    const std::string_view line = front(start, end);
    for (std::string_view rest = line; !rest.empty(); rest = after(rest, utf8_length(rest))) {
        if (utf8_length(rest) == 0 || is_control(rest))
            return {};
    }
    return line;
}

} // namespace

bool is_erased(FlashBytes bytes) {
    return std::ranges::all_of(bytes.first(at_most(bytes.size(), mark_size)),
                               [](unsigned char byte) { return byte == 0xFF; });
}

Descriptor open_partition(unsigned partition, int flags) {
    char path[32];
    std::snprintf(path, sizeof path, "/dev/mtdblock%u", partition);
    return Descriptor(open(path, flags | O_CLOEXEC));
}

std::uint32_t partition_size(unsigned partition) {
    const Descriptor device = open_partition(partition, O_RDONLY);
    const off_t size = device ? lseek(device.get(), 0, SEEK_END) : 0;
    return size > 0 && size <= UINT32_MAX ? static_cast<std::uint32_t>(size) : 0;
}

bool write_flash(const Descriptor &device, std::size_t offset, FlashBytes bytes) {
    while (!bytes.empty()) {
        const ssize_t written =
            pwrite(device.get(), bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return false;
        offset += static_cast<std::size_t>(written);
        bytes = bytes.subspan(static_cast<std::size_t>(written));
    }
    return fsync(device.get()) == 0;
}

bool flash_contains(unsigned partition, FlashBytes bytes) {
    PartitionReader reader(partition, bytes.size());
    for (FlashBytes piece = reader.next(); !piece.empty(); piece = reader.next()) {
        if (std::memcmp(piece.data(), bytes.data(), piece.size()) != 0)
            return false;
        bytes = bytes.subspan(piece.size());
    }
    return reader.is_at_end();
}

bool mark_incomplete(unsigned partition) {
    if (is_marked_incomplete(partition))
        return true;
    unsigned char erased[erased_size];
    std::memset(erased, 0xFF, sizeof erased);
    const FlashBytes start(erased, at_most(partition_size(partition), sizeof erased));
    const Descriptor device = open_partition(partition, O_WRONLY);
    return device && write_flash(device, 0, start) && flash_contains(partition, start);
}

LoadedEnvironment load_boot_environment() {
    const Descriptor device = open_partition(environment_partition, O_RDONLY);
    if (!device || read_fully(device.get(), env_image_mem, sizeof env_image_mem) !=
                       static_cast<ssize_t>(sizeof env_image_mem))
        return {};
    const EnvironmentImage image = current_image();
    const std::uint32_t crc = crc32(environment_data(image).data(), CORVEL_ENV_DATA_SIZE);
    LoadedEnvironment environment;
    environment.is_good = big_endian_word(environment_crc(image)) == crc;
    const bool is_empty = environment_data(image)[0] == '\0';
    environment.is_usable = end_of_list() != 0 || (environment.is_good && is_empty);
    // With a right CRC in memory, set_env_ptr() prints nothing.
    store_big_endian(environment_crc(image), crc);
    set_env_ptr(env_image_mem);
    return environment;
}

bool has_room_for_upgrade() {
    constexpr std::size_t number = sizeof "bootparam=0" - 1;
    constexpr std::size_t digests = 2 * (sizeof "firmware_a=" - 1 + Sha256::text_size);
    return has_room(number + digests);
}

bool digest_of_set(int set, SetDigest &digest) {
    Sha256 hash;
    for (unsigned half = 0; half < halves_of_set; ++half) {
        const unsigned partition = root_partition(set) + half;
        PartitionReader reader(partition, partition_size(partition));
        for (FlashBytes piece = reader.next(); !piece.empty(); piece = reader.next())
            hash.update({reinterpret_cast<const char *>(piece.data()), piece.size()});
        if (!reader.is_at_end())
            return false;
    }
    hash.digest_text(digest.text);
    return true;
}

int stored_set(const LoadedEnvironment &environment) {
    const char *const value = environment.is_good ? get_env(boot_variable) : nullptr;
    if (value == nullptr)
        return CORVEL_FIRMWARE_UNKNOWN;
    const int set = static_cast<int>(std::strtol(value, nullptr, 10) % 2);
    return is_set(set) ? set : CORVEL_FIRMWARE_UNKNOWN;
}

bool set_boot_set(int set) {
    return set_variable(boot_variable, set == CORVEL_FIRMWARE_A ? "0" : "1");
}

bool set_digest(int set, const SetDigest &digest) {
    return set_variable(digest_variables[set], digest.text);
}

/// The environment has a single copy. If the device loses power during the write, the CRC is wrong
/// afterwards, and the boot loader starts set A: the callers see to it that it can.
bool save_boot_environment() {
    if (flash_contains(environment_partition, env_image_mem))
        return true;
    const Descriptor device = open_partition(environment_partition, O_WRONLY);
    return device && write_flash(device, 0, env_image_mem) &&
           flash_contains(environment_partition, env_image_mem);
}

} // namespace corvel

using namespace corvel;

corvel_firmware_state corvel_firmware_check(int set) {
    if (!is_set(set))
        return CORVEL_FIRMWARE_UNRECORDED;
    const unsigned root = root_partition(set);
    if (is_marked_incomplete(root) || is_marked_incomplete(root + 1))
        return CORVEL_FIRMWARE_INCOMPLETE;
    const char *const recorded =
        load_boot_environment().is_good ? get_env(digest_variables[set]) : nullptr;
    if (recorded == nullptr)
        return CORVEL_FIRMWARE_UNRECORDED;
    SetDigest digest;
    return digest_of_set(set, digest) && std::strcmp(recorded, digest.text) == 0
               ? CORVEL_FIRMWARE_COMPLETE
               : CORVEL_FIRMWARE_INCOMPLETE;
}

char *corvel_firmware_version(int set, char version[CORVEL_FIRMWARE_VERSION_SIZE]) {
    version[0] = '\0';
    if (!is_set(set))
        return version;
    const Descriptor device = open_partition(root_partition(set), O_RDONLY);
    char start[CORVEL_FIRMWARE_VERSION_SIZE];
    const bool is_placed = device && lseek(device.get(), version_offset(device), SEEK_SET) >= 0;
    const ssize_t length = is_placed ? read_fully(device.get(), start, sizeof start) : 0;
    if (length > 0)
        store({version, CORVEL_FIRMWARE_VERSION_SIZE},
              version_in({start, static_cast<std::size_t>(length)}));
    return version;
}

// SPDX-License-Identifier: MIT
#include "page/flash.h"

#include <corvel.h>

#include <array>
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

/// Opens a partition for reading from the device: what memory has of it is dropped first.
Descriptor open_device(unsigned partition) {
    Descriptor device = open_partition(partition, O_RDONLY);
    if (device)
        static_cast<void>(posix_fadvise(device.get(), 0, 0, POSIX_FADV_DONTNEED));
    return device;
}

/// Reads bytes of a partition. Returns how many there are, at most the block's size.
std::size_t read_at(unsigned partition, off_t offset, void *block, std::size_t size) {
    const Descriptor device = open_device(partition);
    return device && lseek(device.get(), offset, SEEK_SET) >= 0
               ? size_from(read_fully(device.get(), block, size))
               : 0;
}

/// Reads the first bytes of a partition piece by piece.
class PartitionReader {
  public:
    PartitionReader(unsigned partition, std::size_t size)
        : device_(open_device(partition)), left_(size) {}
    /// Reads the next piece. Returns its size; 0 after the last one, and if the device cannot be
    /// read.
    std::size_t next() {
        const std::size_t wanted = at_most(left_, sizeof piece_);
        if (!device_ || read_fully(device_.get(), piece_, wanted) != static_cast<ssize_t>(wanted))
            return 0;
        left_ -= wanted;
        return wanted;
    }
    [[nodiscard]] const char *piece() const { return piece_; }
    /// Whether all bytes have been read.
    [[nodiscard]] bool is_at_end() const { return device_ && left_ == 0; }

  private:
    Descriptor device_;
    std::size_t left_;
    char piece_[piece_size]{};
};

bool is_marked_incomplete(unsigned partition) {
    unsigned char start[mark_size];
    return read_at(partition, 0, start, sizeof start) == sizeof start && is_erased(start);
}

EnvironmentImage current_image() { return EnvironmentImage(env_image_mem); }

/// The offset at which the list in the environment ends. 0 if the data is not a list of variables.
std::size_t end_of_list() {
    const unsigned char *const data = environment_data(current_image()).data();
    std::size_t start = 0;
    while (start < environment_data_size && data[start] != '\0') {
        const std::size_t room = environment_data_size - start;
        const void *const end = std::memchr(data + start, '\0', room);
        const void *const equals = std::memchr(data + start, '=', room);
        if (end == nullptr || equals == nullptr || equals > end)
            return 0;
        start = static_cast<std::size_t>(static_cast<const unsigned char *>(end) - data) + 1;
    }
    return start < environment_data_size ? start : 0;
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
off_t version_offset(unsigned partition) {
    constexpr std::size_t size_at = 40;
    unsigned char header[size_at + sizeof(std::uint32_t)];
    if (read_at(partition, 0, header, sizeof header) != sizeof header ||
        std::memcmp(header, "hsqs", 4) != 0)
        return 0;
    std::uint32_t size = 0;
    for (std::size_t i = sizeof header; i-- > size_at;)
        size = size << 8 | header[i];
    return size;
}

struct PartitionName {
    char text[16];
};

/// The names of the partition table without its pointers, which the loader would have to relocate.
constexpr std::array<PartitionName, CORVEL_PARTITIONS> copy_names() {
    std::array<PartitionName, CORVEL_PARTITIONS> names{};
    for (std::size_t row = 0; row < names.size(); ++row) {
        const std::string_view name = sign_tbl[row].name;
        for (std::size_t i = 0; i < name.size(); ++i)
            names[row].text[i] = name[i];
    }
    return names;
}
constexpr auto partition_names = copy_names();

} // namespace

const char *partition_name(std::uint32_t row) {
    return row < partition_names.size() ? partition_names[row].text : "";
}

std::size_t printable_length(std::string_view text) {
    std::string_view rest = text;
    while (utf8_length(rest) != 0 && !is_control(rest))
        rest = after(rest, utf8_length(rest));
    return text.size() - rest.size();
}

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
    while (const std::size_t size = reader.next()) {
        if (std::memcmp(reader.piece(), bytes.data(), size) != 0)
            return false;
        bytes = bytes.subspan(size);
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
    if (read_at(environment_partition, 0, env_image_mem, CORVEL_ENV_SIZE) != CORVEL_ENV_SIZE)
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
        while (const std::size_t size = reader.next())
            hash.update({reader.piece(), size});
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
    const unsigned root = root_partition(set);
    char start[CORVEL_FIRMWARE_VERSION_SIZE] = "";
    const std::string_view text(start, read_at(root, version_offset(root), start, sizeof start));
    const std::string_view line = front(text, printable_length(text));
    if (start[at_most(line.size(), sizeof start - 1)] == '\n')
        store({version, CORVEL_FIRMWARE_VERSION_SIZE}, line);
    return version;
}

// SPDX-License-Identifier: MIT
#include <corvel_page.h>

#include <corvel.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "page/flash.h"
#include "page/record_file.h"
#include "page/string_list.h"
#include "page/upgrade_image.h"
#include "support/descriptor.h"
#include "support/pause.h"
#include "support/text.h"

namespace corvel {
namespace {

/// More than the flash holds.
constexpr off_t image_size_max = 0x1000000;

// The running set.

/// The set whose root file system a word of the kernel's command line names.
int set_of_root(const char *word) {
    static constexpr char prefixes[][20] = {"root=31:", "root=/dev/mtdblock", "root=1f0"};
    for (const char *const prefix : prefixes) {
        const std::size_t length = std::strlen(prefix);
        if (std::strncmp(word, prefix, length) != 0)
            continue;
        for (const int set : {CORVEL_FIRMWARE_A, CORVEL_FIRMWARE_B})
            if (word[length] == static_cast<char>('0' + root_partition(set)) &&
                word[length + 1] == '\0')
                return set;
    }
    return CORVEL_FIRMWARE_UNKNOWN;
}

/// The set that a command line of the kernel names. As in the kernel, spaces in double quotes do
/// not separate words, and the last `root=` before `--` counts. The line is changed. Not inlined:
/// the code that uses the buffer of its caller would be larger.
[[gnu::noinline]] int set_of_line(char *line) {
    int set = CORVEL_FIRMWARE_UNKNOWN;
    bool is_quoted = false;
    char *end = line; // each word is moved to the start of the line
    for (const char *next = line;; ++next) {
        if (*next == '"') {
            is_quoted = !is_quoted;
        } else if (*next != '\0' && (is_quoted || !is_space(*next))) {
            *end++ = *next;
        } else {
            const bool is_last = *next == '\0';
            *end = '\0';
            if (std::strcmp(line, "--") == 0)
                return set;
            if (std::strncmp(line, "root=", 5) == 0)
                set = set_of_root(line);
            if (is_last)
                return set;
            end = line;
        }
    }
}

int set_of_kernel(const corvel_upgrade_rules *rules) {
    char line[16384]; // several times the kernel's limit
    const bool is_given = rules != nullptr && rules->command_line != nullptr;
    const Descriptor file = open_for_reading(is_given ? rules->command_line : "/proc/cmdline");
    const std::size_t length = file ? size_from(read_fully(file.get(), line, sizeof line)) : 0;
    if (length == sizeof line)
        return CORVEL_FIRMWARE_UNKNOWN;
    line[length] = '\0';
    return set_of_line(line);
}

// The record of an upgrade.

/// What a record file contains. The CRC detects a record that is read while it is written.
struct Record {
    std::int32_t state = CORVEL_UPGRADE_IDLE;
    std::int32_t result = CORVEL_UPGRADE_DONE;
    std::int32_t running = CORVEL_FIRMWARE_UNKNOWN; ///< Cannot change before the next start.
    std::int32_t set = CORVEL_FIRMWARE_UNKNOWN;
    std::uint32_t section = CORVEL_PARTITIONS; ///< The partition that is being written.
    std::uint32_t written = 0;
    std::uint32_t total = 0;
    std::uint32_t crc = 0;
};

std::uint32_t crc_of(const Record &record) {
    return crc32(reinterpret_cast<const unsigned char *>(&record), offsetof(Record, crc));
}

/// Where a byte other than zero requests the end of the upgrade.
constexpr std::uint32_t cancel_offset = 128;

/// The record file. The lock on its first byte is that of everything that writes to the flash.
class UpgradeFile : public RecordFile {
  public:
    UpgradeFile(const corvel_upgrade_rules *rules, int flags)
        : RecordFile(rules != nullptr && rules->record != nullptr ? rules->record : "/run/upgrade",
                     flags) {}

    /// The record; that of no upgrade if there is none.
    [[nodiscard]] Record read() const {
        // The writer is never interrupted for long between two halves of a record.
        for (int attempt = 0; attempt < 10; ++attempt) {
            Record record;
            if (!RecordFile::read(0, &record, sizeof record))
                break;
            if (record.crc == crc_of(record))
                return record;
            pause_milliseconds(1);
        }
        return {};
    }
    [[nodiscard]] bool write(Record record) const {
        record.crc = crc_of(record);
        return RecordFile::write(0, &record, sizeof record);
    }

    [[nodiscard]] bool request_cancel(char flag) const {
        return RecordFile::write(cancel_offset, &flag, 1);
    }
    [[nodiscard]] bool is_cancelled() const {
        char flag = 0;
        return RecordFile::read(cancel_offset, &flag, 1) && flag != 0;
    }
};

corvel_upgrade_status status_of(const Record &record) {
    return {static_cast<corvel_upgrade_state>(record.state),
            static_cast<corvel_upgrade_result>(record.result),
            record.set,
            partition_name(record.section),
            record.written,
            record.total};
}

// The state of the device.

/// Names the running set by what cannot be wrong first: the environment names another set between
/// an upgrade and the restart.
corvel_boot read_boot(const corvel_upgrade_rules *rules, const Record &record) {
    const LoadedEnvironment environment = load_boot_environment();
    const int next = stored_set(environment);
    int running = set_of_kernel(rules);
    if (running == CORVEL_FIRMWARE_UNKNOWN)
        running = record.running;
    if (running == CORVEL_FIRMWARE_UNKNOWN)
        running = next;
    return {running, next, environment.is_usable};
}

corvel_upgrade_result check_device(const corvel_boot &boot) {
    if (!is_set(boot.running))
        return CORVEL_UPGRADE_NO_RUNNING_SET;
    if (!boot.can_change)
        return CORVEL_UPGRADE_NO_ENVIRONMENT;
    return has_room_for_upgrade() ? CORVEL_UPGRADE_DONE : CORVEL_UPGRADE_ENVIRONMENT_FULL;
}

/// Takes the lock and checks the device.
corvel_upgrade_result lock_device(const UpgradeFile &file, const corvel_upgrade_rules *rules,
                                  Record &record, corvel_boot &boot) {
    if (!file)
        return CORVEL_UPGRADE_NO_RECORD;
    if (!file.lock(0))
        return CORVEL_UPGRADE_BUSY;
    record = file.read();
    boot = read_boot(rules, record);
    record.running = boot.running;
    return check_device(boot);
}

/// A file mapped for reading; empty if it is missing, too large, or no regular file.
class MappedFile {
  public:
    explicit MappedFile(const char *path) {
        const Descriptor file(
            open(text_or_empty(path), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        struct stat status {};
        if (!file || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
            status.st_size <= 0 || status.st_size > image_size_max)
            return;
        const auto size = static_cast<std::size_t>(status.st_size);
        void *const start = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, file.get(), 0);
        if (start != MAP_FAILED)
            bytes_ = {static_cast<const unsigned char *>(start), size};
    }
    MappedFile(const MappedFile &) = delete;
    MappedFile &operator=(const MappedFile &) = delete;
    ~MappedFile() {
        if (!bytes_.empty())
            munmap(const_cast<unsigned char *>(bytes_.data()), bytes_.size());
    }
    [[nodiscard]] FlashBytes bytes() const { return bytes_; }

  private:
    FlashBytes bytes_;
};

/// Checks an image for the set that does not run.
corvel_upgrade_result inspect_for(int running, FlashBytes bytes, UpgradeImage &image) {
    const int set = other_set(running);
    PartitionSizes sizes;
    for (unsigned half = 0; half < halves_of_set; ++half) {
        sizes[half] = partition_size(root_partition(set) + half);
        if (sizes[half] == 0)
            return CORVEL_UPGRADE_UNREADABLE;
    }
    return inspect_image(bytes, set, sizes, image);
}

/// Checks an image for a device that has been checked.
corvel_upgrade_result check_image(const corvel_boot &boot, FlashBytes bytes, UpgradeImage &image) {
    return is_set(boot.next) && boot.next != boot.running ? CORVEL_UPGRADE_RESTART_FIRST
                                                          : inspect_for(boot.running, bytes, image);
}

void fill_report(corvel_upgrade_report &report, const UpgradeImage &image) {
    report.set = image.set;
    report.failed = text_or_empty(image.failed);
    for (const Half &half : image.halves) {
        if (half.name == nullptr)
            continue;
        report.sections[report.count++] = {half.name, partition_name(half.partition),
                                           half.partition,
                                           static_cast<std::uint32_t>(half.data.size())};
    }
    store(report.version, image.version);
}

// Writing.

/// One upgrade, from the lock to the last record.
class Upgrade {
  public:
    Upgrade(const corvel_upgrade_rules *rules, const char *path, corvel_upgrade_progress *progress,
            void *context)
        : file_(rules, O_RDWR | O_CREAT), bytes_(path), progress_(progress), context_(context) {}

    /// Takes the lock and checks everything. Nothing is changed unless the upgrade can start.
    corvel_upgrade_result prepare(const corvel_upgrade_rules *rules) {
        Record former;
        const corvel_upgrade_result result = lock_device(file_, rules, former, boot_);
        if (result != CORVEL_UPGRADE_DONE)
            return result;
        const corvel_upgrade_result checked = check_image(boot_, bytes_.bytes(), image_);
        if (checked != CORVEL_UPGRADE_DONE)
            return checked;
        record_.state = CORVEL_UPGRADE_WRITING;
        record_.running = boot_.running;
        record_.set = image_.set;
        for (const Half &half : image_.halves)
            record_.total += static_cast<std::uint32_t>(half.data.size());
        return file_.request_cancel(0) && file_.write(record_) ? CORVEL_UPGRADE_DONE
                                                               : CORVEL_UPGRADE_NO_RECORD;
    }

    corvel_upgrade_result run() { return finish(write_set()); }

    /// Records the result.
    corvel_upgrade_result finish(corvel_upgrade_result result) {
        const bool is_done = result == CORVEL_UPGRADE_DONE;
        record_.state = is_done ? CORVEL_UPGRADE_WRITTEN : CORVEL_UPGRADE_FAILED;
        record_.result = result;
        static_cast<void>(report());
        corvel_log(is_done ? CORVEL_LOG_NOTICE : CORVEL_LOG_ERROR, "firmware upgrade of set %c: %s",
                   record_.set == CORVEL_FIRMWARE_A ? 'A' : 'B',
                   is_done ? "written" : corvel_upgrade_complaint(result));
        return result;
    }

  private:
    /// Tells others of the progress. False if the upgrade is to end.
    [[nodiscard]] bool report() const {
        const corvel_upgrade_status status = status_of(record_);
        static_cast<void>(file_.write(record_)); // its bytes exist since prepare()
        return (progress_ == nullptr || progress_(context_, &status)) && !file_.is_cancelled();
    }

    corvel_upgrade_result write_set() {
        // Until everything is written the running set must boot.
        if (!is_set(boot_.next) && !(set_boot_set(boot_.running) && save_boot_environment()))
            return CORVEL_UPGRADE_NOT_SWITCHED;
        for (const Half &half : image_.halves) {
            if (!mark_incomplete(half.partition))
                return CORVEL_UPGRADE_UNWRITABLE;
        }
        // The first block of each half last: before that, the set is marked as incomplete.
        corvel_upgrade_result result = write_halves(erase_block, SIZE_MAX);
        if (result == CORVEL_UPGRADE_DONE)
            result = write_halves(0, erase_block);
        if (result == CORVEL_UPGRADE_DONE)
            result = verify();
        return result == CORVEL_UPGRADE_DONE ? switch_to_set() : result;
    }

    corvel_upgrade_result write_halves(std::size_t start, std::size_t end) {
        for (const Half &half : image_.halves) {
            const corvel_upgrade_result result =
                write_range(half, start, at_most(end, half.data.size()));
            if (result != CORVEL_UPGRADE_DONE)
                return result;
        }
        return CORVEL_UPGRADE_DONE;
    }

    corvel_upgrade_result write_range(const Half &half, std::size_t start, std::size_t end) {
        const Descriptor device = open_partition(half.partition, O_WRONLY);
        if (!device)
            return CORVEL_UPGRADE_UNWRITABLE;
        record_.section = half.partition;
        while (start < end) {
            const std::size_t length = at_most(erase_block, end - start);
            if (!write_flash(device, start, half.data.subspan(start, length)))
                return CORVEL_UPGRADE_UNWRITABLE;
            start += length;
            record_.written += static_cast<std::uint32_t>(length);
            if (!report())
                return CORVEL_UPGRADE_CANCELLED;
        }
        return CORVEL_UPGRADE_DONE;
    }

    /// Compares the flash with the image, and checks the image again: its file may have changed.
    corvel_upgrade_result verify() {
        for (const Half &half : image_.halves) {
            if (!flash_contains(half.partition, half.data))
                return CORVEL_UPGRADE_UNVERIFIED;
        }
        return inspect_for(boot_.running, bytes_.bytes(), image_);
    }

    /// Both sets are complete from here on, whichever the boot loader starts.
    corvel_upgrade_result switch_to_set() {
        SetDigest written;
        SetDigest kept;
        if (!digest_of_set(record_.set, written) || !digest_of_set(boot_.running, kept))
            return CORVEL_UPGRADE_UNREADABLE;
        if (!report())
            return CORVEL_UPGRADE_CANCELLED;
        const bool is_saved = load_boot_environment().is_usable &&
                              set_digest(record_.set, written) && set_digest(boot_.running, kept) &&
                              set_boot_set(record_.set) && save_boot_environment();
        return is_saved ? CORVEL_UPGRADE_DONE : CORVEL_UPGRADE_NOT_SWITCHED;
    }

    UpgradeFile file_;
    MappedFile bytes_;
    corvel_upgrade_progress *progress_;
    void *context_;
    corvel_boot boot_{};
    Record record_;
    UpgradeImage image_;
};

/// The complaint of each result, the next one below zero first.
constexpr char complaints[] =
    "\0"
    "Neither the kernel's command line nor the boot environment names the running set.\0"
    "The boot environment is damaged, so the boot set could not be changed.\0"
    "The boot environment has no room for another variable.\0"
    "Restart the router to complete the last upgrade first.\0"
    "Another upgrade is in progress.\0"
    "The upgrade could not be recorded.\0"
    "The upgrade could not be started.\0"
    "The file is not an upgrade image for this device.\0"
    "The image is truncated.\0"
    "This section is damaged.\0"
    "This section is larger than its partition.\0"
    "This section is empty.\0"
    "Two sections are for this partition.\0"
    "This section would overwrite the running set.\0"
    "This section is neither a root file system nor a kernel.\0"
    "The image does not end with a version section, and thus has no CRC.\0"
    "The CRC of the image is wrong. The image is damaged.\0"
    "The image must contain both a root file system and a kernel.\0"
    "The flash could not be read.\0"
    "The flash could not be written.\0"
    "The flash does not contain the data that was written.\0"
    "The upgrade was cancelled.\0"
    "The boot environment could not be written.\0"
    "The other set is not known to be complete.";

/// Makes the calling process one that nothing else waits for.
void leave_request(const Descriptor &nowhere) {
    setsid();
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream)
        dup2(nowhere.get(), stream);
}

} // namespace
} // namespace corvel

using namespace corvel;

void corvel_boot_read(const corvel_upgrade_rules *rules, corvel_boot *boot) {
    *boot = read_boot(rules, UpgradeFile(rules, O_RDONLY).read());
}

corvel_upgrade_result corvel_boot_select(const corvel_upgrade_rules *rules, int set) {
    if (!is_set(set))
        return CORVEL_UPGRADE_SET_INCOMPLETE;
    const UpgradeFile file(rules, O_RDWR | O_CREAT);
    Record record;
    corvel_boot boot;
    const corvel_upgrade_result result = lock_device(file, rules, record, boot);
    if (result != CORVEL_UPGRADE_DONE)
        return result;
    if (!file.write(record))
        return CORVEL_UPGRADE_NO_RECORD;
    if (set != boot.running && corvel_firmware_check(set) != CORVEL_FIRMWARE_COMPLETE)
        return CORVEL_UPGRADE_SET_INCOMPLETE;
    return load_boot_environment().is_usable && set_boot_set(set) && save_boot_environment()
               ? CORVEL_UPGRADE_DONE
               : CORVEL_UPGRADE_NOT_SWITCHED;
}

corvel_upgrade_result corvel_upgrade_check(const corvel_upgrade_rules *rules, const char *path,
                                           corvel_upgrade_report *report) {
    corvel_boot boot;
    corvel_boot_read(rules, &boot);
    const MappedFile file(path);
    UpgradeImage image;
    corvel_upgrade_result result = check_device(boot);
    if (result == CORVEL_UPGRADE_DONE)
        result = check_image(boot, file.bytes(), image);
    if (report != nullptr) {
        *report = {};
        fill_report(*report, image);
    }
    return result;
}

corvel_upgrade_result corvel_upgrade_write(const corvel_upgrade_rules *rules, const char *path,
                                           corvel_upgrade_progress *progress, void *context) {
    Upgrade upgrade(rules, path, progress, context);
    const corvel_upgrade_result result = upgrade.prepare(rules);
    return result == CORVEL_UPGRADE_DONE ? upgrade.run() : result;
}

corvel_upgrade_result corvel_upgrade_start(const corvel_upgrade_rules *rules, const char *path,
                                           corvel_upgrade_progress *progress, void *context) {
    const Descriptor nowhere(open("/dev/null", O_RDWR | O_CLOEXEC));
    if (!nowhere)
        return CORVEL_UPGRADE_NO_PROCESS;
    Upgrade upgrade(rules, path, progress, context);
    const corvel_upgrade_result result = upgrade.prepare(rules);
    if (result != CORVEL_UPGRADE_DONE)
        return result;
    const pid_t writer = fork();
    if (writer == 0) {
        leave_request(nowhere);
        upgrade.run();
        _exit(0);
    }
    return writer > 0 ? CORVEL_UPGRADE_DONE : upgrade.finish(CORVEL_UPGRADE_NO_PROCESS);
}

void corvel_upgrade_read(const corvel_upgrade_rules *rules, corvel_upgrade_status *status) {
    const UpgradeFile file(rules, O_RDONLY);
    // In this order: the writer releases the lock after its last record.
    const bool is_locked = file.is_locked(0);
    *status = status_of(file.read());
    if (status->state == CORVEL_UPGRADE_WRITING && !is_locked)
        status->state = CORVEL_UPGRADE_INTERRUPTED;
}

bool corvel_upgrade_cancel(const corvel_upgrade_rules *rules) {
    const UpgradeFile file(rules, O_RDWR);
    return file.is_locked(0) && file.read().state == CORVEL_UPGRADE_WRITING &&
           file.request_cancel(1);
}

const char *corvel_upgrade_complaint(corvel_upgrade_result result) {
    return string_in_list(complaints, -std::max<int>(result, CORVEL_UPGRADE_SET_INCOMPLETE));
}

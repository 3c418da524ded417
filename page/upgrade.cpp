// SPDX-License-Identifier: MIT
#include <corvel_page.h>

#include <corvel.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "page/flash.h"
#include "page/upgrade_image.h"
#include "support/descriptor.h"
#include "support/pause.h"
#include "support/text.h"

namespace corvel {
namespace {

/// More than the flash holds.
constexpr off_t image_size_max = 0x1000000;

// The running set.

/// The set whose root file system is on this device, as the kernel's `root=` names it.
int set_of_device(std::string_view device) {
    constexpr std::string_view prefixes[] = {"31:", "/dev/mtdblock", "1f0"};
    for (const std::string_view prefix : prefixes) {
        if (!device.starts_with(prefix) || device.size() != prefix.size() + 1)
            continue;
        for (const int set : {CORVEL_FIRMWARE_A, CORVEL_FIRMWARE_B}) {
            if (device.back() == static_cast<char>('0' + root_partition(set)))
                return set;
        }
    }
    return CORVEL_FIRMWARE_UNKNOWN;
}

/// Reads the kernel's command line character by character, in any length. As in the kernel, spaces
/// in double quotes do not separate words, and the last `root=` before `--` counts.
class CommandLine {
  public:
    void take(char character) {
        if (character == '"')
            is_quoted_ = !is_quoted_;
        else if (is_space(character) && !is_quoted_)
            end_word();
        else if (length_ < sizeof word_)
            word_[length_++] = character;
    }
    void end_word() {
        const std::string_view word(word_, length_);
        length_ = 0;
        is_for_init_ = is_for_init_ || word == "--";
        if (!is_for_init_ && word.starts_with("root="))
            set_ = set_of_device(after(word, 5));
    }
    [[nodiscard]] int set() const { return set_; }

  private:
    char word_[32]; ///< Longer than any `root=` of a set.
    std::size_t length_ = 0;
    bool is_quoted_ = false;
    bool is_for_init_ = false;
    int set_ = CORVEL_FIRMWARE_UNKNOWN;
};

int set_of_kernel(const corvel_upgrade_rules *rules) {
    const bool is_given = rules != nullptr && rules->command_line != nullptr;
    const Descriptor file = open_for_reading(is_given ? rules->command_line : "/proc/cmdline");
    CommandLine line;
    char piece[512];
    ssize_t length = 0;
    // The limit is far above the kernel's.
    for (int pieces = 0; file && pieces < 128; ++pieces) {
        length = read_fully(file.get(), piece, sizeof piece);
        if (length <= 0)
            break;
        for (const char character : std::string_view(piece, static_cast<std::size_t>(length)))
            line.take(character);
    }
    line.end_word();
    return length == 0 ? line.set() : CORVEL_FIRMWARE_UNKNOWN;
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
constexpr off_t cancel_offset = 128;

const char *record_path(const corvel_upgrade_rules *rules) {
    return rules != nullptr && rules->record != nullptr ? rules->record : "/run/upgrade";
}

/// The record file, which is the lock of everything that writes to the flash as well. The lock
/// belongs to the open file: a process shares it with those that it forks.
class RecordFile {
  public:
    RecordFile(const corvel_upgrade_rules *rules, int flags)
        : file_(open(record_path(rules), flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600)) {
        struct stat status {};
        if (file_ && (fstat(file_.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
                      status.st_uid != geteuid()))
            file_ = Descriptor(-1);
    }
    explicit operator bool() const { return static_cast<bool>(file_); }

    [[nodiscard]] bool lock() const {
        struct flock whole {};
        whole.l_type = F_WRLCK;
        return fcntl(file_.get(), F_OFD_SETLK, &whole) == 0;
    }
    [[nodiscard]] bool is_locked() const {
        struct flock whole {};
        whole.l_type = F_RDLCK;
        return fcntl(file_.get(), F_OFD_GETLK, &whole) == 0 && whole.l_type != F_UNLCK;
    }

    [[nodiscard]] Record read() const {
        // The writer is never interrupted for long between two halves of a record.
        for (int attempt = 0; attempt < 10; ++attempt) {
            Record record;
            if (pread(file_.get(), &record, sizeof record, 0) != sizeof record)
                break;
            if (record.crc == crc_of(record))
                return record;
            pause_milliseconds(1);
        }
        return {};
    }
    [[nodiscard]] bool write(Record record) const {
        record.crc = crc_of(record);
        return pwrite(file_.get(), &record, sizeof record, 0) == sizeof record;
    }

    [[nodiscard]] bool request_cancel(bool is_requested) const {
        const char flag = is_requested ? 1 : 0;
        return pwrite(file_.get(), &flag, 1, cancel_offset) == 1;
    }
    [[nodiscard]] bool is_cancelled() const {
        char flag = 0;
        return pread(file_.get(), &flag, 1, cancel_offset) == 1 && flag != 0;
    }

  private:
    Descriptor file_;
};

corvel_upgrade_status status_of(const Record &record) {
    return {static_cast<corvel_upgrade_state>(record.state),
            static_cast<corvel_upgrade_result>(record.result),
            record.set,
            record.section < sign_tbl.size() ? sign_tbl[record.section].name : "",
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

bool is_restart_pending(const corvel_boot &boot) {
    return is_set(boot.next) && boot.next != boot.running;
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

/// Checks the device and an image for it.
corvel_upgrade_result check_upgrade(const corvel_boot &boot, FlashBytes bytes,
                                    UpgradeImage &image) {
    const corvel_upgrade_result device = check_device(boot);
    if (device != CORVEL_UPGRADE_DONE)
        return device;
    return is_restart_pending(boot) ? CORVEL_UPGRADE_RESTART_FIRST
                                    : inspect_for(boot.running, bytes, image);
}

void fill_report(corvel_upgrade_report &report, const UpgradeImage &image) {
    report.set = image.set;
    report.failed = text_or_empty(image.failed);
    for (const Half &half : image.halves) {
        if (half.name == nullptr)
            continue;
        report.sections[report.count++] = {half.name, sign_tbl[half.partition].name, half.partition,
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
        if (!file_)
            return CORVEL_UPGRADE_NO_RECORD;
        if (!file_.lock())
            return CORVEL_UPGRADE_BUSY;
        boot_ = read_boot(rules, file_.read());
        const corvel_upgrade_result result = check_upgrade(boot_, bytes_.bytes(), image_);
        if (result != CORVEL_UPGRADE_DONE)
            return result;
        record_.state = CORVEL_UPGRADE_WRITING;
        record_.running = boot_.running;
        record_.set = image_.set;
        for (const Half &half : image_.halves)
            record_.total += static_cast<std::uint32_t>(half.data.size());
        return file_.request_cancel(false) && file_.write(record_) ? CORVEL_UPGRADE_DONE
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

    RecordFile file_;
    MappedFile bytes_;
    corvel_upgrade_progress *progress_;
    void *context_;
    corvel_boot boot_{};
    Record record_;
    UpgradeImage image_;
};

/// The complaint of each result in the order of their values, each terminated by a NUL. An array of
/// pointers would be larger by half: the loader relocates each of them.
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

corvel_upgrade_result select_set(const corvel_boot &boot, int set) {
    const corvel_upgrade_result device = check_device(boot);
    if (device != CORVEL_UPGRADE_DONE)
        return device;
    if (set != boot.running && corvel_firmware_check(set) != CORVEL_FIRMWARE_COMPLETE)
        return CORVEL_UPGRADE_SET_INCOMPLETE;
    return load_boot_environment().is_usable && set_boot_set(set) && save_boot_environment()
               ? CORVEL_UPGRADE_DONE
               : CORVEL_UPGRADE_NOT_SWITCHED;
}

} // namespace
} // namespace corvel

using namespace corvel;

void corvel_boot_read(const corvel_upgrade_rules *rules, corvel_boot *boot) {
    const RecordFile file(rules, O_RDONLY);
    *boot = read_boot(rules, file ? file.read() : Record{});
}

corvel_upgrade_result corvel_boot_select(const corvel_upgrade_rules *rules, int set) {
    if (!is_set(set))
        return CORVEL_UPGRADE_SET_INCOMPLETE;
    const RecordFile file(rules, O_RDWR | O_CREAT);
    if (!file)
        return CORVEL_UPGRADE_NO_RECORD;
    if (!file.lock())
        return CORVEL_UPGRADE_BUSY;
    Record record = file.read();
    const corvel_boot boot = read_boot(rules, record);
    record.running = boot.running;
    return file.write(record) ? select_set(boot, set) : CORVEL_UPGRADE_NO_RECORD;
}

corvel_upgrade_result corvel_upgrade_check(const corvel_upgrade_rules *rules, const char *path,
                                           corvel_upgrade_report *report) {
    const MappedFile file(path);
    corvel_boot boot;
    corvel_boot_read(rules, &boot);
    UpgradeImage image;
    const corvel_upgrade_result result = check_upgrade(boot, file.bytes(), image);
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
    const RecordFile file(rules, O_RDONLY);
    // In this order: the writer releases the lock after its last record.
    const bool is_locked = file && file.is_locked();
    *status = status_of(file ? file.read() : Record{});
    if (status->state == CORVEL_UPGRADE_WRITING && !is_locked)
        status->state = CORVEL_UPGRADE_INTERRUPTED;
}

bool corvel_upgrade_cancel(const corvel_upgrade_rules *rules) {
    const RecordFile file(rules, O_RDWR);
    return file && file.is_locked() && file.read().state == CORVEL_UPGRADE_WRITING &&
           file.request_cancel(true);
}

const char *corvel_upgrade_complaint(corvel_upgrade_result result) {
    const char *text = complaints;
    for (int each = std::max<int>(result, CORVEL_UPGRADE_SET_INCOMPLETE); each < 0; ++each)
        text += std::strlen(text) + 1;
    return text;
}

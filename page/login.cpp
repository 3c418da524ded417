// SPDX-License-Identifier: MIT
#include <corvel.h>
#include <corvel_page.h>

#include <algorithm>
#include <arpa/inet.h>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <pwd.h>
#include <shadow.h>
#include <sys/stat.h>
#include <type_traits>
#include <unistd.h>

#include "page/boot.h"
#include "support/big_endian.h"
#include "support/descriptor.h"
#include "support/handles.h"
#include "support/pause.h"
#include "support/text.h"

namespace corvel {
namespace {

// The client.

constexpr std::uint64_t ipv4_prefix = std::uint64_t{0xFFFF} << 32;
/// Neither is the prefix of an address that a client can have, nor is 0, which marks a free slot.
constexpr std::uint64_t loopback_client = 1;
constexpr std::uint64_t unknown_client = 2;

std::uint64_t client_from(const unsigned char (&address)[16]) {
    const std::span bytes(address);
    static constexpr unsigned char mapped[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
    if (std::memcmp(address, mapped, sizeof mapped) == 0)
        return ipv4_prefix | big_endian_word(bytes.last<4>());
    const std::uint64_t high = big_endian_word(bytes.first<4>());
    const std::uint64_t prefix = high << 32 | big_endian_word(bytes.subspan<4, 4>());
    return prefix != 0 ? prefix : loopback_client;
}

/// The number of a client: its IPv4 address, or the first 64 bits of its IPv6 address, since one
/// client can use all addresses that have them in common.
std::uint64_t client_named(std::string_view name) {
    if (name.starts_with('['))
        name.remove_prefix(1);
    char text[INET6_ADDRSTRLEN];
    unsigned char address[16] = {};
    store(text, front(name, name.find_first_of("]%")));
    if (inet_pton(AF_INET6, text, address) == 1)
        return client_from(address);
    if (inet_pton(AF_INET, text, address) == 1)
        return ipv4_prefix | big_endian_word(std::span(address).first<4>());
    return unknown_client;
}

// The record.

/// Starts the file. The times in it are valid since this start of the device.
struct Header {
    char magic[12];
    BootId boot;
};
constexpr char magic[] = "corvel login";
static_assert(sizeof(Header) == 48 && sizeof magic == sizeof Header::magic + 1);

/// What is known of a client.
struct Slot {
    std::uint64_t client;   ///< 0 if the slot is free.
    std::uint32_t until;    ///< When the next attempt is permitted: seconds since the start.
    std::uint16_t failures; ///< Wrong passwords in a row.
    std::uint16_t is_known; ///< 1 after a right password.
};
static_assert(sizeof(Slot) == 16);

constexpr std::size_t slot_count = 1024;
constexpr std::uint32_t file_size = sizeof(Header) + slot_count * sizeof(Slot);

constexpr int lock_tries = 500;
constexpr long lock_pause = 10;

/// Bytes of the header. A lock on one is held during the stated time; one on the first byte of a
/// slot, during an attempt of its client. The kernel releases all of them with the process.
enum Lock : std::uint32_t {
    record_lock = 0, ///< While slots are read and one is chosen.
    known_lock = 1,  ///< During a check of a client that has logged in before.
    first_lock = 2,  ///< During another check.
    last_lock = 3
};

/// The file of the attempts.
class Record {
  public:
    /// An existing file is used only if it belongs to this process's user and nobody else can open
    /// it: anybody who can may lock it.
    explicit Record(const char *path)
        : file_(open(path, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK,
                     S_IRUSR | S_IWUSR)) {}

    [[nodiscard]] bool lock(std::uint32_t byte) const { return set_lock(byte, F_WRLCK); }
    void unlock(std::uint32_t byte) const { set_lock(byte, F_UNLCK); }

    /// Locks the record and makes it valid. Only an empty file and an earlier record are
    /// overwritten.
    [[nodiscard]] bool prepare() const {
        struct stat status;
        Header header;
        BootId boot;
        if (!file_ || fstat(file_.get(), &status) != 0 || !is_private(status) ||
            !wait_for_record() || !read_boot_id(boot) || fstat(file_.get(), &status) != 0)
            return false;
        if (status.st_size == 0)
            return initialize(boot);
        const ssize_t count = pread(file_.get(), &header, sizeof header, 0);
        if (count < static_cast<ssize_t>(sizeof header.magic) ||
            std::memcmp(header.magic, magic, sizeof header.magic) != 0)
            return false;
        const bool is_valid = count == sizeof header && header.boot == boot &&
                              status.st_size == static_cast<off_t>(file_size);
        return is_valid || initialize(boot);
    }

    /// Takes one of the places for checks. Clients that have logged in before have one of their
    /// own, so that however many others there are, they do not keep them out.
    [[nodiscard]] bool take_place(bool is_known) const {
        for (int i = 0; i < lock_tries; ++i) {
            for (std::uint32_t byte = is_known ? known_lock : first_lock; byte <= last_lock; ++byte)
                if (lock(byte))
                    return true;
            pause_milliseconds(2 * lock_pause);
        }
        return false;
    }

    /// Finds and locks the slot of a client, or the one to use for it: a free one, otherwise that
    /// of the client that may try again for the longest time, and one that has logged in before
    /// only if all have. Slots that are locked are not taken from their clients. Returns the
    /// position of the slot; 0 if the file cannot be read or the client's slot is locked, which
    /// `slot` tells.
    [[nodiscard]] std::uint32_t claim(std::uint64_t client, Slot &slot) const {
        slot.client = 0;
        for (std::uint32_t at = sizeof(Header); at < file_size; at += sizeof slot) {
            at = find(client, at, slot);
            if (at == 0)
                return 0;
            if (lock(at)) {
                if (slot.client != client)
                    slot = {client, 0, 0, 0};
                return at;
            }
            if (slot.client == client)
                return 0;
        }
        return 0;
    }

    [[nodiscard]] bool write(std::uint32_t position, const Slot &slot) const {
        return write(position, &slot, sizeof slot);
    }

  private:
    static bool is_private(const struct stat &status) {
        return S_ISREG(status.st_mode) && status.st_uid == geteuid() && status.st_nlink == 1 &&
               (status.st_mode & (S_IRWXG | S_IRWXO)) == 0;
    }

    /// Whether a slot is to be used for a new client rather than another one.
    static bool is_better(const Slot &slot, const Slot &other) {
        if (slot.is_known != other.is_known)
            return slot.is_known < other.is_known;
        return slot.until < other.until;
    }

    /// The position of the client's slot, or of the best one for it, at a position or after it.
    [[nodiscard]] std::uint32_t find(std::uint64_t client, std::uint32_t at, Slot &found) const {
        std::uint32_t position = 0;
        Slot slots[64];
        while (at < file_size) {
            const std::size_t size = at_most(file_size - at, sizeof slots);
            if (!read(at, slots, size))
                return 0;
            for (std::size_t i = 0; i < size / sizeof(Slot); ++i, at += sizeof(Slot)) {
                if (position != 0 && slots[i].client != client && !is_better(slots[i], found))
                    continue;
                found = slots[i];
                position = at;
                if (found.client == client)
                    return position;
            }
        }
        return position;
    }

    bool set_lock(std::uint32_t byte, short type) const {
        struct flock one_byte {};
        one_byte.l_type = type;
        one_byte.l_start = byte;
        one_byte.l_len = 1;
        return fcntl(file_.get(), F_OFD_SETLK, &one_byte) == 0;
    }

    [[nodiscard]] bool wait_for_record() const {
        for (int i = 0; i < lock_tries; ++i) {
            if (lock(record_lock))
                return true;
            pause_milliseconds(lock_pause);
        }
        return false;
    }

    /// The boot identifier is written last, so that an interrupted call is repeated. All of the
    /// file is written, so that no later write fails for want of space.
    [[nodiscard]] bool initialize(const BootId &boot) const {
        Header header{};
        std::memcpy(header.magic, magic, sizeof header.magic);
        if (!write(0, &header, sizeof header) || ftruncate(file_.get(), sizeof header) != 0)
            return false;
        const Slot empty[64] = {};
        for (std::uint32_t at = sizeof header; at < file_size; at += sizeof empty)
            if (!write(at, empty, sizeof empty))
                return false;
        header.boot = boot;
        return write(0, &header, sizeof header);
    }

    [[nodiscard]] bool read(std::uint32_t at, void *block, std::size_t size) const {
        return pread(file_.get(), block, size, at) == static_cast<ssize_t>(size);
    }

    [[nodiscard]] bool write(std::uint32_t at, const void *block, std::size_t size) const {
        return pwrite(file_.get(), block, size, at) == static_cast<ssize_t>(size);
    }

    Descriptor file_;
};

// The accounts.

bool is_locked(const char *hash) { return *hash == '\0' || *hash == '!' || *hash == '*'; }

/// Whether login_auth() computes a hash for this user.
bool has_password(const char *user) {
    passwd entry;
    passwd *account = nullptr;
    char strings[1024];
    if (getpwnam_r(user, &entry, strings, sizeof strings, &account) != 0 || account == nullptr ||
        is_locked(account->pw_passwd))
        return false;
    spwd shadow_entry{};
    spwd *shadow = nullptr;
    char secrets[256]; // as much as login_auth() provides
    getspnam_r(user, &shadow_entry, secrets, sizeof secrets, &shadow);
    const bool is_usable = shadow != nullptr && !is_locked(shadow->sp_pwdp);
    wipe(secrets, sizeof secrets);
    return is_usable;
}

/// Computes a hash as login_auth() does for an existing user, so that the time does not reveal
/// whether a user exists. There is no difference if all hashes are of one method.
void check_another(const char *password) {
    setpwent();
    const passwd *account = nullptr;
    do
        account = getpwent();
    while (account != nullptr && !has_password(account->pw_name));
    char user[CORVEL_USER_MAX + 1];
    store(user, account != nullptr ? account->pw_name : "");
    endpwent();
    login_auth(user, password);
}

bool check_account(const char *user, const char *password) {
    if (has_password(user))
        return login_auth(user, password) == CORVEL_LOGIN_ACCEPTED;
    check_another(password);
    return false;
}

bool is_acceptable(std::string_view text) {
    return text.size() <= CORVEL_USER_MAX && std::none_of(text.begin(), text.end(), [](char each) {
               return static_cast<unsigned char>(each) < ' ' || each == '\x7F';
           });
}

// Attempts.

constexpr std::uint32_t forgotten_after = 15 * 60;
constexpr unsigned longest_delay = 24 * 60 * 60;

corvel_login_rules with_defaults(const corvel_login_rules *given) {
    corvel_login_rules rules{};
    if (given != nullptr)
        rules = *given;
    if (rules.record == nullptr)
        rules.record = "/run/logins";
    if (rules.free_attempts == 0)
        rules.free_attempts = 3;
    if (rules.longest_seconds == 0)
        rules.longest_seconds = 60;
    rules.longest_seconds = std::min(rules.longest_seconds, longest_delay);
    if (rules.check == nullptr)
        rules.check = check_account;
    return rules;
}

/// The delay after a number of wrong passwords in a row, in seconds.
std::uint32_t delay_after(std::uint32_t failures, const corvel_login_rules &rules) {
    if (failures <= rules.free_attempts)
        return 0;
    const std::uint32_t doublings = failures - rules.free_attempts - 1;
    return doublings < 17 ? std::min(std::uint32_t{1} << doublings, rules.longest_seconds)
                          : rules.longest_seconds;
}

/// The time until another one, 0 if it is past.
std::uint32_t seconds_between(std::uint32_t now, std::uint32_t until) {
    return now < until ? until - now : 0;
}

/// A slot as it counts now. It may have been written with other rules.
Slot at_present(const Slot &slot, std::uint32_t now, const corvel_login_rules &rules) {
    Slot present = slot;
    present.until = std::min(slot.until, now + 1 + rules.longest_seconds);
    if (seconds_between(present.until, now) >= forgotten_after)
        present.failures = 0;
    return present;
}

corvel_login_verdict wait(unsigned &seconds, unsigned how_long) {
    seconds = how_long;
    return CORVEL_LOGIN_WAIT;
}

/// An attempt counts as wrong until the password has proved right, so that closing the connection,
/// which ends this program, gains nothing.
corvel_login_verdict attempt(const corvel_login_rules &rules, std::uint64_t client,
                             const char *user, const char *password, unsigned &seconds) {
    const Record record(rules.record);
    Slot slot;
    if (!record.prepare())
        return CORVEL_LOGIN_FAILED;
    const std::uint32_t position = record.claim(client, slot);
    if (position == 0 && slot.client == client) // another of its attempts is being checked
        return wait(seconds, 1);
    if (position == 0)
        return CORVEL_LOGIN_FAILED;
    const std::uint32_t now = boot_seconds();
    const Slot before = at_present(slot, now, rules);
    if (before.until > now)
        return wait(seconds, before.until - now);
    slot = before;
    if (slot.failures < UINT16_MAX)
        ++slot.failures;
    // The present second has begun already: one more, so that the delay is not shorter.
    const std::uint32_t delay = delay_after(slot.failures, rules);
    slot.until = delay != 0 ? now + 1 + delay : now;
    if (!record.write(position, slot))
        return CORVEL_LOGIN_FAILED;
    record.unlock(record_lock);

    if (!record.take_place(slot.is_known != 0)) {
        static_cast<void>(record.write(position, before));
        return wait(seconds, 1);
    }
    if (is_acceptable(text_of(user)) && is_acceptable(text_of(password)) && *text_or_empty(user) &&
        password != nullptr && rules.check(user, password)) {
        static_cast<void>(record.write(position, {client, now, 0, 1}));
        return CORVEL_LOGIN_RIGHT;
    }
    seconds = seconds_between(boot_seconds(), slot.until);
    return CORVEL_LOGIN_WRONG;
}

} // namespace
} // namespace corvel

extern "C" {

using namespace corvel;

corvel_login_verdict corvel_login(const corvel_request *request, const corvel_login_rules *rules,
                                  const char *user, const char *password, unsigned *seconds) {
    unsigned how_long = 0;
    corvel_login_verdict verdict = CORVEL_LOGIN_FAILED;
    if (request != nullptr)
        verdict = attempt(with_defaults(rules), client_named(corvel_client_address(request)), user,
                          password, how_long);
    if (seconds != nullptr)
        *seconds = how_long;
    return verdict;
}

} // extern "C"

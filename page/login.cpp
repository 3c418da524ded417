// SPDX-License-Identifier: MIT
#include <corvel.h>
#include <corvel_page.h>

#include <algorithm>
#include <arpa/inet.h>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <pwd.h>
#include <shadow.h>
#include <unistd.h>

#include "page/boot.h"
#include "page/record_file.h"
#include "page/syntax.h"
#include "support/big_endian.h"
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
std::uint64_t client_named(const char *name) {
    if (*name == '[')
        ++name;
    char text[INET6_ADDRSTRLEN];
    unsigned char address[16] = {};
    store(text, {name, std::strcspn(name, "]%")});
    if (inet_pton(AF_INET6, text, address) == 1)
        return client_from(address);
    if (inet_pton(AF_INET, text, address) == 1)
        return ipv4_prefix | big_endian_word(std::span(address).first<4>());
    return unknown_client;
}

// The record.

/// What is known of a client.
struct Slot {
    std::uint64_t client;   ///< 0 if the slot is free.
    std::uint32_t until;    ///< When the next attempt is permitted: seconds since the start.
    std::uint16_t failures; ///< Wrong passwords in a row.
    std::uint16_t is_known; ///< 1 after a right password.
};
static_assert(sizeof(Slot) == 16);

constexpr std::size_t slot_count = 1024;

/// The content of the file. Its times are valid since this start of the device.
struct Content {
    char magic[12];
    BootId boot;
    Slot slots[slot_count];
};
constexpr char magic[] = "corvel login";
static_assert(sizeof magic == sizeof Content::magic + 1);
static_assert(offsetof(Content, slots) == 48 && sizeof(Content) == 48 + slot_count * sizeof(Slot));

constexpr int lock_tries = 500;
constexpr long lock_pause = 10;

/// Bytes before the slots. A lock on one is held during the stated time; one on the first byte of a
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
    explicit Record(const char *path) : file_(path, O_RDWR | O_CREAT) {}

    /// Locks the record and reads it. An empty file and a record of an earlier start of the device
    /// become an empty record. One that was not written whole has not its size.
    [[nodiscard]] bool load() {
        BootId boot;
        if (!file_ || !content_ || !wait_for_one(record_lock, record_lock, lock_pause) ||
            !read_boot_id(boot))
            return false;
        const off_t size = lseek(file_.get(), 0, SEEK_END);
        if (size != 0 &&
            (!file_.read(0, content_.get(), at_most(size_from(size), sizeof *content_)) ||
             std::memcmp(content_->magic, magic, sizeof content_->magic) != 0))
            return false;
        if (size == sizeof *content_ && content_->boot == boot)
            return true;
        std::memset(content_.get(), 0, sizeof *content_);
        std::memcpy(content_->magic, magic, sizeof content_->magic);
        content_->boot = boot;
        return ftruncate(file_.get(), 0) == 0 && file_.write(0, content_.get(), sizeof *content_);
    }
    void unlock() const { file_.unlock(record_lock); }

    /// Takes one of the places for checks. Clients that have logged in before have one of their
    /// own, so that however many others there are, they do not keep them out.
    [[nodiscard]] bool take_place(bool is_known) const {
        return wait_for_one(is_known ? known_lock : first_lock, last_lock, 2 * lock_pause);
    }

    /// Finds and locks the slot of a client, or the one to use for it: a free one, otherwise that
    /// of the client that may try again for the longest time, and one that has logged in before
    /// only if all have. Slots that are locked are not taken from their clients. Null if there is
    /// none, or if the client's slot is locked, which @p is_busy then tells.
    Slot *claim(std::uint64_t client, bool &is_busy) {
        for (Slot *start = content_->slots; start < std::end(content_->slots); ++start) {
            start = find(client, start);
            const bool is_own = start->client == client;
            if (file_.lock(position_of(*start))) {
                if (!is_own)
                    *start = {client, 0, 0, 0};
                return start;
            }
            is_busy = is_own;
            if (is_own)
                break;
        }
        return nullptr;
    }

    [[nodiscard]] bool write(const Slot &slot) const {
        return file_.write(position_of(slot), &slot, sizeof slot);
    }

  private:
    /// Whether a slot is to be used for a new client rather than another one.
    static bool is_better(const Slot &slot, const Slot &other) {
        if (slot.is_known != other.is_known)
            return slot.is_known < other.is_known;
        return slot.until < other.until;
    }

    /// The client's slot, or the best one for it, from a slot on.
    Slot *find(std::uint64_t client, Slot *slot) {
        Slot *best = slot;
        for (; slot < std::end(content_->slots); ++slot) {
            if (slot->client == client)
                return slot;
            if (is_better(*slot, *best))
                best = slot;
        }
        return best;
    }

    [[nodiscard]] std::uint32_t position_of(const Slot &slot) const {
        return static_cast<std::uint32_t>(reinterpret_cast<const char *>(&slot) -
                                          reinterpret_cast<const char *>(content_.get()));
    }

    [[nodiscard]] bool wait_for_one(std::uint32_t first, std::uint32_t last, long pause) const {
        for (int i = 0; i < lock_tries; ++i) {
            for (std::uint32_t byte = first; byte <= last; ++byte)
                if (file_.lock(byte))
                    return true;
            pause_milliseconds(pause);
        }
        return false;
    }

    RecordFile file_;
    HeapBlock<Content> content_{static_cast<Content *>(std::calloc(1, sizeof(Content)))};
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

bool is_acceptable(const char *text) {
    return text != nullptr && !has_control_character(text) && std::strlen(text) <= CORVEL_USER_MAX;
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

/// An attempt counts as wrong until the password has proved right, so that closing the connection,
/// which ends this program, gains nothing.
corvel_login_verdict attempt(const corvel_login_rules &rules, std::uint64_t client,
                             const char *user, const char *password, unsigned &seconds) {
    Record record(rules.record);
    bool is_busy = false;
    Slot *const slot = record.load() ? record.claim(client, is_busy) : nullptr;
    seconds = 1;
    if (is_busy) // another attempt of the client is being checked
        return CORVEL_LOGIN_WAIT;
    seconds = 0;
    if (slot == nullptr)
        return CORVEL_LOGIN_FAILED;

    const std::uint32_t now = boot_seconds();
    // The slot may have been written with other rules.
    slot->until = std::min(slot->until, now + 1 + rules.longest_seconds);
    if (slot->until > now) {
        seconds = slot->until - now;
        return CORVEL_LOGIN_WAIT;
    }
    if (now - slot->until >= forgotten_after)
        slot->failures = 0;
    const Slot before = *slot;
    if (slot->failures < UINT16_MAX)
        ++slot->failures;
    // The present second has begun already: one more, so that the delay is not shorter.
    const std::uint32_t delay = delay_after(slot->failures, rules);
    slot->until = delay != 0 ? now + 1 + delay : now;
    if (!record.write(*slot))
        return CORVEL_LOGIN_FAILED;
    record.unlock();

    if (!record.take_place(slot->is_known != 0)) {
        *slot = before;
        static_cast<void>(record.write(*slot));
        seconds = 1;
        return CORVEL_LOGIN_WAIT;
    }
    if (is_acceptable(user) && is_acceptable(password) && *user != '\0' &&
        rules.check(user, password)) {
        *slot = {client, now, 0, 1};
        static_cast<void>(record.write(*slot));
        return CORVEL_LOGIN_RIGHT;
    }
    const std::uint32_t later = boot_seconds();
    seconds = later < slot->until ? slot->until - later : 0;
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

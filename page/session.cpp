// SPDX-License-Identifier: MIT
#include <corvel_page.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <new>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <type_traits>
#include <unistd.h>

#include "page/boot.h"
#include "page/secret.h"
#include "page/sha256.h"
#include "support/descriptor.h"
#include "support/handles.h"
#include "support/pause.h"
#include "support/text.h"

using namespace corvel;

namespace corvel {
namespace {

constexpr std::size_t user_size = CORVEL_USER_MAX + 1;
constexpr std::size_t cookie_size = 64;
/// Of identifiers, of tokens, and of the names of files: a digest as text.
constexpr std::size_t digest_length = Sha256::text_size - 1;

constexpr int lock_tries = 500;
constexpr long lock_pause = 10;

/// What is known of a session. The content of its file is this record; the time of its last use is
/// the file's modification time, which is set to the time since the device's start.
struct Record {
    std::uint32_t created; ///< Seconds since the device's start.
    BootId boot;
    char user[user_size];
};
static_assert(std::is_trivially_copyable_v<Record> && sizeof(Record) == 4 + 36 + user_size);

/// The hashes of an identifier. The browser keeps the identifier, the device only a hash of it, so
/// that whoever reads the directory cannot take a session over. The form token is another hash.
struct Digests {
    char file[Sha256::text_size]; ///< The name in the directory.
    char token[Sha256::text_size];
};

} // namespace
} // namespace corvel

struct corvel_session {
    Descriptor directory{-1};
    corvel_session_rules rules{}; ///< Its strings are valid in the call that gave them.
    BootId boot{};
    Digests digests{};
    char cookie[cookie_size]{};
    Record record{}; ///< Its user is empty if the session has ended.
};

namespace corvel {
namespace {

struct SessionRelease {
    void operator()(corvel_session *session) const {
        session->~corvel_session();
        wipe_and_free(session, sizeof *session);
    }
};

using Session = std::unique_ptr<corvel_session, SessionRelease>;

bool is_account(const char *user) {
    passwd entry;
    passwd *found = nullptr;
    char strings[1024];
    return getpwnam_r(user, &entry, strings, sizeof strings, &found) == 0 && found != nullptr;
}

// Identifiers.

struct Identifier {
    char text[Sha256::text_size]{};

    Identifier() = default;
    Identifier(const Identifier &) = delete;
    Identifier &operator=(const Identifier &) = delete;
    ~Identifier() { wipe(text, sizeof text); }

    [[nodiscard]] bool generate() {
        char bytes[32];
        const bool done = random_bytes(bytes, sizeof bytes);
        hash_text("", {bytes, sizeof bytes}, text);
        wipe(bytes, sizeof bytes);
        return done;
    }
};

bool is_identifier(const char *text) {
    return std::strspn(text, "0123456789abcdef") == digest_length && text[digest_length] == '\0';
}

void set_digests(Digests &digests, const char *identifier) {
    hash_text("", identifier, digests.file);
    hash_text("token ", identifier, digests.token);
}

// The directory.

void set_rules(corvel_session &session, const corvel_session_rules *given) {
    corvel_session_rules &rules = session.rules;
    if (given != nullptr)
        rules = *given;
    if (rules.directory == nullptr)
        rules.directory = "/run/sessions";
    if (rules.cookie == nullptr)
        rules.cookie = "session";
    if (rules.idle_seconds == 0)
        rules.idle_seconds = 15 * 60;
    if (rules.lifetime_seconds == 0)
        rules.lifetime_seconds = 12 * 60 * 60;
    if (rules.sessions_max == 0)
        rules.sessions_max = 8;
    if (rules.user_exists == nullptr)
        rules.user_exists = is_account;
}

/// Opens the directory. Only the user of this process may be able to do that: anybody who can may
/// lock it, and anybody who can write to it may make sessions.
bool open_directory(corvel_session &session) {
    session.directory =
        Descriptor(open(session.rules.directory, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status;
    return session.directory && fstat(session.directory.get(), &status) == 0 &&
           status.st_uid == geteuid() && (status.st_mode & (S_IRWXG | S_IRWXO)) == 0 &&
           read_boot_id(session.boot);
}

/// The lock of the directory: only its holder creates, renames and counts sessions, and removes
/// those of others. It is not held if another process keeps it for five seconds.
class Lock {
  public:
    explicit Lock(const corvel_session &session) : directory_(session.directory.get()) {
        for (int i = 0; i < lock_tries && !held_; ++i) {
            held_ = flock(directory_, LOCK_EX | LOCK_NB) == 0;
            if (!held_)
                pause_milliseconds(lock_pause);
        }
    }
    Lock(const Lock &) = delete;
    Lock &operator=(const Lock &) = delete;
    ~Lock() { flock(directory_, LOCK_UN); }

    [[nodiscard]] bool held() const { return held_; }

  private:
    int directory_;
    bool held_ = false;
};

// The files.

enum class State { valid, expired, unreadable };

bool is_within(std::uint32_t time, unsigned seconds) {
    const std::uint32_t now = boot_seconds();
    return time <= now && now - time < seconds;
}

/// Reads a session and when it was last used: seconds in the upper half, nanoseconds in the lower
/// one. A malformed file counts as expired, a missing one as well.
State read(const corvel_session &session, const char *name, Record &record, std::uint64_t &used) {
    const Descriptor file(openat(session.directory.get(), name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status;
    if (!file)
        return errno == ENOENT || errno == ELOOP ? State::expired : State::unreadable;
    if (fstat(file.get(), &status) != 0)
        return State::unreadable;
    if (!S_ISREG(status.st_mode) || status.st_size != sizeof record)
        return State::expired;
    if (read_fully(file.get(), &record, sizeof record) != sizeof record)
        return State::unreadable;
    const auto seconds = static_cast<std::uint32_t>(status.st_mtim.tv_sec);
    used = std::uint64_t{seconds} << 32 | static_cast<std::uint32_t>(status.st_mtim.tv_nsec);
    const bool is_valid = record.boot == session.boot && *record.user != '\0' &&
                          record.user[user_size - 1] == '\0' && seconds == status.st_mtim.tv_sec &&
                          is_within(seconds, session.rules.idle_seconds) &&
                          is_within(record.created, session.rules.lifetime_seconds);
    return is_valid ? State::valid : State::expired;
}

/// Sets the time of last use of a session.
bool set_used(const corvel_session &session) {
    timespec times[2];
    times[0] = times[1] = boot_time();
    return utimensat(session.directory.get(), session.digests.file, times, AT_SYMLINK_NOFOLLOW) ==
           0;
}

/// True also if there is no such file.
bool remove_file(const corvel_session &session, const char *name) {
    return unlinkat(session.directory.get(), name, 0) == 0 || errno == ENOENT;
}

/// Creates the file of a session. False if it could not be written whole.
bool create_file(corvel_session &session) {
    const Descriptor file(openat(session.directory.get(), session.digests.file,
                                 O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                                 S_IRUSR | S_IWUSR));
    if (!file)
        return false;
    Record &record = session.record;
    record.boot = session.boot;
    record.created = boot_seconds();
    if (write(file.get(), &record, sizeof record) == sizeof record && set_used(session))
        return true;
    static_cast<void>(remove_file(session, session.digests.file));
    return false;
}

struct DirectoryClose {
    void operator()(DIR *directory) const { closedir(directory); }
};

/// What is in a locked directory.
struct Survey {
    unsigned total; ///< Sessions of all users.
    unsigned own;   ///< Those of one user, except the one that is kept.
    std::uint64_t oldest_used;
    char oldest[Sha256::text_size]; ///< The one of them that was not used for the longest time.
};

/// Counts the sessions and removes those that have expired. False if one cannot be read or removed.
bool survey(const corvel_session &session, const char *user, const char *kept, Survey &found) {
    found.total = found.own = 0;
    Descriptor again(openat(session.directory.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::unique_ptr<DIR, DirectoryClose> entries(again ? fdopendir(again.get()) : nullptr);
    if (!entries)
        return false;
    again.release(); // closedir() closes it
    for (;;) {
        errno = 0;
        const dirent *const entry = readdir(entries.get());
        if (entry == nullptr)
            return errno == 0;
        const char *const name = entry->d_name;
        if (std::strlen(name) != digest_length)
            continue;
        Record record;
        std::uint64_t used = 0;
        const State state = read(session, name, record, used);
        if (state == State::unreadable || (state == State::expired && !remove_file(session, name)))
            return false;
        if (state == State::expired)
            continue;
        ++found.total;
        if (std::strcmp(record.user, user) != 0 || std::strcmp(name, kept) == 0)
            continue;
        if (found.own++ == 0 || used < found.oldest_used) {
            found.oldest_used = used;
            std::memcpy(found.oldest, name, sizeof found.oldest);
        }
    }
}

/// Ends sessions of a user except one that is kept, the least recently used ones first, until fewer
/// than `limit` are left and there is room for one more, or none is left. Sessions of other users
/// stay. Returns how many have ended; -1 on failure. Each turn removes a file.
int reduce(const corvel_session &session, const char *user, const char *kept, unsigned limit,
           Survey &left) {
    for (int ended = 0; survey(session, user, kept, left); ++ended) {
        if (left.own == 0 || (left.own < limit && left.total < CORVEL_SESSIONS_MAX))
            return ended;
        if (!remove_file(session, left.oldest))
            break;
    }
    return -1;
}

// Sessions.

Session new_session(const corvel_session_rules *given) {
    void *const memory = std::malloc(sizeof(corvel_session));
    if (memory == nullptr)
        return nullptr;
    Session session(new (memory) corvel_session);
    set_rules(*session, given);
    const std::string_view cookie = session->rules.cookie;
    return store(session->cookie, cookie) == cookie.size() ? std::move(session) : nullptr;
}

/// Finds the session of a request. Other servers on the same host can set cookies of this name,
/// too, and make the browser send them first. They are skipped.
State find(corvel_session &session, const corvel_request *request) {
    for (std::size_t i = 0;; ++i) {
        const char *const value = corvel_cookie(request, session.cookie, i);
        if (value == nullptr)
            return State::expired;
        if (!is_identifier(value))
            continue;
        set_digests(session.digests, value);
        std::uint64_t used = 0;
        const State state = read(session, session.digests.file, session.record, used);
        if (state == State::unreadable ||
            (state == State::valid && session.rules.user_exists(session.record.user)))
            return state;
    }
}

bool is_active(const corvel_session *session) {
    return session != nullptr && *session->record.user != '\0';
}

/// Writes the file of a new session, in place of the request's former one.
bool create(corvel_session &session, const corvel_request *request, const char *user,
            const Identifier &identifier) {
    mkdir(session.rules.directory, S_IRWXU);
    if (!open_directory(session))
        return false;
    const Lock lock(session);
    const State former = lock.held() ? find(session, request) : State::unreadable;
    if (former == State::unreadable ||
        (former == State::valid && !remove_file(session, session.digests.file)))
        return false;
    Survey left;
    if (reduce(session, user, "", session.rules.sessions_max, left) < 0 ||
        left.total >= CORVEL_SESSIONS_MAX)
        return false;
    set_digests(session.digests, identifier.text);
    session.record = {};
    store(session.record.user, user);
    return create_file(session);
}

/// Renames the file under the lock, so that others see one of the names.
bool rename_file(const corvel_session &session, const char *name) {
    const Lock lock(session);
    const int directory = session.directory.get();
    return lock.held() && renameat(directory, session.digests.file, directory, name) == 0;
}

} // namespace
} // namespace corvel

extern "C" {

corvel_session *corvel_session_find(const corvel_request *request,
                                    const corvel_session_rules *rules) {
    Session session = new_session(rules);
    return session && open_directory(*session) && find(*session, request) == State::valid
               ? session.release()
               : nullptr;
}

void corvel_session_free(corvel_session *session) { Session(session).reset(); }

const char *corvel_session_user(const corvel_session *session) {
    return is_active(session) ? session->record.user : nullptr;
}

const char *corvel_session_token(const corvel_session *session) {
    return is_active(session) ? session->digests.token : nullptr;
}

bool corvel_session_check(const corvel_session *session, const char *token) {
    return is_active(session) && equal_in_constant_time(session->digests.token, text_of(token));
}

bool corvel_session_touch(corvel_session *session) {
    return is_active(session) && set_used(*session);
}

corvel_session *corvel_session_start(const corvel_request *request, corvel_answer *answer,
                                     const corvel_session_rules *rules, const char *user) {
    Session session = new_session(rules);
    const std::size_t length = text_of(user).size();
    Identifier identifier;
    if (!session || request == nullptr || answer == nullptr || length == 0 || length >= user_size ||
        !session->rules.user_exists(user) || !identifier.generate() ||
        !create(*session, request, user, identifier))
        return nullptr;
    corvel_answer_cookie(answer, session->cookie, identifier.text, -1);
    return session.release();
}

bool corvel_session_renew(corvel_session *session, corvel_answer *answer) {
    Identifier identifier;
    if (!is_active(session) || answer == nullptr || !identifier.generate())
        return false;
    Digests digests;
    set_digests(digests, identifier.text);
    if (!rename_file(*session, digests.file))
        return false;
    session->digests = digests;
    corvel_answer_cookie(answer, session->cookie, identifier.text, -1);
    return true;
}

bool corvel_session_end(corvel_session *session, corvel_answer *answer) {
    if (!is_active(session) || !remove_file(*session, session->digests.file))
        return false;
    *session->record.user = '\0';
    wipe(&session->digests, sizeof session->digests);
    corvel_answer_cookie(answer, session->cookie, nullptr, 0);
    return true;
}

int corvel_session_end_all(const corvel_session_rules *rules, const char *user,
                           const corvel_session *kept) {
    if (user == nullptr)
        return -1;
    corvel_session all;
    set_rules(all, rules);
    if (!open_directory(all))
        return !all.directory && errno == ENOENT ? 0 : -1;
    const Lock lock(all);
    Survey left;
    return lock.held() ? reduce(all, user, is_active(kept) ? kept->digests.file : "", 1, left) : -1;
}

} // extern "C"

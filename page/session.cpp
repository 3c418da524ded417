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

/// What is known of a session. The content of its file is this record; the time of its last use is
/// the file's modification time, which is set to the time since the device's start.
struct Record {
    std::uint32_t created; ///< Seconds since the device's start.
    BootId boot;
    char user[user_size];
};
static_assert(std::is_trivially_copyable_v<Record> && sizeof(Record) == 4 + 36 + user_size);

/// The hashes of an identifier.
struct Digests {
    char file[Sha256::text_size]; ///< The name in the directory.
    char token[Sha256::text_size];
};

} // namespace
} // namespace corvel

struct corvel_session {
    Descriptor directory{-1};
    Digests digests{};
    char cookie[cookie_size]{};
    Record record{}; ///< Its user is empty if the session has ended.

    corvel_session() = default;
    corvel_session(const corvel_session &) = delete;
    corvel_session &operator=(const corvel_session &) = delete;
    ~corvel_session() { wipe(&digests, sizeof digests); }
};

namespace corvel {
namespace {

struct SessionRelease {
    void operator()(corvel_session *session) const {
        session->~corvel_session();
        std::free(session);
    }
};

using Session = std::unique_ptr<corvel_session, SessionRelease>;

bool is_account(const char *user) {
    passwd entry;
    passwd *found = nullptr;
    char strings[1024];
    return getpwnam_r(user, &entry, strings, sizeof strings, &found) == 0 && found != nullptr;
}

corvel_session_rules with_defaults(const corvel_session_rules *given) {
    corvel_session_rules rules{};
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
    return rules;
}

// Identifiers.

/// The browser keeps the identifier. The device keeps only a hash of it, the name of the file, so
/// that whoever reads the directory cannot take a session over. The form token is another hash.
class Identifier {
  public:
    Identifier() = default;
    Identifier(const Identifier &) = delete;
    Identifier &operator=(const Identifier &) = delete;
    ~Identifier() { wipe(text_, sizeof text_); }

    [[nodiscard]] bool generate() {
        char bytes[Sha256::digest_size];
        if (!random_bytes(bytes, sizeof bytes))
            return false;
        hash({bytes, sizeof bytes}, "", text_);
        wipe(bytes, sizeof bytes);
        return true;
    }

    /// Takes the value of a cookie. False if it is not an identifier.
    [[nodiscard]] bool take(std::string_view value) {
        store(text_, value);
        return value.size() == digest_length &&
               value.find_first_not_of("0123456789abcdef") == std::string_view::npos;
    }

    [[nodiscard]] const char *text() const { return text_; }

    [[nodiscard]] Digests digests() const {
        Digests result;
        hash("", text_, result.file);
        hash("token ", text_, result.token);
        return result;
    }

  private:
    static void hash(std::string_view prefix, std::string_view text, char (&result)[65]) {
        Sha256 sum;
        sum.update(prefix);
        sum.update(text);
        sum.digest_text(result);
        wipe(&sum, sizeof sum);
    }

    char text_[Sha256::text_size]{};
};

// The directory.

constexpr int lock_tries = 500;
constexpr long lock_pause = 10;

/// Only the user of this process may be able to open the directory: anybody who can may lock it,
/// and anybody who can write to it may make sessions.
bool is_private(const struct stat &status) {
    return status.st_uid == geteuid() && (status.st_mode & (S_IRWXG | S_IRWXO)) == 0;
}

/// Opens a directory of sessions. On failure, errno is ENOENT if there is none.
Descriptor open_directory(const char *path) {
    Descriptor directory(open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status;
    if (!directory || (fstat(directory.get(), &status) == 0 && is_private(status)))
        return directory;
    errno = EACCES;
    return Descriptor(-1);
}

Descriptor open_again(const Descriptor &directory) {
    return Descriptor(openat(directory.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

/// Locks the directory: only its holder creates, renames and counts sessions, and removes those of
/// others. The lock is released with the descriptor; there is none if another process keeps it for
/// five seconds.
Descriptor lock_directory(const Descriptor &directory) {
    Descriptor lock = open_again(directory);
    for (int i = 0; lock && i < lock_tries; ++i) {
        if (flock(lock.get(), LOCK_EX | LOCK_NB) == 0)
            return lock;
        pause_milliseconds(lock_pause);
    }
    return Descriptor(-1);
}

// The files.

enum class State { valid, expired, unreadable };

/// Sets the time of last use of a session.
bool set_used(int directory, const char *name, std::uint32_t used) {
    timespec times[2]{};
    times[0].tv_sec = times[1].tv_sec = static_cast<std::time_t>(used);
    return utimensat(directory, name, times, AT_SYMLINK_NOFOLLOW) == 0;
}

/// True also if there is no such file.
bool remove_file(int directory, const char *name) {
    return unlinkat(directory, name, 0) == 0 || errno == ENOENT;
}

/// Reads and writes the files of a directory. The rules must outlive the object.
class Files {
  public:
    Files(const Descriptor &directory, const corvel_session_rules &rules)
        : directory_(directory.get()), rules_(rules), has_boot_(read_boot_id(boot_)) {}

    /// Reads a session. A malformed file counts as expired, a missing one as well.
    State read(const char *name, Record &record, std::uint32_t &used) const {
        const Descriptor file(openat(directory_, name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
        if (!file)
            return errno == ENOENT || errno == ELOOP ? State::expired : State::unreadable;
        struct stat status;
        if (fstat(file.get(), &status) != 0 || !has_boot_)
            return State::unreadable;
        if (!S_ISREG(status.st_mode) || status.st_size != sizeof record)
            return State::expired;
        if (read_fully(file.get(), &record, sizeof record) != sizeof record)
            return State::unreadable;
        used = static_cast<std::uint32_t>(status.st_mtime);
        const bool is_valid = record.boot == boot_ && *record.user != '\0' &&
                              text_in(record.user).size() < user_size && used == status.st_mtime &&
                              is_within(used, rules_.idle_seconds) &&
                              is_within(record.created, rules_.lifetime_seconds);
        return is_valid ? State::valid : State::expired;
    }

    /// Creates a session, which is used at the same time. False if it could not be written whole.
    bool create(const char *name, Record &record) const {
        const Descriptor file(openat(directory_, name,
                                     O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                                     S_IRUSR | S_IWUSR));
        if (!file)
            return false;
        record.boot = boot_;
        record.created = boot_seconds();
        if (has_boot_ && write(file.get(), &record, sizeof record) == sizeof record &&
            set_used(directory_, name, record.created))
            return true;
        static_cast<void>(remove(name));
        return false;
    }

    [[nodiscard]] bool remove(const char *name) const { return remove_file(directory_, name); }

  private:
    /// Whether a time is not in the future and less than a number of seconds ago.
    static bool is_within(std::uint32_t time, unsigned seconds) {
        const std::uint32_t now = boot_seconds();
        return time <= now && now - time < seconds;
    }

    int directory_;
    const corvel_session_rules &rules_;
    BootId boot_{};
    bool has_boot_;
};

struct DirectoryClose {
    void operator()(DIR *directory) const { closedir(directory); }
};

/// The sessions of a locked directory, one after the other. Files of expired sessions are removed.
class Listing {
  public:
    Listing(const Descriptor &directory, const Files &files) : files_(files) {
        Descriptor again = open_again(directory);
        entries_.reset(again ? fdopendir(again.get()) : nullptr);
        failed_ = entries_ == nullptr;
        if (!failed_)
            again.release(); // closedir() closes it
    }

    /// False after the last one, and after a failure.
    bool next() {
        while (!failed_) {
            errno = 0;
            const dirent *const entry = readdir(entries_.get());
            failed_ = entry == nullptr && errno != 0;
            if (entry == nullptr)
                return false;
            if (text_of(entry->d_name).size() != digest_length)
                continue;
            store(name, entry->d_name);
            const State state = files_.read(name, record, used);
            if (state == State::valid)
                return true;
            failed_ = state == State::unreadable || !files_.remove(name);
        }
        return false;
    }
    [[nodiscard]] bool failed() const { return failed_; }

    // The session that next() found.
    char name[Sha256::text_size]{};
    Record record{};
    std::uint32_t used = 0;

  private:
    const Files &files_;
    std::unique_ptr<DIR, DirectoryClose> entries_;
    bool failed_;
};

/// Removes the sessions of a user that were not used for the longest time, until there is room for
/// one more. Sessions of other users stay. Each turn removes a file, so the number of turns is
/// limited by their number.
bool make_room(const Descriptor &directory, const Files &files, unsigned sessions_max,
               std::string_view user) {
    for (;;) {
        unsigned own = 0;
        unsigned total = 0;
        std::uint32_t oldest_used = 0;
        char oldest[Sha256::text_size];
        Listing listing(directory, files);
        while (listing.next()) {
            ++total;
            if (text_in(listing.record.user) != user)
                continue;
            if (own++ == 0 || listing.used < oldest_used) {
                oldest_used = listing.used;
                store(oldest, listing.name);
            }
        }
        if (listing.failed())
            return false;
        if (own < sessions_max && total < CORVEL_SESSIONS_MAX)
            return true;
        if (own == 0 || !files.remove(oldest))
            return false;
    }
}

// Sessions.

Session allocate_session(const corvel_session_rules &rules) {
    if (text_of(rules.cookie).size() >= cookie_size)
        return nullptr;
    void *const memory = std::malloc(sizeof(corvel_session));
    if (memory == nullptr)
        return nullptr;
    Session session(new (memory) corvel_session);
    store(session->cookie, rules.cookie);
    return session;
}

/// Finds the session of a request. Other servers on the same host can set cookies of this name,
/// too, and make the browser send them first. They are skipped.
State find(const corvel_request *request, const corvel_session_rules &rules, const Files &files,
           Digests &digests, Record &record) {
    for (std::size_t i = 0;; ++i) {
        const char *const cookie = corvel_cookie(request, rules.cookie, i);
        Identifier identifier;
        if (cookie == nullptr)
            return State::expired;
        if (!identifier.take(cookie))
            continue;
        digests = identifier.digests();
        std::uint32_t used = 0;
        const State state = files.read(digests.file, record, used);
        if (state == State::unreadable || (state == State::valid && rules.user_exists(record.user)))
            return state;
    }
}

bool is_active(const corvel_session *session) {
    return session != nullptr && *session->record.user != '\0';
}

/// Writes the file of a new session, in place of the request's former one.
bool create(corvel_session &session, const corvel_request *request,
            const corvel_session_rules &rules) {
    mkdir(rules.directory, S_IRWXU);
    session.directory = open_directory(rules.directory);
    if (!session.directory)
        return false;
    const Descriptor lock = lock_directory(session.directory);
    if (!lock)
        return false;
    const Files files(session.directory, rules);
    Digests former;
    Record record;
    const State state = find(request, rules, files, former, record);
    wipe(former.token, sizeof former.token);
    return state != State::unreadable && (state == State::expired || files.remove(former.file)) &&
           make_room(session.directory, files, rules.sessions_max, session.record.user) &&
           files.create(session.digests.file, session.record);
}

/// Under the lock, so that end_all() sees either name.
bool rename_file(const Descriptor &directory, const char *from, const char *to) {
    const Descriptor lock = lock_directory(directory);
    return lock && renameat(directory.get(), from, directory.get(), to) == 0;
}

int end_all(const corvel_session_rules &rules, std::string_view user, std::string_view kept) {
    const Descriptor directory = open_directory(rules.directory);
    if (!directory)
        return errno == ENOENT ? 0 : -1;
    const Descriptor lock = lock_directory(directory);
    if (!lock)
        return -1;
    int ended = 0;
    bool failed = false;
    const Files files(directory, rules);
    Listing listing(directory, files);
    while (listing.next()) {
        if (text_in(listing.record.user) != user || text_in(listing.name) == kept)
            continue;
        if (files.remove(listing.name))
            ++ended;
        else
            failed = true;
    }
    return failed || listing.failed() ? -1 : ended;
}

} // namespace
} // namespace corvel

extern "C" {

corvel_session *corvel_session_find(const corvel_request *request,
                                    const corvel_session_rules *given) {
    const corvel_session_rules rules = with_defaults(given);
    Session session = allocate_session(rules);
    if (session == nullptr || !(session->directory = open_directory(rules.directory)))
        return nullptr;
    const Files files(session->directory, rules);
    const State state = find(request, rules, files, session->digests, session->record);
    return state == State::valid ? session.release() : nullptr;
}

void corvel_session_free(corvel_session *session) {
    if (session != nullptr)
        SessionRelease()(session);
}

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
    return is_active(session) &&
           set_used(session->directory.get(), session->digests.file, boot_seconds());
}

corvel_session *corvel_session_start(const corvel_request *request, corvel_answer *answer,
                                     const corvel_session_rules *given, const char *user) {
    const corvel_session_rules rules = with_defaults(given);
    const std::string_view name = text_of(user);
    Identifier identifier;
    if (request == nullptr || answer == nullptr || name.empty() || name.size() >= user_size ||
        !rules.user_exists(user) || !identifier.generate())
        return nullptr;
    Session session = allocate_session(rules);
    if (session == nullptr)
        return nullptr;
    store(session->record.user, name);
    session->digests = identifier.digests();
    if (!create(*session, request, rules))
        return nullptr;
    corvel_answer_cookie(answer, session->cookie, identifier.text(), -1);
    return session.release();
}

bool corvel_session_renew(corvel_session *session, corvel_answer *answer) {
    Identifier identifier;
    if (!is_active(session) || answer == nullptr || !identifier.generate())
        return false;
    const Digests digests = identifier.digests();
    if (!rename_file(session->directory, session->digests.file, digests.file))
        return false;
    session->digests = digests;
    corvel_answer_cookie(answer, session->cookie, identifier.text(), -1);
    return true;
}

bool corvel_session_end(corvel_session *session, corvel_answer *answer) {
    if (!is_active(session) || !remove_file(session->directory.get(), session->digests.file))
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
    const std::string_view name = is_active(kept) ? text_in(kept->digests.file) : "";
    return end_all(with_defaults(rules), user, name);
}

} // extern "C"

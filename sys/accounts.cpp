// SPDX-License-Identifier: MIT
#include <corvel.h>

#include <cerrno>
#include <crypt.h>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <poll.h>
#include <pwd.h>
#include <shadow.h>
#include <string_view>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

#include "support/descriptor.h"
#include "support/handles.h"
#include "support/text.h"

namespace corvel {
namespace {

constexpr const char *password_file = "/tmp/.chpwd.txt";
constexpr const char *lock_directory = "/var/run";
constexpr const char *lock_file = "/var/run/chpwd.lck";
constexpr const char *change_command = "/bin/chpasswd -m < /tmp/.chpwd.txt";

/// What login_chpwd() returns.
enum ChangeResult { changed = 0, refused = 121, not_run = 122, no_file = 123 };

/// The hash of an account that nobody logs in to: none, or a text that is no hash.
bool is_locked(const char *hash) { return *hash == '\0' || *hash == '!' || *hash == '*'; }

/// Takes the same time wherever texts of one length differ.
bool is_same_secret(std::string_view a, std::string_view b) {
    if (a.size() != b.size())
        return false;
    unsigned difference = 0;
    for (std::size_t i = 0; i < a.size(); ++i)
        difference |= static_cast<unsigned char>(a[i] ^ b[i]);
    return difference == 0;
}

/// A user's line of the shadow file, wiped when it is no longer needed.
class ShadowEntry {
  public:
    explicit ShadowEntry(const char *user) {
        spwd *found = nullptr;
        const int error = getspnam_r(user, &fields_, texts_, sizeof texts_, &found);
        exists_ = found != nullptr;
        if (!exists_)
            DFPrintf(stderr, "getspnam: unknown %s, err: %d, %s\n", user, error,
                     std::strerror(error));
    }
    ShadowEntry(const ShadowEntry &) = delete;
    ShadowEntry &operator=(const ShadowEntry &) = delete;
    ~ShadowEntry() { wipe(texts_, sizeof texts_); }

    explicit operator bool() const { return exists_; }
    const spwd *operator->() const { return &fields_; }

  private:
    spwd fields_{};
    char texts_[256];
    bool exists_;
};

bool is_password(const char *password, const char *hash) {
    const char *const result = crypt(password, hash);
    if (result == nullptr) {
        DFPrintf(stderr, "crypt() failed\n");
        return false;
    }
    // Some C libraries answer with a text that is no hash where they can't compute one.
    const bool same = !is_locked(hash) && is_same_secret(result, hash);
    DFPrintf(stderr, same ? "Login OK!\n" : "login failed\n");
    return same;
}

void report(const passwd &account) {
    DFPrintf(stderr, "getpwnam results:\n");
    DFPrintf(stderr, "user:\t%s\n", account.pw_name);
    DFPrintf(stderr, "crypt:\t%s\n", account.pw_passwd);
    DFPrintf(stderr, "uid:\t%d\n", static_cast<int>(account.pw_uid));
    DFPrintf(stderr, "gid:\t%d\n", static_cast<int>(account.pw_gid));
    DFPrintf(stderr, "home:\t%s\n", account.pw_dir);
    DFPrintf(stderr, "shell\t%s\n", account.pw_shell);
}

void report(const ShadowEntry &shadow) {
    DFPrintf(stderr, "getspnam results:\n");
    DFPrintf(stderr, "user login name:\t%s\n", shadow->sp_namp);
    DFPrintf(stderr, "encrypted password:\t%s\n", shadow->sp_pwdp);
    DFPrintf(stderr, "last password change:\t%ld\n", shadow->sp_lstchg);
    DFPrintf(stderr, "days until change allowed:\t%ld\n", shadow->sp_min);
    DFPrintf(stderr, "days before change required:\t%ld\n", shadow->sp_max);
    DFPrintf(stderr, "days warning before expiration\t%ld\n", shadow->sp_warn);
    DFPrintf(stderr, "days before account becomes inactive:\t%ld\n", shadow->sp_inact);
    DFPrintf(stderr, "date when account expires:\t%ld\n", shadow->sp_expire);
    DFPrintf(stderr, "reserved for furure use\t%lu\n", shadow->sp_flag);
}

bool may_log_in(const char *user, const char *password) {
    if (geteuid() != 0) {
        DFPrintf(stderr, "must be setuid root\n");
        return false;
    }
    const passwd *const account = getpwnam(user);
    if (account == nullptr) {
        DFPrintf(stderr, "getpwnam: unknown %s, err: %d, %s\n", user, errno, std::strerror(errno));
        return false;
    }
    if (is_locked(account->pw_passwd)) {
        DFPrintf(stderr, "not passwd or login deny\n");
        report(*account);
        return false;
    }
    const ShadowEntry shadow(user);
    const bool right = shadow && is_password(password, shadow->sp_pwdp);
    report(*account);
    if (shadow)
        report(shadow);
    return right;
}

/// Another call's lock is waited for this many times, 15 seconds in all.
constexpr int lock_waits = 300;
constexpr int lock_wait_milliseconds = 50;

/// Whether nobody but root could have made the lock file, or could hold a lock on it.
bool is_roots_alone(const struct stat &status) {
    return S_ISREG(status.st_mode) && status.st_uid == 0 &&
           (status.st_mode & (S_IRWXG | S_IRWXO)) == 0 && status.st_nlink <= 1;
}

/// Takes the lock that a call holds from its start to its end: all calls share one password file,
/// and chpasswd must not read the line of another one. Where the device has no such lock file,
/// there is no lock; then nothing may be run, since nobody could tell whose password was set.
///
/// The directory is in memory on a device with a read-only root, and only root writes to it. The
/// lock is not that of chpasswd itself, which would wait for it in vain. It ends with the process.
Descriptor take_change_lock() {
    mkdir(lock_directory, S_IRWXU | S_IRGRP | S_IXGRP | S_IROTH | S_IXOTH);
    for (int wait = 0; wait <= lock_waits; ++wait) {
        if (wait != 0)
            poll(nullptr, 0, lock_wait_milliseconds);
        Descriptor file(
            open(lock_file, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
        if (!file)
            break;
        struct flock whole_file {};
        whole_file.l_type = F_WRLCK;
        const bool locked = fcntl(file.get(), F_SETLK, &whole_file) == 0;
        if (!locked && errno != EAGAIN && errno != EACCES)
            break;
        struct stat status;
        if (fstat(file.get(), &status) != 0 || !is_roots_alone(status))
            break;
        // A file that was removed meanwhile is not the one that the next call locks.
        if (locked && status.st_nlink == 1)
            return file;
    }
    return Descriptor(-1);
}

/// The file that chpasswd reads. It is made anew, so that nobody else has it open, can read it, or
/// finds it where a link of theirs leads; it goes with the object.
class PasswordFile {
  public:
    PasswordFile() : descriptor_(create()), exists_(descriptor_) {}
    PasswordFile(const PasswordFile &) = delete;
    PasswordFile &operator=(const PasswordFile &) = delete;
    ~PasswordFile() {
        if (exists_)
            unlink(password_file);
    }

    /// Writes a user and a password and closes the file. False if they are not in it whole.
    bool write(std::string_view user, std::string_view password) {
        const Descriptor file = std::move(descriptor_);
        if (!file)
            return false;
        const iovec pieces[] = {piece(user), piece(":"), piece(password), piece("\n")};
        const std::size_t size = user.size() + password.size() + 2;
        static_cast<void>(lockf(file.get(), F_LOCK, 0)); // until the file is closed
        return std::cmp_equal(writev(file.get(), pieces, std::size(pieces)), size);
    }

  private:
    /// Another process may make a file of this name between the two steps, but not for ever.
    static Descriptor create() {
        for (int attempt = 0; attempt < 16; ++attempt) {
            if (unlink(password_file) != 0 && errno != ENOENT)
                break;
            Descriptor file(open(password_file,
                                 O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                                 S_IRUSR | S_IWUSR));
            if (file || errno != EEXIST)
                return file;
        }
        return Descriptor(-1);
    }

    static iovec piece(std::string_view text) {
        return {const_cast<char *>(text.data()), text.size()}; // writev() only reads it
    }

    Descriptor descriptor_;
    bool exists_;
};

/// Runs the command that changes passwords. Returns how it ended, as wait() does.
int run_change_command() {
    Pipe command(popen(change_command, "r"));
    if (!command)
        return -1;
    char line[128];
    while (std::fgets(line, sizeof line, command.get()) != nullptr)
        DFPrintf(stderr, "chpasswd: %.*s\n", static_cast<int>(std::strcspn(line, "\n")), line);
    const int status = pclose(command.release());
    if (status == -1)
        DFPrintf(stderr, "pclose failuer \n");
    else
        DFPrintf(stderr, "status:%d\n", WEXITSTATUS(status));
    return status;
}

ChangeResult change_password(std::string_view user, std::string_view password) {
    if (user.find_first_of(":\n") != std::string_view::npos ||
        password.find('\n') != std::string_view::npos)
        return no_file;
    const Descriptor lock = take_change_lock();
    if (!lock)
        return no_file;
    PasswordFile file;
    if (!file.write(user, password))
        return no_file;
    const int status = run_change_command();
    if (!WIFEXITED(status)) {
        DFPrintf(stderr, "%s NOT terminated normally\n", change_command);
        return not_run;
    }
    if (WEXITSTATUS(status) != 0) {
        DFPrintf(stderr, "chpasswd failed\n");
        return refused;
    }
    return changed;
}

} // namespace
} // namespace corvel

extern "C" {

int login_auth(const char *user, const char *password) {
    return corvel::may_log_in(corvel::text_or_empty(user), corvel::text_or_empty(password)) ? 0
                                                                                            : -1;
}

int login_chpwd(const char *user, const char *password) {
    return corvel::change_password(corvel::text_of(user), corvel::text_of(password));
}

} // extern "C"

// SPDX-License-Identifier: MIT
#include <corvel.h>

#include <cerrno>
#include <crypt.h>
#include <cstdio>
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

/// Whether nobody can log in with this hash: it is empty, or starts with a character of no hash.
bool is_locked(const char *hash) { return *hash == '\0' || *hash == '!' || *hash == '*'; }

/// Compares in constant time: the time depends on the lengths, not on where the strings differ.
bool is_same_secret(std::string_view a, std::string_view b) {
    if (a.size() != b.size())
        return false;
    unsigned difference = 0;
    for (std::size_t i = 0; i < a.size(); ++i)
        difference |= static_cast<unsigned char>(a[i] ^ b[i]);
    return difference == 0;
}

/// A user's line of the shadow file. The destructor wipes it.
class ShadowEntry {
  public:
    explicit ShadowEntry(const char *user) {
        spwd *found = nullptr;
        getspnam_r(user, &fields_, strings_, sizeof strings_, &found);
        exists_ = found != nullptr;
    }
    ShadowEntry(const ShadowEntry &) = delete;
    ShadowEntry &operator=(const ShadowEntry &) = delete;
    ~ShadowEntry() { wipe(strings_, sizeof strings_); }

    explicit operator bool() const { return exists_; }
    [[nodiscard]] const char *hash() const { return fields_.sp_pwdp; }

  private:
    spwd fields_{};
    char strings_[256];
    bool exists_;
};

/// If no hash can be computed, crypt() returns null or, in some C libraries, a string that is not a
/// hash: a locked account's hash must match neither.
bool is_password(const char *password, const char *hash) {
    const char *const result = crypt(password, hash);
    return result != nullptr && !is_locked(hash) && is_same_secret(result, hash);
}

bool may_log_in(const char *user, const char *password) {
    if (geteuid() != 0)
        return false;
    const passwd *const account = getpwnam(user);
    if (account == nullptr || is_locked(account->pw_passwd))
        return false;
    const ShadowEntry shadow(user);
    return shadow && is_password(password, shadow.hash());
}

/// While another call holds the lock, take_change_lock() tries again this often: 15 seconds in all.
constexpr int lock_waits = 300;
constexpr int lock_wait_milliseconds = 50;

/// Whether only root can have created the lock file, and only root can hold a lock on it.
bool belongs_to_root_alone(const struct stat &status) {
    return S_ISREG(status.st_mode) && status.st_uid == 0 &&
           (status.st_mode & (S_IRWXG | S_IRWXO)) == 0 && status.st_nlink <= 1;
}

/// Takes the lock that a call holds from start to end: all calls share one password file, and
/// chpasswd must not read another call's line. If the lock file cannot be used, the result owns no
/// descriptor, and the caller must not run chpasswd: it could set another call's password.
///
/// On a device with a read-only root, the directory is in memory, and only root can write to it.
/// The lock file is not the one of chpasswd itself, which would wait for it in vain. The kernel
/// releases the lock when the process ends.
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
        if (fstat(file.get(), &status) != 0 || !belongs_to_root_alone(status))
            break;
        // If the file was removed in the meantime, the next call locks another file.
        if (locked && status.st_nlink == 1)
            return file;
    }
    return Descriptor(-1);
}

/// The file that chpasswd reads. It is always a new file: no other process has it open, only root
/// can read it, and it is not the target of another user's symbolic link. The destructor removes
/// it.
class PasswordFile {
  public:
    PasswordFile() : descriptor_(create()), exists_(descriptor_) {}
    PasswordFile(const PasswordFile &) = delete;
    PasswordFile &operator=(const PasswordFile &) = delete;
    ~PasswordFile() {
        if (exists_)
            unlink(password_file);
    }

    /// Writes the line of a user and closes the file. Returns false if the line is incomplete.
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
    /// Another process can create a file of this name between unlink() and open(), hence the
    /// attempts. Their number is limited: that process could always be first.
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

    static iovec piece(std::string_view string) {
        return {const_cast<char *>(string.data()), string.size()}; // writev() only reads it
    }

    Descriptor descriptor_;
    bool exists_;
};

/// Runs the command that changes passwords. Returns its wait status; -1 if it was not started or
/// its status is unavailable.
int run_change_command() {
    Pipe command(popen(change_command, "r"));
    if (!command)
        return -1;
    // Its output is read to the end, so that a full or a closed pipe does not stop it.
    char line[128];
    while (std::fgets(line, sizeof line, command.get()) != nullptr) {
    }
    return pclose(command.release());
}

corvel_password_result change_password(std::string_view user, std::string_view password) {
    if (user.find_first_of(":\n") != std::string_view::npos ||
        password.find('\n') != std::string_view::npos)
        return CORVEL_PASSWORD_REFUSED;
    const Descriptor lock = take_change_lock();
    if (!lock)
        return CORVEL_PASSWORD_REFUSED;
    PasswordFile file;
    if (!file.write(user, password))
        return CORVEL_PASSWORD_REFUSED;
    const int status = run_change_command();
    if (!WIFEXITED(status))
        return CORVEL_PASSWORD_SHELL_FAILED;
    return WEXITSTATUS(status) == 0 ? CORVEL_PASSWORD_CHANGED : CORVEL_PASSWORD_COMMAND_FAILED;
}

} // namespace
} // namespace corvel

extern "C" {

using namespace corvel;

int login_auth(const char *user, const char *password) {
    return may_log_in(text_or_empty(user), text_or_empty(password)) ? CORVEL_LOGIN_ACCEPTED
                                                                    : CORVEL_LOGIN_REFUSED;
}

int login_chpwd(const char *user, const char *password) {
    return change_password(text_of(user), text_of(password));
}

} // extern "C"

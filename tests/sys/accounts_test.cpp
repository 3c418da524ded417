/* SPDX-License-Identifier: MIT */
#include <corvel.h>

#include "tests/support/child_process.h"
#include "tests/support/descriptors.h"
#include "tests/support/kill_points.h"
#include "tests/support/named_process.h"
#include "tests/support/next_definition.h"
#include "tests/support/output_capture.h"
#include "tests/support/private_root.h"
#include "tests/support/stand_in.h"
#include "tests/support/temporary_directory.h"

#include <array>
#include <cerrno>
#include <crypt.h>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <poll.h>
#include <pwd.h>
#include <shadow.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

/** The user that geteuid() reports, if not the effective one. */
std::optional<uid_t> claimed_user;

unsigned long account_look_ups;
unsigned long shadow_look_ups;

/** The size of the buffer passed to the last getspnam_r(). */
std::size_t shadow_size;

/** Whether crypt() fails. */
bool crypt_fails;
/** Whether crypt() returns the salt. */
bool crypt_returns_salt;
/** The salt passed to the last crypt(). */
std::string last_salt;

/** Replaces writev(). */
std::function<ssize_t(int, const iovec *, int)> instead_of_writev;
/** Replaces poll(). */
std::function<int(pollfd *, nfds_t, int)> instead_of_poll;
/** Called before fcntl() sets a lock; returns 0 or the error with which fcntl() fails. */
std::function<int()> error_of_lock;

/** The buffer passed to the last getspnam_r(). */
const volatile char *shadow_buffer;

} // namespace

extern "C" uid_t geteuid() C_LIBRARY_NOEXCEPT {
    static auto *const next = corvel_test::next_definition<uid_t()>("geteuid");
    return claimed_user ? *claimed_user : next();
}

extern "C" passwd *getpwnam(const char *name) {
    static auto *const next = corvel_test::next_definition<passwd *(const char *)>("getpwnam");
    ++account_look_ups;
    return next(name);
}

extern "C" int getspnam_r(const char *name, spwd *entry, char *buffer, std::size_t size,
                          spwd **found) {
    static auto *const next =
        corvel_test::next_definition<int(const char *, spwd *, char *, std::size_t, spwd **)>(
            "getspnam_r");
    ++shadow_look_ups;
    shadow_size = size;
    shadow_buffer = buffer;
    return next(name, entry, buffer, size, found);
}

extern "C" char *crypt(const char *password, const char *salt) C_LIBRARY_NOEXCEPT {
    static auto *const next =
        corvel_test::next_definition<char *(const char *, const char *)>("crypt");
    last_salt = salt;
    if (crypt_returns_salt)
        return last_salt.data();
    return crypt_fails ? nullptr : next(password, salt);
}

extern "C" ssize_t writev(int descriptor, const iovec *pieces, int count) {
    static auto *const next =
        corvel_test::next_definition<ssize_t(int, const iovec *, int)>("writev");
    return instead_of_writev ? instead_of_writev(descriptor, pieces, count)
                             : next(descriptor, pieces, count);
}

extern "C" int poll(pollfd *descriptors, nfds_t count, int milliseconds) {
    static auto *const next = corvel_test::next_definition<int(pollfd *, nfds_t, int)>("poll");
    return instead_of_poll ? instead_of_poll(descriptors, count, milliseconds)
                           : next(descriptors, count, milliseconds);
}

extern "C" int fcntl(int descriptor, int command, ...) {
    static auto *const next = corvel_test::next_definition<int(int, int, void *)>("fcntl");
    std::va_list values;
    va_start(values, command);
    void *const value = va_arg(values, void *);
    va_end(values);
    const int error = command == F_SETLK && error_of_lock ? error_of_lock() : 0;
    if (error == 0)
        return next(descriptor, command, value);
    errno = error;
    return -1;
}

namespace corvel_test {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;

// --- login_auth ---

struct Account {
    std::string name;
    std::string hash;
};

/** An account for each hashing method that every C library has, all with the same password. */
const std::vector<Account> accounts = {
    {"traditional", "arS2vnuG5puYw"},
    {"extended", "_/...abcdp8WwWTf1aFI"},
    {"md5", "$1$abcd0123$i1OoR/dK7KvJdBERB5nLN."},
    {"sha256", "$5$saltstring$5B8vYYiY.CVt1RlTTf8KbXBH3hsxY/GNooZaBBGWEc5"},
    {"sha512", "$6$saltstring$svn8UoSVapNtMuq1ukKS4tPQd8iKwSMHWjl/O817G3uBnI"
               "FNjnQJuesI68u4OTLiBFdcbYEdFCoEOfaS35inz1"},
    {"blowfish", "$2b$04$CCCCCCCCCCCCCCCCCCCCC.M.JZM2tZUe85sR83hfk5p2NZ0IVXwXe"},
};

/** Accounts for methods that not every C library has. */
const std::vector<Account> further_accounts = {
    {"yescrypt", "$y$j75$k2XAnEHBqQ1Ct2aMXFKNa/HAmA1BpMnBsYHMWB4NZN4$GkXPLX1D2"
                 "R..nIqrmSxLEtB9ma5Yg.Z0zrOaGtUE4H1"},
    {"gost-yescrypt", "$gy$j75$k2XAnEHBqQ1Ct2aMXFKNa/HAmA1BpMnBsYHMWB4NZN4$m.bKBOSX"
                      "XeKvlWpneTDR8VWE.MxDZd3Gh/MvFNru/gA"},
    {"sha1", "$sha1$20$abcdefgh$jW7ZFKj19wQJZ1q8Bnf2tpUFIabZ"},
    {"nt", "$3$$87ee0af454a9cb8d90d24196068637a8"},
    {"scrypt", "$7$0/..../....abcdefgh$KioOUQpuvyQrt6/z19NmFa8QicCeWqyXIj.zVE.RMVB"},
    {"sun-md5", "$md5,rounds=10$abcdefgh$$MKB55atLeIC2S5Mlf0eXU1"},
    {"blowfish-a", "$2a$04$CCCCCCCCCCCCCCCCCCCCC.M.JZM2tZUe85sR83hfk5p2NZ0IVXwXe"},
    {"blowfish-x", "$2x$04$CCCCCCCCCCCCCCCCCCCCC.M.JZM2tZUe85sR83hfk5p2NZ0IVXwXe"},
    {"blowfish-y", "$2y$04$CCCCCCCCCCCCCCCCCCCCC.M.JZM2tZUe85sR83hfk5p2NZ0IVXwXe"},
    {"long-traditional", "arS2vnuG5puYwk3OMWsvT54s"},
};

constexpr const char *password = "Hello world!";
constexpr const char *hash = "$1$abcd0123$i1OoR/dK7KvJdBERB5nLN.";

std::string passwd_line(const std::string &name, const std::string &field = "x") {
    return name + ":" + field + ":1000:1000:A user:/home:/bin/sh\n";
}

std::string shadow_line(const std::string &name, const std::string &stored) {
    return name + ":" + stored + ":19000:0:99999:7:::\n";
}

/** Returns the result of login_auth() with this account in the files. */
int login(const std::string &passwd_text, const std::string &shadow_text,
          const std::string &word = password) {
    write_file("/etc/passwd", "root:*:0:0::/:/bin/sh\n" + passwd_text);
    write_file("/etc/shadow", "root:*:19000:0:99999:7:::\n" + shadow_text);
    return login_auth("admin", word.c_str());
}

/** The same for an account with this password field and this hash. */
int login_with(const std::string &field, const std::string &stored,
               const std::string &word = password) {
    return login(passwd_line("admin", field), shadow_line("admin", stored), word);
}

TEST(login_auth, ChecksHashesOfEveryMethod) {
    std::vector<Account> all = accounts;
    for (const Account &account : further_accounts) {
        const char *const result = crypt(password, account.hash.c_str());
        if (result != nullptr && std::strlen(result) == account.hash.size() &&
            std::string_view(result).starts_with(account.hash.substr(0, 3)))
            all.push_back(account);
    }
    in_private_root([&all] {
        std::string passwd_text;
        std::string shadow_text;
        for (const Account &account : all) {
            passwd_text += passwd_line(account.name);
            shadow_text += shadow_line(account.name, account.hash);
        }
        write_file("/etc/passwd", passwd_text);
        write_file("/etc/shadow", shadow_text);
        for (const Account &account : all) {
            EXPECT_EQ(login_auth(account.name.c_str(), password), CORVEL_LOGIN_ACCEPTED)
                << account.name;
            EXPECT_EQ(last_salt, account.hash);
            for (const char *wrong : {"", "hello world!", "Hello "})
                EXPECT_EQ(login_auth(account.name.c_str(), wrong), CORVEL_LOGIN_REFUSED)
                    << account.name;
            EXPECT_EQ(login_auth(account.name.c_str(), account.hash.c_str()), CORVEL_LOGIN_REFUSED)
                << account.name;
        }
    });
}

TEST(login_auth, ComparesTheWholeHash) {
    in_private_root([] {
        const std::string right = hash;
        EXPECT_EQ(login_with("x", right), CORVEL_LOGIN_ACCEPTED);
        for (std::size_t place = right.rfind('$') + 1; place < right.size(); ++place) {
            std::string wrong = right;
            wrong[place] = wrong[place] == 'a' ? 'b' : 'a';
            EXPECT_EQ(login_with("x", wrong), CORVEL_LOGIN_REFUSED) << place;
        }
        EXPECT_EQ(login_with("x", right.substr(0, right.size() - 1)), CORVEL_LOGIN_REFUSED);
        EXPECT_EQ(login_with("x", right + "."), CORVEL_LOGIN_REFUSED);
        EXPECT_EQ(login_with("x", "$1$abcd0123$"), CORVEL_LOGIN_REFUSED);
        EXPECT_EQ(login_with("x", "$1$abcd0123"), CORVEL_LOGIN_REFUSED);
    });
}

TEST(login_auth, RefusesCallersOtherThanRootBeforeReadingAnything) {
    in_private_root([] {
        EXPECT_EQ(login_with("x", hash), CORVEL_LOGIN_ACCEPTED);
        for (const uid_t user : {1U, 1000U, 65534U}) {
            account_look_ups = 0;
            shadow_look_ups = 0;
            claimed_user = user;
            EXPECT_EQ(login_auth("admin", password), CORVEL_LOGIN_REFUSED);
            EXPECT_EQ(account_look_ups + shadow_look_ups, 0U);
        }
        claimed_user.reset();
        EXPECT_EQ(login_auth("admin", password), CORVEL_LOGIN_ACCEPTED);
    });
    expect_as_ordinary_user([] {
        account_look_ups = 0;
        EXPECT_EQ(login_auth("root", password), CORVEL_LOGIN_REFUSED);
        EXPECT_EQ(account_look_ups, 0U);
    });
}

TEST(login_auth, RefusesAnUnknownUser) {
    in_private_root([] {
        EXPECT_EQ(login(passwd_line("admin2"), shadow_line("admin2", hash)), CORVEL_LOGIN_REFUSED);
        EXPECT_EQ(login("", shadow_line("admin", hash)), CORVEL_LOGIN_REFUSED);
        EXPECT_EQ(login(passwd_line("Admin"), shadow_line("Admin", hash)), CORVEL_LOGIN_REFUSED);
        EXPECT_EQ(login("admin:x\n", shadow_line("admin", hash)), CORVEL_LOGIN_REFUSED);
        EXPECT_EQ(login("admin:x:number:0::/:/bin/sh\n", shadow_line("admin", hash)),
                  CORVEL_LOGIN_REFUSED);
        write_file("/etc/passwd", passwd_line("admin"));
        for (const char *name : {"", "admin ", "admin:x", "adm", "admin\n", "/etc/passwd", "%s%n"})
            EXPECT_EQ(login_auth(name, password), CORVEL_LOGIN_REFUSED) << name;
        EXPECT_EQ(login_auth(std::string(100000, 'a').c_str(), password), CORVEL_LOGIN_REFUSED);
        EXPECT_EQ(login_auth(nullptr, password), CORVEL_LOGIN_REFUSED);
        EXPECT_EQ(login_auth("admin", nullptr), CORVEL_LOGIN_REFUSED);
        fs::remove("/etc/passwd");
        EXPECT_EQ(login_auth("admin", password), CORVEL_LOGIN_REFUSED);
    });
}

TEST(login_auth, RefusesALockedAccountEvenWithTheRightPassword) {
    in_private_root([] {
        EXPECT_EQ(login_with("x", hash), CORVEL_LOGIN_ACCEPTED);
        for (const std::string field : {"", "*", "!", "!!", "!x", "*x", "!$1$abcd0123$", "*LK*"}) {
            shadow_look_ups = 0;
            EXPECT_EQ(login_with(field, hash), CORVEL_LOGIN_REFUSED) << field;
            EXPECT_EQ(shadow_look_ups, 0U);
        }
        EXPECT_EQ(login_with("!"s + hash, hash), CORVEL_LOGIN_REFUSED);
    });
}

TEST(login_auth, AcceptsAnyOtherPasswordFieldAndReadsTheHashFromTheShadowFile) {
    in_private_root([] {
        for (const std::string field : {"x", "y", "x!", " ", "$1$wrong$", "password"})
            EXPECT_EQ(login_with(field, hash), CORVEL_LOGIN_ACCEPTED) << field;
        EXPECT_EQ(login_with(hash, "$1$abcd0123$AAAAAAAAAAAAAAAAAAAAAA"), CORVEL_LOGIN_REFUSED);
        EXPECT_EQ(login(passwd_line("admin", hash), ""), CORVEL_LOGIN_REFUSED);
    });
}

TEST(login_auth, RefusesAnAccountWithoutAShadowEntry) {
    in_private_root([] {
        EXPECT_EQ(login(passwd_line("admin"), ""), CORVEL_LOGIN_REFUSED);
        EXPECT_EQ(login(passwd_line("admin"), shadow_line("admin2", hash)), CORVEL_LOGIN_REFUSED);
        EXPECT_EQ(login(passwd_line("admin"), "admin\n"), CORVEL_LOGIN_REFUSED);
        fs::remove("/etc/shadow");
        EXPECT_EQ(login_auth("admin", password), CORVEL_LOGIN_REFUSED);
    });
}

TEST(login_auth, RefusesAShadowEntryThatIsNotAHash) {
    in_private_root([] {
        for (const std::string stored :
             {"", "*", "!", "!!", "*0", "*1", "x", "ar", "$", "$1", "$1$", "$9$abcd$abcd", "$y$",
              "!$1$abcd0123$i1OoR/dK7KvJdBERB5nLN.", "*$1$abcd0123$i1OoR/dK7KvJdBERB5nLN."}) {
            for (const std::string word : {password, "", "*", "*0", "*1", "x", "!"})
                EXPECT_EQ(login_with("x", stored, word), CORVEL_LOGIN_REFUSED)
                    << stored << " and " << word;
            EXPECT_EQ(login_with("x", stored, stored), CORVEL_LOGIN_REFUSED) << stored;
        }
    });
}

TEST(login_auth, RefusesALockedShadowEntryEvenIfCryptReturnsIt) {
    in_private_root([] {
        crypt_returns_salt = true;
        EXPECT_EQ(login_with("x", "x"), CORVEL_LOGIN_ACCEPTED);
        EXPECT_EQ(login_with("x", hash), CORVEL_LOGIN_ACCEPTED);
        for (const std::string stored : {"", "*", "*0", "*1", "!", "!!", "!x"}) {
            EXPECT_EQ(login_with("x", stored), CORVEL_LOGIN_REFUSED) << stored;
            EXPECT_EQ(login_with("x", stored, ""), CORVEL_LOGIN_REFUSED) << stored;
        }
        EXPECT_EQ(login_with("x", "!"s + hash), CORVEL_LOGIN_REFUSED);
        EXPECT_EQ(login_with("x", "*"s + hash), CORVEL_LOGIN_REFUSED);
    });
}

TEST(login_auth, AcceptsAnEmptyPasswordWithItsHash) {
    in_private_root([] {
        const std::string stored = crypt("", "$1$abcd0123$");
        EXPECT_EQ(login_with("x", stored, ""), CORVEL_LOGIN_ACCEPTED);
        EXPECT_EQ(login_with("x", stored), CORVEL_LOGIN_REFUSED);
    });
}

TEST(login_auth, AcceptsLongPasswords) {
    in_private_root([] {
        const std::string word(200, 'w');
        const std::string stored = crypt(word.c_str(), "$5$saltstring");
        EXPECT_EQ(login_with("x", stored, word), CORVEL_LOGIN_ACCEPTED);
        EXPECT_EQ(login_with("x", stored, word + "w"), CORVEL_LOGIN_REFUSED);
        EXPECT_EQ(login_with("x", stored, std::string(100000, 'w')), CORVEL_LOGIN_REFUSED);
    });
}

TEST(login_auth, RefusesIfTheHashCannotBeComputed) {
    in_private_root([] {
        EXPECT_EQ(login_with("x", hash), CORVEL_LOGIN_ACCEPTED);
        crypt_fails = true;
        EXPECT_EQ(login_auth("admin", password), CORVEL_LOGIN_REFUSED);
    });
}

TEST(login_auth, ReadsShadowLinesThatFit256Bytes) {
    in_private_root([] {
        const std::string start = "admin:"s + hash + ":";
        const std::string rest = "19000:0:99999:7:::";
        for (std::size_t length = 100; length < 400; ++length) {
            const std::string zeros(length - start.size() - rest.size(), '0');
            const int result = login(passwd_line("admin"), start + zeros + rest + "\n");
            EXPECT_EQ(shadow_size, 256U);
            // The C library decides what fits.
            char buffer[256];
            spwd entry{};
            spwd *found = nullptr;
            getspnam_r("admin", &entry, buffer, sizeof buffer, &found);
            EXPECT_EQ(result, found != nullptr ? CORVEL_LOGIN_ACCEPTED : CORVEL_LOGIN_REFUSED)
                << length;
            if (length <= 250 || length >= 256) {
                EXPECT_EQ(result, length <= 250 ? CORVEL_LOGIN_ACCEPTED : CORVEL_LOGIN_REFUSED)
                    << length;
            }
        }
    });
}

/**
 * Logs in and copies what remains in the buffer of the shadow entry. The buffer's stack frame no
 * longer exists: nothing may be called in between, and the access must not be instrumented.
 */
__attribute__((noinline, no_sanitize("address"))) int
log_in_and_copy_remains(const char *word, std::array<char, 256> &left) {
    const int result = login_auth("admin", word);
    for (std::size_t i = 0; i < left.size(); ++i)
        left[i] = shadow_buffer[i];
    return result;
}

TEST(login_auth, WipesTheShadowEntry) {
    in_private_root([] {
        ASSERT_EQ(login_with("x", hash), CORVEL_LOGIN_ACCEPTED);
        for (const std::string word : {password, "wrong"}) {
            std::array<char, 256> left{};
            EXPECT_EQ(log_in_and_copy_remains(word.c_str(), left),
                      word == password ? CORVEL_LOGIN_ACCEPTED : CORVEL_LOGIN_REFUSED);
            const std::string_view text(left.data(), left.size());
            EXPECT_EQ(text.find("i1OoR/dK7KvJdBERB5nLN."), std::string_view::npos);
            EXPECT_EQ(text.find("$1$abcd0123$"), std::string_view::npos);
            EXPECT_EQ(text.find("admin"), std::string_view::npos);
        }
    });
}

TEST(login_auth, PrintsNothing) {
    in_private_root([] {
        const auto try_all = [] {
            EXPECT_EQ(login_with("x", hash), CORVEL_LOGIN_ACCEPTED);
            EXPECT_EQ(login_with("x", hash, "wrong"), CORVEL_LOGIN_REFUSED);
            EXPECT_EQ(login_with("*", hash), CORVEL_LOGIN_REFUSED);
            EXPECT_EQ(login("", ""), CORVEL_LOGIN_REFUSED);
            EXPECT_EQ(login(passwd_line("admin"), ""), CORVEL_LOGIN_REFUSED);
            claimed_user = 1;
            EXPECT_EQ(login_auth("admin", password), CORVEL_LOGIN_REFUSED);
            claimed_user.reset();
        };
        EXPECT_EQ(capture_stdout(try_all), "");
        EXPECT_EQ(capture_stderr(try_all), "");
    });
}

// --- login_chpwd ---

constexpr const char *password_file = "/tmp/.chpwd.txt";

/** Replaces the link /bin by a directory in which commands can be installed. */
void make_bin_writable() {
    if (!fs::is_symlink("/bin"))
        throw std::runtime_error("/bin is not a link, and can't be replaced");
    const fs::path shell = fs::canonical("/bin/sh");
    fs::remove("/bin");
    fs::create_directory("/bin");
    fs::create_symlink(shell, "/bin/sh");
    setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1);
}

void install_command(const std::string &script) {
    write_program("/bin/chpasswd", "#!/bin/sh\n" + script);
}

/** A command that records its input, its arguments and the attributes of its input file. */
constexpr const char *recording_command =
    "echo \"$*\" >/root/arguments\n"
    "cat >/root/input\n"
    "stat -c '%a %u %h %F' /tmp/.chpwd.txt >/root/file\n"
    "test /tmp/.chpwd.txt -ef /proc/self/fd/0 || echo 'not the input' >>/root/file\n";

bool exists(const std::string &path) { return fs::exists(fs::symlink_status(path)); }

/** Whether the recording command was run since the last call. */
bool was_run() { return fs::remove("/root/arguments"); }

/** Runs a part of a test in a private root where the recording command is installed. */
void with_command(const std::function<void()> &body) {
    in_private_root([&body] {
        make_bin_writable();
        install_command(recording_command);
        body();
        EXPECT_FALSE(exists(password_file));
    });
}

/** Changes a password and returns the input of the command. */
std::string input_for(const std::string &user, const std::string &word) {
    EXPECT_EQ(login_chpwd(user.c_str(), word.c_str()), CORVEL_PASSWORD_CHANGED);
    EXPECT_TRUE(was_run());
    EXPECT_FALSE(exists(password_file));
    return read_file("/root/input");
}

TEST(login_chpwd, PassesTheUserAndThePasswordToTheCommand) {
    with_command([] {
        EXPECT_EQ(login_chpwd("admin", "secret"), CORVEL_PASSWORD_CHANGED);
        EXPECT_EQ(read_file("/root/input"), "admin:secret\n");
        EXPECT_EQ(read_file("/root/arguments"), "-m\n");
        EXPECT_EQ(read_file("/root/file"), "600 0 1 regular file\n");
    });
}

TEST(login_chpwd, PassesEveryPasswordUnchanged) {
    with_command([] {
        for (const std::string word :
             {"", " ", "with spaces ", "a:b::c", "$(touch /root/hit) `touch /root/hit`", "%s%n%d",
              "'\"\\;|&<>", "\xC3\xA4\xFF\x01\t\r", "-m"})
            EXPECT_EQ(input_for("admin", word), "admin:" + word + "\n");
        const std::string longest(300000, 'w');
        EXPECT_EQ(input_for("admin", longest), "admin:" + longest + "\n");
        EXPECT_EQ(input_for(longest, "secret"), longest + ":secret\n");
        EXPECT_EQ(input_for("", "secret"), ":secret\n");
        EXPECT_EQ(input_for("$(touch /root/hit)", "secret"), "$(touch /root/hit):secret\n");
        EXPECT_FALSE(exists("/root/hit"));
    });
}

TEST(login_chpwd, TreatsNullAsAnEmptyString) {
    with_command([] {
        EXPECT_EQ(login_chpwd(nullptr, nullptr), CORVEL_PASSWORD_CHANGED);
        EXPECT_EQ(read_file("/root/input"), ":\n");
    });
}

TEST(login_chpwd, RefusesAColonOrANewlineThatWouldSplitTheLineBeforeWritingAnything) {
    with_command([] {
        const std::pair<std::string, std::string> refused[] = {
            {"admin:x", "secret"}, {":", "secret"},
            {"admin\n", "secret"}, {"\nroot", "secret"},
            {"a\nb", "secret"},    {"admin", "secret\n"},
            {"admin", "\n"},       {"admin", "\nroot:x"},
            {"admin", "a\nb"},     {std::string(5000, 'a') + ":", "secret"}};
        for (const bool planted : {false, true}) {
            if (planted)
                write_file(password_file, "as it was");
            const CountCalls opened(call_open);
            const CountCalls started(call_popen);
            for (const auto &[user, word] : refused)
                EXPECT_EQ(login_chpwd(user.c_str(), word.c_str()), CORVEL_PASSWORD_REFUSED)
                    << user << word;
            EXPECT_EQ(opened.count() + started.count(), 0U);
            EXPECT_FALSE(was_run());
            EXPECT_EQ(exists(password_file), planted);
        }
        EXPECT_EQ(read_file(password_file), "as it was");
        fs::remove(password_file);
    });
}

TEST(login_chpwd, ReportsCommandFailedForEveryExitStatusButZero) {
    with_command([] {
        for (int code = 0; code < 256; code += code < 3 || code > 124 ? 1 : 61) {
            install_command("exit " + std::to_string(code) + "\n");
            EXPECT_EQ(login_chpwd("admin", "secret"),
                      code == 0 ? CORVEL_PASSWORD_CHANGED : CORVEL_PASSWORD_COMMAND_FAILED)
                << code;
            EXPECT_FALSE(exists(password_file));
        }
    });
}

TEST(login_chpwd, ReportsCommandFailedIfTheCommandIsMissingOrCannotBeRun) {
    with_command([] {
        const auto change = [] {
            int result = 0;
            // The shell prints the reason.
            EXPECT_NE(capture_stderr([&] { result = login_chpwd("admin", "secret"); }), "");
            EXPECT_FALSE(exists(password_file));
            return result;
        };
        fs::permissions("/bin/chpasswd", fs::perms{0644});
        EXPECT_EQ(change(), CORVEL_PASSWORD_COMMAND_FAILED);
        fs::remove("/bin/chpasswd");
        EXPECT_EQ(change(), CORVEL_PASSWORD_COMMAND_FAILED);
        fs::create_directory("/bin/chpasswd");
        EXPECT_EQ(change(), CORVEL_PASSWORD_COMMAND_FAILED);
    });
}

TEST(login_chpwd, ReportsACommandKilledByASignalAsTheShellDoes) {
    with_command([] {
        // The command inherits the signals that this process ignores, SIGHUP under nohup.
        for (const int ignorable : {SIGTERM, SIGPIPE, SIGHUP})
            std::signal(ignorable, SIG_DFL);
        for (const std::string signal : {"KILL", "TERM", "SEGV", "PIPE", "HUP"}) {
            install_command("cat >/dev/null; kill -" + signal + " $$\n");
            // A shell may run the command in a separate process, and report the signal as its exit
            // status.
            const int status = std::system("/bin/chpasswd </dev/null");
            EXPECT_EQ(login_chpwd("admin", "secret"), WIFSIGNALED(status)
                                                          ? CORVEL_PASSWORD_SHELL_FAILED
                                                          : CORVEL_PASSWORD_COMMAND_FAILED)
                << signal;
            EXPECT_FALSE(exists(password_file));
        }
    });
}

TEST(login_chpwd, ReportsShellFailedIfASignalKillsTheShell) {
    with_command([] {
        fs::remove("/bin/sh");
        // The shell that runs the command.
        write_program("/bin/sh", "#!/usr/bin/sh\nkill -KILL $$\n");
        EXPECT_EQ(login_chpwd("admin", "secret"), CORVEL_PASSWORD_SHELL_FAILED);
        EXPECT_FALSE(was_run());
    });
}

TEST(login_chpwd, ReadsAnyOutputOfTheCommand) {
    with_command([] {
        const std::string outputs[] = {
            "i=0; while [ $i -lt 1000 ]; do echo \"line $i\"; i=$((i + 1)); done",
            "head -c 1000000 /dev/zero | tr '\\0' x",
            "head -c 300000 /dev/zero",
            "head -c 100000 /dev/zero | tr '\\0' '\\n'",
            "printf '%0126d\\n%0127d\\n%0128d\\n%0129d\\n%0127d' 1 2 3 4 5",
            "printf '%%s%%n%%d\\n'",
            "exec >&-; cat >/dev/null"};
        for (const std::string &output : outputs) {
            for (const int code : {0, 7}) {
                install_command("cat >/root/input; " + output + "\nexit " + std::to_string(code) +
                                "\n");
                fs::remove("/root/input");
                EXPECT_EQ(capture_stdout([code] {
                              EXPECT_EQ(login_chpwd("admin", "secret"),
                                        code == 0 ? CORVEL_PASSWORD_CHANGED
                                                  : CORVEL_PASSWORD_COMMAND_FAILED);
                          }),
                          "");
                EXPECT_EQ(read_file("/root/input"), "admin:secret\n");
                EXPECT_FALSE(exists(password_file));
            }
        }
    });
}

TEST(login_chpwd, WaitsForACommandThatClosesItsOutputEarly) {
    with_command([] {
        install_command("exec >&-; cat >/root/input; exit 9\n");
        EXPECT_EQ(login_chpwd("admin", "secret"), CORVEL_PASSWORD_COMMAND_FAILED);
        EXPECT_EQ(read_file("/root/input"), "admin:secret\n");
    });
}

TEST(login_chpwd, PrintsNothingAndLeavesNothingOpenOrAllocated) {
    with_command([] {
        install_command("cat; echo said\n");
        const std::vector<int> open_before = open_descriptors();
        EXPECT_EQ(capture_stdout(
                      [] { EXPECT_EQ(login_chpwd("admin", "secret"), CORVEL_PASSWORD_CHANGED); }),
                  "");
        EXPECT_EQ(capture_stderr(
                      [] { EXPECT_EQ(login_chpwd("admin", "secret"), CORVEL_PASSWORD_CHANGED); }),
                  "");
        EXPECT_EQ(open_descriptors(), open_before);
        // The library itself allocates nothing. If an allocation fails in popen() or in reading the
        // output, the command is run or cannot be started.
        for_each_allocation_failure([](AllocationTrial &trial) {
            const int result = trial.run([] { return login_chpwd("admin", "secret"); });
            EXPECT_FALSE(exists(password_file));
            EXPECT_TRUE(result == CORVEL_PASSWORD_CHANGED ||
                        (trial.failed() && result == CORVEL_PASSWORD_SHELL_FAILED))
                << result;
        });
        EXPECT_EQ(open_descriptors(), open_before);
    });
}

TEST(login_chpwd, CreatesThePasswordFileWithMode0600UnderAnyUmask) {
    with_command([] {
        for (const mode_t mask : {0U, 022U, 077U, 0177U}) {
            umask(mask);
            EXPECT_EQ(login_chpwd("admin", "secret"), CORVEL_PASSWORD_CHANGED);
            EXPECT_EQ(read_file("/root/file"), "600 0 1 regular file\n") << mask;
        }
        umask(022);
    });
}

TEST(login_chpwd, NeverShowsThePasswordToOthersWhereverItIsKilled) {
    with_command([] {
        umask(0);
        bool file_seen = false;
        bool password_seen = false;
        const unsigned long points =
            for_each_kill_point([] { fs::remove(password_file); },
                                [] {
                                    // A command would survive when this process is killed.
                                    const FailCall not_started(call_popen, 1);
                                    login_chpwd("admin", "secret");
                                },
                                [&](unsigned long n) {
                                    struct stat status {};
                                    if (lstat(password_file, &status) != 0)
                                        return;
                                    file_seen = true;
                                    EXPECT_EQ(status.st_mode, S_IFREG | 0600U) << n;
                                    EXPECT_EQ(status.st_uid, 0U) << n;
                                    const std::string text = read_file(password_file);
                                    EXPECT_TRUE(text.empty() || text == "admin:secret\n") << n;
                                    password_seen = password_seen || !text.empty();
                                });
        EXPECT_GE(points, 5U);
        EXPECT_TRUE(file_seen);
        EXPECT_TRUE(password_seen);
        // A file that a killed process left does not prevent a later change.
        write_file(password_file, "left over\n");
        umask(022);
        EXPECT_EQ(login_chpwd("admin", "secret"), CORVEL_PASSWORD_CHANGED);
        EXPECT_EQ(read_file("/root/input"), "admin:secret\n");
    });
}

TEST(login_chpwd, FollowsNoLink) {
    with_command([] {
        const auto expect_own_file = [] {
            EXPECT_EQ(input_for("admin", "secret"), "admin:secret\n");
            EXPECT_EQ(read_file("/root/file"), "600 0 1 regular file\n");
        };
        write_file("/etc/victim", "as it was");
        fs::permissions("/etc/victim", fs::perms{0644});
        fs::create_symlink("/etc/victim", password_file);
        expect_own_file();
        fs::create_hard_link("/etc/victim", "/etc/second-name");
        // A hard link needs a single file system, which the private root is.
        fs::create_hard_link("/etc/victim", password_file);
        expect_own_file();
        EXPECT_EQ(read_file("/etc/victim"), "as it was");
        struct stat status {};
        ASSERT_EQ(stat("/etc/victim", &status), 0);
        EXPECT_EQ(status.st_mode, S_IFREG | 0644U);
        EXPECT_EQ(status.st_nlink, 2U);

        fs::create_symlink("/etc/missing", password_file);
        expect_own_file();
        EXPECT_FALSE(exists("/etc/missing"));
        fs::create_symlink("/etc", password_file);
        expect_own_file();
        EXPECT_TRUE(fs::is_directory("/etc"));
        fs::create_symlink(password_file, password_file);
        expect_own_file();
    });
}

TEST(login_chpwd, NeverWritesToAnExistingFile) {
    with_command([] {
        write_file(password_file, "a longer text that was there before");
        fs::permissions(password_file, fs::perms{0666});
        const int held = open(password_file, O_RDWR | O_CLOEXEC);
        ASSERT_GE(held, 0);
        EXPECT_EQ(input_for("admin", "secret"), "admin:secret\n");
        EXPECT_EQ(read_file("/root/file"), "600 0 1 regular file\n");
        char text[100] = "";
        EXPECT_EQ(read(held, text, sizeof text - 1), 35);
        EXPECT_STREQ(text, "a longer text that was there before");
        close(held);

        ASSERT_EQ(mkfifo(password_file, 0666), 0);
        EXPECT_EQ(input_for("admin", "secret"), "admin:secret\n");
        EXPECT_EQ(read_file("/root/file"), "600 0 1 regular file\n");
    });
}

TEST(login_chpwd, RefusesIfThePasswordFileIsADirectory) {
    with_command([] {
        fs::create_directory(password_file);
        EXPECT_EQ(login_chpwd("admin", "secret"), CORVEL_PASSWORD_REFUSED);
        EXPECT_FALSE(was_run());
        EXPECT_TRUE(fs::is_directory(password_file));
        fs::remove(password_file);
    });
}

TEST(login_chpwd, RefusesIfThePasswordFileCannotBeCreated) {
    with_command([] {
        const std::vector<int> open_before = open_descriptors();
        for (const int error : {EACCES, EMFILE, ENOSPC, EROFS, EEXIST}) {
            // The lock file is opened first.
            for (const unsigned long first : {1UL, 2UL}) {
                const FailCall failing(call_open, first, error, FailCall::from_then_on);
                EXPECT_EQ(login_chpwd("admin", "secret"), CORVEL_PASSWORD_REFUSED);
            }
        }
        {
            const FailCall failing(call_unlink, 1, EPERM);
            EXPECT_EQ(login_chpwd("admin", "secret"), CORVEL_PASSWORD_REFUSED);
        }
        EXPECT_FALSE(was_run());
        fs::permissions("/tmp", fs::perms{0700});
        fs::rename("/tmp", "/tmp-away");
        EXPECT_EQ(login_chpwd("admin", "secret"), CORVEL_PASSWORD_REFUSED);
        fs::rename("/tmp-away", "/tmp");
        EXPECT_FALSE(was_run());
        EXPECT_EQ(open_descriptors(), open_before);
    });
}

TEST(login_chpwd, RetriesIfAnotherProcessCreatesThePasswordFileButNotForever) {
    with_command([] {
        write_file(password_file, "another's");
        {
            // As if the file were created immediately after the call of unlink().
            const FailCall missed(call_unlink, 1, ENOENT);
            EXPECT_EQ(login_chpwd("admin", "secret"), CORVEL_PASSWORD_CHANGED);
            EXPECT_EQ(missed.failures(), 1U);
        }
        EXPECT_TRUE(was_run());
        EXPECT_EQ(read_file("/root/input"), "admin:secret\n");
        write_file(password_file, "another's");
        {
            const FailCall always(call_unlink, 1, ENOENT, FailCall::from_then_on);
            EXPECT_EQ(login_chpwd("admin", "secret"), CORVEL_PASSWORD_REFUSED);
        }
        EXPECT_FALSE(was_run());
        EXPECT_EQ(read_file(password_file), "another's");
        fs::remove(password_file);
    });
}

TEST(login_chpwd, RefusesIfTheDiskIsFull) {
    in_private_root([] {
        make_bin_writable();
        install_command(recording_command);
        mount_small_disk("/tmp", 65536);
        EXPECT_EQ(login_chpwd("admin", "secret"), CORVEL_PASSWORD_CHANGED);
        EXPECT_TRUE(was_run());
        EXPECT_EQ(login_chpwd("admin", std::string(100000, 'w').c_str()), CORVEL_PASSWORD_REFUSED);
        EXPECT_FALSE(was_run());
        EXPECT_FALSE(exists(password_file));
        EXPECT_THROW(write_file("/tmp/full", std::string(100000, 'x')), std::exception);
        EXPECT_EQ(login_chpwd("admin", "secret"), CORVEL_PASSWORD_REFUSED);
        EXPECT_FALSE(was_run());
        EXPECT_FALSE(exists(password_file));
    });
}

TEST(login_chpwd, RefusesIfThePasswordFileCannotBeWrittenWhole) {
    with_command([] {
        const std::vector<int> open_before = open_descriptors();
        for (const ssize_t written : {-1, 0, 1, 12}) {
            const Instead in_place_of_writev(instead_of_writev, [written](int, const iovec *, int) {
                errno = EIO;
                return written;
            });
            EXPECT_EQ(login_chpwd("admin", "secret"), CORVEL_PASSWORD_REFUSED) << written;
            EXPECT_FALSE(was_run());
            EXPECT_FALSE(exists(password_file));
        }
        EXPECT_EQ(open_descriptors(), open_before);
        EXPECT_EQ(login_chpwd("admin", "secret"), CORVEL_PASSWORD_CHANGED);
    });
}

/** Whether another process can lock a file. */
bool can_be_locked_by_another(const char *path) {
    return run_in_child([path] {
               const int file = open(path, O_RDWR | O_CLOEXEC);
               return lockf(file, F_TEST, 0) == 0 ? 0 : 1;
           }).exit_status == 0;
}

TEST(login_chpwd, LocksThePasswordFileOnlyWhileWritingIt) {
    with_command([] {
        bool free_while_written = true;
        const Instead in_place_of_writev(
            instead_of_writev, [&](int descriptor, const iovec *pieces, int count) {
                free_while_written = can_be_locked_by_another(password_file);
                ssize_t total = 0;
                for (int i = 0; i < count; ++i)
                    total += write(descriptor, pieces[i].iov_base, pieces[i].iov_len);
                return total;
            });
        install_command("cat >/root/input\n"
                        "grep \":$(stat -c %i /tmp/.chpwd.txt) \" /proc/locks >/root/locks\n"
                        "exit 0\n");
        EXPECT_EQ(login_chpwd("admin", "secret"), CORVEL_PASSWORD_CHANGED);
        EXPECT_FALSE(free_while_written);
        EXPECT_EQ(read_file("/root/locks"), "");
        EXPECT_EQ(read_file("/root/input"), "admin:secret\n");
    });
}

TEST(login_chpwd, ProceedsIfThePasswordFileCannotBeLocked) {
    with_command([] {
        const FailCall failing(call_lockf, 1, ENOLCK, FailCall::from_then_on);
        EXPECT_EQ(input_for("admin", "secret"), "admin:secret\n");
    });
}

constexpr const char *lock_file = "/var/run/chpwd.lck";

/** Another process that holds the lock of the lock file during the lifetime of the object. */
class OtherCall {
  public:
    OtherCall() : id_(fork()) {
        if (id_ == 0) {
            const int file = open(lock_file, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
            const bool locked = file >= 0 && lockf(file, F_TLOCK, 0) == 0;
            const char byte = locked ? 'x' : '!';
            static_cast<void>(write(ready_.writing, &byte, 1));
            for (;;)
                pause();
        }
        char byte = '!';
        if (id_ < 0 || read(ready_.reading, &byte, 1) != 1 || byte != 'x')
            throw std::runtime_error("the lock can't be held");
    }
    OtherCall(const OtherCall &) = delete;
    OtherCall &operator=(const OtherCall &) = delete;
    ~OtherCall() { end(); }

    void end() {
        if (id_ > 0) {
            kill(id_, SIGKILL);
            waitpid(id_, nullptr, 0);
        }
        id_ = -1;
    }

  private:
    OwnPipe ready_;
    pid_t id_;
};

/** During its lifetime, poll() returns at once and its timeouts are added up. */
class CountedWaits {
  public:
    explicit CountedWaits(std::function<void(unsigned)> at_each = [](unsigned) {})
        : in_place_(instead_of_poll,
                    [this, at_each = std::move(at_each)](pollfd *, nfds_t count, int milliseconds) {
                        EXPECT_EQ(count, 0U);
                        milliseconds_ += milliseconds;
                        at_each(++count_);
                        return 0;
                    }) {}

    [[nodiscard]] unsigned count() const { return count_; }
    [[nodiscard]] long long milliseconds() const { return milliseconds_; }

  private:
    unsigned count_ = 0;
    long long milliseconds_ = 0;
    Instead<int(pollfd *, nfds_t, int)> in_place_;
};

TEST(login_chpwd, ChangesEveryPasswordItReportsIfSeveralProcessesCallIt) {
    in_private_root([] {
        make_bin_writable();
        fs::create_symlink("/usr/sbin/chpasswd", "/bin/chpasswd");
        const std::vector<std::string> users = {"ada", "bob", "cid", "dan", "eve", "fay"};
        std::string passwd_text = "root:x:0:0::/:/bin/sh\n";
        std::string shadow_text = "root:*:19000:0:99999:7:::\n";
        for (const std::string &user : users) {
            passwd_text += passwd_line(user);
            shadow_text += shadow_line(user, hash);
        }
        write_file("/etc/passwd", passwd_text);
        write_file("/etc/shadow", shadow_text);
        write_file("/etc/group", "root:x:0:\n");
        OwnPipe start;
        std::vector<pid_t> processes;
        for (const std::string &user : users) {
            const pid_t process = fork();
            ASSERT_GE(process, 0);
            if (process == 0) {
                OwnPipe::close_end(start.writing);
                char byte = 0;
                static_cast<void>(read(start.reading, &byte, 1)); // until all have started
                end_child(login_chpwd(user.c_str(), ("new of " + user).c_str()));
            }
            processes.push_back(process);
        }
        OwnPipe::close_end(start.writing);
        std::size_t changed = 0;
        for (std::size_t i = 0; i < users.size(); ++i) {
            const int result = wait_for_child(processes[i]).exit_status;
            // On a busy machine the last ones may have to wait for too long.
            EXPECT_TRUE(result == CORVEL_PASSWORD_CHANGED || result == CORVEL_PASSWORD_REFUSED)
                << result;
            changed += result == CORVEL_PASSWORD_CHANGED ? 1 : 0;
            EXPECT_EQ(login_auth(users[i].c_str(), ("new of " + users[i]).c_str()),
                      result == CORVEL_PASSWORD_CHANGED ? CORVEL_LOGIN_ACCEPTED
                                                        : CORVEL_LOGIN_REFUSED)
                << users[i];
        }
        EXPECT_GE(changed, 2U);
        EXPECT_FALSE(exists(password_file));
    });
}

TEST(login_chpwd, HoldsTheLockFileOnlyDuringTheCall) {
    with_command([] {
        ASSERT_EQ(mkfifo("/root/running", 0600), 0);
        ASSERT_EQ(mkfifo("/root/go-on", 0600), 0);
        install_command("echo >/root/running; cat /root/go-on\n"
                        "stat -c '%a %u %h %F' /var/run/chpwd.lck >/root/lock\n");
        const pid_t caller = fork();
        ASSERT_GE(caller, 0);
        if (caller == 0)
            end_child(login_chpwd("admin", "secret"));
        EXPECT_EQ(read_file("/root/running"), "\n");
        EXPECT_FALSE(can_be_locked_by_another(lock_file));
        write_file("/root/go-on", "");
        EXPECT_EQ(wait_for_child(caller).exit_status, CORVEL_PASSWORD_CHANGED);
        EXPECT_TRUE(can_be_locked_by_another(lock_file));
        EXPECT_EQ(read_file("/root/lock"), "600 0 1 regular empty file\n");
    });
}

TEST(login_chpwd, PassesNoDescriptorOfTheLockFileToTheCommand) {
    with_command([] {
        install_command("ls -l /proc/$$/fd >/root/opened\n");
        EXPECT_EQ(login_chpwd("admin", "secret"), CORVEL_PASSWORD_CHANGED);
        const std::string opened = read_file("/root/opened");
        EXPECT_NE(opened.find(password_file), std::string::npos) << opened;
        EXPECT_EQ(opened.find(lock_file), std::string::npos) << opened;
    });
}

TEST(login_chpwd, CreatesTheLockFileWithMode0600UnderAnyUmask) {
    with_command([] {
        for (const mode_t mask : {0U, 022U, 077U, 0177U}) {
            fs::remove(lock_file);
            umask(mask);
            EXPECT_EQ(login_chpwd("admin", "secret"), CORVEL_PASSWORD_CHANGED);
            struct stat status {};
            EXPECT_EQ(lstat(lock_file, &status), 0);
            EXPECT_EQ(status.st_mode, S_IFREG | 0600U) << mask;
        }
        umask(022);
    });
}

TEST(login_chpwd, WaitsUntilAnotherCallEnds) {
    with_command([] {
        OtherCall other;
        const CountedWaits waits([&other](unsigned count) {
            EXPECT_FALSE(exists(password_file));
            if (count == 3)
                other.end();
        });
        EXPECT_EQ(input_for("admin", "secret"), "admin:secret\n");
        EXPECT_EQ(waits.count(), 3U);
    });
}

TEST(login_chpwd, RefusesIfAnotherCallLastsLongerThan15Seconds) {
    with_command([] {
        write_file(password_file, "the other call's");
        const OtherCall other;
        const CountedWaits waits;
        EXPECT_EQ(login_chpwd("admin", "secret"), CORVEL_PASSWORD_REFUSED);
        EXPECT_EQ(waits.milliseconds(), 15000);
        EXPECT_FALSE(was_run());
        EXPECT_EQ(read_file(password_file), "the other call's");
        fs::remove(password_file);
    });
}

TEST(login_chpwd, LocksTheFileThatCurrentlyHasTheName) {
    with_command([] {
        // Removed while another call holds its lock; the next attempt locks a new file.
        const OtherCall other;
        const CountedWaits waits([](unsigned) { fs::remove(lock_file); });
        EXPECT_EQ(input_for("admin", "secret"), "admin:secret\n");
        EXPECT_EQ(waits.count(), 1U);
        EXPECT_TRUE(exists(lock_file));
        // Removed between being opened and being locked.
        bool removed = false;
        const Instead in_place_of_lock(error_of_lock, [&removed] {
            if (!std::exchange(removed, true))
                fs::remove(lock_file);
            return 0;
        });
        EXPECT_EQ(input_for("admin", "secret"), "admin:secret\n");
        EXPECT_EQ(waits.count(), 2U);
        EXPECT_TRUE(exists(lock_file));
    });
}

TEST(login_chpwd, RefusesALockFileThatIsNotExclusiveToRoot) {
    with_command([] {
        const CountedWaits waits;
        const auto expect_refused = [](const char *what) {
            EXPECT_EQ(login_chpwd("admin", "secret"), CORVEL_PASSWORD_REFUSED) << what;
            EXPECT_FALSE(was_run()) << what;
            EXPECT_TRUE(exists(lock_file)) << what;
            fs::remove_all(lock_file);
        };
        write_file("/etc/victim", "as it was");
        fs::permissions("/etc/victim", fs::perms{0600});
        fs::create_symlink("/etc/victim", lock_file);
        expect_refused("a symbolic link");
        fs::create_symlink("/var/run/nothing", lock_file);
        expect_refused("a dangling link");
        EXPECT_FALSE(exists("/var/run/nothing"));
        fs::create_hard_link("/etc/victim", lock_file);
        expect_refused("a second name");
        EXPECT_EQ(read_file("/etc/victim"), "as it was");
        write_file(lock_file, "");
        fs::permissions(lock_file, fs::perms{0600});
        // Fails in a user namespace without that user.
        if (chown(lock_file, ordinary_user_id, 0) == 0)
            expect_refused("another owner");
        for (const unsigned mode : {0640U, 0620U, 0604U, 0602U}) {
            write_file(lock_file, "");
            fs::permissions(lock_file, fs::perms{mode});
            expect_refused("a file for others");
        }
        ASSERT_EQ(mkfifo(lock_file, 0600), 0);
        expect_refused("a FIFO");
        fs::create_directory(lock_file);
        expect_refused("a directory");
        EXPECT_EQ(waits.count(), 0U);
        EXPECT_EQ(login_chpwd("admin", "secret"), CORVEL_PASSWORD_CHANGED);
    });
}

TEST(login_chpwd, CreatesTheDirectoryOfTheLockFile) {
    with_command([] {
        fs::remove_all("/var/run");
        EXPECT_EQ(login_chpwd("admin", "secret"), CORVEL_PASSWORD_CHANGED);
        EXPECT_TRUE(was_run());
        EXPECT_EQ(fs::status("/var/run").permissions(), fs::perms{0755});
    });
}

TEST(login_chpwd, RefusesIfTheDirectoryOfTheLockFileCannotBeCreated) {
    with_command([] {
        const CountedWaits waits;
        fs::remove_all("/var");
        EXPECT_EQ(login_chpwd("admin", "secret"), CORVEL_PASSWORD_REFUSED);
        write_file("/var", "");
        EXPECT_EQ(login_chpwd("admin", "secret"), CORVEL_PASSWORD_REFUSED);
        EXPECT_FALSE(was_run());
        EXPECT_EQ(waits.count(), 0U);
    });
}

TEST(login_chpwd, RefusesIfTheLockFileCannotBeLocked) {
    with_command([] {
        const CountedWaits waits;
        for (const int error : {ENOLCK, EINVAL, EIO}) {
            const Instead in_place_of_lock(error_of_lock, [error] { return error; });
            EXPECT_EQ(login_chpwd("admin", "secret"), CORVEL_PASSWORD_REFUSED) << error;
        }
        EXPECT_EQ(waits.count(), 0U);
        EXPECT_FALSE(was_run());
        // The errors by which a system may report that another process holds the lock.
        for (const int error : {EAGAIN, EACCES}) {
            int left = 2;
            const Instead in_place_of_lock(error_of_lock, [&] { return left-- > 0 ? error : 0; });
            EXPECT_EQ(login_chpwd("admin", "secret"), CORVEL_PASSWORD_CHANGED) << error;
        }
        EXPECT_EQ(waits.count(), 4U);
    });
}

TEST(login_chpwd, ReportsShellFailedIfTheCommandCannotBeStarted) {
    with_command([] {
        const FailCall failing(call_popen, 1, EMFILE);
        EXPECT_EQ(login_chpwd("admin", "secret"), CORVEL_PASSWORD_SHELL_FAILED);
        EXPECT_EQ(failing.failures(), 1U);
        EXPECT_FALSE(was_run());
        EXPECT_FALSE(exists(password_file));
    });
}

TEST(login_chpwd, ReportsShellFailedIfTheExitStatusIsUnavailable) {
    with_command([] {
        {
            const FailCall failing(call_pclose, 1, ECHILD);
            EXPECT_EQ(login_chpwd("admin", "secret"), CORVEL_PASSWORD_SHELL_FAILED);
        }
        EXPECT_TRUE(was_run());
        EXPECT_FALSE(exists(password_file));
        expect_in_child([] {
            signal(SIGCHLD, SIG_IGN);
            EXPECT_EQ(login_chpwd("admin", "secret"), CORVEL_PASSWORD_SHELL_FAILED);
            EXPECT_FALSE(exists(password_file));
        });
    });
}

TEST(login_chpwd, ChangesAPasswordWithTheRealCommand) {
    in_private_root([] {
        make_bin_writable();
        fs::create_symlink("/usr/sbin/chpasswd", "/bin/chpasswd");
        write_file("/etc/passwd", "root:x:0:0::/:/bin/sh\n" + passwd_line("admin"));
        write_file("/etc/shadow", "root:*:19000:0:99999:7:::\n" + shadow_line("admin", hash));
        write_file("/etc/group", "root:x:0:\n");
        EXPECT_EQ(login_auth("admin", password), CORVEL_LOGIN_ACCEPTED);
        EXPECT_EQ(login_chpwd("admin", "new: $ecret "), CORVEL_PASSWORD_CHANGED);
        EXPECT_EQ(login_auth("admin", "new: $ecret "), CORVEL_LOGIN_ACCEPTED);
        EXPECT_EQ(login_auth("admin", password), CORVEL_LOGIN_REFUSED);
        // The board's other programs need an MD5 hash.
        EXPECT_NE(read_file("/etc/shadow").find("\nadmin:$1$"), std::string::npos);
        EXPECT_NE(capture_stderr([] {
                      EXPECT_EQ(login_chpwd("nobody", "secret"), CORVEL_PASSWORD_COMMAND_FAILED);
                  }),
                  "");
        EXPECT_EQ(login_auth("admin", "new: $ecret "), CORVEL_LOGIN_ACCEPTED);
        EXPECT_FALSE(exists(password_file));
    });
}

} // namespace
} // namespace corvel_test

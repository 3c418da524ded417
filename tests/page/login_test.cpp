/* SPDX-License-Identifier: MIT */
#include <corvel_page.h>

#include "tests/page/device.h"
#include "tests/page/visit.h"
#include "tests/support/child_process.h"
#include "tests/support/descriptors.h"
#include "tests/support/kill_points.h"
#include "tests/support/private_root.h"
#include "tests/support/stand_in.h"
#include "tests/support/temporary_directory.h"

#include <crypt.h>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <utility>
#include <vector>

static unsigned long hashes; // computed by crypt()

extern "C" char *crypt(const char *password, const char *salt) C_LIBRARY_NOEXCEPT {
    static auto *const next =
        corvel_test::next_definition<char *(const char *, const char *)>("crypt");
    ++hashes;
    return next(password, salt);
}

namespace corvel_test {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;

constexpr const char *right = "secret";
constexpr const char *wrong = "guess";
constexpr std::size_t file_size = 16432;

unsigned checks;
std::function<void()> during_check;

bool is_right(const char *user, const char *password) {
    ++checks;
    if (during_check)
        std::exchange(during_check, nullptr)();
    return std::strcmp(user, "admin") == 0 && std::strcmp(password, right) == 0;
}

/** A site with its record of attempts. */
class Site {
  public:
    Site() {
        device = {};
        checks = 0;
        during_check = nullptr;
        rules.record = path_.c_str();
        rules.check = is_right;
    }
    ~Site() { device = {}; }
    Site(const Site &) = delete;
    Site &operator=(const Site &) = delete;

    corvel_login_verdict log_in(const char *password, const std::string &address = "192.168.1.2",
                                const char *user = "admin") {
        const Visit visit({.cookies = "", .address = address});
        seconds = 12345;
        return corvel_login(visit.request, &rules, user, password, &seconds);
    }

    /** Makes wrong attempts, waiting as long as it takes. */
    void fail(unsigned times, const std::string &address = "192.168.1.2") {
        for (unsigned i = 0; i < times; ++i) {
            EXPECT_EQ(log_in(wrong, address), CORVEL_LOGIN_WRONG) << address << ' ' << i;
            device.passed += seconds;
        }
    }

    /** True if the next attempt of an address has to wait after another wrong one. */
    bool is_slowed_down(const std::string &address) {
        return log_in(wrong, address) != CORVEL_LOGIN_WRONG || seconds != 0;
    }

    [[nodiscard]] const std::string &path() const { return path_; }

    TemporaryDirectory directory;
    corvel_login_rules rules{};
    unsigned seconds = 0;

  private:
    std::string path_ = directory.path("logins");
};

std::string address_of(unsigned number) {
    return "10." + std::to_string(number >> 16U) + '.' + std::to_string((number >> 8U) & 255U) +
           '.' + std::to_string(number & 255U);
}

TEST(corvel_login, TellsRightFromWrongPasswords) {
    Site site;
    EXPECT_EQ(site.log_in(right), CORVEL_LOGIN_RIGHT);
    EXPECT_EQ(site.seconds, 0U);
    EXPECT_EQ(site.log_in(wrong), CORVEL_LOGIN_WRONG);
    EXPECT_EQ(site.seconds, 0U);
    EXPECT_EQ(site.log_in(right, "192.168.1.2", "guest"), CORVEL_LOGIN_WRONG);
    EXPECT_EQ(checks, 3U);
}

TEST(corvel_login, AcceptsANullPointerForTheSeconds) {
    Site site;
    const Visit visit;
    EXPECT_EQ(corvel_login(visit.request, &site.rules, "admin", right, nullptr),
              CORVEL_LOGIN_RIGHT);
}

TEST(corvel_login, FailsWithoutARequest) {
    Site site;
    unsigned seconds = 5;
    EXPECT_EQ(corvel_login(nullptr, &site.rules, "admin", right, &seconds), CORVEL_LOGIN_FAILED);
    EXPECT_EQ(seconds, 0U);
    EXPECT_EQ(corvel_login(nullptr, nullptr, nullptr, nullptr, nullptr), CORVEL_LOGIN_FAILED);
    EXPECT_EQ(checks, 0U);
}

TEST(corvel_login, DoublesTheDelayWithEachWrongPassword) {
    Site site;
    for (const unsigned delay : {0U, 0U, 0U, 1U, 2U, 4U, 8U, 16U, 32U, 60U, 60U, 60U}) {
        EXPECT_EQ(site.log_in(wrong), CORVEL_LOGIN_WRONG);
        EXPECT_GE(site.seconds, delay);
        EXPECT_LE(site.seconds, delay + 1);
        device.passed += site.seconds;
    }
}

TEST(corvel_login, ChecksNothingDuringTheDelay) {
    Site site;
    site.fail(5);
    const unsigned before = checks;
    ASSERT_EQ(site.log_in(wrong), CORVEL_LOGIN_WRONG);
    for (int i = 0; i < 4; ++i, ++device.passed) {
        EXPECT_EQ(site.log_in(right), CORVEL_LOGIN_WAIT) << i;
        EXPECT_GE(site.seconds, 4U - static_cast<unsigned>(i));
        EXPECT_LE(site.seconds, 5U - static_cast<unsigned>(i));
    }
    device.passed += site.seconds;
    EXPECT_EQ(checks, before + 1);
    EXPECT_EQ(site.log_in(right), CORVEL_LOGIN_RIGHT);
}

TEST(corvel_login, FollowsTheRules) {
    Site site;
    site.rules.free_attempts = 1;
    site.rules.longest_seconds = 3;
    for (const unsigned delay : {0U, 1U, 2U, 3U, 3U}) {
        EXPECT_EQ(site.log_in(wrong), CORVEL_LOGIN_WRONG);
        EXPECT_GE(site.seconds, delay);
        EXPECT_LE(site.seconds, delay + 1);
        device.passed += site.seconds;
    }
    site.rules.longest_seconds = UINT32_MAX;
    site.fail(30);
    EXPECT_EQ(site.log_in(wrong), CORVEL_LOGIN_WRONG);
    EXPECT_GE(site.seconds, 86400U);
    EXPECT_LE(site.seconds, 86401U);
    site.rules.longest_seconds = 10;
    EXPECT_EQ(site.log_in(right), CORVEL_LOGIN_WAIT);
    EXPECT_LE(site.seconds, 11U);
}

TEST(corvel_login, SlowsDownOneClientOnly) {
    Site site;
    site.fail(20, "192.168.1.66");
    EXPECT_EQ(site.log_in(wrong, "192.168.1.66"), CORVEL_LOGIN_WRONG);
    EXPECT_EQ(site.log_in(right, "192.168.1.66"), CORVEL_LOGIN_WAIT);
    EXPECT_EQ(site.log_in(right, "192.168.1.2"), CORVEL_LOGIN_RIGHT);
    EXPECT_EQ(site.log_in(right, "2001:db8::c0a8:142"), CORVEL_LOGIN_RIGHT);
}

TEST(corvel_login, RecognisesAClientByItsAddress) {
    const std::vector<std::vector<std::string>> clients = {
        {"192.168.1.66", "::ffff:192.168.1.66", "::ffff:c0a8:142", "[::ffff:192.168.1.66]"},
        {"192.168.1.67"},
        {"2001:db8:1:2::1", "2001:0DB8:1:2:ffff:ffff:ffff:ffff", "[2001:db8:1:2::5]"},
        {"2001:db8:1:3::1"},
        {"fe80::1%br0", "fe80::2%eth0", "fe80::3"},
        {"::1", "::2", "::"},
        {"", "unknown", "192.168.1", "192.168.1.66.1", "[", std::string(1000, '1')},
    };
    Site site;
    for (const std::vector<std::string> &client : clients) {
        EXPECT_FALSE(site.is_slowed_down(client[0])) << client[0];
        site.fail(4, client[0]);
        for (const std::string &address : client) {
            EXPECT_TRUE(site.is_slowed_down(address)) << address;
            device.passed += site.seconds;
        }
    }
}

TEST(corvel_login, ForgetsWrongPasswordsAfterARightOne) {
    Site site;
    site.fail(10);
    EXPECT_EQ(site.log_in(right), CORVEL_LOGIN_RIGHT);
    for (int i = 0; i < 3; ++i)
        EXPECT_FALSE(site.is_slowed_down("192.168.1.2"));
    EXPECT_TRUE(site.is_slowed_down("192.168.1.2"));
}

TEST(corvel_login, ForgetsWrongPasswordsAfterFifteenMinutes) {
    Site site;
    site.fail(6);
    device.passed += 890;
    ASSERT_TRUE(site.is_slowed_down("192.168.1.2"));
    device.passed += site.seconds + 900;
    for (int i = 0; i < 3; ++i)
        EXPECT_FALSE(site.is_slowed_down("192.168.1.2"));
    EXPECT_TRUE(site.is_slowed_down("192.168.1.2"));
}

TEST(corvel_login, ForgetsEverythingWithARestartOfTheDevice) {
    Site site;
    site.fail(8);
    ASSERT_EQ(site.log_in(wrong), CORVEL_LOGIN_WRONG);
    ASSERT_EQ(site.log_in(right), CORVEL_LOGIN_WAIT);
    std::string record = read_file(site.path());
    ASSERT_EQ(record.size(), file_size);
    record[12] = record[12] == '0' ? '1' : '0';
    write_file(site.path(), record);
    EXPECT_EQ(site.log_in(right), CORVEL_LOGIN_RIGHT);
}

TEST(corvel_login, IsNotAffectedByTheWallClock) {
    Site site;
    site.fail(8);
    ASSERT_EQ(site.log_in(wrong), CORVEL_LOGIN_WRONG);
    for (const std::time_t error : {-2'000'000'000, 1'000'000'000}) {
        device.clock_error = error;
        EXPECT_EQ(site.log_in(right), CORVEL_LOGIN_WAIT);
    }
}

TEST(corvel_login, CountsAnAttemptThatWasInterrupted) {
    Site site;
    for (int i = 0; i < 4; ++i) {
        const ChildResult child = run_in_child([&] {
            during_check = [] {
                raise(SIGKILL);
            };
            site.log_in(wrong);
        });
        EXPECT_EQ(child.signal, SIGKILL);
    }
    EXPECT_EQ(site.log_in(right), CORVEL_LOGIN_WAIT);
}

TEST(corvel_login, ChecksOneAttemptOfAClientAtATime) {
    Site site;
    during_check = [&] {
        EXPECT_EQ(site.log_in(right), CORVEL_LOGIN_WAIT);
        EXPECT_EQ(site.seconds, 1U);
        EXPECT_EQ(site.log_in(right, "::ffff:192.168.1.2"), CORVEL_LOGIN_WAIT);
    };
    EXPECT_EQ(site.log_in(right), CORVEL_LOGIN_RIGHT);
    EXPECT_EQ(checks, 1U);
    EXPECT_EQ(device.pauses, 0U);
}

TEST(corvel_login, ChecksTwoClientsAtOnceAndLetsOthersWaitTenSeconds) {
    Site site;
    device.while_pausing = [] {
    };
    site.rules.free_attempts = 1;
    during_check = [&] {
        during_check = [&] {
            EXPECT_EQ(site.log_in(right, "10.0.0.3"), CORVEL_LOGIN_WAIT);
            EXPECT_EQ(site.seconds, 1U);
            EXPECT_EQ(device.pauses, 500U);
        };
        EXPECT_EQ(site.log_in(right, "10.0.0.2"), CORVEL_LOGIN_RIGHT);
    };
    EXPECT_EQ(site.log_in(right, "10.0.0.1"), CORVEL_LOGIN_RIGHT);
    EXPECT_EQ(checks, 2U);
    // What was not checked does not count.
    EXPECT_FALSE(site.is_slowed_down("10.0.0.3"));
}

TEST(corvel_login, HasAPlaceForClientsThatHaveLoggedInBefore) {
    Site site;
    ASSERT_EQ(site.log_in(right, "192.168.1.2"), CORVEL_LOGIN_RIGHT);
    device.while_pausing = [] {
        FAIL();
    };
    during_check = [&] {
        during_check = [&] {
            EXPECT_EQ(site.log_in(right, "192.168.1.2"), CORVEL_LOGIN_RIGHT);
        };
        EXPECT_EQ(site.log_in(wrong, "10.0.0.2"), CORVEL_LOGIN_WRONG);
    };
    EXPECT_EQ(site.log_in(wrong, "10.0.0.1"), CORVEL_LOGIN_WRONG);
    EXPECT_EQ(checks, 4U);
}

TEST(corvel_login, RemembersTheClientsThatMatterMost) {
    Site site;
    ASSERT_EQ(site.log_in(right, "192.168.1.2"), CORVEL_LOGIN_RIGHT);
    site.fail(3, "192.168.1.2");
    site.fail(3, "192.168.1.3");
    ++device.passed;
    for (unsigned i = 0; i < 1021; ++i)
        site.fail(3, address_of(i));
    site.fail(8, address_of(1021));
    // The record is full. One more client takes the place of the oldest.
    ASSERT_EQ(site.log_in(wrong, address_of(1022)), CORVEL_LOGIN_WRONG);
    EXPECT_TRUE(site.is_slowed_down("192.168.1.2"));
    EXPECT_FALSE(site.is_slowed_down("192.168.1.3"));
    for (unsigned i = 2000; i < 4000; ++i)
        ASSERT_FALSE(site.is_slowed_down(address_of(i)));
    EXPECT_TRUE(site.is_slowed_down("192.168.1.2"));
    EXPECT_EQ(fs::file_size(site.path()), file_size);
}

TEST(corvel_login, ReplacesNoClientWhoseAttemptIsBeingChecked) {
    Site site;
    device.stopped_at = 1000;
    during_check = [&] {
        for (unsigned i = 1; i < 1024; ++i)
            EXPECT_EQ(site.log_in(wrong, address_of(i)), CORVEL_LOGIN_WRONG) << i;
        EXPECT_EQ(site.log_in(right, "192.168.1.2"), CORVEL_LOGIN_RIGHT);
    };
    EXPECT_EQ(site.log_in(wrong, address_of(0)), CORVEL_LOGIN_WRONG);
    for (int i = 0; i < 2; ++i)
        EXPECT_FALSE(site.is_slowed_down(address_of(0)));
    EXPECT_TRUE(site.is_slowed_down(address_of(0)));
}

TEST(corvel_login, RefusesNamesAndPasswordsThatCannotBe) {
    Site site;
    const std::string longest(CORVEL_USER_MAX, 'x');
    const std::string too_long(CORVEL_USER_MAX + 1, 'x');
    site.rules.free_attempts = 100;
    for (const char *user :
         {static_cast<const char *>(nullptr), "", "ad\nmin", "\x1f", "admin\x7f", too_long.c_str()})
        EXPECT_EQ(site.log_in(right, "10.0.0.1", user), CORVEL_LOGIN_WRONG);
    for (const char *password :
         {static_cast<const char *>(nullptr), "a\nb", "\x01", "\x7f", too_long.c_str()})
        EXPECT_EQ(site.log_in(password, "10.0.0.1"), CORVEL_LOGIN_WRONG);
    EXPECT_EQ(checks, 0U);
    for (const char *word : {"x", " ", "\xC3\xA4", "\xFF", "a:b", longest.c_str()})
        EXPECT_EQ(site.log_in(word, "10.0.0.1", word), CORVEL_LOGIN_WRONG);
    EXPECT_EQ(site.log_in("", "10.0.0.1"), CORVEL_LOGIN_WRONG);
    EXPECT_EQ(checks, 7U);
}

TEST(corvel_login, CountsNamesThatCannotBeAsWrong) {
    Site site;
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(site.log_in(right, "10.0.0.1", "\n"), CORVEL_LOGIN_WRONG);
    EXPECT_EQ(site.log_in(right, "10.0.0.1"), CORVEL_LOGIN_WAIT);
}

// The file.

TEST(corvel_login, CreatesAPrivateFileOfAFixedSize) {
    Site site;
    const mode_t mask = umask(0);
    site.log_in(wrong);
    umask(mask);
    struct stat status {};
    ASSERT_EQ(stat(site.path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, S_IFREG | 0600U);
    EXPECT_EQ(status.st_size, static_cast<off_t>(file_size));
    for (unsigned i = 0; i < 100; ++i)
        site.log_in(wrong, address_of(i));
    EXPECT_EQ(fs::file_size(site.path()), file_size);
}

TEST(corvel_login, UsesNoFileThatOthersCanOpen) {
    Site site;
    ASSERT_EQ(site.log_in(right), CORVEL_LOGIN_RIGHT);
    for (const mode_t mode : {0604U, 0602U, 0640U, 0620U, 0644U, 0666U}) {
        ASSERT_EQ(chmod(site.path().c_str(), mode), 0);
        EXPECT_EQ(site.log_in(right), CORVEL_LOGIN_FAILED) << std::oct << mode;
    }
    ASSERT_EQ(chmod(site.path().c_str(), 0600), 0);
    EXPECT_EQ(site.log_in(right), CORVEL_LOGIN_RIGHT);
    fs::create_hard_link(site.path(), site.directory.path("second"));
    EXPECT_EQ(site.log_in(right), CORVEL_LOGIN_FAILED);
    EXPECT_EQ(checks, 2U);
}

TEST(corvel_login, UsesNoFileOfAnotherUser) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can give a file away";
    Site site;
    ASSERT_EQ(site.log_in(right), CORVEL_LOGIN_RIGHT);
    ASSERT_EQ(chown(site.path().c_str(), ordinary_user_id, ordinary_user_id), 0);
    EXPECT_EQ(site.log_in(right), CORVEL_LOGIN_FAILED);
}

TEST(corvel_login, FollowsNoLinkAndUsesRegularFilesOnly) {
    Site site;
    site.directory.write("empty", "");
    fs::permissions(site.directory.path("empty"), fs::perms::owner_read | fs::perms::owner_write);
    fs::create_symlink(site.directory.path("empty"), site.path());
    EXPECT_EQ(site.log_in(right), CORVEL_LOGIN_FAILED);
    EXPECT_EQ(site.directory.read("empty"), "");
    fs::remove(site.path());
    fs::create_directory(site.path());
    EXPECT_EQ(site.log_in(right), CORVEL_LOGIN_FAILED);
    fs::remove(site.path());
    ASSERT_EQ(mkfifo(site.path().c_str(), 0600), 0);
    EXPECT_EQ(site.log_in(right), CORVEL_LOGIN_FAILED);
    EXPECT_EQ(checks, 0U);
}

TEST(corvel_login, LeavesAFileOfAnotherKindAlone) {
    Site site;
    for (const std::string &content :
         {"x"s, "root:x:0:0::/:/bin/sh\n"s, "corvel logi"s, std::string(file_size, 'x')}) {
        site.directory.write("logins", content);
        fs::permissions(site.path(), fs::perms::owner_read | fs::perms::owner_write);
        EXPECT_EQ(site.log_in(right), CORVEL_LOGIN_FAILED);
        EXPECT_EQ(site.directory.read("logins"), content);
    }
    EXPECT_EQ(checks, 0U);
}

TEST(corvel_login, BeginsAgainWithAnEmptyOrTruncatedFile) {
    Site site;
    site.fail(8);
    const std::string record = read_file(site.path());
    for (const std::size_t size : {0U, 12U, 48U, 1000U}) {
        write_file(site.path(), record.substr(0, size));
        EXPECT_EQ(site.log_in(right), CORVEL_LOGIN_RIGHT) << size;
        EXPECT_EQ(fs::file_size(site.path()), file_size);
    }
    write_file(site.path(), record + "x");
    EXPECT_EQ(site.log_in(right), CORVEL_LOGIN_RIGHT);
    EXPECT_EQ(fs::file_size(site.path()), file_size);
}

TEST(corvel_login, ChecksNothingThatCouldNotBeRecorded) {
    Site site;
    for (const bool is_new : {true, false}) {
        const DescriptorWatch watch;
        device.while_pausing = [] {
        };
        corvel_login_verdict verdict = CORVEL_LOGIN_FAILED;
        unsigned refused = 0;
        for_each_failing_call(
            [&] {
                if (is_new)
                    fs::remove(site.path());
                checks = 0;
                verdict = site.log_in(right);
            },
            [&](unsigned long n) {
                EXPECT_EQ(verdict == CORVEL_LOGIN_RIGHT, checks == 1) << n;
                EXPECT_EQ(verdict == CORVEL_LOGIN_RIGHT,
                          verdict != CORVEL_LOGIN_FAILED && verdict != CORVEL_LOGIN_WAIT)
                    << n;
                refused += verdict == CORVEL_LOGIN_FAILED ? 1 : 0;
                EXPECT_EQ(site.log_in(right), CORVEL_LOGIN_RIGHT) << n;
            });
        EXPECT_GT(refused, 1U);
    }
}

TEST(corvel_login, FailsWithoutMemoryAndIfTheFileCannotBeOpenedOrRead) {
    Site site;
    ASSERT_EQ(site.log_in(right), CORVEL_LOGIN_RIGHT);
    const DescriptorWatch watch;
    for (const stand_in_call call : {call_open, call_fstat, call_read, call_calloc}) {
        const FailCall failing(call, 1);
        EXPECT_EQ(site.log_in(right), CORVEL_LOGIN_FAILED) << call;
        EXPECT_EQ(failing.failures(), 1U) << call;
    }
    EXPECT_EQ(checks, 1U);
}

TEST(corvel_login, FailsOnAFullDevice) {
    in_private_root([] {
        fs::create_directory("/tmp/full");
        mount_small_disk("/tmp/full", 4096);
        Site site;
        site.rules.record = "/tmp/full/logins";
        EXPECT_EQ(site.log_in(right), CORVEL_LOGIN_FAILED);
        EXPECT_EQ(checks, 0U);
    });
}

TEST(corvel_login, WaitsFiveSecondsForTheRecord) {
    Site site;
    ASSERT_EQ(site.log_in(right), CORVEL_LOGIN_RIGHT);
    const int holder = open(site.path().c_str(), O_RDWR | O_CLOEXEC);
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_len = 1;
    ASSERT_EQ(fcntl(holder, F_OFD_SETLK, &lock), 0);
    device.while_pausing = [] {
    };
    EXPECT_EQ(site.log_in(right), CORVEL_LOGIN_FAILED);
    EXPECT_EQ(device.pauses, 500U);
    device.while_pausing = [holder, lock]() mutable {
        lock.l_type = F_UNLCK;
        fcntl(holder, F_OFD_SETLK, &lock);
    };
    EXPECT_EQ(site.log_in(right), CORVEL_LOGIN_RIGHT);
    close(holder);
}

TEST(corvel_login, LeavesAUsableRecordIfItIsKilled) {
    Site site;
    const unsigned long points = for_each_kill_point(
        [&] { fs::remove(site.path()); }, [&] { site.log_in(wrong); },
        [&](unsigned long n) { EXPECT_EQ(site.log_in(right), CORVEL_LOGIN_RIGHT) << n; });
    EXPECT_GT(points, 5U);
}

// The accounts.

/** The password is `secret` with each. */
constexpr const char *hash = "$5$rounds=1000$saltstring$";

std::string shadow_line(const std::string &name, const std::string &stored) {
    return name + ":" + stored + ":19000:0:99999:7:::\n";
}

/** Writes the accounts of a device whose only users with a password are admin and guest. */
void write_accounts() {
    const std::string stored = crypt(right, hash);
    ASSERT_TRUE(stored.starts_with("$5$"));
    write_file("/etc/passwd", "root:x:0:0::/:/bin/sh\nlocked:!:1:1::/:/bin/sh\n"
                              "admin:x:0:0::/:/bin/sh\nguest:x:2:2::/:/bin/sh\n");
    write_file("/etc/shadow", shadow_line("root", "*") + shadow_line("locked", stored) +
                                  shadow_line("admin", stored) + shadow_line("guest", stored));
}

TEST(corvel_login, ChecksTheAccountsOfTheDeviceByDefault) {
    in_private_root([] {
        write_accounts();
        Site site;
        site.rules.check = nullptr;
        site.rules.free_attempts = 100;
        EXPECT_EQ(site.log_in(right), CORVEL_LOGIN_RIGHT);
        EXPECT_EQ(site.log_in(right, "10.0.0.1", "guest"), CORVEL_LOGIN_RIGHT);
        EXPECT_EQ(site.log_in(wrong), CORVEL_LOGIN_WRONG);
        EXPECT_EQ(site.log_in("", "10.0.0.2"), CORVEL_LOGIN_WRONG);
        for (const char *user : {"root", "locked", "nobody-here", "admin:x", ""})
            EXPECT_EQ(site.log_in(right, "10.0.0.3", user), CORVEL_LOGIN_WRONG) << user;
    });
}

TEST(corvel_login, UsesTheDefaultFile) {
    in_private_root([] {
        write_accounts();
        fs::create_directories("/run");
        const Visit visit;
        EXPECT_EQ(corvel_login(visit.request, nullptr, "admin", right, nullptr),
                  CORVEL_LOGIN_RIGHT);
        EXPECT_EQ(fs::file_size("/run/logins"), file_size);
    });
}

TEST(corvel_login, TakesAsLongForUsersThatDoNotExist) {
    in_private_root([] {
        write_accounts();
        Site site;
        site.rules.check = nullptr;
        site.rules.free_attempts = 100;
        for (const char *user : {"admin", "guest", "root", "locked", "nobody-here", "admin:x"})
            for (const char *password : {wrong, ""}) {
                hashes = 0;
                EXPECT_EQ(site.log_in(password, "10.0.0.1", user), CORVEL_LOGIN_WRONG) << user;
                EXPECT_EQ(hashes, 1U) << user;
            }
        write_file("/etc/shadow", shadow_line("root", "*"));
        hashes = 0;
        EXPECT_EQ(site.log_in(right, "10.0.0.1", "nobody-here"), CORVEL_LOGIN_WRONG);
        EXPECT_EQ(hashes, 0U);
        fs::remove("/etc/passwd");
        EXPECT_EQ(site.log_in(right), CORVEL_LOGIN_WRONG);
    });
}

/** Guesses from a new address each time, in as many processes, until they are killed. */
class Strangers {
  public:
    Strangers(Site &site, unsigned count, bool change_address) {
        for (unsigned i = 0; i < count; ++i) {
            processes_.push_back(fork());
            if (processes_.back() == 0)
                for (unsigned number = i << 16U;; number += change_address ? 1 : 0)
                    site.log_in(wrong, address_of(number));
        }
    }
    Strangers(const Strangers &) = delete;
    Strangers &operator=(const Strangers &) = delete;
    ~Strangers() {
        for (const pid_t process : processes_) {
            kill(process, SIGKILL);
            wait_for_child(process);
        }
    }

  private:
    std::vector<pid_t> processes_;
};

TEST(corvel_login, LetsTheOwnerInWhileStrangersGuess) {
    in_private_root([] {
        write_accounts();
        Site site;
        site.rules.check = nullptr;
        for (const bool change_address : {false, true}) {
            const Strangers strangers(site, 6, change_address);
            for (int i = 0; i < 40; ++i)
                EXPECT_EQ(site.log_in(right, "192.168.1.2"), CORVEL_LOGIN_RIGHT) << i;
        }
    });
}

TEST(corvel_login, LetsNewClientsInWhileStrangersGuess) {
    in_private_root([] {
        write_accounts();
        Site site;
        site.rules.check = nullptr;
        const Strangers strangers(site, 6, true);
        for (int i = 0; i < 40; ++i)
            EXPECT_EQ(site.log_in(right, "192.168.1." + std::to_string(i)), CORVEL_LOGIN_RIGHT)
                << i;
    });
}

} // namespace
} // namespace corvel_test

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

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <gtest/gtest.h>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace corvel_test {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;

struct SessionRelease {
    void operator()(corvel_session *session) const { corvel_session_free(session); }
};
using Session = std::unique_ptr<corvel_session, SessionRelease>;

/** The users of the device whose sessions are tested. */
std::string missing_user;
bool exists(const char *user) { return missing_user != user; }

/** Where the boot identifier is in a session's file, and where the user is. */
constexpr std::size_t boot_at = 4;
constexpr std::size_t user_at = 40;
constexpr std::size_t file_size = 296;

/** A site with its sessions. */
class Site {
  public:
    Site() {
        device = {};
        missing_user.clear();
        rules.directory = path_.c_str();
        rules.user_exists = exists;
    }
    ~Site() { device = {}; }
    Site(const Site &) = delete;
    Site &operator=(const Site &) = delete;

    /** Logs a user in. @return the cookie, NAME=VALUE; empty if the session was not started. */
    std::string log_in(const std::string &user, const std::string &cookies = "") {
        const Visit visit({.cookies = cookies});
        const Session session(
            corvel_session_start(visit.request, visit.answer, &rules, user.c_str()));
        const std::string cookie = visit.cookie();
        EXPECT_EQ(session != nullptr, !cookie.empty());
        return cookie.substr(0, cookie.find(';'));
    }

    [[nodiscard]] Session find(const std::string &cookies) const {
        const Visit visit({.cookies = cookies});
        return Session(corvel_session_find(visit.request, &rules));
    }

    /** The user of the session that cookies name; empty if there is none. */
    [[nodiscard]] std::string user_of(const std::string &cookies) const {
        const Session session = find(cookies);
        return session != nullptr ? corvel_session_user(session.get()) : "";
    }

    [[nodiscard]] bool touch(const std::string &cookies) const {
        return corvel_session_touch(find(cookies).get());
    }

    [[nodiscard]] std::vector<std::string> files() const {
        std::vector<std::string> names;
        for (const fs::directory_entry &entry : fs::directory_iterator(path_))
            names.push_back(entry.path().filename());
        return names;
    }

    /** The path of the only file. */
    [[nodiscard]] std::string file() const {
        const std::vector<std::string> names = files();
        return names.size() == 1 ? path_ + "/" + names[0] : "";
    }

    void set_mode(mode_t mode) const { ASSERT_EQ(chmod(path_.c_str(), mode), 0); }

    [[nodiscard]] const std::string &path() const { return path_; }

    TemporaryDirectory parent;
    corvel_session_rules rules{};

  private:
    std::string path_ = parent.path("sessions");
};

std::string value_of(const std::string &cookie) { return cookie.substr(cookie.find('=') + 1); }

struct stat status_of(const std::string &path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status;
}

/** The SHA-256 of a string, from another implementation. */
std::string sha256_of(const std::string &text) {
    const std::string command = "printf %s '" + text + "' | sha256sum";
    std::array<char, 65> digest{};
    std::FILE *const pipe = popen(command.c_str(), "r");
    EXPECT_NE(pipe, nullptr);
    EXPECT_EQ(std::fread(digest.data(), 1, 64, pipe), 64U);
    pclose(pipe);
    return digest.data();
}

void set_times(const std::string &path, std::time_t seconds) {
    std::array<timespec, 2> times{};
    times[0].tv_sec = times[1].tv_sec = seconds;
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times.data(), 0), 0);
}

// corvel_session_start

TEST(corvel_session_start, SetsACookieThatScriptsAndOtherSitesDoNotGet) {
    Site site;
    const Visit visit;
    const Session session(corvel_session_start(visit.request, visit.answer, &site.rules, "admin"));
    ASSERT_NE(session, nullptr);
    const std::string cookie = visit.cookie();
    const std::string start = "session=";
    ASSERT_TRUE(cookie.starts_with(start));
    EXPECT_EQ(cookie.find_first_not_of("0123456789abcdef", start.size()), start.size() + 64);
    EXPECT_EQ(cookie.substr(start.size() + 64), "; Path=/; HttpOnly; SameSite=Strict");
}

TEST(corvel_session_start, SetsACookieForTlsOnlyIfItIsUsed) {
    Site site;
    const Visit visit({.cookies = "", .uses_tls = true});
    const Session session(corvel_session_start(visit.request, visit.answer, &site.rules, "admin"));
    EXPECT_TRUE(visit.cookie().ends_with("; Secure"));
}

TEST(corvel_session_start, ReturnsTheSession) {
    Site site;
    const Visit visit;
    const Session session(corvel_session_start(visit.request, visit.answer, &site.rules, "admin"));
    const std::string cookie = visit.cookie();
    const Session found = site.find(cookie.substr(0, cookie.find(';')));
    ASSERT_NE(found, nullptr);
    EXPECT_STREQ(corvel_session_user(session.get()), "admin");
    EXPECT_STREQ(corvel_session_token(session.get()), corvel_session_token(found.get()));
    EXPECT_TRUE(corvel_session_touch(session.get()));
}

TEST(corvel_session_start, ChoosesAnotherIdentifierEachTime) {
    Site site;
    EXPECT_NE(site.log_in("admin"), site.log_in("admin"));
}

TEST(corvel_session_start, CreatesAPrivateDirectoryAndAPrivateFile) {
    Site site;
    const mode_t mask = umask(0);
    site.log_in("admin");
    umask(mask);
    EXPECT_EQ(status_of(site.path()).st_mode, S_IFDIR | 0700U);
    EXPECT_EQ(status_of(site.file()).st_mode, S_IFREG | 0600U);
}

TEST(corvel_session_start, KeepsNothingThatOpensTheSession) {
    Site site;
    const std::string id = value_of(site.log_in("admin"));
    const Session session = site.find("session=" + id);
    const std::string content = read_file(site.file());
    EXPECT_EQ(site.files(), std::vector{sha256_of(id)});
    EXPECT_EQ(content.find(id), std::string::npos);
    EXPECT_EQ(content.find(corvel_session_token(session.get())), std::string::npos);
    EXPECT_EQ(site.user_of("session=" + site.files()[0]), "");
}

TEST(corvel_session_start, UsesNoDirectoryThatOthersCanOpen) {
    Site site;
    const std::string cookie = site.log_in("admin");
    for (const mode_t mode : {0701U, 0702U, 0704U, 0710U, 0720U, 0740U, 0755U, 0777U, 01777U}) {
        site.set_mode(mode);
        EXPECT_EQ(site.log_in("admin"), "") << std::oct << mode;
        EXPECT_EQ(site.user_of(cookie), "") << std::oct << mode;
        EXPECT_EQ(corvel_session_end_all(&site.rules, "admin", nullptr), -1) << std::oct << mode;
    }
    site.set_mode(0700);
    EXPECT_EQ(site.user_of(cookie), "admin");
}

TEST(corvel_session_start, UsesNoDirectoryOfAnotherUser) {
    Site site;
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can give a directory away";
    const std::string cookie = site.log_in("admin");
    ASSERT_EQ(chown(site.path().c_str(), ordinary_user_id, ordinary_user_id), 0);
    EXPECT_EQ(site.log_in("admin"), "");
    EXPECT_EQ(site.user_of(cookie), "");
}

TEST(corvel_session_start, FollowsNoLinkAndUsesNoFileAsADirectory) {
    Site site;
    const std::string cookie = site.log_in("admin");
    const std::string link = site.parent.path("link");
    fs::create_directory_symlink(site.path(), link);
    site.parent.write("file", "");
    for (const std::string &path :
         {link, site.parent.path("file"), site.parent.path("missing/sessions")}) {
        site.rules.directory = path.c_str();
        EXPECT_EQ(site.log_in("admin"), "") << path;
        EXPECT_EQ(site.user_of(cookie), "") << path;
    }
}

TEST(corvel_session_start, EndsTheFormerSessionOfTheRequest) {
    Site site;
    const std::string former = site.log_in("admin");
    const std::string other = site.log_in("admin");
    const std::string cookie = site.log_in("guest", "theme=dark; " + former);
    EXPECT_EQ(site.user_of(former), "");
    EXPECT_EQ(site.user_of(other), "admin");
    EXPECT_EQ(site.user_of(cookie), "guest");
}

TEST(corvel_session_start, ReplacesTheLeastRecentlyUsedSessionOfTheUser) {
    Site site;
    std::vector<std::string> cookies;
    const std::string guest = site.log_in("guest");
    for (int i = 0; i < 8; ++i, ++device.passed)
        cookies.push_back(site.log_in("admin"));
    ASSERT_TRUE(site.touch(cookies[0]));
    ++device.passed;
    cookies.push_back(site.log_in("admin"));
    EXPECT_EQ(site.user_of(cookies[1]), "");
    cookies.erase(cookies.begin() + 1);
    for (const std::string &cookie : cookies)
        EXPECT_EQ(site.user_of(cookie), "admin");
    EXPECT_EQ(site.user_of(guest), "guest");
}

TEST(corvel_session_start, KeepsASessionThatWasUsedInTheSameSecond) {
    Site site;
    site.rules.sessions_max = 2;
    for (int i = 0; i < 10; ++i) {
        const std::string used = site.log_in("admin");
        const std::string other = site.log_in("admin");
        ASSERT_TRUE(site.touch(used));
        site.log_in("admin");
        EXPECT_EQ(site.user_of(used), "admin") << i;
        EXPECT_EQ(site.user_of(other), "") << i;
    }
}

TEST(corvel_session_start, ReducesTheSessionsOfTheUserToAStatedNumber) {
    Site site;
    for (int i = 0; i < 6; ++i, ++device.passed)
        site.log_in("admin");
    const std::string guest = site.log_in("guest");
    site.rules.sessions_max = 2;
    site.log_in("admin");
    EXPECT_EQ(site.files().size(), 3U);
    site.rules.sessions_max = 1;
    const std::string cookie = site.log_in("admin");
    EXPECT_EQ(site.files().size(), 2U);
    EXPECT_EQ(site.user_of(cookie), "admin");
    EXPECT_EQ(site.user_of(guest), "guest");
}

TEST(corvel_session_start, NeverEndsASessionOfAnotherUserForWantOfRoom) {
    Site site;
    site.rules.sessions_max = CORVEL_SESSIONS_MAX;
    std::vector<std::string> cookies{site.log_in("owner")};
    for (int i = 1; i < CORVEL_SESSIONS_MAX; ++i)
        cookies.push_back(site.log_in("user" + std::to_string(i % 16)));
    EXPECT_EQ(site.log_in("late"), "");
    for (const std::string &cookie : cookies)
        EXPECT_NE(site.user_of(cookie), "");
    const std::string next = site.log_in("user1");
    EXPECT_EQ(site.user_of(next), "user1");
    EXPECT_EQ(site.user_of(cookies[0]), "owner");
    EXPECT_EQ(site.files().size(), std::size_t{CORVEL_SESSIONS_MAX});
}

TEST(corvel_session_start, RemovesExpiredSessionsAndWhatInterruptedProgramsLeft) {
    Site site;
    for (int i = 0; i < 4; ++i)
        site.log_in("user" + std::to_string(i));
    device.passed = 900;
    write_file(site.path() + "/" + std::string(64, 'a'), "");
    write_file(site.path() + "/" + std::string(64, 'b'), std::string(file_size, 'b'));
    fs::create_symlink("/etc/passwd", site.path() + "/" + std::string(64, 'c'));
    site.log_in("admin");
    EXPECT_EQ(site.files().size(), 1U);
    EXPECT_TRUE(fs::exists("/etc/passwd"));
}

TEST(corvel_session_start, LeavesFilesWithOtherNamesAlone) {
    Site site;
    site.log_in("admin");
    const std::string short_name = site.path() + "/notes";
    const std::string long_name = site.path() + "/" + std::string(65, 'a');
    write_file(short_name, "");
    write_file(long_name, "");
    site.log_in("admin");
    EXPECT_TRUE(fs::exists(short_name));
    EXPECT_TRUE(fs::exists(long_name));
}

TEST(corvel_session_start, RefusesAUserThatCannotBe) {
    Site site;
    const Visit visit;
    missing_user = "nobody-here";
    for (const char *user : {"", "nobody-here", static_cast<const char *>(nullptr)})
        EXPECT_EQ(corvel_session_start(visit.request, visit.answer, &site.rules, user), nullptr);
    EXPECT_EQ(site.log_in(std::string(CORVEL_USER_MAX + 1, 'u')), "");
    EXPECT_EQ(visit.cookie(), "");
    EXPECT_FALSE(fs::exists(site.path()));
    const std::string longest(CORVEL_USER_MAX, 'u');
    EXPECT_EQ(site.user_of(site.log_in(longest)), longest);
}

TEST(corvel_session_start, TakesUsersOfTheAccountDatabaseByDefault) {
    in_private_root([] {
        write_file("/etc/passwd",
                   "admin:x:0:0::/:/bin/sh\nlong:x:0:0:" + std::string(2000, 'x') + ":/:/bin/sh\n");
        corvel_session_rules rules{};
        rules.directory = "/tmp/sessions";
        const Visit visit;
        for (const char *user : {"nobody-here", "adm", "admin:x", "long"})
            EXPECT_EQ(Session(corvel_session_start(visit.request, visit.answer, &rules, user)),
                      nullptr)
                << user;
        EXPECT_NE(Session(corvel_session_start(visit.request, visit.answer, &rules, "admin")),
                  nullptr);
        const std::string cookie = visit.cookie();
        const Visit next({.cookies = cookie.substr(0, cookie.find(';'))});
        EXPECT_NE(Session(corvel_session_find(next.request, &rules)), nullptr);
        write_file("/etc/passwd", "root:x:0:0::/:/bin/sh\n");
        EXPECT_EQ(Session(corvel_session_find(next.request, &rules)), nullptr);
    });
}

TEST(corvel_session_start, UsesTheDefaultDirectory) {
    in_private_root([] {
        corvel_session_rules rules{};
        rules.user_exists = exists;
        const Visit visit;
        fs::create_directories("/run");
        EXPECT_NE(Session(corvel_session_start(visit.request, visit.answer, &rules, "admin")),
                  nullptr);
        EXPECT_TRUE(fs::exists("/run/sessions"));
    });
}

TEST(corvel_session_start, NeedsARequestAndAnAnswer) {
    Site site;
    const Visit visit;
    EXPECT_EQ(corvel_session_start(nullptr, visit.answer, &site.rules, "admin"), nullptr);
    EXPECT_EQ(corvel_session_start(visit.request, nullptr, &site.rules, "admin"), nullptr);
    EXPECT_FALSE(fs::exists(site.path()));
}

TEST(corvel_session_start, NamesTheCookieByTheRules) {
    Site site;
    const std::string longest(63, 'c');
    site.rules.cookie = longest.c_str();
    const std::string cookie = site.log_in("admin");
    EXPECT_TRUE(cookie.starts_with(longest + "="));
    EXPECT_EQ(site.user_of(cookie), "admin");
    EXPECT_EQ(site.user_of("session=" + value_of(cookie)), "");
    const std::string too_long(64, 'c');
    site.rules.cookie = too_long.c_str();
    EXPECT_EQ(site.log_in("admin"), "");
    EXPECT_EQ(site.user_of(too_long + "=" + value_of(cookie)), "");
}

TEST(corvel_session_start, FailsWithoutRandomBytes) {
    Site site;
    device.fail("getrandom", EAGAIN);
    EXPECT_EQ(site.log_in("admin"), "");
    EXPECT_TRUE(device.repair());
    EXPECT_FALSE(fs::exists(site.path()));
}

TEST(corvel_session_start, WaitsFiveSecondsForTheLock) {
    Site site;
    site.log_in("admin");
    const int holder = open(site.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(flock(holder, LOCK_EX), 0);
    device.while_pausing = [] {
    };
    EXPECT_EQ(site.log_in("admin"), "");
    EXPECT_EQ(device.pauses, 500U);
    device.while_pausing = [holder] {
        flock(holder, LOCK_UN);
    };
    device.pauses = 0;
    EXPECT_NE(site.log_in("admin"), "");
    EXPECT_EQ(device.pauses, 1U);
    close(holder);
}

TEST(corvel_session_start, LimitsTheSessionsOfAUserWhoLogsInSeveralTimesAtOnce) {
    Site site;
    site.rules.sessions_max = 2;
    site.log_in("guest");
    std::vector<pid_t> children;
    for (int i = 0; i < 6; ++i) {
        children.push_back(fork());
        if (children.back() == 0)
            end_child([&] {
                int failed = 0;
                for (int login = 0; login < 4; ++login)
                    failed += site.log_in("admin").empty() ? 1 : 0;
                return failed;
            }());
    }
    for (const pid_t child : children)
        EXPECT_EQ(wait_for_child(child).exit_status, 0);
    EXPECT_EQ(site.files().size(), 3U);
}

/** Logs in while calls fail, and checks that either a session was started or nothing has changed.
 */
class LogInsThatFail {
  public:
    LogInsThatFail() {
        device.while_pausing = [] {
        };
    }

    void run() {
        session_.reset(corvel_session_start(visit_.request, visit_.answer, &site_.rules, "admin"));
    }
    void check(const std::string &which) {
        EXPECT_EQ(site_.user_of(guest_), "guest") << which;
        EXPECT_EQ(site_.user_of(first_), "admin") << which;
        const bool started = session_ != nullptr;
        EXPECT_EQ(corvel_session_touch(session_.get()), started) << which;
        EXPECT_EQ(site_.files().size(), started ? 3U : 2U) << which;
        EXPECT_EQ(corvel_session_end(session_.get(), nullptr), started) << which;
        refused_ += started ? 0 : 1;
        session_.reset();
    }
    [[nodiscard]] unsigned refused() const { return refused_; }

  private:
    Site site_;
    std::string guest_ = site_.log_in("guest");
    std::string first_ = site_.log_in("admin");
    Visit visit_;
    Session session_;
    unsigned refused_ = 0;
};

TEST(corvel_session_start, ChangesNothingIfAnyCallFails) {
    LogInsThatFail log_ins;
    const DescriptorWatch watch;
    for_each_failing_call([&] { log_ins.run(); },
                          [&](unsigned long n) { log_ins.check(std::to_string(n)); });
    EXPECT_GT(log_ins.refused(), 10U);
}

TEST(corvel_session_start, ChangesNothingIfAFileCannotBeReadOrWritten) {
    LogInsThatFail log_ins;
    const DescriptorWatch watch;
    for (const stand_in_call call : {call_open, call_read, call_fstat, call_write}) {
        const unsigned refused = log_ins.refused();
        for (unsigned long n = 1, failed = 1; failed != 0; ++n) {
            {
                const FailCall failing(call, n, EMFILE);
                log_ins.run();
                failed = failing.failures();
            }
            log_ins.check(std::to_string(call) + ' ' + std::to_string(n));
        }
        EXPECT_GT(log_ins.refused(), refused) << call;
    }
}

TEST(corvel_session_start, FailsIfTheFormerSessionCannotBeRead) {
    Site site;
    const std::string former = site.log_in("admin");
    const Visit visit({.cookies = former});
    bool failed = true;
    for (unsigned long n = 1; failed; ++n) {
        const FailCall failing(call_read, n);
        const Session session(
            corvel_session_start(visit.request, visit.answer, &site.rules, "admin"));
        failed = failing.failures() != 0;
        EXPECT_EQ(session == nullptr, failed) << n;
    }
    EXPECT_EQ(site.user_of(former), "");
    EXPECT_EQ(site.files().size(), 1U);
}

TEST(corvel_session_start, FailsWithoutMemory) {
    Site site;
    const std::string guest = site.log_in("guest");
    const unsigned long failures = for_each_allocation_failure([&](AllocationTrial &trial) {
        const Visit visit;
        const Session session(trial.run([&] {
            return corvel_session_start(visit.request, visit.answer, &site.rules, "admin");
        }));
        EXPECT_FALSE(session == nullptr && !trial.failed()) << trial.n();
        // Where there was no memory for the cookie, the whole answer is replaced by an error.
        EXPECT_EQ(visit.cookie().empty(), trial.failed()) << trial.n();
        EXPECT_EQ(site.user_of(guest), "guest") << trial.n();
    });
    EXPECT_GE(failures, 3U);
}

TEST(corvel_session_start, LeavesNothingThatCountsIfItIsKilled) {
    Site site;
    const std::string former = site.log_in("admin");
    const std::string guest = site.log_in("guest");
    site.rules.sessions_max = 2;
    const unsigned long points = for_each_kill_point([] {}, [&] { site.log_in("admin"); },
                                                     [&](unsigned long n) {
                                                         EXPECT_EQ(site.user_of(guest), "guest")
                                                             << n;
                                                         EXPECT_NE(site.log_in("admin"), "") << n;
                                                         EXPECT_LE(site.files().size(), 3U) << n;
                                                     });
    EXPECT_GT(points, 10U);
}

// corvel_session_find

TEST(corvel_session_find, SkipsCookiesThatNameNoSession) {
    Site site;
    const std::string cookie = site.log_in("admin");
    const std::string id = value_of(cookie);
    std::string upper = id;
    std::transform(upper.begin(), upper.end(), upper.begin(), toupper);
    std::string others;
    for (const std::string &other :
         {""s, "x"s, "../" + site.files()[0], site.files()[0], upper, id + "0", id.substr(1),
          " " + id + "0", std::string(64, '0'), std::string(64, '.'), std::string(64, '/'),
          std::string(4000, 'a')})
        others += "session=" + other + "; ";
    EXPECT_EQ(site.user_of(others), "");
    EXPECT_EQ(site.user_of(others + cookie), "admin");
    EXPECT_EQ(site.user_of(cookie + "; " + others), "admin");
    EXPECT_EQ(site.user_of("Session=" + id), "");
}

TEST(corvel_session_find, TakesTheFirstOfSeveralSessions) {
    Site site;
    const std::string admin = site.log_in("admin");
    const std::string guest = site.log_in("guest");
    EXPECT_EQ(site.user_of(admin + "; " + guest), "admin");
    EXPECT_EQ(site.user_of(guest + "; " + admin), "guest");
}

TEST(corvel_session_find, EndsASessionThatWasNotUsed) {
    Site site;
    const std::string cookie = site.log_in("admin");
    device.passed = 890;
    EXPECT_EQ(site.user_of(cookie), "admin");
    device.passed = 900;
    EXPECT_EQ(site.user_of(cookie), "");
    site.rules.idle_seconds = 1000;
    EXPECT_EQ(site.user_of(cookie), "admin");
    device.passed = 1000;
    EXPECT_EQ(site.user_of(cookie), "");
}

TEST(corvel_session_find, DoesNotCountAsUse) {
    Site site;
    const std::string cookie = site.log_in("admin");
    for (; device.passed < 900; device.passed += 100)
        EXPECT_EQ(site.user_of(cookie), "admin");
    EXPECT_EQ(site.user_of(cookie), "");
}

TEST(corvel_session_find, EndsASessionAfterItsLifetimeEvenIfItIsUsed) {
    Site site;
    const std::string cookie = site.log_in("admin");
    for (; device.passed < 43200; device.passed += 600)
        EXPECT_TRUE(site.touch(cookie)) << device.passed;
    EXPECT_EQ(site.user_of(cookie), "");
    site.rules.lifetime_seconds = 43300;
    EXPECT_EQ(site.user_of(cookie), "admin");
    device.passed = 43300;
    EXPECT_EQ(site.user_of(cookie), "");
}

TEST(corvel_session_find, EndsTheSessionOfAUserThatNoLongerExists) {
    Site site;
    const std::string cookie = site.log_in("admin");
    missing_user = "admin";
    EXPECT_EQ(site.user_of(cookie), "");
}

TEST(corvel_session_find, EndsTheSessionsOfAnEarlierStartOfTheDevice) {
    Site site;
    const std::string cookie = site.log_in("admin");
    const struct stat status = status_of(site.file());
    std::string content = read_file(site.file());
    ASSERT_EQ(content.size(), file_size);
    const char digit = content[boot_at];
    content[boot_at] = digit == '0' ? '1' : '0';
    write_file(site.file(), content);
    set_times(site.file(), status.st_mtime);
    EXPECT_EQ(site.user_of(cookie), "");
    content[boot_at] = digit;
    write_file(site.file(), content);
    set_times(site.file(), status.st_mtime);
    EXPECT_EQ(site.user_of(cookie), "admin");
}

TEST(corvel_session_find, IsNotAffectedByTheWallClock) {
    Site site;
    timespec now{};
    ASSERT_EQ(clock_gettime(CLOCK_BOOTTIME, &now), 0);
    const std::string cookie = site.log_in("admin");
    EXPECT_NEAR(static_cast<double>(status_of(site.file()).st_mtime),
                static_cast<double>(now.tv_sec), 60);
    for (const std::time_t error : {-2'000'000'000, 1'000'000'000}) {
        device.clock_error = error;
        EXPECT_EQ(site.user_of(cookie), "admin");
        EXPECT_TRUE(site.touch(cookie));
        EXPECT_EQ(site.user_of(cookie), "admin");
    }
}

TEST(corvel_session_find, AcceptsNoMalformedFile) {
    Site site;
    const std::string cookie = site.log_in("admin");
    const std::string path = site.file();
    const std::time_t used = status_of(path).st_mtime;
    const std::string right = read_file(path);
    const auto user_with = [&](const std::string &content, std::time_t time) {
        write_file(path, content);
        set_times(path, time);
        return site.user_of(cookie);
    };
    EXPECT_EQ(user_with(right, used), "admin");
    EXPECT_EQ(user_with(right, used + 1000), "");
    EXPECT_EQ(user_with(right, -1), "");
    EXPECT_EQ(user_with(right, (std::time_t{1} << 32) + used), "");
    EXPECT_EQ(user_with("", used), "");
    EXPECT_EQ(user_with(right.substr(1), used), "");
    EXPECT_EQ(user_with(right + "x", used), "");
    EXPECT_EQ(user_with(right.substr(0, user_at) + std::string(file_size - user_at, 'x'), used),
              "");
    EXPECT_EQ(site.find(cookie), nullptr);
    write_file(path, right.substr(0, user_at) + std::string(file_size - user_at, '\0'));
    set_times(path, used);
    EXPECT_EQ(site.find(cookie), nullptr);
    EXPECT_EQ(user_with("\xFF\xFF\xFF\xFF" + right.substr(4), used), "");
}

TEST(corvel_session_find, FollowsNoLinkAndReadsNoDirectory) {
    Site site;
    const std::string cookie = site.log_in("admin");
    const std::string path = site.file();
    fs::rename(path, site.parent.path("elsewhere"));
    fs::create_symlink(site.parent.path("elsewhere"), path);
    EXPECT_EQ(site.user_of(cookie), "");
    fs::remove(path);
    fs::create_directory(path);
    EXPECT_EQ(site.user_of(cookie), "");
}

TEST(corvel_session_find, FindsNothingWithoutARequestOrADirectory) {
    Site site;
    EXPECT_EQ(corvel_session_find(nullptr, &site.rules), nullptr);
    EXPECT_EQ(corvel_session_find(nullptr, nullptr), nullptr);
    EXPECT_EQ(site.user_of("session=" + std::string(64, 'a')), "");
    EXPECT_FALSE(fs::exists(site.path()));
}

TEST(corvel_session_find, NeitherFindsNorRemovesASessionIfAnythingFails) {
    Site site;
    const std::string cookie = site.log_in("admin");
    const DescriptorWatch watch;
    for (const stand_in_call call : {call_open, call_read, call_fstat, call_malloc}) {
        const Visit visit({.cookies = cookie});
        const FailCall failing(call, 1);
        EXPECT_EQ(Session(corvel_session_find(visit.request, &site.rules)), nullptr) << call;
        EXPECT_EQ(failing.failures(), 1U) << call;
    }
    device.fail("openat");
    EXPECT_EQ(site.user_of(cookie), "");
    EXPECT_EQ(site.user_of(cookie), "admin");
}

// corvel_session_free

TEST(corvel_session_free, LeavesTheSession) {
    Site site;
    const std::string cookie = site.log_in("admin");
    corvel_session_free(site.find(cookie).release());
    corvel_session_free(nullptr);
    EXPECT_EQ(site.user_of(cookie), "admin");
}

TEST(corvel_session_free, ClosesEverything) {
    Site site;
    const std::string cookie = site.log_in("admin");
    const DescriptorWatch watch;
    const std::vector<int> before = open_descriptors();
    Session session = site.find(cookie);
    std::vector<int> opened;
    std::ranges::set_difference(open_descriptors(), before, std::back_inserter(opened));
    ASSERT_EQ(opened.size(), 1U);
    EXPECT_NE(fcntl(opened[0], F_GETFD) & FD_CLOEXEC, 0);
    session.reset();
}

// corvel_session_user

TEST(corvel_session_user, ReturnsNullWithoutASession) {
    Site site;
    EXPECT_EQ(corvel_session_user(nullptr), nullptr);
}

// corvel_session_token

TEST(corvel_session_token, IsTheSameForAllRequestsOfASessionOnly) {
    Site site;
    const std::string one = site.log_in("admin");
    const std::string other = site.log_in("admin");
    const std::string token = corvel_session_token(site.find(one).get());
    EXPECT_EQ(token.size(), 64U);
    EXPECT_EQ(token.find_first_not_of("0123456789abcdef"), std::string::npos);
    EXPECT_EQ(token, corvel_session_token(site.find(one).get()));
    EXPECT_NE(token, corvel_session_token(site.find(other).get()));
    EXPECT_EQ(corvel_session_token(nullptr), nullptr);
}

TEST(corvel_session_token, IsNotTheIdentifier) {
    Site site;
    const std::string cookie = site.log_in("admin");
    const std::string token = corvel_session_token(site.find(cookie).get());
    EXPECT_NE(token, value_of(cookie));
    EXPECT_NE(token, site.files()[0]);
    EXPECT_EQ(site.user_of("session=" + token), "");
}

// corvel_session_check

TEST(corvel_session_check, AcceptsTheWholeTokenOnly) {
    Site site;
    const Session session = site.find(site.log_in("admin"));
    const std::string token = corvel_session_token(session.get());
    EXPECT_TRUE(corvel_session_check(session.get(), token.c_str()));
    for (std::size_t i = 0; i < token.size(); ++i) {
        std::string wrong = token;
        wrong[i] = static_cast<char>(wrong[i] ^ 1);
        EXPECT_FALSE(corvel_session_check(session.get(), wrong.c_str())) << i;
    }
    for (const std::string &wrong : {""s, token.substr(1), token.substr(0, 63), token + "0"})
        EXPECT_FALSE(corvel_session_check(session.get(), wrong.c_str()));
    EXPECT_FALSE(corvel_session_check(session.get(), nullptr));
    EXPECT_FALSE(corvel_session_check(nullptr, token.c_str()));
    EXPECT_FALSE(corvel_session_check(nullptr, nullptr));
}

TEST(corvel_session_check, RefusesTheTokenOfAnotherSession) {
    Site site;
    const Session one = site.find(site.log_in("admin"));
    const Session other = site.find(site.log_in("admin"));
    EXPECT_FALSE(corvel_session_check(one.get(), corvel_session_token(other.get())));
}

// corvel_session_touch

TEST(corvel_session_touch, ExtendsTheSession) {
    Site site;
    const std::string cookie = site.log_in("admin");
    device.passed = 890;
    EXPECT_TRUE(site.touch(cookie));
    device.passed = 1780;
    EXPECT_EQ(site.user_of(cookie), "admin");
}

TEST(corvel_session_touch, FailsIfTheSessionHasEnded) {
    Site site;
    const std::string cookie = site.log_in("admin");
    const Session session = site.find(cookie);
    corvel_session_end(site.find(cookie).get(), nullptr);
    EXPECT_FALSE(corvel_session_touch(session.get()));
    EXPECT_TRUE(site.files().empty());
    EXPECT_FALSE(corvel_session_touch(nullptr));
}

TEST(corvel_session_touch, FailsIfTheTimeCannotBeSet) {
    Site site;
    const Session session = site.find(site.log_in("admin"));
    device.fail("utimensat");
    EXPECT_FALSE(corvel_session_touch(session.get()));
    EXPECT_TRUE(corvel_session_touch(session.get()));
}

// corvel_session_renew

TEST(corvel_session_renew, ReplacesIdentifierAndToken) {
    Site site;
    const std::string former = site.log_in("admin");
    const Session session = site.find(former);
    const std::string token = corvel_session_token(session.get());
    const Visit visit({.cookies = former, .uses_tls = true});
    ASSERT_TRUE(corvel_session_renew(session.get(), visit.answer));
    const std::string line = visit.cookie();
    EXPECT_TRUE(line.ends_with("; Path=/; HttpOnly; SameSite=Strict; Secure"));
    const std::string cookie = line.substr(0, line.find(';'));
    EXPECT_EQ(site.user_of(former), "");
    EXPECT_EQ(site.user_of(cookie), "admin");
    EXPECT_STRNE(corvel_session_token(session.get()), token.c_str());
    EXPECT_FALSE(corvel_session_check(session.get(), token.c_str()));
    EXPECT_STREQ(corvel_session_token(session.get()),
                 corvel_session_token(site.find(cookie).get()));
    EXPECT_EQ(site.files(), std::vector{sha256_of(value_of(cookie))});
    EXPECT_TRUE(corvel_session_touch(session.get()));
}

TEST(corvel_session_renew, DoesNotExtendTheLifetime) {
    Site site;
    site.rules.lifetime_seconds = 600;
    const Session session = site.find(site.log_in("admin"));
    device.passed = 590;
    const Visit visit;
    ASSERT_TRUE(corvel_session_renew(session.get(), visit.answer));
    const std::string line = visit.cookie();
    const std::string cookie = line.substr(0, line.find(';'));
    EXPECT_EQ(site.user_of(cookie), "admin");
    device.passed = 600;
    EXPECT_EQ(site.user_of(cookie), "");
}

TEST(corvel_session_renew, DoesNotReviveASessionThatHasEnded) {
    Site site;
    const std::string cookie = site.log_in("admin");
    const Session session = site.find(cookie);
    const Visit visit;
    ASSERT_EQ(corvel_session_end_all(&site.rules, "admin", nullptr), 1);
    EXPECT_FALSE(corvel_session_renew(session.get(), visit.answer));
    EXPECT_EQ(visit.cookie(), "");
    EXPECT_TRUE(site.files().empty());
}

TEST(corvel_session_renew, LeavesTheSessionUnchangedIfItFails) {
    Site site;
    const std::string cookie = site.log_in("admin");
    const Session session = site.find(cookie);
    const std::string token = corvel_session_token(session.get());
    const Visit visit;
    EXPECT_FALSE(corvel_session_renew(session.get(), nullptr));
    EXPECT_FALSE(corvel_session_renew(nullptr, visit.answer));
    for (const char *call : {"getrandom", "renameat"}) {
        device.fail(call);
        EXPECT_FALSE(corvel_session_renew(session.get(), visit.answer)) << call;
        EXPECT_TRUE(device.repair()) << call;
    }
    const int holder = open(site.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(flock(holder, LOCK_EX), 0);
    device.while_pausing = [] {
    };
    EXPECT_FALSE(corvel_session_renew(session.get(), visit.answer));
    close(holder);
    EXPECT_EQ(visit.cookie(), "");
    EXPECT_EQ(site.user_of(cookie), "admin");
    EXPECT_STREQ(corvel_session_token(session.get()), token.c_str());
}

// corvel_session_end

TEST(corvel_session_end, EndsTheSessionAndRemovesItsCookie) {
    Site site;
    const std::string other = site.log_in("admin");
    const std::string cookie = site.log_in("admin");
    const Session session = site.find(cookie);
    const std::string token = corvel_session_token(session.get());
    const Visit visit;
    EXPECT_TRUE(corvel_session_end(session.get(), visit.answer));
    EXPECT_EQ(visit.cookie(), "session=; Path=/; HttpOnly; SameSite=Strict; Max-Age=0");
    EXPECT_EQ(site.user_of(cookie), "");
    EXPECT_EQ(site.user_of(other), "admin");
    EXPECT_EQ(corvel_session_user(session.get()), nullptr);
    EXPECT_EQ(corvel_session_token(session.get()), nullptr);
    EXPECT_FALSE(corvel_session_check(session.get(), token.c_str()));
    EXPECT_FALSE(corvel_session_check(session.get(), ""));
    EXPECT_FALSE(corvel_session_touch(session.get()));
    EXPECT_FALSE(corvel_session_renew(session.get(), visit.answer));
    EXPECT_FALSE(corvel_session_end(session.get(), visit.answer));
}

TEST(corvel_session_end, KeepsTheCookieOfASessionThatCannotBeEnded) {
    Site site;
    const std::string cookie = site.log_in("admin");
    const Session session = site.find(cookie);
    const Visit visit;
    device.fail("unlinkat", EROFS);
    EXPECT_FALSE(corvel_session_end(session.get(), visit.answer));
    EXPECT_EQ(visit.cookie(), "");
    EXPECT_STREQ(corvel_session_user(session.get()), "admin");
    EXPECT_FALSE(corvel_session_end(nullptr, visit.answer));
}

TEST(corvel_session_end, SucceedsIfTheSessionHasEndedAlready) {
    Site site;
    const std::string cookie = site.log_in("admin");
    const Session session = site.find(cookie);
    const Visit visit;
    ASSERT_TRUE(corvel_session_end(site.find(cookie).get(), nullptr));
    EXPECT_TRUE(corvel_session_end(session.get(), visit.answer));
    EXPECT_NE(visit.cookie(), "");
}

// corvel_session_end_all

TEST(corvel_session_end_all, EndsAllSessionsOfTheUserButOne) {
    Site site;
    const std::string guest = site.log_in("guest");
    const std::string prefix = site.log_in("adm");
    const std::string kept = site.log_in("admin");
    const std::vector<std::string> others = {site.log_in("admin"), site.log_in("admin"),
                                             site.log_in("admin")};
    EXPECT_EQ(corvel_session_end_all(&site.rules, "admin", site.find(kept).get()), 3);
    for (const std::string &cookie : others)
        EXPECT_EQ(site.user_of(cookie), "");
    EXPECT_EQ(site.user_of(kept), "admin");
    EXPECT_EQ(site.user_of(guest), "guest");
    EXPECT_EQ(site.user_of(prefix), "adm");
    EXPECT_EQ(corvel_session_end_all(&site.rules, "admin", nullptr), 1);
    EXPECT_EQ(site.user_of(kept), "");
    EXPECT_EQ(corvel_session_end_all(&site.rules, "admin", nullptr), 0);
}

TEST(corvel_session_end_all, EndsNothingWithoutADirectoryOrAUser) {
    Site site;
    EXPECT_EQ(corvel_session_end_all(&site.rules, "admin", nullptr), 0);
    site.log_in("admin");
    EXPECT_EQ(corvel_session_end_all(&site.rules, nullptr, nullptr), -1);
    EXPECT_EQ(corvel_session_end_all(&site.rules, "", nullptr), 0);
    EXPECT_EQ(site.files().size(), 1U);
}

TEST(corvel_session_end_all, ReportsThatNotAllSessionsHaveEnded) {
    Site site;
    site.log_in("admin");
    site.log_in("admin");
    for (const char *call : {"unlinkat", "fdopendir", "openat", "readdir"}) {
        device.fail(call);
        EXPECT_EQ(corvel_session_end_all(&site.rules, "admin", nullptr), -1) << call;
        EXPECT_TRUE(device.repair()) << call;
        site.log_in("admin");
    }
    device.while_pausing = [] {
    };
    const int holder = open(site.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(flock(holder, LOCK_EX), 0);
    EXPECT_EQ(corvel_session_end_all(&site.rules, "admin", nullptr), -1);
    close(holder);
    EXPECT_GT(corvel_session_end_all(&site.rules, "admin", nullptr), 0);
}

} // namespace
} // namespace corvel_test

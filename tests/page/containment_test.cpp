/* SPDX-License-Identifier: MIT */
// Requests that are parsed by a process without privileges: the same results as without it, what
// the process can do, and what happens if it misbehaves.
#include <corvel_page.h>

#include "page/contained_process.h"
#include "tests/page/page_request.h"
#include "tests/support/child_process.h"
#include "tests/support/descriptors.h"
#include "tests/support/next_definition.h"
#include "tests/support/private_root.h"
#include "tests/support/stand_in.h"
#include "tests/support/temporary_directory.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <poll.h>
#include <sstream>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

/** Identifies poll(), which test programs replace each in their own way. */
constexpr stand_in_call call_poll = stand_in_call_count;

extern "C" int poll(pollfd *entries, nfds_t count, int milliseconds) {
    static auto *const next = corvel_test::next_definition<int(pollfd *, nfds_t, int)>("poll");
    if (stand_in_reached != nullptr)
        stand_in_reached(call_poll);
    return next(entries, count, milliseconds);
}

/** How often fork() has returned in a child, in this process and in its ancestors. */
static unsigned long generation = 0;
static bool fork_fails = false;

extern "C" pid_t fork() C_LIBRARY_NOEXCEPT {
    static auto *const next = corvel_test::next_definition<pid_t()>("fork");
    if (fork_fails) {
        errno = EAGAIN;
        return -1;
    }
    const pid_t process = next();
    if (process == 0)
        ++generation;
    return process;
}

using namespace corvel_test;
using corvel::RecordHead;
using corvel::RecordKind;

namespace {

/** Tests of a process with a filter of its system calls. An emulator does not let it have one, and
 * a sanitizer makes calls that are not permitted: there the tests are only compiled. */
#if defined(CORVEL_EMULATOR) || defined(__SANITIZE_ADDRESS__)
constexpr bool has_filters = false;
#define TEST_WITH_FILTER(suite, name) [[maybe_unused]] void name()
#else
constexpr bool has_filters = true;
#define TEST_WITH_FILTER(suite, name) TEST(suite, name)
#endif

#define SKIP_UNLESS_ROOT()                                                                         \
    if (geteuid() != 0)                                                                            \
    GTEST_SKIP() << "only root can become another user"

/** Every restriction that is possible here. The address space is not limited: a sanitizer needs
 * terabytes. */
corvel_containment strictest() {
    corvel_containment containment{};
    containment.seconds = 1;
    containment.memory_max = SIZE_MAX;
    containment.accept_less = geteuid() != 0 || !has_filters;
    return containment;
}

enum class Way { contained, direct };

class AnyRequest : public CgiSurroundings {
  public:
    AnyRequest(const CgiRequest &request, Way way,
               const corvel_containment &containment = strictest())
        : CgiSurroundings(request) {
        without_filter(no_filter_);
        request_ = way == Way::contained ? corvel_request_begin_contained(&containment)
                                         : corvel_request_begin();
    }
    ~AnyRequest() { corvel_request_free(request_); }
    AnyRequest(const AnyRequest &) = delete;
    AnyRequest &operator=(const AnyRequest &) = delete;

    // NOLINTNEXTLINE(google-explicit-constructor): passed to the functions under test
    operator corvel_request *() const { return request_; }

    [[nodiscard]] int read(Rules rules = {}) const {
        rules.methods = rules.methods != 0 ? rules.methods : CORVEL_GET | CORVEL_POST;
        rules.types =
            rules.types != 0 ? rules.types : CORVEL_FORM | CORVEL_MULTIPART | CORVEL_JSON_TEXT;
        rules.body_seconds = 1;
        const corvel_request_rules value = rules.value();
        return corvel_request_read(request_, &value);
    }

  private:
    /** The fourth call sets the filter. */
    static void without_filter(std::optional<FailCall> &filter) {
        if (!has_filters)
            filter.emplace(call_prctl, 4, EINVAL);
    }

    std::optional<FailCall> no_filter_;
    corvel_request *request_;
};

/** In its destructor, expects that no process is left, and no descriptor. */
class NothingLeft {
  public:
    NothingLeft() = default;
    NothingLeft(const NothingLeft &) = delete;
    NothingLeft &operator=(const NothingLeft &) = delete;
    ~NothingLeft() {
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
        EXPECT_EQ(errno, ECHILD);
    }

  private:
    DescriptorWatch descriptors_;
};

// What the process does instead of parsing

std::function<void()> deed;
stand_in_call reached_at;
unsigned long own_generation;

void do_deed(stand_in_call call) {
    if (call != reached_at || generation == own_generation)
        return;
    stand_in_reached = nullptr;
    deed();
}

/** During its lifetime, a process that is started does something else when it calls a function. */
class Misbehaviour {
  public:
    Misbehaviour(stand_in_call at, std::function<void()> what) {
        deed = std::move(what);
        reached_at = at;
        own_generation = generation;
        stand_in_reached = do_deed;
    }
    ~Misbehaviour() { stand_in_reached = nullptr; }
    Misbehaviour(const Misbehaviour &) = delete;
    Misbehaviour &operator=(const Misbehaviour &) = delete;
};

void write_all(const void *bytes, std::size_t size) {
    const auto *at = static_cast<const char *>(bytes);
    while (size != 0) {
        const ssize_t written = write(STDOUT_FILENO, at, size);
        if (written <= 0)
            _exit(2);
        at += written;
        size -= static_cast<std::size_t>(written);
    }
}

/** Sends a record with strings, whose sizes may be other ones. */
void send(RecordKind kind, const std::string &strings, std::uint32_t first,
          std::uint32_t second = 0, std::uint32_t third = 0, unsigned outcome = 0) {
    RecordHead head{};
    head.kind = kind;
    head.outcome = outcome;
    head.sizes[0] = first;
    head.sizes[1] = second;
    head.sizes[2] = third;
    head.body_left = UINT64_MAX;
    write_all(&head, sizeof head);
    write_all(strings.data(), strings.size());
}

void end(unsigned outcome = 0) { send(RecordKind::end, "", 0, 0, 0, outcome); }

const std::string log_start = "<3>contained request: ";

/** The messages in the log, without their common start; each is an error. */
std::vector<std::string> log_lines() {
    std::vector<std::string> lines;
    for (const RecordSyslog::Message &message : RecordSyslog::messages()) {
        EXPECT_EQ(message.priority, 3);
        EXPECT_TRUE(message.text.starts_with("contained request: ")) << message.text;
        lines.push_back(message.text.substr(19));
    }
    return lines;
}

// The same results

const std::string json = "application/json";

std::vector<CgiRequest> requests() {
    std::string many;
    for (int i = 0; i < 1024; ++i)
        many += "name" + std::to_string(i) + "=value&";
    const std::string large(65537, 'x');
    return {
        get(),
        get("a=b&c=%41+&=&d"),
        get("a=%00"),
        get(many),
        get(many + "more"),
        get("q=" + std::string(100000, 'q')),
        get("a=b").with("HTTP_COOKIE", "s=1; t=\"2\"; s=3; bad; =x"),
        get("a=b").with("HTTP_COOKIE", ""),
        get("a=b").with("PATH_INFO", "/\x01"),
        get().with("REQUEST_METHOD", "PATCH"),
        post(""),
        post("a=b&c=d"),
        post("a=b&c=d").through_pipe(),
        post("a=b&c=d").with("QUERY_STRING", "a=query").with("HTTP_COOKIE", "s=1"),
        post("a=" + std::string(60000, '+')),
        post(large),
        post(large).through_pipe(),
        post("a=b").with("CONTENT_LENGTH", "4"),
        post("a=b").with("CONTENT_LENGTH", "x"),
        post("a=b", "text/plain"),
        post("a=b").with("HTTP_ORIGIN", "http://other.example"),
        post(std::string("{\0}", 3), json),
        post(std::string(65536, '\0'), json),
        chunked_post("a=b"),
        chunked_post(large),
        chunked_post("{}", json),
    };
}

struct Result {
    int status = 0;
    std::string complaint;
    std::string cookies;
    FieldPairs fields;
    std::string query;
    std::string body;
    std::string unread;
    bool operator==(const Result &) const = default;
    friend std::ostream &operator<<(std::ostream &out, const Result &result) {
        return out << result.status << ' ' << result.complaint << ", " << result.fields.size()
                   << " fields, " << result.body.size() << " bytes, " << result.unread.size()
                   << " unread, cookies " << result.cookies;
    }
};

std::string text_or(const char *text) { return text != nullptr ? text : "(missing)"; }

Result result_of(const CgiRequest &cgi, Way way) {
    const AnyRequest request(cgi, way);
    Result result;
    result.cookies =
        text_or(corvel_cookie(request, "s", 0)) + text_or(corvel_cookie(request, "s", 1)) +
        text_or(corvel_cookie(request, "t", 0)) + text_or(corvel_cookie(request, "", 0));
    result.status = request.read();
    result.complaint = corvel_request_complaint(request);
    result.fields = fields_of(request);
    result.query = text_or(corvel_query(request, "a"));
    std::size_t size = 0;
    const char *const body = corvel_request_body(request, &size);
    EXPECT_EQ(body[size], '\0');
    result.body.assign(body, size);
    result.unread = AnyRequest::unread_input();
    return result;
}

TEST(corvel_request_begin_contained, HasTheResultsOfARequestThatIsNotContained) {
    const NothingLeft nothing_left;
    int number = 0;
    for (const CgiRequest &request : requests()) {
        EXPECT_EQ(result_of(request, Way::contained), result_of(request, Way::direct)) << number;
        ++number;
    }
}

TEST(corvel_request_begin_contained, ReportsABodyThatDoesNotArrive) {
    const NothingLeft nothing_left;
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    {
        const AnyRequest request(post("a=b"), Way::contained);
        ASSERT_EQ(dup2(ends[0], STDIN_FILENO), STDIN_FILENO);
        EXPECT_EQ(request.read(), CORVEL_HTTP_REQUEST_TIMEOUT);
    }
    close(ends[0]);
    close(ends[1]);
}

TEST(corvel_request_begin_contained, GivesASlowClientTheTimeOfTheRules) {
    const NothingLeft nothing_left;
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    // More than containment.seconds, in blocks of less than body_seconds each.
    std::thread client([&] {
        const std::string block(65536, 'x');
        for (int i = 0; i < 4; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(700));
            EXPECT_EQ(write(ends[1], block.data(), block.size()), 65536);
        }
        close(ends[1]);
    });
    {
        const AnyRequest request(
            post(std::string(262144, 'x'), json).with("CONTENT_LENGTH", "262144"), Way::contained);
        ASSERT_EQ(dup2(ends[0], STDIN_FILENO), STDIN_FILENO);
        EXPECT_EQ(request.read({.body_max = 262144}), CORVEL_HTTP_OK);
        std::size_t size = 0;
        corvel_request_body(request, &size);
        EXPECT_EQ(size, 262144U);
    }
    client.join();
    close(ends[0]);
}

// Uploads

const std::string file_head =
    "--b\r\nContent-Disposition: form-data; name=\"file\"; filename=\"a.bin\"";

std::string upload_body(const std::string &content) {
    return "--b\r\nContent-Disposition: form-data; name=\"text\"\r\n\r\none\r\n" + file_head +
           "\r\nContent-Type: image/png\r\n\r\n" + content + "\r\n--b--\r\n";
}

CgiRequest upload_of(const std::string &body) {
    return post(body, "multipart/form-data; boundary=b");
}

struct UploadResult {
    int result = 0;
    std::string log;
    FieldPairs fields;
    std::string unread;
    bool operator==(const UploadResult &) const = default;
    friend std::ostream &operator<<(std::ostream &out, const UploadResult &upload) {
        return out << upload.result << ", " << upload.log.size() << " bytes, "
                   << upload.fields.size() << " fields, " << upload.unread.size() << " unread";
    }
};

corvel_upload_sink sink_into(std::string &log) {
    return {&log,
            [](void *own, const corvel_part *part) {
                *static_cast<std::string *>(own) += "[" + text_or(part->name) + "," +
                                                    text_or(part->filename) + "," + part->type +
                                                    ":";
                return std::strcmp(part->name, "refused") != 0;
            },
            [](void *own, const void *bytes, std::size_t size) {
                EXPECT_NE(size, 0U);
                EXPECT_LE(size, 16384U);
                static_cast<std::string *>(own)->append(static_cast<const char *>(bytes), size);
                return true;
            },
            [](void *own) {
                *static_cast<std::string *>(own) += "]";
                return true;
            }};
}

UploadResult upload_result_of(const CgiRequest &cgi, Way way,
                              const corvel_upload_limits *limits = nullptr) {
    const AnyRequest request(cgi, way);
    EXPECT_EQ(request.read(), CORVEL_HTTP_OK);
    UploadResult result;
    const corvel_upload_sink sink = sink_into(result.log);
    result.result = corvel_upload_read(request, limits, &sink);
    result.fields = fields_of(request);
    result.unread = AnyRequest::unread_input();
    return result;
}

TEST(corvel_request_begin_contained, HasTheUploadsOfARequestThatIsNotContained) {
    const NothingLeft nothing_left;
    const std::string whole = upload_body(std::string(100000, '\0') + "\r\n--");
    std::string many;
    for (int i = 0; i < 65; ++i)
        many += file_head + "\r\n\r\nx\r\n";
    const corvel_upload_limits tight = {2, 200, 3, 1000, 100000};
    int number = 0;
    for (const std::string &body : std::vector<std::string>{
             whole, whole.substr(0, 50000), upload_body(""),
             upload_body("x") + std::string(100000, 'x'), std::string("--b--"), many + "--b--",
             "--b\r\nContent-Disposition: form-data; name=\"refused\"; "
             "filename=x\r\n\r\nx\r\n" +
                 whole,
             std::string("no boundary"), "--b\r\nContent\r\n\r\n" + whole,
             "--b\r\nContent-Disposition: form-data; name=n; filename=\"../x\"\r\n\r\n" +
                 std::string(1001, 'x') + "\r\n--b--",
             "--b\r\nContent-Disposition: form-data; name=n; filename=\"\"\r\n\r\n\r\n--b--",
             "--b\r\nContent-Disposition: form-data; name=n\r\n\r\na" + std::string(1, '\0') +
                 "\r\n--b--",
             "--b\r\nContent-Disposition: form-data; name=n\r\n\r\nfour\r\n--b--"}) {
        for (const corvel_upload_limits *limits :
             {static_cast<const corvel_upload_limits *>(nullptr), &tight}) {
            EXPECT_EQ(upload_result_of(upload_of(body), Way::contained, limits),
                      upload_result_of(upload_of(body), Way::direct, limits))
                << number;
            EXPECT_EQ(upload_result_of(upload_of(body).through_pipe(), Way::contained, limits),
                      upload_result_of(upload_of(body), Way::direct, limits))
                << number;
        }
        ++number;
    }
}

TEST(corvel_request_begin_contained, SavesAFile) {
    const NothingLeft nothing_left;
    const TemporaryDirectory directory;
    const std::string content(1000000, '\r');
    const AnyRequest request(upload_of(upload_body(content)), Way::contained);
    ASSERT_EQ(request.read(), CORVEL_HTTP_OK);
    EXPECT_EQ(corvel_upload_save(request, nullptr, "file", directory.path("new").c_str()),
              CORVEL_UPLOAD_DONE);
    EXPECT_EQ(directory.read("new"), content);
    EXPECT_STREQ(corvel_field(request, "file"), "a.bin");
}

TEST(corvel_request_begin_contained, LeavesNoFileOnAFullDisk) {
    in_private_root([] {
        const NothingLeft nothing_left;
        mount_small_disk("/mnt", 65536);
        corvel_containment containment = strictest();
        containment.accept_less = true;
        const AnyRequest request(upload_of(upload_body(std::string(200000, 'x'))), Way::contained,
                                 containment);
        ASSERT_EQ(request.read(), CORVEL_HTTP_OK);
        EXPECT_EQ(corvel_upload_save(request, nullptr, "file", "/mnt/file"),
                  CORVEL_UPLOAD_NO_SPACE);
        EXPECT_NE(access("/mnt/file", F_OK), 0);
        EXPECT_EQ(AnyRequest::unread_input(), "");
    });
}

// The process

std::string content_of(const std::filesystem::path &file) {
    std::ostringstream content;
    content << std::ifstream(file).rdbuf();
    return content.str();
}

/** What /proc shows of the process that reads a request, while it waits for the body. */
struct Seen {
    std::string status;
    std::string limits;
    std::vector<std::string> descriptors;
};

Seen see_child() {
    Seen seen;
    const std::string self = "/proc/self/task/" + std::to_string(getpid()) + "/children";
    for (int i = 0; i < 500; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        std::string child = content_of(self);
        child.resize(child.find_last_not_of(" \n") + 1);
        const std::filesystem::path process = "/proc/" + child;
        seen.status = content_of(process / "status");
        if (seen.status.find("\nSeccomp:\t2") == std::string::npos)
            continue;
        seen.limits = content_of(process / "limits");
        std::error_code gone; // the process may end, on a slow machine
        for (std::filesystem::directory_iterator entry(process / "fd", gone), end;
             !gone && entry != end; entry.increment(gone))
            seen.descriptors.push_back(entry->path().filename());
        break;
    }
    std::sort(seen.descriptors.begin(), seen.descriptors.end());
    return seen;
}

TEST_WITH_FILTER(corvel_request_begin_contained, TakesEveryPrivilegeFromTheProcess) {
    SKIP_UNLESS_ROOT();
    const NothingLeft nothing_left;
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    Seen seen;
    std::thread observer([&] {
        seen = see_child();
        EXPECT_EQ(write(ends[1], "a=b", 3), 3);
    });
    corvel_containment containment{};
    containment.user = 1234;
    containment.group = 5678;
    {
        const AnyRequest request(post("a=b"), Way::contained, containment);
        ASSERT_EQ(dup2(ends[0], STDIN_FILENO), STDIN_FILENO);
        EXPECT_EQ(request.read(), CORVEL_HTTP_OK);
    }
    observer.join();
    close(ends[0]);
    close(ends[1]);
    for (const char *line : {"\nUid:\t1234\t1234\t1234\t1234\n", "\nGid:\t5678\t5678\t5678\t5678\n",
                             "\nGroups:\t \n", "\nNoNewPrivs:\t1\n", "\nSeccomp:\t2\n",
                             "\nCapPrm:\t0000000000000000\n", "\nCapEff:\t0000000000000000\n"})
        EXPECT_NE(seen.status.find(line), std::string::npos) << line << seen.status;
    EXPECT_EQ(seen.descriptors, (std::vector<std::string>{"0", "1"}));
    const auto limit = [&](const std::string &name) {
        const std::size_t at = seen.limits.find(name);
        return at == std::string::npos ? "(missing)" : seen.limits.substr(at + 26, 42);
    };
    const auto both = [](const std::string &value) {
        std::string padded = value;
        padded.resize(21, ' ');
        return padded + padded;
    };
    EXPECT_EQ(limit("Max core file size"), both("0"));
    EXPECT_EQ(limit("Max file size"), both("0"));
    EXPECT_EQ(limit("Max processes"), both("0"));
    EXPECT_EQ(limit("Max open files"), both("1"));
    EXPECT_EQ(limit("Max cpu time"), both("10"));
    EXPECT_EQ(limit("Max address space"), both("67108864"));
}

struct Forbidden {
    const char *name;
    std::function<void()> call;
};

TEST_WITH_FILTER(corvel_request_begin_contained, EndsAProcessThatMakesAnotherSystemCall) {
    SKIP_UNLESS_ROOT();
    const Forbidden all[] = {
        {"open",
         [] {
             open("/etc/passwd", O_RDONLY);
         }},
        {"socket",
         [] {
             socket(AF_INET, SOCK_STREAM, 0);
         }},
        {"fork",
         [] {
             syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0);
         }},
        {"execve",
         [] {
             execl("/bin/true", "true", nullptr);
         }},
        {"kill",
         [] {
             kill(getppid(), SIGKILL);
         }},
        {"setuid",
         [] {
             syscall(SYS_setuid, 0);
         }},
        {"ptrace",
         [] {
             syscall(SYS_ptrace, 16, 1, 0, 0);
         }},
        {"dup",
         [] {
             dup(0);
         }},
        {"close",
         [] {
             close(0);
         }},
        {"prctl",
         [] {
             prctl(PR_SET_DUMPABLE, 1L, 0L, 0L, 0L);
         }},
        {"nanosleep",
         [] {
             std::this_thread::sleep_for(std::chrono::milliseconds(1));
         }},
        {"mmap",
         [] {
             static_cast<void>(
                 mmap(nullptr, 4096, PROT_READ | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
         }},
        {"mprotect",
         [] {
             static char page[8192];
             const auto start =
                 (reinterpret_cast<std::uintptr_t>(page) + 4095) & ~std::uintptr_t{4095};
             mprotect(reinterpret_cast<void *>(start), 4096, PROT_READ | PROT_WRITE | PROT_EXEC);
         }},
#ifdef __x86_64__
        {"a call of the x32 interface",
         [] {
             syscall(0x40000000 + SYS_read, 0, nullptr, 0);
         }},
        {"a call of the 32-bit interface",
         [] {
             __asm__ volatile("int $0x80" : : "a"(20) : "memory", "r8", "r9", "r10", "r11");
         }},
#endif
    };
    for (const Forbidden &each : all) {
        const NothingLeft nothing_left;
        const RecordSyslog log;
        const AnyRequest request(post("a=b"), Way::contained);
        const Misbehaviour misbehaviour(call_poll, [&] {
            each.call();
            end();
            _exit(0);
        });
        EXPECT_EQ(request.read(), CORVEL_HTTP_INTERNAL_SERVER_ERROR) << each.name;
        EXPECT_EQ(log_lines(), (std::vector<std::string>{"the process ended early, with signal " +
                                                         std::to_string(SIGSYS)}))
            << each.name;
    }
}

TEST_WITH_FILTER(corvel_request_begin_contained, LimitsTheMemoryOfTheProcess) {
    SKIP_UNLESS_ROOT();
    const NothingLeft nothing_left;
    const RecordSyslog log;
    const AnyRequest request(post("a=b"), Way::contained, corvel_containment{});
    const Misbehaviour misbehaviour(call_poll, [] {
        void *const block = mmap(nullptr, 67108864, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        end(block == MAP_FAILED ? 3 : 0);
        _exit(0);
    });
    EXPECT_EQ(request.read(), CORVEL_HTTP_SERVICE_UNAVAILABLE);
}

// Misbehaviour

void crash() { __builtin_trap(); }

void compute_forever() {
    for (;;)
        __asm__ volatile("");
}

void wait_forever() {
    for (;;)
        poll(nullptr, 0, 100000);
}

const std::string pair{"a\0b\0", 4};

void flood() {
    for (;;)
        send(RecordKind::query, pair, 2, 2);
}

struct Case {
    const char *name;
    std::function<void()> deed;
    std::string log;
};

const std::string wrong = "the process has sent a wrong record";

std::vector<Case> cases() {
    const auto then_end = [](const std::function<void()> &first) {
        return [first] {
            first();
            end();
            _exit(0);
        };
    };
    return {
        {"crash", crash, "the process ended early, with signal "},
        {"computes forever", compute_forever, "the process "},
        {"waits forever", wait_forever, "the process took too long"},
        {"ends without a record", [] { _exit(0); }, "the process ended early, with signal 0"},
        {"half a head",
         [] {
             write_all("1234", 4);
             _exit(0);
         },
         "the process ended early, with signal 0"},
        {"half a string",
         [] {
             send(RecordKind::query, "a", 2, 2);
             _exit(0);
         },
         "the process ended early, with signal 0"},
        {"floods with pairs", flood, wrong},
        {"floods with zeros",
         [] {
             for (const std::string zeros(4096, '\0');;)
                 write_all(zeros.data(), 4096);
         },
         wrong},
        {"unknown kind", then_end([] { send(static_cast<RecordKind>(1000), "", 0); }), wrong},
        {"largest kind", then_end([] { send(static_cast<RecordKind>(UINT32_MAX), "", 0); }), wrong},
        {"kind of an upload", then_end([] { send(RecordKind::part, pair + "c", 2, 2, 1); }), wrong},
        {"no value", then_end([] { send(RecordKind::query, std::string("a\0", 2), 2); }), wrong},
        {"no name", then_end([] { send(RecordKind::form, std::string("a\0", 2), 0, 2); }), wrong},
        {"unterminated name", then_end([] { send(RecordKind::query, "abb", 1, 2); }), wrong},
        {"name with a NUL",
         then_end([] { send(RecordKind::query, std::string("a\0\0b\0", 5), 3, 2); }), wrong},
        {"unterminated value",
         then_end([] { send(RecordKind::query, std::string("a\0b", 3), 2, 1); }), wrong},
        {"large string", then_end([] { send(RecordKind::query, "", UINT32_MAX, 2); }), wrong},
        {"large strings",
         then_end([] { send(RecordKind::body, "", UINT32_MAX, UINT32_MAX, UINT32_MAX); }), wrong},
        {"body beyond its limit", then_end([] { send(RecordKind::body, "", 65539); }), wrong},
        {"body of two strings", then_end([] { send(RecordKind::body, "ab", 1, 1); }), wrong},
        {"unknown outcome",
         [] {
             end(13);
             _exit(0);
         },
         ""},
        {"largest outcome",
         [] {
             end(0xFF);
             _exit(0);
         },
         ""},
    };
}

/** Expects one line in the log, which starts as the case says, or none. */
void expect_line_of(const Case &each) {
    const std::vector<std::string> lines = log_lines();
    EXPECT_EQ(lines.size(), each.log.empty() ? 0U : 1U) << each.name;
    if (!lines.empty()) {
        EXPECT_TRUE(lines[0].starts_with(each.log)) << each.name << ": " << lines[0];
    }
}

TEST(corvel_request_begin_contained, RefusesARequestWhoseProcessMisbehaves) {
    for (const Case &each : cases()) {
        const NothingLeft nothing_left;
        const RecordSyslog log;
        const AnyRequest request(post("a=b&c=d"), Way::contained);
        EXPECT_TRUE(log_lines().empty());
        const Misbehaviour misbehaviour(call_poll, each.deed);
        EXPECT_EQ(request.read(), CORVEL_HTTP_INTERNAL_SERVER_ERROR) << each.name;
        EXPECT_STREQ(corvel_request_complaint(request), "The request could not be processed.");
        EXPECT_EQ(corvel_field(request, "a"), nullptr) << each.name;
        EXPECT_EQ(corvel_query(request, "a"), nullptr) << each.name;
        EXPECT_EQ(AnyRequest::unread_input(), "") << each.name;
        expect_line_of(each);
    }
}

TEST(corvel_request_begin_contained, RefusesCookiesWhoseProcessMisbehaves) {
    // Nothing is read for cookies: the first call after the restrictions sends the records.
    for (const std::function<void()> &what :
         {std::function<void()>(crash), std::function<void()>(wait_forever),
          std::function<void()>([] { _exit(0); }), std::function<void()>(flood)}) {
        const NothingLeft nothing_left;
        const RecordSyslog log;
        const Misbehaviour misbehaviour(call_poll, what);
        const AnyRequest request(post("a=b").with("HTTP_COOKIE", "s=1"), Way::contained);
        EXPECT_EQ(corvel_cookie(request, "s", 0), nullptr);
        EXPECT_EQ(AnyRequest::unread_input(), "");
        EXPECT_EQ(request.read(), CORVEL_HTTP_INTERNAL_SERVER_ERROR);
        EXPECT_EQ(log_lines().size(), 1U);
    }
}

const std::string part{"file\0a.bin\0text/plain\0", 22};

void send_part() { send(RecordKind::part, part, 5, 6, 11); }

std::vector<Case> upload_cases() {
    const auto then_end = [](const std::function<void()> &first, unsigned outcome = 0) {
        return [first, outcome] {
            first();
            end(outcome);
            _exit(0);
        };
    };
    const std::string piece(16384, 'x');
    return {
        {"crash", crash, "the process ended early, with signal "},
        {"waits forever", wait_forever, "the process took too long"},
        {"crash within a file",
         [] {
             send_part();
             send(RecordKind::content, "x", 1);
             crash();
         },
         "the process ended early, with signal "},
        {"file without an end", then_end(send_part), ""},
        {"file without an end, refused by the process", then_end(send_part, 10), ""},
        {"content without a part", then_end([] { send(RecordKind::content, "x", 1); }), wrong},
        {"end without a part", then_end([] { send(RecordKind::part_end, "", 0); }), wrong},
        {"part within a part", then_end([] {
             send_part();
             send_part();
         }),
         wrong},
        {"empty content", then_end([] {
             send_part();
             send(RecordKind::content, "", 0);
         }),
         wrong},
        {"content of two strings", then_end([] {
             send_part();
             send(RecordKind::content, "xy", 0, 2);
         }),
         wrong},
        {"large content", then_end([=] {
             send_part();
             send(RecordKind::content, piece + piece, 32768);
         }),
         wrong},
        {"part without a name", then_end([] { send(RecordKind::part, part.substr(5), 0, 6, 11); }),
         wrong},
        {"part without a type", then_end([] { send(RecordKind::part, part.substr(0, 11), 5, 6); }),
         wrong},
        {"file name with a directory",
         then_end([] { send(RecordKind::part, std::string("file\0../x\0t\0", 12), 5, 5, 2); }),
         wrong},
        {"file name with a backslash",
         then_end([] { send(RecordKind::part, std::string("file\0..\\x\0t\0", 12), 5, 5, 2); }),
         wrong},
        {"file name of a directory",
         then_end([] { send(RecordKind::part, std::string("file\0..\0t\0", 10), 5, 3, 2); }),
         wrong},
        {"pair of a form", then_end([] { send(RecordKind::form, pair, 2, 2); }), wrong},
    };
}

TEST(corvel_request_begin_contained, RefusesAnUploadWhoseProcessMisbehaves) {
    for (const Case &each : upload_cases()) {
        const NothingLeft nothing_left;
        const TemporaryDirectory directory;
        const RecordSyslog log;
        const AnyRequest request(upload_of(upload_body("x")), Way::contained);
        ASSERT_EQ(request.read(), CORVEL_HTTP_OK);
        const Misbehaviour misbehaviour(call_poll, each.deed);
        const corvel_upload_result result =
            corvel_upload_save(request, nullptr, "file", directory.path("new").c_str());
        EXPECT_EQ(result, each.name == std::string("file without an end, refused by the process")
                              ? CORVEL_UPLOAD_NO_SPACE
                              : CORVEL_UPLOAD_NOT_CONTAINED)
            << each.name;
        EXPECT_TRUE(directory.names().empty()) << each.name;
        EXPECT_EQ(AnyRequest::unread_input(), "") << each.name;
        expect_line_of(each);
    }
}

TEST(corvel_request_begin_contained, EnforcesTheLimitsOfAnUploadThatTheProcessIgnores) {
    const auto result_of = [](const corvel_upload_limits &limits, std::function<void()> what) {
        const NothingLeft nothing_left;
        const AnyRequest request(upload_of(upload_body("x")), Way::contained);
        EXPECT_EQ(request.read(), CORVEL_HTTP_OK);
        const Misbehaviour misbehaviour(call_poll, [&] {
            what();
            end();
            _exit(0);
        });
        return corvel_upload_read(request, &limits, nullptr);
    };
    const corvel_upload_limits limits = {2, 0, 3, 10, 0};
    const std::string field{"name\0t\0", 7};
    EXPECT_EQ(result_of(limits,
                        [] {
                            for (int i = 0; i < 3; ++i) {
                                send_part();
                                send(RecordKind::part_end, "", 0);
                            }
                        }),
              CORVEL_UPLOAD_TOO_MANY_PARTS);
    EXPECT_EQ(result_of(limits,
                        [] {
                            send_part();
                            send(RecordKind::content, "0123456789", 10);
                            send(RecordKind::content, "0", 1);
                        }),
              CORVEL_UPLOAD_FILE_TOO_LARGE);
    EXPECT_EQ(result_of(limits,
                        [&] {
                            send(RecordKind::part, field, 5, 0, 2);
                            send(RecordKind::content, "0123", 4);
                        }),
              CORVEL_UPLOAD_FIELD_TOO_LARGE);
    EXPECT_EQ(result_of(limits,
                        [&] {
                            send(RecordKind::part, field, 5, 0, 2);
                            send(RecordKind::content, std::string(1, '\0'), 1);
                            send(RecordKind::part_end, "", 0);
                        }),
              CORVEL_UPLOAD_MALFORMED);
}

TEST(corvel_request_begin_contained, SurvivesTheEndOfTheProcessAtEachOfItsCalls) {
    const TemporaryDirectory directory;
    unsigned long n = 1;
    for (bool is_done = false; !is_done && n < 1000; ++n) {
        const NothingLeft nothing_left;
        const RecordSyslog log;
        own_generation = generation;
        deed = [left = n]() mutable {
            if (--left == 0)
                _exit(1);
        };
        stand_in_reached = [](stand_in_call) {
            if (generation != own_generation)
                deed();
        };
        const AnyRequest request(
            upload_of(upload_body(std::string(20000, 'x'))).with("HTTP_COOKIE", "s=1"),
            Way::contained);
        const int status = request.read();
        if (status == CORVEL_HTTP_OK) {
            const auto result =
                corvel_upload_save(request, nullptr, "file", directory.path("new").c_str());
            is_done = result == CORVEL_UPLOAD_DONE;
            EXPECT_TRUE(is_done || result == CORVEL_UPLOAD_NOT_CONTAINED) << result;
        } else {
            EXPECT_EQ(status, CORVEL_HTTP_INTERNAL_SERVER_ERROR);
        }
        stand_in_reached = nullptr;
        EXPECT_EQ(directory.exists("new"), is_done) << n;
        EXPECT_EQ(AnyRequest::unread_input(), "") << n;
        EXPECT_EQ(log_lines().empty(), is_done) << n;
    }
    EXPECT_GT(n, 20U);
}

// Failures

/** Expects that a request is refused, with a line in the log. */
void expect_refusal(const std::string &line) {
    const NothingLeft nothing_left;
    const RecordSyslog log;
    const AnyRequest request(post("a=b"), Way::contained);
    EXPECT_EQ(request.read(), CORVEL_HTTP_INTERNAL_SERVER_ERROR);
    EXPECT_EQ(log_lines(), std::vector<std::string>{line});
    EXPECT_EQ(AnyRequest::unread_input(), "");
}

TEST(corvel_request_begin_contained, RefusesARequestWhoseProcessCannotBeStarted) {
    {
        const FailCall no_pipe(call_pipe2, 1, EAGAIN);
        expect_refusal("Resource temporarily unavailable");
    }
    {
        const FailCall no_output(call_dup2, 1, EBUSY);
        expect_refusal("the process ended early, with signal 0");
    }
    fork_fails = true;
    expect_refusal("Resource temporarily unavailable");
    fork_fails = false;
}

TEST_WITH_FILTER(corvel_request_begin_contained, RefusesWithoutARestrictionUnlessItAcceptsLess) {
    SKIP_UNLESS_ROOT();
    struct Step {
        stand_in_call call;
        unsigned long n;
        const char *name;
    };
    for (const auto &[call, n, name] : {Step{call_setgroups, 1, "setgroups"},
                                        {call_setresgid, 1, "setresgid"},
                                        {call_setresuid, 1, "setresuid"},
                                        {call_prctl, 1, "prctl"},
                                        {call_prctl, 2, "prctl"},
                                        {call_prctl, 3, "prctl"},
                                        {call_prctl, 4, "the filter of system calls"}}) {
        for (const bool accepts_less : {false, true}) {
            const NothingLeft nothing_left;
            const RecordSyslog log;
            corvel_containment containment = strictest();
            containment.accept_less = accepts_less;
            const AnyRequest request(post("a=b"), Way::contained, containment);
            const FailCall failing(call, n, EINVAL);
            EXPECT_EQ(request.read(),
                      accepts_less ? CORVEL_HTTP_OK : CORVEL_HTTP_INTERNAL_SERVER_ERROR);
            std::vector<std::string> expected;
            if (!accepts_less)
                expected.push_back(std::string(name) + ": Invalid argument");
            EXPECT_EQ(log_lines(), expected) << name << n;
        }
    }
}

TEST(corvel_request_begin_contained, NeedsRoot) {
    SKIP_UNLESS_ROOT();
    expect_as_ordinary_user([] {
        const RecordSyslog log;
        corvel_containment containment = strictest();
        containment.accept_less = false;
        {
            const AnyRequest request(post("a=b"), Way::contained, containment);
            EXPECT_EQ(request.read(), CORVEL_HTTP_INTERNAL_SERVER_ERROR);
            EXPECT_EQ(log_lines(), std::vector<std::string>{"setgroups: Operation not permitted"});
        }
        containment.accept_less = true;
        const AnyRequest request(post("a=b"), Way::contained, containment);
        EXPECT_EQ(request.read(), CORVEL_HTTP_OK);
        EXPECT_STREQ(corvel_field(request, "a"), "b");
    });
}

TEST_WITH_FILTER(corvel_request_begin_contained, DropsCapabilitiesEvenIfItCannotChangeTheUser) {
    SKIP_UNLESS_ROOT();
    const NothingLeft nothing_left;
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    Seen seen;
    std::thread observer([&] {
        seen = see_child();
        EXPECT_EQ(write(ends[1], "a=b", 3), 3);
    });
    corvel_containment containment = strictest();
    containment.accept_less = true;
    {
        const FailCall same_user(call_setresuid, 1, EINVAL);
        const AnyRequest request(post("a=b"), Way::contained, containment);
        ASSERT_EQ(dup2(ends[0], STDIN_FILENO), STDIN_FILENO);
        EXPECT_EQ(request.read(), CORVEL_HTTP_OK);
    }
    observer.join();
    close(ends[0]);
    close(ends[1]);
    for (const char *line :
         {"\nUid:\t0\t0\t0\t0\n", "\nCapPrm:\t0000000000000000\n", "\nCapEff:\t0000000000000000\n"})
        EXPECT_NE(seen.status.find(line), std::string::npos) << line << seen.status;
}

TEST(corvel_request_begin_contained, ReportsEachFailedAllocation) {
    stand_in_syslog = [](int, const char *) {
    };
    for_each_allocation_failure([&](AllocationTrial &trial) {
        CgiSurroundings surroundings(
            upload_of(upload_body("x")).with("HTTP_COOKIE", "s=1").with("QUERY_STRING", "a=b"));
        const corvel_containment containment = strictest();
        corvel_request_rules rules{};
        rules.methods = CORVEL_POST;
        rules.types = CORVEL_MULTIPART;
        trial.run([&] {
            corvel_request *const request = corvel_request_begin_contained(&containment);
            const int status = corvel_request_read(request, &rules);
            if (status != CORVEL_HTTP_OK) {
                EXPECT_TRUE(status == CORVEL_HTTP_INTERNAL_SERVER_ERROR ||
                            status == CORVEL_HTTP_SERVICE_UNAVAILABLE)
                    << status;
            }
            const corvel_upload_result result = corvel_upload_read(request, nullptr, nullptr);
            if (status == CORVEL_HTTP_OK && trial.failed()) {
                EXPECT_TRUE(result == CORVEL_UPLOAD_NO_MEMORY ||
                            result == CORVEL_UPLOAD_NOT_CONTAINED)
                    << result;
            }
            corvel_request_free(request);
        });
    });
    stand_in_syslog = nullptr;
}

TEST(corvel_request_begin_contained, WorksIfThePageIgnoresTheEndOfChildren) {
    const auto former = std::signal(SIGCHLD, SIG_IGN);
    {
        const NothingLeft nothing_left;
        const AnyRequest request(post("a=b"), Way::contained);
        EXPECT_EQ(request.read(), CORVEL_HTTP_OK);
        EXPECT_STREQ(corvel_field(request, "a"), "b");
        const RecordSyslog log;
        const AnyRequest other(post("a=b"), Way::contained);
        const Misbehaviour misbehaviour(call_poll, wait_forever);
        EXPECT_EQ(other.read(), CORVEL_HTTP_INTERNAL_SERVER_ERROR);
    }
    std::signal(SIGCHLD, former);
}

TEST_WITH_FILTER(corvel_request_begin_contained, EndsTheProcessWithThePage) {
    SKIP_UNLESS_ROOT();
    // The process keeps the reading end of this pipe, its standard input, open.
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t page = fork();
    ASSERT_GE(page, 0);
    if (page == 0) {
        const AnyRequest request(post("a=b").with("CONTENT_LENGTH", "4"), Way::contained);
        dup2(ends[0], STDIN_FILENO);
        close(ends[0]);
        close(ends[1]);
        end_child(request.read());
    }
    close(ends[0]);
    const std::string children =
        "/proc/" + std::to_string(page) + "/task/" + std::to_string(page) + "/children";
    for (int i = 0; i < 500 && content_of(children).empty(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_FALSE(content_of(children).empty());
    kill(page, SIGKILL);
    EXPECT_EQ(wait_for_child(page).signal, SIGKILL);
    std::signal(SIGPIPE, SIG_IGN);
    pollfd reader = {ends[1], 0, 0};
    EXPECT_EQ(poll(&reader, 1, 5000), 1);
    EXPECT_EQ(reader.revents, POLLERR);
    std::signal(SIGPIPE, SIG_DFL);
    close(ends[1]);
}

} // namespace

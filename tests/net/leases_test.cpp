/* SPDX-License-Identifier: MIT */
#include <corvel.h>

#include "tests/support/child_process.h"
#include "tests/support/descriptors.h"
#include "tests/support/golden_files.h"
#include "tests/support/named_process.h"
#include "tests/support/next_definition.h"
#include "tests/support/output_capture.h"
#include "tests/support/private_root.h"
#include "tests/support/stand_in.h"
#include "tests/support/temporary_directory.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <ostream>
#include <sched.h>
#include <sstream>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

/** The result of time(), unless it is 0. */
std::time_t fixed_time;

/** Called in place of kill(), if set. */
std::function<int(pid_t, int)> instead_of_kill;

/** Whether syscall() fails for a call and its first argument. */
std::function<bool(long, long)> fails_system_call;

unsigned long clock_gettime_calls;

/** The number of calls of usleep() and nanosleep(), which return at once. */
unsigned long short_sleeps;

} // namespace

extern "C" std::time_t time(std::time_t *out) C_LIBRARY_NOEXCEPT {
    static auto *const next = corvel_test::next_definition<std::time_t(std::time_t *)>("time");
    if (fixed_time == 0)
        return next(out);
    if (out != nullptr)
        *out = fixed_time;
    return fixed_time;
}

extern "C" int kill(pid_t process, int signal) C_LIBRARY_NOEXCEPT {
    static auto *const next = corvel_test::next_definition<int(pid_t, int)>("kill");
    return instead_of_kill ? instead_of_kill(process, signal) : next(process, signal);
}

extern "C" int clock_gettime(clockid_t clock, timespec *out) C_LIBRARY_NOEXCEPT {
    static auto *const next =
        corvel_test::next_definition<int(clockid_t, timespec *)>("clock_gettime");
    ++clock_gettime_calls;
    return next(clock, out);
}

extern "C" long syscall(long call, ...) C_LIBRARY_NOEXCEPT {
    static auto *const next = corvel_test::next_definition<long(long, ...)>("syscall");
    std::va_list values;
    va_start(values, call);
    long arguments[6];
    for (long &argument : arguments)
        argument = va_arg(values, long);
    va_end(values);
    if (fails_system_call && fails_system_call(call, arguments[0])) {
        errno = ENOSYS;
        return -1;
    }
    return next(call, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4],
                arguments[5]);
}

extern "C" int usleep(useconds_t) {
    ++short_sleeps;
    return 0;
}

extern "C" int nanosleep(const timespec *, timespec *) {
    ++short_sleeps;
    return 0;
}

namespace corvel_test {

namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;

constexpr std::time_t now = 1699999000;

/** During its lifetime, time() returns a fixed time. */
class FixedTime {
  public:
    explicit FixedTime(std::time_t time) { fixed_time = time; }
    ~FixedTime() { fixed_time = 0; }
    FixedTime(const FixedTime &) = delete;
    FixedTime &operator=(const FixedTime &) = delete;
};

/** The strings of a record. */
struct Lease {
    std::string ip, mac, expires, hostname;
    bool operator==(const Lease &) const = default;
    friend std::ostream &operator<<(std::ostream &out, const Lease &lease) {
        return out << lease.ip << ' ' << lease.mac << ' ' << lease.expires << ' ' << lease.hostname;
    }
};

/** The leases of a list, which is freed. */
std::vector<Lease> taken(lease_entry *&head) {
    std::vector<Lease> leases;
    for (const lease_entry *entry = head; entry != nullptr; entry = entry->next) {
        leases.push_back({entry->ip, entry->mac, entry->expires, entry->hostname});
        EXPECT_EQ(entry->reserved, 0);
        EXPECT_STREQ(entry->hwtype, "");
    }
    free_leaselist(&head);
    EXPECT_EQ(head, nullptr);
    return leases;
}

using Reader = int (*)(lease_entry **, const char *);

/** Reads a file of the given content. */
std::vector<Lease> read_leases(Reader reader, std::string_view content, int result = 0) {
    const TemporaryDirectory directory;
    directory.write("leases", content);
    lease_entry *head = nullptr;
    const std::string path = directory.path("leases");
    const std::size_t open_before = open_descriptors().size();
    EXPECT_EQ(capture_stderr([&] { EXPECT_EQ(reader(&head, path.c_str()), result); }), "");
    EXPECT_EQ(open_descriptors().size(), open_before);
    return taken(head);
}

std::string big_endian(std::uint32_t number) {
    std::string bytes;
    for (const unsigned shift : {24U, 16U, 8U, 0U})
        bytes += static_cast<char>(number >> shift);
    return bytes;
}

/** A record of a binary file; the unused part of the hardware address contains '#'. */
std::string record(const std::string &mac, const std::string &ip, std::uint32_t expiry) {
    return mac + std::string(16 - mac.size(), '#') + ip + big_endian(expiry);
}

/** The n-th of many records, and its lease. */
std::string numbered_record(unsigned n) {
    return record("\x02\xAB"s + big_endian(n), "\x0A"s + big_endian(n).substr(1), n);
}

Lease numbered_lease(unsigned n) {
    char mac[CORVEL_MAC_SIZE];
    std::snprintf(mac, sizeof mac, "02:AB:%02X:%02X:%02X:%02X", n >> 24, n >> 16 & 0xFF,
                  n >> 8 & 0xFF, n & 0xFF);
    return {"10." + std::to_string(n >> 16 & 0xFF) + "." + std::to_string(n >> 8 & 0xFF) + "." +
                std::to_string(n & 0xFF),
            mac, std::to_string(n), ""};
}

std::string numbered_records(unsigned count) {
    std::string records;
    for (unsigned n = 1; n <= count; ++n)
        records += numbered_record(n);
    return records;
}

std::vector<Lease> numbered_leases(unsigned count) {
    std::vector<Lease> leases;
    for (unsigned n = 1; n <= count; ++n)
        leases.push_back(numbered_lease(n));
    return leases;
}

/** A line of a text file, and its lease at the fixed time. */
std::string numbered_line(unsigned n) {
    const std::string number = std::to_string(n);
    return std::to_string(now + n) + " 0a:bc:" + number + " 10.0." + number + " host" + number +
           " 01:0a:bc:" + number + "\n";
}

Lease numbered_text_lease(unsigned n) {
    const std::string number = std::to_string(n);
    return {"10.0." + number, "0a:bc:" + number, number, "host" + number};
}

/** The same lease in a line of a DHCPv6 file. */
std::string numbered_ipv6_line(unsigned n) {
    const std::string number = std::to_string(n);
    return "# 0a:bc:" + number + " 7 host" + number + " " + std::to_string(now + n) +
           " 0 128 10.0." + number + "\n";
}

/** A text file of many lines, and their leases. */
struct TextFile {
    std::string content;
    std::vector<Lease> leases;
};

TextFile text_file_of(std::string (*line)(unsigned), unsigned count) {
    TextFile file;
    for (unsigned n = 1; n <= count; ++n) {
        file.content += line(n);
        file.leases.push_back(numbered_text_lease(n));
    }
    return file;
}

/** The leases of a golden file, one on each line. */
std::vector<Lease> golden_leases(const std::string &name) {
    std::istringstream lines(golden(name));
    std::vector<Lease> leases;
    for (Lease lease; lines >> lease.ip >> lease.mac >> lease.expires;)
        leases.push_back(lease);
    return leases;
}

// --- monotonic_time ---

TEST(monotonic_time, ReturnsTheSecondsOfTheMonotonicClock) {
    timespec before{};
    timespec after{};
    ASSERT_EQ(clock_gettime(CLOCK_MONOTONIC, &before), 0);
    const int seconds = monotonic_time();
    ASSERT_EQ(clock_gettime(CLOCK_MONOTONIC, &after), 0);
    EXPECT_GE(seconds, before.tv_sec);
    EXPECT_LE(seconds, after.tv_sec);
}

TEST(monotonic_time, MakesTheSystemCallDirectly) {
    std::vector<long> clocks;
    const Instead watched(fails_system_call, [&clocks](long, long clock) {
        clocks.push_back(clock);
        return false;
    });
    const unsigned long calls_before = clock_gettime_calls;
    const int seconds = monotonic_time();
    EXPECT_EQ(clock_gettime_calls, calls_before);
    EXPECT_EQ(clocks, std::vector<long>{CLOCK_MONOTONIC});
    EXPECT_LE(seconds, monotonic_time());
}

TEST(monotonic_time, ReturnsZeroIfTheKernelLacksTheCall) {
    const Instead watched(fails_system_call, [](long, long) { return true; });
    const int seconds = monotonic_time();
    EXPECT_EQ(seconds, 0);
}

// --- add_lease ---

TEST(add_lease, FillsThreeFieldsAndChangesNoOther) {
    lease_entry entry;
    std::memset(&entry, '#', sizeof entry);
    const lease_entry untouched = entry;
    const std::string bytes = record("\x00\x1A\xbC\xFF\x0f\x09"s, "\xC0\xA8\x01\x0A"s, 3600);
    // The record need not be aligned.
    const std::string shifted = "?" + bytes;
    add_lease(&entry, reinterpret_cast<const unsigned char *>(shifted.data()) + 1);
    EXPECT_STREQ(entry.mac, "00:1A:BC:FF:0F:09");
    EXPECT_STREQ(entry.ip, "192.168.1.10");
    EXPECT_STREQ(entry.expires, "3600");
    EXPECT_EQ(entry.reserved, untouched.reserved);
    EXPECT_EQ(std::memcmp(entry.hwtype, untouched.hwtype, sizeof entry.hwtype), 0);
    EXPECT_EQ(std::memcmp(entry.hostname, untouched.hostname, sizeof entry.hostname), 0);
    EXPECT_EQ(std::memcmp(&entry.next, &untouched.next, sizeof(void *)), 0);
}

TEST(add_lease, PrintsTheSmallestAndLargestNumbers) {
    lease_entry entry{};
    const auto fill = [&entry](const std::string &bytes) {
        add_lease(&entry, reinterpret_cast<const unsigned char *>(bytes.data()));
    };
    fill(record("\xFF\xFF\xFF\xFF\xFF\xFF"s, "\xFF\xFF\xFF\xFF"s, 0xFFFFFFFF));
    EXPECT_STREQ(entry.mac, "FF:FF:FF:FF:FF:FF");
    EXPECT_STREQ(entry.ip, "255.255.255.255");
    EXPECT_STREQ(entry.expires, "4294967295");
    fill(std::string(CORVEL_LEASE_RECORD_SIZE, '\0'));
    EXPECT_STREQ(entry.mac, "00:00:00:00:00:00");
    EXPECT_STREQ(entry.ip, "0.0.0.0");
    EXPECT_STREQ(entry.expires, "0");
    fill(record("\x01\x02\x03\x04\x05\x06"s, "\x01\x02\x03\x04"s, 0x80000001));
    EXPECT_STREQ(entry.expires, "2147483649");
}

TEST(add_lease, ReadsTheGoldenRecords) {
    const std::string bytes = golden("leases.bin");
    std::vector<Lease> leases;
    for (std::size_t at = 0; at + CORVEL_LEASE_RECORD_SIZE <= bytes.size();
         at += CORVEL_LEASE_RECORD_SIZE) {
        lease_entry entry{};
        add_lease(&entry, reinterpret_cast<const unsigned char *>(bytes.data()) + at);
        leases.push_back({entry.ip, entry.mac, entry.expires, entry.hostname});
    }
    EXPECT_EQ(leases, golden_leases("leases-every-slot.txt"));
}

// --- get_udhpd_leases ---

TEST(get_udhpd_leases, ListsTheRecordsInTheOrderOfTheFile) {
    const FixedTime fixed_now(now);
    const std::string content =
        record("\x00\x11\x22\xaa\xbb\xcc"s, "\xC0\xA8\x01\x0A"s, 3600) +
        record("\xFF\x00\x00\x00\x00\x00"s, "\x0A\x00\x00\x01"s, 0) +
        record("\x00\x11\x22\xaa\xbb\xcc"s, "\xC0\xA8\x01\x0A"s, 0xFFFFFFFF);
    EXPECT_EQ(read_leases(get_udhpd_leases, content, 3),
              (std::vector<Lease>{{"192.168.1.10", "00:11:22:AA:BB:CC", "3600", ""},
                                  {"10.0.0.1", "FF:00:00:00:00:00", "0", ""},
                                  {"192.168.1.10", "00:11:22:AA:BB:CC", "4294967295", ""}}));
}

TEST(get_udhpd_leases, IgnoresAnIncompleteLastRecord) {
    EXPECT_EQ(read_leases(get_udhpd_leases, numbered_records(2) + "??", 2), numbered_leases(2));
    for (unsigned records = 0; records < 3; ++records)
        for (std::size_t rest = 0; rest < CORVEL_LEASE_RECORD_SIZE; ++rest)
            EXPECT_EQ(read_leases(get_udhpd_leases,
                                  numbered_records(records) + numbered_record(9).substr(0, rest),
                                  static_cast<int>(records)),
                      numbered_leases(records))
                << rest;
}

TEST(get_udhpd_leases, ReadsFilesOfLengthsAroundMultiplesOfItsBlockSize) {
    for (const unsigned records : {169U, 170U, 171U, 339U, 340U, 341U, 5000U})
        for (const std::size_t rest : {0U, 1U, 16U, 23U})
            EXPECT_EQ(read_leases(get_udhpd_leases,
                                  numbered_records(records) + numbered_record(9).substr(0, rest),
                                  static_cast<int>(records)),
                      numbered_leases(records))
                << records << " and " << rest;
}

TEST(get_udhpd_leases, SkipsEmptySlots) {
    const std::string empty(CORVEL_LEASE_RECORD_SIZE, '\0');
    const std::string zero_address = record(std::string(7, '\0'), "\x0A\x00\x00\x01"s, 60);
    EXPECT_EQ(read_leases(get_udhpd_leases, empty), std::vector<Lease>{});
    EXPECT_EQ(
        read_leases(get_udhpd_leases,
                    empty + numbered_record(1) + zero_address + empty + numbered_record(2) + empty,
                    2),
        numbered_leases(2));
    // Two blocks of only empty slots.
    std::string slots;
    for (int i = 0; i < 170; ++i)
        slots += empty;
    EXPECT_EQ(read_leases(get_udhpd_leases, slots + slots + numbered_record(1), 1),
              numbered_leases(1));
}

TEST(get_udhpd_leases, TreatsARecordWithoutAHardwareAddressAsAnEmptySlot) {
    for (std::size_t place = 0; place < CORVEL_LEASE_RECORD_SIZE; ++place) {
        std::string bytes(CORVEL_LEASE_RECORD_SIZE, '\0');
        bytes[place] = 1;
        const std::vector<Lease> leases = read_leases(get_udhpd_leases, bytes, place < 6 ? 1 : 0);
        ASSERT_EQ(leases.size(), place < 6 ? 1U : 0U) << place;
        if (place == 5) {
            EXPECT_EQ(leases[0], (Lease{"0.0.0.0", "00:00:00:00:00:01", "0", ""}));
        }
    }
}

TEST(get_udhpd_leases, ReadsTheGoldenFile) {
    const FixedTime fixed_now(now);
    const std::vector<Lease> expected = golden_leases("leases.txt");
    EXPECT_EQ(
        read_leases(get_udhpd_leases, golden("leases.bin"), static_cast<int>(expected.size())),
        expected);
}

TEST(get_udhpd_leases, ReadsAnEmptyFile) {
    EXPECT_EQ(read_leases(get_udhpd_leases, ""), std::vector<Lease>{});
}

TEST(get_udhpd_leases, ReadsRecordsThatArriveInPieces) {
    const TemporaryDirectory directory;
    const std::string path = directory.path("fifo");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const pid_t writer = fork();
    if (writer == 0) {
        const int end = open(path.c_str(), O_WRONLY | O_CLOEXEC);
        const std::string bytes = numbered_records(400);
        for (std::size_t at = 0; at < bytes.size(); at += 7)
            static_cast<void>(
                write(end, bytes.data() + at, std::min<std::size_t>(7, bytes.size() - at)) > 0);
        _exit(0);
    }
    lease_entry *head = nullptr;
    EXPECT_EQ(get_udhpd_leases(&head, path.c_str()), 400);
    EXPECT_EQ(taken(head), numbered_leases(400));
    EXPECT_EQ(wait_for_child(writer).exit_status, 0);
}

TEST(get_udhpd_leases, KeepsWhatItListedBeforeMemoryRanOut) {
    const TemporaryDirectory directory;
    directory.write("leases", numbered_record(1) + std::string(CORVEL_LEASE_RECORD_SIZE, '\0') +
                                  numbered_record(2) + numbered_record(3));
    const std::string path = directory.path("leases");
    const std::size_t open_before = open_descriptors().size();
    EXPECT_GE(for_each_allocation_failure([&](AllocationTrial &trial) {
                  lease_entry *head = nullptr;
                  const int count =
                      trial.run([&] { return get_udhpd_leases(&head, path.c_str()); });
                  EXPECT_EQ(taken(head), numbered_leases(static_cast<unsigned>(count)));
                  EXPECT_EQ(count == 3, !trial.failed());
              }),
              3U);
    for (unsigned n = 1; n <= 3; ++n) {
        lease_entry *head = nullptr;
        {
            const FailCall failing(call_calloc, n, ENOMEM);
            EXPECT_EQ(get_udhpd_leases(&head, path.c_str()), static_cast<int>(n) - 1);
        }
        EXPECT_EQ(taken(head), numbered_leases(n - 1));
    }
    EXPECT_EQ(open_descriptors().size(), open_before);
}

// --- All three readers ---

struct LeaseReader {
    const char *function;
    Reader read;

    friend std::ostream &operator<<(std::ostream &out, const LeaseReader &parameter) {
        return out << parameter.function;
    }
};

class LeaseFile : public testing::TestWithParam<LeaseReader> {
  protected:
    /** Expects that nothing is listed and that this error is reported. */
    static void expect_error(const std::string &path, int error) {
        lease_entry *head = nullptr;
        EXPECT_EQ(capture_stderr([&] { EXPECT_EQ(GetParam().read(&head, path.c_str()), 0); }),
                  "could not open input file: "s + std::strerror(error) + "\n");
        EXPECT_EQ(head, nullptr);
    }
};

INSTANTIATE_TEST_SUITE_P(get_udhpd_leases, LeaseFile,
                         testing::Values(LeaseReader{"get_udhpd_leases", get_udhpd_leases}),
                         testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(get_dnsmasq_leases, LeaseFile,
                         testing::Values(LeaseReader{"get_dnsmasq_leases", get_dnsmasq_leases}),
                         testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(get_dhcpv6_leases, LeaseFile,
                         testing::Values(LeaseReader{"get_dhcpv6_leases", get_dhcpv6_leases}),
                         testing::PrintToStringParamName());

TEST_P(LeaseFile, IsReportedIfItCannotBeOpened) {
    expect_error("/not/there", ENOENT);
    EXPECT_EQ(capture_stdout([] { expect_error("/not/there", ENOENT); }), "");
    const FailCall failing(call_open, 1, EMFILE);
    expect_error("/dev/null", EMFILE);
}

TEST_P(LeaseFile, IsReportedIfItIsADirectory) {
    const TemporaryDirectory directory;
    const DescriptorWatch watch;
    expect_error(directory.path(), EISDIR);
}

TEST(get_udhpd_leases, KeepsWhatItListedBeforeReadingFailed) {
    const TemporaryDirectory directory;
    directory.write("leases", numbered_records(200));
    for (unsigned n = 1; n <= 3; ++n) {
        lease_entry *head = nullptr;
        {
            const FailCall failing(call_read, n);
            const int count = get_udhpd_leases(&head, directory.path("leases").c_str());
            EXPECT_EQ(count, n == 1 ? 0 : n == 2 ? 170 : 200);
        }
        taken(head);
    }
}

// --- get_dnsmasq_leases ---

/** The lease of a single line. */
Lease read_line(const std::string &line) {
    const FixedTime fixed_now(now);
    const std::vector<Lease> leases = read_leases(get_dnsmasq_leases, line + "\n");
    EXPECT_EQ(leases.size(), 1U);
    return leases.empty() ? Lease{} : leases[0];
}

TEST(get_dnsmasq_leases, ListsTheWordsOfALineUnchanged) {
    EXPECT_EQ(read_line("1700000000 aa:bb:cc:dd:ee:ff 192.168.1.10 laptop 01:aa:bb:cc:dd:ee:ff"),
              (Lease{"192.168.1.10", "aa:bb:cc:dd:ee:ff", "1000", "laptop"}));
    EXPECT_EQ(read_line("1700000000 06-AA:bb:CC:dd:EE:ff 192.168.1.10 * *"),
              (Lease{"192.168.1.10", "06-AA:bb:CC:dd:EE:ff", "1000", "*"}));
}

TEST(get_dnsmasq_leases, ComputesTheTimeLeftFromTheSystemTime) {
    const std::time_t before = std::time(nullptr);
    const std::vector<Lease> leases =
        read_leases(get_dnsmasq_leases, std::to_string(before + 3600) + " m 1.2.3.4 h *\n");
    const std::time_t after = std::time(nullptr);
    ASSERT_EQ(leases.size(), 1U);
    const long long left = std::atoll(leases[0].expires.c_str());
    EXPECT_LE(left, 3600);
    EXPECT_GE(left, before + 3600 - after);
}

TEST(get_dnsmasq_leases, ListsTheLinesInTheOrderOfTheFile) {
    const FixedTime fixed_now(now);
    const TextFile file = text_file_of(numbered_line, 2000);
    EXPECT_EQ(read_leases(get_dnsmasq_leases, file.content), file.leases);
}

TEST(get_dnsmasq_leases, IgnoresALastLineWithoutANewline) {
    const FixedTime fixed_now(now);
    EXPECT_EQ(read_leases(get_dnsmasq_leases,
                          numbered_line(1) + numbered_line(2) + "1700000000 m 1.2.3.4 h *"),
              (std::vector<Lease>{numbered_text_lease(1), numbered_text_lease(2)}));
    EXPECT_EQ(read_leases(get_dnsmasq_leases, "1700000000 m 1.2.3.4 h *"), std::vector<Lease>{});
    EXPECT_EQ(read_leases(get_dnsmasq_leases, numbered_line(1) + " "),
              std::vector<Lease>{numbered_text_lease(1)});
    EXPECT_EQ(read_leases(get_dnsmasq_leases, ""), std::vector<Lease>{});
}

TEST(get_dnsmasq_leases, ListsMissingWordsAsEmptyStrings) {
    const std::string expired = std::to_string(-now);
    EXPECT_EQ(read_line(""), (Lease{"", "", expired, ""}));
    EXPECT_EQ(read_line("  \t "), (Lease{"", "", expired, ""}));
    EXPECT_EQ(read_line("1700000000"), (Lease{"", "", "1000", ""}));
    EXPECT_EQ(read_line("1700000000 m"), (Lease{"", "m", "1000", ""}));
    EXPECT_EQ(read_line("1700000000 m 1.2.3.4"), (Lease{"1.2.3.4", "m", "1000", ""}));
    EXPECT_EQ(read_line("1700000000 m 1.2.3.4 h"), (Lease{"1.2.3.4", "m", "1000", "h"}));
}

TEST(get_dnsmasq_leases, SeparatesWordsAtAnyWhitespaceAndIgnoresThoseAfterTheFifth) {
    EXPECT_EQ(read_line(" \t1700000000\v\f m\r1.2.3.4 \t h  * sixth seventh eighth ninth"),
              (Lease{"1.2.3.4", "m", "1000", "h"}));
    EXPECT_EQ(read_line("1700000000 m 1.2.3.4 h\0 *"s), (Lease{"1.2.3.4", "m", "1000", "h"}));
    EXPECT_EQ(read_line("1700000000 m 1.2.3.4\0 h *"s), (Lease{"1.2.3.4", "m", "1000", ""}));
    EXPECT_EQ(read_line("1700000000 m 1.2.3.4 h\r"), (Lease{"1.2.3.4", "m", "1000", "h"}));
    EXPECT_EQ(read_line("1700000000 m\xC3\xA4 1.2.3.4 h\xFF *"),
              (Lease{"1.2.3.4", "m\xC3\xA4", "1000", "h\xFF"}));
}

TEST(get_dnsmasq_leases, ConvertsAnyExpiryToANumber) {
    const auto left = [](const std::string &expiry) {
        return read_line(expiry + " m 1.2.3.4 h *").expires;
    };
    EXPECT_EQ(left("0"), std::to_string(-now));
    EXPECT_EQ(left("never"), std::to_string(-now));
    EXPECT_EQ(left("-5"), std::to_string(-now - 5));
    EXPECT_EQ(left("+1700000000"), "1000");
    EXPECT_EQ(left("1700000000x9"), "1000");
    EXPECT_EQ(left("0001700000000"), "1000");
    EXPECT_EQ(left(std::to_string(now)), "0");
    EXPECT_EQ(left(std::to_string(now - 1)), "-1");
    // After the years 2038 and 2106, and far in the future.
    EXPECT_EQ(left("2147483648"), std::to_string(2147483648 - now));
    EXPECT_EQ(left("4294967296"), std::to_string(4294967296 - now));
    EXPECT_EQ(left("100000000000000"), std::to_string(100000000000000 - now));
}

TEST(get_dnsmasq_leases, ComputesTheTimeLeftAfter2038) {
    const auto left_at = [](std::int64_t time, const std::string &expiry) {
        const FixedTime fixed(static_cast<std::time_t>(time));
        return read_leases(get_dnsmasq_leases, expiry + " m 1.2.3.4 h *\n").at(0).expires;
    };
    EXPECT_EQ(left_at(INT32_MAX, "2147483747"), "100");
    if constexpr (sizeof(std::time_t) > 4) {
        EXPECT_EQ(left_at(2147483648, "2147483747"), "99");
        EXPECT_EQ(left_at(2147483748, "2147483747"), "-1");
        EXPECT_EQ(left_at(4294967296, "4294967396"), "100");
        EXPECT_EQ(left_at(4294967396, "100"), "-4294967296");
    }
}

TEST(get_dnsmasq_leases, KeepsFifteenCharactersOfTheTimeLeft) {
    const auto left = [](const std::string &expiry) {
        return read_line(expiry + " m 1.2.3.4 h *").expires;
    };
    const std::int64_t expiries[] = {999999999999999, 12345678901234567, 5000000000000000000,
                                     INT64_MAX,       -99999999999999,   -12345678901234567};
    for (const std::int64_t expiry : expiries)
        EXPECT_EQ(left(std::to_string(expiry)), std::to_string(expiry - now).substr(0, 15))
            << expiry;
    // A number that does not fit is still far in the future or in the past.
    for (const std::size_t digits : {19U, 20U, 30U, 31U, 32U, 500U}) {
        EXPECT_EQ(left(std::string(digits, '9')).find_first_not_of("0123456789"),
                  std::string::npos);
        EXPECT_EQ(left(std::string(digits, '9')).size(), 15U);
        EXPECT_EQ(left("-" + std::string(digits, '9')).size(), 15U);
        EXPECT_EQ(left("-" + std::string(digits, '9'))[0], '-');
    }
}

TEST(get_dnsmasq_leases, TruncatesLongWordsWithoutShiftingThoseAfterThem) {
    for (const std::size_t length : {30U, 31U, 32U, 33U, 127U, 128U, 200U}) {
        const std::string word(length, 'w');
        const std::string kept = word.substr(0, 31);
        EXPECT_EQ(read_line("1700000000 " + word + " 1.2.3.4 h *"),
                  (Lease{"1.2.3.4", kept, "1000", "h"}));
        EXPECT_EQ(read_line("1700000000 m " + word + " h *"), (Lease{kept, "m", "1000", "h"}));
        EXPECT_EQ(read_line("1700000000 m 1.2.3.4 " + word + " *"),
                  (Lease{"1.2.3.4", "m", "1000", word.substr(0, 127)}));
        EXPECT_EQ(read_line("1700000000 m 1.2.3.4 h " + word),
                  (Lease{"1.2.3.4", "m", "1000", "h"}));
        EXPECT_EQ(read_line(std::string(length, '0') + "1700000000 m 1.2.3.4 h *").ip, "1.2.3.4");
        EXPECT_EQ(read_line(word + " " + word + " " + word + " " + word + " " + word),
                  (Lease{kept, kept, std::to_string(-now), word.substr(0, 127)}));
    }
    // The expiry is truncated at 31 characters as well.
    EXPECT_EQ(read_line(std::string(21, '0') + "1700000000 m 1.2.3.4 h *").expires, "1000");
    EXPECT_EQ(read_line(std::string(22, '0') + "1700000000 m 1.2.3.4 h *").expires,
              std::to_string(170000000 - now));
}

TEST(get_dnsmasq_leases, ListsAddressesAndClientIdentifiersOfAnyKind) {
    EXPECT_EQ(read_line("1700000000 29097530 fd00::1234:5678 host "
                        "00:01:00:01:2a:3b:4c:5d:6e:7f:80:91:a2:b3:c4:d5:e6:f7:08:19:2a:3b"),
              (Lease{"fd00::1234:5678", "29097530", "1000", "host"}));
    EXPECT_EQ(read_line("duid 00:01:00:01:2a:3b:4c:5d:6e:7f:80:91:a2:b3"),
              (Lease{"", "00:01:00:01:2a:3b:4c:5d:6e:7f:8", std::to_string(-now), ""}));
}

TEST(get_dnsmasq_leases, ReadsLongLinesInPiecesOf1023Characters) {
    const FixedTime fixed_now(now);
    const std::string expired = std::to_string(-now);
    const std::string start = "1700000000 m 1.2.3.4 h ";
    const Lease whole = {"1.2.3.4", "m", "1000", "h"};
    const auto line = [&](std::size_t length) {
        return start + std::string(length - start.size(), 'x');
    };
    const auto listed = [&](const std::string &content) {
        return read_leases(get_dnsmasq_leases, content);
    };
    EXPECT_EQ(listed(line(1021) + "\n"), std::vector<Lease>{whole});
    EXPECT_EQ(listed(line(1022) + "\n"), std::vector<Lease>{whole});
    // The rest, even if it is only the newline, is a line of its own.
    EXPECT_EQ(listed(line(1023) + "\n"), (std::vector<Lease>{whole, {"", "", expired, ""}}));
    EXPECT_EQ(listed(line(1024) + "\n"), (std::vector<Lease>{whole, {"", "", expired, ""}}));
    EXPECT_EQ(listed(line(1023) + " n 5.6.7.8 i\n"),
              (std::vector<Lease>{whole, {"i", "5.6.7.8", expired, ""}}));
    EXPECT_EQ(listed(line(1023) + start + "\n" + start + "\n"),
              (std::vector<Lease>{whole, whole, whole}));
    EXPECT_EQ(listed(line(2046) + "\n").size(), 3U);
    // A whole piece at the end of the file needs no newline.
    EXPECT_EQ(listed(line(1022)), std::vector<Lease>{});
    EXPECT_EQ(listed(line(1023)), std::vector<Lease>{whole});
    EXPECT_EQ(listed(line(1024)), std::vector<Lease>{whole});
}

TEST(get_dnsmasq_leases, ReachesTheEndOfAnyFile) {
    EXPECT_EQ(read_leases(get_dnsmasq_leases, std::string(100000, '\0')).size(), 97U);
    EXPECT_EQ(read_leases(get_dnsmasq_leases, std::string(100000, 'x')).size(), 97U);
    EXPECT_EQ(read_leases(get_dnsmasq_leases, std::string(1000, '\n')).size(), 1000U);
}

TEST(get_dnsmasq_leases, KeepsWhatItListedBeforeReadingFailed) {
    const TemporaryDirectory directory;
    const FixedTime fixed_now(now);
    const TextFile file = text_file_of(numbered_line, 300);
    ASSERT_GT(file.content.size(), 9000U);
    directory.write("leases", file.content);
    for (unsigned n = 1; n <= 3; ++n) {
        lease_entry *head = nullptr;
        {
            const FailCall failing(call_read, n, EIO, FailCall::from_then_on);
            EXPECT_EQ(get_dnsmasq_leases(&head, directory.path("leases").c_str()), 0);
        }
        // An incomplete line before the error is not listed.
        const std::vector<Lease> leases = taken(head);
        ASSERT_LT(leases.size(), file.leases.size());
        EXPECT_EQ(leases.empty(), n == 1);
        EXPECT_TRUE(std::equal(leases.begin(), leases.end(), file.leases.begin()));
    }
}

TEST(get_dnsmasq_leases, KeepsWhatItListedBeforeMemoryRanOut) {
    const FixedTime fixed_now(now);
    const TemporaryDirectory directory;
    directory.write("leases", numbered_line(1) + numbered_line(2) + numbered_line(3));
    const std::string path = directory.path("leases");
    EXPECT_GE(for_each_allocation_failure([&](AllocationTrial &trial) {
                  lease_entry *head = nullptr;
                  EXPECT_EQ(trial.run([&] { return get_dnsmasq_leases(&head, path.c_str()); }), 0);
                  const std::vector<Lease> leases = taken(head);
                  for (unsigned n = 1; n <= leases.size(); ++n)
                      EXPECT_EQ(leases[n - 1], numbered_text_lease(n));
                  EXPECT_EQ(leases.size() == 3, !trial.failed());
              }),
              3U);
}

// --- get_dhcpv6_leases ---

Lease read_ipv6_line(const std::string &line) {
    const FixedTime fixed_now(now);
    const std::vector<Lease> leases = read_leases(get_dhcpv6_leases, line + "\n");
    EXPECT_EQ(leases.size(), 1U);
    return leases.empty() ? Lease{} : leases[0];
}

TEST(get_dhcpv6_leases, ListsTheSecondFourthFifthAndEighthWord) {
    EXPECT_EQ(read_ipv6_line("# 0001000a1b2c 99 laptop 1700000000 7 128 fd00::10 more"),
              (Lease{"fd00::10", "0001000a1b2c", "1000", "laptop"}));
    EXPECT_EQ(read_ipv6_line("one two three four 1700000000 six seven eight"),
              (Lease{"eight", "two", "1000", "four"}));
}

TEST(get_dhcpv6_leases, ListsMissingWordsAsEmptyStrings) {
    const std::string expired = std::to_string(-now);
    EXPECT_EQ(read_ipv6_line(""), (Lease{"", "", expired, ""}));
    EXPECT_EQ(read_ipv6_line("one"), (Lease{"", "", expired, ""}));
    EXPECT_EQ(read_ipv6_line("one two three"), (Lease{"", "two", expired, ""}));
    EXPECT_EQ(read_ipv6_line("one two three four"), (Lease{"", "two", expired, "four"}));
    EXPECT_EQ(read_ipv6_line("one two three four 1700000000 six seven"),
              (Lease{"", "two", "1000", "four"}));
}

TEST(get_dhcpv6_leases, TruncatesLongWordsWithoutShiftingThoseAfterThem) {
    const std::string word(400, 'w');
    EXPECT_EQ(read_ipv6_line(word + " two " + word + " four 1700000000 six seven eight"),
              (Lease{"eight", "two", "1000", "four"}));
    const std::string middle(140, 'w');
    EXPECT_EQ(read_ipv6_line("one " + middle + " three " + middle + " 1700000000 " + middle +
                             " seven " + middle),
              (Lease{middle.substr(0, 31), middle.substr(0, 31), "1000", middle.substr(0, 127)}));
}

TEST(get_dhcpv6_leases, IgnoresALastLineWithoutANewline) {
    const FixedTime fixed_now(now);
    const std::string line = "one two three four 1700000000 six seven eight";
    EXPECT_EQ(read_leases(get_dhcpv6_leases, line + "\n" + line),
              (std::vector<Lease>{{"eight", "two", "1000", "four"}}));
}

TEST(get_dhcpv6_leases, ListsTheLinesInTheOrderOfTheFile) {
    const FixedTime fixed_now(now);
    const TextFile file = text_file_of(numbered_ipv6_line, 2000);
    EXPECT_EQ(read_leases(get_dhcpv6_leases, file.content), file.leases);
}

TEST(get_dhcpv6_leases, TruncatesEachWordAtItsOwnLength) {
    for (const std::size_t length : {30U, 31U, 32U, 126U, 127U, 128U}) {
        const std::string word(length, 'w');
        const std::string kept = word.substr(0, 31);
        EXPECT_EQ(read_ipv6_line("# " + word + " 7 h 1700000000 0 128 fd00::10"),
                  (Lease{"fd00::10", kept, "1000", "h"}));
        EXPECT_EQ(read_ipv6_line("# m 7 " + word + " 1700000000 0 128 fd00::10"),
                  (Lease{"fd00::10", "m", "1000", word.substr(0, 127)}));
        EXPECT_EQ(read_ipv6_line("# m 7 h 1700000000 0 128 " + word),
                  (Lease{kept, "m", "1000", "h"}));
    }
    EXPECT_EQ(read_ipv6_line("# m 7 h 1700000000 0 128 fd00:1111:2222:3333:4444:5555:6666:7777").ip,
              "fd00:1111:2222:3333:4444:5555:6");
    EXPECT_EQ(
        read_ipv6_line("# m 7 h " + std::string(22, '0') + "1700000000 0 128 fd00::10").expires,
        std::to_string(170000000 - now));
}

TEST(get_dhcpv6_leases, ConvertsAnyExpiryToANumber) {
    const auto left = [](const std::string &expiry) {
        return read_ipv6_line("# m 7 h " + expiry + " 0 128 fd00::10").expires;
    };
    EXPECT_EQ(left("0"), std::to_string(-now));
    EXPECT_EQ(left("never"), std::to_string(-now));
    EXPECT_EQ(left("1700000000x9"), "1000");
    EXPECT_EQ(left(std::to_string(now - 1)), "-1");
    EXPECT_EQ(left("4294967296"), std::to_string(4294967296 - now));
    EXPECT_EQ(left("12345678901234567"), std::to_string(12345678901234567 - now).substr(0, 15));
}

TEST(get_dhcpv6_leases, ReadsLongLinesInPiecesOf1023Characters) {
    const FixedTime fixed_now(now);
    const std::string start = "# m 7 h 1700000000 0 128 fd00::10 ";
    const Lease whole = {"fd00::10", "m", "1000", "h"};
    const Lease empty = {"", "", std::to_string(-now), ""};
    const auto line = [&](std::size_t length) {
        return start + std::string(length - start.size(), 'x');
    };
    const auto listed = [](const std::string &content) {
        return read_leases(get_dhcpv6_leases, content);
    };
    EXPECT_EQ(listed(line(1022) + "\n"), std::vector<Lease>{whole});
    EXPECT_EQ(listed(line(1023) + "\n"), (std::vector<Lease>{whole, empty}));
    EXPECT_EQ(listed(line(1023) + start + "\n"), (std::vector<Lease>{whole, whole}));
    EXPECT_EQ(listed(line(1022)), std::vector<Lease>{});
    EXPECT_EQ(listed(line(1023)), std::vector<Lease>{whole});
}

TEST(get_dhcpv6_leases, KeepsWhatItListedBeforeMemoryRanOut) {
    const FixedTime fixed_now(now);
    const TextFile file = text_file_of(numbered_ipv6_line, 3);
    const TemporaryDirectory directory;
    directory.write("leases", file.content);
    const std::string path = directory.path("leases");
    EXPECT_EQ(for_each_allocation_failure([&](AllocationTrial &trial) {
                  lease_entry *head = nullptr;
                  EXPECT_EQ(trial.run([&] { return get_dhcpv6_leases(&head, path.c_str()); }), 0);
                  const std::vector<Lease> leases = taken(head);
                  ASSERT_EQ(leases.size(), trial.failed() ? trial.n() - 1 : 3U);
                  EXPECT_TRUE(std::equal(leases.begin(), leases.end(), file.leases.begin()));
              }),
              3U);
}

// --- get_leases ---

constexpr const char *pid_file = "/var/run/udhcpd.pid";
constexpr const char *binary_file = "/var/config/udhcpd.leases";
constexpr const char *text_file = "/var/config/dnsmasq.leases";

void write_both_lease_files() {
    write_file(binary_file, numbered_records(2));
    write_file(text_file, numbered_line(3));
}

/** Fails the test; replaces kill() if no signal must be sent. */
int unexpected_signal(pid_t process, int signal) {
    ADD_FAILURE() << "signal " << signal << " to " << process;
    return 0;
}

TEST(get_leases, ReadsNothingIfNoServerRuns) {
    in_private_root([] {
        write_both_lease_files();
        const NamedProcess other("dnsmasq2");
        const NamedProcess binary_server("udhcpd");
        const Instead replaced_kill(instead_of_kill, unexpected_signal);
        lease_entry *head = nullptr;
        EXPECT_EQ(capture_stderr([&] { EXPECT_EQ(get_leases(&head), 0); }), "");
        EXPECT_EQ(head, nullptr);
        for (const char *number : {"", "0\n", "-1\n", "none\n"}) {
            write_file(pid_file, number);
            EXPECT_EQ(get_leases(&head), 0);
            EXPECT_EQ(head, nullptr);
        }
    });
}

TEST(get_leases, ReadsTheTextFileIfItsServerRuns) {
    in_private_root([] {
        const FixedTime fixed_now(now);
        write_both_lease_files();
        const NamedProcess server("dnsmasq");
        const Instead replaced_kill(instead_of_kill, unexpected_signal);
        for (const char *number : {"", "0\n", "-7\n"}) {
            write_file(pid_file, number);
            lease_entry *head = nullptr;
            EXPECT_EQ(get_leases(&head), 0);
            EXPECT_EQ(taken(head), std::vector<Lease>{numbered_text_lease(3)});
        }
        fs::remove(pid_file);
        lease_entry *head = nullptr;
        EXPECT_EQ(get_leases(&head), 0);
        EXPECT_EQ(taken(head), std::vector<Lease>{numbered_text_lease(3)});
    });
}

TEST(get_leases, PrefersTheServerWithAPidFile) {
    in_private_root([] {
        write_both_lease_files();
        const NamedProcess text_server("dnsmasq");
        const NamedProcess binary_server("udhcpd");
        write_file(pid_file, std::to_string(binary_server.id()) + "\n");
        lease_entry *head = nullptr;
        EXPECT_EQ(get_leases(&head), 2);
        EXPECT_EQ(taken(head), numbered_leases(2));
    });
}

/** A process that writes a byte to a pipe for each signal SIGUSR1. */
class Server {
  public:
    Server() : id_(fork()) {
        if (id_ == 0) {
            static int reports = reports_.writing;
            struct sigaction action {};
            action.sa_handler = [](int signal) {
                const char byte = signal == SIGUSR1 ? 'u' : '?';
                static_cast<void>(write(reports, &byte, 1) > 0);
            };
            sigaction(SIGUSR1, &action, nullptr);
            const char ready = 'r';
            static_cast<void>(write(reports, &ready, 1) > 0);
            for (;;)
                pause();
        }
        EXPECT_EQ(next_report(), 'r');
    }
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;
    ~Server() {
        kill(id_, SIGKILL);
        wait_for_child(id_);
    }

    [[nodiscard]] pid_t id() const { return id_; }
    /** Waits for the next byte. */
    [[nodiscard]] char next_report() const {
        char byte = 0;
        while (read(reports_.reading, &byte, 1) < 0 && errno == EINTR) {
        }
        return byte;
    }

  private:
    OwnPipe reports_;
    pid_t id_;
};

TEST(get_leases, SignalsTheServerWithAPidFile) {
    in_private_root([] {
        write_both_lease_files();
        const Server server;
        write_file(pid_file, std::to_string(server.id()) + "\n");
        for (int i = 0; i < 3; ++i) {
            lease_entry *head = nullptr;
            EXPECT_EQ(get_leases(&head), 2);
            EXPECT_EQ(taken(head), numbered_leases(2));
            EXPECT_EQ(server.next_report(), 'u');
        }
    });
}

/** The signal that makes the server write its leases; on MIPS, SIGUSR1 has the number 16. */
#ifdef __mips__
constexpr int writing_signal = 16;
#else
constexpr int writing_signal = SIGUSR1;
#endif

TEST(get_leases, SendsTheSignalOnceAndBeforeItReads) {
    in_private_root([] {
        const Server server;
        write_file(pid_file, std::to_string(server.id()) + "\n");
        int signals = 0;
        const Instead replaced_kill(instead_of_kill, [&](pid_t process, int signal) {
            EXPECT_EQ(process, server.id());
            EXPECT_EQ(signal, writing_signal);
            ++signals;
            write_both_lease_files();
            return 0;
        });
        lease_entry *head = nullptr;
        EXPECT_EQ(get_leases(&head), 2);
        EXPECT_EQ(signals, 1);
        EXPECT_EQ(taken(head), numbered_leases(2));
    });
}

TEST(get_leases, TreatsAnyPositiveNumberAsAServer) {
    in_private_root([] {
        write_both_lease_files();
        for (const int number : {1, 2, 4194304, INT_MAX}) {
            write_file(pid_file, std::to_string(number));
            std::vector<pid_t> signalled;
            const Instead replaced_kill(instead_of_kill, [&signalled](pid_t process, int) {
                signalled.push_back(process);
                return 0;
            });
            lease_entry *head = nullptr;
            EXPECT_EQ(get_leases(&head), 2);
            EXPECT_EQ(signalled, std::vector<pid_t>{number});
            EXPECT_EQ(taken(head), numbered_leases(2));
        }
    });
}

TEST(get_leases, DoesNotWaitForTheServer) {
    in_private_root([] {
        write_both_lease_files();
        const Server server;
        write_file(pid_file, std::to_string(server.id()) + "\n");
        ASSERT_EQ(kill(server.id(), SIGSTOP), 0);
        const CountCalls sleeps(call_sleep);
        const unsigned long short_sleeps_before = short_sleeps;
        lease_entry *head = nullptr;
        EXPECT_EQ(get_leases(&head), 2);
        EXPECT_EQ(taken(head), numbered_leases(2));
        EXPECT_EQ(sleeps.count(), 0U);
        EXPECT_EQ(short_sleeps, short_sleeps_before);
    });
}

TEST(get_leases, ReadsTheBinaryFileEvenIfTheServerHasExited) {
    in_private_root([] {
        write_both_lease_files();
        write_file(pid_file, "4194304\n");
        lease_entry *head = nullptr;
        EXPECT_EQ(capture_stderr([&] { EXPECT_EQ(get_leases(&head), 2); }), "");
        EXPECT_EQ(taken(head), numbered_leases(2));
    });
}

TEST(get_leases, PrintsAnErrorIfTheLeaseFileIsMissing) {
    in_private_root([] {
        const std::string message = "could not open input file: "s + std::strerror(ENOENT) + "\n";
        lease_entry *head = nullptr;
        {
            const NamedProcess server("dnsmasq");
            EXPECT_EQ(capture_stderr([&] { EXPECT_EQ(get_leases(&head), 0); }), message);
        }
        write_file(pid_file, "4194304\n");
        EXPECT_EQ(capture_stderr([&] { EXPECT_EQ(get_leases(&head), 0); }), message);
        EXPECT_EQ(head, nullptr);
    });
}

TEST(get_leases, LeavesNothingOpen) {
    in_private_root([] {
        write_both_lease_files();
        const std::size_t open_before = open_descriptors().size();
        const NamedProcess server("dnsmasq");
        const std::size_t open_with_server = open_descriptors().size();
        lease_entry *head = nullptr;
        get_leases(&head);
        free_leaselist(&head);
        EXPECT_EQ(open_descriptors().size(), open_with_server);
        EXPECT_GT(open_with_server, open_before);
    });
}

// --- get_leases with a real server and a real client ---

void run(const std::string &command) { ASSERT_EQ(std::system(command.c_str()), 0) << command; }

/** Requests an address for the interface "client" in a network namespace of its own. */
[[noreturn]] void run_client(const OwnPipe &ready, const OwnPipe &connected) {
    char byte = 'x';
    if (unshare(CLONE_NEWNET) != 0 || write(ready.writing, &byte, 1) != 1 ||
        read(connected.reading, &byte, 1) != 1 ||
        std::system("ip link set dev client address 02:00:00:aa:bb:01 up") != 0)
        _exit(1);
    execlp("udhcpc", "udhcpc", "-i", "client", "-f", "-q", "-n", "-t", "20", "-T", "1", "-x",
           "hostname:laptop", "-s", "/tmp/bound", static_cast<char *>(nullptr));
    _exit(127);
}

TEST(get_leases, ListsWhatARealServerGaveToARealClient) {
    in_private_root([] {
        setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1);
        write_file("/etc/passwd", "root:x:0:0::/:/bin/sh\n");
        write_file("/etc/group", "root:x:0:\n");
        write_program("/tmp/bound", "#!/bin/sh\ntest \"$1\" != bound || echo $ip >/tmp/address\n");
        const OwnPipe ready;
        const OwnPipe connected;
        const pid_t client = fork();
        if (client == 0)
            run_client(ready, connected);
        char byte = 0;
        ASSERT_EQ(read(ready.reading, &byte, 1), 1);
        run("ip link add name server type veth peer name client netns " + std::to_string(client));
        run("ip address add 192.168.77.1/24 dev server && ip link set dev server up");
        run("dnsmasq --conf-file=/dev/null --port=0 --interface=server --bind-interfaces "
            "--user=root --group=root --pid-file=/var/run/dnsmasq.pid --log-facility=/tmp/log "
            "--dhcp-range=192.168.77.10,192.168.77.20,1h --dhcp-leasefile="s +
            text_file);
        ASSERT_EQ(write(connected.writing, &byte, 1), 1);
        const ChildResult got = wait_for_child(client);
        ASSERT_EQ(got.exit_status, 0) << read_file("/tmp/log");

        std::string address;
        std::istringstream(read_file("/tmp/address")) >> address;
        std::time_t expiry = 0;
        std::istringstream(read_file(text_file)) >> expiry;
        lease_entry *head = nullptr;
        const std::time_t before = std::time(nullptr);
        EXPECT_EQ(get_leases(&head), 0);
        const std::time_t after = std::time(nullptr);
        const std::vector<Lease> leases = taken(head);
        ASSERT_EQ(leases.size(), 1U) << read_file(text_file);
        EXPECT_EQ(leases[0].ip, address);
        EXPECT_EQ(leases[0].mac, "02:00:00:aa:bb:01");
        EXPECT_EQ(leases[0].hostname, "laptop");
        const long long left = std::atoll(leases[0].expires.c_str());
        EXPECT_LE(left, expiry - before);
        EXPECT_GE(left, expiry - after);
        EXPECT_GT(left, 0);
        EXPECT_LE(left, 3600);
    });
}

// --- free_leaselist ---

TEST(free_leaselist, DoesNothingForAnEmptyList) {
    lease_entry *head = nullptr;
    free_leaselist(&head);
    EXPECT_EQ(head, nullptr);
}

TEST(free_leaselist, FreesEveryRecord) {
    const TemporaryDirectory directory;
    directory.write("leases", numbered_records(100));
    lease_entry *head = nullptr;
    stand_in_start_tracking();
    get_udhpd_leases(&head, directory.path("leases").c_str());
    stand_in_pause_tracking();
    EXPECT_EQ(stand_in_live_blocks(), 100U);
    free_leaselist(&head);
    EXPECT_EQ(stand_in_live_blocks(), 0U);
    stand_in_stop_tracking();
    EXPECT_EQ(head, nullptr);
}

/** The bytes of a list's only record after the list is freed, except the first and last 64, which
 * the heap may use. The kernel reads them, since the program may not. */
std::string bytes_left_by(void (*release)(lease_entry **)) {
    constexpr std::size_t margin = 64;
    // With records in use on both sides, the heap neither joins the freed one to other free memory
    // nor returns it to the system.
    std::vector<lease_entry *> records(32);
    for (lease_entry *&record : records)
        record = static_cast<lease_entry *>(get_buffer(sizeof *record));
    lease_entry *head = std::exchange(records[records.size() / 2], nullptr);
    std::memset(head, 's', sizeof *head);
    head->next = nullptr;
    const iovec rest{reinterpret_cast<char *>(head) + margin, sizeof *head - 2 * margin};
    const StreamFile file;
    release(&head);
    EXPECT_EQ(syscall(SYS_writev, file.descriptor(), &rest, 1), static_cast<long>(rest.iov_len));
    for (lease_entry *const record : records)
        std::free(record);
    return file.text();
}

TEST(free_leaselist, LeavesNothingOfARecordInTheHeap) {
    const std::size_t size = sizeof(lease_entry) - 128;
    ASSERT_EQ(bytes_left_by([](lease_entry **head) { std::free(*head); }), std::string(size, 's'))
        << "this heap clears freed blocks itself, so that the test is meaningless";
    EXPECT_EQ(bytes_left_by(free_leaselist), std::string(size, '\0'));
}

} // namespace
} // namespace corvel_test

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

/** What the clock on the wall shows, unless it is 0. */
std::time_t shown_time;

/** Takes the signals. */
std::function<int(pid_t, int)> instead_of_kill;

/** What the kernel is asked for directly; the call fails where this says so. */
std::function<bool(long, long)> refuses_system_call;

unsigned long clock_gettime_calls;

/** How often somebody wanted to rest for less than a second. */
unsigned long short_rests;

} // namespace

extern "C" std::time_t time(std::time_t *out) C_LIBRARY_NOEXCEPT {
    static auto *const next = corvel_test::next_definition<std::time_t(std::time_t *)>("time");
    if (shown_time == 0)
        return next(out);
    if (out != nullptr)
        *out = shown_time;
    return shown_time;
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
    if (refuses_system_call && refuses_system_call(call, arguments[0])) {
        errno = ENOSYS;
        return -1;
    }
    return next(call, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4],
                arguments[5]);
}

extern "C" int usleep(useconds_t) {
    ++short_rests;
    return 0;
}

extern "C" int nanosleep(const timespec *, timespec *) {
    ++short_rests;
    return 0;
}

namespace corvel_test {

namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;

constexpr std::time_t now = 1699999000;

/** Stops the clock on the wall. */
class StoppedClock {
  public:
    explicit StoppedClock(std::time_t time) { shown_time = time; }
    ~StoppedClock() { shown_time = 0; }
    StoppedClock(const StoppedClock &) = delete;
    StoppedClock &operator=(const StoppedClock &) = delete;
};

/** What a record of a list says. */
struct Lease {
    std::string ip, mac, expires, hostname;
    bool operator==(const Lease &) const = default;
    friend std::ostream &operator<<(std::ostream &out, const Lease &lease) {
        return out << lease.ip << ' ' << lease.mac << ' ' << lease.expires << ' ' << lease.hostname;
    }
};

/** Takes a list's records and releases it. */
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

constexpr Reader readers[] = {get_udhpd_leases, get_dnsmasq_leases, get_dhcpv6_leases};

/** Reads a file of the given content. */
std::vector<Lease> read_leases(Reader reader, std::string_view content, int result = 0) {
    const TemporaryDirectory folder;
    folder.write("leases", content);
    lease_entry *head = nullptr;
    const std::string path = folder.path("leases");
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

/** A record of a binary file; what is missing of the hardware address is '#', and not used. */
std::string record(const std::string &mac, const std::string &ip, std::uint32_t expiry) {
    return mac + std::string(16 - mac.size(), '#') + ip + big_endian(expiry);
}

/** The n-th of many records, and how it is listed. */
std::string numbered_record(unsigned n) {
    return record("\x02\xAB"s + big_endian(n), "\x0A"s + big_endian(n).substr(1), n);
}

Lease numbered_lease(unsigned n) {
    char mac[18];
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

/** A line of a text file, and how it is listed while the clock stands still. */
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

/** A text file of many lines, and how they are listed. */
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

/** The leases of a golden file, one a line. */
std::vector<Lease> golden_leases(const std::string &name) {
    std::istringstream lines(golden(name));
    std::vector<Lease> leases;
    for (Lease lease; lines >> lease.ip >> lease.mac >> lease.expires;)
        leases.push_back(lease);
    return leases;
}

// monotonic_time

TEST(MonotonicTime, IsTheSecondsOfTheMonotonicClock) {
    timespec before{};
    timespec after{};
    ASSERT_EQ(clock_gettime(CLOCK_MONOTONIC, &before), 0);
    const int seconds = monotonic_time();
    ASSERT_EQ(clock_gettime(CLOCK_MONOTONIC, &after), 0);
    EXPECT_GE(seconds, before.tv_sec);
    EXPECT_LE(seconds, after.tv_sec);
}

TEST(MonotonicTime, AsksTheKernelDirectly) {
    std::vector<long> clocks;
    const Instead watched(refuses_system_call, [&clocks](long, long clock) {
        clocks.push_back(clock);
        return false;
    });
    const unsigned long calls_before = clock_gettime_calls;
    const int seconds = monotonic_time();
    EXPECT_EQ(clock_gettime_calls, calls_before);
    EXPECT_EQ(clocks, std::vector<long>{CLOCK_MONOTONIC});
    EXPECT_LE(seconds, monotonic_time());
}

TEST(MonotonicTime, IsZeroWhereTheKernelHasNoSuchCall) {
    const Instead watched(refuses_system_call, [](long, long) { return true; });
    const int seconds = monotonic_time();
    EXPECT_EQ(seconds, 0);
}

// add_lease

TEST(AddLease, FillsTheThreeTextsAndNothingElse) {
    lease_entry entry;
    std::memset(&entry, '#', sizeof entry);
    const lease_entry untouched = entry;
    const std::string bytes = record("\x00\x1A\xbC\xFF\x0f\x09"s, "\xC0\xA8\x01\x0A"s, 3600);
    // Nothing is asked of where the bytes lie.
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

TEST(AddLease, PrintsEveryNumberInFull) {
    lease_entry entry{};
    const auto fill = [&entry](const std::string &bytes) {
        add_lease(&entry, reinterpret_cast<const unsigned char *>(bytes.data()));
    };
    fill(record("\xFF\xFF\xFF\xFF\xFF\xFF"s, "\xFF\xFF\xFF\xFF"s, 0xFFFFFFFF));
    EXPECT_STREQ(entry.mac, "FF:FF:FF:FF:FF:FF");
    EXPECT_STREQ(entry.ip, "255.255.255.255");
    EXPECT_STREQ(entry.expires, "4294967295");
    fill(std::string(24, '\0'));
    EXPECT_STREQ(entry.mac, "00:00:00:00:00:00");
    EXPECT_STREQ(entry.ip, "0.0.0.0");
    EXPECT_STREQ(entry.expires, "0");
    fill(record("\x01\x02\x03\x04\x05\x06"s, "\x01\x02\x03\x04"s, 0x80000001));
    EXPECT_STREQ(entry.expires, "2147483649");
}

TEST(AddLease, ReadsTheGoldenRecordsAlike) {
    const std::string bytes = golden("leases.bin");
    std::vector<Lease> leases;
    for (std::size_t at = 0; at + 24 <= bytes.size(); at += 24) {
        lease_entry entry{};
        add_lease(&entry, reinterpret_cast<const unsigned char *>(bytes.data()) + at);
        leases.push_back({entry.ip, entry.mac, entry.expires, entry.hostname});
    }
    EXPECT_EQ(leases, golden_leases("leases-every-slot.txt"));
}

// get_udhpd_leases

TEST(GetUdhpdLeases, ListsTheRecordsInTheOrderOfTheFile) {
    const StoppedClock clock(now);
    const std::string content =
        record("\x00\x11\x22\xaa\xbb\xcc"s, "\xC0\xA8\x01\x0A"s, 3600) +
        record("\xFF\x00\x00\x00\x00\x00"s, "\x0A\x00\x00\x01"s, 0) +
        record("\x00\x11\x22\xaa\xbb\xcc"s, "\xC0\xA8\x01\x0A"s, 0xFFFFFFFF);
    EXPECT_EQ(read_leases(get_udhpd_leases, content, 3),
              (std::vector<Lease>{{"192.168.1.10", "00:11:22:AA:BB:CC", "3600", ""},
                                  {"10.0.0.1", "FF:00:00:00:00:00", "0", ""},
                                  {"192.168.1.10", "00:11:22:AA:BB:CC", "4294967295", ""}}));
}

TEST(GetUdhpdLeases, IgnoresARecordThatIsCutOff) {
    EXPECT_EQ(read_leases(get_udhpd_leases, numbered_records(2) + "??", 2), numbered_leases(2));
    for (unsigned records = 0; records < 3; ++records)
        for (std::size_t rest = 0; rest < 24; ++rest)
            EXPECT_EQ(read_leases(get_udhpd_leases,
                                  numbered_records(records) + numbered_record(9).substr(0, rest),
                                  static_cast<int>(records)),
                      numbered_leases(records))
                << rest;
}

TEST(GetUdhpdLeases, ReadsFilesOfEveryLengthAroundItsBlocks) {
    for (const unsigned records : {169U, 170U, 171U, 339U, 340U, 341U, 5000U})
        for (const std::size_t rest : {0U, 1U, 16U, 23U})
            EXPECT_EQ(read_leases(get_udhpd_leases,
                                  numbered_records(records) + numbered_record(9).substr(0, rest),
                                  static_cast<int>(records)),
                      numbered_leases(records))
                << records << " and " << rest;
}

TEST(GetUdhpdLeases, PassesOverEmptySlots) {
    const std::string empty(24, '\0');
    const std::string zero_address = record(std::string(7, '\0'), "\x0A\x00\x00\x01"s, 60);
    EXPECT_EQ(read_leases(get_udhpd_leases, empty), std::vector<Lease>{});
    EXPECT_EQ(
        read_leases(get_udhpd_leases,
                    empty + numbered_record(1) + zero_address + empty + numbered_record(2) + empty,
                    2),
        numbered_leases(2));
    // An empty slot at the seam of two blocks and a block of nothing else.
    std::string slots;
    for (int i = 0; i < 170; ++i)
        slots += empty;
    EXPECT_EQ(read_leases(get_udhpd_leases, slots + slots + numbered_record(1), 1),
              numbered_leases(1));
}

TEST(GetUdhpdLeases, TakesARecordWithoutAHardwareAddressForAnEmptySlot) {
    for (std::size_t place = 0; place < 24; ++place) {
        std::string bytes(24, '\0');
        bytes[place] = 1;
        const std::vector<Lease> leases = read_leases(get_udhpd_leases, bytes, place < 6 ? 1 : 0);
        ASSERT_EQ(leases.size(), place < 6 ? 1U : 0U) << place;
        if (place == 5) {
            EXPECT_EQ(leases[0], (Lease{"0.0.0.0", "00:00:00:00:00:01", "0", ""}));
        }
    }
}

TEST(GetUdhpdLeases, ReadsTheGoldenFileAlike) {
    const StoppedClock clock(now);
    const std::vector<Lease> expected = golden_leases("leases.txt");
    EXPECT_EQ(
        read_leases(get_udhpd_leases, golden("leases.bin"), static_cast<int>(expected.size())),
        expected);
}

TEST(GetUdhpdLeases, ReadsAnEmptyFile) {
    EXPECT_EQ(read_leases(get_udhpd_leases, ""), std::vector<Lease>{});
}

TEST(GetUdhpdLeases, WaitsForRecordsThatComeInPieces) {
    const TemporaryDirectory folder;
    const std::string path = folder.path("fifo");
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

TEST(GetUdhpdLeases, KeepsWhatItListedWhereMemoryRunsOut) {
    const TemporaryDirectory folder;
    folder.write("leases", numbered_record(1) + std::string(24, '\0') + numbered_record(2) +
                               numbered_record(3));
    const std::string path = folder.path("leases");
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

// What the three readers share

TEST(LeaseReaders, TellWhyAFileCannotBeOpened) {
    for (const Reader reader : readers) {
        lease_entry *head = nullptr;
        EXPECT_EQ(capture_stderr([&] { EXPECT_EQ(reader(&head, "/not/there"), 0); }),
                  "could not open input file: "s + std::strerror(ENOENT) + "\n");
        EXPECT_EQ(
            capture_stdout([&] { capture_stderr([&] { reader(&head, "/not/there"); }).clear(); }),
            "");
        const FailCall failing(call_open, 1, EMFILE);
        EXPECT_EQ(capture_stderr([&] { EXPECT_EQ(reader(&head, "/dev/null"), 0); }),
                  "could not open input file: "s + std::strerror(EMFILE) + "\n");
        EXPECT_EQ(head, nullptr);
    }
}

TEST(LeaseReaders, ListNothingOfAFolder) {
    const TemporaryDirectory folder;
    const std::size_t open_before = open_descriptors().size();
    for (const Reader reader : readers) {
        lease_entry *head = nullptr;
        EXPECT_EQ(capture_stderr([&] { EXPECT_EQ(reader(&head, folder.path().c_str()), 0); }),
                  "could not open input file: "s + std::strerror(EISDIR) + "\n");
        EXPECT_EQ(head, nullptr);
    }
    EXPECT_EQ(open_descriptors().size(), open_before);
}

TEST(LeaseReaders, EndWhereReadingFails) {
    const TemporaryDirectory folder;
    folder.write("binary", numbered_records(200));
    const StoppedClock clock(now);
    const TextFile text = text_file_of(numbered_line, 300);
    ASSERT_GT(text.content.size(), 9000U);
    folder.write("text", text.content);
    for (unsigned n = 1; n <= 3; ++n) {
        lease_entry *head = nullptr;
        {
            const FailCall failing(call_read, n);
            const int count = get_udhpd_leases(&head, folder.path("binary").c_str());
            EXPECT_EQ(count, n == 1 ? 0 : n == 2 ? 170 : 200);
        }
        taken(head);
        {
            const FailCall failing(call_read, n, EIO, FailCall::from_then_on);
            EXPECT_EQ(get_dnsmasq_leases(&head, folder.path("text").c_str()), 0);
        }
        // A line that the error cuts off is none.
        const std::vector<Lease> leases = taken(head);
        ASSERT_LT(leases.size(), text.leases.size());
        EXPECT_EQ(leases.empty(), n == 1);
        EXPECT_TRUE(std::equal(leases.begin(), leases.end(), text.leases.begin()));
    }
}

// get_dnsmasq_leases

/** How the one line is listed. */
Lease read_line(const std::string &line) {
    const StoppedClock clock(now);
    const std::vector<Lease> leases = read_leases(get_dnsmasq_leases, line + "\n");
    EXPECT_EQ(leases.size(), 1U);
    return leases.empty() ? Lease{} : leases[0];
}

TEST(GetDnsmasqLeases, ListsALeaseAsItIsWritten) {
    EXPECT_EQ(read_line("1700000000 aa:bb:cc:dd:ee:ff 192.168.1.10 laptop 01:aa:bb:cc:dd:ee:ff"),
              (Lease{"192.168.1.10", "aa:bb:cc:dd:ee:ff", "1000", "laptop"}));
    EXPECT_EQ(read_line("1700000000 06-AA:bb:CC:dd:EE:ff 192.168.1.10 * *"),
              (Lease{"192.168.1.10", "06-AA:bb:CC:dd:EE:ff", "1000", "*"}));
}

TEST(GetDnsmasqLeases, TakesTheTimeThatIsLeftFromTheClockOnTheWall) {
    const std::time_t before = std::time(nullptr);
    const std::vector<Lease> leases =
        read_leases(get_dnsmasq_leases, std::to_string(before + 3600) + " m 1.2.3.4 h *\n");
    const std::time_t after = std::time(nullptr);
    ASSERT_EQ(leases.size(), 1U);
    const long long left = std::atoll(leases[0].expires.c_str());
    EXPECT_LE(left, 3600);
    EXPECT_GE(left, before + 3600 - after);
}

TEST(GetDnsmasqLeases, ListsTheLinesInTheOrderOfTheFile) {
    const StoppedClock clock(now);
    const TextFile file = text_file_of(numbered_line, 2000);
    EXPECT_EQ(read_leases(get_dnsmasq_leases, file.content), file.leases);
}

TEST(GetDnsmasqLeases, LeavesALastLineOutThatHasNoLineEnd) {
    const StoppedClock clock(now);
    EXPECT_EQ(read_leases(get_dnsmasq_leases,
                          numbered_line(1) + numbered_line(2) + "1700000000 m 1.2.3.4 h *"),
              (std::vector<Lease>{numbered_text_lease(1), numbered_text_lease(2)}));
    EXPECT_EQ(read_leases(get_dnsmasq_leases, "1700000000 m 1.2.3.4 h *"), std::vector<Lease>{});
    EXPECT_EQ(read_leases(get_dnsmasq_leases, numbered_line(1) + " "),
              std::vector<Lease>{numbered_text_lease(1)});
    EXPECT_EQ(read_leases(get_dnsmasq_leases, ""), std::vector<Lease>{});
}

TEST(GetDnsmasqLeases, ListsMissingWordsAsEmpty) {
    const std::string ended = std::to_string(-now);
    EXPECT_EQ(read_line(""), (Lease{"", "", ended, ""}));
    EXPECT_EQ(read_line("  \t "), (Lease{"", "", ended, ""}));
    EXPECT_EQ(read_line("1700000000"), (Lease{"", "", "1000", ""}));
    EXPECT_EQ(read_line("1700000000 m"), (Lease{"", "m", "1000", ""}));
    EXPECT_EQ(read_line("1700000000 m 1.2.3.4"), (Lease{"1.2.3.4", "m", "1000", ""}));
    EXPECT_EQ(read_line("1700000000 m 1.2.3.4 h"), (Lease{"1.2.3.4", "m", "1000", "h"}));
}

TEST(GetDnsmasqLeases, TakesWordsApartAtAnyBlanksAndIgnoresThoseBehindTheFifth) {
    EXPECT_EQ(read_line(" \t1700000000\v\f m\r1.2.3.4 \t h  * sixth seventh eighth ninth"),
              (Lease{"1.2.3.4", "m", "1000", "h"}));
    EXPECT_EQ(read_line("1700000000 m 1.2.3.4 h\0 *"s), (Lease{"1.2.3.4", "m", "1000", "h"}));
    EXPECT_EQ(read_line("1700000000 m 1.2.3.4\0 h *"s), (Lease{"1.2.3.4", "m", "1000", ""}));
    EXPECT_EQ(read_line("1700000000 m 1.2.3.4 h\r"), (Lease{"1.2.3.4", "m", "1000", "h"}));
    EXPECT_EQ(read_line("1700000000 m\xC3\xA4 1.2.3.4 h\xFF *"),
              (Lease{"1.2.3.4", "m\xC3\xA4", "1000", "h\xFF"}));
}

TEST(GetDnsmasqLeases, ReadsAnExpiryAsANumberHoweverItLooks) {
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
    // Past the year 2038, and past 2106.
    EXPECT_EQ(left("2147483648"), std::to_string(2147483648 - now));
    EXPECT_EQ(left("4294967296"), std::to_string(4294967296 - now));
    EXPECT_EQ(left("100000000000000"), std::to_string(100000000000000 - now));
}

TEST(GetDnsmasqLeases, GoesOnTellingTheTimeThatIsLeftPast2038) {
    const auto left_at = [](std::int64_t time, const std::string &expiry) {
        const StoppedClock clock(static_cast<std::time_t>(time));
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

TEST(GetDnsmasqLeases, KeepsFifteenCharactersOfTheTimeThatIsLeft) {
    const auto left = [](const std::string &expiry) {
        return read_line(expiry + " m 1.2.3.4 h *").expires;
    };
    const std::int64_t expiries[] = {999999999999999, 12345678901234567, 5000000000000000000,
                                     INT64_MAX,       -99999999999999,   -12345678901234567};
    for (const std::int64_t expiry : expiries)
        EXPECT_EQ(left(std::to_string(expiry)), std::to_string(expiry - now).substr(0, 15))
            << expiry;
    // What no number can hold is far away all the same.
    for (const std::size_t digits : {19U, 20U, 30U, 31U, 32U, 500U}) {
        EXPECT_EQ(left(std::string(digits, '9')).find_first_not_of("0123456789"),
                  std::string::npos);
        EXPECT_EQ(left(std::string(digits, '9')).size(), 15U);
        EXPECT_EQ(left("-" + std::string(digits, '9')).size(), 15U);
        EXPECT_EQ(left("-" + std::string(digits, '9'))[0], '-');
    }
}

TEST(GetDnsmasqLeases, CutsLongWordsWithoutShiftingThoseBehind) {
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
    // An expiry is a word like others: behind its 31st character nothing counts.
    EXPECT_EQ(read_line(std::string(21, '0') + "1700000000 m 1.2.3.4 h *").expires, "1000");
    EXPECT_EQ(read_line(std::string(22, '0') + "1700000000 m 1.2.3.4 h *").expires,
              std::to_string(170000000 - now));
}

TEST(GetDnsmasqLeases, ListsAddressesAndClientIdentifiersOfAnyKind) {
    EXPECT_EQ(read_line("1700000000 29097530 fd00::1234:5678 host "
                        "00:01:00:01:2a:3b:4c:5d:6e:7f:80:91:a2:b3:c4:d5:e6:f7:08:19:2a:3b"),
              (Lease{"fd00::1234:5678", "29097530", "1000", "host"}));
    EXPECT_EQ(read_line("duid 00:01:00:01:2a:3b:4c:5d:6e:7f:80:91:a2:b3"),
              (Lease{"", "00:01:00:01:2a:3b:4c:5d:6e:7f:8", std::to_string(-now), ""}));
}

TEST(GetDnsmasqLeases, TakesLongLinesInPiecesOf1023Characters) {
    const StoppedClock clock(now);
    const std::string ended = std::to_string(-now);
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
    // What does not fit, be it the line end alone, is a line of its own.
    EXPECT_EQ(listed(line(1023) + "\n"), (std::vector<Lease>{whole, {"", "", ended, ""}}));
    EXPECT_EQ(listed(line(1024) + "\n"), (std::vector<Lease>{whole, {"", "", ended, ""}}));
    EXPECT_EQ(listed(line(1023) + " n 5.6.7.8 i\n"),
              (std::vector<Lease>{whole, {"i", "5.6.7.8", ended, ""}}));
    EXPECT_EQ(listed(line(1023) + start + "\n" + start + "\n"),
              (std::vector<Lease>{whole, whole, whole}));
    EXPECT_EQ(listed(line(2046) + "\n").size(), 3U);
    // The end of the file behind a whole piece is not seen when the piece is read.
    EXPECT_EQ(listed(line(1022)), std::vector<Lease>{});
    EXPECT_EQ(listed(line(1023)), std::vector<Lease>{whole});
    EXPECT_EQ(listed(line(1024)), std::vector<Lease>{whole});
}

TEST(GetDnsmasqLeases, EndsOnFilesThatAreNoLeaseFiles) {
    EXPECT_EQ(read_leases(get_dnsmasq_leases, std::string(100000, '\0')).size(), 97U);
    EXPECT_EQ(read_leases(get_dnsmasq_leases, std::string(100000, 'x')).size(), 97U);
    EXPECT_EQ(read_leases(get_dnsmasq_leases, std::string(1000, '\n')).size(), 1000U);
}

TEST(GetDnsmasqLeases, KeepsWhatItListedWhereMemoryRunsOut) {
    const StoppedClock clock(now);
    const TemporaryDirectory folder;
    folder.write("leases", numbered_line(1) + numbered_line(2) + numbered_line(3));
    const std::string path = folder.path("leases");
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

// get_dhcpv6_leases

Lease read_ipv6_line(const std::string &line) {
    const StoppedClock clock(now);
    const std::vector<Lease> leases = read_leases(get_dhcpv6_leases, line + "\n");
    EXPECT_EQ(leases.size(), 1U);
    return leases.empty() ? Lease{} : leases[0];
}

TEST(GetDhcpv6Leases, TakesTheSecondFourthFifthAndEighthWord) {
    EXPECT_EQ(read_ipv6_line("# 0001000a1b2c 99 laptop 1700000000 7 128 fd00::10 more"),
              (Lease{"fd00::10", "0001000a1b2c", "1000", "laptop"}));
    EXPECT_EQ(read_ipv6_line("one two three four 1700000000 six seven eight"),
              (Lease{"eight", "two", "1000", "four"}));
}

TEST(GetDhcpv6Leases, ListsMissingWordsAsEmpty) {
    const std::string ended = std::to_string(-now);
    EXPECT_EQ(read_ipv6_line(""), (Lease{"", "", ended, ""}));
    EXPECT_EQ(read_ipv6_line("one"), (Lease{"", "", ended, ""}));
    EXPECT_EQ(read_ipv6_line("one two three"), (Lease{"", "two", ended, ""}));
    EXPECT_EQ(read_ipv6_line("one two three four"), (Lease{"", "two", ended, "four"}));
    EXPECT_EQ(read_ipv6_line("one two three four 1700000000 six seven"),
              (Lease{"", "two", "1000", "four"}));
}

TEST(GetDhcpv6Leases, CutsLongWordsWithoutShiftingThoseBehind) {
    const std::string word(400, 'w');
    EXPECT_EQ(read_ipv6_line(word + " two " + word + " four 1700000000 six seven eight"),
              (Lease{"eight", "two", "1000", "four"}));
    const std::string middle(140, 'w');
    EXPECT_EQ(read_ipv6_line("one " + middle + " three " + middle + " 1700000000 " + middle +
                             " seven " + middle),
              (Lease{middle.substr(0, 31), middle.substr(0, 31), "1000", middle.substr(0, 127)}));
}

TEST(GetDhcpv6Leases, LeavesALastLineOutThatHasNoLineEnd) {
    const StoppedClock clock(now);
    const std::string line = "one two three four 1700000000 six seven eight";
    EXPECT_EQ(read_leases(get_dhcpv6_leases, line + "\n" + line),
              (std::vector<Lease>{{"eight", "two", "1000", "four"}}));
}

TEST(GetDhcpv6Leases, ListsTheLinesInTheOrderOfTheFile) {
    const StoppedClock clock(now);
    const TextFile file = text_file_of(numbered_ipv6_line, 2000);
    EXPECT_EQ(read_leases(get_dhcpv6_leases, file.content), file.leases);
}

TEST(GetDhcpv6Leases, CutsEachWordAtItsOwnLength) {
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

TEST(GetDhcpv6Leases, ReadsAnExpiryAsANumberHoweverItLooks) {
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

TEST(GetDhcpv6Leases, TakesLongLinesInPiecesOf1023Characters) {
    const StoppedClock clock(now);
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

TEST(GetDhcpv6Leases, KeepsWhatItListedWhereMemoryRunsOut) {
    const StoppedClock clock(now);
    const TextFile file = text_file_of(numbered_ipv6_line, 3);
    const TemporaryDirectory folder;
    folder.write("leases", file.content);
    const std::string path = folder.path("leases");
    EXPECT_EQ(for_each_allocation_failure([&](AllocationTrial &trial) {
                  lease_entry *head = nullptr;
                  EXPECT_EQ(trial.run([&] { return get_dhcpv6_leases(&head, path.c_str()); }), 0);
                  const std::vector<Lease> leases = taken(head);
                  ASSERT_EQ(leases.size(), trial.failed() ? trial.n() - 1 : 3U);
                  EXPECT_TRUE(std::equal(leases.begin(), leases.end(), file.leases.begin()));
              }),
              3U);
}

// free_leaselist

TEST(FreeLeaselist, DoesNothingForAnEmptyList) {
    lease_entry *head = nullptr;
    free_leaselist(&head);
    EXPECT_EQ(head, nullptr);
}

TEST(FreeLeaselist, FreesEveryRecord) {
    const TemporaryDirectory folder;
    folder.write("leases", numbered_records(100));
    lease_entry *head = nullptr;
    stand_in_start_tracking();
    get_udhpd_leases(&head, folder.path("leases").c_str());
    stand_in_pause_tracking();
    EXPECT_EQ(stand_in_live_blocks(), 100U);
    free_leaselist(&head);
    EXPECT_EQ(stand_in_live_blocks(), 0U);
    stand_in_stop_tracking();
    EXPECT_EQ(head, nullptr);
}

/** The bytes of a list's one record that the heap still holds when it was released, but for its
 * first and last 64, which belong to the heap again. The kernel reads them: to the program they are
 * gone. */
std::string bytes_left_by(void (*release)(lease_entry **)) {
    constexpr std::size_t margin = 64;
    // Records in use on both sides keep the heap from joining the free one to other free memory,
    // and from giving it back to the system.
    std::vector<lease_entry *> records(32);
    for (lease_entry *&record : records)
        record = static_cast<lease_entry *>(get_buffer(sizeof *record));
    lease_entry *head = std::exchange(records[records.size() / 2], nullptr);
    std::memset(head, 's', sizeof *head);
    head->next = nullptr;
    const iovec there{reinterpret_cast<char *>(head) + margin, sizeof *head - 2 * margin};
    const StreamFile file;
    release(&head);
    EXPECT_EQ(syscall(SYS_writev, file.descriptor(), &there, 1), static_cast<long>(there.iov_len));
    for (lease_entry *const record : records)
        std::free(record);
    return file.text();
}

TEST(FreeLeaselist, LeavesNothingOfARecordInTheHeap) {
    const std::size_t size = sizeof(lease_entry) - 128;
    ASSERT_EQ(bytes_left_by([](lease_entry **head) { std::free(*head); }), std::string(size, 's'))
        << "this heap clears blocks by itself, so that nothing can be seen here";
    EXPECT_EQ(bytes_left_by(free_leaselist), std::string(size, '\0'));
}

// get_leases

constexpr const char *pid_file = "/var/run/udhcpd.pid";
constexpr const char *binary_file = "/var/config/udhcpd.leases";
constexpr const char *text_file = "/var/config/dnsmasq.leases";

void write_both_lease_files() {
    write_file(binary_file, numbered_records(2));
    write_file(text_file, numbered_line(3));
}

/** For where no signal is to be sent, to whomever. */
int unwanted_signal(pid_t process, int signal) {
    ADD_FAILURE() << "signal " << signal << " for " << process;
    return 0;
}

TEST(GetLeases, ReadsNothingWhereNoServerRuns) {
    in_private_root([] {
        write_both_lease_files();
        const NamedProcess other("dnsmasq2");
        const NamedProcess binary_server("udhcpd");
        const Instead in_place_of_kill(instead_of_kill, unwanted_signal);
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

TEST(GetLeases, ReadsTheTextFileWhereThatServerRuns) {
    in_private_root([] {
        const StoppedClock clock(now);
        write_both_lease_files();
        const NamedProcess server("dnsmasq");
        const Instead in_place_of_kill(instead_of_kill, unwanted_signal);
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

TEST(GetLeases, PrefersTheServerWithAPidFile) {
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

/** A process that tells of each signal SIGUSR1 that it is sent, by a byte in a pipe. */
class Server {
  public:
    Server() : id_(fork()) {
        if (id_ == 0) {
            static int told = told_.writing;
            struct sigaction action {};
            action.sa_handler = [](int signal) {
                const char byte = signal == SIGUSR1 ? 'u' : '?';
                static_cast<void>(write(told, &byte, 1) > 0);
            };
            sigaction(SIGUSR1, &action, nullptr);
            const char ready = 'r';
            static_cast<void>(write(told, &ready, 1) > 0);
            for (;;)
                pause();
        }
        EXPECT_EQ(told(), 'r');
    }
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;
    ~Server() {
        kill(id_, SIGKILL);
        wait_for_child(id_);
    }

    [[nodiscard]] pid_t id() const { return id_; }
    /** Waits for the next byte. */
    [[nodiscard]] char told() const {
        char byte = 0;
        while (read(told_.reading, &byte, 1) < 0 && errno == EINTR) {
        }
        return byte;
    }

  private:
    OwnPipe told_;
    pid_t id_;
};

TEST(GetLeases, SignalsTheServerWithAPidFile) {
    in_private_root([] {
        write_both_lease_files();
        const Server server;
        write_file(pid_file, std::to_string(server.id()) + "\n");
        for (int i = 0; i < 3; ++i) {
            lease_entry *head = nullptr;
            EXPECT_EQ(get_leases(&head), 2);
            EXPECT_EQ(taken(head), numbered_leases(2));
            EXPECT_EQ(server.told(), 'u');
        }
    });
}

/** What makes the server write its leases, in the board's numbering where that is in use. */
#ifdef __mips__
constexpr int writing_signal = 16;
#else
constexpr int writing_signal = SIGUSR1;
#endif

TEST(GetLeases, SendsTheSignalOnceAndBeforeItReads) {
    in_private_root([] {
        const Server server;
        write_file(pid_file, std::to_string(server.id()) + "\n");
        int signals = 0;
        const Instead in_place_of_kill(instead_of_kill, [&](pid_t process, int signal) {
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

TEST(GetLeases, TakesEveryNumberAboveZeroForAServer) {
    in_private_root([] {
        write_both_lease_files();
        for (const int number : {1, 2, 4194304, INT_MAX}) {
            write_file(pid_file, std::to_string(number));
            std::vector<pid_t> signalled;
            const Instead in_place_of_kill(instead_of_kill, [&signalled](pid_t process, int) {
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

TEST(GetLeases, DoesNotWaitForTheServer) {
    in_private_root([] {
        write_both_lease_files();
        const Server server;
        write_file(pid_file, std::to_string(server.id()) + "\n");
        ASSERT_EQ(kill(server.id(), SIGSTOP), 0);
        const CountCalls sleeps(call_sleep);
        const unsigned long rests_before = short_rests;
        lease_entry *head = nullptr;
        EXPECT_EQ(get_leases(&head), 2);
        EXPECT_EQ(taken(head), numbered_leases(2));
        EXPECT_EQ(sleeps.count(), 0U);
        EXPECT_EQ(short_rests, rests_before);
    });
}

TEST(GetLeases, ReadsTheBinaryFileEvenIfTheServerIsGone) {
    in_private_root([] {
        write_both_lease_files();
        write_file(pid_file, "4194304\n");
        lease_entry *head = nullptr;
        EXPECT_EQ(capture_stderr([&] { EXPECT_EQ(get_leases(&head), 2); }), "");
        EXPECT_EQ(taken(head), numbered_leases(2));
    });
}

TEST(GetLeases, TellsOfALeaseFileThatIsMissing) {
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

TEST(GetLeases, LeavesNothingOpen) {
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

// A real server and a real client

void run(const std::string &command) { ASSERT_EQ(std::system(command.c_str()), 0) << command; }

/** Gets an address for the interface "client" of a network namespace of its own. */
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

TEST(GetLeases, ListsWhatARealServerGaveToARealClient) {
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

} // namespace
} // namespace corvel_test

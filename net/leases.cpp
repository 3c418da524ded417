// SPDX-License-Identifier: MIT
#include <corvel.h>

#include <algorithm>
#include <array>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <optional>
#include <span>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

#include "net/conversions.h"
#include "net/lease_list.h"
#include "support/big_endian.h"
#include "support/descriptor.h"
#include "support/handles.h"
#include "support/line_input.h"
#include "support/line_scanner.h"
#include "support/text.h"
#include "sys/process_lookup.h"

namespace corvel {
namespace {

constexpr const char *binary_server_pid_file = "/var/run/udhcpd.pid";
constexpr const char *binary_lease_file = "/var/config/udhcpd.leases";
constexpr const char *text_server_name = "dnsmasq";
constexpr const char *text_lease_file = "/var/config/dnsmasq.leases";

constexpr std::size_t record_size = CORVEL_LEASE_RECORD_SIZE;
constexpr std::size_t records_at_once = 4096 / record_size;
constexpr std::size_t at_ip = 16;
constexpr std::size_t at_expiry = 20;
using Record = std::span<const unsigned char, record_size>;

constexpr std::size_t word_limit = 31;
constexpr std::size_t hostname_limit = CORVEL_LEASE_HOST_SIZE - 1;

/// Opens a lease file. On failure, prints the reason on standard error.
Descriptor open_lease_file(const char *path) {
    Descriptor file = open_for_reading(path);
    if (!file)
        std::perror("could not open input file");
    return file;
}

void fill_from_record(lease_entry &entry, Record record) {
    print_colon_form(record.first<CORVEL_MAC_BYTES>(),
                     std::span(entry.mac).first<CORVEL_MAC_SIZE>());
    print_dotted_quad(record.data() + at_ip, std::span(entry.ip).first<INET_ADDRSTRLEN>());
    std::snprintf(entry.expires, sizeof entry.expires, "%u",
                  big_endian_word(record.subspan<at_expiry, 4>()));
}

/// A slot without a lease has a hardware address of zeros.
bool is_empty_slot(Record record) {
    const MacAddress mac = record.first<CORVEL_MAC_BYTES>();
    return std::all_of(mac.begin(), mac.end(), [](unsigned char byte) { return byte == 0; });
}

int read_binary_leases(lease_entry **head, const char *path) {
    const Descriptor file = open_lease_file(path);
    if (!file)
        return 0;
    LeaseList list(head);
    std::array<unsigned char, records_at_once * record_size> block;
    ssize_t length = 0;
    do {
        length = read_fully(file.get(), block.data(), block.size());
        for (std::size_t at = 0; std::cmp_less_equal(at + record_size, length); at += record_size) {
            const Record record = std::span(block).subspan(at).first<record_size>();
            if (is_empty_slot(record))
                continue;
            lease_entry *const entry = list.append();
            if (entry == nullptr)
                return list.count();
            fill_from_record(*entry, record);
        }
    } while (std::cmp_equal(length, block.size()));
    return list.count();
}

/// The indexes, from 0, of a lease's words in a line.
struct LineFormat {
    std::size_t expiry, mac, ip, hostname;
};

constexpr LineFormat dnsmasq_format = {.expiry = 0, .mac = 1, .ip = 2, .hostname = 3};
constexpr LineFormat dhcpv6_format = {.expiry = 4, .mac = 1, .ip = 7, .hostname = 3};
constexpr std::size_t most_words = 8;

/// The seconds until an expiry time, limited to the range of the type.
long long time_left(std::string_view expiry, std::time_t now) {
    const long long end = decimal_value(expiry, LLONG_MIN, LLONG_MAX);
    long long left = 0;
    if (__builtin_sub_overflow(end, now, &left))
        return end < 0 ? LLONG_MIN : LLONG_MAX;
    return left;
}

void fill_from_line(lease_entry &entry, std::string_view line, const LineFormat &format,
                    std::time_t now) {
    LineScanner scanner(line);
    std::array<std::string_view, most_words> words;
    for (std::string_view &word : words)
        word = scanner.word();
    store(entry.ip, front(words[format.ip], word_limit));
    store(entry.mac, front(words[format.mac], word_limit));
    store(entry.hostname, front(words[format.hostname], hostname_limit));
    std::snprintf(entry.expires, sizeof entry.expires, "%lld",
                  time_left(front(words[format.expiry], word_limit), now));
}

/// Reads the complete lines: a last line without a newline is ignored.
void read_text_leases(lease_entry **head, const char *path, const LineFormat &format) {
    const Descriptor file = open_lease_file(path);
    if (!file)
        return;
    const std::time_t now = std::time(nullptr);
    LeaseList list(head);
    LineReader reader(file.get());
    for (Line line; reader.next(line) && !line.unterminated;) {
        lease_entry *const entry = list.append();
        if (entry == nullptr)
            return;
        fill_from_line(*entry, line.text(), format, now);
    }
}

/// The record that the kernel's clock_gettime calls fill.
template <typename Word> struct KernelTime {
    Word seconds;
    Word nanoseconds;
};

/// Reads the seconds of the monotonic clock with a call that fills records of such words.
template <typename Word> std::optional<int> monotonic_seconds(long call) {
    KernelTime<Word> time{};
    if (syscall(call, CLOCK_MONOTONIC, &time) != 0)
        return {};
    return static_cast<int>(time.seconds);
}

/// 64-bit systems have one call. On 32-bit systems the old call, which has two names, fills a
/// record of 32-bit words, and a kernel can be built without it; then there is one with 64-bit
/// words.
int monotonic_seconds() {
    std::optional<int> seconds;
#if defined(SYS_clock_gettime)
    seconds = monotonic_seconds<long>(SYS_clock_gettime);
#elif defined(SYS_clock_gettime32)
    seconds = monotonic_seconds<long>(SYS_clock_gettime32);
#endif
#if defined(SYS_clock_gettime64)
    if (!seconds)
        seconds = monotonic_seconds<std::int64_t>(SYS_clock_gettime64);
#endif
    return seconds.value_or(0);
}

int read_leases(lease_entry **head) {
    const int server = recorded_process(binary_server_pid_file);
    if (server >= 1) {
        kill(server, SIGUSR1);
        return read_binary_leases(head, binary_lease_file);
    }
    if (first_process(text_server_name) >= 1)
        read_text_leases(head, text_lease_file, dnsmasq_format);
    return 0;
}

} // namespace
} // namespace corvel

extern "C" {

using namespace corvel;

int monotonic_time(void) { return monotonic_seconds(); }

void add_lease(lease_entry *entry, const unsigned char *record) {
    fill_from_record(*entry, Record(record, record_size));
}

int get_udhpd_leases(lease_entry **head, const char *path) {
    return read_binary_leases(head, path);
}

int get_dnsmasq_leases(lease_entry **head, const char *path) {
    read_text_leases(head, path, dnsmasq_format);
    return 0;
}

int get_dhcpv6_leases(lease_entry **head, const char *path) {
    read_text_leases(head, path, dhcpv6_format);
    return 0;
}

int get_leases(lease_entry **head) { return read_leases(head); }

void free_leaselist(lease_entry **head) {
    while (*head != nullptr) {
        lease_entry *const entry = *head;
        *head = entry->next;
        wipe_and_free(entry, sizeof *entry);
    }
}

} // extern "C"

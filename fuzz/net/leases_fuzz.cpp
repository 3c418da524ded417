// SPDX-License-Identifier: MIT
// The same bytes as a lease file of each of the three formats, against the words and bytes of the
// file; and the function that determines which server runs, if it is the one with binary leases.
//
// Input: the present time (four bytes), the pid file's content NUL, then the lease file.
#include "corvel.h"
#include "fuzz/fixed_file.h"
#include "fuzz/net/lease_list.h"

#include <algorithm>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <sstream>

namespace {

using namespace corvel_fuzz;

constexpr std::size_t record_size = CORVEL_LEASE_RECORD_SIZE;
constexpr std::size_t longest_word = 31;
constexpr std::size_t longest_hostname = CORVEL_LEASE_HOST_SIZE - 1;
constexpr std::size_t longest_pid_line = 99;
constexpr const char *unopened = "/nowhere/leases";

std::time_t present = 0;

struct Signal {
    pid_t process;
    int number;
};
std::vector<Signal> signals;

// ----------------------------------------------------------------------------------- the models

Record binary_record(std::string_view bytes) {
    std::uint32_t expiry = 0;
    for (const char c : bytes.substr(20, 4))
        expiry = expiry * 256 + static_cast<unsigned char>(c);
    return {.ip = dotted_quad(bytes.substr(16, 4)),
            .mac = hexadecimal(bytes.substr(0, CORVEL_MAC_BYTES), ":"),
            .expires = std::to_string(expiry)};
}

Records binary_records(std::string_view file) {
    Records records;
    for (; file.size() >= record_size; file.remove_prefix(record_size)) {
        if (file.substr(0, CORVEL_MAC_BYTES).find_first_not_of('\0') != std::string_view::npos)
            records.push_back(binary_record(file.substr(0, record_size)));
    }
    return records;
}

std::vector<std::string> words_of(std::string_view line) {
    std::istringstream stream{std::string(line)};
    std::vector<std::string> words;
    for (std::string word; stream >> word;)
        words.push_back(word);
    words.resize(std::max<std::size_t>(words.size(), 8)); // a missing word is empty
    return words;
}

std::string time_left(std::string_view expiry) {
    const long long seconds =
        std::strtoll(std::string(cut(expiry, longest_word)).c_str(), nullptr, 10);
    return std::to_string(std::max(seconds, LLONG_MIN + present) - present);
}

struct Format {
    int (*read)(lease_entry **, const char *);
    std::size_t expiry, mac, ip, hostname; // words, from 1
};

constexpr Format dnsmasq = {get_dnsmasq_leases, 1, 2, 3, 4};
constexpr Format dhcpv6 = {get_dhcpv6_leases, 5, 2, 8, 4};

Records text_records(std::string_view file, const Format &format) {
    Records records;
    for (const Piece &piece : pieces_of(file)) {
        if (piece.at_end)
            break;
        const std::vector<std::string> words = words_of(as_text(piece.text));
        records.push_back(
            {.ip = std::string(cut(words[format.ip - 1], longest_word)),
             .mac = std::string(cut(words[format.mac - 1], longest_word)),
             .expires = time_left(words[format.expiry - 1]),
             .hostname = std::string(cut(words[format.hostname - 1], longest_hostname))});
    }
    return records;
}

// ----------------------------------------------------------------------------------- the checks

std::string check_binary_file(const char *path, const Records &expected) {
    List list;
    check_equal(get_udhpd_leases(&list.head, path), static_cast<long long>(expected.size()),
                "get_udhpd_leases returns the count");
    check_list(list.head, expected);
    return bytes_of(list.head);
}

std::string check_text_file(const char *path, const Format &format, const Records &expected) {
    List list;
    check_equal(format.read(&list.head, path), 0, "a function that reads text returns 0");
    check_list(list.head, expected);
    return bytes_of(list.head);
}

/** Each record separately, into a record that is not empty: only three of its strings are written.
 */
void check_single_records(std::string_view file) {
    for (; file.size() >= record_size; file.remove_prefix(record_size)) {
        const auto bytes = std::make_unique<unsigned char[]>(record_size);
        std::copy_n(file.begin(), record_size, bytes.get());
        lease_entry entry = {7, "", "ff", "", "", "host", nullptr};
        add_lease(&entry, bytes.get());
        Record expected = binary_record(file);
        expected.hardware_type = "ff";
        expected.hostname = "host";
        check_equal(entry.reserved, 7, "add_lease leaves the rest unchanged");
        entry.reserved = 0;
        check_record(entry, expected);
    }
}

/** Complete lines yield the same records between two other lines. */
void check_neighbours(const std::string &file, const Format &format, const Records &records) {
    if (!file.empty() && !file.ends_with('\n'))
        return;
    static const MemoryFile surrounded;
    const std::string line = "1 2 3 4 5 6 7 8 9\n";
    surrounded.fill(line + file + line + "1 incomplete");
    Records expected = text_records(line, format);
    expected.insert(expected.end(), records.begin(), records.end());
    expected.push_back(expected.front());
    check_text_file(surrounded.path(), format, expected);
}

void check_missing_file(int (*read)(lease_entry **, const char *)) {
    List list;
    check_equal(read(&list.head, unopened), 0, "a file that cannot be opened has no leases");
    check(list.head == nullptr, "a list that is not read is empty");
}

/** The server is signalled to write its leases, which are read. */
void check_server(int process, const Records &records) {
    signals.clear();
    List list;
    check_equal(get_leases(&list.head), static_cast<long long>(records.size()), "get_leases");
    check_list(list.head, records);
    check_equal(static_cast<long long>(signals.size()), 1, "one signal is sent");
    check_equal(signals[0].process, process, "the signal is sent to the server");
    check_equal(signals[0].number, SIGUSR1, "the signal makes the server write its leases");
}

void check_pid_file(FixedFile &pid_file, const std::string &text, const Records &records) {
    pid_file.fill(text);
    const int process = decimal_value(text.substr(0, std::min(text.find('\n'), longest_pid_line)));
    check_equal(getPid("/var/run/udhcpd.pid"), process, "getPid");
    if (process > 0)
        check_server(process, records);
    pid_file.remove();
    check_equal(getPid("/var/run/udhcpd.pid"), -1, "getPid of a missing file");
}

} // namespace

extern "C" {

std::time_t time(std::time_t *timer) {
    if (timer != nullptr)
        *timer = present;
    return present;
}

int kill(pid_t pid, int sig) {
    signals.push_back({pid, sig});
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static FixedFile pid_file("/var/run/udhcpd.pid");
    static FixedFile binary_file("/var/config/udhcpd.leases");
    static FixedFile no_file(unopened);
    static const MemoryFile leases;
    Input input(data, size);
    present = 0;
    for (int i = 0; i < 4; ++i)
        present = present * 256 + input.byte();
    const std::string pid_text = input.text();
    const std::string file = input.rest();
    leases.fill(file);
    const Records binary = binary_records(file);
    in_different_surroundings([&] { return check_binary_file(leases.path(), binary); });
    for (const Format &format : {dnsmasq, dhcpv6}) {
        const Records records = text_records(file, format);
        in_different_surroundings([&] { return check_text_file(leases.path(), format, records); });
        check_neighbours(file, format, records);
    }
    check_single_records(file);
    binary_file.fill(file);
    check_pid_file(pid_file, pid_text, binary);
    static const bool checked = [] {
        for (const auto &read : {get_udhpd_leases, get_dnsmasq_leases, get_dhcpv6_leases})
            check_missing_file(read);
        return true;
    }();
    check(checked, "files that cannot be opened");
    return 0;
}

} // extern "C"

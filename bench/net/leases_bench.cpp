// SPDX-License-Identifier: MIT
// Reading N leases into a list, and releasing it: from the text file of one server and from the
// binary file of another.
//
// The limits read the same fields of the same file into buffers that the next lease overwrites:
// with fgets() and sscanf() from text, with fread() and snprintf() from binary records. They build
// no list.
#include "bench/harness.h"

#include <corvel.h>

#include <arpa/inet.h>
#include <array>
#include <cstring>
#include <ctime>

namespace {

constexpr std::size_t record_size = CORVEL_LEASE_RECORD_SIZE;

std::string mac_of_lease(std::size_t i) {
    char mac[CORVEL_MAC_SIZE];
    std::snprintf(mac, sizeof mac, "02:1a:2b:%02zx:%02zx:%02zx", i >> 16 & 255, i >> 8 & 255,
                  i & 255);
    return mac;
}

std::string place_text(std::size_t leases) {
    std::string text;
    char line[160];
    for (std::size_t i = 0; i < leases; ++i) {
        const std::string mac = mac_of_lease(i);
        std::snprintf(line, sizeof line, "4102444800 %s 192.168.%zu.%zu station-%05zu 01:%s\n",
                      mac.c_str(), i / 256, i % 256, i, mac.c_str());
        text += line;
    }
    std::string path = bench::scratch_path("text_" + std::to_string(leases) + ".leases");
    bench::write_file(path, text);
    return path;
}

std::string place_binary(std::size_t leases) {
    std::string records;
    for (std::size_t i = 0; i < leases; ++i) {
        std::string record(record_size, '\0');
        const std::array<std::size_t, record_size> bytes = {
            2, 0x1a, 0x2b, i >> 16, i >> 8, i,   0,       0, 0, 0, 0,  0,
            0, 0,    0,    0,       192,    168, i / 256, i, 0, 0, 14, 16};
        for (std::size_t at = 0; at < record_size; ++at)
            record[at] = static_cast<char>(bytes[at]);
        records += record;
    }
    std::string path = bench::scratch_path("binary_" + std::to_string(leases) + ".leases");
    bench::write_file(path, records);
    return path;
}

using Place = std::string (*)(std::size_t);
using Reader = int (*)(lease_entry **, const char *);

template <Place place, Reader read> void corvel(benchmark::State &state) {
    const auto leases = static_cast<std::size_t>(state.range(0));
    const std::string path = place(leases);
    lease_entry *head = nullptr;

    read(&head, path.c_str());
    std::size_t found = 0;
    for (const lease_entry *entry = head; entry != nullptr; entry = entry->next)
        ++found;
    bench::require(head != nullptr && found == leases &&
                       strcasecmp(head->mac, mac_of_lease(0).c_str()) == 0 &&
                       std::strcmp(head->ip, "192.168.0.0") == 0,
                   "the list is wrong");
    free_leaselist(&head);

    bench::measure(state, [&] {
        read(&head, path.c_str());
        free_leaselist(&head);
    });
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

/// The fields of one lease as strings.
struct Texts {
    char ip[CORVEL_LEASE_IP_SIZE];
    char mac[CORVEL_LEASE_MAC_SIZE];
    char expires[CORVEL_LEASE_EXPIRES_SIZE];
    char hostname[CORVEL_LEASE_HOST_SIZE];
};

std::size_t scan_text(const std::string &path) {
    const bench::File file(std::fopen(path.c_str(), "r"));
    const std::time_t now = std::time(nullptr);
    Texts lease;
    char line[CORVEL_LINE_SIZE];
    char expiry[32];
    char identifier[32];
    std::size_t leases = 0;
    while (std::fgets(line, sizeof line, file.get()) != nullptr) {
        if (std::sscanf(line, "%31s %31s %31s %127s %31s", expiry, lease.mac, lease.ip,
                        lease.hostname, identifier) != 5)
            break;
        std::snprintf(lease.expires, sizeof lease.expires, "%ld", std::atol(expiry) - now);
        benchmark::DoNotOptimize(&lease);
        ++leases;
    }
    return leases;
}

std::size_t scan_binary(const std::string &path) {
    const bench::File file(std::fopen(path.c_str(), "r"));
    Texts lease;
    unsigned char record[record_size];
    std::size_t leases = 0;
    while (std::fread(record, sizeof record, 1, file.get()) == 1) {
        std::uint32_t expiry = 0;
        in_addr address{};
        std::memcpy(&address, record + 16, sizeof address);
        std::memcpy(&expiry, record + 20, sizeof expiry);
        std::snprintf(lease.mac, sizeof lease.mac, "%02X:%02X:%02X:%02X:%02X:%02X", record[0],
                      record[1], record[2], record[3], record[4], record[5]);
        std::snprintf(lease.ip, sizeof lease.ip, "%s", inet_ntoa(address));
        std::snprintf(lease.expires, sizeof lease.expires, "%u", ntohl(expiry));
        benchmark::DoNotOptimize(&lease);
        ++leases;
    }
    return leases;
}

template <Place place, std::size_t scan(const std::string &)> void limit(benchmark::State &state) {
    const std::string path = place(static_cast<std::size_t>(state.range(0)));
    bench::require(scan(path) == static_cast<std::size_t>(state.range(0)),
                   "the limit reads a wrong number of leases");
    bench::measure(state, [&path] { benchmark::DoNotOptimize(scan(path)); });
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

const std::vector<bench::Size> sizes = {{100}, {1000}, {10000}};

const bench::Job text_job("read leases, text", sizes,
                          {{"corvel", corvel<place_text, get_dnsmasq_leases>},
                           {"limit", limit<place_text, scan_text>}});
const bench::Job binary_job("read leases, binary", sizes,
                            {{"corvel", corvel<place_binary, get_udhpd_leases>},
                             {"limit", limit<place_binary, scan_binary>}});

} // namespace

// SPDX-License-Identifier: MIT
// Reading N neighbours, each with a different hardware address, into a list, and releasing it.
//
// The kernel's table has a fixed path, so this process has its own mount namespace, with a
// directory in memory mounted over the kernel's: both sides read the same file there. The limit
// reads the same fields with fgets() and sscanf() into buffers that the next line overwrites, and
// builds no list.
#include "bench/harness.h"

#include <corvel.h>

#include <cstring>
#include <random>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

namespace {

constexpr const char *table_path = "/proc/net/arp";

/// Mounts a directory in memory over the kernel's tables, for this process only.
void cover_kernel_tables() {
    static const bool covered = [] {
        const int user = geteuid() == 0 ? 0 : CLONE_NEWUSER;
        return unshare(user | CLONE_NEWNS) == 0 &&
               mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
               mount("neighbours", "/proc/self/net", "tmpfs", 0, nullptr) == 0;
    }();
    bench::require(covered, "cannot mount over the kernel's tables");
}

/// The first half of an address identifies the maker, the second half is a counter.
void place_table(std::size_t neighbours, unsigned makers) {
    cover_kernel_tables();
    std::mt19937 generator(1);
    std::string text =
        "IP address       HW type     Flags       HW address            Mask     Device\n";
    for (std::size_t i = 0; i < neighbours; ++i) {
        char line[160];
        const unsigned maker = static_cast<unsigned>(generator() % makers);
        const std::string ip = "10.0." + std::to_string(i / 256) + '.' + std::to_string(i % 256);
        std::snprintf(line, sizeof line,
                      "%-16s 0x1         0x2         %02x:1a:2b:%02x:%02zx:%02zx     *        "
                      "br-lan\n",
                      ip.c_str(), maker & 0xFEU, maker, i / 256, i % 256);
        text += line;
    }
    bench::write_file(table_path, text);
}

template <unsigned makers> void corvel(benchmark::State &state) {
    place_table(static_cast<std::size_t>(state.range(0)), makers);
    lease_entry *head = nullptr;
    bench::require(get_arp_cache("br-lan", &head) == state.range(0) &&
                       std::strcmp(head->ip, "10.0.0.0") == 0,
                   "get_arp_cache() reads the table incorrectly");
    free_leaselist(&head);
    bench::measure(state, [&head] {
        get_arp_cache("br-lan", &head);
        free_leaselist(&head);
    });
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

std::int64_t scan() {
    const bench::File file(std::fopen(table_path, "r"));
    char line[128];
    char ip[128];
    char mac[128];
    char mask[128];
    char device[128];
    unsigned type = 0;
    unsigned flags = 0;
    std::int64_t neighbours = 0;
    if (std::fgets(line, sizeof line, file.get()) == nullptr)
        return 0;
    while (std::fgets(line, sizeof line, file.get()) != nullptr &&
           std::sscanf(line, "%127s 0x%x 0x%x %127s %127s %127s\n", ip, &type, &flags, mac, mask,
                       device) == 6) {
        benchmark::DoNotOptimize(&ip);
        benchmark::DoNotOptimize(&mac);
        ++neighbours;
    }
    return neighbours;
}

template <unsigned makers> void limit(benchmark::State &state) {
    place_table(static_cast<std::size_t>(state.range(0)), makers);
    bench::require(scan() == state.range(0), "the limit reads a wrong number of lines");
    bench::measure(state, [] { benchmark::DoNotOptimize(scan()); });
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

const std::vector<bench::Size> sizes = {{100}, {1000}, {10000}};

const bench::Job many_makers("read neighbours", sizes,
                             {{"corvel", corvel<256>}, {"limit", limit<256>}});
const bench::Job one_maker("read neighbours of one maker", sizes,
                           {{"corvel", corvel<1>}, {"limit", limit<1>}});

} // namespace

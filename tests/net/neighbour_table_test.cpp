/* SPDX-License-Identifier: MIT */
#include <corvel.h>

#include "tests/net/network.h"
#include "tests/net/random_tables.h"
#include "tests/support/descriptors.h"
#include "tests/support/guarded_memory.h"
#include "tests/support/output_capture.h"
#include "tests/support/private_root.h"
#include "tests/support/stand_in.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <ostream>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

using namespace corvel_test;
using namespace std::string_literals;

// --- get_arp_cache ---

struct Record {
    std::string ip;
    std::string hwtype;
    std::string mac;
    bool operator==(const Record &) const = default;
    friend std::ostream &operator<<(std::ostream &out, const Record &record) {
        return out << '{' << record.ip << ' ' << record.hwtype << ' ' << record.mac << '}';
    }
};
using Records = std::vector<Record>;

/** Whether the field contains a string and only NULs after it. */
template <std::size_t size> bool is_clean(const char (&field)[size]) {
    const std::string_view bytes(field, size);
    const std::size_t length = bytes.find('\0');
    return length != std::string_view::npos &&
           bytes.find_first_not_of('\0', length) == std::string_view::npos;
}

Records records_of(const lease_entry *entry) {
    Records records;
    for (; entry != nullptr; entry = entry->next) {
        EXPECT_EQ(entry->reserved, 0);
        EXPECT_TRUE(is_clean(entry->ip) && is_clean(entry->hwtype) && is_clean(entry->mac));
        EXPECT_EQ(std::string_view(entry->expires, sizeof entry->expires),
                  std::string(CORVEL_LEASE_EXPIRES_SIZE, '\0'));
        EXPECT_EQ(std::string_view(entry->hostname, sizeof entry->hostname),
                  std::string(CORVEL_LEASE_HOST_SIZE, '\0'));
        records.push_back({entry->ip, entry->hwtype, entry->mac});
    }
    return records;
}

/** The neighbours of an interface, or all if the name is empty. */
Records neighbours(const std::string &interface = "") {
    GuardedInput text;
    const char *const ifname = text.hold(interface);
    lease_entry *head = nullptr;
    int count = 0;
    {
        const DescriptorWatch watch;
        count = get_arp_cache(ifname, &head);
    }
    Records records = records_of(head);
    EXPECT_EQ(count, records.size());
    free_leaselist(&head);
    EXPECT_EQ(head, nullptr);
    return records;
}

void add_two_interfaces() {
    add_cable("eth0", "far0");
    add_cable("eth0.1", "far1");
    ip("address add 192.168.1.1/24 dev eth0");
    ip("address add 10.0.0.1/24 dev eth0.1");
}

TEST(get_arp_cache, ListsTheKernelsNeighbours) {
    in_private_root([] {
        EXPECT_EQ(neighbours(), Records{});
        add_two_interfaces();
        EXPECT_EQ(neighbours(), Records{});
        ip("neighbour add 192.168.1.77 lladdr 02:1a:2b:fc:80:09 dev eth0 nud permanent");
        EXPECT_EQ(neighbours(), (Records{{"192.168.1.77", "1", "021A2BFC8009"}}));
        ip("neighbour add 10.0.0.255 lladdr 00:11:22:33:44:55 dev eth0.1 nud stale");
        Records both = neighbours();
        std::sort(both.begin(), both.end(),
                  [](const Record &left, const Record &right) { return left.mac < right.mac; });
        EXPECT_EQ(both, (Records{{"10.0.0.255", "1", "001122334455"},
                                 {"192.168.1.77", "1", "021A2BFC8009"}}));
    });
}

TEST(get_arp_cache, ListsTheNeighboursOfOneInterface) {
    in_private_root([] {
        add_two_interfaces();
        ip("neighbour add 192.168.1.77 lladdr 02:00:00:00:00:01 dev eth0 nud permanent");
        ip("neighbour add 10.0.0.77 lladdr 02:00:00:00:00:02 dev eth0.1 nud permanent");
        EXPECT_EQ(neighbours("eth0"), (Records{{"192.168.1.77", "1", "020000000001"}}));
        EXPECT_EQ(neighbours("eth0.1"), (Records{{"10.0.0.77", "1", "020000000002"}}));
        for (const char *name : {"far0", "eth", "eth0.", "eth0.11", "eth7", "ETH0", " ", "-", "*"})
            EXPECT_EQ(neighbours(name), Records{}) << name;
    });
}

TEST(get_arp_cache, SkipsNeighboursWithoutAHardwareAddress) {
    in_private_root([] {
        add_two_interfaces();
        ip("neighbour add 192.168.1.7 dev eth0 nud incomplete");
        ip("neighbour add 192.168.1.8 lladdr 02:00:00:00:00:08 dev eth0 nud failed");
        EXPECT_EQ(neighbours(), Records{});
        // The table does contain such lines.
        const std::string table = read_file("/proc/net/arp");
        EXPECT_NE(table.find("192.168.1.7 "), std::string::npos);
        ip("neighbour add 192.168.1.9 lladdr 02:00:00:00:00:09 dev eth0 nud permanent");
        EXPECT_EQ(neighbours(), (Records{{"192.168.1.9", "1", "020000000009"}}));
    });
}

TEST(get_arp_cache, ListsEachHardwareAddressOnce) {
    in_private_root([] {
        add_two_interfaces();
        ip("neighbour add 192.168.1.77 lladdr 02:00:00:00:00:01 dev eth0 nud permanent");
        ip("neighbour add 192.168.1.78 lladdr 02:00:00:00:00:01 dev eth0 nud permanent");
        ip("neighbour add 10.0.0.77 lladdr 02:00:00:00:00:01 dev eth0.1 nud permanent");
        EXPECT_EQ(neighbours().size(), 1U);
        EXPECT_EQ(neighbours("eth0").size(), 1U);
        EXPECT_EQ(neighbours("eth0.1"), (Records{{"10.0.0.77", "1", "020000000001"}}));
    });
}

/** A line as the kernel prints it, with its newline. */
std::string line(const std::string &address, const std::string &mac,
                 const std::string &device = "eth0", const std::string &flags = "0x2",
                 const std::string &type = "0x1") {
    char text[1024];
    std::snprintf(text, sizeof text, "%-16s %-10s  %-10s  %-17s     *        %s\n", address.c_str(),
                  type.c_str(), flags.c_str(), mac.c_str(), device.c_str());
    return text;
}

const std::string heading =
    "IP address       HW type     Flags       HW address            Mask     Device\n";
const std::string mac_1 = "00:11:22:33:44:51";
const std::string mac_2 = "00:11:22:33:44:52";
const Record record_1 = {"1.1.1.1", "1", "001122334451"};
const Record record_2 = {"2.2.2.2", "1", "001122334452"};

TEST(get_arp_cache, ListsCompleteNeighboursInTheOrderOfTheTable) {
    in_private_root([] {
        const ReplacedTable table("arp");
        table.write(heading + line("2.2.2.2", mac_2) + line("3.3.3.3", mac_1, "eth0", "0x0") +
                    line("1.1.1.1", mac_1, "eth1", "0x6"));
        EXPECT_EQ(neighbours(), (Records{record_2, record_1}));
    });
}

TEST(get_arp_cache, TestsOnlyTheFlagOfACompleteNeighbour) {
    in_private_root([] {
        const ReplacedTable table("arp");
        for (unsigned flags = 0; flags < 256; ++flags) {
            char text[16];
            std::snprintf(text, sizeof text, "0x%x", flags);
            table.write(heading + line("1.1.1.1", mac_1, "eth0", text));
            EXPECT_EQ(neighbours(), (flags & 2) != 0 ? Records{record_1} : Records{}) << flags;
        }
    });
}

TEST(get_arp_cache, ListsTheFirstCompleteLineOfAHardwareAddress) {
    in_private_root([] {
        const ReplacedTable table("arp");
        table.write(heading + line("9.9.9.9", mac_1, "eth0", "0x0") +
                    line("1.1.1.1", mac_1, "eth0") + line("3.3.3.3", mac_1, "eth1") +
                    line("2.2.2.2", mac_2, "eth1") + line("4.4.4.4", mac_2, "eth0"));
        EXPECT_EQ(neighbours(), (Records{record_1, record_2}));
        EXPECT_EQ(neighbours("eth0"), (Records{record_1, {"4.4.4.4", "1", "001122334452"}}));
        EXPECT_EQ(neighbours("eth1"), (Records{{"3.3.3.3", "1", "001122334451"}, record_2}));
    });
}

TEST(get_arp_cache, ComparesHardwareAddressesInStrippedForm) {
    in_private_root([] {
        const ReplacedTable table("arp");
        table.write(heading + line("1.1.1.1", "aa:bb:cc:dd:ee:ff") +
                    line("2.2.2.2", "AA-BB-CC-DD-EE-FF") +
                    line("3.3.3.3", "aa:bb:cc:dd:ee:ff:00:11"));
        EXPECT_EQ(neighbours(), (Records{{"1.1.1.1", "1", "AABBCCDDEEFF"}}));
    });
}

TEST(get_arp_cache, ListsTheHardwareTypeInHexadecimal) {
    in_private_root([] {
        const ReplacedTable table("arp");
        for (const std::string type : {"0", "1", "19", "2fb", "abcdef", "fffffff"}) {
            table.write(heading + line("1.1.1.1", mac_1, "eth0", "0x2", "0x" + type));
            EXPECT_EQ(neighbours(), (Records{{"1.1.1.1", type, "001122334451"}}));
        }
        table.write(heading + line("1.1.1.1", mac_1, "eth0", "0x2", "0x00ABC"));
        EXPECT_EQ(neighbours(), (Records{{"1.1.1.1", "abc", "001122334451"}}));
        // The field is large enough for seven digits.
        table.write(heading + line("1.1.1.1", mac_1, "eth0", "0x2", "0x12345678"));
        EXPECT_EQ(neighbours(), (Records{{"1.1.1.1", "1234567", "001122334451"}}));
    });
}

TEST(get_arp_cache, SkipsAnyFirstLine) {
    in_private_root([] {
        const ReplacedTable table("arp");
        for (const std::string &first : {"\n"s, "\0\n"s, "x\n"s, line("9.9.9.9", mac_2)}) {
            table.write(first + line("1.1.1.1", mac_1));
            EXPECT_EQ(neighbours(), Records{record_1});
        }
    });
}

TEST(get_arp_cache, StopsAtTheFirstMalformedLine) {
    in_private_root([] {
        const ReplacedTable table("arp");
        for (const std::string &bad :
             {"\n"s, "  \n"s, "2.2.2.2\n"s, "2.2.2.2 0x1\n"s, "2.2.2.2 0x1 0x2\n"s,
              "2.2.2.2 1 0x2 00:11:22:33:44:52 * eth0\n"s,
              "2.2.2.2 0x1 2 00:11:22:33:44:52 * eth0\n"s,
              "2.2.2.2 0xg 0x2 00:11:22:33:44:52 * eth0\n"s,
              "2.2.2.2 0x1 0xzz 00:11:22:33:44:52 * eth0\n"s,
              "2.2.2.2 0X1 0x2 00:11:22:33:44:52 * eth0\n"s,
              "2.2.2.2 0x1 0x2 \0 00:11:22:33:44:52 * eth0\n"s, "\0"s + line("2.2.2.2", mac_2),
              std::string(127, ' ') + "\n", std::string(500, 'x') + "\n",
              std::string(500, '\0') + "\n"}) {
            table.write(heading + line("1.1.1.1", mac_1) + bad + line("2.2.2.2", mac_2));
            EXPECT_EQ(neighbours(), Records{record_1}) << bad;
            table.write(heading + bad + line("2.2.2.2", mac_2));
            EXPECT_EQ(neighbours(), Records{}) << bad;
        }
    });
}

TEST(get_arp_cache, AcceptsLinesWithoutMaskAndDevice) {
    in_private_root([] {
        const ReplacedTable table("arp");
        for (const char *last : {"", " *"}) {
            table.write(heading + line("2.2.2.2", mac_2) + "1.1.1.1 0x1 0x2 " + mac_1 + last +
                        "\n");
            EXPECT_EQ(neighbours(), (Records{record_2, record_1}));
            EXPECT_EQ(neighbours("eth0"), Records{record_2});
            EXPECT_EQ(neighbours("-"), Records{record_1});
        }
    });
}

TEST(get_arp_cache, AcceptsAnyWhitespaceAndWords) {
    in_private_root([] {
        const ReplacedTable table("arp");
        table.write(heading + "\t1.1.1.1\t0x1   0x2\v" + mac_1 + "\f*\r eth0 more words\n" +
                    "%s%n 0x 1 0x +2 \xFF\x80:%n * eth0\n");
        EXPECT_EQ(neighbours("eth0"), (Records{record_1, {"%s%n", "1", "\xFF\x80%N"}}));
    });
}

/** As scanf() does for "%x". */
TEST(get_arp_cache, ReadsAPrefixWithoutDigitsAsZero) {
    in_private_root([] {
        const ReplacedTable table("arp");
        table.write(heading + "9.9.9.9 0x1 0x0x " + mac_2 + "\n" + line("1.1.1.1", mac_1));
        EXPECT_EQ(neighbours(), Records{record_1});
        table.write(heading + "9.9.9.9 0x0x 0x2 " + mac_2 + "\n" + line("1.1.1.1", mac_1));
        EXPECT_EQ(neighbours(), Records{});
    });
}

TEST(get_arp_cache, AcceptsShortHardwareAddresses) {
    in_private_root([] {
        const ReplacedTable table("arp");
        table.write(heading + line("1.1.1.1", "*") + line("2.2.2.2", "0a:0b:0c:0d") +
                    line("3.3.3.3", "*"));
        EXPECT_EQ(neighbours(), (Records{{"1.1.1.1", "1", "*"}, {"2.2.2.2", "1", "0A0B0C0D"}}));
    });
}

TEST(get_arp_cache, AcceptsLongWords) {
    in_private_root([] {
        const ReplacedTable table("arp");
        const std::string rest = " 0x1 0x2 a\n";
        const std::string address(127 - rest.size(), 'i');
        table.write(heading + address + rest);
        EXPECT_EQ(neighbours(), (Records{{address, "1", "A"}}));
        const std::string start = "1.1.1.1 0x1 0x2 ";
        const std::string mac(127 - start.size() - 1, 'm');
        table.write(heading + start + mac + "\n");
        EXPECT_EQ(neighbours(), (Records{{"1.1.1.1", "1", std::string(12, 'M')}}));
        const std::string device(127 - start.size() - mac_1.size() - 4, 'd');
        table.write(heading + start + mac_1 + " * " + device + "\n");
        EXPECT_EQ(neighbours(device), Records{record_1});
        EXPECT_EQ(neighbours(device.substr(1)), Records{});
        EXPECT_EQ(neighbours(device + "d"), Records{});
    });
}

TEST(get_arp_cache, ReadsTheTableInPiecesOf127Characters) {
    in_private_root([] {
        const ReplacedTable table("arp");
        const std::string entry = "1.1.1.1 0x1 0x2 " + mac_1 + " * eth0";
        // The newline counts as a character.
        for (const std::size_t length : {120U, 125U, 126U}) {
            table.write(heading + entry + std::string(length - entry.size(), ' ') + "\n" +
                        line("2.2.2.2", mac_2));
            EXPECT_EQ(neighbours(), (Records{record_1, record_2})) << length;
        }
        // The rest of a longer line is a malformed line.
        for (const std::size_t length : {127U, 128U, 200U}) {
            table.write(heading + entry + std::string(length - entry.size(), ' ') + "\n" +
                        line("2.2.2.2", mac_2));
            EXPECT_EQ(neighbours(), Records{record_1}) << length;
        }
        // The rest of a longer line may be well-formed.
        table.write(heading + entry + std::string(127 - entry.size(), ' ') +
                    line("2.2.2.2", mac_2));
        EXPECT_EQ(neighbours(), (Records{record_1, record_2}));
        // So may the rest of the heading.
        table.write(std::string(127, 'x') + line("1.1.1.1", mac_1));
        EXPECT_EQ(neighbours(), Records{record_1});
        table.write(std::string(126, 'x') + "\n" + line("1.1.1.1", mac_1));
        EXPECT_EQ(neighbours(), Records{record_1});
        table.write(std::string(128, 'x') + "\n" + line("1.1.1.1", mac_1));
        EXPECT_EQ(neighbours(), Records{});
    });
}

TEST(get_arp_cache, AcceptsATableWithoutAFinalNewline) {
    in_private_root([] {
        const ReplacedTable table("arp");
        table.write(heading + line("2.2.2.2", mac_2) + "1.1.1.1 0x1 0x2 " + mac_1 + " * eth0");
        EXPECT_EQ(neighbours("eth0"), (Records{record_2, record_1}));
    });
}

TEST(get_arp_cache, ListsNothingIfTheTableIsUnusable) {
    in_private_root([] {
        const ReplacedTable table("arp");
        const auto expect_none = [] {
            EXPECT_EQ(neighbours(), Records{});
        };
        table.write("");
        expect_none();
        table.write(heading);
        expect_none();
        table.write("no newline");
        expect_none();
        table.remove();
        EXPECT_EQ(capture_stdout(expect_none), "");
        EXPECT_EQ(capture_stderr(expect_none), "");
        table.replace_by_directory();
        expect_none();
        table.remove();
        table.write(heading + line("1.1.1.1", mac_1));
        EXPECT_EQ(neighbours(), Records{record_1});
        {
            const DescriptorsLeft none(0);
            expect_none();
        }
        const FailCall unreadable(call_read, 1, EIO, FailCall::from_then_on);
        expect_none();
    });
}

TEST(get_arp_cache, PrintsNothing) {
    in_private_root([] {
        const ReplacedTable table("arp");
        table.write(heading + line("1.1.1.1", mac_1) + "bad\n");
        const auto read = [] {
            EXPECT_EQ(neighbours(), Records{record_1});
        };
        EXPECT_EQ(capture_stdout(read), "");
        EXPECT_EQ(capture_stderr(read), "");
    });
}

TEST(get_arp_cache, KeepsWhatItListedBeforeMemoryRanOut) {
    in_private_root([] {
        const ReplacedTable table("arp");
        table.write(heading + line("1.1.1.1", mac_1) + line("9.9.9.9", mac_1) +
                    line("2.2.2.2", mac_2) + line("3.3.3.3", "00:00:00:00:00:03"));
        const Records all = {record_1, record_2, {"3.3.3.3", "1", "000000000003"}};
        const DescriptorWatch watch;
        EXPECT_EQ(for_each_allocation_failure([&](AllocationTrial &trial) {
                      lease_entry *head = nullptr;
                      const int count = trial.run([&] { return get_arp_cache("", &head); });
                      EXPECT_EQ(count, trial.failed() ? 0 : 3);
                      const auto kept = static_cast<std::ptrdiff_t>(std::min(trial.n() - 1, 3UL));
                      EXPECT_EQ(records_of(head), Records(all.begin(), all.begin() + kept));
                      free_leaselist(&head);
                  }),
                  3U);
    });
}

std::string mac_of(unsigned number) {
    char text[CORVEL_MAC_SIZE];
    std::snprintf(text, sizeof text, "02:00:%02x:%02x:%02x:%02x", number >> 24, number >> 16 & 0xFF,
                  number >> 8 & 0xFF, number & 0xFF);
    return text;
}

TEST(get_arp_cache, ListsThousandsOfNeighbours) {
    in_private_root([] {
        const ReplacedTable table("arp");
        std::mt19937 engine(67);
        std::string text = heading;
        Records expected;
        // More hardware addresses than the kernel keeps by default, each twice.
        std::vector<unsigned> macs;
        for (unsigned number = 0; number < 5000; ++number)
            macs.insert(macs.end(), 2, number * 7919);
        std::shuffle(macs.begin(), macs.end(), engine);
        std::vector<unsigned> seen;
        for (std::size_t i = 0; i < macs.size(); ++i) {
            const std::string address = "10.0.0." + std::to_string(i);
            std::string mac = mac_of(macs[i]);
            text += line(address, mac);
            if (std::find(seen.begin(), seen.end(), macs[i]) == seen.end()) {
                seen.push_back(macs[i]);
                std::transform(mac.begin(), mac.end(), mac.begin(), [](char digit) {
                    return digit >= 'a' ? static_cast<char>(digit - 32) : digit;
                });
                mac.erase(std::remove(mac.begin(), mac.end(), ':'), mac.end());
                expected.push_back({address, "1", mac});
            }
        }
        table.write(text);
        EXPECT_EQ(expected.size(), 5000U);
        EXPECT_EQ(neighbours(), expected);
    });
}

/** Expects that these different hardware addresses, each of which is in the table twice, are listed
 * once and in order. */
void expect_listed_once(const ReplacedTable &table, const std::vector<std::string> &macs) {
    std::string text = heading;
    for (const std::string &mac : macs)
        text += "1.1.1.1 0x1 0x2 " + mac + "\n";
    for (const std::string &mac : macs)
        text += "2 0x1 0x2 " + mac + "\n";
    table.write(text);
    lease_entry *head = nullptr;
    ASSERT_EQ(get_arp_cache("", &head), macs.size());
    const lease_entry *entry = head;
    char stripped[CORVEL_MAC_STRIPPED_SIZE];
    for (const std::string &mac : macs) {
        ASSERT_STREQ(entry->mac, mac2hexStrip(mac.c_str(), stripped));
        ASSERT_STREQ(entry->ip, "1.1.1.1");
        entry = entry->next;
    }
    EXPECT_EQ(entry, nullptr);
    free_leaselist(&head);
}

/** Comparing each neighbour with all others would take half an hour. */
TEST(get_arp_cache, TakesLinearTimeForHundredsOfThousandsOfNeighbours) {
    in_private_root([] {
        const ReplacedTable table("arp");
        std::vector<std::string> macs(400000);
        for (unsigned number = 0; number < macs.size(); ++number)
            macs[number] = mac_of(number);
        expect_listed_once(table, macs);
    });
}

/** A hardware address of twelve characters, or "" if one of them is NUL, whitespace or a lower-case
 * letter, which would end or change it. */
std::string mac_of_characters(std::string_view characters) {
    std::string mac;
    for (std::size_t i = 0; i < characters.size(); ++i) {
        const char character = characters[i];
        if (character == '\0' || character == ' ' || (character >= '\t' && character <= '\r') ||
            (character >= 'a' && character <= 'z'))
            return "";
        mac += character;
        if (i % 2 == 1)
            mac += ':';
    }
    mac.pop_back();
    return mac;
}

/** The multiplicative inverse of an odd number, modulo 2 to the power of 64. */
std::uint64_t inverse_of(std::uint64_t odd) {
    std::uint64_t inverse = 1;
    for (int doubled = 0; doubled < 6; ++doubled)
        inverse *= 2 - odd * inverse;
    return inverse;
}

/** Addresses that differ only in the last 32 of the 96 bits that index the records. */
TEST(get_arp_cache, TakesLinearTimeForHardwareAddressesChosenToCollide) {
    in_private_root([] {
        const ReplacedTable table("arp");
        const std::uint64_t unmixed = 0x123456789ABCDEF0U * inverse_of(0x9E3779B97F4A7C15U);
        std::vector<std::string> macs;
        for (std::uint32_t low = 0x21212121; macs.size() < 200000; ++low) {
            const std::uint64_t high = unmixed ^ low * 0xBF58476D1CE4E5B9U;
            char characters[12];
            std::memcpy(characters, &high, sizeof high);
            std::memcpy(characters + sizeof high, &low, sizeof low);
            std::string mac = mac_of_characters({characters, sizeof characters});
            if (!mac.empty())
                macs.push_back(std::move(mac));
        }
        expect_listed_once(table, macs);
    });
}

/** What a model based on scanf() finds. */
Records expected_of(const std::string &path, const std::string &interface) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE *)> file(std::fopen(path.c_str(), "r"),
                                                                std::fclose);
    Records records;
    char text[128];
    static_cast<void>(std::fgets(text, sizeof text, file.get()));
    while (std::fgets(text, sizeof text, file.get()) != nullptr) {
        char address[128], mac[128] = "";
        char mask[128] = "-", device[128] = "-";
        unsigned type = 0, flags = 0;
        if (std::sscanf(text, "%127s 0x%x 0x%x %127s %127s %127s\n", address, &type, &flags, mac,
                        mask, device) < 4)
            break;
        if ((!interface.empty() && interface != device) || (flags & 2) == 0)
            continue;
        char hwtype[16];
        std::snprintf(hwtype, sizeof hwtype, "%x", type);
        std::string stripped;
        for (std::size_t at = 0; at < 17 && mac[at] != '\0'; ++at) {
            if (at % 3 != 2)
                stripped +=
                    mac[at] >= 'a' && mac[at] <= 'z' ? static_cast<char>(mac[at] - 32) : mac[at];
        }
        if (std::none_of(records.begin(), records.end(),
                         [&](const Record &record) { return record.mac == stripped; }))
            records.push_back({address, hwtype, stripped});
    }
    return records;
}

/** The words of a line of the table, sometimes of a malformed one. */
Words words_of_a_line(RandomTables &random) {
    Words words = {
        "10.0.0." + std::to_string(random.number(256)),
        random.number(9) == 0 ? "0x2fb" : "0x1",
        random.one_of({"0x0", "0x2", "0x6", "0x2", "0x00000002", "0x4"}),
        random.one_of({mac_of(random.number(9)), mac_of(random.number(9)), mac_of(random.number(9)),
                       "*", "aa-bb-cc-dd-ee-ff", "AA:BB:CC:DD:EE:FF:01"}),
        "*",
        random.one_of({"eth0", "eth0.1", "eth", "-"})};
    if (random.number(12) == 0) {
        std::string junk(1 + random.number(8), '\0');
        for (char &character : junk)
            character = "0123xxXaF-+z\xFF*%"[random.number(15)];
        words[random.number(words.size())] = random.number(2) == 0 ? junk : "0x" + junk;
    }
    if (random.number(12) == 0)
        words.resize(4 + random.number(2));
    if (random.number(100) == 0)
        words.resize(random.number(4));
    return words;
}

TEST(get_arp_cache, AgreesWithScanfOnAnyTable) {
    in_private_root([] {
        const ReplacedTable table("arp");
        RandomTables random(68);
        for (int round = 0; round < 1500; ++round) {
            std::string text = random.table_of(words_of_a_line);
            std::erase_if(text, [&random](char character) {
                return character == '\n' && random.number(30) == 0;
            });
            text.insert(0, heading);
            table.write(text);
            for (const char *interface : {"", "eth0", "-"})
                ASSERT_EQ(neighbours(interface), expected_of("/proc/net/arp", interface)) << text;
        }
    });
}

TEST(get_arp_cache, ReachesTheEndOfAnyTable) {
    in_private_root([] {
        const ReplacedTable table("arp");
        std::mt19937 engine(69);
        for (int round = 0; round < 500; ++round) {
            std::string noise = heading + line("1.1.1.1", mac_1);
            for (unsigned length = static_cast<unsigned>(engine() % 2000); length != 0; --length)
                noise += "0x12 \n\t:\0f\xFF"[engine() % 11];
            table.write(noise);
            const Records found = neighbours();
            ASSERT_FALSE(found.empty());
            ASSERT_EQ(found.front(), record_1);
        }
    });
}

// --- search_by_mac ---

lease_entry record(const std::string &address, const std::string &mac,
                   const std::string &expires = "") {
    lease_entry entry = {};
    address.copy(entry.ip, sizeof entry.ip);
    mac.copy(entry.mac, sizeof entry.mac);
    expires.copy(entry.expires, sizeof entry.expires);
    return entry;
}

int position(const lease_entry *head, const std::string &mac) {
    static GuardedInput text;
    return search_by_mac(head, text.hold(mac));
}

TEST(search_by_mac, ReturnsThePositionOfTheFirstMatch) {
    lease_entry third = record("3.3.3.3", "AABBCCDDEEFF");
    lease_entry second = record("2.2.2.2", "AABBCCDDEEFF");
    second.next = &third;
    lease_entry first = record("1.1.1.1", "001122334455");
    first.next = &second;
    EXPECT_EQ(position(&first, "00:11:22:33:44:55"), 1);
    EXPECT_EQ(position(&first, "aa:bb:cc:dd:ee:ff"), 2);
    EXPECT_EQ(position(&first, "AA-BB-CC-DD-EE-FF"), 2);
    EXPECT_EQ(position(&third, "aa:bb:cc:dd:ee:ff"), 1);
    EXPECT_EQ(position(&first, "00:11:22:33:44:56"), 0);
}

TEST(search_by_mac, FindsNothingInAnEmptyList) {
    EXPECT_EQ(position(nullptr, "00:11:22:33:44:55"), 0);
    EXPECT_EQ(position(nullptr, ""), 0);
}

TEST(search_by_mac, ComparesExactly) {
    const lease_entry longer = record("1.1.1.1", "0011223344556");
    EXPECT_EQ(position(&longer, "00:11:22:33:44:55"), 0);
    const lease_entry shorter = record("1.1.1.1", "00112233445");
    EXPECT_EQ(position(&shorter, "00:11:22:33:44:55"), 0);
    EXPECT_EQ(position(&shorter, "00:11:22:33:44:5"), 1);
    const lease_entry lower_case = record("1.1.1.1", "aabbccddeeff");
    EXPECT_EQ(position(&lower_case, "aa:bb:cc:dd:ee:ff"), 0);
    const lease_entry full = record("1.1.1.1", "001122334455" + std::string(20, 'x'));
    EXPECT_EQ(position(&full, "00:11:22:33:44:55"), 0);
    const lease_entry empty = record("1.1.1.1", "");
    EXPECT_EQ(position(&empty, "00:11:22:33:44:55"), 0);
}

TEST(search_by_mac, DoesNotMatchAColonFormInTheRecord) {
    const lease_entry lease = record("1.1.1.1", "00:11:22:33:44:55");
    EXPECT_EQ(position(&lease, "00:11:22:33:44:55"), 0);
}

TEST(search_by_mac, ReadsNothingAfterTheTerminator) {
    const lease_entry entry = record("1.1.1.1", "001122334455");
    const std::string mac = "00:11:22:33:44:55";
    for (std::size_t length = 0; length <= mac.size(); ++length)
        EXPECT_EQ(position(&entry, mac.substr(0, length)), length == mac.size() ? 1 : 0);
    EXPECT_EQ(position(&entry, mac + std::string(3000, ':')), 1);
}

TEST(search_by_mac, FindsEveryNeighbourThatGetArpCacheListed) {
    in_private_root([] {
        const ReplacedTable table("arp");
        table.write(heading + line("1.1.1.1", mac_1) + line("2.2.2.2", mac_2) +
                    line("3.3.3.3", "fe:dc:ba:98:76:54"));
        lease_entry *head = nullptr;
        EXPECT_EQ(get_arp_cache("", &head), 3);
        EXPECT_EQ(position(head, mac_1), 1);
        EXPECT_EQ(position(head, mac_2), 2);
        EXPECT_EQ(position(head, "FE:DC:BA:98:76:54"), 3);
        free_leaselist(&head);
    });
}

// --- dump_macip ---

const std::string first_line = "dump mac ip\n";
const std::string last_line = "---------------------------\n";

TEST(dump_macip, PrintsOnlyTheFirstAndLastLineForAnEmptyList) {
    EXPECT_EQ(capture_stdout([] { dump_macip(nullptr); }), first_line + last_line);
}

TEST(dump_macip, PrintsALineForEachRecord) {
    lease_entry second = record("fe80::1%s%n", "00:11:22:33:44:56", "-12");
    lease_entry first = record("1.1.1.1", "001122334455");
    first.next = &second;
    std::strcpy(second.hostname, "host");
    std::strcpy(second.hwtype, "1");
    EXPECT_EQ(capture_stdout([&] { dump_macip(&first); }),
              first_line + "1.1.1.1\t001122334455\t\t\nfe80::1%s%n\t00:11:22:33:44:56\t-12\t\n" +
                  last_line);
}

TEST(dump_macip, PrintsAnUnterminatedFieldUpToItsEnd) {
    lease_entry entry =
        record(std::string(CORVEL_LEASE_IP_SIZE, 'i'), std::string(CORVEL_LEASE_MAC_SIZE, 'm'),
               std::string(CORVEL_LEASE_EXPIRES_SIZE, 'e'));
    std::strcpy(entry.hwtype, "1");
    std::strcpy(entry.hostname, "host");
    EXPECT_EQ(capture_stdout([&] { dump_macip(&entry); }),
              first_line + std::string(CORVEL_LEASE_IP_SIZE, 'i') + "\t" +
                  std::string(CORVEL_LEASE_MAC_SIZE, 'm') + "\t" +
                  std::string(CORVEL_LEASE_EXPIRES_SIZE, 'e') + "\t\n" + last_line);
}

} // namespace

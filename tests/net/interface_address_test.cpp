/* SPDX-License-Identifier: MIT */
#include <corvel.h>

#include "tests/net/fail_ioctl.h"
#include "tests/net/network.h"
#include "tests/net/random_tables.h"
#include "tests/support/descriptors.h"
#include "tests/support/guarded_memory.h"
#include "tests/support/output_capture.h"
#include "tests/support/private_root.h"
#include "tests/support/stand_in.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <net/if_arp.h>
#include <ostream>
#include <string>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace {

using namespace corvel_test;
using namespace std::string_literals;

constexpr std::array<unsigned, 9> all_selectors = {CORVEL_ADDRESS_IPV4,
                                                   CORVEL_ADDRESS_NETMASK,
                                                   2U,
                                                   CORVEL_ADDRESS_HARDWARE,
                                                   CORVEL_ADDRESS_IPV6,
                                                   5U,
                                                   6U,
                                                   0x80000000U,
                                                   UINT_MAX};

constexpr std::array<unsigned, 7> other_selectors = {2U, 5U, 6U, 255U, 256U, 0x80000000U, UINT_MAX};

/** A name of the maximum length of an interface name. */
const std::string longest_name = "abcdefghijklmno";

struct Found {
    int result;
    std::string bytes;
    bool operator==(const Found &) const = default;
    friend std::ostream &operator<<(std::ostream &out, const Found &found) {
        return out << found.result << ' ' << testing::PrintToString(found.bytes);
    }
};

const Found nothing = {0, std::string(CORVEL_ADDRESS_SIZE, '#')};

/** The result of getInAddr() and its buffer, which is initially filled with '#'. */
Found address_of(const char *name, unsigned selector) {
    GuardedInput input;
    const GuardedOutput address(CORVEL_ADDRESS_SIZE);
    const char *const ifname = name == nullptr ? nullptr : input.hold(name);
    const DescriptorWatch watch;
    const int result = getInAddr(ifname, selector, address.start());
    EXPECT_TRUE(address.preceding_bytes_intact());
    return {result, address.bytes()};
}

/** An address of four bytes, found. */
Found ipv4(const std::string &bytes) { return {1, bytes + std::string(12, '#')}; }

/** An IPv6 address and the result, which is its prefix length. */
Found ipv6(int result, const std::string &address) {
    std::string bytes(CORVEL_ADDRESS_SIZE, '\0');
    if (inet_pton(AF_INET6, address.c_str(), bytes.data()) != 1)
        ADD_FAILURE() << address;
    return {result, bytes};
}

/** The address family at the start of a hardware address. */
unsigned family_of(const Found &found) {
    std::uint16_t family = 0;
    std::memcpy(&family, found.bytes.data(), sizeof family);
    return family;
}

std::string colon_form_of(const char *name) {
    GuardedInput input;
    const GuardedOutput out(CORVEL_MAC_SIZE);
    const char *const ifname = name == nullptr ? nullptr : input.hold(name);
    const DescriptorWatch watch;
    EXPECT_EQ(getHWaddr(ifname, out.start()), out.start());
    EXPECT_TRUE(out.preceding_bytes_intact());
    return out.start();
}

std::string stripped_form_of(const char *name) {
    GuardedInput input;
    const GuardedOutput out(CORVEL_MAC_STRIPPED_SIZE);
    const char *const ifname = name == nullptr ? nullptr : input.hold(name);
    const DescriptorWatch watch;
    EXPECT_EQ(getHWaddr0(ifname, out.start()), out.start());
    EXPECT_TRUE(out.preceding_bytes_intact());
    return out.start();
}

/** What getHWip() prints to a buffer of @p size bytes. */
std::string text_of(const char *name, unsigned selector, int size = CORVEL_IPV6_SIZE) {
    GuardedInput input;
    const GuardedOutput out(static_cast<std::size_t>(size));
    const char *const ifname = name == nullptr ? nullptr : input.hold(name);
    const DescriptorWatch watch;
    EXPECT_EQ(getHWip(ifname, selector, out.start(), size), out.start());
    EXPECT_TRUE(out.preceding_bytes_intact());
    return out.start();
}

void expect_silence(const std::function<void()> &body) {
    const RecordSyslog log;
    EXPECT_EQ(capture_stdout(body), "");
    EXPECT_EQ(capture_stderr(body), "");
    EXPECT_TRUE(log.messages().empty());
}

/** Adds eth0 with an IPv4 address, and far0 without one. */
void add_ipv4_interface() {
    add_cable("eth0", "far0");
    ip("address add 192.168.129.254/20 dev eth0");
}

/** Adds eth0 and far0, each with a global IPv6 address, and eth0 with a link-local one too. */
void add_ipv6_interfaces() {
    add_cable("eth0", "far0");
    ip("-6 address add fe80::7/64 dev eth0 nodad");
    ip("-6 address add 2001:db8::12:3/64 dev eth0 nodad");
    ip("-6 address add fd00:1234:5678:9abc:def0:1234:5678:9abc/128 dev far0 nodad");
}

/** Adds eth0 with the given hardware address. */
void add_hardware(const std::string &mac) {
    add_cable("eth0", "far0");
    ip("link set eth0 address " + mac);
}

/** Adds eth0 with a second IPv4 address that is labelled eth0:1. */
void add_labelled_interface() {
    add_hardware("02:1a:2b:fc:80:09");
    ip("address add 10.0.0.1/24 dev eth0");
    ip("address add 172.16.0.9/12 dev eth0 label eth0:1");
    ip("-6 address add 2001:db8::1/64 dev eth0 nodad");
}

/** A line as the kernel prints it, with its newline. */
std::string line(const std::string &digits, const std::string &numbers, const std::string &name) {
    return digits + " " + numbers + " " + name + "\n";
}

const std::string digits_1 = "20010db8000000000000000000000001";
const std::string digits_2 = "20010db8000000000000000000000002";
const std::string global_numbers = "02 40 00 80";

// --- All four functions ---

struct AddressFunction {
    const char *function;
    /** Expects that the function finds no address, for any selector. */
    void (*expect_no_address)(const char *ifname);
    /** Calls the function with each selector. */
    void (*call)(const char *ifname);

    friend std::ostream &operator<<(std::ostream &out, const AddressFunction &parameter) {
        return out << parameter.function;
    }
};

constexpr AddressFunction address_functions[] = {
    {"getInAddr",
     [](const char *ifname) {
         for (const unsigned selector : all_selectors)
             EXPECT_EQ(address_of(ifname, selector), nothing) << selector;
     },
     [](const char *ifname) {
         unsigned char out[CORVEL_ADDRESS_SIZE];
         for (const unsigned selector : all_selectors)
             getInAddr(ifname, selector, out);
     }},
    {"getHWaddr", [](const char *ifname) { EXPECT_EQ(colon_form_of(ifname), "00:00:00:00:00:00"); },
     [](const char *ifname) {
         char out[CORVEL_MAC_SIZE];
         getHWaddr(ifname, out);
     }},
    {"getHWaddr0", [](const char *ifname) { EXPECT_EQ(stripped_form_of(ifname), "000000000000"); },
     [](const char *ifname) {
         char out[CORVEL_MAC_STRIPPED_SIZE];
         getHWaddr0(ifname, out);
     }},
    {"getHWip",
     [](const char *ifname) {
         for (const unsigned selector : all_selectors)
             EXPECT_EQ(text_of(ifname, selector),
                       selector == CORVEL_ADDRESS_IPV6 ? "::" : "0.0.0.0")
                 << selector;
     },
     [](const char *ifname) {
         char out[CORVEL_IPV6_SIZE];
         for (const unsigned selector : all_selectors)
             getHWip(ifname, selector, out, sizeof out);
     }}};

class AnyAddress : public testing::TestWithParam<AddressFunction> {
  protected:
    static void expect_none(const std::string &ifname) {
        SCOPED_TRACE(ifname);
        GetParam().expect_no_address(ifname.c_str());
    }
};

INSTANTIATE_TEST_SUITE_P(getInAddr, AnyAddress, testing::Values(address_functions[0]),
                         testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(getHWaddr, AnyAddress, testing::Values(address_functions[1]),
                         testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(getHWaddr0, AnyAddress, testing::Values(address_functions[2]),
                         testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(getHWip, AnyAddress, testing::Values(address_functions[3]),
                         testing::PrintToStringParamName());

TEST_P(AnyAddress, IsFoundOnlyForTheExactNameOfTheInterface) {
    in_private_root([] {
        add_cable("eth0", "eth0.1");
        ip("-6 address add 2001:db8::1/64 dev eth0.1 nodad");
        ip("address add 10.0.0.1/24 dev eth0.1");
        for (const char *name : {"eth0.", "eth0.11", "eth", "ETH0"})
            expect_none(name);
    });
}

TEST_P(AnyAddress, IsNotFoundForANameThatNoInterfaceHas) {
    in_private_root([] {
        for (const char *name : {"eth7", "", " lo", "lo ", "/", "%s%n", "\xFF\x80"})
            expect_none(name);
    });
}

TEST_P(AnyAddress, IsNotFoundForANameThatNoInterfaceCanHave) {
    in_private_root([] {
        add_cable(longest_name, "far0");
        ip("address add 10.0.0.1/24 dev " + longest_name);
        ip("-6 address add 2001:db8::1/64 dev " + longest_name + " nodad");
        for (const std::size_t more : {1U, 2U, 4U, 5U, 6U, 17U, 1000U, 4000U})
            expect_none(longest_name + std::string(more, 'p'));
        expect_none(longest_name + " ");
    });
}

TEST_P(AnyAddress, IsNotFoundForANullPointer) {
    in_private_root([] { GetParam().expect_no_address(nullptr); });
}

TEST_P(AnyAddress, IsNotFoundIfOnlyTheIpv6TableListsTheInterface) {
    in_private_root([] {
        const ReplacedTable table("if_inet6");
        table.write(line(digits_1, global_numbers, "eth7") +
                    line(digits_1, global_numbers, longest_name + "p"));
        expect_none("eth7");
        expect_none(longest_name + "p");
    });
}

TEST_P(AnyAddress, IsNotFoundWithoutASocket) {
    in_private_root([] {
        const DescriptorsLeft none(0);
        GetParam().expect_no_address("lo");
    });
}

TEST_P(AnyAddress, IsReadWithoutAMessage) {
    in_private_root([] {
        const auto call = [] {
            for (const char *name : {"lo", "eth7", static_cast<const char *>(nullptr)})
                GetParam().call(name);
        };
        expect_silence(call);
        const ReplacedTable table("if_inet6");
        table.remove();
        expect_silence(call);
        table.write("junk\n");
        expect_silence(call);
        expect_silence([&call] {
            const DescriptorsLeft none(0);
            call();
        });
    });
}

TEST_P(AnyAddress, IsReadWithoutAllocation) {
    in_private_root([] {
        const CountCalls allocations(call_allocation);
        GetParam().call("lo");
        EXPECT_EQ(allocations.count(), 0U);
    });
}

// --- getInAddr ---

TEST(getInAddr, FindsTheIpv4AddressAndItsNetmask) {
    in_private_root([] {
        add_ipv4_interface();
        EXPECT_EQ(address_of("eth0", CORVEL_ADDRESS_IPV4), ipv4("\xC0\xA8\x81\xFE"));
        EXPECT_EQ(address_of("eth0", CORVEL_ADDRESS_NETMASK), ipv4("\xFF\xFF\xF0\0"s));
        EXPECT_EQ(address_of("lo", CORVEL_ADDRESS_IPV4), ipv4("\x7F\0\0\x01"s));
        EXPECT_EQ(address_of("lo", CORVEL_ADDRESS_NETMASK), ipv4("\xFF\0\0\0"s));
        EXPECT_EQ(address_of("far0", CORVEL_ADDRESS_IPV4), nothing);
        EXPECT_EQ(address_of("far0", CORVEL_ADDRESS_NETMASK), nothing);
    });
}

TEST(getInAddr, FindsTheHardwareAddressAfterItsFamily) {
    in_private_root([] {
        add_hardware("02:1a:2b:fc:80:09");
        const Found found = address_of("eth0", CORVEL_ADDRESS_HARDWARE);
        EXPECT_EQ(found.result, 1);
        EXPECT_EQ(family_of(found), ARPHRD_ETHER);
        EXPECT_EQ(found.bytes.substr(2, CORVEL_MAC_BYTES), "\x02\x1A\x2B\xFC\x80\x09");
        EXPECT_EQ(found.bytes.find('#'), std::string::npos);
    });
}

TEST(getInAddr, FindsTheLoopbackFamilyOfLoopback) {
    in_private_root([] {
        const Found found = address_of("lo", CORVEL_ADDRESS_HARDWARE);
        EXPECT_EQ(found.result, 1);
        EXPECT_EQ(family_of(found), ARPHRD_LOOPBACK);
    });
}

TEST(getInAddr, FindsAddressesOfAnInterfaceThatIsDown) {
    in_private_root([] {
        add_cable("eth0", "far0");
        ip("link set eth0 down");
        ip("address add 10.1.2.3/30 dev eth0");
        EXPECT_EQ(address_of("eth0", CORVEL_ADDRESS_IPV4), ipv4("\x0A\x01\x02\x03"));
        EXPECT_EQ(address_of("eth0", CORVEL_ADDRESS_NETMASK), ipv4("\xFF\xFF\xFF\xFC"));
    });
}

TEST(getInAddr, FindsTheGlobalIpv6AddressAndReturnsItsPrefixLength) {
    in_private_root([] {
        add_ipv6_interfaces();
        EXPECT_EQ(address_of("eth0", CORVEL_ADDRESS_IPV6), ipv6(64, "2001:db8::12:3"));
        EXPECT_EQ(address_of("far0", CORVEL_ADDRESS_IPV6),
                  ipv6(128, "fd00:1234:5678:9abc:def0:1234:5678:9abc"));
    });
}

TEST(getInAddr, IgnoresIpv6AddressesOfASmallerScope) {
    in_private_root([] {
        add_cable("eth0", "far0");
        ip("-6 address add fe80::7/64 dev eth0 nodad");
        ip("-6 address add fec0::7/64 dev far0 nodad");
        ip("-6 address show >/tmp/addresses");
        for (const char *name : {"eth0", "far0", "lo"})
            EXPECT_EQ(address_of(name, CORVEL_ADDRESS_IPV6), nothing) << name;
        // The interfaces do have these addresses.
        const std::string addresses = read_file("/tmp/addresses");
        for (const char *address : {"::1/128", "fe80::7/64", "fec0::7/64"})
            EXPECT_NE(addresses.find(address), std::string::npos) << address;
    });
}

TEST(getInAddr, FindsNothingForAnyOtherSelector) {
    in_private_root([] {
        for (const unsigned selector : other_selectors)
            EXPECT_EQ(address_of("lo", selector), nothing) << selector;
    });
}

TEST(getInAddr, FindsNoIpv6AddressIfTheTableCannotBeOpened) {
    in_private_root([] {
        ip("-6 address add 2001:db8::1/64 dev lo nodad");
        EXPECT_EQ(text_of("lo", CORVEL_ADDRESS_IPV6), "2001:db8::1/64");
        const DescriptorsLeft one(1);
        EXPECT_EQ(address_of("lo", CORVEL_ADDRESS_IPV6), nothing);
        EXPECT_EQ(address_of("lo", CORVEL_ADDRESS_IPV4), ipv4("\x7F\0\0\x01"s));
    });
}

TEST(getInAddr, FindsNothingIfTheKernelRefusesARequest) {
    in_private_root([] {
        add_cable("eth0", "far0");
        ip("address add 10.0.0.1/24 dev eth0");
        ip("-6 address add 2001:db8::1/64 dev eth0 nodad");
        for (const int request : {SIOCGIFFLAGS, SIOCGIFADDR, SIOCGIFNETMASK, SIOCGIFHWADDR}) {
            const FailIoctl refusal(request);
            const bool all = request == SIOCGIFFLAGS;
            EXPECT_EQ(address_of("eth0", CORVEL_ADDRESS_IPV4) == nothing,
                      all || request == SIOCGIFADDR);
            EXPECT_EQ(address_of("eth0", CORVEL_ADDRESS_NETMASK) == nothing,
                      all || request == SIOCGIFNETMASK);
            EXPECT_EQ(address_of("eth0", CORVEL_ADDRESS_HARDWARE) == nothing,
                      all || request == SIOCGIFHWADDR);
            EXPECT_EQ(address_of("eth0", CORVEL_ADDRESS_IPV6) == nothing, all);
        }
    });
}

TEST(getInAddr, FindsTheFirstGlobalAddressOfTheInterface) {
    in_private_root([] {
        const ReplacedTable table("if_inet6");
        table.write(line("fe800000000000000000000000000001", "01 40 20 80", "      lo") +
                    line(digits_2, global_numbers, "     lo2") +
                    line(digits_1, "01 30 00 80", "      lo") +
                    line(digits_2, global_numbers, "      lo"));
        EXPECT_EQ(address_of("lo", CORVEL_ADDRESS_IPV6), ipv6(48, "2001:db8::1"));
    });
}

TEST(getInAddr, TakesAnAddressAsGlobalIfTheHighDigitOfItsScopeIsZero) {
    in_private_root([] {
        const ReplacedTable table("if_inet6");
        for (unsigned scope = 0; scope < 256; ++scope) {
            char numbers[32];
            std::snprintf(numbers, sizeof numbers, "01 40 %02x 80", scope);
            table.write(line(digits_1, numbers, "lo"));
            EXPECT_EQ(address_of("lo", CORVEL_ADDRESS_IPV6),
                      scope < 16 ? ipv6(64, "2001:db8::1") : nothing)
                << scope;
        }
    });
}

TEST(getInAddr, AcceptsPrefixLengthsUpTo128) {
    in_private_root([] {
        const ReplacedTable table("if_inet6");
        for (int length = 0; length <= 255; ++length) {
            char numbers[32];
            std::snprintf(numbers, sizeof numbers, "01 %02x 00 80", static_cast<unsigned>(length));
            table.write(line(digits_1, numbers, "lo"));
            EXPECT_EQ(address_of("lo", CORVEL_ADDRESS_IPV6),
                      length <= 128 ? ipv6(length, "2001:db8::1") : nothing);
        }
    });
}

TEST(getInAddr, StopsAtAPrefixLengthOfZero) {
    in_private_root([] {
        const ReplacedTable table("if_inet6");
        table.write(line(digits_1, "02 00 00 80", "lo") + line(digits_2, global_numbers, "lo"));
        EXPECT_EQ(address_of("lo", CORVEL_ADDRESS_IPV6), ipv6(0, "2001:db8::1"));
    });
}

TEST(getInAddr, AcceptsUpperCaseDigitsTabsAndMoreSpaces) {
    in_private_root([] {
        const ReplacedTable table("if_inet6");
        table.write("  20010DB80000000000000000ABCDEFAB\t0000002  40 00   80\t\tlo  \n");
        EXPECT_EQ(address_of("lo", CORVEL_ADDRESS_IPV6), ipv6(64, "2001:db8::abcd:efab"));
    });
}

TEST(getInAddr, AcceptsATableWithoutAFinalNewline) {
    in_private_root([] {
        const ReplacedTable table("if_inet6");
        table.write("20010db8000000000000000000000001 02 40 00 80 lo");
        EXPECT_EQ(address_of("lo", CORVEL_ADDRESS_IPV6), ipv6(64, "2001:db8::1"));
    });
}

TEST(getInAddr, AcceptsInterfaceIndicesOfEightDigits) {
    in_private_root([] {
        const ReplacedTable table("if_inet6");
        table.write(line(digits_1, "7fffffff 40 00 80", "lo"));
        EXPECT_EQ(address_of("lo", CORVEL_ADDRESS_IPV6), ipv6(64, "2001:db8::1"));
    });
}

TEST(getInAddr, SkipsMalformedLinesOfTheTable) {
    in_private_root([] {
        const ReplacedTable table("if_inet6");
        for (const std::string &bad :
             {"\n"s,
              " \n"s,
              "lo\n"s,
              std::string(100, 'f') + "\n",
              line(digits_1, "", "lo"),
              line(digits_1, "02 40 00", "lo"),
              line(digits_1, "02 40 zz 80", "lo"),
              line(digits_1, "02 zz 00 80", "lo"),
              line(digits_1, "zz 40 00 80", "lo"),
              line(digits_1, "02 40 00 zz", "lo"),
              line(digits_1, "- 40 00 80", "lo"),
              line(digits_1, "02 - 00 80", "lo"),
              line(digits_1, "02 40 - 80", "lo"),
              line(digits_1, "02 40 00 -", "lo"),
              line(digits_1, global_numbers, ""),
              line(digits_1 + "0", global_numbers, "lo"),
              line(digits_1.substr(1), global_numbers, "lo"),
              line("g" + digits_1.substr(1), global_numbers, "lo"),
              line(digits_1.substr(1) + "g", global_numbers, "lo"),
              line(digits_1 + " x", global_numbers, "lo"),
              line("2001:0db8:0000:0000:0000:0000:0000:0001", global_numbers, "lo"),
              line(digits_1, global_numbers, std::string(21, 'x')),
              line(digits_1, global_numbers, "l\0o"s),
              "\0"s + line(digits_1, global_numbers, "lo"),
              line(digits_1, global_numbers, std::string(2000, 'x')),
              line(std::string(2000, 'f'), global_numbers, "x"),
              line(digits_1, global_numbers, "x") + std::string(5000, '\0') + "\n",
              std::string(1023, ' ') + "\n"}) {
            table.write(bad);
            EXPECT_EQ(address_of("lo", CORVEL_ADDRESS_IPV6), nothing) << bad;
            table.write(bad + line(digits_2, global_numbers, "lo"));
            EXPECT_EQ(address_of("lo", CORVEL_ADDRESS_IPV6), ipv6(64, "2001:db8::2")) << bad;
        }
    });
}

TEST(getInAddr, ReadsTheTableInPiecesOf1023Characters) {
    in_private_root([] {
        const ReplacedTable table("if_inet6");
        const std::string entry = line(digits_2, global_numbers, "lo");
        for (const std::size_t length : {1000U, 1021U, 1022U, 1023U, 1024U, 1025U, 2046U, 4096U}) {
            // The entry is read as a line of its own only at the start of a piece.
            table.write(std::string(length, 'x') + entry);
            EXPECT_EQ(address_of("lo", CORVEL_ADDRESS_IPV6),
                      length % 1023 == 0 ? ipv6(64, "2001:db8::2") : nothing)
                << length;
            table.write(std::string(length, ' ') + entry);
            const std::size_t left = 1023 - length % 1023;
            EXPECT_EQ(address_of("lo", CORVEL_ADDRESS_IPV6),
                      left >= entry.size() - 1 ? ipv6(64, "2001:db8::2") : nothing)
                << length;
        }
    });
}

TEST(getInAddr, FindsNoIpv6AddressInAnUnusableTable) {
    in_private_root([] {
        const ReplacedTable table("if_inet6");
        const auto expect_nothing = [] {
            EXPECT_EQ(address_of("lo", CORVEL_ADDRESS_IPV6), nothing);
        };
        table.write("");
        expect_nothing();
        table.remove();
        expect_nothing();
        table.replace_by_directory();
        expect_nothing();
        table.remove();
        table.write(line(digits_1, global_numbers, "lo"));
        EXPECT_EQ(address_of("lo", CORVEL_ADDRESS_IPV6).result, 64);
        const FailCall unreadable(call_read, 1, EIO, FailCall::from_then_on);
        expect_nothing();
    });
}

/** What a model based on scanf() finds. */
Found expected_of(const std::string &path, const std::string &interface) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE *)> file(std::fopen(path.c_str(), "r"),
                                                                std::fclose);
    char text[1024];
    while (std::fgets(text, sizeof text, file.get()) != nullptr) {
        char group[8][5];
        char name[21];
        unsigned index = 0, prefix_length = 0, scope = 0, flags = 0;
        if (std::sscanf(text, "%4s%4s%4s%4s%4s%4s%4s%4s %08x %02x %02x %02x %20s\n", group[0],
                        group[1], group[2], group[3], group[4], group[5], group[6], group[7],
                        &index, &prefix_length, &scope, &flags, name) != 13)
            continue;
        if (name != interface || (scope & 0xF0) != 0)
            continue;
        std::string address;
        for (const char *digits : group)
            address += (address.empty() ? "" : ":") + std::string(digits);
        return ipv6(static_cast<int>(prefix_length), address);
    }
    return nothing;
}

/** The words of a line of the table, sometimes of a malformed one. */
Words words_of_a_line(RandomTables &random) {
    const auto hex = [&random](unsigned below) {
        char text[16];
        std::snprintf(text, sizeof text, "%02x", random.number(below));
        return std::string(text);
    };
    std::string digits(32, '0');
    for (char &digit : digits)
        digit = "0123456789abcdef"[random.number(16)];
    Words words = {digits,   hex(0x7fffffff),
                   hex(129), random.number(4) == 0 ? hex(16) : hex(256),
                   hex(256), random.one_of({"lo", "lo2", "l", "eth0", "lo.1", "LO"})};
    if (random.number(4) == 0)
        words[random.number(5)] = "zz" + std::string(random.number(20), 'x');
    if (random.number(8) == 0)
        words.resize(random.number(words.size()));
    if (random.number(8) == 0)
        words.emplace_back("more");
    return words;
}

TEST(getInAddr, AgreesWithScanfOnAnyTable) {
    in_private_root([] {
        const ReplacedTable table("if_inet6");
        RandomTables random(6);
        for (int round = 0; round < 1000; ++round) {
            const std::string text = random.table_of(words_of_a_line);
            table.write(text);
            ASSERT_EQ(address_of("lo", CORVEL_ADDRESS_IPV6),
                      expected_of("/proc/net/if_inet6", "lo"))
                << text;
        }
    });
}

TEST(getInAddr, ReachesTheEndOfAnyTable) {
    in_private_root([] {
        const ReplacedTable table("if_inet6");
        const std::string noise = RandomTables(66).noise();
        table.write(noise);
        EXPECT_EQ(address_of("lo", CORVEL_ADDRESS_IPV6), nothing);
        table.write(noise + line(digits_2, global_numbers, "lo"));
        EXPECT_EQ(address_of("lo", CORVEL_ADDRESS_IPV6), ipv6(64, "2001:db8::2"));
    });
}

// --- getHWaddr and getHWaddr0 ---

struct HardwareFunction {
    const char *function;
    std::string (*address_of)(const char *ifname);
    const char *separator;

    friend std::ostream &operator<<(std::ostream &out, const HardwareFunction &parameter) {
        return out << parameter.function;
    }
};

class HardwareAddress : public testing::TestWithParam<HardwareFunction> {
  protected:
    /** Expects the address that has these digits, in the form that the function prints. */
    static void expect(const char *ifname, const std::string &digits) {
        EXPECT_EQ(GetParam().address_of(ifname), form_of(digits));
    }
    static std::string form_of(const std::string &digits) {
        std::string form = digits.substr(0, 2);
        for (std::size_t at = 2; at < digits.size(); at += 2)
            form += GetParam().separator + digits.substr(at, 2);
        return form;
    }
};

INSTANTIATE_TEST_SUITE_P(getHWaddr, HardwareAddress,
                         testing::Values(HardwareFunction{"getHWaddr", colon_form_of, ":"}),
                         testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(getHWaddr0, HardwareAddress,
                         testing::Values(HardwareFunction{"getHWaddr0", stripped_form_of, ""}),
                         testing::PrintToStringParamName());

TEST_P(HardwareAddress, IsPrintedInUpperCase) {
    in_private_root([] {
        add_hardware("02:1a:2b:fc:80:09");
        expect("eth0", "021A2BFC8009");
    });
}

TEST_P(HardwareAddress, IsTheOneThatTheKernelChose) {
    in_private_root([] {
        add_cable("eth0", "far0");
        ip("-o link show dev far0 >/tmp/far0");
        std::string shown = colon_form_of("far0");
        EXPECT_NE(shown, "00:00:00:00:00:00");
        std::string digits = shown;
        std::erase(digits, ':');
        expect("far0", digits);
        std::transform(shown.begin(), shown.end(), shown.begin(), [](char digit) {
            return digit >= 'A' && digit <= 'F' ? static_cast<char>(digit + 32) : digit;
        });
        EXPECT_NE(read_file("/tmp/far0").find("link/ether " + shown + " "), std::string::npos);
    });
}

TEST_P(HardwareAddress, IsZeroForLoopback) {
    in_private_root([] { expect("lo", "000000000000"); });
}

TEST_P(HardwareAddress, IsPrintedForAnInterfaceThatIsDown) {
    in_private_root([] {
        add_hardware("02:00:00:00:00:01");
        ip("link set eth0 down");
        expect("eth0", "020000000001");
    });
}

TEST_P(HardwareAddress, OfALabelIsThatOfItsInterface) {
    in_private_root([] {
        add_labelled_interface();
        expect("eth0:1", "021A2BFC8009");
    });
}

TEST_P(HardwareAddress, IsZeroIfTheKernelRefusesARequest) {
    in_private_root([] {
        add_hardware("02:1a:2b:fc:80:09");
        for (const int request : {SIOCGIFFLAGS, SIOCGIFADDR, SIOCGIFNETMASK, SIOCGIFHWADDR}) {
            const FailIoctl refusal(request);
            const bool refused = request == SIOCGIFFLAGS || request == SIOCGIFHWADDR;
            expect("eth0", refused ? "000000000000" : "021A2BFC8009");
        }
    });
}

// --- getHWip ---

TEST(getHWip, PrintsTheIpv4AddressAndItsNetmask) {
    in_private_root([] {
        add_ipv4_interface();
        EXPECT_EQ(text_of("eth0", CORVEL_ADDRESS_IPV4), "192.168.129.254");
        EXPECT_EQ(text_of("eth0", CORVEL_ADDRESS_NETMASK), "255.255.240.0");
        EXPECT_EQ(text_of("far0", CORVEL_ADDRESS_IPV4), "0.0.0.0");
        EXPECT_EQ(text_of("far0", CORVEL_ADDRESS_NETMASK), "0.0.0.0");
    });
}

TEST(getHWip, PrintsTheGlobalIpv6AddressAndItsPrefixLength) {
    in_private_root([] {
        add_ipv6_interfaces();
        EXPECT_EQ(text_of("eth0", CORVEL_ADDRESS_IPV6), "2001:db8::12:3/64");
        EXPECT_EQ(text_of("far0", CORVEL_ADDRESS_IPV6),
                  "fd00:1234:5678:9abc:def0:1234:5678:9abc/128");
    });
}

TEST(getHWip, PrintsNoIpv6AddressOfASmallerScope) {
    in_private_root([] {
        add_cable("eth0", "far0");
        ip("-6 address add fe80::7/64 dev eth0 nodad");
        ip("-6 address add fec0::7/64 dev far0 nodad");
        for (const char *name : {"eth0", "far0", "lo"})
            EXPECT_EQ(text_of(name, CORVEL_ADDRESS_IPV6), "::") << name;
    });
}

TEST(getHWip, PrintsTheAddressOfExactlyTheNamedInterface) {
    in_private_root([] {
        add_cable("eth0", "eth0.1");
        ip("-6 address add 2001:db8::1/64 dev eth0.1 nodad");
        ip("address add 10.0.0.1/24 dev eth0.1");
        EXPECT_EQ(text_of("eth0", CORVEL_ADDRESS_IPV6), "::");
        EXPECT_EQ(text_of("eth0", CORVEL_ADDRESS_IPV4), "0.0.0.0");
        EXPECT_EQ(text_of("eth0.1", CORVEL_ADDRESS_IPV6), "2001:db8::1/64");
        EXPECT_EQ(text_of("eth0.1", CORVEL_ADDRESS_IPV4), "10.0.0.1");
    });
}

TEST(getHWip, AcceptsNamesWithUnusualCharacters) {
    in_private_root([] {
        for (const std::string name : {"br-lan", "0", "wan_#1@x", "\xE9t\xE9"}) {
            add_cable(name, "far0");
            ip("address add 10.0.0.1/24 dev " + name);
            ip("-6 address add 2001:db8::1/64 dev " + name + " nodad");
            EXPECT_EQ(text_of(name.c_str(), CORVEL_ADDRESS_IPV4), "10.0.0.1") << name;
            EXPECT_EQ(text_of(name.c_str(), CORVEL_ADDRESS_IPV6), "2001:db8::1/64") << name;
            ip("link delete " + name);
        }
    });
}

TEST(getHWip, AcceptsTheLongestName) {
    in_private_root([] {
        add_cable(longest_name, "far0");
        ip("address add 10.0.0.1/24 dev " + longest_name);
        ip("-6 address add 2001:db8::1/64 dev " + longest_name + " nodad");
        EXPECT_EQ(text_of(longest_name.c_str(), CORVEL_ADDRESS_IPV4), "10.0.0.1");
        EXPECT_EQ(text_of(longest_name.c_str(), CORVEL_ADDRESS_IPV6), "2001:db8::1/64");
    });
}

TEST(getHWip, PrintsTheIpv4AddressThatHasTheLabel) {
    in_private_root([] {
        add_labelled_interface();
        EXPECT_EQ(text_of("eth0:1", CORVEL_ADDRESS_IPV4), "172.16.0.9");
        EXPECT_EQ(text_of("eth0:1", CORVEL_ADDRESS_NETMASK), "255.240.0.0");
        EXPECT_EQ(text_of("eth0:1", CORVEL_ADDRESS_IPV6), "::");
        EXPECT_EQ(text_of("eth0", CORVEL_ADDRESS_IPV4), "10.0.0.1");
    });
}

TEST(getHWip, PrintsZerosForAnyOtherSelector) {
    in_private_root([] {
        for (const unsigned selector : other_selectors)
            EXPECT_EQ(text_of("lo", selector), "0.0.0.0") << selector;
    });
}

TEST(getHWip, PrintsTheFirstFourBytesOfAHardwareAddress) {
    in_private_root([] {
        add_hardware("02:c8:00:00:00:01");
        const std::string bytes = address_of("eth0", CORVEL_ADDRESS_HARDWARE).bytes;
        std::string expected;
        for (std::size_t i = 0; i < 4; ++i)
            expected += (i == 0 ? "" : ".") + std::to_string(static_cast<unsigned char>(bytes[i]));
        EXPECT_EQ(text_of("eth0", CORVEL_ADDRESS_HARDWARE), expected);
        EXPECT_EQ(expected.substr(3), ".2.200");
    });
}

TEST(getHWip, TruncatesTheAddressToTheBuffer) {
    in_private_root([] {
        add_ipv4_interface();
        const std::string whole = "192.168.129.254";
        for (int size = 1; size < 20; ++size) {
            const auto bytes = static_cast<std::size_t>(size);
            EXPECT_EQ(text_of("eth0", CORVEL_ADDRESS_IPV4, size), whole.substr(0, bytes - 1));
            EXPECT_EQ(text_of("far0", CORVEL_ADDRESS_IPV4, size), "0.0.0.0"s.substr(0, bytes - 1));
            EXPECT_EQ(text_of("far0", CORVEL_ADDRESS_IPV6, size), "::"s.substr(0, bytes - 1));
        }
    });
}

TEST(getHWip, WritesNothingIfTheSizeIsNotPositive) {
    in_private_root([] {
        for (const int size : {0, -1, -4, INT_MIN}) {
            for (const unsigned selector : all_selectors) {
                char out[] = "unchanged";
                EXPECT_EQ(getHWip("lo", selector, out, size), out);
                EXPECT_STREQ(out, "unchanged");
            }
        }
    });
}

TEST(getHWip, PrintsPrefixLengthsFrom1To128) {
    in_private_root([] {
        const ReplacedTable table("if_inet6");
        for (int length = 0; length <= 255; ++length) {
            char numbers[32];
            std::snprintf(numbers, sizeof numbers, "01 %02x 00 80", static_cast<unsigned>(length));
            table.write(line(digits_2, global_numbers, "     lo2") + line(digits_1, numbers, "lo") +
                        line(digits_2, global_numbers, "lo2"));
            EXPECT_EQ(text_of("lo", CORVEL_ADDRESS_IPV6),
                      length > 0 && length <= 128 ? "2001:db8::1/" + std::to_string(length) : "::");
        }
        // An address with a prefix length of 0 is not printed, and no later one is sought.
        table.write(line(digits_1, "02 00 00 80", "lo") + line(digits_2, global_numbers, "lo"));
        EXPECT_EQ(text_of("lo", CORVEL_ADDRESS_IPV6), "::");
    });
}

TEST(getHWip, PrintsNoIpv6AddressFromAnUnusableTable) {
    in_private_root([] {
        const ReplacedTable table("if_inet6");
        const auto expect_nothing = [] {
            EXPECT_EQ(text_of("lo", CORVEL_ADDRESS_IPV6), "::");
        };
        table.write("");
        expect_nothing();
        table.remove();
        expect_nothing();
        table.replace_by_directory();
        expect_nothing();
        table.remove();
        table.write(line(digits_1, global_numbers, "lo"));
        EXPECT_EQ(text_of("lo", CORVEL_ADDRESS_IPV6), "2001:db8::1/64");
        const FailCall unreadable(call_read, 1, EIO, FailCall::from_then_on);
        expect_nothing();
    });
}

/** The address and prefix length in a buffer of @p size bytes, of which the prefix length uses at
 * most @p size - 4. */
std::string truncated(const std::string &address, const std::string &prefix, std::size_t size) {
    if (address.size() + 1 > size)
        return "::"s.substr(0, size - 1);
    const std::size_t room = std::min(size - address.size(), size > 4 ? size - 4 : 0);
    return address + (room == 0 ? "" : prefix.substr(0, room - 1));
}

TEST(getHWip, TruncatesAnIpv6AddressAndItsPrefixLength) {
    in_private_root([] {
        const ReplacedTable table("if_inet6");
        struct {
            std::string digits;
            std::string address;
        } const samples[] = {{"00000000000000000000000000000001", "::1"},
                             {std::string(32, '0'), "::"},
                             {digits_1, "2001:db8::1"},
                             {std::string(32, 'f'), "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"}};
        for (const auto &sample : samples) {
            table.write(line(sample.digits, "01 80 00 80", "lo"));
            for (int size = 1; size < 64; ++size)
                EXPECT_EQ(text_of("lo", CORVEL_ADDRESS_IPV6, size),
                          truncated(sample.address, "/128", static_cast<std::size_t>(size)))
                    << size;
        }
        table.write(line("00000000000000000000000000000001", "01 80 00 80", "lo"));
        EXPECT_EQ(text_of("lo", CORVEL_ADDRESS_IPV6, 8), "::1/12");
        EXPECT_EQ(text_of("lo", CORVEL_ADDRESS_IPV6, 9), "::1/128");
    });
}

TEST(getHWip, PrintsAnIpv6AddressInItsShortForm) {
    in_private_root([] {
        const ReplacedTable table("if_inet6");
        const struct {
            std::string digits;
            std::string address;
        } samples[] = {{"20010db8000000010000000000000001", "2001:db8:0:1::1"},
                       {"20010db8000000000001000000000001", "2001:db8::1:0:0:1"},
                       {"20010db8000000000000000000000000", "2001:db8::"},
                       {"00000000000000000000ffffc0a801fe", "::ffff:192.168.1.254"},
                       {"20010db80a0b0c0d00e0f00000100abc", "2001:db8:a0b:c0d:e0:f000:10:abc"}};
        for (const auto &sample : samples) {
            table.write(line(sample.digits, global_numbers, "lo"));
            EXPECT_EQ(text_of("lo", CORVEL_ADDRESS_IPV6), sample.address + "/64");
        }
    });
}

} // namespace

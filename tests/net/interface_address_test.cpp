/* SPDX-License-Identifier: MIT */
#include <corvel.h>

#include "tests/net/fail_ioctl.h"
#include "tests/net/network.h"
#include "tests/net/random_tables.h"
#include "tests/support/descriptors.h"
#include "tests/support/fenced.h"
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

/** The longest name that an interface can have. */
const std::string longest_name = "abcdefghijklmno";

struct Answer {
    int result;
    std::string bytes;
    bool operator==(const Answer &) const = default;
    friend std::ostream &operator<<(std::ostream &out, const Answer &answer) {
        return out << answer.result << ' ' << testing::PrintToString(answer.bytes);
    }
};

const Answer nothing = {0, std::string(16, '#')};

/** What is answered, in a buffer of 16 bytes that was filled with '#'. */
Answer ask(const std::string &name, unsigned selector) {
    FencedText text;
    const FencedRoom result(16);
    const char *const ifname = text.hold(name);
    const DescriptorWatch watch;
    const int found = getInAddr(ifname, selector, result.start());
    EXPECT_TRUE(result.front_is_intact());
    return {found, result.bytes()};
}

/** An answer of four bytes. */
Answer four(const std::string &bytes) { return {1, bytes + std::string(12, '#')}; }

Answer sixteen(int result, const std::string &address) {
    std::string bytes(16, '\0');
    if (inet_pton(AF_INET6, address.c_str(), bytes.data()) != 1)
        ADD_FAILURE() << address;
    return {result, bytes};
}

std::string mac_of(const char *name) {
    const FencedRoom out(18);
    const DescriptorWatch watch;
    EXPECT_EQ(getHWaddr(name, out.start()), out.start());
    EXPECT_TRUE(out.front_is_intact());
    return out.start();
}

std::string stripped_mac_of(const char *name) {
    const FencedRoom out(13);
    const DescriptorWatch watch;
    EXPECT_EQ(getHWaddr0(name, out.start()), out.start());
    EXPECT_TRUE(out.front_is_intact());
    return out.start();
}

/** An interface's address as text, in a buffer of @p size bytes. */
std::string text_of(const char *name, unsigned selector, int size = 64) {
    const FencedRoom out(static_cast<std::size_t>(size));
    const DescriptorWatch watch;
    EXPECT_EQ(getHWip(name, selector, out.start(), size), out.start());
    EXPECT_TRUE(out.front_is_intact());
    return out.start();
}

void expect_no_address_but_texts(const char *name) {
    EXPECT_EQ(mac_of(name), "00:00:00:00:00:00");
    EXPECT_EQ(stripped_mac_of(name), "000000000000");
    for (const unsigned selector : all_selectors)
        EXPECT_EQ(text_of(name, selector), selector == CORVEL_ADDRESS_IPV6 ? "::" : "0.0.0.0")
            << selector;
}

void expect_not_to_exist(const std::string &name) {
    for (const unsigned selector : all_selectors)
        EXPECT_EQ(ask(name, selector), nothing) << name << ' ' << selector;
    FencedText text;
    expect_no_address_but_texts(text.hold(name));
}

TEST(InterfaceAddress, IsTheIpv4AddressAndItsNetmask) {
    in_private_root([] {
        add_cable("eth0", "far0");
        ip("address add 192.168.129.254/20 dev eth0");
        EXPECT_EQ(ask("eth0", CORVEL_ADDRESS_IPV4), four("\xC0\xA8\x81\xFE"));
        EXPECT_EQ(ask("eth0", CORVEL_ADDRESS_NETMASK), four("\xFF\xFF\xF0\0"s));
        EXPECT_EQ(text_of("eth0", CORVEL_ADDRESS_IPV4), "192.168.129.254");
        EXPECT_EQ(text_of("eth0", CORVEL_ADDRESS_NETMASK), "255.255.240.0");
        EXPECT_EQ(ask("lo", CORVEL_ADDRESS_IPV4), four("\x7F\0\0\x01"s));
        EXPECT_EQ(ask("lo", CORVEL_ADDRESS_NETMASK), four("\xFF\0\0\0"s));
        EXPECT_EQ(ask("far0", CORVEL_ADDRESS_IPV4), nothing);
        EXPECT_EQ(ask("far0", CORVEL_ADDRESS_NETMASK), nothing);
        EXPECT_EQ(text_of("far0", CORVEL_ADDRESS_IPV4), "0.0.0.0");
        EXPECT_EQ(text_of("far0", CORVEL_ADDRESS_NETMASK), "0.0.0.0");
    });
}

TEST(InterfaceAddress, IsTheHardwareAddressBehindItsFamily) {
    in_private_root([] {
        add_cable("eth0", "far0");
        ip("link set eth0 address 02:1a:2b:fc:80:09");
        const Answer answer = ask("eth0", CORVEL_ADDRESS_HARDWARE);
        EXPECT_EQ(answer.result, 1);
        std::uint16_t family = 0;
        std::memcpy(&family, answer.bytes.data(), sizeof family);
        EXPECT_EQ(family, ARPHRD_ETHER);
        EXPECT_EQ(answer.bytes.substr(2, 6), "\x02\x1A\x2B\xFC\x80\x09");
        EXPECT_EQ(answer.bytes.find('#'), std::string::npos);
        EXPECT_EQ(mac_of("eth0"), "02:1A:2B:FC:80:09");
        EXPECT_EQ(stripped_mac_of("eth0"), "021A2BFC8009");
    });
}

TEST(InterfaceAddress, IsTheHardwareAddressThatTheKernelMadeUp) {
    in_private_root([] {
        add_cable("eth0", "far0");
        ip("-o link show dev far0 >/tmp/far0");
        std::string shown = mac_of("far0");
        EXPECT_NE(shown, "00:00:00:00:00:00");
        std::transform(shown.begin(), shown.end(), shown.begin(), [](char digit) {
            return digit >= 'A' && digit <= 'F' ? static_cast<char>(digit + 32) : digit;
        });
        EXPECT_NE(read_file("/tmp/far0").find("link/ether " + shown + " "), std::string::npos);
    });
}

TEST(InterfaceAddress, OfLoopbackHasAFamilyOfItsOwnAndNoHardware) {
    in_private_root([] {
        const Answer answer = ask("lo", CORVEL_ADDRESS_HARDWARE);
        EXPECT_EQ(answer.result, 1);
        std::uint16_t family = 0;
        std::memcpy(&family, answer.bytes.data(), sizeof family);
        EXPECT_EQ(family, ARPHRD_LOOPBACK);
        EXPECT_EQ(mac_of("lo"), "00:00:00:00:00:00");
        EXPECT_EQ(stripped_mac_of("lo"), "000000000000");
    });
}

TEST(InterfaceAddress, IsKnownOfAnInterfaceThatIsDown) {
    in_private_root([] {
        add_cable("eth0", "far0");
        ip("link set eth0 address 02:00:00:00:00:01");
        ip("link set eth0 down");
        ip("address add 10.1.2.3/30 dev eth0");
        EXPECT_EQ(ask("eth0", CORVEL_ADDRESS_IPV4), four("\x0A\x01\x02\x03"));
        EXPECT_EQ(ask("eth0", CORVEL_ADDRESS_NETMASK), four("\xFF\xFF\xFF\xFC"));
        EXPECT_EQ(mac_of("eth0"), "02:00:00:00:00:01");
    });
}

TEST(InterfaceAddress, IsTheGlobalIpv6AddressWithItsPrefixLength) {
    in_private_root([] {
        add_cable("eth0", "far0");
        ip("-6 address add fe80::7/64 dev eth0 nodad");
        ip("-6 address add 2001:db8::12:3/64 dev eth0 nodad");
        EXPECT_EQ(ask("eth0", CORVEL_ADDRESS_IPV6), sixteen(64, "2001:db8::12:3"));
        EXPECT_EQ(text_of("eth0", CORVEL_ADDRESS_IPV6), "2001:db8::12:3/64");
        ip("-6 address add fd00:1234:5678:9abc:def0:1234:5678:9abc/128 dev far0 nodad");
        EXPECT_EQ(ask("far0", CORVEL_ADDRESS_IPV6),
                  sixteen(128, "fd00:1234:5678:9abc:def0:1234:5678:9abc"));
        EXPECT_EQ(text_of("far0", CORVEL_ADDRESS_IPV6),
                  "fd00:1234:5678:9abc:def0:1234:5678:9abc/128");
    });
}

TEST(InterfaceAddress, IsNoIpv6AddressOfASmallerScope) {
    in_private_root([] {
        add_cable("eth0", "far0");
        ip("-6 address add fe80::7/64 dev eth0 nodad");
        ip("-6 address add fec0::7/64 dev far0 nodad");
        ip("-6 address show >/tmp/addresses");
        for (const char *name : {"eth0", "far0", "lo"}) {
            EXPECT_EQ(ask(name, CORVEL_ADDRESS_IPV6), nothing) << name;
            EXPECT_EQ(text_of(name, CORVEL_ADDRESS_IPV6), "::") << name;
        }
        // They are there.
        const std::string addresses = read_file("/tmp/addresses");
        for (const char *address : {"::1/128", "fe80::7/64", "fec0::7/64"})
            EXPECT_NE(addresses.find(address), std::string::npos) << address;
    });
}

TEST(InterfaceAddress, IsThatOfExactlyTheNamedInterface) {
    in_private_root([] {
        add_cable("eth0", "eth0.1");
        ip("-6 address add 2001:db8::1/64 dev eth0.1 nodad");
        ip("address add 10.0.0.1/24 dev eth0.1");
        EXPECT_EQ(text_of("eth0", CORVEL_ADDRESS_IPV6), "::");
        EXPECT_EQ(text_of("eth0", CORVEL_ADDRESS_IPV4), "0.0.0.0");
        EXPECT_EQ(text_of("eth0.1", CORVEL_ADDRESS_IPV6), "2001:db8::1/64");
        EXPECT_EQ(text_of("eth0.1", CORVEL_ADDRESS_IPV4), "10.0.0.1");
        expect_not_to_exist("eth0.");
        expect_not_to_exist("eth0.11");
        expect_not_to_exist("eth");
        expect_not_to_exist("ETH0");
    });
}

TEST(InterfaceAddress, DoesNotExistForANameThatNoInterfaceHas) {
    in_private_root([] {
        expect_not_to_exist("eth7");
        expect_not_to_exist("");
        expect_not_to_exist(" lo");
        expect_not_to_exist("lo ");
        expect_not_to_exist("/");
        expect_not_to_exist("%s%n");
        expect_not_to_exist("\xFF\x80");
    });
}

TEST(InterfaceAddress, DoesNotExistWithoutAName) {
    in_private_root([] {
        for (const unsigned selector : all_selectors) {
            const FencedRoom result(16);
            EXPECT_EQ(getInAddr(nullptr, selector, result.start()), 0) << selector;
            EXPECT_EQ(result.bytes(), nothing.bytes) << selector;
        }
        expect_no_address_but_texts(nullptr);
    });
}

TEST(InterfaceAddress, IsKnownForNamesOfUnusualCharacters) {
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

TEST(InterfaceAddress, OfALabelIsTheIpv4AddressThatHasIt) {
    in_private_root([] {
        add_cable("eth0", "far0");
        ip("link set eth0 address 02:1a:2b:fc:80:09");
        ip("address add 10.0.0.1/24 dev eth0");
        ip("address add 172.16.0.9/12 dev eth0 label eth0:1");
        ip("-6 address add 2001:db8::1/64 dev eth0 nodad");
        EXPECT_EQ(text_of("eth0:1", CORVEL_ADDRESS_IPV4), "172.16.0.9");
        EXPECT_EQ(text_of("eth0:1", CORVEL_ADDRESS_NETMASK), "255.240.0.0");
        EXPECT_EQ(mac_of("eth0:1"), "02:1A:2B:FC:80:09");
        EXPECT_EQ(text_of("eth0:1", CORVEL_ADDRESS_IPV6), "::");
        EXPECT_EQ(text_of("eth0", CORVEL_ADDRESS_IPV4), "10.0.0.1");
    });
}

TEST(InterfaceAddress, DoesNotExistForANameThatNoInterfaceCanHave) {
    in_private_root([] {
        add_cable(longest_name, "far0");
        ip("address add 10.0.0.1/24 dev " + longest_name);
        ip("-6 address add 2001:db8::1/64 dev " + longest_name + " nodad");
        EXPECT_EQ(text_of(longest_name.c_str(), CORVEL_ADDRESS_IPV4), "10.0.0.1");
        EXPECT_EQ(text_of(longest_name.c_str(), CORVEL_ADDRESS_IPV6), "2001:db8::1/64");
        for (const std::size_t more : {1U, 2U, 4U, 5U, 6U, 17U, 1000U, 4000U})
            expect_not_to_exist(longest_name + std::string(more, 'p'));
        expect_not_to_exist(longest_name + " ");
    });
}

TEST(InterfaceAddress, IsNoneForAnyOtherSelector) {
    in_private_root([] {
        for (const unsigned selector : {2U, 5U, 6U, 255U, 256U, 0x80000000U, UINT_MAX}) {
            EXPECT_EQ(ask("lo", selector), nothing) << selector;
            EXPECT_EQ(text_of("lo", selector), "0.0.0.0") << selector;
        }
    });
}

TEST(InterfaceAddress, IsPrintedAsFourNumbersForAHardwareAddressToo) {
    in_private_root([] {
        add_cable("eth0", "far0");
        ip("link set eth0 address 02:c8:00:00:00:01");
        const std::string bytes = ask("eth0", CORVEL_ADDRESS_HARDWARE).bytes;
        std::string expected;
        for (std::size_t i = 0; i < 4; ++i)
            expected += (i == 0 ? "" : ".") + std::to_string(static_cast<unsigned char>(bytes[i]));
        EXPECT_EQ(text_of("eth0", CORVEL_ADDRESS_HARDWARE), expected);
        EXPECT_EQ(expected.substr(3), ".2.200");
    });
}

TEST(InterfaceAddress, IsCutToFit) {
    in_private_root([] {
        add_cable("eth0", "far0");
        ip("address add 192.168.129.254/24 dev eth0");
        const std::string whole = "192.168.129.254";
        for (int size = 1; size < 20; ++size) {
            const auto bytes = static_cast<std::size_t>(size);
            EXPECT_EQ(text_of("eth0", CORVEL_ADDRESS_IPV4, size), whole.substr(0, bytes - 1));
            EXPECT_EQ(text_of("far0", CORVEL_ADDRESS_IPV4, size), "0.0.0.0"s.substr(0, bytes - 1));
            EXPECT_EQ(text_of("far0", CORVEL_ADDRESS_IPV6, size), "::"s.substr(0, bytes - 1));
        }
    });
}

TEST(InterfaceAddress, IsNotWrittenToABufferOfNoBytes) {
    in_private_root([] {
        for (const int size : {0, -1, -4, INT_MIN}) {
            for (const unsigned selector : all_selectors) {
                char out[] = "as it was";
                EXPECT_EQ(getHWip("lo", selector, out, size), out);
                EXPECT_STREQ(out, "as it was");
            }
        }
    });
}

void expect_silence(const std::function<void()> &body) {
    const RecordSyslog log;
    EXPECT_EQ(capture_stdout(body), "");
    EXPECT_EQ(capture_stderr(body), "");
    EXPECT_TRUE(log.messages().empty());
}

TEST(InterfaceAddress, PrintsAndLogsNothing) {
    in_private_root([] {
        const auto ask_for_all = [] {
            for (const char *name : {"lo", "eth7", static_cast<const char *>(nullptr)}) {
                for (const unsigned selector : all_selectors)
                    text_of(name, selector);
                mac_of(name);
                stripped_mac_of(name);
            }
        };
        expect_silence(ask_for_all);
        const OwnTable table("if_inet6");
        table.be_missing();
        expect_silence(ask_for_all);
        table.hold("junk\n");
        expect_silence(ask_for_all);
        expect_silence([&] {
            const DescriptorsLeft none(0);
            ask_for_all();
        });
    });
}

TEST(InterfaceAddress, IsNoneWithoutASocket) {
    in_private_root([] {
        const DescriptorsLeft none(0);
        for (const unsigned selector : all_selectors)
            EXPECT_EQ(ask("lo", selector), nothing) << selector;
        expect_no_address_but_texts("lo");
    });
}

TEST(InterfaceAddress, IsNoIpv6AddressWhereTheTableCannotBeOpened) {
    in_private_root([] {
        ip("-6 address add 2001:db8::1/64 dev lo nodad");
        EXPECT_EQ(text_of("lo", CORVEL_ADDRESS_IPV6), "2001:db8::1/64");
        const DescriptorsLeft one(1);
        EXPECT_EQ(ask("lo", CORVEL_ADDRESS_IPV6), nothing);
        EXPECT_EQ(ask("lo", CORVEL_ADDRESS_IPV4), four("\x7F\0\0\x01"s));
    });
}

TEST(InterfaceAddress, IsNoneWhereTheKernelRefuses) {
    in_private_root([] {
        add_cable("eth0", "far0");
        ip("address add 10.0.0.1/24 dev eth0");
        ip("-6 address add 2001:db8::1/64 dev eth0 nodad");
        for (const int request : {SIOCGIFFLAGS, SIOCGIFADDR, SIOCGIFNETMASK, SIOCGIFHWADDR}) {
            const FailIoctl refusal(request);
            const bool all = request == SIOCGIFFLAGS;
            EXPECT_EQ(ask("eth0", CORVEL_ADDRESS_IPV4) == nothing, all || request == SIOCGIFADDR);
            EXPECT_EQ(ask("eth0", CORVEL_ADDRESS_NETMASK) == nothing,
                      all || request == SIOCGIFNETMASK);
            EXPECT_EQ(ask("eth0", CORVEL_ADDRESS_HARDWARE) == nothing,
                      all || request == SIOCGIFHWADDR);
            EXPECT_EQ(ask("eth0", CORVEL_ADDRESS_IPV6) == nothing, all);
            EXPECT_EQ(mac_of("eth0") == "00:00:00:00:00:00", all || request == SIOCGIFHWADDR);
        }
    });
}

TEST(InterfaceAddress, AllocatesNothing) {
    in_private_root([] {
        char out[64];
        const CountCalls allocations(call_allocation);
        for (const unsigned selector : all_selectors)
            getHWip("lo", selector, out, sizeof out);
        getHWaddr("lo", out);
        getHWaddr0("lo", out);
        EXPECT_EQ(allocations.count(), 0U);
    });
}

/** A line as the kernel prints it, with its line end. */
std::string line(const std::string &digits, const std::string &numbers, const std::string &name) {
    return digits + " " + numbers + " " + name + "\n";
}

const std::string one = "20010db8000000000000000000000001";
const std::string two = "20010db8000000000000000000000002";
const std::string global = "02 40 00 80";

TEST(Ipv6Table, GivesItsFirstGlobalAddressOfTheInterface) {
    in_private_root([] {
        const OwnTable table("if_inet6");
        table.hold(line("fe800000000000000000000000000001", "01 40 20 80", "      lo") +
                   line(two, global, "     lo2") + line(one, "01 30 00 80", "      lo") +
                   line(two, global, "      lo"));
        EXPECT_EQ(ask("lo", CORVEL_ADDRESS_IPV6), sixteen(48, "2001:db8::1"));
        EXPECT_EQ(text_of("lo", CORVEL_ADDRESS_IPV6), "2001:db8::1/48");
    });
}

TEST(Ipv6Table, TellsAGlobalAddressByTheHighDigitOfItsScope) {
    in_private_root([] {
        const OwnTable table("if_inet6");
        for (unsigned scope = 0; scope < 256; ++scope) {
            char numbers[32];
            std::snprintf(numbers, sizeof numbers, "01 40 %02x 80", scope);
            table.hold(line(one, numbers, "lo"));
            EXPECT_EQ(ask("lo", CORVEL_ADDRESS_IPV6),
                      scope < 16 ? sixteen(64, "2001:db8::1") : nothing)
                << scope;
        }
    });
}

TEST(Ipv6Table, HoldsPrefixLengthsUpTo128) {
    in_private_root([] {
        const OwnTable table("if_inet6");
        for (int length = 0; length <= 255; ++length) {
            char numbers[32];
            std::snprintf(numbers, sizeof numbers, "01 %02x 00 80", static_cast<unsigned>(length));
            table.hold(line(one, numbers, "lo"));
            EXPECT_EQ(ask("lo", CORVEL_ADDRESS_IPV6),
                      length <= 128 ? sixteen(length, "2001:db8::1") : nothing);
            EXPECT_EQ(text_of("lo", CORVEL_ADDRESS_IPV6),
                      length > 0 && length <= 128 ? "2001:db8::1/" + std::to_string(length) : "::");
        }
    });
}

TEST(Ipv6Table, IsSearchedNoFurtherThanAPrefixLengthOfZero) {
    in_private_root([] {
        const OwnTable table("if_inet6");
        table.hold(line(one, "02 00 00 80", "lo") + line(two, global, "lo"));
        EXPECT_EQ(ask("lo", CORVEL_ADDRESS_IPV6), sixteen(0, "2001:db8::1"));
        EXPECT_EQ(text_of("lo", CORVEL_ADDRESS_IPV6), "::");
    });
}

TEST(Ipv6Table, MayHoldUpperCaseDigitsTabsAndMoreBlanks) {
    in_private_root([] {
        const OwnTable table("if_inet6");
        table.hold("  20010DB80000000000000000ABCDEFAB\t0000002  40 00   80\t\tlo  \n");
        EXPECT_EQ(ask("lo", CORVEL_ADDRESS_IPV6), sixteen(64, "2001:db8::abcd:efab"));
    });
}

TEST(Ipv6Table, MayEndWithoutALineEnd) {
    in_private_root([] {
        const OwnTable table("if_inet6");
        table.hold("20010db8000000000000000000000001 02 40 00 80 lo");
        EXPECT_EQ(ask("lo", CORVEL_ADDRESS_IPV6), sixteen(64, "2001:db8::1"));
    });
}

TEST(Ipv6Table, MayHoldInterfaceIndicesOfEightDigits) {
    in_private_root([] {
        const OwnTable table("if_inet6");
        table.hold(line(one, "7fffffff 40 00 80", "lo"));
        EXPECT_EQ(ask("lo", CORVEL_ADDRESS_IPV6), sixteen(64, "2001:db8::1"));
    });
}

TEST(Ipv6Table, IsSearchedBehindALineThatIsNone) {
    in_private_root([] {
        const OwnTable table("if_inet6");
        for (const std::string &bad :
             {"\n"s,
              " \n"s,
              "lo\n"s,
              std::string(100, 'f') + "\n",
              line(one, "", "lo"),
              line(one, "02 40 00", "lo"),
              line(one, "02 40 zz 80", "lo"),
              line(one, "02 zz 00 80", "lo"),
              line(one, "zz 40 00 80", "lo"),
              line(one, "02 40 00 zz", "lo"),
              line(one, "- 40 00 80", "lo"),
              line(one, "02 - 00 80", "lo"),
              line(one, "02 40 - 80", "lo"),
              line(one, "02 40 00 -", "lo"),
              line(one, global, ""),
              line(one + "0", global, "lo"),
              line(one.substr(1), global, "lo"),
              line("g" + one.substr(1), global, "lo"),
              line(one.substr(1) + "g", global, "lo"),
              line(one + " x", global, "lo"),
              line("2001:0db8:0000:0000:0000:0000:0000:0001", global, "lo"),
              line(one, global, std::string(21, 'x')),
              line(one, global, "l\0o"s),
              "\0"s + line(one, global, "lo"),
              line(one, global, std::string(2000, 'x')),
              line(std::string(2000, 'f'), global, "x"),
              line(one, global, "x") + std::string(5000, '\0') + "\n",
              std::string(1023, ' ') + "\n"}) {
            table.hold(bad);
            EXPECT_EQ(ask("lo", CORVEL_ADDRESS_IPV6), nothing) << bad;
            table.hold(bad + line(two, global, "lo"));
            EXPECT_EQ(ask("lo", CORVEL_ADDRESS_IPV6), sixteen(64, "2001:db8::2")) << bad;
        }
    });
}

TEST(Ipv6Table, IsReadInPiecesOf1023Characters) {
    in_private_root([] {
        const OwnTable table("if_inet6");
        const std::string entry = line(two, global, "lo");
        for (const std::size_t length : {1000U, 1021U, 1022U, 1023U, 1024U, 1025U, 2046U, 4096U}) {
            // The entry begins behind that many characters: only then does it stand alone.
            table.hold(std::string(length, 'x') + entry);
            EXPECT_EQ(ask("lo", CORVEL_ADDRESS_IPV6),
                      length % 1023 == 0 ? sixteen(64, "2001:db8::2") : nothing)
                << length;
            table.hold(std::string(length, ' ') + entry);
            const std::size_t left = 1023 - length % 1023;
            EXPECT_EQ(ask("lo", CORVEL_ADDRESS_IPV6),
                      left >= entry.size() - 1 ? sixteen(64, "2001:db8::2") : nothing)
                << length;
        }
    });
}

TEST(Ipv6Table, MayBeEmptyMissingAFolderOrUnreadable) {
    in_private_root([] {
        const OwnTable table("if_inet6");
        const auto expect_nothing = [] {
            EXPECT_EQ(ask("lo", CORVEL_ADDRESS_IPV6), nothing);
            EXPECT_EQ(text_of("lo", CORVEL_ADDRESS_IPV6), "::");
        };
        table.hold("");
        expect_nothing();
        table.be_missing();
        expect_nothing();
        table.be_a_folder();
        expect_nothing();
        table.be_missing();
        table.hold(line(one, global, "lo"));
        EXPECT_EQ(ask("lo", CORVEL_ADDRESS_IPV6).result, 64);
        const FailCall unreadable(call_read, 1, EIO, FailCall::from_then_on);
        expect_nothing();
    });
}

TEST(Ipv6Table, IsNotReadForAnInterfaceThatDoesNotExist) {
    in_private_root([] {
        const OwnTable table("if_inet6");
        table.hold(line(one, global, "eth7") + line(one, global, longest_name + "p"));
        expect_not_to_exist("eth7");
        expect_not_to_exist(longest_name + "p");
    });
}

/** Address and prefix length in a buffer of so many bytes, four of which the latter never uses. */
std::string cut(const std::string &address, const std::string &prefix, std::size_t size) {
    if (address.size() + 1 > size)
        return "::"s.substr(0, size - 1);
    const std::size_t room = std::min(size - address.size(), size > 4 ? size - 4 : 0);
    return address + (room == 0 ? "" : prefix.substr(0, room - 1));
}

TEST(Ipv6Table, GivesAnAddressThatIsCutToFit) {
    in_private_root([] {
        const OwnTable table("if_inet6");
        struct {
            std::string digits;
            std::string address;
        } const samples[] = {{"00000000000000000000000000000001", "::1"},
                             {std::string(32, '0'), "::"},
                             {one, "2001:db8::1"},
                             {std::string(32, 'f'), "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"}};
        for (const auto &sample : samples) {
            table.hold(line(sample.digits, "01 80 00 80", "lo"));
            for (int size = 1; size < 64; ++size)
                EXPECT_EQ(text_of("lo", CORVEL_ADDRESS_IPV6, size),
                          cut(sample.address, "/128", static_cast<std::size_t>(size)))
                    << size;
        }
        table.hold(line("00000000000000000000000000000001", "01 80 00 80", "lo"));
        EXPECT_EQ(text_of("lo", CORVEL_ADDRESS_IPV6, 8), "::1/12");
        EXPECT_EQ(text_of("lo", CORVEL_ADDRESS_IPV6, 9), "::1/128");
    });
}

TEST(Ipv6Table, GivesAnAddressInItsShortSpelling) {
    in_private_root([] {
        const OwnTable table("if_inet6");
        const struct {
            std::string digits;
            std::string address;
        } samples[] = {{"20010db8000000010000000000000001", "2001:db8:0:1::1"},
                       {"20010db8000000000001000000000001", "2001:db8::1:0:0:1"},
                       {"20010db8000000000000000000000000", "2001:db8::"},
                       {"00000000000000000000ffffc0a801fe", "::ffff:192.168.1.254"},
                       {"20010db80a0b0c0d00e0f00000100abc", "2001:db8:a0b:c0d:e0:f000:10:abc"}};
        for (const auto &sample : samples) {
            table.hold(line(sample.digits, global, "lo"));
            EXPECT_EQ(text_of("lo", CORVEL_ADDRESS_IPV6), sample.address + "/64");
        }
    });
}

/** What a reader with scanf() finds. */
Answer expected_of(const std::string &path, const std::string &interface) {
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
        return sixteen(static_cast<int>(prefix_length), address);
    }
    return nothing;
}

/** The words of a line of the table, or, rarely, of one in which something else is. */
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

TEST(Ipv6Table, IsReadAsAFormatReadsIt) {
    in_private_root([] {
        const OwnTable table("if_inet6");
        RandomTables random(6);
        for (int round = 0; round < 1000; ++round) {
            const std::string text = random.table_of(words_of_a_line);
            table.hold(text);
            ASSERT_EQ(ask("lo", CORVEL_ADDRESS_IPV6), expected_of("/proc/net/if_inet6", "lo"))
                << text;
        }
    });
}

TEST(Ipv6Table, IsFoundToEndWhateverItHolds) {
    in_private_root([] {
        const OwnTable table("if_inet6");
        const std::string noise = RandomTables(66).noise();
        table.hold(noise);
        EXPECT_EQ(ask("lo", CORVEL_ADDRESS_IPV6), nothing);
        table.hold(noise + line(two, global, "lo"));
        EXPECT_EQ(ask("lo", CORVEL_ADDRESS_IPV6), sixteen(64, "2001:db8::2"));
    });
}

} // namespace

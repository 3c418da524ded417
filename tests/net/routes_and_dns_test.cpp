/* SPDX-License-Identifier: MIT */
#include <corvel.h>

#include "tests/net/network.h"
#include "tests/net/random_tables.h"
#include "tests/support/descriptors.h"
#include "tests/support/fenced.h"
#include "tests/support/output_capture.h"
#include "tests/support/private_root.h"
#include "tests/support/stand_in.h"
#include "tests/support/temporary_directory.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <iterator>
#include <memory>
#include <random>
#include <string>

namespace {

using namespace corvel_test;
using namespace std::string_literals;

const std::string gap = "&nbsp;&nbsp;&nbsp;&nbsp;";
const std::string open_error = "Open /proc/net/route file error.\n";

/** A dotted quad as a number in network byte order. */
std::uint32_t number_of(const std::string &quad) {
    std::uint32_t number = 0;
    if (inet_pton(AF_INET, quad.c_str(), &number) != 1)
        ADD_FAILURE() << quad;
    return number;
}

/** The number as the kernel prints it: in the order of this machine. */
std::string kernel_hex(const std::string &quad) {
    char text[16];
    std::snprintf(text, sizeof text, "%08X", number_of(quad));
    return text;
}

/** The gateway that is found, as a dotted quad; "" for none. */
std::string gateway(const char *ifname) {
    std::uint32_t found = 0xA5A5A5A5;
    int result = 0;
    {
        const DescriptorWatch watch;
        result = getDefaultRoute(ifname, &found);
    }
    const FencedRoom quad(INET_ADDRSTRLEN);
    EXPECT_EQ(inet_ntop(AF_INET, &found, quad.start(), INET_ADDRSTRLEN), quad.start());
    std::string text = quad.start();

    const FencedRoom out(16);
    {
        const DescriptorWatch watch;
        EXPECT_EQ(getDefGw(ifname, out.start()), out.start());
    }
    EXPECT_TRUE(out.front_is_intact());
    EXPECT_EQ(out.start(), result == 0 ? "0.0.0.0" : text);
    if (result == 0)
        EXPECT_EQ(found, 0xA5A5A5A5U);
    else
        EXPECT_EQ(result, 1);
    return result == 0 ? "" : text;
}

std::string gateway(const std::string &ifname) {
    FencedText text;
    return gateway(text.hold(ifname));
}

void add_two_interfaces() {
    add_cable("eth0", "far0");
    add_cable("eth0.1", "far1");
    ip("address add 192.168.1.2/24 dev eth0");
    ip("address add 10.200.0.2/16 dev eth0.1");
}

TEST(Gateway, IsThatOfTheDefaultRoute) {
    in_private_root([] {
        add_two_interfaces();
        ip("route add default via 192.168.1.254 dev eth0");
        EXPECT_EQ(gateway("eth0"), "192.168.1.254");
        std::uint32_t found = 0;
        EXPECT_EQ(getDefaultRoute("eth0", &found), 1);
        EXPECT_EQ(std::memcmp(&found, "\xC0\xA8\x01\xFE", 4), 0);
    });
}

TEST(Gateway, IsNoneWhereNoRouteHasOne) {
    in_private_root([] {
        EXPECT_EQ(gateway("lo"), "");
        add_two_interfaces();
        ip("route add default via 192.168.1.254 dev eth0");
        ip("route add 172.16.0.0/12 dev eth0.1");
        EXPECT_EQ(gateway("eth0.1"), "");
        EXPECT_EQ(gateway("far0"), "");
        EXPECT_EQ(gateway("lo"), "");
    });
}

TEST(Gateway, IsThatOfExactlyTheNamedInterface) {
    in_private_root([] {
        add_two_interfaces();
        ip("route add default via 10.200.255.1 dev eth0.1");
        EXPECT_EQ(gateway("eth0.1"), "10.200.255.1");
        for (const char *name : {"eth0", "eth0.", "eth0.11", "ETH0.1", "eth", " eth0.1", "", "*"})
            EXPECT_EQ(gateway(name), "") << name;
    });
}

TEST(Gateway, NeedNotBeThatOfTheDefaultRoute) {
    in_private_root([] {
        add_two_interfaces();
        ip("route add 172.16.0.0/12 via 192.168.1.7 dev eth0");
        EXPECT_EQ(gateway("eth0"), "192.168.1.7");
    });
}

TEST(Gateway, IsNotThatOfAHostRoute) {
    in_private_root([] {
        add_two_interfaces();
        ip("route add 1.2.3.4/32 via 192.168.1.7 dev eth0");
        EXPECT_EQ(gateway("eth0"), "");
        ip("route add default via 192.168.1.254 dev eth0 metric 5000");
        EXPECT_EQ(gateway("eth0"), "192.168.1.254");
    });
}

TEST(Gateway, IsThatOfTheRouteListedFirst) {
    in_private_root([] {
        add_two_interfaces();
        ip("route add default via 192.168.1.254 dev eth0 metric 7");
        ip("route add 172.16.0.0/12 via 192.168.1.7 dev eth0");
        ip("route add default via 192.168.1.253 dev eth0 metric 3");
        // The kernel lists the default routes first, by their metric.
        EXPECT_EQ(gateway("eth0"), "192.168.1.253");
    });
}

TEST(Gateway, IsNoneOfAnInterfaceWithANameThatIsTooLong) {
    in_private_root([] {
        const std::string longest = "abcdefghijklmno";
        add_cable(longest, "far0");
        ip("address add 192.168.1.2/24 dev " + longest);
        ip("route add default via 192.168.1.254");
        EXPECT_EQ(gateway(longest), "192.168.1.254");
        EXPECT_EQ(gateway(longest + "p"), "");
        EXPECT_EQ(gateway(longest + std::string(3000, 'p')), "");
    });
}

TEST(Gateway, IsNoneWithoutAName) {
    in_private_root([] {
        add_two_interfaces();
        ip("route add default via 192.168.1.254 dev eth0");
        char out[16];
        EXPECT_EQ(capture_stdout([&] { EXPECT_EQ(getDefGw(nullptr, out), out); }), "");
        EXPECT_STREQ(out, "0.0.0.0");
    });
}

TEST(Gateway, IsLeftAloneWithoutAName) {
    in_private_root([] {
        add_two_interfaces();
        ip("route add default via 192.168.1.254 dev eth0");
        std::uint32_t found = 7;
        EXPECT_EQ(getDefaultRoute(nullptr, &found), 0);
        EXPECT_EQ(found, 7U);
    });
}

TEST(Gateway, IsSoughtWithoutAWord) {
    in_private_root([] {
        add_two_interfaces();
        ip("route add default via 192.168.1.254 dev eth0");
        const auto seek = [] {
            EXPECT_EQ(gateway("eth0"), "192.168.1.254");
            EXPECT_EQ(gateway("eth7"), "");
        };
        EXPECT_EQ(capture_stdout(seek), "");
        EXPECT_EQ(capture_stderr(seek), "");
    });
}

/** The table's first line. */
const std::string heading =
    "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n";

std::string route(const std::string &interface, const std::string &gateway_quad,
                  const std::string &flags = "0003") {
    return interface + "\t00000000\t" + kernel_hex(gateway_quad) + "\t" + flags +
           "\t0\t0\t0\t00000000\t0\t0\t0\n";
}

TEST(RoutingTable, SaysByThreeFlagsWhatLeadsToAGateway) {
    in_private_root([] {
        const OwnTable table("route");
        for (unsigned flags = 0; flags < 64; ++flags) {
            char text[16];
            std::snprintf(text, sizeof text, "%04X", flags);
            table.hold(route("eth0", "1.2.3.4", text));
            EXPECT_EQ(gateway("eth0"), (flags & 7) == 3 ? "1.2.3.4" : "") << flags;
        }
        table.hold(route("eth0", "1.2.3.4", "80000013"));
        EXPECT_EQ(gateway("eth0"), "1.2.3.4");
        table.hold(route("eth0", "1.2.3.4", "FFFFFFF7"));
        EXPECT_EQ(gateway("eth0"), "");
    });
}

TEST(RoutingTable, GivesEveryAddress) {
    in_private_root([] {
        const OwnTable table("route");
        for (const char *quad :
             {"0.0.0.0", "255.255.255.255", "128.0.0.1", "1.0.0.128", "1.2.3.4"}) {
            table.hold(route("eth0", quad));
            EXPECT_EQ(gateway("eth0"), quad);
        }
    });
}

TEST(RoutingTable, NeedsTenWordsInALine) {
    in_private_root([] {
        const OwnTable table("route");
        const std::string last = route("eth0", "9.9.9.9");
        const std::string words[] = {
            "eth0", "00000000", kernel_hex("1.2.3.4"), "0003", "0", "0", "0", "00000000", "0", "0",
            "0",    "more"};
        std::string text;
        for (std::size_t count = 0; count <= std::size(words); ++count) {
            table.hold(text + "\n" + last);
            EXPECT_EQ(gateway("eth0"), count < 10 ? "9.9.9.9" : "1.2.3.4") << count;
            if (count < std::size(words))
                text += words[count] + " ";
        }
    });
}

/** Expects that a line, or several, are passed over. */
void expect_passed_over(const OwnTable &table, const std::string &bad) {
    table.hold(bad);
    EXPECT_EQ(gateway("eth0"), "") << bad;
    table.hold(bad + route("eth0", "9.9.9.9"));
    EXPECT_EQ(gateway("eth0"), "9.9.9.9") << bad;
}

TEST(RoutingTable, IsSearchedBehindALineThatIsNone) {
    in_private_root([] {
        const OwnTable table("route");
        const std::string start = "eth0 00000000 " + kernel_hex("1.2.3.4");
        for (const std::string &bad :
             {heading, "\n"s, " \t \n"s, "eth0\n"s, start + " zz 0 0 0 0 0 0 0\n",
              start + " 3 z 0 0 0 0 0 0\n", start + " 3 0 z 0 0 0 0 0\n",
              start + " 3 0 0 z 0 0 0 0\n", start + " 3 0 0 0 0 z 0 0\n",
              start + " 3 0 0 0 0 0 z 0\n", route(std::string(100, 'e'), "1.2.3.4"),
              std::string(1023, 'x') + "\n", "- - - - - - -\n"s})
            expect_passed_over(table, bad);
    });
}

TEST(RoutingTable, MayHoldNumbersOfAnySize) {
    in_private_root([] {
        const OwnTable table("route");
        table.hold("eth0 00000000 " + kernel_hex("1.2.3.4") +
                   " 3 -1 +99999999999999999999 -99999999999999999999 00000000 -0 007\n");
        EXPECT_EQ(gateway("eth0"), "1.2.3.4");
    });
}

TEST(RoutingTable, MayHoldLongWords) {
    in_private_root([] {
        const OwnTable table("route");
        const std::string gateway_hex = kernel_hex("1.2.3.4");
        for (const std::size_t length : {16U, 17U, 127U, 128U, 129U, 400U}) {
            const std::string word(length, '0');
            table.hold("eth0 " + word + " " + gateway_hex + " 3 0 0 0 " + word + " 0 0 0\n");
            EXPECT_EQ(gateway("eth0"), "1.2.3.4") << length;
            table.hold("eth0" + word + " 0 " + gateway_hex + " 3 0 0 0 0 0 0 0\n");
            EXPECT_EQ(gateway("eth0"), "") << length;
            EXPECT_EQ(gateway("eth0" + word), "") << length;
        }
        const std::string sixteen = "abcdefghijklmnop";
        table.hold(route(sixteen + "q", "1.2.3.4") + route(sixteen, "1.2.3.4"));
        EXPECT_EQ(gateway(sixteen), "");
        EXPECT_EQ(gateway(sixteen.substr(0, 15)), "");
    });
}

TEST(RoutingTable, HoldsGatewaysOf128Characters) {
    in_private_root([] {
        const OwnTable table("route");
        const auto read = [&table](const std::string &gateway_text) {
            table.hold("eth0 0 " + gateway_text + " 3 0 0 0 0 0 0 0\n");
            return gateway("eth0");
        };
        const std::string zeros(120, '0');
        EXPECT_EQ(read(zeros + kernel_hex("1.2.3.4")), "1.2.3.4");
        // The digits behind are cut off, and shift no word.
        EXPECT_EQ(read(zeros + kernel_hex("1.2.3.4") + "567"), "1.2.3.4");
        EXPECT_EQ(read(zeros + std::string(8, '0') + kernel_hex("1.2.3.4")), "0.0.0.0");
    });
}

TEST(RoutingTable, GivesZeroForAGatewayThatIsNoNumber) {
    in_private_root([] {
        const OwnTable table("route");
        table.hold("eth0 00000000 zz 3 0 0 0 00000000 0 0 0\n" + route("eth0", "1.2.3.4"));
        EXPECT_EQ(gateway("eth0"), "0.0.0.0");
    });
}

TEST(RoutingTable, HoldsNumbersOf32Bits) {
    in_private_root([] {
        const OwnTable table("route");
        const auto read = [&table](const std::string &gateway_text, const std::string &flags) {
            table.hold("eth0 00000000 " + gateway_text + " " + flags + " 0 0 0 00000000 0 0 0\n");
            return gateway("eth0");
        };
        for (const char *largest :
             {"ffffffff", "1FFFFFFFF", "123456789abcdef0123456789", "-1", "-ffffffff0"})
            EXPECT_EQ(read(largest, "3"), "255.255.255.255") << largest;
        EXPECT_EQ(read("-ffffffff", "3"), read("1", "3"));
        EXPECT_EQ(read("0x" + kernel_hex("1.2.3.4"), "0x3"), "1.2.3.4");
        EXPECT_EQ(read("+" + kernel_hex("1.2.3.4") + "zz", "0X00000000003"), "1.2.3.4");
        EXPECT_EQ(read(kernel_hex("1.2.3.4"), "-d"), "1.2.3.4");
        EXPECT_EQ(read(kernel_hex("1.2.3.4"), "100000003"), "");
    });
}

TEST(RoutingTable, IsReadInPiecesOf1023Characters) {
    in_private_root([] {
        const OwnTable table("route");
        const std::string entry = route("eth0", "1.2.3.4");
        for (const std::size_t length : {1000U, 1021U, 1022U, 1023U, 1024U, 1025U, 2046U, 4096U}) {
            // The first word of a piece is that of the entry only where nothing is in front of it.
            table.hold(std::string(length, 'x') + entry);
            EXPECT_EQ(gateway("eth0"), length % 1023 == 0 ? "1.2.3.4" : "") << length;
            table.hold("x" + std::string(length - 1, ' ') + entry);
            EXPECT_EQ(gateway("eth0"), length >= 1023 ? "1.2.3.4" : "") << length;
        }
        // The tenth word is the last that counts.
        const std::string start = "eth0 0 " + kernel_hex("1.2.3.4") + " 3 0 0 0 0 0";
        for (std::size_t length = 1020; length < 1026; ++length) {
            table.hold(start + std::string(length - start.size(), ' ') + "7\n");
            EXPECT_EQ(gateway("eth0"), length < 1023 ? "1.2.3.4" : "") << length;
        }
    });
}

TEST(RoutingTable, MayEndWithoutALineEnd) {
    in_private_root([] {
        const OwnTable table("route");
        table.hold("eth0 0 " + kernel_hex("1.2.3.4") + " 3 0 0 0 0 0 0");
        EXPECT_EQ(gateway("eth0"), "1.2.3.4");
    });
}

TEST(RoutingTable, MayBeEmptyOrUnreadable) {
    in_private_root([] {
        const OwnTable table("route");
        table.hold("");
        EXPECT_EQ(capture_stdout([] { EXPECT_EQ(gateway("eth0"), ""); }), "");
        table.hold(route("eth0", "1.2.3.4"));
        const FailCall unreadable(call_read, 1, EIO, FailCall::from_then_on);
        EXPECT_EQ(gateway("eth0"), "");
    });
}

TEST(RoutingTable, IsMissedAloud) {
    in_private_root([] {
        const auto seek = [] {
            std::uint32_t found = 7;
            const FailCall no_file(call_open, 1, EMFILE);
            EXPECT_EQ(getDefaultRoute("eth0", &found), 0);
            EXPECT_EQ(found, 7U);
        };
        EXPECT_EQ(capture_stdout(seek), open_error);
        EXPECT_EQ(capture_stdout([] {
                      char out[16];
                      const FailCall no_file(call_open, 1, EMFILE);
                      EXPECT_STREQ(getDefGw("eth0", out), "0.0.0.0");
                  }),
                  open_error);
    });
}

TEST(RoutingTable, MustBeThere) {
    in_private_root([] {
        const OwnTable table("route");
        // Asked for a number and for a text.
        const auto ask_twice = [] {
            EXPECT_EQ(gateway("eth0"), "");
        };
        table.be_missing();
        EXPECT_EQ(capture_stdout(ask_twice), open_error + open_error);
        EXPECT_EQ(capture_stderr([&] { static_cast<void>(capture_stdout(ask_twice)); }), "");
        table.be_a_folder();
        EXPECT_EQ(capture_stdout(ask_twice), open_error + open_error);
    });
}

TEST(RoutingTable, IsMissedWhateverTheNameIs) {
    in_private_root([] {
        const OwnTable table("route");
        table.be_missing();
        for (const std::string &name : {""s, "no such"s, std::string(100, 'e')})
            EXPECT_EQ(capture_stdout([&] {
                          std::uint32_t found = 7;
                          EXPECT_EQ(getDefaultRoute(name.c_str(), &found), 0);
                      }),
                      open_error)
                << name;
    });
}

TEST(RoutingTable, IsNotOpenedForTheTextOfNoName) {
    in_private_root([] {
        const OwnTable table("route");
        table.be_missing();
        char out[16];
        EXPECT_EQ(capture_stdout([&] { EXPECT_EQ(getDefGw(nullptr, out), out); }), "");
        EXPECT_STREQ(out, "0.0.0.0");
    });
}

TEST(RoutingTable, MayHoldNuls) {
    in_private_root([] {
        const OwnTable table("route");
        const std::string start = "eth0 00000000 " + kernel_hex("1.2.3.4");
        for (const std::string &bad :
             {start + "\0 3 0 0 0 0 0 0 0\n"s, "\0"s + route("eth0", "1.2.3.4"),
              std::string(5000, '\0') + "\n"})
            expect_passed_over(table, bad);
        table.hold(start + " 3 0 0 0 0 0 0\0junk\n"s);
        EXPECT_EQ(gateway("eth0"), "1.2.3.4");
    });
}

TEST(RoutingTable, IsFoundToEndWhateverItHolds) {
    in_private_root([] {
        const OwnTable table("route");
        const std::string noise = RandomTables(64).noise();
        expect_passed_over(table, noise);
    });
}

/** What a reader with scanf() finds. */
std::string expected_of(const std::string &path, const std::string &interface) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE *)> file(std::fopen(path.c_str(), "r"),
                                                                std::fclose);
    char text[1024];
    while (std::fgets(text, sizeof text, file.get()) != nullptr) {
        char name[17];
        char destination[129], gateway_hex[129], mask[129];
        unsigned flags = 0;
        int references = 0, uses = 0, metric = 0, mtu = 0, window = 0, round_trip = 0;
        if (std::sscanf(text, "%16s %128s %128s %X %d %d %d %128s %d %d %d", name, destination,
                        gateway_hex, &flags, &references, &uses, &metric, mask, &mtu, &window,
                        &round_trip) < 10 ||
            (flags & 7) != 3 || name != interface)
            continue;
        const auto found = static_cast<std::uint32_t>(std::strtoul(gateway_hex, nullptr, 16));
        char quad[INET_ADDRSTRLEN];
        return inet_ntop(AF_INET, &found, quad, sizeof quad);
    }
    return "";
}

/** The words of a line of the table, or of one in which something else is. */
Words words_of_a_line(RandomTables &random) {
    const auto hex = [&random] {
        char text[16];
        std::snprintf(text, sizeof text, "%08X", random.number());
        return std::string(text);
    };
    const auto decimal = [&random] {
        return std::to_string(static_cast<int>(random.number()));
    };
    Words words = {random.one_of({"lo", "eth0", "eth0.1", "eth", "abcdefghijklmno"}),
                   hex(),
                   hex(),
                   std::to_string(random.number(8)),
                   decimal(),
                   decimal(),
                   decimal(),
                   hex(),
                   decimal(),
                   decimal(),
                   decimal()};
    if (random.number(3) == 0) {
        std::string junk(1 + random.number(14), '\0');
        for (char &character : junk)
            character = "0123zxXaF-+.\xFF*%"[random.number(15)];
        words[random.number(words.size())] = junk;
    }
    if (random.number(8) == 0)
        words.resize(random.number(words.size()));
    return words;
}

TEST(RoutingTable, IsReadAsAFormatReadsIt) {
    in_private_root([] {
        const OwnTable table("route");
        RandomTables random(63);
        for (int round = 0; round < 1000; ++round) {
            const std::string text = random.table_of(words_of_a_line);
            table.hold(text);
            ASSERT_EQ(gateway("eth0"), expected_of("/proc/self/net/route", "eth0")) << text;
        }
    });
}

/** What becomes of a text to which the name servers of a file are appended: it must have room for
 *  exactly @p expected. */
std::string servers(const std::string &file, const std::string &text, const std::string &expected) {
    write_file("/etc/resolv.conf", file);
    FencedRoom out(expected.size() + 1);
    text.copy(out.start(), text.size());
    out.start()[text.size()] = '\0';
    const DescriptorWatch watch;
    EXPECT_EQ(get_dns(out.start()), out.start());
    EXPECT_TRUE(out.front_is_intact());
    return out.start();
}

void expect_servers(const std::string &file, const std::string &expected) {
    EXPECT_EQ(servers(file, "", expected), expected) << file;
}

TEST(NameServers, AreAppendedInTheOrderOfTheFile) {
    in_private_root([] {
        const std::string file = "nameserver 192.168.1.1\nsearch lan\nnameserver 2001:db8::1\n";
        const std::string both = "192.168.1.1" + gap + "2001:db8::1" + gap;
        EXPECT_EQ(servers(file, "", both), both);
        EXPECT_EQ(servers(file, "DNS: ", "DNS: " + both), "DNS: " + both);
    });
}

TEST(NameServers, AreNotClearedBetweenCalls) {
    in_private_root([] {
        write_file("/etc/resolv.conf", "nameserver 1.1.1.1\n");
        char out[128] = "";
        get_dns(out);
        get_dns(out);
        EXPECT_EQ(out, "1.1.1.1" + gap + "1.1.1.1" + gap);
    });
}

TEST(NameServers, MayBeNone) {
    in_private_root([] {
        for (const char *file : {"", "\n", "\n\n", "search lan\n", "# nameserver 1.1.1.1\n"})
            EXPECT_EQ(servers(file, "text", "text"), "text") << file;
    });
}

TEST(NameServers, AreNamedByExactlyThatWord) {
    in_private_root([] {
        for (const std::string word :
             {"Nameserver", "nameservers", "nameserve", "#nameserver", "nameserver:", "NAMESERVER"})
            expect_servers(word + " 1.1.1.1\n", "");
        expect_servers("options nameserver 1.1.1.1\n", "");
    });
}

TEST(NameServers, MayHaveAnyBlanksInFront) {
    in_private_root([] {
        expect_servers(" \t nameserver\t\t1.1.1.1 \n", "1.1.1.1" + gap);
        expect_servers("nameserver\v1.1.1.1\r\nnameserver\f2.2.2.2\r\n",
                       "1.1.1.1" + gap + "2.2.2.2" + gap);
    });
}

TEST(NameServers, AreTheSecondWordAsItStands) {
    in_private_root([] {
        expect_servers("nameserver 1.1.1.1#53 2.2.2.2\n", "1.1.1.1#53" + gap);
        expect_servers("nameserver <b>%s%n&\xFF\x80\n", "<b>%s%n&\xFF\x80" + gap);
    });
}

TEST(NameServers, WithoutAnAddressAreTheGapAlone) {
    in_private_root([] {
        expect_servers("nameserver\n", gap);
        expect_servers("nameserver", gap);
        expect_servers("nameserver \nnameserver 1.1.1.1\nnameserver\n",
                       gap + "1.1.1.1" + gap + gap);
    });
}

TEST(NameServers, AreNotListedTwiceWhereTheFileEnds) {
    in_private_root([] {
        expect_servers("nameserver 1.1.1.1", "1.1.1.1" + gap);
        expect_servers("nameserver 1.1.1.1\n", "1.1.1.1" + gap);
        expect_servers("nameserver 1.1.1.1\n\n", "1.1.1.1" + gap);
    });
}

TEST(NameServers, AreReadToANul) {
    in_private_root([] {
        expect_servers("nameserver 1.1\0.1.1\nnameserver 2.2.2.2\n"s,
                       "1.1" + gap + "2.2.2.2" + gap);
        expect_servers("\0nameserver 1.1.1.1\nnameserver\0 1.1.1.1\n"s, gap);
        expect_servers(std::string(1000, '\0') + "\nnameserver 1.1.1.1\n", "1.1.1.1" + gap);
    });
}

TEST(NameServers, AreTakenFromPiecesOf254Characters) {
    in_private_root([] {
        const std::string word = "nameserver ";
        for (const std::size_t length : {242U, 243U, 244U, 253U, 254U, 255U, 300U, 1023U, 5000U}) {
            const std::string address(length, 'x');
            expect_servers(word + address + "\n", address.substr(0, 254 - word.size()) + gap);
        }
        for (const std::size_t length : {253U, 254U, 255U, 508U}) {
            // What follows so many characters is in a piece of its own.
            const bool apart = length >= 254;
            expect_servers("#" + std::string(length - 1, ' ') + "nameserver 1.1.1.1\n",
                           apart ? "1.1.1.1" + gap : "");
            expect_servers(std::string(length - 3, ' ') + "nameserver 1.1.1.1\n", "");
            expect_servers("nameserver " + std::string(length - 11, ' ') + "1.1.1.1\n",
                           length < 254 ? "1" + gap : gap);
        }
    });
}

TEST(NameServers, MayBeMany) {
    in_private_root([] {
        std::string file;
        std::string expected;
        for (int i = 0; i < 100; ++i) {
            const std::string address = "10.0.0." + std::to_string(i);
            file += "nameserver " + address + "\n";
            expected += address + gap;
            if (expected.size() < 500)
                expect_servers(file, expected);
        }
        write_file("/etc/resolv.conf", file);
        std::string out(expected.size() + 1, '\0');
        get_dns(out.data());
        EXPECT_EQ(out, expected + '\0');
    });
}

void expect_no_file() {
    const DescriptorWatch watch;
    char out[] = "as it was";
    const char *const result = get_dns(out);
    EXPECT_NE(result, out);
    EXPECT_EQ(result, gap);
    EXPECT_STREQ(out, "as it was");
}

TEST(NameServers, AreTheGapAloneWhereTheFileCannotBeRead) {
    in_private_root([] {
        expect_no_file();
        std::filesystem::create_directory("/etc/resolv.conf");
        expect_no_file();
        std::filesystem::remove("/etc/resolv.conf");
        std::filesystem::create_symlink("/etc/resolv.conf", "/etc/resolv.conf");
        expect_no_file();
        std::filesystem::remove("/etc/resolv.conf");
        write_file("/etc/resolv.conf", "nameserver 1.1.1.1\n");
        {
            const DescriptorsLeft none(0);
            expect_no_file();
        }
        const FailCall refused(call_open, 1, EACCES, FailCall::from_then_on);
        expect_no_file();
    });
}

TEST(NameServers, AreSoughtWithoutAWord) {
    in_private_root([] {
        EXPECT_EQ(capture_stdout(expect_no_file), "");
        EXPECT_EQ(capture_stderr(expect_no_file), "");
        const auto find = [] {
            expect_servers("nameserver 1.1.1.1\n", "1.1.1.1" + gap);
        };
        EXPECT_EQ(capture_stdout(find), "");
    });
}

TEST(NameServers, AreNoneWhereReadingFails) {
    in_private_root([] {
        write_file("/etc/resolv.conf", "nameserver 1.1.1.1\n");
        char out[64] = "text";
        const DescriptorWatch watch;
        const FailCall unreadable(call_read, 1, EIO, FailCall::from_then_on);
        EXPECT_EQ(get_dns(out), out);
        EXPECT_STREQ(out, "text");
    });
}

TEST(NameServers, AreReadThroughALink) {
    in_private_root([] {
        write_file("/tmp/resolv.conf", "nameserver 1.1.1.1\n");
        std::filesystem::create_symlink("/tmp/resolv.conf", "/etc/resolv.conf");
        char out[64] = "";
        EXPECT_EQ(get_dns(out), "1.1.1.1" + gap);
    });
}

/** What a reader with scanf() appends. */
std::string expected_servers(const std::string &path) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE *)> file(std::fopen(path.c_str(), "r"),
                                                                std::fclose);
    std::string text;
    char line[255];
    while (std::fgets(line, sizeof line, file.get()) != nullptr) {
        char first[255] = "", second[255] = "";
        std::sscanf(line, "%254s%254s", first, second);
        if (std::string(first) == "nameserver")
            text += second + gap;
    }
    return text;
}

TEST(NameServers, AreReadAsAFormatReadsThem) {
    in_private_root([] {
        std::mt19937 engine(65);
        const auto number = [&engine](unsigned below) {
            return static_cast<unsigned>(engine() % below);
        };
        for (int round = 0; round < 200; ++round) {
            std::string file;
            for (int lines = 0; lines < 50; ++lines) {
                const std::string words[] = {
                    "nameserver", "nameserver", "search", "1.1.1.1", std::string(number(300), 'x'),
                    "\0\xFF"s,    "\r",         "#"};
                for (unsigned count = number(5); count != 0; --count)
                    file += words[number(std::size(words))] +
                            std::string(number(3), number(2) == 0 ? '\t' : ' ');
                file += '\n';
            }
            write_file("/etc/resolv.conf", file);
            std::string out(50 * 700, '#');
            out[0] = '\0';
            get_dns(out.data());
            ASSERT_STREQ(out.c_str(), expected_servers("/etc/resolv.conf").c_str());
        }
    });
}

TEST(RoutesAndDns, AllocateNothing) {
    in_private_root([] {
        write_file("/etc/resolv.conf", "nameserver 1.1.1.1\n");
        char out[64] = "";
        std::uint32_t found = 0;
        const CountCalls allocations(call_allocation);
        get_dns(out);
        getDefaultRoute("eth0", &found);
        getDefGw("eth0", out);
        std::remove("/etc/resolv.conf");
        get_dns(out);
        EXPECT_EQ(allocations.count(), 0U);
    });
}

} // namespace

/* SPDX-License-Identifier: MIT */
#include <corvel.h>

#include "tests/net/network.h"
#include "tests/net/random_tables.h"
#include "tests/support/descriptors.h"
#include "tests/support/guarded_memory.h"
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
#include <ostream>
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

/** The address as the kernel prints it: a number in the byte order of this machine. */
std::string kernel_hex(const std::string &quad) {
    char text[16];
    std::snprintf(text, sizeof text, "%08X", number_of(quad));
    return text;
}

// --- getDefaultRoute and getDefGw ---

/** The first line of the table. */
const std::string heading =
    "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n";

std::string route(const std::string &interface, const std::string &gateway_quad,
                  const std::string &flags = "0003") {
    return interface + "\t00000000\t" + kernel_hex(gateway_quad) + "\t" + flags +
           "\t0\t0\t0\t00000000\t0\t0\t0\n";
}

/** A function that finds the gateway of an interface. */
struct GatewayFunction {
    const char *function;
    /** Expects that it finds this dotted quad, or no gateway if that is "". */
    void (*expect_found)(const char *ifname, const std::string &quad);

    friend std::ostream &operator<<(std::ostream &out, const GatewayFunction &parameter) {
        return out << parameter.function;
    }
};

void expect_number(const char *ifname, const std::string &quad) {
    std::uint32_t found = 0xA5A5A5A5;
    const DescriptorWatch watch;
    EXPECT_EQ(getDefaultRoute(ifname, &found), quad.empty() ? 0 : 1);
    EXPECT_EQ(found, quad.empty() ? 0xA5A5A5A5 : number_of(quad));
}

void expect_text(const char *ifname, const std::string &quad) {
    const GuardedOutput out(CORVEL_IPV4_SIZE);
    const DescriptorWatch watch;
    EXPECT_EQ(getDefGw(ifname, out.start()), out.start());
    EXPECT_TRUE(out.preceding_bytes_intact());
    EXPECT_EQ(out.start(), quad.empty() ? "0.0.0.0" : quad);
}

class Gateway : public testing::TestWithParam<GatewayFunction> {
  protected:
    static void expect(const std::string &ifname, const std::string &quad) {
        SCOPED_TRACE(ifname);
        GuardedInput input;
        GetParam().expect_found(input.hold(ifname), quad);
    }
    static void expect_none(const std::string &ifname) { expect(ifname, ""); }
    /** Expects that these lines contain no gateway, and that a line after them is found. */
    static void expect_skipped(const ReplacedTable &table, const std::string &lines) {
        SCOPED_TRACE(lines);
        table.write(lines);
        expect_none("eth0");
        table.write(lines + route("eth0", "9.9.9.9"));
        expect("eth0", "9.9.9.9");
    }
};

INSTANTIATE_TEST_SUITE_P(getDefaultRoute, Gateway,
                         testing::Values(GatewayFunction{"getDefaultRoute", expect_number}),
                         testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(getDefGw, Gateway,
                         testing::Values(GatewayFunction{"getDefGw", expect_text}),
                         testing::PrintToStringParamName());

void add_two_interfaces() {
    add_cable("eth0", "far0");
    add_cable("eth0.1", "far1");
    ip("address add 192.168.1.2/24 dev eth0");
    ip("address add 10.200.0.2/16 dev eth0.1");
}

TEST_P(Gateway, IsThatOfTheDefaultRoute) {
    in_private_root([] {
        add_two_interfaces();
        ip("route add default via 192.168.1.254 dev eth0");
        expect("eth0", "192.168.1.254");
    });
}

TEST_P(Gateway, IsNotFoundIfNoRouteHasOne) {
    in_private_root([] {
        expect_none("lo");
        add_two_interfaces();
        ip("route add default via 192.168.1.254 dev eth0");
        ip("route add 172.16.0.0/12 dev eth0.1");
        expect_none("eth0.1");
        expect_none("far0");
        expect_none("lo");
    });
}

TEST_P(Gateway, IsFoundOnlyForTheExactNameOfTheInterface) {
    in_private_root([] {
        add_two_interfaces();
        ip("route add default via 10.200.255.1 dev eth0.1");
        expect("eth0.1", "10.200.255.1");
        for (const char *name : {"eth0", "eth0.", "eth0.11", "ETH0.1", "eth", " eth0.1", "", "*"})
            expect_none(name);
    });
}

TEST_P(Gateway, MayBeThatOfAnotherRouteThanTheDefault) {
    in_private_root([] {
        add_two_interfaces();
        ip("route add 172.16.0.0/12 via 192.168.1.7 dev eth0");
        expect("eth0", "192.168.1.7");
    });
}

TEST_P(Gateway, IsNotThatOfAHostRoute) {
    in_private_root([] {
        add_two_interfaces();
        ip("route add 1.2.3.4/32 via 192.168.1.7 dev eth0");
        expect_none("eth0");
        ip("route add default via 192.168.1.254 dev eth0 metric 5000");
        expect("eth0", "192.168.1.254");
    });
}

TEST_P(Gateway, IsThatOfTheFirstRouteInTheTable) {
    in_private_root([] {
        add_two_interfaces();
        ip("route add default via 192.168.1.254 dev eth0 metric 7");
        ip("route add 172.16.0.0/12 via 192.168.1.7 dev eth0");
        ip("route add default via 192.168.1.253 dev eth0 metric 3");
        // The kernel lists default routes first, in the order of their metrics.
        expect("eth0", "192.168.1.253");
    });
}

TEST_P(Gateway, IsNotFoundForANameThatIsTooLong) {
    in_private_root([] {
        const std::string longest = "abcdefghijklmno";
        add_cable(longest, "far0");
        ip("address add 192.168.1.2/24 dev " + longest);
        ip("route add default via 192.168.1.254");
        expect(longest, "192.168.1.254");
        expect_none(longest + "p");
        expect_none(longest + std::string(3000, 'p'));
    });
}

TEST(getDefGw, PrintsZerosForANullPointer) {
    in_private_root([] {
        add_two_interfaces();
        ip("route add default via 192.168.1.254 dev eth0");
        char out[CORVEL_IPV4_SIZE];
        EXPECT_EQ(capture_stdout([&] { EXPECT_EQ(getDefGw(nullptr, out), out); }), "");
        EXPECT_STREQ(out, "0.0.0.0");
    });
}

TEST(getDefaultRoute, FindsTheNumberInNetworkByteOrder) {
    in_private_root([] {
        add_two_interfaces();
        ip("route add default via 192.168.1.254 dev eth0");
        std::uint32_t found = 0;
        EXPECT_EQ(getDefaultRoute("eth0", &found), 1);
        EXPECT_EQ(std::memcmp(&found, "\xC0\xA8\x01\xFE", 4), 0);
    });
}

TEST(getDefaultRoute, LeavesTheNumberUnchangedForANullPointer) {
    in_private_root([] {
        add_two_interfaces();
        ip("route add default via 192.168.1.254 dev eth0");
        std::uint32_t found = 7;
        EXPECT_EQ(getDefaultRoute(nullptr, &found), 0);
        EXPECT_EQ(found, 7U);
    });
}

TEST_P(Gateway, IsSoughtWithoutOutput) {
    in_private_root([] {
        add_two_interfaces();
        ip("route add default via 192.168.1.254 dev eth0");
        const auto seek = [] {
            expect("eth0", "192.168.1.254");
            expect_none("eth7");
        };
        EXPECT_EQ(capture_stdout(seek), "");
        EXPECT_EQ(capture_stderr(seek), "");
    });
}

TEST_P(Gateway, IsThatOfARouteWithTheFlagsUpAndGatewayButNotHost) {
    in_private_root([] {
        const ReplacedTable table("route");
        for (unsigned flags = 0; flags < 64; ++flags) {
            SCOPED_TRACE(flags);
            char text[16];
            std::snprintf(text, sizeof text, "%04X", flags);
            table.write(route("eth0", "1.2.3.4", text));
            expect("eth0", (flags & 7) == 3 ? "1.2.3.4" : "");
        }
        table.write(route("eth0", "1.2.3.4", "80000013"));
        expect("eth0", "1.2.3.4");
        table.write(route("eth0", "1.2.3.4", "FFFFFFF7"));
        expect_none("eth0");
    });
}

TEST_P(Gateway, MayBeAnyAddress) {
    in_private_root([] {
        const ReplacedTable table("route");
        for (const char *quad :
             {"0.0.0.0", "255.255.255.255", "128.0.0.1", "1.0.0.128", "1.2.3.4"}) {
            table.write(route("eth0", quad));
            expect("eth0", quad);
        }
    });
}

TEST_P(Gateway, IsReadFromALineOfAtLeastTenWords) {
    in_private_root([] {
        const ReplacedTable table("route");
        const std::string last = route("eth0", "9.9.9.9");
        const std::string words[] = {
            "eth0", "00000000", kernel_hex("1.2.3.4"), "0003", "0", "0", "0", "00000000", "0", "0",
            "0",    "more"};
        std::string text;
        for (std::size_t count = 0; count <= std::size(words); ++count) {
            SCOPED_TRACE(count);
            table.write(text + "\n" + last);
            expect("eth0", count < 10 ? "9.9.9.9" : "1.2.3.4");
            if (count < std::size(words))
                text += words[count] + " ";
        }
    });
}

TEST_P(Gateway, IsFoundAfterMalformedLines) {
    in_private_root([] {
        const ReplacedTable table("route");
        const std::string start = "eth0 00000000 " + kernel_hex("1.2.3.4");
        for (const std::string &bad :
             {heading, "\n"s, " \t \n"s, "eth0\n"s, start + " zz 0 0 0 0 0 0 0\n",
              start + " 3 z 0 0 0 0 0 0\n", start + " 3 0 z 0 0 0 0 0\n",
              start + " 3 0 0 z 0 0 0 0\n", start + " 3 0 0 0 0 z 0 0\n",
              start + " 3 0 0 0 0 0 z 0\n", route(std::string(100, 'e'), "1.2.3.4"),
              std::string(1023, 'x') + "\n", "- - - - - - -\n"s})
            expect_skipped(table, bad);
    });
}

TEST_P(Gateway, IsFoundInALineWithNumbersOfAnySize) {
    in_private_root([] {
        const ReplacedTable table("route");
        table.write("eth0 00000000 " + kernel_hex("1.2.3.4") +
                    " 3 -1 +99999999999999999999 -99999999999999999999 00000000 -0 007\n");
        expect("eth0", "1.2.3.4");
    });
}

TEST_P(Gateway, IsFoundInALineWithLongWords) {
    in_private_root([] {
        const ReplacedTable table("route");
        const std::string gateway_hex = kernel_hex("1.2.3.4");
        for (const std::size_t length : {16U, 17U, 127U, 128U, 129U, 400U}) {
            SCOPED_TRACE(length);
            const std::string word(length, '0');
            table.write("eth0 " + word + " " + gateway_hex + " 3 0 0 0 " + word + " 0 0 0\n");
            expect("eth0", "1.2.3.4");
            table.write("eth0" + word + " 0 " + gateway_hex + " 3 0 0 0 0 0 0 0\n");
            expect_none("eth0");
            expect_none("eth0" + word);
        }
        const std::string sixteen = "abcdefghijklmnop";
        table.write(route(sixteen + "q", "1.2.3.4") + route(sixteen, "1.2.3.4"));
        expect_none(sixteen);
        expect_none(sixteen.substr(0, 15));
    });
}

TEST_P(Gateway, IsReadFromAtMost128Characters) {
    in_private_root([] {
        const ReplacedTable table("route");
        const auto expect_read = [&table](const std::string &gateway, const std::string &quad) {
            SCOPED_TRACE(gateway);
            table.write("eth0 0 " + gateway + " 3 0 0 0 0 0 0 0\n");
            expect("eth0", quad);
        };
        const std::string zeros(120, '0');
        expect_read(zeros + kernel_hex("1.2.3.4"), "1.2.3.4");
        // The rest of the word is skipped.
        expect_read(zeros + kernel_hex("1.2.3.4") + "567", "1.2.3.4");
        expect_read(zeros + std::string(8, '0') + kernel_hex("1.2.3.4"), "0.0.0.0");
    });
}

TEST_P(Gateway, IsZeroIfTheWordIsNotANumber) {
    in_private_root([] {
        const ReplacedTable table("route");
        table.write("eth0 00000000 zz 3 0 0 0 00000000 0 0 0\n" + route("eth0", "1.2.3.4"));
        expect("eth0", "0.0.0.0");
    });
}

TEST_P(Gateway, IsConvertedLikeStrtoulTo32Bits) {
    in_private_root([] {
        const ReplacedTable table("route");
        const auto expect_read = [&table](const std::string &gateway, const std::string &flags,
                                          const std::string &quad) {
            SCOPED_TRACE(gateway);
            table.write("eth0 00000000 " + gateway + " " + flags + " 0 0 0 00000000 0 0 0\n");
            expect("eth0", quad);
        };
        for (const char *largest :
             {"ffffffff", "1FFFFFFFF", "123456789abcdef0123456789", "-1", "-ffffffff0"})
            expect_read(largest, "3", "255.255.255.255");
        const std::string one = number_of("1.0.0.0") == 1 ? "1.0.0.0" : "0.0.0.1";
        expect_read("1", "3", one);
        expect_read("-ffffffff", "3", one);
        expect_read("0x" + kernel_hex("1.2.3.4"), "0x3", "1.2.3.4");
        expect_read("+" + kernel_hex("1.2.3.4") + "zz", "0X00000000003", "1.2.3.4");
        expect_read(kernel_hex("1.2.3.4"), "-d", "1.2.3.4");
        expect_read(kernel_hex("1.2.3.4"), "100000003", "");
    });
}

TEST_P(Gateway, IsReadInPiecesOf1023Characters) {
    in_private_root([] {
        const ReplacedTable table("route");
        const std::string entry = route("eth0", "1.2.3.4");
        for (const std::size_t length : {1000U, 1021U, 1022U, 1023U, 1024U, 1025U, 2046U, 4096U}) {
            SCOPED_TRACE(length);
            // Only at the start of a piece is the name of the entry the first word.
            table.write(std::string(length, 'x') + entry);
            expect("eth0", length % 1023 == 0 ? "1.2.3.4" : "");
            table.write("x" + std::string(length - 1, ' ') + entry);
            expect("eth0", length >= 1023 ? "1.2.3.4" : "");
        }
        // The tenth word is the last that is needed.
        const std::string start = "eth0 0 " + kernel_hex("1.2.3.4") + " 3 0 0 0 0 0";
        for (std::size_t length = 1020; length < 1026; ++length) {
            SCOPED_TRACE(length);
            table.write(start + std::string(length - start.size(), ' ') + "7\n");
            expect("eth0", length < 1023 ? "1.2.3.4" : "");
        }
    });
}

TEST_P(Gateway, IsFoundWithoutAFinalNewline) {
    in_private_root([] {
        const ReplacedTable table("route");
        table.write("eth0 0 " + kernel_hex("1.2.3.4") + " 3 0 0 0 0 0 0");
        expect("eth0", "1.2.3.4");
    });
}

TEST_P(Gateway, IsNotFoundInAnEmptyOrUnreadableTable) {
    in_private_root([] {
        const ReplacedTable table("route");
        table.write("");
        EXPECT_EQ(capture_stdout([] { expect_none("eth0"); }), "");
        table.write(route("eth0", "1.2.3.4"));
        const FailCall unreadable(call_read, 1, EIO, FailCall::from_then_on);
        expect_none("eth0");
    });
}

TEST_P(Gateway, IsNotFoundAndPrintsAMessageIfTheTableCannotBeOpened) {
    in_private_root([] {
        EXPECT_EQ(capture_stdout([] {
                      const FailCall no_file(call_open, 1, EMFILE);
                      expect_none("eth0");
                  }),
                  open_error);
    });
}

TEST_P(Gateway, IsNotFoundAndPrintsAMessageIfThereIsNoTable) {
    in_private_root([] {
        const ReplacedTable table("route");
        const auto seek = [] {
            expect_none("eth0");
        };
        table.remove();
        EXPECT_EQ(capture_stdout(seek), open_error);
        EXPECT_EQ(capture_stderr([&] { static_cast<void>(capture_stdout(seek)); }), "");
        table.replace_by_directory();
        EXPECT_EQ(capture_stdout(seek), open_error);
    });
}

TEST(getDefaultRoute, PrintsAMessageForAnyNameIfThereIsNoTable) {
    in_private_root([] {
        const ReplacedTable table("route");
        table.remove();
        for (const std::string &name : {""s, "no such"s, std::string(100, 'e')})
            EXPECT_EQ(capture_stdout([&] {
                          std::uint32_t found = 7;
                          EXPECT_EQ(getDefaultRoute(name.c_str(), &found), 0);
                      }),
                      open_error)
                << name;
    });
}

TEST(getDefGw, DoesNotOpenTheTableForANullPointer) {
    in_private_root([] {
        const ReplacedTable table("route");
        table.remove();
        char out[CORVEL_IPV4_SIZE];
        EXPECT_EQ(capture_stdout([&] { EXPECT_EQ(getDefGw(nullptr, out), out); }), "");
        EXPECT_STREQ(out, "0.0.0.0");
    });
}

TEST_P(Gateway, IsFoundInATableWithNuls) {
    in_private_root([] {
        const ReplacedTable table("route");
        const std::string start = "eth0 00000000 " + kernel_hex("1.2.3.4");
        for (const std::string &bad :
             {start + "\0 3 0 0 0 0 0 0 0\n"s, "\0"s + route("eth0", "1.2.3.4"),
              std::string(5000, '\0') + "\n"})
            expect_skipped(table, bad);
        table.write(start + " 3 0 0 0 0 0 0\0junk\n"s);
        expect("eth0", "1.2.3.4");
    });
}

TEST_P(Gateway, IsFoundAfterNoise) {
    in_private_root([] {
        const ReplacedTable table("route");
        const std::string noise = RandomTables(64).noise();
        expect_skipped(table, noise);
    });
}

TEST(getDefaultRoute, AllocatesNothing) {
    in_private_root([] {
        std::uint32_t found = 0;
        const CountCalls allocations(call_allocation);
        getDefaultRoute("eth0", &found);
        EXPECT_EQ(allocations.count(), 0U);
    });
}

TEST(getDefGw, AllocatesNothing) {
    in_private_root([] {
        char out[CORVEL_IPV4_SIZE];
        const CountCalls allocations(call_allocation);
        getDefGw("eth0", out);
        EXPECT_EQ(allocations.count(), 0U);
    });
}

/** What a model based on scanf() finds. */
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

/** The words of a line of the table, sometimes of a malformed one. */
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

TEST_P(Gateway, IsTheOneThatScanfFinds) {
    in_private_root([] {
        const ReplacedTable table("route");
        RandomTables random(63);
        for (int round = 0; round < 1000; ++round) {
            const std::string text = random.table_of(words_of_a_line);
            table.write(text);
            expect("eth0", expected_of("/proc/self/net/route", "eth0"));
            ASSERT_FALSE(HasFailure()) << text;
        }
    });
}

// --- get_dns ---

/** The string @p text after the name servers of a file are appended to it, in a buffer of exactly
 * the size of @p expected. */
std::string servers(const std::string &file, const std::string &text, const std::string &expected) {
    write_file("/etc/resolv.conf", file);
    GuardedOutput out(expected.size() + 1);
    text.copy(out.start(), text.size());
    out.start()[text.size()] = '\0';
    const DescriptorWatch watch;
    EXPECT_EQ(get_dns(out.start()), out.start());
    EXPECT_TRUE(out.preceding_bytes_intact());
    return out.start();
}

void expect_servers(const std::string &file, const std::string &expected) {
    EXPECT_EQ(servers(file, "", expected), expected) << file;
}

TEST(get_dns, AppendsTheServersInTheOrderOfTheFile) {
    in_private_root([] {
        const std::string file = "nameserver 192.168.1.1\nsearch lan\nnameserver 2001:db8::1\n";
        const std::string both = "192.168.1.1" + gap + "2001:db8::1" + gap;
        EXPECT_EQ(servers(file, "", both), both);
        EXPECT_EQ(servers(file, "DNS: ", "DNS: " + both), "DNS: " + both);
    });
}

TEST(get_dns, AppendsToTheResultOfAnEarlierCall) {
    in_private_root([] {
        write_file("/etc/resolv.conf", "nameserver 1.1.1.1\n");
        char out[128] = "";
        get_dns(out);
        get_dns(out);
        EXPECT_EQ(out, "1.1.1.1" + gap + "1.1.1.1" + gap);
    });
}

TEST(get_dns, AppendsNothingWithoutAServer) {
    in_private_root([] {
        for (const char *file : {"", "\n", "\n\n", "search lan\n", "# nameserver 1.1.1.1\n"})
            EXPECT_EQ(servers(file, "text", "text"), "text") << file;
    });
}

TEST(get_dns, RequiresExactlyTheKeyword) {
    in_private_root([] {
        for (const std::string word :
             {"Nameserver", "nameservers", "nameserve", "#nameserver", "nameserver:", "NAMESERVER"})
            expect_servers(word + " 1.1.1.1\n", "");
        expect_servers("options nameserver 1.1.1.1\n", "");
    });
}

TEST(get_dns, AcceptsAnyWhitespaceBetweenTheWords) {
    in_private_root([] {
        expect_servers(" \t nameserver\t\t1.1.1.1 \n", "1.1.1.1" + gap);
        expect_servers("nameserver\v1.1.1.1\r\nnameserver\f2.2.2.2\r\n",
                       "1.1.1.1" + gap + "2.2.2.2" + gap);
    });
}

TEST(get_dns, AppendsTheSecondWordUnchanged) {
    in_private_root([] {
        expect_servers("nameserver 1.1.1.1#53 2.2.2.2\n", "1.1.1.1#53" + gap);
        expect_servers("nameserver <b>%s%n&\xFF\x80\n", "<b>%s%n&\xFF\x80" + gap);
    });
}

TEST(get_dns, AppendsTheGapAloneForAServerWithoutAddress) {
    in_private_root([] {
        expect_servers("nameserver\n", gap);
        expect_servers("nameserver", gap);
        expect_servers("nameserver \nnameserver 1.1.1.1\nnameserver\n",
                       gap + "1.1.1.1" + gap + gap);
    });
}

TEST(get_dns, AppendsTheLastServerOnce) {
    in_private_root([] {
        expect_servers("nameserver 1.1.1.1", "1.1.1.1" + gap);
        expect_servers("nameserver 1.1.1.1\n", "1.1.1.1" + gap);
        expect_servers("nameserver 1.1.1.1\n\n", "1.1.1.1" + gap);
    });
}

TEST(get_dns, ReadsALineUpToANul) {
    in_private_root([] {
        expect_servers("nameserver 1.1\0.1.1\nnameserver 2.2.2.2\n"s,
                       "1.1" + gap + "2.2.2.2" + gap);
        expect_servers("\0nameserver 1.1.1.1\nnameserver\0 1.1.1.1\n"s, gap);
        expect_servers(std::string(1000, '\0') + "\nnameserver 1.1.1.1\n", "1.1.1.1" + gap);
    });
}

TEST(get_dns, ReadsTheFileInPiecesOf254Characters) {
    in_private_root([] {
        const std::string word = "nameserver ";
        for (const std::size_t length : {242U, 243U, 244U, 253U, 254U, 255U, 300U, 1023U, 5000U}) {
            const std::string address(length, 'x');
            expect_servers(word + address + "\n", address.substr(0, 254 - word.size()) + gap);
        }
        for (const std::size_t length : {253U, 254U, 255U, 508U}) {
            // After 254 characters, the rest of the line is a piece of its own.
            const bool apart = length >= 254;
            expect_servers("#" + std::string(length - 1, ' ') + "nameserver 1.1.1.1\n",
                           apart ? "1.1.1.1" + gap : "");
            expect_servers(std::string(length - 3, ' ') + "nameserver 1.1.1.1\n", "");
            expect_servers("nameserver " + std::string(length - 11, ' ') + "1.1.1.1\n",
                           length < 254 ? "1" + gap : gap);
        }
    });
}

TEST(get_dns, AppendsAnyNumberOfServers) {
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

/** Expects that the result is the gap, not in the buffer, which is unchanged. */
void expect_no_file() {
    const DescriptorWatch watch;
    char out[] = "unchanged";
    const char *const result = get_dns(out);
    EXPECT_NE(result, out);
    EXPECT_EQ(result, gap);
    EXPECT_STREQ(out, "unchanged");
}

TEST(get_dns, ReturnsTheGapAloneIfTheFileCannotBeOpened) {
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
        const FailCall failing(call_open, 1, EACCES, FailCall::from_then_on);
        expect_no_file();
    });
}

TEST(get_dns, PrintsNothing) {
    in_private_root([] {
        EXPECT_EQ(capture_stdout(expect_no_file), "");
        EXPECT_EQ(capture_stderr(expect_no_file), "");
        const auto find = [] {
            expect_servers("nameserver 1.1.1.1\n", "1.1.1.1" + gap);
        };
        EXPECT_EQ(capture_stdout(find), "");
    });
}

TEST(get_dns, AppendsNothingIfReadingFails) {
    in_private_root([] {
        write_file("/etc/resolv.conf", "nameserver 1.1.1.1\n");
        char out[64] = "text";
        const DescriptorWatch watch;
        const FailCall unreadable(call_read, 1, EIO, FailCall::from_then_on);
        EXPECT_EQ(get_dns(out), out);
        EXPECT_STREQ(out, "text");
    });
}

TEST(get_dns, FollowsASymbolicLink) {
    in_private_root([] {
        write_file("/tmp/resolv.conf", "nameserver 1.1.1.1\n");
        std::filesystem::create_symlink("/tmp/resolv.conf", "/etc/resolv.conf");
        char out[64] = "";
        EXPECT_EQ(get_dns(out), "1.1.1.1" + gap);
    });
}

/** What a model based on scanf() appends. */
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

TEST(get_dns, AgreesWithScanfOnAnyFile) {
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

TEST(get_dns, AllocatesNothing) {
    in_private_root([] {
        write_file("/etc/resolv.conf", "nameserver 1.1.1.1\n");
        char out[64] = "";
        const CountCalls allocations(call_allocation);
        get_dns(out);
        std::remove("/etc/resolv.conf");
        get_dns(out);
        EXPECT_EQ(allocations.count(), 0U);
    });
}

} // namespace

/* SPDX-License-Identifier: MIT */
/** Fields: decoding, lookup, and the checks of values. */
#include "tests/page/page_request.h"

#include <array>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace corvel_test {
namespace {

using std::string_literals::operator""s;

// Decoding

FieldPairs decoded(const std::string &text) {
    const PageRequest form(post(text));
    EXPECT_EQ(form.read(), CORVEL_HTTP_OK) << text;
    const PageRequest query(get(text));
    EXPECT_EQ(query.read(), CORVEL_HTTP_OK) << text;
    EXPECT_EQ(fields_of(form), fields_of(query));
    return fields_of(form);
}

TEST(FormDecoding, SplitsPairs) {
    EXPECT_EQ(decoded("a=1&b=2"), (FieldPairs{{"a", "1"}, {"b", "2"}}));
    EXPECT_EQ(decoded("a=1"), (FieldPairs{{"a", "1"}}));
    EXPECT_EQ(decoded(""), FieldPairs());
}

TEST(FormDecoding, SkipsWhatIsEmptyBetweenTwoAmpersands) {
    EXPECT_EQ(decoded("&"), FieldPairs());
    EXPECT_EQ(decoded("&&&a=1&&&b=2&&"), (FieldPairs{{"a", "1"}, {"b", "2"}}));
}

TEST(FormDecoding, KeepsEqualsSignsOfValues) {
    EXPECT_EQ(decoded("a=b=c"), (FieldPairs{{"a", "b=c"}}));
    EXPECT_EQ(decoded("a=="), (FieldPairs{{"a", "="}}));
}

TEST(FormDecoding, GivesAPairWithoutAnEqualsSignAnEmptyValue) {
    EXPECT_EQ(decoded("a"), (FieldPairs{{"a", ""}}));
    EXPECT_EQ(decoded("a="), (FieldPairs{{"a", ""}}));
    EXPECT_EQ(decoded("a&b"), (FieldPairs{{"a", ""}, {"b", ""}}));
}

TEST(FormDecoding, KeepsEmptyNames) {
    EXPECT_EQ(decoded("=1&=&=2"), (FieldPairs{{"", "1"}, {"", ""}, {"", "2"}}));
}

TEST(FormDecoding, DecodesPlusAndPercent) {
    EXPECT_EQ(decoded("a+b=c+d"), (FieldPairs{{"a b", "c d"}}));
    EXPECT_EQ(decoded("%41%3d%26=%2B%20%25"), (FieldPairs{{"A=&", "+ %"}}));
    EXPECT_EQ(decoded("a=%c3%A4%fF"), (FieldPairs{{"a", "\xC3\xA4\xFF"}}));
    EXPECT_EQ(decoded("a=%2541"), (FieldPairs{{"a", "%41"}}));
}

TEST(FormDecoding, DecodesEveryByte) {
    constexpr char digits[] = "0123456789abcdefABCDEF";
    for (int high = 0; high < 22; ++high)
        for (int low = high == 0 ? 1 : 0; low < 22; ++low) {
            const std::string text{'a', '=', '%', digits[high], digits[low]};
            const int byte = std::stoi(text.substr(3), nullptr, 16);
            EXPECT_EQ(decoded(text), (FieldPairs{{"a", std::string(1, static_cast<char>(byte))}}));
        }
}

TEST(FormDecoding, KeepsAMalformedPercentSign) {
    for (const char *value :
         {"%", "%%", "%4", "%4g", "%g4", "%-1", "% 4", "100%", "%u0041", "%x41"})
        EXPECT_EQ(decoded("a="s + value), (FieldPairs{{"a", value}})) << value;
    EXPECT_EQ(decoded("%=%4&%4=1"), (FieldPairs{{"%", "%4"}, {"%4", "1"}}));
    EXPECT_EQ(decoded("a=%%41"), (FieldPairs{{"a", "%A"}}));
    EXPECT_EQ(decoded("a=%4%41"), (FieldPairs{{"a", "%4A"}}));
    EXPECT_EQ(decoded("a=%+41"), (FieldPairs{{"a", "% 41"}}));
}

/** What is in the memory after the body, often what was freed before, is not a part of it. */
TEST(FormDecoding, KeepsAPercentSignThatTheEndOfTheBodyCutsShort) {
    const std::string name(999, 'n');
    for (const char *end : {"%", "%4"}) {
        const std::string body = name + "=" + end;
        const PageRequest request(post(body));
        std::free(std::memset(std::malloc(body.size() + 1), '1', body.size() + 1));
        ASSERT_EQ(request.read(), CORVEL_HTTP_OK);
        EXPECT_STREQ(corvel_field(request, name.c_str()), end);
    }
}

TEST(FormDecoding, KeepsLongNamesAndValues) {
    const std::string name(30000, 'n');
    const std::string value(30000, 'v');
    EXPECT_EQ(decoded(name + "=" + value), (FieldPairs{{name, value}}));
}

// corvel_field, corvel_query, corvel_field_at

TEST(corvel_field, TellsMissingFromEmpty) {
    const PageRequest request(post("a=&b"));
    ASSERT_EQ(request.read(), CORVEL_HTTP_OK);
    EXPECT_STREQ(corvel_field(request, "a"), "");
    EXPECT_STREQ(corvel_field(request, "b"), "");
    EXPECT_EQ(corvel_field(request, "c"), nullptr);
    EXPECT_EQ(corvel_field(request, ""), nullptr);
    EXPECT_EQ(corvel_field(request, nullptr), nullptr);
    EXPECT_EQ(corvel_field(nullptr, "a"), nullptr);
}

TEST(corvel_field, ComparesNamesExactly) {
    const PageRequest request(post("name=1&names=2&nam=3&Name=4&\xFF=5&n%61me%20=6"));
    ASSERT_EQ(request.read(), CORVEL_HTTP_OK);
    EXPECT_STREQ(corvel_field(request, "name"), "1");
    EXPECT_STREQ(corvel_field(request, "names"), "2");
    EXPECT_STREQ(corvel_field(request, "nam"), "3");
    EXPECT_STREQ(corvel_field(request, "Name"), "4");
    EXPECT_STREQ(corvel_field(request, "\xFF"), "5");
    EXPECT_STREQ(corvel_field(request, "name "), "6");
    EXPECT_EQ(corvel_field(request, "na"), nullptr);
    EXPECT_EQ(corvel_field(request, "namesx"), nullptr);
}

TEST(corvel_field, ReturnsTheFirstOfSeveralValues) {
    const PageRequest request(post("b=0&a=1&a=2&c=3&a=4"));
    ASSERT_EQ(request.read(), CORVEL_HTTP_OK);
    EXPECT_STREQ(corvel_field(request, "a"), "1");
}

TEST(corvel_field, IsOfTheFormOrForAGetOfTheQuery) {
    const PageRequest form(post("a=form").with("QUERY_STRING", "a=query&b=query"));
    ASSERT_EQ(form.read(), CORVEL_HTTP_OK);
    EXPECT_STREQ(corvel_field(form, "a"), "form");
    EXPECT_EQ(corvel_field(form, "b"), nullptr);
    EXPECT_STREQ(corvel_query(form, "a"), "query");
    EXPECT_STREQ(corvel_query(form, "b"), "query");
    EXPECT_EQ(corvel_query(form, "c"), nullptr);
    const PageRequest query(get("a=query"));
    ASSERT_EQ(query.read(), CORVEL_HTTP_OK);
    EXPECT_STREQ(corvel_field(query, "a"), "query");
    EXPECT_STREQ(corvel_query(query, "a"), "query");
}

TEST(corvel_field, IsMissingBeforeTheRequestIsReadAndIfItIsRefused) {
    const PageRequest request(get("a=1").with("HTTP_HOST", "evil.example"));
    EXPECT_EQ(corvel_field(request, "a"), nullptr);
    const char *const hosts[] = {"router", nullptr};
    EXPECT_EQ(request.read(Rules{.hosts = hosts}), CORVEL_HTTP_FORBIDDEN);
    EXPECT_EQ(corvel_field(request, "a"), nullptr);
    EXPECT_EQ(corvel_query(request, "a"), nullptr);
}

TEST(corvel_field, StaysWhereItIs) {
    const PageRequest request(post("a=1&b=2"));
    ASSERT_EQ(request.read(), CORVEL_HTTP_OK);
    const char *const value = corvel_field(request, "a");
    EXPECT_EQ(corvel_field(request, "a"), value);
    EXPECT_EQ(corvel_field_at(request, "a", 0), value);
}

TEST(corvel_query, IsNullForNull) {
    EXPECT_EQ(corvel_query(nullptr, "a"), nullptr);
    const PageRequest request(get("a=1"));
    ASSERT_EQ(request.read(), CORVEL_HTTP_OK);
    EXPECT_EQ(corvel_query(request, nullptr), nullptr);
}

TEST(corvel_field_at, SelectsAValueByItsIndexAmongThoseOfTheName) {
    const PageRequest request(post("b=x&a=1&a=2&c=x&a=3"));
    ASSERT_EQ(request.read(), CORVEL_HTTP_OK);
    EXPECT_STREQ(corvel_field_at(request, "a", 0), "1");
    EXPECT_STREQ(corvel_field_at(request, "a", 1), "2");
    EXPECT_STREQ(corvel_field_at(request, "a", 2), "3");
    EXPECT_EQ(corvel_field_at(request, "a", 3), nullptr);
    EXPECT_EQ(corvel_field_at(request, "b", 1), nullptr);
    EXPECT_EQ(corvel_field_at(request, "c", 1), nullptr);
    EXPECT_EQ(corvel_field_at(request, "d", 0), nullptr);
    EXPECT_EQ(corvel_field_at(request, "a", SIZE_MAX), nullptr);
    EXPECT_EQ(corvel_field_at(request, "a", SIZE_MAX - 1), nullptr);
    EXPECT_EQ(corvel_field_at(request, nullptr, 0), nullptr);
    EXPECT_EQ(corvel_field_at(nullptr, "a", 0), nullptr);
}

/** All values, found in the order of the form, for tables of every size up to some. */
TEST(corvel_field_at, FindsEveryPairOfTablesOfManySizes) {
    for (unsigned count = 0; count < 70; ++count)
        for (unsigned names = 1; names < 8; ++names) {
            std::string text;
            for (unsigned i = 0; i < count; ++i)
                text += "n" + std::to_string(i * 31 % names) + "=" + std::to_string(i) + "&";
            const PageRequest request(get(text));
            ASSERT_EQ(request.read(), CORVEL_HTTP_OK);
            std::array<std::size_t, 8> index{};
            for (unsigned i = 0; i < count; ++i) {
                const unsigned name = i * 31 % names;
                EXPECT_STREQ(corvel_field_at(request, ("n" + std::to_string(name)).c_str(),
                                             index.at(name)++),
                             std::to_string(i).c_str());
            }
            for (unsigned name = 0; name < names; ++name)
                EXPECT_EQ(
                    corvel_field_at(request, ("n" + std::to_string(name)).c_str(), index.at(name)),
                    nullptr);
        }
}

/** With a time that grows with the square, this takes minutes. */
TEST(corvel_field_at, TakesNLogNTimeForAnyNames) {
    constexpr unsigned count = 150'000;
    const Rules rules = {.methods = CORVEL_POST, .body_max = 64U << 20U, .pairs_max = count};
    std::string same;
    std::string falling;
    for (unsigned i = 0; i < count; ++i) {
        same += "name=&";
        falling += "name" + std::to_string(1'000'000 - i) + "=&";
    }
    const PageRequest one(post(same));
    ASSERT_EQ(one.read(rules), CORVEL_HTTP_OK);
    for (unsigned i = 0; i < count; ++i)
        ASSERT_NE(corvel_field_at(one, "name", i), nullptr);
    EXPECT_EQ(corvel_field_at(one, "name", count), nullptr);
    const PageRequest other(post(falling));
    ASSERT_EQ(other.read(rules), CORVEL_HTTP_OK);
    for (unsigned i = 0; i < count; ++i)
        ASSERT_NE(corvel_field(other, ("name" + std::to_string(1'000'000 - i)).c_str()), nullptr);
}

// corvel_field_count, corvel_field_pair

TEST(corvel_field_pair, ReturnsThePairsInTheirOrder) {
    const PageRequest request(post("b=1&a=2&b=3&=4").with("QUERY_STRING", "x=1"));
    ASSERT_EQ(request.read(), CORVEL_HTTP_OK);
    EXPECT_EQ(corvel_field_count(request), 4U);
    EXPECT_STREQ(corvel_field(request, "b"), "1"); // which sorts the names
    EXPECT_EQ(fields_of(request), (FieldPairs{{"b", "1"}, {"a", "2"}, {"b", "3"}, {"", "4"}}));
}

TEST(corvel_field_pair, StoresNothingAfterTheLastPair) {
    const PageRequest request(get("a=1"));
    ASSERT_EQ(request.read(), CORVEL_HTTP_OK);
    const char *name = "unchanged";
    const char *value = "unchanged";
    EXPECT_FALSE(corvel_field_pair(request, 1, &name, &value));
    EXPECT_FALSE(corvel_field_pair(request, SIZE_MAX, &name, &value));
    EXPECT_FALSE(corvel_field_pair(nullptr, 0, &name, &value));
    EXPECT_STREQ(name, "unchanged");
    EXPECT_STREQ(value, "unchanged");
}

TEST(corvel_field_pair, NeedsNoPlaceForTheResults) {
    const PageRequest request(get("a=1"));
    ASSERT_EQ(request.read(), CORVEL_HTTP_OK);
    EXPECT_TRUE(corvel_field_pair(request, 0, nullptr, nullptr));
}

TEST(corvel_field_count, IsThatOfTheQueryForAGetAndZeroForNull) {
    const PageRequest request(get("a=1&b=2"));
    EXPECT_EQ(corvel_field_count(request), 0U);
    ASSERT_EQ(request.read(), CORVEL_HTTP_OK);
    EXPECT_EQ(corvel_field_count(request), 2U);
    EXPECT_EQ(corvel_field_count(nullptr), 0U);
}

// Checks

constexpr const char *missing = "This field is missing.";
constexpr const char *empty = "Enter a value.";

/** A message as a string, so that a valid value is the empty one. */
std::string message(const char *text) { return text != nullptr ? text : ""; }

TEST(corvel_check_text, AcceptsTextOfALength) {
    EXPECT_EQ(message(corvel_check_text("abc", 1, 3)), "");
    EXPECT_EQ(message(corvel_check_text("abc", 3, 3)), "");
    EXPECT_EQ(message(corvel_check_text("abc", 4, 9)), "The text is too short.");
    EXPECT_EQ(message(corvel_check_text("abc", 0, 2)), "The text is too long.");
    EXPECT_EQ(message(corvel_check_text("\xC3\xA4", 2, 2)), "");
    EXPECT_EQ(message(corvel_check_text("\xC3\xA4", 1, 1)), "The text is too long.");
}

TEST(corvel_check_text, AcceptsAnEmptyValueIfMinIsZero) {
    EXPECT_EQ(message(corvel_check_text("", 0, 5)), "");
    EXPECT_EQ(message(corvel_check_text("", 0, 0)), "");
    EXPECT_EQ(message(corvel_check_text("", 1, 5)), empty);
    EXPECT_EQ(message(corvel_check_text(nullptr, 0, 5)), missing);
    EXPECT_EQ(message(corvel_check_text(nullptr, 1, 5)), missing);
}

TEST(corvel_check_text, AcceptsUtf8WithoutControls) {
    for (const char *value :
         {"a b", "~!\"$%&'<>\\`", "\xC2\xA0", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF",
          "\xEE\x80\x80", "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"})
        EXPECT_EQ(message(corvel_check_text(value, 1, 99)), "") << value;
    for (const char *value : {"\x01", "a\n", "\r", "\t", "\x1F", "\x7F", "\xC2\x80", "a\xC2\x9F",
                              "\x80", "\xC3", "\xC3(", "\xC0\xAF", "\xED\xA0\x80", "\xE2\x82",
                              "\xF0\x80\x80\x80", "\xF4\x90\x80\x80", "\xFF", "abc\xE2"})
        EXPECT_EQ(message(corvel_check_text(value, 1, 99)),
                  "The text contains a character that is not permitted.")
            << value;
}

TEST(corvel_check_integer, AcceptsNumbersOfTheRange) {
    for (const long number : {-10L, -9L, -1L, 0L, 1L, 9L, 10L}) {
        long result = 99;
        EXPECT_EQ(message(corvel_check_integer(std::to_string(number).c_str(), -10, 10, &result)),
                  "");
        EXPECT_EQ(result, number);
    }
    long result = 99;
    EXPECT_EQ(message(corvel_check_integer("-11", -10, 10, &result)), "The number is too small.");
    EXPECT_EQ(message(corvel_check_integer("11", -10, 10, &result)), "The number is too large.");
    EXPECT_EQ(message(corvel_check_integer("-1", 0, 10, &result)), "The number is too small.");
    EXPECT_EQ(message(corvel_check_integer("0", 1, 10, &result)), "The number is too small.");
    EXPECT_EQ(message(corvel_check_integer("0", -10, -1, &result)), "The number is too large.");
    EXPECT_EQ(result, 99);
    EXPECT_EQ(message(corvel_check_integer("5", 5, 5, nullptr)), "");
}

TEST(corvel_check_integer, AcceptsTheLimitsOfLong) {
    long result = 0;
    EXPECT_EQ(message(corvel_check_integer(std::to_string(LONG_MAX).c_str(), LONG_MIN, LONG_MAX,
                                           &result)),
              "");
    EXPECT_EQ(result, LONG_MAX);
    EXPECT_EQ(message(corvel_check_integer(std::to_string(LONG_MIN).c_str(), LONG_MIN, LONG_MAX,
                                           &result)),
              "");
    EXPECT_EQ(result, LONG_MIN);
    const auto beyond = static_cast<unsigned long>(LONG_MAX) + 1;
    const std::string after_max = std::to_string(beyond);
    const std::string before_min = "-" + std::to_string(beyond + 1);
    for (const std::string &large :
         {after_max, "9999999999999999999"s, "10000000000000000000"s, "18446744073709551615"s,
          "18446744073709551616"s, std::string(100, '9')})
        EXPECT_EQ(message(corvel_check_integer(large.c_str(), LONG_MIN, LONG_MAX, &result)),
                  "The number is too large.")
            << large;
    for (const std::string &small : {before_min, "-9999999999999999999"s, "-10000000000000000000"s,
                                     "-18446744073709551616"s, "-" + std::string(100, '9')})
        EXPECT_EQ(message(corvel_check_integer(small.c_str(), LONG_MIN, LONG_MAX, &result)),
                  "The number is too small.")
            << small;
}

TEST(corvel_check_integer, AcceptsOneSpelling) {
    for (const char *value : {"01", "00", "-0", "-01", "+1", " 1", "1 ", "1\n", "1.0", "1e3", "0x1",
                              "-", "--1", "- 1", "x", "1x", "\xFF", "1,000"})
        EXPECT_EQ(message(corvel_check_integer(value, -10, 10, nullptr)), "Enter a whole number.")
            << value;
    EXPECT_EQ(message(corvel_check_integer("", -10, 10, nullptr)), empty);
    EXPECT_EQ(message(corvel_check_integer(nullptr, -10, 10, nullptr)), missing);
}

TEST(corvel_check_port, AcceptsOneTo65535) {
    for (const unsigned number : {1U, 80U, 65535U}) {
        unsigned port = 0;
        EXPECT_EQ(message(corvel_check_port(std::to_string(number).c_str(), &port)), "");
        EXPECT_EQ(port, number);
    }
    unsigned port = 99;
    for (const char *value : {"0", "65536", "-1", "080", "80 ", "http", "99999999999999999999"})
        EXPECT_EQ(message(corvel_check_port(value, &port)), "Enter a port from 1 to 65535.")
            << value;
    EXPECT_EQ(message(corvel_check_port("", &port)), empty);
    EXPECT_EQ(message(corvel_check_port(nullptr, &port)), missing);
    EXPECT_EQ(port, 99U);
    EXPECT_EQ(message(corvel_check_port("1", nullptr)), "");
}

TEST(corvel_check_ipv4, AcceptsFourNumbers) {
    uint32_t address = 1;
    EXPECT_EQ(message(corvel_check_ipv4("192.168.1.1", &address)), "");
    EXPECT_EQ(address, 0xC0A80101U);
    EXPECT_EQ(message(corvel_check_ipv4("0.0.0.0", &address)), "");
    EXPECT_EQ(address, 0U);
    EXPECT_EQ(message(corvel_check_ipv4("255.255.255.255", &address)), "");
    EXPECT_EQ(address, 0xFFFFFFFFU);
    EXPECT_EQ(message(corvel_check_ipv4("1.2.3.4", nullptr)), "");
}

TEST(corvel_check_ipv4, RefusesEverythingElse) {
    uint32_t address = 99;
    for (const char *value :
         {"1",          "1.2.3",     "1.2.3.",    ".1.2.3",           "1..2.3",
          "1.2.3.4.",   "1.2.3.4.5", "256.1.1.1", "1.1.1.256",        "01.2.3.4",
          "1.2.3.04",   "0x1.2.3.4", "1.2.3.4 ",  " 1.2.3.4",         "1.2.3.-4",
          "1.2.3.4/24", "a.b.c.d",   "....",      "1.2.3.4294967297", "::1",
          "1,2,3,4"})
        EXPECT_EQ(message(corvel_check_ipv4(value, &address)),
                  "Enter an IPv4 address, such as 192.168.1.1.")
            << value;
    EXPECT_EQ(message(corvel_check_ipv4("", &address)), empty);
    EXPECT_EQ(message(corvel_check_ipv4(nullptr, &address)), missing);
    EXPECT_EQ(address, 99U);
}

TEST(corvel_check_ipv6, AcceptsEverySpelling) {
    std::array<unsigned char, 16> address{};
    EXPECT_EQ(message(corvel_check_ipv6("fd00::1", address.data())), "");
    EXPECT_EQ(address,
              (std::array<unsigned char, 16>{0xFD, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}));
    for (const char *value : {"::", "::1", "1::", "FD00::aBcD", "1:2:3:4:5:6:7:8",
                              "0001::", "::ffff:192.168.1.1", "1:2:3:4:5:6:7::"})
        EXPECT_EQ(message(corvel_check_ipv6(value, nullptr)), "") << value;
}

TEST(corvel_check_ipv6, RefusesEverythingElse) {
    std::array<unsigned char, 16> address{};
    for (const char *value :
         {":", ":::", "1", "1:2:3:4:5:6:7", "1:2:3:4:5:6:7:8:9", "1::2::3",
          "12345::", "g::", "fe80::1%eth0", "[::1]", "::1/64", " ::1", "::1 ", "192.168.1.1"})
        EXPECT_EQ(message(corvel_check_ipv6(value, address.data())),
                  "Enter an IPv6 address, such as fd00::1.")
            << value;
    EXPECT_EQ(message(corvel_check_ipv6("", address.data())), empty);
    EXPECT_EQ(message(corvel_check_ipv6(nullptr, address.data())), missing);
    EXPECT_EQ(address, (std::array<unsigned char, 16>{}));
}

std::string dotted(uint32_t address) {
    return std::to_string(address >> 24U) + "." + std::to_string(address >> 16U & 255U) + "." +
           std::to_string(address >> 8U & 255U) + "." + std::to_string(address & 255U);
}

TEST(corvel_check_netmask, AcceptsEveryPrefix) {
    for (unsigned length = 0; length <= 32; ++length) {
        const auto mask = static_cast<uint32_t>(~((uint64_t{1} << (32 - length)) - 1));
        unsigned prefix = 99;
        EXPECT_EQ(message(corvel_check_netmask(dotted(mask).c_str(), &prefix)), "") << length;
        EXPECT_EQ(prefix, length);
    }
    EXPECT_EQ(message(corvel_check_netmask("255.0.0.0", nullptr)), "");
}

TEST(corvel_check_netmask, RefusesEverythingElse) {
    unsigned prefix = 99;
    for (const char *value :
         {"0.0.0.1", "255.0.255.0", "255.255.255.1", "127.255.255.255", "255.255.255.253",
          "192.168.1.1", "255.255.255", "24", "/24", "255.255.255.0 ", "255.255.255.00"})
        EXPECT_EQ(message(corvel_check_netmask(value, &prefix)),
                  "Enter a netmask, such as 255.255.255.0.")
            << value;
    EXPECT_EQ(message(corvel_check_netmask("", &prefix)), empty);
    EXPECT_EQ(message(corvel_check_netmask(nullptr, &prefix)), missing);
    EXPECT_EQ(prefix, 99U);
}

TEST(corvel_check_prefix, AcceptsNetworks) {
    uint32_t network = 1;
    unsigned prefix = 99;
    EXPECT_EQ(message(corvel_check_prefix("192.168.1.0/24", &network, &prefix)), "");
    EXPECT_EQ(network, 0xC0A80100U);
    EXPECT_EQ(prefix, 24U);
    EXPECT_EQ(message(corvel_check_prefix("0.0.0.0/0", &network, &prefix)), "");
    EXPECT_EQ(network, 0U);
    EXPECT_EQ(prefix, 0U);
    EXPECT_EQ(message(corvel_check_prefix("10.0.0.1/32", &network, &prefix)), "");
    EXPECT_EQ(network, 0x0A000001U);
    EXPECT_EQ(prefix, 32U);
    EXPECT_EQ(message(corvel_check_prefix("128.0.0.0/1", nullptr, nullptr)), "");
}

TEST(corvel_check_prefix, RefusesEverythingElse) {
    uint32_t network = 99;
    unsigned prefix = 99;
    for (const char *value :
         {"192.168.1.0", "192.168.1.0/", "/24", "192.168.1.0/33", "192.168.1.0/024",
          "192.168.1.0/24/", "192.168.1/24", "192.168.1.0/255.255.255.0", "192.168.1.0 /24",
          "192.168.1.0/-1", "192.168.1.0/99999999999999999999"})
        EXPECT_EQ(message(corvel_check_prefix(value, &network, &prefix)),
                  "Enter a network and the length of its prefix, such as 192.168.1.0/24.")
            << value;
    for (const char *value : {"192.168.1.1/24", "1.0.0.0/0", "10.0.0.1/31", "255.255.255.255/31"})
        EXPECT_EQ(message(corvel_check_prefix(value, &network, &prefix)),
                  "The address has bits after the prefix that are not 0.")
            << value;
    EXPECT_EQ(message(corvel_check_prefix("", &network, &prefix)), empty);
    EXPECT_EQ(message(corvel_check_prefix(nullptr, &network, &prefix)), missing);
    EXPECT_EQ(network, 99U);
    EXPECT_EQ(prefix, 99U);
}

std::string range(const char *first, const char *last, const char *address = "192.168.1.1",
                  const char *netmask = "255.255.255.0") {
    return message(corvel_check_range(first, last, address, netmask));
}

TEST(corvel_check_range, AcceptsARangeWithinTheNetwork) {
    EXPECT_EQ(range("192.168.1.100", "192.168.1.199"), "");
    EXPECT_EQ(range("192.168.1.1", "192.168.1.254"), "");
    EXPECT_EQ(range("192.168.1.7", "192.168.1.7"), "");
    EXPECT_EQ(range("10.0.0.4", "10.0.0.5", "10.0.0.4", "255.255.255.254"), "");
    EXPECT_EQ(range("10.0.0.4", "10.0.0.4", "10.0.0.4", "255.255.255.255"), "");
    EXPECT_EQ(range("1.2.3.4", "200.0.0.0", "10.0.0.4", "0.0.0.0"), "");
}

TEST(corvel_check_range, RefusesARangeOutsideTheNetwork) {
    constexpr const char *outside = "The range is not within the network.";
    EXPECT_EQ(range("192.168.0.100", "192.168.1.199"), outside);
    EXPECT_EQ(range("192.168.1.100", "192.168.2.1"), outside);
    EXPECT_EQ(range("192.168.0.1", "192.168.2.1"), outside);
    EXPECT_EQ(range("10.0.0.1", "10.0.0.2"), outside);
}

TEST(corvel_check_range, RefusesTheFirstAndTheLastAddressOfTheNetwork) {
    constexpr const char *reserved = "The range contains the first or the last address of the "
                                     "network, which no device can have.";
    EXPECT_EQ(range("192.168.1.0", "192.168.1.7"), reserved);
    EXPECT_EQ(range("192.168.1.7", "192.168.1.255"), reserved);
    EXPECT_EQ(range("10.0.0.4", "10.0.0.6", "10.0.0.5", "255.255.255.252"), reserved);
    EXPECT_EQ(range("10.0.0.5", "10.0.0.7", "10.0.0.5", "255.255.255.252"), reserved);
}

TEST(corvel_check_range, RefusesARangeThatEndsBeforeItStarts) {
    EXPECT_EQ(range("192.168.1.8", "192.168.1.7"), "The range ends before it starts.");
}

TEST(corvel_check_range, ComplainsAboutTheFirstMalformedValue) {
    constexpr const char *address = "Enter an IPv4 address, such as 192.168.1.1.";
    EXPECT_EQ(range("x", "", "x", "x"), address);
    EXPECT_EQ(range("192.168.1.1", "", "x", "x"), empty);
    EXPECT_EQ(range("192.168.1.1", "192.168.1.2", nullptr, "x"), missing);
    EXPECT_EQ(range("192.168.1.1", "192.168.1.2", "192.168.1.1", "x"),
              "Enter a netmask, such as 255.255.255.0.");
}

TEST(corvel_check_mac, AcceptsSixPairsOfDigits) {
    std::array<unsigned char, 6> mac{};
    EXPECT_EQ(message(corvel_check_mac("00:1a:2B:cD:Ef:FF", mac.data())), "");
    EXPECT_EQ(mac, (std::array<unsigned char, 6>{0x00, 0x1A, 0x2B, 0xCD, 0xEF, 0xFF}));
    EXPECT_EQ(message(corvel_check_mac("00:00:00:00:00:00", nullptr)), "");
}

TEST(corvel_check_mac, RefusesEverythingElse) {
    std::array<unsigned char, 6> mac{};
    for (const char *value :
         {"0", "00", "00:", "00:11:22:33:44", "00:11:22:33:44:", "00:11:22:33:44:5",
          "00:11:22:33:44:55:", "00:11:22:33:44:55:66", "00:11:22:33:44:5g", "0:11:22:33:44:55",
          "00-11-22-33-44-55", "001122334455", " 00:11:22:33:44:55", "00:11:22:33:44:55 "})
        EXPECT_EQ(message(corvel_check_mac(value, mac.data())),
                  "Enter a MAC address, such as 00:11:22:AA:BB:CC.")
            << value;
    EXPECT_EQ(message(corvel_check_mac("", mac.data())), empty);
    EXPECT_EQ(message(corvel_check_mac(nullptr, mac.data())), missing);
    EXPECT_EQ(mac, (std::array<unsigned char, 6>{}));
}

TEST(corvel_check_host_name, AcceptsNames) {
    const std::string label(63, 'a');
    const std::string longest = label + "." + label + "." + label + "." + std::string(61, 'a');
    ASSERT_EQ(longest.size(), 253U);
    for (const std::string &value :
         {"a"s, "router"s, "Router-7"s, "a.b.c"s, "7.example"s, "a1"s, "1a"s, "a--b"s,
          "xn--bcher-kva.example"s, "Z"s, label, longest, "1.2.3.4a"s})
        EXPECT_EQ(message(corvel_check_host_name(value.c_str())), "") << value;
}

TEST(corvel_check_host_name, RefusesEverythingElse) {
    const std::string label(63, 'a');
    for (const std::string &value :
         {"-a"s,
          "a-"s,
          "a.-b"s,
          "a-.b"s,
          "-"s,
          "."s,
          "a."s,
          ".a"s,
          "a..b"s,
          "a_b"s,
          "a b"s,
          "a:b"s,
          "a/b"s,
          "b\xC3\xBC"
          "cher"s,
          "1"s,
          "1.2.3.4"s,
          "a.7"s,
          "@"s,
          "["s,
          "`"s,
          "{"s,
          label + "a",
          "a." + label + "a.b",
          label + "." + label + "." + label + "." + std::string(62, 'a')})
        EXPECT_EQ(message(corvel_check_host_name(value.c_str())),
                  "Enter a host name: letters, digits and hyphens, in parts separated by dots.")
            << value;
    EXPECT_EQ(message(corvel_check_host_name("")), empty);
    EXPECT_EQ(message(corvel_check_host_name(nullptr)), missing);
}

TEST(corvel_check_choice, AcceptsAValueOfTheList) {
    const char *const choices[] = {"on", "off", "", "on", nullptr};
    std::size_t index = 99;
    EXPECT_EQ(message(corvel_check_choice("on", choices, &index)), "");
    EXPECT_EQ(index, 0U);
    EXPECT_EQ(message(corvel_check_choice("off", choices, &index)), "");
    EXPECT_EQ(index, 1U);
    EXPECT_EQ(message(corvel_check_choice("", choices, &index)), "");
    EXPECT_EQ(index, 2U);
    EXPECT_EQ(message(corvel_check_choice("on", choices, nullptr)), "");
}

TEST(corvel_check_choice, RefusesEverythingElse) {
    const char *const choices[] = {"on", "off", nullptr};
    constexpr const char *refusal = "Choose one of the values that are offered.";
    std::size_t index = 99;
    for (const char *value : {"", "o", "ON", "onn", "on "})
        EXPECT_EQ(message(corvel_check_choice(value, choices, &index)), refusal) << value;
    EXPECT_EQ(message(corvel_check_choice("on", nullptr, &index)), refusal);
    EXPECT_EQ(message(corvel_check_choice(nullptr, choices, &index)), missing);
    EXPECT_EQ(index, 99U);
}

TEST(Checks, TakeTimeThatIsLinearInTheValue) {
    const std::string digits(1'000'000, '1');
    const std::string dots(1'000'000, '.');
    const std::string labels(1'000'000, 'a');
    for (const std::string &value : {digits, dots, labels}) {
        EXPECT_NE(corvel_check_integer(value.c_str(), 0, 1, nullptr), nullptr);
        EXPECT_NE(corvel_check_ipv4(value.c_str(), nullptr), nullptr);
        EXPECT_NE(corvel_check_ipv6(value.c_str(), nullptr), nullptr);
        EXPECT_NE(corvel_check_prefix(value.c_str(), nullptr, nullptr), nullptr);
        EXPECT_NE(corvel_check_host_name(value.c_str()), nullptr);
        EXPECT_NE(corvel_check_mac(value.c_str(), nullptr), nullptr);
    }
}

} // namespace
} // namespace corvel_test

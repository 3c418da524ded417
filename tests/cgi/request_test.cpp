/* SPDX-License-Identifier: MIT */
#include <corvel.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "tests/cgi/printed.h"
#include "tests/cgi/request_pairs.h"
#include "tests/support/child_process.h"
#include "tests/support/descriptors.h"
#include "tests/support/environment.h"
#include "tests/support/guarded_memory.h"
#include "tests/support/output_capture.h"
#include "tests/support/stand_in.h"

namespace corvel_test {
namespace {

using std::string_literals::operator""s;

using Decoder = int (*)(prop_entry *);

/** The pairs that a decoder stores. It must change only the strings of the rows that it counts. */
Pairs decoded(Decoder decoder, std::size_t capacity = 64) {
    DecodedRows rows(capacity);
    const int count = decoder(rows.data());
    if (count < 0 || static_cast<std::size_t>(count) > capacity) {
        ADD_FAILURE() << "counted " << count;
        return {};
    }
    EXPECT_TRUE(rows.rest_is_unchanged(count));
    return rows.pairs(count);
}

Pairs decoded_query(const std::string &query, std::size_t capacity = 64) {
    const EnvironmentVariable variable("QUERY_STRING", query);
    return decoded(process_query_string, capacity);
}

/** The body that read_queue() returns; no value if that is null. */
std::optional<std::string> body_read(const Request &request,
                                     StandardInput::Kind kind = StandardInput::Kind::file) {
    const RequestEnvironment environment(request, kind);
    char *const body = read_queue();
    if (body == nullptr)
        return std::nullopt;
    const auto length = static_cast<std::size_t>(std::atoi(std::getenv("CONTENT_LENGTH")));
    EXPECT_EQ(body[length], '\0');
    std::string text(body, length);
    EXPECT_EQ(free_buff(body, static_cast<uint32_t>(length + 1)), 0);
    return text;
}

bool query_is_set() { return std::getenv("QUERY_STRING") != nullptr; }
bool referer_is_set() { return std::getenv("HTTP_REFERER") != nullptr; }

const char *const get_spellings[] = {"GET", "get", "Get", "gEt"};
const char *const post_spellings[] = {"POST", "post", "Post", "pOST"};
const char *const other_methods[] = {"PUT", "HEAD",  "DELETE", "",     "GETS",
                                     "GE",  "POSTS", "POS",    " GET", "POST "};

// --- read_queue ---

TEST(read_queue, ReadsTheWholeBodyAndTerminatesIt) {
    EXPECT_EQ(body_read({.method = "POST", .body = "a=1&b=2"}), "a=1&b=2");
    EXPECT_EQ(body_read({.method = "POST", .body = "x"}), "x");
}

TEST(read_queue, ReadsAPipeThatDeliversTheBodyInPieces) {
    const std::string body(300000, 'b');
    EXPECT_EQ(body_read({.method = "POST", .body = body}, StandardInput::Kind::pipe), body);
}

TEST(read_queue, ReadsAnyBytes) {
    std::string body;
    for (int i = 0; i < 1024; ++i)
        body += static_cast<char>(i);
    EXPECT_EQ(body_read({.method = "POST", .body = body}), body);
    EXPECT_EQ(body_read({.method = "POST", .body = "\0\0\n"s}), "\0\0\n"s);
}

TEST(read_queue, ReadsTheBodyForEveryMethodExceptGet) {
    for (const char *method : post_spellings)
        EXPECT_EQ(body_read({.method = method, .body = "ab"}), "ab") << method;
    for (const char *method : other_methods)
        EXPECT_EQ(body_read({.method = method, .body = "ab"}), "ab") << method;
}

TEST(read_queue, ReadsNothingForAGetInAnyCase) {
    for (const char *method : get_spellings) {
        const RequestEnvironment environment({.method = method, .body = "ab"});
        EXPECT_EQ(read_queue(), nullptr) << method;
        EXPECT_EQ(std::getchar(), 'a') << "standard input was read for " << method;
    }
}

TEST(read_queue, ReadsNothingWithoutAMethod) {
    const RequestEnvironment environment({.body = "ab"});
    EXPECT_EQ(read_queue(), nullptr);
    EXPECT_EQ(std::getchar(), 'a');
}

TEST(read_queue, ReadsNothingWithoutALength) {
    const RequestEnvironment environment({.method = "POST", .body = "ab"});
    const EnvironmentVariable no_length("CONTENT_LENGTH", std::nullopt);
    EXPECT_EQ(read_queue(), nullptr);
    EXPECT_EQ(std::getchar(), 'a');
}

TEST(read_queue, RefusesALengthThatIsZeroNegativeOrNotANumber) {
    for (const char *length :
         {"0", "-0", "+0", "000", "-1", "-2", "-2147483648", "-2147483649", "-99999999999999999999",
          "-4294967294", "", " ", "abc", "x2", "- 2", "+-2", "--2", ".5", "0x2"}) {
        const RequestEnvironment environment({.method = "POST", .body = "ab", .length = length});
        const CountCalls reads(call_fread);
        const CountCalls allocations(call_allocation);
        char *const body = read_queue();
        EXPECT_EQ(allocations.count(), 0U) << length;
        EXPECT_EQ(reads.count(), 0U) << length;
        EXPECT_EQ(body, nullptr) << length;
        EXPECT_EQ(std::getchar(), 'a') << "standard input was read for the length " << length;
    }
}

TEST(read_queue, ReadsTheLengthAsAtoiDoes) {
    for (const char *length :
         {"2", " 2", "\t\n\v\f\r 2", "+2", "2 ", "2abc", "2.9", "0002", "2,000"}) {
        EXPECT_EQ(body_read({.method = "POST", .body = "abc", .length = length}), "ab") << length;
    }
}

TEST(read_queue, LeavesBytesAfterTheLengthInStandardInput) {
    const RequestEnvironment environment({.method = "POST", .body = "abcdef", .length = "3"});
    char *const body = read_queue();
    ASSERT_NE(body, nullptr);
    EXPECT_STREQ(body, "abc");
    free_buff(body, 4);
    EXPECT_EQ(std::getchar(), 'd');
}

TEST(read_queue, RefusesABodyShorterThanItsLength) {
    for (const char *length : {"3", "4", "1000", "1000000"}) {
        EXPECT_EQ(body_read({.method = "POST", .body = "ab", .length = length}), std::nullopt)
            << length;
    }
    EXPECT_EQ(body_read({.method = "POST", .body = "", .length = "1"}), std::nullopt);
    EXPECT_EQ(body_read({.method = "POST", .body = "ab", .length = "3"}, StandardInput::Kind::pipe),
              std::nullopt);
}

TEST(read_queue, DoesNotReduceALengthLargerThanAnInt) {
    for (const char *length :
         {"2147483647", "2147483648", "4294967295", "4294967296", "4294967297", "4294967298",
          "18446744073709551617", "18446744073709551618", "99999999999999999999999999"}) {
        EXPECT_EQ(body_read({.method = "POST", .body = "ab", .length = length}), std::nullopt)
            << length;
    }
}

// The client chooses the length: a large one with a short body must not exhaust the memory.
TEST(read_queue, TouchesNoMemoryForBytesThatAreMissing) {
    expect_in_child([] {
        const RequestEnvironment environment(
            {.method = "POST", .body = "ab", .length = "536870912"});
        rusage before = {};
        getrusage(RUSAGE_SELF, &before);
        EXPECT_EQ(read_queue(), nullptr);
        rusage after = {};
        getrusage(RUSAGE_SELF, &after);
        EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 256 * 1024) << "kilobytes";
    });
}

TEST(read_queue, ReadsNothingIfOutOfMemory) {
    const RequestEnvironment environment({.method = "POST", .body = "ab"});
    {
        const FailCall no_memory(call_allocation, 1, ENOMEM);
        EXPECT_EQ(read_queue(), nullptr);
    }
    EXPECT_EQ(std::getchar(), 'a');
}

TEST(read_queue, ReturnsNullForAReadError) {
    const RequestEnvironment environment({.method = "POST", .body = "ab"});
    const FailCall broken(call_fread, 1);
    EXPECT_EQ(read_queue(), nullptr);
}

TEST(read_queue, LeaksNothingIfAnyAllocationFailsOrTheBodyIsShort) {
    for (const char *length : {"5", "6"}) {
        for_each_allocation_failure([&](AllocationTrial &trial) {
            // The first read allocates the buffer of the stream, which would count as a leak.
            const RequestEnvironment environment(
                {.method = "POST", .body = "x=abcd", .length = length});
            ASSERT_EQ(std::getchar(), 'x');
            char *const body = trial.run([] { return read_queue(); });
            EXPECT_EQ(body != nullptr, !trial.failed() && std::strcmp(length, "5") == 0);
            if (body != nullptr) {
                EXPECT_STREQ(body, "=abcd");
                free_buff(body, 6);
            }
        });
    }
}

// --- process_queue ---

TEST(process_queue, StoresThePairsOfTheBodyAndThenThoseOfTheQuery) {
    const RequestEnvironment environment({.method = "POST", .query = "c=3", .body = "a=1&b=2"});
    EXPECT_EQ(decoded(process_queue), (Pairs{{"a", "1"}, {"b", "2"}, {"c", "3"}}));
    EXPECT_FALSE(query_is_set());
    EXPECT_FALSE(referer_is_set());
}

TEST(process_queue, StoresBothForEveryMethodExceptGet) {
    const auto expect_both = [](const char *method) {
        const RequestEnvironment environment({.method = method, .query = "c=3", .body = "a=1"});
        EXPECT_EQ(decoded(process_queue), (Pairs{{"a", "1"}, {"c", "3"}})) << method;
        EXPECT_FALSE(query_is_set()) << method;
        EXPECT_FALSE(referer_is_set()) << method;
    };
    for (const char *method : post_spellings)
        expect_both(method);
    for (const char *method : other_methods)
        expect_both(method);
}

TEST(process_queue, StoresNothingForAGetAndKeepsTheEnvironment) {
    for (const char *method : get_spellings) {
        const RequestEnvironment environment({.method = method, .query = "c=3", .body = "a=1"});
        EXPECT_EQ(decoded(process_queue), Pairs{}) << method;
        EXPECT_STREQ(std::getenv("QUERY_STRING"), "c=3");
        EXPECT_TRUE(referer_is_set());
        EXPECT_EQ(std::getchar(), 'a');
    }
}

TEST(process_queue, StoresOnlyTheQueryWithoutAMethod) {
    const RequestEnvironment environment({.query = "c=3", .body = "a=1"});
    EXPECT_EQ(decoded(process_queue), (Pairs{{"c", "3"}}));
    EXPECT_FALSE(query_is_set());
    EXPECT_FALSE(referer_is_set());
}

TEST(process_queue, RemovesTheVariablesEvenWithoutBodyAndQuery) {
    const RequestEnvironment environment({.method = "POST", .length = "0"});
    EXPECT_EQ(decoded(process_queue), Pairs{});
    EXPECT_FALSE(query_is_set());
    EXPECT_FALSE(referer_is_set());
}

TEST(process_queue, StoresOnlyTheQueryIfTheBodyIsRefused) {
    for (const char *length : {"0", "-3", "4", "abc", "", "2147483647"}) {
        const RequestEnvironment environment(
            {.method = "POST", .query = "c=3", .body = "a=1", .length = length});
        EXPECT_EQ(decoded(process_queue), (Pairs{{"c", "3"}})) << length;
        EXPECT_FALSE(query_is_set());
        EXPECT_FALSE(referer_is_set());
    }
}

TEST(process_queue, StoresOnlyTheBodyWithoutAQuery) {
    for (const std::optional<std::string> &query : {std::optional<std::string>(), {""}}) {
        const RequestEnvironment environment({.method = "POST", .query = query, .body = "a=1"});
        EXPECT_EQ(decoded(process_queue), (Pairs{{"a", "1"}}));
        EXPECT_FALSE(query_is_set());
    }
}

TEST(process_queue, StoresNothingOnASecondCall) {
    const RequestEnvironment environment({.method = "POST", .query = "c=3", .body = "a=1"});
    decoded(process_queue);
    EXPECT_EQ(decoded(process_queue), Pairs{});
    EXPECT_EQ(decoded(process_queue_get), Pairs{});
}

TEST(process_queue, EndsTheBodyAtItsFirstNul) {
    const RequestEnvironment environment({.method = "POST", .query = "c=3", .body = "a=1\0&b=2"s});
    EXPECT_EQ(decoded(process_queue), (Pairs{{"a", "1"}, {"c", "3"}}));
}

TEST(process_queue, StoresNoPairsOfABodyThatBeginsWithANul) {
    const RequestEnvironment environment({.method = "POST", .query = "c=3", .body = "\0a=1"s});
    EXPECT_EQ(decoded(process_queue), (Pairs{{"c", "3"}}));
}

TEST(process_queue, DoesNotJoinAnIncompleteBodyAndTheQuery) {
    for (const auto &[body, pairs] : {std::pair{"a=1&", Pairs{{"a", "1"}, {"c", "3"}}},
                                      {"a=", {{"a", ""}, {"c", "3"}}},
                                      {"a", {{"a", ""}, {"c", "3"}}},
                                      {"&", {{"&", ""}, {"c", "3"}}},
                                      {"a=%4", {{"a", "%4"}, {"c", "3"}}}}) {
        const RequestEnvironment environment({.method = "POST", .query = "c=3", .body = body});
        EXPECT_EQ(decoded(process_queue), pairs) << body;
    }
}

TEST(process_queue, DecodesABodyOf4MebibytesAnd100000Pairs) {
    std::string body;
    for (int i = 0; i < 100000; ++i) {
        const std::string number = std::to_string(i);
        body += "field+" + number + "=%76alue%20" + number + "+%2B%26%3d%25%e4%F6" + number +
                (i + 1 < 100000 ? "&" : "");
    }
    ASSERT_GT(body.size(), 4U << 20);
    const RequestEnvironment environment({.method = "POST", .query = "last=1", .body = body});
    Pairs expected = model_pairs(body);
    ASSERT_EQ(expected.size(), 100000U);
    ASSERT_EQ(expected[12345].second, "value 12345 +&=%\xe4\xf6"
                                      "12345");
    expected.emplace_back("last", "1");
    EXPECT_TRUE(decoded(process_queue, 100010) == expected);
}

// --- process_queue_get ---

TEST(process_queue_get, StoresThePairsOfTheQueryAndRemovesTheVariables) {
    const auto expect_query = [](const std::optional<std::string> &method) {
        const RequestEnvironment environment({.method = method, .query = "c=3", .body = "a=1"});
        EXPECT_EQ(decoded(process_queue_get), (Pairs{{"c", "3"}}));
        EXPECT_FALSE(query_is_set());
        EXPECT_FALSE(referer_is_set());
        EXPECT_EQ(std::getchar(), 'a') << "standard input was read";
    };
    expect_query(std::nullopt);
    for (const char *method : get_spellings)
        expect_query(method);
    for (const char *method : other_methods)
        expect_query(method);
}

TEST(process_queue_get, ChangesNothingForAPostInAnyCase) {
    for (const char *method : post_spellings) {
        const RequestEnvironment environment({.method = method, .query = "c=3", .body = "a=1"});
        EXPECT_EQ(decoded(process_queue_get), Pairs{}) << method;
        EXPECT_STREQ(std::getenv("QUERY_STRING"), "c=3");
        EXPECT_TRUE(referer_is_set());
    }
}

TEST(process_queue_get, RemovesTheRefererEvenWithoutAQuery) {
    const RequestEnvironment environment({.method = "GET"});
    EXPECT_EQ(decoded(process_queue_get), Pairs{});
    EXPECT_FALSE(referer_is_set());
}

// --- process_query_string ---

TEST(process_query_string, StoresThePairsForAnyMethodAndKeepsTheEnvironment) {
    for (const std::optional<std::string> &method :
         {std::optional<std::string>(), {"GET"}, {"POST"}, {"PUT"}}) {
        const RequestEnvironment environment({.method = method, .query = "c=3", .body = "a=1"});
        for (int call = 0; call < 2; ++call) {
            EXPECT_EQ(decoded(process_query_string), (Pairs{{"c", "3"}}));
            EXPECT_STREQ(std::getenv("QUERY_STRING"), "c=3");
            EXPECT_TRUE(referer_is_set());
        }
    }
}

TEST(process_query_string, StoresNothingWithoutAQuery) {
    const RequestEnvironment environment({.method = "GET"});
    EXPECT_EQ(decoded(process_query_string), Pairs{});
}

TEST(process_query_string, LeavesTheQueryUnchanged) {
    const std::string query = "a=%41+b&c=d%";
    const EnvironmentVariable variable("QUERY_STRING", query);
    decoded(process_query_string);
    EXPECT_EQ(std::getenv("QUERY_STRING"), query);
}

// --- All decoders: allocation failures ---

/** The pairs without each one in turn. */
std::vector<Pairs> with_one_missing(const Pairs &pairs) {
    std::vector<Pairs> all;
    for (std::size_t missing = 0; missing < pairs.size(); ++missing) {
        all.push_back(pairs);
        all.back().erase(all.back().begin() + static_cast<std::ptrdiff_t>(missing));
    }
    return all;
}

/**
 * Makes each allocation of a decoder fail in turn. Failures of the two scratch buffers lose
 * everything, that of the body loses its pairs, and two for each pair lose only this pair.
 */
void expect_pairs_lost_one_by_one(Decoder decoder, const Request &request, const Pairs &all,
                                  const Pairs &without_body) {
    const std::vector<Pairs> one_missing = with_one_missing(all);
    std::vector<int> losses(all.size(), 0);
    int everything = 0;
    int body = 0;
    for_each_allocation_failure([&](AllocationTrial &trial) {
        const RequestEnvironment environment(request);
        // The stream allocates its buffer here, not in the decoder.
        std::ungetc(std::getchar(), stdin);
        DecodedRows rows(16);
        const int count = trial.run([&] { return decoder(rows.data()); });
        ASSERT_TRUE(rows.rest_is_unchanged(count));
        const Pairs pairs = rows.pairs(count);
        const auto lost = std::find(one_missing.begin(), one_missing.end(), pairs);
        if (!trial.failed())
            EXPECT_EQ(pairs, all);
        else if (lost != one_missing.end())
            ++losses[static_cast<std::size_t>(lost - one_missing.begin())];
        else if (pairs.empty())
            ++everything;
        else if (pairs == without_body)
            ++body;
        else
            ADD_FAILURE() << "allocation " << trial.n() << ": " << testing::PrintToString(pairs);
    });
    EXPECT_EQ(losses, std::vector<int>(all.size(), 2));
    EXPECT_EQ(everything, 2);
    EXPECT_EQ(body, request.body ? 1 : 0);
}

TEST(process_queue, LosesOnePairTheBodyOrEverythingIfAnAllocationFails) {
    expect_pairs_lost_one_by_one(
        process_queue, {.method = "POST", .query = "d=4&e=5", .body = "a=1&b=2&c=3"},
        {{"a", "1"}, {"b", "2"}, {"c", "3"}, {"d", "4"}, {"e", "5"}}, {{"d", "4"}, {"e", "5"}});
}

TEST(process_queue_get, LosesOnePairOrEverythingIfAnAllocationFails) {
    expect_pairs_lost_one_by_one(process_queue_get, {.method = "GET", .query = "a=1&b=2&c=3&d"},
                                 {{"a", "1"}, {"b", "2"}, {"c", "3"}, {"d", ""}}, {});
}

TEST(process_query_string, LosesOnePairOrEverythingIfAnAllocationFails) {
    expect_pairs_lost_one_by_one(process_query_string, {.query = "a=1&b=2&c=3"},
                                 {{"a", "1"}, {"b", "2"}, {"c", "3"}}, {});
}

/** A decoder and a method for which it reads its input. */
struct DecoderOfMethod {
    std::string name;
    Decoder decoder;
    std::string method;
};

void PrintTo(const DecoderOfMethod &decoder, std::ostream *out) { *out << decoder.name; }

std::string name_of_decoder(const testing::TestParamInfo<DecoderOfMethod> &decoder) {
    return decoder.param.name;
}

class EveryDecoder : public testing::TestWithParam<DecoderOfMethod> {};

INSTANTIATE_TEST_SUITE_P(process_queue, EveryDecoder,
                         testing::Values(DecoderOfMethod{"process_queue", process_queue, "POST"}),
                         name_of_decoder);
INSTANTIATE_TEST_SUITE_P(process_queue_get, EveryDecoder,
                         testing::Values(DecoderOfMethod{"process_queue_get", process_queue_get,
                                                         "GET"}),
                         name_of_decoder);
INSTANTIATE_TEST_SUITE_P(process_query_string, EveryDecoder,
                         testing::Values(DecoderOfMethod{"process_query_string",
                                                         process_query_string, "GET"}),
                         name_of_decoder);

TEST_P(EveryDecoder, ConsumesNothingIfAScratchBufferCannotBeAllocated) {
    for (const unsigned long n : {1UL, 2UL}) {
        const RequestEnvironment environment(
            {.method = GetParam().method, .query = "c=3", .body = "a=1"});
        DecodedRows rows(8);
        {
            const FailCall no_memory(call_allocation, n, ENOMEM);
            EXPECT_EQ(GetParam().decoder(rows.data()), 0);
        }
        EXPECT_TRUE(query_is_set());
        EXPECT_TRUE(referer_is_set());
        EXPECT_EQ(std::getchar(), 'a');
    }
}

TEST_P(EveryDecoder, StoresNothingIfNoPairCanBeAllocated) {
    const RequestEnvironment environment(
        {.method = GetParam().method, .query = "c=3", .body = "a=1"});
    DecodedRows rows(8);
    int count = -1;
    {
        const FailCall no_memory(call_allocation, 3, ENOMEM, FailCall::from_then_on);
        count = GetParam().decoder(rows.data());
    }
    EXPECT_EQ(count, 0);
    EXPECT_TRUE(rows.rest_is_unchanged(0));
}

// --- All decoders: pairs ---

TEST(PairDecoding, KeepsPairsInOrderAndMergesNone) {
    EXPECT_EQ(decoded_query("b=1&a=2&b=3&b=1"),
              (Pairs{{"b", "1"}, {"a", "2"}, {"b", "3"}, {"b", "1"}}));
}

TEST(PairDecoding, KeepsAnEqualsSignInsideAValue) {
    EXPECT_EQ(decoded_query("a=b=c"), (Pairs{{"a", "b=c"}}));
    EXPECT_EQ(decoded_query("a==&b===c"), (Pairs{{"a", "="}, {"b", "==c"}}));
}

TEST(PairDecoding, DoesNotEndANameAtAnAmpersand) {
    EXPECT_EQ(decoded_query("flag&x=1"), (Pairs{{"flag&x", "1"}}));
    EXPECT_EQ(decoded_query("a=1&&b=2"), (Pairs{{"a", "1"}, {"&b", "2"}}));
    EXPECT_EQ(decoded_query("a=1&flag&b=2"), (Pairs{{"a", "1"}, {"flag&b", "2"}}));
}

TEST(PairDecoding, StoresEmptyNamesAndValues) {
    EXPECT_EQ(decoded_query("=&="), (Pairs{{"", ""}, {"", ""}}));
    EXPECT_EQ(decoded_query("="), (Pairs{{"", ""}}));
    EXPECT_EQ(decoded_query("a=&=b&c="), (Pairs{{"a", ""}, {"", "b"}, {"c", ""}}));
}

TEST(PairDecoding, StoresALastWordWithoutAnEqualsSignWithAnEmptyValue) {
    EXPECT_EQ(decoded_query("flag"), (Pairs{{"flag", ""}}));
    EXPECT_EQ(decoded_query("a=1&flag"), (Pairs{{"a", "1"}, {"flag", ""}}));
    EXPECT_EQ(decoded_query("a=1&%66lag+x"), (Pairs{{"a", "1"}, {"flag x", ""}}));
    EXPECT_EQ(decoded_query("a=1&one&two"), (Pairs{{"a", "1"}, {"one&two", ""}}));
    EXPECT_EQ(decoded_query("&"), (Pairs{{"&", ""}}));
    EXPECT_EQ(decoded_query("a=1&&"), (Pairs{{"a", "1"}, {"&", ""}}));
}

TEST(PairDecoding, DoesNotStoreAnEmptyLastWord) {
    EXPECT_EQ(decoded_query(""), Pairs{});
    EXPECT_EQ(decoded_query("a=1&"), (Pairs{{"a", "1"}}));
    EXPECT_EQ(decoded_query("=&"), (Pairs{{"", ""}}));
}

TEST(PairDecoding, SplitsWordsBeforeDecodingThem) {
    EXPECT_EQ(decoded_query("a%3D1=b%26c%3d&d%26=e"), (Pairs{{"a=1", "b&c="}, {"d&", "e"}}));
}

TEST(PairDecoding, TreatsSemicolonAndHashAsOrdinaryCharacters) {
    EXPECT_EQ(decoded_query("a=1;b=2#c=3"), (Pairs{{"a", "1;b=2#c=3"}}));
}

TEST(PairDecoding, ReplacesPlusByASpaceBeforeDecodingPercentSigns) {
    EXPECT_EQ(decoded_query("name=a+b%20c%2b"), (Pairs{{"name", "a b c+"}}));
    EXPECT_EQ(decoded_query("a+b=%2B+%2b"), (Pairs{{"a b", "+ +"}}));
    // The digits are a space and a 1: (32 - 48) * 16 + 1, modulo 256.
    EXPECT_EQ(decoded_query("a=%+1"), (Pairs{{"a", "\x01"}}));
}

TEST(PairDecoding, DecodesPercentSignsInNamesAndValues) {
    EXPECT_EQ(decoded_query("%41%6a=%41%6a"), (Pairs{{"Aj", "Aj"}}));
    EXPECT_EQ(decoded_query("a=%25%34%31"), (Pairs{{"a", "%41"}}));
    EXPECT_EQ(decoded_query("a=%e4%F6%fC%80%FF"), (Pairs{{"a", "\xe4\xf6\xfc\x80\xff"}}));
}

TEST(PairDecoding, KeepsAPercentSignWithoutTwoFollowingCharacters) {
    EXPECT_EQ(decoded_query("a=%"), (Pairs{{"a", "%"}}));
    EXPECT_EQ(decoded_query("a=%4"), (Pairs{{"a", "%4"}}));
    EXPECT_EQ(decoded_query("%=1&%4=2&a=%&b=%4&%"),
              (Pairs{{"%", "1"}, {"%4", "2"}, {"a", "%"}, {"b", "%4"}, {"%", ""}}));
    EXPECT_EQ(decoded_query("a=%41%"), (Pairs{{"a", "A%"}}));
    EXPECT_EQ(decoded_query("a=%41%4"), (Pairs{{"a", "A%4"}}));
    EXPECT_EQ(decoded_query("a=%%"), (Pairs{{"a", "%%"}}));
}

TEST(PairDecoding, EndsAWordAtADecodedNul) {
    EXPECT_EQ(decoded_query("a%00b=c%00d&e=f"), (Pairs{{"a", "c"}, {"e", "f"}}));
    EXPECT_EQ(decoded_query("%00=%00&e=f"), (Pairs{{"", ""}, {"e", "f"}}));
    EXPECT_EQ(decoded_query("e=f&%00"), (Pairs{{"e", "f"}, {"", ""}}));
}

TEST(PairDecoding, KeepsBytesAbove127AndControlCharacters) {
    EXPECT_EQ(decoded_query("\x80\xff=\x01\r\n\t\x7f\xc3\xa4"),
              (Pairs{{"\x80\xff", "\x01\r\n\t\x7f\xc3\xa4"}}));
}

TEST(PairDecoding, MatchesTheModelForEveryTwoCharactersAfterAPercentSign) {
    for (int high = 1; high < 256; ++high) {
        std::string query;
        for (int low = 1; low < 256; ++low) {
            query += query.empty() ? "a=x%" : "&a=x%";
            query += {static_cast<char>(high), static_cast<char>(low), 'y'};
        }
        const Pairs expected = model_pairs(query);
        ASSERT_EQ(decoded_query(query, 1024), expected) << "first digit " << high;
    }
}

TEST(PairDecoding, MatchesTheModelForRandomQueries) {
    std::mt19937 engine(20240229);
    const std::string alphabet = "a=&%+41fFzG\x80";
    for (int round = 0; round < 50000; ++round) {
        std::string query;
        for (std::size_t length = engine() % 40; length > 0; --length)
            query += alphabet[engine() % alphabet.size()];
        ASSERT_EQ(decoded_query(query), model_pairs(query)) << testing::PrintToString(query);
    }
}

TEST(PairDecoding, MatchesTheModelForRandomBodiesOfLongWords) {
    std::mt19937 engine(19991231);
    const std::string alphabet = "abcdefgh%+0123456789ABCDEF\xc3\xa4\x01";
    for (int round = 0; round < 300; ++round) {
        std::string body;
        while (body.size() < 4000) {
            for (std::size_t length = engine() % 300; length > 0; --length)
                body += alphabet[engine() % alphabet.size()];
            body += engine() % 2 == 0 ? '=' : '&';
        }
        const RequestEnvironment environment({.method = "POST", .body = body});
        ASSERT_EQ(decoded(process_queue, 4096), model_pairs(body)) << "round " << round;
    }
}

// --- All decoders: truncation ---

TEST(WordTruncation, TruncatesANameAt127CharactersAndSkipsTheRest) {
    for (const std::size_t length : {126U, 127U, 128U, 129U, 255U, 256U, 4096U, 1000000U}) {
        SCOPED_TRACE(length);
        const std::string name(length, 'n');
        EXPECT_EQ(decoded_query(name + "=1&b=2"),
                  (Pairs{{name.substr(0, CORVEL_REQUEST_NAME_SIZE - 1), "1"}, {"b", "2"}}));
        EXPECT_EQ(decoded_query("b=2&" + name),
                  (Pairs{{"b", "2"}, {name.substr(0, CORVEL_REQUEST_NAME_SIZE - 1), ""}}));
    }
}

TEST(WordTruncation, TruncatesAValueAt255CharactersAndSkipsTheRest) {
    for (const std::size_t length : {254U, 255U, 256U, 257U, 4096U, 1000000U}) {
        SCOPED_TRACE(length);
        const std::string value(length, 'v');
        EXPECT_EQ(decoded_query("a=" + value + "&b=2"),
                  (Pairs{{"a", value.substr(0, CORVEL_REQUEST_VALUE_SIZE - 1)}, {"b", "2"}}));
        EXPECT_EQ(decoded_query("a=" + value),
                  (Pairs{{"a", value.substr(0, CORVEL_REQUEST_VALUE_SIZE - 1)}}));
    }
}

TEST(WordTruncation, CountsCharactersBeforeDecodingThem) {
    std::string name;
    std::string value;
    for (int i = 0; i < 100; ++i) {
        name += "%6e";
        value += "%76";
    }
    // 127 characters are 42 escapes and one character, 255 are 85 escapes.
    EXPECT_EQ(decoded_query(name + "=" + value + "&b=2"),
              (Pairs{{std::string(42, 'n') + "%", std::string(85, 'v')}, {"b", "2"}}));
}

TEST(WordTruncation, KeepsAPercentSignWhoseDigitsAreTruncated) {
    for (const std::size_t digits : {0U, 1U}) {
        SCOPED_TRACE(digits);
        const std::string name(126 - digits, 'n');
        const std::string value(254 - digits, 'v');
        const std::string kept = std::string("%41").substr(0, 1 + digits);
        EXPECT_EQ(decoded_query(name + "%41=" + value + "%41&b=2"),
                  (Pairs{{name + kept, value + kept}, {"b", "2"}}));
    }
    const std::string name(124, 'n');
    const std::string value(252, 'v');
    EXPECT_EQ(decoded_query(name + "%41%=" + value + "%41%"), (Pairs{{name + "A", value + "A"}}));
}

TEST(WordTruncation, FindsSeparatorsAfterATruncatedWord) {
    EXPECT_EQ(decoded_query(std::string(200, 'n') + "&" + std::string(200, 'm') +
                            "=1&a=" + std::string(300, 'v') + "=" + std::string(300, 'w') + "&b=2"),
              (Pairs{{std::string(CORVEL_REQUEST_NAME_SIZE - 1, 'n'), "1"},
                     {"a", std::string(CORVEL_REQUEST_VALUE_SIZE - 1, 'v')},
                     {"b", "2"}}));
}

TEST(WordTruncation, StoresNothingOfALongerPrecedingWord) {
    EXPECT_EQ(decoded_query(std::string(CORVEL_REQUEST_NAME_SIZE - 1, 'n') + "=" +
                            std::string(CORVEL_REQUEST_VALUE_SIZE - 1, 'v') + "&a=b&=&c"),
              (Pairs{{std::string(CORVEL_REQUEST_NAME_SIZE - 1, 'n'),
                      std::string(CORVEL_REQUEST_VALUE_SIZE - 1, 'v')},
                     {"a", "b"},
                     {"", ""},
                     {"c", ""}}));
}

// --- makeword ---

struct Word {
    std::string word;
    std::optional<std::string> rest;

    bool operator==(const Word &) const = default;
};

void PrintTo(const Word &word, std::ostream *out) {
    *out << testing::PrintToString(word.word) << ", rest "
         << (word.rest ? testing::PrintToString(*word.rest) : "null");
}

/** Calls makeword() with a buffer of exactly the size of the word. */
Word word_of(const std::string &text, char stop) {
    const std::string::size_type length = std::min(text.find(stop), text.size());
    GuardedString source(text);
    GuardedString word(std::string(length, '?'));
    char unset = 0;
    char *rest = &unset;
    EXPECT_EQ(makeword(word.text(), source.text(), stop, &rest), word.text());
    EXPECT_STREQ(source.text(), text.c_str());
    if (rest == nullptr)
        return {word.text(), std::nullopt};
    EXPECT_EQ(rest, source.text() + length + 1);
    return {word.text(), rest};
}

TEST(makeword, CopiesUpToTheStopAndReturnsTheRest) {
    EXPECT_EQ(word_of("name=value", '='), (Word{"name", "value"}));
    EXPECT_EQ(word_of("a=b=c", '='), (Word{"a", "b=c"}));
}

TEST(makeword, CopiesTheWholeStringWithoutAStopAndSetsTheRestToNull) {
    EXPECT_EQ(word_of("name", '='), (Word{"name", std::nullopt}));
    EXPECT_EQ(word_of("", '='), (Word{"", std::nullopt}));
}

TEST(makeword, ReturnsAnEmptyWordIfTheStopIsFirst) {
    EXPECT_EQ(word_of("=value", '='), (Word{"", "value"}));
    EXPECT_EQ(word_of("==", '='), (Word{"", "="}));
}

TEST(makeword, ReturnsAnEmptyRestIfTheStopIsLast) {
    EXPECT_EQ(word_of("name=", '='), (Word{"name", ""}));
    EXPECT_EQ(word_of("=", '='), (Word{"", ""}));
}

TEST(makeword, AcceptsAnyCharacterAsTheStop) {
    EXPECT_EQ(word_of("a\xff\x80z", '\xff'), (Word{"a", "\x80z"}));
    EXPECT_EQ(word_of("a b", ' '), (Word{"a", "b"}));
    EXPECT_EQ(word_of("a\nb", '\n'), (Word{"a", "b"}));
}

TEST(makeword, CopiesAWordOfAnyLength) {
    const std::string word(100000, 'w');
    EXPECT_EQ(word_of(word + "&rest", '&'), (Word{word, "rest"}));
}

TEST(makeword, ReadsNothingAfterTheStop) {
    const GuardedBlock source("name=");
    GuardedString word("????");
    char *rest = nullptr;
    EXPECT_STREQ(makeword(word.text(), source.start(), '=', &rest), "name");
    EXPECT_EQ(rest, source.end());
}

TEST(makeword, CopiesTheWholeStringForANulAsTheStop) {
    EXPECT_EQ(word_of("name=value", '\0'), (Word{"name=value", std::nullopt}));
}

TEST(makeword, ReadsANullPointerAsTheEmptyString) {
    GuardedString word("");
    char unset = 0;
    char *rest = &unset;
    EXPECT_EQ(makeword(word.text(), nullptr, '=', &rest), word.text());
    EXPECT_STREQ(word.text(), "");
    EXPECT_EQ(rest, nullptr);
}

TEST(makeword, WorksInPlace) {
    GuardedString text("name=value");
    char *rest = nullptr;
    EXPECT_EQ(makeword(text.text(), text.text(), '=', &rest), text.text());
    EXPECT_STREQ(text.text(), "name");
    EXPECT_EQ(rest, text.text() + 5);
    EXPECT_STREQ(rest, "value");

    EXPECT_EQ(makeword(rest, rest, '=', &rest), text.text() + 5);
    EXPECT_STREQ(text.text() + 5, "value");
    EXPECT_EQ(rest, nullptr);
}

TEST(makeword, AcceptsTheRestAsTheNextSource) {
    const std::string text = "a=1&b=2";
    std::array<char, 8> word{};
    char *rest = nullptr;
    EXPECT_STREQ(makeword(word.data(), text.c_str(), '=', &rest), "a");
    EXPECT_STREQ(makeword(word.data(), rest, '&', &rest), "1");
    EXPECT_STREQ(makeword(word.data(), rest, '=', &rest), "b");
    EXPECT_STREQ(makeword(word.data(), rest, '&', &rest), "2");
    EXPECT_EQ(rest, nullptr);
}

// --- plustospace ---

std::string without_plus(const std::string &text) {
    GuardedString buffer(text);
    EXPECT_EQ(plustospace(buffer.text()), buffer.text());
    EXPECT_TRUE(buffer.preceding_bytes_intact());
    return buffer.text();
}

TEST(plustospace, ReplacesEveryPlusAndNothingElse) {
    EXPECT_EQ(without_plus("+a++b+"), " a  b ");
    EXPECT_EQ(without_plus("+"), " ");
    EXPECT_EQ(without_plus(""), "");
    EXPECT_EQ(without_plus("a%2Bb -\xab\x2c*"), "a%2Bb -\xab\x2c*");
}

TEST(plustospace, ReturnsNullForNull) { EXPECT_EQ(plustospace(nullptr), nullptr); }

// --- unescape_url ---

std::string unescaped(const std::string &text) {
    GuardedString buffer(text);
    EXPECT_EQ(unescape_url(buffer.text()), buffer.text());
    EXPECT_TRUE(buffer.preceding_bytes_intact());
    return buffer.text();
}

TEST(unescape_url, DecodesEachPercentSignAndTheTwoFollowingCharacters) {
    EXPECT_EQ(unescaped("%41%6a"), "Aj");
    EXPECT_EQ(unescaped("a%20b%2Bc%2bd"), "a b+c+d");
    EXPECT_EQ(unescaped("%25%32%35"), "%25");
    EXPECT_EQ(unescaped("%80%fF"), "\x80\xff");
}

TEST(unescape_url, LeavesAStringWithoutPercentSignsUnchanged) {
    EXPECT_EQ(unescaped(""), "");
    EXPECT_EQ(unescaped("a+b=c&d\xff"), "a+b=c&d\xff");
}

TEST(unescape_url, KeepsAPercentSignWithoutTwoFollowingCharacters) {
    EXPECT_EQ(unescaped("%"), "%");
    EXPECT_EQ(unescaped("%4"), "%4");
    EXPECT_EQ(unescaped("%%"), "%%");
    EXPECT_EQ(unescaped("ab%"), "ab%");
    EXPECT_EQ(unescaped("ab%4"), "ab%4");
    EXPECT_EQ(unescaped("%41%"), "A%");
    EXPECT_EQ(unescaped("%41%4"), "A%4");
}

TEST(unescape_url, DecodesAnyTwoCharacters) {
    // 'z' counts as 35: 35 * 16 + 35, modulo 256, is 83.
    EXPECT_EQ(unescaped("%zz"), "S");
    // '%' counts as -11: -11 * 16 + 4 is -172, which is 84 modulo 256.
    EXPECT_EQ(unescaped("%%41"), "T1");
    EXPECT_EQ(unescaped("%%%"), std::string(1, static_cast<char>(-11 * 17)));
}

TEST(unescape_url, EndsTheStringAtADecodedNul) {
    EXPECT_EQ(unescaped("a%00b"), "a");
    EXPECT_EQ(unescaped("%00"), "");
}

TEST(unescape_url, DecodesTheCharactersAfterADecodedNul) {
    std::array text = std::to_array("a%00b%41%");
    unescape_url(text.data());
    EXPECT_EQ(std::string(text.data(), 6), std::string("a\0bA%\0", 6));
}

TEST(unescape_url, ReturnsNullForNull) { EXPECT_EQ(unescape_url(nullptr), nullptr); }

TEST(unescape_url, MatchesTheModelForEveryTwoCharacters) {
    for (int high = 1; high < 256; ++high) {
        for (int low = 1; low < 256; ++low) {
            const char digits[] = {static_cast<char>(high), static_cast<char>(low), '\0'};
            std::array<char, 6> text{'<', '%', digits[0], digits[1], '>', '\0'};
            unescape_url(text.data());
            const std::string expected = {'<', model_byte(digits[0], digits[1]), '>'};
            ASSERT_STREQ(text.data(), expected.c_str()) << high << ", " << low;
        }
    }
}

// --- x2c ---

TEST(x2c, MatchesTheModelForEveryTwoCharacters) {
    for (int high = 1; high < 256; ++high) {
        for (int low = 0; low < 256; ++low) {
            const char digits[] = {static_cast<char>(high), static_cast<char>(low)};
            ASSERT_EQ(x2c(digits), static_cast<signed char>(model_byte(digits[0], digits[1])))
                << high << ", " << low;
        }
    }
}

TEST(x2c, ReadsEveryByteInBothCases) {
    for (int byte = 0; byte < 256; ++byte) {
        for (const char *letters : {"0123456789abcdef", "0123456789ABCDEF"}) {
            const char digits[] = {letters[byte / 16], letters[byte % 16]};
            EXPECT_EQ(x2c(digits), static_cast<signed char>(byte));
        }
    }
}

TEST(x2c, CountsCharactersAbove127AsNegative) {
    EXPECT_EQ(x2c("\xff"
                  "0"),
              static_cast<signed char>(-49 * 16));
    EXPECT_EQ(x2c("0\xff"), -49);
    EXPECT_EQ(x2c("0\x80"), static_cast<signed char>(-176));
}

TEST(x2c, ReadsNothingAfterANul) {
    GuardedString nothing("");
    EXPECT_EQ(x2c(nothing.text()), static_cast<signed char>(-48 * 17));
    GuardedString one("4");
    EXPECT_EQ(x2c(one.text()), static_cast<signed char>(4 * 16 - 48));
}

TEST(x2c, ReadsANullPointerAsTheEmptyString) {
    expect_in_child([] { EXPECT_EQ(x2c(nullptr), static_cast<signed char>(-48 * 17)); });
}

// --- get_http_methmod ---

TEST(get_http_methmod, ReturnsOneForPostInAnyCaseAndOtherwiseZero) {
    for (const char *method : post_spellings)
        EXPECT_EQ(get_http_methmod(method), 1) << method;
    for (const char *method : get_spellings)
        EXPECT_EQ(get_http_methmod(method), 0) << method;
    for (const char *method : other_methods)
        EXPECT_EQ(get_http_methmod(method), 0) << method;
    EXPECT_EQ(get_http_methmod(nullptr), 0);
}

// --- isajax_get ---

int ajax(const std::optional<std::string> &query,
         const std::optional<std::string> &method = "GET") {
    const EnvironmentVariable method_variable("REQUEST_METHOD", method);
    const EnvironmentVariable query_variable("QUERY_STRING", query);
    return isajax_get();
}

TEST(isajax_get, ReturnsTheNumberInTheFieldAjax) {
    EXPECT_EQ(ajax("Ajax=2&x=1"), 2);
    EXPECT_EQ(ajax("x=1&Ajax=3"), 3);
    EXPECT_EQ(ajax("Ajax=1"), 1);
    EXPECT_EQ(ajax("Ajax=-7"), -7);
}

TEST(isajax_get, ReturnsZeroUnlessTheMethodIsGetInAnyCase) {
    for (const char *method : get_spellings)
        EXPECT_EQ(ajax("Ajax=2", method), 2) << method;
    for (const char *method : post_spellings)
        EXPECT_EQ(ajax("Ajax=2", method), 0) << method;
    for (const char *method : other_methods)
        EXPECT_EQ(ajax("Ajax=2", method), 0) << method;
    EXPECT_EQ(ajax("Ajax=2", std::nullopt), 0);
}

TEST(isajax_get, ReturnsZeroWithoutTheField) {
    EXPECT_EQ(ajax(std::nullopt), 0);
    for (const char *query : {"", "ajax=2", "AJAX=2", "x=Ajax", "Ajaxx=2", "xAjax=2", " Ajax=2",
                              "Aja=2", "x=1&Ajax", "Ajax", "Ajax&x=2", "x=Ajax=2"})
        EXPECT_EQ(ajax(query), 0) << query;
}

TEST(isajax_get, ReturnsZeroIfTheValueIsNotANumber) {
    for (const char *query : {"Ajax=", "Ajax=x", "Ajax=x2", "Ajax=--2",
                              "Ajax=%00"
                              "2",
                              "Ajax==2"})
        EXPECT_EQ(ajax(query), 0) << query;
}

TEST(isajax_get, ReadsTheValueAsAtoiDoes) {
    EXPECT_EQ(ajax("Ajax=2x"), 2);
    EXPECT_EQ(ajax("Ajax=+2"), 2) << "the plus sign is a space";
    EXPECT_EQ(ajax("Ajax=%2B2"), 2);
    EXPECT_EQ(ajax("Ajax=++%09%0a2"), 2);
    EXPECT_EQ(ajax("Ajax=007"), 7);
    EXPECT_EQ(ajax("Ajax=0x10"), 0);
    EXPECT_EQ(ajax("Ajax=%32"), 2);
}

TEST(isajax_get, LimitsTheNumberToTheRangeOfAnInt) {
    EXPECT_EQ(ajax("Ajax=2147483647"), INT_MAX);
    EXPECT_EQ(ajax("Ajax=2147483648"), INT_MAX);
    EXPECT_EQ(ajax("Ajax=4294967297"), INT_MAX);
    EXPECT_EQ(ajax("Ajax=99999999999999999999999"), INT_MAX);
    EXPECT_EQ(ajax("Ajax=-2147483648"), INT_MIN);
    EXPECT_EQ(ajax("Ajax=-2147483649"), INT_MIN);
    EXPECT_EQ(ajax("Ajax=-4294967297"), INT_MIN);
    EXPECT_EQ(ajax("Ajax=-99999999999999999999999"), INT_MIN);
    EXPECT_EQ(ajax("Ajax=" + std::string(300, '0') + "1"), 0) << "truncated at 255 characters";
    EXPECT_EQ(ajax("Ajax=" + std::string(254, '0') + "1"), 1);
}

TEST(isajax_get, RemovesOneDoubleQuoteFromEachEndOfTheValue) {
    EXPECT_EQ(ajax("Ajax=\"2\""), 2);
    EXPECT_EQ(ajax("Ajax=%222%22"), 2);
    EXPECT_EQ(ajax("Ajax=\"2"), 2);
    EXPECT_EQ(ajax("Ajax=2\""), 2);
    EXPECT_EQ(ajax("Ajax=\"\"2\"\""), 0) << "one quote from each end only";
    EXPECT_EQ(ajax("Ajax=\""), 0);
}

TEST(isajax_get, UsesTheFirstFieldWithTheName) {
    EXPECT_EQ(ajax("Ajax=1&Ajax=2"), 1);
    EXPECT_EQ(ajax("Ajax=&Ajax=2"), 0);
    EXPECT_EQ(ajax("Ajax=x&Ajax=2"), 0);
}

TEST(isajax_get, AcceptsAnEncodedNameIfThePlainWordOccursAnywhere) {
    EXPECT_EQ(ajax("%41jax=2&x=Ajax"), 2);
    EXPECT_EQ(ajax("Ajax%00y=2"), 2);
    EXPECT_EQ(ajax("%41jax=2"), 0);
}

TEST(isajax_get, SearchesTheFirst2048Pairs) {
    std::string query;
    for (int pair = 0; pair < CORVEL_AJAX_PAIRS - 1; ++pair)
        query += "a=" + std::to_string(pair) + "&";
    EXPECT_EQ(ajax(query + "Ajax=5"), 5) << "pair 2048";
    EXPECT_EQ(ajax(query + "Ajax=5&b=1"), 5) << "pair 2048 of 2049";
    EXPECT_EQ(ajax(query + "b=1&Ajax=5"), 0) << "pair 2049";
    EXPECT_EQ(ajax("Ajax=6&" + query + "b=1&Ajax=5"), 6);
}

TEST(isajax_get, ReadsAQueryOf100000Pairs) {
    std::string query;
    for (int pair = 0; pair < 100000; ++pair)
        query += "name=value&";
    EXPECT_EQ(ajax(query + "Ajax=5"), 0);
    EXPECT_EQ(ajax("Ajax=5&" + query), 5);
    std::string empty_pairs;
    for (int pair = 0; pair < 100000; ++pair)
        empty_pairs += "=&";
    EXPECT_EQ(ajax(empty_pairs + "Ajax=5"), 0);
}

TEST(isajax_get, LeavesTheEnvironmentUnchanged) {
    const RequestEnvironment environment({.method = "GET", .query = "Ajax=2&x=%41"});
    for (int call = 0; call < 2; ++call) {
        EXPECT_EQ(isajax_get(), 2);
        EXPECT_STREQ(std::getenv("QUERY_STRING"), "Ajax=2&x=%41");
        EXPECT_TRUE(referer_is_set());
    }
}

TEST(isajax_get, LeaksNothingIfAnyAllocationFails) {
    const EnvironmentVariable method("REQUEST_METHOD", "GET");
    const EnvironmentVariable query("QUERY_STRING", "a=1&Ajax=2&b=3");
    for_each_allocation_failure([](AllocationTrial &trial) {
        const int result = trial.run([] { return isajax_get(); });
        if (!trial.failed())
            EXPECT_EQ(result, 2);
        else
            EXPECT_TRUE(result == 0 || result == 2);
    });
}

// --- isnormal_post ---

int is_normal_post(const std::optional<std::string> &method, std::vector<std::string> arguments,
                   const char *expected) {
    const EnvironmentVariable variable("REQUEST_METHOD", method);
    std::vector<char *> argv;
    for (std::string &argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    return isnormal_post(static_cast<int>(arguments.size()), argv.data(), expected);
}

TEST(isnormal_post, AcceptsAPostWhoseFirstArgumentIsTheExpectedOne) {
    EXPECT_EQ(is_normal_post("POST", {"lan.cgi", "save"}, "save"), 1);
    EXPECT_EQ(is_normal_post("POST", {"lan.cgi", "save", "more"}, "save"), 1);
    EXPECT_EQ(is_normal_post("POST", {"lan.cgi", ""}, ""), 1);
}

TEST(isnormal_post, RequiresPostInUpperCase) {
    for (const char *method : {"post", "Post", "GET", "", "POSTS", "POS", " POST"})
        EXPECT_EQ(is_normal_post(method, {"lan.cgi", "save"}, "save"), 0) << method;
    EXPECT_EQ(is_normal_post(std::nullopt, {"lan.cgi", "save"}, "save"), 0);
}

TEST(isnormal_post, ComparesTheArgumentExactly) {
    for (const char *argument : {"Save", "saved", "sav", "", " save"})
        EXPECT_EQ(is_normal_post("POST", {"lan.cgi", argument}, "save"), 0) << argument;
    EXPECT_EQ(is_normal_post("POST", {"save", "lan.cgi"}, "save"), 0);
    EXPECT_EQ(is_normal_post("POST", {"lan.cgi", "more", "save"}, "save"), 0);
    EXPECT_EQ(is_normal_post("POST", {"lan.cgi", "save"}, ""), 0);
}

TEST(isnormal_post, RequiresAnArgument) {
    EXPECT_EQ(is_normal_post("POST", {"save"}, "save"), 0);
    EXPECT_EQ(is_normal_post("POST", {"lan.cgi"}, ""), 0);
    EXPECT_EQ(is_normal_post("POST", {}, ""), 0);
    const EnvironmentVariable method("REQUEST_METHOD", "POST");
    EXPECT_EQ(isnormal_post(0, nullptr, "save"), 0);
    EXPECT_EQ(isnormal_post(-1, nullptr, "save"), 0);
}

TEST(isnormal_post, ReadsOnlyTheCountedArguments) {
    const EnvironmentVariable method("REQUEST_METHOD", "POST");
    std::string program = "lan.cgi";
    std::string argument = "save";
    std::array<char *, 3> argv{program.data(), argument.data(), nullptr};
    EXPECT_EQ(isnormal_post(1, argv.data(), "save"), 0);
    EXPECT_EQ(isnormal_post(2, argv.data(), "save"), 1);
}

TEST(isnormal_post, ReadsANullExpectedStringAsEmpty) {
    EXPECT_EQ(is_normal_post("POST", {"lan.cgi", ""}, nullptr), 1);
    EXPECT_EQ(is_normal_post("POST", {"lan.cgi", "save"}, nullptr), 0);
}

// --- myprintevn ---

/** Replaces the whole environment during its lifetime; the entries must outlive it. */
class WholeEnvironment {
  public:
    explicit WholeEnvironment(char **entries) : saved_(environ) { environ = entries; }
    WholeEnvironment(const WholeEnvironment &) = delete;
    WholeEnvironment &operator=(const WholeEnvironment &) = delete;
    ~WholeEnvironment() { environ = saved_; }

  private:
    char **saved_;
};

/** Calls myprintevn() with an environment of these entries. */
Printed printed_environment(std::vector<std::string> entries) {
    std::vector<char *> pointers;
    for (std::string &entry : entries)
        pointers.push_back(entry.data());
    pointers.push_back(nullptr);
    return printed([&] {
        const WholeEnvironment environment(pointers.data());
        return myprintevn();
    });
}

TEST(myprintevn, PrintsOneEntryPerLineInOrder) {
    EXPECT_EQ(printed_environment({"B=2", "A=1", "no equals sign", "", "C=%s%n\\", "B=3"}).text,
              "B=2\nA=1\nno equals sign\n\nC=%s%n\\\nB=3\n");
}

TEST(myprintevn, DoesNotTruncateLongEntries) {
    const std::string entry = "QUERY_STRING=" + std::string(200000, 'q');
    EXPECT_EQ(printed_environment({entry}).text, entry + "\n");
}

TEST(myprintevn, ReturnsTheResultOfTheLastPuts) {
    int expected = -1;
    const std::string output = capture_stdout([&] { expected = std::puts("LAST=entry"); });
    ASSERT_EQ(output, "LAST=entry\n");
    EXPECT_EQ(printed_environment({"A=1", "LAST=entry"}).result, expected);
}

TEST(myprintevn, PrintsNothingAndReturnsZeroForAnEmptyEnvironment) {
    EXPECT_EQ(printed_environment({}), (Printed{"", 0}));

    const WholeEnvironment none(nullptr);
    EXPECT_EQ(myprintevn(), 0);
}

// --- get_val_awk ---

TEST(get_val_awk, ReturnsTheFirstLineWithItsNewline) {
    EXPECT_STREQ(get_val_awk("echo first; echo second"), "first\n");
    EXPECT_STREQ(get_val_awk("printf 'a\\n'"), "a\n");
    EXPECT_STREQ(get_val_awk("printf '\\nb\\n'"), "\n");
}

TEST(get_val_awk, ReturnsALineWithoutANewlineUnchanged) {
    EXPECT_STREQ(get_val_awk("printf 'no end'"), "no end");
}

TEST(get_val_awk, PassesTheCommandToTheShellUnchanged) {
    EXPECT_STREQ(get_val_awk("x=3; echo \"$x\" $((x + 1)) | tr 3 5"), "5 4\n");
}

TEST(get_val_awk, ReturnsTheEmptyStringWithoutOutput) {
    get_val_awk("echo before");
    EXPECT_STREQ(get_val_awk("true"), "");
    get_val_awk("echo before");
    EXPECT_STREQ(get_val_awk(""), "");
    get_val_awk("echo before");
    EXPECT_STREQ(get_val_awk(nullptr), "");
    get_val_awk("echo before");
    EXPECT_STREQ(get_val_awk("exec 2>/dev/null; /nonexistent/command"), "");
}

TEST(get_val_awk, IgnoresTheExitStatus) {
    EXPECT_STREQ(get_val_awk("echo failing; exit 3"), "failing\n");
}

TEST(get_val_awk, TruncatesALineAt4095Characters) {
    const auto command = [](int length) {
        return "head -c " + std::to_string(length) + " /dev/zero | tr '\\0' x; echo";
    };
    EXPECT_EQ(get_val_awk(command(4094).c_str()), std::string(4094, 'x') + "\n");
    EXPECT_EQ(get_val_awk(command(4095).c_str()), std::string(CORVEL_GET_VAL_AWK_SIZE - 1, 'x'));
    EXPECT_EQ(get_val_awk(command(4096).c_str()), std::string(CORVEL_GET_VAL_AWK_SIZE - 1, 'x'));
    EXPECT_EQ(get_val_awk(command(100000).c_str()), std::string(CORVEL_GET_VAL_AWK_SIZE - 1, 'x'));
}

TEST(get_val_awk, DoesNotWaitForFurtherOutput) {
    EXPECT_STREQ(get_val_awk("yes 2>/dev/null"), "y\n");
}

TEST(get_val_awk, ReturnsNothingOfALongerPrecedingLine) {
    get_val_awk("head -c 4095 /dev/zero | tr '\\0' x");
    EXPECT_STREQ(get_val_awk("echo short"), "short\n");
    EXPECT_STREQ(get_val_awk("true"), "");
}

TEST(get_val_awk, ZeroesTheFirst255BytesWithoutOutput) {
    get_val_awk("head -c 4095 /dev/zero | tr '\\0' x");
    const std::string_view buffer(get_val_awk("true"), CORVEL_GET_VAL_AWK_SIZE);
    EXPECT_EQ(buffer.substr(0, 255), std::string(255, '\0'));
    EXPECT_EQ(buffer.substr(255), std::string(3840, 'x') + '\0');
}

TEST(get_val_awk, EndsTheLineAtANul) { EXPECT_STREQ(get_val_awk("printf 'a\\0b\\n'"), "a"); }

TEST(get_val_awk, ReturnsTheSameBufferOnEveryCall) {
    char *const first = get_val_awk("echo first");
    char *const second = get_val_awk("echo second");
    EXPECT_EQ(first, second);
    EXPECT_STREQ(first, "second\n");
}

TEST(get_val_awk, LeavesTheBufferUnchangedIfTheCommandCannotBeStarted) {
    char *const before = get_val_awk("echo before");
    const FailCall no_process(call_popen, 1, EAGAIN);
    EXPECT_EQ(get_val_awk("echo after"), before);
    EXPECT_STREQ(before, "before\n");
    EXPECT_EQ(no_process.failures(), 1U);
}

TEST(get_val_awk, LeavesNoProcessAndNoOpenFile) {
    const DescriptorWatch descriptors;
    for (int call = 0; call < 20; ++call)
        get_val_awk("echo line; exit 1");
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

} // namespace
} // namespace corvel_test

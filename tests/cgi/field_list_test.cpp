/* SPDX-License-Identifier: MIT */
#include <corvel.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <ostream>
#include <string>
#include <string_view>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "tests/cgi/list_contents.h"
#include "tests/support/guarded_memory.h"
#include "tests/support/output_capture.h"
#include "tests/support/stand_in.h"

namespace corvel_test {
namespace {

/** A record whose name fills its array without a terminator. */
str_node unterminated_record() {
    str_node record{};
    std::memset(record.name, 'n', sizeof record.name);
    std::memcpy(record.value, "value", sizeof "value");
    return record;
}

/** A record that is not in a list. */
str_node record(std::string_view name, std::string_view value) {
    str_node node = {};
    name.copy(node.name, sizeof node.name - 1);
    value.copy(node.value, sizeof node.value - 1);
    return node;
}

/**
 * Replaces the marker at the start of a string, in a buffer of exactly the size of the longer of
 * the original and the result.
 */
std::string substituted(std::string_view text, std::string_view name, std::string_view value) {
    const str_node field = record(name, value);
    GuardedString buffer(text, text.size() - name.size() - 1 + value.size());
    EXPECT_EQ(change_keyword(buffer.text(), &field), buffer.text());
    EXPECT_TRUE(buffer.preceding_bytes_intact());
    return buffer.text();
}

// --- get_buffer ---

TEST(get_buffer, ReturnsZerosEvenFromAUsedHeap) {
    for (const std::uint32_t size : {1U, 7U, 64U, 128U, 256U, 4096U, 1000000U}) {
        SCOPED_TRACE(size);
        if (void *const used = std::malloc(size)) {
            std::memset(used, 0x5A, size);
            std::free(used);
        }

        auto *const block = static_cast<unsigned char *>(get_buffer(size));
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(std::count(block, block + size, 0), static_cast<std::ptrdiff_t>(size));
        EXPECT_EQ(free_buffer(block, size), 0);
    }
}

TEST(get_buffer, ReturnsABlockThatCanBeWrittenWhole) {
    auto *const block = static_cast<unsigned char *>(get_buffer(300));
    ASSERT_NE(block, nullptr);
    std::memset(block, 0xFF, 300);

    EXPECT_EQ(free_buffer(block, 300), 0);
}

TEST(get_buffer, ReturnsABlockThatFreeAccepts) { std::free(get_buffer(10)); }

TEST(get_buffer, ReturnsNullIfOutOfMemory) {
    for (const std::uint32_t size : {0U, 1U, 256U}) {
        const FailCall no_memory(call_allocation, 1, ENOMEM);
        EXPECT_EQ(get_buffer(size), nullptr) << size;
    }
}

TEST(get_buffer, AcceptsSizeZero) {
    void *const block = get_buffer(0);
    EXPECT_EQ(free_buffer(block, 0), 0);
}

TEST(get_buffer, ReturnsABlockForSizeZeroEvenIfTheHeapHasNoEmptyBlocks) {
    const NoEmptyBlocks heap;
    void *const block = get_buffer(0);
    EXPECT_NE(block, nullptr);
    std::free(block);
}

// --- free_buffer and free_buff ---

/** free_buffer() and free_buff(), which have one contract. */
struct ReleaseFunction {
    std::string name;
    int (*release)(void *block, std::uint32_t zeroed);
};

void PrintTo(const ReleaseFunction &function, std::ostream *out) { *out << function.name; }

constexpr std::uint32_t block_size = 4096;
/** The bytes at each end of a free block that the heap may use itself. */
constexpr std::uint32_t heap_bytes = 64;

/**
 * The bytes, except @ref heap_bytes at each end, that remain in the heap where a block was before
 * @p release freed it. The kernel reads them, since the program may not.
 */
std::string bytes_left_by(int (*release)(void *, std::uint32_t), std::uint32_t zeroed) {
    // Blocks in use on both sides keep the heap from merging the free block with other free memory
    // and from returning it to the system.
    std::vector<void *> blocks(32);
    for (void *&each : blocks)
        each = std::malloc(block_size);
    auto *const block = static_cast<char *>(std::exchange(blocks[blocks.size() / 2], nullptr));
    std::memset(block, 's', block_size);
    std::string left(block_size - 2 * heap_bytes, '?');
    const iovec bytes{block + heap_bytes, left.size()};
    const StreamFile file;
    EXPECT_EQ(release(block, zeroed), 0);
    EXPECT_EQ(syscall(SYS_writev, file.descriptor(), &bytes, 1), static_cast<long>(left.size()));
    left = file.text();
    for (void *const each : blocks)
        std::free(each);
    return left;
}

class BlockRelease : public testing::TestWithParam<ReleaseFunction> {};

std::string name_of_function(const testing::TestParamInfo<ReleaseFunction> &function) {
    return function.param.name;
}

INSTANTIATE_TEST_SUITE_P(free_buffer, BlockRelease,
                         testing::Values(ReleaseFunction{"free_buffer", free_buffer}),
                         name_of_function);
INSTANTIATE_TEST_SUITE_P(free_buff, BlockRelease,
                         testing::Values(ReleaseFunction{"free_buff", free_buff}),
                         name_of_function);

TEST_P(BlockRelease, DoesNothingForNull) {
    for (const std::uint32_t size : {0U, 1U, 4096U, 0xFFFFFFFFU})
        EXPECT_EQ(GetParam().release(nullptr, size), 0);
}

TEST_P(BlockRelease, LeavesNothingOfTheContentInTheHeap) {
    const auto plain_free = [](void *block, std::uint32_t) {
        std::free(block);
        return 0;
    };
    ASSERT_EQ(bytes_left_by(plain_free, block_size), std::string(block_size - 2 * heap_bytes, 's'))
        << "this heap clears blocks itself, so that the test cannot fail";
    EXPECT_EQ(bytes_left_by(GetParam().release, block_size),
              std::string(block_size - 2 * heap_bytes, '\0'));
}

TEST_P(BlockRelease, ZeroesOnlyTheGivenNumberOfBytes) {
    EXPECT_EQ(bytes_left_by(GetParam().release, 1024),
              std::string(1024 - heap_bytes, '\0') +
                  std::string(block_size - 1024 - heap_bytes, 's'));
}

// --- str_node ---

TEST(str_node, HasTheDocumentedMemberSizesAndOrder) {
    EXPECT_EQ(sizeof(str_node::name), 255U);
    EXPECT_EQ(sizeof(str_node::value), 4097U);
    EXPECT_EQ(offsetof(str_node, name), 0U);
    EXPECT_EQ(offsetof(str_node, value), 255U);
    EXPECT_EQ(offsetof(str_node, next), 4352U);
    EXPECT_EQ(sizeof(str_node), 4352U + sizeof(void *));
}

// --- add_str ---

TEST(add_str, StoresTheFirstFieldAsTheHead) {
    OwnedList list;
    void *const result = add_str(list.address(), "ip", "10.0.0.1");

    ASSERT_NE(list.head(), nullptr);
    EXPECT_EQ(result, list.head());
    EXPECT_STREQ(list.head()->name, "ip");
    EXPECT_STREQ(list.head()->value, "10.0.0.1");
    EXPECT_EQ(list.head()->next, nullptr);
}

TEST(add_str, AppendsALaterFieldAndReturnsItsValue) {
    OwnedList list;
    add_str(list.address(), "a", "1");
    str_node *const first = list.head();
    void *const second = add_str(list.address(), "b", "2");
    ASSERT_EQ(list.head(), first);
    ASSERT_NE(first->next, nullptr);
    EXPECT_EQ(second, static_cast<void *>(first->next->value));

    void *const third = add_str(list.address(), "c", "3");
    ASSERT_NE(first->next->next, nullptr);
    EXPECT_EQ(third, static_cast<void *>(first->next->next->value));
    EXPECT_EQ(contents(list.head()), (Fields{{"a", "1"}, {"b", "2"}, {"c", "3"}}));
}

TEST(add_str, KeepsFieldsWithEqualNames) {
    OwnedList list(Fields{{"a", "1"}, {"a", "2"}, {"a", "1"}});

    EXPECT_EQ(contents(list.head()), (Fields{{"a", "1"}, {"a", "2"}, {"a", "1"}}));
}

TEST(add_str, KeepsEmptyNamesAndValues) {
    OwnedList list(Fields{{"", ""}, {"a", ""}, {"", "1"}});

    EXPECT_EQ(contents(list.head()), (Fields{{"", ""}, {"a", ""}, {"", "1"}}));
}

TEST(add_str, ReadsNullPointersAsEmptyStrings) {
    OwnedList list;
    add_str(list.address(), nullptr, nullptr);
    add_str(list.address(), "a", nullptr);
    add_str(list.address(), nullptr, "1");

    EXPECT_EQ(contents(list.head()), (Fields{{"", ""}, {"a", ""}, {"", "1"}}));
}

TEST(add_str, KeepsBytesAbove127AndControlCharacters) {
    OwnedList list;
    std::string every_byte;
    for (int byte = 1; byte < 256; ++byte) {
        every_byte += static_cast<char>(byte);
    }
    const std::string name = every_byte.substr(0, CORVEL_FIELD_NAME_SIZE - 1);
    list.append({{name, every_byte}});

    EXPECT_EQ(contents(list.head()), (Fields{{name, every_byte}}));
}

TEST(add_str, TruncatesANameAt254Characters) {
    OwnedList list;
    for (const std::size_t length : {253U, 254U, 255U, 256U, 4096U, 100000U}) {
        SCOPED_TRACE(length);
        const std::string name(length, 'n');
        list.append({{name, "value"}});

        EXPECT_EQ(contents(list.head()),
                  (Fields{{name.substr(0, CORVEL_FIELD_NAME_SIZE - 1), "value"}}));
        EXPECT_EQ(list.head()->next, nullptr);
        free_list(list.address());
    }
}

TEST(add_str, TruncatesAValueAt4096Characters) {
    OwnedList list;
    for (const std::size_t length : {4095U, 4096U, 4097U, 4098U, 8192U, 1000000U}) {
        SCOPED_TRACE(length);
        const std::string value(length, 'v');
        list.append({{"name", value}});

        EXPECT_EQ(contents(list.head()),
                  (Fields{{"name", value.substr(0, CORVEL_FIELD_VALUE_SIZE - 1)}}));
        EXPECT_EQ(list.head()->next, nullptr);
        free_list(list.address());
    }
}

TEST(add_str, KeepsOtherMembersIntactIfItTruncates) {
    OwnedList list(Fields{{std::string(300, 'n'), std::string(5000, 'v')}, {"next", "one"}});

    EXPECT_EQ(contents(list.head()), (Fields{{std::string(CORVEL_FIELD_NAME_SIZE - 1, 'n'),
                                              std::string(CORVEL_FIELD_VALUE_SIZE - 1, 'v')},
                                             {"next", "one"}}));
}

TEST(add_str, ReadsNothingAfterTheTerminators) {
    OwnedList list;
    GuardedString name("ip");
    GuardedString value("10.0.0.1");
    add_str(list.address(), name.text(), value.text());

    EXPECT_EQ(contents(list.head()), (Fields{{"ip", "10.0.0.1"}}));
}

TEST(add_str, ReadsAtMostTheMemberSizesOfUnterminatedStrings) {
    OwnedList list;
    const GuardedBlock name(std::string(sizeof(str_node::name), 'n'));
    const GuardedBlock value(std::string(sizeof(str_node::value), 'v'));
    ASSERT_NE(add_str(list.address(), name.start(), value.start()), nullptr);

    EXPECT_EQ(contents(list.head()), (Fields{{std::string(CORVEL_FIELD_NAME_SIZE - 1, 'n'),
                                              std::string(CORVEL_FIELD_VALUE_SIZE - 1, 'v')}}));
}

TEST(add_str, CopiesTheStrings) {
    OwnedList list;
    std::string name = "ip";
    std::string value = "10.0.0.1";
    add_str(list.address(), name.c_str(), value.c_str());
    name = "xx";
    value = "overwritten";

    EXPECT_EQ(contents(list.head()), (Fields{{"ip", "10.0.0.1"}}));
}

TEST(add_str, KeepsTheOrderOfThousandsOfFields) {
    OwnedList list;
    Fields expected;
    for (int i = 0; i < 3000; ++i) {
        expected.emplace_back("name" + std::to_string(i), "value" + std::to_string(i));
    }
    list.append(expected);

    EXPECT_EQ(contents(list.head()), expected);
}

TEST(add_str, AllocatesOneBlockForEachRecord) {
    OwnedList list;
    const CountCalls allocations(call_allocation);
    add_str(list.address(), "", "");
    EXPECT_EQ(allocations.count(), 1U);
    add_str(list.address(), "name", "value");
    EXPECT_EQ(allocations.count(), 2U);
}

TEST(add_str, LeavesAnEmptyListEmptyIfOutOfMemory) {
    OwnedList list;
    {
        const FailCall no_memory(call_allocation, 1, ENOMEM);
        EXPECT_EQ(add_str(list.address(), "a", "1"), nullptr);
    }
    EXPECT_EQ(list.head(), nullptr);
    list.append({{"b", "2"}});
    EXPECT_EQ(contents(list.head()), (Fields{{"b", "2"}}));
}

TEST(add_str, LeavesTheListUnchangedIfOutOfMemory) {
    OwnedList list(Fields{{"a", "1"}, {"b", "2"}});
    str_node *const first = list.head();
    {
        const FailCall no_memory(call_allocation, 1, ENOMEM);
        EXPECT_EQ(add_str(list.address(), "c", "3"), nullptr);
    }
    EXPECT_EQ(list.head(), first);
    EXPECT_EQ(contents(list.head()), (Fields{{"a", "1"}, {"b", "2"}}));
    list.append({{"d", "4"}});
    EXPECT_EQ(contents(list.head()), (Fields{{"a", "1"}, {"b", "2"}, {"d", "4"}}));
}

// --- free_list ---

TEST(free_list, SetsTheHeadToNullSoThatTheListCanBeReused) {
    OwnedList list(Fields{{"a", "1"}, {"b", "2"}, {"c", "3"}});
    free_list(list.address());
    EXPECT_EQ(list.head(), nullptr);

    list.append({{"d", "4"}});
    EXPECT_EQ(contents(list.head()), (Fields{{"d", "4"}}));
}

TEST(free_list, DoesNothingForAnEmptyList) {
    OwnedList list;
    free_list(list.address());
    EXPECT_EQ(list.head(), nullptr);
    free_list(list.address());
    EXPECT_EQ(list.head(), nullptr);
}

TEST(free_list, FreesEveryRecordAfterARemoval) {
    const unsigned long records = for_each_allocation_failure([](AllocationTrial &trial) {
        str_node *head = nullptr;
        trial.run([&] {
            for (const char *name : {"a", "b", "c"})
                add_str(&head, name, "value");
        });
        delete_string(&head, "b");
        free_list(&head);
    });
    EXPECT_EQ(records, 3U);
}

// --- delete_string ---

TEST(delete_string, RemovesOnlyTheFirstFieldWithTheName) {
    OwnedList list(Fields{{"a", "1"}, {"b", "2"}, {"a", "3"}});

    delete_string(list.address(), "a");
    EXPECT_EQ(contents(list.head()), (Fields{{"b", "2"}, {"a", "3"}}));
    delete_string(list.address(), "a");
    EXPECT_EQ(contents(list.head()), (Fields{{"b", "2"}}));
    delete_string(list.address(), "a");
    EXPECT_EQ(contents(list.head()), (Fields{{"b", "2"}}));
}

TEST(delete_string, LeavesAnEmptyListAfterTheOnlyField) {
    OwnedList list(Fields{{"a", "1"}});
    delete_string(list.address(), "a");

    EXPECT_EQ(list.head(), nullptr);
}

TEST(delete_string, RemovesFromTheMiddleAndTheEnd) {
    OwnedList list(Fields{{"a", "1"}, {"b", "2"}, {"c", "3"}, {"d", "4"}});

    delete_string(list.address(), "b");
    EXPECT_EQ(contents(list.head()), (Fields{{"a", "1"}, {"c", "3"}, {"d", "4"}}));
    delete_string(list.address(), "d");
    EXPECT_EQ(contents(list.head()), (Fields{{"a", "1"}, {"c", "3"}}));
    list.append({{"e", "5"}});
    EXPECT_EQ(contents(list.head()), (Fields{{"a", "1"}, {"c", "3"}, {"e", "5"}}));
}

TEST(delete_string, DoesNotMoveOtherRecords) {
    OwnedList list(Fields{{"a", "1"}, {"b", "2"}, {"c", "3"}});
    str_node *const first = list.head();
    str_node *const third = list.head()->next->next;
    delete_string(list.address(), "b");

    EXPECT_EQ(list.head(), first);
    EXPECT_EQ(list.head()->next, third);
}

TEST(delete_string, ComparesTheWholeNameAndItsCase) {
    OwnedList list;
    const Fields fields{{"ip", "1"}, {"IP", "2"}, {"ipaddr", "3"}, {"i", "4"}};
    list.append(fields);

    for (const char *absent : {"", "Ip", "ipa", "ipaddress", " ip", "ip "}) {
        SCOPED_TRACE(absent);
        delete_string(list.address(), absent);
        EXPECT_EQ(contents(list.head()), fields);
    }
}

TEST(delete_string, DoesNothingForAnEmptyList) {
    OwnedList list;
    delete_string(list.address(), "a");
    delete_string(list.address(), "");

    EXPECT_EQ(list.head(), nullptr);
}

TEST(delete_string, RemovesTheFirstFieldWithAnEmptyNameForAnEmptyOrNullName) {
    OwnedList list(Fields{{"a", "1"}, {"", "2"}, {"", "3"}});

    delete_string(list.address(), "");
    EXPECT_EQ(contents(list.head()), (Fields{{"a", "1"}, {"", "3"}}));
    delete_string(list.address(), nullptr);
    EXPECT_EQ(contents(list.head()), (Fields{{"a", "1"}}));
    delete_string(list.address(), nullptr);
    EXPECT_EQ(contents(list.head()), (Fields{{"a", "1"}}));
}

TEST(delete_string, AcceptsTheAddressOfARecordAsTheName) {
    OwnedList list(Fields{{"a", "1"}, {"b", "2"}, {"c", "3"}});

    delete_string(list.address(), reinterpret_cast<const char *>(list.head()->next));
    EXPECT_EQ(contents(list.head()), (Fields{{"a", "1"}, {"c", "3"}}));
    delete_string(list.address(), reinterpret_cast<const char *>(list.head()));
    EXPECT_EQ(contents(list.head()), (Fields{{"c", "3"}}));
    delete_string(list.address(), list.head()->name);
    EXPECT_EQ(list.head(), nullptr);
}

TEST(delete_string, RemovesTheFirstFieldWithTheNameOfAGivenRecord) {
    OwnedList list(Fields{{"a", "1"}, {"b", "2"}, {"a", "3"}});
    delete_string(list.address(), reinterpret_cast<const char *>(list.head()->next->next));

    EXPECT_EQ(contents(list.head()), (Fields{{"b", "2"}, {"a", "3"}}));
}

TEST(delete_string, ComparesAllOfANameOf254Characters) {
    OwnedList list;
    const std::string name(CORVEL_FIELD_NAME_SIZE - 1, 'n');
    list.append({{name, "1"}});

    delete_string(list.address(), std::string(255, 'n').c_str());
    EXPECT_EQ(contents(list.head()), (Fields{{name, "1"}}));
    delete_string(list.address(), std::string(253, 'n').c_str());
    EXPECT_EQ(contents(list.head()), (Fields{{name, "1"}}));
    delete_string(list.address(), name.c_str());
    EXPECT_EQ(list.head(), nullptr);
}

TEST(delete_string, RemovesARecordWithAnUnterminatedNameByItsAddress) {
    OwnedList list(Fields{{"a", "1"}});
    list.head()->next = static_cast<str_node *>(std::malloc(sizeof(str_node)));
    ASSERT_NE(list.head()->next, nullptr);
    *list.head()->next = unterminated_record();

    delete_string(list.address(), list.head()->next->name);
    EXPECT_EQ(contents(list.head()), (Fields{{"a", "1"}}));
}

TEST(delete_string, ReadsAtMostTheMemberSizeOfAnUnterminatedName) {
    OwnedList list(Fields{{"a", "1"}});
    const GuardedBlock name(std::string(sizeof(str_node::name), 'a'));
    delete_string(list.address(), name.start());

    EXPECT_EQ(contents(list.head()), (Fields{{"a", "1"}}));
}

// --- find_keyword ---

TEST(find_keyword, FindsNothingInAnEmptyList) {
    EXPECT_EQ(find_keyword("ip", nullptr), nullptr);
    EXPECT_EQ(find_keyword("", nullptr), nullptr);
    EXPECT_EQ(find_keyword(nullptr, nullptr), nullptr);
}

TEST(find_keyword, FindsTheNameAtTheStartOfTheString) {
    OwnedList list(Fields{{"mask", "1"}, {"ip", "2"}});

    EXPECT_EQ(find_keyword("ip", list.head()), list.head()->next);
    EXPECT_EQ(find_keyword("ip, mask", list.head()), list.head()->next);
    EXPECT_EQ(find_keyword("mask ip", list.head()), list.head());
}

TEST(find_keyword, DoesNotFindANameLaterInTheString) {
    OwnedList list(Fields{{"ip", "1"}});

    for (const char *text : {" ip", "xip", "$ip", "i ip", "Ip", "IP", "i", ""}) {
        EXPECT_EQ(find_keyword(text, list.head()), nullptr) << text;
    }
}

TEST(find_keyword, RequiresNoDelimiterAfterTheName) {
    OwnedList list(Fields{{"ip", "1"}});

    for (const char *text : {"ipx", "ipip", "ip1", "ip_", "ip$ip"}) {
        EXPECT_EQ(find_keyword(text, list.head()), list.head()) << text;
    }
}

TEST(find_keyword, ReturnsTheFirstMatchInListOrderNotTheLongest) {
    OwnedList list(Fields{{"ip", "1"}, {"ipaddr", "2"}});
    EXPECT_EQ(find_keyword("ipaddr=1", list.head()), list.head());
    free_list(list.address());

    list.append({{"ipaddr", "2"}, {"ip", "1"}});
    EXPECT_EQ(find_keyword("ipaddr=1", list.head()), list.head());
    EXPECT_EQ(find_keyword("ipad", list.head()), list.head()->next);
}

TEST(find_keyword, ReturnsTheFirstFieldWithTheName) {
    OwnedList list(Fields{{"b", "0"}, {"a", "1"}, {"a", "2"}});

    EXPECT_EQ(find_keyword("a", list.head()), list.head()->next);
}

TEST(find_keyword, MatchesAnEmptyNameWithAnyString) {
    OwnedList list(Fields{{"a", "1"}, {"", "2"}, {"b", "3"}});

    EXPECT_EQ(find_keyword("a", list.head()), list.head());
    EXPECT_EQ(find_keyword("b", list.head()), list.head()->next);
    EXPECT_EQ(find_keyword("x", list.head()), list.head()->next);
    EXPECT_EQ(find_keyword("", list.head()), list.head()->next);
    EXPECT_EQ(find_keyword(nullptr, list.head()), list.head()->next);
}

TEST(find_keyword, DoesNotMatchANullPointerWithANonemptyName) {
    OwnedList list(Fields{{"a", "1"}});

    EXPECT_EQ(find_keyword(nullptr, list.head()), nullptr);
}

TEST(find_keyword, ReadsNothingAfterTheTerminator) {
    OwnedList list(
        Fields{{"ipaddr", "1"}, {std::string(CORVEL_FIELD_NAME_SIZE - 1, 'i'), "2"}, {"ipa", "3"}});
    GuardedString text("ip");
    EXPECT_EQ(find_keyword(text.text(), list.head()), nullptr);

    GuardedString exact("ipa");
    EXPECT_EQ(find_keyword(exact.text(), list.head()), list.head()->next->next);
}

TEST(find_keyword, ReadsAtMostTheMemberSizeOfAnUnterminatedString) {
    OwnedList list(Fields{{"ip", "1"}, {"a", "2"}});
    const GuardedBlock text(std::string(sizeof(str_node::name), 'a'));

    EXPECT_EQ(find_keyword(text.start(), list.head()), list.head()->next);
}

TEST(find_keyword, FindsNamesOfBytesAbove127) {
    OwnedList list(Fields{{"\xff\x80", "1"}});

    EXPECT_EQ(find_keyword("\xff\x80z", list.head()), list.head());
    EXPECT_EQ(find_keyword("\x7f", list.head()), nullptr);
}

TEST(find_keyword, LeavesTheListUnchanged) {
    OwnedList list;
    const Fields fields{{"a", "1"}, {"b", "2"}};
    list.append(fields);
    find_keyword("b", list.head());

    EXPECT_EQ(contents(list.head()), fields);
}

// --- change_keyword ---

TEST(change_keyword, InsertsALongerValue) {
    EXPECT_EQ(substituted("$ab tail", "ab", "12345"), "12345 tail");
    EXPECT_EQ(substituted("$a$b$c", "a", std::string(CORVEL_FIELD_VALUE_SIZE - 1, 'v')),
              std::string(CORVEL_FIELD_VALUE_SIZE - 1, 'v') + "$b$c");
}

TEST(change_keyword, InsertsAShorterValue) {
    EXPECT_EQ(substituted("$abcdef tail", "abcdef", "1"), "1 tail");
}

TEST(change_keyword, InsertsAValueOfTheLengthOfTheMarker) {
    EXPECT_EQ(substituted("$ab tail", "ab", "123"), "123 tail");
}

TEST(change_keyword, RemovesTheMarkerForAnEmptyValue) {
    EXPECT_EQ(substituted("$ab tail", "ab", ""), " tail");
}

TEST(change_keyword, ReplacesAMarkerAtTheEndOfTheString) {
    EXPECT_EQ(substituted("$ab", "ab", "12345"), "12345");
    EXPECT_EQ(substituted("$ab", "ab", "1"), "1");
    EXPECT_EQ(substituted("$ab", "ab", ""), "");
}

TEST(change_keyword, ReplacesOnlyTheDollarSignForAnEmptyName) {
    EXPECT_EQ(substituted("$ tail", "", "1"), "1 tail");
    EXPECT_EQ(substituted("$", "", "12345"), "12345");
    EXPECT_EQ(substituted("$", "", ""), "");
}

TEST(change_keyword, ReplacesOnlyTheMarkerAtTheGivenPosition) {
    GuardedString buffer("<$ip> <$ip>", 20);
    const str_node field = record("ip", "10.0.0.1");
    EXPECT_EQ(change_keyword(buffer.text() + 1, &field), buffer.text() + 1);

    EXPECT_STREQ(buffer.text(), "<10.0.0.1> <$ip>");
}

TEST(change_keyword, InsertsTheValueUnchanged) {
    EXPECT_EQ(substituted("$a.", "a", "$a%s\\\"\n\xff"), "$a%s\\\"\n\xff.");
}

TEST(change_keyword, LeavesTheRecordUnchanged) {
    const str_node field = record("ab", "12345");
    GuardedString buffer("$ab tail", 20);
    change_keyword(buffer.text(), &field);

    EXPECT_STREQ(field.name, "ab");
    EXPECT_STREQ(field.value, "12345");
    EXPECT_EQ(field.next, nullptr);
}

TEST(change_keyword, ReplacesTheLongestNameByTheLongestValue) {
    const std::string name(CORVEL_FIELD_NAME_SIZE - 1, 'n');
    const std::string value(CORVEL_FIELD_VALUE_SIZE - 1, 'v');

    EXPECT_EQ(substituted("$" + name + " tail", name, value), value + " tail");
}

TEST(change_keyword, ReplacesAsManyCharactersAsTheNameHasRegardlessOfTheirValues) {
    EXPECT_EQ(substituted("$xy tail", "ab", "12345"), "12345 tail");
}

TEST(change_keyword, ReplacesTheWholeStringIfTheNameIsLonger) {
    for (const char *text : {"", "$", "$a", "$abcdefg"}) {
        const str_node field = record("abcdefgh", "12345");
        GuardedString buffer(text, 8);
        EXPECT_EQ(change_keyword(buffer.text(), &field), buffer.text());
        EXPECT_STREQ(buffer.text(), "12345");
    }
}

// --- All functions ---

TEST(FieldList, UnterminatedNameEndsAtTheEndOfItsArray) {
    str_node record = unterminated_record();
    const std::string name(sizeof record.name, 'n');

    EXPECT_EQ(find_keyword((name + "x").c_str(), &record), &record);
    EXPECT_EQ(find_keyword(name.c_str(), &record), &record);
    EXPECT_EQ(find_keyword(name.substr(1).c_str(), &record), nullptr);
    GuardedString text("$" + name + "x");
    EXPECT_STREQ(change_keyword(text.text(), &record), "valuex");
    const std::string input = "<input type=\"hidden\" name=\"" + name + "\" value=\"$" + name;
    EXPECT_EQ(capture_stdout([&] { generate_hidder_from_list(&record); }), input + "\">\n");
    EXPECT_EQ(capture_stdout([&] { list2json_data(&record); }), "\t\"" + name + "\":\"value\"");
}

} // namespace
} // namespace corvel_test

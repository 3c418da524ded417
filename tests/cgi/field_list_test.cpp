/* SPDX-License-Identifier: MIT */
#include <corvel.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "tests/cgi/list_contents.h"
#include "tests/support/guarded_block.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/output_capture.h"
#include "tests/support/stand_in.h"

namespace corvel_test {
namespace {

class FieldList : public testing::Test {
  protected:
    ~FieldList() override { free_list(&head_); }

    void append(const Fields &fields) {
        for (const auto &[name, value] : fields) {
            add_str(&head_, name.c_str(), value.c_str());
        }
    }

    str_node *head_ = nullptr;
};

// ---------------------------------------------------------------------------------- appending --

TEST_F(FieldList, FirstFieldBecomesTheHeadWithoutASuccessor) {
    void *const result = add_str(&head_, "ip", "10.0.0.1");

    ASSERT_NE(head_, nullptr);
    EXPECT_EQ(result, head_);
    EXPECT_STREQ(head_->name, "ip");
    EXPECT_STREQ(head_->value, "10.0.0.1");
    EXPECT_EQ(head_->next, nullptr);
}

TEST_F(FieldList, LaterFieldIsLinkedBehindTheLastAndItsValueIsTheResult) {
    add_str(&head_, "a", "1");
    str_node *const first = head_;
    void *const second = add_str(&head_, "b", "2");
    ASSERT_EQ(head_, first);
    ASSERT_NE(first->next, nullptr);
    EXPECT_EQ(second, static_cast<void *>(first->next->value));

    void *const third = add_str(&head_, "c", "3");
    ASSERT_NE(first->next->next, nullptr);
    EXPECT_EQ(third, static_cast<void *>(first->next->next->value));
    EXPECT_EQ(contents(head_), (Fields{{"a", "1"}, {"b", "2"}, {"c", "3"}}));
}

TEST_F(FieldList, NamesNeedNotBeUniqueAndNothingIsMerged) {
    append({{"a", "1"}, {"a", "2"}, {"a", "1"}});

    EXPECT_EQ(contents(head_), (Fields{{"a", "1"}, {"a", "2"}, {"a", "1"}}));
}

TEST_F(FieldList, RecordsHaveTheDocumentedFieldSizesAndOrder) {
    EXPECT_EQ(sizeof(str_node::name), 255U);
    EXPECT_EQ(sizeof(str_node::value), 4097U);
    EXPECT_EQ(offsetof(str_node, name), 0U);
    EXPECT_EQ(offsetof(str_node, value), 255U);
    EXPECT_EQ(offsetof(str_node, next), 4352U);
    EXPECT_EQ(sizeof(str_node), 4352U + sizeof(void *));
}

TEST_F(FieldList, EmptyNameAndValueAreKept) {
    append({{"", ""}, {"a", ""}, {"", "1"}});

    EXPECT_EQ(contents(head_), (Fields{{"", ""}, {"a", ""}, {"", "1"}}));
}

TEST_F(FieldList, NullNameAndValueCountAsEmpty) {
    add_str(&head_, nullptr, nullptr);
    add_str(&head_, "a", nullptr);
    add_str(&head_, nullptr, "1");

    EXPECT_EQ(contents(head_), (Fields{{"", ""}, {"a", ""}, {"", "1"}}));
}

TEST_F(FieldList, BytesAbove127AndControlCharactersAreKept) {
    std::string every_byte;
    for (int byte = 1; byte < 256; ++byte) {
        every_byte += static_cast<char>(byte);
    }
    const std::string name = every_byte.substr(0, 254);
    append({{name, every_byte}});

    EXPECT_EQ(contents(head_), (Fields{{name, every_byte}}));
}

TEST_F(FieldList, NameIsCutAt254Characters) {
    for (const std::size_t length : {253U, 254U, 255U, 256U, 4096U, 100000U}) {
        SCOPED_TRACE(length);
        const std::string name(length, 'n');
        append({{name, "value"}});

        EXPECT_EQ(contents(head_), (Fields{{name.substr(0, 254), "value"}}));
        EXPECT_EQ(head_->next, nullptr);
        free_list(&head_);
    }
}

TEST_F(FieldList, ValueIsCutAt4096Characters) {
    for (const std::size_t length : {4095U, 4096U, 4097U, 4098U, 8192U, 1000000U}) {
        SCOPED_TRACE(length);
        const std::string value(length, 'v');
        append({{"name", value}});

        EXPECT_EQ(contents(head_), (Fields{{"name", value.substr(0, 4096)}}));
        EXPECT_EQ(head_->next, nullptr);
        free_list(&head_);
    }
}

TEST_F(FieldList, CutTextsLeaveTheirNeighboursInTheRecordIntact) {
    append({{std::string(300, 'n'), std::string(5000, 'v')}, {"next", "one"}});

    EXPECT_EQ(contents(head_),
              (Fields{{std::string(254, 'n'), std::string(4096, 'v')}, {"next", "one"}}));
}

TEST_F(FieldList, TextsAreReadNoFurtherThanTheirTerminators) {
    GuardedBuffer name("ip");
    GuardedBuffer value("10.0.0.1");
    add_str(&head_, name.text(), value.text());

    EXPECT_EQ(contents(head_), (Fields{{"ip", "10.0.0.1"}}));
}

TEST_F(FieldList, UnterminatedNameAndValueAreReadNoFurtherThanTheirFields) {
    const GuardedBlock name(std::string(sizeof(str_node::name), 'n'));
    const GuardedBlock value(std::string(sizeof(str_node::value), 'v'));
    ASSERT_NE(add_str(&head_, name.start(), value.start()), nullptr);

    EXPECT_EQ(contents(head_), (Fields{{std::string(254, 'n'), std::string(4096, 'v')}}));
}

TEST_F(FieldList, TextsAreCopiedNotReferredTo) {
    std::string name = "ip";
    std::string value = "10.0.0.1";
    add_str(&head_, name.c_str(), value.c_str());
    name = "xx";
    value = "overwritten";

    EXPECT_EQ(contents(head_), (Fields{{"ip", "10.0.0.1"}}));
}

TEST_F(FieldList, ThousandsOfFieldsKeepTheirOrder) {
    Fields expected;
    for (int i = 0; i < 3000; ++i) {
        expected.emplace_back("name" + std::to_string(i), "value" + std::to_string(i));
    }
    append(expected);

    EXPECT_EQ(contents(head_), expected);
}

// ------------------------------------------------------------------------------ freeing a list --

TEST_F(FieldList, FreeingLeavesTheHeadNullAndTheListCanBeUsedAgain) {
    append({{"a", "1"}, {"b", "2"}, {"c", "3"}});
    free_list(&head_);
    EXPECT_EQ(head_, nullptr);

    append({{"d", "4"}});
    EXPECT_EQ(contents(head_), (Fields{{"d", "4"}}));
}

TEST_F(FieldList, FreeingAnEmptyListDoesNothing) {
    free_list(&head_);
    EXPECT_EQ(head_, nullptr);
    free_list(&head_);
    EXPECT_EQ(head_, nullptr);
}

TEST_F(FieldList, FreeingAndRemovingGiveEveryRecordBack) {
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

TEST_F(FieldList, EveryRecordIsOneBlockOfTheHeapWhateverItsTexts) {
    const CountCalls allocations(call_allocation);
    add_str(&head_, "", "");
    EXPECT_EQ(allocations.count(), 1U);
    add_str(&head_, "name", "value");
    EXPECT_EQ(allocations.count(), 2U);
}

// ------------------------------------------------------------------------- without memory to
// append

TEST_F(FieldList, WithoutMemoryAnEmptyListStaysEmpty) {
    {
        const FailCall no_memory(call_allocation, 1, ENOMEM);
        EXPECT_EQ(add_str(&head_, "a", "1"), nullptr);
    }
    EXPECT_EQ(head_, nullptr);
    append({{"b", "2"}});
    EXPECT_EQ(contents(head_), (Fields{{"b", "2"}}));
}

TEST_F(FieldList, WithoutMemoryTheListStaysAsItWas) {
    append({{"a", "1"}, {"b", "2"}});
    str_node *const first = head_;
    {
        const FailCall no_memory(call_allocation, 1, ENOMEM);
        EXPECT_EQ(add_str(&head_, "c", "3"), nullptr);
    }
    EXPECT_EQ(head_, first);
    EXPECT_EQ(contents(head_), (Fields{{"a", "1"}, {"b", "2"}}));
    append({{"d", "4"}});
    EXPECT_EQ(contents(head_), (Fields{{"a", "1"}, {"b", "2"}, {"d", "4"}}));
}

// ------------------------------------------------------------------------------------ removing --

TEST_F(FieldList, RemovingTakesOnlyTheFirstFieldOfTheName) {
    append({{"a", "1"}, {"b", "2"}, {"a", "3"}});

    delete_string(&head_, "a");
    EXPECT_EQ(contents(head_), (Fields{{"b", "2"}, {"a", "3"}}));
    delete_string(&head_, "a");
    EXPECT_EQ(contents(head_), (Fields{{"b", "2"}}));
    delete_string(&head_, "a");
    EXPECT_EQ(contents(head_), (Fields{{"b", "2"}}));
}

TEST_F(FieldList, RemovingTheOnlyFieldLeavesAnEmptyList) {
    append({{"a", "1"}});
    delete_string(&head_, "a");

    EXPECT_EQ(head_, nullptr);
}

TEST_F(FieldList, RemovingFromTheMiddleAndTheEndLinksTheRest) {
    append({{"a", "1"}, {"b", "2"}, {"c", "3"}, {"d", "4"}});

    delete_string(&head_, "b");
    EXPECT_EQ(contents(head_), (Fields{{"a", "1"}, {"c", "3"}, {"d", "4"}}));
    delete_string(&head_, "d");
    EXPECT_EQ(contents(head_), (Fields{{"a", "1"}, {"c", "3"}}));
    append({{"e", "5"}});
    EXPECT_EQ(contents(head_), (Fields{{"a", "1"}, {"c", "3"}, {"e", "5"}}));
}

TEST_F(FieldList, RemovingLeavesTheOtherRecordsWhereTheyAre) {
    append({{"a", "1"}, {"b", "2"}, {"c", "3"}});
    str_node *const first = head_;
    str_node *const third = head_->next->next;
    delete_string(&head_, "b");

    EXPECT_EQ(head_, first);
    EXPECT_EQ(head_->next, third);
}

TEST_F(FieldList, RemovingComparesTheWholeNameAndItsCase) {
    const Fields fields{{"ip", "1"}, {"IP", "2"}, {"ipaddr", "3"}, {"i", "4"}};
    append(fields);

    for (const char *absent : {"", "Ip", "ipa", "ipaddress", " ip", "ip "}) {
        SCOPED_TRACE(absent);
        delete_string(&head_, absent);
        EXPECT_EQ(contents(head_), fields);
    }
}

TEST_F(FieldList, RemovingFromAnEmptyListDoesNothing) {
    delete_string(&head_, "a");
    delete_string(&head_, "");

    EXPECT_EQ(head_, nullptr);
}

TEST_F(FieldList, EmptyOrNullNameRemovesTheFirstFieldWithAnEmptyName) {
    append({{"a", "1"}, {"", "2"}, {"", "3"}});

    delete_string(&head_, "");
    EXPECT_EQ(contents(head_), (Fields{{"a", "1"}, {"", "3"}}));
    delete_string(&head_, nullptr);
    EXPECT_EQ(contents(head_), (Fields{{"a", "1"}}));
    delete_string(&head_, nullptr);
    EXPECT_EQ(contents(head_), (Fields{{"a", "1"}}));
}

TEST_F(FieldList, RecordsOwnAddressServesAsTheNameToRemove) {
    append({{"a", "1"}, {"b", "2"}, {"c", "3"}});

    delete_string(&head_, reinterpret_cast<const char *>(head_->next));
    EXPECT_EQ(contents(head_), (Fields{{"a", "1"}, {"c", "3"}}));
    delete_string(&head_, reinterpret_cast<const char *>(head_));
    EXPECT_EQ(contents(head_), (Fields{{"c", "3"}}));
    delete_string(&head_, head_->name);
    EXPECT_EQ(head_, nullptr);
}

TEST_F(FieldList, AddressOfALaterRecordRemovesTheFirstOfItsName) {
    append({{"a", "1"}, {"b", "2"}, {"a", "3"}});
    delete_string(&head_, reinterpret_cast<const char *>(head_->next->next));

    EXPECT_EQ(contents(head_), (Fields{{"b", "2"}, {"a", "3"}}));
}

TEST_F(FieldList, NameOf254CharactersIsRemovedByThatNameButNotByALongerOne) {
    const std::string name(254, 'n');
    append({{name, "1"}});

    delete_string(&head_, std::string(255, 'n').c_str());
    EXPECT_EQ(contents(head_), (Fields{{name, "1"}}));
    delete_string(&head_, std::string(253, 'n').c_str());
    EXPECT_EQ(contents(head_), (Fields{{name, "1"}}));
    delete_string(&head_, name.c_str());
    EXPECT_EQ(head_, nullptr);
}

/** A record whose name fills its array and has no terminator. */
str_node unterminated_record() {
    str_node record{};
    std::memset(record.name, 'n', sizeof record.name);
    std::memcpy(record.value, "value", sizeof "value");
    return record;
}

TEST_F(FieldList, RecordWithAnUnterminatedNameIsRemovedByItsAddress) {
    append({{"a", "1"}});
    head_->next = static_cast<str_node *>(std::malloc(sizeof(str_node)));
    ASSERT_NE(head_->next, nullptr);
    *head_->next = unterminated_record();

    delete_string(&head_, head_->next->name);
    EXPECT_EQ(contents(head_), (Fields{{"a", "1"}}));
}

TEST_F(FieldList, NameToRemoveIsReadNoFurtherThanItsField) {
    append({{"a", "1"}});
    const GuardedBlock name(std::string(sizeof(str_node::name), 'a'));
    delete_string(&head_, name.start());

    EXPECT_EQ(contents(head_), (Fields{{"a", "1"}}));
}

// --------------------------------------------------------------------------------- looking up --

TEST_F(FieldList, LookupInAnEmptyListFindsNothing) {
    EXPECT_EQ(find_keyword("ip", nullptr), nullptr);
    EXPECT_EQ(find_keyword("", nullptr), nullptr);
    EXPECT_EQ(find_keyword(nullptr, nullptr), nullptr);
}

TEST_F(FieldList, LookupFindsTheNameAtTheStartOfTheText) {
    append({{"mask", "1"}, {"ip", "2"}});

    EXPECT_EQ(find_keyword("ip", head_), head_->next);
    EXPECT_EQ(find_keyword("ip, mask", head_), head_->next);
    EXPECT_EQ(find_keyword("mask ip", head_), head_);
}

TEST_F(FieldList, LookupDoesNotFindANameFurtherOnInTheText) {
    append({{"ip", "1"}});

    for (const char *text : {" ip", "xip", "$ip", "i ip", "Ip", "IP", "i", ""}) {
        EXPECT_EQ(find_keyword(text, head_), nullptr) << text;
    }
}

TEST_F(FieldList, NameNeedsNoDelimiterBehindIt) {
    append({{"ip", "1"}});

    for (const char *text : {"ipx", "ipip", "ip1", "ip_", "ip$ip"}) {
        EXPECT_EQ(find_keyword(text, head_), head_) << text;
    }
}

TEST_F(FieldList, FirstFieldInListOrderWinsNotTheLongestName) {
    append({{"ip", "1"}, {"ipaddr", "2"}});
    EXPECT_EQ(find_keyword("ipaddr=1", head_), head_);
    free_list(&head_);

    append({{"ipaddr", "2"}, {"ip", "1"}});
    EXPECT_EQ(find_keyword("ipaddr=1", head_), head_);
    EXPECT_EQ(find_keyword("ipad", head_), head_->next);
}

TEST_F(FieldList, FirstOfSeveralFieldsOfOneNameIsFound) {
    append({{"b", "0"}, {"a", "1"}, {"a", "2"}});

    EXPECT_EQ(find_keyword("a", head_), head_->next);
}

TEST_F(FieldList, EmptyNameMatchesAnyText) {
    append({{"a", "1"}, {"", "2"}, {"b", "3"}});

    EXPECT_EQ(find_keyword("a", head_), head_);
    EXPECT_EQ(find_keyword("b", head_), head_->next);
    EXPECT_EQ(find_keyword("x", head_), head_->next);
    EXPECT_EQ(find_keyword("", head_), head_->next);
    EXPECT_EQ(find_keyword(nullptr, head_), head_->next);
}

TEST_F(FieldList, NullTextMatchesNoNameButTheEmptyOne) {
    append({{"a", "1"}});

    EXPECT_EQ(find_keyword(nullptr, head_), nullptr);
}

TEST_F(FieldList, LookupReadsNoFurtherThanTheTextsEnd) {
    append({{"ipaddr", "1"}, {std::string(254, 'i'), "2"}, {"ipa", "3"}});
    GuardedBuffer text("ip");
    EXPECT_EQ(find_keyword(text.text(), head_), nullptr);

    GuardedBuffer exact("ipa");
    EXPECT_EQ(find_keyword(exact.text(), head_), head_->next->next);
}

TEST_F(FieldList, LookupReadsNoFurtherThanTheLongestNameIsLong) {
    append({{"ip", "1"}, {"a", "2"}});
    const GuardedBlock text(std::string(sizeof(str_node::name), 'a'));

    EXPECT_EQ(find_keyword(text.start(), head_), head_->next);
}

TEST_F(FieldList, UnterminatedNameEndsWithItsArray) {
    str_node record = unterminated_record();
    const std::string name(sizeof record.name, 'n');

    EXPECT_EQ(find_keyword((name + "x").c_str(), &record), &record);
    EXPECT_EQ(find_keyword(name.c_str(), &record), &record);
    EXPECT_EQ(find_keyword(name.substr(1).c_str(), &record), nullptr);
    GuardedBuffer text("$" + name + "x");
    EXPECT_STREQ(change_keyword(text.text(), &record), "valuex");
    const std::string input = "<input type=\"hidden\" name=\"" + name + "\" value=\"$" + name;
    EXPECT_EQ(capture_stdout([&] { generate_hidder_from_list(&record); }), input + "\">\n");
    EXPECT_EQ(capture_stdout([&] { list2json_data(&record); }), "\t\"" + name + "\":\"value\"");
}

TEST_F(FieldList, NamesOfBytesAbove127AreFound) {
    append({{"\xff\x80", "1"}});

    EXPECT_EQ(find_keyword("\xff\x80z", head_), head_);
    EXPECT_EQ(find_keyword("\x7f", head_), nullptr);
}

TEST_F(FieldList, LookupChangesNothing) {
    const Fields fields{{"a", "1"}, {"b", "2"}};
    append(fields);
    find_keyword("b", head_);

    EXPECT_EQ(contents(head_), fields);
}

// ------------------------------------------------------------------------------- substituting --

/** One field outside of any list. */
str_node record(std::string_view name, std::string_view value) {
    str_node node = {};
    name.copy(node.name, sizeof node.name - 1);
    value.copy(node.value, sizeof node.value - 1);
    return node;
}

/**
 * The text after its leading marker was replaced, in a buffer that has room for the longer of the
 * text before and after and not for one byte more.
 */
std::string substituted(std::string_view text, std::string_view name, std::string_view value) {
    const str_node field = record(name, value);
    GuardedBuffer buffer(text, text.size() - name.size() - 1 + value.size());
    EXPECT_EQ(change_keyword(buffer.text(), &field), buffer.text());
    EXPECT_TRUE(buffer.front_is_intact());
    return buffer.text();
}

TEST(MarkerSubstitution, LongerValueMovesTheRestBack) {
    EXPECT_EQ(substituted("$ab tail", "ab", "12345"), "12345 tail");
    EXPECT_EQ(substituted("$a$b$c", "a", std::string(4096, 'v')), std::string(4096, 'v') + "$b$c");
}

TEST(MarkerSubstitution, ShorterValueClosesTheGap) {
    EXPECT_EQ(substituted("$abcdef tail", "abcdef", "1"), "1 tail");
}

TEST(MarkerSubstitution, ValueOfTheMarkersOwnLengthKeepsTheRestInPlace) {
    EXPECT_EQ(substituted("$ab tail", "ab", "123"), "123 tail");
}

TEST(MarkerSubstitution, EmptyValueRemovesTheMarker) {
    EXPECT_EQ(substituted("$ab tail", "ab", ""), " tail");
}

TEST(MarkerSubstitution, MarkerAtTheEndOfTheTextIsReplaced) {
    EXPECT_EQ(substituted("$ab", "ab", "12345"), "12345");
    EXPECT_EQ(substituted("$ab", "ab", "1"), "1");
    EXPECT_EQ(substituted("$ab", "ab", ""), "");
}

TEST(MarkerSubstitution, EmptyNameReplacesTheDollarSignAlone) {
    EXPECT_EQ(substituted("$ tail", "", "1"), "1 tail");
    EXPECT_EQ(substituted("$", "", "12345"), "12345");
    EXPECT_EQ(substituted("$", "", ""), "");
}

TEST(MarkerSubstitution, OnlyTheMarkerAtTheGivenPositionIsReplaced) {
    GuardedBuffer buffer("<$ip> <$ip>", 20);
    const str_node field = record("ip", "10.0.0.1");
    EXPECT_EQ(change_keyword(buffer.text() + 1, &field), buffer.text() + 1);

    EXPECT_STREQ(buffer.text(), "<10.0.0.1> <$ip>");
}

TEST(MarkerSubstitution, ValueIsInsertedAsItStands) {
    EXPECT_EQ(substituted("$a.", "a", "$a%s\\\"\n\xff"), "$a%s\\\"\n\xff.");
}

TEST(MarkerSubstitution, RecordIsLeftAsItIs) {
    const str_node field = record("ab", "12345");
    GuardedBuffer buffer("$ab tail", 20);
    change_keyword(buffer.text(), &field);

    EXPECT_STREQ(field.name, "ab");
    EXPECT_STREQ(field.value, "12345");
    EXPECT_EQ(field.next, nullptr);
}

TEST(MarkerSubstitution, LongestNameAndValueFit) {
    const std::string name(254, 'n');
    const std::string value(4096, 'v');

    EXPECT_EQ(substituted("$" + name + " tail", name, value), value + " tail");
}

TEST(MarkerSubstitution, AsManyCharactersAsTheNameHasAreReplacedWhateverTheyAre) {
    EXPECT_EQ(substituted("$xy tail", "ab", "12345"), "12345 tail");
}

TEST(MarkerSubstitution, NameThatReachesBeyondTheTextReplacesAllOfIt) {
    for (const char *text : {"", "$", "$a", "$abcdefg"}) {
        const str_node field = record("abcdefgh", "12345");
        GuardedBuffer buffer(text, 8);
        EXPECT_EQ(change_keyword(buffer.text(), &field), buffer.text());
        EXPECT_STREQ(buffer.text(), "12345");
    }
}

// --------------------------------------------------------------------------------- zero blocks --

TEST(ZeroedBlock, EveryByteIsZeroEvenWhereTheHeapWasUsedBefore) {
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

TEST(ZeroedBlock, WholeBlockCanBeWritten) {
    auto *const block = static_cast<unsigned char *>(get_buffer(300));
    ASSERT_NE(block, nullptr);
    std::memset(block, 0xFF, 300);

    EXPECT_EQ(free_buffer(block, 300), 0);
}

TEST(ZeroedBlock, BlockCanBeReleasedWithFree) { std::free(get_buffer(10)); }

TEST(ZeroedBlock, IsNullWithoutMemory) {
    for (const std::uint32_t size : {0U, 1U, 256U}) {
        const FailCall no_memory(call_allocation, 1, ENOMEM);
        EXPECT_EQ(get_buffer(size), nullptr) << size;
    }
}

TEST(ZeroedBlock, SizeZeroIsHarmless) {
    void *const block = get_buffer(0);
    EXPECT_EQ(free_buffer(block, 0), 0);
}

TEST(ZeroedBlock, SizeZeroGivesABlockEvenWhereTheHeapHasNoEmptyBlocks) {
    const NoEmptyBlocks heap;
    void *const block = get_buffer(0);
    EXPECT_NE(block, nullptr);
    std::free(block);
}

TEST(ZeroedBlock, FreeingNullDoesNothing) {
    for (const std::uint32_t size : {0U, 1U, 4096U, 0xFFFFFFFFU}) {
        EXPECT_EQ(free_buffer(nullptr, size), 0);
        EXPECT_EQ(free_buff(nullptr, size), 0);
    }
}

/**
 * The bytes that the heap still holds where a block was before @p release took it, its first and
 * last 64 aside, which belong to the heap again. The kernel reads them: to the program they are
 * gone.
 */
std::string bytes_left_by(int (*release)(void *, std::uint32_t), std::uint32_t zeroed) {
    constexpr std::size_t size = 4096;
    constexpr std::size_t margin = 64;
    // Blocks in use on both sides keep the heap from joining the free one to other free memory, and
    // from giving it back to the system.
    std::vector<void *> blocks(32);
    for (void *&each : blocks)
        each = std::malloc(size);
    auto *const block = static_cast<char *>(std::exchange(blocks[blocks.size() / 2], nullptr));
    std::memset(block, 's', size);
    std::string left(size - 2 * margin, '?');
    const iovec there{block + margin, left.size()};
    const StreamFile file;
    EXPECT_EQ(release(block, zeroed), 0);
    EXPECT_EQ(syscall(SYS_writev, file.descriptor(), &there, 1), static_cast<long>(left.size()));
    left = file.text();
    for (void *const each : blocks)
        std::free(each);
    return left;
}

TEST(ZeroedBlock, NothingOfItsContentIsLeftInTheHeapAfterItIsFreed) {
    const auto plain_free = [](void *block, std::uint32_t) {
        std::free(block);
        return 0;
    };
    const std::string zeros(4096 - 128, '\0');
    ASSERT_EQ(bytes_left_by(plain_free, 4096), std::string(4096 - 128, 's'))
        << "this heap clears blocks by itself, so that nothing can be seen here";
    EXPECT_EQ(bytes_left_by(free_buffer, 4096), zeros);
    EXPECT_EQ(bytes_left_by(free_buff, 4096), zeros);
}

TEST(ZeroedBlock, OnlyAsManyBytesAsAskedForAreZeroed) {
    for (const auto release : {free_buffer, free_buff})
        EXPECT_EQ(bytes_left_by(release, 1024),
                  std::string(1024 - 64, '\0') + std::string(4096 - 1024 - 64, 's'));
}

} // namespace
} // namespace corvel_test

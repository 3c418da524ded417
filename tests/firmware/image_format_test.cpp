/* SPDX-License-Identifier: MIT */
#include <corvel.h>

#include "tests/support/guarded_memory.h"

#include <climits>
#include <cstdint>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace corvel_test;

/** The signatures of the rows, in order. */
const std::vector<std::string> signatures = {"boot", "benv", "root", "kern", "rfs1",
                                             "knl1", "log0", "conf", "artp", "Ver0"};

std::uint32_t row_of(std::string_view signature) {
    // Four bytes and no terminator.
    const GuardedBlock block(signature);
    return get_tbl_id(reinterpret_cast<const unsigned char *>(block.start()));
}

TEST(get_sign_tbl_size, ReturnsTheNumberOfRows) {
    EXPECT_EQ(get_sign_tbl_size(), std::uint32_t{CORVEL_PARTITIONS});
    EXPECT_EQ(signatures.size(), CORVEL_PARTITIONS);
}

TEST(get_tbl_id, FindsEachSignature) {
    for (std::uint32_t row = 0; row < signatures.size(); ++row)
        EXPECT_EQ(row_of(signatures[row]), row);
}

TEST(get_tbl_id, FindsNoOtherSignature) {
    using namespace std::string_literals;
    for (const std::string &signature :
         {"KERN"s, "Kern"s, "ver0"s, "VER0"s, "Boot"s, "root"s.substr(1) + "r", "rfs0"s, "knl0"s,
          "    "s, "\0\0\0\0"s, "\xFF\xFF\xFF\xFF"s})
        EXPECT_EQ(row_of(signature), std::uint32_t{CORVEL_NO_PARTITION}) << signature;
}

TEST(get_tbl_id, DistinguishesSignaturesByEveryBit) {
    for (const std::string &signature : signatures) {
        for (std::size_t bit = 0; bit < 32; ++bit) {
            std::string other = signature;
            other[bit / 8] = static_cast<char>(other[bit / 8] ^ 1 << bit % 8);
            // "boot" and "root" differ in one bit.
            const std::uint32_t row = other == "boot"   ? 0
                                      : other == "root" ? 2
                                                        : CORVEL_NO_PARTITION;
            EXPECT_EQ(row_of(other), row) << other;
        }
    }
}

TEST(get_tbl_id, ComparesFourBytes) {
    EXPECT_EQ(row_of("knl1"), 5U);
    EXPECT_EQ(row_of("knl1more"), 5U);
    EXPECT_EQ(row_of("Ver0\xFF"), 9U);
}

TEST(get_tbl_ids, ReturnsTheDeviceOfEachRow) {
    for (unsigned int row = 0; row < 9; ++row)
        EXPECT_EQ(get_tbl_ids(row), static_cast<int>(row));
    for (const unsigned int row : {9U, 10U, 11U, 255U, 0x7FFFFFFFU, 0x80000000U, UINT_MAX})
        EXPECT_EQ(get_tbl_ids(row), CORVEL_NOT_WRITTEN) << row;
}

} // namespace

/* SPDX-License-Identifier: MIT */
#include <corvel_page.h>

#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

std::string encoded(const std::string &text) {
    std::vector<char> url(CORVEL_URL_SIZE(text.size()));
    const std::size_t length = corvel_url_encode(text.c_str(), url.data(), url.size());
    EXPECT_EQ(length, std::strlen(url.data()));
    return url.data();
}

TEST(corvel_url_encode, KeepsLettersAndDigitsAndFourOtherCharacters) {
    for (int byte = 1; byte < 256; ++byte) {
        const char character = static_cast<char>(byte);
        const bool is_kept = (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
                             (byte >= '0' && byte <= '9') ||
                             std::strchr("-._~", character) != nullptr;
        char expected[4] = {character, '\0'};
        if (!is_kept)
            std::snprintf(expected, sizeof expected, "%%%02X", byte);
        EXPECT_EQ(encoded(std::string(1, character)), expected);
    }
}

TEST(corvel_url_encode, EncodesEachByteOfAString) {
    EXPECT_EQ(encoded("/next?a=b&c d%\xC3\xA9"), "%2Fnext%3Fa%3Db%26c%20d%25%C3%A9");
    EXPECT_EQ(encoded(""), "");
}

TEST(corvel_url_encode, MakesAPathThatARedirectionAccepts) {
    std::string all;
    for (int byte = 1; byte < 256; ++byte)
        all += static_cast<char>(byte);
    EXPECT_TRUE(corvel_is_local_path(("/login?next=" + encoded(all)).c_str()));
}

TEST(corvel_url_encode, IsEmptyIfTheResultDoesNotFit) {
    const std::string text = "a/b";
    for (std::size_t size = 0; size <= 8; ++size) {
        char url[8];
        std::memset(url, '#', sizeof url);
        const bool fits = size > std::strlen("a%2Fb");
        EXPECT_EQ(corvel_url_encode(text.c_str(), url, size), fits ? 5U : 0U) << size;
        EXPECT_STREQ(size != 0 ? url : "", fits ? "a%2Fb" : "") << size;
        for (std::size_t i = size; i < sizeof url; ++i)
            EXPECT_EQ(url[i], '#') << size;
    }
}

TEST(corvel_url_encode, IsEmptyForANullPointer) {
    char url[4] = "xyz";
    EXPECT_EQ(corvel_url_encode(nullptr, url, sizeof url), 0U);
    EXPECT_STREQ(url, "");
}

} // namespace

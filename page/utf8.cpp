// SPDX-License-Identifier: MIT
#include "page/utf8.h"

namespace corvel {
namespace {

/// The length that a first byte announces, and the range of the second byte. The range excludes
/// overlong encodings, surrogates, and what is beyond the last code point.
struct Encoding {
    std::size_t length;
    unsigned char lowest;
    unsigned char highest;
};

Encoding encoding_of(unsigned char first) {
    if (first < 0x80)
        return {1, 0, 0};
    if (first < 0xC2 || first > 0xF4)
        return {0, 0, 0};
    if (first < 0xE0)
        return {2, 0x80, 0xBF};
    if (first < 0xF0) {
        const unsigned char lowest = first == 0xE0 ? 0xA0 : 0x80;
        const unsigned char highest = first == 0xED ? 0x9F : 0xBF;
        return {3, lowest, highest};
    }
    const unsigned char lowest = first == 0xF0 ? 0x90 : 0x80;
    const unsigned char highest = first == 0xF4 ? 0x8F : 0xBF;
    return {4, lowest, highest};
}

} // namespace

std::size_t utf8_length(std::string_view text) {
    if (text.empty())
        return 0;
    const Encoding encoding = encoding_of(static_cast<unsigned char>(text[0]));
    if (encoding.length > text.size())
        return 0;
    for (std::size_t i = 1; i < encoding.length; ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        const unsigned char lowest = i == 1 ? encoding.lowest : 0x80;
        const unsigned char highest = i == 1 ? encoding.highest : 0xBF;
        if (byte < lowest || byte > highest)
            return 0;
    }
    return encoding.length;
}

bool is_control(std::string_view character) {
    if (character.empty())
        return false;
    const auto first = static_cast<unsigned char>(character[0]);
    if (first < 0x20 || first == 0x7F)
        return true;
    return first == 0xC2 && character.size() > 1 && static_cast<unsigned char>(character[1]) < 0xA0;
}

} // namespace corvel

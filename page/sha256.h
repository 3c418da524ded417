// SPDX-License-Identifier: MIT
#ifndef CORVEL_PAGE_SHA256_H
#define CORVEL_PAGE_SHA256_H

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace corvel {

/// The hash function SHA-256 (FIPS 180-4).
class Sha256 {
  public:
    /// Bytes of a digest as lowercase hexadecimal digits, including the terminating NUL.
    static constexpr std::size_t text_size = 65;

    void update(std::string_view bytes);
    /// Completes the hash; the object cannot be used afterwards.
    void digest_text(char result[text_size]);

  private:
    void process(const unsigned char block[64]);

    std::uint32_t state_[8] = {0x6A09E667, 0xBB67AE85, 0x3C6EF372, 0xA54FF53A,
                               0x510E527F, 0x9B05688C, 0x1F83D9AB, 0x5BE0CD19};
    unsigned char block_[64];
    std::uint64_t size_ = 0;
};

/// The hash of a string and another one after it. Its state is wiped: the strings can be secret.
void hash_text(std::string_view prefix, std::string_view text, char result[Sha256::text_size]);

} // namespace corvel

#endif

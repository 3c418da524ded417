/* SPDX-License-Identifier: MIT */
/** Shared helpers of the fuzz targets: splitting an input into strings, buffers that reveal an
 * access out of bounds, files and streams in memory, and checks that print the values. */
#ifndef CORVEL_FUZZ_HARNESS_H
#define CORVEL_FUZZ_HARNESS_H

#include <corvel.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace corvel_fuzz {

/** Reports a violated relation and aborts. */
[[noreturn]] void fail(const char *relation, const char *file, int line);

/** Reports the relation and aborts unless it holds. */
inline void check(bool holds, const char *relation, const char *file = __builtin_FILE(),
                  int line = __builtin_LINE()) {
    if (!holds)
        fail(relation, file, line);
}

/** Prints both strings and aborts unless they are equal. */
void check_equal(std::string_view got, std::string_view expected, const char *relation,
                 const char *file = __builtin_FILE(), int line = __builtin_LINE());

void check_equal(long long got, long long expected, const char *relation,
                 const char *file = __builtin_FILE(), int line = __builtin_LINE());

/** The input, consumed from the start. */
class Input {
  public:
    Input(const std::uint8_t *data, std::size_t size);

    /** Returns the next byte, or 0 at the end of the input. */
    unsigned char byte();

    /** Returns the bytes up to the next NUL, which is skipped, with runs expanded. */
    std::string text();

    /** Returns the rest of the input, including NULs, with runs expanded. */
    std::string rest();

  private:
    std::string_view left_;
};

/** The number of repetitions that a byte of the input represents: 0 to 127, then up to 4096 in
 * steps of 32. Makes strings possible that are longer than the limits of the library. */
std::size_t run_length(unsigned char byte);

/** A heap block that ends with the terminator of the string, so that reading one more byte is an
 *  overrun. */
std::unique_ptr<char[]> exact_copy(std::string_view text);

/** A heap block of @p size bytes, at least one, that starts with the NUL-terminated string. */
std::unique_ptr<char[]> padded_copy(std::string_view text, std::size_t size);

/** A heap block of exactly @p size bytes without a NUL. */
std::unique_ptr<char[]> unterminated_block(std::size_t size);

/** The same block, starting with the NUL-terminated string. */
std::unique_ptr<char[]> block_to_append_to(std::string_view text, std::size_t size);

/** The bytes before the first NUL. */
std::string_view as_text(std::string_view bytes);

/** A copy of the string without a leading and without a trailing double quote. */
std::string without_quotes(std::string_view text);

/** The CRC-32, computed with a table derived from the definition. */
std::uint32_t crc_of(std::string_view bytes);

/** A 32-bit word in big-endian byte order, as in the file formats. */
std::string word_of(std::uint32_t value);

/** Two upper-case hexadecimal digits for each byte, and a separator between the bytes. */
std::string hexadecimal(std::string_view bytes, std::string_view separator = "");

std::string lower_case(std::string text);

/** A hardware address in stripped form, without terminator; shorter for a shorter string. */
std::string stripped_mac(std::string_view mac);

/** The bytes of an IPv4 address in network byte order as decimal numbers with dots. */
std::string dotted_quad(std::string_view address);

/** At most the first @p size characters. */
std::string_view cut(std::string_view text, std::size_t size);

/** A model of atoi(): whitespace, a sign, digits; limited to the range of int. */
int decimal_value(std::string_view text);

/** The result of reading one line with a limited length. */
struct Piece {
    std::string text; /**< The line or part of a line, including its newline. */
    bool at_end;      /**< The read reached the end of the file. */
};

/** The results of reading a file line by line, at most @p longest characters at a time. */
std::vector<Piece> pieces_of(std::string_view file, std::size_t longest = CORVEL_LINE_SIZE - 1);

/** An unnamed file in memory, accessible through a path in /proc. */
class MemoryFile {
  public:
    MemoryFile();
    MemoryFile(const MemoryFile &) = delete;
    MemoryFile &operator=(const MemoryFile &) = delete;
    ~MemoryFile();

    void fill(std::string_view bytes) const;
    std::string content() const;
    int descriptor() const { return descriptor_; }
    const char *path() const { return path_.c_str(); }

  private:
    int descriptor_;
    std::string path_;
};

/** The path of a directory below TMPDIR for this process, removed when the process ends. */
const std::string &scratch_directory();

/** Reads a whole file; aborts on failure. */
std::string read_file(const std::string &path);

/** Writes a file; aborts on failure. */
void write_file(const std::string &path, std::string_view bytes);

/** Captures standard output, regardless of the function of the C library that writes it. */
void begin_capture();
std::string end_capture();

template <typename Print> std::string output_of(Print print) {
    begin_capture();
    print();
    return end_capture();
}

/** Makes standard input return these bytes. */
void feed_standard_input(std::string_view bytes);

/** Replaces the environment of the process by these entries ("NAME=value"). */
class Environment {
  public:
    explicit Environment(std::vector<std::string> entries);
    Environment(const Environment &) = delete;
    Environment &operator=(const Environment &) = delete;
    ~Environment();

  private:
    std::vector<std::string> entries_;
    std::vector<char *> pointers_;
    char **before_;
};

/** Fills the stack below the caller with this byte, and each block allocated from now on. */
void litter_memory(unsigned char byte);

/** Stops filling allocated blocks. */
void leave_memory_alone();

/** Runs a scenario twice, with uninitialised memory filled with zeros and with another byte. The
 *  result must not depend on the contents of uninitialised memory. */
template <typename Scenario> void in_different_surroundings(Scenario scenario) {
    litter_memory(0);
    const std::string between_zeros = scenario();
    litter_memory(0xA5);
    const std::string between_others = scenario();
    leave_memory_alone();
    check_equal(between_others, between_zeros, "the same result with other uninitialised memory");
}

} // namespace corvel_fuzz

#endif

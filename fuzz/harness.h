/* SPDX-License-Identifier: MIT */
/** What the fuzz targets share: cutting an input into texts, memory that shows a stray access,
 *  files and streams in memory, and checks that say what they saw. */
#ifndef CORVEL_FUZZ_HARNESS_H
#define CORVEL_FUZZ_HARNESS_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace corvel_fuzz {

/** Ends the run with the name of a relation that does not hold. */
[[noreturn]] void fail(const char *relation, const char *file, int line);

/** Ends the run with the name of the relation unless it holds. */
inline void check(bool holds, const char *relation, const char *file = __builtin_FILE(),
                  int line = __builtin_LINE()) {
    if (!holds)
        fail(relation, file, line);
}

/** Ends the run and shows both texts unless they are the same bytes. */
void check_equal(std::string_view got, std::string_view expected, const char *relation,
                 const char *file = __builtin_FILE(), int line = __builtin_LINE());

void check_equal(long long got, long long expected, const char *relation,
                 const char *file = __builtin_FILE(), int line = __builtin_LINE());

/** The input, handed out from its front. */
class Input {
  public:
    Input(const std::uint8_t *data, std::size_t size);

    /** The next byte; 0 when nothing is left. */
    unsigned char byte();

    /** The bytes up to the next NUL, which is dropped, with their runs spelt out. */
    std::string text();

    /** All that is left, NULs included, with its runs spelt out. */
    std::string rest();

  private:
    std::string_view left_;
};

/** How often a byte of the input repeats what it counts: 0 to 127, then up to 4096 in steps of 32.
 *  Brings the long texts in reach that the limits of the library are about. */
std::size_t run_length(unsigned char byte);

/** A heap block that ends with the text's terminator, so that one byte more is one too many. */
std::unique_ptr<char[]> exact_copy(std::string_view text);

/** A heap block of @p size bytes, at least one, that begins with the text and its terminator. */
std::unique_ptr<char[]> padded_copy(std::string_view text, std::size_t size);

/** A heap block of just @p size bytes, in which no text ends by chance. */
std::unique_ptr<char[]> unterminated_block(std::size_t size);

/** Such a block that begins with the text and its terminator. */
std::unique_ptr<char[]> block_to_append_to(std::string_view text, std::size_t size);

/** What stands in front of the first NUL. */
std::string_view as_text(std::string_view bytes);

/** A copy of the text without a double quote at its front and without one at its back. */
std::string without_quotes(std::string_view text);

/** The CRC-32, over a table that is made of the definition. */
std::uint32_t crc_of(std::string_view bytes);

/** A word as the file formats store it: most significant byte first. */
std::string word_of(std::uint32_t value);

/** At most the first @p size characters. */
std::string_view cut(std::string_view text, std::size_t size);

/** What atoi() documents: white space, a sign, digits; held to the range of an int. */
int decimal_value(std::string_view text);

/** What one read of a line yields. */
struct Piece {
    std::string text; /**< The line or piece of a line, its line end included. */
    bool at_end;      /**< The read met the end of the file. */
};

/** The reads that a reader of lines makes of a file, each of at most so many characters. */
std::vector<Piece> pieces_of(std::string_view file, std::size_t longest = 1023);

/** A file without a name that has a path all the same. */
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

/** A folder of this process's own below TMPDIR, removed when the process ends. */
const std::string &scratch_directory();

/** The whole of a file; ends the run if it can't be read. */
std::string read_file(const std::string &path);

/** Makes a file with this content; ends the run if it can't. */
void write_file(const std::string &path, std::string_view bytes);

/** Catches what is printed to standard output, by whatever function of the C library. */
void begin_capture();
std::string end_capture();

template <typename Print> std::string output_of(Print print) {
    begin_capture();
    print();
    return end_capture();
}

/** Makes standard input begin with these bytes. */
void feed_standard_input(std::string_view bytes);

/** Puts an environment of these entries ("NAME=value") in the place of the process's own. */
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

/** Leaves this byte all over the stack below the caller and in every block allocated from now on.
 */
void litter_memory(unsigned char byte);

/** Back to memory as the allocator hands it out. */
void leave_memory_alone();

/** Runs a scenario between zeros and again between other bytes. What it returns and what it checks
 *  must not depend on what lay in memory before. */
template <typename Scenario> void in_different_surroundings(Scenario scenario) {
    litter_memory(0);
    const std::string between_zeros = scenario();
    litter_memory(0xA5);
    const std::string between_others = scenario();
    leave_memory_alone();
    check_equal(between_others, between_zeros, "the same result in other surroundings");
}

} // namespace corvel_fuzz

#endif

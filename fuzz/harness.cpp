// SPDX-License-Identifier: MIT
#include "fuzz/harness.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sanitizer/allocator_interface.h>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>

/** Strict string checks find an unterminated string in any string function. The quarantine is small
 *  so that blocks stay in the cache; it is enough to find a use after free within one input. */
// NOLINTNEXTLINE(bugprone-reserved-identifier): the runtime calls it by this name
extern "C" const char *__asan_default_options() {
    return "strict_string_checks=1:quarantine_size_mb=16:malloc_context_size=8";
}

// NOLINTNEXTLINE(bugprone-reserved-identifier): the runtime calls it by this name
extern "C" const char *__ubsan_default_options() { return "print_stacktrace=1"; }

namespace corvel_fuzz {
namespace {

constexpr std::size_t longest_shown = 2000;
constexpr char run_mark = '\x1b';
constexpr std::size_t stack_reach = 96UL * 1024;
constexpr std::size_t largest_littered_block = 64UL * 1024;

// Read by the allocator's hook. If negative, blocks are not filled.
int litter = -1;

void show(const char *label, std::string_view text) {
    std::fprintf(stderr, "%s (%zu bytes): ", label, text.size());
    for (const char c : text.substr(0, longest_shown)) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte > 0x7e || byte == '\\')
            std::fprintf(stderr, "\\x%02x", byte);
        else
            std::fputc(byte, stderr);
    }
    std::fputs(text.size() > longest_shown ? "...\n" : "\n", stderr);
}

void require(bool done, const char *what) {
    if (done)
        return;
    std::perror(what);
    std::abort();
}

std::string spelt_out(std::string_view packed) {
    std::string text;
    for (std::size_t i = 0; i < packed.size(); ++i) {
        if (packed[i] == run_mark && i + 2 < packed.size()) {
            text.append(run_length(static_cast<unsigned char>(packed[i + 1])), packed[i + 2]);
            i += 2;
        } else {
            text += packed[i];
        }
    }
    return text;
}

void write_whole(int descriptor, std::string_view bytes) {
    require(ftruncate(descriptor, 0) == 0, "ftruncate");
    require(pwrite(descriptor, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()),
            "pwrite");
}

std::string read_whole(int descriptor) {
    const off_t size = lseek(descriptor, 0, SEEK_END);
    require(size >= 0, "lseek");
    std::string bytes(static_cast<std::size_t>(size), '\0');
    require(pread(descriptor, bytes.data(), bytes.size(), 0) == size, "pread");
    return bytes;
}

void litter_block(const volatile void *block, std::size_t size) {
    if (litter >= 0 && size <= largest_littered_block)
        std::memset(const_cast<void *>(block), litter, size);
}

void ignore_release(const volatile void *) {}

__attribute__((noinline)) void litter_stack(unsigned char byte) {
    std::array<char, stack_reach> dirt;
    std::memset(dirt.data(), byte, dirt.size());
    __asm__ volatile("" : : "r"(dirt.data()) : "memory"); // marks the bytes as used
}

/** The file that standard output refers to after the first capture. */
MemoryFile &captured() {
    static MemoryFile file;
    static const bool attached = [] {
        std::fflush(stdout);
        // Every write appends, regardless of the position left by an earlier capture.
        require(fcntl(file.descriptor(), F_SETFL, O_APPEND) == 0, "fcntl");
        return dup2(file.descriptor(), STDOUT_FILENO) == STDOUT_FILENO;
    }();
    require(attached, "dup2");
    return file;
}

bool is_white(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

} // namespace

void fail(const char *relation, const char *file, int line) {
    std::fprintf(stderr, "%s:%d: violated: %s\n", file, line, relation);
    std::abort();
}

void check_equal(std::string_view got, std::string_view expected, const char *relation,
                 const char *file, int line) {
    if (got == expected)
        return;
    show("expected", expected);
    show("got     ", got);
    fail(relation, file, line);
}

void check_equal(long long got, long long expected, const char *relation, const char *file,
                 int line) {
    if (got == expected)
        return;
    std::fprintf(stderr, "expected %lld, got %lld\n", expected, got);
    fail(relation, file, line);
}

Input::Input(const std::uint8_t *data, std::size_t size)
    : left_(reinterpret_cast<const char *>(data), size) {}

unsigned char Input::byte() {
    if (left_.empty())
        return 0;
    const auto first = static_cast<unsigned char>(left_.front());
    left_.remove_prefix(1);
    return first;
}

std::string Input::text() {
    const std::string_view packed = as_text(left_);
    left_.remove_prefix(std::min(packed.size() + 1, left_.size()));
    return std::string(as_text(spelt_out(packed)));
}

std::string Input::rest() { return spelt_out(std::exchange(left_, {})); }

std::size_t run_length(unsigned char byte) { return byte < 128 ? byte : (byte - 127U) * 32U; }

std::unique_ptr<char[]> exact_copy(std::string_view text) {
    return padded_copy(text, text.size() + 1);
}

std::unique_ptr<char[]> padded_copy(std::string_view text, std::size_t size) {
    auto copy = std::make_unique<char[]>(std::max(size, text.size() + 1));
    std::copy(text.begin(), text.end(), copy.get());
    return copy;
}

std::unique_ptr<char[]> unterminated_block(std::size_t size) {
    auto block = std::make_unique<char[]>(size);
    std::fill_n(block.get(), size, '#');
    return block;
}

std::unique_ptr<char[]> block_to_append_to(std::string_view text, std::size_t size) {
    auto block = unterminated_block(std::max(size, text.size() + 1));
    *std::copy(text.begin(), text.end(), block.get()) = '\0';
    return block;
}

std::string_view as_text(std::string_view bytes) { return bytes.substr(0, bytes.find('\0')); }

std::uint32_t crc_of(std::string_view bytes) {
    static const std::array<std::uint32_t, 256> table = [] {
        std::array<std::uint32_t, 256> remainders{};
        for (std::uint32_t i = 0; i < 256; ++i) {
            remainders[i] = i;
            for (int bit = 0; bit < 8; ++bit)
                remainders[i] = (remainders[i] & 1) != 0 ? (remainders[i] >> 1) ^ 0xEDB88320
                                                         : remainders[i] >> 1;
        }
        return remainders;
    }();
    std::uint32_t crc = 0xFFFFFFFF;
    for (const char c : bytes)
        crc = table[(crc ^ static_cast<unsigned char>(c)) & 0xFF] ^ (crc >> 8);
    return crc ^ 0xFFFFFFFF;
}

std::string word_of(std::uint32_t value) {
    return {static_cast<char>(value >> 24), static_cast<char>(value >> 16),
            static_cast<char>(value >> 8), static_cast<char>(value)};
}

std::string hexadecimal(std::string_view bytes, std::string_view separator) {
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string text;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        text += text.empty() ? "" : separator;
        text += {digits[byte / 16], digits[byte % 16]};
    }
    return text;
}

std::string lower_case(std::string text) {
    for (char &c : text)
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
    return text;
}

std::string stripped_mac(std::string_view mac) {
    std::string text;
    for (std::size_t i = 0; i < CORVEL_MAC_SIZE - 1 && i < mac.size(); ++i) {
        const bool lower = mac[i] >= 'a' && mac[i] <= 'z';
        if (i % 3 != 2)
            text += lower ? static_cast<char>(mac[i] - 'a' + 'A') : mac[i];
    }
    return text;
}

std::string dotted_quad(std::string_view address) {
    std::string text;
    for (const char c : address)
        text += (text.empty() ? "" : ".") + std::to_string(static_cast<unsigned char>(c));
    return text;
}

std::string without_quotes(std::string_view text) {
    if (text.size() == 1)
        return std::string(text == "\"" ? "" : text);
    if (text.starts_with('"'))
        text.remove_prefix(1);
    if (text.ends_with('"'))
        text.remove_suffix(1);
    return std::string(text);
}

std::string_view cut(std::string_view text, std::size_t size) { return text.substr(0, size); }

int decimal_value(std::string_view text) {
    while (!text.empty() && is_white(text.front()))
        text.remove_prefix(1);
    const bool negative = text.starts_with('-');
    if (negative || text.starts_with('+'))
        text.remove_prefix(1);
    long long value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9')
            break;
        value = std::min<long long>(value * 10 + (c - '0'), INT_MAX + 1LL);
    }
    return static_cast<int>(negative ? -value : std::min<long long>(value, INT_MAX));
}

std::vector<Piece> pieces_of(std::string_view file, std::size_t longest) {
    std::vector<Piece> pieces;
    while (!file.empty()) {
        const std::string_view window = cut(file, longest);
        const std::size_t line_end = window.find('\n');
        const std::size_t size = line_end == std::string_view::npos ? window.size() : line_end + 1;
        // A read that returns a complete line before the end of the file does not detect the end.
        const bool at_end = line_end == std::string_view::npos && size < longest;
        pieces.push_back({std::string(window.substr(0, size)), at_end});
        file.remove_prefix(size);
    }
    return pieces;
}

MemoryFile::MemoryFile()
    : descriptor_(memfd_create("corvel-fuzz", 0)),
      path_("/proc/self/fd/" + std::to_string(descriptor_)) {
    require(descriptor_ >= 0, "memfd_create");
}

MemoryFile::~MemoryFile() { close(descriptor_); }

void MemoryFile::fill(std::string_view bytes) const { write_whole(descriptor_, bytes); }

std::string MemoryFile::content() const { return read_whole(descriptor_); }

const std::string &scratch_directory() {
    struct Directory {
        std::string path = (std::filesystem::temp_directory_path() / "corvel-fuzz-XXXXXX").string();
        Directory() { require(mkdtemp(path.data()) != nullptr, "mkdtemp"); }
        Directory(const Directory &) = delete;
        Directory &operator=(const Directory &) = delete;
        ~Directory() {
            std::error_code ignored;
            std::filesystem::remove_all(path, ignored);
        }
    };
    static const Directory directory;
    return directory.path;
}

std::string read_file(const std::string &path) {
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    require(descriptor >= 0, path.c_str());
    std::string bytes = read_whole(descriptor);
    close(descriptor);
    return bytes;
}

void write_file(const std::string &path, std::string_view bytes) {
    const int descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    require(descriptor >= 0, path.c_str());
    write_whole(descriptor, bytes);
    close(descriptor);
}

void begin_capture() {
    const MemoryFile &file = captured();
    std::fflush(stdout);
    require(ftruncate(file.descriptor(), 0) == 0, "ftruncate");
}

std::string end_capture() {
    require(std::fflush(stdout) == 0, "fflush");
    return captured().content();
}

void feed_standard_input(std::string_view bytes) {
    static const MemoryFile file;
    file.fill(bytes);
    require(std::freopen(file.path(), "r", stdin) != nullptr, "freopen");
}

Environment::Environment(std::vector<std::string> entries)
    : entries_(std::move(entries)), before_(environ) {
    for (std::string &entry : entries_)
        pointers_.push_back(entry.data());
    pointers_.push_back(nullptr);
    environ = pointers_.data();
}

Environment::~Environment() { environ = before_; }

void litter_memory(unsigned char byte) {
    static const int hooked =
        __sanitizer_install_malloc_and_free_hooks(litter_block, ignore_release);
    require(hooked > 0, "no room for another allocation hook");
    litter_stack(byte);
    litter = byte;
}

void leave_memory_alone() { litter = -1; }

} // namespace corvel_fuzz

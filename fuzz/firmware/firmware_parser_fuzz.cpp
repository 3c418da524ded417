// SPDX-License-Identifier: MIT
// Upgrade images against a second parser, on positions of a string in 64 bits. Valid images are
// accepted; an image with a changed byte is not, unless its last section is no longer a version
// section, so that it has no CRC.
//
// Input: a byte (flags) value of "bootparam" NUL, then sections: a byte (kind) a byte (flags) a
// byte (padding, or a number added to the length) payload NUL; a kind of zero ends them; then
// triples of bytes: which byte of the image to change (two bytes), and how.
#include "corvel.h"
#include "firmware/environment_format.h"
#include "firmware/image_format.h"
#include "fuzz/fixed_file.h"
#include "fuzz/harness.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <syslog.h>

namespace {

using namespace corvel_fuzz;

using corvel::at_burnaddr;
using corvel::at_len;
using corvel::at_mtd_id;
using corvel::at_pad;
using corvel::crc_size;
using corvel::header_size;

constexpr std::size_t most_records = CORVEL_IMAGE_RECORDS;
constexpr std::size_t most_sections = 7;
constexpr std::size_t largest_payload = 0x11000;
constexpr std::size_t large_image = 4096;
constexpr int most_changes = 24;

// Flags of an input.
constexpr unsigned char no_variable = 0x01;
constexpr unsigned char bad_environment = 0x02;
constexpr unsigned char bad_image = 0x04;
constexpr unsigned char no_version = 0x08;

// Flags of a section.
constexpr unsigned char unchecked = 0x01;
constexpr unsigned char bad_sum = 0x02;
constexpr unsigned char odd_length = 0x04;
constexpr unsigned char huge_padding = 0x08;
constexpr unsigned char huge_length = 0x10;

struct Row {
    const char *signature;
    const char *name;
    bool stripped;
    std::uint32_t max_size;
    std::uint32_t mtd_id;
};

/** The partitions, independently of the library's table. */
constexpr std::array<Row, CORVEL_PARTITIONS> rows = {{
    {"boot", "Boot", true, 256 * 1024, 0},
    {"benv", "Boot-env", true, 64 * 1024, 1},
    {"root", "Rootfs", true, 6464 * 1024, 2},
    {"kern", "Linux_kernel", true, 1024 * 1024, 3},
    {"rfs1", "Rootfs-1", true, 6464 * 1024, 4},
    {"knl1", "Linux_kernel-1", true, 1024 * 1024, 5},
    {"log0", "Log", true, 960 * 1024, 6},
    {"conf", "Config", false, 64 * 1024, 7},
    {"artp", "ART", true, 64 * 1024, 8},
    {"Ver0", "Ver0", false, 92, CORVEL_NOT_WRITTEN},
}};

struct Record {
    std::string name;
    std::string device;
    std::uint64_t start;
    std::uint64_t size;
    std::uint32_t burn_address;
    std::uint32_t mtd_id;
    std::uint32_t base_mtd_id;
};

struct Parsed {
    int result = CORVEL_IMAGE_ACCEPTED;
    std::vector<Record> records{};
    std::string log{};
    bool whole_log = true; /**< `log` is complete. */
};

struct Boot {
    std::string environment;
    bool loads;
    std::string value;
};

// The system log, as the library sees it.
std::string logged;

std::string format(const char *text, ...) __attribute__((__format__(__printf__, 1, 2)));

__attribute__((__format__(__printf__, 1, 0))) std::string format_list(const char *text,
                                                                      va_list values) {
    std::array<char, 2048> line{};
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): va_start() goes unseen
    std::vsnprintf(line.data(), line.size(), text, values);
    return line.data();
}

std::string format(const char *text, ...) {
    va_list values;
    va_start(values, text);
    std::string line = format_list(text, values);
    va_end(values);
    return line;
}

std::string log_line(int priority, const std::string &text) {
    return std::to_string(priority) + " " + text + "|";
}

// ------------------------------------------------------------------------------------ the model

std::uint32_t word_at(const std::string &bytes, std::uint64_t place) {
    std::uint32_t value = 0;
    for (std::uint64_t i = place; i < place + 4; ++i)
        value = value << 8 | static_cast<unsigned char>(bytes[i]);
    return value;
}

const Row *row_of(const std::string &image, std::uint64_t place) {
    for (const Row &row : rows)
        if (image.compare(place, 4, row.signature) == 0)
            return &row;
    return nullptr;
}

/** The distance to the idle set's partitions. Logs the running set. */
std::uint32_t shift_of(const Boot &boot, std::string &log, int &running) {
    if (!boot.loads)
        return 0;
    const int set = decimal_value(boot.value) % 2;
    if (set < 0)
        return 0;
    running = set;
    log += log_line(LOG_INFO, format("bootparam=%d\n", set));
    return set == 0 ? 2 : 0;
}

int sum_of(const std::string &image, std::uint64_t place, std::uint64_t length) {
    int sum = 0;
    for (std::uint64_t i = place; i < std::min<std::uint64_t>(place + length, image.size()); ++i)
        sum += static_cast<unsigned char>(image[i]);
    return sum % 256;
}

/** Parses the section at a position. Returns its result code. */
int parse_section(const std::string &image, std::uint64_t place, std::uint32_t shift,
                  Parsed &parsed) {
    const std::uint32_t burn_address = word_at(image, place + at_burnaddr);
    const std::uint32_t mtd_id = word_at(image, place + at_mtd_id);
    const std::uint32_t pad = word_at(image, place + at_pad);
    const std::uint32_t len = word_at(image, place + at_len);
    const std::uint64_t left = image.size() - place - header_size;
    if (len > left + 4) {
        parsed.log +=
            log_line(LOG_ERR, format("Header.len is wrong, headlen(%d) >%d-%d-%d=%d\n",
                                     static_cast<int>(len), static_cast<int>(image.size()),
                                     static_cast<int>(place), static_cast<int>(header_size), 1));
        return CORVEL_IMAGE_SECTION_PAST_END;
    }
    const Row *const row = row_of(image, place);
    if (row == nullptr)
        return CORVEL_IMAGE_ACCEPTED;
    parsed.log += log_line(LOG_INFO, format("find firmware (%s)\n", row->name));
    const std::uint64_t payload = place + header_size;
    const std::uint32_t size = row->stripped ? len - 1 - pad : len + header_size;
    if (mtd_id != CORVEL_NOT_WRITTEN && sum_of(image, payload, len) != 0) {
        parsed.log += log_line(LOG_ERR, format("%s image checksum error at %X!\n", row->signature,
                                               static_cast<unsigned int>(payload)));
        return CORVEL_IMAGE_BAD_CHECKSUM;
    }
    if (mtd_id != CORVEL_NOT_WRITTEN && size > row->max_size) {
        parsed.log += log_line(
            LOG_INFO, format("Header.signature = %s,  burnaddr=0x%02x, mtd_id = 0x%04x, pad = "
                             "0x%04x,  len = 0x%04x\n",
                             row->signature, burn_address, mtd_id, pad, len));
        parsed.log += log_line(
            LOG_ERR, format("%s image size(%X) > %X!\n", row->signature, size, row->max_size));
        return CORVEL_IMAGE_SECTION_TOO_LARGE;
    }
    const bool in_set = row->mtd_id == 2 || row->mtd_id == 3;
    const std::uint32_t target = row->mtd_id + (in_set ? shift : 0);
    const std::uint64_t start = row->stripped ? payload : place;
    parsed.records.push_back({std::string("/tmp/firmware/") + row->name + ".bin",
                              "/dev/mtdblock" + std::to_string(target), start, size,
                              row->mtd_id == 0 ? burn_address : 0, target, row->mtd_id});
    return parsed.records.size() == most_records ? CORVEL_IMAGE_TOO_MANY_SECTIONS
                                                 : CORVEL_IMAGE_ACCEPTED;
}

void log_records(Parsed &parsed, std::uint64_t image_size) {
    parsed.log += log_line(LOG_INFO, "Web firmware upgrade start...");
    for (const Record &record : parsed.records) {
        const std::uint64_t size = std::min(record.size, image_size - record.start);
        parsed.log += log_line(LOG_INFO, "name= " + record.name);
        parsed.log += log_line(LOG_INFO, format("burnAddr= 0x%04x", record.burn_address));
        parsed.log += log_line(LOG_INFO, format("len= %d", static_cast<int>(size)));
        parsed.log += log_line(LOG_INFO, format("mtd_ids= %d\n", static_cast<int>(record.mtd_id)));
        parsed.log += log_line(LOG_INFO, "mtdev= " + record.device);
    }
}

/** Compares the CRC at the end of a version section. */
int check_stored_crc(const std::string &image, const Record &version, Parsed &parsed) {
    const std::uint64_t end = version.start + version.size;
    const std::uint32_t computed =
        crc_of(std::string_view(image).substr(0, image.size() - crc_size));
    if (end > image.size()) {
        // The image does not contain all its bytes: it cannot match.
        parsed.whole_log = false;
        return CORVEL_IMAGE_BAD_CRC;
    }
    const std::uint32_t stored = word_at(image, end - crc_size);
    if (computed == stored)
        return CORVEL_IMAGE_ACCEPTED;
    parsed.log +=
        log_line(LOG_ERR, format("Warning - bad CRC, crc=0x%04x, crc0=0x%04x\n", computed, stored));
    return CORVEL_IMAGE_BAD_CRC;
}

Parsed expected_of(const std::string &image, const Boot &boot, int &running) {
    Parsed parsed;
    const std::uint32_t shift = shift_of(boot, parsed.log, running);
    for (std::uint64_t place = 0; place + header_size < image.size();) {
        parsed.result = parse_section(image, place, shift, parsed);
        if (parsed.result != CORVEL_IMAGE_ACCEPTED)
            return parsed;
        place += header_size + word_at(image, place + at_len);
    }
    log_records(parsed, image.size());
    if (parsed.records.empty())
        parsed.result = CORVEL_IMAGE_BAD_CRC;
    else if (parsed.records.back().mtd_id == CORVEL_NOT_WRITTEN)
        parsed.result = check_stored_crc(image, parsed.records.back(), parsed);
    return parsed;
}

// --------------------------------------------------------------------------------------- checks

void check_record(const img_info &record, const Record &expected, const std::string &image,
                  const unsigned char *block) {
    check_equal(record.name, expected.name, "name of a record");
    check_equal(record.mtdev, expected.device, "device of a record");
    check_equal(record.burnAddr, expected.burn_address, "flash address of a record");
    check_equal(record.mtd_ids, expected.mtd_id, "device index of a record");
    check_equal(record.base_mtd_id, expected.base_mtd_id, "index of a record without the shift");
    check_equal(record.data - block, static_cast<long long>(expected.start), "offset of a record");
    check(record.data + record.len <= block + image.size(), "no record extends outside the image");
    check_equal(record.len,
                static_cast<long long>(std::min(expected.size, image.size() - expected.start)),
                "length of a record");
}

/** Returns whether the image is accepted and has a checksum. */
bool check_image(const std::string &image, const Boot &boot) {
    int running = 0;
    const Parsed expected = expected_of(image, boot, running);
    const std::unique_ptr<unsigned char[]> block(new unsigned char[image.size()]);
    std::copy(image.begin(), image.end(), block.get());
    std::array<img_info, most_records> records{};
    int result = -7;
    bootparam = CORVEL_SET_A;
    logged.clear();
    const int count = parse_firmware(block.get(), static_cast<unsigned int>(image.size()),
                                     records.data(), &result);
    check_equal(result, expected.result, "result of an image");
    check_equal(count,
                result == CORVEL_IMAGE_ACCEPTED ? static_cast<long long>(expected.records.size())
                                                : 0,
                "count of records");
    check_equal(expected.whole_log ? std::string_view(logged) : cut(logged, expected.log.size()),
                expected.log, "system log");
    check_equal(bootparam, running, "the running set");
    for (std::size_t i = 0; i < expected.records.size(); ++i)
        check_record(records[i], expected.records[i], image, block.get());
    check_equal({reinterpret_cast<const char *>(block.get()), image.size()}, image,
                "the image is unchanged");
    return result == CORVEL_IMAGE_ACCEPTED && expected.records.back().mtd_id == CORVEL_NOT_WRITTEN;
}

/** A changed byte is detected if there is a CRC. */
void check_changes(const std::string &image, const Boot &boot, bool checked, Input &input) {
    const int most = image.size() > large_image ? 2 : most_changes;
    for (int i = 0; i < most; ++i) {
        const std::size_t high = input.byte();
        const std::size_t low = input.byte();
        const unsigned char how = input.byte();
        if (how == 0)
            break;
        std::string changed = image;
        const std::size_t place = (high * 256 + low) % image.size();
        changed[place] = static_cast<char>(changed[place] ^ how);
        const bool accepted = check_image(changed, boot);
        check(!(checked && accepted), "a changed byte changes the CRC");
    }
}

// ---------------------------------------------------------------------------------------- input

std::string section_of(const Row &row, std::uint32_t mtd_id, std::uint32_t pad, std::uint32_t len,
                       const std::string &payload) {
    return row.signature + word_of(0x9F000000) + word_of(mtd_id) + word_of(pad) + word_of(len) +
           payload;
}

/** The payload, its padding and the byte that makes their sum zero. */
std::string summed(std::string payload, std::size_t pad) {
    payload.append(pad, static_cast<char>(pad));
    const int sum = sum_of(payload, 0, payload.size());
    return payload + static_cast<char>(256 - sum);
}

std::string read_section(unsigned char kind, Input &input) {
    static constexpr Row unknown = {"zzzz", "", true, 0, 0};
    const Row &row = kind <= rows.size() ? rows[kind - 1U] : unknown;
    const unsigned char flags = input.byte();
    const unsigned char number = input.byte();
    std::string payload(cut(input.text(), largest_payload));
    const std::uint32_t pad = (flags & huge_padding) != 0 ? 0xFFFFFF00U + number : number;
    payload = summed(payload, (flags & huge_padding) != 0 ? 0 : pad);
    if ((flags & bad_sum) != 0)
        payload.back() = static_cast<char>(payload.back() + 1);
    std::uint32_t len = static_cast<std::uint32_t>(payload.size());
    if ((flags & odd_length) != 0)
        len += number;
    if ((flags & huge_length) != 0)
        len = 0xFFFFFFFFU - number;
    return section_of(row, (flags & unchecked) != 0 ? CORVEL_NOT_WRITTEN : row.mtd_id, pad, len,
                      payload);
}

/** Appends a version section with the CRC. */
std::string version_section(const std::string &sections, const std::string &text) {
    const std::string section =
        sections + section_of(rows.back(), CORVEL_NOT_WRITTEN, 0,
                              static_cast<std::uint32_t>(text.size() + crc_size), text);
    return section + word_of(crc_of(section));
}

Boot boot_of(unsigned char flags, const std::string &value) {
    std::string data = (flags & no_variable) != 0 ? "other=1" : "bootparam=" + value;
    // A variable that fills the environment has no terminator and is not found.
    const bool is_found = (flags & no_variable) == 0 && data.size() < corvel::environment_data_size;
    data.resize(corvel::environment_data_size);
    const std::uint32_t crc = crc_of(data);
    const bool good = (flags & bad_environment) == 0;
    return {word_of(good ? crc : crc + 1) + data, good && is_found, value};
}

/** Valid images with any payloads are accepted. */
void check_built_image(const std::string &payload, const Boot &boot, Input changes) {
    std::string image;
    for (const std::size_t row : {0U, 2U, 3U}) {
        const std::string content = summed(std::string(cut(payload, large_image)), row);
        image += section_of(rows[row], rows[row].mtd_id, static_cast<std::uint32_t>(row),
                            static_cast<std::uint32_t>(content.size()), content);
    }
    image = version_section(image, "1.0");
    check(check_image(image, boot), "a valid image is accepted");
    check_changes(image, boot, true, changes);
    image.pop_back();
    check(!check_image(image, boot), "a truncated image is not accepted");
}

} // namespace

extern "C" {

void syslog(int pri, const char *fmt, ...) {
    va_list values;
    va_start(values, fmt);
    logged += log_line(pri, format_list(fmt, values));
    va_end(values);
}

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static FixedFile file("/dev/mtdblock1");
    Input input(data, size);
    const unsigned char flags = input.byte();
    const Boot boot = boot_of(flags, input.text());
    file.fill(boot.environment);
    std::string image;
    std::size_t sections = 0;
    for (unsigned char kind = input.byte();
         kind != 0 && sections < most_sections && image.size() < largest_payload; ++sections) {
        image += read_section(kind, input);
        kind = input.byte();
    }
    const std::string payload = image;
    if ((flags & no_version) == 0)
        image = version_section(image, "version");
    if ((flags & bad_image) != 0 && !image.empty())
        image.back() = static_cast<char>(image.back() + 1);
    begin_capture(); // a bad environment is reported on standard output
    const bool checked = check_image(image, boot);
    if (!image.empty()) {
        Input changes = input;
        check_changes(image, boot, checked, changes);
    }
    const std::size_t most_cut_off = image.size() > large_image ? 2 : 2 * header_size + 1;
    for (std::size_t cut_off = 1; cut_off <= std::min(most_cut_off, image.size()); ++cut_off)
        check_image(image.substr(0, image.size() - cut_off), boot);
    check_built_image(payload, boot, input);
    static_cast<void>(end_capture());
    return 0;
}

} // extern "C"

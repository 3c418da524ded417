/* SPDX-License-Identifier: MIT */
/**
 * A builder of upgrade images, and a model of the parser, independent of the library except for the
 * offsets of the header's fields.
 *
 *     UpgradeImage image;
 *     image.add(Section{.signature = "root", .data = "files"});
 *     image.add_version("1.2.3");
 *     EXPECT_EQ(parse_firmware(image.bytes(), ...), 2);
 *     EXPECT_EQ(records, expected_of(image.bytes(), 2).records);
 */
#ifndef CORVEL_TESTS_UPGRADE_IMAGE_H
#define CORVEL_TESTS_UPGRADE_IMAGE_H

#include "firmware/image_format.h"
#include "tests/firmware/reference_crc.h"

#include <corvel.h>

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <syslog.h>
#include <utility>
#include <vector>

namespace corvel_test {

using corvel::at_burnaddr;
using corvel::at_len;
using corvel::at_mtd_id;
using corvel::at_pad;
using corvel::at_signature;
using corvel::crc_size;
using corvel::header_size;

/** A section of any header and any payload. */
inline std::string raw_section(std::string_view signature, std::uint32_t burnaddr,
                               std::uint32_t mtd_id, std::uint32_t pad, std::uint32_t len,
                               std::string_view payload) {
    return std::string(signature) + stored(burnaddr) + stored(mtd_id) + stored(pad) + stored(len) +
           std::string(payload);
}

/** The byte that makes the sum of a payload's bytes 0, modulo 256. */
inline char checksum_byte(std::string_view bytes) {
    unsigned int sum = 0;
    for (const char byte : bytes)
        sum += static_cast<unsigned char>(byte);
    return static_cast<char>(0x100 - sum % 0x100);
}

/** A good section: partition data, padding, checksum byte. */
struct Section {
    std::string signature;
    std::string data;
    std::uint32_t burnaddr = 0;
    std::uint32_t mtd_id = 0;
    std::string padding = {};

    [[nodiscard]] std::string bytes() const {
        std::string payload = data + padding;
        payload += checksum_byte(payload);
        return raw_section(signature, burnaddr, mtd_id, static_cast<std::uint32_t>(padding.size()),
                           static_cast<std::uint32_t>(payload.size()), payload);
    }
};

/** An image with its CRC in its last four bytes. */
inline std::string with_crc(std::string_view bytes) {
    const std::string covered(bytes.substr(0, bytes.size() - crc_size));
    return covered + stored(reference_crc(covered));
}

/** The version section; zeros at its end are the place of the image's CRC. */
inline std::string version_section(const std::string &text = "1.2.3") {
    return raw_section("Ver0", 0, CORVEL_NOT_WRITTEN, 0,
                       static_cast<std::uint32_t>(text.size() + crc_size),
                       text + std::string(crc_size, '\0'));
}

/** Sections end to end, followed by a version section with the CRC. */
inline std::string upgrade_image(const std::vector<Section> &sections,
                                 const std::string &version = "1.2.3") {
    std::string image;
    for (const Section &section : sections)
        image += section.bytes();
    return with_crc(image + version_section(version));
}

/** One line of the system log. */
struct LogLine {
    int priority;
    std::string text;
};

[[gnu::format(printf, 2, 3)]] inline LogLine log_line(int priority, const char *format, ...) {
    char text[512];
    va_list values;
    va_start(values, format);
    std::vsnprintf(text, sizeof text, format, values);
    va_end(values);
    return {priority, text};
}

/** What is to be written to flash: `length` bytes at `offset` in the image. */
struct Record {
    std::string name;
    std::uint64_t offset;
    std::uint64_t length;
    std::uint32_t burnaddr;
    std::uint32_t device;
    std::string path;
    std::uint32_t base;
    bool operator==(const Record &) const = default;
};

inline std::ostream &operator<<(std::ostream &out, const Record &record) {
    return out << record.name << " at " << record.offset << ", " << record.length << " bytes, burn "
               << record.burnaddr << ", to " << record.path << " (" << record.device << ", base "
               << record.base << ")";
}

/** What parse_firmware() stores and logs for an image. */
struct Expected {
    int code = CORVEL_IMAGE_ACCEPTED;
    std::vector<Record> records; /**< The records filled, also on failure. */
    std::vector<LogLine> log;
};

struct Partition {
    const char *signature;
    const char *name;
    bool strips_header;
    std::uint32_t max_size;
    std::uint32_t device;
};

inline constexpr Partition partitions[] = {
    {"boot", "Boot", true, 0x40000, 0},      {"benv", "Boot-env", true, 0x10000, 1},
    {"root", "Rootfs", true, 0x650000, 2},   {"kern", "Linux_kernel", true, 0x100000, 3},
    {"rfs1", "Rootfs-1", true, 0x650000, 4}, {"knl1", "Linux_kernel-1", true, 0x100000, 5},
    {"log0", "Log", true, 0xF0000, 6},       {"conf", "Config", false, 0x10000, 7},
    {"artp", "ART", true, 0x10000, 8},       {"Ver0", "Ver0", false, 0x5C, CORVEL_NOT_WRITTEN},
};

inline const Partition *partition_of(std::string_view signature) {
    for (const Partition &partition : partitions)
        if (signature == partition.signature)
            return &partition;
    return nullptr;
}

/** A model of the parser, which reads the image byte by byte; bytes after its end have no value. */
class ParserModel {
  public:
    ParserModel(std::string_view image, std::uint32_t shift) : image_(image), shift_(shift) {}

    Expected expected() {
        walk();
        if (expected_.code == CORVEL_IMAGE_ACCEPTED)
            finish();
        return expected_;
    }

  private:
    [[nodiscard]] std::optional<unsigned char> byte(std::uint64_t at) const {
        if (at >= image_.size())
            return std::nullopt;
        return static_cast<unsigned char>(image_[static_cast<std::size_t>(at)]);
    }

    [[nodiscard]] std::optional<std::uint32_t> word(std::uint64_t at) const {
        std::uint32_t value = 0;
        for (std::uint64_t i = at; i < at + 4; ++i) {
            if (!byte(i))
                return std::nullopt;
            value = value * 256 + *byte(i);
        }
        return value;
    }

    void log(LogLine line) { expected_.log.push_back(std::move(line)); }

    bool fail(int code) {
        expected_.code = code;
        return false;
    }

    void walk() {
        std::uint64_t offset = 0;
        while (offset + header_size < image_.size() && section(offset))
            offset += header_size + *word(offset + at_len);
    }

    /** Returns whether parsing continues after this section. */
    bool section(std::uint64_t offset) {
        const std::uint32_t len = *word(offset + at_len);
        const std::uint64_t left = image_.size() - offset - header_size;
        if (len > left + 4) {
            log(log_line(LOG_ERR, "Header.len is wrong, headlen(%d) >%d-%d-%d=%d\n",
                         static_cast<int>(len), static_cast<int>(image_.size()),
                         static_cast<int>(offset), 20, len > left ? 1 : 0));
            return fail(CORVEL_IMAGE_SECTION_PAST_END);
        }
        const Partition *const partition =
            partition_of(image_.substr(static_cast<std::size_t>(offset), 4));
        return partition == nullptr || recognised(offset, *partition);
    }

    bool recognised(std::uint64_t offset, const Partition &partition) {
        const std::uint32_t burnaddr = *word(offset + at_burnaddr);
        const std::uint32_t mtd_id = *word(offset + at_mtd_id);
        const std::uint32_t pad = *word(offset + at_pad);
        const std::uint32_t len = *word(offset + at_len);
        const std::uint32_t size = partition.strips_header ? len - 1 - pad : len + 20;
        log(log_line(LOG_INFO, "find firmware (%s)\n", partition.name));
        if (mtd_id != CORVEL_NOT_WRITTEN) {
            unsigned int sum = 0;
            for (std::uint64_t i = 0; i < len; ++i)
                sum += byte(offset + header_size + i).value_or(0);
            if (sum % 256 != 0) {
                log(log_line(LOG_ERR, "%s image checksum error at %X!\n", partition.signature,
                             static_cast<unsigned int>(offset + header_size)));
                return fail(CORVEL_IMAGE_BAD_CHECKSUM);
            }
            if (size > partition.max_size) {
                log(log_line(LOG_INFO,
                             "Header.signature = %s,  burnaddr=0x%02x, mtd_id = 0x%04x, "
                             "pad = 0x%04x,  len = 0x%04x\n",
                             partition.signature, burnaddr, mtd_id, pad, len));
                log(log_line(LOG_ERR, "%s image size(%X) > %X!\n", partition.signature, size,
                             partition.max_size));
                return fail(CORVEL_IMAGE_SECTION_TOO_LARGE);
            }
        }
        const std::uint64_t start = partition.strips_header ? offset + header_size : offset;
        const std::uint64_t available = image_.size() - start;
        const bool shifted = partition.device == 2 || partition.device == 3;
        const std::uint32_t device = partition.device + (shifted ? shift_ : 0);
        expected_.records.push_back({std::string("/tmp/firmware/") + partition.name + ".bin", start,
                                     size < available ? size : available,
                                     partition.device == 0 ? burnaddr : 0, device,
                                     "/dev/mtdblock" + std::to_string(device), partition.device});
        end_of_last_ = start + size;
        return expected_.records.size() < CORVEL_IMAGE_RECORDS ||
               fail(CORVEL_IMAGE_TOO_MANY_SECTIONS);
    }

    void finish() {
        log(log_line(LOG_INFO, "Web firmware upgrade start..."));
        for (const Record &record : expected_.records) {
            log(log_line(LOG_INFO, "name= %s", record.name.c_str()));
            log(log_line(LOG_INFO, "burnAddr= 0x%04x", record.burnaddr));
            log(log_line(LOG_INFO, "len= %d", static_cast<int>(record.length)));
            log(log_line(LOG_INFO, "mtd_ids= %d\n", static_cast<int>(record.device)));
            log(log_line(LOG_INFO, "mtdev= %s", record.path.c_str()));
        }
        if (expected_.records.empty())
            fail(CORVEL_IMAGE_BAD_CRC);
        else if (expected_.records.back().device == CORVEL_NOT_WRITTEN)
            check_crc();
    }

    void check_crc() {
        const std::optional<std::uint32_t> stored_crc = word(end_of_last_ - 4);
        const std::uint32_t computed = reference_crc(image_.substr(0, image_.size() - 4));
        if (stored_crc == computed)
            return;
        fail(CORVEL_IMAGE_BAD_CRC);
        if (stored_crc)
            log(log_line(LOG_ERR, "Warning - bad CRC, crc=0x%04x, crc0=0x%04x\n", computed,
                         *stored_crc));
        else
            log(log_line(LOG_ERR, "Warning - bad CRC, crc=0x%04x, crc0=", computed));
    }

    std::string_view image_;
    std::uint32_t shift_;
    std::uint64_t end_of_last_ = 0;
    Expected expected_;
};

inline Expected expected_of(std::string_view image, std::uint32_t shift) {
    return ParserModel(image, shift).expected();
}

} // namespace corvel_test

#endif

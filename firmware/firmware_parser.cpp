// SPDX-License-Identifier: MIT
#include "firmware/firmware_parser.h"

#include <fcntl.h>
#include <syslog.h>

#include "firmware/boot_parameter.h"
#include "firmware/crc32.h"
#include "firmware/image_format.h"
#include "support/big_endian.h"
#include "support/descriptor.h"
#include "support/handles.h"
#include "support/text.h"

namespace corvel {
namespace {

using Bytes = std::span<const unsigned char>;

/// The first `length` bytes of a block, or all if there are fewer.
Bytes first_bytes(Bytes block, std::uint64_t length) {
    return length < block.size() ? block.first(static_cast<std::size_t>(length)) : block;
}

/// The part of a section that is written to flash: `size` as the header states it, and `bytes`, as
/// much of it as the image contains.
struct Content {
    std::uint64_t size;
    Bytes bytes;
};

Content content_of(Bytes section, const SectionHeader &header, const sign_tbl_entry &row) {
    const std::uint64_t size = written_size(header.len, header.pad, row);
    return {size, first_bytes(is_stripped(row) ? section.subspan(header_size) : section, size)};
}

/// Checks a section's sum and size.
int check_section(Bytes section, std::uint64_t offset, const SectionHeader &header,
                  const sign_tbl_entry &row, std::uint64_t size) {
    if (sum_of(first_bytes(section.subspan(header_size), header.len)) != 0) {
        syslog(LOG_ERR, "%s image checksum error at %X!\n", row.signature,
               static_cast<unsigned int>(offset + header_size));
        return CORVEL_IMAGE_BAD_CHECKSUM;
    }
    if (row.max_size < size) {
        syslog(LOG_INFO,
               "Header.signature = %s,  burnaddr=0x%02x, mtd_id = 0x%04x, pad = 0x%04x,  "
               "len = 0x%04x\n",
               row.signature, header.burnaddr, header.mtd_id, header.pad, header.len);
        syslog(LOG_ERR, "%s image size(%X) > %X!\n", row.signature, static_cast<unsigned int>(size),
               row.max_size);
        return CORVEL_IMAGE_SECTION_TOO_LARGE;
    }
    return CORVEL_IMAGE_ACCEPTED;
}

void fill_record(img_info &record, const SectionHeader &header, const sign_tbl_entry &row,
                 Bytes bytes, std::uint32_t shift) {
    std::snprintf(record.name, sizeof record.name, "/tmp/firmware/%s.bin", row.name);
    record.data = bytes.data();
    record.len = static_cast<std::uint32_t>(bytes.size());
    record.burnAddr = row.mtd_id == 0 ? header.burnaddr : 0;
    record.base_mtd_id = row.mtd_id;
    record.mtd_ids = is_in_set_a(row) ? row.mtd_id + shift : row.mtd_id;
    std::snprintf(record.mtdev, sizeof record.mtdev, "/dev/mtdblock%d",
                  static_cast<int>(record.mtd_ids));
}

/// The sections with a known signature.
struct Recognised {
    int count = 0;
    bool last_is_whole = true; ///< the image contains all bytes of the last one
};

static_assert(CORVEL_IMAGE_MAX_SECTIONS + 1 == CORVEL_IMAGE_RECORDS);

/// Goes through the sections of an image and fills a record for each one with a known signature.
/// There are up to CORVEL_IMAGE_RECORDS records: the last one ends the parsing.
int walk_sections(Bytes image, std::uint32_t shift, img_info *records, Recognised &recognised) {
    std::uint64_t offset = 0; // the end of a section can exceed 32 bits
    while (offset + header_size < image.size()) {
        const Bytes section = image.subspan(static_cast<std::size_t>(offset));
        const SectionHeader header = read_header(section.first<header_size>());
        if (section.size() - header_size + length_margin < header.len) {
            syslog(LOG_ERR, "Header.len is wrong, headlen(%d) >%d-%d-%d=%d\n",
                   static_cast<int>(header.len), static_cast<int>(image.size()),
                   static_cast<int>(offset), static_cast<int>(header_size),
                   section.size() - header_size < header.len ? 1 : 0);
            return CORVEL_IMAGE_SECTION_PAST_END;
        }
        const sign_tbl_entry *const row = find_partition(header.signature);
        if (row != nullptr) {
            syslog(LOG_INFO, "find firmware (%s)\n", row->name);
            const Content content = content_of(section, header, *row);
            const int checked = is_checked(header.mtd_id)
                                    ? check_section(section, offset, header, *row, content.size)
                                    : CORVEL_IMAGE_ACCEPTED;
            if (checked != CORVEL_IMAGE_ACCEPTED)
                return checked;
            fill_record(records[recognised.count], header, *row, content.bytes, shift);
            recognised.last_is_whole = content.bytes.size() == content.size;
            if (++recognised.count > CORVEL_IMAGE_MAX_SECTIONS)
                return CORVEL_IMAGE_TOO_MANY_SECTIONS;
        }
        offset += header_size + header.len;
    }
    return CORVEL_IMAGE_ACCEPTED;
}

void log_records(std::span<const img_info> records) {
    syslog(LOG_INFO, "Web firmware upgrade start...");
    for (const img_info &record : records) {
        syslog(LOG_INFO, "name= %s", record.name);
        syslog(LOG_INFO, "burnAddr= 0x%04x", record.burnAddr);
        syslog(LOG_INFO, "len= %d", static_cast<int>(record.len));
        syslog(LOG_INFO, "mtd_ids= %d\n", static_cast<int>(record.mtd_ids));
        syslog(LOG_INFO, "mtdev= %s", record.mtdev);
    }
}

/// Checks the CRC at the end of a version section. An image whose last record is of another section
/// has no CRC and is accepted. A CRC that is not completely within the image is never correct.
int check_crc(Bytes image, const img_info &last, bool last_is_whole) {
    if (last.mtd_ids != CORVEL_NOT_WRITTEN)
        return CORVEL_IMAGE_ACCEPTED;
    const std::uint32_t stored = big_endian_word(Bytes(last.data, last.len).last<crc_size>());
    const std::uint32_t computed = crc32_of(image.first(image.size() - crc_size));
    if (computed == stored && last_is_whole)
        return CORVEL_IMAGE_ACCEPTED;
    syslog(LOG_ERR, "Warning - bad CRC, crc=0x%04x, crc0=0x%04x\n", computed, stored);
    return CORVEL_IMAGE_BAD_CRC;
}

bool write_to_flash(const char *path, const void *bytes, off_t offset, std::size_t length) {
    ssize_t written = -1;
    {
        const Descriptor device(open(text_or_empty(path), O_RDWR | O_CLOEXEC));
        if (!device)
            return false;
        lseek(device.get(), offset, SEEK_SET);
        written = write(device.get(), bytes, length);
    }
    sync();
    return written >= 0 && static_cast<std::size_t>(written) == length;
}

} // namespace

int parse_image(Bytes image, std::uint32_t shift, img_info *records, int &count) {
    Recognised recognised;
    const int walked = walk_sections(image, shift, records, recognised);
    count = recognised.count;
    if (walked != CORVEL_IMAGE_ACCEPTED)
        return walked;
    log_records({records, size_from(count)});
    // An image without a known section has not been checked at all.
    if (count == 0)
        return CORVEL_IMAGE_BAD_CRC;
    return check_crc(image, records[count - 1], recognised.last_is_whole);
}

} // namespace corvel

extern "C" {

using namespace corvel;

int parse_firmware(const unsigned char *image, unsigned int total, img_info *records, int *result) {
    int count = 0;
    // Only the low byte of the shift counts.
    const std::uint32_t shift = load_boot_parameter() & 0xFF;
    *result = parse_image({image, total}, shift, records, count);
    return *result == CORVEL_IMAGE_ACCEPTED ? count : 0;
}

int dump_img_info(int count, const img_info *records) {
    log_records({records, size_from(count)});
    return 0;
}

int flash_write(const char *path, const void *buf, int offset, unsigned int len) {
    return write_to_flash(path, buf, offset, len) ? 1 : 0;
}

int file_copy(const char *src, const char *dst) {
    const Stream source(std::fopen(text_or_empty(src), "rbe"));
    if (!source)
        return -1;
    const Stream destination(std::fopen(text_or_empty(dst), "wbe"));
    if (!destination)
        return -1;
    for (int byte = std::getc(source.get()); byte != EOF; byte = std::getc(source.get()))
        std::putc(byte, destination.get());
    return 0;
}

} // extern "C"

// SPDX-License-Identifier: MIT
#include "tools/image_inspection.h"

#include <algorithm>
#include <syslog.h>

#include "support/big_endian.h"
#include "tools/image_layout.h"
#include "tools/silent_output.h"
#include "tools/text_format.h"

namespace corvel::tools {
namespace {

using Image = std::span<const unsigned char>;

/// A section may announce this many payload bytes more than there are.
constexpr std::size_t length_margin = 4;

/// An image of nothing but zeros is a chain of hundreds of thousands of them.
constexpr std::size_t most_unknown_listed = 4;

/// From set A's partitions to set B's.
constexpr std::uint32_t distance_of_sets = 2;

/// What the library says.
struct Verdict {
    int result;
    std::vector<img_info> records;
};

/// Without an environment of a device's own, which a workstation has not, the records hold the
/// devices of a device that runs set B. Neither the system log nor standard output gets anything.
Verdict ask_library(Image image) {
    const int log_mask = setlogmask(LOG_MASK(LOG_EMERG));
    std::vector<img_info> records(most_sections + 1);
    int result = 0;
    int count = 0;
    {
        const SilentOutput silent;
        count = parse_firmware(image.data(), static_cast<unsigned int>(image.size()),
                               records.data(), &result);
    }
    setlogmask(log_mask);
    records.resize(static_cast<std::size_t>(count));
    return {result, std::move(records)};
}

/// Why the library refuses an image, by its result.
enum Result : int {
    accepted = 0,
    section_past_end = 1,
    bad_checksum = 2,
    section_too_large = 3,
    too_many_sections = 4,
    bad_crc = 5,
};

std::string bytes_text(std::size_t count) {
    return format("%zu byte%s", count, count == 1 ? "" : "s");
}

/// Goes from section to section as the library does, in order to say where and why it stops.
class Walk {
  public:
    explicit Walk(Image image) : image_(image) {}

    Inspection inspect() {
        while (result_ == accepted && offset_ + header_size < image_.size())
            take_section();
        if (result_ == accepted)
            check_end();
        compare(ask_library(image_));
        if (found_.fault.empty())
            warn();
        return std::move(found_);
    }

  private:
    void refuse(Result result, std::string fault) {
        result_ = result;
        found_.fault = std::move(fault);
    }

    void take_section() {
        ImageSection section = read_header();
        const std::size_t held = image_.size() - offset_ - header_size;
        if (held + length_margin < section.length)
            refuse(section_past_end,
                   name_of(section) +
                       format(": len: at most %zu is expected, since %s follow%s the header; "
                              "found %u",
                              held + length_margin, bytes_text(held).c_str(), held == 1 ? "s" : "",
                              section.length));
        else if (section.partition != nullptr)
            recognise(section);
        list(section);
        offset_ += header_size + section.length;
    }

    ImageSection read_header() {
        const Image header = image_.subspan(offset_, header_size);
        const std::uint32_t row = get_tbl_id(header.data());
        ImageSection section{};
        section.number = ++count_;
        section.offset = offset_;
        section.signature = printable(header.first(4));
        section.burn_address = big_endian_word(header.subspan<4, 4>());
        section.mtd_id = big_endian_word(header.subspan<8, 4>());
        section.padding = big_endian_word(header.subspan<12, 4>());
        section.length = big_endian_word(header.subspan<16, 4>());
        section.partition = row < sign_tbl.size() ? &sign_tbl[row] : nullptr;
        section.checksum = ImageSection::Checksum::none;
        return section;
    }

    void list(const ImageSection &section) {
        if (section.partition == nullptr && ++unknown_ > most_unknown_listed)
            ++found_.unlisted;
        else
            found_.sections.push_back(section);
    }

    void recognise(ImageSection &section) {
        const Image payload = payload_of(section);
        if (section.mtd_id != no_partition)
            check_payload(section, payload);
        if (result_ == accepted && ++recognised_ > most_sections)
            refuse(too_many_sections,
                   name_of(section) + format(": number of known sections: at most %zu are "
                                             "expected, the version included; found %zu",
                                             most_sections, recognised_));
        last_ = section;
        if (is_version(*section.partition))
            found_.version = printable(payload.first(
                payload.size() > crc_size ? payload.size() - crc_size : std::size_t{0}));
    }

    /// What of a payload the image holds.
    [[nodiscard]] Image payload_of(const ImageSection &section) const {
        const Image rest = image_.subspan(section.offset + header_size);
        return rest.first(std::min<std::size_t>(rest.size(), section.length));
    }

    void check_payload(ImageSection &section, Image payload) {
        const unsigned char sum = sum_of(payload);
        section.checksum = sum == 0 ? ImageSection::Checksum::good : ImageSection::Checksum::bad;
        const std::uint32_t size = size_of_content(section);
        const std::uint32_t most = section.partition->max_size;
        if (sum != 0)
            refuse(bad_checksum,
                   name_of(section) + format(": payload checksum: the sum of the %s from offset "
                                             "0x%zx on is expected to be 0 (modulo 256); found "
                                             "0x%02x",
                                             bytes_text(payload.size()).c_str(),
                                             section.offset + header_size, sum));
        else if (size > most && padding_is_too_long(section))
            refuse(section_too_large,
                   name_of(section) + format(": pad: less than len, %u, is expected; found %u",
                                             section.length, section.padding));
        else if (size > most)
            refuse(section_too_large,
                   name_of(section) + format(": size: at most %u (0x%x) bytes are expected, the "
                                             "size of partition %s; found %u (0x%x)",
                                             most, most, section.partition->name, size, size));
    }

    /// Modulo 2^32, as on the device.
    static std::uint32_t size_of_content(const ImageSection &section) {
        return section.partition->strip_header != 0
                   ? section.length - 1 - section.padding
                   : section.length + static_cast<std::uint32_t>(header_size);
    }

    static bool padding_is_too_long(const ImageSection &section) {
        return section.partition->strip_header != 0 && section.padding >= section.length;
    }

    static std::string name_of(const ImageSection &section) {
        return format("section %zu (%s) at offset 0x%zx", section.number, section.signature.c_str(),
                      section.offset);
    }

    void check_end() {
        if (!last_)
            refuse(bad_crc, count_ == 0
                                ? format("sections: at least one is expected, of more than %zu "
                                         "bytes; found an image of %s",
                                         header_size, bytes_text(image_.size()).c_str())
                                : format("sections: at least one with a known signature is "
                                         "expected; found none among %zu",
                                         count_));
        else if (is_version(*last_->partition))
            check_crc();
    }

    /// The stored CRC is the end of the version section, the computed one is of all but the
    /// image's last four bytes: they fit only where the two ends are one.
    void check_crc() {
        const std::size_t end = last_->offset + header_size + last_->length;
        if (end > image_.size()) {
            refuse(bad_crc, name_of(*last_) +
                                format(": len: %zu is expected, so that the CRC ends where the "
                                       "image does; found %u",
                                       image_.size() - last_->offset - header_size, last_->length));
            return;
        }
        const std::size_t place = end - crc_size;
        const std::uint32_t stored = big_endian_word(image_.subspan(place).first<crc_size>());
        const std::uint32_t computed =
            crc32(image_.data(), static_cast<int>(image_.size() - crc_size));
        found_.crc = stored;
        if (stored != computed)
            refuse(bad_crc, name_of(*last_) +
                                format(": CRC at offset 0x%zx: 0x%08x is expected, the CRC-32 of "
                                       "the first %zu bytes; found 0x%08x",
                                       place, computed, image_.size() - crc_size, stored));
    }

    /// The library has the last word; the walk only explains it.
    void compare(const Verdict &verdict) {
        if (verdict.result != result_) {
            found_.fault =
                format("the library's result is %d, and this program's %d%s%s", verdict.result,
                       result_, found_.fault.empty() ? "" : ": ", found_.fault.c_str());
            return;
        }
        auto record = verdict.records.begin();
        for (ImageSection &section : found_.sections)
            if (section.partition != nullptr && record != verdict.records.end())
                section.target = *record++;
    }

    void warn() {
        for (const ImageSection &section : found_.sections)
            if (section.partition != nullptr)
                warn_about(section);
        if (unknown_ != 0)
            add_warning(format("%zu section%s with an unknown signature %s skipped", unknown_,
                               unknown_ == 1 ? "" : "s", unknown_ == 1 ? "is" : "are"));
        if (!is_version(*last_->partition))
            add_warning("the last known section is no version section: the image carries no CRC");
        if (offset_ < image_.size())
            add_warning(bytes_text(image_.size() - offset_) +
                        " behind the last section belong to none");
        for (const ImageSection &section : found_.sections)
            warn_about_same_device(section);
    }

    void add_warning(std::string warning) { found_.warnings.push_back(std::move(warning)); }

    void warn_about(const ImageSection &section) {
        const std::string name = name_of(section);
        const std::size_t held = payload_of(section).size();
        if (held < section.length)
            add_warning(name + ": " + bytes_text(section.length - held) +
                        " of its payload are missing");
        if (is_version(*section.partition))
            return;
        if (section.checksum == ImageSection::Checksum::none)
            add_warning(name + ": mtd_id 255: neither checksum nor size are checked");
        if (section.target->len > section.partition->max_size)
            add_warning(name + format(": writes %u bytes, and partition %s holds %u",
                                      section.target->len, section.partition->name,
                                      section.partition->max_size));
        if (padding_is_too_long(section))
            add_warning(
                name + format(": pad %u is not less than len %u", section.padding, section.length));
    }

    void warn_about_same_device(const ImageSection &section) {
        for (const ImageSection &other : found_.sections) {
            if (&other == &section)
                return;
            if (!writes(section) || !writes(other))
                continue;
            const bool while_a_runs =
                device_while_a_runs(*section.target) == device_while_a_runs(*other.target);
            const bool while_b_runs =
                device_while_b_runs(*section.target) == device_while_b_runs(*other.target);
            if (while_a_runs || while_b_runs)
                add_warning(name_of(section) +
                            format(": writes the same partition as section %zu%s", other.number,
                                   while_b_runs ? "" : " while set A runs"));
        }
    }

    static bool writes(const ImageSection &section) {
        return section.target && !is_version(*section.partition);
    }

    Image image_;
    Inspection found_;
    Result result_ = accepted;
    std::size_t offset_ = 0;
    std::size_t count_ = 0;
    std::size_t unknown_ = 0;
    std::size_t recognised_ = 0;
    std::optional<ImageSection> last_; ///< the last one with a known signature
};

/// The sections "root" and "kern", alone, go to whichever set is idle.
bool goes_to_the_idle_set(const img_info &record) {
    constexpr std::uint32_t root_file_system = 2;
    constexpr std::uint32_t kernel = 3;
    return record.base_mtd_id == root_file_system || record.base_mtd_id == kernel;
}

} // namespace

Inspection inspect_image(Image image) { return Walk(image).inspect(); }

std::uint32_t device_while_a_runs(const img_info &record) {
    return record.base_mtd_id + (goes_to_the_idle_set(record) ? distance_of_sets : 0);
}

std::uint32_t device_while_b_runs(const img_info &record) { return record.base_mtd_id; }

} // namespace corvel::tools

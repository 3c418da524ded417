// SPDX-License-Identifier: MIT
#include "tools/image_inspection.h"

#include <algorithm>
#include <syslog.h>

#include "firmware/boot_parameter.h"
#include "firmware/firmware_parser.h"
#include "firmware/image_format.h"
#include "support/big_endian.h"
#include "tools/image_layout.h"
#include "tools/text_format.h"
#include "tools/upload_check.h"

namespace corvel::tools {
namespace {

using Image = std::span<const unsigned char>;

/// Limits the list: an image of zeros is a chain of hundreds of thousands of unknown sections.
constexpr std::size_t most_unknown_listed = 4;

struct SetDevices {
    std::uint32_t root;
    std::uint32_t kernel;
};

constexpr SetDevices devices_of(corvel_boot_set set) {
    return set == CORVEL_SET_A
               ? SetDevices{sign_tbl[root_a_row].mtd_id, sign_tbl[kernel_a_row].mtd_id}
               : SetDevices{sign_tbl[root_b_row].mtd_id, sign_tbl[kernel_b_row].mtd_id};
}

constexpr std::uint32_t boot_loader_device = sign_tbl[boot_loader_row].mtd_id;
constexpr std::uint32_t boot_environment_device = sign_tbl[boot_environment_row].mtd_id;

/// The running sets for which a statement is true.
struct RunningSets {
    bool a;
    bool b;
};

/// The library's result for an image.
struct Verdict {
    int result;
    std::vector<img_info> records;
};

/// Parses an image with the library as on a device that runs this set. Nothing is logged.
Verdict ask_library(Image image, corvel_boot_set running) {
    const int log_mask = setlogmask(LOG_MASK(LOG_EMERG));
    std::vector<img_info> records(CORVEL_IMAGE_RECORDS);
    int count = 0;
    const int result = parse_image(image, bootparam_mtd_shift[running], records.data(), count);
    setlogmask(log_mask);
    records.resize(static_cast<std::size_t>(count));
    return {result, std::move(records)};
}

/// Visits the sections in the same way as the library, to find where and why it stops.
class Walk {
  public:
    explicit Walk(Image image) : image_(image) {}

    Inspection inspect() {
        while (result_ == CORVEL_IMAGE_ACCEPTED && offset_ + header_size < image_.size())
            take_section();
        if (result_ == CORVEL_IMAGE_ACCEPTED)
            check_end();
        compare(ask_library(image_, CORVEL_SET_A), ask_library(image_, CORVEL_SET_B));
        count_bytes_after_image();
        if (found_.fault.empty())
            warn();
        return std::move(found_);
    }

  private:
    void refuse(corvel_image_result result, std::string fault) {
        result_ = result;
        found_.fault = std::move(fault);
    }

    void take_section() {
        ImageSection section = read_section();
        const std::size_t held = image_.size() - offset_ - header_size;
        if (held + length_margin < section.length)
            refuse(CORVEL_IMAGE_SECTION_PAST_END,
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

    ImageSection read_section() {
        const SectionHeader header = read_header(image_.subspan(offset_).first<header_size>());
        ImageSection section{};
        section.number = ++count_;
        section.offset = offset_;
        section.signature.assign(static_cast<const char *>(header.signature),
                                 CORVEL_SIGNATURE_SIZE);
        section.burn_address = header.burnaddr;
        section.mtd_id = header.mtd_id;
        section.padding = header.pad;
        section.length = header.len;
        section.partition = find_partition(header.signature);
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
        if (is_checked(section.mtd_id))
            check_payload(section, payload);
        if (result_ == CORVEL_IMAGE_ACCEPTED && ++recognised_ > CORVEL_IMAGE_MAX_SECTIONS)
            refuse(CORVEL_IMAGE_TOO_MANY_SECTIONS,
                   name_of(section) + format(": number of known sections: at most %d are "
                                             "expected, including the version; found %zu",
                                             CORVEL_IMAGE_MAX_SECTIONS, recognised_));
        last_ = section;
        if (!is_version(*section.partition))
            return;
        look_for_the_end(section);
        const Image text =
            payload.first(payload.size() > crc_size ? payload.size() - crc_size : std::size_t{0});
        found_.version = std::string(text.begin(), text.end());
    }

    /// A version section ends the image if its CRC is that of all preceding bytes. A device refuses
    /// an image that is followed by any bytes.
    void look_for_the_end(const ImageSection &version) {
        const std::size_t end = version.offset + header_size + version.length;
        if (end > image_.size())
            return;
        const Image covered = image_.first(end - crc_size);
        if (big_endian_word(image_.subspan(covered.size()).first<crc_size>()) ==
            crc32(covered.data(), static_cast<int>(covered.size())))
            end_of_image_ = end;
    }

    /// The part of a payload that the image contains.
    [[nodiscard]] Image payload_of(const ImageSection &section) const {
        const Image rest = image_.subspan(section.offset + header_size);
        return rest.first(std::min<std::size_t>(rest.size(), section.length));
    }

    void check_payload(ImageSection &section, Image payload) {
        const unsigned char sum = sum_of(payload);
        section.checksum = sum == 0 ? ImageSection::Checksum::good : ImageSection::Checksum::bad;
        const auto size = static_cast<std::uint32_t>(
            written_size(section.length, section.padding, *section.partition));
        const std::uint32_t most = section.partition->max_size;
        if (sum != 0)
            refuse(CORVEL_IMAGE_BAD_CHECKSUM,
                   name_of(section) + format(": payload checksum: the sum of the %s from offset "
                                             "0x%zx is expected to be 0 (modulo 256); found "
                                             "0x%02x",
                                             bytes_text(payload.size()).c_str(),
                                             section.offset + header_size, sum));
        else if (size > most && padding_is_too_long(section))
            refuse(CORVEL_IMAGE_SECTION_TOO_LARGE,
                   name_of(section) + format(": pad: less than len, %u, is expected; found %u",
                                             section.length, section.padding));
        else if (size > most)
            refuse(CORVEL_IMAGE_SECTION_TOO_LARGE,
                   name_of(section) + format(": size: at most %u (0x%x) bytes are expected, the "
                                             "size of partition %s; found %u (0x%x)",
                                             most, most, section.partition->name, size, size));
    }

    static bool padding_is_too_long(const ImageSection &section) {
        return is_stripped(*section.partition) && section.padding >= section.length;
    }

    static std::string name_of(const ImageSection &section) {
        return format("section %zu (%s) at offset 0x%zx", section.number,
                      printable(section.signature).c_str(), section.offset);
    }

    void check_end() {
        if (!last_)
            refuse(CORVEL_IMAGE_BAD_CRC,
                   count_ == 0 ? format("sections: at least one is expected, of more than %zu "
                                        "bytes; found an image of %s",
                                        header_size, bytes_text(image_.size()).c_str())
                               : format("sections: at least one with a known signature is "
                                        "expected; found none among %zu",
                                        count_));
        else if (is_version(*last_->partition))
            check_crc();
    }

    /// The stored CRC is at the end of the version section; the computed one covers all but the
    /// last four bytes of the image. They can only match if the section ends at the end of the
    /// image.
    void check_crc() {
        const std::size_t end = last_->offset + header_size + last_->length;
        if (end > image_.size()) {
            refuse(CORVEL_IMAGE_BAD_CRC,
                   name_of(*last_) +
                       format(": len: %zu is expected, so that the CRC ends at the end "
                              "of the image; found %u",
                              image_.size() - last_->offset - header_size, last_->length));
            return;
        }
        const std::size_t place = end - crc_size;
        const std::uint32_t stored = big_endian_word(image_.subspan(place).first<crc_size>());
        const std::uint32_t computed =
            crc32(image_.data(), static_cast<int>(image_.size() - crc_size));
        found_.crc = stored;
        if (stored != computed)
            refuse(CORVEL_IMAGE_BAD_CRC,
                   name_of(*last_) +
                       format(": CRC at offset 0x%zx: 0x%08x is expected, the CRC-32 of "
                              "the first %zu bytes; found 0x%08x",
                              place, computed, image_.size() - crc_size, stored));
    }

    /// Compares with the library's result, which is authoritative.
    void compare(const Verdict &while_a_runs, const Verdict &while_b_runs) {
        if (while_a_runs.result != result_ || while_b_runs.result != result_) {
            found_.fault =
                format("the library's result is %d, and this program's %d%s%s", while_a_runs.result,
                       result_, found_.fault.empty() ? "" : ": ", found_.fault.c_str());
            return;
        }
        if (result_ != CORVEL_IMAGE_ACCEPTED)
            return;
        std::size_t index = 0;
        for (ImageSection &section : found_.sections) {
            if (section.partition == nullptr)
                continue;
            const img_info &record = while_a_runs.records[index];
            if (!is_version(*section.partition))
                section.target = {record.len, record.burnAddr, record.mtd_ids,
                                  while_b_runs.records[index].mtd_ids};
            ++index;
        }
    }

    void count_bytes_after_image() {
        const bool refused = !found_.fault.empty();
        if (refused && !end_of_image_)
            return;
        const std::size_t end = refused ? *end_of_image_ : offset_;
        if (end >= image_.size())
            return;
        const std::size_t count = image_.size() - end;
        found_.bytes_after_image = count;
        if (refused)
            found_.fault += format("; a whole image ends at offset 0x%zx, and %s follow%s it", end,
                                   bytes_text(count).c_str(), count == 1 ? "s" : "");
    }

    void warn() {
        for (const ImageSection &section : found_.sections)
            if (section.partition != nullptr)
                warn_about(section);
        if (unknown_ != 0)
            warn_about_image("unknown-section",
                             format("%zu section%s with an unknown signature %s skipped", unknown_,
                                    unknown_ == 1 ? "" : "s", unknown_ == 1 ? "is" : "are"));
        if (!is_version(*last_->partition))
            warn_about_image("no-crc", "the last known section is not a version section: no CRC");
        if (found_.bytes_after_image != 0)
            warn_about_image("bytes-after-image",
                             format("%s after the last section belong%s to no section",
                                    bytes_text(found_.bytes_after_image).c_str(),
                                    found_.bytes_after_image == 1 ? "s" : ""));
        for (const ImageSection &section : found_.sections)
            warn_about_same_device(section);
        warn_about_boot();
        warn_about_upload();
    }

    void warn_about_image(std::string_view kind, std::string message) {
        found_.warnings.push_back({kind, 0, std::move(message)});
    }

    void warn_about_section(std::string_view kind, const ImageSection &section,
                            const std::string &message) {
        found_.warnings.push_back({kind, section.number, name_of(section) + ": " + message});
    }

    void warn_about(const ImageSection &section) {
        const std::size_t held = payload_of(section).size();
        if (held < section.length)
            warn_about_section("missing-bytes", section,
                               bytes_text(section.length - held) + " missing from the payload");
        if (is_version(*section.partition))
            return;
        if (section.checksum == ImageSection::Checksum::none)
            warn_about_section(
                "unchecked", section,
                format("mtd_id %d: neither checksum nor size is checked", CORVEL_NOT_WRITTEN));
        if (section.target->size > section.partition->max_size)
            warn_about_section("too-large", section,
                               format("writes %u bytes, and partition %s holds %u",
                                      section.target->size, section.partition->name,
                                      section.partition->max_size));
        if (section.target->size == 0)
            warn_about_section("empty", section, "writes nothing: the content is empty");
        if (padding_is_too_long(section))
            warn_about_section(
                "padding", section,
                format("pad %u is not less than len %u", section.padding, section.length));
    }

    void warn_about_same_device(const ImageSection &section) {
        for (const ImageSection &other : found_.sections) {
            if (&other == &section)
                return;
            if (!section.target || !other.target)
                continue;
            warn_while("same-partition", section,
                       format("writes the same partition as section %zu", other.number),
                       {device(section, CORVEL_SET_A) == device(other, CORVEL_SET_A),
                        device(section, CORVEL_SET_B) == device(other, CORVEL_SET_B)});
        }
    }

    static std::uint32_t device(const ImageSection &section, corvel_boot_set running) {
        return running == CORVEL_SET_A ? section.target->device_while_a_runs
                                       : section.target->device_while_b_runs;
    }

    /// Completes a message that is true while set A runs, while set B runs, or in both cases.
    static std::string condition(RunningSets running) {
        if (running.a && running.b)
            return "";
        return running.a ? " while set A runs" : " while set B runs";
    }

    /// After an upgrade the other set boots, even if nothing was written to it.
    void warn_about_boot() {
        for (const ImageSection &section : found_.sections)
            if (section.target)
                warn_about_boot(section);
        const RunningSets running{writes_nothing_of(CORVEL_SET_B, CORVEL_SET_A),
                                  writes_nothing_of(CORVEL_SET_A, CORVEL_SET_B)};
        if (!running.a && !running.b)
            return;
        const std::string message =
            "no root file system and no kernel for the set that boots after the upgrade" +
            condition(running);
        if (recognised_ == 1 && is_version(*last_->partition))
            warn_about_section("idle-set-not-written", *last_,
                               "only a version section: " + message);
        else
            warn_about_image("idle-set-not-written", message);
    }

    void warn_about_boot(const ImageSection &section) {
        const std::uint32_t target = device(section, CORVEL_SET_A);
        if (target == boot_loader_device)
            warn_about_section("boot-loader", section,
                               "writes the boot loader, of which a device has only one");
        if (target == boot_environment_device)
            warn_about_section("boot-environment", section,
                               "writes the boot environment, which selects the set that boots; "
                               "save_bootparam() then overwrites it");
        warn_while("running-set", section, "writes the running set",
                   {is_in(CORVEL_SET_A, section, CORVEL_SET_A),
                    is_in(CORVEL_SET_B, section, CORVEL_SET_B)});
        warn_while("root-without-kernel", section, "no kernel for the same set",
                   {is_alone(section, &SetDevices::root, &SetDevices::kernel, CORVEL_SET_A),
                    is_alone(section, &SetDevices::root, &SetDevices::kernel, CORVEL_SET_B)});
        warn_while("kernel-without-root", section, "no root file system for the same set",
                   {is_alone(section, &SetDevices::kernel, &SetDevices::root, CORVEL_SET_A),
                    is_alone(section, &SetDevices::kernel, &SetDevices::root, CORVEL_SET_B)});
    }

    void warn_while(std::string_view kind, const ImageSection &section, const std::string &message,
                    RunningSets running) {
        if (running.a || running.b)
            warn_about_section(kind, section, message + condition(running));
    }

    static bool is_in(corvel_boot_set set, const ImageSection &section, corvel_boot_set running) {
        const SetDevices devices = devices_of(set);
        const std::uint32_t target = device(section, running);
        return target == devices.root || target == devices.kernel;
    }

    /// Whether this section writes one part of a set and no section writes the other part.
    [[nodiscard]] bool is_alone(const ImageSection &section, std::uint32_t SetDevices::*part,
                                std::uint32_t SetDevices::*other_part,
                                corvel_boot_set running) const {
        for (const corvel_boot_set set : {CORVEL_SET_A, CORVEL_SET_B})
            if (devices_of(set).*part == device(section, running))
                return !writes(devices_of(set).*other_part, running);
        return false;
    }

    [[nodiscard]] bool writes(std::uint32_t wanted, corvel_boot_set running) const {
        return std::ranges::any_of(found_.sections, [=](const ImageSection &section) {
            return section.target && section.target->size != 0 &&
                   device(section, running) == wanted;
        });
    }

    [[nodiscard]] bool writes_nothing_of(corvel_boot_set set, corvel_boot_set running) const {
        return !writes(devices_of(set).root, running) && !writes(devices_of(set).kernel, running);
    }

    void warn_about_upload() {
        if (image_.size() > image_size_limit - upload_framing_size)
            warn_about_image("upload-size",
                             format("%zu bytes leave less than %zu of the %zu bytes of an upload "
                                    "for its headers",
                                    image_.size(), upload_framing_size, image_size_limit));
        const UploadResult upload = try_upload(image_);
        if (upload.stored == image_.size())
            return;
        const std::string loss =
            format(": a device that receives the image as an upload stores only its last %s",
                   bytes_text(upload.stored).c_str());
        for (const MistakenHeader &header : upload.headers) {
            const std::string message = format("\"%s\" at offset 0x%zx is mistaken for a header",
                                               std::string(header.name).c_str(), header.offset);
            const ImageSection *const section = section_at(header.offset);
            if (section != nullptr)
                warn_about_section("upload-header", *section, message + loss);
            else
                warn_about_image("upload-header", message + loss);
        }
        if (upload.headers.empty())
            warn_about_image("upload-header", "the image is truncated" + loss);
    }

    /// The listed section that contains an offset, or null.
    [[nodiscard]] const ImageSection *section_at(std::size_t offset) const {
        for (const ImageSection &section : found_.sections)
            if (section.offset <= offset && offset - section.offset < header_size + section.length)
                return &section;
        return nullptr;
    }

    Image image_;
    Inspection found_;
    corvel_image_result result_ = CORVEL_IMAGE_ACCEPTED;
    std::size_t offset_ = 0;
    std::size_t count_ = 0;
    std::size_t unknown_ = 0;
    std::size_t recognised_ = 0;
    std::optional<ImageSection> last_; ///< the last one with a known signature
    std::optional<std::size_t> end_of_image_;
};

} // namespace

Inspection inspect_image(Image image) { return Walk(image).inspect(); }

} // namespace corvel::tools

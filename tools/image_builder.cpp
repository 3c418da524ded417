// SPDX-License-Identifier: MIT
#include "tools/image_builder.h"

#include <corvel.h>

#include <cinttypes>
#include <filesystem>

#include "firmware/image_format.h"
#include "support/big_endian.h"
#include "tools/failure.h"
#include "tools/image_layout.h"
#include "tools/text_format.h"

namespace corvel::tools {
namespace {

class Builder {
  public:
    explicit Builder(const Manifest &manifest) : manifest_(manifest), sources_{manifest.identity} {}

    BuiltImage build() {
        check_sections();
        for (const ManifestSection &section : manifest_.sections)
            append(section);
        append_word(crc32(image_.data(), static_cast<int>(image_.size())));
        return {std::move(image_), std::move(sources_)};
    }

  private:
    [[noreturn]] void refuse(const ManifestSection &section, const std::string &message) const {
        throw Failure(bad_content,
                      place_in(manifest_, section) + section.partition->name + ": " + message);
    }

    void check_sections() const {
        const std::vector<ManifestSection> &sections = manifest_.sections;
        if (sections.size() > CORVEL_IMAGE_MAX_SECTIONS)
            refuse(sections[CORVEL_IMAGE_MAX_SECTIONS],
                   format("section %d: a device accepts at most %d sections, including the version",
                          CORVEL_IMAGE_MAX_SECTIONS + 1, CORVEL_IMAGE_MAX_SECTIONS));
        for (const ManifestSection &section : sections)
            check_section(section);
        if (!is_version(*sections.back().partition))
            refuse(sections.back(), "the last section must be [Ver0], which contains the CRC");
        if (sections.size() == 1)
            refuse(sections.back(), "nothing to write: no section for a partition");
    }

    void check_section(const ManifestSection &section) const {
        for (const ManifestSection *other = manifest_.sections.data(); other != &section; ++other)
            if (other->partition == section.partition)
                refuse(section, format("already in line %zu", other->line));
        const bool version = is_version(*section.partition);
        if (section.text && !version)
            refuse(section, "only a version section may have a text; use a file");
        if (section.file && section.text)
            refuse(section, "has both a file and a text");
        if (!section.file && !section.text)
            refuse(section, version ? "has neither a text nor a file" : "has no file");
        if (version && section.mtd_id && is_checked(*section.mtd_id))
            refuse(section, format("mtd-id must be %d: a version section has no checksum",
                                   CORVEL_NOT_WRITTEN));
    }

    void append(const ManifestSection &section) {
        const Bytes content = content_of(section);
        const std::size_t padding = section.padding.value_or(0);
        const std::size_t length = content.size() + padding + trailer_size(*section.partition);
        check_size(section, length);

        append_header(section, static_cast<std::uint32_t>(length));
        image_.insert(image_.end(), content.begin(), content.end());
        image_.resize(image_.size() + padding);
        if (!is_version(*section.partition))
            image_.push_back(checksum_of(content));
    }

    [[nodiscard]] Bytes content_of(const ManifestSection &section) {
        if (section.text)
            return {section.text->begin(), section.text->end()};
        const std::filesystem::path directory = std::filesystem::path(manifest_.path).parent_path();
        File file = read_file((directory / *section.file).string(), image_size_limit);
        if (file.content.empty())
            refuse(section, printable(*section.file) + " is empty");
        if (file.content.size() > image_size_limit)
            refuse(section,
                   printable(*section.file) +
                       format(" is larger than the upload limit of %zu bytes", image_size_limit));
        sources_.push_back(file.identity);
        return std::move(file.content);
    }

    /// `length` is the size of the whole payload.
    void check_size(const ManifestSection &section, std::size_t length) const {
        const sign_tbl_entry &partition = *section.partition;
        const std::uint64_t size = written_size(length, section.padding.value_or(0), partition);
        if (size > partition.max_size)
            refuse(section, format("%" PRIu64 " bytes%s, %" PRIu64 " more than the %u bytes of %s",
                                   size, is_stripped(partition) ? "" : " with header and trailer",
                                   size - partition.max_size, partition.max_size,
                                   is_version(partition) ? "a version section" : "the partition"));
        if (image_.size() + header_size + length > image_size_limit)
            refuse(section, format("makes the image larger than the upload limit of %zu bytes",
                                   image_size_limit));
    }

    void append_header(const ManifestSection &section, std::uint32_t length) {
        image_.resize(image_.size() + header_size);
        store_header(std::span(image_).last<header_size>(),
                     {section.partition->signature, section.burn_address.value_or(0),
                      section.mtd_id.value_or(section.partition->mtd_id),
                      section.padding.value_or(0), length});
    }

    void append_word(std::uint32_t word) {
        image_.resize(image_.size() + sizeof word);
        store_big_endian(std::span(image_).last<sizeof word>(), word);
    }

    const Manifest &manifest_;
    Bytes image_;
    std::vector<FileIdentity> sources_;
};

} // namespace

BuiltImage build_image(const Manifest &manifest) { return Builder(manifest).build(); }

} // namespace corvel::tools

// SPDX-License-Identifier: MIT
#ifndef CORVEL_TOOLS_IMAGE_INSPECTION_H
#define CORVEL_TOOLS_IMAGE_INSPECTION_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "firmware/image_format.h"

namespace corvel::tools {

/// How many bytes of a section a device writes, and where.
struct SectionTarget {
    std::uint32_t size;
    std::uint32_t burn_address;
    std::uint32_t device_while_a_runs; ///< index of the block device
    std::uint32_t device_while_b_runs;
};

/// A section of an image.
struct ImageSection {
    enum class Checksum { good, bad, none };

    std::size_t number; ///< counted from 1
    std::size_t offset;
    std::string signature; ///< the bytes as stored
    std::uint32_t burn_address;
    std::uint32_t mtd_id;
    std::uint32_t padding;
    std::uint32_t length;
    const sign_tbl_entry *partition; ///< null if a device skips the section
    Checksum checksum;
    std::optional<SectionTarget> target; ///< empty if nothing is written or the image is refused
};

/// A fault of an image that does not make a device refuse it.
struct Warning {
    std::string_view kind; ///< a name for programs, listed in the manual
    std::size_t section;   ///< its number; 0 if the warning is about the whole image
    std::string message;   ///< includes the name of the section
};

/// How a device interprets an image.
struct Inspection {
    std::vector<ImageSection> sections; ///< up to the first bad one
    std::size_t unlisted = 0;           ///< number of skipped sections that are not in `sections`
    std::optional<std::string> version; ///< the bytes as stored; empty without a version section
    std::optional<std::uint32_t> crc;   ///< the stored CRC, if the image contains one
    std::size_t bytes_after_image = 0;  ///< not part of any section
    std::vector<Warning> warnings;
    std::string fault; ///< why the image is refused; empty if it is accepted
};

/// Checks an image with the library and explains the result.
Inspection inspect_image(std::span<const unsigned char> image);

} // namespace corvel::tools

#endif

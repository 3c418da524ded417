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

/// What a device writes of a section, and where to.
struct SectionTarget {
    std::uint32_t size;
    std::uint32_t burn_address;
    std::uint32_t device_while_a_runs; ///< index of the block device
    std::uint32_t device_while_b_runs;
};

/// A section as it stands in an image.
struct ImageSection {
    enum class Checksum { good, bad, none };

    std::size_t number; ///< from 1 on
    std::size_t offset;
    std::string signature; ///< its bytes
    std::uint32_t burn_address;
    std::uint32_t mtd_id;
    std::uint32_t padding;
    std::uint32_t length;
    const sign_tbl_entry *partition; ///< null: a device skips the section
    Checksum checksum;
    std::optional<SectionTarget> target; ///< none if nothing is written or the image is refused
};

/// Bytes that a device accepts and that are a fault all the same.
struct Warning {
    std::string_view kind; ///< a name for programs, which the manual lists
    std::size_t section;   ///< its number; 0 where it is about the image as a whole
    std::string message;   ///< names the section
};

/// What a device makes of an image.
struct Inspection {
    std::vector<ImageSection> sections; ///< up to the first bad one
    std::size_t unlisted = 0;           ///< skipped sections that are not in the list
    std::optional<std::string> version; ///< its bytes; none without a version section
    std::optional<std::uint32_t> crc;   ///< the stored one, if the image carries one
    std::size_t bytes_after_image = 0;  ///< which belong to no section
    std::vector<Warning> warnings;
    std::string fault; ///< why the image is refused; empty if it is accepted
};

/// Has the library check an image, and finds the words for what it says.
Inspection inspect_image(std::span<const unsigned char> image);

} // namespace corvel::tools

#endif

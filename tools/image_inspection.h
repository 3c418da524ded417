// SPDX-License-Identifier: MIT
#ifndef CORVEL_TOOLS_IMAGE_INSPECTION_H
#define CORVEL_TOOLS_IMAGE_INSPECTION_H

#include <corvel.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "firmware/image_format.h"

namespace corvel::tools {

/// A section as it stands in an image.
struct ImageSection {
    enum class Checksum { good, bad, none };

    std::size_t number; ///< from 1 on
    std::size_t offset;
    std::string signature; ///< printable
    std::uint32_t burn_address;
    std::uint32_t mtd_id;
    std::uint32_t padding;
    std::uint32_t length;
    const sign_tbl_entry *partition; ///< null: a device skips the section
    Checksum checksum;
    std::optional<img_info> target; ///< what is written, if the image is accepted
};

/// What a device makes of an image.
struct Inspection {
    std::vector<ImageSection> sections; ///< up to the first bad one
    std::size_t unlisted = 0;           ///< skipped sections that are not in the list
    std::string version;                ///< printable; empty without a version section
    std::optional<std::uint32_t> crc;   ///< the stored one, if the image carries one
    std::vector<std::string> warnings;  ///< what is accepted and worth a look
    std::string fault;                  ///< why the image is refused; empty if it is accepted
};

/// Has the library check an image, and finds the words for what it says.
Inspection inspect_image(std::span<const unsigned char> image);

/// The block device that a record goes to while set A runs, or set B.
std::uint32_t device_while_a_runs(const img_info &record);
std::uint32_t device_while_b_runs(const img_info &record);

} // namespace corvel::tools

#endif

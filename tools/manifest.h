// SPDX-License-Identifier: MIT
#ifndef CORVEL_TOOLS_MANIFEST_H
#define CORVEL_TOOLS_MANIFEST_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "firmware/image_format.h"
#include "tools/files.h"

namespace corvel::tools {

/// One section of a manifest. Example:
///
///     [Rootfs]
///     file = rootfs.squashfs
struct ManifestSection {
    const sign_tbl_entry *partition;
    std::size_t line; ///< line number of its heading
    std::optional<std::string> file;
    std::optional<std::string> text;
    std::optional<std::uint32_t> burn_address;
    std::optional<std::uint32_t> padding;
    std::optional<std::uint32_t> mtd_id;
};

struct Manifest {
    std::string path;
    FileIdentity identity;
    std::vector<ManifestSection> sections;
};

/// Reads a manifest, from standard input if the path is "-". Fails at the first line that is
/// invalid.
Manifest read_manifest(const std::string &path);

/// The location of a section for messages, such as "image.manifest:7: ".
std::string place_in(const Manifest &manifest, const ManifestSection &section);

} // namespace corvel::tools

#endif

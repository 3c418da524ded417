// SPDX-License-Identifier: MIT
#ifndef CORVEL_TOOLS_IMAGE_BUILDER_H
#define CORVEL_TOOLS_IMAGE_BUILDER_H

#include <vector>

#include "tools/files.h"
#include "tools/manifest.h"

namespace corvel::tools {

struct BuiltImage {
    Bytes content;
    std::vector<FileIdentity> sources; ///< the manifest and all files that the image is made from
};

/// Builds the image that a manifest describes, with its checksums and its CRC. Fails if a device
/// would refuse the image or a section would write beyond its partition.
BuiltImage build_image(const Manifest &manifest);

} // namespace corvel::tools

#endif

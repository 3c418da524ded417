// SPDX-License-Identifier: MIT
#ifndef CORVEL_TOOLS_IMAGE_BUILDER_H
#define CORVEL_TOOLS_IMAGE_BUILDER_H

#include <vector>

#include "tools/files.h"
#include "tools/manifest.h"

namespace corvel::tools {

struct BuiltImage {
    Bytes content;
    std::vector<FileIdentity> sources; ///< the manifest and all that the image is made from
};

/// Makes the image that a manifest describes, with its checksums and its CRC. What no device would
/// take, or what would write beyond a partition, is refused.
BuiltImage build_image(const Manifest &manifest);

} // namespace corvel::tools

#endif

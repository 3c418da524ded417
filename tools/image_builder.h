// SPDX-License-Identifier: MIT
#ifndef CORVEL_TOOLS_IMAGE_BUILDER_H
#define CORVEL_TOOLS_IMAGE_BUILDER_H

#include "tools/files.h"
#include "tools/manifest.h"

namespace corvel::tools {

/// Makes the image that a manifest describes, with its checksums and its CRC. What no device would
/// take, or what would write beyond a partition, is refused.
Bytes build_image(const Manifest &manifest);

} // namespace corvel::tools

#endif

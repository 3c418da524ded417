// SPDX-License-Identifier: MIT
#ifndef CORVEL_TOOLS_UPLOAD_CHECK_H
#define CORVEL_TOOLS_UPLOAD_CHECK_H

#include <cstddef>
#include <span>
#include <string_view>
#include <vector>

namespace corvel::tools {

/// Bytes of a file that a device takes for a header of the upload.
struct MistakenHeader {
    std::size_t offset;
    std::string_view name; ///< with its colon
};

struct UploadResult {
    std::size_t stored; ///< bytes: less than the file has if the device loses its beginning
    std::vector<MistakenHeader> headers;
};

/// Has the library cut a file out of an upload, and finds the bytes that mislead it.
UploadResult try_upload(std::span<const unsigned char> file);

} // namespace corvel::tools

#endif

// SPDX-License-Identifier: MIT
#ifndef CORVEL_TOOLS_UPLOAD_CHECK_H
#define CORVEL_TOOLS_UPLOAD_CHECK_H

#include <cstddef>
#include <span>
#include <string_view>
#include <vector>

namespace corvel::tools {

/// Bytes of a file that a device mistakes for a header of the upload.
struct MistakenHeader {
    std::size_t offset;
    std::string_view name; ///< including the colon
};

struct UploadResult {
    std::size_t
        stored; ///< number of bytes; less than the size of the file if its beginning is lost
    std::vector<MistakenHeader> headers;
};

/// Extracts a file from an upload with the library, and finds the bytes mistaken for headers.
UploadResult try_upload(std::span<const unsigned char> file);

} // namespace corvel::tools

#endif

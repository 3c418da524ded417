// SPDX-License-Identifier: MIT
#include "tools/upload_check.h"

#include <corvel.h>

#include <algorithm>
#include <random>
#include <string>

#include "tools/text_format.h"

namespace corvel::tools {
namespace {

constexpr std::string_view type_header = "Content-Type:";
constexpr std::string_view encoding_header = "Content-Transfer-Encoding:";

/// A random boundary, so that no file can be made to contain it.
std::string random_boundary() {
    std::random_device random;
    std::string boundary = "--";
    for (int word = 0; word < 4; ++word)
        boundary += format("%08x", static_cast<unsigned int>(random()));
    return boundary;
}

/// An upload with one file, in the form that the library passes to process_file().
class Upload {
  public:
    explicit Upload(std::span<const unsigned char> file) : boundary_(random_boundary()) {
        text_ = boundary_ + "\n" + boundary_ +
                "\r\nContent-Disposition: form-data; name=\"image\"; filename=\"image\"\r\n"
                "Content-Type: application/octet-stream\r\n\r\n";
        start_ = text_.size();
        text_.append(file.begin(), file.end());
        end_ = text_.size();
        text_ += "\r\n" + boundary_ + "--\r\n";
    }

    /// Returns the number of bytes of the file that the library stores.
    std::size_t store() {
        std::vector<prop_file> files(CORVEL_UPLOAD_FILES);
        const int count = process_file(text_.data(), static_cast<int>(text_.size()),
                                       boundary_.c_str(), files.data());
        const std::size_t stored = count == 1 ? files[0].size : 0;
        free_prop_file(files.data(), count);
        return stored;
    }

    /// Searches for the headers in the library's order: the encoding after the line of the type.
    [[nodiscard]] std::vector<MistakenHeader> mistaken_headers() const {
        std::vector<MistakenHeader> headers;
        std::size_t start = start_;
        for (const std::string_view name : {type_header, encoding_header}) {
            const std::size_t found = find(start, name);
            if (found == std::string::npos)
                continue;
            headers.push_back({found - start_, name});
            start = std::min(text_.find_first_of("\r\n", found), end_);
        }
        return headers;
    }

  private:
    /// Finds a header: only the first occurrence of its name counts, and only if a colon follows.
    [[nodiscard]] std::size_t find(std::size_t start, std::string_view name_and_colon) const {
        const std::string_view name = name_and_colon.substr(0, name_and_colon.size() - 1);
        const char *const found = hex_search(text_.data() + start, text_.data() + end_, name.data(),
                                             static_cast<int>(name.size()));
        return found != nullptr && found[name.size()] == ':'
                   ? static_cast<std::size_t>(found - text_.data())
                   : std::string::npos;
    }

    std::string boundary_;
    std::string text_;
    std::size_t start_ = 0; ///< offset of the file in the upload
    std::size_t end_ = 0;   ///< offset of its end
};

} // namespace

UploadResult try_upload(std::span<const unsigned char> file) {
    Upload upload(file);
    const std::size_t stored = upload.store();
    if (stored == file.size())
        return {stored, {}};
    return {stored, upload.mistaken_headers()};
}

} // namespace corvel::tools

// SPDX-License-Identifier: MIT
// Dates of HTTP: one that is accepted has one fixed form, which is read as the same time.
#include <corvel_page.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const std::string text(reinterpret_cast<const char *>(data), size);
    time_t time = 0;
    if (!corvel_parse_http_date(text.c_str(), &time) || time < 0)
        return 0;
    char fixed[CORVEL_HTTP_DATE_SIZE];
    time_t again = 0;
    if (!corvel_parse_http_date(corvel_http_date(time, fixed), &again) || again != time)
        std::abort();
    return 0;
}

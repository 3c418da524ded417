// SPDX-License-Identifier: MIT
// The records of a contained request's process: any bytes end with a status and with fields,
// cookies and files within the limits.
#include <corvel_page.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include "fuzz/harness.h"
#include "page/contained_process.h"

using namespace corvel_fuzz;
using corvel::RecordHead;
using corvel::RecordKind;

namespace {

constexpr std::size_t pairs_max = 4;
constexpr std::size_t body_max = 64;
constexpr corvel_upload_limits limits = {3, 0, 32, 64, 4096};

/// What the process sends that is started next.
std::string output;

int file_with(const std::string &bytes) {
    const int file = memfd_create("output", MFD_CLOEXEC);
    if (file < 0 || write(file, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()) ||
        lseek(file, 0, SEEK_SET) != 0)
        std::abort();
    return file;
}

} // namespace

// No process is started: the output of the one that would be is a file.

// The C library's headers name the parameters with reserved names.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
extern "C" int pipe2(int ends[2], int /*flags*/) noexcept {
    ends[0] = file_with(output);
    ends[1] = open("/dev/null", O_WRONLY | O_CLOEXEC);
    return 0;
}

/// No process has this number.
extern "C" pid_t fork() noexcept { return 1 << 30; }

extern "C" pid_t waitpid(pid_t process, int *status, int /*options*/) {
    *status = 0;
    return process;
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

extern "C" void syslog(int /*level*/, const char * /*format*/, ...) {}

namespace {

/// A record, whose sizes are those of its strings unless the input has other ones.
std::string record(Input &input) {
    RecordHead head{};
    head.kind = static_cast<RecordKind>(input.byte() % 10);
    head.outcome = input.byte();
    // The type of an accepted request is in the bits above the refusal.
    if (head.kind == RecordKind::end && head.outcome % 2 == 0)
        head.outcome = CORVEL_MULTIPART << 8U;
    head.body_left = input.byte();
    const unsigned flags = input.byte();
    std::string strings;
    for (unsigned i = 0; i < 3; ++i) {
        if ((flags >> i & 1U) == 0)
            continue;
        std::string text = input.text();
        if ((flags & 8U) == 0)
            text += '\0';
        head.sizes[i] = static_cast<std::uint32_t>(text.size());
        strings += text;
    }
    if ((flags & 0x30U) == 0x30U)
        head.sizes[flags >> 6U & 1U] = (flags & 0x80U) != 0 ? UINT32_MAX : input.byte();
    return std::string(reinterpret_cast<const char *>(&head), sizeof head) + strings;
}

std::string records(Input &input) {
    std::string all;
    for (unsigned count = input.byte() % 16U; count != 0; --count)
        all += record(input);
    return all;
}

struct Files {
    std::size_t begun = 0;
    std::size_t ended = 0;
    std::size_t size = 0;
};

corvel_upload_sink sink_for(Files &files) {
    return {&files,
            [](void *own, const corvel_part *part) {
                auto &all = *static_cast<Files *>(own);
                check(all.begun == all.ended, "a file begins after the end of the one before");
                check(part->name != nullptr && part->type != nullptr, "a file has name and type");
                check(std::strpbrk(part->filename, "/\\") == nullptr, "no directory in a name");
                ++all.begun;
                all.size = 0;
                return std::strlen(part->type) != 1;
            },
            [](void *own, const void *bytes, std::size_t size) {
                auto &all = *static_cast<Files *>(own);
                check(all.begun == all.ended + 1, "content belongs to a file");
                check(size != 0 && bytes != nullptr, "no empty piece");
                all.size += size;
                check(all.size <= limits.file_max, "the limit of a file");
                return true;
            },
            [](void *own) {
                auto &all = *static_cast<Files *>(own);
                ++all.ended;
                check(all.begun == all.ended, "a file ends that has begun");
                return true;
            }};
}

void check_fields(const corvel_request *request) {
    check(corvel_field_count(request) <= pairs_max, "the limit of pairs");
    const char *name = nullptr;
    const char *value = nullptr;
    for (std::size_t i = 0; corvel_field_pair(request, i, &name, &value); ++i)
        check(std::strlen(name) + std::strlen(value) <= 20000, "terminated strings");
    std::size_t size = 0;
    const char *const body = corvel_request_body(request, &size);
    check(size <= body_max + 2 && body[size] == '\0', "a body and a NUL");
}

void check_request(Input &input) {
    corvel_request_rules rules{};
    rules.methods = CORVEL_POST;
    rules.types = CORVEL_FORM | CORVEL_MULTIPART | CORVEL_JSON_TEXT;
    rules.body_max = body_max;
    rules.pairs_max = pairs_max;
    output = records(input);
    corvel_request *const request = corvel_request_begin_contained(nullptr);
    const char *const cookie = corvel_cookie(request, "s", 0);
    check(cookie == nullptr || std::strlen(cookie) < 100, "a terminated cookie");
    output = records(input);
    const int status = corvel_request_read(request, &rules);
    check((*corvel_request_complaint(request) == '\0') == (status == CORVEL_HTTP_OK),
          "a complaint");
    check_fields(request);
    output = input.byte() % 4U == 0 ? input.rest() : records(input);
    Files files;
    const corvel_upload_sink sink = sink_for(files);
    const corvel_upload_result result = corvel_upload_read(request, &limits, &sink);
    check(result <= 0 && result >= CORVEL_UPLOAD_NOT_CONTAINED, "a documented result");
    check(files.begun <= files.ended + 1 && files.begun <= limits.parts_max, "the files");
    check(result != CORVEL_UPLOAD_DONE || files.begun == files.ended, "each file is complete");
    check_fields(request);
    corvel_request_free(request);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static const int body = file_with(std::string(64, 'x'));
    setenv("REQUEST_METHOD", "POST", 1);
    setenv("CONTENT_TYPE", "multipart/form-data; boundary=b", 1);
    setenv("CONTENT_LENGTH", "64", 1);
    setenv("HTTP_COOKIE", "s=0123456789012345678901234567890123456789", 1);
    if (lseek(body, 0, SEEK_SET) != 0 || dup2(body, STDIN_FILENO) < 0)
        std::abort();
    Input input(data, size);
    check_request(input);
    return 0;
}

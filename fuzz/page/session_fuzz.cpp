// SPDX-License-Identifier: MIT
// Cookies against a model of which name the session, and a session's file against a model of what
// makes it valid.
//
// Input: a patch (its position in two bytes, then its bytes, terminated by a NUL), whether the file
// is truncated (one byte), how much older its last use is (one byte, times 16 seconds), then the
// value of HTTP_COOKIE.
#include <corvel_page.h>

#include "fuzz/harness.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace corvel_fuzz;

constexpr std::size_t boot_at = 4;
constexpr std::size_t user_at = 40;
constexpr std::uint32_t idle = 1800;
constexpr std::uint32_t lifetime = 4000;

/// The time since the start of the fictitious device.
constexpr std::time_t now = 5000;

bool exists(const char *user) { return std::strcmp(user, "missing") != 0; }

corvel_session_rules make_rules() {
    static const std::string directory = scratch_directory() + "/sessions";
    corvel_session_rules rules{};
    rules.directory = directory.c_str();
    rules.idle_seconds = idle;
    rules.lifetime_seconds = lifetime;
    rules.user_exists = exists;
    return rules;
}
const corvel_session_rules rules = make_rules();

/// The session that all inputs are about.
struct Known {
    std::string id;
    std::string path;
    std::string file;
};

Known start() {
    const Environment environment({});
    corvel_request *const request = corvel_request_begin();
    corvel_answer *const answer = corvel_answer_new(request, nullptr);
    corvel_session *const session = corvel_session_start(request, answer, &rules, "admin");
    check(session != nullptr, "a session can be started");
    const std::string header = output_of([answer] { corvel_answer_send(answer); });
    corvel_session_free(session);
    corvel_answer_free(answer);
    corvel_request_free(request);
    Known known;
    known.id = header.substr(header.find("session=") + 8, 64);
    DIR *const directory = opendir(rules.directory);
    for (const dirent *entry = readdir(directory); entry != nullptr; entry = readdir(directory))
        if (std::strlen(entry->d_name) == 64)
            known.path = std::string(rules.directory) + "/" + entry->d_name;
    closedir(directory);
    known.file = read_file(known.path);
    return known;
}

std::string trimmed(std::string text) {
    constexpr const char *spaces = " \t\n\v\f\r";
    text.erase(0, text.find_first_not_of(spaces));
    text.erase(text.find_last_not_of(spaces) + 1);
    return text;
}

/// Whether a cookie has the name and the identifier.
bool names_session(const std::string &cookie, const std::string &id) {
    const std::size_t equals = cookie.find('=');
    if (equals == std::string::npos || trimmed(cookie.substr(0, equals)) != "session")
        return false;
    std::string value = trimmed(cookie.substr(equals + 1));
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"')
        value = value.substr(1, value.size() - 2);
    return value == id;
}

bool any_names_session(std::string header, const std::string &id) {
    for (;;) {
        const std::size_t end = header.find(';');
        if (names_session(header.substr(0, end), id))
            return true;
        if (end == std::string::npos)
            return false;
        header.erase(0, end + 1);
    }
}

std::uint32_t time_in(const std::string &file) {
    std::uint32_t time = 0;
    std::memcpy(&time, file.data(), sizeof time);
    return time;
}

/// The user of a valid file, else empty.
std::string user_in(const std::string &file, const Known &known, std::uint32_t age) {
    if (file.size() != known.file.size() ||
        file.substr(boot_at, user_at - boot_at) != known.file.substr(boot_at, user_at - boot_at))
        return "";
    const std::uint32_t created = time_in(file);
    const std::string user = file.substr(user_at);
    const std::size_t length = user.find('\0');
    if (file.back() != '\0' || created > now || now - created >= lifetime || age >= idle)
        return "";
    return user.substr(0, length) == "missing" ? "" : user.substr(0, length);
}

} // namespace

extern "C" int clock_gettime(clockid_t clock_id, timespec *tp) noexcept {
    if (clock_id == CLOCK_BOOTTIME) {
        *tp = {now, 0};
        return 0;
    }
    return timespec_get(tp, TIME_UTC) == TIME_UTC ? 0 : -1;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static const Known known = start();
    Input input(data, size);
    std::string file = known.file;
    const std::size_t position = (input.byte() * 256U + input.byte()) % file.size();
    const std::string patch = input.text();
    file.replace(position, std::min(patch.size(), file.size() - position), patch, 0,
                 file.size() - position);
    if (const unsigned char cut = input.byte(); cut > 250)
        file.resize(file.size() - (cut - 250));
    const std::uint32_t age = input.byte() * 16U;
    std::string cookies = input.rest();
    cookies.erase(std::min(cookies.find('\0'), cookies.size()));
    // An identifier cannot be guessed.
    for (std::size_t at = cookies.find('@'); at != std::string::npos; at = cookies.find('@'))
        cookies.replace(at, 1, known.id);
    write_file(known.path, file);
    check(chmod(known.path.c_str(), 0600) == 0, "the mode can be set");
    std::array<timespec, 2> times{};
    times[0].tv_sec = times[1].tv_sec = now - static_cast<std::time_t>(age);
    check(utimensat(AT_FDCWD, known.path.c_str(), times.data(), 0) == 0, "the time can be set");

    const Environment environment({"HTTP_COOKIE=" + cookies});
    corvel_request *const request = corvel_request_begin();
    check(request != nullptr, "a request begins");
    corvel_session *const session = corvel_session_find(request, &rules);
    const std::string user = any_names_session(cookies, known.id) ? user_in(file, known, age) : "";
    const char *const found = corvel_session_user(session);
    check_equal(found != nullptr ? found : "", user, "the user of the session");
    check((session != nullptr) == !user.empty(), "a session has a user");
    if (session != nullptr) {
        check(std::strlen(corvel_session_token(session)) == 64, "the token has 64 digits");
        check(corvel_session_check(session, corvel_session_token(session)), "the token is right");
        check(!corvel_session_check(session, cookies.c_str()), "cookies are no token");
        check(corvel_session_touch(session), "a session can be used");
    }
    corvel_session_free(session);
    corvel_request_free(request);
    return 0;
}

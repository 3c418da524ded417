// SPDX-License-Identifier: MIT
// Attempts of several clients against a model of their delays, and then attempts with a damaged
// record, which may have any result but none that the clients can choose.
//
// Input: the free attempts and the longest delay (one byte each), then attempts: a byte whose
// lowest bit says whether the password is right, whose next four select the address and whose
// others are the exponent of the seconds that pass before; 255 is followed by a patch of the record
// (its position in two bytes, then its bytes, terminated by a NUL).
#include <corvel_page.h>

#include "fuzz/harness.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace corvel_fuzz;

constexpr std::size_t file_size = 16432;

std::uint32_t now;
unsigned checks;

/// Addresses, and the client that each belongs to.
struct Address {
    const char *text;
    int client;
};
constexpr std::array<Address, 16> addresses = {{
    {"10.0.0.1", 1},
    {"::ffff:10.0.0.1", 1},
    {"[::ffff:a00:1]", 1},
    {"10.0.0.2", 2},
    {"2001:db8::1", 3},
    {"2001:db8:0:0:ffff::1", 3},
    {"2001:db8:0:1::1", 4},
    {"fe80::1%eth0", 5},
    {"fe80::2", 5},
    {"::1", 6},
    {"", 7},
    {"10.0.0.1.2", 7},
    {"255.255.255.255", 8},
    {"0.0.0.0", 9},
    {"::a00:1", 6},
    {"ffff:ffff:ffff:ffff::", 10},
}};

struct Client {
    std::uint32_t failures = 0;
    std::uint32_t until = 0;
};

bool is_right(const char * /*user*/, const char *password) {
    ++checks;
    return std::strcmp(password, "right") == 0;
}

struct Result {
    corvel_login_verdict verdict;
    unsigned seconds;
};

Result attempt(const corvel_login_rules &rules, const char *address, bool right) {
    const Environment environment({std::string("REMOTE_ADDR=") + address});
    corvel_request *const request = corvel_request_begin();
    check(request != nullptr, "a request begins");
    unsigned seconds = 12345;
    const corvel_login_verdict verdict =
        corvel_login(request, &rules, "admin", right ? "right" : "wrong", &seconds);
    corvel_request_free(request);
    return {verdict, seconds};
}

/// What the attempt of a client leads to.
Result expected(Client &client, const corvel_login_rules &rules, bool right) {
    if (client.until > now)
        return {CORVEL_LOGIN_WAIT, client.until - now};
    if (now - client.until >= 900)
        client.failures = 0;
    if (right) {
        client = {0, now};
        return {CORVEL_LOGIN_RIGHT, 0};
    }
    std::uint32_t delay = 0;
    if (++client.failures > rules.free_attempts) {
        delay = 1;
        for (std::uint32_t i = rules.free_attempts + 1; i < client.failures; ++i)
            delay = std::min(delay * 2, rules.longest_seconds);
    }
    client.until = delay != 0 ? now + delay + 1 : now;
    return {CORVEL_LOGIN_WRONG, client.until - now};
}

void damage(const std::string &path, Input &input) {
    std::string record = read_file(path);
    const std::size_t position = input.byte() * 256U + input.byte();
    const std::string patch = input.rest();
    record.resize(std::max(record.size(), position));
    record.replace(position, patch.size(), patch);
    write_file(path, record);
}

} // namespace

extern "C" int clock_gettime(clockid_t clock_id, timespec *tp) noexcept {
    if (clock_id == CLOCK_BOOTTIME) {
        *tp = {static_cast<std::time_t>(now), 0};
        return 0;
    }
    return timespec_get(tp, TIME_UTC) == TIME_UTC ? 0 : -1;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static const std::string path = scratch_directory() + "/logins";
    Input input(data, size);
    corvel_login_rules rules{};
    rules.record = path.c_str();
    rules.free_attempts = 1U + input.byte() % 8U;
    rules.longest_seconds = 1U + input.byte();
    rules.check = is_right;
    now = 1000;
    unlink(path.c_str());
    std::map<int, Client> clients;
    bool is_damaged = false;
    for (unsigned char byte = input.byte(); byte != 0 && !is_damaged; byte = input.byte()) {
        if (byte == 255) {
            attempt(rules, "10.0.0.1", false);
            damage(path, input);
            is_damaged = true;
            break;
        }
        const bool right = (byte & 1U) != 0;
        const Address &address = addresses[byte >> 1U & 15U];
        now += (1U << (byte >> 5U) * 2U) - 1U;
        checks = 0;
        const Result wanted = expected(clients[address.client], rules, right);
        const Result got = attempt(rules, address.text, right);
        check_equal(got.verdict, wanted.verdict, "the verdict");
        check_equal(got.seconds, wanted.seconds, "the seconds to wait");
        check_equal(checks, wanted.verdict == CORVEL_LOGIN_WAIT ? 0 : 1, "the number of checks");
        struct stat status {};
        check(stat(path.c_str(), &status) == 0 && status.st_size == off_t{file_size},
              "the record has a fixed size");
    }
    if (is_damaged) {
        for (const Address &address : addresses)
            for (const bool right : {false, true}) {
                checks = 0;
                const Result got = attempt(rules, address.text, right);
                const bool was_checked =
                    got.verdict == CORVEL_LOGIN_RIGHT || got.verdict == CORVEL_LOGIN_WRONG;
                check_equal(checks, was_checked ? 1 : 0, "the number of checks");
                check(!was_checked || right == (got.verdict == CORVEL_LOGIN_RIGHT),
                      "the verdict is that of the check");
                check(got.seconds <= rules.longest_seconds + 1, "a limit of the delay");
            }
    }
    return 0;
}

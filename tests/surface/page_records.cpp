/* SPDX-License-Identifier: MIT */
/* The layout of the page kit's records, for both sizes of pointers. */
#include <corvel_page.h>

#include <cstddef>
#include <type_traits>

namespace {

constexpr std::size_t pointer = sizeof(void *);
static_assert(pointer == 4 || pointer == 8);

template <typename Record>
constexpr bool is_plain = std::is_standard_layout_v<Record> &&std::is_trivial_v<Record>;

static_assert(is_plain<corvel_request_rules>);
static_assert(offsetof(corvel_request_rules, methods) == 0);
static_assert(offsetof(corvel_request_rules, types) == 4);
static_assert(offsetof(corvel_request_rules, body_max) == 8);
static_assert(offsetof(corvel_request_rules, pairs_max) == 8 + pointer);
static_assert(offsetof(corvel_request_rules, memory_max) == 8 + 2 * pointer);
static_assert(offsetof(corvel_request_rules, body_seconds) == 8 + 3 * pointer);
static_assert(offsetof(corvel_request_rules, accept_other_sites) == 12 + 3 * pointer);
static_assert(offsetof(corvel_request_rules, hosts) == (pointer == 8 ? 40 : 28));
static_assert(sizeof(corvel_request_rules) == (pointer == 8 ? 48 : 32));

static_assert(is_plain<corvel_site>);
static_assert(offsetof(corvel_site, templates) == 0);
static_assert(offsetof(corvel_site, error_template) == pointer);
static_assert(offsetof(corvel_site, content_security_policy) == 2 * pointer);
static_assert(sizeof(corvel_site) == 3 * pointer);

static_assert(is_plain<corvel_route>);
static_assert(offsetof(corvel_route, path) == 0);
static_assert(offsetof(corvel_route, rules) == pointer);
static_assert(offsetof(corvel_route, answer) == pointer + sizeof(corvel_request_rules));
static_assert(sizeof(corvel_route) == 2 * pointer + sizeof(corvel_request_rules));

static_assert(is_plain<corvel_containment>);
static_assert(offsetof(corvel_containment, user) == 0);
static_assert(offsetof(corvel_containment, group) == 4);
static_assert(offsetof(corvel_containment, seconds) == 8);
static_assert(offsetof(corvel_containment, memory_max) == (pointer == 8 ? 16 : 12));
static_assert(offsetof(corvel_containment, accept_less) == (pointer == 8 ? 24 : 16));
static_assert(sizeof(corvel_containment) == (pointer == 8 ? 32 : 20));

static_assert(is_plain<corvel_part>);
static_assert(offsetof(corvel_part, name) == 0);
static_assert(offsetof(corvel_part, filename) == pointer);
static_assert(offsetof(corvel_part, type) == 2 * pointer);
static_assert(sizeof(corvel_part) == 3 * pointer);

static_assert(is_plain<corvel_upload_limits>);
static_assert(offsetof(corvel_upload_limits, parts_max) == 0);
static_assert(offsetof(corvel_upload_limits, header_max) == pointer);
static_assert(offsetof(corvel_upload_limits, field_max) == 2 * pointer);
static_assert(offsetof(corvel_upload_limits, file_max) == (pointer == 8 ? 24 : 16));
static_assert(offsetof(corvel_upload_limits, total_max) == (pointer == 8 ? 32 : 24));
static_assert(sizeof(corvel_upload_limits) == (pointer == 8 ? 40 : 32));

static_assert(is_plain<corvel_upload_sink>);
static_assert(offsetof(corvel_upload_sink, context) == 0);
static_assert(offsetof(corvel_upload_sink, begin) == pointer);
static_assert(offsetof(corvel_upload_sink, data) == 2 * pointer);
static_assert(offsetof(corvel_upload_sink, end) == 3 * pointer);
static_assert(sizeof(corvel_upload_sink) == 4 * pointer);

static_assert(is_plain<corvel_session_rules>);
static_assert(offsetof(corvel_session_rules, directory) == 0);
static_assert(offsetof(corvel_session_rules, cookie) == pointer);
static_assert(offsetof(corvel_session_rules, idle_seconds) == 2 * pointer);
static_assert(offsetof(corvel_session_rules, lifetime_seconds) == 4 + 2 * pointer);
static_assert(offsetof(corvel_session_rules, sessions_max) == 8 + 2 * pointer);
static_assert(offsetof(corvel_session_rules, user_exists) == (pointer == 8 ? 32 : 20));
static_assert(sizeof(corvel_session_rules) == (pointer == 8 ? 40 : 24));

static_assert(is_plain<corvel_login_rules>);
static_assert(offsetof(corvel_login_rules, record) == 0);
static_assert(offsetof(corvel_login_rules, free_attempts) == pointer);
static_assert(offsetof(corvel_login_rules, longest_seconds) == 4 + pointer);
static_assert(offsetof(corvel_login_rules, check) == 8 + pointer);
static_assert(sizeof(corvel_login_rules) == 8 + 2 * pointer);

static_assert(is_plain<corvel_upgrade_rules>);
static_assert(offsetof(corvel_upgrade_rules, command_line) == 0);
static_assert(offsetof(corvel_upgrade_rules, record) == pointer);
static_assert(sizeof(corvel_upgrade_rules) == 2 * pointer);

static_assert(is_plain<corvel_boot>);
static_assert(offsetof(corvel_boot, running) == 0);
static_assert(offsetof(corvel_boot, next) == 4);
static_assert(offsetof(corvel_boot, can_change) == 8);
static_assert(sizeof(corvel_boot) == 12);

static_assert(is_plain<corvel_upgrade_section>);
static_assert(offsetof(corvel_upgrade_section, name) == 0);
static_assert(offsetof(corvel_upgrade_section, target) == pointer);
static_assert(offsetof(corvel_upgrade_section, device) == 2 * pointer);
static_assert(offsetof(corvel_upgrade_section, size) == 4 + 2 * pointer);
static_assert(sizeof(corvel_upgrade_section) == 8 + 2 * pointer);

static_assert(is_plain<corvel_upgrade_report>);
static_assert(offsetof(corvel_upgrade_report, set) == 0);
static_assert(offsetof(corvel_upgrade_report, count) == pointer);
static_assert(offsetof(corvel_upgrade_report, failed) == 2 * pointer);
static_assert(offsetof(corvel_upgrade_report, sections) == 3 * pointer);
static_assert(offsetof(corvel_upgrade_report, version) ==
              3 * pointer + 2 * sizeof(corvel_upgrade_section));
static_assert(sizeof(corvel_upgrade_report) == (pointer == 8 ? 136 : 108));

static_assert(is_plain<corvel_upgrade_status>);
static_assert(offsetof(corvel_upgrade_status, state) == 0);
static_assert(offsetof(corvel_upgrade_status, result) == 4);
static_assert(offsetof(corvel_upgrade_status, set) == 8);
static_assert(offsetof(corvel_upgrade_status, section) == (pointer == 8 ? 16 : 12));
static_assert(offsetof(corvel_upgrade_status, written) == (pointer == 8 ? 24 : 16));
static_assert(offsetof(corvel_upgrade_status, total) == (pointer == 8 ? 28 : 20));
static_assert(sizeof(corvel_upgrade_status) == (pointer == 8 ? 32 : 24));

} // namespace

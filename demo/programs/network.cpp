// SPDX-License-Identifier: MIT
//
// The settings of the network page: LAN, DHCP server and wireless network. They are in three files.
// The page is in C++, but does not need the C++ runtime, which most devices do not have.

#include "password_rules.h"
#include "settings.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <string_view>

namespace {

// Validation. Each check returns a message for the user, or null if the value is valid.

using Complaint = const char *;

/// The address, which is valid or empty.
std::uint32_t ipv4(const char *value) {
    std::uint32_t address = 0;
    corvel_check_ipv4(value, &address);
    return address;
}

Complaint flag(const char *value) {
    static const char *const choices[] = {"0", "1", nullptr};
    return corvel_check_choice(value, choices, nullptr) ? "Choose on or off." : nullptr;
}

Complaint host_address(const char *value) {
    if (corvel_check_ipv4(value, nullptr))
        return "Use an address such as 192.168.1.1.";
    const auto network = ipv4(value) >> 24U;
    return network >= 1 && network <= 223 && network != 127 ? nullptr
                                                            : "No device can have this address.";
}

Complaint netmask(const char *value) {
    unsigned prefix = 0;
    if (corvel_check_netmask(value, &prefix) || prefix < 8 || prefix > 30)
        return "Use a mask such as 255.255.255.0.";
    return nullptr;
}

Complaint lease_hours(const char *value) {
    return corvel_check_integer(value, 1, 168, nullptr) ? "Use 1 to 168 hours." : nullptr;
}

Complaint domain(const char *value) {
    const std::string_view text = value;
    const auto is_upper = [](char c) {
        return c >= 'A' && c <= 'Z';
    };
    if (text.size() > 63)
        return "Use at most 63 characters.";
    if (text.empty() || (!corvel_check_host_name(value) && std::ranges::none_of(text, is_upper)))
        return nullptr;
    return "Use a domain such as home.lan: lowercase letters, digits, hyphens and dots.";
}

Complaint ssid(const char *value) {
    return corvel_check_text(value, 1, 32)
               ? "Use 1 to 32 characters. Accented characters count as two or more."
               : nullptr;
}

Complaint passphrase(const char *value) {
    const std::string_view text = value;
    const auto printable = [](unsigned char c) {
        return c >= 0x20 && c <= 0x7E;
    };
    if (text.size() < 8 || text.size() > 63)
        return "Use 8 to 63 characters.";
    return std::ranges::all_of(text, printable)
               ? weak_password_complaint(value, nullptr)
               : "Use the letters, digits and symbols of a US keyboard.";
}

Complaint channel(const char *value) {
    return corvel_check_integer(value, 0, 13, nullptr) ? "Use a channel from 1 to 13, or automatic."
                                                       : nullptr;
}

struct Country {
    std::string_view code;
    const char *name;
};

constexpr std::array countries = {
    Country{"AU", "Australia"},      Country{"AT", "Austria"},     Country{"BR", "Brazil"},
    Country{"FR", "France"},         Country{"DE", "Germany"},     Country{"IN", "India"},
    Country{"IT", "Italy"},          Country{"JP", "Japan"},       Country{"ZA", "South Africa"},
    Country{"ES", "Spain"},          Country{"CH", "Switzerland"}, Country{"UA", "Ukraine"},
    Country{"GB", "United Kingdom"},
};

Complaint country(const char *value) {
    return std::ranges::count(countries, value, &Country::code) ? nullptr
                                                                : "Choose a country from the list.";
}

/// True if the LAN overlaps the provider's network. The kernel would accept that, but would then
/// look for the provider's gateway in the LAN.
bool is_in_providers_network(std::uint32_t address, std::uint32_t mask) {
    std::array<char, INET_ADDRSTRLEN> text{};
    const auto ask = [&](unsigned selector) {
        return ipv4(getHWip("wan0", selector, text.data(), INET_ADDRSTRLEN));
    };
    const auto provider = ask(CORVEL_ADDRESS_IPV4);
    return provider != 0 && ((address ^ provider) & mask & ask(CORVEL_ADDRESS_NETMASK)) == 0;
}

void check_network(struct form *form) {
    const auto address_of = [&](const char *name) {
        return ipv4(form_value(form, name));
    };
    const auto fail = [&](const char *name, Complaint error) {
        set_form_error(form, name, error);
    };
    const auto mask = address_of("LAN_NETMASK");
    const auto router = address_of("LAN_ADDRESS");
    const auto first = address_of("DHCP_FIRST");
    const auto last = address_of("DHCP_LAST");
    const auto usable = [&](auto address) {
        return address > (router & mask) && address < (router | ~mask);
    };

    if (!usable(router))
        fail("LAN_ADDRESS", "This is the network or broadcast address.");
    else if (is_in_providers_network(router, mask))
        fail("LAN_ADDRESS", "This address range is used by the provider's network.");
    if (is_switched_off(form, "DHCP_ENABLED"))
        return;
    if (!usable(first))
        fail("DHCP_FIRST", "This address is not in the router's network.");
    if (!usable(last))
        fail("DHCP_LAST", "This address is not in the router's network.");
    else if (last < first)
        fail("DHCP_LAST", "The last address is lower than the first.");
    else if (router >= first && router <= last)
        fail("DHCP_FIRST", "This range contains the router's address.");
}

// Responses.

void add_option(struct page *page, const char *list, const char *value, const char *text,
                std::string_view chosen) {
    corvel_data *const option = corvel_data_add(page->data, list);
    corvel_data_set(option, "value", value);
    corvel_data_set(option, "text", text);
    if (value == chosen)
        corvel_data_set(option, "chosen", "1");
}

/// Adds the values for switches and lists, whose state is an attribute, and the prefix length.
void add_choices(struct page *page, const struct form *form) {
    std::array<char, line_size> text{};
    for (const auto *name : {"DHCP_ENABLED", "WLAN_ENABLED", "WLAN_HIDDEN"}) {
        std::snprintf(text.data(), text.size(), "checked_%s", name);
        if (*form_value(form, name) == '1')
            corvel_data_set(page->data, text.data(), "checked");
    }
    for (int i = 0; i <= 13; i++) {
        std::snprintf(text.data(), text.size(), "%d", i);
        add_option(page, "channels", text.data(), i == 0 ? "Automatic" : text.data(),
                   form_value(form, "WLAN_CHANNEL"));
    }
    for (const auto &each : countries)
        add_option(page, "countries", each.code.data(), each.name, form_value(form, "COUNTRY"));
    unsigned prefix = 0;
    if (!corvel_check_netmask(form_value(form, "LAN_NETMASK"), &prefix))
        corvel_data_set_integer(page->data, "prefix_length", prefix);
}

void add_more(struct page *page, const struct form *form) {
    static const char *const applied[] = {"TIME", "RUNS"};
    put_file(page, "applied", &applied_file, applied, std::size(applied));
    add_choices(page, form);
}

constexpr setting settings[] = {
    {"LAN_ADDRESS", &lan_file, host_address, nullptr, false, false},
    {"LAN_NETMASK", &lan_file, netmask, nullptr, false, false},
    {"DHCP_ENABLED", &lan_file, flag, nullptr, true, false},
    {"DHCP_FIRST", &lan_file, host_address, "DHCP_ENABLED", false, false},
    {"DHCP_LAST", &lan_file, host_address, "DHCP_ENABLED", false, false},
    {"DHCP_LEASE", &lan_file, lease_hours, "DHCP_ENABLED", false, false},
    {"DOMAIN", &global_file, domain, nullptr, false, false},
    {"WLAN_ENABLED", &wireless_file, flag, nullptr, true, false},
    {"WLAN_SSID", &wireless_file, ssid, "WLAN_ENABLED", false, false},
    {"WLAN_HIDDEN", &wireless_file, flag, "WLAN_ENABLED", true, false},
    {"WLAN_PASSPHRASE", &wireless_file, passphrase, "WLAN_ENABLED", true, true},
    {"WLAN_CHANNEL", &wireless_file, channel, "WLAN_ENABLED", true, false},
    {"COUNTRY", &global_file, country, "WLAN_ENABLED", true, false},
};

} // namespace

constexpr settings_page network_settings = {"network", settings, std::size(settings), check_network,
                                            add_more};

// SPDX-License-Identifier: MIT
//
// The network page: LAN, DHCP server and wireless network.
//
// Its settings are in three files. Two of them have lines of the form NAME="value", which the
// device's shell scripts source; save_prop() saves all changed lines of such a file at once. The
// global file has lines of the form NAME "value", which save_global_conf() saves one by one.

#include "site.h"
#include "trap.h"

#include <arpa/inet.h>
#include <sys/file.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

namespace {

/// A property table that frees itself.
class Table {
  public:
    explicit Table(prop_table owned) : table(owned) {}
    ~Table() { free_table(&table); }
    Table(const Table &) = delete;
    Table &operator=(const Table &) = delete;

    [[nodiscard]] const prop_table *get() const { return &table; }
    [[nodiscard]] int count() const { return table.count; }
    [[nodiscard]] const prop_entry *rows() const { return table.rows; }

    /// The value of a file's setting, unquoted and unescaped; empty if there is no such setting.
    [[nodiscard]] std::string setting(const char *name) const {
        std::array<char, value_size> value{};
        return get_setting(name, value.data(), &table);
    }
    void insert(const char *name, const std::string &value) {
        table.count = ins_prop(name, value.c_str(), table.rows, table.count);
    }
    void insert_escaped_for_json(const char *name, const std::string &value) {
        insert_json(&table, name, value.c_str());
    }

  private:
    prop_table table;
};

/// Holds the lock on all settings during its lifetime.
class SettingsLock {
  public:
    explicit SettingsLock(int operation) : lock(lock_settings(operation)) {}
    ~SettingsLock() { unlock_settings(lock); }
    SettingsLock(const SettingsLock &) = delete;
    SettingsLock &operator=(const SettingsLock &) = delete;

  private:
    int lock;
};

// Validation. Each check returns a message for the user, or null if the value is valid.

using Complaint = const char *;

std::optional<std::uint32_t> ipv4(const std::string &text) {
    in_addr address{};
    if (inet_pton(AF_INET, text.c_str(), &address) != 1)
        return std::nullopt;
    return ntohl(address.s_addr);
}

std::optional<int> number(std::string_view text, int lowest, int highest) {
    int value = 0;
    const char *end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc{} || stop != end || value < lowest || value > highest)
        return std::nullopt;
    if (std::to_string(value) !=
        text) // accepts only one form of each number, without leading zeros
        return std::nullopt;
    return value;
}

std::uint32_t mask_of_length(int prefix) { return prefix ? ~std::uint32_t{0} << (32 - prefix) : 0; }

Complaint flag(const std::string &value) {
    return value == "0" || value == "1" ? nullptr : "Choose on or off.";
}

Complaint host_address(const std::string &value) {
    const auto address = ipv4(value);
    if (!address)
        return "Use an address such as 192.168.1.1.";
    const auto network = *address >> 24U;
    return network >= 1 && network <= 223 && network != 127 ? nullptr
                                                            : "No device can have this address.";
}

/// The library counts the one bits; the only valid mask with that number is the contiguous one.
Complaint netmask(const std::string &value) {
    const auto mask = ipv4(value);
    const int prefix = mask ? calc_netpriexlength(value.c_str()) : 0;
    if (prefix < 8 || prefix > 30 || *mask != mask_of_length(prefix))
        return "Use a mask such as 255.255.255.0.";
    return nullptr;
}

Complaint lease_hours(const std::string &value) {
    return number(value, 1, 168) ? nullptr : "Use 1 to 168 hours.";
}

Complaint domain(const std::string &value) {
    const auto fits = [](unsigned char c) {
        return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.';
    };
    if (value.size() > 63)
        return "Use at most 63 characters.";
    return std::ranges::all_of(value, fits) ? nullptr
                                            : "Use lowercase letters, digits, hyphens and dots.";
}

Complaint ssid(const std::string &value) {
    if (value.empty() || value.size() > 32)
        return "Use 1 to 32 characters. Accented characters count as two or more.";
    return text_complaint(value.c_str());
}

Complaint passphrase(const std::string &value) {
    const auto printable = [](unsigned char c) {
        return c >= 0x20 && c <= 0x7E;
    };
    if (value.size() < 8 || value.size() > 63)
        return "Use 8 to 63 characters.";
    if (!std::ranges::all_of(value, printable))
        return "Use the letters, digits and symbols of a US keyboard.";
    return text_complaint(value.c_str());
}

Complaint channel(const std::string &value) {
    return number(value, 0, 13) ? nullptr : "Use a channel from 1 to 13, or automatic.";
}

struct Country {
    const char *code;
    const char *name;
};

constexpr std::array countries = {
    Country{"AU", "Australia"},      Country{"AT", "Austria"},     Country{"BR", "Brazil"},
    Country{"FR", "France"},         Country{"DE", "Germany"},     Country{"IN", "India"},
    Country{"IT", "Italy"},          Country{"JP", "Japan"},       Country{"ZA", "South Africa"},
    Country{"ES", "Spain"},          Country{"CH", "Switzerland"}, Country{"UA", "Ukraine"},
    Country{"GB", "United Kingdom"},
};

Complaint country(const std::string &value) {
    const auto is_it = [&](const Country &each) {
        return value == each.code;
    };
    return std::ranges::any_of(countries, is_it) ? nullptr : "Choose a country from the list.";
}

/// True if the LAN overlaps the provider's network. The kernel would accept that, but would then
/// look for the provider's gateway in the LAN.
bool is_in_providers_network(std::uint32_t address, std::uint32_t mask) {
    std::array<char, INET_ADDRSTRLEN> text{};
    const auto ask = [&](unsigned selector) {
        return ipv4(getHWip("wan0", selector, text.data(), INET_ADDRSTRLEN)).value_or(0);
    };
    const auto provider = ask(CORVEL_ADDRESS_IPV4);
    return provider != 0 && ((address ^ provider) & mask & ask(CORVEL_ADDRESS_NETMASK)) == 0;
}

/// A setting has the same name in the file, the form, the template and the JSON document.
struct Setting {
    const char *name;
    const settings_file *file;
    Complaint (*complaint)(const std::string &value);
    std::string value{};
    Complaint error = nullptr;
    bool changed = false;
};

class Settings {
  public:
    /// Loads the values. The caller must hold the lock.
    Settings() {
        for (const auto *file : {&lan_file, &wireless_file, &global_file}) {
            const Table stored(load_settings(file));
            for (auto &setting : all)
                if (setting.file == file)
                    setting.value = stored.setting(setting.name);
        }
    }

    /// Changes the settings that the request contains.
    /// @return true if it contains any.
    bool take() {
        bool any = false;
        for (auto &setting : all)
            if (const char *sent = find_field(setting.name)) {
                any = true;
                setting.changed = setting.value != sent;
                setting.value = sent;
            }
        return any;
    }

    /// @return true if the settings are valid, each by itself and together.
    bool check() {
        for (auto &setting : all)
            setting.error = setting.complaint(setting.value);
        if (!has_errors())
            check_network();
        return !has_errors();
    }

    void save() const {
        save_lines(lan_file);
        save_lines(wireless_file);
        const Table stored(load_settings(&global_file));
        for (const auto &setting : all)
            if (setting.file == &global_file && setting.changed)
                save_global(setting.name, setting.value.c_str(), stored.get());
    }

    [[nodiscard]] auto begin() const { return all.begin(); }
    [[nodiscard]] auto end() const { return all.end(); }
    [[nodiscard]] const std::string &operator[](std::string_view name) const {
        return find(name).value;
    }

  private:
    [[nodiscard]] const Setting &find(std::string_view name) const {
        return *std::ranges::find(all, name, &Setting::name);
    }
    [[nodiscard]] Setting &find(std::string_view name) {
        return *std::ranges::find(all, name, &Setting::name);
    }

    [[nodiscard]] bool has_errors() const {
        return std::ranges::any_of(all, [](const Setting &setting) { return setting.error; });
    }

    /// Checks the addresses against each other. Each of them is valid by itself.
    void check_network() {
        const auto mask = *ipv4(find("LAN_NETMASK").value);
        const auto router = *ipv4(find("LAN_ADDRESS").value);
        const auto network = router & mask;
        const auto broadcast = network | ~mask;
        const auto first = *ipv4(find("DHCP_FIRST").value);
        const auto last = *ipv4(find("DHCP_LAST").value);
        const auto usable = [&](auto address) {
            return address > network && address < broadcast;
        };

        if (!usable(router))
            find("LAN_ADDRESS").error = "This is the network or broadcast address.";
        else if (is_in_providers_network(router, mask))
            find("LAN_ADDRESS").error = "This address range is used by the provider's network.";
        if (!usable(first))
            find("DHCP_FIRST").error = "This address is not in the router's network.";
        if (!usable(last))
            find("DHCP_LAST").error = "This address is not in the router's network.";
        else if (last < first)
            find("DHCP_LAST").error = "The last address is lower than the first.";
        else if (router >= first && router <= last)
            find("DHCP_FIRST").error = "This range contains the router's address.";
    }

    /// The table contains only changed settings: save_prop() adds quotes to each value, and would
    /// add a second pair to the values of a loaded file.
    void save_lines(const settings_file &file) const {
        Table lines(new_table(all.size()));
        for (const auto &setting : all) {
            std::array<char, std::size_t{2} * value_size> escaped{};
            if (setting.file == &file && setting.changed)
                lines.insert(setting.name, add_escape(setting.value.c_str(), escaped.data()));
        }
        if (lines.count() > 0)
            save_prop(file.separator, file.path, lines.rows(), lines.count());
    }

    std::array<Setting, 13> all = {{
        {"LAN_ADDRESS", &lan_file, host_address},
        {"LAN_NETMASK", &lan_file, netmask},
        {"DHCP_ENABLED", &lan_file, flag},
        {"DHCP_FIRST", &lan_file, host_address},
        {"DHCP_LAST", &lan_file, host_address},
        {"DHCP_LEASE", &lan_file, lease_hours},
        {"DOMAIN", &global_file, domain},
        {"WLAN_ENABLED", &wireless_file, flag},
        {"WLAN_SSID", &wireless_file, ssid},
        {"WLAN_HIDDEN", &wireless_file, flag},
        {"WLAN_PASSPHRASE", &wireless_file, passphrase},
        {"WLAN_CHANNEL", &wireless_file, channel},
        {"COUNTRY", &global_file, country},
    }};
};

// Responses.

std::string option(const std::string &value, const std::string &text, const std::string &chosen) {
    const char *selected = value == chosen ? " selected" : "";
    return "<option value=\"" + value + "\"" + selected + ">" + text + "</option>";
}

std::string channel_options(const std::string &chosen) {
    std::string options = option("0", "Automatic", chosen);
    for (int i = 1; i <= 13; i++)
        options += option(std::to_string(i), std::to_string(i), chosen);
    return options;
}

std::string country_options(const std::string &chosen) {
    std::string options;
    for (const auto &each : countries)
        options += option(each.code, each.name, chosen);
    return options;
}

std::string prefix_length(const std::string &mask) {
    return netmask(mask) ? "–" : std::to_string(calc_netpriexlength(mask.c_str()));
}

/// Adds the fields for switches and lists, whose state is an attribute, and the prefix length.
void add_choices(str_node **fields, const Settings &settings) {
    for (const auto *name : {"DHCP_ENABLED", "WLAN_ENABLED", "WLAN_HIDDEN"})
        add_str(fields, (std::string("checked_") + name).c_str(),
                settings[name] == "1" ? "checked" : "");
    add_str(fields, "options_channel", channel_options(settings["WLAN_CHANNEL"]).c_str());
    add_str(fields, "options_country", country_options(settings["COUNTRY"]).c_str());
    add_str(fields, "prefix_length", prefix_length(settings["LAN_NETMASK"]).c_str());
}

void show(const char *status, const Settings &settings, const char *message) {
    str_node *fields = nullptr;
    const Table applied(load_settings(&applied_file));
    add_html(&fields, "message", message);
    add_html(&fields, "applied", applied.setting("TIME").c_str());
    add_choices(&fields, settings);
    for (const auto &setting : settings) {
        const std::string error = std::string("error_") + setting.name;
        add_html(&fields, setting.name, setting.value.c_str());
        add_html(&fields, error.c_str(), setting.error ? setting.error : "");
    }
    print_page(status, "network", "Network", &fields);
}

/// Prints two sections: the settings from a field list, the applied settings from a table.
void show_json(const Settings &settings) {
    str_node *fields = nullptr;
    for (const auto &setting : settings)
        add_json(&fields, setting.name, setting.value.c_str());

    const Table applied(load_settings(&applied_file));
    Table in_force(new_table(2));
    for (const auto *name : {"TIME", "RUNS"})
        in_force.insert_escaped_for_json(name, applied.setting(name));

    print_json_head();
    std::printf("{\n");
    printjson_hdr("settings");
    list2json_data(fields);
    printjson_tail();
    std::printf(",\n");
    printjson_hdr("applied");
    prop2json(in_force.rows(), in_force.count());
    printjson_tail();
    std::printf("\n}\n");
    free_list(&fields);
}

/// The caller holds the lock from loading to saving, so that the checked values are those saved.
bool save(Settings &settings) {
    const bool good = settings.check();
    if (good)
        settings.save();
    return good;
}

void handle_post() {
    std::optional<SettingsLock> lock(LOCK_EX);
    Settings settings;
    const bool any = settings.take();
    const bool saved = any && save(settings);
    lock.reset();

    if (saved) {
        save_config();
        print_redirect("/cgi-bin/network?saved=1");
        send_trap("settings saved: network");
    } else if (any) {
        show("422 Unprocessable Content", settings, "The settings have not been saved. See below.");
    } else {
        show("400 Bad Request", settings, "The request contains no setting of this page.");
    }
}

Settings read_settings() {
    const SettingsLock lock(LOCK_SH);
    return {};
}

void handle_get() {
    const Settings settings = read_settings();
    if (isajax_get())
        return show_json(settings);
    show("200 OK", settings, find_field("saved") ? "Saved." : "");
}

} // namespace

int main() {
    if (accept_request())
        handle_post();
    else
        handle_get();
}

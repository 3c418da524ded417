// SPDX-License-Identifier: MIT
// Filling a page of N lines with a marker in every tenth line, each for a different field.
//
// All sides read the page's file and print the filled page to standard output, as a CGI program
// does once: the peer's cache of parsed templates is cleared each time. Each side starts with the
// fields in its own kind of list, and only the filling is measured. The library consumes its list,
// which is built again each time.
//
// In "list order" the markers are in the order of the fields, in "shuffled" in a random order, in
// which a linear search skips half of the remaining fields on average.
//
// The limit copies the unfilled page with fgets() and fputs().
#include "bench/harness.h"

#include <corvel.h>

#include <algorithm>
#include <ctemplate/template.h>
#include <numeric>
#include <random>
#include <vector>

namespace {

enum class Order { list, shuffled };

struct Field {
    std::string name;
    std::string value;
};

std::vector<Field> make_fields(std::size_t lines) {
    std::vector<Field> fields;
    char name[32];
    char value[32];
    for (std::size_t i = 0; i < lines / 10; ++i) {
        std::snprintf(name, sizeof name, "lan_%05zu", i);
        std::snprintf(value, sizeof value, "192.168.%03zu.%03zu", i / 256, i % 256);
        fields.push_back({name, value});
    }
    return fields;
}

/// The page, with markers between @p opening and @p closing.
std::string page_text(const std::vector<Field> &fields, Order order, const char *opening,
                      const char *closing) {
    std::vector<std::size_t> turn(fields.size());
    std::iota(turn.begin(), turn.end(), std::size_t{0});
    if (order == Order::shuffled)
        std::shuffle(turn.begin(), turn.end(), std::mt19937(1));
    std::string text;
    for (const std::size_t i : turn) {
        for (int line = 0; line < 9; ++line)
            text += "    <tr class=\"setting\"><td>Address of the port</td></tr>\n";
        text += "    <tr><td><input name=\"address\" value=\"" + (opening + fields[i].name) +
                closing + "\"></td></tr>\n";
    }
    return text;
}

std::string place_page(const char *kind, std::string_view text) {
    std::string path = bench::scratch_path(kind);
    bench::write_file(path, text);
    return path;
}

/// The expected output of every side.
std::string filled_page(const std::vector<Field> &fields, Order order) {
    std::string text = page_text(fields, order, "$", "");
    for (const Field &field : fields) {
        const std::string marker = '$' + field.name;
        text.replace(text.find(marker), marker.size(), field.value);
    }
    return text;
}

/// The list as built by add_str(), but linked here without walking the list.
str_node *build_list(const std::vector<Field> &fields) {
    str_node *head = nullptr;
    str_node **end = &head;
    for (const Field &field : fields) {
        add_str(end, field.name.c_str(), field.value.c_str());
        end = &(*end)->next;
    }
    return head;
}

template <Order order> void corvel(benchmark::State &state) {
    const auto fields = make_fields(static_cast<std::size_t>(state.range(0)));
    const std::string path = place_page("page.html", page_text(fields, order, "$", ""));
    str_node *list = build_list(fields);
    const std::string page = bench::printed([&] { print_html(path.c_str(), &list); });
    bench::require(page == filled_page(fields, order) && list == nullptr,
                   "print_html() prints a wrong page");

    bench::measure(
        state, [&] { list = build_list(fields); },
        [&] {
            print_html(path.c_str(), &list);
            std::fflush(stdout);
        },
        [&] { free_list(&list); });
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void fill_with_ctemplate(const std::string &path, const ctemplate::TemplateDictionary &fields) {
    ctemplate::mutable_default_template_cache()->ClearCache();
    std::string page;
    ctemplate::ExpandTemplate(path, ctemplate::DO_NOT_STRIP, &fields, &page);
    std::fwrite(page.data(), 1, page.size(), stdout);
    std::fflush(stdout);
}

template <Order order> void ctemplate_library(benchmark::State &state) {
    const auto fields = make_fields(static_cast<std::size_t>(state.range(0)));
    const std::string path = place_page("page.tpl", page_text(fields, order, "{{", "}}"));
    ctemplate::TemplateDictionary dictionary("page");
    for (const Field &field : fields)
        dictionary.SetValue(field.name, field.value);
    const std::string page = bench::printed([&] { fill_with_ctemplate(path, dictionary); });
    bench::require(page == filled_page(fields, order), "ctemplate prints a wrong page");

    bench::measure(state, [&] { fill_with_ctemplate(path, dictionary); });
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <Order order> void limit(benchmark::State &state) {
    const auto fields = make_fields(static_cast<std::size_t>(state.range(0)));
    const std::string path = place_page("page.html", page_text(fields, order, "$", ""));
    bench::measure(state, [&path] {
        const bench::File page(std::fopen(path.c_str(), "r"));
        char line[CORVEL_LINE_SIZE];
        while (std::fgets(line, sizeof line, page.get()) != nullptr)
            std::fputs(line, stdout);
        std::fflush(stdout);
    });
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

const std::vector<bench::Size> sizes = {{200}, {2000}, {20000}};
const bench::Job list_order("fill a page, list order", sizes,
                            {{"corvel", corvel<Order::list>},
                             {"ctemplate", ctemplate_library<Order::list>},
                             {"limit", limit<Order::list>}});
const bench::Job shuffled_order("fill a page, shuffled", sizes,
                                {{"corvel", corvel<Order::shuffled>},
                                 {"ctemplate", ctemplate_library<Order::shuffled>},
                                 {"limit", limit<Order::shuffled>}});

} // namespace

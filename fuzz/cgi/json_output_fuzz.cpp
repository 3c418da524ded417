// SPDX-License-Identifier: MIT
// JSON output against the same bytes, concatenated in a std::string.
//
// Input: a byte (how many pairs), the section's name NUL, then name NUL value NUL of each pair.
#include "corvel.h"
#include "fuzz/harness.h"

namespace {

using namespace corvel_fuzz;

constexpr std::size_t most_pairs = 24;
constexpr std::size_t longest_field_name = CORVEL_FIELD_NAME_SIZE - 1;
constexpr std::size_t longest_field_value = CORVEL_FIELD_VALUE_SIZE - 1;

struct Pair {
    std::string name;
    std::string value;
};

using Pairs = std::vector<Pair>;

std::string json_of(const Pairs &pairs) {
    std::string text;
    for (const Pair &pair : pairs) {
        if (!text.empty())
            text += ",\n";
        text += "\t\"" + pair.name + "\":\"" + pair.value + "\"";
    }
    return text;
}

/** The document with a list; the braces of an empty list contain an empty line. */
std::string document_of(const std::string &section, const Pairs &pairs) {
    return "{\n\t\"" + section + "\": [\n\t{\n" + json_of(pairs) + "\n\t}\n\t]\n}";
}

void check_list(const std::string &section, Pairs pairs) {
    str_node *list = nullptr;
    for (Pair &pair : pairs) {
        check(add_str(&list, pair.name.c_str(), pair.value.c_str()) != nullptr, "add_str");
        pair.name = cut(pair.name, longest_field_name);
        pair.value = cut(pair.value, longest_field_value);
    }
    check_equal(output_of([&] { list2json_data(list); }), json_of(pairs), "list2json_data");
    int result = 0;
    const std::string printed = output_of([&] { result = list2json(list, section.c_str()); });
    check_equal(printed, document_of(section, pairs), "list2json");
    check_equal(result, 4, "list2json returns the size of its last line");
    free_list(&list);
}

/** Rows as a caller may build them: values of any length, in blocks of exactly their size. */
void check_table(const Pairs &pairs) {
    std::vector<std::unique_ptr<char[]>> names;
    std::vector<std::unique_ptr<char[]>> values;
    Pairs stripped;
    for (const Pair &pair : pairs) {
        names.push_back(exact_copy(pair.name));
        values.push_back(exact_copy(pair.value));
        stripped.push_back({pair.name, without_quotes(pair.value)});
    }
    std::vector<prop_entry> table;
    for (std::size_t i = 0; i < pairs.size(); ++i)
        table.push_back({0, 0, names[i].get(), values[i].get()});
    const int count = static_cast<int>(table.size());
    int result = -1;
    const std::string printed = output_of([&] { result = prop2json(table.data(), count); });
    check_equal(printed, json_of(stripped), "prop2json");
    check_equal(result, 0, "prop2json returns 0");
    for (std::size_t i = 0; i < pairs.size(); ++i)
        check_equal(table[i].value, pairs[i].value, "the table is unchanged");
}

void check_pieces(const std::string &section, std::size_t pairs) {
    const std::string head = "\t\"" + section + "\": [\n";
    const char *name = section.c_str();
    std::vector<int> results;
    const std::string printed = output_of([&] {
        results = {printjson_hdr0(name), printjson_hdr1(),  printjson_hdr(name),
                   printjson_tail0(),    printjson_tail1(), printjson_tail()};
    });
    check_equal(printed, head + "\t{" + head + "\t{" + "}" + "\t]" + "\n\t}\n\t]", "the pieces");
    check(results == std::vector<int>{static_cast<int>(head.size()), 2, 2, '}', 2, 2},
          "each piece returns the size of what it printed last");
    check_equal(output_of([] { prop2json(nullptr, 0); }), "", "no rows, no output");
    check_equal(output_of([&] { prop2json(nullptr, -static_cast<int>(pairs)); }), "",
                "a negative count is zero");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    Input input(data, size);
    Pairs pairs(input.byte() % most_pairs);
    const std::string section = input.text();
    for (Pair &pair : pairs) {
        pair.name = input.text();
        pair.value = input.text();
    }
    in_different_surroundings([&] {
        check_list(section, pairs);
        check_table(pairs);
        check_pieces(section, pairs.size());
        return std::string();
    });
    return 0;
}

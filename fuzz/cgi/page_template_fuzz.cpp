// SPDX-License-Identifier: MIT
// Page templates against a direct implementation of the rules: the bytes printed and the fields
// left.
//
// Input: a byte (how many fields), name NUL value NUL of each field, then the template.
#include "corvel.h"
#include "fuzz/harness.h"

#include <algorithm>

namespace {

using namespace corvel_fuzz;

constexpr std::size_t most_fields = 24;
constexpr std::size_t longest_field_name = CORVEL_FIELD_NAME_SIZE - 1;
constexpr std::size_t longest_field_value = CORVEL_FIELD_VALUE_SIZE - 1;

struct Field {
    std::string name;
    std::string value;
};

using Fields = std::vector<Field>;

/** Fills one piece of a line; the fields used are removed from the list. */
std::string filled(std::string text, Fields &fields) {
    std::size_t from = 0;
    while (from <= text.size()) {
        const std::size_t marker = text.find('$', from);
        if (marker == std::string_view::npos)
            break;
        from = marker + 1;
        const std::string_view rest = std::string_view(text).substr(from);
        const auto field = std::find_if(fields.begin(), fields.end(), [&](const Field &each) {
            return rest.starts_with(each.name);
        });
        if (field == fields.end())
            continue;
        text.replace(marker, 1 + field->name.size(), field->value);
        fields.erase(field);
    }
    return text;
}

std::string page_of(std::string_view page_template, Fields &fields) {
    std::string page;
    for (const Piece &piece : pieces_of(page_template))
        page += filled(std::string(as_text(piece.text)), fields);
    return page;
}

str_node *list_of(const Fields &fields) {
    str_node *list = nullptr;
    for (const Field &field : fields) {
        const bool first = list == nullptr;
        const void *added = add_str(&list, field.name.c_str(), field.value.c_str());
        check(added != nullptr, "add_str");
        check(!first || added == list, "the first field added is the head");
    }
    return list;
}

void check_same(const str_node *list, const Fields &fields, const char *relation) {
    for (const Field &field : fields) {
        check(list != nullptr, relation);
        check_equal(list->name, field.name, relation);
        check_equal(list->value, field.value, relation);
        list = list->next;
    }
    check(list == nullptr, relation);
}

std::string check_page(const char *path, std::string_view page_template, Fields fields) {
    str_node *list = list_of(fields);
    check_same(list, fields, "fields are kept in order");
    int result = -1;
    std::string printed = output_of([&] { result = print_html(path, &list); });
    check_equal(result, 0, "print_html returns 0");
    check_equal(printed, page_of(page_template, fields), "the page");
    check_same(list, fields, "fields that no marker used are left");
    free_list(&list);
    check(list == nullptr, "an emptied list has no head");
    return printed;
}

/** Without fields a template is copied, each piece up to its first NUL. */
void check_copy(const char *path, std::string_view page_template) {
    str_node *none = nullptr;
    const std::string printed = output_of([&] { print_html(path, &none); });
    if (page_template.find('\0') == std::string_view::npos)
        check_equal(printed, page_template, "a template without fields is copied");
}

/** A single marker: look-up, and replacement in a block of exactly the size of the result. */
void check_marker(std::string_view text, const Fields &fields) {
    str_node *list = list_of(fields);
    const auto source = exact_copy(text);
    const str_node *found = find_keyword(source.get(), list);
    const auto expected = std::find_if(fields.begin(), fields.end(), [&](const Field &each) {
        return text.starts_with(each.name);
    });
    check((found != nullptr) == (expected != fields.end()), "find_keyword finds an existing field");
    if (found != nullptr) {
        check_equal(found->name, expected->name, "the first field in list order is found");
        check_equal(found->value, expected->value, "the first field in list order is found");
        const std::string grown = expected->value + std::string(text.substr(expected->name.size()));
        const auto buffer = padded_copy("$" + std::string(text), grown.size() + 1);
        check(change_keyword(buffer.get(), found) == buffer.get(), "change_keyword's result");
        check_equal(buffer.get(), grown, "change_keyword");
    }
    free_list(&list);
}

void check_removal(Fields fields) {
    str_node *list = list_of(fields);
    const std::string longer_than_any(longest_field_name + 1, 'n');
    delete_string(&list, longer_than_any.c_str());
    check_same(list, fields, "delete_string leaves other fields unchanged");
    while (!fields.empty()) {
        const std::string name = fields[fields.size() / 2].name;
        const auto first = std::find_if(fields.begin(), fields.end(),
                                        [&](const Field &each) { return each.name == name; });
        fields.erase(first);
        delete_string(&list, name.c_str());
        check_same(list, fields, "delete_string removes the first field of a name");
    }
    check(list == nullptr, "the list is empty");
}

void check_hidden_inputs(const Fields &fields) {
    std::string inputs;
    std::string braced;
    std::string names;
    std::vector<std::unique_ptr<char[]>> texts;
    for (const Field &field : fields) {
        const std::string start = "<input type=\"hidden\" name=\"" + field.name + "\" value=\"$";
        inputs += start + field.name + "\">\n";
        braced += start + "{" + field.name + "}\">\n";
        names += "\"" + field.name + "\",\n";
        texts.push_back(exact_copy(field.name));
    }
    std::vector<prop_entry> table;
    table.reserve(texts.size());
    for (const auto &name : texts)
        table.push_back({0, 0, name.get(), nullptr});
    str_node *list = list_of(fields);
    check_equal(output_of([&] { generate_hidder_from_list(list); }), inputs,
                "generate_hidder_from_list");
    check_equal(output_of([&] { print_list(list); }), "", "print_list prints nothing");
    free_list(&list);
    const int count = static_cast<int>(table.size());
    check_equal(output_of([&] { generate_hidder_from_prop(table.data(), count); }), braced + names,
                "generate_hidder_from_prop");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static MemoryFile file;
    Input input(data, size);
    Fields fields(input.byte() % most_fields);
    for (Field &field : fields) {
        field.name = cut(input.text(), longest_field_name);
        field.value = cut(input.text(), longest_field_value);
    }
    const std::string page_template = input.rest();
    file.fill(page_template);
    in_different_surroundings([&] { return check_page(file.path(), page_template, fields); });
    check_copy(file.path(), page_template);
    check_marker(as_text(page_template), fields);
    check_removal(fields);
    check_hidden_inputs(fields);
    return 0;
}

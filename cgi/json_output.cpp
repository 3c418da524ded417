// SPDX-License-Identifier: MIT
#include <corvel.h>

#include "cgi/field_list.h"
#include "config/property_table.h"
#include "support/output.h"
#include "support/text.h"

namespace corvel {
namespace {

/// Prints pairs, separated by a comma and a newline.
class PairPrinter {
  public:
    explicit PairPrinter(std::FILE *stream) : out_(stream) {}

    void put(std::string_view name, std::string_view value) {
        out_.put(first_ ? "\t\"" : ",\n\t\"");
        out_.put(name);
        out_.put("\":\"");
        out_.put(value);
        out_.put("\"");
        first_ = false;
    }

  private:
    Output out_;
    bool first_ = true;
};

void print_pairs(const str_node *list) {
    PairPrinter printer(stdout);
    for (const str_node *field = list; field != nullptr; field = field->next)
        printer.put(name_of(*field), value_of(*field));
}

int print_section_start(const char *name) {
    return std::printf("\t\"%s\": [\n", text_or_empty(name));
}

int print_object_start() { return std::printf("\t{"); }

} // namespace
} // namespace corvel

using namespace corvel;

extern "C" {

int printjson_hdr0(const char *name) { return print_section_start(name); }

int printjson_hdr1(void) { return print_object_start(); }

int printjson_hdr(const char *name) {
    print_section_start(name);
    return print_object_start();
}

int printjson_tail0(void) { return std::putchar('}'); }

int printjson_tail1(void) { return std::printf("\t]"); }

int printjson_tail(void) {
    std::puts("\n\t}");
    return std::printf("\t]");
}

void list2json_data(const str_node *list) { print_pairs(list); }

int list2json(const str_node *list, const char *name) {
    std::printf("{\n\t\"%s\": [\n", text_or_empty(name));
    std::puts("\t{");
    print_pairs(list);
    std::puts("\n\t}");
    return std::printf("\t]\n}");
}

int prop2json(const prop_entry *table, int count) {
    PairPrinter printer(stdout);
    for (const prop_entry &row : rows_of(table, count))
        printer.put(text_of(row.name), stripped(text_of(row.value), '"'));
    return 0;
}

} // extern "C"

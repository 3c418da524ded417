// SPDX-License-Identifier: MIT
// Writing N pairs as JSON, from a field list and from a property table.
//
// All sides read the same records, without knowing the lengths of the strings, and write a document
// with one section to standard output, which is flushed. RapidJSON writes directly to a stream over
// stdout with the 64 KB buffer recommended in its manual; json-c has no such writer, so its tree is
// built, printed and released. Both escape strings; by contract, the library does not, so that a
// page that needs escaping must do it separately.
#include "bench/harness.h"

#include <corvel.h>

#include <json-c/json.h>
#include <rapidjson/filewritestream.h>
#include <rapidjson/writer.h>
#include <vector>

namespace {

std::string name_of_pair(std::size_t i) {
    char name[32];
    std::snprintf(name, sizeof name, "lan_port_%05zu", i);
    return name;
}

std::string value_of_pair(std::size_t i) {
    char value[48];
    std::snprintf(value, sizeof value, "192.168.%03zu.%03zu", i / 256, i % 256);
    return value;
}

/// Pairs in a field list; @p write is called with the name and value of each record.
class List {
  public:
    explicit List(std::size_t pairs) {
        str_node **end = &head_;
        for (std::size_t i = 0; i < pairs; ++i) {
            add_str(end, name_of_pair(i).c_str(), value_of_pair(i).c_str());
            end = &(*end)->next;
        }
    }
    ~List() { free_list(&head_); }
    List(const List &) = delete;
    List &operator=(const List &) = delete;

    void print() const { list2json(head_, "data"); }
    template <typename Write> void each(Write write) const {
        for (const str_node *field = head_; field != nullptr; field = field->next)
            write(field->name, std::string_view(field->value));
    }

  private:
    str_node *head_ = nullptr;
};

/// Pairs in a property table, with the values quoted as in a file.
class Table {
  public:
    explicit Table(std::size_t pairs) : rows_(pairs) {
        for (std::size_t i = 0; i < pairs; ++i)
            ins_pr(name_of_pair(i).c_str(), ('"' + value_of_pair(i) + '"').c_str(), &rows_[i], 0);
    }
    ~Table() { free_prop(rows_.data(), count()); }
    Table(const Table &) = delete;
    Table &operator=(const Table &) = delete;

    void print() const {
        std::fputs("{\n", stdout);
        printjson_hdr("data");
        prop2json(rows_.data(), count());
        printjson_tail();
        std::fputs("\n}", stdout);
    }
    template <typename Write> void each(Write write) const {
        for (const prop_entry &row : rows_) {
            std::string_view value = row.value;
            if (!value.empty() && value.front() == '"')
                value.remove_prefix(1);
            if (!value.empty() && value.back() == '"')
                value.remove_suffix(1);
            write(row.name, value);
        }
    }

  private:
    [[nodiscard]] int count() const { return static_cast<int>(rows_.size()); }
    std::vector<prop_entry> rows_;
};

template <typename Pairs> void print_with_rapidjson(const Pairs &pairs) {
    static char buffer[65536];
    rapidjson::FileWriteStream stream(stdout, buffer, sizeof buffer);
    rapidjson::Writer<rapidjson::FileWriteStream> writer(stream);
    writer.StartObject();
    writer.Key("data");
    writer.StartArray();
    writer.StartObject();
    pairs.each([&writer](const char *name, std::string_view value) {
        writer.Key(name);
        writer.String(value.data(), static_cast<rapidjson::SizeType>(value.size()));
    });
    writer.EndObject();
    writer.EndArray();
    writer.EndObject();
    stream.Flush();
}

template <typename Pairs> void print_with_json_c(const Pairs &pairs) {
    json_object *document = json_object_new_object();
    json_object *section = json_object_new_array();
    json_object *object = json_object_new_object();
    json_object_object_add(document, "data", section);
    json_object_array_add(section, object);
    pairs.each([object](const char *name, std::string_view value) {
        json_object_object_add(
            object, name, json_object_new_string_len(value.data(), static_cast<int>(value.size())));
    });
    std::fputs(json_object_to_json_string_ext(document, JSON_C_TO_STRING_PLAIN), stdout);
    json_object_put(document);
}

/// Whether a printed document is valid and contains the pairs.
template <typename Pairs> bool holds(const std::string &text, const Pairs &pairs) {
    json_object *document = json_tokener_parse(text.c_str());
    const json_object *object =
        json_object_array_get_idx(json_object_object_get(document, "data"), 0);
    int count = 0;
    bool same = object != nullptr;
    pairs.each([&](const char *name, std::string_view value) {
        json_object *found = nullptr;
        same = same && json_object_object_get_ex(object, name, &found) != 0 &&
               value == json_object_get_string(found);
        ++count;
    });
    same = same && count == json_object_object_length(object);
    json_object_put(document);
    return same;
}

template <typename Pairs, typename Print> void measure_print(benchmark::State &state, Print print) {
    const Pairs pairs(static_cast<std::size_t>(state.range(0)));
    bench::require(holds(bench::printed([&] { print(pairs); }), pairs),
                   "a document does not contain the pairs");
    bench::measure(state, [&] {
        print(pairs);
        std::fflush(stdout);
    });
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <typename Pairs> void corvel(benchmark::State &state) {
    measure_print<Pairs>(state, [](const Pairs &pairs) { pairs.print(); });
}

template <typename Pairs> void rapidjson_library(benchmark::State &state) {
    measure_print<Pairs>(state, print_with_rapidjson<Pairs>);
}

template <typename Pairs> void json_c(benchmark::State &state) {
    measure_print<Pairs>(state, print_with_json_c<Pairs>);
}

template <typename Pairs> std::vector<bench::Side> sides() {
    return {{"corvel", corvel<Pairs>},
            {"RapidJSON", rapidjson_library<Pairs>},
            {"json-c", json_c<Pairs>}};
}

const std::vector<bench::Size> sizes = {{100}, {1000}, {10000}};
const bench::Job list_job("write a list as JSON", sizes, sides<List>());
const bench::Job table_job("write a table as JSON", sizes, sides<Table>());

} // namespace

// SPDX-License-Identifier: MIT
// Loading a property file of N lines, and releasing the result.
//
// All sides read the same file and store copies of the name and the value of each line. inih stores
// nothing itself, so its handler stores a row of two heap copies as load_prop() does, but of the
// strings' lengths, where load_prop() allocates fixed blocks of CORVEL_PROP_VALUE_SIZE + 1 bytes:
// the peer's way is cheaper. libconfuse has its own storage; only its free-form mode accepts
// undeclared names, as load_prop() does (it reports each unknown name to an error function, which
// is empty here).
#include "bench/harness.h"

#include <corvel.h>

#include <confuse.h>
#include <cstdlib>
#include <cstring>
#include <ini.h>
#include <vector>

namespace {

std::string place_file(std::size_t lines) {
    std::string text;
    char line[64];
    for (std::size_t i = 0; i < lines; ++i) {
        std::snprintf(line, sizeof line, "LAN_PORT_%05zu=\"192.168.%zu.%zu\"\n", i, i / 256,
                      i % 256);
        text += line;
    }
    std::string path = bench::scratch_path("load_" + std::to_string(lines) + ".conf");
    bench::write_file(path, text);
    return path;
}

void corvel(benchmark::State &state) {
    const auto lines = static_cast<std::size_t>(state.range(0));
    const std::string path = place_file(lines);
    std::vector<prop_entry> table(lines);

    const int found = load_prop('=', path.c_str(), table.data());
    bench::require(static_cast<std::size_t>(found) == lines &&
                       std::strcmp(table[7].name, "LAN_PORT_00007") == 0 &&
                       std::strcmp(table[7].value, "\"192.168.0.7\"") == 0,
                   "load_prop() loads wrong values");
    free_prop(table.data(), found);

    bench::measure(state, [&] {
        const int count = load_prop('=', path.c_str(), table.data());
        free_prop(table.data(), count);
    });
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

struct Row {
    char *name;
    char *value;
};

struct Rows {
    std::vector<Row> rows;
    std::size_t count = 0;

    void release() {
        for (std::size_t i = 0; i < count; ++i) {
            std::free(rows[i].name);
            std::free(rows[i].value);
        }
        count = 0;
    }
};

int store_row(void *user, const char * /*section*/, const char *name, const char *value) {
    auto &rows = *static_cast<Rows *>(user);
    rows.rows[rows.count] = {strdup(name), strdup(value)};
    ++rows.count;
    return 1;
}

void inih(benchmark::State &state) {
    const auto lines = static_cast<std::size_t>(state.range(0));
    const std::string path = place_file(lines);
    Rows rows{std::vector<Row>(lines)};

    const int failed = ini_parse(path.c_str(), store_row, &rows);
    bench::require(failed == 0 && rows.count == lines &&
                       std::strcmp(rows.rows[7].value, "\"192.168.0.7\"") == 0,
                   "inih loads wrong values");
    rows.release();

    bench::measure(state, [&] {
        ini_parse(path.c_str(), store_row, &rows);
        rows.release();
    });
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void ignore_message(cfg_t * /*config*/, const char * /*format*/, va_list /*values*/) {}

cfg_t *load_with_libconfuse(const std::string &path) {
    cfg_opt_t none[] = {CFG_END()};
    cfg_t *config = cfg_init(none, CFGF_KEYSTRVAL);
    cfg_set_error_function(config, ignore_message);
    cfg_parse(config, path.c_str());
    return config;
}

void libconfuse(benchmark::State &state) {
    const auto lines = static_cast<std::size_t>(state.range(0));
    const std::string path = place_file(lines);

    cfg_t *config = load_with_libconfuse(path);
    const char *value = cfg_getstr(config, "LAN_PORT_00007");
    bench::require(value != nullptr && std::strcmp(value, "192.168.0.7") == 0,
                   "libconfuse loads wrong values");
    cfg_free(config);

    bench::measure(state, [&path] { cfg_free(load_with_libconfuse(path)); });
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

const bench::Job job("load a property file", {{100}, {1000}, {10000}},
                     {{"corvel", corvel}, {"inih", inih}, {"libconfuse", libconfuse}});

} // namespace

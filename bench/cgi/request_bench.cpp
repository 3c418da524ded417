// SPDX-License-Identifier: MIT
// Decoding a form: N fields of 50 bytes each, escapes and plus signs in every value.
//
// Both sides decode a GET request from QUERY_STRING in the same environment, because on this path
// neither reads a stream: only the decoding differs. Both copy every pair to the heap and release
// all memory within the measured time. The peer also looks up about thirty other variables of the
// environment; with 1,000 fields that is less than one percent of its time.
#include "bench/harness.h"

#include <corvel.h>

#include <cgicc/Cgicc.h>
#include <cstdlib>
#include <optional>
#include <vector>

namespace {

constexpr std::size_t field_bytes = 50;

std::string form_text(std::size_t fields) {
    std::string text;
    char field[field_bytes + 1];
    for (std::size_t i = 0; i < fields; ++i) {
        std::snprintf(field, sizeof field, "field_%05zu=Living+room+%%26+hall%%3A+port+%%23%05zu&",
                      i % 100000, i % 100000);
        text += field;
    }
    bench::require(text.size() == field_bytes * fields, "a field has the wrong size");
    return text;
}

std::string value_of_field(std::size_t i) {
    char value[64];
    std::snprintf(value, sizeof value, "Living room & hall: port #%05zu", i);
    return value;
}

/// Sets a variable of the environment; the destructor restores its previous value.
class Variable {
  public:
    Variable(const char *name, const std::string &value) : name_(name) {
        if (const char *const before = std::getenv(name))
            before_ = before;
        setenv(name, value.c_str(), 1);
    }
    ~Variable() {
        if (before_)
            setenv(name_, before_->c_str(), 1);
        else
            unsetenv(name_);
    }
    Variable(const Variable &) = delete;
    Variable &operator=(const Variable &) = delete;

  private:
    const char *name_;
    std::optional<std::string> before_;
};

/// A form sent with GET. The largest one is too large for the environment of a program started by
/// another job.
class Request {
  public:
    explicit Request(std::size_t fields) : query_("QUERY_STRING", form_text(fields)) {}

  private:
    Variable method_{"REQUEST_METHOD", "GET"};
    Variable query_;
};

void report_rate(benchmark::State &state) {
    state.SetBytesProcessed(state.iterations() * state.range(0) *
                            static_cast<std::int64_t>(field_bytes));
}

void corvel(benchmark::State &state) {
    const auto fields = static_cast<std::size_t>(state.range(0));
    const Request request(fields);
    std::vector<prop_entry> table(fields);

    const int found = process_query_string(table.data());
    bench::require(static_cast<std::size_t>(found) == fields &&
                       table[fields - 1].value == value_of_field(fields - 1),
                   "process_query_string() decodes the form incorrectly");
    free_prop(table.data(), found);

    bench::measure(state, [&table] {
        const int count = process_query_string(table.data());
        free_prop(table.data(), count);
    });
    report_rate(state);
}

void cgicc_library(benchmark::State &state) {
    const auto fields = static_cast<std::size_t>(state.range(0));
    const Request request(fields);
    {
        const cgicc::Cgicc form;
        bench::require(form.getElements().size() == fields &&
                           form.getElements().back().getValue() == value_of_field(fields - 1),
                       "libcgicc decodes the form incorrectly");
    }
    bench::measure(state, [] {
        const cgicc::Cgicc form;
        benchmark::DoNotOptimize(form.getElements().data());
    });
    report_rate(state);
}

const bench::Job job("decode a form", {{100}, {1000}, {10000}},
                     {{"corvel", corvel}, {"libcgicc", cgicc_library}});

} // namespace

// SPDX-License-Identifier: MIT
// Saving M changed rows into a file of N lines.
//
// The limit only reads the file with fgets() and writes every line to the copy with fputs(),
// without lock, removal or renaming. A safe save needs these steps, so a second limit, "limit with
// steps", includes them; the goal refers to the first limit, which is stricter. The new values are
// as long as those in the file, so that the size of the file is the same for each save.
#include "bench/harness.h"

#include <corvel.h>

#include <fcntl.h>
#include <unistd.h>
#include <vector>

namespace {

std::string name_of_line(std::size_t i) {
    char name[32];
    std::snprintf(name, sizeof name, "LAN_PORT_%05zu", i);
    return name;
}

std::string settings(std::size_t lines, const char *address) {
    std::string text;
    char line[80];
    for (std::size_t i = 0; i < lines; ++i) {
        std::snprintf(line, sizeof line, "%s=\"%s.%03zu.%03zu\"\n", name_of_line(i).c_str(),
                      address, i / 256, i % 256);
        text += line;
    }
    return text;
}

std::string place_file(std::size_t lines) {
    std::string path = bench::scratch_path("save_" + std::to_string(lines) + ".conf");
    bench::write_file(path, settings(lines, "192.168"));
    return path;
}

/// Rows for lines distributed evenly over the file, the last lines first.
class ChangedRows {
  public:
    ChangedRows(std::size_t rows, std::size_t lines) : rows_(rows) {
        for (std::size_t i = 0; i < rows; ++i) {
            const std::size_t line = (rows - 1 - i) * (lines / rows);
            char value[32];
            std::snprintf(value, sizeof value, "172.016.%03zu.%03zu", line / 256, line % 256);
            bench::require(ins_pr(name_of_line(line).c_str(), value, &rows_[i], 0) == 1,
                           "ins_pr() does not fill a row");
        }
    }
    ~ChangedRows() { free_prop(rows_.data(), count()); }
    ChangedRows(const ChangedRows &) = delete;
    ChangedRows &operator=(const ChangedRows &) = delete;
    [[nodiscard]] const prop_entry *data() const { return rows_.data(); }
    [[nodiscard]] int count() const { return static_cast<int>(rows_.size()); }

  private:
    std::vector<prop_entry> rows_;
};

void corvel(benchmark::State &state) {
    const auto lines = static_cast<std::size_t>(state.range(0));
    const auto changed = static_cast<std::size_t>(state.range(1));
    const std::string path = place_file(lines);
    const ChangedRows rows(changed, lines);

    save_prop('=', path.c_str(), rows.data(), rows.count());
    const std::string text = bench::read_file(path);
    std::size_t found = 0;
    for (std::size_t at = text.find("=\"172.016."); at != std::string::npos;
         at = text.find("=\"172.016.", at + 1))
        ++found;
    bench::require(found == changed && text.size() == settings(lines, "192.168").size(),
                   "save_prop() writes a wrong file");

    bench::measure(state, [&] { save_prop('=', path.c_str(), rows.data(), rows.count()); });
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void copy_lines(const std::string &from, const std::string &to) {
    const bench::File source(std::fopen(from.c_str(), "r"));
    const bench::File copy(std::fopen(to.c_str(), "w"));
    char line[CORVEL_LINE_SIZE];
    while (std::fgets(line, sizeof line, source.get()) != nullptr)
        std::fputs(line, copy.get());
}

void limit(benchmark::State &state) {
    const std::string path = place_file(static_cast<std::size_t>(state.range(0)));
    const std::string copy = path + ".cgi";
    bench::measure(state, [&] { copy_lines(path, copy); });
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void limit_with_steps(benchmark::State &state) {
    const std::string path = place_file(static_cast<std::size_t>(state.range(0)));
    const std::string copy = path + ".cgi";
    const std::string lock_name = path + ".lck";
    bench::measure(state, [&] {
        const int lock = open(lock_name.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
        bench::require(lockf(lock, F_LOCK, 0) == 0, "cannot lock the file");
        copy_lines(path, copy);
        unlink(path.c_str());
        bench::require(std::rename(copy.c_str(), path.c_str()) == 0, "cannot rename the copy");
        bench::require(lockf(lock, F_ULOCK, 0) == 0, "cannot unlock the file");
        close(lock);
    });
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

/// Numbers of lines and of changed rows: few and many in the middle size, many in the other two.
const bench::Job
    job("save changed rows", {{1000, 10}, {100, 20}, {1000, 200}, {10000, 2000}},
        {{"corvel", corvel}, {"limit", limit}, {"limit with steps", limit_with_steps}});

} // namespace

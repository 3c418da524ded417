/* SPDX-License-Identifier: MIT */
#include "tests/config/saving_model.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <deque>
#include <string_view>
#include <unordered_map>

namespace corvel_test::saving_model {

namespace {

/** The next step of a process: one system call, or several that no other process can distinguish
 * from one. */
enum Step : std::uint8_t {
    open_lock,
    take_lock,
    check_lock,
    open_file,
    create_copy,
    lock_copy,
    check_new_copy,
    open_left,
    lock_left,
    check_left,
    check_for_file,
    remove_left,
    close_left,
    replace_left,
    reopen_file,
    write_copy,
    check_copy,
    remove_file,
    rename_copy,
    close_copy,
    unlock,
    reopen_lock,
    retake_lock,
    recheck_lock,
    remove_lock,
    close_lock,
    finished,
    killed,
};

constexpr std::array<std::string_view, killed + 1> step_names = {
    "open_lock",   "take_lock",  "check_lock",  "open_file",   "create_copy", "lock_copy",
    "check_new",   "open_left",  "lock_left",   "check_left",  "check_file",  "remove_left",
    "close_left",  "replace",    "reopen_file", "write_copy",  "check_copy",  "remove_file",
    "rename_copy", "close_copy", "unlock",      "reopen_lock", "retake_lock", "recheck_lock",
    "remove_lock", "close_lock", "finished",    "killed"};

constexpr std::size_t max_processes = 5;
constexpr std::uint8_t none = 255;
constexpr std::uint8_t whole = 0x80;

/** A file of settings: a bit for each process whose setting it contains, and whether it is whole.
 */
struct File {
    std::uint8_t content;
    std::uint8_t locked_by;
};

struct Writer {
    std::uint8_t step = open_lock;
    std::uint8_t lock = none; /**< The lock file that it has open. */
    std::uint8_t original = none;
    std::uint8_t copy = none;
    std::uint8_t left = none;
    enum : std::uint8_t { nothing, no_file, gave_up, saved } outcome = nothing;
};

/** Consists of bytes only, so that two states are equal if their bytes are. */
struct State {
    std::uint8_t lock_name = none;
    std::uint8_t file_name = 0;
    std::uint8_t copy_name = none;
    std::uint8_t kills = 0;
    std::array<std::uint8_t, max_processes + 1> lock_holders{};
    std::array<File, 3 * max_processes + 2> files{};
    std::array<Writer, max_processes> writers{};

    [[nodiscard]] std::string bytes() const {
        return {reinterpret_cast<const char *>(this), sizeof *this};
    }
};
static_assert(sizeof(State) ==
              4 + max_processes + 1 + 2 * (3 * max_processes + 2) + 6 * max_processes);

class Walk {
  public:
    Walk(const std::vector<Process> &processes, const Options &options)
        : processes_(processes), options_(options) {}

    Verdict run() {
        State first;
        first.lock_holders.fill(none);
        first.files.fill({0, none});
        first.files[0].content = whole;
        for (std::size_t i = 0; i < processes_.size(); ++i)
            first.writers.at(i).step = processes_[i].without_lock ? open_file : open_lock;
        for (std::size_t i = processes_.size(); i < max_processes; ++i)
            first.writers.at(i).step = finished;
        reach(first, {}, none);
        while (!to_visit_.empty() && verdict_.fault.empty()) {
            const State state = to_visit_.front();
            to_visit_.pop_front();
            visit(state);
        }
        verdict_.states = reached_.size();
        return verdict_;
    }

    /** The successive states of a save by the first process alone. */
    std::vector<State> path_of_one() {
        State state;
        state.lock_holders.fill(none);
        state.files.fill({0, none});
        state.files[0].content = whole;
        std::vector<State> states = {state};
        while (state.writers[0].step != finished) {
            step(state, 0);
            states.push_back(state);
        }
        return states;
    }

  private:
    struct Origin {
        std::string before;
        std::uint8_t process;
    };

    void visit(const State &state) {
        for (std::size_t process = 0; process < processes_.size(); ++process) {
            const auto i = static_cast<std::uint8_t>(process);
            const std::uint8_t at = state.writers.at(i).step;
            if (at == finished || at == killed)
                continue;
            State next = state;
            step(next, i);
            reach(next, state.bytes(), i);
            if (at == lock_left && next.writers.at(i).step == create_copy) {
                next.writers.at(i).step = close_copy; // it has waited long enough
                next.writers.at(i).outcome = Writer::gave_up;
                reach(next, state.bytes(), i);
            }
            if (state.kills < options_.kills) {
                next = state;
                kill(next, i);
                reach(next, state.bytes(), static_cast<std::uint8_t>(i | 0x40));
            }
        }
    }

    void reach(State &state, const std::string &before, std::uint8_t process) {
        forget_unreferenced(state);
        const std::string bytes = state.bytes();
        if (!reached_.try_emplace(bytes, Origin{before, process}).second)
            return;
        const std::string fault = fault_of(state);
        if (!fault.empty() && verdict_.fault.empty())
            verdict_.fault = fault + history(bytes);
        to_visit_.push_back(state);
    }

    [[nodiscard]] std::string history(std::string bytes) const {
        std::string steps;
        for (;;) {
            const Origin &origin = reached_.at(bytes);
            if (origin.before.empty())
                return steps;
            const std::size_t process = origin.process & 0x3FU;
            State before;
            std::copy(origin.before.begin(), origin.before.end(),
                      reinterpret_cast<char *>(&before));
            std::string step = " " + std::to_string(process) + ":";
            step += origin.process & 0x40U ? "killed_before_" : "";
            step += step_names.at(before.writers.at(process).step);
            steps = step + steps;
            bytes = origin.before;
        }
    }

    [[nodiscard]] std::string fault_of(const State &state) const {
        std::size_t inside = 0;
        bool all_finished = true;
        for (std::size_t i = 0; i < processes_.size(); ++i) {
            const std::uint8_t at = state.writers.at(i).step;
            inside += !processes_[i].without_lock && at >= open_file && at <= close_copy ? 1U : 0U;
            all_finished = all_finished && at == finished;
        }
        if (inside > 1)
            return "two inside:";
        const std::uint8_t left = state.file_name != none ? state.file_name : state.copy_name;
        if (left == none || !(state.files.at(left).content & whole))
            return "lost:";
        if (!all_finished)
            return "";
        for (std::size_t i = 0; i < processes_.size(); ++i) {
            const auto outcome = state.writers.at(i).outcome;
            if (outcome == Writer::nothing && !processes_[i].without_lock)
                return "not saved:";
            if (outcome == Writer::saved && !(state.files.at(left).content & 1U << i))
                return "a setting is lost:";
        }
        return "";
    }

    static void kill(State &state, std::uint8_t i) {
        release(state, i);
        for (std::uint8_t &holder : state.lock_holders)
            holder = holder == i ? none : holder;
        state.writers.at(i) = {.step = killed};
        ++state.kills;
    }

    static void release(State &state, std::uint8_t i) {
        for (File &file : state.files)
            file.locked_by = file.locked_by == i ? none : file.locked_by;
    }

    /** Removes files that have no name and that no process has open; their numbers are reused. */
    static void forget_unreferenced(State &state) {
        std::array<bool, 256> used{};
        std::array<bool, 256> lock_used{};
        used.at(state.file_name) = used.at(state.copy_name) = true;
        lock_used.at(state.lock_name) = true;
        for (const Writer &writer : state.writers) {
            used.at(writer.original) = used.at(writer.copy) = used.at(writer.left) = true;
            lock_used.at(writer.lock) = true;
        }
        for (std::size_t i = 0; i < state.files.size(); ++i)
            if (!used.at(i))
                state.files.at(i) = {0, none};
        for (std::size_t i = 0; i < state.lock_holders.size(); ++i)
            if (!lock_used.at(i))
                state.lock_holders.at(i) = none;
    }

    /** The lowest number that no file has. */
    static std::uint8_t new_file(const State &state) {
        for (std::uint8_t i = 0;; ++i) {
            bool used = state.file_name == i || state.copy_name == i;
            for (const Writer &writer : state.writers)
                used = used || writer.original == i || writer.copy == i || writer.left == i;
            if (!used)
                return i;
        }
    }

    static std::uint8_t new_lock(const State &state) {
        for (std::uint8_t i = 0;; ++i) {
            bool used = state.lock_name == i;
            for (const Writer &writer : state.writers)
                used = used || writer.lock == i;
            if (!used)
                return i;
        }
    }

    void step(State &state, std::uint8_t i) const {
        Writer &writer = state.writers.at(i);
        const Process &process = processes_[i];
        switch (writer.step) {
        case open_lock:
            if (state.lock_name == none)
                state.lock_name = new_lock(state);
            writer.lock = state.lock_name;
            writer.step = take_lock;
            break;
        case take_lock:
            if (std::uint8_t &holder = state.lock_holders.at(writer.lock); holder == none) {
                holder = i;
                writer.step = check_lock;
            }
            break;
        case check_lock:
            if (options_.without_name_check_of_lock || state.lock_name == writer.lock) {
                writer.step = open_file;
            } else {
                drop_lock(state, writer);
                writer.step = open_lock;
            }
            break;
        case open_file:
            writer.original = state.file_name;
            writer.outcome = writer.original != none ? Writer::nothing : Writer::no_file;
            writer.step = writer.original != none ? create_copy : close_copy;
            break;
        case create_copy:
            if (state.copy_name == none) {
                writer.copy = new_file(state);
                state.copy_name = writer.copy;
                state.files.at(writer.copy) = {0, none};
                writer.step = lock_copy;
            } else {
                writer.step = open_left;
            }
            break;
        case lock_copy:
            if (std::uint8_t &owner = state.files.at(writer.copy).locked_by;
                owner == none || options_.without_lock_on_copy) {
                owner = i;
                writer.step = check_new_copy;
            } else {
                writer.copy = none;
                writer.step = open_left;
            }
            break;
        case check_new_copy:
            if (options_.without_name_check_of_new_copy || state.copy_name == writer.copy) {
                writer.step = reopen_file;
            } else {
                release(state, i);
                writer.copy = none;
                writer.step = open_left;
            }
            break;
        case open_left:
            writer.left = state.copy_name;
            writer.step = writer.left != none ? lock_left : after_failed_removal(process);
            break;
        case lock_left:
            if (std::uint8_t &owner = state.files.at(writer.left).locked_by;
                owner == none || options_.without_lock_on_copy) {
                owner = i;
                writer.step = check_left;
            } else {
                writer.left = none;
                writer.step = options_.distrustful && !process.without_lock
                                  ? replace_left
                                  : after_failed_removal(process);
            }
            break;
        case check_left:
            writer.step = options_.without_name_check_of_left_copy || state.copy_name == writer.left
                              ? check_for_file
                              : close_left;
            break;
        case check_for_file:
            writer.step = options_.without_check_for_file_before_removal_of_left_copy ||
                                  state.file_name != none
                              ? remove_left
                              : close_left;
            break;
        case remove_left:
            state.copy_name = none;
            release(state, i);
            writer.left = none;
            writer.step = create_copy;
            break;
        case close_left:
            release(state, i);
            writer.left = none;
            writer.step = after_failed_removal(process);
            break;
        case replace_left:
            if (state.file_name != none) {
                state.copy_name = none;
                writer.step = create_copy;
            } else {
                writer.step = close_copy;
            }
            break;
        case reopen_file:
            if (!options_.without_reopening_file)
                writer.original = state.file_name;
            writer.step = write_copy;
            if (writer.original == none) {
                state.copy_name = state.copy_name == writer.copy ? none : state.copy_name;
                writer.step = close_copy;
            }
            break;
        case write_copy:
            state.files.at(writer.copy).content = static_cast<std::uint8_t>(
                state.files.at(writer.original).content | whole | 1U << i);
            writer.original = none;
            writer.step = check_copy;
            break;
        case check_copy:
            writer.step = state.copy_name == writer.copy ? remove_file : close_copy;
            break;
        case remove_file:
            state.file_name = none;
            writer.step = rename_copy;
            break;
        case rename_copy:
            if (state.copy_name != none) {
                state.file_name = state.copy_name;
                state.copy_name = none;
                writer.outcome = Writer::saved;
            }
            writer.step = close_copy;
            break;
        case close_copy:
            release(state, i);
            writer.copy = writer.left = writer.original = none;
            writer.step = process.without_lock ? finished : unlock;
            break;
        case unlock:
            drop_lock(state, writer);
            writer.step = process.kind == Kind::removes_lock_file ? reopen_lock : finished;
            break;
        case reopen_lock:
            writer.lock = state.lock_name;
            writer.step = writer.lock != none ? retake_lock : finished;
            break;
        case retake_lock:
            if (std::uint8_t &holder = state.lock_holders.at(writer.lock); holder == none) {
                holder = i;
                writer.step =
                    options_.without_name_check_before_removal_of_lock ? remove_lock : recheck_lock;
            } else {
                writer.lock = none;
                writer.step = finished;
            }
            break;
        case recheck_lock:
            writer.step = state.lock_name == writer.lock ? remove_lock : close_lock;
            break;
        case remove_lock:
            state.lock_name = none;
            writer.step = close_lock;
            break;
        case close_lock:
            drop_lock(state, writer);
            writer.step = finished;
            break;
        default:
            break;
        }
    }

    static void drop_lock(State &state, Writer &writer) {
        state.lock_holders.at(writer.lock) = none;
        writer.lock = none;
    }

    /** The next step if a left copy cannot be removed. */
    static Step after_failed_removal(const Process &process) {
        return process.without_lock ? close_copy : create_copy;
    }

    std::vector<Process> processes_;
    Options options_;
    Verdict verdict_;
    std::unordered_map<std::string, Origin> reached_;
    std::deque<State> to_visit_;
};

} // namespace

Verdict walk(const std::vector<Process> &processes, const Options &options) {
    return Walk(processes, options).run();
}

std::vector<Listing> listings_of_one(Kind kind) {
    std::vector<Listing> listings;
    for (const State &state : Walk({{kind}}, {}).path_of_one()) {
        Listing listing = state.file_name != none ? "conf " : "";
        listing += state.copy_name != none ? "conf.cgi " : "";
        listing += state.lock_name != none ? "conf.lck " : "";
        if (listings.empty() || listings.back() != listing)
            listings.push_back(listing);
    }
    return listings;
}

} // namespace corvel_test::saving_model

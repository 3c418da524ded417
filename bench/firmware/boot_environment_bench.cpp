// SPDX-License-Identifier: MIT
// Setting all N variables of an environment image to other values, in random order, and reading
// each in another random order.
//
// Setting a variable removes its entry, which moves the following entries, appends the new entry to
// the list and computes the CRC of the whole data area, used or not. The limit does the same with
// the library's crc32() and a precomputed list of moves: the same moves, copies and CRCs, but no
// search for a name or for the end of the list. Reading is only a search and costs the limit
// nothing.
#include "bench/harness.h"
#include "firmware/environment_format.h"
#include "support/big_endian.h"

#include <corvel.h>

#include <algorithm>
#include <cstring>
#include <numeric>
#include <random>

namespace {

using Image = std::vector<unsigned char>;

constexpr std::size_t crc_size = corvel::environment_crc_size;

/// The length of every entry, including its NUL.
constexpr std::size_t entry_size = 28;

std::string name_of_variable(std::size_t i) {
    char name[32];
    std::snprintf(name, sizeof name, "port_%05zu", i);
    return name;
}

std::string value_of_variable(const char *network, std::size_t i) {
    char value[32];
    std::snprintf(value, sizeof value, "%s.%03zu.%03zu.000", network, i / 256, i % 256);
    return value;
}

struct Variable {
    std::string name;
    std::string value;
};

/// The variables with their new values, in the order in which they are set.
std::vector<Variable> changes(const std::vector<std::size_t> &order) {
    std::vector<Variable> variables;
    variables.reserve(order.size());
    for (const std::size_t i : order)
        variables.push_back({name_of_variable(i), value_of_variable("10.0", i)});
    return variables;
}

std::vector<std::size_t> random_order(std::size_t count, unsigned int seed) {
    std::vector<std::size_t> order(count);
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::shuffle(order.begin(), order.end(), std::mt19937(seed));
    return order;
}

void store_crc(Image &image) {
    const std::uint32_t crc =
        crc32(image.data() + crc_size, static_cast<int>(image.size() - crc_size));
    corvel::store_big_endian(std::span(image).first<crc_size>(), crc);
}

/// An image with the initial values of all variables.
Image make_image(std::size_t count) {
    std::string entries;
    for (std::size_t i = 0; i < count; ++i)
        entries += name_of_variable(i) + '=' + value_of_variable("20.0", i) + '\0';
    bench::require(entries.size() == count * entry_size && entries.size() < CORVEL_ENV_DATA_SIZE,
                   "the variables have the wrong length");
    Image image(CORVEL_ENV_SIZE);
    std::copy(entries.begin(), entries.end(), image.begin() + crc_size);
    store_crc(image);
    return image;
}

/// How the limit sets one variable: the number of entries before the old one, and the new one.
struct Move {
    std::size_t preceding;
    std::string entry;
};

std::vector<Move> make_moves(const std::vector<std::size_t> &order) {
    std::vector<std::size_t> list(order.size());
    std::iota(list.begin(), list.end(), std::size_t{0});
    std::vector<Move> moves;
    moves.reserve(order.size());
    for (const std::size_t i : order) {
        const auto at = std::find(list.begin(), list.end(), i);
        moves.push_back({static_cast<std::size_t>(at - list.begin()),
                         name_of_variable(i) + '=' + value_of_variable("10.0", i)});
        std::rotate(at, at + 1, list.end());
    }
    return moves;
}

void make_move(Image &image, const Move &move, std::size_t count) {
    unsigned char *const entry = image.data() + crc_size + move.preceding * entry_size;
    const std::size_t following = (count - 1 - move.preceding) * entry_size;
    std::memmove(entry, entry + entry_size, following);
    std::memcpy(entry + following, move.entry.c_str(), entry_size);
    store_crc(image);
}

/// The image after setting all variables one by one, computed with the limit's moves.
Image expected_image(const std::vector<std::size_t> &order) {
    Image image = make_image(order.size());
    for (const Move &move : make_moves(order))
        make_move(image, move, order.size());
    return image;
}

void corvel(benchmark::State &state) {
    const auto count = static_cast<std::size_t>(state.range(0));
    const auto order = random_order(count, 1);
    const auto variables = changes(order);
    const auto read = changes(random_order(count, 2));
    const Image original = make_image(count);
    Image image = original;
    const auto start = [&] {
        std::copy(original.begin(), original.end(), image.begin());
        set_env_ptr(image.data());
    };
    const auto set_all = [&variables] {
        for (const Variable &variable : variables)
            set_env(variable.name.c_str(), variable.value.c_str());
    };

    start();
    set_all();
    bench::require(image == expected_image(order), "set_env() leaves a wrong image");
    for (const Variable &variable : read)
        bench::require(get_env(variable.name.c_str()) == variable.value,
                       "get_env() returns a wrong value");

    bench::measure(
        state, start,
        [&] {
            set_all();
            for (const Variable &variable : read)
                benchmark::DoNotOptimize(get_env(variable.name.c_str()));
        },
        [] {});
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void limit(benchmark::State &state) {
    const auto count = static_cast<std::size_t>(state.range(0));
    const auto moves = make_moves(random_order(count, 1));
    const Image original = make_image(count);
    Image image = original;
    bench::measure(
        state, [&] { std::copy(original.begin(), original.end(), image.begin()); },
        [&] {
            for (const Move &move : moves)
                make_move(image, move, count);
        },
        [] {});
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

const bench::Job job("set and read variables", {{20}, {200}, {2000}},
                     {{"corvel", corvel}, {"limit", limit}});

} // namespace

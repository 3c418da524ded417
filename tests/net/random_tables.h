/* SPDX-License-Identifier: MIT */
/** Random tables, well-formed and malformed, the same in every run. */
#ifndef CORVEL_TESTS_RANDOM_TABLES_H
#define CORVEL_TESTS_RANDOM_TABLES_H

#include <cstddef>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace corvel_test {

using Words = std::vector<std::string>;

class RandomTables {
  public:
    explicit RandomTables(unsigned seed) : engine_(seed) {}

    /** Any number of 32 bits. */
    unsigned number() { return static_cast<unsigned>(engine_()); }
    unsigned number(std::size_t below) { return static_cast<unsigned>(engine_() % below); }

    /** One of the words. */
    std::string one_of(const Words &words) { return words[number(words.size())]; }

    /** The words, each followed by up to three spaces or tabs, and a newline. */
    std::string line_of(const Words &words) {
        std::string text;
        for (const std::string &word : words) {
            const char space = number(3) == 0 ? '\t' : ' ';
            text += word + std::string(1 + number(3), space);
        }
        return text + "\n";
    }

    /** Up to 19 lines, for each of which @p next makes the words. */
    std::string table_of(const std::function<Words(RandomTables &)> &next) {
        std::string text;
        for (unsigned lines = number(20); lines != 0; --lines)
            text += line_of(next(*this));
        return text;
    }

    /** Ten thousand lines of random bytes. */
    std::string noise() {
        std::string text;
        for (int lines = 0; lines < 10000; ++lines) {
            for (unsigned length = number(100); length != 0; --length)
                text += static_cast<char>(number(256));
            text += '\n';
        }
        return text;
    }

  private:
    std::mt19937 engine_;
};

} // namespace corvel_test

#endif

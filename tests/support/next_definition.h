/* SPDX-License-Identifier: MIT */
/**
 * For a test program that replaces a function of the C library:
 *
 *     extern "C" int kill(pid_t process, int signal) C_LIBRARY_NOEXCEPT {
 *         static auto *const next = next_definition<int(pid_t, int)>("kill");
 *         return instead_of_kill ? instead_of_kill(process, signal) : next(process, signal);
 *     }
 *
 *     const Instead replaced_kill(instead_of_kill, [](pid_t, int) { return 0; });
 */
#ifndef CORVEL_TESTS_NEXT_DEFINITION_H
#define CORVEL_TESTS_NEXT_DEFINITION_H

#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <functional>
#include <type_traits>
#include <utility>

/** How the headers of some C libraries declare that a function throws no exception. */
#ifdef __THROW
#define C_LIBRARY_NOEXCEPT __THROW
#else
#define C_LIBRARY_NOEXCEPT
#endif

namespace corvel_test {

/** Returns the definition that the stand-in hides. */
template <typename Function> Function *next_definition(const char *name) {
    void *const definition = dlsym(RTLD_NEXT, name);
    if (definition == nullptr)
        std::abort();
    Function *function = nullptr;
    static_assert(sizeof function == sizeof definition);
    std::memcpy(&function, &definition, sizeof function);
    return function;
}

/** Sets the function that a stand-in calls, for the lifetime of the object. */
template <typename Function> class Instead {
  public:
    Instead(std::function<Function> &place, std::type_identity_t<std::function<Function>> function)
        : place_(place) {
        place_ = std::move(function);
    }
    ~Instead() { place_ = nullptr; }
    Instead(const Instead &) = delete;
    Instead &operator=(const Instead &) = delete;

  private:
    std::function<Function> &place_;
};

} // namespace corvel_test

#endif

// Which platform library a program runs on, chosen when the program starts.
//
// libip6mc.so leaves the platform's names open. They are bound at their first call, so the platform
// library has to be in place before the first call of the library and need not be linked. A program
// that is built with mfwd6_chooses_platform() (cmake/mfwd6.cmake) does it like this:
//
//     apps::load_platform("linux");
//     ip6mc_lib_init(...);
#ifndef MFWD6_APPS_PLATFORM_CHOICE_H
#define MFWD6_APPS_PLATFORM_CHOICE_H

#include <string>

namespace apps {

// Loads libip6mc_platform_NAME.so, found where the program's own libraries are, for the rest of the
// process's life. NAME is "linux", "sim" or that of another platform library; a text with '/' is
// the path of one. Once in a process, before any call of the library. Throws std::runtime_error
// with a sentence for the operator.
void load_platform(const std::string &name);

// A function or variable of the loaded platform by its C name, or nullptr: for what only one
// platform has, as in `loaded<decltype(linux_set_folder)>("linux_set_folder")`.
void *platform_symbol(const char *name);

template <class Function>
Function *loaded(const char *name) {
    return reinterpret_cast<Function *>(platform_symbol(name));
}

}  // namespace apps

#endif

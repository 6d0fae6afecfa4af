/// Linked into every program that acts on fixed paths, so that none does so to a whole machine by
/// accident: started outside a private root, it ends before it has begun.

#include "privateroot.h"

#include <cstdio>
#include <cstdlib>

namespace {

const bool isChecked = [] {
    if (!lab::isPrivateRoot()) {
        std::fputs("This program acts on fixed paths, so it runs in a private root only: "
                   "lab/private-root --help\n",
                   stderr);
        std::exit(EXIT_FAILURE);
    }
    return true;
}();

} // namespace

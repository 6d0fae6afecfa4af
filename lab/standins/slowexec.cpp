/// To be preloaded: makes execv(2) of a program named `openvpn` fail, but only after three seconds,
/// as it would on a disk that hangs. Everything else is executed as ever.

#include <cerrno>
#include <string_view>

#include <dlfcn.h>
#include <unistd.h>

extern "C" int execv(const char *path, char *const argv[])
{
    constexpr std::string_view kProgram = "/openvpn";
    constexpr unsigned int kSeconds = 3;
    const std::string_view name(path);
    if (name.size() >= kProgram.size() && name.substr(name.size() - kProgram.size()) == kProgram) {
        sleep(kSeconds);
        errno = ENOENT;
        return -1;
    }
    using Execv = int (*)(const char *, char *const[]);
    static const auto next = reinterpret_cast<Execv>(dlsym(RTLD_NEXT, "execv"));
    return next(path, argv);
}

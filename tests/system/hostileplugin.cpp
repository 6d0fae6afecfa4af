/// A plugin for openvpn that does nothing but leave a trace of having been loaded.
///
///     plugin hostileplugin.so /tmp/hostile/leave-trace NAME

#include <openvpn/openvpn-plugin.h>

#include <cstdlib>
#include <string>

namespace {

int handle = 0;

} // namespace

OPENVPN_EXPORT openvpn_plugin_handle_t openvpn_plugin_open_v1(unsigned int *typeMask,
                                                              const char *argv[], const char *[])
{
    *typeMask = OPENVPN_PLUGIN_MASK(OPENVPN_PLUGIN_UP);
    const std::string command = std::string(argv[1]) + ' ' + argv[2];
    return std::system(command.c_str()) == 0 ? &handle : nullptr;
}

OPENVPN_EXPORT int openvpn_plugin_func_v1(openvpn_plugin_handle_t, const int, const char *[],
                                          const char *[])
{
    return OPENVPN_PLUGIN_FUNC_SUCCESS;
}

OPENVPN_EXPORT void openvpn_plugin_close_v1(openvpn_plugin_handle_t) {}

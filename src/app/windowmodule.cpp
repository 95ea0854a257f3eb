#include "app/windowmodule.h"

#include <dlfcn.h>
#include <limits.h>
#include <unistd.h>

#include <cstdio>
#include <string>

namespace lofthaven {

namespace {

// The executable's own folder, from the kernel rather than argv[0] (which may be a bare name
// found on PATH or a symbolic link).
std::string executableFolder()
{
    char path[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
    if (length <= 0)
        return {};
    std::string folder(path, std::size_t(length));
    return folder.substr(0, folder.rfind('/'));
}

} // namespace

int runWindowModule(int &argc, char **argv)
{
    const std::string module = executableFolder() + "/../lib/lofthaven/lofthaven-window.so";
    void *handle = dlopen(module.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        std::fprintf(stderr, "lofthaven: the window could not be loaded (%s).\n", dlerror());
        return 1;
    }
    using Entry = int (*)(int *, char **);
    const auto entry = reinterpret_cast<Entry>(dlsym(handle, "lofthaven_run_window"));
    if (!entry) {
        std::fprintf(stderr, "lofthaven: the window module has no entry (%s).\n", dlerror());
        return 1;
    }
    // The module stays loaded until the process ends: Qt's objects outlive this call.
    return entry(&argc, argv);
}

} // namespace lofthaven

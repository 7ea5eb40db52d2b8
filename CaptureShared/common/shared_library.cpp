#include "CaptureShared/common/shared_library.h"

#include <dlfcn.h>
#include <link.h>
#include <stdlib.h>

namespace aimwise {

SharedLibrary::SharedLibrary(const char* soname, const std::string& purpose, const std::string& debianPackage)
    : SharedLibrary(soname, purpose, Remedy{"scripts/setup installs it (package " + debianPackage + ")"}) {}

SharedLibrary SharedLibrary::ownModule(const std::string& path, const std::string& purpose) {
    return SharedLibrary(path.c_str(), purpose, Remedy{"it is built with the programs; build them again"});
}

SharedLibrary::SharedLibrary(const char* soname, const std::string& purpose, const Remedy& remedy)
    : soname_(soname), purpose_(purpose) {
    handle_ = ::dlopen(soname, RTLD_NOW | RTLD_LOCAL);
    if (!handle_) {
        const char* reason = ::dlerror();
        throw SharedLibraryError(purpose + " is unavailable: " + soname + " could not be loaded (" +
                                 (reason ? reason : "no reason given") + "); " + remedy.text);
    }
}

// Never unloaded: handles and callbacks from it may outlive any one owner until exit.
SharedLibrary::~SharedLibrary() = default;

void* SharedLibrary::address(const char* name) const {
    ::dlerror();
    void* found = ::dlsym(handle_, name);
    if (!found)
        throw SharedLibraryError(purpose_ + " is unavailable: " + soname_ + " has no function " + name +
                                 "; it is older than this program needs");
    return found;
}

bool SharedLibrary::has(const char* name) const { return ::dlsym(handle_, name) != nullptr; }

std::string SharedLibrary::file() const {
    link_map* map = nullptr;
    if (::dlinfo(handle_, RTLD_DI_LINKMAP, &map) != 0 || !map || !map->l_name) return {};
    char* resolved = ::realpath(map->l_name, nullptr);
    if (!resolved) return {};
    std::string path(resolved);
    ::free(resolved);
    return path;
}

}  // namespace aimwise

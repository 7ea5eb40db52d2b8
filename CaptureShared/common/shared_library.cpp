#include "CaptureShared/common/shared_library.h"

#include <dlfcn.h>

namespace aimwise {

SharedLibrary::SharedLibrary(const char* soname, const std::string& purpose, const std::string& debianPackage)
    : soname_(soname), purpose_(purpose) {
    handle_ = ::dlopen(soname, RTLD_NOW | RTLD_LOCAL);
    if (!handle_) {
        const char* reason = ::dlerror();
        throw SharedLibraryError(purpose + " is unavailable: " + soname + " could not be loaded (" +
                                 (reason ? reason : "no reason given") + "); scripts/setup installs it (package " +
                                 debianPackage + ")");
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

}  // namespace aimwise

#pragma once
// A shared library opened on first use instead of at process start. Linking libcurl pulls in some
// thirty libraries and costs every process several milliseconds before main; the classifier's tick
// usually skips without a single HTTP call, so it should not pay that.
#include <string>

#include "CaptureShared/common/error.h"

namespace aimwise {

struct SharedLibraryError : Error {
    using Error::Error;
};

class SharedLibrary {
public:
    // Loads `soname` or throws SharedLibraryError naming it, what needs it and the Debian package
    // that provides it.
    SharedLibrary(const char* soname, const std::string& purpose, const std::string& debianPackage);
    // One of this system's own modules, at `path`; missing, it calls for a build, not a package.
    static SharedLibrary ownModule(const std::string& path, const std::string& purpose);
    ~SharedLibrary();
    SharedLibrary(const SharedLibrary&) = delete;
    SharedLibrary& operator=(const SharedLibrary&) = delete;

    // The function `name`, or SharedLibraryError when the library lacks it.
    template <typename Function>
    Function function(const char* name) const {
        return reinterpret_cast<Function>(address(name));
    }
    // Whether the library defines `name`.
    bool has(const char* name) const;
    // The file it was loaded from, symbolic links resolved; empty if the loader cannot say.
    std::string file() const;

private:
    struct Remedy {
        std::string text;
    };
    SharedLibrary(const char* soname, const std::string& purpose, const Remedy& remedy);
    void* address(const char* name) const;

    void* handle_ = nullptr;
    std::string soname_;
    std::string purpose_;
};

}  // namespace aimwise

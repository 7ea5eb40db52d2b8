// Loads the shared libraries named on the command line and exits: the start-up price of each one,
// measured by tick_bench against a run that loads none.
#include <dlfcn.h>

#include <cstdio>

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (!::dlopen(argv[i], RTLD_NOW | RTLD_GLOBAL)) {
            std::fprintf(stderr, "library_load_probe: %s\n", ::dlerror());
            return 1;
        }
    }
    return 0;
}

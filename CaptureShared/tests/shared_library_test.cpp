#include "CaptureShared/common/shared_library.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

namespace aimwise {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;

TEST(SharedLibrary, FindsAFunctionAndNamesWhatIsMissing) {
    const SharedLibrary libc("libc.so.6", "string length", "libc6");
    EXPECT_EQ(libc.function<decltype(&std::strlen)>("strlen")("four"), 4u);
    try {
        libc.function<void (*)()>("aimwise_no_such_function");
        ADD_FAILURE() << "a missing function was found";
    } catch (const SharedLibraryError& error) {
        EXPECT_THAT(error.what(), AllOf(HasSubstr("libc.so.6"), HasSubstr("aimwise_no_such_function")));
    }
}

TEST(SharedLibrary, AnAbsentLibrarySaysWhatNeedsItAndWhichPackageBringsIt) {
    try {
        SharedLibrary("libaimwise-absent.so.9", "HTTP", "libcurl4");
        ADD_FAILURE() << "an absent library was loaded";
    } catch (const SharedLibraryError& error) {
        EXPECT_THAT(error.what(), AllOf(HasSubstr("HTTP is unavailable"), HasSubstr("libaimwise-absent.so.9"),
                                        HasSubstr("package libcurl4")));
    }
}

}  // namespace
}  // namespace aimwise

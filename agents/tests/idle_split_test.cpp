#include "agents/capture/idle_split.h"

#include <gtest/gtest.h>

namespace aimwise {
namespace {

TEST(IdleSplitTest, InputWithoutMotionIsTheKeyboardAndInputWithMotionIsThePointer) {
    IdleSplit split;
    // First sample: nothing tells the two apart.
    EXPECT_EQ(split.update(10'000, 4.0, {100, 100}), (IdleSplit::Reading{4.0, 4.0, 4.0}));
    // Idle time grows, nothing moved: both grow with it.
    EXPECT_EQ(split.update(11'500, 5.5, {100, 100}), (IdleSplit::Reading{5.5, 5.5, 5.5}));
    // Input half a second ago, pointer where it was: typing.
    EXPECT_EQ(split.update(13'000, 0.5, {100, 100}), (IdleSplit::Reading{0.5, 7.0, 0.5}));
    // The pointer moved and input came with it: the mouse; the keyboard's time runs on.
    EXPECT_EQ(split.update(14'500, 0.2, {300, 120}), (IdleSplit::Reading{2.0, 0.2, 0.2}));
    // The same input seen again (clock jitter under the tolerance) changes nothing.
    EXPECT_EQ(split.update(16'000, 1.8, {300, 120}), (IdleSplit::Reading{3.5, 1.8, 1.8}));
}

TEST(IdleSplitTest, APointerMovedWithoutInputIsNotThePerson) {
    IdleSplit split;
    split.update(0, 10.0, {0, 0});
    // A program warped the pointer: no new input, so neither time resets.
    EXPECT_EQ(split.update(1'500, 11.5, {50, 50}), (IdleSplit::Reading{11.5, 11.5, 11.5}));
}

}  // namespace
}  // namespace aimwise

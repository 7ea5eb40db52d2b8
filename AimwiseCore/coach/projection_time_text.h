#pragma once
// "MM-dd HH:mm" in the current time zone: how the coach's conversation stamps what it shows. Turns
// re-render the same few minutes again and again, so each thread remembers the minutes it formatted.
#include <cstdint>
#include <string>

namespace aimwise::ProjectionTimeText {

std::string monthDayTime(int64_t ms);
// "H:mm", for times inside a line that already carries its day.
std::string hourMinute(int64_t ms);
// Forgets remembered minutes when the default zone changed since the last call. Call once per batch
// of formatting rather than once per time: the check itself is the costly part.
void followDefaultZone();

}  // namespace aimwise::ProjectionTimeText

namespace aimwise::LocalDay {
// The next 06:00 local time that lies more than two hours after `ms`: where "the rest of today" or
// "tonight" ends, for someone still up at two in the morning as much as for someone at their desk at two
// in the afternoon.
int64_t nextMorningMs(int64_t ms);
}  // namespace aimwise::LocalDay

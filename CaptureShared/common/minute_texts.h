#pragma once
// Local times shown to the minute, in a few fixed ICU patterns. Building an ICU formatter costs far
// more than a format, and a coach's texts format hundreds of times that share few minutes: each
// formatter is made once and the text of every minute it has formatted is kept. The default zone is
// checked when the caller asks, once per public call rather than once per time.
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "CaptureShared/common/icu_date_format.h"

namespace aimwise {

class MinuteTexts {
  public:
    explicit MinuteTexts(std::vector<std::u16string> patterns);

    // `ms` in the pattern at `index`, floored to its minute; "" when ICU refuses the pattern.
    std::string format(int64_t ms, size_t index);
    // Forgets formatters and texts made under another default zone.
    void followDefaultZone();

  private:
    struct Pattern {
        std::u16string text;
        std::unique_ptr<ICUDateFormat> formatter;
        std::unordered_map<int64_t, std::string> minutes;
    };
    std::optional<std::u16string> zone_;
    std::vector<Pattern> patterns_;
};

}  // namespace aimwise

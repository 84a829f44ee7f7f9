#include "core/TimeFormatter.h"

#include <gtest/gtest.h>

#include "support/ScopedIcuDefaults.h"

namespace tavra {
namespace {

using namespace std::chrono;

// Saturday, 1 March 2025, 09:30:00 UTC.
const Date kSaturdayMorning = Date(sys_days{year{2025} / March / day{1}} + hours{9} + minutes{30});

TEST(TimeFormatter, UsesTheDefaultTimeZoneAndLocale) {
    struct Case {
        const char* locale;
        const char* zone;
        const char* pattern;
        const char* expected;
        Date date = kSaturdayMorning;
    };
    const Case cases[] = {
        {"en_US", "UTC", "HH:mm", "09:30"},
        {"en_US", "UTC", "EEE HH:mm", "Sat 09:30"},
        {"en_US", "America/New_York", "EEE HH:mm", "Sat 04:30"},
        {"en_US", "Pacific/Honolulu", "EEE HH:mm", "Fri 23:30"},
        {"de_DE", "UTC", "EEE HH:mm", "Sa. 09:30"},
        {"fr_FR", "UTC", "EEE HH:mm", "sam. 09:30"},
        {"en_US", "UTC", "HH:mm", "09:30",
         kSaturdayMorning + seconds{59} + milliseconds{999}},  // no rounding
        {"en_US", "UTC", "HH:mm", "00:00", Date{}},
    };
    for (const auto& c : cases) {
        testing::ScopedIcuDefaults pinned(c.locale, c.zone);
        EXPECT_EQ(TimeFormatter(c.pattern).format(c.date), c.expected) << c.locale << " " << c.zone;
    }
}

}  // namespace
}  // namespace tavra

#pragma once

// Time of day as people read it on this machine: no date, in ICU's default
// time zone and locale (the machine's, unless a program pins them).

#include <string>

#include "core/Date.h"

namespace tavra::TimeText {

// The locale's short time style, e.g. "09:30" or "9:30 AM". Never throws.
std::string shortTime(Date date);

// The locale's medium time style, which shows seconds. Never throws.
std::string mediumTime(Date date);

}  // namespace tavra::TimeText

#include "kit/TimeText.h"

#include <chrono>
#include <memory>

#include <unicode/datefmt.h>
#include <unicode/unistr.h>

namespace tavra::TimeText {

namespace {

std::string format(Date date, icu::DateFormat::EStyle style) {
    // A fresh formatter each time: it picks up the current default zone and
    // locale, and these texts are produced a few at a time, never in bulk.
    std::unique_ptr<icu::DateFormat> formatter(icu::DateFormat::createTimeInstance(style));
    if (!formatter) return {};
    auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(date.time_since_epoch()).count();
    icu::UnicodeString text;
    formatter->format(static_cast<UDate>(millis), text);
    std::string out;
    text.toUTF8String(out);
    return out;
}

}  // namespace

std::string shortTime(Date date) {
    return format(date, icu::DateFormat::kShort);
}

std::string mediumTime(Date date) {
    return format(date, icu::DateFormat::kMedium);
}

}  // namespace tavra::TimeText

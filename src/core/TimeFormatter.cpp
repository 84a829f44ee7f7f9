#include "core/TimeFormatter.h"

#include <unicode/datefmt.h>
#include <unicode/smpdtfmt.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <chrono>
#include <climits>

namespace tavra {

namespace {

icu::UnicodeString unicode(std::string_view text) {
    return icu::UnicodeString::fromUTF8(icu::StringPiece(
        text.data(), static_cast<std::int32_t>(std::min<std::size_t>(text.size(), INT32_MAX))));
}

}  // namespace

TimeFormatter::TimeFormatter(std::string_view pattern) {
    UErrorCode status = U_ZERO_ERROR;
    auto format = std::make_unique<icu::SimpleDateFormat>(unicode(pattern), status);
    if (U_SUCCESS(status)) format_ = std::move(format);
}

TimeFormatter::TimeFormatter(Style style)
    : format_(icu::DateFormat::createTimeInstance(style == Style::shortTime ? icu::DateFormat::kShort
                                                                            : icu::DateFormat::kMedium)) {}

TimeFormatter::~TimeFormatter() = default;

std::string TimeFormatter::format(Date date) const {
    if (!format_) return {};
    auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(date.time_since_epoch()).count();
    icu::UnicodeString out;
    format_->format(static_cast<UDate>(millis), out);
    std::string utf8;
    out.toUTF8String(utf8);
    return utf8;
}

std::string TimeFormatter::shortTime(Date date) {
    return TimeFormatter(Style::shortTime).format(date);
}

std::string TimeFormatter::mediumTime(Date date) {
    return TimeFormatter(Style::mediumTime).format(date);
}

}  // namespace tavra

#include "core/TimeFormatter.h"

#include <unicode/smpdtfmt.h>
#include <unicode/unistr.h>

#include <algorithm>
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
    // The constructor picks up the default locale and time zone now; the
    // formatter lives no longer than one report, so a change of either is
    // seen by the next one.
    auto format = std::make_unique<icu::SimpleDateFormat>(unicode(pattern), status);
    if (U_SUCCESS(status)) format_ = std::move(format);
}

TimeFormatter::~TimeFormatter() = default;

std::string TimeFormatter::format(Date date) const {
    if (!format_) return {};
    icu::UnicodeString out;
    format_->format(static_cast<UDate>(epochSeconds(date) * 1000.0), out);
    std::string utf8;
    out.toUTF8String(utf8);
    return utf8;
}

}  // namespace tavra

#pragma once

// The command line of `tavra`, read into one request without touching the
// daemon, the clock or the file system.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/Date.h"

namespace tavra::cli {

// A moment as the user wrote it; turned into a date only when the command
// runs, against the clock of that moment.
struct TimeWord {
    enum class Kind {
        duration,  // "for 2h", "--since 90m": seconds from (or back from) now
        clock,     // "until 18:00": the next such time of day, local time
        today,     // "--since today": local midnight
        instant,   // "--since 2025-03-01T09:00:00Z"
        off,       // "stay-awake off"
    };
    Kind kind = Kind::duration;
    double seconds = 0;
    int hour = 0, minute = 0;
    Date instant{};

    bool operator==(const TimeWord&) const = default;
};

// "2h", "90m", "1h30m", "45s", "1d"; a bare number means minutes, as on the
// phone. Nothing for zero, a negative or unreadable text.
std::optional<double> parseDuration(std::string_view text);
// "18:00", "7:05". Nothing outside 0:00...23:59.
std::optional<TimeWord> parseClock(std::string_view text);

// The date a time word stands for at `now`: a duration counts forward (or
// backward, for `since`), a clock time is its next occurrence after now in
// the local time zone, today is the local midnight. Off has no date.
std::optional<Date> resolveForward(const TimeWord& word, Date now);
Date resolveSince(const TimeWord& word, Date now);

struct Request {
    enum class Command {
        help,
        status,
        report,
        pause,
        resume,
        forget,
        stayAwake,
        hold,
        release,
        enable,
        approve,
        deny,
        configShow,
        configGet,
        configSet,
        testNotification,
        logs,
        version,
        run,
        setup,
        uninstall,
        doctor,
        phoneTelegram,
        phoneNtfy,
    };
    Command command = Command::help;
    bool json = false;                     // status --json, config show --json
    std::optional<std::string> target;     // a run, a hold's name, a ticket, a setting's key
    std::optional<std::string> value;      // config set's value
    std::optional<TimeWord> time;          // report --since, stay-awake, hold
    bool on = true;                        // on | off
    bool terminal = false;                 // resume --terminal
    bool follow = false;                   // logs --follow
    std::string reason;                    // run --reason
    std::vector<std::string> commandLine;  // run -- COMMAND...
    bool withoutHelper = false;            // setup --no-helper
    bool withoutHooks = false;             // setup --no-hooks
    std::optional<std::string> server;     // phone ntfy --server

    bool operator==(const Request&) const = default;
};

// The result of reading argv: a request, or the text to print with an exit
// status (0 for --help, 2 for a usage error).
struct Parsed {
    std::optional<Request> request;
    int exitStatus = 0;
    std::string text;
};

// `arguments` without the program's name.
Parsed parseArguments(const std::vector<std::string>& arguments);

}  // namespace tavra::cli

#include "cli/CommandLine.h"

#include <CLI/CLI.hpp>
#include <cmath>
#include <ctime>
#include <sstream>

#include "core/ConfigCoding.h"
#include "core/RemoteCommand.h"

namespace tavra::cli {

namespace {

// A stay-awake without a time lasts as long as the phone's default; a named
// hold without one, a working day and a night.
constexpr double kDefaultStayAwake = 3600;
constexpr double kDefaultHold = 24 * 3600;

class UsageError : public std::exception {
public:
    explicit UsageError(std::string text) : text_(std::move(text)) {}
    const char* what() const noexcept override { return text_.c_str(); }

private:
    std::string text_;
};

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// "for 2h" | "until 18:00" | "2h" | "18:00" | nothing, which takes `fallback`.
TimeWord readWhen(const std::vector<std::string>& words, double fallback, std::string_view command) {
    auto bad = [&](const std::string& why) {
        return UsageError(why + " (try `tavra " + std::string(command) + " for 2h` or `until 18:00`)");
    };
    if (words.empty()) return TimeWord{TimeWord::Kind::duration, fallback, 0, 0, {}};
    if (words.size() > 2) throw bad("too many words");
    std::string keyword = words.size() == 2 ? words[0] : "";
    const std::string& text = words.back();
    if (keyword.empty() || keyword == "for") {
        if (keyword.empty()) {
            if (auto clock = parseClock(text)) return *clock;
        }
        if (auto seconds = parseDuration(text)) return TimeWord{TimeWord::Kind::duration, *seconds, 0, 0, {}};
        throw bad("not a duration: " + text);
    }
    if (keyword == "until") {
        if (auto clock = parseClock(text)) return *clock;
        throw bad("not a time of day: " + text);
    }
    throw bad("expected `for` or `until`, not " + keyword);
}

TimeWord readSince(const std::string& text) {
    if (text == "today") return TimeWord{TimeWord::Kind::today, 0, 0, 0, {}};
    if (auto seconds = parseDuration(text)) return TimeWord{TimeWord::Kind::duration, *seconds, 0, 0, {}};
    if (auto date = TavraJSON::parseDate(text)) return TimeWord{TimeWord::Kind::instant, 0, 0, 0, *date};
    throw UsageError("--since takes a duration (2h), `today` or a UTC time (2025-03-01T09:00:00Z), not " +
                     text);
}

struct Builder {
    CLI::App app{"Tavra keeps the machine awake and safe while coding agents work.", "tavra"};
    Request request;
    std::vector<std::string> words;
    std::string since;

    CLI::App* command(const char* name, const char* description, Request::Command which) {
        CLI::App* sub = app.add_subcommand(name, description);
        sub->callback([this, which] { request.command = which; });
        return sub;
    }

    void build() {
        app.require_subcommand(0, 1);
        app.fallthrough(false);
        command("status", "What runs and what holds the machine awake", Request::Command::status)
            ->add_flag("--json", request.json, "The daemon's status as JSON, for scripts");
        command("report", "What happened while you were away", Request::Command::report)
            ->add_option("--since", since, "2h, today or a UTC time; 12h when left out");
        command("pause", "Pause every agent, or one: tavra pause 2", Request::Command::pause)
            ->add_option("target", request.target,
                         "A number from `tavra status`, agent:session or a session prefix");
        auto* resume = command("resume", "Resume every paused agent, or one; an idle run opens in a terminal",
                               Request::Command::resume);
        resume->add_option("target", request.target,
                           "A number from `tavra status`, agent:session or a prefix");
        resume->add_flag("--terminal", request.terminal, "Open the run's session in a new terminal window");
        command("forget", "Drop a run from the list", Request::Command::forget)
            ->add_option("target", request.target, "The run to forget")
            ->required();
        command("stay-awake", "Keep the machine awake: for 2h | until 18:00 | off",
                Request::Command::stayAwake)
            ->add_option("when", words, "for DURATION, until HH:MM, or off");
        command("hold", "Hold the machine awake under a name: hold [NAME] [for 2h | until 18:00]",
                Request::Command::hold)
            ->add_option("words", words, "NAME, then for DURATION or until HH:MM (24h when left out)");
        command("release", "End the stay-awake, or the hold of that name", Request::Command::release)
            ->add_option("name", request.target, "The hold's name");
        command("on", "Turn Tavra on", Request::Command::enable);
        command("off", "Turn Tavra off", Request::Command::enable)->callback([this] {
            request.command = Request::Command::enable;
            request.on = false;
        });
        command("approve", "Allow what an agent waits for", Request::Command::approve)
            ->add_option("ticket", request.target, "The ticket from `tavra status`")
            ->required();
        command("deny", "Refuse what an agent waits for", Request::Command::deny)
            ->add_option("ticket", request.target, "The ticket from `tavra status`")
            ->required();
        auto* config = app.add_subcommand("config", "Show and change the settings");
        config->require_subcommand(1);
        auto* show = config->add_subcommand("show", "Every setting");
        show->add_flag("--json", request.json, "As JSON");
        show->callback([this] { request.command = Request::Command::configShow; });
        auto* get = config->add_subcommand("get", "One setting, e.g. remote.approvalTimeout");
        get->add_option("key", request.target, "A dotted key")->required();
        get->callback([this] { request.command = Request::Command::configGet; });
        auto* set = config->add_subcommand("set", "Change one setting, e.g. policy.batteryFloorPercent 30");
        set->add_option("key", request.target, "A dotted key")->required();
        set->add_option("value", request.value, "The new value");
        set->callback([this] { request.command = Request::Command::configSet; });
        command("test-notification", "Send a test message on the configured channels",
                Request::Command::testNotification);
        command("logs", "Show the daemon's log", Request::Command::logs)
            ->add_flag("-f,--follow", request.follow, "Keep showing new lines");
        command("version", "Print the version", Request::Command::version);
        auto* run = command("run", "Keep the machine awake while a command runs: tavra run -- make",
                            Request::Command::run);
        run->add_option("--reason", request.reason, "Why, as `tavra status` shows it");
        run->footer("Everything after `--` (or from the first word that is no option) is the command.");
        auto* setup =
            command("setup", "Install the daemon, the helper and the agents' hooks", Request::Command::setup);
        setup->add_flag("--no-helper", request.withoutHelper,
                        "Skip the root helper (no administrator prompt)");
        setup->add_flag("--no-hooks", request.withoutHooks, "Leave the agents' configuration alone");
        command("uninstall", "Remove everything setup installed", Request::Command::uninstall);
        command("doctor", "Check the installation, one line per check", Request::Command::doctor);
        auto* phone = app.add_subcommand("phone", "Pair a phone: telegram or ntfy");
        phone->require_subcommand(1);
        phone->add_subcommand("telegram", "Pair a Telegram bot (its token is read from standard input)")
            ->callback([this] { request.command = Request::Command::phoneTelegram; });
        auto* ntfy = phone->add_subcommand("ntfy", "Pair ntfy topics (fresh, unguessable names)");
        ntfy->add_option("--server", request.server, "The ntfy server; https://ntfy.sh when left out");
        ntfy->callback([this] { request.command = Request::Command::phoneNtfy; });
    }

    void finish() {
        using C = Request::Command;
        if (app.get_subcommands().empty()) request.command = C::status;
        switch (request.command) {
            case C::report:
                if (!since.empty()) request.time = readSince(since);
                break;
            case C::stayAwake:
                if (words.size() == 1 && words[0] == "off")
                    request.time = TimeWord{TimeWord::Kind::off, 0, 0, 0, {}};
                else
                    request.time = readWhen(words, kDefaultStayAwake, "stay-awake");
                break;
            case C::hold:
                if (!words.empty() && words[0] != "for" && words[0] != "until") {
                    request.target = words[0];
                    words.erase(words.begin());
                }
                request.time = readWhen(words, kDefaultHold, "hold");
                break;
            case C::run:
                if (request.commandLine.empty())
                    throw UsageError("run needs a command: tavra run -- make test");
                break;
            case C::configSet:
                if (!request.value) throw UsageError("config set needs a value: tavra config set KEY VALUE");
                break;
            case C::approve:
            case C::deny:
                if (request.target->empty()) throw UsageError("the ticket is empty");
                break;
            default:
                break;
        }
    }
};

}  // namespace

std::optional<double> parseDuration(std::string_view text) {
    if (text.empty()) return std::nullopt;
    if (auto minutes = RemoteCommand::readInteger(text)) {
        if (*minutes <= 0 || *minutes > 1'000'000) return std::nullopt;
        return static_cast<double>(*minutes) * 60;
    }
    double total = 0;
    std::size_t i = 0;
    while (i < text.size()) {
        std::size_t start = i;
        while (i < text.size() && isDigit(text[i])) ++i;
        if (i == start || i - start > 7 || i == text.size()) return std::nullopt;
        double number = std::stod(std::string(text.substr(start, i - start)));
        switch (text[i]) {
            case 'd':
                total += number * 86400;
                break;
            case 'h':
                total += number * 3600;
                break;
            case 'm':
                total += number * 60;
                break;
            case 's':
                total += number;
                break;
            default:
                return std::nullopt;
        }
        ++i;
    }
    if (total <= 0) return std::nullopt;
    return total;
}

std::optional<TimeWord> parseClock(std::string_view text) {
    auto colon = text.find(':');
    if (colon == std::string_view::npos || colon == 0 || colon > 2 || text.size() - colon != 3)
        return std::nullopt;
    for (std::size_t i = 0; i < text.size(); ++i)
        if (i != colon && !isDigit(text[i])) return std::nullopt;
    int hour = std::stoi(std::string(text.substr(0, colon)));
    int minute = std::stoi(std::string(text.substr(colon + 1)));
    if (hour > 23 || minute > 59) return std::nullopt;
    return TimeWord{TimeWord::Kind::clock, 0, hour, minute, {}};
}

namespace {

// Local calendar fields of `now` with the time of day replaced; mktime
// normalises an overflowing day into the next month.
Date localTimeOfDay(Date now, int hour, int minute, int addDays) {
    std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    std::tm fields{};
    localtime_r(&seconds, &fields);
    fields.tm_hour = hour;
    fields.tm_min = minute;
    fields.tm_sec = 0;
    fields.tm_mday += addDays;
    fields.tm_isdst = -1;
    return std::chrono::system_clock::from_time_t(std::mktime(&fields));
}

}  // namespace

std::optional<Date> resolveForward(const TimeWord& word, Date now) {
    switch (word.kind) {
        case TimeWord::Kind::duration:
            return addSeconds(now, word.seconds);
        case TimeWord::Kind::clock: {
            Date today = localTimeOfDay(now, word.hour, word.minute, 0);
            return today > now ? today : localTimeOfDay(now, word.hour, word.minute, 1);
        }
        case TimeWord::Kind::today:
            return localTimeOfDay(now, 0, 0, 1);
        case TimeWord::Kind::instant:
            return word.instant;
        case TimeWord::Kind::off:
            return std::nullopt;
    }
    return std::nullopt;
}

Date resolveSince(const TimeWord& word, Date now) {
    switch (word.kind) {
        case TimeWord::Kind::duration:
            return addSeconds(now, -word.seconds);
        case TimeWord::Kind::clock: {
            Date today = localTimeOfDay(now, word.hour, word.minute, 0);
            return today <= now ? today : localTimeOfDay(now, word.hour, word.minute, -1);
        }
        case TimeWord::Kind::today:
            return localTimeOfDay(now, 0, 0, 0);
        case TimeWord::Kind::instant:
            return word.instant;
        case TimeWord::Kind::off:
            break;
    }
    return now;
}

namespace {

// `run`'s command is not ours to read: its words, options included, pass
// untouched. It starts after "--", or at the first word that is no option of
// run's own.
std::vector<std::string> splitRunCommand(std::vector<std::string>& arguments) {
    if (arguments.empty() || arguments[0] != "run") return {};
    for (std::size_t i = 1; i < arguments.size(); ++i) {
        const std::string& word = arguments[i];
        if (word == "--reason") {
            ++i;
            continue;
        }
        if (word.rfind("--reason=", 0) == 0 || word == "-h" || word == "--help") continue;
        bool separator = word == "--";
        if (!separator && word.rfind("-", 0) == 0) continue;  // CLI11 names the unknown option
        std::vector<std::string> command(
            arguments.begin() + static_cast<std::ptrdiff_t>(i + (separator ? 1 : 0)), arguments.end());
        arguments.resize(i);
        return command;
    }
    return {};
}

}  // namespace

Parsed parseArguments(const std::vector<std::string>& given) {
    Builder builder;
    builder.build();
    std::vector<std::string> arguments = given;
    builder.request.commandLine = splitRunCommand(arguments);
    // A setting's value is taken as written, a negative chat id included,
    // which the parser would read as an option.
    if (arguments.size() == 4 && arguments[0] == "config" && arguments[1] == "set") {
        builder.request.value = arguments[3];
        arguments.pop_back();
    }
    // CLI11 reads the arguments back to front.
    std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());
    try {
        builder.app.parse(reversed);
        builder.finish();
    } catch (const CLI::ParseError& error) {
        std::ostringstream out, err;
        int status = builder.app.exit(error, out, err);
        return {std::nullopt, status == 0 ? 0 : 2, status == 0 ? out.str() : err.str()};
    } catch (const UsageError& error) {
        return {std::nullopt, 2, std::string(error.what()) + "\n"};
    }
    return {builder.request, 0, {}};
}

}  // namespace tavra::cli

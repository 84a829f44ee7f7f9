#pragma once

// The one command language of the phone: typed chat text, the payload of a
// chat button and an alert action's command are all the same short string.
//
//   status | s                       help | start | commands
//   report [hours] | r [hours]       hours 1...720, default 12
//   pause [target]                   resume [target]
//   stayawake|awake|wake [minutes]   minutes 1...1440, default 60
//   release                          sleep [now]
//   approve <id> | approve:<id>      deny <id> | deny:<id>
//   on | enable                      off | disable
//   cancel                           answer <id> <question> <choice>
//
// A leading "/" and a trailing "@botname" on the command word are ignored, the
// command word is case-insensitive, and words are separated by blanks only.

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "core/MachineWord.h"
#include "core/Models.h"
#include "core/Run.h"

namespace tavra {

struct RemoteCommand {
    struct ReportHours {
        std::int64_t hours = 12;
        bool operator==(const ReportHours&) const = default;
    };
    struct Pause {
        std::optional<std::string> target;  // absent: every run
        bool operator==(const Pause&) const = default;
    };
    struct Resume {
        std::optional<std::string> target;  // absent: every run
        bool operator==(const Resume&) const = default;
    };
    struct StayAwake {
        std::int64_t minutes = 60;
        bool operator==(const StayAwake&) const = default;
    };
    struct Sleep {
        bool confirmed = false;
        bool operator==(const Sleep&) const = default;
    };
    struct Approve {
        std::string requestID;
        bool operator==(const Approve&) const = default;
    };
    struct Deny {
        std::string requestID;
        bool operator==(const Deny&) const = default;
    };
    struct Enable {
        bool on = true;  // true switches on, false switches off
        bool operator==(const Enable&) const = default;
    };
    struct Answer {
        std::string requestID;
        std::int64_t question = 0;  // 0-based index of the question in the ticket
        std::string choice;
        bool operator==(const Answer&) const = default;
    };
    struct Help {
        bool operator==(const Help&) const = default;
    };
    struct Status {
        bool operator==(const Status&) const = default;
    };
    struct Release {
        bool operator==(const Release&) const = default;
    };
    struct Cancel {
        bool operator==(const Cancel&) const = default;
    };

    using Value = std::variant<ReportHours, Pause, Resume, StayAwake, Sleep, Approve, Deny, Enable, Answer,
                               Help, Status, Release, Cancel>;
    Value value;

    bool operator==(const RemoteCommand&) const = default;

    static RemoteCommand report(std::int64_t hours) { return {ReportHours{hours}}; }
    static RemoteCommand pause(std::optional<std::string> target = std::nullopt) {
        return {Pause{std::move(target)}};
    }
    static RemoteCommand resume(std::optional<std::string> target = std::nullopt) {
        return {Resume{std::move(target)}};
    }
    static RemoteCommand stayAwake(std::int64_t minutes) { return {StayAwake{minutes}}; }
    static RemoteCommand sleep(bool confirmed) { return {Sleep{confirmed}}; }
    static RemoteCommand approve(std::string requestID) { return {Approve{std::move(requestID)}}; }
    static RemoteCommand deny(std::string requestID) { return {Deny{std::move(requestID)}}; }
    static RemoteCommand enable(bool on) { return {Enable{on}}; }
    static RemoteCommand answer(std::string requestID, std::int64_t question, std::string choice) {
        return {Answer{std::move(requestID), question, std::move(choice)}};
    }
    static RemoteCommand help() { return {Help{}}; }
    static RemoteCommand status() { return {Status{}}; }
    static RemoteCommand release() { return {Release{}}; }
    static RemoteCommand cancel() { return {Cancel{}}; }

    template <class Case>
    bool is() const noexcept {
        return std::holds_alternative<Case>(value);
    }
    template <class Case>
    const Case* as() const noexcept {
        return std::get_if<Case>(&value);
    }

    // The case's name ("report", "stayAwake", ...), for logs and tests.
    std::string_view caseName() const noexcept;

    // Reads one command from text. Never throws; absent means unknown text.
    static std::optional<RemoteCommand> parse(std::string_view text);

    // What a pause or resume target names: nothing, every run, or one run.
    struct NoRun {
        bool operator==(const NoRun&) const = default;
    };
    struct EveryRun {
        bool operator==(const EveryRun&) const = default;
    };
    using Resolution = std::variant<NoRun, EveryRun, RunKey>;

    // Turns the target of a pause or resume into a run, against the runs in
    // the order the user sees them numbered (from 1). An absent target is
    // every run. A target is tried as a position, then as "agent:session",
    // then as the beginning of a session identifier.
    static Resolution resolve(const std::optional<std::string>& target, const std::vector<Run>& runs);

    struct MenuEntry {
        std::string_view command;  // without a slash
        std::string description;
        bool operator==(const MenuEntry&) const = default;
    };
    // The commands a channel offers in its menu, in this order, naming the
    // machine with `machine`.
    static std::array<MenuEntry, 10> menu(const MachineWord& machine);

    // The plain decimal reading shared by every number of the language: an
    // optional single sign, then one or more ASCII digits, fitting 64 bits.
    static std::optional<std::int64_t> readInteger(std::string_view word) noexcept;
};

}  // namespace tavra

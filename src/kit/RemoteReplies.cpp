#include "kit/RemoteReplies.h"

#include <cmath>
#include <utility>

#include "core/EnumTable.h"
#include "core/RemoteCommand.h"
#include "core/Text.h"
#include "core/TimeFormatter.h"
#include "kit/RemoteReplyWords.h"

namespace tavra {

using namespace RemoteReplyWords;

// ---- RemoteReply -------------------------------------------------------------

namespace {

// Builds the result in a second buffer: one pass instead of shifting the
// tail at every match, and no in-place replace for GCC 12's -Wrestrict to
// misread in optimized builds.
void replaceAll(std::string& text, std::string_view from, std::string_view to) {
    std::size_t start = 0;
    std::size_t at = text.find(from);
    if (at == std::string::npos) return;
    std::string out;
    out.reserve(text.size());
    for (; at != std::string::npos; at = text.find(from, start)) {
        out.append(text, start, at - start);
        out.append(to);
        start = at + from.size();
    }
    out.append(text, start);
    text = std::move(out);
}

}  // namespace

std::string RemoteReply::plain() const {
    // Removes every "<" + one or more non-">" + ">", scanning left to right
    // as a regular expression would; a bare "<>" or an unclosed "<" stays.
    std::string out;
    out.reserve(html.size());
    std::size_t i = 0;
    while (i < html.size()) {
        if (html[i] == '<') {
            std::size_t close = html.find('>', i + 1);
            if (close != std::string::npos && close > i + 1) {
                i = close + 1;
                continue;
            }
        }
        out.push_back(html[i++]);
    }
    replaceAll(out, "&lt;", "<");
    replaceAll(out, "&gt;", ">");
    replaceAll(out, "&quot;", "\"");
    replaceAll(out, "&amp;", "&");  // last, so that "&amp;lt;" stays "&lt;"
    return out;
}

std::string RemoteReply::escape(std::string_view text) {
    return Text::escapeMarkup(text);
}

// ---- Shared wording ----------------------------------------------------------

namespace RemoteReplyWords {

std::string agentName(const AgentKind& agent) {
    return RemoteReply::escape(Text::capitalizedWords(agent.rawValue));
}

std::string name(const AgentKind& agent, const std::optional<std::string>& cwd) {
    std::string out = "<b>" + agentName(agent) + "</b>";
    if (cwd) out.append(kDot).append(RemoteReply::escape(Text::lastPathComponent(*cwd)));
    return out;
}

std::string joinLines(const std::vector<std::string>& lines) {
    return Text::join(lines, "\n");
}

}  // namespace RemoteReplyWords

namespace {

RemoteReply reply(std::string html, std::vector<std::vector<AlertAction>> buttons,
                  RemoteReply::Placement placement, std::optional<std::string> toast = std::nullopt) {
    return RemoteReply{std::move(html), std::move(buttons), std::move(placement), std::move(toast), false};
}

std::string seconds(Date later, Date earlier) {
    return RemoteReply::escape(Report::duration(std::chrono::duration<double>(later - earlier).count()));
}

std::string pauseReasonText(const std::optional<PauseReason>& reason) {
    if (!reason) return "paused";
    switch (*reason) {
        case PauseReason::thermal:
            return theMachine() + " got too hot";
        case PauseReason::network:
            return "the network dropped";
        case PauseReason::stuck:
            return "it looked stuck";
        case PauseReason::user:
            return "paused by you";
        case PauseReason::remote:
            return "paused from your phone";
    }
    return "paused";
}

std::string runLine(const Run& run, Date now) {
    std::string worked = RemoteReply::escape(Report::duration(run.workingSeconds));
    switch (run.status) {
        case RunStatus::working: {
            std::vector<std::string> parts{"\U0001F7E2 Working", worked + " so far"};
            if (run.toolCount >= 1) parts.push_back(std::to_string(run.toolCount) + " tool calls");
            return Text::join(parts, kDot);
        }
        case RunStatus::waiting:
            return "\U0001F7E1 Waiting for you" + std::string(kDot) +
                   seconds(now, run.waitingSince.value_or(run.statusSince));
        case RunStatus::idle:
            return "\u2705 Done" + std::string(kDot) + worked + " worked" + std::string(kDot) + "idle " +
                   seconds(now, run.statusSince);
        case RunStatus::paused:
            return "\u23F8 Paused, " + pauseReasonText(run.pauseReason) + std::string(kDot) + worked +
                   " worked";
    }
    return {};
}

std::string machineLine(const SystemSnapshot& system, const PowerPlan& plan) {
    std::vector<std::string> parts;
    if (!system.batteryPercent) {
        if (system.powerSource != PowerSource::battery) parts.push_back("\U0001F50C Plugged in");
    } else {
        parts.push_back(
            std::string(system.powerSource == PowerSource::battery ? "\U0001F50B " : "\U0001F50C ") +
            std::to_string(*system.batteryPercent) + "%");
    }
    static constexpr EnumTable::Table<ThermalLevel, 4> kThermalFaces{{
        {ThermalLevel::nominal, "\U0001F321 Cool"},
        {ThermalLevel::fair, "\U0001F321 Warm"},
        {ThermalLevel::serious, "\U0001F975 Hot"},
        {ThermalLevel::critical, "\U0001F525 Critical"},
    }};
    parts.emplace_back(EnumTable::nameOf(kThermalFaces, system.thermal));
    if (system.lidClosed)
        parts.push_back(plan.disableLidSleep ? "\U0001F4BB Lid closed, running" : "\U0001F4BB Lid closed");
    if (!system.networkReachable) parts.push_back("\U0001F4F5 Offline");
    return Text::join(parts, "  ");
}

std::string period(std::int64_t hours) {
    if (hours >= 48 && hours % 24 == 0) return "Last " + std::to_string(hours / 24) + " days";
    if (hours == 1) return "Last hour";
    return "Last " + std::to_string(hours) + " hours";
}

std::string plural(std::int64_t count, std::string_view word) {
    return std::to_string(count) + " " + std::string(word) + (count == 1 ? "" : "s");
}

// A run's key in a pause or resume button when it is short enough, else its
// number. Bounded in bytes as well, so that "resume {target}" always fits the
// 64 bytes that a chat button may carry. An open agent name or a session may
// hold a blank or end in white space; such a key would come back from the
// parser cut or trimmed and pause the wrong run, so it gives way to the number
// as well.
std::string buttonTarget(const RunKey& key, std::size_t number) {
    std::string description = key.description();
    if (description.size() < 57 && Text::characterCount(description) < 57 &&
        RemoteCommand::parse("pause " + description) == RemoteCommand::pause(description))
        return description;
    return std::to_string(number);
}

AlertAction statusButton() {
    return button(std::string(kCoffee) + " Status", "status");
}

}  // namespace

// ---- Status ------------------------------------------------------------------

namespace {

// A pause or resume button per run when there are two to four, then the
// actions on all runs, the stay-awake and the refresh and report row.
std::vector<std::vector<AlertAction>> statusButtons(const DaemonStatus& status, const StatusCounts& tally,
                                                    bool holding) {
    std::vector<std::vector<AlertAction>> rows;
    std::size_t runCount = status.runs.size();
    if (runCount >= 2 && runCount <= 4) {
        std::vector<AlertAction> row;
        std::size_t number = 0;
        for (const auto& view : status.runs) {
            ++number;
            std::string target = buttonTarget(view.run.key, number);
            std::string face = std::to_string(number);
            switch (view.run.status) {
                case RunStatus::working:
                case RunStatus::waiting:
                    row.push_back(button("\u23F8 " + face, "pause " + target));
                    break;
                case RunStatus::paused:
                    row.push_back(button(std::string(kPlay) + " " + face, "resume " + target));
                    break;
                case RunStatus::idle:
                    break;
            }
        }
        if (!row.empty()) rows.push_back(std::move(row));
    }
    std::vector<AlertAction> actions;
    bool several = runCount >= 2;
    if (tally.working + tally.waiting >= 1)
        actions.push_back(button(several ? "\u23F8 Pause all" : "\u23F8 Pause", "pause"));
    if (tally.paused >= 1)
        actions.push_back(button(std::string(kPlay) + (several ? " Resume all" : " Resume"), "resume"));
    if (holding)
        actions.push_back(button("\U0001F319 Release", "release"));
    else
        actions.push_back(button(std::string(kSun) + " Awake 1h", "stayawake 60"));
    rows.push_back(std::move(actions));
    rows.push_back({button("\U0001F504 Refresh", "status"), button("\U0001F4CA Report", "report")});

    return rows;
}

}  // namespace

RemoteReply RemoteReplies::status(const DaemonStatus& status, const std::optional<std::string>& note,
                                  Date now) {
    std::vector<std::string> lines;
    if (note) {
        lines.push_back(*note);
        lines.emplace_back();
    }
    if (!status.enabled) {
        lines.push_back(std::string(kCoffee) + " <b>Tavra is off</b>");
        lines.emplace_back(theMachineAtStart() + " sleeps normally and agents aren't watched.");
        return reply(joinLines(lines), {{button(std::string(kPlay) + " Turn on", "on")}},
                     RemoteReply::Placement::replace());
    }

    StatusCounts tally;
    for (const auto& view : status.runs) tally.add(view.run.status);
    std::vector<std::string> counts;
    if (tally.working > 0) counts.push_back(std::to_string(tally.working) + " working");
    if (tally.waiting > 0) counts.push_back(std::to_string(tally.waiting) + " waiting");
    if (tally.paused > 0) counts.push_back(std::to_string(tally.paused) + " paused");
    std::string headline = counts.empty() ? "All quiet" : Text::join(counts, kDot);
    lines.push_back(std::string(kCoffee) + " <b>" + headline + "</b>");
    if (status.runs.empty()) lines.emplace_back("No agents running.");

    std::size_t number = 0;
    for (const auto& view : status.runs) {
        lines.emplace_back();
        lines.push_back(std::to_string(++number) + ". " + name(view.run.key.agent, view.run.cwd));
        lines.push_back(std::string(kIndent) + runLine(view.run, now));
    }

    for (const auto& ticket : status.pendingApprovals) {
        lines.emplace_back();
        if (ticket.isQuestion())
            lines.push_back("\u2753 <b>" + agentName(ticket.run.agent) + " is asking you something</b>");
        else
            lines.push_back("\U0001F64B <b>Needs your OK:</b> " + RemoteReply::escape(ticket.toolName) +
                            " for " + agentName(ticket.run.agent));
    }

    lines.emplace_back();
    lines.push_back(machineLine(status.system, status.plan));
    bool holding = status.stayAwakeUntil && *status.stayAwakeUntil > now;
    if (holding)
        lines.push_back(std::string(kSun) + " Staying awake until " +
                        TimeFormatter::shortTime(*status.stayAwakeUntil));
    else if (status.plan.preventIdleSleep || status.plan.disableLidSleep)
        lines.push_back(std::string(kSun) + " Keeping " + theMachine() + " awake while agents work");
    else
        lines.emplace_back("\U0001F319 " + theMachineAtStart() + " can sleep");
    lines.push_back("<i>Updated " + TimeFormatter::mediumTime(now) + "</i>");

    return reply(joinLines(lines), statusButtons(status, tally, holding), RemoteReply::Placement::replace());
}

// ---- Report ------------------------------------------------------------------

namespace {

constexpr EnumTable::Table<Report::RunSummary::Outcome, 4> kOutcomeIcons{{
    {Report::RunSummary::Outcome::finished, "\u2705"},
    {Report::RunSummary::Outcome::running, "\U0001F7E2"},
    {Report::RunSummary::Outcome::paused, "\u23F8"},
    {Report::RunSummary::Outcome::ended, "\u23F9"},
}};

std::string_view outcomeIcon(Report::RunSummary::Outcome outcome) {
    return EnumTable::nameOf(kOutcomeIcons, outcome);
}

std::string periodFace(std::int64_t hours) {
    if (hours >= 48 && hours % 24 == 0) return std::to_string(hours / 24) + "d";
    return std::to_string(hours) + "h";
}

// The last `count` entries as bullet lines under a heading.
void appendTail(std::vector<std::string>& lines, std::string heading,
                const std::vector<std::string>& entries) {
    if (entries.empty()) return;
    lines.emplace_back();
    lines.push_back(std::move(heading));
    std::size_t first = entries.size() > 5 ? entries.size() - 5 : 0;
    for (std::size_t i = first; i < entries.size(); ++i)
        lines.push_back("\u2022 " + RemoteReply::escape(entries[i]));
}

}  // namespace

RemoteReply RemoteReplies::report(const Report& report, std::int64_t hours) {
    constexpr std::size_t kShownRuns = 8;
    constexpr std::size_t kShownPauses = 3;

    std::vector<std::string> lines;
    lines.push_back("\U0001F4CA <b>" + period(hours) + "</b>");
    if (report.runs.empty()) {
        lines.emplace_back("No agent runs in this period.");
    } else {
        std::int64_t turns = 0;
        for (const auto& run : report.runs) turns += run.turnsFinished;
        std::vector<std::string> parts{
            plural(static_cast<std::int64_t>(report.runs.size()), "run"),
            RemoteReply::escape(Report::duration(report.totalWorkingSeconds())) + " of work"};
        if (turns >= 1) parts.push_back(plural(turns, "turn") + " done");
        lines.push_back(Text::join(parts, kDot));
    }

    std::size_t leftOut = report.runs.size() > kShownRuns ? report.runs.size() - kShownRuns : 0;
    for (std::size_t i = leftOut; i < report.runs.size(); ++i) {
        const auto& run = report.runs[i];
        lines.emplace_back();
        std::string heading =
            std::string(outcomeIcon(run.outcome)) + " <b>" + agentName(run.run.agent) + "</b>";
        if (run.project) heading.append(kDot).append(RemoteReply::escape(*run.project));
        lines.push_back(std::move(heading));
        std::vector<std::string> parts{RemoteReply::escape(Report::duration(run.workingSeconds))};
        if (run.turnsFinished >= 1) parts.push_back(plural(run.turnsFinished, "turn"));
        parts.push_back(TimeFormatter::shortTime(run.firstSeen) + "\u2013" +
                        TimeFormatter::shortTime(run.lastSeen));
        lines.push_back(std::string(kIndent) + Text::join(parts, kDot));
        for (std::size_t p = 0; p < run.pauses.size() && p < kShownPauses; ++p)
            lines.push_back(std::string(kIndent) + "\u23F8 " + RemoteReply::escape(run.pauses[p]));
    }
    if (leftOut > 0) {
        lines.emplace_back();
        lines.push_back("<i>\u2026and " + std::to_string(leftOut) + " earlier</i>");
    }
    appendTail(lines, "\U0001F6E1 <b>Guards</b>", report.guards);
    appendTail(lines, "\U0001F634 <b>Sleeps</b>", report.sleeps);

    std::vector<AlertAction> periods;
    for (std::int64_t h : reportPeriods) {
        std::string face = periodFace(h);
        if (h == hours) face = "\u2022 " + periodFace(hours) + " \u2022";
        periods.push_back(button(std::move(face), "report " + std::to_string(h)));
    }
    return reply(joinLines(lines), {std::move(periods), {statusButton()}}, RemoteReply::Placement::replace());
}

// ---- Fixed replies -----------------------------------------------------------

RemoteReply RemoteReplies::help() {
    std::string html = std::string(kCoffee) +
                       " <b>Tavra</b>, from your phone\n\n"
                       "<b>See</b>\n"
                       "/status \u00b7 what's running\n"
                       "/report \u00b7 what happened (/report 24 for a day)\n\n"
                       "<b>Control</b>\n"
                       "/pause \u00b7 /resume \u00b7 all agents, or one: /pause 2\n"
                       "/stayawake 90 \u00b7 keep " +
                       theMachine() +
                       " awake for 90 min\n"
                       "/release \u00b7 end the stay-awake hold\n"
                       "/sleep \u00b7 put " +
                       theMachine() +
                       " to sleep\n"
                       "/off \u00b7 /on \u00b7 turn Tavra off or on\n\n"
                       "Approvals arrive with \u2705 Approve and " +
                       std::string(kNoEntry) + " Deny buttons.";
    return reply(std::move(html), {{statusButton(), button("\U0001F4CA Report", "report")}},
                 RemoteReply::Placement::replace());
}

RemoteReply RemoteReplies::unknown(std::string_view text) {
    constexpr std::size_t kLongest = 40;
    std::string shown(text);
    if (Text::characterCount(text) > kLongest) shown = Text::prefixCharacters(text, kLongest) + "\u2026";
    return reply("\U0001F914 I don't know \u201C" + RemoteReply::escape(shown) +
                     "\u201D.\nTap a button or send /help.",
                 {{statusButton(), button("\u2753 Help", "help")}}, RemoteReply::Placement::newMessage());
}

RemoteReply RemoteReplies::noMatch(std::string_view target) {
    return reply("\U0001F937 No agent matches \u201C" + RemoteReply::escape(target) +
                     "\u201D.\nUse the number from /status.",
                 {{statusButton()}}, RemoteReply::Placement::newMessage());
}

RemoteReply RemoteReplies::stayAwake(std::int64_t minutes, Date until) {
    std::string length = (minutes >= 60 && minutes % 60 == 0)
                             ? std::to_string(minutes / 60) + "h"
                             : RemoteReply::escape(Report::duration(static_cast<double>(minutes) * 60));
    std::string time = TimeFormatter::shortTime(until);
    return reply(std::string(kSun) + " <b>Keeping " + theMachine() + " awake until " + time +
                     "</b>\nThat's " + length + ", even if no agent is working.",
                 {{button("+1h", "stayawake " + std::to_string(minutes + 60)),
                   button("\U0001F319 Release", "release")}},
                 RemoteReply::Placement::replace(), "Awake until " + time);
}

RemoteReply RemoteReplies::released(std::int64_t agentsWorking) {
    std::string sentence;
    if (agentsWorking < 1)
        sentence = theMachineAtStart() + " can sleep normally now.";
    else
        sentence = "Tavra still keeps " + theMachine() + " awake while " +
                   (agentsWorking == 1 ? std::string("an agent works")
                                       : std::to_string(agentsWorking) + " agents work") +
                   ".";
    return reply("\U0001F319 <b>Stay-awake hold released</b>\n" + sentence,
                 {{button(std::string(kSun) + " Awake 1h", "stayawake 60"), statusButton()}},
                 RemoteReply::Placement::replace(), "Released");
}

RemoteReply RemoteReplies::confirmSleep(std::int64_t working) {
    std::string who = working == 1 ? std::string("An agent is") : std::to_string(working) + " agents are";
    return reply("\U0001F634 <b>Sleep " + theMachine() + " now?</b>\n" + who +
                     " still working and will stop until " + theMachine() +
                     " wakes. You can't reach it from here while it "
                     "sleeps.",
                 {{button("\U0001F634 Sleep now", "sleep now"), button("Cancel", "cancel")}},
                 RemoteReply::Placement::newMessage());
}

RemoteReply RemoteReplies::sleeping() {
    return reply(
        "\U0001F634 <b>Putting " + theMachine() + " to sleep.</b>\nOpen the lid or press a key to wake it.",
        {}, RemoteReply::Placement::replace(), "Going to sleep");
}

RemoteReply RemoteReplies::cancelled() {
    return reply("\U0001F44D Okay, left it as it was.", {{statusButton()}},
                 RemoteReply::Placement::replace());
}

RemoteReply RemoteReplies::enabled(bool on) {
    if (on)
        return reply(std::string(kPlay) + " <b>Tavra is on</b>\n" + theMachineAtStart() +
                         " stays awake while agents work.",
                     {{statusButton()}}, RemoteReply::Placement::replace(), "Tavra on");
    return reply(
        "\u23F9 <b>Tavra is off</b>\n" + theMachineAtStart() + " sleeps normally and agents aren't watched.",
        {{button(std::string(kPlay) + " Turn on", "on")}}, RemoteReply::Placement::replace(), "Tavra off");
}

}  // namespace tavra

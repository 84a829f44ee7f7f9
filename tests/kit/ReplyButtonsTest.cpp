// Every button a reply shows must come back through the command parser as the
// command it stands for, and fit the 64 bytes a chat button may carry.

#include <gtest/gtest.h>

#include "core/RemoteCommand.h"
#include "kit/RemoteReplies.h"
#include "support/SampleStatus.h"
#include "support/ScopedIcuDefaults.h"

namespace tavra {
namespace {

using testing::minutesFrom;
using testing::sampleNow;
using testing::sampleRun;
using testing::sampleStatus;
using testing::sampleTicket;
using RC = RemoteCommand;

constexpr std::size_t kButtonDataLimit = 64;

struct Case {
    std::string name;
    RemoteReply reply;
    std::vector<RemoteCommand> expected;  // row by row, left to right
};

std::vector<Case> allReplies() {
    Date now = sampleNow();
    std::vector<Case> cases;

    cases.push_back({"status empty",
                     RemoteReplies::status(sampleStatus(), std::nullopt, now),
                     {RC::stayAwake(60), RC::status(), RC::report(12)}});

    // The longest key that still goes into a button, and one past it.
    std::string longest(56 - std::string("codex:").size(), 'k');
    auto paused = sampleRun("grok", "g1", RunStatus::paused);
    auto held = sampleStatus({sampleRun("claude", "c1", RunStatus::working),
                              sampleRun("codex", longest, RunStatus::waiting), paused,
                              sampleRun("claude", longest + "xx", RunStatus::working)});
    held.stayAwakeUntil = minutesFrom(now, 30);
    cases.push_back(
        {"status four runs",
         RemoteReplies::status(held, std::nullopt, now),
         {RC::pause("claude:c1"), RC::pause("codex:" + longest), RC::resume("grok:g1"), RC::pause("4"),
          RC::pause(), RC::resume(), RC::release(), RC::status(), RC::report(12)}});

    auto off = sampleStatus();
    off.enabled = false;
    cases.push_back({"status off", RemoteReplies::status(off, std::nullopt, now), {RC::enable(true)}});

    Report report;
    for (std::int64_t hours : {12, 24, 72, 168, 5})
        cases.push_back({"report " + std::to_string(hours),
                         RemoteReplies::report(report, hours),
                         {RC::report(12), RC::report(24), RC::report(72), RC::report(168), RC::status()}});

    cases.push_back({"help", RemoteReplies::help(), {RC::status(), RC::report(12)}});
    cases.push_back({"unknown", RemoteReplies::unknown("x"), {RC::status(), RC::help()}});
    cases.push_back({"noMatch", RemoteReplies::noMatch("x"), {RC::status()}});
    cases.push_back({"stayAwake", RemoteReplies::stayAwake(90, now), {RC::stayAwake(150), RC::release()}});
    cases.push_back({"stayAwake near the clamp",
                     RemoteReplies::stayAwake(1440, now),
                     {RC::stayAwake(1440), RC::release()}});
    cases.push_back({"released", RemoteReplies::released(1), {RC::stayAwake(60), RC::status()}});
    cases.push_back({"confirmSleep", RemoteReplies::confirmSleep(2), {RC::sleep(true), RC::cancel()}});
    cases.push_back({"sleeping", RemoteReplies::sleeping(), {}});
    cases.push_back({"cancelled", RemoteReplies::cancelled(), {RC::status()}});
    cases.push_back({"enabled", RemoteReplies::enabled(true), {RC::status()}});
    cases.push_back({"disabled", RemoteReplies::enabled(false), {RC::enable(true)}});

    // A request id as the agents make them: a UUID.
    std::string id = "3f2c9a1e-5b7d-4c2a-9e8f-0a1b2c3d4e5f";
    AgentQuestion single{"One?", std::nullopt, {{"a", {}}, {"b", {}}}, false};
    AgentQuestion multi{"Many?", std::nullopt, {{"a", {}}, {"b", {}}, {"c", {}}}, true};
    auto ticket = sampleTicket(id, "claude", {single, multi});
    cases.push_back({"question single",
                     RemoteReplies::question(ticket, 0, {}),
                     {RC::answer(id, 0, "0"), RC::answer(id, 0, "1"), RC::answer(id, 0, "other"),
                      RC::answer(id, 0, "mac")}});
    cases.push_back({"question multi",
                     RemoteReplies::question(ticket, 1, {2}),
                     {RC::answer(id, 1, "0"), RC::answer(id, 1, "1"), RC::answer(id, 1, "2"),
                      RC::answer(id, 1, "done"), RC::answer(id, 1, "other"), RC::answer(id, 1, "mac")}});
    cases.push_back({"approval", RemoteReplies::approval(true, "Bash"), {}});
    cases.push_back({"askForText", RemoteReplies::askForText(ticket, 0), {}});
    cases.push_back({"answered", RemoteReplies::answered(ticket, {}), {}});
    cases.push_back({"approvalGone", RemoteReplies::approvalGone(), {}});
    cases.push_back({"answerAtMac", RemoteReplies::answerAtMac(), {}});
    return cases;
}

TEST(ReplyButtonsTest, EveryButtonParsesBackToItsCommandAndFits) {
    testing::ScopedIcuDefaults icu{"en_GB", "UTC"};
    for (const auto& c : allReplies()) {
        std::vector<RemoteCommand> parsed;
        for (const auto& row : c.reply.buttons) {
            EXPECT_FALSE(row.empty()) << c.name << ": an empty row";
            for (const auto& button : row) {
                EXPECT_LE(button.command.size(), kButtonDataLimit) << c.name << ": " << button.command;
                EXPECT_FALSE(button.label.empty()) << c.name;
                auto command = RemoteCommand::parse(button.command);
                ASSERT_TRUE(command.has_value()) << c.name << ": " << button.command;
                parsed.push_back(*command);
            }
        }
        EXPECT_EQ(parsed, c.expected) << c.name;
    }
}

TEST(ReplyButtonsTest, RunButtonsResolveToTheirRun) {
    Date now = sampleNow();
    std::vector<tavra::Run> runs{sampleRun("claude", "c1", RunStatus::working),
                                 sampleRun("codex", "c1", RunStatus::paused),
                                 sampleRun("claude", std::string(60, 'z'), RunStatus::waiting)};
    auto reply = RemoteReplies::status(sampleStatus(runs), std::nullopt, now);
    ASSERT_EQ(reply.buttons[0].size(), runs.size());
    for (std::size_t i = 0; i < runs.size(); ++i) {
        auto command = RemoteCommand::parse(reply.buttons[0][i].command);
        ASSERT_TRUE(command.has_value());
        std::optional<std::string> target;
        if (auto* p = std::get_if<RC::Pause>(&command->value)) target = p->target;
        if (auto* r = std::get_if<RC::Resume>(&command->value)) target = r->target;
        auto resolved = RemoteCommand::resolve(target, runs);
        ASSERT_TRUE(resolved.has_value()) << reply.buttons[0][i].command;
        EXPECT_EQ(*resolved, runs[i].key) << reply.buttons[0][i].command;
    }
}

}  // namespace
}  // namespace tavra

// Every button a reply shows must come back through the command parser as the
// command it stands for, and fit the 64 bytes a chat button may carry.

#include <gtest/gtest.h>

#include "core/RemoteCommand.h"
#include "kit/RemoteReplies.h"
#include "support/SampleStatus.h"
#include "support/ScopedIcuDefaults.h"

namespace tavra {
namespace {

using namespace tavra::testing;
using RC = RemoteCommand;

TEST(ReplyButtonsTest, EveryButtonParsesBackToItsCommandAndFits) {
    testing::ScopedIcuDefaults icu{"en_GB", "UTC"};
    Date now = sampleNow();
    // The longest key that still goes into a button, and one past it, which
    // gives way to the run's number; so does a key with a blank, which the
    // parser would cut.
    std::string longest(56 - std::string("codex:").size(), 'k');
    auto held = sampleStatus(
        {sampleRun("claude code", "c1", RunStatus::working), sampleRun("codex", longest, RunStatus::waiting),
         sampleRun("grok", "g1", RunStatus::paused), sampleRun("codex", longest + "x", RunStatus::working)});
    held.stayAwakeUntil = minutesFrom(now, 30);
    auto off = sampleStatus();
    off.enabled = false;
    // A request id as the agents make them: a UUID.
    std::string id = "3f2c9a1e-5b7d-4c2a-9e8f-0a1b2c3d4e5f";
    AgentQuestion single{"One?", std::nullopt, {{"a", {}}, {"b", {}}}, false};
    AgentQuestion multi{"Many?", std::nullopt, {{"a", {}}, {"b", {}}, {"c", {}}}, true};
    auto ticket = sampleTicket(id, "claude", {single, multi});

    const std::pair<RemoteReply, std::vector<RC>> cases[] = {
        {RemoteReplies::status(sampleStatus(), std::nullopt, now),
         {RC::stayAwake(60), RC::status(), RC::report(12)}},
        {RemoteReplies::status(held, std::nullopt, now),
         {RC::pause("1"), RC::pause("codex:" + longest), RC::resume("grok:g1"), RC::pause("4"), RC::pause(),
          RC::resume(), RC::release(), RC::status(), RC::report(12)}},
        {RemoteReplies::status(off, std::nullopt, now), {RC::enable(true)}},
        {RemoteReplies::report(Report{}, 5),
         {RC::report(12), RC::report(24), RC::report(72), RC::report(168), RC::status()}},
        {RemoteReplies::help(), {RC::status(), RC::report(12)}},
        {RemoteReplies::unknown("x"), {RC::status(), RC::help()}},
        {RemoteReplies::noMatch("x"), {RC::status()}},
        {RemoteReplies::stayAwake(90, now), {RC::stayAwake(150), RC::release()}},
        {RemoteReplies::stayAwake(1440, now), {RC::stayAwake(1440), RC::release()}},  // the command clamps
        {RemoteReplies::released(1), {RC::stayAwake(60), RC::status()}},
        {RemoteReplies::confirmSleep(2), {RC::sleep(true), RC::cancel()}},
        {RemoteReplies::cancelled(), {RC::status()}},
        {RemoteReplies::enabled(true), {RC::status()}},
        {RemoteReplies::enabled(false), {RC::enable(true)}},
        {RemoteReplies::question(ticket, 0, {}),
         {RC::answer(id, 0, "0"), RC::answer(id, 0, "1"), RC::answer(id, 0, "other"),
          RC::answer(id, 0, "mac")}},
        {RemoteReplies::question(ticket, 1, {2}),
         {RC::answer(id, 1, "0"), RC::answer(id, 1, "1"), RC::answer(id, 1, "2"), RC::answer(id, 1, "done"),
          RC::answer(id, 1, "other"), RC::answer(id, 1, "mac")}},
        {RemoteReplies::askForText(ticket, 0), {}},
        {RemoteReplies::answered(ticket, {}), {}},
    };
    for (const auto& [reply, expected] : cases) {
        std::vector<RC> parsed;
        for (const auto& row : reply.buttons) {
            EXPECT_FALSE(row.empty()) << reply.html;
            for (const auto& button : row) {
                EXPECT_LE(button.command.size(), 64u) << button.command;
                EXPECT_FALSE(button.label.empty()) << button.command;
                auto command = RC::parse(button.command);
                ASSERT_TRUE(command.has_value()) << button.command;
                parsed.push_back(*command);
            }
        }
        EXPECT_EQ(parsed, expected) << reply.html;
    }
}

}  // namespace
}  // namespace tavra

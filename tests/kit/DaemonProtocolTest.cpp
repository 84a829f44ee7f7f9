#include "kit/DaemonProtocol.h"

#include <gtest/gtest.h>

#include "support/SampleStatus.h"
#include "support/ScopedIcuDefaults.h"

namespace tavra {
namespace {

using namespace tavra::testing;

AgentEvent sampleEvent() {
    return {
        AgentKind::claude, "s1", AgentEvent::Kind::toolStarted, sampleNow(), "/Users/a/proj", {}, {}, {}, {}};
}

DaemonStatus richStatus() {
    auto run = sampleRun("codex", "s2", RunStatus::paused, "/w/x", 300);
    run.pauseReason = PauseReason::remote;
    auto status = sampleStatus({sampleRun("claude", "s1", RunStatus::working), run});
    status.runs[1].resumeCommand = "codex resume s2";
    status.plan.preventIdleSleep = true;
    status.plan.reasons = {"Claude working"};
    status.stayAwakeUntil = minutesFrom(sampleNow(), 30);
    status.remoteChannels = {"Telegram"};
    status.pendingApprovals = {sampleTicket("t1", "claude", {AgentQuestion{"Q?", "H", {{"a", "b"}}, true}})};
    return status;
}

TEST(DaemonProtocolTest, EveryCaseHasItsWireFormAndSurvivesARoundTrip) {
    expectWire(DaemonRequest::ping(), R"({"ping":{}})");
    expectWire(DaemonRequest::status(), R"({"status":{}})");
    expectWire(DaemonRequest::remoteCommand("status"), R"({"remoteCommand":{"_0":"status"}})");
    expectWire(DaemonRequest::report(sampleNow()), R"({"report":{"since":"2025-03-01T09:30:00Z"}})");
    expectWire(DaemonRequest::command(UserCommand::setEnabled(false)),
               R"({"command":{"_0":{"setEnabled":{"_0":false}}}})");
    expectWire(DaemonRequest::hook({}), R"({"hook":{"events":[]}})");
    expectWire(DaemonRequest::hook({sampleEvent(), sampleEvent()}, sampleTicket("t", "codex")));
    expectWire(DaemonRequest::setConfig(TavraConfig{}));

    expectWire(DaemonResponse::ok(), R"({"ok":{}})");
    expectWire(DaemonResponse::approval(ApprovalDecision::allow), R"({"approval":{"_0":"allow"}})");
    expectWire(DaemonResponse::error("no such run"), R"({"error":{"_0":"no such run"}})");
    expectWire(DaemonResponse::answers({{"Which?", "A"}, {"Why?", "B"}}),
               R"({"answers":{"_0":{"Which?":"A","Why?":"B"}}})");
    expectWire(DaemonResponse::status(richStatus()));
    expectWire(DaemonResponse::report(Report{}));
}

TEST(DaemonProtocolTest, BadDocumentsAreRefused) {
    for (const char* line :
         {R"({"ping":{},"status":{}})", R"({"ping":null})", R"({"hook":{}})",
          R"({"report":{"since":"2025-03-01T00:00:00.5Z"}})", R"({"remoteCommand":{"_0":3}})",
          R"({"command":{"_0":{"explode":{}}}})", R"({"ping":{})", ""})
        EXPECT_THROW(TavraJSON::decode<DaemonRequest>(line), DecodingError) << line;
    EXPECT_EQ(TavraJSON::decode<DaemonRequest>(R"({"ping":{"x":1},"extra":2})"), DaemonRequest::ping());
    EXPECT_EQ(TavraJSON::decode<DaemonRequest>(R"({"hook":{"events":[],"approval":null}})"),
              DaemonRequest::hook({}));
}

TEST(RenderTextTest, RunsAreNumberedWithOnlyThePartsTheyHave) {
    testing::ScopedIcuDefaults icu{"en_GB", "UTC"};
    auto first = sampleRun("claude code", "s1", RunStatus::working, std::nullopt, 30);
    auto second = sampleRun("codex", "s2", RunStatus::paused, "/Users/a/proj/", 300);
    second.pauseReason = PauseReason::remote;
    auto third = sampleRun("grok", "s3", RunStatus::waiting, "/", 3900);
    auto status = sampleStatus({first, second, third, sampleRun("claude", "s4", RunStatus::idle)});
    status.headline = "1 working";
    status.plan.reasons = {"Claude working", "Codex waiting"};
    status.stayAwakeUntil = minutesFrom(sampleNow(), 90);
    EXPECT_EQ(status.renderText(),
              "1 working\n"
              "1. Claude Code \u00b7 working \u00b7 <1m\n"
              "2. Codex \u00b7 proj \u00b7 paused (remote) \u00b7 5m\n"
              "3. Grok \u00b7 / \u00b7 waiting \u00b7 1h 5m\n"
              "4. Claude \u00b7 idle \u00b7 <1m\n"
              "Holding awake: Claude working; Codex waiting\n"
              "Stay-awake until 11:00");
}

}  // namespace
}  // namespace tavra

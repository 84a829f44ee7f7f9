#include "kit/DaemonProtocol.h"

#include <gtest/gtest.h>

#include "support/SampleStatus.h"
#include "support/ScopedIcuDefaults.h"

namespace tavra {
namespace {

using testing::minutesFrom;
using testing::sampleNow;
using testing::sampleRun;
using testing::sampleStatus;
using testing::sampleTicket;

AgentEvent sampleEvent() {
    AgentEvent event;
    event.agent = AgentKind::claude;
    event.sessionID = "s1";
    event.kind = AgentEvent::Kind::toolStarted;
    event.timestamp = sampleNow();
    event.cwd = "/Users/a/proj";
    return event;
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

TEST(DaemonProtocolTest, RequestsHaveTheirWireForms) {
    const std::pair<DaemonRequest, std::string> cases[] = {
        {DaemonRequest::ping(), R"({"ping":{}})"},
        {DaemonRequest::status(), R"({"status":{}})"},
        {DaemonRequest::getConfig(), R"({"getConfig":{}})"},
        {DaemonRequest::testNotification(), R"({"testNotification":{}})"},
        {DaemonRequest::remoteCommand("status"), R"({"remoteCommand":{"_0":"status"}})"},
        {DaemonRequest::report(*TavraJSON::parseDate("2025-03-01T00:00:00Z")),
         R"({"report":{"since":"2025-03-01T00:00:00Z"}})"},
        {DaemonRequest::command(UserCommand::setEnabled(false)),
         R"({"command":{"_0":{"setEnabled":{"_0":false}}}})"},
        {DaemonRequest::hook({}), R"({"hook":{"events":[]}})"},
    };
    for (const auto& [request, line] : cases) {
        std::string encoded = TavraJSON::encodeValue(request);
        EXPECT_EQ(TavraJSON::parse(encoded), TavraJSON::parse(line)) << encoded;
        EXPECT_EQ(encoded.find('\n'), std::string::npos);
        EXPECT_EQ(TavraJSON::decode<DaemonRequest>(line), request) << line;
    }
}

TEST(DaemonProtocolTest, AHookCarriesItsTicketOnlyWhenThereIsOne) {
    auto bare = TavraJSON::parse(TavraJSON::encodeValue(DaemonRequest::hook({sampleEvent()})));
    EXPECT_FALSE(bare["hook"].contains("approval"));
    EXPECT_EQ(bare["hook"]["events"].size(), 1u);

    auto ticket = sampleTicket("t1", "claude");
    auto withTicket = TavraJSON::parse(TavraJSON::encodeValue(DaemonRequest::hook({sampleEvent()}, ticket)));
    EXPECT_EQ(withTicket["hook"]["approval"]["id"], "t1");
    EXPECT_EQ(TavraJSON::decode<DaemonRequest>(R"({"hook":{"events":[],"approval":null}})"),
              DaemonRequest::hook({}));
}

TEST(DaemonProtocolTest, ResponsesHaveTheirWireForms) {
    const std::pair<DaemonResponse, std::string> cases[] = {
        {DaemonResponse::ok(), R"({"ok":{}})"},
        {DaemonResponse::approval(ApprovalDecision::allow), R"({"approval":{"_0":"allow"}})"},
        {DaemonResponse::error("no such run"), R"({"error":{"_0":"no such run"}})"},
        {DaemonResponse::text("a\nb"), R"({"text":{"_0":"a\nb"}})"},
        {DaemonResponse::answers({{"Which?", "A"}, {"Why?", "B"}}),
         R"({"answers":{"_0":{"Which?":"A","Why?":"B"}}})"},
    };
    for (const auto& [response, line] : cases) {
        std::string encoded = TavraJSON::encodeValue(response);
        EXPECT_EQ(TavraJSON::parse(encoded), TavraJSON::parse(line)) << encoded;
        EXPECT_EQ(TavraJSON::decode<DaemonResponse>(line), response) << line;
    }
}

TEST(DaemonProtocolTest, EveryCaseSurvivesARoundTrip) {
    Report report;
    report.since = sampleNow();
    report.generatedAt = minutesFrom(sampleNow(), 5);
    report.guards = {"09:00 battery low"};
    TavraConfig config;
    config.localNotifications = false;

    const DaemonRequest requests[] = {
        DaemonRequest::ping(),
        DaemonRequest::hook({sampleEvent(), sampleEvent()}, sampleTicket("t", "codex")),
        DaemonRequest::status(),
        DaemonRequest::command(UserCommand::pause(RunKey{AgentKind::claude, "s1"})),
        DaemonRequest::remoteCommand("pause 2"),
        DaemonRequest::getConfig(),
        DaemonRequest::setConfig(config),
        DaemonRequest::report(sampleNow()),
        DaemonRequest::testNotification(),
    };
    for (const auto& request : requests)
        EXPECT_EQ(TavraJSON::decode<DaemonRequest>(TavraJSON::encodeValue(request)), request)
            << TavraJSON::encodeValue(request);

    const DaemonResponse responses[] = {
        DaemonResponse::ok(),           DaemonResponse::approval(ApprovalDecision::noDecision),
        DaemonResponse::answers({}),    DaemonResponse::status(richStatus()),
        DaemonResponse::config(config), DaemonResponse::report(report),
        DaemonResponse::text("done"),   DaemonResponse::error("failed"),
    };
    for (const auto& response : responses)
        EXPECT_EQ(TavraJSON::decode<DaemonResponse>(TavraJSON::encodeValue(response)), response)
            << TavraJSON::encodeValue(response);
}

TEST(DaemonProtocolTest, BadDocumentsAreRefused) {
    const char* lines[] = {
        R"({"ping":{},"status":{}})",
        R"({})",
        R"({"ping":null})",
        R"("ping")",
        R"({"hook":{}})",
        R"({"hook":{"events":{}}})",
        R"({"report":{"since":"2025-03-01T00:00:00.5Z"}})",
        R"({"report":{}})",
        R"({"remoteCommand":{"_0":3}})",
        R"({"command":{"_0":{"explode":{}}}})",
        R"({"ping":{})",
        "",
    };
    for (const char* line : lines)
        EXPECT_THROW(TavraJSON::decode<DaemonRequest>(line), DecodingError) << line;
    try {
        TavraJSON::decode<DaemonRequest>(R"({"ping":{},"status":{}})");
    } catch (const DecodingError& e) {
        EXPECT_EQ(e.description(), "Invalid number of keys found, expected one.");
    }
    EXPECT_EQ(TavraJSON::decode<DaemonRequest>(R"({"ping":{"x":1},"extra":2})"), DaemonRequest::ping());
}

TEST(DaemonProtocolTest, StatusFieldsAreRequiredButTheOptionalOnes) {
    Json full = richStatus();
    EXPECT_EQ(full["runs"][1]["resumeCommand"], "codex resume s2");
    EXPECT_FALSE(full["runs"][0].contains("resumeCommand"));
    EXPECT_FALSE(full["runs"][0].contains("id"));
    for (const char* key : {"version", "headline", "enabled", "runs", "system", "plan", "helperInstalled",
                            "remoteChannels", "pendingApprovals"}) {
        Json missing = full;
        missing.erase(key);
        EXPECT_THROW(TavraJSON::read<DaemonStatus>(missing), DecodingError) << key;
    }
    Json noHold = full;
    noHold.erase("stayAwakeUntil");
    EXPECT_EQ(TavraJSON::read<DaemonStatus>(noHold).stayAwakeUntil, std::nullopt);
    EXPECT_EQ(richStatus().runs[1].id(), "codex:s2");
}

// ---- renderText --------------------------------------------------------------

class RenderTextTest : public ::testing::Test {
protected:
    testing::ScopedIcuDefaults icu{"en_GB", "UTC"};
};

TEST_F(RenderTextTest, HeadlineAloneWithoutRunsReasonsOrHold) {
    auto status = sampleStatus();
    status.headline = "idle \u00b7 \U0001F50C 80%";
    EXPECT_EQ(status.renderText(), "idle \u00b7 \U0001F50C 80%");
}

TEST_F(RenderTextTest, RunsAreNumberedWithOnlyThePartsTheyHave) {
    auto first = sampleRun("claude code", "s1", RunStatus::working, std::nullopt, 30);
    auto second = sampleRun("codex", "s2", RunStatus::paused, "/Users/a/proj/", 300);
    second.pauseReason = PauseReason::remote;
    auto third = sampleRun("grok", "s3", RunStatus::waiting, "/", 3900);
    auto status = sampleStatus({first, second, third});
    status.headline = "1 working";
    status.plan.reasons = {"Claude working", "Codex waiting"};
    status.stayAwakeUntil = minutesFrom(sampleNow(), 90);
    EXPECT_EQ(status.renderText(),
              "1 working\n"
              "1. Claude Code \u00b7 working \u00b7 <1m\n"
              "2. Codex \u00b7 proj \u00b7 paused (remote) \u00b7 5m\n"
              "3. Grok \u00b7 / \u00b7 waiting \u00b7 1h 5m\n"
              "Holding awake: Claude working; Codex waiting\n"
              "Stay-awake until 11:00");
}

TEST_F(RenderTextTest, EveryPauseReasonIsNamed) {
    for (auto reason : {PauseReason::thermal, PauseReason::network, PauseReason::stuck, PauseReason::user}) {
        auto run = sampleRun("claude", "s", RunStatus::paused, std::nullopt, 60);
        run.pauseReason = reason;
        auto status = sampleStatus({run});
        status.headline = "h";
        EXPECT_EQ(status.renderText(),
                  "h\n1. Claude \u00b7 paused (" + std::string(toString(reason)) + ") \u00b7 1m");
    }
    auto idle = sampleStatus({sampleRun("claude", "s", RunStatus::idle)});
    idle.headline = "h";
    EXPECT_EQ(idle.renderText(), "h\n1. Claude \u00b7 idle \u00b7 <1m");
}

}  // namespace
}  // namespace tavra

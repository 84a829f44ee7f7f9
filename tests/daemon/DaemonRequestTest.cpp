// What each request gets back, and what it leaves behind.

#include "DaemonFixture.h"

namespace tavra {
namespace {

using Kind = AgentEvent::Kind;

class DaemonRequestTest : public DaemonFixture {};

TEST_F(DaemonRequestTest, RefusesStrangersAndRubbishWithAnErrorAndNeverThrows) {
    startDaemon();
    struct Case {
        std::string line;
        std::uint32_t uid;
        std::string error;  // prefix
    };
    const Case cases[] = {
        {R"({"hook":{"events":[]}})", 0, "forbidden"},
        {"not json", 502, "forbidden"},
        {"not json", kOwner, "bad request: "},
        {R"({"ping":{},"status":{}})", kOwner, "bad request: "},
        {R"({"command":{"_0":{"forget":{}}}})", kOwner, "bad request: "},
    };
    for (const auto& c : cases) {
        auto connection = std::make_shared<testing::RecordingConnection>();
        daemon->receive(c.line, c.uid, connection);
        ASSERT_EQ(connection->replies.size(), 1u) << c.line;
        auto* error = std::get_if<DaemonResponse::Error>(&connection->response()->value);
        ASSERT_NE(error, nullptr) << connection->replies[0];
        EXPECT_EQ(error->message.rfind(c.error, 0), 0u) << error->message;
    }
    EXPECT_TRUE(daemon->engine().runs().empty());
}

TEST_F(DaemonRequestTest, StatusShowsRunsWithTheirResumeCommandAndWhatIsHeld) {
    startDaemon();
    ask(DaemonRequest::hook({event(Kind::promptSubmitted, "/w/it's")}));
    ask(DaemonRequest::command(UserCommand::stayAwake(addSeconds(clock.now(), 3600))));
    auto response = ask(DaemonRequest::status());
    auto* status = std::get_if<DaemonResponse::Status>(&response.value);
    ASSERT_NE(status, nullptr);
    ASSERT_EQ(status->status.runs.size(), 1u);
    EXPECT_EQ(status->status.runs[0].resumeCommand, R"(cd '/w/it'\''s' && claude --resume s1)");
    EXPECT_EQ(status->status.plan.reasons,
              (std::vector<std::string>{"Claude (it's) working", "stay-awake requested"}));
    EXPECT_EQ(status->status.stayAwakeUntil, addSeconds(clock.now(), 3600));
    EXPECT_TRUE(status->status.helperInstalled);
    EXPECT_TRUE(status->status.system.helperAvailable);
    EXPECT_TRUE(status->status.pendingApprovals.empty());
}

TEST_F(DaemonRequestTest, SetConfigIsCheckedSavedAndAppliedAtOnce) {
    startDaemon();
    TavraConfig bad;
    bad.remote.approvalTimeout = -1;
    EXPECT_EQ(ask(DaemonRequest::setConfig(bad)),
              DaemonResponse::error("approvalTimeout must be between 0 and 86400 seconds"));
    EXPECT_FALSE(readWholeFile(dir / "config.json").has_value());

    TavraConfig config = remoteConfig();
    config.policy.maxThermal = ThermalLevel::nominal;  // below the floor: raised to fair
    config.policy.enabled = false;
    ASSERT_EQ(ask(DaemonRequest::setConfig(config)), DaemonResponse::ok());
    TavraConfig expected = config;
    expected.policy.maxThermal = ThermalLevel::fair;
    EXPECT_EQ(ConfigStore::load(dir / "config.json"), expected);
    EXPECT_EQ(ask(DaemonRequest::getConfig()), DaemonResponse::config(expected));
    EXPECT_EQ(daemon->engine().settings(), expected.policy);
    // The new channel is started and shown.
    auto response = ask(DaemonRequest::status());
    EXPECT_EQ(std::get<DaemonResponse::Status>(response.value).status.remoteChannels,
              (std::vector<std::string>{"ntfy"}));
    // Switched off: a working run holds nothing.
    ask(DaemonRequest::hook({event(Kind::promptSubmitted)}));
    EXPECT_FALSE(daemon->engine().plan().holdsAnything());
}

TEST_F(DaemonRequestTest, ReportReadsTheJournalAndTheLiveRuns) {
    startDaemon();
    const Date since = clock.now();
    ask(DaemonRequest::hook({event(Kind::promptSubmitted)}));
    clock.advance(120);
    ask(DaemonRequest::hook({event(Kind::turnStopped)}));
    auto response = ask(DaemonRequest::report(since));
    auto* report = std::get_if<DaemonResponse::Report>(&response.value);
    ASSERT_NE(report, nullptr);
    ASSERT_EQ(report->report.runs.size(), 1u);
    EXPECT_EQ(report->report.runs[0].run, kRun);
    EXPECT_EQ(report->report.runs[0].workingSeconds, 120);
    EXPECT_EQ(report->report.runs[0].turnsFinished, 1);
}

}  // namespace
}  // namespace tavra

// What each request gets back, and what it leaves behind.

#include "DaemonFixture.h"

namespace tavra {
namespace {

using Kind = AgentEvent::Kind;

class DaemonRequestTest : public DaemonFixture {};

TEST_F(DaemonRequestTest, RefusesStrangersAndRubbishWithAnErrorAndNeverThrows) {
    startDaemon();
    const std::tuple<std::string, std::uint32_t, std::string> cases[] = {
        {"not json", 0, "forbidden"},  // not even root: only the daemon's own user
        {"not json", kOwner, "bad request: "},
        {R"({"command":{"_0":{"forget":{}}}})", kOwner, "bad request: "},
    };
    for (const auto& [line, uid, prefix] : cases) {
        auto connection = std::make_shared<testing::RecordingConnection>();
        daemon->receive(line, uid, connection);
        ASSERT_EQ(connection->replies.size(), 1u) << line;
        const auto response = *connection->response();
        auto* error = std::get_if<DaemonResponse::Error>(&response.value);
        ASSERT_NE(error, nullptr) << connection->replies[0];
        EXPECT_EQ(error->message.rfind(prefix, 0), 0u) << error->message;
    }
    EXPECT_TRUE(daemon->engine().runs().empty());
}

TEST_F(DaemonRequestTest, StatusShowsTheRunsWithResumeCommandsAndWhatIsHeld) {
    startDaemon();
    const Date since = clock.now();
    ask(DaemonRequest::hook({event(Kind::promptSubmitted, "/w/it's")}));
    ask(DaemonRequest::command(UserCommand::stayAwake(addSeconds(clock.now(), 3600))));
    auto status = std::get<DaemonResponse::Status>(ask(DaemonRequest::status()).value).status;
    ASSERT_EQ(status.runs.size(), 1u);
    EXPECT_EQ(status.runs[0].resumeCommand, R"(cd '/w/it'\''s' && claude --resume s1)");
    EXPECT_EQ(status.plan.reasons,
              (std::vector<std::string>{"Claude (it's) working", "stay-awake requested"}));
    EXPECT_EQ(status.stayAwakeUntil, addSeconds(since, 3600));
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
    expected.policy = config.policy.sanitized();
    ASSERT_EQ(expected.policy.maxThermal, ThermalLevel::fair);
    EXPECT_EQ(TavraJSON::encodeValue(ConfigStore::load(dir / "config.json")),
              TavraJSON::encodeValue(expected));
    EXPECT_EQ(std::get<DaemonResponse::Status>(ask(DaemonRequest::status()).value).status.remoteChannels,
              (std::vector<std::string>{"ntfy"}));
    ask(DaemonRequest::hook({event(Kind::promptSubmitted)}));
    EXPECT_FALSE(daemon->engine().plan().holdsAnything());  // switched off at once
}

}  // namespace
}  // namespace tavra

// Held approvals through the daemon: the hook's connection stays open until a
// decision, an expiry, a withdrawal or the run moving on.

#include "DaemonFixture.h"

namespace tavra {
namespace {

using Kind = AgentEvent::Kind;

class DaemonApprovalTest : public DaemonFixture {
protected:
    static ApprovalTicket ticket(const std::string& id, const RunKey& run = kRun) {
        return ApprovalTicket{id, run, "Bash", "rm -rf build", "/w/proj", std::nullopt};
    }
    std::shared_ptr<testing::RecordingConnection> request(const std::string& id, const RunKey& run = kRun) {
        return send(
            DaemonRequest::hook({event(Kind::permissionRequested, "/w/proj", 700, run)}, ticket(id, run)));
    }
    std::vector<std::string> pendingIDs() {
        std::vector<std::string> ids;
        for (const auto& t : daemon->status().pendingApprovals) ids.push_back(t.id);
        return ids;
    }
};

TEST_F(DaemonApprovalTest, WithoutAChannelTheAgentsOwnPromptTakesOverAtOnce) {
    startDaemon();
    auto connection = request("t1");
    EXPECT_EQ(connection->response(), DaemonResponse::approval(ApprovalDecision::noDecision));
    EXPECT_TRUE(pendingIDs().empty());
}

TEST_F(DaemonApprovalTest, HeldConnectionsEndEachTheirOwnWay) {
    writeConfig(remoteConfig());
    startDaemon();
    const RunKey second{AgentKind::codex, "s2"}, third{AgentKind::claude, "s3"},
        fourth{AgentKind::claude, "s4"}, fifth{AgentKind::claude, "s5"};
    auto allowed = request("t1");
    auto denied = request("t2", second);
    auto expiring = request("t3", third);
    auto withdrawn = request("t4", fourth);
    auto movedOn = request("t5", fifth);
    EXPECT_EQ(pendingIDs(), (std::vector<std::string>{"t1", "t2", "t3", "t4", "t5"}));
    for (auto* c : {&allowed, &denied, &expiring, &withdrawn, &movedOn}) EXPECT_TRUE((*c)->replies.empty());

    EXPECT_TRUE(
        std::holds_alternative<DaemonResponse::Text>(ask(DaemonRequest::remoteCommand("approve t1")).value));
    ask(DaemonRequest::remoteCommand("deny t2"));
    withdrawn->hangUp();
    send(DaemonRequest::hook({event(Kind::toolFinished, "/w/proj", 700, fifth)}));
    clock.advance(601);
    daemon->tick();

    EXPECT_EQ(allowed->response(), DaemonResponse::approval(ApprovalDecision::allow));
    EXPECT_EQ(denied->response(), DaemonResponse::approval(ApprovalDecision::deny));
    EXPECT_EQ(expiring->response(), DaemonResponse::approval(ApprovalDecision::noDecision));
    EXPECT_TRUE(withdrawn->replies.empty());
    EXPECT_EQ(movedOn->replies.size(), 1u);
    EXPECT_TRUE(pendingIDs().empty());

    std::vector<std::string> journaled;
    for (const auto& entry : Journal(dir / "journal.jsonl").read())
        if (entry.kind == JournalEntry::Kind::approval)
            journaled.push_back(entry.run->description() + " " + *entry.reason);
    EXPECT_EQ(journaled, (std::vector<std::string>{"claude:s1 allow", "codex:s2 deny", "claude:s5 noDecision",
                                                   "claude:s3 noDecision"}));
}

TEST_F(DaemonApprovalTest, ManyHeldAtOnceAllExpireTogetherAndTheTimerKnowsWhen) {
    TavraConfig config = remoteConfig();
    config.remote.approvalTimeout = 30;
    writeConfig(config);
    startDaemon();
    std::vector<std::shared_ptr<testing::RecordingConnection>> held;
    for (int i = 0; i < 200; ++i)
        held.push_back(request("t" + std::to_string(i), {AgentKind::claude, "s" + std::to_string(i)}));
    EXPECT_EQ(daemon->status().pendingApprovals.size(), 200u);
    clock.advance(20);
    daemon->tick();
    EXPECT_LE(daemon->nextTickDelay(), std::chrono::seconds(10));
    clock.advance(11);
    daemon->tick();
    for (const auto& connection : held)
        EXPECT_EQ(connection->response(), DaemonResponse::approval(ApprovalDecision::noDecision));
    EXPECT_TRUE(pendingIDs().empty());
}

}  // namespace
}  // namespace tavra

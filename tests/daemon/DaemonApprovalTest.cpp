// Held approvals through the daemon: the hook's connection stays open until a
// decision, an expiry, a withdrawal or the run moving on.

#include "DaemonFixture.h"

namespace tavra {
namespace {

using Kind = AgentEvent::Kind;

class DaemonApprovalTest : public DaemonFixture {
protected:
    std::shared_ptr<testing::RecordingConnection> request(const std::string& id, const RunKey& run = kRun) {
        return send(
            DaemonRequest::hook({event(Kind::permissionRequested, "/w/proj", 700, run)},
                                ApprovalTicket{id, run, "Bash", "rm -rf build", "/w/proj", std::nullopt}));
    }
    std::vector<std::string> pendingIDs() {
        std::vector<std::string> ids;
        for (const auto& t : daemon->status().pendingApprovals) ids.push_back(t.id);
        return ids;
    }
    static DaemonResponse decision(ApprovalDecision d) { return DaemonResponse::approval(d); }
};

TEST_F(DaemonApprovalTest, HeldConnectionsEndEachTheirOwnWay) {
    ConfigStore::save(remoteConfig(), dir / "config.json");
    startDaemon();
    auto allowed = request("t1");
    auto denied = request("t2", {AgentKind::codex, "s2"});
    auto expiring = request("t3", {AgentKind::claude, "s3"});
    auto withdrawn = request("t4", {AgentKind::claude, "s4"});
    auto movedOn = request("t5", {AgentKind::claude, "s5"});
    EXPECT_EQ(pendingIDs(), (std::vector<std::string>{"t1", "t2", "t3", "t4", "t5"}));
    for (const auto& c : {allowed, denied, expiring, withdrawn, movedOn}) EXPECT_TRUE(c->replies.empty());

    clock.advance(1);  // what follows is no longer part of the requests themselves
    EXPECT_TRUE(
        std::holds_alternative<DaemonResponse::Text>(ask(DaemonRequest::remoteCommand("approve t1")).value));
    ask(DaemonRequest::remoteCommand("deny t2"));
    withdrawn->hangUp();
    send(DaemonRequest::hook({event(Kind::toolFinished, "/w/proj", 700, {AgentKind::claude, "s5"})}));
    EXPECT_EQ(movedOn->response(), decision(ApprovalDecision::noDecision));
    clock.advance(600);
    daemon->tick();

    EXPECT_EQ(allowed->response(), decision(ApprovalDecision::allow));
    EXPECT_EQ(denied->response(), decision(ApprovalDecision::deny));
    EXPECT_EQ(expiring->response(), decision(ApprovalDecision::noDecision));
    EXPECT_TRUE(withdrawn->replies.empty());
    EXPECT_TRUE(pendingIDs().empty());
    std::vector<std::string> journaled;
    for (const auto& entry : Journal(dir / "journal.jsonl").read())
        if (entry.kind == JournalEntry::Kind::approval)
            journaled.push_back(entry.run->session + " " + *entry.reason);
    EXPECT_EQ(journaled, (std::vector<std::string>{"s1 allow", "s2 deny", "s4 withdrawn", "s5 noDecision",
                                                   "s3 noDecision"}));
}

}  // namespace
}  // namespace tavra

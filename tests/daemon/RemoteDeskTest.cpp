#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>

#include "daemon/RemoteDesk.h"
#include "support/FakeChannel.h"
#include "support/SampleStatus.h"

namespace tavra {
namespace {

using testing::minutesFrom;
using testing::sampleTicket;
using Call = testing::ChannelCall;
using Calls = std::vector<Call>;
using Decisions = std::vector<DaemonResponse>;
using Kind = AgentEvent::Kind;

const Date t0 = testing::sampleNow();
const DaemonResponse kNoDecision = DaemonResponse::approval(ApprovalDecision::noDecision);
const std::string kExpired = "\u231B\uFE0F Expired", kAtMac = "\U0001F4BB At the computer";

AgentEvent event(Kind kind, std::string t = "Bash", std::string s = "s1") {
    return {AgentKind::claude, std::move(s), kind, {}, {}, {}, ToolCall{std::move(t), {}, {}, {}}, {}, {}};
}

class RemoteDeskTest : public ::testing::Test {
protected:
    std::shared_ptr<testing::FakeChannel> telegram = std::make_shared<testing::FakeChannel>("telegram");
    std::shared_ptr<testing::FakeChannel> ntfy = std::make_shared<testing::FakeChannel>("ntfy");
    bool away = true;
    std::vector<UserCommand> ordered;
    std::size_t telegramCallsAtOrder = 0;
    std::map<std::string, Decisions> decided;
    RemoteDesk desk{RemoteDesk::Owner{
        [](Date) { return testing::sampleStatus(); }, [](Date, Date) { return Report{}; },
        [this](UserCommand c, Date) { ordered.push_back(c), telegramCallsAtOrder = telegram->calls.size(); },
        [this](Date) { return away; }}};

    void SetUp() override {
        RemoteSettings settings;
        settings.telegram.enabled = true;
        settings.telegram.botToken = "token";
        settings.telegram.chatID = 42;
        desk.configure(settings);
        desk.setChannels({telegram, ntfy});
    }
    void open(ApprovalTicket t) {
        desk.open(
            t, [this, t](auto r) { decided[t.id].push_back(r); }, t0);
    }
    void tap(std::string ch, std::string text) { desk.incoming({text, {ch, "m-" + ch, "cb"}}, t0); }
    void type(std::string ch, std::string text) { desk.incoming({text, {ch, {}, {}}}, t0); }
    static Call replied(std::string c, RemoteReply r) { return {"reply", "m-" + c, c, r, {}}; }
};

TEST_F(RemoteDeskTest, ApprovalFromOnePhoneStampsTheOtherAndALateTapFindsItGone) {
    ApprovalTicket ticket = sampleTicket("t1", "claude");
    open(ticket);
    // clang-format off
    Alert request{"t1", "Claude needs you", "Waiting for permission to use Bash.\nls", Alert::Level::warning,
                  Alert::Category::approval, ticket.run, {{"\u2705 Approve", "approve:t1"}, {"\u26D4\uFE0F Deny", "deny:t1"}},
                  std::nullopt};
    // clang-format on
    auto late = std::make_shared<testing::FakeChannel>("paired-later");
    desk.setChannels({telegram, ntfy, late});
    tap("telegram", "approve:t1");
    tap("ntfy", "deny:t1");

    EXPECT_EQ(decided["t1"], Decisions{DaemonResponse::approval(ApprovalDecision::allow)});
    EXPECT_EQ(telegram->calls, (Calls{{"alert", "t1", {}, {}, request},
                                      replied("telegram", RemoteReplies::approval(true, "Bash"))}));
    EXPECT_EQ(ntfy->calls, (Calls{{"alert", "t1", {}, {}, request},
                                  {"stamp", "t1", "\u2705 Approved Bash", {}, {}},
                                  replied("ntfy", RemoteReplies::approvalGone())}));
    EXPECT_EQ(late->calls,
              (Calls{{"alert", "t1", {}, {}, request}, {"stamp", "t1", "\u2705 Approved Bash", {}, {}}}));
}

TEST_F(RemoteDeskTest, EveryWayATicketEndsAnswersTheHookAndStampsEveryPhone) {
    const Date later = minutesFrom(t0, 1);
    const std::string denied = "\u26D4\uFE0F Denied Bash";
    // What happens, and the stamp every phone gets (none: still held).
    for (const auto& [act, stamp] : std::vector<std::pair<std::function<void()>, std::string>>{
             {[&] { desk.tick(minutesFrom(t0, 10)); }, kExpired},
             {[&] { away = false, desk.tick(later); }, kAtMac},  // the owner is back at the Mac
             {[&] { desk.withdraw("t1", later); }, kExpired},
             {[&] { desk.closeAll(later); }, kExpired},                          // the daemon stops
             {[&] { desk.observe(event(Kind::toolFinished), later); }, kAtMac},  // allowed at the keyboard
             {[&] { desk.observe(event(Kind::toolStarted, "Read"), later); }, kAtMac},
             // the event that came with the ticket itself
             {[&] { desk.observe(event(Kind::toolStarted), t0); }, ""},
             {[&] { desk.observe(event(Kind::turnStopped, "", "s9"), later); }, ""},
             {[&] { type("cli", "deny t1"); }, denied}}) {
        SCOPED_TRACE(stamp);
        decided.clear();
        open(sampleTicket("t1", "claude"));
        telegram->calls.clear(), ntfy->calls.clear();
        act();
        auto decision = stamp == denied ? ApprovalDecision::deny : ApprovalDecision::noDecision;
        EXPECT_EQ(decided["t1"], stamp.empty() ? Decisions{} : Decisions{DaemonResponse::approval(decision)});
        Calls stamped = stamp.empty() ? Calls{} : Calls{{"stamp", "t1", stamp, {}, {}}};
        EXPECT_EQ(std::pair(telegram->calls, ntfy->calls), std::pair(stamped, stamped));
        away = true;
        desk.withdraw("t1", t0);
    }
}

TEST_F(RemoteDeskTest, QuestionsWithATypedOtherAndAStalePhoneEndWithTheExactAnswers) {
    ApprovalTicket ticket = sampleTicket("q1", "claude",
                                         {{"Which parts?", "Parts", {{"A", {}}, {"B", {}}, {"C", {}}}, true},
                                          {"Ship it?", std::nullopt, {{"Yes", {}}, {"No", {}}}, false}});
    open(ticket);
    for (const char* choice : {"0", "2", "2", "other"}) tap("telegram", std::string("answer q1 0 ") + choice);
    type("telegram", "  Zed ");
    tap("ntfy", "answer q1 0 1");  // its message still shows the first question
    tap("ntfy", "answer q1 1 1");

    std::map<std::string, std::string> answers{{"Which parts?", "A, Zed"}, {"Ship it?", "No"}};
    EXPECT_EQ(decided["q1"], Decisions{DaemonResponse::answers(answers)});
    EXPECT_EQ(telegram->calls, (Calls{{"deliver", "q1", {}, RemoteReplies::question(ticket, 0, {}), {}},
                                      replied("telegram", RemoteReplies::question(ticket, 0, {0})),
                                      replied("telegram", RemoteReplies::question(ticket, 0, {0, 2})),
                                      replied("telegram", RemoteReplies::question(ticket, 0, {0})),
                                      replied("telegram", RemoteReplies::askForText(ticket, 0)),
                                      {"deliver", "q1", {}, RemoteReplies::question(ticket, 1, {}), {}},
                                      {"stamp", "q1", "\u2705 Sent to Claude", {}, {}}}));
    EXPECT_EQ(ntfy->calls, (Calls{{"deliver", "q1", {}, RemoteReplies::question(ticket, 0, {}), {}},
                                  replied("ntfy", RemoteReplies::question(ticket, 1, {})),
                                  replied("ntfy", RemoteReplies::answered(ticket, answers))}));
}

TEST_F(RemoteDeskTest, ATicketNobodyCouldAnswerElsewhereGoesBackAtOnce) {
    open(sampleTicket("a b", "claude"));  // an id no button could carry
    away = false;                         // notifyWhen away, and the owner is at the Mac
    open(sampleTicket("present", "claude"));
    away = true;
    desk.configure(RemoteSettings{});  // no channel configured, though one still runs
    open(sampleTicket("unconfigured", "claude"));
    EXPECT_EQ(decided,
              (std::map<std::string, Decisions>{
                  {"present", {kNoDecision}}, {"unconfigured", {kNoDecision}}, {"a b", {kNoDecision}}}));
    EXPECT_EQ(telegram->calls, Calls{});
}

TEST_F(RemoteDeskTest, AlertsGoOutOnlyWhenWorthAMessageAndNeverBesideAHeldRequest) {
    open(sampleTicket("t1", "claude"));
    telegram->calls.clear();
    Alert finished{"f", "", "", {}, Alert::Category::finished, {}, {}, 59.9}, permission = finished;
    permission.category = Alert::Category::permission, permission.run = RunKey{AgentKind::claude, "s1"};
    desk.alert(finished, t0);    // a turn under finishMinSeconds
    desk.alert(permission, t0);  // the held ticket's own message stands for it
    finished.workSeconds = 60;
    desk.alert(finished, t0);
    EXPECT_EQ(telegram->calls, (Calls{{"alert", "f", {}, {}, finished}}));
}

TEST_F(RemoteDeskTest, EveryTicketIsDecidedExactlyOnceWhateverHappens) {
    std::mt19937 random(7);
    auto pick = [&](std::size_t n) { return static_cast<std::size_t>(random() % n); };
    const std::vector<std::string> choices = {"0", "1", "done", "mac", "other"};
    std::vector<int> calls;  // per open
    Date now = t0;
    for (int step = 0; step < 3000; ++step) {
        std::string id(1, "abc"[pick(3)]);
        now = minutesFrom(now, static_cast<double>(pick(4)) * 0.5);
        std::size_t op = pick(8);
        if (op == 0) {
            calls.push_back(0);
            std::vector<AgentQuestion> questions(id != "a", {"Q?", {}, {{"A", {}}, {"B", {}}}, id == "c"});
            // The hook's connection closes on the answer, as the daemon's does.
            auto decide = [&, i = calls.size() - 1, id](auto) { ++calls[i], desk.withdraw(id, now); };
            desk.open(sampleTicket(id, "claude", questions), decide, now);
        }
        if (op == 1) tap(pick(2) ? "telegram" : "ntfy", (pick(2) ? "approve:" : "deny:") + id);
        if (op == 2) tap("ntfy", "answer " + id + " 0 " + choices[pick(5)]);
        if (op == 3) type("ntfy", "typed");
        if (op == 4) desk.withdraw(id, now);
        if (op == 5) desk.observe(event(AgentEvent::kAllKinds[pick(10)]), now);
        if (op >= 6) away = pick(4) != 0, desk.tick(now);
        for (int count : calls) ASSERT_LE(count, 1) << "step " << step;
    }
    away = true;
    desk.tick(minutesFrom(now, 11));
    for (int count : calls) EXPECT_EQ(count, 1);
}

}  // namespace
}  // namespace tavra

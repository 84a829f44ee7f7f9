#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>
#include <tuple>

#include "daemon/RemoteDesk.h"
#include "support/CorePrinters.h"
#include "support/FakeChannel.h"
#include "support/SampleStatus.h"

namespace tavra {
namespace {

using testing::ChannelCall;
using testing::FakeChannel;
using testing::minutesFrom;
using testing::sampleTicket;
using Calls = std::vector<ChannelCall>;
using Decisions = std::vector<DaemonResponse>;

const Date t0 = testing::sampleNow();
const RunKey kRun{AgentKind::claude, "s1"};
const DaemonResponse kNoDecision = DaemonResponse::approval(ApprovalDecision::noDecision);
const std::string kExpired = "\u231B\uFE0F Expired";
const std::string kAtMac = "\U0001F4BB At the Mac";

AgentEvent event(AgentEvent::Kind kind, std::string tool = "Bash", std::string session = "s1") {
    AgentEvent e{AgentKind::claude, std::move(session), kind, t0, {}, {}, {}, {}, {}};
    e.tool = ToolCall{std::move(tool), "sig", false, std::nullopt};
    return e;
}

class RemoteDeskTest : public ::testing::Test {
public:
    std::shared_ptr<FakeChannel> telegram = std::make_shared<FakeChannel>("telegram");
    std::shared_ptr<FakeChannel> ntfy = std::make_shared<FakeChannel>("ntfy");
    bool away = true;
    DaemonStatus status = testing::sampleStatus({testing::sampleRun("claude", "s1", RunStatus::working),
                                                 testing::sampleRun("codex", "c2", RunStatus::idle)});
    std::vector<UserCommand> ordered;
    std::size_t telegramCallsAtOrder = 0;
    std::map<std::string, Decisions> decided;
    RemoteSettings settings;
    RemoteDesk desk{RemoteDesk::Owner{[this](Date) { return status; },
                                      [](Date since, Date) {
                                          Report r;
                                          r.since = since;
                                          return r;
                                      },
                                      [this](UserCommand c, Date) {
                                          ordered.push_back(std::move(c));
                                          telegramCallsAtOrder = telegram->calls.size();
                                      },
                                      [this](Date) { return away; }}};

    void SetUp() override {
        settings.telegram = TelegramSettings{true, "token", 42, std::nullopt};
        desk.configure(settings);
        desk.setChannels({telegram, ntfy});
    }
    void open(const ApprovalTicket& ticket, Date now = t0) {
        desk.open(
            ticket, [this, id = ticket.id](DaemonResponse r) { decided[id].push_back(r); }, now);
    }
    void tap(const std::string& channel, const std::string& text) {
        desk.incoming({text, {channel, "m-" + channel, "cb"}}, t0);
    }
    void type(const std::string& channel, const std::string& text) {
        desk.incoming({text, {channel, std::nullopt, std::nullopt}}, t0);
    }
};

TEST_F(RemoteDeskTest, ApprovalFromOnePhoneStampsTheOtherAndALateTapFindsItGone) {
    ApprovalTicket ticket = sampleTicket("t1", "claude");
    ticket.cwd = "/w/proj";
    open(ticket);
    Alert request{"t1",
                  "Claude (proj) needs you",
                  "Waiting for permission to use Bash.\nls",
                  Alert::Level::warning,
                  Alert::Category::approval,
                  kRun,
                  {{"\u2705 Approve", "approve:t1"}, {"\u26D4\uFE0F Deny", "deny:t1"}},
                  std::nullopt};
    EXPECT_EQ(desk.pending(), std::vector{ticket});

    tap("telegram", "approve:t1");
    tap("ntfy", "deny:t1");

    EXPECT_EQ(decided["t1"], Decisions{DaemonResponse::approval(ApprovalDecision::allow)});
    EXPECT_EQ(telegram->calls,
              (Calls{{"alert", "t1", {}, {}, request},
                     {"reply", "m-telegram", "telegram", RemoteReplies::approval(true, "Bash"), {}}}));
    EXPECT_EQ(ntfy->calls, (Calls{{"alert", "t1", {}, {}, request},
                                  {"stamp", "t1", "\u2705 Approved Bash", {}, {}},
                                  {"reply", "m-ntfy", "ntfy", RemoteReplies::approvalGone(), {}}}));
    EXPECT_TRUE(desk.pending().empty());
    EXPECT_EQ(desk.execute({"answer t1 0 1", {"cli", {}, {}}}, t0), RemoteReplies::approvalGone());
}

TEST_F(RemoteDeskTest, EveryWayATicketEndsAnswersTheHookAndStampsEveryPhone) {
    struct Case {
        const char* name;
        std::function<void(RemoteDeskTest&)> act;
        std::optional<DaemonResponse> decision;  // absent: still held
        std::string stamp;
    };
    const Date later = minutesFrom(t0, 1);
    const std::vector<Case> cases = {
        {"expired", [](auto& f) { f.desk.tick(minutesFrom(t0, 10)); }, kNoDecision, kExpired},
        {"not yet due", [](auto& f) { f.desk.tick(minutesFrom(t0, 9.9)); }, std::nullopt, ""},
        {"hook closed", [&](auto& f) { f.desk.withdraw("t1", later); }, kNoDecision, kExpired},
        {"tool ran after a keyboard OK",
         [&](auto& f) { f.desk.observe(event(AgentEvent::Kind::toolFinished), later); }, kNoDecision, kAtMac},
        {"next tool started",
         [&](auto& f) { f.desk.observe(event(AgentEvent::Kind::toolStarted, "Read"), later); }, kNoDecision,
         kAtMac},
        {"the hook's own event", [](auto& f) { f.desk.observe(event(AgentEvent::Kind::toolStarted), t0); },
         std::nullopt, ""},
        {"a parallel tool ended",
         [&](auto& f) { f.desk.observe(event(AgentEvent::Kind::toolFinished, "Read"), later); }, std::nullopt,
         ""},
        {"another session stopped",
         [&](auto& f) { f.desk.observe(event(AgentEvent::Kind::turnStopped, "", "s9"), later); },
         std::nullopt, ""},
        {"owner back at the Mac",
         [&](auto& f) {
             f.away = false;
             f.desk.tick(later);
         },
         kNoDecision, kAtMac},
        {"denied from the command line",
         [](auto& f) {
             f.desk.execute({"deny t1", {"cli", {}, {}}}, t0);
         },
         DaemonResponse::approval(ApprovalDecision::deny), "\u26D4\uFE0F Denied Bash"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        RemoteDeskTest& f = *this;
        f.decided.clear();
        f.away = true;
        f.open(sampleTicket("t1", "claude"));
        telegram->calls.clear();
        ntfy->calls.clear();
        c.act(f);
        Calls stamped = c.decision ? Calls{{"stamp", "t1", c.stamp, {}, {}}} : Calls{};
        EXPECT_EQ(decided["t1"], c.decision ? Decisions{*c.decision} : Decisions{});
        EXPECT_EQ(telegram->calls, stamped);
        EXPECT_EQ(ntfy->calls, stamped);
        desk.withdraw("t1", t0);
    }
}

TEST_F(RemoteDeskTest, QuestionsWithATypedOtherAndAStalePhoneEndWithTheExactAnswers) {
    ApprovalTicket ticket = sampleTicket("q1", "claude",
                                         {{"Which parts?", "Parts", {{"A", {}}, {"B", {}}, {"C", {}}}, true},
                                          {"Ship it?", std::nullopt, {{"Yes", {}}, {"No", {}}}, false}});
    open(ticket);
    tap("telegram", "answer q1 0 0");
    tap("telegram", "answer q1 0 2");
    tap("telegram", "answer q1 0 2");  // untick
    tap("telegram", "answer q1 0 other");
    type("ntfy", "status");  // another phone's text is no answer
    type("telegram", "  Zed ");
    tap("ntfy", "answer q1 0 1");  // its message still shows the first question
    tap("ntfy", "answer q1 1 1");

    std::map<std::string, std::string> answers{{"Which parts?", "A, Zed"}, {"Ship it?", "No"}};
    EXPECT_EQ(decided["q1"], Decisions{DaemonResponse::answers(answers)});
    auto replied = [](const char* ch, RemoteReply r) {
        return ChannelCall{"reply", "m-" + std::string(ch), ch, r, {}};
    };
    EXPECT_EQ(telegram->calls, (Calls{{"deliver", "q1", {}, RemoteReplies::question(ticket, 0, {}), {}},
                                      replied("telegram", RemoteReplies::question(ticket, 0, {0})),
                                      replied("telegram", RemoteReplies::question(ticket, 0, {0, 2})),
                                      replied("telegram", RemoteReplies::question(ticket, 0, {0})),
                                      replied("telegram", RemoteReplies::askForText(ticket, 0)),
                                      {"deliver", "q1", {}, RemoteReplies::question(ticket, 1, {}), {}},
                                      {"stamp", "q1", "\u2705 Sent to Claude", {}, {}}}));
    EXPECT_EQ(ntfy->calls, (Calls{{"deliver", "q1", {}, RemoteReplies::question(ticket, 0, {}), {}},
                                  {"reply", "", "ntfy", RemoteReplies::status(status, std::nullopt, t0), {}},
                                  replied("ntfy", RemoteReplies::question(ticket, 1, {})),
                                  replied("ntfy", RemoteReplies::answered(ticket, answers))}));
}

TEST_F(RemoteDeskTest, ATicketNobodyCouldAnswerElsewhereGoesBackAtOnce) {
    struct Case {
        const char* name;
        std::function<void(RemoteSettings&, RemoteDeskTest&)> change;
    };
    const std::vector<Case> cases = {
        {"no channel configured", [](auto& s, auto&) { s.telegram.chatID.reset(); }},
        {"remote approvals off", [](auto& s, auto&) { s.remoteApprovals = false; }},
        {"never notify", [](auto& s, auto&) { s.notifyWhen = RemoteSettings::NotifyWhen::never; }},
        {"away mode, owner present", [](auto&, auto& f) { f.away = false; }},
        {"no channel running", [](auto&, auto& f) { f.desk.setChannels({}); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        RemoteSettings s = settings;
        away = true;
        desk.setChannels({telegram, ntfy});
        c.change(s, *this);
        desk.configure(s);
        decided.clear();
        open(sampleTicket("t1", "claude", {{"Q?", {}, {{"A", {}}}, false}}));
        EXPECT_EQ(decided["t1"], Decisions{kNoDecision});
        EXPECT_TRUE(desk.pending().empty());
        EXPECT_EQ(telegram->calls, Calls{});
    }
}

TEST_F(RemoteDeskTest, AlertsGoOutOnlyWhenWorthAMessage) {
    auto finished = [](std::optional<double> work) {
        return Alert{"f", "Claude finished", "", Alert::Level::info, Alert::Category::finished, kRun, {},
                     work};
    };
    Alert permission{
        "p", "Claude needs you", "", Alert::Level::warning, Alert::Category::permission, kRun, {}, {}};
    Alert otherRun = permission;
    otherRun.run = RunKey{AgentKind::codex, "c2"};
    open(sampleTicket("t1", "claude"));
    telegram->calls.clear();
    const std::vector<std::tuple<Alert, bool, bool>> cases = {
        {finished(59.9), true, false}, {finished(60), true, true}, {finished(std::nullopt), true, false},
        {finished(600), false, false}, {permission, true, false},  {otherRun, true, true},
    };
    for (const auto& [alert, ownerAway, sent] : cases) {
        SCOPED_TRACE(TavraJSON::encode(Json(alert)));
        away = ownerAway;
        desk.alert(alert, t0);
        EXPECT_EQ(telegram->take(), (sent ? Calls{{"alert", alert.id, {}, {}, alert}} : Calls{}));
    }
}

TEST_F(RemoteDeskTest, CommandsBecomeTheEnginesOrdersWithTheirReplies) {
    struct Case {
        std::string text;
        std::vector<UserCommand> orders;
        RemoteReply reply;
    };
    const std::vector<Case> cases = {
        {"pause 2",
         {UserCommand::pause(RunKey{AgentKind::codex, "c2"})},
         RemoteReplies::status(status, {}, t0)},
        {"resume zz", {}, RemoteReplies::noMatch("zz")},
        {"awake 90",
         {UserCommand::stayAwake(minutesFrom(t0, 90))},
         RemoteReplies::stayAwake(90, minutesFrom(t0, 90))},
        {"release", {UserCommand::stayAwake(std::nullopt)}, RemoteReplies::released(1)},
        {"sleep", {}, RemoteReplies::confirmSleep(1)},
        {"/off", {UserCommand::setEnabled(false)}, RemoteReplies::enabled(false)},
        {"report 24", {}, RemoteReplies::report(Report{minutesFrom(t0, -24 * 60), {}, {}, {}, {}}, 24)},
        {"approve nope", {}, RemoteReplies::approvalGone()},
        {"pause\t2", {}, RemoteReplies::unknown("pause\t2")},
    };
    for (const auto& c : cases) {
        ordered.clear();
        EXPECT_EQ(desk.execute({c.text, {"cli", {}, {}}}, t0), c.reply) << c.text;
        EXPECT_EQ(ordered, c.orders) << c.text;
    }
    // The reply must be queued before the sleep, or the flush before it
    // cannot carry it.
    tap("telegram", "sleep now");
    EXPECT_EQ(ordered.back(), UserCommand::sleepNow());
    EXPECT_EQ(telegramCallsAtOrder, 1u);
}

TEST_F(RemoteDeskTest, EveryTicketIsDecidedExactlyOnceWhateverHappens) {
    std::mt19937 random(7);
    const std::vector<std::string> ids = {"a", "b", "c"};
    std::vector<int> calls;  // per open
    std::map<std::string, int> openOf;
    Date now = t0;
    auto pick = [&](auto n) { return static_cast<std::size_t>(random() % n); };
    for (int step = 0; step < 3000; ++step) {
        const std::string& id = ids[pick(3u)];
        now = minutesFrom(now, static_cast<double>(pick(4u)) * 0.5);
        switch (pick(9u)) {
            case 0:
            case 1: {
                std::size_t index = calls.size();
                calls.push_back(0);
                openOf[id] = static_cast<int>(index);
                auto ticket = sampleTicket(
                    id, "claude",
                    id == "a" ? std::vector<AgentQuestion>{}
                              : std::vector<AgentQuestion>{{"Q?", {}, {{"A", {}}, {"B", {}}}, id == "c"}});
                desk.open(
                    ticket, [&calls, index](DaemonResponse) { ++calls[index]; }, now);
                break;
            }
            case 2:
                tap(pick(2u) ? "telegram" : "ntfy", (pick(2u) ? "approve:" : "deny:") + id);
                break;
            case 3:
                tap("ntfy", "answer " + id + " 0 " +
                                std::vector<std::string>{"0", "1", "done", "mac", "other"}[pick(5u)]);
                break;
            case 4:
                type("ntfy", "typed");
                break;
            case 5:
                desk.withdraw(id, now);
                break;
            case 6:
                desk.observe(event(AgentEvent::allKinds[pick(10u)]), now);
                break;
            case 7:
                away = pick(4u) != 0;
                [[fallthrough]];
            default:
                desk.tick(now);
        }
        for (int count : calls) ASSERT_LE(count, 1) << "step " << step;
    }
    away = true;
    desk.tick(minutesFrom(now, 11));
    EXPECT_TRUE(desk.pending().empty());
    EXPECT_EQ(desk.nextDeadline(), std::nullopt);
    for (int count : calls) EXPECT_EQ(count, 1);
}

}  // namespace
}  // namespace tavra

// The daemon over fakes, step by step: what reaches the helper, the
// assertion, the process table, the watchers, the notifier and the journal
// for a sequence of requests and ticks; and the journal file those steps append to.

#include <csignal>
#include <fstream>

#include "DaemonFixture.h"

namespace tavra {
namespace {

using Kind = AgentEvent::Kind;
using JKind = JournalEntry::Kind;
using testing::SentSignal;

class DaemonTimelineTest : public DaemonFixture {};

TEST_F(DaemonTimelineTest, TurnHoldsTheMachineKeepsTheHelperFedAndLetsGoWhenItStops) {
    startDaemon();
    EXPECT_EQ(ask(DaemonRequest::hook({event(Kind::promptSubmitted)})), DaemonResponse::ok());
    EXPECT_EQ(daemon->nextTickDelay(), std::chrono::seconds(5));
    clock.advance(5);
    daemon->tick();  // within the refresh interval: nothing to send
    clock.advance(5);
    daemon->tick();  // ten seconds after the last request: sent again
    const auto before = daemon->engine().runs().at(kRun).stuck;
    watchers->changed("/w/proj");
    EXPECT_NE(daemon->engine().runs().at(kRun).stuck, before);  // a write is progress
    clock.advance(50);
    EXPECT_EQ(ask(DaemonRequest::hook({event(Kind::turnStopped)})), DaemonResponse::ok());

    EXPECT_EQ(helperRequests(), (std::vector<HelperRequest>{HelperRequest::apply({true, true}),
                                                            HelperRequest::apply({true, true}),
                                                            HelperRequest::apply({false, false})}));
    EXPECT_EQ(assertion->events, (std::vector<std::string>{"take Tavra: Claude (proj) working", "drop 100"}));
    EXPECT_EQ(journalKinds(), (std::vector<JKind>{JKind::runStarted, JKind::turnFinished, JKind::power}));
    EXPECT_EQ(notifications, (std::vector<std::string>{"finished-claude:s1-1"}));
    EXPECT_EQ(watchers->syncs, (std::vector<std::set<std::string>>{{"/w/proj"}, {}}));
    EXPECT_EQ(daemon->nextTickDelay(), std::chrono::seconds(60));

    watchers->exit(700);  // the agent's process ends: so does the run
    EXPECT_TRUE(daemon->engine().runs().empty());
    EXPECT_EQ(journalKinds().back(), JKind::runEnded);
}

TEST_F(DaemonTimelineTest, PauseFreezesTheTreeAfterTheLedgerAndEveryWayOutThawsIt) {
    processes->add(700, 1, "claude");
    processes->add(701, 700, "node");
    processes->add(702, 701, "bash");
    std::vector<bool> ledgerHadIt;  // at each SIGSTOP: is the process on disk already?
    processes->onSignal = [&](Pid pid, int signal) {
        if (signal != SIGSTOP) return;
        bool found = false;
        for (const auto& record : savedState().value_or(DaemonState{}).frozen)
            for (const auto& process : record.processes) found = found || process.pid == pid;
        ledgerHadIt.push_back(found);
    };
    const std::vector<SentSignal> thawed{{701, SIGCONT}, {702, SIGCONT}, {700, SIGCONT}};
    startDaemon();
    ask(DaemonRequest::hook({event(Kind::promptSubmitted)}));

    EXPECT_EQ(ask(DaemonRequest::command(UserCommand::pause(kRun))), DaemonResponse::ok());
    EXPECT_EQ(processes->sent(), (std::vector<SentSignal>{{700, SIGSTOP}, {701, SIGSTOP}, {702, SIGSTOP}}));
    EXPECT_EQ(ledgerHadIt, (std::vector<bool>{true, true, true}));
    EXPECT_EQ(daemon->frozen().at(0).processes,
              (std::vector<FrozenProcess>{{700, 100700}, {701, 100701}, {702, 100702}}));

    ask(DaemonRequest::command(UserCommand::resume(kRun)));  // the tree first, the root last
    auto sent = processes->sent();
    EXPECT_EQ(std::vector<SentSignal>(sent.begin() + 3, sent.end()), thawed);

    ask(DaemonRequest::command(UserCommand::pause(kRun)));
    forget();
    daemon->shutdown("signal");
    sent = processes->sent();
    EXPECT_EQ(std::vector<SentSignal>(sent.end() - 3, sent.end()), thawed);
    EXPECT_EQ(helperRequests(), (std::vector<HelperRequest>{HelperRequest::restoreDefaults()}));
    EXPECT_TRUE(savedState()->frozen.empty());
    EXPECT_EQ(savedState()->runs.size(), 1u);
    EXPECT_EQ(send(DaemonRequest::ping())->response(), DaemonResponse::error("tavrad is stopping"));
}

TEST_F(DaemonTimelineTest, StartThawsWhatAPredecessorLeftFrozenWhenItIsStillTheSameProcess) {
    processes->add(700, 1, "claude");
    processes->add(701, 700, "node");
    processes->add(800, 1, "codex");
    tavra::Run paused(kRun, clock.now());
    paused.pid = 700;
    paused.status = RunStatus::paused;
    paused.pauses = {PauseRecord{PauseReason::user, clock.now(), std::nullopt}};
    StateFile::save(DaemonState{{paused},
                                std::nullopt,
                                {{"build", addSeconds(clock.now(), 3600)}},
                                {FreezeRecord{kRun, 700, {{700, 100700}, {701, 100701}}},
                                 // pid 800 now belongs to another process: never signalled.
                                 FreezeRecord{{AgentKind::codex, "s2"}, 800, {{800, 5}}}}},
                    dir / "state.json");
    startDaemon();
    EXPECT_EQ(processes->sent(), (std::vector<SentSignal>{{701, SIGCONT}, {700, SIGCONT}}));
    EXPECT_EQ(daemon->engine().runs().at(kRun).status, RunStatus::idle);
    EXPECT_EQ(daemon->engine().runs().at(kRun).pauses.back().resumedAt, clock.now());
    EXPECT_EQ(daemon->engine().plan().reasons, (std::vector<std::string>{"build"}));
}

TEST_F(DaemonTimelineTest, DamagedStateFileIsMovedAsideAndTheDaemonStartsEmpty) {
    writeFileAtomically(dir / "state.json", "{\"runs\":[", 0600);
    daemon = Daemon::create(context, environment());
    daemon->start();
    EXPECT_TRUE(daemon->engine().runs().empty());
    const auto epoch = std::to_string(static_cast<long long>(epochSeconds(clock.now())));
    EXPECT_EQ(readWholeFile(dir / ("state.json.damaged-" + epoch)), "{\"runs\":[");
    EXPECT_EQ(logs.messages().at(0).rfind("state file damaged (", 0), 0u) << logs.messages().at(0);
    EXPECT_TRUE(savedState().has_value());  // a fresh, valid file replaced it
}

JournalEntry entry(int second) {
    return JournalEntry{
        dateFromEpochSeconds(1740821400 + second), JournalEntry::Kind::power, {}, {}, "release", {}, {}};
}

// A torn last line (a crash mid-write) costs only itself; writing goes on on
// a fresh line; past its limit the file rotates and reading spans both.
TEST(Journal, SkipsATornLineAndReadsAcrossTheRotation) {
    testing::TempDir dir;
    ASSERT_TRUE(Journal(dir / "journal.jsonl").append(entry(1)));
    std::ofstream(dir / "journal.jsonl", std::ios::app) << R"({"date":"2025-03-01T09:30:02Z","ki)";
    Journal journal(dir / "journal.jsonl", 3 * (TavraJSON::encodeValue(entry(0)).size() + 1));
    for (int i = 3; i < 6; ++i) ASSERT_TRUE(journal.append(entry(i)));
    // Rotated once past three lines' worth: [1, torn, 3, 4] aside, [5] fresh.
    EXPECT_EQ(journal.read(), (std::vector<JournalEntry>{entry(1), entry(3), entry(4), entry(5)}));
    EXPECT_TRUE(readWholeFile(dir / "journal.1.jsonl").has_value());
}

}  // namespace
}  // namespace tavra

// The daemon over fakes, step by step: what reaches the helper, the
// assertion, the process table, the watchers, the notifier and the journal
// for a sequence of requests and ticks.

#include <csignal>

#include "DaemonFixture.h"

namespace tavra {
namespace {

using Kind = AgentEvent::Kind;
using JKind = JournalEntry::Kind;
using testing::SentSignal;

class DaemonTimelineTest : public DaemonFixture {};

TEST_F(DaemonTimelineTest, TurnHoldsTheMachineKeepsTheHelperFedAndLetsGoWhenItStops) {
    startDaemon();
    EXPECT_EQ(daemon->nextTickDelay(), std::chrono::seconds(60));

    EXPECT_EQ(ask(DaemonRequest::hook({event(Kind::promptSubmitted)})), DaemonResponse::ok());
    EXPECT_EQ(daemon->nextTickDelay(), std::chrono::seconds(5));
    clock.advance(5);
    daemon->tick();  // within the refresh interval: nothing to send
    clock.advance(5);
    daemon->tick();  // ten seconds after the last request: sent again
    clock.advance(50);
    EXPECT_EQ(ask(DaemonRequest::hook({event(Kind::turnStopped)})), DaemonResponse::ok());

    EXPECT_EQ(helperRequests(), (std::vector<HelperRequest>{HelperRequest::apply({true, true}),
                                                            HelperRequest::apply({true, true}),
                                                            HelperRequest::apply({false, false})}));
    EXPECT_EQ(assertion->events, (std::vector<std::string>{"take Tavra: Claude (proj) working", "drop 100"}));
    EXPECT_EQ(journalKinds(), (std::vector<JKind>{JKind::runStarted, JKind::turnFinished, JKind::power}));
    EXPECT_EQ(notifications, (std::vector<std::string>{"finished-claude:s1-1"}));
    EXPECT_EQ(directories->syncs, (std::vector<std::set<std::string>>{{"/w/proj"}, {}}));
    EXPECT_EQ(exits->watched, (std::vector<Pid>{700}));
    EXPECT_EQ(daemon->nextTickDelay(), std::chrono::seconds(60));

    // The agent's process ends: the run goes, and nothing is held.
    exits->exit(700);
    EXPECT_TRUE(daemon->engine().runs().empty());
    EXPECT_EQ(journalKinds().back(), JKind::runEnded);
}

TEST_F(DaemonTimelineTest, WritesUnderARunsDirectoryCountAsProgressOnlyForThatRun) {
    startDaemon();
    const RunKey other{AgentKind::codex, "s2"};
    ask(DaemonRequest::hook({event(Kind::promptSubmitted)}));
    ask(DaemonRequest::hook({event(Kind::promptSubmitted, "/w/other", 800, other)}));
    const auto before = daemon->engine().runs();
    clock.advance(30);
    directories->handler("/w/proj");
    EXPECT_NE(daemon->engine().runs().at(kRun).stuck, before.at(kRun).stuck);
    EXPECT_EQ(daemon->engine().runs().at(other).stuck, before.at(other).stuck);
}

// A table that looks at the state file whenever a process is stopped, to
// prove that the ledger is on disk before the signal.
class LedgerWatchingTable final : public ProcessTable {
public:
    LedgerWatchingTable(std::shared_ptr<testing::FakeProcessTable> table, std::filesystem::path stateFile)
        : table_(std::move(table)), stateFile_(std::move(stateFile)) {}

    mutable std::vector<bool> ledgerHadIt;  // one per SIGSTOP

    std::vector<Pid> allPIDs() const override { return table_->allPIDs(); }
    std::optional<ProcessRow> row(Pid pid) const override { return table_->row(pid); }
    std::optional<std::string> name(Pid pid) const override { return table_->name(pid); }
    std::optional<std::string> path(Pid pid) const override { return table_->path(pid); }
    std::optional<std::string> cwd(Pid pid) const override { return table_->cwd(pid); }
    bool isAlive(Pid pid) const override { return table_->isAlive(pid); }
    Pid ownPID() const override { return table_->ownPID(); }
    Pid ownParent() const override { return table_->ownParent(); }
    bool sendSignal(Pid pid, int signal, std::uint64_t token) const override {
        if (signal == SIGSTOP) {
            auto bytes = readWholeFile(stateFile_);
            bool found = false;
            if (bytes)
                for (const auto& record : TavraJSON::decode<DaemonState>(*bytes).frozen)
                    for (const auto& process : record.processes) found = found || process.pid == pid;
            ledgerHadIt.push_back(found);
        }
        return table_->sendSignal(pid, signal, token);
    }

private:
    std::shared_ptr<testing::FakeProcessTable> table_;
    std::filesystem::path stateFile_;
};

TEST_F(DaemonTimelineTest, PauseFreezesTheTreeAfterTheLedgerAndEveryWayOutThawsIt) {
    processes->add(700, 1, "claude");
    processes->add(701, 700, "node");
    processes->add(702, 701, "bash");
    auto table = std::make_shared<LedgerWatchingTable>(processes, dir / "state.json");
    startDaemon(table);
    ask(DaemonRequest::hook({event(Kind::promptSubmitted)}));

    EXPECT_EQ(ask(DaemonRequest::command(UserCommand::pause(kRun))), DaemonResponse::ok());
    EXPECT_EQ(processes->sent(), (std::vector<SentSignal>{{700, SIGSTOP}, {701, SIGSTOP}, {702, SIGSTOP}}));
    EXPECT_EQ(table->ledgerHadIt, (std::vector<bool>{true, true, true}));
    ASSERT_EQ(daemon->frozen().size(), 1u);
    EXPECT_EQ(daemon->frozen()[0].processes,
              (std::vector<FrozenProcess>{{700, 100700}, {701, 100701}, {702, 100702}}));

    // Resume: the tree first, the root last; the ledger forgets it.
    ask(DaemonRequest::command(UserCommand::resume(kRun)));
    EXPECT_EQ(std::vector<SentSignal>(processes->sent().begin() + 3, processes->sent().end()),
              (std::vector<SentSignal>{{701, SIGCONT}, {702, SIGCONT}, {700, SIGCONT}}));
    daemon->saveState();
    EXPECT_TRUE(savedState()->frozen.empty());

    // Frozen again, then the daemon is told to stop.
    ask(DaemonRequest::command(UserCommand::pause(kRun)));
    forget();
    daemon->shutdown("signal");
    EXPECT_EQ(std::vector<SentSignal>(processes->sent().end() - 3, processes->sent().end()),
              (std::vector<SentSignal>{{701, SIGCONT}, {702, SIGCONT}, {700, SIGCONT}}));
    EXPECT_EQ(helperRequests(), (std::vector<HelperRequest>{HelperRequest::restoreDefaults()}));
    EXPECT_TRUE(savedState()->frozen.empty());
    EXPECT_EQ(savedState()->runs.size(), 1u);
    EXPECT_EQ(send(DaemonRequest::ping())->response(), DaemonResponse::error("tavrad is stopping"));
}

TEST_F(DaemonTimelineTest, StartThawsWhatAPredecessorLeftFrozenWhenItIsStillTheSameProcess) {
    processes->add(700, 1, "claude");
    processes->add(701, 700, "node");
    processes->add(800, 1, "codex");
    Run paused(kRun, clock.now());
    paused.pid = 700;
    paused.status = RunStatus::paused;
    paused.pauseReason = PauseReason::user;
    paused.pauses = {PauseRecord{PauseReason::user, clock.now(), std::nullopt}};
    DaemonState state;
    state.runs = {paused};
    state.holds = {{"build", addSeconds(clock.now(), 3600)}};
    state.frozen = {FreezeRecord{kRun, 700, {{700, 100700}, {701, 100701}}},
                    // pid 800 now belongs to another process: never signalled.
                    FreezeRecord{{AgentKind::codex, "s2"}, 800, {{800, 5}}}};
    StateFile::save(state, dir / "state.json");

    startDaemon();
    EXPECT_EQ(processes->sent(), (std::vector<SentSignal>{{701, SIGCONT}, {700, SIGCONT}}));
    EXPECT_TRUE(daemon->frozen().empty());
    const Run& run = daemon->engine().runs().at(kRun);
    EXPECT_EQ(run.status, RunStatus::idle);
    EXPECT_EQ(run.pauses.back().resumedAt, clock.now());
    EXPECT_EQ(daemon->engine().plan().reasons, (std::vector<std::string>{"build"}));
}

TEST_F(DaemonTimelineTest, DamagedStateFileIsMovedAsideAndTheDaemonStartsEmpty) {
    writeFileAtomically(dir / "state.json", R"({"runs":[{"key":)", 0600);
    daemon = Daemon::create(context, environment());
    daemon->start();
    EXPECT_TRUE(daemon->engine().runs().empty());
    const auto aside =
        dir / ("state.json.damaged-" + std::to_string(static_cast<long long>(epochSeconds(clock.now()))));
    EXPECT_EQ(readWholeFile(aside), R"({"runs":[{"key":)");
    auto messages = logs.messages();
    ASSERT_GE(messages.size(), 2u);
    EXPECT_EQ(messages[0].rfind("state file damaged (", 0), 0u) << messages[0];
    EXPECT_TRUE(savedState().has_value());  // a fresh, valid file replaced it
}

}  // namespace
}  // namespace tavra

// The shared rules of process inspection and freezing, over a made-up table.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>

#include "platform/Processes.h"
#include "support/FakeProcessTable.h"

namespace tavra {
namespace {

using testing::FakeProcessTable;
using testing::SentSignal;
using Processes = std::vector<std::tuple<Pid, Pid, const char*>>;  // pid, parent, name

void addAll(FakeProcessTable& table, const Processes& processes) {
    for (const auto& [pid, parent, name] : processes) table.add(pid, parent, name);
}

TEST(Matches, ComparesNamesAgainstNameBaseVersionAndDirectory) {
    // Label, process name and path, names looked for, the table's name limit, match.
    using Strings = std::vector<std::string>;
    const std::tuple<const char*, std::optional<std::string>, std::optional<std::string>, Strings,
                     std::size_t, bool>
        cases[] = {
            {"base name", "node", "/usr/local/bin/claude", {"claude"}, 0, true},
            {"versioned base name", "x", "/home/u/.local/bin/claude-2.0.1", {"claude"}, 0, true},
            {"directory in the path", "node", "/opt/claude/bin/node", {"claude"}, 0, true},
            {"longer word is not the name", "claudette", "/usr/bin/claudette", {"claude"}, 0, false},
            {"name cut at the limit", "long-agent-name", std::nullopt, {"long-agent-name-cli"}, 15, true},
        };
    for (const auto& [label, name, path, names, limit, expected] : cases) {
        FakeProcessTable table;
        table.add(42, 1, name, path);
        table.setNameLimit(limit);
        EXPECT_EQ(ProcessInfoReader::matches(table, 42, names), expected) << label;
    }
}

TEST(FindAgentAncestor, TakesTheNearestAgentPastWrappersElseTheFirstOtherAncestor) {
    // Label, processes, the hook's pid, the ancestor taken.
    const std::tuple<const char*, Processes, Pid, std::optional<Pid>> cases[] = {
        {"nearest agent past wrappers",
         {{10, 1, "terminal"},
          {20, 10, "claude"},
          {30, 20, "node"},
          {40, 30, "zsh"},
          {50, 40, "env"},
          {60, 50, "hook"}},
         60,
         20},
        {"first ancestor that is no wrapper",
         {{10, 1, "terminal"}, {40, 10, "zsh"}, {50, 40, "env"}, {55, 50, "tavra"}, {60, 55, "hook"}},
         60,
         10},
        // The vanished parent was still named by its child: with no name it is
        // no wrapper, so it is the fallback, and the walk ends there.
        {"parent gone", {{60, 50, "hook"}}, 60, 50},
    };
    for (const auto& [label, processes, start, expected] : cases) {
        FakeProcessTable table;
        addAll(table, processes);
        EXPECT_EQ(ProcessInfoReader::findAgentAncestor(table, start, {"claude"}), expected) << label;
    }
}

TEST(Descendants, WalksDepthFirstLastChildFirstInOneSnapshotListingEachOnce) {
    FakeProcessTable table;
    // The last row makes the root its own descendant, as parents read at
    // different instants can: the walk must still end.
    addAll(table, {{10, 1, "root"},
                   {11, 10, "a"},
                   {12, 10, "b"},
                   {13, 11, "a1"},
                   {14, 12, "b1"},
                   {15, 11, "a2"},
                   {16, 14, "b1x"},
                   {99, 1, "other"},
                   {10, 16, "root"}});
    EXPECT_EQ(ProcessInfoReader::descendants(table, 10), (std::vector<Pid>{12, 14, 16, 11, 15, 13}));
    EXPECT_TRUE(ProcessInfoReader::descendants(table, 12345).empty());
}

TEST(Freeze, StopsTheRootFirstThenTheWholeTreeButNeverOurselvesEvenIfTheRootRefuses) {
    FakeProcessTable table(5000, 4999);
    // tmux is a descendant, never asked whether freezable; ctest and tests are
    // our parent and ourselves inside the tree.
    addAll(table, {{10, 1, "agent"},
                   {11, 10, "tmux"},
                   {12, 10, "node"},
                   {4999, 12, "ctest"},
                   {5000, 4999, "tests"},
                   {1, 12, "init-in-a-container"}});
    table.add(13, 12, "dead").alive = false;
    auto stopped = ProcessFreezer::freeze(table, 10);

    EXPECT_EQ(table.sent(),
              (std::vector<SentSignal>{{10, SIGSTOP}, {12, SIGSTOP}, {13, SIGSTOP}, {11, SIGSTOP}}));
    EXPECT_EQ(stopped, (std::vector<Pid>{10, 12, 11}));

    // A root that refuses the signal (say EPERM) does not spare its children.
    FakeProcessTable refusing;
    refusing.add(10, 1, "agent").refusesSignals = true;
    refusing.add(11, 10, "child");
    EXPECT_EQ(ProcessFreezer::freeze(refusing, 10), (std::vector<Pid>{11}));
}

TEST(Thaw, ContinuesStoredAndNewDescendantsThenTheRootLastButNeverTheUntouchables) {
    FakeProcessTable table(5000, 4999);
    addAll(table,
           {{10, 1, "agent"}, {12, 10, "node"}, {20, 12, "born-after-the-freeze"}, {5000, 10, "tests"}});
    ProcessFreezer::thaw(table, 10, {12, 11, 0, 1, -3, 4999, 5000, 10});

    auto sent = table.sent();
    ASSERT_FALSE(sent.empty());
    EXPECT_EQ(sent.back(), (SentSignal{10, SIGCONT}));
    std::vector<SentSignal> before(sent.begin(), sent.end() - 1);
    std::sort(before.begin(), before.end(), [](auto& a, auto& b) { return a.pid < b.pid; });
    EXPECT_EQ(before, (std::vector<SentSignal>{{11, SIGCONT}, {12, SIGCONT}, {20, SIGCONT}}));

    FakeProcessTable untouchables(5000, 4999);  // never signalled, even named as the root
    untouchables.add(1, 0, "init");
    ProcessFreezer::thaw(untouchables, 1, {0, 1});
    ProcessFreezer::thaw(untouchables, std::vector<Pid>{30, 0, 1, 4999, 5000, -1, 20});
    EXPECT_EQ(untouchables.sent(), (std::vector<SentSignal>{{30, SIGCONT}, {20, SIGCONT}}));
}

}  // namespace
}  // namespace tavra

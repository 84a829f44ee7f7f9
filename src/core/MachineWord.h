#pragma once

#include <string>
#include <string_view>

namespace tavra {

// How the texts people read name the machine they run on: "Mac" on macOS,
// "computer" on Linux. The texts are built in shared code, so their owner
// hands the word in; kit's LocalMachine::word() is the word of the system
// being built.
struct MachineWord {
    std::string_view noun;           // inside a sentence: "keep the computer awake"
    std::string_view sentenceStart;  // first word of a sentence: "Computer is hot"

    std::string the() const { return "the " + std::string(noun); }
    std::string theAtStart() const { return "The " + std::string(noun); }

    bool operator==(const MachineWord&) const = default;
};

inline constexpr MachineWord kMacWord{"Mac", "Mac"};
inline constexpr MachineWord kComputerWord{"computer", "Computer"};

}  // namespace tavra

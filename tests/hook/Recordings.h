#pragma once

// The recorded hook runs of the real agents (tests/hook/data): each line holds
// the payload the client wrote and the hook's parent chain, nearest first.

#include <fstream>
#include <string>
#include <vector>

#include "core/ConfigCoding.h"
#include "support/FakeProcessTable.h"

namespace tavra::testing {

struct RecordedHook {
    Json payload;
    Json chain;

    std::string event() const { return payload.at("hook_event_name").get<std::string>(); }

    // The table the hook saw: its own pid under the recorded chain, which
    // ends below pid 1.
    FakeProcessTable table() const {
        FakeProcessTable fake(900000, chain.at(0).at("pid").get<Pid>());
        for (std::size_t i = 0; i < chain.size(); ++i) {
            const Json& p = chain[i];
            Pid parent = i + 1 < chain.size() ? chain[i + 1].at("pid").get<Pid>() : 1;
            auto& process = fake.add(p.at("pid").get<Pid>(), parent, p.at("name").get<std::string>(),
                                     p.at("exe").get<std::string>());
            if (p.contains("argv")) process.arguments = p.at("argv").get<std::vector<std::string>>();
        }
        return fake;
    }
};

inline std::vector<RecordedHook> recording(const std::string& file) {
    std::ifstream in(std::string(TAVRA_TEST_DATA_DIR) + "/" + file);
    std::vector<RecordedHook> hooks;
    for (std::string line; std::getline(in, line);) {
        Json entry = Json::parse(line);
        hooks.push_back({entry.at("payload"), entry.at("chain")});
    }
    return hooks;
}

}  // namespace tavra::testing

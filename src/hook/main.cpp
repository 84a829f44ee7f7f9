// tavra-hook AGENT: what the agents' hooks run. See hook/HookTool.h.
#include <csignal>

#include "hook/HookTool.h"

int main(int argc, char** argv) {
    // An agent that stops reading must not turn our write into a crash.
    std::signal(SIGPIPE, SIG_IGN);
    return tavra::HookTool::main(argc, argv);
}

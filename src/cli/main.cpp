// tavra: see and steer Tavra from the terminal, and install it.

#include <iostream>
#include <string>
#include <vector>

#include "cli/Cli.h"

int main(int argc, char** argv) {
    std::vector<std::string> arguments(argv + 1, argv + argc);
    tavra::cli::Parsed parsed = tavra::cli::parseArguments(arguments);
    if (!parsed.request) {
        (parsed.exitStatus == 0 ? std::cout : std::cerr) << parsed.text;
        return parsed.exitStatus;
    }
    auto services = tavra::cli::systemServices(std::cout, std::cerr);
    return tavra::cli::execute(*parsed.request, services);
}

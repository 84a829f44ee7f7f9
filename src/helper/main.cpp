// Entry point of tavra-helper, the root process that owns lid sleep and the
// automatic update setting. It ends only through SIGTERM/SIGINT (status 0,
// after restoring the machine) or a failed start (status 1).

#include <cstdio>
#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include "core/Error.h"
#include "helper/CommandLine.h"
#include "helper/Helper.h"

int main(int argc, char** argv) {
    std::vector<std::string_view> arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
    auto allowed = tavra::HelperCommandLine::allowedUIDs(arguments);

    asio::io_context context;
    std::shared_ptr<tavra::Helper> helper;
    try {
        helper = tavra::Helper::create(context, std::move(allowed), tavra::HelperEnvironment::system());
        helper->start();
    } catch (const tavra::Error& error) {
        std::printf("tavra-helper failed to start: %s\n", error.description().c_str());
        std::fflush(stdout);
        return 1;
    } catch (const std::exception& error) {
        std::printf("tavra-helper failed to start: %s\n", error.what());
        std::fflush(stdout);
        return 1;
    }
    // The watchdog timer keeps the context busy for the life of the process.
    context.run();
    return 0;
}

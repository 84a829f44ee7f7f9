// `tavra phone` end to end against a local ntfy: the pairing's settings are
// saved where the daemon reads them, and a refusal leaves the file alone.
#include <gtest/gtest.h>

#include <sstream>

#include "cli/Cli.h"
#include "kit/Config.h"
#include "kit/UnixSocket.h"
#include "support/FakeNtfy.h"
#include "support/TempDir.h"

namespace tavra::cli {
namespace {

TEST(PhoneCommand, PairsNtfyAndSavesTheTopicsWhileTheDaemonIsDown) {
    testing::FakeNtfy fake;
    testing::TempDir tmp;
    std::istringstream in;
    std::ostringstream out, err;
    Services services;
    services.send = [](const DaemonRequest&, double) -> DaemonResponse {
        throw SocketError::system("connect", 2);
    };
    services.http = [] { return makeCurlHttpClient(); };
    services.configFile = tmp.path() / "config.json";
    services.in = &in;
    services.out = &out;
    services.err = &err;

    Request request;
    request.command = Request::Command::phoneNtfy;
    request.server = "http://127.0.0.1:9";  // nothing listens there
    EXPECT_EQ(execute(request, services), 1) << out.str();
    EXPECT_FALSE(std::filesystem::exists(services.configFile));

    request.server = fake.url();
    ASSERT_EQ(execute(request, services), 0) << err.str();
    auto saved = ConfigStore::load(services.configFile).remote.ntfy;
    EXPECT_TRUE(saved.isConfigured());
    EXPECT_EQ(saved.server, fake.url());
    EXPECT_EQ(fake.messages(saved.topic).size(), 1u);  // the first message proves the topic

    request.command = Request::Command::phoneTelegram;  // no token typed: a usage error
    EXPECT_EQ(execute(request, services), 2);
}

}  // namespace
}  // namespace tavra::cli

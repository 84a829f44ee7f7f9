// The chat channels against the loopback fakes of the tests: how long an
// alert takes from deliverAlert to the service (p50), and what the channels
// cost the network when nothing happens, with the service up and with it
// gone (every connection dropped at once).

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "remote/NtfyChannel.h"
#include "remote/TelegramChannel.h"
#include "support/FakeNtfy.h"
#include "support/FakeTelegram.h"
#include "support/TempDir.h"

namespace {

using namespace tavra;
using Clock = std::chrono::steady_clock;

std::unique_ptr<Channel> telegram(testing::FakeTelegram& fake, const std::filesystem::path& dir) {
    TelegramChannelOptions options;
    options.settings.enabled = true;
    options.settings.botToken = testing::FakeTelegram::kToken;
    options.settings.chatID = 111;
    options.settings.apiBase = fake.apiBase();
    options.stateFile = dir / "offset.json";
    options.http = makeCurlHttpClient();
    return std::make_unique<TelegramChannel>(std::move(options));
}

std::unique_ptr<Channel> ntfy(testing::FakeNtfy& fake) {
    NtfyChannelOptions options;
    options.settings = {true, fake.url(), "bench", std::nullopt, std::nullopt};
    options.http = makeCurlHttpClient();
    return std::make_unique<NtfyChannel>(std::move(options));
}

template <class Received>
void latency(benchmark::State& state, Channel& channel, Received received) {
    channel.start([](IncomingCommand) {});
    std::vector<double> samples;
    Alert alert;
    alert.title = "Claude finished";
    alert.body = "12m of work";
    alert.actions = {{"☕️ Status", "status"}};
    for (auto _ : state) {
        auto before = received();
        alert.id = "finished-" + std::to_string(samples.size());
        auto began = Clock::now();
        channel.deliverAlert(alert);
        while (received() == before) std::this_thread::sleep_for(std::chrono::microseconds(100));
        samples.push_back(std::chrono::duration<double, std::milli>(Clock::now() - began).count());
    }
    std::nth_element(samples.begin(), samples.begin() + std::ssize(samples) / 2, samples.end());
    state.counters["p50_ms"] = samples[samples.size() / 2];
    channel.stop();
}

void telegramAlertLatency(benchmark::State& state) {
    testing::FakeTelegram fake;
    testing::TempDir dir;
    auto channel = telegram(fake, dir.path());
    latency(state, *channel, [&] { return fake.botMessages(111).size(); });
}
BENCHMARK(telegramAlertLatency)->Iterations(50)->Unit(benchmark::kMillisecond);

void ntfyAlertLatency(benchmark::State& state) {
    testing::FakeNtfy fake;
    auto channel = ntfy(fake);
    latency(state, *channel, [&] { return fake.messages("bench").size(); });
}
BENCHMARK(ntfyAlertLatency)->Iterations(50)->Unit(benchmark::kMillisecond);

// One minute of nothing, four channels side by side: Telegram and ntfy with
// the service there, and with it gone.
void idleRequestsPerMinute(benchmark::State& state) {
    for (auto _ : state) {
        testing::FakeTelegram telegramUp, telegramDown;
        testing::FakeNtfy ntfyUp(std::set<std::string>{}, 45.0), ntfyDown;
        telegramDown.server().setDown(true);
        ntfyDown.server().setDown(true);
        testing::TempDir dir, dir2;
        std::vector<std::unique_ptr<Channel>> channels;
        channels.push_back(telegram(telegramUp, dir.path()));
        channels.push_back(telegram(telegramDown, dir2.path()));
        channels.push_back(ntfy(ntfyUp));
        channels.push_back(ntfy(ntfyDown));
        for (auto& channel : channels) channel->start([](IncomingCommand) {});
        std::this_thread::sleep_for(std::chrono::seconds(60));
        for (auto& channel : channels) channel->stop();
        state.counters["telegram_up"] = telegramUp.server().connections();
        state.counters["telegram_down"] = telegramDown.server().connections();
        state.counters["ntfy_up"] = ntfyUp.server().connections();
        state.counters["ntfy_down"] = ntfyDown.server().connections();
    }
}
BENCHMARK(idleRequestsPerMinute)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace

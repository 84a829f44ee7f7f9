#include "kit/HelperProtocol.h"

#include <gtest/gtest.h>

#include "support/SampleStatus.h"

namespace tavra {
namespace {

using namespace std::string_literals;
using testing::expectWire;

const std::string kStatus =
    R"("version":"0.5.0","plan":{"disableLidSleep":false,"deferOSUpdates":false},"watchdogSeconds":30)";

TEST(HelperProtocolWire, EveryMessageIsOneLineThatReadsBack) {
    expectWire(HelperRequest::heartbeat(), R"({"heartbeat":{}})");
    expectWire(HelperRequest::apply({true, false}),
               R"({"apply":{"_0":{"deferOSUpdates":false,"disableLidSleep":true}}})");
    expectWire(HelperRequest::sleepNow(), R"({"sleepNow":{}})");
    expectWire(HelperRequest::restoreDefaults(), R"({"restoreDefaults":{}})");
    const HelperStatus status{"0.5.0", {false, true}, 30.0, TavraJSON::parseDate("2025-03-01T09:30:00Z")};
    expectWire(
        HelperResponse::ok(status),
        R"({"ok":{"_0":{"lastHeartbeat":"2025-03-01T09:30:00Z","plan":{"deferOSUpdates":true,"disableLidSleep":false},"version":"0.5.0","watchdogSeconds":30}}})");
    expectWire(
        HelperResponse::ok({"0.5.0", HelperPlan::released, 12.5, std::nullopt}),
        R"({"ok":{"_0":{"plan":{"deferOSUpdates":false,"disableLidSleep":false},"version":"0.5.0","watchdogSeconds":12.5}}})");
    expectWire(HelperResponse::error("forbidden"), R"({"error":{"_0":"forbidden"}})");
}

TEST(HelperProtocolWire, RefusesMalformedLines) {
    const std::string depth(300000, '[');  // far deeper than any recursion could survive
    for (const std::string& line :
         {R"({"heartbeat":{},"sleepNow":{}})"s, R"({"heartbeat":null})"s, R"("heartbeat")"s, "{}"s,
          R"({"reboot":{}})"s, R"({"apply":{"_0":{"disableLidSleep":true}}})"s, ""s, "not json"s,
          R"({"apply":{"_0":{"disableLidSleep":true,"deferOSUpdates":false,"n":1e999999}}})"s,
          R"({"apply":{"_0":)" + depth + std::string(depth.size(), ']') + "}}"})
        EXPECT_THROW(TavraJSON::decode<HelperRequest>(line), DecodingError) << line.substr(0, 80);

    for (const char* heartbeat : {"2025-03-01T09:30:00.5Z", "4050-03-01T09:30:00Z"})
        EXPECT_THROW(
            TavraJSON::decode<HelperStatus>("{" + kStatus + R"(,"lastHeartbeat":")" + heartbeat + "\"}"),
            DecodingError)
            << heartbeat;
    EXPECT_THROW(TavraJSON::decode<HelperResponse>(R"({"error":{"_0":7}})"), DecodingError);
}

}  // namespace
}  // namespace tavra

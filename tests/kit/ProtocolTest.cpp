#include "kit/Protocol.h"

#include <gtest/gtest.h>

#include "core/ConfigCoding.h"

namespace tavra {
namespace {

Date march1() {
    return TavraJSON::parseDate("2025-03-01T09:30:00Z").value();
}

// Compares two lines as documents, so that key order does not matter but
// everything else, numbers' types included, does.
void expectSameDocument(const std::string& line, const std::string& expected) {
    EXPECT_EQ(line.find('\n'), std::string::npos) << line;
    EXPECT_EQ(TavraJSON::parse(line), TavraJSON::parse(expected)) << line;
}

TEST(HelperProtocolWire, EncodesEveryMessageAsOneLine) {
    HelperStatus status{"0.5.0", HelperPlan{true, false}, 30.0, march1()};
    std::vector<std::pair<std::string, std::string>> cases = {
        {TavraJSON::encodeValue(HelperRequest::heartbeat()), R"({"heartbeat":{}})"},
        {TavraJSON::encodeValue(HelperRequest::apply({true, true})),
         R"({"apply":{"_0":{"deferOSUpdates":true,"disableLidSleep":true}}})"},
        {TavraJSON::encodeValue(HelperRequest::sleepNow()), R"({"sleepNow":{}})"},
        {TavraJSON::encodeValue(HelperRequest::restoreDefaults()), R"({"restoreDefaults":{}})"},
        {TavraJSON::encodeValue(HelperResponse::ok(status)),
         R"({"ok":{"_0":{"lastHeartbeat":"2025-03-01T09:30:00Z","plan":{"deferOSUpdates":false,"disableLidSleep":true},"version":"0.5.0","watchdogSeconds":30}}})"},
        {TavraJSON::encodeValue(HelperResponse::error("forbidden")), R"({"error":{"_0":"forbidden"}})"},
        {TavraJSON::encodeValue(HelperResponse::error("bad request")), R"({"error":{"_0":"bad request"}})"},
    };
    for (const auto& [line, expected] : cases) expectSameDocument(line, expected);
    // A whole-valued double goes out without a decimal part.
    EXPECT_NE(TavraJSON::encodeValue(HelperResponse::ok(status)).find("\"watchdogSeconds\":30}"),
              std::string::npos);
}

TEST(HelperProtocolWire, EveryRecordSurvivesARoundTrip) {
    for (auto request :
         {HelperRequest::heartbeat(), HelperRequest::apply({true, false}),
          HelperRequest::apply({false, true}), HelperRequest::sleepNow(), HelperRequest::restoreDefaults()}) {
        EXPECT_EQ(TavraJSON::decode<HelperRequest>(TavraJSON::encodeValue(request)), request);
    }
    for (auto response : {HelperResponse::ok({"0.5.0", HelperPlan::released, 30.0, std::nullopt}),
                          HelperResponse::ok({"9.9.9", {true, true}, 12.5, march1()}),
                          HelperResponse::error("forbidden"), HelperResponse::error("line\nbreak")}) {
        auto line = TavraJSON::encodeValue(response);
        EXPECT_EQ(line.find('\n'), std::string::npos);
        EXPECT_EQ(TavraJSON::decode<HelperResponse>(line), response);
    }
}

TEST(HelperProtocolWire, AbsentHeartbeatIsLeftOutAndReadsAsAbsent) {
    auto line = TavraJSON::encodeValue(HelperStatus{"0.5.0", HelperPlan::released, 30.0, std::nullopt});
    EXPECT_EQ(line.find("lastHeartbeat"), std::string::npos);
    auto status = TavraJSON::decode<HelperStatus>(
        R"({"version":"0.5.0","plan":{"disableLidSleep":false,"deferOSUpdates":false},"watchdogSeconds":30,"lastHeartbeat":null})");
    EXPECT_EQ(status.lastHeartbeat, std::nullopt);
}

TEST(HelperProtocolWire, LenientShapesThatStillDecode) {
    EXPECT_EQ(TavraJSON::decode<HelperRequest>(R"({"heartbeat":{"x":1}})"), HelperRequest::heartbeat());
    EXPECT_EQ(TavraJSON::decode<HelperRequest>(R"({"sleepNow":{},"other":5})"), HelperRequest::sleepNow());
    EXPECT_EQ(TavraJSON::decode<HelperRequest>(
                  R"({"apply":{"_0":{"disableLidSleep":true,"deferOSUpdates":false,"x":"y"}}})"),
              HelperRequest::apply({true, false}));
}

TEST(HelperProtocolWire, RefusesMalformedRequests) {
    const char* lines[] = {
        R"({"heartbeat":{},"apply":{"_0":{"disableLidSleep":true,"deferOSUpdates":true}}})",
        R"({"heartbeat":null})",
        R"("heartbeat")",
        R"({})",
        R"({"reboot":{}})",
        R"({"apply":{"_0":{"disableLidSleep":true}}})",
        R"({"apply":{"_0":{"disableLidSleep":1,"deferOSUpdates":false}}})",
        R"({"apply":{}})",
        R"({"apply":{"_0":null}})",
        "",
        "{",
        "not json",
        R"({"apply":{"_0":{"disableLidSleep":true,"deferOSUpdates":false,"n":1e999999}}})",
        "[[[8888888888888888888888888888888888888888888888888888e888888",
    };
    for (const char* line : lines) {
        EXPECT_THROW(TavraJSON::decode<HelperRequest>(line), DecodingError) << line;
    }
    try {
        TavraJSON::decode<HelperRequest>(lines[0]);
    } catch (const DecodingError& e) {
        EXPECT_EQ(e.description(), "Invalid number of keys found, expected one.");
    }
}

TEST(HelperProtocolWire, RefusesFractionalSecondsAndMissingStatusFields) {
    EXPECT_THROW(
        TavraJSON::decode<HelperStatus>(
            R"({"version":"0.5.0","plan":{"disableLidSleep":false,"deferOSUpdates":false},"watchdogSeconds":30,"lastHeartbeat":"2025-03-01T09:30:00.5Z"})"),
        DecodingError);
    EXPECT_THROW(TavraJSON::decode<HelperStatus>(
                     R"({"plan":{"disableLidSleep":false,"deferOSUpdates":false},"watchdogSeconds":30})"),
                 DecodingError);
    EXPECT_THROW(TavraJSON::decode<HelperResponse>(R"({"error":{"_0":7}})"), DecodingError);
}

TEST(HelperProtocolWire, RefusesDatesBeyondTheClocksRange) {
    for (const char* date : {"0246-03-01T09:30:00Z", "4050-03-01T09:30:00Z", "1600-01-01T00:00:00Z"}) {
        auto line =
            std::string(
                R"({"version":"0.5.0","plan":{"disableLidSleep":false,"deferOSUpdates":false},"watchdogSeconds":30,"lastHeartbeat":")") +
            date + "\"}";
        EXPECT_THROW(TavraJSON::decode<HelperStatus>(line), DecodingError) << date;
    }
    EXPECT_NO_THROW(TavraJSON::decode<HelperStatus>(
        R"({"version":"0.5.0","plan":{"disableLidSleep":false,"deferOSUpdates":false},"watchdogSeconds":30,"lastHeartbeat":"2200-01-01T00:00:00Z"})"));
}

TEST(ClientErrorTest, Descriptions) {
    EXPECT_EQ(ClientError::remote("forbidden").description(), "forbidden");
    EXPECT_STREQ(ClientError::remote("bad request").what(), "bad request");
    EXPECT_EQ(ClientError::unexpectedReply().description(), "unexpected reply");
    EXPECT_EQ(ClientError::remote("x").value(), ClientError::Case(ClientError::Remote{"x"}));
}

}  // namespace
}  // namespace tavra

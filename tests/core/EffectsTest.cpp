#include "core/Effects.h"

#include <gtest/gtest.h>

#include "support/CorePrinters.h"
#include "support/ErrorText.h"

namespace tavra {
namespace {

const Date kAt = dateFromEpochSeconds(1740821400);  // 2025-03-01T09:30:00Z
const RunKey kKey{AgentKind::claude, "s1"};

TEST(UserCommandJSON, EveryCaseHasItsDocumentedForm) {
    const std::pair<UserCommand, const char*> cases[] = {
        {UserCommand::pause(), R"({"pause":{}})"},
        {UserCommand::pause(kKey), R"({"pause":{"_0":{"agent":"claude","session":"s1"}}})"},
        {UserCommand::stayAwake(std::nullopt), R"({"stayAwake":{}})"},
        {UserCommand::hold("build", kAt), R"({"hold":{"id":"build","until":"2025-03-01T09:30:00Z"}})"},
        {UserCommand::setEnabled(false), R"({"setEnabled":{"_0":false}})"},
    };
    for (const auto& [command, json] : cases) {
        EXPECT_EQ(Json(command), Json::parse(json)) << json;
        EXPECT_EQ(TavraJSON::decode<UserCommand>(json), command) << json;
    }
    // Unknown keys beside the case are ignored; a null optional is absent.
    EXPECT_EQ(TavraJSON::decode<UserCommand>(R"({"x":1,"pause":{"_0":null}})"), UserCommand::pause());
}

TEST(UserCommandJSON, RefusesMalformedDocuments) {
    for (const char* text : {R"({"forget":{}})", R"({"setEnabled":{"_0":0}})", R"({"sleepNow":null})",
                             R"({"hold":{"until":"2025-03-01T09:30:00Z"}})", R"("sleepNow")", "{}"})
        EXPECT_THROW(TavraJSON::decode<UserCommand>(text), DecodingError) << text;
    EXPECT_EQ(testing::errorText<DecodingError>(
                  [] { TavraJSON::decode<UserCommand>(R"({"pause":{},"sleepNow":{}})"); }),
              "Invalid number of keys found, expected one.");
}

TEST(AlertAndJournalJSON, RoundTripWithEnumsAsRawStrings) {
    JournalEntry entry{kAt, JournalEntry::Kind::guardTripped, {}, {}, "battery", "20% <= 25%", {}};
    EXPECT_EQ(
        TavraJSON::encode(Json(entry)),
        R"({"date":"2025-03-01T09:30:00Z","detail":"20% <= 25%","kind":"guardTripped","reason":"battery"})");
    EXPECT_EQ(TavraJSON::decode<JournalEntry>(TavraJSON::encode(Json(entry))), entry);
}

}  // namespace
}  // namespace tavra

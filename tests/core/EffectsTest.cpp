#include "core/Effects.h"

#include <gtest/gtest.h>

#include "support/CorePrinters.h"

namespace tavra {
namespace {

const Date kAt = dateFromEpochSeconds(1740821400);  // 2025-03-01T09:30:00Z
const RunKey kKey{AgentKind::claude, "s1"};

TEST(UserCommandJSON, EveryCaseHasItsDocumentedForm) {
    struct Case {
        UserCommand command;
        const char* json;
    };
    const Case cases[] = {
        {UserCommand::pause(), R"({"pause":{}})"},
        {UserCommand::pause(kKey), R"({"pause":{"_0":{"agent":"claude","session":"s1"}}})"},
        {UserCommand::resume(), R"({"resume":{}})"},
        {UserCommand::resume(kKey), R"({"resume":{"_0":{"agent":"claude","session":"s1"}}})"},
        {UserCommand::forget(kKey), R"({"forget":{"_0":{"agent":"claude","session":"s1"}}})"},
        {UserCommand::stayAwake(std::nullopt), R"({"stayAwake":{}})"},
        {UserCommand::stayAwake(kAt), R"({"stayAwake":{"until":"2025-03-01T09:30:00Z"}})"},
        {UserCommand::hold("build", kAt), R"({"hold":{"id":"build","until":"2025-03-01T09:30:00Z"}})"},
        {UserCommand::hold("build", std::nullopt), R"({"hold":{"id":"build"}})"},
        {UserCommand::setEnabled(false), R"({"setEnabled":{"_0":false}})"},
        {UserCommand::sleepNow(), R"({"sleepNow":{}})"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Json(c.command), Json::parse(c.json)) << c.json;
        EXPECT_EQ(TavraJSON::decode<UserCommand>(c.json), c.command) << c.json;
    }
}

TEST(UserCommandJSON, RefusesMalformedDocuments) {
    const char* bad[] = {
        R"({})",
        R"({"pause":{},"resume":{}})",
        R"({"forget":{}})",
        R"({"setEnabled":{}})",
        R"({"setEnabled":{"_0":0}})",
        R"({"hold":{"until":"2025-03-01T09:30:00Z"}})",
        R"({"sleepNow":null})",
        R"("sleepNow")",
    };
    for (const char* text : bad) EXPECT_THROW(TavraJSON::decode<UserCommand>(text), DecodingError) << text;
    try {
        TavraJSON::decode<UserCommand>(R"({"pause":{},"sleepNow":{}})");
    } catch (const DecodingError& e) {
        EXPECT_EQ(e.description(), "Invalid number of keys found, expected one.");
    }
    // Unknown keys beside the case are ignored; a null optional is absent.
    EXPECT_EQ(TavraJSON::decode<UserCommand>(R"({"x":1,"pause":{"_0":null}})"), UserCommand::pause());
}

TEST(AlertAndJournalJSON, RoundTripWithEnumsAsRawStrings) {
    Alert alert{"stuck-claude:s1-1",
                "Claude looks stuck",
                "body",
                Alert::Level::warning,
                Alert::Category::stuck,
                kKey,
                {{"▶️ Resume", "resume claude:s1"}},
                {}};
    Json j = alert;
    EXPECT_EQ(j["level"], "warning");
    EXPECT_EQ(j["category"], "stuck");
    EXPECT_FALSE(j.contains("workSeconds"));
    EXPECT_EQ(TavraJSON::decode<Alert>(TavraJSON::encode(j)), alert);
    j.erase("actions");
    EXPECT_THROW(TavraJSON::read<Alert>(j), DecodingError);

    JournalEntry entry{kAt, JournalEntry::Kind::guardTripped, {}, {}, "battery", "20% <= 25%", {}};
    EXPECT_EQ(
        TavraJSON::encode(Json(entry)),
        R"({"date":"2025-03-01T09:30:00Z","detail":"20% <= 25%","kind":"guardTripped","reason":"battery"})");
    EXPECT_EQ(TavraJSON::decode<JournalEntry>(TavraJSON::encode(Json(entry))), entry);
    EXPECT_THROW(TavraJSON::decode<JournalEntry>(R"({"date":"2025-03-01T09:30:00Z","kind":"nap"})"),
                 DecodingError);
}

TEST(DecisionAlerts, PicksAlertEffectsInOrder) {
    Alert a{"a", "A", "", Alert::Level::info, Alert::Category::system, {}, {}, {}};
    Alert b = a;
    b.id = "b";
    Decision d{PowerPlan::released,
               {Effect::freeze(kKey, 1), Effect::alert(a), Effect::sleepNow("x"), Effect::alert(b)}};
    EXPECT_EQ(d.alerts(), (std::vector<Alert>{a, b}));
    EXPECT_TRUE(Decision{}.alerts().empty());
    EXPECT_EQ(describe(Effect::thaw(kKey, 9)), "thaw(claude:s1, 9)");
}

}  // namespace
}  // namespace tavra

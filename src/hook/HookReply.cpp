#include "hook/HookReply.h"

namespace tavra::HookReply {

namespace {

using Ordered = nlohmann::ordered_json;

std::string document(const Ordered& body) {
    return Ordered{{"hookSpecificOutput", body}}.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string permissionDocument(bool allow) {
    Ordered decision{{"behavior", allow ? "allow" : "deny"}};
    if (!allow) decision["message"] = kDeniedMessage;
    return document(Ordered{{"hookEventName", "PermissionRequest"}, {"decision", decision}});
}

// Claude takes an answer only as the whole input again, with the questions
// it asked and the answers beside them; an allow without answers would
// close the picker with nothing chosen.
std::string answersDocument(const HookTranslation& translation, const DaemonVerdict& verdict) {
    const auto& questions = translation.ticket->questions;
    if (!questions || questions->empty() || !translation.toolInput.is_object()) return {};
    Json answers = Json::object();
    for (const auto& question : *questions) {
        auto it = verdict.answers.find(question.question);
        if (it == verdict.answers.end()) return {};
        answers[question.question] = it->second;
    }
    Json input = translation.toolInput;
    input["answers"] = std::move(answers);
    return document(Ordered{
        {"hookEventName", "PreToolUse"},
        {"permissionDecision", "allow"},
        {"updatedInput", Ordered::parse(input.dump(-1, ' ', false, Json::error_handler_t::replace))}});
}

}  // namespace

std::string encodeRequest(const HookTranslation& translation) {
    Json hook{{"events", translation.events}};
    if (translation.ticket) hook["approval"] = *translation.ticket;
    return TavraJSON::encode(Json{{"hook", std::move(hook)}});
}

DaemonVerdict readVerdict(std::string_view line) noexcept {
    try {
        Json reply = Json::parse(line, nullptr, false);
        if (reply.is_discarded() || !reply.is_object() || reply.size() != 1) return {};
        const std::string& name = reply.begin().key();
        const Json& body = reply.begin().value();
        if (!body.is_object()) return {};
        auto payload = body.find("_0");
        if (payload == body.end()) return {};
        if (name == "approval" && payload->is_string()) {
            auto decision = parseApprovalDecision(payload->get_ref<const std::string&>());
            if (decision == ApprovalDecision::allow) return {DaemonVerdict::Kind::allow, {}};
            if (decision == ApprovalDecision::deny) return {DaemonVerdict::Kind::deny, {}};
            return {};
        }
        if (name == "answers" && payload->is_object()) {
            DaemonVerdict verdict{DaemonVerdict::Kind::answers, {}};
            for (auto it = payload->begin(); it != payload->end(); ++it) {
                if (!it.value().is_string()) return {};
                verdict.answers.emplace(it.key(), it.value().get<std::string>());
            }
            return verdict;
        }
    } catch (const std::exception&) {
        // A reply we cannot read decides nothing.
    }
    return {};
}

HookOutput outputFor(const HookTranslation& translation, const DaemonVerdict& verdict) {
    if (!translation.ticket) return {};
    using K = DaemonVerdict::Kind;
    switch (translation.replyForm) {
        case ReplyForm::none:
            return {};
        case ReplyForm::claudePermission:
        case ReplyForm::codexPermission:
            if (verdict.kind == K::allow) return {permissionDocument(true)};
            if (verdict.kind == K::deny) return {permissionDocument(false)};
            return {};
        case ReplyForm::claudeQuestion:
            if (verdict.kind == K::answers) return {answersDocument(translation, verdict)};
            if (verdict.kind == K::deny) {
                return {document(Ordered{{"hookEventName", "PreToolUse"},
                                         {"permissionDecision", "deny"},
                                         {"permissionDecisionReason", kDeniedMessage}})};
            }
            return {};
    }
    return {};
}

}  // namespace tavra::HookReply

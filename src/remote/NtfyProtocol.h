#pragma once

// The pure half of the ntfy channel: reading the JSON stream of the control
// topic and the strict form of a control message. No I/O; safe from any
// thread.

#include <optional>
#include <string>
#include <string_view>

namespace tavra {

// One line of a subscription stream, when it is a well-formed event.
struct NtfyEvent {
    std::string id;
    std::string event;  // "open", "keepalive", "message", "poll_request"
    std::string topic;
    std::string message;  // message events only

    bool operator==(const NtfyEvent&) const = default;
};

// Never throws: anything but a JSON object with a string `event`, a string
// `id` of 1 to 64 letters and digits and a string `topic` gives nothing, and
// so does a message event without a string `message`.
std::optional<NtfyEvent> parseNtfyEvent(std::string_view line) noexcept;

// A command on the control topic: a nonce the system handed out, alone (a
// button) or followed by one blank and typed text (an answer).
struct NtfyControl {
    std::string nonce;
    std::string text;

    bool operator==(const NtfyControl&) const = default;
};

// Button nonces are 26 and answer codes 8 characters of lower-case base32.
inline constexpr std::size_t kNtfyButtonNonce = 26;
inline constexpr std::size_t kNtfyAnswerCode = 8;

// Never throws; anything else than the two forms gives nothing.
std::optional<NtfyControl> parseNtfyControl(std::string_view message) noexcept;

// `text` cut to at most `bytes` bytes without splitting a UTF-8 sequence.
std::string cutUtf8(std::string_view text, std::size_t bytes);

}  // namespace tavra

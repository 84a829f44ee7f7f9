#pragma once

// Pairing a phone, for `tavra phone telegram` and `tavra phone ntfy`: the
// steps the command line walks the user through, with prompts written to
// `out`. Each blocks until done, refused or past `deadline`.

#include <cstdint>
#include <functional>
#include <ostream>
#include <stop_token>
#include <string>

#include "core/Date.h"
#include "core/Error.h"
#include "kit/Config.h"
#include "remote/HttpClient.h"

namespace tavra {

// Pairing did not succeed; description() says why, for the user.
class PairingError : public Error {
public:
    using Error::Error;
};

// A one-time code for "/start <code>": 8 characters of lower-case base32.
std::string makePairingCode();

// Checks the bot's token with getMe, asks the user to send "/start <code>"
// to the bot and waits for it. Returns `settings` with the chat and the user
// that sent it (the only ones the channel will obey) and the bot's name,
// switched on; the updates read meanwhile are confirmed, so the channel
// never sees them. Throws PairingError: a refused token, another program
// polling the same bot (each machine needs a bot of its own), no code before
// `deadline`, or the service out of reach.
TelegramSettings pairTelegram(HttpClient& http, TelegramSettings settings, const std::string& code,
                              std::ostream& out, const std::function<Date()>& now, Date deadline,
                              std::stop_token stop = {});

// A fresh topic name with 130 random bits, so that it cannot be guessed: on
// an open server the name is the only credential.
std::string makeNtfyTopic();

// Gives `settings` a fresh topic, publishes a first notification to it (which
// also proves the server and token work) and tells the user what to
// subscribe to. Returns the settings switched on. Throws PairingError.
NtfySettings pairNtfy(HttpClient& http, NtfySettings settings, std::ostream& out);

}  // namespace tavra

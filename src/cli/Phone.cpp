// `tavra phone`: pairs the owner's phone with this machine and saves what
// the channel needs, through the daemon so it takes effect at once.

#include <chrono>
#include <string>

#include "cli/Commands.h"
#include "remote/Pairing.h"

namespace tavra::cli {

namespace {

// Long enough to open the chat with the bot and type the code.
constexpr double kPairingSeconds = 300.0;

std::string trimmed(std::string text) {
    const char* blanks = " \t\r\n";
    text.erase(0, text.find_first_not_of(blanks));
    text.erase(text.find_last_not_of(blanks) + 1);
    return text;
}

}  // namespace

int pairPhone(const Request& request, Services& services) {
    TavraConfig config = loadConfig(services).config;
    auto http = services.http();
    if (request.command == Request::Command::phoneTelegram) {
        // The token is read, never taken from argv, so it stays out of the
        // process list and the shell's history.
        *services.out << "Paste the bot's token from @BotFather: " << std::flush;
        std::string token;
        if (!services.in || !std::getline(*services.in, token) || trimmed(token).empty())
            throw Failure("No token given.", 2);
        TelegramSettings settings = config.remote.telegram;
        settings.botToken = trimmed(token);
        Date now = services.now();
        Date deadline =
            now + std::chrono::duration_cast<Date::duration>(std::chrono::duration<double>(kPairingSeconds));
        config.remote.telegram =
            pairTelegram(*http, settings, makePairingCode(), *services.out, services.now, deadline);
        *services.out << "Paired with @" << config.remote.telegram.botUsername.value_or("your bot") << ".";
    } else {
        NtfySettings settings = config.remote.ntfy;
        if (request.server) settings.server = *request.server;
        config.remote.ntfy = pairNtfy(*http, settings, *services.out);
        *services.out << "ntfy is on.";
    }
    saveConfig(config, services);
    return 0;
}

}  // namespace tavra::cli

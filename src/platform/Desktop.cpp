#include "platform/Desktop.h"

#include <sys/stat.h>
#include <unistd.h>

#include <system_error>

#include "kit/AtomicFile.h"

namespace tavra {

namespace {

bool isExecutableFile(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && ::access(path.c_str(), X_OK) == 0;
}

// The program's path: itself when it names a path, otherwise the first
// executable of that name in a directory of `searchPath`.
std::optional<std::string> findProgram(const std::string& program, std::string_view searchPath) {
    if (program.empty()) return std::nullopt;
    if (program.find('/') != std::string::npos) {
        if (isExecutableFile(program)) return program;
        return std::nullopt;
    }
    while (true) {
        auto colon = searchPath.find(':');
        std::filesystem::path directory(searchPath.substr(0, colon));
        if (directory.empty()) directory = ".";  // an empty entry means the working directory
        std::string candidate = (directory / program).string();
        if (isExecutableFile(candidate)) return candidate;
        if (colon == std::string_view::npos) return std::nullopt;
        searchPath.remove_prefix(colon + 1);
    }
}

bool isPlainNameCharacter(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' ||
           c == '_' || c == '-';
}

}  // namespace

TerminalError::TerminalError()
    : Error(
          "no terminal found: set TERMINAL or install x-terminal-emulator, gnome-terminal, konsole or "
          "xterm") {}

namespace DesktopRules {

std::string appleScriptQuoted(std::string_view text) {
    std::string quoted = "\"";
    for (char c : text) {
        if (c == '\\' || c == '"') quoted.push_back('\\');
        quoted.push_back(c);
    }
    quoted.push_back('"');
    return quoted;
}

std::string_view soundName(Alert::Level level) noexcept {
    return level == Alert::Level::info ? "Glass" : "Sosumi";
}

std::string notificationScript(const Alert& alert) {
    return "display notification " + appleScriptQuoted(alert.body) + " with title \"Tavra\" subtitle " +
           appleScriptQuoted(alert.title) + " sound name \"" + std::string(soundName(alert.level)) + "\"";
}

std::uint8_t urgency(Alert::Level level) noexcept {
    switch (level) {
        case Alert::Level::info:
            return 0;
        case Alert::Level::warning:
            return 1;
        case Alert::Level::critical:
            return 2;
    }
    return 1;
}

std::string scriptFileName(std::string_view name, std::string_view extension) {
    std::string file;
    for (char c : name) file.push_back(isPlainNameCharacter(c) ? c : '_');
    file.append(extension);
    return file;
}

std::string macScript(std::string_view command) {
    return "#!/bin/zsh -l\n" + std::string(command) + "\nexec $SHELL -l\n";
}

std::string linuxScript(std::string_view command) {
    return "#!/bin/sh\n" + std::string(command) + "\nexec \"${SHELL:-/bin/sh}\" -l\n";
}

std::filesystem::path writeScript(const std::filesystem::path& directory, std::string_view name,
                                  std::string_view extension, std::string_view contents) {
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    if (error) throw FileError("create", directory, error.message());
    auto path = directory / scriptFileName(name, extension);
    writeFileAtomically(path, contents, 0700);
    return path;
}

std::vector<std::string> terminalCommand(const std::string& script,
                                         const std::optional<std::string>& terminalVariable,
                                         std::string_view searchPath) {
    std::vector<std::string> candidates;
    if (terminalVariable && !terminalVariable->empty()) candidates.push_back(*terminalVariable);
    for (const char* known : {"x-terminal-emulator", "gnome-terminal", "konsole", "xterm"})
        candidates.emplace_back(known);
    for (const auto& candidate : candidates) {
        auto program = findProgram(candidate, searchPath);
        if (!program) continue;
        // gnome-terminal has deprecated -e; everything after "--" is the command.
        bool gnome = std::filesystem::path(*program).filename() == "gnome-terminal";
        return {*program, gnome ? "--" : "-e", script};
    }
    throw TerminalError();
}

}  // namespace DesktopRules

}  // namespace tavra

#pragma once

// Shell runs one external tool to its end and hands back what it said.
//
// Despite the name no shell is involved: the tool is started directly from its
// path with an argument vector, so nothing is interpreted or quoted. Standard
// input is the null device, both output pipes are drained together (a tool
// that fills one pipe cannot deadlock the caller), and a tool still running at
// the time-out gets SIGTERM. There is no harder second signal: a tool that
// ignores SIGTERM, or a grandchild that keeps a pipe open, keeps the call
// waiting.
//
// Thread-safety: every call is independent and blocks only its own thread;
// Shell::run may be called from any number of threads at once.

#include <cstdint>
#include <cstdio>  // stdout/stderr may be macros: keep the field names stable in every unit
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "core/Error.h"

namespace tavra {

// What one finished tool said.
struct ShellResult {
    // The exit status of a tool that exited, or the number of the signal that
    // ended it (15 after the time-out's SIGTERM).
    std::int32_t status = 0;
    // All of standard output / standard error, UTF-8 with invalid sequences
    // replaced by U+FFFD.
    std::string stdout;
    std::string stderr;

    bool ok() const noexcept { return status == 0; }
    // stdout without leading and trailing white space and newlines.
    std::string trimmed() const;

    bool operator==(const ShellResult&) const = default;
};

// A tool that ran but did not succeed (Shell::check only).
class ShellError : public Error {
public:
    struct Failed {
        std::string command;  // path and arguments joined by single blanks
        ShellResult result;
        bool operator==(const Failed&) const = default;
    };
    using Kind = std::variant<Failed>;

    // "{command} exited {status}: {stderr trimmed}"
    static ShellError failed(std::string command, ShellResult result);

    const Kind& kind() const noexcept { return kind_; }
    const std::string& command() const noexcept { return std::get<Failed>(kind_).command; }
    const ShellResult& result() const noexcept { return std::get<Failed>(kind_).result; }

private:
    ShellError(std::string description, Kind kind);
    Kind kind_;
};

// The tool could not be started at all (missing, not executable, a working
// directory that does not exist, no resources left). Description
// "{path}: {system message}", e.g. "/usr/bin/nope: No such file or directory".
class SpawnError : public Error {
public:
    SpawnError(std::string path, int code);

    const std::string& path() const noexcept { return path_; }
    int code() const noexcept { return code_; }  // the errno value

private:
    std::string path_;
    int code_;
};

namespace Shell {

using Environment = std::map<std::string, std::string>;

// Callers without a reason of their own for another limit pass this.
inline constexpr double kDefaultTimeout = 30.0;

// Runs `path` with `args` (not including argv[0], which is `path`) and waits
// for its end. `environment`, when given, is laid over the current process's
// environment key by key; otherwise the tool inherits it as is. `cwd`, when
// given, is the tool's working directory. `timeout` is in seconds; an infinite
// value means no limit. A non-zero status is not an error here.
// Throws SpawnError when the tool cannot be started.
ShellResult run(const std::string& path, const std::vector<std::string>& args,
                const std::optional<Environment>& environment = std::nullopt,
                const std::optional<std::string>& cwd = std::nullopt, double timeout = kDefaultTimeout);

// run(), then throws ShellError::failed when the status is not 0. A tool that
// cannot be started throws the same SpawnError as run().
ShellResult check(const std::string& path, const std::vector<std::string>& args,
                  const std::optional<Environment>& environment = std::nullopt,
                  const std::optional<std::string>& cwd = std::nullopt, double timeout = kDefaultTimeout);

// The common call without environment or working directory:
// Shell::run("/usr/bin/pmset", {"sleepnow"}, 15.0).
inline ShellResult run(const std::string& path, const std::vector<std::string>& args, double timeout) {
    return run(path, args, std::nullopt, std::nullopt, timeout);
}
inline ShellResult check(const std::string& path, const std::vector<std::string>& args, double timeout) {
    return check(path, args, std::nullopt, std::nullopt, timeout);
}

// ---- Pure pieces, shared by every backend ----------------------------------

// Bytes as UTF-8, each maximal invalid subsequence replaced by U+FFFD (the
// substitution practice Unicode recommends). Never throws for content.
std::string decodeUTF8(std::string_view bytes);

// Text without leading and trailing white space and line breaks, Unicode's
// (U+00A0, U+2028, U+3000, ...) included. Expects valid UTF-8.
std::string trimmingWhitespace(std::string_view text);

// `base` entries ("KEY=value", as in environ) with `overrides` laid over them:
// a key present in both takes the override's value in place; new keys follow
// in key order. Entries of `base` without '=' are kept as they are.
std::vector<std::string> mergedEnvironment(const std::vector<std::string>& base,
                                           const Environment& overrides);

// "path arg1 arg2": the command as ShellError names it.
std::string commandLine(const std::string& path, const std::vector<std::string>& args);

}  // namespace Shell
}  // namespace tavra
